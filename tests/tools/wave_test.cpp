// The WAVE header parser, the double-buffered reader and the writer of the file tools.
#include "tools/wave.h"

#include <gtest/gtest.h>

#include "tools_support.h"

namespace {

using namespace tools_test;

struct Parsed {
  int32_t code, rate = 0, bits = 0, channels = 0, offset = 0;
  uint32_t size = 0;
};
Parsed parse(const std::vector<uint8_t>& b, size_t length) {
  Parsed p{};
  p.code = tools::parse_wave_header(b.data(), int32_t(length), p.rate, p.bits, p.channels, p.size, p.offset);
  return p;
}
Parsed parse(const std::vector<uint8_t>& b) { return parse(b, b.size()); }

std::vector<uint8_t> header_with(const char* riff, const char* wave, std::vector<std::vector<uint8_t>> chunks) {
  std::vector<uint8_t> out;
  put_id(out, riff);
  put_le(out, 0, 4);
  put_id(out, wave);
  for (auto& c : chunks) out.insert(out.end(), c.begin(), c.end());
  return out;
}
std::vector<uint8_t> chunk(const char* id, uint32_t size, size_t present) {
  std::vector<uint8_t> c;
  put_id(c, id);
  put_le(c, size, 4);
  c.resize(8 + present, 0x11);
  return c;
}

TEST(WaveHeader, NeedsFortyFourBytesAndOneOfTheMagicWords) {
  std::vector<uint8_t> good = wave_bytes(22050, 16, 2, std::vector<int16_t>(20, 7));
  EXPECT_EQ(parse(good, 40).code, tools::WAVE_CHUNK_ERROR);

  Parsed p = parse(good);
  ASSERT_EQ(p.code, tools::WAVE_OK);
  EXPECT_EQ(p.rate, 22050);
  EXPECT_EQ(p.bits, 16);
  EXPECT_EQ(p.channels, 2);
  EXPECT_EQ(p.size, 40u);
  EXPECT_EQ(p.offset, 44);

  // One of "RIFF" and "WAVE" is enough; neither is refused.
  std::vector<uint8_t> b = good;
  std::memcpy(b.data(), "JUNK", 4);
  EXPECT_EQ(parse(b).code, tools::WAVE_OK);
  b = good;
  std::memcpy(b.data() + 8, "AVI ", 4);
  EXPECT_EQ(parse(b).code, tools::WAVE_OK);
  std::memcpy(b.data(), "JUNK", 4);
  EXPECT_EQ(parse(b).code, tools::WAVE_BAD_FORMAT);
}

TEST(WaveHeader, WalksChunksByTheirStatedSizes) {
  // An odd-sized chunk is stepped over without a pad byte.
  auto b = header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 5, 5), chunk("data", 100, 10)});
  Parsed p = parse(b);
  ASSERT_EQ(p.code, tools::WAVE_OK);
  EXPECT_EQ(p.offset, 12 + 24 + 13 + 8);
  EXPECT_EQ(p.size, 100u);  // the data need not lie within the bytes given

  // "data" before "fmt ", and a "fmt " too short or reaching past the bytes: not usable.
  EXPECT_EQ(parse(header_with("RIFF", "WAVE", {chunk("data", 4, 4), fmt_chunk(8000, 8, 1), chunk("junk", 0, 20)})).code,
            tools::WAVE_BAD_FORMAT);
  EXPECT_EQ(parse(header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1, 14), chunk("data", 4, 16)})).code,
            tools::WAVE_BAD_FORMAT);
  auto wide = header_with("RIFF", "WAVE", {fmt_chunk(8000, 16, 2, 40), chunk("data", 4, 4)});
  EXPECT_EQ(parse(wide, 56).code, tools::WAVE_BAD_FORMAT);

  // A chunk running past the bytes refuses; one ending exactly at them does too; a chunk head
  // that is not all there asks for more.
  auto tail = header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 100, 40)});
  EXPECT_EQ(parse(tail).code, tools::WAVE_BAD_FORMAT);
  auto exact = header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 12, 12)});
  EXPECT_EQ(exact.size(), 56u);
  EXPECT_EQ(parse(exact).code, tools::WAVE_BAD_FORMAT);
  auto more = header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 4, 4), chunk("data", 4, 0)});
  EXPECT_EQ(parse(more, more.size() - 3).code, tools::WAVE_CHUNK_ERROR);
}

class WaveFile : public ToolsTest {
 protected:
  int32_t open(const std::vector<uint8_t>& bytes) {
    std::string path = dir.file("in.wav");
    test::write_file(path, bytes);
    int32_t rate, bits, channels;
    uint32_t size;
    int32_t code = tools::open_wave_input(path.c_str(), rate, bits, channels, size);
    data_size = size;
    return code;
  }
  void TearDown() override {
    tools::close_wave_input();
    tools::close_wave_output();
  }
  uint32_t data_size = 0;
};

