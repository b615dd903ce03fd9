// The player on its own private session bus: playerctl steers it and reads it back, the bus shows
// both MPRIS interfaces, and a track change reaches a listener as PropertiesChanged.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "support/support.h"

namespace {

using test::trim;
using test::wait_until;

// A bus of the test's own, so that nothing on the machine's session bus answers or listens.
struct PrivateBus {
  pid_t daemon = -1;
  PrivateBus() {
    std::string out = test::run_output("dbus-daemon --session --fork --print-address=1 --print-pid=1");
    size_t line = out.find('\n');
    if (line == std::string::npos) return;
    setenv("DBUS_SESSION_BUS_ADDRESS", out.substr(0, line).c_str(), 1);
    daemon = std::atoi(out.c_str() + line + 1);
  }
  ~PrivateBus() {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    if (daemon > 0) kill(daemon, SIGTERM);
  }
};

std::string playerctl(const std::string& args) {
  return trim(test::run_output("playerctl -p tovra " + args + " 2>/dev/null"));
}

TEST(Mpris, PlayerctlSteersAndReadsThePlayer) {
  REQUIRE_X_AND_TOOLS("dbus-daemon", "playerctl", "busctl", "gdbus", "sox", "lame");
  test::TempDir dir;
  PrivateBus bus;
  ASSERT_GT(bus.daemon, 0);
  for (const char* name : {"a", "b"}) {
    std::string wav = dir.file(std::string(name) + ".wav"), mp3 = dir.file(std::string(name) + ".mp3");
    test::run("sox -q -n -r 44100 -c 2 -b 16 '" + wav + "' synth 40 sine 440 vol 0.3");
    test::run("lame --quiet -b 128 " +
              std::string(name[0] == 'a' ? "--tt Alpha --ta Band --tl Record --id3v1-only " : "") + "'" + wav + "' '" +
              mp3 + "'");
  }
  mkdir(dir.file("cfg").c_str(), 0700);
  mkdir(dir.file("run").c_str(), 0700);
  setenv("XDG_CONFIG_HOME", dir.file("cfg").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", dir.file("audio.raw").c_str(), 1);
  pid_t player = fork();
  if (player == 0) {
    execl(TOVRA_BIN, TOVRA_BIN, dir.file("a.mp3").c_str(), dir.file("b.mp3").c_str(), "/P", nullptr);
    _exit(127);
  }
  ASSERT_TRUE(wait_until([] { return playerctl("status") == "Playing"; }));

  std::string objects =
      test::run_output("busctl --user introspect org.mpris.MediaPlayer2.tovra /org/mpris/MediaPlayer2");
  EXPECT_NE(objects.find("org.mpris.MediaPlayer2 "), std::string::npos) << objects;
  EXPECT_NE(objects.find("org.mpris.MediaPlayer2.Player "), std::string::npos) << objects;

  // The tag's fields, the length and the file's address.
  EXPECT_EQ(playerctl("metadata --format '{{xesam:title}}|{{xesam:artist}}|{{xesam:album}}|{{mpris:length}}'"),
            "Alpha|Band|Record|40000000");
  EXPECT_EQ(playerctl("metadata xesam:url"), "file://" + dir.file("a.mp3"));

  playerctl("pause");
  EXPECT_TRUE(wait_until([] { return playerctl("status") == "Paused"; }));
  playerctl("play");
  EXPECT_TRUE(wait_until([] { return playerctl("status") == "Playing"; }));
  playerctl("position 20");
  EXPECT_TRUE(wait_until([] { return std::atof(playerctl("position").c_str()) >= 19.0; })) << playerctl("position");

  // A track change arrives at a listener as PropertiesChanged with the new Metadata.
  std::string log = dir.file("monitor.txt");
  test::run("(timeout 30 gdbus monitor --session --dest org.mpris.MediaPlayer2.tovra > '" + log + "' 2>&1 &)");
  EXPECT_TRUE(wait_until([&] { return test::read_file(log).size() > 0; }));
  playerctl("next");
  EXPECT_TRUE(wait_until([] { return playerctl("metadata xesam:title") == "b.mp3"; }));
  EXPECT_TRUE(wait_until([&] {
    std::vector<uint8_t> bytes = test::read_file(log);
    std::string text(bytes.begin(), bytes.end());
    return text.find("PropertiesChanged") != std::string::npos && text.find("/org/tovra/track/1") != std::string::npos;
  }));

  playerctl("volume 0.25");
  EXPECT_NEAR(std::atof(playerctl("volume").c_str()), 0.25, 0.02);
  playerctl("stop");
  EXPECT_TRUE(wait_until([] { return playerctl("status") == "Stopped"; }));

  kill(player, SIGKILL);
  waitpid(player, nullptr, 0);
}

}  // namespace
