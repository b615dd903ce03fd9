// The synthesis variants against the standard's direct filter bank, their edge cases, and the
// subband treatment.
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
#include "support/support.h"

namespace {

using decoder::SynthFn;

decoder::DecoderState st;
float (&subband_samples)[32][18] = st.subband_samples;
int16_t (&pcm_block)[decoder::BLOCK_SAMPLES] = st.pcm;

const SynthFn variants[] = {decoder::synth_full,    decoder::synth_mono, decoder::synth_half,
                            decoder::synth_quarter, decoder::synth_fast, decoder::synth_overdrive};

// The standard's synthesis window D, read from its figures when they are at hand.
const std::vector<double>& standard_window() {
  static std::vector<double> d = [] {
    std::vector<double> w;
    FILE* f = std::fopen((test::iso_dir() + "/synth_window.txt").c_str(), "r");
    if (!f) return w;
    char line[256];
    int i;
    double v;
    while (std::fgets(line, sizeof line, f))
      if (line[0] != '#' && std::sscanf(line, "%d %lf", &i, &v) == 2) w.push_back(v);
    std::fclose(f);
    return w;
  }();
  return d;
}

// The standard's synthesis in double precision: matrixing by the cosine formula into a 1024-value
// FIFO, windowing by D. Output in the decoder's scale (32767 for full scale), before truncation.
struct ReferenceBank {
  std::vector<double> v = std::vector<double>(1024, 0.0);
  void slot(const double* s, double* out) {
    for (int i = 1023; i >= 64; --i) v[i] = v[i - 64];
    for (int i = 0; i < 64; ++i) {
      double sum = 0;
      for (int k = 0; k < 32; ++k) sum += std::cos((16 + i) * (2 * k + 1) * M_PI / 64) * s[k];
      v[i] = 2.0 * sum;
    }
    const std::vector<double>& d = standard_window();
    for (int j = 0; j < 32; ++j) {
      double sum = 0;
      for (int i = 0; i < 8; ++i) sum += v[128 * i + j] * d[64 * i + j] + v[128 * i + 96 + j] * d[64 * i + 32 + j];
      out[j] = 16383.5 * sum;
    }
  }
};

class SynthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    decoder::init_decoder_tables();
    decoder::reset_decoder_state(st);
    st.emphasis_mode = 0;
    st.channels = 2;
  }
  static void fill_random(std::mt19937& rng, float peak) {
    std::uniform_real_distribution<float> dist(-peak, peak);
    for (auto& row : subband_samples)
      for (float& v : row) v = dist(rng);
  }
  // One call of a variant on fresh state, with the PCM block preset to a sentinel.
  static std::vector<int16_t> run(SynthFn fn, const float (&input)[32][18], int channels, int16_t sentinel) {
    decoder::reset_decoder_state(st);
    st.channels = channels;
    std::fill(pcm_block, pcm_block + 1152, sentinel);
    std::memcpy(subband_samples, input, sizeof subband_samples);
    fn(st, 0);
    return std::vector<int16_t>(pcm_block, pcm_block + 1152);
  }
};

// Full rate is the standard filter bank truncated, over calls that wrap the ring, both channels.
// At a level of a few units, sums between -1 and 0 give 0 where a rounding decoder gives -1.
TEST_F(SynthTest, FullRateIsTheStandardFilterBankTruncated) {
  if (standard_window().size() != 512) GTEST_SKIP() << "the standard's window figures are not at hand";
  for (float peak : {0.05f, 0.00012f}) {
    SCOPED_TRACE(peak);
    decoder::reset_decoder_state(st);
    std::mt19937 rng(777);
    ReferenceBank ref[2];
    int worst = 0, exact = 0, total = 0, negative_fractions = 0;
    for (int call = 0; call < 6; ++call) {
      double expected[2][18][32];
      for (int ch = 0; ch < 2; ++ch) {
        fill_random(rng, peak);
        for (int t = 0; t < 18; ++t) {
          double s[32];
          for (int k = 0; k < 32; ++k) s[k] = subband_samples[k][t];
          ref[ch].slot(s, expected[ch][t]);
        }
        decoder::synth_full(st, ch);
      }
      for (int ch = 0; ch < 2; ++ch)
        for (int t = 0; t < 18; ++t)
          for (int j = 0; j < 32; ++j) {
            double e = expected[ch][t][j];
            int got = pcm_block[64 * t + 2 * j + ch];
            int diff = std::abs(got - int(std::clamp(std::trunc(e), -32768.0, 32767.0)));
            worst = std::max(worst, diff);
            exact += diff == 0;
            ++total;
            if (std::fabs(e) > 0.05 && std::fabs(e) < 0.95) {
              EXPECT_EQ(got, 0) << e;
              negative_fractions += e < 0;
            }
          }
    }
    EXPECT_LE(worst, 1);
    EXPECT_GT(exact, total * 99 / 100);  // only sums within rounding of an integer may differ
    EXPECT_TRUE(peak > 0.001f || negative_fractions > 10) << negative_fractions;
  }
}

