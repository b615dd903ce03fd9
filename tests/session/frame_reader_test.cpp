// The frame reader on crafted byte strings (every result code, the sliding sync search and its
// ends), on real streams made by lame and twolame, and the reservoir ring with its guard.
#include "session/frame_reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "session/stream.h"
#include "support/support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Holds bytes in an anonymous file as the session's input for one test.
struct Input {
  explicit Input(const Bytes& bytes) {
    session::reader.file = std::tmpfile();
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), session::reader.file);
    std::rewind(session::reader.file);
    session::reset_frame_reader();
  }
  ~Input() {
    std::fclose(session::reader.file);
    session::reader.file = nullptr;
  }
  long position() const { return std::ftell(session::reader.file); }
};

struct Fields {
  uint32_t sync = 0xFFF, id = 1, layer_code = 1, protection = 1, bitrate = 9, sampling = 0, padding = 0,
           private_bit = 0, mode = 0, mode_ext = 0, copyright = 0, original = 0, emphasis = 0;
};

Bytes header(const Fields& f) {
  uint32_t w = f.sync << 20 | f.id << 19 | f.layer_code << 17 | f.protection << 16 | f.bitrate << 12 |
               f.sampling << 10 | f.padding << 9 | f.private_bit << 8 | f.mode << 6 | f.mode_ext << 4 |
               f.copyright << 3 | f.original << 2 | f.emphasis;
  return {uint8_t(w >> 24), uint8_t(w >> 16), uint8_t(w >> 8), uint8_t(w)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Fields with(void (*edit)(Fields&)) {
  Fields f;
  edit(f);
  return f;
}

struct CodeCase {
  const char* name;
  Bytes bytes;
  int32_t code;
  long position;  // file position after the call
};

TEST(ReadFrame, CodesAndPositions) {
  const Bytes layer3 = header({});
  const Bytes layer2 = header(with([](Fields& f) { f.layer_code = 2; }));
  const Bytes layer1 = header(with([](Fields& f) { f.layer_code = 3; }));
  const Bytes layer1_free = header(with([](Fields& f) { f.layer_code = 3, f.bitrate = 0; }));
  const Bytes free3 = header(with([](Fields& f) { f.bitrate = 0; }));
  const Bytes free2 = header(with([](Fields& f) { f.layer_code = 2, f.bitrate = 0; }));
  const Bytes mpeg25 = header(with([](Fields& f) { f.sync = 0xFFE, f.id = 0; }));
  const Bytes mpeg25_bad = header(with([](Fields& f) { f.sync = 0xFFE, f.id = 0, f.bitrate = 15; }));
  const Bytes bad_rate = header(with([](Fields& f) { f.bitrate = 15; }));
  const Bytes bad_layer = header(with([](Fields& f) { f.layer_code = 0; }));
  const Bytes bad_sampling = header(with([](Fields& f) { f.sampling = 3; }));
  const Bytes junk = {0x00, 0x12, 0x34, 0x56, 0x78};

  const std::vector<CodeCase> cases = {
      {"layer III", layer3, session::FRAME_OK, 4},
      {"layer II", layer2, session::FRAME_OK, 4},
      {"layer I", layer1, session::FRAME_LAYER1, 4},
      {"layer I free format passes", layer1_free, session::FRAME_LAYER1, 4},
      {"layer III free format", free3, session::FRAME_FREE_FORMAT, 4},
      {"layer II free format", free2, session::FRAME_FREE_FORMAT, 4},
      {"MPEG 2.5", mpeg25, session::FRAME_MPEG25, 4},
      {"empty file", {}, session::FRAME_SHORT, 0},
      {"three bytes at the call", {0xFF, 0xFB, 0x90}, session::FRAME_SHORT, 3},
      {"junk to the end", junk, session::FRAME_EOF, 5},
      {"rejected sync is the last pattern", cat({{0x00}, bad_rate}), session::FRAME_EOF_AFTER_SYNC, 5},
      {"rejected sync then three junk bytes", cat({bad_rate, {0x01, 0x02, 0x03}}), session::FRAME_EOF, 7},
      {"junk then a rejected sync at the end", cat({junk, bad_rate}), session::FRAME_EOF_AFTER_SYNC, 9},
      {"three bytes of a sync at the end are junk", cat({junk, {0xFF, 0xFB, 0x90}}), session::FRAME_EOF, 8},
      {"rejected MPEG 2.5 is plain junk", mpeg25_bad, session::FRAME_EOF, 4},
      {"junk before a frame", cat({junk, layer3}), session::FRAME_OK, 9},
      {"bit-rate index 15 in junk", cat({{0x00}, bad_rate, {0x00}, layer3}), session::FRAME_OK, 10},
      {"reserved layer skipped", cat({bad_layer, layer2}), session::FRAME_OK, 8},
      {"reserved sampling index skipped", cat({bad_sampling, layer1}), session::FRAME_LAYER1, 8},
      // FF FF FB 90: the first window (FFF, Layer I, bit-rate 15) is refused, the next one is good.
      {"sync one byte after a refused one", {0xFF, 0xFF, 0xFB, 0x90, 0x00}, session::FRAME_OK, 5},
      {"MPEG 2.5 found behind junk", cat({junk, mpeg25}), session::FRAME_MPEG25, 9},
  };
  for (const CodeCase& c : cases) {
    SCOPED_TRACE(c.name);
    Input in(c.bytes);
    session::FrameHeader h;
    std::memset(&h, 0x5A, sizeof h);
    int32_t code = session::read_frame(h);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(in.position(), c.position);
    if (code == session::FRAME_OK || code == session::FRAME_LAYER1) {
      // The window holds the accepted header's bytes, the bit position stands behind them.
      EXPECT_EQ(0, std::memcmp(session::reader.frame_head, c.bytes.data() + c.position - 4, 4));
      EXPECT_EQ(session::reader.frame_head_bits, 32);
    } else {
      session::FrameHeader untouched;
      std::memset(&untouched, 0x5A, sizeof untouched);
      EXPECT_EQ(0, std::memcmp(&h, &untouched, sizeof h)) << "header written on a failure";
    }
  }
}

TEST(ReadFrame, SplitsEveryField) {
  Fields f;
  f.id = 0, f.layer_code = 2, f.protection = 0, f.bitrate = 13, f.sampling = 2, f.padding = 1, f.private_bit = 1,
  f.mode = 1, f.mode_ext = 2, f.copyright = 1, f.original = 0, f.emphasis = 3;
  Input in(header(f));
  session::FrameHeader h{};
  ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
  EXPECT_EQ(h.id, 0);
  EXPECT_EQ(h.layer_code, 2);
  EXPECT_EQ(h.protection_bit, 0);
  EXPECT_EQ(h.bitrate_index, 13);
  EXPECT_EQ(h.sampling_index, 2);
  EXPECT_EQ(h.padding_bit, 1);
  EXPECT_EQ(h.private_bit, 1);
  EXPECT_EQ(h.mode, 1);
  EXPECT_EQ(h.mode_ext, 2);
  EXPECT_EQ(h.copyright, 1);
  EXPECT_EQ(h.original, 0);
  EXPECT_EQ(h.emphasis, 3);
}

TEST(ReadFrame, ModeExtensionZeroedOnlyForStereo) {
  const int32_t expected[4] = {0, 3, 3, 3};
  for (uint32_t mode = 0; mode < 4; ++mode) {
    Input in(header(Fields{.mode = mode, .mode_ext = 3}));
    session::FrameHeader h{};
    ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
    EXPECT_EQ(h.mode_ext, expected[mode]) << "mode " << mode;
  }
}

TEST(ReadFrame, LayerOneHeaderInMidStream) {
  // A Layer III frame of 417 bytes, then a Layer I header: the reader takes it as it comes.
  Bytes bytes = header({});
  bytes.resize(417, 0x00);
  Bytes l1 = header(Fields{.layer_code = 3, .bitrate = 2});
  bytes.insert(bytes.end(), l1.begin(), l1.end());
  Input in(bytes);
  session::FrameHeader h{};
  ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
  EXPECT_EQ(h.layer_code, 1);
  ASSERT_EQ(session::read_frame(h), session::FRAME_LAYER1);
  EXPECT_EQ(h.layer_code, 3);
  EXPECT_EQ(in.position(), 421);
  EXPECT_EQ(session::read_frame(h), session::FRAME_SHORT);
}

TEST(ReadFrame, CrcBytesAndReset) {
  Input in(cat({header(Fields{.protection = 0}), {0xAB, 0xCD, 0xEF}}));
  session::FrameHeader h{};
  ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
  session::skip_crc();
  EXPECT_EQ(session::reader.frame_head[0], 0xAB);
  EXPECT_EQ(session::reader.frame_head[1], 0xCD);
  EXPECT_EQ(session::reader.frame_head_bits, 16);
  EXPECT_EQ(in.position(), 6);
  session::reset_frame_reader();
  EXPECT_EQ(session::reader.frame_head_bits, 0);
  for (uint8_t b : session::reader.frame_head) EXPECT_EQ(b, 0);
}

TEST(ReadFrame, SideInformationReads) {
  Bytes bytes(40);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(0x80 | i);
  Input in(bytes);
  EXPECT_EQ(session::read_frame_head(32), 32);
  EXPECT_EQ(session::head_bits(8), 0x80u);
  EXPECT_EQ(session::head_bits(12), 0x818u);   // 0x81, then the high half of 0x82
  EXPECT_EQ(session::read_frame_head(17), 8);  // only 8 bytes left: the rest reads as zeros
  EXPECT_EQ(session::head_bits(8), 0xA0u);
  session::reader.frame_head_bits = 48 * 8 - 4;
  EXPECT_EQ(session::head_bits(8), 0u) << "past the head's end reads zeros";
  EXPECT_EQ(session::read_frame_head(-1), 0);
}

// Walks a real stream: every frame must start where the previous one ended, and the walk must end
// exactly at the file's end.
void walk_contiguous(const std::string& path, int32_t layer_code, int32_t hz) {
  Input in(test::read_file(path));
  session::FrameHeader h{};
  long expected = 0;
  int32_t frames = 0;
  for (;;) {
    int32_t code = session::read_frame(h);
    if (code == session::FRAME_SHORT) break;
    ASSERT_EQ(code, session::FRAME_OK) << "frame " << frames;
    ASSERT_EQ(in.position() - 4, expected) << "frame " << frames << " not where the last one ended";
    ASSERT_EQ(h.layer_code, layer_code);
    ASSERT_EQ(session::sample_rate_table[h.id * 3 + h.sampling_index], hz);
    expected += session::frame_length(h);
    std::fseek(session::reader.file, expected, SEEK_SET);
    ++frames;
  }
  EXPECT_EQ(expected, long(test::read_file(path).size()));
  EXPECT_GT(frames, 20);
}

TEST(ReadFrame, WalksRealStreams) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("twolame");
  test::TempDir dir;
  struct Made {
    const char* tool;
    int32_t hz;
    int32_t layer_code;
  };
  for (const Made& m : {Made{"lame", 44100, 1}, Made{"lame", 22050, 1}, Made{"twolame", 48000, 2},
                        Made{"twolame", 22050, 2}, Made{"twolame", 44100, 2}}) {
    SCOPED_TRACE(std::string(m.tool) + " " + std::to_string(m.hz));
    std::string wav = dir.file("in.wav"), out = dir.file("out.mpa");
    ASSERT_EQ(test::run("sox -q -n -r " + std::to_string(m.hz) + " -c 2 -b 16 " + wav + " synth 1.5 sine 440 vol 0.5"),
              0);
    // lame would resample to suit the bit rate: hold it to the input's rate.
    std::string keep_rate = m.tool[0] == 'l' ? " --resample " + std::to_string(m.hz / 1000.0) : "";
    ASSERT_EQ(test::run(std::string(m.tool) + " --quiet -b 64" + keep_rate + " " + wav + " " + out), 0);
    walk_contiguous(out, m.layer_code, m.hz);
  }
}

// ---- The reservoir ring.

struct Reservoir : ::testing::Test {
  void SetUp() override { session::reset_bit_reader(); }
  static void guard_matches() {
    EXPECT_EQ(0, std::memcmp(session::bits.reservoir + session::RESERVOIR_SIZE, session::bits.reservoir, 4))
        << "the guard must repeat the ring's first four bytes";
  }
};

Bytes counting(size_t n, uint8_t from) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t(from + i);
  return b;
}

