// The playlist editor and the tag dialog under a real X server (run under xvfb-run): keys and
// clicks with xdotool, the playlist table read back through the remote control, tags read back from
// the files' last 128 bytes, and screenshots of both display modes in the build folder.
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
#include <vector>

#include "support/support.h"

namespace {

using test::wait_until;

std::string line_of(const std::string& command) {
  std::string s = test::run_output(command + " 2>/dev/null");
  return s.substr(0, s.find('\n'));
}

// The list view's rows as the default theme draws them: the first row's middle and the pitch.
constexpr int ROW0_Y = 62, ROW_H = 23;

struct Session {
  const test::TempDir& dir;
  pid_t pid = -1;
  std::string main;

  explicit Session(const test::TempDir& d, std::vector<std::string> args) : dir(d) {
    mkdir(dir.file("cfg").c_str(), 0700);
    mkdir(dir.file("run").c_str(), 0700);
    setenv("XDG_CONFIG_HOME", dir.file("cfg").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", dir.file("audio.raw").c_str(), 1);
    pid = fork();
    if (pid == 0) {
      std::vector<char*> argv{const_cast<char*>(TOVRA_BIN)};
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(TOVRA_BIN, argv.data());
      _exit(127);
    }
    wait_until([this] {
      main = line_of("xdotool search --onlyvisible --classname '^tovra$'");
      return !main.empty() && remote("0") == "4352";
    });
  }
  ~Session() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  std::string remote(const std::string& code, const std::string& arg = "") const {
    return line_of(std::string(TOVRA_BIN) + " --remote " + code + " '" + arg + "'");
  }
  std::string window(const std::string& name) const {
    return line_of("xdotool search --onlyvisible --name '" + name + "'");
  }
  std::string name(const std::string& window) const { return line_of("xdotool getwindowname " + window); }
  bool title_is(const std::string& window, const std::string& text) const {
    return wait_until([&] { return name(window) == text; });
  }
  void keys(const std::string& window, const std::string& keys) const {
    test::run("xdotool windowfocus --sync " + window + " key --delay 80 " + keys);
  }
  // The editor stands at the screen's corner (no window manager places it).
  void click_row(int row, int repeat = 1) const {
    test::run("xdotool mousemove --sync 100 " + std::to_string(ROW0_Y + row * ROW_H) + " click --repeat " +
              std::to_string(repeat) + " --delay 60 1");
  }
  void shot(const std::string& window, const std::string& file) const {
    test::run("import -window " + window + " '" + std::string(TOVRA_SHOT_DIR) + "/" + file + ".png'");
  }
};

std::vector<std::string> make_tracks(const test::TempDir& dir, int count, int seconds) {
  test::run("sox -q -n -r 44100 -c 2 -b 16 '" + dir.file("t.wav") + "' synth " + std::to_string(seconds) +
            " sine 440 vol 0.3");
  test::run("lame --quiet -b 128 '" + dir.file("t.wav") + "' '" + dir.file("t.mp3") + "'");
  std::vector<std::string> paths;
  for (int i = 1; i <= count; ++i) {
    paths.push_back(dir.file("track" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ".mp3"));
    test::run("cp '" + dir.file("t.mp3") + "' '" + paths.back() + "'");
  }
  return paths;
}

std::string tail(const std::string& path) {
  std::vector<uint8_t> b = test::read_file(path);
  return b.size() < 128 ? "" : std::string(b.end() - 128, b.end());
}

class Editor : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_X_AND_TOOLS("xdotool", "import", "sox", "lame"); }
};

