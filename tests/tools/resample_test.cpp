// The resampler: its kernels' known answers, the job's messages, cancel and failures, and the CLI.
#include "tools/resample.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "tools/wave.h"
#include "tools_support.h"

namespace {

using namespace tools_test;

class Resample : public ToolsTest {
 protected:
  // Runs a job to its end; returns the start's code, or the job's result (message 1051).
  int32_t run(const std::string& in, const std::string& out, int32_t rate, int32_t bits, int32_t channels,
              int32_t quality) {
    install_recorder();
    int32_t code = tools::start_resample(in.c_str(), out.c_str(), rate, bits, channels, quality);
    if (code != tools::WAVE_OK) return code;
    tools::wait_resample();
    EXPECT_EQ(session::state.file_job_cancel.load(), 1);
    std::vector<Message> status = recorded(session::MSG_PROGRESS_STATUS);
    EXPECT_EQ(status.size(), 1u);
    EXPECT_EQ(recorded(session::MSG_PROGRESS_END).size(), 1u);
    return status.empty() ? -100 : int32_t(status.back().wparam);
  }
  // Resamples a mono 16-bit signal and returns the output's samples.
  std::vector<int16_t> mono(const std::vector<int16_t>& in, int32_t in_rate, int32_t out_rate, int32_t quality) {
    write_wave(dir.file("mono.wav"), in_rate, 16, 1, in);
    EXPECT_EQ(run(dir.file("mono.wav"), dir.file("mono_out.wav"), out_rate, 16, 1, quality), 0);
    return as_pcm16(check_written_wave(dir.file("mono_out.wav")).data);
  }
  void TearDown() override { tools::wait_resample(); }
};

TEST_F(Resample, EqualRatesCopyTheInputWithTheLinearKernel) {
  std::vector<int16_t> v = noise(2 * 50000, 1);
  v[0] = -32768;
  v[1] = 32767;
  write_wave(dir.file("in.wav"), 44100, 16, 2, v);
  ASSERT_EQ(run(dir.file("in.wav"), dir.file("out.wav"), 44100, 16, 2, 0), 0);
  EXPECT_EQ(as_pcm16(check_written_wave(dir.file("out.wav")).data), v);

  // Two sinc taps at whole positions weigh the next sample by sin(pi)/pi: nothing that survives
  // the single-precision sum.
  ASSERT_EQ(run(dir.file("in.wav"), dir.file("out2.wav"), 44100, 16, 2, 2), 0);
  EXPECT_EQ(as_pcm16(check_written_wave(dir.file("out2.wav")).data), v);
}

TEST_F(Resample, TwoSincTapsReadSamplesIAndIPlusOne) {
  // An impulse, doubled in rate: output n lies at n / 2.
  std::vector<int16_t> in(400, 0);
  const int k = 100;
  in[k] = 10000;
  const int32_t half = int32_t(10000 * std::sin(M_PI / 2) / double(float(M_PI / 2)));
  ASSERT_EQ(half, 6366);
  std::vector<int16_t> out = mono(in, 8000, 16000, 2);
  ASSERT_EQ(out.size(), 800u);
  for (int n = 0; n < 800; ++n) {
    int want = n == 2 * k ? 10000 : (n == 2 * k - 1 || n == 2 * k + 1) ? half : 0;
    ASSERT_EQ(out[size_t(n)], want) << n;
  }
  // Three taps: i - 1 + 1 = i is the first, so the reach is one sample longer to the right, and
  // the impulse shows at distance 1.5 as well (sin(-1.5 pi) / -1.5 pi).
  out = mono(in, 8000, 16000, 3);
  EXPECT_EQ(out[2 * k - 3], int16_t(10000 / double(float(-1.5 * M_PI))));
  EXPECT_EQ(out[2 * k + 3], 0);
  // Four taps reach both ways.
  out = mono(in, 8000, 16000, 4);
  EXPECT_EQ(out[2 * k - 3], out[2 * k + 3]);
  EXPECT_NE(out[2 * k + 3], 0);
}

TEST_F(Resample, CubicWeightsAtZeroAndHalf) {
  EXPECT_EQ(tools::cubic_weight(-1.0), 0.0);
  EXPECT_EQ(tools::cubic_weight(0.0), 1.0);
  EXPECT_EQ(tools::cubic_weight(1.0), 0.0);
  EXPECT_EQ(tools::cubic_weight(2.0), 0.0);
  EXPECT_EQ(tools::cubic_weight(-1.5), -0.125);
  EXPECT_EQ(tools::cubic_weight(-0.5), 0.625);
  EXPECT_EQ(tools::cubic_weight(0.5), 0.625);
  EXPECT_EQ(tools::cubic_weight(1.5), -0.125);

  std::vector<int16_t> in(200, 0);
  in[50] = 8000;
  std::vector<int16_t> out = mono(in, 11025, 22050, 1);
  ASSERT_EQ(out.size(), 400u);
  for (int n = 0; n < 400; ++n) {
    int d = std::abs(n - 100);
    int want = d == 0 ? 8000 : d == 1 ? 5000 : d == 3 ? -1000 : 0;
    ASSERT_EQ(out[size_t(n)], want) << n;
  }
}

TEST_F(Resample, SineKeepsItsFrequencyDownAndUp) {
  const int32_t rate = 44100;
  const double freq = 1000.0;
  std::vector<int16_t> in(static_cast<size_t>(rate));  // one second
  for (size_t i = 0; i < in.size(); ++i) in[i] = int16_t(12000 * std::sin(2 * M_PI * freq * double(i) / rate));
  std::vector<int16_t> down = mono(in, rate, 22050, 21);
  ASSERT_EQ(down.size(), 22050u);
  write_wave(dir.file("down.wav"), 22050, 16, 1, down);
  ASSERT_EQ(run(dir.file("down.wav"), dir.file("up.wav"), rate, 16, 1, 21), 0);
  std::vector<int16_t> up = as_pcm16(check_written_wave(dir.file("up.wav")).data);
  ASSERT_EQ(up.size(), size_t(rate));
  // Rising zero crossings over the middle, away from the edges where the taps see silence.
  int crossings = 0;
  double first = -1, last = -1;
  for (size_t i = 1000; i + 1000 < up.size(); ++i) {
    if (up[i - 1] < 0 && up[i] >= 0) {
      double at = double(i - 1) + double(-up[i - 1]) / double(up[i] - up[i - 1]);
      if (first < 0) first = at;
      last = at;
      ++crossings;
    }
  }
  ASSERT_GT(crossings, 900);
  double measured = (crossings - 1) * double(rate) / (last - first);
  EXPECT_NEAR(measured, freq, 0.5);
  // The amplitude stays within the sinc's ripple.
  int16_t peak = *std::max_element(up.begin() + 1000, up.end() - 1000);
  EXPECT_NEAR(peak, 12000, 1200);
}

TEST_F(Resample, EightBitAndMonoOutputsFollowTheWritersRules) {
  std::vector<int16_t> v = noise(2 * 3000, 7, 32767);
  write_wave(dir.file("in.wav"), 32000, 16, 2, v);
  ASSERT_EQ(run(dir.file("in.wav"), dir.file("m16.wav"), 32000, 16, 1, 0), 0);
  ASSERT_EQ(run(dir.file("in.wav"), dir.file("m8.wav"), 32000, 8, 1, 0), 0);
  ASSERT_EQ(run(dir.file("in.wav"), dir.file("s8.wav"), 32000, 8, 2, 0), 0);
  std::vector<int16_t> m16 = as_pcm16(check_written_wave(dir.file("m16.wav")).data);
  WaveFacts m8 = check_written_wave(dir.file("m8.wav"));
  WaveFacts s8 = check_written_wave(dir.file("s8.wav"));
  ASSERT_EQ(m16.size(), 3000u);
  ASSERT_EQ(m8.data.size(), 3000u);
  ASSERT_EQ(s8.data.size(), 6000u);
  EXPECT_EQ(m8.bits, 8);
  EXPECT_EQ(m8.channels, 1);
  for (size_t i = 0; i < 3000; ++i) {
    int32_t l = v[2 * i], r = v[2 * i + 1];
    ASSERT_EQ(m16[i], (l + r) >> 1) << i;
    ASSERT_EQ(m8.data[i], ((l + r) >> 9) + 128) << i;
    ASSERT_EQ(s8.data[2 * i], (l >> 8) + 128) << i;
    ASSERT_EQ(s8.data[2 * i + 1], (r >> 8) + 128) << i;
  }

  // An 8-bit input comes back unchanged through 16 bits and back.
  write_wave(dir.file("in8.wav"), 8000, 8, 2, v);
  ASSERT_EQ(run(dir.file("in8.wav"), dir.file("back8.wav"), 8000, 8, 2, 0), 0);
  std::vector<uint8_t> in8 = test::read_file(dir.file("in8.wav"));
  EXPECT_EQ(check_written_wave(dir.file("back8.wav")).data, std::vector<uint8_t>(in8.begin() + 44, in8.end()));
}

TEST_F(Resample, LengthsFollowTheRatesAndEmptyInputGivesAnEmptyFile) {
  write_wave(dir.file("in.wav"), 44100, 16, 2, noise(2 * 44100, 3));
  ASSERT_EQ(run(dir.file("in.wav"), dir.file("48.wav"), 48000, 16, 2, 21), 0);
  EXPECT_EQ(check_written_wave(dir.file("48.wav")).data.size(), 48000u * 4);
  std::vector<Message> progress = recorded(session::MSG_RESAMPLE_PROGRESS);
  ASSERT_GE(progress.size(), 2u);
  EXPECT_EQ(progress.back().wparam, 48000);  // the count reached, once more at the end
  EXPECT_EQ(progress.back().lparam, 48000);
  EXPECT_EQ(progress[1].wparam, 4096);

  ASSERT_EQ(run(dir.file("in.wav"), dir.file("11.wav"), 11025, 16, 2, 5), 0);
  EXPECT_EQ(check_written_wave(dir.file("11.wav")).data.size(), 11025u * 4);

  write_wave(dir.file("empty.wav"), 44100, 16, 2, {});
  ASSERT_EQ(run(dir.file("empty.wav"), dir.file("e.wav"), 22050, 16, 2, 21), 0);
  EXPECT_EQ(test::read_file(dir.file("e.wav")).size(), 44u);
  check_written_wave(dir.file("e.wav"));
}

TEST_F(Resample, SincBlockGivesTheFrameByFrameKernelsValues) {
  // Loud noise, so that clipping and the edges' silence are in it too.
  write_wave(dir.file("in.wav"), 44100, 16, 2, noise(2 * 20000, 11, 32767));
  int32_t rate, bits, channels;
  uint32_t size;
  ASSERT_EQ(tools::open_wave_input(dir.file("in.wav").c_str(), rate, bits, channels, size), 0);
  for (int32_t taps : {2, 3, 7, 21, 64, 101, 102}) {
    for (double step : {0.25, 0.5, 0.91875, 1.0, 1.0884353741496597, 1.9, 2.5, 7.3, 600.0}) {
      tools::resample.quality = taps;
      const int32_t count = step > 100 ? 30 : 777;
      std::vector<double> pos(static_cast<size_t>(count));
      double p = 0.0;
      for (double& x : pos) {
        x = p;
        p += step;
      }
      std::vector<int32_t> bl(static_cast<size_t>(count)), br(static_cast<size_t>(count));
      tools::kernel_sinc_block(pos.data(), count, bl.data(), br.data());
      int mismatches = 0;
      for (int32_t j = 0; j < count; ++j) {
        int32_t l, r;
        tools::kernel_sinc(pos[size_t(j)], l, r);
        if (l != bl[size_t(j)] || r != br[size_t(j)]) ++mismatches;
      }
      EXPECT_EQ(mismatches, 0) << taps << " taps, step " << step;
    }
  }
  tools::close_wave_input();
}

TEST(ResampleArithmetic, SineAndSingleRoundingMatchTheLibrary) {
  double worst = 0;
  for (int i = -200000; i <= 200000; ++i) {
    double x = i * (2 * M_PI / 200001.0);
    worst = std::max(worst, std::fabs(tools::sinc_sine(x) - std::sin(x)));
  }
  EXPECT_LT(worst, 4e-16);
  uint32_t s = 5;
  for (int i = 0; i < 200000; ++i) {
    s = s * 1664525u + 1013904223u;
    double v = (double(s) - 2147483648.0) / double(1 + (s & 0xFFFF)) * 3.0;
    ASSERT_EQ(tools::round_to_single(v), double(float(v))) << v;
  }
  // Ties go to even.
  for (double v : {1.0 + 0x1p-24, 1.0 + 3 * 0x1p-24, -(1.0 + 0x1p-24), 16777217.0, 0.0})
    EXPECT_EQ(tools::round_to_single(v), double(float(v))) << v;
}

TEST_F(Resample, CancelRemovesThePartialOutputUnlessLeaveIsOn) {
  write_wave(dir.file("in.wav"), 44100, 16, 2, noise(2 * 44100, 5));
  for (int32_t leave : {0, 1}) {
    session::options.leave = leave;
    std::string out = dir.file("out" + std::to_string(leave) + ".wav");
    install_recorder();
    recorder.cancel_on.store(session::MSG_RESAMPLE_PROGRESS);  // Cancel pressed as the first progress shows
    ASSERT_EQ(tools::start_resample(dir.file("in.wav").c_str(), out.c_str(), 48000, 16, 2, 21), 0);
    tools::wait_resample();
    EXPECT_EQ(recorded(session::MSG_PROGRESS_STATUS).size(), 0u);
    EXPECT_EQ(recorded(session::MSG_PROGRESS_END).size(), 1u);
    EXPECT_EQ(session::state.file_job_cancel.load(), 1);
    if (leave) {
      WaveFacts f = check_written_wave(out);
      EXPECT_EQ(f.data.size(), 4u);  // the one frame before the first look at the flag
    } else {
      EXPECT_TRUE(test::read_file(out).empty());
      EXPECT_NE(access(out.c_str(), F_OK), 0);
    }
  }
}

TEST_F(Resample, FailuresGiveTheirCodes) {
  write_wave(dir.file("in.wav"), 44100, 16, 2, noise(2 * 1000, 9));
  EXPECT_EQ(run(dir.file("missing.wav"), dir.file("o.wav"), 22050, 16, 2, 0), tools::WAVE_READ_ERROR);
  EXPECT_EQ(run(dir.file("in.wav"), dir.file("no/such/dir.wav"), 22050, 16, 2, 0), tools::WAVE_READ_ERROR);
  test::write_file(dir.file("text.wav"), std::vector<uint8_t>(200, 'a'));
  EXPECT_EQ(run(dir.file("text.wav"), dir.file("o.wav"), 22050, 16, 2, 0), tools::WAVE_BAD_FORMAT);
  EXPECT_EQ(run(dir.file("in.wav"), dir.file("o.wav"), 22050, 24, 2, 0), tools::WAVE_BAD_FORMAT);
  // Another converter at work.
  session::state.file_job_cancel.store(0);
  EXPECT_EQ(tools::start_resample(dir.file("in.wav").c_str(), dir.file("o.wav").c_str(), 22050, 16, 2, 0),
            tools::RESAMPLE_BUSY);
  session::state.file_job_cancel.store(1);
  // A disk that fills: the job ends with 2.
  if (std::FILE* probe = std::fopen("/dev/full", "wb")) {
    std::fclose(probe);
    write_wave(dir.file("long.wav"), 44100, 16, 2, noise(2 * 300000, 9));
    EXPECT_EQ(run(dir.file("long.wav"), "/dev/full", 44100, 16, 2, 0), tools::WAVE_WRITE_ERROR);
  }
}

TEST_F(Resample, CommandLineRunsTheJobAndSpeaksTheSystemsTexts) {
  write_wave(dir.file("in.wav"), 22050, 16, 1, noise(22050, 4));
  const std::string cli = test::cli_path() + " resample ";
  int status = -1;
  test::run_output(cli + dir.file("in.wav") + " " + dir.file("out.wav") + " --rate 44100 2>&1", &status);
  EXPECT_EQ(status, 0);
  WaveFacts f = check_written_wave(dir.file("out.wav"));
  EXPECT_EQ(f.rate, 44100);
  EXPECT_EQ(f.channels, 1);  // bits and channels default to the input's
  EXPECT_EQ(f.data.size(), 44100u * 2);

  test::write_file(dir.file("text.wav"), std::vector<uint8_t>(200, 'a'));
  std::string said =
      test::run_output(cli + dir.file("text.wav") + " " + dir.file("o.wav") + " --rate 8000 2>&1", &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(said.find("TOVRA Error: データにエラー"), std::string::npos) << said;

  said = test::run_output(cli + dir.file("in.wav") + " " + dir.file("o.wav") + " --rate 1000 2>&1", &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(said.find("サンプルレートは2000～96000で設定してください"), std::string::npos) << said;

  said = test::run_output(cli + dir.file("in.wav") + " " + dir.file("in.wav") + " --rate 8000 2>&1", &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(said.find("入力と出力で同じ名前は使えません"), std::string::npos) << said;
}

}  // namespace
