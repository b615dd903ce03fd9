// The synthesis variants against the standard's direct filter bank, and their edge cases.
#include "decoder/synth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/tables.h"
#include "session/session.h"

namespace {

using decoder::pcm_block;
using decoder::subband_samples;
using session::SynthFn;

// The standard's synthesis window D, read from the standard's figures when they are at hand.
const std::vector<double>& standard_window() {
  static std::vector<double> d = [] {
    std::vector<double> w;
    FILE* f = std::fopen("/work/shared/iso/synth_window.txt", "r");
    if (!f) return w;
    char line[256];
    while (std::fgets(line, sizeof line, f)) {
      int i;
      double v;
      if (line[0] != '#' && std::sscanf(line, "%d %lf", &i, &v) == 2) w.push_back(v);
    }
    std::fclose(f);
    return w;
  }();
  return d;
}

// The standard's synthesis (ISO 11172-3, 2.4.3.2.2) in double precision: matrixing by the cosine
// formula into a 1024-value FIFO, windowing by D over all 512 places. Output is in the decoder's
// scale, 2 * 16383.5 = 32767 for full scale, before truncation.
struct ReferenceBank {
  std::vector<double> v = std::vector<double>(1024, 0.0);
  static double d(int i) { return 16383.5 * standard_window()[i]; }
  // One slot: 32 subband samples in, 32 output values (not yet truncated) out.
  void slot(const double* s, double* out) {
    for (int i = 1023; i >= 64; --i) v[i] = v[i - 64];
    for (int i = 0; i < 64; ++i) {
      double sum = 0;
      for (int k = 0; k < 32; ++k) sum += std::cos((16 + i) * (2 * k + 1) * M_PI / 64) * s[k];
      v[i] = 2.0 * sum;
    }
    for (int j = 0; j < 32; ++j) {
      double sum = 0;
      for (int i = 0; i < 8; ++i) {
        sum += v[128 * i + j] * d(64 * i + j);
        sum += v[128 * i + 96 + j] * d(64 * i + 32 + j);
      }
      out[j] = sum;
    }
  }
};

class SynthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    decoder::init_decoder_tables();
    decoder::reset_decoder_state();
    session::stream.emphasis_mode = 0;
    session::state.session_emphasis = 1;
    session::state.decoded_channels = 2;
  }
  // Fills subband_samples with uniform noise of the given peak.
  static void fill_random(std::mt19937& rng, float peak) {
    std::uniform_real_distribution<float> dist(-peak, peak);
    for (auto& row : subband_samples)
      for (float& v : row) v = dist(rng);
  }
  static void fill(float value) {
    for (auto& row : subband_samples)
      for (float& v : row) v = value;
  }
};

// The transform through the ring: slot 16 of a call lands in column 0 at phase 0, so bank 0 holds
// 2X[16..31] and bank 1 holds -2X[16..0] there. Tolerance: single-precision rounding through five
// stages, 1e-5 of the input's absolute sum.
TEST_F(SynthTest, TransformMatchesDirectCosineFormula) {
  std::mt19937 rng(12345);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  for (int round = 0; round < 20; ++round) {
    decoder::reset_decoder_state();
    std::memset(subband_samples, 0, sizeof subband_samples);
    double abs_sum = 0;
    for (int k = 0; k < 32; ++k) {
      subband_samples[k][16] = dist(rng);
      abs_sum += std::fabs(subband_samples[k][16]);
    }
    double in[32];
    for (int k = 0; k < 32; ++k) in[k] = subband_samples[k][16];
    decoder::synth_full(0);
    for (int m = 0; m < 32; ++m) {
      double x = 0;
      for (int k = 0; k < 32; ++k) x += in[k] * std::cos((2 * k + 1) * m * M_PI / 64);
      double got = m >= 16 ? decoder::synth_banks[0][0][m - 16][0] : -decoder::synth_banks[0][1][16 - m][0];
      EXPECT_NEAR(got, 2 * x, 1e-5 * abs_sum) << "m " << m << " round " << round;
    }
  }
}

