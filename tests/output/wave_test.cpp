// The wave thread on the test device: priming and the steady loop, the position from returned
// blocks, the drain of a short track, pause, a seek's reset and re-priming, abort, the volume fade,
// and a thread given up with its session. The test's own thread plays the session thread: it opens,
// fills the ring and sets the commands.
#include "output/wave.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "output/feed.h"
#include "output/ring.h"
#include "output/wave_device_test.h"
#include "session/session.h"

namespace {

using namespace output;
using session::state;

// Opens the device as the play session does, with the session's words and choices.
int32_t open_device(int32_t rate, bool two_channels) {
  if (!session_link.command) session_link = {&state.decoder_command, &state.paused, nullptr};
  return wave_open(rate, two_channels, {state.session_stereo, state.session_16bit, state.rate_shift});
}

bool wait_until(const std::function<bool()>& done, int32_t ms = 10000) {
  for (int32_t waited = 0; waited < ms && !done(); ++waited) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}

using feed::stream_bytes;
using feed::with_pad;

struct WaveThread : ::testing::Test {
  uint32_t pushed = 0;

  void SetUp() override {
    wave_reset_state();
    test_device_clear();
    test_device_set_volume(0xFFFFFFFF);
    set_wave_device(test_wave_device());
    ring_allocate();
    state.session_stereo = 1;
    state.session_16bit = 1;
    state.rate_shift = 0;
    state.paused = 0;
    state.decoder_command = session::CMD_RUN;
    wave.wave_wait_ms = 5;
    wave.wait_ms = 2;
    wave.cpu_family = 6;
  }

  void TearDown() override {
    if (wave.wave_running.load()) command(WAVE_ABORT);
    EXPECT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }));
    test_device_set_player(0);
  }

  void push(uint32_t bytes) { feed::push(bytes, pushed); }

  // The session's commands; drain is the end of stream, and waits for the thread to end.
  static void command(int32_t c) {
    wave.wave_command = c;
    wave.wave_event.set();
  }
  void drain() {
    command(WAVE_DRAIN);
    ASSERT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }));
  }
  static void expect_format(int32_t rate, int32_t channels, int32_t bits) {
    const WaveFormat& f = test_device_record().format;
    EXPECT_EQ(std::vector<int32_t>({f.sample_rate, f.channels, f.bits, f.block_align, f.byte_rate}),
              std::vector<int32_t>({rate, channels, bits, channels * bits / 8, rate * channels * bits / 8}));
  }

  static size_t writes() { return test_device_record().lengths.size(); }
};

TEST_F(WaveThread, PrimesPausedThenRunsAndDrainsWithAPaddedBlock) {
  ASSERT_EQ(open_device(44100, true), 0);
  expect_format(44100, 2, 16);

  push(10 * BLOCK_BYTES);
  ASSERT_TRUE(wait_until([] { return writes() == 10; }));
  TestDeviceRecord rec = test_device_record();
  // Six blocks written to the paused device, then it runs and the rest follow one by one.
  EXPECT_EQ(rec.calls, "OPWWWWWWRWWWW");
  EXPECT_EQ(rec.written, stream_bytes(0, 10 * BLOCK_BYTES));
  EXPECT_EQ(wave.free_blocks.load(), 32 - 6 - 10);

  // Position: 16 units a block; 16-bit stereo at 44100 passes a second within the tenth block.
  EXPECT_EQ(test_device_play(9), 9);
  EXPECT_EQ(wave.output_count.load(), 144);
  EXPECT_EQ(wave.display_seconds.load(), 0u);
  EXPECT_EQ(test_device_play(1), 1);
  EXPECT_EQ(wave.display_seconds.load(), 1u);
  EXPECT_EQ(wave.free_blocks.load(), 26);

  // The end: five units are left; they go out padded with 128, 0, ... and the close waits for them.
  push(5 * UNIT_BYTES);
  command(WAVE_DRAIN);
  ASSERT_TRUE(wait_until([] { return writes() == 11; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(wave.wave_running.load(), 1);  // still waiting for the last block
  EXPECT_EQ(test_device_play(1), 1);
  ASSERT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }));

  rec = test_device_record();
  EXPECT_EQ(rec.calls, "OPWWWWWWRWWWWWXC");
  const std::vector<uint8_t> last(rec.written.end() - BLOCK_BYTES, rec.written.end());
  EXPECT_EQ(last, with_pad(stream_bytes(10 * BLOCK_BYTES, 5 * UNIT_BYTES)));
  EXPECT_FALSE(rec.open);
  EXPECT_EQ(wave.wave_device.load(), 0);
  EXPECT_EQ(ring.ring_fill.load(), 0);
  EXPECT_EQ(rec.volumes.back(), 0xFFFFFFFFu);  // the device's own volume put back
}

