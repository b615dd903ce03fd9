// PCM file writers: every header byte by byte, the sample byte order of each format and layer, the
// write-failure flag, and files from the file job read back by an independent tool.
#include "session/writers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "session/session.h"
#include "support/support.h"

namespace {

using test::Bytes;
using test::cat;

Bytes text(const char* s, size_t n) { return Bytes(s, s + n); }
Bytes slice(const Bytes& b, size_t from, size_t n) { return Bytes(b.begin() + long(from), b.begin() + long(from + n)); }

// Runs the writers as a file job does: reserve, some blocks of a known pattern and a partial block
// of tail frames, finish.
struct WriterRun {
  test::TempDir dir;
  Bytes file;

  void run(int32_t ext_filter, int32_t channels, int32_t blocks, int32_t id, int32_t sampling_index,
           int32_t tail_frames = 0, const char* path = nullptr) {
    using namespace session;
    const std::string out = path ? path : dir.file("out");
    state.out_file = std::fopen(out.c_str(), "w+b");
    ASSERT_NE(state.out_file, nullptr);
    options.ext_filter = ext_filter;
    decoding.channels = channels;
    state.write_failed.store(0);
    int16_t pcm[1152];
    for (int i = 0; i < 1152; ++i) pcm[i] = int16_t(0x0102 + i);
    reserve_header(ext_filter);
    for (int32_t b = 0; b < blocks; ++b) write_decoded_block(pcm);
    if (tail_frames) write_decoded_frames(pcm, tail_frames);
    FrameHeader last{};
    last.id = id;
    last.layer_code = 2;
    last.sampling_index = sampling_index;
    finish_header(ext_filter, last);
    std::fclose(state.out_file);
    state.out_file = nullptr;
    if (!path) file = test::read_file(out);
  }
};

// Each format's header byte for byte, the samples' byte order (from pcm_block, 0x0102 then 0x0103)
// and what follows the samples.
TEST(Writers, HeadersAndSampleByteOrder) {
  const Bytes wave = {'R',  'I',  'F',  'F',  0x7C, 0x09, 0,   0,                             // 44 + 2304 + 80
                      'W',  'A',  'V',  'E',  'f',  'm',  't', ' ', 16, 0, 0, 0, 1, 0, 1, 0,  // one channel
                      0x44, 0xAC, 0,    0,                                                    // 44100
                      0x88, 0x58, 0x01, 0x00,                                                 // 88200 bytes a second
                      2,    0,    16,   0,                                                    // block align 2, 16 bits
                      'd',  'a',  't',  'a',  0x00, 0x09, 0,   0};                            // 2304, the samples alone
  const Bytes wave_trailer = text(
      "LIST\x50\0\0\0INFOISFT\x12\0\0\0TOVRA for Windows\0ICMT\x2A\0\0\0"
      "Converted by TOVRA from MPEG/Audio stream",
      88);
  const Bytes aiff = {'F',  'O',  'R',  'M',  0,   0,   0x12, 0x2E,                     // 54 + 4608 - 8
                      'A',  'I',  'F',  'F',  'C', 'O', 'M',  'M',  0, 0, 0, 18, 0, 2,  // channels
                      0,    0,    0x04, 0x80,                                           // 4608 / 4 = 1152 frames
                      0,    16,                                                         // bits
                      0x40, 0x0E, 0xBB, 0x80, 0,   0,   0,    0,    0, 0,               // 48000 as an 80-bit number
                      'S',  'S',  'N',  'D',  0,   0,   0x12, 0x08,                     // 4608 + 8
                      0,    0,    0,    0,    0,   0,   0,    0};
  const Bytes au = {'.', 's', 'n', 'd', 0, 0, 0,    28,   0, 0, 0x04, 0x80,  // 1152 bytes of data
                    0,   0,   0,   3,   0, 0, 0x7D, 0x00, 0, 0, 0,    1,    0, 0, 0, 0};
  const Bytes voc = cat({text("Creative Voice File", 19),
                         {0x1A, 26,   0, 0x14, 0x01, 0x1F, 0x11, 9, 0x0C, 0x09, 0x00,  // 42 + 2304 - 30 = 2316
                          0x22, 0x56, 0, 0,                                            // 22050
                          16,   2,    4, 0,    0,    0,    0,    0}});
  struct Case {
    const char* name;
    int32_t format, channels, blocks, id, sampling_index;
    Bytes header, samples_start, trailer;  // samples from the block: 0x0102, 0x0103, ...
  };
  const Case cases[] = {
      {"mono WAVE, 44100 Hz", session::EXT_WAV, 1, 2, 1, 0, wave, {0x02, 0x01}, wave_trailer},
      {"stereo AIFF, 48000 Hz", session::EXT_AIF, 2, 2, 1, 1, aiff, {0x01, 0x02, 0x01, 0x03}, {}},
      {"mono AU, 32000 Hz", session::EXT_AU, 1, 1, 1, 2, au, {0x01, 0x02}, {}},
      {"stereo VOC, MPEG-2 22050 Hz", session::EXT_VOC, 2, 1, 0, 0, voc, {0x02, 0x01}, {0}},
      {"raw", session::EXT_RAW, 2, 3, 1, 0, {}, {0x02, 0x01}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriterRun w;
    w.run(c.format, c.channels, c.blocks, c.id, c.sampling_index);
    const size_t h = c.header.size(), samples = size_t(c.blocks * c.channels) * 1152;
    ASSERT_EQ(w.file.size(), h + samples + c.trailer.size());
    EXPECT_EQ(slice(w.file, 0, h), c.header);
    EXPECT_EQ(slice(w.file, h, c.samples_start.size()), c.samples_start);
    EXPECT_EQ(slice(w.file, h + samples, c.trailer.size()), c.trailer);
    // A partial block (the end of a Layer I stream): its frames only, in the same byte order.
    WriterRun part;
    part.run(c.format, c.channels, 1, c.id, c.sampling_index, 100);
    const size_t tail = size_t(100 * c.channels) * 2;
    ASSERT_EQ(part.file.size(), h + samples / size_t(c.blocks) + tail + c.trailer.size());
    EXPECT_EQ(slice(part.file, h + samples / size_t(c.blocks) + tail - 2, 2), slice(w.file, h + tail - 2, 2));
  }
}

TEST(Writers, FullDeviceRaisesTheWriteFailureAndTheJobGoesOn) {
  if (test::run("test -w /dev/full") != 0) GTEST_SKIP() << "no /dev/full";
  WriterRun w;
  // Enough blocks to overflow any stream buffer; every call returns.
  w.run(session::EXT_WAV, 2, 64, 1, 0, 0, "/dev/full");
  EXPECT_EQ(session::state.write_failed.load(), 1);
}

// Files from the file job, read back by sox and ffprobe: without a warning, with our rate, channels
// and length (VOC keeps no length: soxi reports none), and the samples of the raw job.
TEST(Writers, FileJobOutputIsReadableBySoxAndFfprobe) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("ffprobe");
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
    const std::string rate = std::to_string(c.rate), channels = std::to_string(c.channels);
    const std::string frames = std::to_string(samples.size() / size_t(c.channels));
    for (const std::string ext : {"wav", "au", "voc", "aif"}) {
      SCOPED_TRACE(ext);
      const std::string out = tmp.file("out." + ext);
      ASSERT_EQ(test::run(test::cli_path() + " decode '" + mp2 + "' '" + out + "' 2>/dev/null"), 0);
      EXPECT_EQ(test::run_output("for o in r c s; do soxi -$o '" + out + "' 2>&1; done"),
                rate + "\n" + channels + "\n" + (ext == "voc" ? "0" : frames) + "\n");
      if (ext != "voc") {  // ffprobe estimates a VOC's length from its size, and says so
        EXPECT_EQ(test::run_output("ffprobe -v warning -show_entries stream=sample_rate,channels,duration_ts -of "
                                   "csv=p=0 '" +
                                   out + "' 2>&1"),
                  rate + "," + channels + "," + frames + "\n");
      }
      const std::string back = tmp.file("back.raw");
      ASSERT_EQ(test::run("sox -q '" + out + "' -t raw -e signed -b 16 -L '" + back + "' 2>/dev/null"), 0);
      EXPECT_EQ(test::read_pcm16(back), samples);
    }
  }
}

}  // namespace