// Every variant's computed samples are the standard filter bank's output truncated, over several
// calls (so the ring wraps) and for both channels of a stereo block.
TEST_F(SynthTest, FullRateMatchesStandardFilterBank) {
  if (standard_window().size() != 512) GTEST_SKIP() << "the standard's window figures are not at hand";
  std::mt19937 rng(777);
  ReferenceBank ref[2];
  int worst = 0, exact = 0, total = 0;
  for (int call = 0; call < 6; ++call) {
    double expected[2][18][32];
    for (int ch = 0; ch < 2; ++ch) {
      fill_random(rng, 0.05f);
      for (int t = 0; t < 18; ++t) {
        double s[32];
        for (int k = 0; k < 32; ++k) s[k] = subband_samples[k][t];
        ref[ch].slot(s, expected[ch][t]);
      }
      decoder::synth_full(ch);
    }
    for (int ch = 0; ch < 2; ++ch)
      for (int t = 0; t < 18; ++t)
        for (int j = 0; j < 32; ++j) {
          double want = std::clamp(std::trunc(expected[ch][t][j]), -32768.0, 32767.0);
          int got = pcm_block[64 * t + 2 * j + ch];
          int diff = std::abs(got - int(want));
          if (diff > 1 && worst <= 1)
            ADD_FAILURE() << "call " << call << " ch " << ch << " t " << t << " j " << j << " got " << got << " want "
                          << want;
          worst = std::max(worst, diff);
          exact += diff == 0;
          ++total;
        }
  }
  EXPECT_LE(worst, 1);
  EXPECT_GT(exact, total * 99 / 100);  // only sums within rounding of an integer may differ
}

TEST_F(SynthTest, MonoWritesStrideOneAndMatchesFull) {
  std::mt19937 rng(5);
  fill_random(rng, 0.5f);
  float saved[32][18];
  std::memcpy(saved, subband_samples, sizeof saved);
  decoder::synth_full(0);
  std::vector<int16_t> full(pcm_block, pcm_block + 1152);
  decoder::reset_decoder_state();
  std::memcpy(subband_samples, saved, sizeof saved);
  decoder::synth_mono(0);
  for (int t = 0; t < 18; ++t)
    for (int j = 0; j < 32; ++j) ASSERT_EQ(pcm_block[32 * t + j], full[64 * t + 2 * j]) << t << " " << j;
}

// Runs one call of a variant on fresh state over the same input, with pcm_block preset to a
// sentinel; returns the block.
std::vector<int16_t> run_variant(SynthFn fn, const float (&input)[32][18], int channels, int16_t sentinel) {
  decoder::reset_decoder_state();
  session::state.decoded_channels = channels;
  for (int16_t& v : pcm_block) v = sentinel;
  std::memcpy(subband_samples, input, sizeof subband_samples);
  fn(0);
  return std::vector<int16_t>(pcm_block, pcm_block + 1152);
}

