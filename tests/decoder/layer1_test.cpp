// Layer I decoder: conformance streams against their references, streams made here (no tool on the
// machine encodes Layer I) against mpg123 (every output format covered), emphasis, and the ways a
// track ends.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "support/support.h"

namespace {

// --- A small Layer I encoder of random content -----------------------------------------------------

void crc_bits(uint32_t& crc, uint32_t value, int bits) {
  for (int i = bits - 1; i >= 0; --i) {
    bool flip = ((value >> i) & 1) != ((crc >> 15) & 1);
    crc = (crc << 1) & 0xFFFF;
    if (flip) crc ^= 0x8005;
  }
}

// The parameters of a made-up Layer I stream: random allocations, scale factors and samples.
struct RandomLayer1Stream {
  int version = 1;         // 1 MPEG-1, 0 MPEG-2
  int sampling_index = 0;  // 0-2
  int bitrate_index = 12;
  int mode = 0;  // 0 stereo, 1 joint (bound varies frame by frame), 2 dual, 3 mono
  bool crc = false;
  int frames = 20;
  uint32_t seed = 1;
  int wrong_crc_frame = -1;  // this frame's CRC word is off by one
  int emphasis = 0;
  int only_subband = -1;  // all other subbands unallocated
};

const int rates[2][3] = {{22050, 24000, 16000}, {44100, 48000, 32000}};
const int kbps_table[2][15] = {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
                               {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448}};

int channels_of(const RandomLayer1Stream& s) { return s.mode == 3 ? 1 : 2; }

// Frames with random allocations (kept inside the frame's bits), scale indices and sample codes.
std::vector<uint8_t> make_layer1_stream(const RandomLayer1Stream& s) {
  std::mt19937 rng(s.seed);
  auto pick = [&](int lo, int hi) { return lo + int(rng() % uint32_t(hi - lo + 1)); };
  BitWriter w;
  const int ch = channels_of(s);
  for (int f = 0; f < s.frames; ++f) {
    const int bitrate_index = s.bitrate_index;
    const int mode_ext = s.mode == 1 ? pick(0, 3) : 0;
    const int bound = s.mode == 1 ? (mode_ext + 1) * 4 : 32;
    const int padding = pick(0, 1);
    const int slots = 12 * kbps_table[s.version][bitrate_index] * 1000 / rates[s.version][s.sampling_index] + padding;
    const size_t frame_end = w.bit + size_t(slots) * 32;

    int alloc[2][32] = {}, scale[2][32] = {};
    // A subband's cost in bits beyond its allocation codes, for allocation a.
    auto cost = [&](int sb, int c) {
      int a = alloc[c][sb];
      if (!a) return 0;
      return sb < bound ? 6 + 12 * (a + 1) : 6 * ch + 12 * (a + 1);
    };
    int budget = slots * 32 - 32 - (s.crc ? 16 : 0) - 4 * (bound * ch + (32 - bound));
    int used = 0;
    for (int sb = 0; sb < 32; ++sb)
      for (int c = 0; c < (sb < bound ? ch : 1); ++c) {
        alloc[c][sb] = pick(0, 3) == 0 ? 0 : pick(1, sb < 8 ? 14 : 6);
        if (s.only_subband >= 0) alloc[c][sb] = sb == s.only_subband ? 8 : 0;
        if (used + cost(sb, c) > budget) alloc[c][sb] = 0;
        used += cost(sb, c);
      }
    for (int sb = bound; sb < 32; ++sb) alloc[1][sb] = alloc[0][sb];
    // Loud (peaks near full scale) but not clipped all the time: where both decoders clip, the
    // comparison says nothing.
    for (int sb = 0; sb < 32; ++sb)
      for (int c = 0; c < ch; ++c) scale[c][sb] = pick(8, 62);

    // Header (sync, then the sixteen protected bits behind the protection bit).
    w.put(0xFFF, 12);
    w.put(uint32_t(s.version), 1);
    w.put(3, 2);
    w.put(s.crc ? 0 : 1, 1);
    uint32_t protected_bits = uint32_t(bitrate_index << 12 | s.sampling_index << 10 | padding << 9 | s.mode << 6 |
                                       mode_ext << 4 | s.emphasis);
    w.put(protected_bits, 16);
    uint32_t crc = 0xFFFF;
    crc_bits(crc, protected_bits, 16);
    for (int sb = 0; sb < 32; ++sb)
      for (int c = 0; c < (sb < bound ? ch : 1); ++c) crc_bits(crc, uint32_t(alloc[c][sb]), 4);
    if (s.crc) w.put(f == s.wrong_crc_frame ? (crc + 1) & 0xFFFF : crc, 16);
    for (int sb = 0; sb < 32; ++sb)
      for (int c = 0; c < (sb < bound ? ch : 1); ++c) w.put(uint32_t(alloc[c][sb]), 4);
    for (int sb = 0; sb < 32; ++sb)
      for (int c = 0; c < ch; ++c)
        if (alloc[c][sb]) w.put(uint32_t(scale[c][sb]), 6);
    for (int round = 0; round < 12; ++round)
      for (int sb = 0; sb < 32; ++sb)
        for (int c = 0; c < (sb < bound ? ch : 1); ++c) {
          int a = alloc[c][sb];
          // All ones is a forbidden code: stay below it.
          if (a) w.put(uint32_t(pick(0, (2 << a) - 2)), a + 1);
        }
    while (w.bit < frame_end) w.put(0, 1);
  }
  return w.bytes;
}

// --- Running the decoder ---------------------------------------------------------------------------

// Output samples of a tovra-cli file in format ext, without header and trailer.
std::vector<int16_t> samples_of(const std::string& path, const std::string& ext) {
  std::vector<uint8_t> b = test::read_file(path);
  size_t head = 0, tail = 0;
  if (ext == "wav") head = 44, tail = 88;
  if (ext == "aif") head = 54;
  if (ext == "au") head = 28;
  if (ext == "voc") head = 42, tail = 1;
  const bool big_endian = ext == "aif" || ext == "au";
  std::vector<int16_t> out;
  if (b.size() < head + tail) return out;
  for (size_t i = head; i + 1 < b.size() - tail; i += 2)
    out.push_back(big_endian ? int16_t(b[i] << 8 | b[i + 1]) : int16_t(b[i] | (b[i + 1] << 8)));
  return out;
}

int run_cli_decode(const std::string& in, const std::string& out, const std::string& format) {
  return test::run(test::cli_path() + " decode '" + in + "' '" + out + "' --format " + format + " 2>/dev/null");
}

// --- Conformance streams ---------------------------------------------------------------------------

TEST(Layer1, ConformanceStreamsMatchTheirReference) {
  const std::string dir = test::vectors_dir();
  if (dir.empty()) GTEST_SKIP() << "no conformance vectors";
  struct Vector {
    const char* name;
    int channels;
  } vectors[] = {{"l1-fl1", 2}, {"l1-fl4", 1}, {"l1-fl6", 2}};
  test::TempDir tmp;
  for (const Vector& v : vectors) {
    SCOPED_TRACE(v.name);
    std::string out = tmp.file(std::string(v.name) + ".raw");
    ASSERT_EQ(run_cli_decode(dir + "/" + v.name + ".bit", out, "raw"), 0);
    std::vector<int16_t> ours = test::read_pcm16(out);
    std::vector<int16_t> reference = test::read_pcm16(dir + "/" + v.name + ".pcm");
    // 49 frames of 384 samples; the reference is padded behind them.
    const size_t expected = size_t(49) * 384 * size_t(v.channels);
    ASSERT_EQ(ours.size(), expected);
    reference.resize(std::min(reference.size(), expected));
    const test::PcmComparison c = test::compare_pcm(ours, reference);
    EXPECT_TRUE(test::decodes_alike(c)) << c;
  }
}

// --- Generated streams against mpg123, one output format each, every format covered ---------------

TEST(Layer1, GeneratedStreamsMatchMpg123) {
  REQUIRE_TOOL("mpg123");
  const RandomLayer1Stream streams[] = {
      {.version = 1, .sampling_index = 0, .bitrate_index = 12, .mode = 0, .crc = true, .frames = 23, .seed = 11},
      {.version = 1, .sampling_index = 1, .bitrate_index = 8, .mode = 1, .crc = false, .frames = 31, .seed = 12},
      {.version = 1, .sampling_index = 2, .bitrate_index = 4, .mode = 3, .crc = true, .frames = 17, .seed = 13},
      {.version = 1, .sampling_index = 0, .bitrate_index = 6, .mode = 2, .crc = false, .frames = 9, .seed = 14},
      {.version = 0, .sampling_index = 0, .bitrate_index = 14, .mode = 0, .crc = true, .frames = 21, .seed = 15},
      {.version = 0, .sampling_index = 1, .bitrate_index = 6, .mode = 3, .crc = false, .frames = 13, .seed = 16},
      {.version = 0, .sampling_index = 2, .bitrate_index = 10, .mode = 1, .crc = true, .frames = 27, .seed = 17},
  };
  const char* formats[] = {"raw", "wav", "aif", "au", "voc", "wav", "aif"};
  test::TempDir tmp;
  for (size_t k = 0; k < std::size(streams); ++k) {
    const RandomLayer1Stream& s = streams[k];
    const std::string in = tmp.file("in.mp1"), out = tmp.file(std::string("out.") + formats[k]);
    SCOPED_TRACE(out);
    test::write_file(in, make_layer1_stream(s));
    std::vector<int16_t> peer = test::decode_mpg123(in, tmp.file("mpg123.raw"));
    const size_t expected = size_t(s.frames) * 384 * size_t(channels_of(s));
    ASSERT_EQ(peer.size(), expected);
    ASSERT_EQ(run_cli_decode(in, out, formats[k]), 0);
    std::vector<int16_t> ours = samples_of(out, formats[k]);
    ASSERT_EQ(ours.size(), expected);
    const test::PcmComparison c = test::compare_pcm(ours, peer);
    EXPECT_TRUE(test::decodes_alike(c)) << c;
  }
}

// --- Emphasis and the ways a track ends -------------------------------------------------------------

// With 50/15 emphasis the treatment halves subbands 5 to 15 and leaves the rest: a stream with
// sound in subband 1 only comes out as mpg123 has it, one in subband 7 at half the level.
TEST(Layer1, EmphasisHalvesTheMiddleSubbands) {
  REQUIRE_TOOL("mpg123");
  test::TempDir tmp;
  for (int sb : {1, 7}) {
    SCOPED_TRACE(sb);
    const std::string in = tmp.file("e.mp1"), out = tmp.file("e.raw");
    test::write_file(in, make_layer1_stream({.mode = 3, .frames = 20, .seed = 31, .emphasis = 1, .only_subband = sb}));
    ASSERT_EQ(run_cli_decode(in, out, "raw"), 0);
    std::vector<int16_t> ours = test::read_pcm16(out), peer = test::decode_mpg123(in, tmp.file("mpg123.raw"));
    ASSERT_EQ(ours.size(), peer.size());
    double sum_ours = 0, sum_peer = 0;
    for (size_t i = 0; i < ours.size(); ++i) {
      sum_ours += double(ours[i]) * ours[i];
      sum_peer += double(peer[i]) * peer[i];
    }
    EXPECT_NEAR(std::sqrt(sum_ours / sum_peer), sb == 1 ? 1.0 : 0.5, 0.01);
  }
}

// A wrong CRC stops the track after the frames before it, which make a complete file: five good
// stereo frames are 3840 values. Lost sync ends the stream: five mono frames, then the trailer.
TEST(Layer1, WrongCrcStopsTheTrackAndLostSyncEndsIt) {
  test::TempDir tmp;
  const std::string in = tmp.file("in.mp1"), out = tmp.file("out.wav");
  test::write_file(in, make_layer1_stream({.mode = 0, .crc = true, .frames = 12, .seed = 21, .wrong_crc_frame = 5}));
  run_cli_decode(in, out, "wav");
  std::vector<uint8_t> bytes = test::read_file(out);
  ASSERT_EQ(bytes.size(), 44u + 3840 * 2 + 88);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "RIFF");

  bytes = make_layer1_stream({.mode = 3, .frames = 5, .seed = 22});
  bytes.insert(bytes.end(), 3000, 0x55);  // no sync anywhere in the rest
  test::write_file(in, bytes);
  ASSERT_EQ(run_cli_decode(in, out, "wav"), 0);
  bytes = test::read_file(out);
  ASSERT_EQ(bytes.size(), 44u + 1920 * 2 + 88);
  EXPECT_EQ(bytes[22], 1);  // one channel
}

}  // namespace
