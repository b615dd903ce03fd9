// The Layer II decoder: hand-built frames for its decisions, and whole streams made by twolame and
// ffmpeg decoded by tovra-cli against mpg123.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/synth.h"
#include "decoder/tables.h"
#include "session/frame_reader.h"
#include "session/session.h"
#include "session/stream.h"
#include "support/support.h"

namespace {

using session::FrameHeader;

// ---- Frame building ----

struct BitWriter {
  std::vector<uint8_t> bytes;
  int used = 0;  // bits used in the last byte
  void put(uint32_t value, int n) {
    for (int i = n - 1; i >= 0; --i) {
      if (used == 0) bytes.push_back(0);
      if ((value >> i) & 1) bytes.back() |= uint8_t(0x80 >> used);
      used = (used + 1) & 7;
    }
  }
};

int32_t kbps_of(const FrameHeader& h) {
  return session::bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
}
int32_t hz_of(const FrameHeader& h) { return session::sample_rate_table[h.id * 3 + h.sampling_index]; }
// The bytes the decoder loads after the header: the rate tables' frame size with padding, less 4.
int32_t body_bytes(const FrameHeader& h) { return (h.id ? 144000 : 72000) * kbps_of(h) / hz_of(h) + h.padding_bit - 4; }

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
void record_synth(int32_t channel) {
  SynthCall c;
  c.channel = channel;
  std::memcpy(c.samples, decoder::subband_samples, sizeof c.samples);
  synth_calls.push_back(c);
}
void count_shaper() { ++shaper_calls; }

class Layer2FrameTest : public ::testing::Test {
 protected:
  FILE* file = nullptr;
  void SetUp() override {
    decoder::init_decoder_tables();
    session::reset_decoding();
    session::state.synth_slot = record_synth;
    session::state.shaper_slot = count_shaper;
    session::state.damaged_flag.store(0);
    session::stream.emphasis_mode = 0;
    synth_calls.clear();
    shaper_calls = 0;
  }
  void TearDown() override {
    if (file) std::fclose(file);
    session::reader.file = nullptr;
  }
  // Decodes one frame whose body (after the header) starts with the written bits, padded with
  // zero bytes to the frame's length, and followed by `trailer` extra bytes.
  void decode(const FrameHeader& h, const BitWriter& body, size_t trailer = 64) {
    std::vector<uint8_t> bytes = body.bytes;
    size_t want = size_t(std::max(0, body_bytes(h))) + trailer;
    if (bytes.size() < want) bytes.resize(want, 0);
    if (file) std::fclose(file);
    file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::rewind(file);
    session::reader.file = file;
    EXPECT_EQ(decoder::decode_layer2_frame(h), 0);
  }
  // The frame's slot t (0-35) of channel ch, subband sb, as handed to the synthesis.
  float sample(int ch, int sb, int t) const {
    int channels = session::state.decoded_channels;
    const SynthCall& c = synth_calls[size_t((t / 18) * channels + ch)];
    EXPECT_EQ(c.channel, ch);
    return c.samples[sb][t % 18];
  }
};

// A grouped class-1 word of three digits, least significant first.
uint32_t group3(int d0, int d1, int d2) { return uint32_t(d0 + 3 * d1 + 9 * d2); }
float grouped_value(int d, float scale) { return (float(d) * 0.5f - 1.0f + 0.5f) * 1.3333334f * scale; }

TEST_F(Layer2FrameTest, MonoFrameCallsSynthesisAndShaperTwiceWithDequantisedValues) {
  // 48 kHz, 64 kbit/s mono: table A, 27 bands. Subband 0 code 1 (class 1, grouped), scale
  // factors by scfsi 0: indices 3, 6, 9 (1.0, 0.5, 0.25).
  FrameHeader h = header(1, 4, 1, 3);
  BitWriter w;
  w.put(1, 4);
  for (int sb = 1; sb < 27; ++sb) w.put(0, sb < 11 ? 4 : sb < 23 ? 3 : 2);
  w.put(0, 2);  // scfsi
  w.put(3, 6);
  w.put(6, 6);
  w.put(9, 6);
  for (int g = 0; g < 12; ++g) w.put(group3(2, 0, 1), 5);
  decode(h, w);
  EXPECT_EQ(session::state.decoded_channels, 1);
  ASSERT_EQ(synth_calls.size(), 2u);
  EXPECT_EQ(shaper_calls, 2);
  const float scales[3] = {1.0f, 0.5f, 0.25f};
  for (int t = 0; t < 36; ++t) {
    int d = t % 3 == 0 ? 2 : t % 3 == 1 ? 0 : 1;
    EXPECT_EQ(sample(0, 0, t), grouped_value(d, scales[t / 12])) << t;
    for (int sb = 1; sb < 32; ++sb) EXPECT_EQ(sample(0, sb, t), 0.0f);
  }
  EXPECT_EQ(session::state.damaged_flag.load(), 0);
}

// Joint stereo: subbands from the bound up carry one allocation and one set of samples, decoded
// with channel 0's scale factor for both channels, whatever channel 1's scale factors say.
TEST_F(Layer2FrameTest, JointBandsAreChannelZerosSamplesInBothChannels) {
  for (int mode_ext = 0; mode_ext < 4; ++mode_ext) {
    SetUp();
    const int bound = mode_ext * 4 + 4;
    // 44.1 kHz, 128 kbit/s: 64 per channel, table A.
    FrameHeader h = header(1, 8, 0, 1, mode_ext);
    auto width = [](int sb) { return sb < 11 ? 4 : sb < 23 ? 3 : 2; };
    BitWriter w;
    for (int sb = 0; sb < 27; ++sb) {
      bool coded = sb == bound - 1 || sb == bound;
      if (sb < bound) {
        w.put(coded, width(sb));
        w.put(coded, width(sb));
      } else {
        w.put(coded, width(sb));
      }
    }
    for (int i = 0; i < 4; ++i) w.put(2, 2);  // scfsi 2 for both channels of both subbands
    // Scale factors (scfsi 2: one index each): channel 0 index 3, channel 1 index 30.
    for (int i = 0; i < 2; ++i) {
      w.put(3, 6);
      w.put(30, 6);
    }
    for (int g = 0; g < 12; ++g) {
      // Below the bound: one word per channel; at the bound: one word.
      w.put(group3(0, 1, 2), 5);
      w.put(group3(2, 2, 0), 5);
      w.put(group3(1, 2, 0), 5);
    }
    decode(h, w);
    SCOPED_TRACE(mode_ext);
    ASSERT_EQ(synth_calls.size(), 4u);
    EXPECT_EQ(shaper_calls, 2);
    const float s0 = 1.0f, s1 = decoder::scale_factor_table[30];
    for (int t = 0; t < 36; ++t) {
      const int lo[3] = {0, 1, 2}, hi[3] = {2, 2, 0}, joint[3] = {1, 2, 0};
      EXPECT_EQ(sample(0, bound - 1, t), grouped_value(lo[t % 3], s0));
      EXPECT_EQ(sample(1, bound - 1, t), grouped_value(hi[t % 3], s1));
      EXPECT_EQ(sample(0, bound, t), grouped_value(joint[t % 3], s0));
      EXPECT_EQ(sample(1, bound, t), sample(0, bound, t));
    }
  }
}

TEST_F(Layer2FrameTest, ScaleFactorIndicesSixtyTwoAndSixtyThreeAreNearSilenceAndSilence) {
  FrameHeader h = header(1, 4, 1, 3);  // 48 kHz mono 64 kbit/s, table A
  BitWriter w;
  w.put(3, 4);  // subband 0 code 3: class 5, 15 steps, 4-bit values
  for (int sb = 1; sb < 27; ++sb) w.put(0, sb < 11 ? 4 : sb < 23 ? 3 : 2);
  w.put(0, 2);
  w.put(62, 6);
  w.put(63, 6);
  w.put(3, 6);
  for (int g = 0; g < 12; ++g)
    for (int i = 0; i < 3; ++i) w.put(14, 4);
  decode(h, w);
  const float level = (14 * 0.125f + -0.875f);
  for (int t = 0; t < 36; ++t) {
    float scale = t < 12 ? 1E-20f : t < 24 ? 0.0f : 1.0f;
    EXPECT_EQ(sample(0, 0, t), level * (1.0666667f * scale)) << t;
  }
  EXPECT_GT(sample(0, 0, 0), 0.0f);
  EXPECT_EQ(sample(0, 0, 12), 0.0f);
}

// An MPEG-2 frame uses the low-sampling-frequency table (30 bands, widths 4, 3, 2) at every rate,
// and loads the rate table's frame size, half the real frame: the file stands mid-frame afterwards.
TEST_F(Layer2FrameTest, Mpeg2UsesTheLowRateTableAndLoadsTheTablesFrameSize) {
  for (int bitrate_index : {1, 14}) {
    SetUp();
    FrameHeader h = header(0, bitrate_index, 1, 3);  // 24 kHz mono, 8 and 160 kbit/s
    BitWriter w;
    for (int sb = 0; sb < 30; ++sb) w.put(sb == 29 ? 1 : 0, sb < 4 ? 4 : sb < 11 ? 3 : 2);
    w.put(2, 2);
    w.put(3, 6);
    for (int g = 0; g < 12; ++g) w.put(group3(1, 2, 0), 5);
    decode(h, w);
    SCOPED_TRACE(bitrate_index);
    const int d[3] = {1, 2, 0};
    for (int t = 0; t < 36; ++t) EXPECT_EQ(sample(0, 29, t), grouped_value(d[t % 3], 1.0f)) << t;
    int32_t real_frame = 144000 * kbps_of(h) / hz_of(h);
    EXPECT_EQ(std::ftell(file), long(real_frame / 2 - 4));
  }
}

TEST_F(Layer2FrameTest, AllZeroAllocationGivesZeroSamplesAndTheRingMovesOn) {
  session::state.synth_slot = [](int32_t ch) {
    record_synth(ch);
    decoder::synth_full(ch);
  };
  FrameHeader h = header(1, 10, 0, 0);  // 44.1 kHz stereo 192: 96 per channel, table B
  BitWriter w;
  w.put(0, 8);
  decode(h, w);
  ASSERT_EQ(synth_calls.size(), 4u);
  for (const SynthCall& c : synth_calls)
    for (const auto& row : c.samples)
      for (float v : row) ASSERT_EQ(v, 0.0f);
  // Two calls per channel: 36 slots, the column moved from 0 to (0 - 36) mod 16.
  EXPECT_EQ(decoder::synth_column[0], 12u);
  EXPECT_EQ(decoder::synth_column[1], 12u);
  EXPECT_EQ(session::state.damaged_flag.load(), 0);
}

// Per-channel rates that no table lists give a damaged frame of silence; the frame's bytes are
// still consumed.
TEST_F(Layer2FrameTest, UnlistedPerChannelRateIsADamagedSilentFrame) {
  struct Case {
    int sampling_index, bitrate_index, mode;
  };
  // 16, 28 and 40 kbit/s per channel in stereo, 224 in mono at 48 kHz.
  for (Case c : {Case{0, 1, 0}, Case{0, 3, 2}, Case{2, 5, 1}, Case{1, 11, 3}}) {
    SetUp();
    FrameHeader h = header(1, c.bitrate_index, c.sampling_index, c.mode);
    BitWriter w;
    for (int i = 0; i < 64; ++i) w.put(0xFF, 8);  // anything: nothing is read
    decode(h, w);
    SCOPED_TRACE(c.bitrate_index);
    EXPECT_EQ(session::state.damaged_flag.load(), 1);
    EXPECT_EQ(synth_calls.size(), c.mode == 3 ? 2u : 4u);
    EXPECT_EQ(shaper_calls, 2);
    for (const SynthCall& call : synth_calls)
      for (const auto& row : call.samples)
        for (float v : row) ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(std::ftell(file), long(body_bytes(h)));
  }
}

// The narrow tables' last 3-bit code holds the slip 127; it decodes as the class of 127 steps.
TEST_F(Layer2FrameTest, NarrowTableSlipDecodesAsOneHundredTwentySevenSteps) {
  FrameHeader h = header(1, 1, 0, 3);  // 44.1 kHz mono 32 kbit/s: narrow table, 8 bands
  BitWriter w;
  w.put(0, 4);
  w.put(0, 4);
  w.put(7, 3);  // subband 2, last code
  for (int sb = 3; sb < 8; ++sb) w.put(0, 3);
  w.put(2, 2);
  w.put(3, 6);
  for (int g = 0; g < 12; ++g)
    for (int i = 0; i < 3; ++i) w.put(126, 7);
  decode(h, w);
  float want = (126 * 0.015625f + -0.984375f) * (1.007874f * 1.0f);
  for (int t = 0; t < 36; ++t) EXPECT_EQ(sample(0, 2, t), want) << t;
}

// Joint stereo with bound 16 over the 8-band narrow table: the allocation loop runs to the bound
// with fields of width 0, reads nothing outside the table, and the coded bands still decode.
TEST_F(Layer2FrameTest, JointBoundAboveSblimitIsSafe) {
  FrameHeader h = header(1, 4, 0, 1, 3);  // 44.1 kHz 64 kbit/s: 32 per channel, narrow, bound 16
  BitWriter w;
  w.put(1, 4);  // subband 0, channel 0: class 1
  w.put(1, 4);  // channel 1
  for (int sb = 1; sb < 8; ++sb) w.put(0, sb < 2 ? 4 : 3), w.put(0, sb < 2 ? 4 : 3);
  w.put(2, 2);
  w.put(2, 2);
  w.put(3, 6);
  w.put(6, 6);
  for (int g = 0; g < 12; ++g) {
    w.put(group3(2, 1, 0), 5);
    w.put(group3(0, 1, 2), 5);
  }
  decode(h, w);
  ASSERT_EQ(synth_calls.size(), 4u);
  const int a[3] = {2, 1, 0}, b[3] = {0, 1, 2};
  for (int t = 0; t < 36; ++t) {
    EXPECT_EQ(sample(0, 0, t), grouped_value(a[t % 3], 1.0f));
    EXPECT_EQ(sample(1, 0, t), grouped_value(b[t % 3], 0.5f));
    for (int sb = 1; sb < 32; ++sb) EXPECT_EQ(sample(1, sb, t), 0.0f);
  }
}

// ---- Whole streams against mpg123 ----

// How tovra-cli's output stands against another decoder's rounded output. The synthesis scales
// full scale to 32767 (16383.5 times the transform's 2), where others use 32768, and truncates
// where others round: after taking out the scale, a sample may differ by the truncation (below 1)
// plus the other's rounding (0.5) plus float noise. Raw, that is at most 2.
struct Comparison {
  size_t ours = 0, theirs = 0;
  int32_t max_raw = 0;
  double max_scaled = 0;
};

constexpr double SCALE = 32767.0 / 32768.0;
constexpr double SCALED_TOLERANCE = 1.6;

Comparison compare(const std::vector<int16_t>& ours, const std::vector<int16_t>& theirs, size_t from = 0,
                   size_t step = 1, size_t count = SIZE_MAX) {
  Comparison c;
  c.ours = ours.size();
  c.theirs = theirs.size();
  size_t n = std::min({ours.size(), theirs.size(), count == SIZE_MAX ? SIZE_MAX : from + count});
  for (size_t i = from; i < n; i += step) {
    c.max_raw = std::max(c.max_raw, std::abs(int32_t(ours[i]) - int32_t(theirs[i])));
    c.max_scaled = std::max(c.max_scaled, std::fabs(ours[i] - theirs[i] * SCALE));
  }
  return c;
}

class Layer2StreamTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  void SetUp() override {
    REQUIRE_TOOL("sox");
    REQUIRE_TOOL("mpg123");
  }
  std::vector<int16_t> decode_ours(const std::string& in) {
    std::string out = in + ".tovra.raw";
    int rc = test::run("'" + test::cli_path() + "' decode '" + in + "' '" + out + "' --format raw >/dev/null 2>&1");
    EXPECT_NE(rc, -1) << "tovra-cli did not exit normally on " << in;
    return test::read_pcm16(out);
  }
  std::vector<int16_t> decode_mpg123(const std::string& in) {
    std::string out = in + ".mpg123.raw";
    test::run("mpg123 -q --no-gapless -s '" + in + "' > '" + out + "' 2>/dev/null");
    return test::read_pcm16(out);
  }
  // A test signal at the rate and channel count: noise plus two tones, about -6 dBFS.
  std::string make_wav(int rate, int channels, double seconds = 3) {
    std::string wav = dir.file("in_" + std::to_string(rate) + "_" + std::to_string(channels) + ".wav");
    test::run("sox -q -n -r " + std::to_string(rate) + " -c " + std::to_string(channels) + " -b 16 '" + wav +
              "' synth " + std::to_string(seconds) + " pinknoise sine 440 sine 3000 vol 0.5");
    return wav;
  }
};

