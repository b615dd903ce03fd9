// The Layer II decoder: hand-built frames for its deliberate decisions, and whole streams made by
// twolame and ffmpeg decoded by tovra-cli against mpg123 and the conformance references.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "decoder/decoder.h"
#include "decoder/synth.h"
#include "decoder/tables.h"
#include "session/stream.h"
#include "support/support.h"

namespace {

using format::FrameHeader;

// The bytes of the frame after the header: the frame's length less 4.
int32_t body_bytes(const FrameHeader& h) { return format::frame_length(h, -1) - 4; }

FrameHeader header(int id, int bitrate_index, int sampling_index, int mode, int mode_ext = 0) {
  FrameHeader h{};
  h.id = id;
  h.layer_code = 2;
  h.protection_bit = 1;
  h.bitrate_index = bitrate_index;
  h.sampling_index = sampling_index;
  h.mode = mode;
  h.mode_ext = mode_ext;
  return h;
}

// What the decoder handed to the synthesis, call by call.
struct SynthCall {
  int32_t channel;
  float samples[32][18];
};
std::vector<SynthCall> synth_calls;
int shaper_calls = 0;
decoder::DecoderState state;

class Layer2FrameTest : public ::testing::Test {
 protected:
  void SetUp() override {
    decoder::init_decoder_tables();
    state = {};
    decoder::reset_decoder_state(state);
    state.synth = [](decoder::DecoderState& s, int32_t channel) {
      synth_calls.push_back({channel, {}});
      std::memcpy(synth_calls.back().samples, s.subband_samples, sizeof s.subband_samples);
    };
    synth_calls.clear();
    shaper_calls = 0;
  }
  // Decodes one frame whose body starts with the written bits, padded with zeros to the frame's
  // length.
  void decode(const FrameHeader& h, const BitWriter& body) {
    std::vector<uint8_t> bytes = body.bytes;
    const int32_t length = std::max(0, body_bytes(h));
    bytes.resize(std::max(bytes.size(), size_t(length)), 0);
    static decoder::PcmBlocks out;
    EXPECT_EQ(decoder::decode_frame(state, h, {bytes.data(), length, length}, out), 0);
    shaper_calls = out.count;
  }
  // The frame's slot t (0-35) of channel ch, subband sb, as handed to the synthesis.
  float sample(int ch, int sb, int t) const {
    const SynthCall& c = synth_calls[size_t((t / 18) * state.channels + ch)];
    EXPECT_EQ(c.channel, ch);
    return c.samples[sb][t % 18];
  }
};

// A grouped class-1 word of three digits, least significant first, and what a digit decodes to.
uint32_t group3(int d0, int d1, int d2) { return uint32_t(d0 + 3 * d1 + 9 * d2); }
float grouped_value(int d, float scale) { return (float(d) * 0.5f - 1.0f + 0.5f) * 1.3333334f * scale; }
const int digits_a[3] = {0, 1, 2}, digits_b[3] = {2, 2, 0}, digits_c[3] = {1, 2, 0};

// An MPEG-2 frame uses the low-sampling-frequency table (30 bands, widths 4, 3, 2) at every rate,
// and takes the whole frame.
TEST_F(Layer2FrameTest, Mpeg2UsesTheLowRateTableAndLoadsTheWholeFrame) {
  for (int bitrate_index : {1, 14}) {
    SCOPED_TRACE(bitrate_index);
    SetUp();
    FrameHeader h = header(0, bitrate_index, 1, 3);  // 24 kHz mono, 8 and 160 kbit/s
    BitWriter w;
    for (int sb = 0; sb < 30; ++sb) w.put(sb == 29 ? 1 : 0, sb < 4 ? 4 : sb < 11 ? 3 : 2);
    w.put(2, 2);
    w.put(3, 6);
    for (int g = 0; g < 12; ++g) w.put(group3(1, 2, 0), 5);
    decode(h, w);
    for (int t = 0; t < 36; ++t) EXPECT_EQ(sample(0, 29, t), grouped_value(digits_c[t % 3], 1.0f)) << t;
  }
}

// Per-channel rates that no table lists give a damaged frame of silence.
TEST_F(Layer2FrameTest, UnlistedPerChannelRateIsADamagedSilentFrame) {
  struct Case {
    int sampling_index, bitrate_index, mode;
  };
  // 16, 28 and 40 kbit/s per channel in stereo, 224 in mono at 48 kHz.
  for (Case c : {Case{0, 1, 0}, Case{0, 3, 2}, Case{2, 5, 1}, Case{1, 11, 3}}) {
    SCOPED_TRACE(c.bitrate_index);
    SetUp();
    FrameHeader h = header(1, c.bitrate_index, c.sampling_index, c.mode);
    BitWriter w;
    for (int i = 0; i < 64; ++i) w.put(0xFF, 8);  // anything: nothing is read
    decode(h, w);
    EXPECT_EQ(state.damaged, 1);
    EXPECT_EQ(synth_calls.size(), c.mode == 3 ? 2u : 4u);
    EXPECT_EQ(shaper_calls, 2);
    for (const SynthCall& call : synth_calls)
      for (const auto& row : call.samples)
        for (float v : row) ASSERT_EQ(v, 0.0f);
  }
}

// The narrow tables' last 3-bit code holds the slip 127; it decodes as the class of 127 steps.
TEST_F(Layer2FrameTest, NarrowTableSlipDecodesAsOneHundredTwentySevenSteps) {
  FrameHeader h = header(1, 1, 0, 3);  // 44.1 kHz mono 32 kbit/s: narrow table, 8 bands
  BitWriter w;
  w.put(0, 8);
  w.put(7, 3);  // subband 2, last code
  w.put(0, 5 * 3);
  w.put(2, 2);
  w.put(3, 6);
  for (int i = 0; i < 36; ++i) w.put(126, 7);
  decode(h, w);
  float want = (126 * 0.015625f + -0.984375f) * (1.007874f * 1.0f);
  for (int t = 0; t < 36; ++t) EXPECT_EQ(sample(0, 2, t), want) << t;
}

// Joint stereo with bound 16 over the 8-band narrow table: the allocation loop runs to the bound
// with fields of width 0, reads nothing outside the table, and the coded bands still decode.
TEST_F(Layer2FrameTest, JointBoundAboveSblimitIsSafe) {
  FrameHeader h = header(1, 4, 0, 1, 3);  // 44.1 kHz 64 kbit/s: 32 per channel, narrow, bound 16
  BitWriter w;
  w.put(1, 4);  // subband 0, both channels: class 1
  w.put(1, 4);
  for (int sb = 1; sb < 8; ++sb) w.put(0, sb < 2 ? 8 : 6);
  w.put(0b1010, 4);  // scfsi 2, 2
  w.put(3, 6);
  w.put(6, 6);
  for (int g = 0; g < 12; ++g) w.put(group3(0, 1, 2), 5), w.put(group3(2, 2, 0), 5);
  decode(h, w);
  ASSERT_EQ(synth_calls.size(), 4u);
  for (int t = 0; t < 36; ++t) {
    EXPECT_EQ(sample(0, 0, t), grouped_value(digits_a[t % 3], 1.0f));
    EXPECT_EQ(sample(1, 0, t), grouped_value(digits_b[t % 3], 0.5f));
    for (int sb = 1; sb < 32; ++sb) EXPECT_EQ(sample(1, sb, t), 0.0f);
  }
}

// ---- Whole streams ----

class Layer2StreamTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  void SetUp() override {
    REQUIRE_TOOL("sox");
    REQUIRE_TOOL("mpg123");
    REQUIRE_TOOL("twolame");
  }
  // sox synthesis at a rate and channel count into a wav.
  std::string make_wav(int rate, int channels, const std::string& what) {
    std::string wav = dir.file("in.wav");
    test::run("sox -q -n -r " + std::to_string(rate) + " -c " + std::to_string(channels) + " -b 16 '" + wav +
              "' synth " + what);
    return wav;
  }
  std::string twolame(const std::string& wav, const std::string& options) {
    test::run("twolame --quiet " + options + " '" + wav + "' '" + dir.file("t.mp2") + "'");
    return dir.file("t.mp2");
  }
};

