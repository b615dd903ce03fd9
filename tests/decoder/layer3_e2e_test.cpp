// Layer III end to end: streams made by lame at every sampling frequency, mode and a range of bit
// rates, decoded by tovra-cli and by mpg123, sample by sample; the conformance vectors against their
// reference output; damaged streams for robustness.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "layer3_support.h"
#include "support/support.h"

namespace {

std::string quote(const std::string& s) { return "'" + s + "'"; }

std::vector<int16_t> decode_ours(const std::string& in, const std::string& out) {
  int rc =
      test::run(quote(test::cli_path()) + " decode " + quote(in) + " " + quote(out) + " --format raw >/dev/null 2>&1");
  EXPECT_EQ(rc, 0) << in;
  return test::read_pcm16(out);
}

std::vector<int16_t> decode_mpg123(const std::string& in, const std::string& out) {
  test::run("mpg123 -q --no-gapless -s " + quote(in) + " > " + quote(out) + " 2>/dev/null");
  return test::read_pcm16(out);
}

// Pink noise with a sweep and clicks, at a level that keeps every sample below half scale.
std::string make_source(const test::TempDir& dir, int32_t rate) {
  std::string wav = dir.file("src" + std::to_string(rate) + ".wav");
  std::string cmd = "sox -R -q -n -r " + std::to_string(rate) + " -c 2 -b 16 " + quote(wav) +
                    " synth 2.5 pinknoise synth 2.5 sine 200-4000 vol 0.05";
  EXPECT_EQ(test::run(cmd), 0);
  return wav;
}

struct Case {
  int32_t rate;
  const char* options;
};

// Compares ours with mpg123 on one encoding; returns the comparison for further checks.
l3test::Comparison check_stream(const test::TempDir& dir, const std::string& mp3, const std::string& what) {
  int32_t channels = 2;
  std::vector<l3test::GranuleNote> notes = l3test::analyse_stream(mp3, &channels);
  std::vector<int16_t> ours = decode_ours(mp3, dir.file("ours.raw"));
  std::vector<int16_t> ref = decode_mpg123(mp3, dir.file("ref.raw"));
  EXPECT_EQ(ours.size(), ref.size()) << what;
  EXPECT_EQ(ours.size(), notes.size() * 576 * size_t(channels)) << what;
  l3test::Comparison c = l3test::compare_pcm(ours, ref, channels, notes);
  EXPECT_EQ(c.over, 0u) << what << ": worst " << c.worst << " at sample " << c.worst_at;
  // Joint stereo streams lower active_subbands often, and the rows it leaves behind make many of
  // their granules differ slightly; a quarter of the stream must still be compared.
  EXPECT_GT(3 * c.compared, c.excused) << what << ": " << c.excused << " of " << c.excused + c.compared << " excused";
  return c;
}

TEST(Layer3EndToEnd, LameMatrixMatchesMpg123) {
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("mpg123");
  REQUIRE_TOOL("sox");
  test::TempDir dir;
  const Case cases[] = {
      {44100, "-m j -b 128"},    {44100, "-m s -b 320 -p"}, {44100, "-m m -b 32"},     {44100, "-m j -V 2"},
      {48000, "-m s -b 192"},    {48000, "-m j -b 64 -p"},  {48000, "-m m -b 56"},     {32000, "-m j -b 96"},
      {32000, "-m s -b 256 -p"}, {32000, "-m d -b 112"},    {22050, "-m j -b 64"},     {22050, "-m m -b 8 -p"},
      {22050, "-m s -V 4"},      {24000, "-m j -b 160 -p"}, {24000, "-m s -b 40"},     {16000, "-m j -b 32"},
      {16000, "-m m -b 24"},     {16000, "-m s -b 128 -p"}, {44100, "-m d -b 224 -p"}, {48000, "-m j -V 0 -p"},
  };
  std::string last_rate_wav;
  int32_t last_rate = 0;
  for (const Case& k : cases) {
    if (k.rate != last_rate) {
      last_rate_wav = make_source(dir, k.rate);
      last_rate = k.rate;
    }
    std::string mp3 = dir.file("t.mp3");
    std::string cmd = "lame --quiet -t " + std::string(k.options) + " --resample " +
                      std::to_string(k.rate / 1000.0).substr(0, 5) + " " + quote(last_rate_wav) + " " + quote(mp3);
    ASSERT_EQ(test::run(cmd), 0) << cmd;
    check_stream(dir, mp3, std::to_string(k.rate) + " " + k.options);
  }
}

// Sharp clicks make the encoder switch to short blocks; the side information must show them.
TEST(Layer3EndToEnd, ShortBlocksMatchMpg123) {
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("mpg123");
  REQUIRE_TOOL("sox");
  test::TempDir dir;
  for (int32_t rate : {44100, 22050}) {
    std::string wav = dir.file("clicks.wav");
    std::string cmd = "sox -R -q -n -r " + std::to_string(rate) + " -c 2 -b 16 " + quote(wav) +
                      " synth 0.004 square 50 vol 0.4 pad 0 0.3 repeat 8 : synth 1 pinknoise vol 0.01";
    ASSERT_EQ(test::run(cmd), 0);
    std::string mp3 = dir.file("clicks.mp3");
    ASSERT_EQ(test::run("lame --quiet -t -b 128 " + quote(wav) + " " + quote(mp3)), 0);
    std::vector<l3test::GranuleNote> notes = l3test::analyse_stream(mp3);
    size_t short_granules = 0;
    for (const auto& n : notes) short_granules += n.short_block;
    EXPECT_GE(short_granules, 8u) << rate;
    check_stream(dir, mp3, "clicks " + std::to_string(rate));
  }
}

// The conformance streams against the reference decoder's output. The references may lack the
// stream's last frame: the overlap is compared, aligned at the first sample.
TEST(Layer3EndToEnd, ConformanceVectors) {
  std::string vectors = test::vectors_dir();
  if (vectors.empty()) GTEST_SKIP() << "no vectors";
  test::TempDir dir;
  int32_t found = 0;
  for (const char* name : {"l3-compl", "l3-he_44khz", "l3-si_huff", "M2L3_bitrate_22_all"}) {
    std::string bit = vectors + "/" + name + ".bit";
    std::vector<int16_t> ref = test::read_pcm16(vectors + "/" + name + ".pcm");
    if (ref.empty()) continue;
    ++found;
    int32_t channels = 1;
    std::vector<l3test::GranuleNote> notes = l3test::analyse_stream(bit, &channels);
    std::vector<int16_t> ours = decode_ours(bit, dir.file("ours.raw"));
    EXPECT_GE(ours.size(), ref.size()) << name;
    EXPECT_LE(ours.size(), ref.size() + 1152 * size_t(channels)) << name;
    l3test::Comparison c = l3test::compare_pcm(ours, ref, channels, notes);
    EXPECT_EQ(c.over, 0u) << name << ": worst " << c.worst << " at " << c.worst_at;
    EXPECT_EQ(c.excused, 0u) << name;
  }
  if (!found) GTEST_SKIP() << "no Layer III vectors";
}

// Damaged and unusual streams: decoded or refused, never a crash or a hang (the sanitizer build runs
// this too). The CLI's exit code is not looked at: refusing is fine.
TEST(Layer3EndToEnd, NonstandardStreamsDoNotCrash) {
  std::string vectors = test::vectors_dir();
  if (vectors.empty()) GTEST_SKIP() << "no vectors";
  test::TempDir dir;
  std::string list = test::run_output("ls " + quote(vectors) + " | grep '^l3-nonstandard-.*\\.bit$'");
  size_t start = 0;
  int32_t count = 0;
  while (start < list.size()) {
    size_t end = list.find('\n', start);
    if (end == std::string::npos) end = list.size();
    std::string name = list.substr(start, end - start);
    start = end + 1;
    if (name.empty()) continue;
    ++count;
    std::string in = vectors + "/" + name;
    // timeout guards against a hang; a signal (crash) gives a status above 128.
    int rc = test::run("timeout 60 " + quote(test::cli_path()) + " decode " + quote(in) + " " +
                       quote(dir.file("out.raw")) + " --format raw >/dev/null 2>&1");
    EXPECT_LT(rc, 124) << name;
    // In-process too, where the sanitizers see every read.
    l3test::analyse_stream(in);
  }
  if (!count) GTEST_SKIP() << "no nonstandard streams";
}

}  // namespace