TEST_F(Layer2StreamTest, MatchesMpg123AcrossModesRatesAndEncoders) {
  REQUIRE_TOOL("twolame");
  REQUIRE_TOOL("ffmpeg");
  struct Case {
    const char* encoder;  // "twolame" or "ffmpeg"
    int rate, channels, kbps;
    const char* mode;  // twolame's -m
    bool crc;
  };
  const Case cases[] = {
      {"twolame", 44100, 2, 192, "s", false}, {"twolame", 44100, 2, 384, "s", true},
      {"twolame", 48000, 2, 256, "d", false}, {"twolame", 32000, 2, 64, "s", true},  // narrow, 12 bands
      {"twolame", 44100, 2, 96, "s", false},                                         // narrow, 8 bands
      {"twolame", 48000, 1, 48, "m", true},   {"twolame", 32000, 1, 32, "m", false},
      {"twolame", 44100, 1, 160, "m", false}, {"twolame", 32000, 2, 384, "d", true},
      {"ffmpeg", 44100, 2, 224, "", false},   {"ffmpeg", 48000, 1, 64, "", false},
      {"ffmpeg", 32000, 2, 320, "", false},   {"ffmpeg", 48000, 2, 112, "", false},
  };
  for (const Case& c : cases) {
    std::string tag = std::string(c.encoder) + "_" + std::to_string(c.rate) + "_" + std::to_string(c.channels) + "_" +
                      std::to_string(c.kbps) + c.mode + (c.crc ? "_crc" : "");
    SCOPED_TRACE(tag);
    std::string wav = make_wav(c.rate, c.channels);
    std::string mp2 = dir.file(tag + ".mp2");
    if (std::string(c.encoder) == "twolame") {
      test::run(std::string("twolame --quiet -b ") + std::to_string(c.kbps) + " -m " + c.mode + (c.crc ? " -p" : "") +
                " '" + wav + "' '" + mp2 + "'");
    } else {
      test::run("ffmpeg -loglevel error -y -i '" + wav + "' -c:a mp2 -b:a " + std::to_string(c.kbps) + "k '" + mp2 +
                "'");
    }
    std::vector<int16_t> ours = decode_ours(mp2), theirs = decode_mpg123(mp2);
    ASSERT_GT(theirs.size(), 10000u);
    Comparison r = compare(ours, theirs);
    EXPECT_EQ(r.ours, r.theirs);
    EXPECT_LE(r.max_raw, 2);
    EXPECT_LE(r.max_scaled, SCALED_TOLERANCE);
  }
}