TEST_F(SynthTest, ReducedVariantsComputeTheirPlacesAndFillOrKeepTheGaps) {
  std::mt19937 rng(99);
  float input[32][18];
  fill_random(rng, 0.6f);
  std::memcpy(input, subband_samples, sizeof input);
  const int16_t sentinel = 12345;
  for (int channels : {1, 2}) {
    std::vector<int16_t> full = run_variant(decoder::synth_full, input, 2, sentinel);
    auto ref = [&](int t, int j) { return int(full[64 * t + 2 * j]); };
    auto place = [&](int t, int j) { return channels == 2 ? 64 * t + 2 * j : 32 * t + j; };

    std::vector<int16_t> half = run_variant(decoder::synth_half, input, channels, sentinel);
    std::vector<int16_t> quarter = run_variant(decoder::synth_quarter, input, channels, sentinel);
    std::vector<int16_t> fast = run_variant(decoder::synth_fast, input, channels, sentinel);
    std::vector<int16_t> over = run_variant(decoder::synth_overdrive, input, channels, sentinel);
    for (int t = 0; t < 18; ++t) {
      for (int j = 0; j < 32; ++j) {
        int at = place(t, j);
        SCOPED_TRACE(testing::Message() << "channels " << channels << " slot " << t << " sample " << j);
        // Half and quarter: computed places equal the full-rate samples, the rest are untouched.
        EXPECT_EQ(half[at], j % 2 == 0 ? ref(t, j) : sentinel);
        EXPECT_EQ(quarter[at], j % 4 == 0 ? ref(t, j) : sentinel);
        // Fast: gaps only at 1, 5, 9, 13, 25, 29, filled by the floor of the neighbours' mean.
        bool gap = j == 1 || j == 5 || j == 9 || j == 13 || j == 25 || j == 29;
        EXPECT_EQ(fast[at], gap ? (ref(t, j - 1) + ref(t, j + 1)) >> 1 : ref(t, j));
        // Overdrive: odd places interpolated, 31 copies 30.
        int want = j % 2 == 0 ? ref(t, j) : j == 31 ? ref(t, 30) : (ref(t, j - 1) + ref(t, j + 1)) >> 1;
        EXPECT_EQ(over[at], want);
      }
      if (channels == 2) {
        // Channel 1's places of the stereo block are not written by a channel 0 call.
        for (int j = 0; j < 32; ++j) EXPECT_EQ(fast[64 * t + 2 * j + 1], sentinel);
      }
    }
  }
}

// The interpolation works on the clipped samples, with an arithmetic shift: the mean of -1 and 0
// is -1, and of -32768 and 32767 is -1.
TEST_F(SynthTest, InterpolationRoundsDownOnClippedSamples) {
  std::mt19937 rng(8);
  float input[32][18];
  fill_random(rng, 6.0f);  // far beyond full scale: many clipped samples
  std::memcpy(input, subband_samples, sizeof input);
  std::vector<int16_t> full = run_variant(decoder::synth_full, input, 2, 0);
  std::vector<int16_t> over = run_variant(decoder::synth_overdrive, input, 2, 0);
  int odd_sums = 0, clipped = 0;
  for (int t = 0; t < 18; ++t)
    for (int j = 1; j < 31; j += 2) {
      int a = full[64 * t + 2 * (j - 1)], b = full[64 * t + 2 * (j + 1)];
      int got = over[64 * t + 2 * j];
      EXPECT_EQ(got, int(std::floor((a + b) / 2.0)));
      odd_sums += ((a + b) & 1) && (a + b) < 0;
      clipped += a == -32768 || a == 32767;
    }
  EXPECT_GT(odd_sums, 0);
  EXPECT_GT(clipped, 0);
}

TEST_F(SynthTest, ZerosInGiveZerosOutInEveryVariantOnceTheRingHasEmptied) {
  std::mt19937 rng(1);
  for (SynthFn fn : {decoder::synth_full, decoder::synth_mono, decoder::synth_half, decoder::synth_quarter,
                     decoder::synth_fast, decoder::synth_overdrive}) {
    decoder::reset_decoder_state();
    fill_random(rng, 1.0f);
    fn(0);
    fill(0.0f);
    fn(0);  // 18 slots of zeros: the 16 columns all hold zeros from slot 15 on
    for (int16_t& v : pcm_block) v = 0;
    fill(0.0f);
    fn(0);
    for (int i = 0; i < 1152; ++i) ASSERT_EQ(pcm_block[i], 0) << i;
  }
}

TEST_F(SynthTest, ClipsToBothEndsAndReachesMinus32768) {
  for (float level : {4.0f, -4.0f}) {
    decoder::reset_decoder_state();
    int hi = 0, lo = 0;
    for (int call = 0; call < 4; ++call) {
      std::memset(subband_samples, 0, sizeof subband_samples);
      for (int t = 0; t < 18; ++t) subband_samples[0][t] = (t / 3) % 2 ? level : -level;
      decoder::synth_full(0);
      for (int t = 0; t < 18; ++t)
        for (int j = 0; j < 32; ++j) {
          int v = pcm_block[64 * t + 2 * j];
          hi += v == 32767;
          lo += v == -32768;
        }
    }
    EXPECT_GT(hi, 0) << level;
    EXPECT_GT(lo, 0) << level;
  }
}