// The reduced variants compute some places as full rate does and fill or keep the rest; mono
// writes stride one; a channel 0 call leaves channel 1's places alone.
TEST_F(SynthTest, ReducedVariantsComputeTheirPlacesAndFillOrKeepTheGaps) {
  std::mt19937 rng(99);
  float input[32][18];
  fill_random(rng, 0.6f);
  std::memcpy(input, subband_samples, sizeof input);
  const int16_t sentinel = 12345;
  std::vector<int16_t> full = run(decoder::synth_full, input, 2, sentinel);
  std::vector<int16_t> mono = run(decoder::synth_mono, input, 1, sentinel);
  auto ref = [&](int t, int j) { return int(full[64 * t + 2 * j]); };
  for (int channels : {1, 2}) {
    std::vector<int16_t> half = run(decoder::synth_half, input, channels, sentinel);
    std::vector<int16_t> quarter = run(decoder::synth_quarter, input, channels, sentinel);
    std::vector<int16_t> fast = run(decoder::synth_fast, input, channels, sentinel);
    std::vector<int16_t> over = run(decoder::synth_overdrive, input, channels, sentinel);
    for (int t = 0; t < 18; ++t)
      for (int j = 0; j < 32; ++j) {
        SCOPED_TRACE(testing::Message() << "channels " << channels << " slot " << t << " sample " << j);
        int at = channels == 2 ? 64 * t + 2 * j : 32 * t + j;
        EXPECT_EQ(mono[32 * t + j], ref(t, j));
        EXPECT_EQ(half[at], j % 2 == 0 ? ref(t, j) : sentinel);
        EXPECT_EQ(quarter[at], j % 4 == 0 ? ref(t, j) : sentinel);
        bool gap = j == 1 || j == 5 || j == 9 || j == 13 || j == 25 || j == 29;
        EXPECT_EQ(fast[at], gap ? (ref(t, j - 1) + ref(t, j + 1)) >> 1 : ref(t, j));
        int want = j % 2 == 0 ? ref(t, j) : j == 31 ? ref(t, 30) : (ref(t, j - 1) + ref(t, j + 1)) >> 1;
        EXPECT_EQ(over[at], want);
        if (channels == 2) {
          EXPECT_EQ(fast[at + 1], sentinel);
        }
      }
  }
}

