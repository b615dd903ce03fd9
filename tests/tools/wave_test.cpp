// The WAVE header parser, the double-buffered reader and the writer of the file tools.
#include "tools/wave.h"

#include <gtest/gtest.h>

#include <cmath>

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
  EXPECT_EQ(parse(good, 40), tools::WAVE_CHUNK_ERROR);  // more bytes needed
  // One of "RIFF" and "WAVE" is enough ("RF64" files open so); neither is refused.
  EXPECT_EQ(parse(riff("RF64", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), tools::WAVE_OK);
  EXPECT_EQ(parse(riff("RIFF", "AVI ", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), tools::WAVE_OK);
  EXPECT_EQ(parse(riff("JUNK", "AVI ", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), tools::WAVE_BAD_FORMAT);

  // Chunks in any order before "data", odd ones followed by their pad byte, or (from writers that
  // leave it out) not; a chunk far larger than the bytes at hand asks for more.
  int32_t offset = 0;
  uint32_t size = 0;
  Bytes padded = chunk("LIST", 5, 6);
  Bytes b = riff("RIFF", "WAVE", {chunk("JUNK", 28, 28), fmt_chunk(8000, 8, 1), padded, chunk("data", 100, 10)});
  ASSERT_EQ(parse(b, b.size(), &offset, &size), tools::WAVE_OK);
  EXPECT_EQ(offset, 12 + 36 + 24 + 14 + 8);
  EXPECT_EQ(size, 100u);
  b = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("bext", 5, 5), chunk("data", 4, 4)});
  ASSERT_EQ(parse(b, b.size(), &offset), tools::WAVE_OK);
  EXPECT_EQ(offset, 12 + 24 + 13 + 8);
  b = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("bext", 4000, 40)});
  EXPECT_EQ(parse(b), tools::WAVE_CHUNK_ERROR);
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
  EXPECT_EQ(tools::open_wave_input(dir.file("missing.wav").c_str(), r, b, c, data_size), tools::WAVE_READ_ERROR);
  struct Case {
    Bytes file;
    int32_t code;
    const char* text;
  };
  const Case cases[] = {
      {Bytes(40, 0), tools::WAVE_BAD_FORMAT, "データにエラー (RIFF WAVEファイルではない)"},
      {riff("RIFF", "WAVE", {chunk("data", 4, 4), fmt_chunk(8000, 8, 1)}), tools::WAVE_BAD_FORMAT,
       "データにエラー (\"data\"チャンクが\"fmt \"チャンクより前にある)"},
      {riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1, 14), chunk("data", 4, 4)}), tools::WAVE_BAD_FORMAT,
       "データにエラー (\"fmt \"チャンクが短い)"},
      {riff("RIFF", "WAVE", {fmt_tagged(0x55, 44100, 0, 2), chunk("data", 4, 4)}), tools::WAVE_BAD_FORMAT,
       "データにエラー (フォーマットタグ0x0055のWAVE: PCMと浮動小数点のみ)"},
      {riff("RIFF", "WAVE", {fmt_chunk(44100, 16, 6), chunk("data", 12, 12)}), tools::WAVE_BAD_FORMAT,
       "データにエラー (6チャンネルのWAVE: モノラルかステレオのみ)"},
      {riff("RIFF", "WAVE", {fmt_tagged(3, 44100, 16, 1), chunk("data", 4, 4)}), tools::WAVE_BAD_FORMAT,
       "データにエラー (16ビット浮動小数点のWAVE: 整数は8～32ビット、浮動小数点は32か64ビットのみ)"},
      {riff("RIFF", "WAVE", {fmt_chunk(0, 16, 2), chunk("data", 4, 4)}), tools::WAVE_BAD_FORMAT,
       "データにエラー (サンプルレート0のWAVE)"},
      {riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 4, 4)}), tools::WAVE_NO_DATA,
       "データがない (\"data\"チャンクがない)"},
  };
  for (const Case& k : cases) {
    EXPECT_EQ(open(k.file), k.code) << k.text;
    char text[256];
    EXPECT_STREQ(tools::wave_problem_text(k.code, header, text, sizeof text), k.text);
  }
  // A "data" chunk behind kilobytes of other chunks opens; a claimed size beyond the file's end
  // is cut to what is there.
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("bext", 5000, 5000), chunk("data", 4, 4)})),
            tools::WAVE_OK);
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 0xFFFFFFFF, 30)})), tools::WAVE_OK);
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
    ASSERT_EQ(open(file), tools::WAVE_OK);
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
  ASSERT_EQ(open(bytes), tools::WAVE_OK);
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

  // 8-bit and mono inputs come on the 16-bit scale, the one side on both.
  Bytes eight = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 3, 0)});
  eight.insert(eight.end(), {0, 128, 255});
  ASSERT_EQ(open(eight), tools::WAVE_OK);
  const int32_t want[] = {-32768, 0, 32512, 0};
  for (int i = 0; i < 4; ++i) {
    tools::read_wave_frame(i, l, r);
    EXPECT_EQ(l, want[i]) << i;
    EXPECT_EQ(r, want[i]) << i;
  }
  ASSERT_EQ(open(wave_bytes(8000, 16, 1, {-5, 9})), tools::WAVE_OK);
  tools::read_wave_frame(1, l, r);
  EXPECT_EQ(l, 9);
  EXPECT_EQ(r, 9);
}

