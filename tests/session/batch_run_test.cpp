// The batch worker: Cancel on one row ends only that row, in one process and in forked children.
#include "session/batch_run.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "session/messages.h"
#include "support/support.h"

namespace {

// ThreadSanitizer cannot follow a child forked from a threaded process that starts threads of its
// own: under it the rows in forked children are left to the other builds.
#if defined(__SANITIZE_THREAD__)
constexpr bool thread_sanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool thread_sanitizer = true;
#else
constexpr bool thread_sanitizer = false;
#endif
#else
constexpr bool thread_sanitizer = false;
#endif

session::BatchRun* run_seen = nullptr;
std::mutex status_lock;
std::atomic<int32_t> first_started{0};

void apply(int32_t, int32_t msg, int64_t state, int64_t row, bool) {
  if (msg != session::MSG_BATCH_JOB_STATE && msg != session::MSG_BATCH_RESAMPLE_STATE) return;
  std::lock_guard<std::mutex> hold(status_lock);
  session::apply_batch_state(*run_seen, int32_t(state), row);
  if (row == 0 && state == session::JOB_STARTED) first_started.store(1);
}

TEST(BatchRun, CancelOfOneRowLeavesTheRestToRun) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  test::TempDir dir;
  std::string wav = dir.file("in.wav");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 60 sine 440 vol 0.5"), 0);
  library::BatchList list;
  list.mode = library::BATCH_DECODE;
  library::BatchChoices c;
  c.out_dir = dir.path;
  ASSERT_EQ(test::run("lame --quiet -b 128 " + wav + " " + dir.file("b.mp3")), 0);
  // The cancelled row is ten minutes long (the same frames ten times over), so that it is still
  // running when the cancel comes on a loaded machine; a minute decodes in some 30 ms.
  std::string b = dir.file("b.mp3");
  ASSERT_EQ(test::run("for i in 1 2 3 4 5 6 7 8 9 10; do cat " + b + "; done > " + dir.file("a.mp3")), 0);
  ASSERT_EQ(test::run("cp " + b + " " + dir.file("c.mp3")), 0);
  for (const char* name : {"a.mp3", "b.mp3", "c.mp3"}) library::add_batch_entry(list, dir.file(name), c);
  session::set_sink({apply, nullptr});
  session::set_window_open(session::WINDOW_BATCH, true);
  for (int32_t jobs : {1, 2}) {
    if (jobs > 1 && thread_sanitizer) continue;
    session::BatchRun run;
    run.list = &list;
    run.jobs = jobs;
    run_seen = &run;
    first_started.store(0);
    ASSERT_EQ(session::start_batch(run), 0);
    while (!first_started.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    session::cancel_batch_row(run, 0);
    session::wait_job(run.worker);
    std::lock_guard<std::mutex> hold(status_lock);
    EXPECT_EQ(list.entries[0].status, library::STATUS_BREAK) << jobs;
    EXPECT_EQ(list.entries[1].status, library::STATUS_DONE) << jobs;
    EXPECT_EQ(list.entries[2].status, library::STATUS_DONE) << jobs;
    EXPECT_NE(test::run("test -e " + list.entries[0].target), 0) << "a cancelled row leaves no output";
  }
  session::set_window_open(session::WINDOW_BATCH, false);
  session::set_sink({});
}

}  // namespace
