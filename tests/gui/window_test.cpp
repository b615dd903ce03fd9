// The player window under a real X server (the tests labelled gui run under xvfb-run): real
// clicks with xdotool, the remote control client, and screenshots written into the build folder.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/support.h"

namespace {

using test::trim;
using test::wait_until;

// A 40-second MP3 made with the machine's tools.
std::string make_track(const test::TempDir& dir, const std::string& name) {
  std::string wav = dir.file(name + ".wav"), mp3 = dir.file(name + ".mp3");
  test::run("sox -q -n -r 44100 -c 2 -b 16 '" + wav + "' synth 40 sine 440 vol 0.3");
  test::run("lame --quiet -b 128 '" + wav + "' '" + mp3 + "'");
  return mp3;
}

struct Geometry {
  int x = 0, y = 0, w = 0, h = 0;
};

// One running tovra with its own settings, runtime folder and captured sound.
struct Player {
  const test::TempDir& dir;
  pid_t pid = -1;
  std::string window;

  explicit Player(const test::TempDir& d) : dir(d) {
    mkdir(dir.file("cfg").c_str(), 0700);
    mkdir(dir.file("run").c_str(), 0700);
    setenv("XDG_CONFIG_HOME", dir.file("cfg").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", dir.file("audio.raw").c_str(), 1);
  }
  ~Player() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  std::string ini() const { return dir.file("cfg") + "/tovra/tovra.ini"; }

  void start(std::vector<std::string> args, const std::string& binary = TOVRA_BIN) {
    pid = fork();
    if (pid == 0) {
      std::vector<char*> argv{const_cast<char*>(binary.c_str())};
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(binary.c_str(), argv.data());
      _exit(127);
    }
    ASSERT_TRUE(wait_until([this] {
      window = trim(test::run_output("xdotool search --onlyvisible --classname '^tovra$' 2>/dev/null | head -1"));
      return !window.empty() && remote("0") == "4352";
    })) << "no window";
  }
  int wait_exit() {
    int status = 0;
    for (int i = 0; i < 300 && waitpid(pid, &status, WNOHANG) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (waitpid(pid, &status, WNOHANG) == 0) return -1;
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string remote(const std::string& code, const std::string& arg = "") const {
    return trim(test::run_output(std::string(TOVRA_BIN) + " --remote " + code + " '" + arg + "' 2>/dev/null"));
  }
  std::string caption() const { return trim(test::run_output("xdotool getwindowname " + window)); }
  bool visible() const {
    return !trim(test::run_output("xdotool search --onlyvisible --classname '^tovra$' 2>/dev/null")).empty();
  }
  Geometry geometry() const {
    Geometry g;
    std::istringstream in(test::run_output("xdotool getwindowgeometry --shell " + window));
    std::string line;
    while (std::getline(in, line)) {
      auto value = [&line](const char* key, int& out) {
        size_t n = std::strlen(key);
        if (line.compare(0, n, key) == 0) out = std::atoi(line.c_str() + n);
      };
      value("X=", g.x);
      value("Y=", g.y);
      value("WIDTH=", g.w);
      value("HEIGHT=", g.h);
    }
    return g;
  }
  // Pointer actions at face coordinates (base space; scale 2 with "Double").
  std::string at(int x, int y, int scale = 1) const {
    Geometry g = geometry();
    return "xdotool mousemove --sync " + std::to_string(g.x + x * scale) + " " + std::to_string(g.y + y * scale);
  }
  void click(int x, int y, int scale = 1) const { test::run(at(x, y, scale) + " click 1"); }
  void double_click(int x, int y, int scale = 1) const {
    test::run(at(x, y, scale) + " click --repeat 2 --delay 60 1");
  }
  void drag(int x0, int y0, int x1, int y1) const {
    test::run(at(x0, y0) + " mousedown 1");
    test::run(at(x1, y1) + " mousemove_relative 0 0 mouseup 1");
  }
  // A screenshot of the window, kept in the build folder as the test's output.
  std::string shot(const std::string& name) const {
    Geometry g = geometry();
    std::string path = std::string(TOVRA_SHOT_DIR) + "/" + name + ".png";
    test::run("import -window root -crop " + std::to_string(g.w) + "x" + std::to_string(g.h) + "+" +
              std::to_string(g.x) + "+" + std::to_string(g.y) + " +repage '" + path + "'");
    return path;
  }
  // Pixels of a face rectangle as text, to tell whether a cell changed.
  std::string pixels(int x, int y, int w, int h) const {
    Geometry g = geometry();
    return test::run_output("import -window root -crop " + std::to_string(w) + "x" + std::to_string(h) + "+" +
                            std::to_string(g.x + x) + "+" + std::to_string(g.y + y) + " +repage rgb:- | md5sum");
  }
  int position_ms() const { return std::atoi(remote("105").c_str()); }
};

std::string ini_value(const std::string& file, const std::string& key) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, key.size() + 1, key + "=") == 0) return trim(line.substr(key.size() + 1));
  return {};
}

std::string text(const std::string& path) {
  std::vector<uint8_t> bytes = test::read_file(path);
  return std::string(bytes.begin(), bytes.end());
}

class Window : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_X_AND_TOOLS("xdotool", "import", "sox", "lame"); }
};

