// stop_play's bound: a session whose thread never comes back to its frame loop (here a front end's
// hook that hangs) cannot end, and after 200 polls of 40 ms and a last 200 ms it is abandoned. The
// abandoned thread stays blocked for good, so the case runs in a child process of its own.
#include <cstdio>
#include <cstdlib>

#include "play_support.h"

namespace {

using namespace play_test;
using session::state;

// Runs in the child: returns 0 when everything held, else the number of the first check that failed.
std::atomic<int32_t> hook_entered{0};

int stop_on_a_session_that_hangs(const std::string& track) {
  session::play_hooks.title_new_track = [] {
    hook_entered.store(1);
    for (;;) sleep_ms(1000);
  };
  library::append_entry(track.c_str());
  if (session::start_play() != format::ERR_OK) return 1;
  if (!wait_until([] { return hook_entered.load() == 1; })) return 2;
  int32_t generation = session::play_generation.load();
  auto begin = std::chrono::steady_clock::now();
  session::stop_command();
  auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  // 200 x 40 ms and 200 ms: the sleeps alone come to 8.2 seconds.
  if (waited.count() < 8200) return 3;
  std::vector<Box> b = boxes_shown();
  if (b.size() != 1 || b[0].code != format::ERR_TIMEOUT) return 4;
  if (state.decoder_running.load() != 0 || session::play_thread_handle.load() != 0) return 5;
  if (session::play_generation.load() == generation) return 6;
  if (output::ring.ring_base != nullptr) return 7;  // forgotten, not freed: the old thread may still write
  if (state.decoder_command.load() != session::CMD_STOP) return 8;
  // A second stop has nothing to wait for.
  if (session::stop_play() != 1) return 9;
  return 0;
}

TEST_F(PlaySession, StopGivesUpOnASessionThatCannotEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child leaves with _Exit, before a sanitizer could turn a report into its exit status: in a
  // ThreadSanitizer build make the first report end the child at once instead.
  std::string tsan = std::getenv("TSAN_OPTIONS") ? std::getenv("TSAN_OPTIONS") : "";
  setenv("TSAN_OPTIONS", (tsan + " halt_on_error=1").c_str(), 1);
  std::string track = add_track("long.mp2", silent_layer2(2000));
  library::reset_playlist();
  EXPECT_EXIT(
      {
        int code = stop_on_a_session_that_hangs(track);
        std::fflush(nullptr);
        // Threads stay blocked behind the abandoned session: leave without running destructors.
        std::_Exit(code);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