// Joint stereo with different channels: channel 0 matches; above the bound channel 1 carries
// channel 0's samples, so its level follows channel 0 and not its own tenth of it.
TEST_F(Layer2StreamTest, JointStereoCopiesChannelZeroAboveTheBound) {
  REQUIRE_TOOL("twolame");
  std::string mono = dir.file("noise.wav"), wav = dir.file("tenth.wav"), mp2 = dir.file("joint.mp2");
  test::run("sox -q -n -r 44100 -c 1 -b 16 '" + mono + "' synth 3 pinknoise vol 0.6");
  test::run("sox -q '" + mono + "' -c 2 '" + wav + "' remix 1 1v0.1");
  test::run("twolame --quiet -b 128 -m j '" + wav + "' '" + mp2 + "'");
  std::vector<int16_t> ours = decode_ours(mp2), theirs = decode_mpg123(mp2);
  ASSERT_EQ(ours.size(), theirs.size());
  Comparison left = compare(ours, theirs, 0, 2);
  EXPECT_LE(left.max_scaled, SCALED_TOLERANCE);
  auto rms = [](const std::vector<int16_t>& v, size_t from) {
    double sum = 0;
    for (size_t i = from; i < v.size(); i += 2) sum += double(v[i]) * v[i];
    return std::sqrt(sum / double(v.size() / 2));
  };
  double ours_right = rms(ours, 1), theirs_right = rms(theirs, 1), left_level = rms(ours, 0);
  EXPECT_LT(theirs_right, left_level * 0.2);
  EXPECT_GT(ours_right, theirs_right * 3);
}