// Sums between -1 and 0 truncate to 0 (a rounding decoder would give -1); likewise 0 to 1.
TEST_F(SynthTest, SmallSumsTruncateTowardsZero) {
  if (standard_window().size() != 512) GTEST_SKIP() << "the standard's window figures are not at hand";
  std::mt19937 rng(42);
  ReferenceBank ref;
  int negative_fractions = 0;
  for (int call = 0; call < 4; ++call) {
    fill_random(rng, 0.00012f);  // window sums of a few units
    double expected[18][32];
    for (int t = 0; t < 18; ++t) {
      double s[32];
      for (int k = 0; k < 32; ++k) s[k] = subband_samples[k][t];
      ref.slot(s, expected[t]);
    }
    decoder::synth_full(0);
    for (int t = 0; t < 18; ++t)
      for (int j = 0; j < 32; ++j) {
        double e = expected[t][j];
        if (e > -0.95 && e < -0.05) {
          EXPECT_EQ(pcm_block[64 * t + 2 * j], 0) << e;
          ++negative_fractions;
        }
        if (e > 0.05 && e < 0.95) {
          EXPECT_EQ(pcm_block[64 * t + 2 * j], 0) << e;
        }
      }
  }
  EXPECT_GT(negative_fractions, 10);
}

TEST_F(SynthTest, EveryCallLeavesThePhaseAndMovesTheColumnBy18) {
  std::mt19937 rng(2);
  for (SynthFn fn : {decoder::synth_full, decoder::synth_mono, decoder::synth_half, decoder::synth_quarter,
                     decoder::synth_fast, decoder::synth_overdrive}) {
    for (int ch = 0; ch < 2; ++ch) {
      fill_random(rng, 0.3f);
      int32_t phase = decoder::synth_phase;
      uint32_t column = decoder::synth_column[ch];
      uint32_t other = decoder::synth_column[1 - ch];
      fn(ch);
      EXPECT_EQ(decoder::synth_phase, phase);
      EXPECT_EQ(decoder::synth_column[ch], (column - 18) & 15);
      EXPECT_EQ(decoder::synth_column[1 - ch], other);
    }
  }
}

TEST_F(SynthTest, ResetsClearTheRingOrOnlyTheIndices) {
  std::mt19937 rng(4);
  fill_random(rng, 0.5f);
  decoder::synth_full(0);
  decoder::synth_full(1);
  decoder::reset_synth_indices();
  EXPECT_EQ(decoder::synth_column[0], 0u);
  EXPECT_EQ(decoder::synth_column[1], 0u);
  EXPECT_EQ(decoder::synth_phase, 0);
  bool any = false;
  for (const auto& row : decoder::synth_banks[1][1])
    for (float v : row) any |= v != 0.0f;
  EXPECT_TRUE(any);  // history survives an index reset
  decoder::reset_decoder_state();
  const float* all = &decoder::synth_banks[0][0][0][0];
  for (int i = 0; i < 2 * 2 * 17 * 16; ++i) ASSERT_EQ(all[i], 0.0f);
  for (int16_t v : pcm_block) ASSERT_EQ(v, 0);
}

// The portable kernel and the widest one the processor runs give the same samples, bit for bit,
// in every variant (on a processor without the wider kernel both runs take the portable one).
TEST_F(SynthTest, PortableAndWideKernelsAgreeBitForBit) {
  std::mt19937 rng(31);
  std::vector<float> inputs;
  std::uniform_real_distribution<float> dist(-1.5f, 1.5f);
  for (int i = 0; i < 8 * 32 * 18; ++i) inputs.push_back(dist(rng) * (i % 7 == 0 ? 3.0f : 0.3f));
  for (SynthFn fn : {decoder::synth_full, decoder::synth_mono, decoder::synth_half, decoder::synth_quarter,
                     decoder::synth_fast, decoder::synth_overdrive}) {
    std::vector<int16_t> runs[2];
    for (int portable = 0; portable < 2; ++portable) {
      decoder::use_portable_synth(portable == 1);
      decoder::reset_decoder_state();
      for (int call = 0; call < 8; ++call) {
        std::memcpy(subband_samples, &inputs[size_t(call) * 32 * 18], sizeof subband_samples);
        fn(call & 1);
        runs[portable].insert(runs[portable].end(), pcm_block, pcm_block + 1152);
      }
    }
    decoder::use_portable_synth(false);
    EXPECT_EQ(runs[0], runs[1]);
  }
}

