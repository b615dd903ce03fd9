// tovra-cli tag end to end: Japanese text lands in the file as code page 932, the audio before the
// tag never changes, and what cannot be tagged is refused with the file left alone.
#include <gtest/gtest.h>

#include "support/support.h"

namespace {

std::string cli() { return test::cli_path(); }

std::vector<uint8_t> tail(const std::vector<uint8_t>& b) { return std::vector<uint8_t>(b.end() - 128, b.end()); }

TEST(TagCli, RoundTripsOnLayerTwoAndThreeWithoutTouchingTheAudio) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("twolame");
  test::TempDir dir;
  const std::string wav = dir.file("in.wav");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 0.5 sine 440"), 0);
  ASSERT_EQ(test::run("lame --quiet -b 128 " + wav + " " + dir.file("a.mp3")), 0);
  ASSERT_EQ(test::run("twolame --quiet -b 192 " + wav + " " + dir.file("a.mp2")), 0);
  for (const char* name : {"a.mp3", "a.mp2"}) {
    SCOPED_TRACE(name);
    const std::string path = dir.file(name);
    const std::vector<uint8_t> original = test::read_file(path);
    ASSERT_EQ(test::run(cli() + " decode " + path + " " + dir.file("before.wav") + " 2>/dev/null"), 0);

    // A file without a tag gains 128 bytes: v1.1 with Japanese text and a genre of the extension.
    ASSERT_EQ(test::run(cli() + " tag " + path +
                        " --title 夜明け --artist 'ＡＢ～' --year 98 --comment 長い --track 7 --genre 'J-POP(J)'"),
              0);
    std::vector<uint8_t> b = test::read_file(path);
    ASSERT_EQ(b.size(), original.size() + 128);
    EXPECT_TRUE(std::equal(original.begin(), original.end(), b.begin()));
    std::vector<uint8_t> want(128, 0);
    const uint8_t title[] = {0x96, 0xE9, 0x96, 0xBE, 0x82, 0xAF}, artist[] = {0x82, 0x60, 0x82, 0x61, 0x81, 0x60},
                  comment[] = {0x92, 0xB7, 0x82, 0xA2};
    std::copy_n("TAG", 3, want.begin());
    std::copy_n(title, 6, want.begin() + 3);
    std::copy_n(artist, 6, want.begin() + 33);
    std::copy_n("98", 2, want.begin() + 93);
    std::copy_n(comment, 4, want.begin() + 97);
    want[126] = 7;
    want[127] = 250;
    EXPECT_EQ(tail(b), want);
    const std::string shown = test::run_output(cli() + " tag " + path);
    EXPECT_NE(shown.find("title: 夜明け\nartist: ＡＢ～\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("track: 7\ngenre: J-POP(J) (250)"), std::string::npos) << shown;

    // Rewritten as v1 over the old tag: same length, blank padding, the kept fields stay.
    ASSERT_EQ(test::run(cli() + " tag " + path + " --track 0 --genre Rock"), 0);
    b = test::read_file(path);
    ASSERT_EQ(b.size(), original.size() + 128);
    EXPECT_TRUE(std::equal(b.end() - 125, b.end() - 119, title));
    EXPECT_EQ(b[b.size() - 128 + 95], ' ');
    EXPECT_EQ(b[b.size() - 3], ' ');
    EXPECT_EQ(b.back(), 17);
    ASSERT_EQ(test::run(cli() + " decode " + path + " " + dir.file("after.wav") + " 2>/dev/null"), 0);
    EXPECT_EQ(test::read_file(dir.file("before.wav")), test::read_file(dir.file("after.wav")));

    ASSERT_EQ(test::run(cli() + " tag " + path + " --delete"), 0);
    EXPECT_EQ(test::read_file(path), original);
  }

  // Another reader agrees on what a v1.1 tag holds.
  if (test::have_tool("ffprobe")) {
    const std::string path = dir.file("a.mp2");
    ASSERT_EQ(test::run(cli() + " tag " + path + " --title Dawn --artist Someone --track 3 --genre Anime"), 0);
    const std::string tags = test::run_output("ffprobe -v error -show_entries format_tags -of default=nw=1 " + path);
    EXPECT_NE(tags.find("TAG:title=Dawn\nTAG:artist=Someone\n"), std::string::npos) << tags;
    EXPECT_NE(tags.find("TAG:track=3\nTAG:genre=Anime"), std::string::npos) << tags;
  }
}

TEST(TagCli, RefusesWhatItCannotTagAndLeavesTheFileAlone) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("ffmpeg");
  test::TempDir dir;
  const std::string mp3 = dir.file("a.mp3"), wav = dir.file("w.wav");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 1 -b 16 " + dir.file("in.wav") + " synth 0.3 sine 440"), 0);
  ASSERT_EQ(test::run("lame --quiet -b 64 " + dir.file("in.wav") + " " + mp3), 0);
  ASSERT_EQ(test::run("ffmpeg -v error -i " + mp3 + " -c:a copy " + wav), 0);
  const std::vector<uint8_t> mp3_bytes = test::read_file(mp3), wav_bytes = test::read_file(wav);

  std::string err = test::run_output(cli() + " tag " + wav + " --title x 2>&1");
  EXPECT_NE(err.find("RIFF"), std::string::npos) << err;
  EXPECT_EQ(test::run(cli() + " tag " + wav + " --title x 2>/dev/null"), 1);
  EXPECT_NE(test::run_output(cli() + " tag " + wav).find("(+ Wave Header)"), std::string::npos);
  EXPECT_EQ(test::read_file(wav), wav_bytes);

  err = test::run_output(cli() + " tag " + mp3 + " --artist 한 2>&1");
  EXPECT_NE(err.find("'한', which code page 932 cannot hold"), std::string::npos) << err;
  EXPECT_EQ(test::run(cli() + " tag " + mp3 + " --artist 한 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " tag " + mp3 + " --genre Polka2 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " tag " + mp3 + " --delete 2>/dev/null"), 1);
  EXPECT_EQ(test::run(cli() + " tag " + dir.file("in.wav") + " --title x 2>/dev/null"), 1);
  EXPECT_EQ(test::run(cli() + " tag " + dir.file("missing.mp3") + " --title x 2>/dev/null"), 1);
  EXPECT_EQ(test::read_file(mp3), mp3_bytes);
  EXPECT_EQ(test::run(cli() + " tag --help | grep -q 'code page 932'"), 0);
}

}  // namespace
