// Single-file conversion from the window under a real X server (run under xvfb-run): the converter
// menu, the choosers and the progress dialog driven with xdotool; the output must equal what
// tovra-cli's same job writes, and a second start while the progress dialog is open is refused.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/support.h"

namespace {

std::string line_of(const std::string& command) {
  std::string s = test::run_output(command + " 2>/dev/null");
  return s.substr(0, s.find('\n'));
}

void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void shot(const std::string& file) {
  test::run("import -window root '" + std::string(TOVRA_SHOT_DIR) + "/" + file + ".png'");
}

int visible_windows() {
  std::string s = test::run_output("xdotool search --onlyvisible --name '.' 2>/dev/null");
  int n = 0;
  for (char c : s) n += c == '\n';
  return n;
}

TEST(Convert, DecodesFromTheMenuLikeTheCliAndRefusesASecondJob) {
  REQUIRE_X_AND_TOOLS("xdotool", "import", "sox", "lame");
  test::TempDir dir;
  mkdir(dir.file("cfg").c_str(), 0700);
  mkdir(dir.file("run").c_str(), 0700);
  setenv("XDG_CONFIG_HOME", dir.file("cfg").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
  setenv("SDL_AUDIODRIVER", "dummy", 1);
  test::run("sox -q -n -r 44100 -c 2 -b 16 '" + dir.file("s.wav") + "' synth 2 sine 440 vol 0.3");
  test::run("lame --quiet -b 128 '" + dir.file("s.wav") + "' '" + dir.file("song.mp3") + "'");

  pid_t pid = fork();
  if (pid == 0) {
    // The choosers open in the working folder, so only names are typed.
    if (chdir(dir.path.c_str()) != 0) _exit(127);
    execl(TOVRA_BIN, TOVRA_BIN, nullptr);
    _exit(127);
  }
  std::string main;
  for (int i = 0; i < 200 && main.empty(); ++i, pause_ms(50))
    main = line_of("xdotool search --onlyvisible --classname '^tovra$'");
  ASSERT_FALSE(main.empty());
  pause_ms(500);
  // The "CONV" button opens the converter menu; its first entry decodes.
  std::string at = test::run_output("xdotool getwindowgeometry --shell " + main);
  int x = std::atoi(at.c_str() + at.find("X=") + 2), y = std::atoi(at.c_str() + at.find("Y=") + 2);
  auto decode_from_menu = [&] {
    test::run("xdotool mousemove --sync " + std::to_string(x + 187) + " " + std::to_string(y + 92) + " click 1");
    pause_ms(700);
    test::run("xdotool key Down Return");
    pause_ms(1200);
  };
  decode_from_menu();
  test::run("xdotool type --delay 150 ./song.mp3");
  test::run("xdotool key Return");
  pause_ms(1200);
  shot("convert_save");
  test::run("xdotool key Return");  // the proposed "song" with the WAVE filter
  for (int i = 0; i < 100 && access(dir.file("song.wav").c_str(), F_OK) != 0; ++i) pause_ms(100);
  pause_ms(1000);
  shot("convert_progress");
  test::run(std::string(TOVRA_CLI) + " decode '" + dir.file("song.mp3") + "' '" + dir.file("cli.wav") +
            "' >/dev/null 2>&1");
  EXPECT_EQ(test::read_file(dir.file("song.wav")), test::read_file(dir.file("cli.wav")));

  int before = visible_windows();
  decode_from_menu();  // the progress dialog is still open: "他の処理をしています"
  shot("convert_busy");
  EXPECT_GT(visible_windows(), before);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace
