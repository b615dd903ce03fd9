// The WAVE header parser, the double-buffered reader and the writer of the file tools.
#include "tools/wave.h"

#include <gtest/gtest.h>

#include <cmath>

#include "session/message_text.h"
#include "tools_support.h"

namespace {

using namespace tools_test;

int32_t parse(const Bytes& b, size_t length, int32_t* offset = nullptr, uint32_t* size = nullptr) {
  int32_t rate, bits, channels, at;
  uint32_t n;
  int32_t code = tools::parse_wave_header(b.data(), int32_t(length), rate, bits, channels, n, at);
  if (offset) *offset = at;
  if (size) *size = n;
  return code;
}
int32_t parse(const Bytes& b) { return parse(b, b.size()); }

// fmt_chunk with another tag, or the extensible form with sub_tag as its sub-format.
Bytes fmt_tagged(int32_t tag, int32_t rate, int32_t bits, int32_t channels, int32_t sub_tag = 0) {
  Bytes c = fmt_chunk(rate, bits, channels, sub_tag ? 40 : 16);
  c[8] = uint8_t(tag);
  c[9] = uint8_t(tag >> 8);
  if (sub_tag) {
    const uint8_t tail[] = {22, 0, uint8_t(bits), 0, 3,    0,    0,   0, uint8_t(sub_tag), 0, 0, 0, 0, 0, 0x10, 0, 0x80,
                            0,  0, 0xAA,          0, 0x38, 0x9B, 0x71};
    std::copy(std::begin(tail), std::end(tail), c.begin() + 24);
  }
  return c;
}

TEST(WaveHeader, WalksChunksAsOtherProgramsWriteThem) {
  Bytes good = wave_bytes(22050, 16, 2, std::vector<int16_t>(20, 7));
  EXPECT_EQ(parse(good, 40), format::ERR_WAVE_CHUNK);  // more bytes needed
  // One of "RIFF" and "WAVE" is enough ("RF64" files open so); neither is refused.
  EXPECT_EQ(parse(riff("RF64", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), format::ERR_OK);
  EXPECT_EQ(parse(riff("RIFF", "AVI ", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), format::ERR_OK);
  EXPECT_EQ(parse(riff("JUNK", "AVI ", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), format::ERR_WAVE_FORMAT);

  // Chunks in any order before "data", odd ones followed by their pad byte, or (from writers that
  // leave it out) not; a chunk far larger than the bytes at hand asks for more.
  int32_t offset = 0;
  uint32_t size = 0;
  Bytes padded = chunk("LIST", 5, 6);
  Bytes b = riff("RIFF", "WAVE", {chunk("JUNK", 28, 28), fmt_chunk(8000, 8, 1), padded, chunk("data", 100, 10)});
  ASSERT_EQ(parse(b, b.size(), &offset, &size), format::ERR_OK);
  EXPECT_EQ(offset, 12 + 36 + 24 + 14 + 8);
  EXPECT_EQ(size, 100u);
  b = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("bext", 5, 5), chunk("data", 4, 4)});
  ASSERT_EQ(parse(b, b.size(), &offset), format::ERR_OK);
  EXPECT_EQ(offset, 12 + 24 + 13 + 8);
  b = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("bext", 4000, 40)});
  EXPECT_EQ(parse(b), format::ERR_WAVE_CHUNK);
}

class WaveFile : public ToolsTest {
 protected:
  int32_t open(const Bytes& bytes) {
    test::write_file(dir.file("in.wav"), bytes);
    int32_t rate, bits, channels;
    return tools::open_wave_input(dir.file("in.wav").c_str(), rate, bits, channels, data_size, &header);
  }
  void TearDown() override {
    tools::close_wave_input();
    tools::close_wave_output();
  }
  uint32_t data_size = 0;
  tools::WaveHeader header;
};

TEST_F(WaveFile, RefusalsSayWhatTheFileIs) {
  int32_t r, b, c;
  EXPECT_EQ(tools::open_wave_input(dir.file("missing.wav").c_str(), r, b, c, data_size), format::ERR_READ);
  struct Case {
    Bytes file;
    int32_t code;
    const char* text;
  };
  const Case cases[] = {
      {Bytes(40, 0), format::ERR_WAVE_FORMAT, "Error in the data (not a RIFF WAVE file)"},
      {riff("RIFF", "WAVE", {chunk("data", 4, 4), fmt_chunk(8000, 8, 1)}), format::ERR_WAVE_FORMAT,
       "Error in the data (the \"data\" chunk comes before the \"fmt \" chunk)"},
      {riff("RIFF", "WAVE", {fmt_tagged(0x55, 44100, 0, 2), chunk("data", 4, 4)}), format::ERR_WAVE_FORMAT,
       "Error in the data (WAVE of format tag 0x0055: PCM and floating point only)"},
      {riff("RIFF", "WAVE", {fmt_chunk(44100, 16, 6), chunk("data", 12, 12)}), format::ERR_WAVE_FORMAT,
       "Error in the data (WAVE of 6 channels: mono or stereo only)"},
      {riff("RIFF", "WAVE", {fmt_tagged(3, 44100, 16, 1), chunk("data", 4, 4)}), format::ERR_WAVE_FORMAT,
       "Error in the data (16-bit floating-point WAVE: integers of 8 to 32 bits and floating point of 32 or 64 bits "
       "only)"},
      {riff("RIFF", "WAVE", {fmt_chunk(0, 16, 2), chunk("data", 4, 4)}), format::ERR_WAVE_FORMAT,
       "Error in the data (WAVE at a sampling rate of 0)"},
      {riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 4, 4)}), format::ERR_WAVE_NO_DATA,
       "No data (no \"data\" chunk)"},
  };
  for (const Case& k : cases) {
    EXPECT_EQ(open(k.file), k.code) << k.text;
    EXPECT_EQ(session::wave_problem_message(k.code, header), k.text);
  }
  // A "data" chunk behind kilobytes of other chunks opens; a claimed size beyond the file's end
  // is cut to what is there.
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("bext", 5000, 5000), chunk("data", 4, 4)})),
            format::ERR_OK);
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 0xFFFFFFFF, 30)})), format::ERR_OK);
  EXPECT_EQ(data_size, 30u);
}