TEST_F(Editor, EditsThePlaylistInBothModesAndPlaysByDoubleClick) {
  test::TempDir dir;
  std::vector<std::string> tracks = make_tracks(dir, 20, 30);
  std::vector<std::string> args = tracks;
  args.push_back("/O");
  Session s(dir, args);
  ASSERT_EQ(s.remote("124"), "19");
  s.keys(s.main, "l");
  std::string editor;
  ASSERT_TRUE(wait_until([&] { return !(editor = s.window("^TOVRA - PlayList Editor")).empty(); }));
  EXPECT_TRUE(s.title_is(editor, "TOVRA - PlayList Editor... 1 [1/20]"));
  s.shot(editor, "editor_names");

  // The tag mode reads every file again and puts the selection back on the current entry.
  s.click_row(2);
  EXPECT_TRUE(s.title_is(editor, "TOVRA - PlayList Editor... 3 [1/20]"));
  s.keys(editor, "alt+v t");
  EXPECT_TRUE(s.title_is(editor, "TOVRA - PlayList Editor... 1 [1/20]"));
  s.shot(editor, "editor_tags");

  // Delete row 3, move row 3 (track04 now) up; the table follows each step.
  s.click_row(2);
  s.keys(editor, "Delete");
  EXPECT_TRUE(s.title_is(editor, "TOVRA - PlayList Editor... 3 [1/19]"));
  EXPECT_EQ(s.remote("124"), "18");
  EXPECT_EQ(s.remote("211", "2"), tracks[3]);
  s.keys(editor, "alt+u");
  EXPECT_TRUE(wait_until([&] { return s.remote("211", "1") == tracks[3]; }));
  EXPECT_EQ(s.remote("211", "2"), tracks[1]);

  // A double click on row 5 (track06) plays it.
  s.click_row(4, 2);
  EXPECT_TRUE(wait_until([&] { return s.remote("104") == "1"; }));
  EXPECT_TRUE(s.title_is(s.main, "5. track06.mp3 - TOVRA")) << s.name(s.main);

  // Closing the program with the editor open keeps the editor's mode and size.
  test::run("xdotool windowsize --sync " + editor + " 500 420");
  std::string place = test::run_output("xdotool getwindowgeometry --shell " + s.main);
  auto value = [&place](const std::string& key) {
    return std::atoi(place.c_str() + place.find(key + "=") + key.size() + 1);
  };
  test::run("xdotool mousemove --sync " + std::to_string(value("X") + 276) + " " + std::to_string(value("Y") + 12) +
            " click 1");
  int status = -1;
  ASSERT_TRUE(wait_until([&] { return waitpid(s.pid, &status, WNOHANG) == s.pid; }));
  s.pid = -1;
  std::vector<uint8_t> ini = test::read_file(dir.file("cfg") + "/tovra/tovra.ini");
  std::string text(ini.begin(), ini.end());
  EXPECT_NE(text.find("Pl_disp=1"), std::string::npos) << text;
  EXPECT_NE(text.find("PXS=500"), std::string::npos) << text;
}

TEST_F(Editor, TagSeriesSavesAJapaneseTitleAndCopiesItToTheNextFile) {
  test::TempDir dir;
  std::vector<std::string> tracks = make_tracks(dir, 2, 2);
  Session s(dir, {tracks[0], tracks[1], "/O"});
  s.keys(s.main, "l");
  std::string editor;
  ASSERT_TRUE(wait_until([&] { return !(editor = s.window("^TOVRA - PlayList Editor")).empty(); }));
  s.keys(editor, "ctrl+a ctrl+t");
  std::string tag;
  ASSERT_TRUE(wait_until([&] { return !(tag = s.window("^TOVRA - ID3tag editor$")).empty(); }));
  test::run("xdotool windowfocus --sync " + tag + " type --delay 80 '日本語'");
  s.shot(tag, "tag_dialog");
  s.keys(tag, "Return");
  const std::string title = "TAG\x93\xfa\x96\x7b\x8c\xea" + std::string(24, ' ');  // code page 932
  ASSERT_TRUE(wait_until([&] { return tail(tracks[0]).compare(0, 33, title) == 0; }));
  EXPECT_EQ(uint8_t(tail(tracks[0])[127]), 247);  // no genre with the Japanese extension on
  // The series goes on to the second file, which takes the previous tag.
  std::string first = tag;
  ASSERT_TRUE(wait_until([&] { return (tag = s.window("^TOVRA - ID3tag editor$")) != first && !tag.empty(); }));
  // The copy button, clicked where the default theme lays it out (the dialog stands at the corner).
  test::run("xdotool mousemove --sync 267 296 click 1");
  s.keys(tag, "alt+s");
  EXPECT_TRUE(wait_until([&] { return tail(tracks[1]) == tail(tracks[0]); }))
      << test::run_output("tail -c 128 '" + tracks[1] + "' | xxd");
  EXPECT_TRUE(wait_until([&] { return s.window("^TOVRA - ID3tag editor$").empty(); }));
}

}  // namespace
