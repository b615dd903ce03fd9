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

void fresh_state() {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  session::reset_bit_reader();
  decoder::reset_decoder_state();
  l3.table_row = 3;  // 44.1 kHz
  l3.sfb_long = decoder::sfb_long[3];
  l3.sfb_short = decoder::sfb_short[3];
}

double long_window(int32_t kind, int32_t i) {
  auto lw = [](int32_t n) { return std::sin(M_PI / 36 * (n + 0.5)); };
  auto sw = [](int32_t n) { return std::sin(M_PI / 12 * (n + 0.5)); };
  if (kind == 0) return lw(i);
  if (kind == 1) return i < 18 ? lw(i) : i < 24 ? 1.0 : i < 30 ? sw(i - 18) : 0.0;
  return i < 6 ? 0.0 : i < 12 ? sw(i - 6) : i < 18 ? 1.0 : lw(i);
}

// The fast 36-point transform with its folded windows against the direct sum, in double precision.
// Tolerance: 4e-6 of the sum of the input magnitudes, a few steps of single precision.
TEST(Layer3Transform, LongStartStopMatchDirectFormula) {
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int32_t kind = 0; kind < 3; ++kind)
    for (int32_t trial = 0; trial < 200; ++trial) {
      float in[18], out[18], overlap[18], overlap_before[18];
      double in_d[18], sum = 0;
      float scale = trial % 2 ? 1.0f : 3000.0f;
      for (int32_t k = 0; k < 18; ++k) {
        in[k] = u(rng) * scale;
        in_d[k] = in[k];
        sum += std::fabs(in_d[k]);
        overlap[k] = overlap_before[k] = u(rng);
      }
      decoder::imdct36(in, out, overlap, kind);
      for (int32_t i = 0; i < 36; ++i) {
        double x = 0;
        for (int32_t k = 0; k < 18; ++k) x += in_d[k] * std::cos(M_PI / 72 * (2 * i + 1 + 18) * (2 * k + 1));
        x *= long_window(kind, i);
        double got = i < 18 ? out[i] - double(overlap_before[i]) : overlap[i - 18];
        ASSERT_NEAR(got, x, 4e-6 * sum + 1e-6) << "kind " << kind << " output " << i;
      }
    }
}

TEST(Layer3Transform, ShortMatchesDirectFormula) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int32_t trial = 0; trial < 300; ++trial) {
    float in[18], out[18], overlap[18], overlap_before[18];
    double sum = 0;
    for (int32_t k = 0; k < 18; ++k) {
      in[k] = u(rng) * (trial % 2 ? 1.0f : 500.0f);
      sum += std::fabs(in[k]);
      overlap[k] = overlap_before[k] = u(rng);
    }
    double block[36] = {};
    for (int32_t w = 0; w < 3; ++w)
      for (int32_t i = 0; i < 12; ++i) {
        double x = 0;
        for (int32_t k = 0; k < 6; ++k) x += in[w * 6 + k] * std::cos(M_PI / 24 * (2 * i + 1 + 6) * (2 * k + 1));
        block[6 + 6 * w + i] += x * std::sin(M_PI / 12 * (i + 0.5));
      }
    decoder::imdct12x3(in, out, overlap);
    for (int32_t i = 0; i < 18; ++i) {
      ASSERT_NEAR(out[i] - double(overlap_before[i]), block[i], 4e-6 * sum + 1e-6) << i;
      ASSERT_NEAR(overlap[i], block[18 + i], 4e-6 * sum + 1e-6) << i;
    }
  }
}