// A stream with 50/15 emphasis: the treatment halves subbands 5 to 15 and leaves the rest. A tone
// in subband 1 comes out as mpg123 has it; a tone in subband 7 at half its level. (The tone's
// abrupt ends spread over every subband, so only the steady middle is compared.)
TEST_F(Layer2StreamTest, EmphasisHalvesTheMiddleSubbands) {
  REQUIRE_TOOL("twolame");
  for (int freq : {1000, 5000}) {
    std::string wav = dir.file("tone.wav"), mp2 = dir.file("tone.mp2");
    test::run("sox -q -n -r 44100 -c 1 -b 16 '" + wav + "' synth 2 sine " + std::to_string(freq) + " vol 0.5");
    test::run("twolame --quiet -b 192 -m m -e 5 '" + wav + "' '" + mp2 + "'");
    std::vector<int16_t> ours = decode_ours(mp2), theirs = decode_mpg123(mp2);
    ASSERT_EQ(ours.size(), theirs.size());
    ASSERT_GT(ours.size(), 20000u);
    const size_t from = 4608, to = ours.size() - 4608;
    double sum_ours = 0, sum_theirs = 0;
    for (size_t i = from; i < to; ++i) {
      sum_ours += double(ours[i]) * ours[i];
      sum_theirs += double(theirs[i]) * theirs[i];
    }
    SCOPED_TRACE(freq);
    if (freq == 1000) {
      // The encoder's faint noise in the halved subbands moves by a unit or two.
      EXPECT_LE(compare(ours, theirs, from, 1, to - from).max_scaled, 4.0);
    } else {
      EXPECT_NEAR(std::sqrt(sum_ours / sum_theirs), 0.5, 0.01);
    }
  }
}

