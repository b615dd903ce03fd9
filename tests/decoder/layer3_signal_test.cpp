// Layer III signal path: the fast transforms against the direct formula, the largest lines, alias
// reduction of mixed blocks and the rows above active_subbands. Stereo processing is checked end to
// end against mpg123 (layer3_e2e_test.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "decoder/layer3_tables.h"
#include "decoder/tables.h"
#include "layer3_support.h"

namespace {

using decoder::l3;

session::FrameHeader fresh_state(int32_t id = 1, int32_t mode = 3, int32_t mode_ext = 0) {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  session::reset_bit_reader();
  decoder::reset_decoder_state();
  l3.table_row = id ? 3 : 0;  // 44.1 or 22.05 kHz
  l3.sfb_long = decoder::sfb_long[l3.table_row];
  l3.sfb_short = decoder::sfb_short[l3.table_row];
  l3.side.global_gain[0] = l3.side.global_gain[1] = 210;  // exponent 127: a gain of exactly 1
  l3.line_count[0] = l3.line_count[1] = 0;
  session::FrameHeader h{};
  h.id = id;
  h.layer_code = 1;
  h.mode = mode;
  h.mode_ext = mode_ext;
  return h;
}

double window(int32_t kind, int32_t i) {
  auto lw = [](int32_t n) { return std::sin(M_PI / 36 * (n + 0.5)); };
  auto sw = [](int32_t n) { return std::sin(M_PI / 12 * (n + 0.5)); };
  if (kind == 0) return lw(i);
  if (kind == 1) return i < 18 ? lw(i) : i < 24 ? 1.0 : i < 30 ? sw(i - 18) : 0.0;
  if (kind == 3) return i < 6 ? 0.0 : i < 12 ? sw(i - 6) : i < 18 ? 1.0 : lw(i);
  return sw(i);  // one short window of 12
}

// The fast 36-point transform (long, start, stop) and the three 12-point ones against the direct
// sum in double precision, overlap included. Tolerance: 4e-6 of the input magnitudes' sum, a few
// steps of single precision.
TEST(Layer3Transform, MatchesDirectFormula) {
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int32_t kind : {0, 1, 3, 2})
    for (int32_t trial = 0; trial < 200; ++trial) {
      float in[18], out[18], overlap[18], overlap_before[18];
      double sum = 0, block[36] = {};
      for (int32_t k = 0; k < 18; ++k) {
        in[k] = u(rng) * (trial % 2 ? 1.0f : 3000.0f);
        sum += std::fabs(in[k]);
        overlap[k] = overlap_before[k] = u(rng);
      }
      if (kind == 2) {
        for (int32_t w = 0; w < 3; ++w)
          for (int32_t i = 0; i < 12; ++i) {
            double x = 0;
            for (int32_t k = 0; k < 6; ++k) x += in[w * 6 + k] * std::cos(M_PI / 24 * (2 * i + 1 + 6) * (2 * k + 1));
            block[6 + 6 * w + i] += x * window(2, i);
          }
        decoder::imdct12x3(in, out, overlap);
      } else {
        for (int32_t i = 0; i < 36; ++i) {
          for (int32_t k = 0; k < 18; ++k) block[i] += in[k] * std::cos(M_PI / 72 * (2 * i + 1 + 18) * (2 * k + 1));
          block[i] *= window(kind, i);
        }
        decoder::imdct36(in, out, overlap, kind == 3 ? 2 : kind);
      }
      for (int32_t i = 0; i < 18; ++i) {
        ASSERT_NEAR(out[i] - double(overlap_before[i]), block[i], 4e-6 * sum + 1e-6) << "kind " << kind << " " << i;
        ASSERT_NEAR(overlap[i], block[18 + i], 4e-6 * sum + 1e-6) << "kind " << kind << " " << i;
      }
    }
}

// The largest lines (up to 15 plus 13 linbits all ones, 8206) take their own power. A gain
// exponent below 0 silences the band.
TEST(Layer3Dequantise, LargestLinesAndSilencedBands) {
  fresh_state();
  const int32_t q[6] = {8192, 8193, -8192, 1, 8206, -3};
  std::memcpy(l3.quant_lines[0], q, sizeof q);
  l3.line_count[0] = 6;
  decoder::dequantise(0, 0);
  const float* x = l3.hybrid_in[0];
  for (int32_t i = 0; i < 6; ++i)
    EXPECT_NEAR(x[i], std::copysign(std::pow(std::fabs(double(q[i])), 4.0 / 3.0), q[i]), 0.02) << i;
  EXPECT_EQ(l3.active_subbands, 32);

  l3.side.scalefac_scale[0] = 1;
  l3.scalefac_long[0][0] = 15;
  l3.side.global_gain[0] = 100;  // band 0: 100 - 210 - 60 + 127 < 0
  decoder::dequantise(0, 0);
  EXPECT_EQ(x[3], 0.0f);
  EXPECT_EQ(x[5], -decoder::pow43_table[decoder::POW43_MAX + 3] * decoder::gain_table[17]);  // band 1 at 17
}

float captured[32][18];

// Alias reduction: a mixed block reduces between its two long subbands and not at the boundary to
// the short ones; a long block everywhere. Rows above active_subbands give out their overlap and
// keep none. A joint stereo frame without stereo coding takes the plain path, with all 32 rows.
TEST(Layer3Stereo, AliasReductionAndRowsAboveTheActiveOnes) {
  for (int32_t mixed : {1, 0})
    for (int32_t line : {17, 35}) {
      session::FrameHeader h = fresh_state();
      session::state.synth_slot = [](int32_t ch) {
        if (ch == 0) std::memcpy(captured, decoder::subband_samples, sizeof captured);
      };
      session::state.shaper_slot = [] {};
      l3.side.window_switching[0] = l3.side.mixed_block[0] = mixed;
      l3.side.block_type[0] = mixed ? 2 : 0;
      l3.quant_lines[0][line] = 1;
      l3.line_count[0] = 36;
      decoder::decode_granule_signal(h, 0);
      float energy = 0;
      for (int32_t t = 0; t < 18; ++t) energy += std::fabs(captured[line / 18 + 1][t]);
      EXPECT_TRUE(mixed && line == 35 ? energy == 0.0f : energy > 0.01f) << mixed << " " << line << " " << energy;
    }

  session::FrameHeader h = fresh_state(1, 1, 2);
  for (int32_t t = 0; t < 18; ++t) l3.overlap[0][20][t] = l3.overlap[1][20][t] = 1.0f;
  l3.line_count[0] = l3.line_count[1] = 18;
  decoder::decode_granule_signal(h, 0);
  EXPECT_EQ(l3.active_subbands, 1);
  for (int32_t t = 0; t < 18; ++t) {
    EXPECT_EQ(captured[20][t], 1.0f) << t;
    EXPECT_EQ(l3.overlap[0][20][t], 0.0f) << t;
  }

  h = fresh_state(1, 1, 0);
  l3.active_subbands = 5;
  decoder::decode_granule_signal(h, 0);
  EXPECT_EQ(l3.active_subbands, 32);
}

}  // namespace
