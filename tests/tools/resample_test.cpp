// The resampler: its kernels' known answers, the vector path against the scalar kernel, the job's
// messages, cancel and failures, and the CLI.
#include "tools/resample.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "session/tool_jobs.h"
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
    int32_t code = session::start_resample(tool_job, in.c_str(), dir.file(out).c_str(), rate, bits, channels, quality);
    if (code != format::ERR_OK) return code;
    session::wait_job(tool_job);
    std::vector<Message> status = recorded(session::MSG_PROGRESS_STATUS);
    EXPECT_EQ(status.size(), 1u);
    EXPECT_EQ(recorded(session::MSG_PROGRESS_END).size(), 1u);
    return status.empty() ? -100 : int32_t(status.back().wparam);
  }
  // Resamples a 16-bit signal and returns the output's samples.
  std::vector<int16_t> resample(const std::vector<int16_t>& in, int32_t in_rate, int32_t out_rate, int32_t quality,
                                int32_t channels = 1) {
    write_wave(dir.file("in.wav"), in_rate, 16, channels, in);
    EXPECT_EQ(run(dir.file("in.wav"), "out.wav", out_rate, 16, channels, quality), 0);
    return as_pcm16(check_written_wave(dir.file("out.wav")).data);
  }
  void TearDown() override { session::wait_job(tool_job); }
};

TEST_F(Resample, EqualRatesCopyTheInput) {
  std::vector<int16_t> v = noise(2 * 50000, 1);
  v[0] = -32768;
  v[1] = 32767;
  EXPECT_EQ(resample(v, 44100, 44100, 0, 2), v);
  // Two sinc taps at whole positions weigh the next sample by sin(pi)/pi: nothing that survives
  // the single-precision sum.
  EXPECT_EQ(resample(v, 44100, 44100, 2, 2), v);
}

TEST_F(Resample, ImpulsesShowTheKernelsReach) {
  // An impulse, doubled in rate: output n lies at n / 2. Two sinc taps read samples i and i + 1.
  std::vector<int16_t> in(400, 0);
  const int k = 100;
  in[k] = 10000;
  const int32_t half = int32_t(10000 * std::sin(M_PI / 2) / double(float(M_PI / 2)));
  std::vector<int16_t> out = resample(in, 8000, 16000, 2);
  ASSERT_EQ(out.size(), 800u);
  for (int n = 0; n < 800; ++n)
    ASSERT_EQ(out[size_t(n)], n == 2 * k ? 10000 : std::abs(n - 2 * k) == 1 ? half : 0) << n;
  // Three taps start at i - 1 + 1 = i, reaching one sample further right: the impulse shows at
  // distance 1.5 too (sin(-1.5 pi) / -1.5 pi). Four taps reach both ways.
  out = resample(in, 8000, 16000, 3);
  EXPECT_EQ(out[2 * k - 3], int16_t(10000 / double(float(-1.5 * M_PI))));
  EXPECT_EQ(out[2 * k + 3], 0);
  out = resample(in, 8000, 16000, 4);
  EXPECT_EQ(out[2 * k - 3], out[2 * k + 3]);
  EXPECT_NE(out[2 * k + 3], 0);

  // The cubic: weights 1 at 0, 0.625 at 0.5, -0.125 at 1.5, nothing at whole distances.
  in.assign(200, 0);
  in[50] = 8000;
  out = resample(in, 11025, 22050, 1);
  ASSERT_EQ(out.size(), 400u);
  for (int n = 0; n < 400; ++n) {
    const int d = std::abs(n - 100);
    ASSERT_EQ(out[size_t(n)], d == 0 ? 8000 : d == 1 ? 5000 : d == 3 ? -1000 : 0) << n;
  }
}