TEST_F(Window, EveryButtonReactsToARealClick) {
  test::TempDir dir;
  std::string a = make_track(dir, "a"), b = make_track(dir, "b");
  Player p(dir);
  p.start({a, b, "/P"});
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "1"; }));
  Geometry g = p.geometry();
  EXPECT_EQ(g.w, 288);
  EXPECT_EQ(g.h, 123);
  EXPECT_TRUE(wait_until([&] { return p.caption() == "1. a.mp3 - TOVRA"; })) << p.caption();
  EXPECT_TRUE(wait_until([&] { return p.position_ms() >= 1000; }));
  p.shot("window_1x");

  // Skip forward drops what was decoded ahead (the ring, a few seconds); skip back goes 320
  // frames (8.4 s) back once that many have been decoded.
  int before = p.position_ms();
  p.click(200, 77);
  EXPECT_TRUE(wait_until([&] { return p.position_ms() >= before + 1500; })) << before;
  EXPECT_TRUE(wait_until([&] { return p.position_ms() >= 8000; }));
  before = p.position_ms();
  p.click(166, 77);
  EXPECT_TRUE(wait_until([&] { return p.position_ms() < before - 1000; })) << before;

  p.click(235, 58);  // stop
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "0"; }));
  p.click(250, 105);  // play
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "1"; }));
  p.click(269, 58);  // pause
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "3"; }));
  p.click(269, 58);
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "1"; }));

  p.click(269, 79);  // next
  EXPECT_TRUE(wait_until([&] { return p.caption() == "2. b.mp3 - TOVRA"; })) << p.caption();
  // The new track's start is done once its time runs.
  EXPECT_TRUE(wait_until([&] { return p.position_ms() < 1000; }));
  EXPECT_TRUE(wait_until([&] { return p.position_ms() >= 1000; }));
  p.click(235, 79);  // previous
  EXPECT_TRUE(wait_until([&] { return p.caption() == "1. a.mp3 - TOVRA"; })) << p.caption();

  // Repeat cycles off, repeat, random and back: the button shows each.
  std::string r0 = p.pixels(102, 86, 56, 14);
  p.click(130, 93);
  std::string r1 = p.pixels(102, 86, 56, 14);
  p.click(130, 93);
  std::string r2 = p.pixels(102, 86, 56, 14);
  p.click(130, 93);
  EXPECT_NE(r0, r1);
  EXPECT_NE(r1, r2);
  EXPECT_EQ(p.pixels(102, 86, 56, 14), r0);

  // A double click three quarters along the seek bar seeks to about 30 s of 40.
  p.double_click(186, 52);
  EXPECT_TRUE(wait_until([&] {
    int ms = p.position_ms();
    return ms >= 28000 && ms <= 38000;
  })) << p.position_ms();

  // Sliders: the volume follows the pointer; the balance sticks at the centre near it.
  p.drag(13, 40, 13, 60);
  p.drag(30, 112, 44, 112);

  p.click(259, 12);  // shade
  EXPECT_TRUE(wait_until([&] { return p.geometry().h == 24; }));
  p.shot("window_shade");
  p.click(259, 12);
  EXPECT_TRUE(wait_until([&] { return p.geometry().h == 123; }));

  p.double_click(270, 44);  // double size
  EXPECT_TRUE(wait_until([&] { return p.geometry().w == 576 && p.geometry().h == 246; }));
  p.shot("window_2x");
  p.double_click(270, 44, 2);
  EXPECT_TRUE(wait_until([&] { return p.geometry().w == 288 && p.geometry().h == 123; }));

  p.click(276, 12);  // close
  EXPECT_EQ(p.wait_exit(), 0);
  EXPECT_EQ(ini_value(p.ini(), "Volume"), "111");
  EXPECT_EQ(ini_value(p.ini(), "Pan"), "45");
  EXPECT_GT(test::read_file(dir.file("audio.raw")).size(), 44100u * 4);
}

