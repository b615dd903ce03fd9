// Shapers: the bytes each kind of row puts in the ring, hand-computed from a few chosen samples, the
// counts by which the ring moves, the row chosen for each combination, the over-long mono rows and
// the ring's spare bytes, back-pressure, and the Layer I tail.
#include "output/shapers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "decoder/synth.h"
#include "output/ring.h"
#include "session/session.h"
#include "support/support.h"

namespace {

using namespace output;
using session::state;
using session::stream;

struct Shapers : ::testing::Test {
  void SetUp() override {
    ring_allocate();
    ring.ring_write = 0;
    ring.ring_read = 0;
    ring.ring_fill = 0;
    std::memset(ring.ring_base, 0xEE, RING_BYTES + RING_SPARE);
    std::memset(decoder::pcm_block, 0, sizeof decoder::pcm_block);
    std::memset(decoder::pcm_block_l1, 0, sizeof decoder::pcm_block_l1);
    state.file_job_active = 0;
    state.decoded_channels = 1;
  }

  // Chooses a shaper the way the play session does, and runs it once.
  const ShaperRow* shape(int32_t layer, int32_t mode, int32_t rate_shift, bool stereo, bool sixteen) {
    stream.layer = layer;
    stream.mode = mode;
    state.rate_shift = rate_shift;
    state.session_stereo = stereo;
    state.session_16bit = sixteen;
    const ShaperRow* row = select_shaper();
    EXPECT_NE(row, nullptr);
    if (row) state.shaper_slot();
    return row;
  }