TEST_F(WaveThread, PauseHoldsBlocksAndASeekResetsAndReprimes) {
  ASSERT_EQ(open_device(48000, true), 0);
  push(8 * BLOCK_BYTES);
  ASSERT_TRUE(wait_until([] { return writes() == 8; }));

  toggle_pause();
  EXPECT_EQ(state.paused.load(), 1);
  EXPECT_EQ(test_device_play(3), 0);
  toggle_pause();
  EXPECT_EQ(state.paused.load(), 0);
  EXPECT_EQ(test_device_play(2), 2);
  EXPECT_EQ(test_device_record().queued, 6);

  // The session's side of a jump.
  wave.output_count = 1000;
  wave.wave_command = WAVE_JUMP;
  ring_reset_for_seek();
  wave.wave_event.set();
  ASSERT_TRUE(wait_until([] { return test_device_record().calls.size() >= 17; }));
  ASSERT_TRUE(wait_until([] { return wave.wave_command.load() == WAVE_RUN; }));
  EXPECT_EQ(test_device_record().reset_blocks, 6);
  EXPECT_EQ(wave.output_count.load(), 1000 + 6 * 16);  // the reset's returns count as played

  const uint32_t from = pushed;
  push(4 * BLOCK_BYTES);
  ASSERT_TRUE(wait_until([] { return writes() == 12; }));
  TestDeviceRecord rec = test_device_record();
  // Pause and restart; the jump's pause, reset and restart; a new round primes three blocks.
  EXPECT_EQ(rec.calls, "OPWWWWWWRWWPRPXRPWWWRW");
  const std::vector<uint8_t> after(rec.written.begin() + 8 * BLOCK_BYTES, rec.written.end());
  EXPECT_EQ(after, stream_bytes(from, 4 * BLOCK_BYTES));
  EXPECT_EQ(wave.free_blocks.load(), 32 - 3 - 4);

  command(WAVE_ABORT);
  ASSERT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }));
  rec = test_device_record();
  EXPECT_EQ(rec.calls.substr(rec.calls.size() - 3), "PXC");
  EXPECT_EQ(rec.queued, 0);
  EXPECT_EQ(wave.wave_device.load(), 0);
}

std::atomic<int32_t> display_steps{0};
std::atomic<int32_t> first_frame{-1};
std::atomic<int32_t> last_frame{-1};
std::atomic<int32_t> times_drawn{0};