TEST_F(WaveFile, OpenRefusesWhatTheToolsCannotRead) {
  int32_t r, b, c;
  uint32_t s;
  EXPECT_EQ(tools::open_wave_input(dir.file("missing.wav").c_str(), r, b, c, s), tools::WAVE_READ_ERROR);
  EXPECT_EQ(open(std::vector<uint8_t>(40, 0)), tools::WAVE_BAD_FORMAT);  // 23 from the parser becomes 58
  EXPECT_EQ(open(header_with("RIFF", "WAVE", {fmt_chunk(44100, 24, 2), chunk("data", 6, 6)})), tools::WAVE_BAD_FORMAT);
  EXPECT_EQ(open(header_with("RIFF", "WAVE", {fmt_chunk(44100, 16, 3), chunk("data", 6, 6)})), tools::WAVE_BAD_FORMAT);
  EXPECT_EQ(open(header_with("RIFF", "WAVE", {fmt_chunk(0, 16, 2), chunk("data", 4, 4)})), tools::WAVE_BAD_FORMAT);
  // The header is read in growing steps of 56 bytes up to a kilobyte; each step parses afresh.
  // Only a chunk head cut by the step's end asks for the next step: a chunk body running past it
  // refuses the file at once.
  EXPECT_EQ(open(header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("junk", 400, 400), chunk("data", 4, 4)})),
            tools::WAVE_BAD_FORMAT);
  auto chunks_cut_at_every_step = [](int n) {
    // A chunk of 8 ends at 52, then chunks of 48 end at 108, 164, ...: each step's end cuts a head.
    std::vector<std::vector<uint8_t>> chunks = {fmt_chunk(8000, 8, 1), chunk("pad ", 8, 8)};
    for (int i = 0; i < n; ++i) chunks.push_back(chunk("pad ", 48, 48));
    chunks.push_back(chunk("data", 4, 4));
    return header_with("RIFF", "WAVE", chunks);
  };
  EXPECT_EQ(open(chunks_cut_at_every_step(16)), tools::WAVE_OK);          // "data" at 948
  EXPECT_EQ(open(chunks_cut_at_every_step(17)), tools::WAVE_BAD_FORMAT);  // "data" at 1004: past the kilobyte
  // A claimed size beyond the file's end is cut to what is there.
  EXPECT_EQ(open(header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 0xFFFFFFFF, 30)})), tools::WAVE_OK);
  EXPECT_EQ(data_size, 30u);
}

TEST_F(WaveFile, ReaderWalksHalvesLooksBackAndGivesSilencePastTheData) {
  // 16-bit stereo, 300000 frames: more than two halves of 131072 frames.
  const int64_t frames = 300000;
  std::vector<int16_t> v(size_t(2 * frames));
  for (int64_t i = 0; i < frames; ++i) {
    v[size_t(2 * i)] = int16_t(i * 7);
    v[size_t(2 * i + 1)] = int16_t(-i * 3);
  }
  std::vector<uint8_t> bytes = wave_bytes(44100, 16, 2, v);
  // A chunk behind the data is not sample data.
  std::vector<uint8_t> trailer = chunk("LIST", 16, 16);
  bytes.insert(bytes.end(), trailer.begin(), trailer.end());
  ASSERT_EQ(open(bytes), tools::WAVE_OK);

  int32_t l, r;
  tools::read_wave_frame(-1, l, r);  // before the first frame
  EXPECT_EQ(l, 0);
  EXPECT_EQ(r, 0);
  int64_t bad = 0;
  for (int64_t i = 0; i < frames + 10; ++i) {
    // Each index is read, then one 60 frames back, as a kernel reads its taps.
    for (int64_t at : {i, i - 60}) {
      if (at < 0) continue;
      tools::read_wave_frame(at, l, r);
      int32_t want_l = at < frames ? int16_t(at * 7) : 0;
      int32_t want_r = at < frames ? int16_t(-at * 3) : 0;
      if (l != want_l || r != want_r) ++bad;
    }
  }
  EXPECT_EQ(bad, 0);
  // A long jump ahead.
  tools::read_wave_frame(5'000'000, l, r);
  EXPECT_EQ(l, 0);
}

TEST_F(WaveFile, EightBitAndMonoInputsConvertToTheSixteenBitScale) {
  std::vector<uint8_t> bytes = header_with("RIFF", "WAVE", {fmt_chunk(8000, 8, 1)});
  put_id(bytes, "data");
  put_le(bytes, 3, 4);
  bytes.insert(bytes.end(), {0, 128, 255});
  ASSERT_EQ(open(bytes), tools::WAVE_OK);
  const int32_t want[] = {-32768, 0, 32512, 0, 0};
  for (int i = 0; i < 5; ++i) {
    int32_t l, r;
    tools::read_wave_frame(i, l, r);
    EXPECT_EQ(l, want[i]) << i;
    EXPECT_EQ(r, want[i]) << i;
  }

  ASSERT_EQ(open(wave_bytes(8000, 16, 1, {-5, 9})), tools::WAVE_OK);
  int32_t l, r;
  tools::read_wave_frame(1, l, r);
  EXPECT_EQ(l, 9);
  EXPECT_EQ(r, 9);
}

