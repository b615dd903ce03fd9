// The file job from start to end on the job runner: its start codes, its messages, cancel (its own,
// never another job's), and what it leaves on disk.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "decoder/decoder.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/tool_jobs.h"
#include "support/support.h"
#include "tools/split.h"

namespace {

struct Recorded {
  int32_t window, msg;
  int64_t wparam, lparam;
};

std::mutex record_lock;
std::vector<Recorded> recorded;
// Frames-done value at which the sink presses Cancel, 0 for never.
int64_t cancel_at = 0;
int32_t busy_code = -1;  // what a second start returned from inside the job
session::Job job;
// When set, the sink runs this at the first progress instead of cancelling.
void (*at_first_progress)() = nullptr;

void record(int32_t window, int32_t msg, int64_t wparam, int64_t lparam, bool) {
  std::unique_lock<std::mutex> lock(record_lock);
  recorded.push_back({window, msg, wparam, lparam});
  if (msg == session::MSG_PROGRESS_FRAMES && wparam == cancel_at) {
    lock.unlock();
    if (at_first_progress) return at_first_progress();
    // A second start while the job runs is refused, not queued.
    busy_code = session::start_decode_file(job, "/dev/null", "/dev/null");
    job.cancel.store(1);
  }
}

int32_t answer_box(int32_t, const char*, int32_t) { return session::ANSWER_OK; }

std::vector<uint8_t> silent_layer2(int frames) { return test::silent_layer2(frames, true); }

class FileJob : public ::testing::Test {
 protected:
  void SetUp() override {
    decoder::init_decoder_tables();
    session::set_sink({record, answer_box});
    session::set_window_open(session::WINDOW_PROGRESS, true);
    recorded.clear();
    cancel_at = 0;
    busy_code = -1;
    at_first_progress = nullptr;
    session::options = session::OutputOptions{};
    session::options.ext_filter = 0;
  }
  void TearDown() override {
    session::wait_job(job);
    session::set_sink({});
  }
  test::TempDir dir;
};

TEST_F(FileJob, ReportsEveryTenFramesThenTheTotalAndTheEnd) {
  // The last frame is cut short and junk with sync-like bytes follows: the job still ends as done.
  std::vector<uint8_t> bytes = silent_layer2(25);
  bytes.resize(bytes.size() - 200);
  bytes.insert(bytes.end(), {0xFF, 0xFF, 0xFF, 0x12});
  std::string in = dir.file("in.mp2"), out = dir.file("out.raw");
  test::write_file(in, bytes);
  ASSERT_EQ(session::start_decode_file(job, in.c_str(), out.c_str()), format::ERR_OK);
  session::wait_job(job);

  std::vector<int64_t> seen;  // message, wparam
  for (const Recorded& r : recorded) {
    seen.insert(seen.end(), {r.msg, r.wparam});
    EXPECT_EQ(r.window, session::WINDOW_PROGRESS);
    EXPECT_EQ(r.msg == session::MSG_PROGRESS_FRAMES ? r.lparam : 44100, 44100);
  }
  const int64_t frames = session::MSG_PROGRESS_FRAMES;
  EXPECT_EQ(seen, (std::vector<int64_t>{frames, 10, frames, 20, frames, 25, session::MSG_PROGRESS_END, 0}));
  // Two blocks of 576 mono samples a frame, every frame walked.
  EXPECT_EQ(test::read_file(out).size(), 25u * 2 * 1152);
  // At rest again: a new job may start.
  EXPECT_EQ((std::vector<int32_t>{job.busy.load(), job.end.load(), session::state.file_job_idle.load(),
                                  session::state.decoder_command.load()}),
            (std::vector<int32_t>{0, session::JOB_END_DONE, 1, session::CMD_STOP}));
}

// Whatever one file leaves behind in the decoder (synthesis history, reservoir, Layer III overlap,
// channel count, rate) must not reach the next: each file decoded after another in this process is
// bit for bit what a fresh tovra-cli makes of it. The files change layer, rate and channels.
TEST_F(FileJob, EachFileAfterAnotherDecodesAsInAFreshProcess) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  REQUIRE_TOOL("lame");
  const std::string stereo = dir.file("stereo.wav"), mono = dir.file("mono.wav");
  ASSERT_EQ(test::run("sox -R -q -n -r 44100 -c 2 -b 16 " + stereo + " synth 3 sine 200-6000 pinknoise vol 0.4"), 0);
  ASSERT_EQ(test::run("sox -R -q -n -r 22050 -c 1 -b 16 " + mono + " synth 3 pinknoise vol 0.5"), 0);
  const std::string files[] = {dir.file("a.mp3"), dir.file("b.mp2"), dir.file("c.mp1"), dir.file("d.mp3"),
                               dir.file("e.mp2")};
  ASSERT_EQ(test::run("lame --quiet -b 192 " + stereo + " " + files[0]), 0);
  ASSERT_EQ(test::run("twolame --quiet -b 224 " + stereo + " " + files[1]), 0);
  ASSERT_EQ(test::run(test::cli_path() + " encode " + stereo + " " + files[2] + " --layer 1 2>/dev/null"), 0);
  ASSERT_EQ(test::run("lame --quiet -m m -b 64 " + mono + " " + files[3]), 0);
  ASSERT_EQ(test::run("twolame --quiet -m m -b 96 " + mono + " " + files[4]), 0);
  for (const std::string& in : files) {
    SCOPED_TRACE(in);
    const std::string ours = in + ".raw", fresh = in + ".fresh.raw";
    ASSERT_EQ(session::start_decode_file(job, in.c_str(), ours.c_str()), format::ERR_OK);
    session::wait_job(job);
    ASSERT_EQ(job.end.load(), session::JOB_END_DONE);
    ASSERT_EQ(test::run(test::cli_path() + " decode " + in + " " + fresh + " --format raw 2>/dev/null"), 0);
    const std::vector<uint8_t> expected = test::read_file(fresh);
    EXPECT_GT(expected.size(), 44100u);
    EXPECT_TRUE(test::read_file(ours) == expected) << "differs from a fresh process's decode";
  }
}