TEST_F(WaveThread, IdleTurnsStepTheVisualiserUnlessHidden) {
  display_steps = 0;
  first_frame = -1;
  times_drawn = 0;
  wave_hooks.draw_display = [](int32_t frame) {
    if (display_steps++ == 0) first_frame = frame;
    last_frame = frame;
  };
  wave_hooks.draw_time = [] { ++times_drawn; };
  ASSERT_EQ(open_device(44100, true), 0);
  // 26 blocks fill what the device may hold: 32 less the six of the priming.
  push(26 * BLOCK_BYTES);
  ASSERT_TRUE(wait_until([] { return writes() == 26; }));
  ASSERT_TRUE(wait_until([] { return display_steps.load() >= 5; }));
  EXPECT_EQ(wave.free_blocks.load(), 0);
  EXPECT_EQ(first_frame.load(), 0);
  EXPECT_GE(last_frame.load(), 4);

  // The position changes: the next turn after a write draws the time.
  const int32_t drawn = times_drawn.load();
  push(10 * BLOCK_BYTES);
  EXPECT_EQ(test_device_play(10), 10);
  ASSERT_TRUE(wait_until([] { return writes() == 36; }));
  EXPECT_GT(times_drawn.load(), drawn);
  EXPECT_EQ(wave.last_drawn_seconds.load(), 1);
  // 36 blocks have gone round the 32-block ring in order.
  EXPECT_EQ(test_device_record().written, stream_bytes(0, 36 * BLOCK_BYTES));

  // Paused, or hidden in the tray: no steps.
  auto expect_no_steps = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int32_t steps = display_steps.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(display_steps.load(), steps);
  };
  toggle_pause();
  expect_no_steps();
  toggle_pause();
  wave.style = 4;
  expect_no_steps();

  // A re-prime command starts a round without resetting the device.
  wave.wave_command = WAVE_REPRIME;
  ASSERT_TRUE(wait_until([] { return wave.wave_command.load() == WAVE_RUN; }));
  const TestDeviceRecord rec = test_device_record();
  EXPECT_EQ(rec.calls.substr(rec.calls.size() - 1), "P");
  EXPECT_EQ(rec.reset_blocks, 0);
  EXPECT_EQ(ring.ring_read.load(), 0u);
}

TEST_F(WaveThread, StopWhileDrainingResetsTheDevice) {
  ASSERT_EQ(open_device(44100, true), 0);
  push(3 * BLOCK_BYTES);
  ASSERT_TRUE(wait_until([] { return writes() == 3; }));
  command(WAVE_DRAIN);
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  EXPECT_EQ(wave.wave_running.load(), 1);  // nothing plays: the close waits
  state.decoder_command = session::CMD_STOP;
  ASSERT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }));
  const TestDeviceRecord rec = test_device_record();
  EXPECT_EQ(rec.played_blocks, 0);
  EXPECT_EQ(rec.reset_blocks, 3);
  EXPECT_FALSE(rec.open);
}

TEST_F(WaveThread, DisplaySecondsFollowsTheStreamRate) {
  struct Case {
    int32_t rate, shift, sixteen, blocks;
    uint32_t seconds;
  };
  const Case cases[] = {
      // A two-channel stream folded at 16 bits: 576 frames a unit; 16 units at 8000 Hz.
      {8000, 0, 1, 1, 1},
      // The shift comes after the division: 32 units of 8-bit mono at 22050 give 1, shown as 2.
      {22050, 1, 0, 2, 2},
      {22050, 1, 0, 1, 0},
  };
  for (const Case& c : cases) {
    test_device_clear();
    state.rate_shift = c.shift;
    state.session_stereo = 0;
    state.session_16bit = c.sixteen;
    ASSERT_EQ(open_device(c.rate, true), 0);
    EXPECT_EQ(test_device_record().format.sample_rate, c.rate >> c.shift);
    // Fewer blocks than the priming: the drain lets the device run them.
    push(uint32_t(c.blocks) * BLOCK_BYTES);
    command(WAVE_DRAIN);
    ASSERT_TRUE(wait_until([&] {
      const TestDeviceRecord r = test_device_record();
      return r.lengths.size() == size_t(c.blocks) && !r.paused;
    }));
    EXPECT_EQ(test_device_play(c.blocks), c.blocks);
    EXPECT_EQ(wave.display_seconds.load(), c.seconds) << c.rate << " " << c.blocks;
    ASSERT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }));
  }
}

