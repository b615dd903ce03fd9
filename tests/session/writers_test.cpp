// PCM file writers: every header byte by byte, the sample byte order of each format and layer, the
// write-failure flag, and files from the file job read back by an independent tool.
#include "session/writers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "decoder/synth.h"
#include "session/session.h"
#include "support/support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes text(const char* s, size_t n) { return Bytes(s, s + n); }
Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
Bytes slice(const Bytes& b, size_t from, size_t n) { return Bytes(b.begin() + long(from), b.begin() + long(from + n)); }

// Runs the writers as a file job does: reserve, some blocks of a known pattern, finish.
struct WriterRun {
  test::TempDir dir;
  Bytes file;

  void run(int32_t ext_filter, int32_t channels, int32_t blocks, int32_t id, int32_t sampling_index,
           bool layer1 = false) {
    using namespace session;
    state.out_file = std::fopen(dir.file("out").c_str(), "w+b");
    ASSERT_NE(state.out_file, nullptr);
    options.ext_filter = ext_filter;
    state.decoded_channels = channels;
    state.write_failed.store(0);
    for (int i = 0; i < 1152; ++i) {
      decoder::pcm_block[i] = int16_t(0x0102 + i);
      decoder::pcm_block_l1[i] = int16_t(0x0A0B + i);
    }
    reserve_header(ext_filter);
    for (int32_t b = 0; b < blocks; ++b) layer1 ? write_decoded_block_l1() : write_decoded_block();
    FrameHeader last{};
    last.id = id;
    last.layer_code = layer1 ? 3 : 2;
    last.sampling_index = sampling_index;
    finish_header(ext_filter, last);
    std::fclose(state.out_file);
    state.out_file = nullptr;
    file = test::read_file(dir.file("out"));
  }
};

TEST(Writers, MonoWaveHeaderCountsTheTrailerInTheRiffSize) {
  WriterRun w;
  w.run(session::EXT_WAV, 1, 2, 1, 0);  // 44100 Hz, two mono blocks of 1152 bytes
  const uint32_t end = 44 + 2304;
  ASSERT_EQ(w.file.size(), end + 88);
  const Bytes header = {'R',  'I',  'F',  'F',  0x7C, 0x09, 0,   0,                             // end + 80 = 2428
                        'W',  'A',  'V',  'E',  'f',  'm',  't', ' ', 16, 0, 0, 0, 1, 0, 1, 0,  // one channel
                        0x44, 0xAC, 0,    0,                                                    // 44100
                        0x88, 0x58, 0x01, 0x00,                                                 // 88200 bytes a second
                        2,    0,    16,   0,                          // block align 2, 16 bits
                        'd',  'a',  't',  'a',  0x00, 0x09, 0,   0};  // 2304, the samples alone
  EXPECT_EQ(slice(w.file, 0, 44), header);
  const Bytes trailer = cat({text("LIST", 4),
                             {74, 0, 0, 0},
                             text("INFOISFT", 8),
                             {18, 0, 0, 0},
                             text("TOVRA for Windows", 18),
                             text("ICMT", 4),
                             {42, 0, 0, 0},
                             text("Converted by TOVRA from MPEG/Audio stream", 42)});
  EXPECT_EQ(slice(w.file, end, 88), trailer);
  // Samples little-endian, straight from the block.
  EXPECT_EQ(w.file[44], 0x02);
  EXPECT_EQ(w.file[45], 0x01);
}

TEST(Writers, StereoAiffAt48kHasTheMantissaBB80AndBigEndianSamples) {
  WriterRun w;
  w.run(session::EXT_AIF, 2, 2, 1, 1);  // 48000 Hz, two stereo blocks of 2304 bytes
  const uint32_t end = 54 + 4608;
  ASSERT_EQ(w.file.size(), end);
  const Bytes header = {'F',  'O',  'R',  'M',  0,   0,   0x12, 0x2E,                     // end - 8 = 4654
                        'A',  'I',  'F',  'F',  'C', 'O', 'M',  'M',  0, 0, 0, 18, 0, 2,  // channels
                        0,    0,    0x04, 0x7E,                              // (end - 62) / 4 = 1150 frames
                        0,    16,                                            // bits
                        0x40, 0x0E, 0xBB, 0x80, 0,   0,   0,    0,    0, 0,  // 48000 as an 80-bit number
                        'S',  'S',  'N',  'D',  0,   0,   0x11, 0xF8,        // end - 62 = 4600
                        0,    0,    0,    0,    0,   0,   0,    0};
  EXPECT_EQ(slice(w.file, 0, 54), header);
  EXPECT_EQ(w.file[54], 0x01);
  EXPECT_EQ(w.file[55], 0x02);
  EXPECT_EQ(w.file[56], 0x01);
  EXPECT_EQ(w.file[57], 0x03);
}

TEST(Writers, AuHeaderAndBigEndianSamples) {
  WriterRun w;
  w.run(session::EXT_AU, 1, 1, 1, 2);  // 32000 Hz mono
  ASSERT_EQ(w.file.size(), 24u + 1152);
  const Bytes header = {'.', 's', 'n', 'd', 0, 0, 0,    24,   0, 0, 0x04, 0x80,  // 1152 bytes of data
                        0,   0,   0,   3,   0, 0, 0x7D, 0x00, 0, 0, 0,    1};
  EXPECT_EQ(slice(w.file, 0, 24), header);
  EXPECT_EQ(w.file[24], 0x01);
  EXPECT_EQ(w.file[25], 0x02);
}