TEST_F(WaveFile, WriterClipsNarrowsMixesAndPatchesTheHeader) {
  const int32_t pairs[][2] = {{32767, 32767}, {-32768, -32768}, {40000, -40000}, {0, 0}, {-1, -2}, {300, -301}};
  const int64_t extra = 400000;  // enough frames for several flushes of the buffer
  auto clip = [](int32_t v) { return v < -32768 ? -32768 : v > 32767 ? 32767 : v; };
  for (auto [bits, channels] : {std::pair{16, 2}, {16, 1}, {8, 2}, {8, 1}}) {
    SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(channels) + " channels");
    const std::string path = dir.file("out.wav");
    ASSERT_EQ(tools::open_wave_output(path.c_str(), 32000, bits, channels, 12345), tools::WAVE_OK);
    for (auto& p : pairs) ASSERT_EQ(tools::write_wave_frame(p[0], p[1]), tools::WAVE_OK);
    for (int64_t i = 0; i < extra; ++i) ASSERT_EQ(tools::write_wave_frame(int32_t(i), -int32_t(i)), tools::WAVE_OK);
    ASSERT_EQ(tools::close_wave_output(), tools::WAVE_OK);
    EXPECT_EQ(tools::close_wave_output(), tools::WAVE_OK);  // a second close does nothing

    WaveFacts f = check_written_wave(path);
    EXPECT_EQ(f.rate, 32000);
    EXPECT_EQ(f.bits, bits);
    EXPECT_EQ(f.channels, channels);
    const size_t per_frame = size_t(bits * channels / 8);
    ASSERT_EQ(f.data.size(), (6 + extra) * per_frame);
    for (size_t i = 0; i < 6; ++i) {
      const int32_t l = clip(pairs[i][0]), r = clip(pairs[i][1]);
      const uint8_t* p = f.data.data() + i * per_frame;
      if (bits == 16 && channels == 2) {
        EXPECT_EQ(int16_t(p[0] | p[1] << 8), l);
        EXPECT_EQ(int16_t(p[2] | p[3] << 8), r);
      } else if (bits == 16) {
        EXPECT_EQ(int16_t(p[0] | p[1] << 8), (l + r) >> 1) << i;
      } else if (channels == 2) {
        EXPECT_EQ(p[0], (l >> 8) + 128);
        EXPECT_EQ(p[1], (r >> 8) + 128);
      } else {
        EXPECT_EQ(p[0], ((l + r) >> 9) + 128) << i;
      }
    }
  }
}

TEST_F(WaveFile, FailedFlushClosesTheOutputAndTheJobsCloseIsHarmless) {
  std::FILE* probe = std::fopen("/dev/full", "wb");
  if (!probe) GTEST_SKIP() << "no /dev/full";
  std::fclose(probe);
  ASSERT_EQ(tools::open_wave_output("/dev/full", 44100, 16, 2, 0), tools::WAVE_OK);
  int32_t code = tools::WAVE_OK;
  int64_t written = 0;
  for (; code == tools::WAVE_OK && written < 1000000; ++written) code = tools::write_wave_frame(1, 1);
  EXPECT_EQ(code, tools::WAVE_WRITE_ERROR);
  EXPECT_EQ(written, tools::WAVE_OUT_FLUSH_BYTES / 4);
  EXPECT_EQ(tools::wave_out.file, nullptr);
  EXPECT_EQ(tools::close_wave_output(), tools::WAVE_OK);
  EXPECT_EQ(tools::write_wave_frame(1, 1), tools::WAVE_WRITE_ERROR);
}

}  // namespace
