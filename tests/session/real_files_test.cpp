// Files as encoders and taggers write them, end to end through open_stream and `tovra-cli`: tags
// before and behind the audio, Xing/Info/VBRI frames with the length and seeking they give, gapless
// trimming, free format (alone and mixed with fixed-rate frames), MPEG-2 Layer II and MPEG 2.5.
// Fixtures are made at test time with sox, lame, twolame, ffmpeg and compared with mpg123.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "session/seek.h"
#include "session/session.h"
#include "session/stream.h"
#include "support/support.h"

namespace {

using test::Bytes;
using test::cat;
using test::le32;
using test::str;

std::vector<int16_t> pcm(const Bytes& b) {
  std::vector<int16_t> out(b.size() / 2);
  std::memcpy(out.data(), b.data(), out.size() * 2);
  return out;
}
Bytes be(uint32_t v, int n) {
  Bytes b;
  for (int i = n - 1; i >= 0; --i) b.push_back(uint8_t(v >> (8 * i)));
  return b;
}

class RealFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"sox", "lame", "mpg123"})
      if (!test::have_tool(tool)) GTEST_SKIP() << tool << " is not installed";
  }
  void TearDown() override {
    if (session::reader.file) std::fclose(session::reader.file);
    session::reader.file = nullptr;
  }
  std::string path(const std::string& name) const { return dir_.file(name); }
  void sh(const std::string& command) { ASSERT_EQ(test::run(command), 0) << command; }
  // tovra-cli decode to raw PCM; the bytes (empty on failure).
  Bytes decode(const std::string& in, const std::string& flags = "") {
    const std::string out = path("out.raw");
    std::remove(out.c_str());
    if (test::run(test::cli_path() + " decode " + in + " " + out + " --format raw " + flags + " 2>&1") != 0) return {};
    return test::read_file(out);
  }
  // Sample frames of mpg123's decode (16-bit, channels as in the stream).
  long mpg123_frames(const std::string& in, int channels, const std::string& flags = "") {
    const std::string out = path("mpg123.raw");
    test::run("mpg123 -q " + flags + " -s " + in + " > " + out + " 2>/dev/null");
    return long(test::read_file(out).size()) / (2 * channels);
  }
  std::string info(const std::string& args) { return test::run_output(test::cli_path() + " info " + args + " 2>&1"); }
  // open_stream on a file as a session does it; the file stays open for seeking.
  void open(const std::string& file) {
    if (session::reader.file) std::fclose(session::reader.file);
    session::reader.file = std::fopen(file.c_str(), "rb");
    ASSERT_NE(session::reader.file, nullptr);
    session::reset_decoding();
    ASSERT_EQ(session::open_stream(), session::STREAM_OK);
  }
  test::TempDir dir_;
};

#define EXPECT_HAS(text, line) EXPECT_NE((text).find(line), std::string::npos) << (line) << " missing in\n" << (text)

// An APE tag (header, an item whose value holds frame-sync bytes, footer), a Lyrics3 v2 tag and an
// ID3v1 tag, as taggers append them.
Bytes tail_tags() {
  const Bytes value = {0xFF, 0xFB, 0x90, 0x44, 0xFF, 0xFB, 0x90, 0x44, 'x'};
  const Bytes item = cat({le32(uint32_t(value.size())), le32(0), str("Cover"), {0}, value});
  auto ape_head = [&](uint32_t flags) {
    return cat({str("APETAGEX"), le32(2000), le32(uint32_t(item.size() + 32)), le32(1), le32(flags), Bytes(8, 0)});
  };
  const Bytes ape = cat({ape_head(0xA0000000u), item, ape_head(0x80000000u)});
  const Bytes lyrics_body = cat({str("LYRICSBEGIN"), str("IND00003"), str("110"), {0xFF, 0xFB, 0x90, 0x44}});
  char size[7];
  std::snprintf(size, sizeof size, "%06zu", lyrics_body.size());
  Bytes id3v1(128, 0);
  std::memcpy(id3v1.data(), "TAGTail title", 13);
  return cat({ape, lyrics_body, str(size), str("LYRICS200"), id3v1});
}

TEST_F(RealFiles, TaggedFilesDecodeLikeTheirUntaggedTwins) {
  sh("sox -q -n -r 44100 -c 2 -b 16 " + path("in.wav") + " synth 2 sine 440 sine 660 vol 0.5");
  sh("lame --quiet -b 128 " + path("in.wav") + " " + path("plain.mp3"));
  const Bytes twin = decode(path("plain.mp3"));
  ASSERT_GT(twin.size(), 300000u);
  // A 200 KB picture that starts like a JPEG and is full of bytes that look like frame headers.
  Bytes picture(200000);
  for (size_t i = 0; i < picture.size(); ++i) picture[i] = i % 7 < 2 ? 0xFF : uint8_t(0xF0 + i % 11);
  std::memcpy(picture.data(), "\xFF\xD8\xFF\xE0", 4);
  test::write_file(path("pic.jpg"), picture);

  struct Tagged {
    std::string name, lame_flags, title;
  };
  const Tagged cases[] = {
      {"latin1.mp3", "--add-id3v2 --tt Caf\xC3\xA9 --ta Someone --tl Somewhere", "Caf\xC3\xA9"},
      {"utf16.mp3", "--id3v2-only --id3v2-utf16 --tt \xCE\xA9mega --ti " + path("pic.jpg"), "\xCE\xA9mega"},
  };
  for (const Tagged& c : cases) {
    SCOPED_TRACE(c.name);
    sh("lame --quiet -b 128 " + c.lame_flags + " " + path("in.wav") + " " + path(c.name));
    EXPECT_EQ(decode(path(c.name)), twin);
    EXPECT_HAS(info(path(c.name)), "title: " + c.title + "\n");
  }
  EXPECT_HAS(info(path("latin1.mp3")), "artist: Someone\nalbum: Somewhere\n");

  // Tags behind the audio add no frames.
  test::write_file(path("tail.mp3"), cat({test::read_file(path("plain.mp3")), tail_tags()}));
  EXPECT_EQ(decode(path("tail.mp3")), twin);

  // ffmpeg writes ID3v2.4 with UTF-8 texts.
  if (test::have_tool("ffmpeg")) {
    const std::string ff = "ffmpeg -v error -y -i " + path("in.wav") + " -c:a libmp3lame -b:a 128k ";
    sh(ff + "-id3v2_version 0 " + path("ff_plain.mp3"));
    sh(ff + "-metadata title=\"FF \xE2\x99\xAA\" -metadata album=Disc " + path("ff_tagged.mp3"));
    EXPECT_EQ(decode(path("ff_tagged.mp3")), decode(path("ff_plain.mp3")));
    EXPECT_HAS(info(path("ff_tagged.mp3")), "title: FF \xE2\x99\xAA\n");
  }
}

TEST_F(RealFiles, GaplessDecodeGivesBackTheEncodedLength) {
  sh("sox -q -n -r 44100 -c 2 -b 16 " + path("in.wav") + " synth 3.0007 sine 440 vol 0.5");
  const long length = std::atol(test::run_output("soxi -s " + path("in.wav")).c_str());
  ASSERT_GT(length, 132000);
  sh("lame --quiet -V 2 " + path("in.wav") + " " + path("v2.mp3"));
  EXPECT_EQ(long(decode(path("v2.mp3")).size()) / 4, length);
  EXPECT_NEAR(mpg123_frames(path("v2.mp3"), 2), length, 2);
  EXPECT_EQ(long(decode(path("v2.mp3"), "--no-gapless").size()) / 4, mpg123_frames(path("v2.mp3"), 2, "--no-gapless"));
}

// A VBRI frame in front of a stream without a header frame, as Fraunhofer's encoder writes it: a
// 320 kbit/s frame (room for the table) with VBRI 32 bytes behind its header, and a table of 100
// entries of the bytes each hundredth of the frames takes.
Bytes with_vbri(const Bytes& stream, const std::vector<int32_t>& offsets, int32_t data_end) {
  const int32_t frames = int32_t(offsets.size());
  const int32_t per_entry = (frames + 99) / 100;
  Bytes table;
  int32_t entries = 0;
  for (int32_t f = 0; f < frames; f += per_entry, ++entries) {
    const int32_t end = f + per_entry < frames ? offsets[size_t(f + per_entry)] : data_end;
    table = cat({table, be(uint32_t(end - offsets[size_t(f)]), 4)});
  }
  Bytes frame(1044, 0);
  const Bytes head = {0xFF, 0xFB, uint8_t(0xE0 | (stream[2] & 0x0C)), stream[3]};
  const Bytes vbri =
      cat({str("VBRI"), be(1, 2), be(0, 2), be(75, 2), be(uint32_t(data_end - offsets[0]), 4), be(uint32_t(frames), 4),
           be(uint32_t(entries), 2), be(1, 2), be(4, 2), be(uint32_t(per_entry), 2), table});
  std::copy(head.begin(), head.end(), frame.begin());
  std::copy(vbri.begin(), vbri.end(), frame.begin() + 36);
  return cat({frame, stream});
}

