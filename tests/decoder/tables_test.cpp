// The decoder tables: computed values at their exact points, stored tables against the standard's
// figures where those are at hand.
#include "decoder/tables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "decoder/decoder.h"

namespace {

class TablesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { decoder::init_decoder_tables(); }
};

TEST_F(TablesTest, GainTableIsExactAtPowersOfTwo) {
  EXPECT_EQ(decoder::gain_table[127], 1.0f);
  EXPECT_EQ(decoder::gain_table[131], 2.0f);
  EXPECT_EQ(decoder::gain_table[123], 0.5f);
  // n = -127 = -(4 * 31 + 3): the fraction 0.59460354 (3F1837F0) over 2^31.
  uint32_t bits = 0x3F1837F0;
  float fraction;
  std::memcpy(&fraction, &bits, sizeof fraction);
  EXPECT_EQ(decoder::gain_table[0], std::ldexp(fraction, -31));
  // Every entry is its fraction times an exact power of two: four consecutive entries step by the
  // same fractions, so entry e + 4 is exactly twice entry e.
  for (int e = 0; e + 4 < decoder::GAIN_SIZE; ++e)
    ASSERT_EQ(decoder::gain_table[e + 4], 2.0f * decoder::gain_table[e]) << e;
  for (int e = 0; e < decoder::GAIN_SIZE; ++e)
    EXPECT_NEAR(decoder::gain_table[e] / std::pow(2.0, (e - 127) / 4.0), 1.0, 1e-7) << e;
}

TEST_F(TablesTest, Pow43HalvesMirrorAndIndexZeroStaysZero) {
  const float* p = decoder::pow43_table + 8192;
  EXPECT_EQ(p[1], 1.0f);
  EXPECT_EQ(p[-1], -1.0f);
  EXPECT_EQ(p[0], 0.0f);
  EXPECT_FALSE(std::signbit(p[0]));
  EXPECT_EQ(p[8], 16.0f);
  EXPECT_EQ(decoder::pow43_table[0], 0.0f);  // q = -8192 is never written
  for (int q = 1; q < 8192; ++q) ASSERT_EQ(p[-q], -p[q]) << q;
  EXPECT_NEAR(p[8191], std::pow(8191.0, 4.0 / 3.0), 1.0);
}

TEST_F(TablesTest, DeemphasisCosineFollowsTheAccumulatedAngle) {
  EXPECT_EQ(decoder::deemphasis_cos[0], 1.0f);
  for (int k = 1; k < 32; ++k)
    EXPECT_NEAR(decoder::deemphasis_cos[k], std::cos(k * M_PI / 64), 2e-6) << k;  // the angle drifts by its additions
}

TEST_F(TablesTest, SynthWindowRowsAreDoubledAndRowSixteenIsOdd) {
  for (int j = 0; j < decoder::SYNTH_WINDOW_ROWS; ++j)
    for (int e = 0; e < 16; ++e) ASSERT_EQ(decoder::SYNTH_WINDOW[j][e], decoder::SYNTH_WINDOW[j][e + 16]);
  const float* row16 = decoder::SYNTH_WINDOW[16];
  EXPECT_EQ(row16[8], -row16[7]);
  EXPECT_EQ(row16[15], -row16[0]);
  EXPECT_EQ(row16[0], -1.2499628f);
  const float row0[] = {0.0f,        -7.2497807f, 53.248375f, -114.7465f, 509.23447f,
                        -1288.2107f, 1643.4498f,  -9371.964f, 18758.928f};
  for (int e = 0; e < 9; ++e) EXPECT_EQ(decoder::SYNTH_WINDOW[0][e], row0[e]) << e;
  EXPECT_EQ(decoder::synth_window_origin, &decoder::SYNTH_WINDOW[0][16]);
}

TEST_F(TablesTest, ScaleFactorsEndInNearSilenceAndSilence) {
  EXPECT_EQ(decoder::scale_factor_table[0], 2.0f);
  EXPECT_EQ(decoder::scale_factor_table[3], 1.0f);
  EXPECT_EQ(decoder::scale_factor_table[62], 1E-20f);
  EXPECT_EQ(decoder::scale_factor_table[63], 0.0f);
  for (int i = 0; i < 62; ++i)
    EXPECT_NEAR(decoder::scale_factor_table[i] / std::pow(2.0, 1.0 - i / 3.0), 1.0, 1e-7) << i;
}