TEST_F(Window, RemoteControlDrivesARunningInstance) {
  test::TempDir dir;
  std::string a = make_track(dir, "a"), b = make_track(dir, "b");
  Player p(dir);
  p.start({});
  EXPECT_EQ(p.remote("124"), "0");
  EXPECT_EQ(p.remote("100", a), "0");
  EXPECT_EQ(p.remote("100", b), "0");
  EXPECT_EQ(p.remote("124"), "1");
  EXPECT_EQ(p.remote("211", "1"), b);
  EXPECT_EQ(p.remote("101"), "0");
  EXPECT_EQ(p.remote("211", "0"), "0");
  EXPECT_EQ(p.remote("106", "1000"), "-1");  // nothing plays

  p.remote("100", a);
  p.remote("102", "0");
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "1"; }));
  EXPECT_EQ(p.remote("105", "1"), "40");
  EXPECT_EQ(p.remote("106", "30000"), "0");
  EXPECT_TRUE(wait_until([&] { return p.position_ms() >= 29000; })) << p.position_ms();
  // Keys: Space stops a playing session, Enter starts it again.
  test::run("xdotool windowfocus --sync " + p.window + " key space");
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "0"; }));
  test::run("xdotool windowfocus --sync " + p.window + " key Return");
  EXPECT_TRUE(wait_until([&] { return p.remote("104") == "1"; }));
  EXPECT_EQ(p.remote("122", "0"), "0");
  EXPECT_EQ(p.remote("123", "255"), "0");

  // A second start hands its command line over and the first instance plays it.
  EXPECT_EQ(test::run(std::string(TOVRA_BIN) + " '" + b + "'"), 255);
  EXPECT_TRUE(wait_until([&] { return p.remote("211", "0") == b && p.remote("104") == "1"; }));
  EXPECT_TRUE(wait_until([&] { return p.caption() == "1. b.mp3 - TOVRA"; })) << p.caption();

  p.click(276, 12);
  EXPECT_EQ(p.wait_exit(), 0);
  EXPECT_EQ(ini_value(p.ini(), "Volume"), "153");
  EXPECT_EQ(ini_value(p.ini(), "Pan"), "67");
}

// The start: a saved place is clamped lopsidedly; plug-ins beside the executable load on the
// default platform and at exit are destroyed, and the NT family never looks at them.
TEST_F(Window, StartClampsThePlaceAndLoadsPluginsOnlyOnWin9x) {
  test::TempDir dir;
  Player p(dir);
  std::string bin = dir.file("bin");
  mkdir(bin.c_str(), 0755);
  mkdir((bin + "/Plugins").c_str(), 0755);
  test::run("cp '" TOVRA_BIN "' '" + bin + "/tovra'");
  test::run("cp '" TOVRA_PLUGIN_BOTH "' '" + bin + "/Plugins/both.so'");
  test::run("cp '" TOVRA_PLUGIN_NONE "' '" + bin + "/Plugins/none.so'");
  std::string log = dir.file("plugin.log");
  setenv("TOVRA_PLUGIN_LOG", log.c_str(), 1);
  mkdir((dir.file("cfg") + "/tovra").c_str(), 0700);
  std::ofstream(p.ini()) << "[Position]\nX=-73\nY=-42\n";

  p.start({}, bin + "/tovra");
  Geometry g = p.geometry();
  EXPECT_EQ(g.x, 0);
  EXPECT_EQ(g.y, 0);
  EXPECT_EQ(text(log), "xf");

  // Dragging by the title row: near an edge the window snaps to it, unless Shift is held.
  auto drag_by = [&p](int dx, int dy, const char* keys) {
    // Presses closer together than the double-click time would be a double click.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    test::run(p.at(150, 12) + " " + keys + " mousedown 1 mousemove_relative --sync -- " + std::to_string(dx) + " " +
              std::to_string(dy) + " mouseup 1");
  };
  drag_by(40, 40, "");
  EXPECT_TRUE(wait_until([&] { return p.geometry().x == 40 && p.geometry().y == 40; }));
  drag_by(-30, -30, "");
  EXPECT_TRUE(wait_until([&] { return p.geometry().x == 0 && p.geometry().y == 0; }))
      << p.geometry().x << "," << p.geometry().y;
  drag_by(10, 10, "keydown shift");
  test::run("xdotool keyup shift");
  EXPECT_TRUE(wait_until([&] { return p.geometry().x == 10 && p.geometry().y == 10; }))
      << p.geometry().x << "," << p.geometry().y;

  p.click(276, 12);
  EXPECT_EQ(p.wait_exit(), 0);
  EXPECT_EQ(text(log), "xfdd");

  std::remove(log.c_str());
  setenv("TOVRA_PLATFORM", "nt", 1);
  p.start({}, bin + "/tovra");
  p.click(276, 12);
  EXPECT_EQ(p.wait_exit(), 0);
  unsetenv("TOVRA_PLATFORM");
  unsetenv("TOVRA_PLUGIN_LOG");
  EXPECT_EQ(text(log), "");
}

