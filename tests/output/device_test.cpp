// The gain both devices apply. (The SDL2 device itself plays end to end in the play command's
// tests, on SDL's disk driver.)
#include <gtest/gtest.h>

#include <vector>

#include "output/wave_device.h"

namespace {

using namespace output;

TEST(Gain, ScalesEachSideAndLeavesUnityExact) {
  const WaveFormat stereo16{8000, 2, 16, 4, 32000};
  int16_t s[4] = {-32768, 32767, 1000, -1000};
  apply_gain(reinterpret_cast<uint8_t*>(s), 8, stereo16, 0xFFFFFFFF);
  EXPECT_EQ(std::vector<int16_t>(s, s + 4), (std::vector<int16_t>{-32768, 32767, 1000, -1000}));
  apply_gain(reinterpret_cast<uint8_t*>(s), 8, stereo16, 0x0000FFFF);  // right side silent
  EXPECT_EQ(std::vector<int16_t>(s, s + 4), (std::vector<int16_t>{-32768, 0, 1000, 0}));

  // 8 bit is offset by 128; one channel takes the low (left) level only. 127 halved goes towards zero.
  uint8_t u[4] = {0, 255, 128, 192};
  apply_gain(u, 4, WaveFormat{8000, 1, 8, 1, 8000}, 0xFFFF8000);
  EXPECT_EQ(std::vector<uint8_t>(u, u + 4), (std::vector<uint8_t>{64, 191, 128, 160}));
}

}  // namespace