// Lines of 8192 and above index the power table modulo its size: 8192 reads the never-written entry
// of -8192 (0.0), 8206 (15 plus 13 linbits all ones) reads -8178.
TEST(Layer3Dequantise, PowerTableWrapsAtTheTop) {
  fresh_state();
  decoder::SideInfo& si = l3.side;
  si.global_gain[0] = 210;  // exponent 127: a gain of exactly 1
  const int32_t q[6] = {8192, 8193, -8192, 1, 8206, -3};
  for (int32_t i = 0; i < 6; ++i) l3.quant_lines[0][i] = q[i];
  l3.line_count[0] = 6;
  decoder::dequantise(0, 0);
  const float* x = l3.hybrid_in[0];
  EXPECT_EQ(x[0], 0.0f);
  EXPECT_EQ(x[1], -decoder::pow43_table[8192 + 8191]);
  EXPECT_EQ(x[2], 0.0f);
  EXPECT_EQ(x[3], 1.0f);
  EXPECT_EQ(x[4], -decoder::pow43_table[8192 + 8178]);
  EXPECT_EQ(x[5], decoder::pow43_table[8192 - 3]);
  EXPECT_EQ(l3.active_subbands, 32);

  // A gain exponent outside 0-254 silences the band: a large scale factor shifted by 2.
  si.scalefac_scale[0] = 1;
  l3.scalefac_long[0][0] = 15;
  si.global_gain[0] = 100;  // band 0: 100 - 210 - 60 + 127 < 0
  decoder::dequantise(0, 0);
  EXPECT_EQ(x[3], 0.0f);
  EXPECT_EQ(x[5], decoder::pow43_table[8192 - 3] * decoder::gain_table[17]);  // band 1 at exponent 17
}

// MPEG-1 intensity stereo with channel 1 silent: the bound is the end of band 0. Positions 7 and 0
// fall back to the plain (here mid/side) path; the others split the signal.
TEST(Layer3Stereo, Mpeg1IntensityPositions) {
  for (int32_t mode_ext : {3, 1}) {
    fresh_state();
    session::FrameHeader h{};
    h.id = 1;
    h.layer_code = 1;
    h.mode = 1;
    h.mode_ext = mode_ext;
    decoder::SideInfo& si = l3.side;
    si.global_gain[0] = si.global_gain[1] = 210;
    for (int32_t i = 0; i < 576; ++i) l3.quant_lines[0][i] = 1;
    l3.line_count[0] = 576;
    l3.line_count[1] = 0;
    const int32_t position[5] = {5, 7, 0, 3, 6};  // bands 0-4; band 0 is below the bound
    for (int32_t b = 0; b < 5; ++b) l3.scalefac_long[1][b] = position[b];
    decoder::dequantise_stereo(h, 0);
    const float* l = l3.hybrid_in[0];
    const float* r = l3.hybrid_in[1];
    const bool ms = mode_ext == 3;
    const float plain_l = ms ? 0.70710677f : 1.0f, plain_r = ms ? 0.70710677f : 0.0f;
    for (int32_t i = 0; i < 12; ++i) {  // bands 0, 1 and 2
      EXPECT_FLOAT_EQ(l[i], plain_l) << "mode_ext " << mode_ext << " line " << i;
      EXPECT_FLOAT_EQ(r[i], plain_r) << "mode_ext " << mode_ext << " line " << i;
    }
    for (int32_t i = 12; i < 16; ++i) {  // position 3: half and half
      EXPECT_FLOAT_EQ(l[i], 0.5f);
      EXPECT_FLOAT_EQ(r[i], 0.5f);
    }
    for (int32_t i = 16; i < 20; ++i) {  // position 6: all left
      EXPECT_FLOAT_EQ(l[i], 1.0f);
      EXPECT_FLOAT_EQ(r[i], 0.0f);
    }
    EXPECT_EQ(l3.active_subbands, 32);
  }
}

