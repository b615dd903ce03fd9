// The batch window under a real X server (run under xvfb-run): each mode takes a folder through the
// drop handler (fed by TOVRA_BATCH_DROP, since an X server without a drag source can't drop), saves
// and loads its .m3e list, and converts (the decoder's rows set to raw by the context menu); the outputs equal
// tovra-cli batch's for the same list. An encoding batch of ten rows loses the one cancelled mid-run and finishes the
// rest.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "support/support.h"

namespace {

bool wait_until(const std::function<bool()>& done, int seconds = 60) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return done();
}

std::string line_of(const std::string& command) {
  std::string s = test::run_output(command + " 2>/dev/null");
  return s.substr(0, s.find('\n'));
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

struct Program {
  test::TempDir& dir;
  pid_t pid = -1;
  std::string main;

  explicit Program(test::TempDir& d) : dir(d) {
    mkdir(dir.file("cfg").c_str(), 0700);
    mkdir(dir.file("run").c_str(), 0700);
    setenv("XDG_CONFIG_HOME", dir.file("cfg").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    setenv("TOVRA_BATCH_DROP", dir.file("drop.txt").c_str(), 1);
    pid = fork();
    if (pid == 0) {
      execl(TOVRA_BIN, TOVRA_BIN, static_cast<char*>(nullptr));
      _exit(127);
    }
    wait_until([this] { return !(main = line_of("xdotool search --onlyvisible --classname '^tovra$'")).empty(); });
  }
  ~Program() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  std::string batch() const { return line_of("xdotool search --onlyvisible --name '^(Ready|\\[)'"); }
  std::string title() const { return line_of("xdotool getwindowname " + batch()); }
  void keys(const std::string& window, const std::string& keys) const {
    test::run("xdotool windowfocus --sync " + window + " key --delay 80 " + keys);
  }
  // Opens the window in a mode (its key on the main window) with drop.txt's paths dropped on it.
  void open(const std::string& key, const std::string& drop, const std::string& ready) {
    std::ofstream(dir.file("drop.txt")) << drop << "\n";
    keys(main, key);
    ASSERT_TRUE(wait_until([&] { return title() == ready; }));
  }
  void save(const std::string& path) const {
    keys(batch(), "ctrl+s");
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    test::run("xdotool key --delay 20 ctrl+a type --delay 20 '" + path + "'");
    test::run("xdotool key Return");
    wait_until([&] { return exists(path); });
  }
  void shot(const std::string& file) const {
    test::run("import -window " + batch() + " '" + std::string(TOVRA_SHOT_DIR) + "/" + file + ".png'");
  }
};

// Runs a list with tovra-cli batch into out and compares every output the window wrote beside the
// sources with the CLI's.
void expect_same_as_cli(test::TempDir& dir, const std::string& list, const std::string& args,
                        const std::vector<std::string>& targets) {
  std::string out = dir.file("cli_" + std::to_string(targets.size()) + args.substr(2, 3));
  mkdir(out.c_str(), 0700);
  test::run("'" + test::cli_path() + "' batch '" + list + "' " + args + " --jobs 1 --out '" + out +
            "' >/dev/null 2>&1");
  for (const std::string& t : targets) {
    SCOPED_TRACE(t);
    std::vector<uint8_t> cli = test::read_file(out + t.substr(t.rfind('/')));
    ASSERT_FALSE(cli.empty());
    EXPECT_TRUE(test::read_file(t) == cli);
  }
}

TEST(BatchWindow, ThreeModesFillSaveLoadAndConvertLikeTheCli) {
  REQUIRE_X_AND_TOOLS("xdotool", "import", "sox", "lame");
  test::TempDir dir;
  for (const char* d : {"wav", "mp3", "rs"}) mkdir(dir.file(d).c_str(), 0700);
  std::vector<std::string> encoded, decoded, resampled;
  for (int i = 0; i < 10; ++i) {
    std::string name = dir.file("wav/w" + std::to_string(i));
    test::run("sox -q -n -r 44100 -c 2 -b 16 '" + name + ".wav' synth 60 sine " + std::to_string(300 + 50 * i) +
              " vol 0.3");
    encoded.push_back(name + ".mp3");
  }
  for (int i = 0; i < 2; ++i) {
    std::string name = dir.file("mp3/m" + std::to_string(i));
    test::run("lame --quiet -b 128 '" + dir.file("wav/w" + std::to_string(i)) + ".wav' '" + name + ".mp3'");
    decoded.push_back(name + ".wav");
    test::run("cp '" + dir.file("wav/w" + std::to_string(i)) + ".wav' '" + dir.file("rs/r" + std::to_string(i)) +
              ".wav'");
    resampled.push_back(dir.file("rs/r" + std::to_string(i)) + "_rs.wav");
  }
  Program p(dir);
  ASSERT_FALSE(p.main.empty());

  // Decode: a folder scan, the list saved, cleared and loaded again, then converted.
  p.open("d", dir.file("mp3"), "Ready TOVRA decoder");
  p.save(dir.file("dec.m3e"));
  EXPECT_EQ(test::run_output("cat '" + dir.file("dec.m3e") + "'"),
            dir.file("mp3/m0.mp3") + "\r\n" + dir.file("mp3/m1.mp3") + "\r\n");
  p.keys(p.batch(), "alt+l");
  p.open("d", dir.file("dec.m3e"), "Ready TOVRA decoder");
  // Both rows to raw by the list's context menu (40061): the targets take the extension.
  test::run("xdotool mousemove --window " + p.batch() + " --sync 200 70 click 1");
  p.keys(p.batch(), "ctrl+a");
  test::run("xdotool click 3 sleep 0.5 key r");
  for (std::string& d : decoded) d.replace(d.size() - 3, 3, "raw");
  p.shot("batch_decode");
  p.keys(p.batch(), "Return");
  ASSERT_TRUE(wait_until([&] { return exists(decoded[1]) && p.title() == "Ready TOVRA decoder"; }));
  p.shot("batch_decode_done");
  expect_same_as_cli(dir, dir.file("dec.m3e"), "--mode decode --format raw", decoded);

  // Resample: another mode closes the idle window and opens its own.
  p.open("g", dir.file("rs"), "Ready TOVRA re-sampler");
  p.save(dir.file("rs.m3e"));
  p.keys(p.batch(), "Return");
  ASSERT_TRUE(wait_until([&] { return exists(resampled[1]) && p.title() == "Ready TOVRA re-sampler"; }));
  p.shot("batch_resample_done");
  expect_same_as_cli(dir, dir.file("rs.m3e"), "--mode resample --rate 22050", resampled);

  // Encode ten rows; the sixth is cancelled while the batch runs and the rest go on.
  p.open("e", dir.file("wav"), "Ready TOVRA encoder");
  p.save(dir.file("enc.m3e"));
  p.shot("batch_encode");
  p.keys(p.batch(), "Return");
  bool remaining = wait_until([&] { return p.title().find(" min left") != std::string::npos; });
  test::run("xdotool mousemove --sync 100 185 click 1");
  p.keys(p.batch(), "Delete");
  p.shot("batch_encode_running");
  EXPECT_TRUE(remaining);
  ASSERT_TRUE(wait_until([&] { return exists(encoded[9]) && p.title() == "Ready TOVRA encoder"; }, 300));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the buttons' repaint
  p.shot("batch_encode_done");
  // The cancelled entry stays in the list (a save gives the same list) without its output.
  p.save(dir.file("enc_after.m3e"));
  EXPECT_EQ(test::read_file(dir.file("enc_after.m3e")), test::read_file(dir.file("enc.m3e")));
  std::vector<std::string> kept = encoded;
  kept.erase(kept.begin() + 5);
  expect_same_as_cli(dir, dir.file("enc.m3e"), "--mode encode --layer 3 --model 2 --original", kept);
}

}  // namespace