// The class constants decode each class's levels symmetrically about zero, within the six-digit
// figures' rounding, and the top level times C is close to 1.
TEST_F(TablesTest, ClassConstantsSpanSymmetricLevels) {
  for (int c = 1; c < decoder::QUANT_CLASSES; ++c) {
    const decoder::QuantClass& q = decoder::quant_class_table[c];
    SCOPED_TRACE(c);
    if (q.grouped) {
      const float* k = decoder::class_digit_constants[c];
      float lo = 0 * k[0] - 1.0f + k[1], hi = (q.steps - 1) * k[0] - 1.0f + k[1];
      EXPECT_EQ(lo, -hi);
      EXPECT_NEAR(hi * q.c, 1.0 - 1.0 / q.steps, 1e-6);
      EXPECT_GE(1 << q.bits, q.steps * q.steps * q.steps);
    } else {
      const float* k = decoder::class_value_constants[c];
      float lo = k[1], hi = (q.steps - 1) * k[0] + k[1];
      EXPECT_NEAR(lo, -hi, 2e-4);
      EXPECT_NEAR(hi * q.c, 1.0 - 1.0 / q.steps, 2e-4);  // the six-digit figures drift up to 1.2e-4
      EXPECT_EQ(1 << q.bits, q.steps + 1);
    }
  }
}

// Each allocation row's classes have the step counts of the standard's tables (read from the
// figures when they are at hand); the narrow tables' slip 127 stands where 127 steps are meant.
TEST_F(TablesTest, AllocationTablesMatchTheStandardsStepCounts) {
  FILE* f = std::fopen("/work/shared/iso/layer2_alloc_tables.txt", "r");
  if (!f) GTEST_SKIP() << "the standard's allocation figures are not at hand";
  std::map<std::pair<int, int>, std::vector<int>> rows;
  std::map<int, int> limits;
  char line[512];
  while (std::fgets(line, sizeof line, f)) {
    std::istringstream in(line);
    std::string kind;
    in >> kind;
    if (kind == "L") {
      int t, n;
      in >> t >> n;
      limits[t] = n;
    } else if (kind == "A") {
      int t, sb, nbal;
      in >> t >> sb >> nbal;
      std::vector<int> steps{nbal};
      for (int s; in >> s;) steps.push_back(s);
      rows[{t, sb}] = steps;
    }
  }
  std::fclose(f);
  ASSERT_EQ(limits.size(), 5u);
  int slips = 0;
  for (int t = 0; t < decoder::ALLOCATION_TABLES; ++t) {
    EXPECT_EQ(decoder::allocation_sblimit[t], limits[t]) << t;
    for (int sb = 0; sb < 32; ++sb) {
      SCOPED_TRACE(testing::Message() << "table " << t << " subband " << sb);
      if (sb >= limits[t]) {
        EXPECT_EQ(decoder::allocation_bits[t][sb], 0);
        continue;
      }
      const std::vector<int>& want = rows[{t, sb}];
      ASSERT_FALSE(want.empty());
      EXPECT_EQ(decoder::allocation_bits[t][sb], want[0]);
      const int8_t* row = decoder::allocation_table[t][sb];
      EXPECT_EQ(row[0], 0);
      for (int code = 1; code < 16; ++code) {
        int cls = row[code];
        if (code >= int(want.size())) {
          EXPECT_EQ(cls, 0) << code;
          continue;
        }
        if (cls == decoder::NARROW_SLIP_CLASS) {
          EXPECT_EQ(want[code], 127);
          ++slips;
          continue;
        }
        ASSERT_GT(cls, 0);
        ASSERT_LT(cls, decoder::QUANT_CLASSES);
        EXPECT_EQ(decoder::quant_class_table[cls].steps, want[code]) << code;
      }
    }
  }
  EXPECT_EQ(slips, 6 + 10);  // every 3-bit row of the two narrow tables
}

}  // namespace