const char* const NOISE = "3 pinknoise sine 440 sine 3000 vol 0.5";

// Every mode, rate and encoder decodes as mpg123 does, to the same length. Joint stereo with
// unlike channels (the second a tenth of the first) shows that each channel applies its own scale
// factors above the bound.
TEST_F(Layer2StreamTest, MatchesMpg123AcrossModesRatesAndEncoders) {
  REQUIRE_TOOL("ffmpeg");
  struct Case {
    bool ffmpeg;
    int rate, channels, kbps;
    const char* mode;  // twolame's -m
    bool crc;
  };
  const Case cases[] = {
      {false, 44100, 2, 192, "s", false}, {false, 44100, 2, 384, "s", true}, {false, 48000, 2, 256, "d", false},
      {false, 32000, 2, 64, "s", true},   // narrow, 12 bands
      {false, 44100, 2, 96, "s", false},  // narrow, 8 bands
      {false, 44100, 2, 128, "j", false}, {false, 48000, 2, 192, "j", true}, {false, 32000, 2, 96, "j", false},
      {false, 48000, 1, 48, "m", true},   {false, 32000, 1, 32, "m", false}, {false, 44100, 1, 160, "m", false},
      {false, 32000, 2, 384, "d", true},  {true, 44100, 2, 224, "", false},  {true, 48000, 1, 64, "", false},
      {true, 32000, 2, 320, "", false},   {true, 48000, 2, 112, "", false},  {false, 16000, 1, 48, "m", false},
      {false, 16000, 2, 96, "j", false},  {false, 22050, 1, 48, "m", true},  {false, 22050, 2, 96, "s", false},
      {false, 24000, 1, 48, "m", false},  {false, 24000, 2, 96, "s", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.ffmpeg ? "ffmpeg " : "twolame ") << c.rate << " " << c.channels << " "
                                    << c.kbps << c.mode << (c.crc ? " crc" : ""));
    std::string wav = make_wav(c.rate, c.channels, NOISE), mp2 = dir.file("t.mp2");
    if (std::string(c.mode) == "j") {
      const std::string unlike = dir.file("unlike.wav");
      test::run("sox -q '" + wav + "' '" + unlike + "' remix 1 1v0.1");
      wav = unlike;
    }
    if (c.ffmpeg)
      test::run("ffmpeg -loglevel error -y -i '" + wav + "' -c:a mp2 -b:a " + std::to_string(c.kbps) + "k '" + mp2 +
                "'");
    else
      twolame(wav, "-b " + std::to_string(c.kbps) + " -m " + c.mode + (c.crc ? " -p" : ""));
    std::vector<int16_t> ours = test::decode_ours(mp2, mp2 + ".raw"), theirs = test::decode_mpg123(mp2, mp2 + ".ref");
    ASSERT_GT(theirs.size(), 10000u);
    EXPECT_EQ(ours.size(), theirs.size());
    const test::PcmComparison r = test::compare_pcm(ours, theirs);
    EXPECT_TRUE(test::decodes_alike(r)) << r;
  }
}