// Every sample format comes out on the 16-bit scale: wider integers truncated to their upper 16
// bits, floats scaled by 32768, truncated and clipped.
TEST_F(WaveFile, SampleFormatsComeOutAs16Bits) {
  auto bytes_of = [](std::initializer_list<uint32_t> values, int size) {
    Bytes out;
    for (uint32_t v : values) put_le(out, v, size);
    return out;
  };
  auto f32 = [](float v) {
    uint32_t u;
    std::memcpy(&u, &v, 4);
    return u;
  };
  struct Case {
    const char* name;
    Bytes fmt, data;
    std::vector<int32_t> want;  // left, right, ...
  };
  const Case cases[] = {
      {"8-bit mono", fmt_chunk(8000, 8, 1), {0, 128, 255}, {-32768, -32768, 0, 0, 32512, 32512}},
      {"24-bit stereo",
       fmt_chunk(48000, 24, 2),
       bytes_of({0x7FFFFF, 0x800000, 0xFFFFFF, 0x0001FF}, 3),
       {32767, -32768, -1, 1}},
      {"32-bit mono", fmt_chunk(48000, 32, 1), bytes_of({0x12345678, 0xFFFF0000}, 4), {0x1234, 0x1234, -1, -1}},
      {"float stereo",
       fmt_tagged(3, 48000, 32, 2),
       bytes_of({f32(0.5f), f32(-1.0f), f32(1.5f), f32(-3.0f), f32(-1e-6f), f32(NAN)}, 4),
       {16384, -32768, 32767, -32768, 0, 0}},
      {"extensible 24-bit", fmt_tagged(0xFFFE, 48000, 24, 1, 1), bytes_of({0x123456}, 3), {0x1234, 0x1234}},
      {"extensible float", fmt_tagged(0xFFFE, 48000, 32, 1, 3), bytes_of({f32(-0.25f)}, 4), {-8192, -8192}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    Bytes file = riff("RIFF", "WAVE", {k.fmt, chunk("data", uint32_t(k.data.size()), 0)});
    file.insert(file.end(), k.data.begin(), k.data.end());
    ASSERT_EQ(open(file), format::ERR_OK);
    EXPECT_EQ(tools::wave_in.frames, int64_t(k.want.size() / 2));
    for (size_t i = 0; i < k.want.size(); i += 2) {
      int32_t l, r;
      tools::read_wave_frame(int64_t(i / 2), l, r);
      EXPECT_EQ(l, k.want[i]) << i;
      EXPECT_EQ(r, k.want[i + 1]) << i;
    }
  }
}

TEST_F(WaveFile, ReaderWalksHalvesLooksBackAndGivesSilencePastTheData) {
  // 16-bit stereo, 300000 frames: more than two halves of 131072 frames.
  const int64_t frames = 300000;
  std::vector<int16_t> v(size_t(2 * frames));
  for (int64_t i = 0; i < frames; ++i) {
    v[size_t(2 * i)] = int16_t(i * 7);
    v[size_t(2 * i + 1)] = int16_t(-i * 3);
  }
  Bytes bytes = wave_bytes(44100, 16, 2, v), trailer = chunk("LIST", 16, 16);
  bytes.insert(bytes.end(), trailer.begin(), trailer.end());  // a chunk behind the data is no sample
  ASSERT_EQ(open(bytes), format::ERR_OK);
  int32_t l, r;
  int64_t bad = 0;
  for (int64_t i = -1; i < frames + 10; ++i) {
    // Each index is read, then one 60 frames back, as a kernel reads its taps.
    for (int64_t at : {i, i - 60}) {
      if (at < -1) continue;
      tools::read_wave_frame(at, l, r);
      const bool in = at >= 0 && at < frames;
      if (l != (in ? int16_t(at * 7) : 0) || r != (in ? int16_t(-at * 3) : 0)) ++bad;
    }
  }
  EXPECT_EQ(bad, 0);
  tools::read_wave_frame(5'000'000, l, r);  // a long jump ahead
  EXPECT_EQ(l, 0);
}

}  // namespace