// In every variant: output clips at both ends (-32768 included), zeros in give zeros out once the
// ring has emptied, and a call leaves the phase and moves only its own channel's column by 18.
// Interpolated places take the floor of the mean of the clipped neighbours.
TEST_F(SynthTest, EdgeCasesInEveryVariant) {
  std::mt19937 rng(8);
  float loud[32][18];
  fill_random(rng, 6.0f);
  std::memcpy(loud, subband_samples, sizeof loud);
  for (SynthFn fn : variants) {
    std::vector<int16_t> out = run(fn, loud, 2, 0);
    EXPECT_NE(std::count(out.begin(), out.end(), int16_t(32767)), 0);
    EXPECT_NE(std::count(out.begin(), out.end(), int16_t(-32768)), 0);

    std::memset(subband_samples, 0, sizeof subband_samples);
    fn(st, 0);  // 18 slots of zeros: every column holds zeros from slot 15 on
    std::fill(pcm_block, pcm_block + 1152, int16_t(0));
    std::memset(subband_samples, 0, sizeof subband_samples);
    fn(st, 0);
    for (int i = 0; i < 1152; ++i) ASSERT_EQ(pcm_block[i], 0) << i;

    for (int ch = 0; ch < 2; ++ch) {
      fill_random(rng, 0.3f);
      int32_t phase = st.synth_phase;
      uint32_t column = st.synth_column[ch], other = st.synth_column[1 - ch];
      fn(st, ch);
      EXPECT_EQ(st.synth_phase, phase);
      EXPECT_EQ(st.synth_column[ch], (column - 18) & 15);
      EXPECT_EQ(st.synth_column[1 - ch], other);
    }
  }
  // A track's first frame resets the indices and keeps the ring's history.
  decoder::reset_synth_indices(st);
  EXPECT_EQ(st.synth_column[0] | st.synth_column[1] | uint32_t(st.synth_phase), 0u);
  const float* ring = &st.synth_banks[1][0][0][0];
  EXPECT_TRUE(std::any_of(ring, ring + 2 * 16 * 32, [](float v) { return v != 0.0f; }));
  std::vector<int16_t> full = run(decoder::synth_full, loud, 2, 0);
  std::vector<int16_t> over = run(decoder::synth_overdrive, loud, 2, 0);
  int odd_negative_sums = 0;
  for (int t = 0; t < 18; ++t)
    for (int j = 1; j < 31; j += 2) {
      int a = full[64 * t + 2 * (j - 1)], b = full[64 * t + 2 * (j + 1)];
      EXPECT_EQ(over[64 * t + 2 * j], int(std::floor((a + b) / 2.0)));
      odd_negative_sums += ((a + b) & 1) && (a + b) < 0;
    }
  EXPECT_GT(odd_negative_sums, 0);
}

// The portable kernel and the widest one the processor runs give the same samples, bit for bit
// (without the wider kernel both runs take the portable one).
TEST_F(SynthTest, PortableAndWideKernelsAgreeBitForBit) {
  std::mt19937 rng(31);
  std::vector<float> inputs;
  std::uniform_real_distribution<float> dist(-1.5f, 1.5f);
  for (int i = 0; i < 8 * 32 * 18; ++i) inputs.push_back(dist(rng) * (i % 7 == 0 ? 3.0f : 0.3f));
  for (SynthFn fn : variants) {
    std::vector<int16_t> runs[2];
    for (int portable = 0; portable < 2; ++portable) {
      decoder::use_portable_synth(portable == 1);
      decoder::reset_decoder_state(st);
      for (int call = 0; call < 8; ++call) {
        std::memcpy(subband_samples, &inputs[size_t(call) * 32 * 18], sizeof subband_samples);
        fn(st, call & 1);
        runs[portable].insert(runs[portable].end(), pcm_block, pcm_block + 1152);
      }
    }
    decoder::use_portable_synth(false);
    EXPECT_EQ(runs[0], runs[1]);
  }
}

// The treatment by emphasis mode: 1 (50/15) halves rows 5-15, 3 (J.17) scales row r by
// cos(r pi/64), 4 (Hi-Fi) rebuilds rows 15 up (row 15 only by 0.97); other modes change nothing.
TEST_F(SynthTest, TreatmentByEmphasisMode) {
  std::mt19937 rng(6);
  fill_random(rng, 1.0f);
  float before[32][18];
  std::memcpy(before, subband_samples, sizeof before);
  for (int mode = 0; mode < 8; ++mode) {
    SCOPED_TRACE(mode);
    std::memcpy(subband_samples, before, sizeof before);
    st.emphasis_mode = mode;
    decoder::treat_subbands(st);
    const int acting = mode;
    for (int r = 0; r < 32; ++r) {
      if (acting == 4 && r > 15) {
        // Hi-Fi rebuilds these rows from the ones below: they change, by how much is its own affair.
        EXPECT_NE(std::memcmp(before[r], subband_samples[r], sizeof before[r]), 0) << r;
        continue;
      }
      for (int t = 0; t < 18; ++t) {
        float b = before[r][t];
        float want = acting == 1   ? (r >= 5 && r <= 15 ? b * 0.5f : b)
                     : acting == 3 ? float(b * std::cos(r * M_PI / 64))
                     : acting == 4 ? (r == 15 ? b * 0.97f : b)
                                   : b;
        EXPECT_NEAR(subband_samples[r][t], want, acting == 3 ? 1e-6 : 0.0) << r;
      }
    }
  }
}

}  // namespace
