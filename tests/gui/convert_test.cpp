// Single-file conversions from the window under a real X server (run under xvfb-run): each of the
// four converter menu entries driven with xdotool through its choosers, settings dialog and the
// progress dialog held open by "Hold"; every output must equal what tovra-cli's same job writes.
// Also the refusals: a second start while the progress dialog is open, and an 11025 Hz WAVE offered
// to the encoder.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
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

int windows_named(const std::string& name) {
  std::string s = test::run_output("xdotool search --onlyvisible --name '" + name + "' 2>/dev/null");
  int n = 0;
  for (char c : s) n += c == '\n';
  return n;
}
bool window_named(const std::string& name) { return windows_named(name) > 0; }

// Keys to the window of that name (the X server has no window manager to hand out focus).
void keys_to(const std::string& name, const std::string& keys) {
  test::run("xdotool search --onlyvisible --name '" + name + "' windowfocus --sync key " + keys + " 2>/dev/null");
}

TEST(Convert, FourConversionsFromTheMenuEqualTheCliAndRefusalsShow) {
  REQUIRE_X_AND_TOOLS("xdotool", "import", "sox", "lame", "ffmpeg");
  test::TempDir dir;
  mkdir(dir.file("cfg").c_str(), 0700);
  mkdir(dir.file("cfg/tovra").c_str(), 0700);
  mkdir(dir.file("run").c_str(), 0700);
  std::ofstream(dir.file("cfg/tovra/tovra.ini")) << "[Settings]\nHold=1\n";
  setenv("XDG_CONFIG_HOME", dir.file("cfg").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
  setenv("SDL_AUDIODRIVER", "dummy", 1);
  test::run("sox -q -n -r 44100 -c 2 -b 16 '" + dir.file("s.wav") + "' synth 2 sine 440 vol 0.3");
  test::run("sox -q -n -r 11025 -c 1 -b 16 '" + dir.file("low.wav") + "' synth 1 sine 440");
  test::run("lame --quiet -b 128 '" + dir.file("s.wav") + "' '" + dir.file("song.mp3") + "'");
  test::run("ffmpeg -v quiet -f lavfi -i sine=f=440:d=2 -c:a mp2 -b:a 128k -f mpeg '" + dir.file("sys.mpg") + "'");
  const std::string cli = std::string(TOVRA_CLI) + " ";
  auto in_dir = [&](const std::string& name) { return " '" + dir.file(name) + "'"; };
  test::run(cli + "decode" + in_dir("song.mp3") + in_dir("cli.wav") + " >/dev/null 2>&1");
  test::run(cli + "encode" + in_dir("s.wav") + in_dir("cli.mp3") +
            " --layer 3 --bitrate 128 --mode stereo --model 2 --original >/dev/null 2>&1");
  test::run(cli + "split" + in_dir("sys.mpg") + in_dir("cli.mpa") + " >/dev/null 2>&1");
  // The slider's start, 20, is the resampler's quality 21.
  test::run(cli + "resample" + in_dir("s.wav") + in_dir("cli_rs.wav") +
            " --rate 22050 --bits 16 --channels 2 --quality 21 >/dev/null 2>&1");

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
  std::string at = test::run_output("xdotool getwindowgeometry --shell " + main);
  int x = std::atoi(at.c_str() + at.find("X=") + 2), y = std::atoi(at.c_str() + at.find("Y=") + 2);
  // The "CONV" button opens the converter menu: decode, encode, split, resample.
  auto menu = [&](int entry, const std::string& input) {
    // No --sync: a pointer already in place would keep it waiting for a move.
    test::run("xdotool mousemove " + std::to_string(x + 187) + " " + std::to_string(y + 92) + " sleep 0.2 click 1");
    pause_ms(700);
    for (int i = 0; i < entry; ++i) test::run("xdotool key Down");
    test::run("xdotool key Return");
    pause_ms(1200);
    if (input.empty()) return;
    test::run("xdotool type --delay 100 ./" + input);
    test::run("xdotool key Return");
    pause_ms(1200);
  };
  // Takes the proposed name in the save chooser and waits for the job's end, held by "Hold".
  auto save_and_compare = [&](const std::string& out, const std::string& expected) {
    test::run("xdotool key Return");
    std::vector<uint8_t> want = test::read_file(dir.file(expected));
    for (int i = 0; i < 300 && test::read_file(dir.file(out)) != want; ++i) pause_ms(100);
    pause_ms(500);
    EXPECT_FALSE(want.empty()) << expected;
    EXPECT_EQ(test::read_file(dir.file(out)), want) << out;
  };
  auto close_progress = [&] {
    keys_to("^TOVRA convert - ", "Return");
    for (int i = 0; i < 50 && window_named("^TOVRA convert - "); ++i) pause_ms(100);
    EXPECT_FALSE(window_named("^TOVRA convert - "));
  };

  menu(1, "song.mp3");
  save_and_compare("song.wav", "cli.wav");
  shot("convert_progress");
  int before = windows_named("^TOVRA$");  // the main window's title follows the stream
  menu(1, "");                            // the progress dialog is still open: "他の処理をしています"
  EXPECT_GT(windows_named("^TOVRA$"), before);
  test::run("xdotool key Return");
  pause_ms(500);
  close_progress();

  menu(2, "s.wav");
  ASSERT_TRUE(window_named("^TOVRA MPEG/Audio Encode Settings$"));
  shot("convert_encode");
  keys_to("^TOVRA MPEG/Audio Encode Settings$", "Return");  // Layer III, 128 kbit/s, model 2 as proposed
  pause_ms(1200);
  save_and_compare("s.mp3", "cli.mp3");
  close_progress();

  menu(3, "sys.mpg");
  save_and_compare("sys.mpa", "cli.mpa");
  close_progress();

  menu(4, "s.wav");
  ASSERT_TRUE(window_named("^TOVRA - High Quality Resampling Tool$"));
  keys_to("^TOVRA - High Quality Resampling Tool$", "ctrl+a");
  test::run("xdotool type 22050");
  shot("convert_resample");
  test::run("xdotool key Return");
  pause_ms(1200);
  save_and_compare("s_rs.wav", "cli_rs.wav");
  close_progress();

  // An 11025 Hz WAVE is refused with its format, before any save chooser.
  menu(2, "low.wav");
  EXPECT_TRUE(window_named("^TOVRA Error$"));
  shot("convert_refused");
  keys_to("^TOVRA Error$", "Return");
  pause_ms(700);
  EXPECT_FALSE(window_named("^TOVRA Error$"));
  EXPECT_NE(access(dir.file("low.mp3").c_str(), F_OK), 0);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace
