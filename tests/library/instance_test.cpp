#include "library/instance.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

#include "fixture.h"

namespace {

using namespace library;
using test::LibraryTest;

struct Recorder {
  std::vector<RemoteMessage> messages;
  HandOver hand_over;
  std::vector<int32_t> commands;
  int lines = 0;
};

int64_t record(void* context, const RemoteMessage& m) {
  auto* r = static_cast<Recorder*>(context);
  r->messages.push_back(m);
  if (m.msg == MSG_REMOTE && m.lparam == REMOTE_HAND_OVER) {
    int32_t commands[2];
    int32_t n = hand_over_message(r->hand_over, m.wparam, false, false, commands);
    if (m.wparam == 0) {
      ++r->lines;
      r->commands.assign(commands, commands + n);
    }
  }
  return 42;
}

// Serves the socket as a main loop would until done() holds, for at most five seconds.
template <typename Done>
void serve(InstanceServer& server, Recorder& r, Done done) {
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done() && std::chrono::steady_clock::now() < until) {
    poll_instance_server(server, record, &r);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

class InstanceTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(open_instance_server(server, dir.path), 1);
  }
  void TearDown() override {
    close_instance_server(server);
    LibraryTest::TearDown();
  }
  // A second start handing over line, with this process as the first instance.
  int32_t hand_over(const std::string& line) {
    int32_t delivered = -1;
    std::thread second([&] { delivered = hand_over_command_line(dir.path, line.c_str()); });
    int before = rec.lines;
    serve(server, rec, [&] { return rec.lines > before; });
    second.join();
    return delivered;
  }

  InstanceServer server;
  Recorder rec;
};

TEST_F(InstanceTest, SecondStartHandsItsCommandLineOverByteForByte) {
  append_entry("old.mp3");
  const std::string line = "a.mp3 \"b c.mp3\" \xe9\x9f\xb3.mp3 /P";
  ASSERT_EQ(hand_over(line), 1);
  ASSERT_EQ(rec.messages.size(), line.size() + 3);
  const RemoteMessage& fg = rec.messages[0];  // a sent request to come forward
  EXPECT_EQ(std::vector<int64_t>({fg.msg, fg.sent, fg.wparam, fg.lparam}),
            std::vector<int64_t>({MSG_REMOTE, 1, 0, REMOTE_FOREGROUND}));
  EXPECT_EQ(rec.messages[1].wparam, -1);  // reset
  for (size_t i = 0; i < line.size(); ++i) {
    EXPECT_EQ(rec.messages[i + 2].wparam, int64_t(int8_t(line[i])));  // sign-extended bytes
    EXPECT_EQ(rec.messages[i + 2].lparam, REMOTE_HAND_OVER);
    EXPECT_EQ(rec.messages[i + 2].sent, 0);
  }
  EXPECT_EQ(rec.messages.back().wparam, 0);
  EXPECT_EQ(entries(), (Paths{"a.mp3", "b c.mp3", "\xe9\x9f\xb3.mp3"}));
  EXPECT_EQ(rec.commands, (std::vector<int32_t>{40021}));

  ASSERT_EQ(hand_over("/O more.mp3"), 1);
  EXPECT_EQ(rec.commands, (std::vector<int32_t>{40022}));
  // A sent message waits for the handler's result.
  int64_t result = 0;
  std::atomic<bool> done{false};
  std::thread t([&] {
    EXPECT_EQ(send_remote_message(dir.path, RemoteMessage{MSG_REMOTE, 1, 5, 100}, &result), 1);
    done = true;
  });
  serve(server, rec, [&] { return done.load(); });
  t.join();
  EXPECT_EQ(result, 42);
}

TEST_F(InstanceTest, LongCommandLineIsCutAtTheBufferAndStillParsed) {
  std::string line = "/A";
  for (int i = 0; line.size() < 700; ++i) line += " track" + std::to_string(i) + ".mp3";
  ASSERT_EQ(hand_over(line), 1);
  const Paths got = entries();
  reset_playlist();
  take_command_line(line.substr(0, HAND_OVER_BYTES - 1).c_str(), false);
  EXPECT_EQ(got, entries());
  EXPECT_GT(got.size(), 40u);
  EXPECT_NE(got.back().size(), std::string("trackNN.mp3").size());  // the cut token
}

TEST_F(InstanceTest, HandOversArrivingTogetherAreNotMixed) {
  std::vector<std::string> lines;
  for (char c : {'a', 'b', 'c', 'd'}) lines.push_back("/A " + std::string(300, c) + ".mp3");
  std::vector<std::thread> starts;
  for (const std::string& l : lines) starts.emplace_back([&] { hand_over_command_line(dir.path, l.c_str()); });
  serve(server, rec, [&] { return rec.lines == 4; });
  for (std::thread& t : starts) t.join();
  ASSERT_EQ(rec.lines, 4);
  std::set<std::string> got;
  for (int32_t i = 0; i < playlist_length(); ++i) got.insert(entry(i));
  std::set<std::string> want;
  for (const std::string& l : lines) want.insert(l.substr(3, ENTRY_BYTES - 1));  // cut to a slot
  EXPECT_EQ(got, want);
}

TEST_F(InstanceTest, AnotherUserIsRefused) {
  EXPECT_TRUE(peer_allowed(1000, 1000));
  EXPECT_FALSE(peer_allowed(0, 1000));
  EXPECT_FALSE(peer_allowed(1000, 0));
  if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
  // Open the folder and the socket to everyone, so that only the credential check stands.
  ASSERT_EQ(chmod(dir.path.c_str(), 0755), 0);
  ASSERT_EQ(chmod(server.path.c_str(), 0777), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
    _exit(hand_over_command_line(dir.path, "evil.mp3") == 1 ? 1 : 0);
  }
  int status = -1;
  serve(server, rec, [&] { return waitpid(child, &status, WNOHANG) == child; });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);  // not delivered
  EXPECT_TRUE(rec.messages.empty());
  EXPECT_TRUE(server.peers.empty());
}

TEST_F(LibraryTest, OneInstanceHoldsTheLockAndTheSwitchesBypassIt) {
  EXPECT_TRUE(multi_instance_switch("-m"));
  EXPECT_TRUE(multi_instance_switch("/M x.mp3"));
  EXPECT_FALSE(multi_instance_switch("x.mp3 -m"));
  EXPECT_FALSE(multi_instance_switch("-x"));
  EXPECT_FALSE(multi_instance_switch(""));

  InstanceLock first, second;
  EXPECT_EQ(claim_instance("a.mp3", false, first, dir.path), 0);
  EXPECT_GE(first.fd, 0);
  EXPECT_EQ(take_instance_lock(second, dir.path), 0);
  // No window of the first instance listens: the command line is lost, the start still ends.
  EXPECT_EQ(claim_instance("a.mp3", false, second, dir.path), -1);
  EXPECT_EQ(claim_instance("-m a.mp3", false, second, dir.path), 0);
  EXPECT_EQ(claim_instance("a.mp3", true, second, dir.path), 0);
  EXPECT_EQ(second.fd, -1);
  EXPECT_EQ(claim_instance("a.mp3", false, second, ""), 0);  // no folder: run alone
  release_instance_lock(first);
  EXPECT_EQ(take_instance_lock(second, dir.path), 1);
  release_instance_lock(second);
}

TEST_F(LibraryTest, InstanceFolderIsPrivate) {
  const char* old = std::getenv("XDG_RUNTIME_DIR");
  const std::string saved = old ? old : "";
  setenv("XDG_RUNTIME_DIR", dir.path.c_str(), 1);
  const std::string folder = dir.path + "/tovra";
  struct stat st;
  for (int round = 0; round < 2; ++round) {  // made private, then made private again
    EXPECT_EQ(instance_folder(), folder);
    ASSERT_EQ(stat(folder.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  }
  ASSERT_EQ(rmdir(folder.c_str()), 0);
  ASSERT_EQ(symlink("/tmp", folder.c_str()), 0);
  EXPECT_EQ(instance_folder(), "");  // a link in its place is not ours
  old ? setenv("XDG_RUNTIME_DIR", saved.c_str(), 1) : unsetenv("XDG_RUNTIME_DIR");
}

// (Bytes beyond the buffer: LongCommandLineIsCutAtTheBufferAndStillParsed.)
TEST(HandOver, APausedPlayerStopsFirst) {
  HandOver h;
  int32_t commands[2] = {};
  library::reset_playlist();
  for (char c : std::string("a.mp3")) hand_over_message(h, c, false, false, commands);
  EXPECT_EQ(hand_over_message(h, 0, true, false, commands), 2);
  EXPECT_EQ(std::vector<int32_t>(commands, commands + 2), (std::vector<int32_t>{40022, 40021}));
  EXPECT_STREQ(library::playlist.entries[0].path, "a.mp3");
}

}  // namespace