// MPEG-2 streams load the rate table's frame size, half the real frame (see the frame test): the
// first slots of the first frame come out right, and the rest of the stream is whatever the
// resynchronisation makes of it, without a crash.
TEST_F(Layer2StreamTest, Mpeg2StreamsDecodeTheirFirstSlotsAndSurviveTheRest) {
  REQUIRE_TOOL("twolame");
  for (int rate : {16000, 22050, 24000}) {
    for (int channels : {1, 2}) {
      SCOPED_TRACE(testing::Message() << rate << " Hz, " << channels << " channels");
      std::string wav = make_wav(rate, channels), mp2 = dir.file("lsf.mp2");
      test::run("twolame --quiet -b " + std::to_string(channels * 48) + " '" + wav + "' '" + mp2 + "'");
      std::vector<int16_t> ours = decode_ours(mp2), theirs = decode_mpg123(mp2);
      ASSERT_GE(ours.size(), size_t(1152 * channels));
      ASSERT_GE(theirs.size(), size_t(1152 * channels));
      EXPECT_LE(compare(ours, theirs, 0, 1, size_t(256 * channels)).max_scaled, SCALED_TOLERANCE);
    }
  }
}

// ---- Conformance streams ----

class Layer2VectorTest : public Layer2StreamTest {
 protected:
  std::string vectors;
  void SetUp() override {
    vectors = test::vectors_dir();
    if (vectors.empty()) GTEST_SKIP() << "no conformance vectors";
  }
  // The reference is padded past the stream's frames: compare the frames only.
  Comparison against_reference(const std::string& name, int channels, int frames, size_t step = 1, size_t from = 0) {
    std::vector<int16_t> ours = decode_ours(vectors + "/" + name + ".bit");
    std::vector<int16_t> ref = test::read_pcm16(vectors + "/" + name + ".pcm");
    EXPECT_EQ(ours.size(), size_t(frames * 1152 * channels));
    ref.resize(std::min(ref.size(), size_t(frames * 1152 * channels)));
    return compare(ours, ref, from, step);
  }
};

