// Layer III end to end, against mpg123 sample by sample over whole files: what lame and ffmpeg make
// at every rate and mode, streams whose mode changes between frames, a stream of mixed blocks; the
// conformance vectors against their reference output; damaged streams for robustness.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "decoder/layer3_tables.h"
#include "layer3_support.h"
#include "support/support.h"

namespace {

std::string quote(const std::string& s) { return "'" + s + "'"; }

std::vector<int16_t> decode_ours(const std::string& in, const std::string& out) {
  test::run(quote(test::cli_path()) + " decode " + quote(in) + " " + quote(out) + " --format raw >/dev/null 2>&1");
  return test::read_pcm16(out);
}

std::vector<int16_t> decode_mpg123(const std::string& in, const std::string& out, const std::string& options = "") {
  test::run("mpg123 -q --no-gapless " + options + " -s " + quote(in) + " > " + quote(out) + " 2>/dev/null");
  return test::read_pcm16(out);
}

// The whole file within 2 of mpg123 and mostly within 1 (mpg123 rounds where we truncate), at the
// same length. Returns false when we decoded nothing.
bool matches_mpg123(const test::TempDir& dir, const std::string& mp3, const std::string& what,
                    const std::string& mpg123_options = "") {
  std::vector<int16_t> ours = decode_ours(mp3, dir.file("ours.raw"));
  std::vector<int16_t> ref = decode_mpg123(mp3, dir.file("ref.raw"), mpg123_options);
  if (ours.empty()) return false;
  EXPECT_EQ(ours.size(), ref.size()) << what;
  l3test::PcmDiff c = l3test::compare_pcm(ours, ref);
  EXPECT_LE(c.worst, 2) << what << ": at sample " << c.worst_at;
  EXPECT_GE(c.within_one, 0.95) << what;
  return true;
}

// 20 s: two tones (one per channel), a sweep, pink noise, sharp clicks that make the encoders switch
// to short blocks.
void make_source(const std::string& wav, int32_t rate) {
  const std::string top = std::to_string(rate * 45 / 100);
  ASSERT_EQ(test::run("sox -R -q -n -r " + std::to_string(rate) + " -c 2 -b 16 " + quote(wav) +
                      " synth 5 sine 440 sine 1500 vol 0.3 : synth 5 sine 20-" + top +
                      " vol 0.5 : synth 5 pinknoise vol 0.4 : synth 0.004 square 50 vol 0.7 pad 0 0.2 repeat 24"),
            0);
}

// lame without its tag frame (-t), so that both decoders see the same frames; --resample keeps the
// source's rate where a bit rate would make lame pick another.
std::string lame(const std::string& options, int32_t rate, const std::string& wav, const std::string& mp3) {
  return "lame --quiet -t " + options + " --resample " + std::to_string(rate / 1000.0).substr(0, 6) + " " + quote(wav) +
         " " + quote(mp3);
}

// CBR and VBR, stereo, joint, dual and mono, with and without CRC, at each of the six rates; and
// ffmpeg's encoder at each rate where it is present.
TEST(Layer3EndToEnd, EncoderMatrixMatchesMpg123) {
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("mpg123");
  REQUIRE_TOOL("sox");
  const bool ffmpeg = test::run("ffmpeg -hide_banner -encoders 2>/dev/null | grep -q libmp3lame") == 0;
  test::TempDir dir;
  struct Case {
    int32_t rate;
    const char* options[3];
  };
  const Case cases[] = {
      {44100, {"-m s -b 320", "-m j -V 2", "-m m -b 64 -p"}},  {48000, {"-m j -b 192 -p", "-m s -V 0", "-m m -b 96"}},
      {32000, {"-m j -b 128", "-m d -b 160", "-m m -V 4 -p"}}, {22050, {"-m j -b 64", "-m s -V 2 -p", "-m m -b 32"}},
      {24000, {"-m s -b 96 -p", "-m j -V 5", "-m m -b 48"}},   {16000, {"-m j -b 48 -p", "-m s -b 64", "-m m -V 3"}},
  };
  const std::string wav = dir.file("src.wav"), mp3 = dir.file("t.mp3");
  for (const Case& k : cases) {
    make_source(wav, k.rate);
    for (const char* options : k.options) {
      const std::string what = std::to_string(k.rate) + " lame " + options;
      ASSERT_EQ(test::run(lame(options, k.rate, wav, mp3)), 0) << what;
      EXPECT_TRUE(matches_mpg123(dir, mp3, what)) << what;
    }
    if (!ffmpeg) continue;
    const std::string what = std::to_string(k.rate) + " ffmpeg";
    ASSERT_EQ(test::run("ffmpeg -hide_banner -loglevel error -y -i " + quote(wav) +
                        " -c:a libmp3lame -q:a 3 -write_xing 0 " + quote(mp3)),
              0);
    EXPECT_TRUE(matches_mpg123(dir, mp3, what)) << what;
  }
}

// MPEG 2.5 at 8, 11.025 and 12 kHz, mono and stereo. Skipped while the stream reader refuses it.
TEST(Layer3EndToEnd, Mpeg25MatchesMpg123) {
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("mpg123");
  REQUIRE_TOOL("sox");
  test::TempDir dir;
  const std::string wav = dir.file("src.wav"), mp3 = dir.file("t.mp3");
  for (int32_t rate : {8000, 11025, 12000}) {
    make_source(wav, rate);
    for (const char* options : {"-m m -b 16", "-m j -V 4"}) {
      const std::string what = std::to_string(rate) + " " + options;
      ASSERT_EQ(test::run(lame(options, rate, wav, mp3)), 0) << what;
      if (!matches_mpg123(dir, mp3, what)) GTEST_SKIP() << "MPEG 2.5 streams are not read yet";
    }
  }
}

// Parts of different modes joined: the output keeps the first part's channel count (mpg123 told
// to do the same), mono parts playing in both channels, stereo parts mixed for a mono start.
TEST(Layer3EndToEnd, JoinedModesMatchMpg123) {
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("mpg123");
  REQUIRE_TOOL("sox");
  test::TempDir dir;
  const std::string wav = dir.file("src.wav");
  ASSERT_EQ(test::run("sox -R -q -n -r 44100 -c 2 -b 16 " + quote(wav) +
                      " synth 2 sine 300-3000 synth 2 pinknoise mix vol 0.4 : synth 0.004 square 50 vol 0.5 pad 0 0.2"),
            0);
  for (const char* mode : {"s", "j", "m", "d"})
    ASSERT_EQ(test::run(lame(std::string("-b 128 -m ") + mode, 44100, wav, dir.file(std::string(mode) + ".mp3"))), 0);
  auto join = [&](const std::string& modes) {
    std::string files;
    for (char m : modes) files += " " + quote(dir.file(std::string(1, m) + ".mp3"));
    test::run("cat" + files + " > " + quote(dir.file("joined.mp3")));
    return dir.file("joined.mp3");
  };
  EXPECT_TRUE(matches_mpg123(dir, join("sjmdjms"), "stereo first", "--stereo"));
  EXPECT_TRUE(matches_mpg123(dir, join("mjsdm"), "mono first", "--mono"));
}

// Huffman code of (x, y) in a pair table, with its sign bits.
void put_pair(BitWriter& w, int32_t table, int32_t x, int32_t y) {
  const uint32_t* list = decoder::huffman_lists[table];
  for (int32_t i = 0; i < decoder::huffman_list_size[table]; ++i) {
    const uint32_t word = list[i];
    if (int32_t((word >> 4) & 15) != std::abs(x) || int32_t(word & 15) != std::abs(y)) continue;
    const int32_t len = int32_t((word >> 8) & 31);
    w.put(word >> (32 - len), len);
    if (x) w.put(x < 0, 1);
    if (y) w.put(y < 0, 1);
    return;
  }
  FAIL() << "no code";
}

// A mono MPEG-1 stream at 44.1 kHz, 320 kbit/s, every frame self-contained, whose granules cycle
// through mixed, long and short blocks with random scale factors, sub-block gains and lines.
TEST(Layer3EndToEnd, MixedBlocksMatchMpg123) {
  REQUIRE_TOOL("mpg123");
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  std::mt19937 rng(7);
  auto rnd = [&](int32_t n) { return int32_t(rng() % uint32_t(n)); };
  const int32_t* sfb_long = decoder::sfb_long[3];
  BitWriter stream;
  for (int32_t frame = 0; frame < 60; ++frame) {
    BitWriter side, data;
    side.put(0, 9 + 5 + 4);  // main_data_begin, private bits, scfsi
    for (int32_t gr = 0; gr < 2; ++gr) {
      const int32_t kind = (frame * 2 + gr) % 5;  // 0, 1, 3 mixed, 2 long, 4 short
      const bool long_block = kind == 2, mixed = kind != 2 && kind != 4;
      const int32_t compress = 10;  // slen 2 and 3
      const size_t start = data.bit;
      // Scale factors: long bands 6 + 5 at slen1 and 5 + 5 at slen2; mixed: 8 long bands, then
      // short bands 3-5 at slen1 and 6-11 at slen2; short: bands 0-5 and 6-11.
      if (long_block) {
        for (int32_t b = 0; b < 21; ++b) data.put(uint32_t(rnd(b < 11 ? 4 : 8)), b < 11 ? 2 : 3);
      } else {
        for (int32_t b = 0; b < (mixed ? 8 : 0); ++b) data.put(uint32_t(rnd(4)), 2);
        for (int32_t b = mixed ? 3 : 0; b < 12; ++b)
          for (int32_t win = 0; win < 3; ++win) data.put(uint32_t(rnd(b < 6 ? 4 : 8)), b < 6 ? 2 : 3);
      }
      const int32_t big_values = 100 + rnd(60);
      const int32_t tables_used[3] = {13, 7, 15};
      const int32_t region0 = long_block ? sfb_long[7] + 1 : 36;
      const int32_t region1 = long_block ? sfb_long[14] + 1 : 576;
      for (int32_t line = 0; line < big_values * 2; line += 2) {
        const int32_t r = line < region0 ? 0 : line < region1 ? 1 : 2;
        const int32_t top = r == 1 ? 5 : 8;
        // Fewer large values higher up, as real spectra have.
        const int32_t scale = line < 100 ? top : 2;
        put_pair(data, tables_used[r], rnd(2 * scale + 1) - scale, rnd(2 * scale + 1) - scale);
      }
      const int32_t part2_3_length = int32_t(data.bit - start);
      side.put(uint32_t(part2_3_length), 12);
      side.put(uint32_t(big_values), 9);
      side.put(uint32_t(170 + rnd(12)), 8);  // global_gain
      side.put(compress, 4);
      side.put(!long_block, 1);  // window_switching
      if (long_block) {
        for (int32_t r = 0; r < 3; ++r) side.put(uint32_t(tables_used[r]), 5);
        side.put(7, 4);  // region0_count: bands 0-7
        side.put(6, 3);  // region1_count: bands 8-14
      } else {
        side.put(2, 2);
        side.put(mixed, 1);
        side.put(uint32_t(tables_used[0]), 5);
        side.put(uint32_t(tables_used[1]), 5);
        for (int32_t win = 0; win < 3; ++win) side.put(uint32_t(rnd(3)), 3);
      }
      side.put(0, 1);  // preflag
      side.put(uint32_t(rnd(2)), 1);
      side.put(0, 1);  // count1table_select
    }
    ASSERT_EQ(side.bit, 17u * 8);
    ASSERT_LE(data.bytes.size(), 1044u - 21);
    stream.put(0xFFFBE0C0, 32);  // MPEG-1 Layer III, no CRC, 320 kbit/s, 44.1 kHz, mono
    stream.bytes.insert(stream.bytes.end(), side.bytes.begin(), side.bytes.end());
    stream.bytes.insert(stream.bytes.end(), data.bytes.begin(), data.bytes.end());
    stream.bytes.resize(size_t(frame + 1) * 1044, 0);
    stream.bit = stream.bytes.size() * 8;
  }
  test::TempDir dir;
  test::write_file(dir.file("mixed.mp3"), stream.bytes);
  EXPECT_TRUE(matches_mpg123(dir, dir.file("mixed.mp3"), "mixed blocks"));
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
    std::vector<int16_t> ours = decode_ours(bit, dir.file("ours.raw"));
    EXPECT_GE(ours.size(), ref.size()) << name;
    EXPECT_LE(ours.size(), ref.size() + 2304) << name;
    l3test::PcmDiff c = l3test::compare_pcm(ours, ref);
    EXPECT_LE(c.worst, 2) << name << ": at " << c.worst_at;
  }
  if (!found) GTEST_SKIP() << "no Layer III vectors";
}

// Damaged and unusual streams: decoded or refused, never a crash or a hang (the sanitizer build runs
// this too). The CLI's exit code is not looked at: refusing is fine.
TEST(Layer3EndToEnd, NonstandardStreamsDoNotCrash) {
  std::string vectors = test::vectors_dir();
  if (vectors.empty()) GTEST_SKIP() << "no vectors";
  test::TempDir dir;
  int32_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(vectors)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("l3-nonstandard-", 0) != 0 || entry.path().extension() != ".bit") continue;
    ++count;
    // timeout guards against a hang; a signal (crash) gives a status above 128.
    int rc = test::run("timeout 60 " + quote(test::cli_path()) + " decode " + quote(entry.path().string()) + " " +
                       quote(dir.file("out.raw")) + " --format raw >/dev/null 2>&1");
    EXPECT_LT(rc, 124) << name;
    l3test::decode_in_process(entry.path().string());  // in-process too, where the sanitizers see every read
  }
  if (!count) GTEST_SKIP() << "no nonstandard streams";
}

}  // namespace
