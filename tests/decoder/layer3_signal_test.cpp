// Layer III signal path: the fast transforms against the direct formula, and the decoder's kept
// departures from the standard (the power table's wrap, MPEG-1 intensity positions 0 and 7, no alias
// reduction for mixed blocks).
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

// Lines of 8192 and above index the power table modulo its size: 8192 reads the never-written entry
// of -8192 (0.0), 8206 (15 plus 13 linbits all ones) reads -8178. A gain exponent below 0 silences
// the band.
TEST(Layer3Dequantise, PowerTableWrapsAtTheTop) {
  fresh_state();
  const int32_t q[6] = {8192, 8193, -8192, 1, 8206, -3};
  std::memcpy(l3.quant_lines[0], q, sizeof q);
  l3.line_count[0] = 6;
  decoder::dequantise(0, 0);
  const float* x = l3.hybrid_in[0];
  const float* p = decoder::pow43_table + 8192;
  const float want[6] = {0.0f, -p[8191], 0.0f, 1.0f, -p[8178], p[-3]};
  for (int32_t i = 0; i < 6; ++i) EXPECT_EQ(x[i], want[i]) << i;
  EXPECT_EQ(l3.active_subbands, 32);

  l3.side.scalefac_scale[0] = 1;
  l3.scalefac_long[0][0] = 15;
  l3.side.global_gain[0] = 100;  // band 0: 100 - 210 - 60 + 127 < 0
  decoder::dequantise(0, 0);
  EXPECT_EQ(x[3], 0.0f);
  EXPECT_EQ(x[5], p[-3] * decoder::gain_table[17]);  // band 1 at exponent 17
}

// MPEG-1 intensity stereo with channel 1 silent: the bound is the end of band 0. Positions 7 and 0
// fall back to the plain (here mid/side) path; the others split the signal. LSF intensity refuses no
// position: odd positions scale the left channel, even ones the right.
TEST(Layer3Stereo, IntensityPositions) {
  for (int32_t mode_ext : {3, 1}) {
    SCOPED_TRACE(mode_ext);
    session::FrameHeader h = fresh_state(1, 1, mode_ext);
    for (int32_t i = 0; i < 576; ++i) l3.quant_lines[0][i] = 1;
    l3.line_count[0] = 576;
    const int32_t position[5] = {5, 7, 0, 3, 6};  // bands 0-4; band 0 is below the bound
    std::memcpy(l3.scalefac_long[1], position, sizeof position);
    decoder::dequantise_stereo(h, 0);
    const float plain = mode_ext == 3 ? 0.70710677f : 1.0f;
    for (int32_t i = 0; i < 20; ++i) {  // bands 0-2 plain, band 3 half and half, band 4 all left
      EXPECT_FLOAT_EQ(l3.hybrid_in[0][i], i < 12 ? plain : i < 16 ? 0.5f : 1.0f) << i;
      EXPECT_FLOAT_EQ(l3.hybrid_in[1][i], i < 12 ? (mode_ext == 3 ? plain : 0.0f) : i < 16 ? 0.5f : 0.0f) << i;
    }
    EXPECT_EQ(l3.active_subbands, 32);
  }

  session::FrameHeader h = fresh_state(0, 1, 1);
  for (int32_t i = 0; i < 576; ++i) l3.quant_lines[0][i] = 1;
  l3.line_count[0] = 576;
  l3.intensity_scale = 1;
  l3.scalefac_long[1][1] = 3;  // odd: left times 2^-1 (row 1, entry 2)
  l3.scalefac_long[1][2] = 0;  // even 0: both full
  l3.scalefac_long[1][3] = 7;  // odd: left times entry 4
  decoder::dequantise_stereo(h, 0);
  const float left[3] = {0.5f, 1.0f, 0.25f};
  for (int32_t b = 0; b < 3; ++b) {
    EXPECT_FLOAT_EQ(l3.hybrid_in[0][6 + 6 * b], left[b]);
    EXPECT_FLOAT_EQ(l3.hybrid_in[1][6 + 6 * b], 1.0f);
  }
}

float captured[32][18];

// A mixed block has no alias reduction, not even at its long boundary: a line at the top of subband
// 0 leaves subband 1 silent. A long block spreads it into subband 1. A joint stereo frame without
// stereo coding takes the plain path, with all 32 rows.
TEST(Layer3Stereo, MixedBlocksSkipAliasReduction) {
  for (int32_t mixed : {1, 0}) {
    session::FrameHeader h = fresh_state();
    session::state.synth_slot = [](int32_t ch) {
      if (ch == 0) std::memcpy(captured, decoder::subband_samples, sizeof captured);
    };
    session::state.shaper_slot = [] {};
    l3.side.window_switching[0] = l3.side.mixed_block[0] = mixed;
    l3.side.block_type[0] = mixed ? 2 : 0;
    l3.quant_lines[0][17] = 1;
    l3.line_count[0] = 18;
    decoder::decode_granule_signal(h, 0);
    float energy = 0;
    for (int32_t t = 0; t < 18; ++t) energy += std::fabs(captured[1][t]);
    EXPECT_TRUE(mixed ? energy == 0.0f : energy > 0.01f) << energy;
  }
  session::FrameHeader h = fresh_state(1, 1, 0);
  l3.active_subbands = 5;
  decoder::decode_granule_signal(h, 0);
  EXPECT_EQ(l3.active_subbands, 32);
}

}  // namespace