TEST_F(RealFiles, VbrLengthAndSeekingByPercent) {
  // Quiet, then loud: the frames of the second half are several times those of the first, so a
  // jump by the average frame size would land far from the middle.
  sh("sox -q -n -r 44100 -c 2 -b 16 " + path("a.wav") + " synth 6 sine 300 vol 0.01");
  sh("sox -R -q -n -r 44100 -c 2 -b 16 " + path("b.wav") + " synth 6 whitenoise vol 0.5");
  sh("sox -q " + path("a.wav") + " " + path("b.wav") + " " + path("in.wav"));
  sh("lame --quiet -V 2 " + path("in.wav") + " " + path("xing.mp3"));
  sh("lame --quiet -V 2 -t " + path("in.wav") + " " + path("bare.mp3"));
  open(path("bare.mp3"));
  session::FrameWalk walk;
  std::vector<int32_t> offsets;
  session::walk_frames(session::stream.data_start, session::stream.data_end, 0, walk, &offsets);
  test::write_file(path("vbri.mp3"), with_vbri(test::read_file(path("bare.mp3")), offsets, session::stream.data_end));

  struct Case {
    const char* name;
    int32_t kind;
  };
  for (const Case& c : {Case{"xing.mp3", session::VBR_XING}, Case{"bare.mp3", session::VBR_NONE},
                        Case{"vbri.mp3", session::VBR_VBRI}}) {
    SCOPED_TRACE(c.name);
    const long decoded = long(decode(path(c.name)).size()) / 4;
    open(path(c.name));
    const session::StreamInfo& s = session::stream;
    EXPECT_EQ(s.vbr_kind, c.kind);
    EXPECT_NEAR(double(s.total_samples), double(decoded), 1152);
    EXPECT_EQ(s.play_seconds, int32_t(decoded / 44100));

    // The jump to the middle frame: reading resumes behind it, within 1% of the frames.
    offsets.clear();
    walk = {};
    session::walk_frames(s.data_start, s.data_end, 0, walk, &offsets);
    EXPECT_EQ(walk.frames, s.frame_count);
    session::FrameHeader header{};
    session::state.seek_target.store(s.frame_count / 2);
    session::seek_to_frame(header);
    const long at = std::ftell(session::reader.file) - 4;
    const auto found = std::lower_bound(offsets.begin(), offsets.end(), int32_t(at));
    ASSERT_NE(found, offsets.end());
    EXPECT_NEAR(double(found - offsets.begin()), s.frame_count / 2 + 1, s.frame_count / 100.0);
  }
  // info --frames counts what it walks.
  const std::string text = info("--frames " + path("bare.mp3"));
  EXPECT_HAS(text, "frames: " + std::to_string(walk.frames) + "\ndamaged: 0\n");
  EXPECT_HAS(info(path("xing.mp3")), "play_seconds: 12.00\n");
}

