// The display's and the title's arithmetic: the FFT, the bars, the peaks, the spectrum's columns
// and the texts the window shows for an entry.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <vector>

#include "shell/visual_core.h"

namespace {

using namespace shell;

TEST(Visual, FftMatchesTheDirectTransform) {
  float re[FFT_N], im[FFT_N];
  uint32_t seed = 12345;
  for (int32_t i = 0; i < FFT_N; ++i) {
    seed = seed * 1103515245 + 12345;
    re[i] = float(int32_t(seed >> 16) % 2000 - 1000);
    im[i] = i < 64 ? 0.0f : float(i % 7);
  }
  std::vector<std::complex<double>> x(FFT_N);
  for (int32_t i = 0; i < FFT_N; ++i) x[i] = {re[i], im[i]};
  fft128(re, im);
  for (int32_t k = 0; k < FFT_N; ++k) {
    std::complex<double> sum = 0;
    for (int32_t n = 0; n < FFT_N; ++n) sum += x[n] * std::polar(1.0, -2 * M_PI * k * n / FFT_N);
    EXPECT_NEAR(re[k], sum.real(), 0.05) << k;
    EXPECT_NEAR(im[k], sum.imag(), 0.05) << k;
  }
}

// 16-bit stereo PCM of one block: a sine of the given bin's frequency on both sides.
std::vector<uint8_t> block16(double amplitude, double cycles_per_128) {
  std::vector<uint8_t> b(18432);
  for (size_t i = 0; i < b.size() / 4; ++i) {
    const int16_t v = int16_t(std::lround(amplitude * std::sin(2 * M_PI * cycles_per_128 * double(i) / 128)));
    for (int c = 0; c < 2; ++c) {
      b[4 * i + 2 * c] = uint8_t(v & 0xFF);
      b[4 * i + 2 * c + 1] = uint8_t(uint16_t(v) >> 8);
    }
  }
  return b;
}

TEST(Visual, BarsAndSpectrumForSilenceFullScaleAndASine) {
  std::vector<uint8_t> silence = block16(0, 0);
  PcmView pcm{silence.data(), int32_t(silence.size()), true, true};
  LevelSums s = level_sums(pcm, 0);
  EXPECT_EQ(bar_length(s.left), 0);
  EXPECT_EQ(bar_length(s.right), 0);
  int32_t bins[64];
  spectrum_bins(pcm, 0, bins);
  for (int32_t b : bins) EXPECT_EQ(b, 15);

  // Full scale: 128 * 32767 shifted by 14 is 255, 32 log10(255) is 77, shown as 64.
  std::vector<uint8_t> full(18432);
  for (size_t i = 0; i < full.size(); i += 2) {
    const int16_t v = (i / 4) % 2 ? 32767 : -32767;
    full[i] = uint8_t(v & 0xFF);
    full[i + 1] = uint8_t(uint16_t(v) >> 8);
  }
  pcm.data = full.data();
  s = level_sums(pcm, 18000);  // past the room left in the block: the last samples are read
  EXPECT_EQ(s.left, 255);
  EXPECT_EQ(s.right, 255);
  EXPECT_EQ(int32_t(32 * std::log10(255.0)), 77);
  EXPECT_EQ(bar_length(s.left), 64);

  // A sine lands on its bin: the tallest bar (lowest level) is there.
  std::vector<uint8_t> sine = block16(1000, 20);
  pcm.data = sine.data();
  spectrum_bins(pcm, 1000, bins);
  int32_t best = 0;
  for (int32_t k = 1; k < 64; ++k)
    if (bins[k] < bins[best]) best = k;
  EXPECT_EQ(best, 20);
  EXPECT_GT(bins[40], bins[20] + 4);
}

TEST(Visual, PeakHoldFramesFollowTheWait) {
  for (auto [wait, frames] : {std::pair{17, 5}, {33, 4}, {67, 3}}) {
    BarPeak p;
    hold_peak(p, 50, wait);  // the peak is set
    int32_t n = 0;
    do {
      hold_peak(p, 10, wait);
      ++n;
    } while (p.peak == 50);
    EXPECT_EQ(n, frames) << wait;
    EXPECT_EQ(p.peak, 10);
  }
  // The spectrum's dots fall one half pixel a frame and jump up with the bar.
  EXPECT_EQ(step_peak(10, 12), 11);
  EXPECT_EQ(step_peak(30, 3), 6);
}

TEST(Visual, ColumnsOverBinsFor8And16BitOutput) {
  int32_t bins[64], columns[64];
  for (int32_t i = 0; i < 64; ++i) bins[i] = i % 16;
  spectrum_columns(bins, true, columns);
  EXPECT_EQ(columns[15], 15);
  EXPECT_EQ(columns[16], 0);              // bin 16
  EXPECT_EQ(columns[17], (0 + 15) >> 1);  // with the last single column
  EXPECT_EQ(columns[18], 1);              // bin 17
  EXPECT_EQ(columns[19], (1 + 0) >> 1);
  EXPECT_EQ(columns[46], 15);  // bin 31
  EXPECT_EQ(columns[48], 0);   // bin 32
  EXPECT_EQ(columns[63], 15);  // bin 47
  spectrum_columns(bins, false, columns);
  EXPECT_EQ(columns[23], 7);  // bin 23
  EXPECT_EQ(columns[24], 8);  // bin 24
  EXPECT_EQ(columns[25], (8 + 7) >> 1);
  EXPECT_EQ(columns[38], 15);       // bin 31
  EXPECT_EQ(columns[40], 0);        // bin 32
  EXPECT_EQ(columns[63], 55 % 16);  // bin 55
  EXPECT_STREQ(vu_label(true, false, true, false), "DOWNMIX/16");
  EXPECT_STREQ(vu_label(false, true, false, true), "HI-FI/8M  ");
}

TEST(Visual, TitleAndCaptionTexts) {
  uint8_t tag[128] = {};
  std::memcpy(tag, "TAG", 3);
  std::memcpy(tag + 3, "Song  ", 6);
  std::memcpy(tag + 33, "Band                ", 20);
  EXPECT_EQ(title_text(0, "/music/a.mp3", tag, true), "1.Band - Song");
  EXPECT_EQ(title_text(0, "/music/a.mp3", tag, false), "1.a.mp3");
  std::memset(tag + 3, ' ', 30);  // an artist and no title: then the file name
  EXPECT_EQ(title_text(4, "/music/a.mp3", tag, true), "5.Band - a.mp3");
  EXPECT_EQ(title_text(1, "/music/", nullptr, true), "2./music/");
  EXPECT_EQ(title_text(1, "", nullptr, true), "TOVRA version 1.10");
  EXPECT_EQ(caption_text(2, "/music/b.mp2", true), "3. b.mp2 - TOVRA");
  EXPECT_EQ(caption_text(0, "", false), "TOVRA version 1.10");
  EXPECT_EQ(progress_caption("/x/y/song.mp3"), "TOVRA convert - song.mp3");
}

}  // namespace