// ---- Subband treatment ----

class TreatTest : public SynthTest {
 protected:
  float before[32][18];
  void SetUp() override {
    SynthTest::SetUp();
    std::mt19937 rng(6);
    fill_random(rng, 1.0f);
    std::memcpy(before, subband_samples, sizeof before);
  }
  bool row_unchanged(int r) const { return std::memcmp(before[r], subband_samples[r], sizeof before[r]) == 0; }
};

// Only modes 1, 3 and 4 act (5 and 7, emphasis with Hi-Fi, do nothing), and only with the
// "Emphasis" switch on.
TEST_F(TreatTest, OtherModesAndTheSwitchOffChangeNothing) {
  for (int emphasis : {1, 0}) {
    session::state.session_emphasis = emphasis;
    for (int mode : emphasis ? std::vector<int>{0, 2, 5, 6, 7} : std::vector<int>{1, 3, 4}) {
      session::stream.emphasis_mode = mode;
      decoder::treat_subbands();
      for (int r = 0; r < 32; ++r) EXPECT_TRUE(row_unchanged(r)) << "mode " << mode << " row " << r;
    }
  }
}

TEST_F(TreatTest, FiftyFifteenHalvesRowsFiveToFifteenOnly) {
  session::stream.emphasis_mode = 1;
  decoder::treat_subbands();
  for (int r = 0; r < 32; ++r)
    for (int t = 0; t < 18; ++t)
      EXPECT_EQ(subband_samples[r][t], r >= 5 && r <= 15 ? before[r][t] * 0.5f : before[r][t]);
}

TEST_F(TreatTest, J17ScalesRowsByCosineAndLeavesRowZero) {
  session::stream.emphasis_mode = 3;
  decoder::treat_subbands();
  EXPECT_TRUE(row_unchanged(0));
  for (int r = 1; r < 32; ++r)
    for (int t = 0; t < 18; ++t) EXPECT_NEAR(subband_samples[r][t], before[r][t] * std::cos(r * M_PI / 64), 1e-6);
}

TEST_F(TreatTest, HiFiRebuildsOnlyTheUpperRows) {
  session::stream.emphasis_mode = 4;
  decoder::treat_subbands();
  for (int r = 0; r < 15; ++r) EXPECT_TRUE(row_unchanged(r)) << r;
  for (int r = 15; r < 32; ++r) EXPECT_FALSE(row_unchanged(r)) << r;
  // Stage D is the last word on rows 15 and 16... row 15 is touched by no other stage.
  for (int t = 0; t < 18; ++t) EXPECT_EQ(subband_samples[15][t], before[15][t] * 0.97f);
}

// The synthesis applies the treatment itself when the stream has an emphasis mode.
TEST_F(TreatTest, SynthesisAppliesTreatmentByStreamMode) {
  session::stream.emphasis_mode = 5;  // emphasis 1 with Hi-Fi: nothing
  decoder::synth_full(0);
  std::vector<int16_t> plain(pcm_block, pcm_block + 1152);
  decoder::reset_decoder_state();
  std::memcpy(subband_samples, before, sizeof before);
  session::stream.emphasis_mode = 0;
  decoder::synth_full(0);
  EXPECT_EQ(plain, std::vector<int16_t>(pcm_block, pcm_block + 1152));
  decoder::reset_decoder_state();
  std::memcpy(subband_samples, before, sizeof before);
  session::stream.emphasis_mode = 1;
  decoder::synth_full(0);
  EXPECT_NE(plain, std::vector<int16_t>(pcm_block, pcm_block + 1152));
}

}  // namespace