TEST_F(Resample, DownsamplingCutsAtTheOutputsNyquistFrequency) {
  // An exponential sweep from 20 Hz to 20 kHz, to 16 kHz: while the sweep is above 8 kHz (with a
  // little room for the sweep's own spread) the output must stay 60 dB below its passband level.
  const double seconds = 4, rate = 44100, growth = std::log(1000.0);
  std::vector<int16_t> in(size_t(seconds * rate));
  for (size_t i = 0; i < in.size(); ++i) {
    const double t = double(i) / rate;
    in[i] = int16_t(16000 * std::sin(2 * M_PI * 20 * seconds / growth * (std::exp(growth * t / seconds) - 1)));
  }
  std::vector<int16_t> out = resample(in, 44100, 16000, 21);
  double pass = 0, stop = 0;
  size_t pass_n = 0, stop_n = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    const double f = 20 * std::exp(growth * double(i) / 16000 / seconds), v = double(out[i]) * out[i];
    if (f > 1000 && f < 6000) pass += v, ++pass_n;
    if (f > 8400) stop += v, ++stop_n;
  }
  EXPECT_LT(10 * std::log10((stop / double(stop_n)) / (pass / double(pass_n))), -60.0);
  // The passband keeps its level (a sine's mean square is half its peak's square).
  EXPECT_NEAR(std::sqrt(2 * pass / double(pass_n)), 16000, 160);
}

TEST_F(Resample, OutputsFollowTheWritersRulesAndTheRates) {
  std::vector<int16_t> v = noise(2 * 3000, 7, 32767);
  write_wave(dir.file("in.wav"), 32000, 16, 2, v);
  ASSERT_EQ(run(dir.file("in.wav"), "m16.wav", 32000, 16, 1, 0), 0);
  ASSERT_EQ(run(dir.file("in.wav"), "m8.wav", 32000, 8, 1, 0), 0);
  ASSERT_EQ(run(dir.file("in.wav"), "s8.wav", 32000, 8, 2, 0), 0);
  std::vector<int16_t> m16 = as_pcm16(check_written_wave(dir.file("m16.wav")).data);
  WaveFacts m8 = check_written_wave(dir.file("m8.wav")), s8 = check_written_wave(dir.file("s8.wav"));
  ASSERT_EQ(m16.size(), 3000u);
  ASSERT_EQ(m8.data.size(), 3000u);
  ASSERT_EQ(s8.data.size(), 6000u);
  EXPECT_EQ(m8.bits, 8);
  EXPECT_EQ(m8.channels, 1);
  for (size_t i = 0; i < 3000; ++i) {
    const int32_t l = v[2 * i], r = v[2 * i + 1];
    ASSERT_EQ(m16[i], (l + r) >> 1) << i;
    ASSERT_EQ(m8.data[i], ((l + r) >> 9) + 128) << i;
    ASSERT_EQ(s8.data[2 * i], (l >> 8) + 128) << i;
    ASSERT_EQ(s8.data[2 * i + 1], (r >> 8) + 128) << i;
  }

  // Lengths follow the rates; progress ends on the count reached; empty input gives a bare header.
  write_wave(dir.file("in.wav"), 44100, 16, 2, noise(2 * 44100, 3));
  ASSERT_EQ(run(dir.file("in.wav"), "48.wav", 48000, 16, 2, 21), 0);
  EXPECT_EQ(check_written_wave(dir.file("48.wav")).data.size(), 48000u * 4);
  std::vector<Message> progress = recorded(session::MSG_RESAMPLE_PROGRESS);
  ASSERT_GE(progress.size(), 2u);
  EXPECT_EQ(progress[1].wparam, 4096);
  EXPECT_EQ(progress.back().wparam, 48000);
  EXPECT_EQ(progress.back().lparam, 48000);
  // No audio, no output: the job is refused before a file exists.
  write_wave(dir.file("empty.wav"), 44100, 16, 2, {});
  EXPECT_EQ(run(dir.file("empty.wav"), "e.wav", 22050, 16, 2, 21), format::ERR_WAVE_NO_DATA);
  EXPECT_NE(access(dir.file("e.wav").c_str(), F_OK), 0);
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
      const size_t count = step > 100 ? 30 : 777;
      std::vector<double> pos(count);
      for (size_t j = 0; j < count; ++j) pos[j] = double(j) * step;
      std::vector<int32_t> bl(count), br(count);
      tools::kernel_sinc_block(pos.data(), int32_t(count), bl.data(), br.data());
      int mismatches = 0;
      for (size_t j = 0; j < count; ++j) {
        int32_t l, r;
        tools::kernel_sinc(pos[j], l, r);
        mismatches += l != bl[j] || r != br[j];
      }
      EXPECT_EQ(mismatches, 0) << taps << " taps, step " << step;
    }
  }
  tools::close_wave_input();
}