  int16_t s16(uint32_t at) const {
    int16_t v;
    std::memcpy(&v, ring.ring_base + at, 2);
    return v;
  }
  uint8_t u8(uint32_t at) const { return ring.ring_base[at]; }
};

// Four stereo pairs chosen so that the shifts round towards minus infinity and the fold overflows
// 16 bits before its shift.
const int16_t pairs[8] = {-300, -700, 16384, 8192, 32767, 32767, -32768, -32768};

TEST_F(Shapers, StereoAndFoldAtFullRate) {
  std::memcpy(decoder::pcm_block, pairs, sizeof pairs);

  shape(2, 0, 0, true, true);  // plain copy
  EXPECT_EQ(std::memcmp(ring.ring_base, pairs, sizeof pairs), 0);
  EXPECT_EQ(ring.ring_write, 2304u);
  EXPECT_EQ(ring.ring_fill, 16);

  ring.ring_write = 0;
  shape(2, 0, 0, true, false);  // 8 bit: (v >> 8) + 128
  const uint8_t narrow[8] = {126, 125, 192, 160, 255, 255, 0, 0};
  EXPECT_EQ(std::memcmp(ring.ring_base, narrow, 8), 0);
  EXPECT_EQ(ring.ring_write, 1152u);

  ring.ring_write = 0;
  shape(3, 1, 0, false, true);  // fold 16: the mean in a 32-bit sum
  EXPECT_EQ(s16(0), -500);
  EXPECT_EQ(s16(2), 12288);
  EXPECT_EQ(s16(4), 32767);
  EXPECT_EQ(s16(6), -32768);
  EXPECT_EQ(ring.ring_write, 1152u);

  ring.ring_write = 0;
  shape(3, 1, 0, false, false);  // fold 8: each side narrowed first, then the mean
  EXPECT_EQ(u8(0), 125);         // (-2 + -3) >> 1 = -3
  EXPECT_EQ(u8(1), 176);         // (64 + 32) >> 1 = 48
  EXPECT_EQ(u8(2), 255);
  EXPECT_EQ(u8(3), 0);
  EXPECT_EQ(ring.ring_write, 576u);
}

TEST_F(Shapers, ThinningKeepsEverySecondOrFourthPair) {
  for (int i = 0; i < 1152; ++i) decoder::pcm_block[i] = int16_t(i);

  shape(2, 0, 1, true, true);
  EXPECT_EQ(s16(0), 0);
  EXPECT_EQ(s16(2), 1);
  EXPECT_EQ(s16(4), 4);  // pair 2
  EXPECT_EQ(s16(6), 5);
  EXPECT_EQ(s16(1148), 1148);  // pair 574, the last of 288 kept
  EXPECT_EQ(ring.ring_write, 1152u);

  // Every fourth pair, also for rate_shift 3, which has no row of its own.
  for (int32_t shift : {2, 3}) {
    ring.ring_write = 0;
    ring.ring_fill = 0;
    shape(2, 0, shift, true, true);
    EXPECT_EQ(s16(0), 0);
    EXPECT_EQ(s16(2), 1);
    EXPECT_EQ(s16(4), 8);
    EXPECT_EQ(s16(6), 9);
    EXPECT_EQ(s16(572), 1144);  // pair 572, the last of 144 kept
    EXPECT_EQ(ring.ring_write, 576u);
    EXPECT_EQ(ring.ring_fill, 4);
  }

  // Mono 16 at the half rate: every second of the 576 values.
  std::memset(ring.ring_base, 0xEE, 2304);
  ring.ring_write = 0;
  shape(3, 3, 1, true, true);
  EXPECT_EQ(s16(0), 0);
  EXPECT_EQ(s16(2), 2);
  EXPECT_EQ(s16(574), 574);
  EXPECT_EQ(ring.ring_write, 576u);
  EXPECT_EQ(u8(576), 0xEE);  // nothing past what it counts
}

TEST_F(Shapers, ThinnedMonoEightBitStoresTwiceWhatItCounts) {
  for (int i = 0; i < 1152; ++i) decoder::pcm_block[i] = int16_t(i << 4);

  // Half rate: every second of all 1152 values, 576 bytes stored, 288 counted.
  shape(2, 3, 1, true, false);
  EXPECT_EQ(ring.ring_write, 288u);
  EXPECT_EQ(ring.ring_fill, 2);
  EXPECT_EQ(u8(0), 128);
  EXPECT_EQ(u8(1), uint8_t(((2 << 4) >> 8) + 128));
  EXPECT_EQ(u8(575), uint8_t(((1150 << 4) >> 8) + 128));  // the stereo half of the buffer
  EXPECT_EQ(u8(576), 0xEE);

  // At the ring's end the surplus lands in the spare bytes, and the write offset wraps.
  ring.ring_write = RING_BYTES - 288;
  shape(2, 3, 1, true, false);
  EXPECT_EQ(ring.ring_write, 0u);
  EXPECT_EQ(u8(RING_BYTES + 287), uint8_t(((1150 << 4) >> 8) + 128));

  // With the ring nearly full the surplus would land on the oldest unread block: it is left out.
  std::memset(ring.ring_base, 0xEE, 1152);
  ring.ring_write = 0;
  ring.ring_fill = RING_UNITS - 2;
  shape(2, 3, 1, true, false);
  EXPECT_EQ(ring.ring_fill, RING_UNITS);
  EXPECT_EQ(u8(287), uint8_t(((574 << 4) >> 8) + 128));
  EXPECT_EQ(u8(288), 0xEE);

  // Quarter rate: every fourth of 1152, 288 stored, 144 counted.
  ring.ring_write = 0;
  ring.ring_fill = 0;
  shape(2, 3, 2, true, false);
  EXPECT_EQ(ring.ring_write, 144u);
  EXPECT_EQ(ring.ring_fill, 1);
  EXPECT_EQ(u8(287), uint8_t(((1148 << 4) >> 8) + 128));
}

TEST_F(Shapers, LayerOneRows) {
  for (int i = 0; i < 1152; ++i) decoder::pcm_block_l1[i] = int16_t(1000 + i);
  for (int i = 0; i < 1152; ++i) decoder::pcm_block[i] = int16_t(-1 - i);

  // Fold keeps the left value alone: no mean, unlike Layers II and III.
  shape(1, 0, 0, false, true);
  EXPECT_EQ(s16(0), 1000);
  EXPECT_EQ(s16(2), 1002);
  EXPECT_EQ(ring.ring_write, 1152u);

  // Mono and stereo at full rate both copy all 1152 values.
  for (int32_t mode : {0, 3}) {
    ring.ring_write = 0;
    shape(1, mode, 0, true, true);
    EXPECT_EQ(s16(2302), 1000 + 1151);
    EXPECT_EQ(ring.ring_write, 2304u);
  }

  // 8 bit at the half rate: two values, then two dropped.
  ring.ring_write = 0;
  shape(1, 0, 1, true, false);
  const uint8_t kept[4] = {uint8_t((1000 >> 8) + 128), uint8_t((1001 >> 8) + 128), uint8_t((1004 >> 8) + 128),
                           uint8_t((1005 >> 8) + 128)};
  EXPECT_EQ(std::memcmp(ring.ring_base, kept, 4), 0);
  EXPECT_EQ(ring.ring_write, 576u);

  // 16 bit at the half rate with one decoded channel: every second value of the Layer I block.
  ring.ring_write = 0;
  state.decoded_channels = 1;
  shape(1, 0, 1, true, true);
  EXPECT_EQ(s16(2), 1002);
  EXPECT_EQ(ring.ring_write, 1152u);

  // With two decoded channels the row reads pcm_block, every second pair.
  ring.ring_write = 0;
  state.decoded_channels = 2;
  shape(1, 0, 1, true, true);
  EXPECT_EQ(s16(0), -1);
  EXPECT_EQ(s16(2), -2);
  EXPECT_EQ(s16(4), -5);
  EXPECT_EQ(ring.ring_write, 1152u);

  // Quarter rate, 16 bit, one decoded channel: every fourth value of pcm_block.
  ring.ring_write = 0;
  state.decoded_channels = 1;
  shape(1, 0, 2, true, true);
  EXPECT_EQ(s16(0), -1);
  EXPECT_EQ(s16(2), -5);
  EXPECT_EQ(ring.ring_write, 576u);

  // Quarter rate fold, 8 bit: every eighth value.
  ring.ring_write = 0;
  shape(1, 0, 2, false, false);
  EXPECT_EQ(u8(1), uint8_t((1008 >> 8) + 128));
  EXPECT_EQ(ring.ring_write, 144u);
}

// Units per call for every combination: each must divide a block, so that the ring's blocks fill
// exactly, and the row must be the one for its rate, case and width.
TEST_F(Shapers, EveryCombinationHasItsRow) {
  // [rate row][mono, fold, stereo][8, 16] for Layers II and III.
  const int32_t units23[3][3][2] = {{{4, 8}, {4, 8}, {8, 16}}, {{2, 4}, {2, 4}, {4, 8}}, {{1, 2}, {1, 2}, {2, 4}}};
  // [rate row][fold, mono or stereo][8, 16] for Layer I.
  const int32_t units1[3][2][2] = {{{4, 8}, {8, 16}}, {{2, 4}, {4, 8}}, {{1, 2}, {2, 4}}};
  int32_t rows_seen = 0;
  bool seen[SHAPER_COUNT] = {};
  for (int32_t layer : {1, 2, 3})
    for (int32_t shift = 0; shift <= 3; ++shift)
      for (int32_t mode : {0, 1, 2, 3})
        for (bool stereo : {false, true})
          for (bool sixteen : {false, true})
            for (int32_t channels : {1, 2}) {
              state.decoded_channels = channels;
              ring.ring_write = 0;
              ring.ring_fill = 0;
              const ShaperRow* row = shape(layer, mode, shift, stereo, sixteen);
              ASSERT_NE(row, nullptr);
              const int32_t r = shift > 2 ? 2 : shift;
              int32_t expected;
              if (layer == 1)
                expected = units1[r][mode != 3 && !stereo ? 0 : 1][sixteen];
              else
                expected = units23[r][mode == 3 ? 0 : stereo ? 2 : 1][sixteen];
              EXPECT_EQ(ring.ring_fill, expected) << layer << " " << shift << " " << mode << " " << stereo;
              EXPECT_EQ(ring.ring_write, uint32_t(expected) * UNIT_BYTES);
              EXPECT_EQ(BLOCK_UNITS % expected, 0);
              if (!seen[row - shaper_table]) ++rows_seen;
              seen[row - shaper_table] = true;
            }
  EXPECT_EQ(rows_seen, SHAPER_COUNT);
}

TEST_F(Shapers, FullRingMakesTheDecoderWait) {
  shape(2, 0, 0, true, true);
  ring.ring_write = 0;
  ring.ring_fill = RING_UNITS;
  std::atomic<int> done{0};
  std::thread decoder([&] {
    state.shaper_slot();
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

TEST_F(Shapers, LayerOneTail) {
  for (int i = 0; i < 1152; ++i) decoder::pcm_block_l1[i] = int16_t(7 * i - 3000);

  // In play: copied at ring_write, 16 units whatever the count, no wrap.
  ring.ring_write = RING_BYTES - 1152;
  ring.ring_fill = 3;
  flush_layer1_tail(1000);
  EXPECT_EQ(ring.ring_fill, 19);
  EXPECT_EQ(ring.ring_write, RING_BYTES - 1152 + 2000);
  EXPECT_EQ(s16(RING_BYTES - 1152 + 2 * 999), 7 * 999 - 3000);

  flush_layer1_tail(0);
  EXPECT_EQ(ring.ring_fill, 35);

  // In a file job: the values go to the output file.
  test::TempDir dir;
  state.file_job_active = 1;
  state.out_file = std::fopen(dir.file("tail.raw").c_str(), "wb");
  ASSERT_NE(state.out_file, nullptr);
  flush_layer1_tail(5);
  std::fclose(state.out_file);
  state.out_file = nullptr;
  state.file_job_active = 0;
  std::vector<int16_t> samples = test::read_pcm16(dir.file("tail.raw"));
  ASSERT_EQ(samples.size(), 5u);
  EXPECT_EQ(samples[4], 7 * 4 - 3000);
  EXPECT_EQ(ring.ring_fill, 35);
}

}  // namespace