struct WriteCase {
  int32_t bits, channels;
};
class WaveWriter : public WaveFile, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(WaveWriter, ClipsNarrowsMixesAndPatchesTheHeader) {
  const WriteCase c = GetParam();
  std::string path = dir.file("out.wav");
  ASSERT_EQ(tools::open_wave_output(path.c_str(), 32000, c.bits, c.channels, 12345), tools::WAVE_OK);
  const int32_t pairs[][2] = {{32767, 32767}, {-32768, -32768}, {40000, -40000}, {0, 0}, {-1, -2}, {300, -301}};
  // Enough frames for several flushes of the buffer.
  const int64_t extra = 400000;
  for (auto& p : pairs) ASSERT_EQ(tools::write_wave_frame(p[0], p[1]), tools::WAVE_OK);
  for (int64_t i = 0; i < extra; ++i) ASSERT_EQ(tools::write_wave_frame(int32_t(i), -int32_t(i)), tools::WAVE_OK);
  ASSERT_EQ(tools::close_wave_output(), tools::WAVE_OK);
  EXPECT_EQ(tools::close_wave_output(), tools::WAVE_OK);  // a second close does nothing

  WaveFacts f = check_written_wave(path);
  EXPECT_EQ(f.rate, 32000);
  EXPECT_EQ(f.bits, c.bits);
  EXPECT_EQ(f.channels, c.channels);
  const size_t per_frame = size_t(c.bits * c.channels / 8);
  ASSERT_EQ(f.data.size(), (6 + extra) * per_frame);
  auto clip = [](int32_t v) { return v < -32768 ? -32768 : v > 32767 ? 32767 : v; };
  for (size_t i = 0; i < 6; ++i) {
    int32_t l = clip(pairs[i][0]), r = clip(pairs[i][1]);
    const uint8_t* p = f.data.data() + i * per_frame;
    if (c.bits == 16 && c.channels == 2) {
      EXPECT_EQ(int16_t(p[0] | p[1] << 8), l);
      EXPECT_EQ(int16_t(p[2] | p[3] << 8), r);
    } else if (c.bits == 16) {
      EXPECT_EQ(int16_t(p[0] | p[1] << 8), (l + r) >> 1) << i;
    } else if (c.channels == 2) {
      EXPECT_EQ(p[0], (l >> 8) + 128);
      EXPECT_EQ(p[1], (r >> 8) + 128);
    } else {
      EXPECT_EQ(p[0], ((l + r) >> 9) + 128) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, WaveWriter,
                         ::testing::Values(WriteCase{16, 2}, WriteCase{16, 1}, WriteCase{8, 2}, WriteCase{8, 1}));

TEST_F(WaveFile, FailedFlushClosesTheOutputAndTheJobsCloseIsHarmless) {
  std::FILE* probe = std::fopen("/dev/full", "wb");
  if (!probe) GTEST_SKIP() << "no /dev/full";
  std::fclose(probe);
  ASSERT_EQ(tools::open_wave_output("/dev/full", 44100, 16, 2, 0), tools::WAVE_OK);
  int32_t code = tools::WAVE_OK;
  int64_t written = 0;
  while (code == tools::WAVE_OK && written < 1000000) {
    code = tools::write_wave_frame(1, 1);
    ++written;
  }
  EXPECT_EQ(code, tools::WAVE_WRITE_ERROR);
  EXPECT_EQ(written, tools::WAVE_OUT_FLUSH_BYTES / 4);
  EXPECT_EQ(tools::wave_out.file, nullptr);
  EXPECT_EQ(tools::close_wave_output(), tools::WAVE_OK);
  EXPECT_EQ(tools::write_wave_frame(1, 1), tools::WAVE_WRITE_ERROR);
}

TEST(WaveCodes, EachCodeHasItsText) {
  EXPECT_STREQ(tools::wave_code_text(1), "読み込みエラー");
  EXPECT_STREQ(tools::wave_code_text(2), "書込みエラー");
  EXPECT_STREQ(tools::wave_code_text(7), "メモリが足りない");
  EXPECT_STREQ(tools::wave_code_text(23), "チャンクエラー");
  EXPECT_STREQ(tools::wave_code_text(58), "データにエラー");
  EXPECT_STREQ(tools::wave_code_text(63), "データがない");
  EXPECT_EQ(tools::wave_code_text(0), nullptr);
}

}  // namespace