TEST_F(Resample, CancelFailuresAndBusy) {
  write_wave(dir.file("in.wav"), 44100, 16, 2, noise(2 * 44100, 5));
  for (int32_t leave : {0, 1}) {
    session::options.leave = leave;
    const std::string out = dir.file("out" + std::to_string(leave) + ".wav");
    install_recorder();
    recorder.cancel_on.store(session::MSG_RESAMPLE_PROGRESS);  // Cancel pressed as the first progress shows
    ASSERT_EQ(session::start_resample(tool_job, dir.file("in.wav").c_str(), out.c_str(), 48000, 16, 2, 21), 0);
    session::wait_job(tool_job);
    EXPECT_EQ(recorded(session::MSG_PROGRESS_STATUS).size(), 0u);
    EXPECT_EQ(recorded(session::MSG_PROGRESS_END).size(), 1u);
    if (leave)
      EXPECT_EQ(check_written_wave(out).data.size(), 4u);  // the one frame before the first look at the flag
    else
      EXPECT_NE(access(out.c_str(), F_OK), 0);
  }

  EXPECT_EQ(run(dir.file("missing.wav"), "o.wav", 22050, 16, 2, 0), format::ERR_READ);
  EXPECT_EQ(run(dir.file("in.wav"), "no/such/dir.wav", 22050, 16, 2, 0), format::ERR_CREATE_OUTPUT);
  test::write_file(dir.file("text.wav"), Bytes(200, 'a'));
  EXPECT_EQ(run(dir.file("text.wav"), "o.wav", 22050, 16, 2, 0), format::ERR_WAVE_FORMAT);
  EXPECT_EQ(run(dir.file("in.wav"), "o.wav", 22050, 24, 2, 0), format::ERR_WAVE_FORMAT);
  tool_job.busy.store(1);  // the job at work
  EXPECT_EQ(run(dir.file("in.wav"), "o.wav", 22050, 16, 2, 0), format::ERR_BUSY);
  tool_job.busy.store(0);
  if (std::FILE* probe = std::fopen("/dev/full", "wb")) {  // a disk that fills: the job ends with 2
    std::fclose(probe);
    write_wave(dir.file("long.wav"), 44100, 16, 2, noise(2 * 300000, 9));
    install_recorder();
    ASSERT_EQ(session::start_resample(tool_job, dir.file("long.wav").c_str(), "/dev/full", 44100, 16, 2, 0), 0);
    session::wait_job(tool_job);
    ASSERT_EQ(recorded(session::MSG_PROGRESS_STATUS).size(), 1u);
    EXPECT_EQ(recorded(session::MSG_PROGRESS_STATUS)[0].wparam, format::ERR_WRITE);
  }
}

TEST_F(Resample, CommandLineRunsTheJobAndSpeaksTheSystemsTexts) {
  write_wave(dir.file("in.wav"), 22050, 16, 1, noise(22050, 4));
  test::write_file(dir.file("text.wav"), Bytes(200, 'a'));
  int status = -1;
  test::run_output(
      test::cli_path() + " resample " + dir.file("in.wav") + " " + dir.file("out.wav") + " --rate 44100 2>&1", &status);
  EXPECT_EQ(status, 0);
  WaveFacts f = check_written_wave(dir.file("out.wav"));
  EXPECT_EQ(f.rate, 44100);
  EXPECT_EQ(f.channels, 1);  // bits and channels default to the input's
  EXPECT_EQ(f.data.size(), 44100u * 2);
  // info describes a WAVE file rather than looking for MPEG audio in it.
  EXPECT_NE(
      test::run_output(test::cli_path() + " info " + dir.file("out.wav"))
          .find("format: WAVE PCM\nsample_rate: 44100 Hz\nchannels: 1\nbits: 16\nframes: 44100\nlength: 1.000 s\n"),
      std::string::npos);

  struct Case {
    const char *in, *out, *rate;
    int status;
    const char* text;
  };
  for (const Case& c : {Case{"text.wav", "o.wav", "8000", 1, "TOVRA Error: Error in the data"},
                        Case{"in.wav", "o.wav", "1000", 2, "Set a sampling rate from 2000 to 96000"},
                        Case{"in.wav", "in.wav", "8000", 2, "The input and the output cannot have the same name"}}) {
    const std::string said = test::run_output(
        test::cli_path() + " resample " + dir.file(c.in) + " " + dir.file(c.out) + " --rate " + c.rate + " 2>&1",
        &status);
    EXPECT_EQ(status, c.status) << said;
    EXPECT_NE(said.find(c.text), std::string::npos) << said;
  }
}

}  // namespace