TEST_F(Reservoir, WrapsIntoTheRingStart) {
  Input in(counting(10, 1));
  session::bits.reservoir_write = 4090;
  session::load_reservoir(10);
  EXPECT_EQ(session::bits.reservoir_write, 4);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(session::bits.reservoir[4090 + i], 1 + i);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(session::bits.reservoir[i], 7 + i);
  guard_matches();
  // A read across the ring's end sees the wrapped bytes through the guard.
  session::bits.reservoir_bits = 4094 * 8;
  EXPECT_EQ(session::get_bits(24), 0x050607u);
  EXPECT_EQ(session::bits.reservoir_bits, 8u);
}

TEST_F(Reservoir, GuardFollowsLoadsAfterShortWraps) {
  // A wrap that runs 0 to 3 bytes over leaves part of the ring's first four bytes to the next load.
  for (int32_t over = 0; over < 4; ++over) {
    SCOPED_TRACE(over);
    session::reset_bit_reader();
    Input in(counting(64, 0x40));
    session::bits.reservoir_write = 4090 - over;
    session::load_reservoir(6 + 2 * over);
    EXPECT_EQ(session::bits.reservoir_write, over);
    guard_matches();
    session::load_reservoir(8);
    guard_matches();
    // The bytes at 4094..4095 and then 0..1 read as one 32-bit run.
    session::bits.reservoir_bits = 4094 * 8;
    const uint8_t* r = session::bits.reservoir;
    uint32_t expected = uint32_t(r[4094]) << 24 | uint32_t(r[4095]) << 16 | uint32_t(r[0]) << 8 | r[1];
    EXPECT_EQ(session::peek_bits(25), expected >> 7);
  }
}

TEST_F(Reservoir, ShortReadKeepsOldBytes) {
  std::memset(session::bits.reservoir, 0xEE, 100);
  Input in(counting(3, 1));
  session::load_reservoir(10);
  EXPECT_EQ(session::bits.reservoir_write, 10) << "the write position moves on as if all had come";
  EXPECT_EQ(session::bits.reservoir[2], 3);
  EXPECT_EQ(session::bits.reservoir[3], 0xEE);
}

TEST_F(Reservoir, BitReadOperations) {
  Input in({0xA5, 0x0F, 0xF0, 0x3C, 0x81, 0x7E});
  session::load_reservoir(6);
  EXPECT_EQ(session::get_bits(0), 0u);
  EXPECT_EQ(session::bits.reservoir_bits, 0u);
  EXPECT_EQ(session::peek_bit(), 1u);
  EXPECT_EQ(session::peek_bits(8), 0xA5u);
  EXPECT_EQ(session::get_bit_msb(), 0x80000000u);
  EXPECT_EQ(session::get_bit_msb(), 0u);
  EXPECT_EQ(session::get_bits(3), 0x4u);           // bits 2-4 of 1010 0101: "100"
  EXPECT_EQ(session::get_bits_nonzero(7), 0x50u);  // 101 then 0000: "1010000"
  EXPECT_EQ(session::bits.reservoir_bits, 12u);
  EXPECT_EQ(session::get_bits(25), (0x0FF03C81u >> 3) & 0x1FFFFFFu);
  // The position wraps at the ring's length in bits.
  session::bits.reservoir_bits = 32760;
  session::get_bits(16);
  EXPECT_EQ(session::bits.reservoir_bits, 8u);
}