// LSF intensity refuses no position: odd positions scale the left channel, even ones the right.
TEST(Layer3Stereo, LsfIntensityPositions) {
  fresh_state();
  l3.table_row = 0;
  l3.sfb_long = decoder::sfb_long[0];
  session::FrameHeader h{};
  h.id = 0;
  h.layer_code = 1;
  h.mode = 1;
  h.mode_ext = 1;
  decoder::SideInfo& si = l3.side;
  si.global_gain[0] = si.global_gain[1] = 210;
  for (int32_t i = 0; i < 576; ++i) l3.quant_lines[0][i] = 1;
  l3.line_count[0] = 576;
  l3.intensity_scale = 1;
  l3.scalefac_long[1][1] = 3;  // odd: left times 2^-1 (row 1, entry 2)
  l3.scalefac_long[1][2] = 0;  // even 0: both full
  l3.scalefac_long[1][3] = 7;  // odd: left times entry 4
  decoder::dequantise_stereo(h, 0);
  const float* l = l3.hybrid_in[0];
  const float* r = l3.hybrid_in[1];
  EXPECT_FLOAT_EQ(l[6], 0.5f);
  EXPECT_FLOAT_EQ(r[6], 1.0f);
  EXPECT_FLOAT_EQ(l[12], 1.0f);
  EXPECT_FLOAT_EQ(r[12], 1.0f);
  EXPECT_FLOAT_EQ(l[18], 0.25f);
  EXPECT_FLOAT_EQ(r[18], 1.0f);
}

float captured[2][32][18];
void capture_synth(int32_t channel) { std::memcpy(captured[channel], decoder::subband_samples, sizeof captured[0]); }
void no_shaper() {}

// A mixed block has no alias reduction, not even at its long boundary: a line at the top of subband
// 0 leaves subband 1 silent. A long block spreads it into subband 1.
TEST(Layer3Stereo, MixedBlocksSkipAliasReduction) {
  for (int32_t mixed : {1, 0}) {
    fresh_state();
    session::state.synth_slot = capture_synth;
    session::state.shaper_slot = no_shaper;
    session::FrameHeader h{};
    h.id = 1;
    h.layer_code = 1;
    h.mode = 3;
    decoder::SideInfo& si = l3.side;
    si.global_gain[0] = 210;
    si.window_switching[0] = mixed;
    si.block_type[0] = mixed ? 2 : 0;
    si.mixed_block[0] = mixed;
    l3.quant_lines[0][17] = 1;
    l3.line_count[0] = 18;
    decoder::decode_granule_signal(h, 0);
    float energy = 0;
    for (int32_t t = 0; t < 18; ++t) energy += std::fabs(captured[0][1][t]);
    if (mixed)
      EXPECT_EQ(energy, 0.0f);
    else
      EXPECT_GT(energy, 0.01f);
    // A joint stereo frame without stereo coding takes the plain path, with all 32 rows.
  }
  fresh_state();
  session::FrameHeader h{};
  h.id = 1;
  h.layer_code = 1;
  h.mode = 1;
  h.mode_ext = 0;
  l3.active_subbands = 5;
  decoder::decode_granule_signal(h, 0);
  EXPECT_EQ(l3.active_subbands, 32);
}

TEST(Layer3Tables, ShortReorderAndStoredFigures) {
  const int16_t first[20] = {0, 1, 2, 3, 6, 7, 8, 9, 12, 13, 14, 15, 4, 5, 18, 19, 10, 11, 24, 25};
  for (int32_t i = 0; i < 20; ++i) EXPECT_EQ(decoder::short_reorder[3][i], first[i]) << i;
  // Every row is a permutation of the 576 places.
  for (int32_t row = 0; row < decoder::SFB_ROWS; ++row) {
    bool seen[576] = {};
    for (int32_t i = 0; i < 576; ++i) seen[decoder::short_reorder[row][i]] = true;
    for (int32_t i = 0; i < 576; ++i) ASSERT_TRUE(seen[i]) << row << " " << i;
  }
  // 24 kHz long band 18 ends at 332 (the standard's figure).
  EXPECT_EQ(decoder::sfb_long[1][17], 331);
  EXPECT_EQ(decoder::lsf_intensity_table[0][7], 0.297302f);
  EXPECT_EQ(decoder::lsf_intensity_table[0][16], 0.0f);
}

}  // namespace