TEST_F(FileJob, CancelEndsTheJobAndRemovesTheOutputUnlessLeave) {
  for (int leave = 0; leave <= 1; ++leave) {
    recorded.clear();
    session::options.leave = leave;
    cancel_at = 10;
    std::string in = dir.file("in.mp2"), out = dir.file("out" + std::to_string(leave) + ".raw");
    test::write_file(in, silent_layer2(40));
    ASSERT_EQ(session::start_decode_file(job, in.c_str(), out.c_str()), format::ERR_OK);
    session::wait_job(job);
    EXPECT_EQ(busy_code, format::ERR_BUSY);
    // Cancel is seen before the next frame is decoded: no total, just the end.
    ASSERT_EQ(recorded.size(), 2u);
    EXPECT_EQ(recorded[1].msg, session::MSG_PROGRESS_END);
    EXPECT_EQ(test::run("test -e " + out), leave ? 0 : 1) << "leave=" << leave;
    EXPECT_EQ(job.end.load(), session::JOB_END_CANCELLED);
  }
}

// Another job's Cancel, pressed and settled while the file job runs, leaves the file job alone.
TEST_F(FileJob, CancelBelongsToItsJob) {
  static test::TempDir* tmp = &dir;
  cancel_at = 10;
  at_first_progress = [] {
    std::vector<uint8_t> stream = {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x00, 0x01};
    for (int i = 0; i < 40; ++i) stream.insert(stream.end(), {0x00, 0x00, 0x01, 0xC0, 0x00, 0x01, 0x0F});
    test::write_file(tmp->file("in.mpg"), stream);
    session::Job other;
    ASSERT_EQ(session::start_split(other, tmp->file("in.mpg").c_str(), tmp->file("out.mpa").c_str()), 0);
    other.cancel.store(1);
    session::wait_job(other);
  };
  std::string in = dir.file("in.mp2"), out = dir.file("out.raw");
  test::write_file(in, silent_layer2(40));
  ASSERT_EQ(session::start_decode_file(job, in.c_str(), out.c_str()), format::ERR_OK);
  session::wait_job(job);
  EXPECT_EQ(job.end.load(), session::JOB_END_DONE);
  EXPECT_EQ(test::read_file(out).size(), 40u * 2 * 1152);
}

TEST_F(FileJob, RefusedStartsLeaveNoFileAndNeverTouchTheInput) {
  std::string good = dir.file("good.mp2"), junk = dir.file("junk.bin"), out = dir.file("out.raw");
  test::write_file(good, silent_layer2(3));
  test::write_file(junk, std::vector<uint8_t>(5000, 0x55));

  EXPECT_EQ(session::start_decode_file(job, dir.file("missing.mp2").c_str(), out.c_str()), format::ERR_OPEN_INPUT);
  EXPECT_EQ(session::start_decode_file(job, good.c_str(), dir.file("no/such/folder.raw").c_str()),
            format::ERR_OPEN_OUTPUT);
  // No frame anywhere: refused before the output is made; a file standing there stays as it was.
  test::write_file(out, {1, 2, 3});
  EXPECT_EQ(session::start_decode_file(job, junk.c_str(), out.c_str()), format::ERR_STREAM_REFUSED);
  EXPECT_EQ(test::read_file(out), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(session::reader.file, nullptr) << "a refused start closes the input";
  // The output is the input, by name, by a symbolic link or by a hard link.
  ASSERT_EQ(test::run("ln -s good.mp2 " + dir.file("soft.mp2") + " && ln " + good + " " + dir.file("hard.mp2")), 0);
  for (const char* name : {"good.mp2", "soft.mp2", "hard.mp2"})
    EXPECT_EQ(session::start_decode_file(job, good.c_str(), dir.file(name).c_str()), format::ERR_SAME_FILE);
  EXPECT_EQ(test::read_file(good), silent_layer2(3));
  EXPECT_EQ(job.busy.load(), 0);
  EXPECT_TRUE(recorded.empty());
}

}  // namespace
