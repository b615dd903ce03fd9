// The transport words and the main window's sequences: what each operation writes, when it is a
// no-op, and how Next, Previous, Repeat and Random move through the list.
#include "play_support.h"
#include "session/stream.h"

namespace {

using namespace play_test;
using session::state;

class Transport : public PlaySession {
 protected:
  void SetUp() override {
    PlaySession::SetUp();
    state.file_job_active.store(0);
    state.seek_target.store(-7);
    session::stream.frame_count = 1000;
    session::stream.play_seconds = 10;
    session::publish_stream();
  }
};

TEST_F(Transport, SeekBarAndStepsActOnlyOnARunningSession) {
  // Nothing running: the bar and the steps leave the word alone.
  session::seek_percent(44);
  session::seek_forward();
  session::seek_back();
  session::seek_milliseconds(5000);
  EXPECT_EQ(state.decoder_command.load(), session::CMD_STOP);
  EXPECT_EQ(state.seek_target.load(), -7);

  // The bar's pixel goes through two integer divisions: 44 is 50 %, 87 is 98 %, 1 is 1 %.
  const int32_t pixels[] = {0, 1, 44, 87};
  const int32_t targets[] = {0, 10, 500, 980};
  for (int i = 0; i < 4; ++i) {
    state.decoder_command.store(session::CMD_RUN);
    session::seek_percent(pixels[i]);
    EXPECT_EQ(state.decoder_command.load(), session::CMD_JUMP);
    EXPECT_EQ(state.seek_target.load(), targets[i]) << "pixel " << pixels[i];
  }
  // A pending jump is not replaced by the bar, but a step needs the word at rest too.
  session::seek_percent(10);
  EXPECT_EQ(state.seek_target.load(), 980);
  session::seek_forward();
  EXPECT_EQ(state.decoder_command.load(), session::CMD_JUMP);

  state.decoder_command.store(session::CMD_RUN);
  session::seek_forward();
  EXPECT_EQ(state.decoder_command.load(), session::CMD_FORWARD);
  state.decoder_command.store(session::CMD_RUN);
  session::seek_back();
  EXPECT_EQ(state.decoder_command.load(), session::CMD_BACK);
  // Not while a file job runs.
  state.decoder_command.store(session::CMD_RUN);
  state.file_job_active.store(1);
  session::seek_back();
  EXPECT_EQ(state.decoder_command.load(), session::CMD_RUN);
  state.file_job_active.store(0);
}

TEST_F(Transport, JumpToAFrameOverridesAndAMillisecondRequestIsRounded) {
  // seek_frame writes the word whatever stands in it, a session or none.
  session::seek_frame(123);
  EXPECT_EQ(state.decoder_command.load(), session::CMD_JUMP);
  EXPECT_EQ(state.seek_target.load(), 123);
  state.decoder_command.store(session::CMD_BACK);
  session::seek_frame(5);
  EXPECT_EQ(state.decoder_command.load(), session::CMD_JUMP);

  // Remote control asks in milliseconds of a 10 s stream of 1000 frames: 64-bit, rounded.
  session::stream.frame_count = 383;
  session::publish_stream();
  const int32_t ms[] = {5000, 26, 10000, 10001, 0};
  const int32_t frames[] = {192, 1, 383, 383, 0};
  for (int i = 0; i < 5; ++i) {
    state.decoder_command.store(session::CMD_RUN);
    session::seek_milliseconds(ms[i]);
    EXPECT_EQ(state.seek_target.load(), frames[i]) << ms[i] << " ms";
  }
}

TEST_F(Transport, AJumpLeftStandingDoesNotBlockTheNextStart) {
  add_track("a.mp2", silent_layer2(21));
  session::seek_frame(3);
  output::test_device_set_player(1);
  EXPECT_EQ(session::start_play(), format::ERR_OK);
  EXPECT_TRUE(wait_session_end());
  EXPECT_EQ(output::test_device_record().played_blocks, 6);  // 21 frames: five blocks and a padded one
}

TEST_F(Transport, RepeatAndRandomCycleAndStartANewRound) {
  library::playlist.play_counts[3].store(9);
  // The skin button cycles off, on, random; entering random starts a new round of counts.
  session::repeat_command(true);
  EXPECT_EQ(session::options.repeat, 1);
  EXPECT_EQ(library::playlist.play_counts[3].load(), 9);
  session::repeat_command(true);
  EXPECT_EQ(session::options.repeat, 2);
  EXPECT_EQ(library::playlist.play_counts[3].load(), 0);
  session::repeat_command(true);
  EXPECT_EQ(session::options.repeat, 0);
  // The menu toggles: off or random to on, on to off.
  session::repeat_command(false);
  EXPECT_EQ(session::options.repeat, 1);
  session::repeat_command(false);
  EXPECT_EQ(session::options.repeat, 0);
  session::options.repeat = 2;
  session::repeat_command(false);
  EXPECT_EQ(session::options.repeat, 1);
  // Random: on from off or repeat (a new round), off from random.
  library::playlist.play_counts[3].store(9);
  session::random_command();
  EXPECT_EQ(session::options.repeat, 2);
  EXPECT_EQ(library::playlist.play_counts[3].load(), 0);
  session::random_command();
  EXPECT_EQ(session::options.repeat, 0);
}

TEST_F(Transport, NextAndPreviousWrapAtTheListsEndsEvenInRandomMode) {
  for (const char* name : {"a.mp2", "b.mp2", "c.mp2"}) add_track(name, silent_layer2(400));
  output::test_device_set_player(2);
  session::options.repeat = 2;  // Next and Previous still go in list order

  // Each command waits for the device to open before the next one counts.
  auto opened = [] { return state.play_requested.load() == 0; };
  library::playlist.current_entry.store(2);
  session::next_command();
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
  EXPECT_EQ(state.decoder_running.load(), 1);
  // A second Next before the device is open is ignored.
  session::next_command();
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
  ASSERT_TRUE(wait_until(opened));
  session::next_command();
  EXPECT_EQ(library::playlist.current_entry.load(), 1);
  ASSERT_TRUE(wait_until(opened));
  session::previous_command();
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
  ASSERT_TRUE(wait_until(opened));
  session::previous_command();  // below 0: from 999 back over the empty slots to the last entry
  EXPECT_EQ(library::playlist.current_entry.load(), 2);
  ASSERT_TRUE(wait_until(opened));
  EXPECT_EQ(state.decoder_running.load(), 1);
  EXPECT_EQ(count_of(output::test_device_record().calls, 'O'), 4);

  // Play while playing starts the track again.
  session::options.repeat = 0;
  session::play_command(0);
  EXPECT_TRUE(wait_until([] { return count_of(output::test_device_record().calls, 'O') == 5; }));
  EXPECT_EQ(library::playlist.current_entry.load(), 2);
  session::stop_command();
  EXPECT_EQ(state.decoder_running.load(), 0);
  EXPECT_TRUE(boxes_shown().empty());
}

}  // namespace