TEST_F(Window, TrayRoundTripAndHotKey) {
  test::TempDir dir;
  Player p(dir);
  mkdir((dir.file("cfg") + "/tovra").c_str(), 0700);
  std::ofstream(p.ini()) << "[Settings]\nTray=1\n";
  p.start({});
  p.click(242, 12);  // minimise goes to the tray
  EXPECT_TRUE(wait_until([&] { return !p.visible(); }));
  test::run("xdotool key ctrl+shift+q");
  EXPECT_TRUE(wait_until([&] { return p.visible(); }));
  p.click(242, 12);
  EXPECT_TRUE(wait_until([&] { return !p.visible(); }));
  p.remote("999");  // an unknown code brings the window back
  EXPECT_TRUE(wait_until([&] { return p.visible(); }));
  p.click(276, 12);
  EXPECT_EQ(p.wait_exit(), 0);
}

// The mean brightness (0-1) of a rectangle of a screenshot.
double brightness(const std::string& png, int x, int y, int w, int h) {
  return std::atof(test::run_output("convert '" + png + "' -crop " + std::to_string(w) + "x" + std::to_string(h) + "+" +
                                    std::to_string(x) + "+" + std::to_string(y) +
                                    " +repage -colorspace gray -format '%[fx:mean]' info:")
                       .c_str());
}

// The display and the title, drawn by the wave and title threads while a sine and then silence
// play; a toolkit call from either thread would abort the program.
TEST_F(Window, DisplayShowsTheSoundAndTheTitleScrolls) {
  test::TempDir dir;
  std::string wav = dir.file("tone.wav"), sine = dir.file("tone.mp3"), quiet = dir.file("quiet.mp3");
  test::run("sox -q -n -r 44100 -c 2 -b 16 '" + wav + "' synth 40 sine 5000 vol 0.5");
  test::run("lame --quiet -b 128 '" + wav + "' '" + sine + "'");
  test::run("sox -q -n -r 44100 -c 2 -b 16 '" + wav + "' synth 40 sine 1000 vol 0");
  test::run("lame --quiet -b 128 '" + wav + "' '" + quiet + "'");
  Player p(dir);
  mkdir((dir.file("cfg") + "/tovra").c_str(), 0700);
  std::ofstream(p.ini()) << "[Settings]\nGraphics=2\n";
  p.start({sine, quiet, "/P"});
  EXPECT_TRUE(wait_until([&] { return p.position_ms() >= 2000; }));

  // 5 kHz is bin 14.5 of the 128-point transform at 44.1 kHz: the columns there stand tall.
  std::string spectrum = p.shot("display_spectrum_sine");
  EXPECT_GT(brightness(spectrum, 36 + 13, 31, 3, 10), brightness(spectrum, 36 + 50, 31, 3, 10) + 0.2);

  // The title moves and the time counts, also in the remaining mode.
  std::string title = p.pixels(118, 29, 160, 20), time = p.pixels(115, 67, 27, 5);
  EXPECT_TRUE(wait_until([&] { return p.pixels(118, 29, 160, 20) != title; }));
  EXPECT_TRUE(wait_until([&] { return p.pixels(115, 67, 27, 5) != time; }));
  p.double_click(125, 69);  // remaining time, in its own colour
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  p.shot("display_remaining");

  p.click(41, 60);  // Level
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_GT(brightness(p.shot("display_level_sine"), 33, 32, 70, 16), 0.01);

  // Silence: VU bars of length 0.
  p.click(91, 60);
  p.click(269, 79);  // next entry
  EXPECT_TRUE(wait_until([&] { return p.caption() == "2. quiet.mp3 - TOVRA"; })) << p.caption();
  // The wave thread draws once the device holds all it may: the format label shows then.
  EXPECT_TRUE(wait_until([&] { return brightness(p.shot("display_vu_silence"), 34, 30, 60, 5) > 0.05; }));
  EXPECT_EQ(brightness(p.shot("display_vu_silence"), 36, 37, 64, 9), 0.0);
  EXPECT_TRUE(p.visible());
}

}  // namespace
