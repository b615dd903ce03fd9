// The WAVE header parser, the double-buffered reader and the writer of the file tools.
#include "tools/wave.h"

#include <gtest/gtest.h>

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

TEST(WaveHeader, MagicWordsAndChunksByTheirStatedSizes) {
  Bytes good = wave_bytes(22050, 16, 2, std::vector<int16_t>(20, 7));
  EXPECT_EQ(parse(good, 40), tools::WAVE_CHUNK_ERROR);  // fewer than 44 bytes
  // One of "RIFF" and "WAVE" is enough; neither is refused.
  EXPECT_EQ(parse(riff("JUNK", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), tools::WAVE_OK);
  EXPECT_EQ(parse(riff("RIFF", "AVI ", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), tools::WAVE_OK);
  EXPECT_EQ(parse(riff("JUNK", "AVI ", {fmt_chunk(8000, 8, 1), chunk("data", 4, 4)})), tools::WAVE_BAD_FORMAT);

  // An odd-sized chunk is stepped over without a pad byte; the data need not lie within the bytes.
  int32_t offset = 0;
  uint32_t size = 0;
  Bytes b = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 5, 5), chunk("data", 100, 10)});
  ASSERT_EQ(parse(b, b.size(), &offset, &size), tools::WAVE_OK);
  EXPECT_EQ(offset, 12 + 24 + 13 + 8);
  EXPECT_EQ(size, 100u);

  // "data" before "fmt ", a "fmt " too short or reaching past the bytes, a chunk running past the
  // bytes or ending exactly at them: not usable. A chunk head not all there asks for more.
  const Bytes refused[] = {
      riff("RIFF", "WAVE", {chunk("data", 4, 4), fmt_chunk(8000, 8, 1), chunk("junk", 0, 20)}),
      riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1, 14), chunk("data", 4, 16)}),
      riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 100, 40)}),
      riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 12, 12)}),
  };
  for (const Bytes& r : refused) EXPECT_EQ(parse(r), tools::WAVE_BAD_FORMAT) << r.size();
  EXPECT_EQ(parse(riff("RIFF", "WAVE", {fmt_chunk(8000, 16, 2, 40), chunk("data", 4, 4)}), 56), tools::WAVE_BAD_FORMAT);
  Bytes more = riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("LIST", 4, 4), chunk("data", 4, 0)});
  EXPECT_EQ(parse(more, more.size() - 3), tools::WAVE_CHUNK_ERROR);
}

class WaveFile : public ToolsTest {
 protected:
  int32_t open(const Bytes& bytes) {
    test::write_file(dir.file("in.wav"), bytes);
    int32_t rate, bits, channels;
    return tools::open_wave_input(dir.file("in.wav").c_str(), rate, bits, channels, data_size);
  }
  void TearDown() override {
    tools::close_wave_input();
    tools::close_wave_output();
  }
  uint32_t data_size = 0;
};

TEST_F(WaveFile, OpenRefusesWhatTheToolsCannotRead) {
  int32_t r, b, c;
  EXPECT_EQ(tools::open_wave_input(dir.file("missing.wav").c_str(), r, b, c, data_size), tools::WAVE_READ_ERROR);
  EXPECT_EQ(open(Bytes(40, 0)), tools::WAVE_BAD_FORMAT);  // the parser's 23 becomes 58
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(44100, 24, 2), chunk("data", 6, 6)})), tools::WAVE_BAD_FORMAT);
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(44100, 16, 3), chunk("data", 6, 6)})), tools::WAVE_BAD_FORMAT);
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(0, 16, 2), chunk("data", 4, 4)})), tools::WAVE_BAD_FORMAT);
  // The header is read in growing steps of 56 bytes up to a kilobyte, each parsed afresh. Only a
  // chunk head cut by a step's end asks for the next step; a chunk body running past it refuses.
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("junk", 400, 400), chunk("data", 4, 4)})),
            tools::WAVE_BAD_FORMAT);
  auto cut_at_every_step = [](int n) {
    // A chunk of 8 ends at 52, then chunks of 48 end at 108, 164, ...: each step's end cuts a head.
    std::vector<Bytes> chunks = {fmt_chunk(8000, 8, 1), chunk("pad ", 8, 8)};
    chunks.insert(chunks.end(), size_t(n), chunk("pad ", 48, 48));
    chunks.push_back(chunk("data", 4, 4));
    return riff("RIFF", "WAVE", chunks);
  };
  EXPECT_EQ(open(cut_at_every_step(16)), tools::WAVE_OK);          // "data" at 948
  EXPECT_EQ(open(cut_at_every_step(17)), tools::WAVE_BAD_FORMAT);  // "data" at 1004: past the kilobyte
  // A claimed size beyond the file's end is cut to what is there.
  EXPECT_EQ(open(riff("RIFF", "WAVE", {fmt_chunk(8000, 8, 1), chunk("data", 0xFFFFFFFF, 30)})), tools::WAVE_OK);
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