// Streams a known byte sequence through the ring in loads of random size (frames of a stream) while
// reading it back in random bit counts that straddle the ring's end many times. Whatever the load
// pattern, the bits read must be the bits written.
TEST_F(Reservoir, StreamThroughTheRingReadsBack) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  Bytes data(400000);
  for (uint8_t& b : data) b = uint8_t(rng());
  Input in(data);
  auto bit_at = [&](uint64_t pos) { return (data[pos >> 3] >> (7 - (pos & 7))) & 1u; };

  uint64_t loaded = 0, read = 0;
  while (loaded + 2048 < data.size()) {
    // Small loads often, so that wraps of fewer than four bytes happen.
    int32_t n = rng() % 4 == 0 ? int32_t(rng() % 6 + 1) : int32_t(rng() % 1800 + 1);
    session::load_reservoir(n);
    loaded += uint64_t(n);
    ASSERT_EQ(0, std::memcmp(session::bits.reservoir + session::RESERVOIR_SIZE, session::bits.reservoir, 4));
    // Read up to four bytes short of what has landed: the 32-bit window may look that far ahead.
    while (read + 25 + 32 <= loaded * 8) {
      int32_t count = int32_t(rng() % 25 + 1);
      uint32_t expected = 0;
      for (int32_t i = 0; i < count; ++i) expected = expected << 1 | bit_at(read + uint64_t(i));
      uint32_t got = session::get_bits(count);
      ASSERT_EQ(got, expected) << "at bit " << read << " of the stream, " << count << " bits";
      read += uint64_t(count);
    }
    // The reader keeps within one lap of the writer, as the decoders do.
    ASSERT_LT(loaded * 8 - read, uint64_t(session::RESERVOIR_SIZE) * 8);
  }
}

}  // namespace