// A stream with 50/15 emphasis: the treatment halves subbands 5 to 15 and leaves the rest. A tone
// in subband 1 comes out as mpg123 has it; a tone in subband 7 at half its level. (The tone's
// abrupt ends spread over every subband, so only the steady middle is compared.)
TEST_F(Layer2StreamTest, EmphasisHalvesTheMiddleSubbands) {
  for (int freq : {1000, 5000}) {
    SCOPED_TRACE(freq);
    std::string mp2 = twolame(make_wav(44100, 1, "2 sine " + std::to_string(freq) + " vol 0.5"), "-b 192 -m m -e 5");
    std::vector<int16_t> ours = test::decode_ours(mp2, mp2 + ".raw"), theirs = test::decode_mpg123(mp2, mp2 + ".ref");
    ASSERT_EQ(ours.size(), theirs.size());
    ASSERT_GT(ours.size(), 20000u);
    const size_t from = 4608, to = ours.size() - 4608;
    double sum_ours = 0, sum_theirs = 0;
    for (size_t i = from; i < to; ++i) {
      sum_ours += double(ours[i]) * ours[i];
      sum_theirs += double(theirs[i]) * theirs[i];
    }
    if (freq == 1000)  // the encoder's faint noise in the halved subbands moves by a unit or two
      EXPECT_LE(test::compare_pcm(ours, theirs, from, 1, to).max_scaled, 4.0);
    else
      EXPECT_NEAR(std::sqrt(sum_ours / sum_theirs), 0.5, 0.01);
  }
}