TEST_F(RealFiles, FreeFormatMixedAndLowRateStreams) {
  sh("sox -q -n -r 44100 -c 2 -b 16 " + path("in.wav") + " synth 2 sine 440 sine 660 vol 0.5");
  // Layer III free format, alone and between fixed-rate frames: every frame mpg123 decodes.
  sh("lame --quiet -t --freeformat -b 320 " + path("in.wav") + " " + path("free.mp3"));
  sh("lame --quiet -t -b 128 " + path("in.wav") + " " + path("fixed.mp3"));
  const Bytes free3 = test::read_file(path("free.mp3")), fixed3 = test::read_file(path("fixed.mp3"));
  test::write_file(path("mixed.mp3"), cat({fixed3, free3, fixed3, free3}));
  for (const char* name : {"free.mp3", "mixed.mp3"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(long(decode(path(name)).size()) / 4, mpg123_frames(path(name), 2));
  }
  // A second free-format run of another rate is measured anew (mpg123 stops there).
  sh("lame --quiet -t --freeformat -b 256 " + path("in.wav") + " " + path("free256.mp3"));
  test::write_file(path("two_rates.mp3"), cat({free3, test::read_file(path("free256.mp3"))}));
  EXPECT_EQ(decode(path("two_rates.mp3")).size(), decode(path("free.mp3")).size() + decode(path("free256.mp3")).size());
  EXPECT_HAS(info(path("free.mp3")), "bitrate: free format, 320 kbit/s\n");

  if (test::have_tool("twolame")) {
    // Layer II free format decodes as its fixed-rate twin (the same bits but for the padding); mpg123
    // is no reference here, it picks another allocation table for free format.
    sh("twolame --quiet -m s --freeformat -b 320 " + path("in.wav") + " " + path("free.mp2"));
    sh("twolame --quiet -m s -b 320 " + path("in.wav") + " " + path("fixed.mp2"));
    const std::vector<int16_t> free2 = pcm(decode(path("free.mp2"))), fixed2 = pcm(decode(path("fixed.mp2")));
    ASSERT_EQ(free2.size(), fixed2.size());
    EXPECT_LE(test::max_abs_diff(free2, fixed2), 2);

    // MPEG-2 Layer II frames are read whole at every rate.
    for (const char* rate : {"16000", "22050", "24000"}) {
      SCOPED_TRACE(rate);
      sh(std::string("sox -q -n -r ") + rate + " -c 2 -b 16 " + path("low.wav") + " synth 1 sine 440 vol 0.5");
      sh("twolame --quiet -m s -b 96 " + path("low.wav") + " " + path("low.mp2"));
      const std::vector<int16_t> x = pcm(decode(path("low.mp2")));
      sh("mpg123 -q -s " + path("low.mp2") + " > " + path("low.raw") + " 2>/dev/null");
      const std::vector<int16_t> y = test::read_pcm16(path("low.raw"));
      EXPECT_EQ(x.size(), y.size());
      EXPECT_LE(test::max_abs_diff(x, y), 2);
    }
  }

  // MPEG 2.5, the lowest rates of lame.
  sh("sox -q -n -r 8000 -c 1 -b 16 " + path("m8.wav") + " synth 2 sine 440 vol 0.5");
  sh("lame --quiet -b 8 " + path("m8.wav") + " " + path("m25.mp3"));
  EXPECT_HAS(info(path("m25.mp3")), "format: MPEG-2.5 Layer 3\n");
  EXPECT_HAS(info(path("m25.mp3")), "sample_rate: 8000 Hz\n");
  EXPECT_EQ(long(decode(path("m25.mp3"), "--no-gapless").size()) / 2,
            mpg123_frames(path("m25.mp3"), 1, "--no-gapless"));
}

TEST_F(RealFiles, TaggedAndHeaderFrameVectorsDecodeCleanly) {
  const std::string vectors = test::vectors_dir();
  if (vectors.empty()) GTEST_SKIP() << "no vectors";
  for (const char* name : {"id3v1", "id3v1-apetag", "id3v2", "apetag", "vbrtag-corrupted", "vbrtag-empty",
                           "vbrtag-noframes", "vbrtag-only", "vbrtag-oob-read", "sin1k0db_lame_vbrtag"}) {
    SCOPED_TRACE(name);
    const std::string in = vectors + "/l3-nonstandard-" + name + ".bit", out = path("out.wav");
    std::remove(out.c_str());
    // A header frame with no audio frame behind it is a stream without audio: an error, no file.
    if (test::run(test::cli_path() + " decode " + in + " " + out + " 2>/dev/null") != 0) {
      EXPECT_NE(test::run("test -e " + out), 0) << "a job without audio left a file";
      continue;
    }
    // Otherwise a WAVE file of one or two channels.
    const Bytes wave = test::read_file(out);
    ASSERT_GE(wave.size(), 44u);
    EXPECT_TRUE(wave[22] == 1 || wave[22] == 2);
  }
  // A file of nothing but an ID3v2 tag holds no MPEG audio.
  EXPECT_NE(test::run(test::cli_path() + " decode " + vectors + "/l3-nonstandard-id3v2-only.bit " + path("x.wav") +
                      " 2>/dev/null"),
            0);
}

}  // namespace