TEST_F(Layer2VectorTest, MonoAndStereoStreamsMatchTheReference) {
  Comparison mono = against_reference("l2-fl13", 1, 49);
  EXPECT_LE(mono.max_scaled, SCALED_TOLERANCE);
  EXPECT_LE(mono.max_raw, 2);
  Comparison stereo = against_reference("l2-fl15", 2, 16);
  EXPECT_LE(stereo.max_scaled, SCALED_TOLERANCE);
  EXPECT_LE(stereo.max_raw, 2);
}

// l2-fl10 switches between stereo and joint stereo with bounds 16, 12, 8, 4. Channel 0 matches in
// every frame; so does channel 1, because this stream's joint bands decode alike under the
// decoder's copy of channel 0 and under the standard's intensity rule (a build with the standard's
// rule gives the same samples). The copy itself shows in the joint-stereo stream and frame tests.
TEST_F(Layer2VectorTest, StereoAndJointStreamMatchesTheReference) {
  Comparison left = against_reference("l2-fl10", 2, 49, 2, 0);
  EXPECT_LE(left.max_scaled, SCALED_TOLERANCE);
  Comparison right = against_reference("l2-fl10", 2, 49, 2, 1);
  EXPECT_LE(right.max_scaled, SCALED_TOLERANCE);
}

// Damaged and illegal streams decode to an end without a crash or a hang (and, in the sanitizer
// build, without a report).
TEST_F(Layer2VectorTest, DamagedStreamsDecodeToAnEnd) {
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
    std::string out = dir.file(std::string(name) + ".raw");
    int rc = 0;
    std::string said = test::run_output(
        "timeout 60 '" + test::cli_path() + "' decode '" + in + "' '" + out + "' --format raw 2>&1", &rc);
    // 124 is the time-out; a sanitizer report exits with 1 like a refused file, so look for it.
    EXPECT_TRUE(rc == 0 || rc == 1) << name << " exit " << rc;
    EXPECT_EQ(said.find("Sanitizer"), std::string::npos) << name << ": " << said;
    EXPECT_EQ(said.find("runtime error"), std::string::npos) << name << ": " << said;
  }
  EXPECT_GT(seen, 0);
}

}  // namespace