// The conformance streams against their references (padded past the stream's frames). l2-fl10
// switches between stereo and joint stereo with bounds 16, 12, 8, 4. Damaged and illegal streams decode to an end
// without a crash, a hang or a sanitizer report.
TEST(Layer2Vectors, ConformanceAndDamagedStreams) {
  const std::string vectors = test::vectors_dir();
  if (vectors.empty()) GTEST_SKIP() << "no conformance vectors";
  test::TempDir dir;
  struct Vector {
    const char* name;
    int channels, frames;
  };
  for (Vector v : {Vector{"l2-fl13", 1, 49}, Vector{"l2-fl15", 2, 16}, Vector{"l2-fl10", 2, 49}}) {
    SCOPED_TRACE(v.name);
    const size_t n = size_t(v.frames) * 1152 * size_t(v.channels);
    ASSERT_EQ(test::run("'" + test::cli_path() + "' decode '" + vectors + "/" + v.name + ".bit' '" +
                        dir.file("out.raw") + "' --format raw >/dev/null 2>&1"),
              0);
    std::vector<int16_t> ours = test::read_pcm16(dir.file("out.raw"));
    std::vector<int16_t> ref = test::read_pcm16(vectors + "/" + v.name + ".pcm");
    EXPECT_EQ(ours.size(), n);
    ref.resize(std::min(ref.size(), n));
    const test::PcmComparison c = test::compare_pcm(ours, ref);
    EXPECT_TRUE(test::decodes_alike(c)) << c;
  }
  int seen = 0;
  for (const char* name :
       {"ILL2_center2",       "ILL2_dual",       "ILL2_dynx22",     "ILL2_dynx31",   "ILL2_dynx32",
        "ILL2_ext_switching", "ILL2_layer1",     "ILL2_layer3",     "ILL2_mono",     "ILL2_multilingual",
        "ILL2_overalloc1",    "ILL2_overalloc2", "ILL2_prediction", "ILL2_samples",  "ILL2_scf63",
        "ILL2_tca21",         "ILL2_tca30",      "ILL2_tca30_PC",   "ILL2_tca31_PC", "ILL2_tca31_mtx0",
        "ILL2_tca31_mtx2",    "ILL2_tca32_PC",   "ILL2_wrongcrc"}) {
    std::string in = vectors + "/" + name + ".bit";
    if (test::read_file(in).empty()) continue;
    ++seen;
    int rc = 0;
    std::string said = test::run_output(
        "timeout 60 '" + test::cli_path() + "' decode '" + in + "' '" + dir.file("ill.raw") + "' --format raw 2>&1",
        &rc);
    // 124 is the time-out; a sanitizer report exits with 1 like a refused file, so look for it.
    EXPECT_TRUE(rc == 0 || rc == 1) << name << " exit " << rc;
    EXPECT_EQ(said.find("Sanitizer"), std::string::npos) << name << ": " << said;
    EXPECT_EQ(said.find("runtime error"), std::string::npos) << name << ": " << said;
  }
  EXPECT_GT(seen, 0);
}

}  // namespace