TEST(Writers, VocHeaderAndTerminator) {
  WriterRun w;
  w.run(session::EXT_VOC, 2, 1, 0, 0);  // MPEG-2, 22050 Hz, stereo
  const uint32_t end = 42 + 2304;
  ASSERT_EQ(w.file.size(), end + 1);
  const Bytes header = cat(
      {text("Creative Voice File", 19), {0x1A, 26,   0, 0x14, 0x01, 0x1F, 0x11, 9, 0x0C, 0x09, 0x00,  // end - 30 = 2316
                                         0x22, 0x56, 0, 0,                                            // 22050
                                         16,   2,    4, 0,    0,    0,    0,    0}});
  EXPECT_EQ(slice(w.file, 0, 42), header);
  EXPECT_EQ(w.file[end], 0);
  EXPECT_EQ(w.file[42], 0x02);
  EXPECT_EQ(w.file[43], 0x01);
}

TEST(Writers, RawHasNoHeader) {
  WriterRun w;
  w.run(session::EXT_RAW, 2, 3, 1, 0);
  ASSERT_EQ(w.file.size(), 3u * 2304);
  EXPECT_EQ(w.file[0], 0x02);
  EXPECT_EQ(w.file[1], 0x01);
}

TEST(Writers, LayerOneBlocksGoOutLittleEndianInEveryFormat) {
  for (int32_t format : {session::EXT_RAW, session::EXT_WAV, session::EXT_AIF, session::EXT_AU, session::EXT_VOC}) {
    SCOPED_TRACE(format);
    WriterRun w;
    // Mono or stereo, a Layer I block is always 1152 values.
    w.run(format, 1, 2, 1, 0, true);
    const size_t head[] = {0, 44, 54, 24, 42};
    const size_t at = head[format];
    ASSERT_GE(w.file.size(), at + 2 * 2304);
    EXPECT_EQ(w.file[at], 0x0B);
    EXPECT_EQ(w.file[at + 1], 0x0A);
    EXPECT_EQ(w.file[at + 2 * 2304 - 2], uint8_t((0x0A0B + 1151) & 0xFF));
  }
}

TEST(Writers, FullDeviceRaisesTheWriteFailureAndTheJobGoesOn) {
  using namespace session;
  state.out_file = std::fopen("/dev/full", "w+b");
  if (!state.out_file) GTEST_SKIP() << "no /dev/full";
  options.ext_filter = EXT_WAV;
  state.decoded_channels = 2;
  state.write_failed.store(0);
  reserve_header(EXT_WAV);
  // Enough blocks to overflow any stream buffer; every call returns.
  for (int i = 0; i < 64; ++i) write_decoded_block();
  FrameHeader last{};
  last.id = 1;
  finish_header(EXT_WAV, last);
  std::fclose(state.out_file);
  state.out_file = nullptr;
  EXPECT_EQ(state.write_failed.load(), 1);
}

// Files from the file job, read back by sox: its idea of rate, channels and length must be ours.
TEST(Writers, FileJobOutputIsReadableBySox) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  test::TempDir tmp;
  struct Case {
    int rate, channels;
    const char* mode;
  } cases[] = {{48000, 2, "j"}, {32000, 1, "m"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rate);
    const std::string wav = tmp.file("in.wav"), mp2 = tmp.file("in.mp2");
    ASSERT_EQ(test::run("sox -q -n -r " + std::to_string(c.rate) + " -c " + std::to_string(c.channels) + " -b 16 '" +
                        wav + "' synth 1 sine 440"),
              0);
    ASSERT_EQ(test::run("twolame --quiet -m " + std::string(c.mode) + " '" + wav + "' '" + mp2 + "'"), 0);
    const std::string raw = tmp.file("out.raw");
    ASSERT_EQ(test::run(test::cli_path() + " decode '" + mp2 + "' '" + raw + "' 2>/dev/null"), 0);
    const std::vector<int16_t> samples = test::read_pcm16(raw);
    for (const char* ext : {"wav", "au", "voc", "aif"}) {
      SCOPED_TRACE(ext);
      const std::string out = tmp.file(std::string("out.") + ext);
      ASSERT_EQ(test::run(test::cli_path() + " decode '" + mp2 + "' '" + out + "' 2>/dev/null"), 0);
      auto info = [&](const char* what) {
        return test::run_output("sox --i " + std::string(what) + " '" + out + "' 2>/dev/null");
      };
      EXPECT_EQ(info("-r"), std::to_string(c.rate) + "\n");
      EXPECT_EQ(info("-c"), std::to_string(c.channels) + "\n");
      // What sox reads back, as 16-bit little-endian samples, must be what the raw job wrote.
      const std::string back = tmp.file("back.raw");
      ASSERT_EQ(test::run("sox -q '" + out + "' -t raw -e signed -b 16 -L '" + back + "' 2>/dev/null"), 0);
      std::vector<int16_t> read_back = test::read_pcm16(back);
      // The AIFF sizes fall 16 bytes short, as that writer has always made them.
      const size_t expected = std::string(ext) == "aif" ? samples.size() - 8 : samples.size();
      EXPECT_EQ(read_back.size(), expected);
      EXPECT_EQ(test::max_abs_diff(read_back, samples), 0);
    }
  }
}

}  // namespace