TEST_F(WaveThread, VolumeIsSetAtOpenWithPanAndMuteFadesAtTheClose) {
  wave.pan_level = 8192;  // right of centre: the left side drops by twice the pan
  test_device_set_volume(0x40004000);
  test_device_set_player(2);
  ASSERT_EQ(open_device(44100, true), 0);
  TestDeviceRecord rec = test_device_record();
  // Set at once: nothing plays yet, and a fade would only hold back the first sound.
  EXPECT_EQ(rec.volumes, (std::vector<uint32_t>{49151u | 65535u << 16}));

  wave.pan_level = -100;
  apply_volume(0);
  EXPECT_EQ(test_device_record().volumes.back(), 65535u | 65335u << 16);
  wave.pan_level = 0;

  mute_for_stop();
  EXPECT_EQ(test_device_record().volumes.back(), 0u);
  EXPECT_EQ(wave.fade_needed.load(), 1);
  push(BLOCK_BYTES / 2);
  drain();
  rec = test_device_record();
  // After the mute: the saved volume put back, then the fade to the level in steps of 8192.
  const size_t n = rec.volumes.size();
  ASSERT_EQ(n, 2u + 2 + 9);
  EXPECT_EQ(rec.volumes[2], 0u);
  EXPECT_EQ(rec.volumes[3], 0x40004000u);
  EXPECT_EQ(rec.volumes[4], 0u);
  EXPECT_EQ(rec.volumes[n - 1], 0xFFFFFFFFu);
  for (size_t k = 5; k < n; ++k) {
    const int32_t dl = int32_t(rec.volumes[k] & 0xFFFF) - int32_t(rec.volumes[k - 1] & 0xFFFF);
    const int32_t dr = int32_t(rec.volumes[k] >> 16) - int32_t(rec.volumes[k - 1] >> 16);
    EXPECT_TRUE(dl >= 0 && dl <= 8192 && dr >= 0 && dr <= 8192) << k;
  }
  EXPECT_EQ(wave.fade_needed.load(), 0);
}

TEST_F(WaveThread, OpenFailureIsReportedAndNothingStarts) {
  test_device_set_open_result(WAVE_ERR_ALLOCATED);
  EXPECT_EQ(open_device(44100, true), WAVE_ERR_ALLOCATED);
  EXPECT_EQ(wave.wave_running.load(), 0);
  EXPECT_EQ(wave.wave_device.load(), 0);
  set_wave_device(nullptr);
  EXPECT_EQ(open_device(44100, true), WAVE_ERR_NO_DRIVER);
  // With no device, the main thread's calls do nothing.
  mute_for_stop();
  toggle_pause();
  EXPECT_EQ(wave.fade_needed.load(), 0);
  EXPECT_EQ(state.paused.load(), 0);
}

TEST_F(WaveThread, AbandonedThreadLeavesTheNextTrackAlone) {
  ASSERT_EQ(open_device(44100, true), 0);
  push(2 * BLOCK_BYTES);
  ASSERT_TRUE(wait_until([] { return writes() == 2; }));
  wave_abandon();
  EXPECT_EQ(wave.wave_running.load(), 0);
  EXPECT_EQ(wave.wave_device.load(), 0);
  EXPECT_FALSE(test_device_record().open);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));

  // A new track on a new device: the old thread neither counts its blocks nor closes its device.
  test_device_clear();
  test_device_set_player(2);
  ASSERT_EQ(open_device(44100, true), 0);
  pushed = 0;
  push(BLOCK_BYTES + 10 * UNIT_BYTES);
  drain();
  const TestDeviceRecord rec = test_device_record();
  EXPECT_EQ(rec.calls, "OPWWRXC");
  EXPECT_EQ(rec.written, with_pad(stream_bytes(0, BLOCK_BYTES + 10 * UNIT_BYTES)));
  EXPECT_EQ(wave.output_count.load(), 32);
}

}  // namespace
