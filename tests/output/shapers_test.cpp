// Shapers: the thinned rows (the full-rate ones play end to end in the play command's tests), the
// over-long mono rows and the ring's spare bytes, and back-pressure.
#include "output/shapers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "output/ring.h"
#include "session/session.h"
#include "support/support.h"

namespace {

using namespace output;
using session::state;
using Want = std::initializer_list<std::pair<uint32_t, int32_t>>;  // ring offset, value

int16_t pcm_block[1152];

struct Shapers : ::testing::Test {
  void SetUp() override {
    ring_allocate();
    ring.ring_read = 0;
    std::memset(ring.ring_base, 0xEE, RING_BYTES + RING_SPARE);
    std::memset(pcm_block, 0, sizeof pcm_block);
    state.file_job_active = 0;
  }

  // Chooses a shaper the way the play session does, and runs it once with the ring at write, fill.
  const ShaperRow* shape(int32_t mode, int32_t rate_shift, bool stereo, bool sixteen, uint32_t write = 0,
                         int32_t fill = 0) {
    ring.ring_write = write;
    ring.ring_fill = fill;
    const ShaperRow* row = select_shaper({stereo, sixteen, rate_shift}, mode == 3);
    EXPECT_NE(row, nullptr);
    if (row) {
      state.shaper_slot = row->fn;
      row->fn(pcm_block);
    }
    return row;
  }
  static void expect16(Want want) {
    for (auto [at, v] : want) {
      int16_t got;
      std::memcpy(&got, ring.ring_base + at, 2);
      EXPECT_EQ(got, v) << "at " << at;
    }
  }
  static void expect8(Want want) {
    for (auto [at, v] : want) EXPECT_EQ(ring.ring_base[at], v) << "at " << at;
  }
  static int32_t u8_of(int32_t v) { return (v >> 8) + 128; }
};

TEST_F(Shapers, ThinningKeepsEverySecondOrFourthPair) {
  for (int i = 0; i < 1152; ++i) pcm_block[i] = int16_t(i);
  shape(0, 1, true, true);
  expect16({{0, 0}, {2, 1}, {4, 4}, {6, 5}, {1148, 1148}});  // pair 574, the last of 288 kept
  EXPECT_EQ(ring.ring_write, 1152u);
  // Every fourth pair, also for rate_shift 3, which has no row of its own.
  for (int32_t shift : {2, 3}) {
    shape(0, shift, true, true);
    expect16({{0, 0}, {2, 1}, {4, 8}, {6, 9}, {572, 1144}});  // pair 572, the last of 144 kept
    EXPECT_EQ(ring.ring_write, 576u);
    EXPECT_EQ(ring.ring_fill, 4);
  }
  // Mono 16 at the half rate: every second of the 576 values, nothing past what it counts.
  std::memset(ring.ring_base, 0xEE, 2304);
  shape(3, 1, true, true);
  expect16({{0, 0}, {2, 2}, {574, 574}});
  expect8({{576, 0xEE}});
  EXPECT_EQ(ring.ring_write, 576u);
}

TEST_F(Shapers, ThinnedMonoEightBitStoresTwiceWhatItCounts) {
  for (int i = 0; i < 1152; ++i) pcm_block[i] = int16_t(i << 4);
  // Half rate: every second of all 1152 values, 576 bytes stored, 288 counted.
  shape(3, 1, true, false);
  EXPECT_EQ(ring.ring_write, 288u);
  EXPECT_EQ(ring.ring_fill, 2);
  expect8({{0, 128}, {1, u8_of(2 << 4)}, {575, u8_of(1150 << 4)}, {576, 0xEE}});  // the stereo half of the buffer
  // At the ring's end the surplus lands in the spare bytes, and the write offset wraps.
  shape(3, 1, true, false, RING_BYTES - 288);
  EXPECT_EQ(ring.ring_write, 0u);
  expect8({{RING_BYTES + 287, u8_of(1150 << 4)}});
  // With the ring nearly full the surplus would land on the oldest unread block: it is left out.
  std::memset(ring.ring_base, 0xEE, 1152);
  shape(3, 1, true, false, 0, RING_UNITS - 2);
  EXPECT_EQ(ring.ring_fill, RING_UNITS);
  expect8({{287, u8_of(574 << 4)}, {288, 0xEE}});
  // Quarter rate: every fourth of 1152, 288 stored, 144 counted.
  shape(3, 2, true, false);
  EXPECT_EQ(ring.ring_write, 144u);
  EXPECT_EQ(ring.ring_fill, 1);
  expect8({{287, u8_of(1148 << 4)}});
}

TEST_F(Shapers, FullRingMakesTheDecoderWait) {
  shape(0, 0, true, true);
  ring.ring_write = 0;
  ring.ring_fill = RING_UNITS;
  std::atomic<int> done{0};
  std::thread decoder([&] {
    state.shaper_slot(pcm_block);
    done = 1;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(130));
  EXPECT_EQ(done.load(), 0);
  EXPECT_EQ(ring.ring_write, 0u);
  {
    std::lock_guard lock(ring.ring_lock);
    ring.ring_fill.fetch_sub(BLOCK_UNITS);
  }
  decoder.join();
  EXPECT_EQ(ring.ring_fill, RING_UNITS - BLOCK_UNITS + 16);
  EXPECT_EQ(ring.ring_write, 2304u);
}

}  // namespace
