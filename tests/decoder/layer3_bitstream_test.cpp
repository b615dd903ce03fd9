// Layer III bitstream: every Huffman code of the standard's tables through the granule loops, and
// the decoder's own choices on damaged or unusual data.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "decoder/layer3_tables.h"
#include "layer3_support.h"
#include "support/support.h"

namespace {

decoder::Layer3State& l3 = l3test::state.l3;
decoder::Reservoir& bits = l3test::state.reservoir;

// Fresh decoder state, and an MPEG-1 (or LSF) mono header at 44.1 (22.05) kHz whose band tables
// are chosen as the frame driver does.
session::FrameHeader fresh_state(int32_t id = 1) {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  l3test::state = {};
  decoder::reset_decoder_state(l3test::state);
  session::FrameHeader h{};
  h.id = id;
  h.layer_code = 1;
  h.protection_bit = 1;
  h.bitrate_index = 9;
  h.mode = 3;
  l3.table_row = id * 3;
  l3.sfb_long = decoder::sfb_long[l3.table_row];
  l3.sfb_short = decoder::sfb_short[l3.table_row];
  return h;
}

struct Code {
  int32_t table, x, y, quad;
  std::string bits;
};

// The codes of ISO 11172-3 Table B.7 as the standard's figures give them.
std::vector<Code> standard_codes() {
  std::vector<Code> codes;
  std::ifstream in(test::iso_dir() + "/huffman_l3.txt");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream s(line);
    std::string kind;
    s >> kind;
    Code c{};
    int32_t len;
    if (kind == "C") {
      s >> c.table >> c.x >> c.y >> len >> c.bits;
      codes.push_back(c);
    } else if (kind == "Q") {
      int32_t v, w, x, y;
      s >> c.table >> v >> w >> x >> y >> len >> c.bits;
      c.quad = v << 3 | w << 2 | x << 1 | y;
      codes.push_back(c);
    }
  }
  return codes;
}

// The granule loops take their own path to the codes (a finer start index, signs and linbits from
// one window): every code of every table, with linbits and signs, through decode_huffman, 64 pairs a
// granule; then every quad of both count-1 tables.
TEST(Layer3Huffman, GranuleLoopsDecodeEveryCode) {
  std::vector<Code> codes = standard_codes();
  if (codes.empty()) GTEST_SKIP() << "standard figures not at hand";
  session::FrameHeader h = fresh_state();
  decoder::SideInfo& si = l3.side;
  std::mt19937 rng(5);
  auto with_sign = [&](l3test::RingWriter& w, int32_t v) {
    bool negative = v && (rng() & 1);
    if (v) w.put(negative, 1);
    return negative ? -v : v;
  };
  for (int32_t table = 1; table < 32; ++table) {
    if (table == 4 || table == 14) continue;
    int32_t owner = table >= 24 ? 24 : table >= 16 ? 16 : table;
    int32_t linbits = decoder::linbits_table[table];
    std::vector<Code> mine;
    for (const Code& c : codes)
      if (c.table == owner) mine.push_back(c);
    std::shuffle(mine.begin(), mine.end(), rng);
    for (size_t first = 0; first < mine.size(); first += 64) {
      const uint32_t start = first % 128 ? 777 : 32768 - 300;  // every other granule across the ring end
      size_t n = std::min<size_t>(64, mine.size() - first);
      l3test::RingWriter w(start);
      std::vector<int32_t> expected;
      for (size_t i = first; i < first + n; ++i) {
        w.put_code(mine[i].bits);
        for (int32_t v : {mine[i].x, mine[i].y}) {
          if (linbits && v == 15) {
            uint32_t extra = rng() & ((1u << linbits) - 1);
            w.put(extra, linbits);
            v += int32_t(extra);
          }
          expected.push_back(with_sign(w, v));
        }
      }
      si.big_values[0] = int32_t(n);
      si.region0_count[0] = 3;
      si.region1_count[0] = 4;
      si.table_select[0][0] = si.table_select[0][1] = si.table_select[0][2] = table;
      si.part2_3_length[0] = int32_t((w.pos - start) & decoder::RESERVOIR_BIT_MASK);
      ASSERT_LT(si.part2_3_length[0], 4096);
      bits.bits = start;
      decoder::decode_huffman(l3test::state, h, si, 0, 0);
      for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(l3.quant_lines[0][i], expected[i]) << "table " << table << " pair " << i / 2;
      EXPECT_EQ(l3.line_count[0], int32_t(2 * n));
    }
  }
  for (int32_t select = 0; select < 2; ++select) {
    const uint32_t start = select ? 31 : 32768 - 20;
    l3test::RingWriter w(start);
    std::vector<int32_t> expected;
    for (const Code& c : codes) {
      if (c.table != 32 + select) continue;
      w.put_code(c.bits);
      for (int32_t k = 0; k < 4; ++k) {
        expected.push_back(with_sign(w, (c.quad >> (3 - k)) & 1));
      }
    }
    si.big_values[0] = 0;
    si.count1table_select[0] = select;
    si.part2_3_length[0] = int32_t((w.pos - start) & decoder::RESERVOIR_BIT_MASK);
    bits.bits = start;
    decoder::decode_huffman(l3test::state, h, si, 0, 0);
    ASSERT_EQ(l3.line_count[0], 64);
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_EQ(l3.quant_lines[0][i], expected[i]) << select << " " << i;
  }
}

// Tables 4 and 14 have no codes: in a granule the last pair repeats, with its sign bits read as
// usual, and the frame is marked as damaged.
TEST(Layer3Huffman, TablesWithoutCodesRepeatTheLastPair) {
  session::FrameHeader h = fresh_state();
  decoder::SideInfo& si = l3.side;
  si.big_values[0] = 4;  // lines 0-7: region 0 is band 0 (lines 0-3), region 1 band 1 (lines 4-7)
  si.region0_count[0] = 0;
  si.region1_count[0] = 0;
  si.table_select[0][0] = 1;
  si.table_select[0][1] = 4;
  si.table_select[0][2] = 0;
  l3test::RingWriter w(0);
  w.put_code("000");  // table 1: (1, 1)
  w.put(0b01, 2);     // +1, -1
  w.put_code("000");
  w.put(0b10, 2);    // -1, +1
  w.put(0b0011, 4);  // table 4: the pair (1, 1) again, signs +, +, -, -
  si.part2_3_length[0] = 14;
  bits.bits = 0;
  decoder::decode_huffman(l3test::state, h, si, 0, 0);
  const int32_t expected[8] = {1, -1, -1, 1, 1, 1, -1, -1};
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(l3.quant_lines[0][i], expected[i]) << i;
  EXPECT_EQ(l3.line_count[0], 8);
  EXPECT_EQ(bits.bits, 14u);
  EXPECT_EQ(l3test::state.damaged, 1);
}

TEST(Layer3Huffman, AllZeroGranuleAndBigValuesCut) {
  session::FrameHeader h = fresh_state();
  decoder::SideInfo& si = l3.side;
  // Scale factors only: slen 4 and 3 for compress 15 give 6*4 + 5*4 + 10*3 = 74 bits.
  si.scalefac_compress[0] = 15;
  si.part2_3_length[0] = 74;
  for (int32_t i = 0; i < 578; ++i) l3.quant_lines[0][i] = 7;
  bits.bits = 1000;
  decoder::decode_huffman(l3test::state, h, si, 0, 0);
  EXPECT_EQ(l3.line_count[0], 0);
  for (int32_t i = 0; i < 578; ++i) ASSERT_EQ(l3.quant_lines[0][i], 0) << i;
  EXPECT_EQ(bits.bits, 1074u);

  // big_values far beyond 288 stops at the last line; table 0 reads nothing.
  si.scalefac_compress[0] = 0;
  si.part2_3_length[0] = 0;
  si.big_values[0] = 511;
  si.region0_count[0] = 15;
  si.region1_count[0] = 7;  // beyond the band table: the end of the spectrum
  bits.bits = 0;
  decoder::decode_huffman(l3test::state, h, si, 0, 0);
  EXPECT_EQ(l3.line_count[0], 576);
  EXPECT_EQ(bits.bits, 0u);
}

// A count-1 quad that runs past the granule's bits is not part of it and is dropped; the next
// granule starts exactly where the granule's length says.
TEST(Layer3Huffman, Count1OvershootDropsTheQuad) {
  session::FrameHeader h = fresh_state();
  decoder::SideInfo& si = l3.side;
  si.count1table_select[0] = 1;  // table 33: four-bit codes, the value bits inverted
  l3test::RingWriter w(0);
  w.put(0b0111, 4);  // 1000: v = 1
  w.put(1, 1);       // negative
  w.put(0b1110, 4);  // 0001: y = 1
  w.put(0, 1);
  si.part2_3_length[0] = 7;  // ends inside the second quad
  bits.bits = 0;
  decoder::decode_huffman(l3test::state, h, si, 0, 0);
  const int32_t expected[8] = {-1, 0, 0, 0, 0, 0, 0, 0};
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(l3.quant_lines[0][i], expected[i]) << i;
  EXPECT_EQ(l3.line_count[0], 4);
  EXPECT_EQ(bits.bits, 7u);
}

std::vector<int32_t> first_granule_lines;

// After a stream start the ring holds nothing of the stream, and main_data_begin may still point
// behind the frame: the decoder reads what the ring holds there, without a check.
TEST(Layer3Reservoir, MainDataBeginReachesBehindTheRing) {
  // One frame: MPEG-1 Layer III, 128 kbit/s, 44.1 kHz, mono, no CRC, 417 bytes, main_data_begin
  // 100; granule 0 holds one pair of table 1 in 5 bits, granule 1 nothing.
  BitWriter f;
  f.put(0xFFFB90C0, 32);
  f.put(100, 9);
  f.put(0, 5 + 4);
  f.put(5, 12);   // part2_3_length
  f.put(1, 9);    // big_values
  f.put(210, 8);  // global_gain
  f.put(0, 4 + 1);
  f.put(1, 5);  // table_select 1, 0, 0
  f.bytes.resize(417, 0);

  fresh_state();
  // Stale bytes where the frame points: 100 bytes before write offset 0 is ring byte 3996.
  l3test::RingWriter w(3996 * 8);
  w.put_code("000");
  w.put(0b01, 2);
  session::FrameHeader h{};
  ASSERT_TRUE(format::parse_header(f.bytes.data(), h));
  l3test::state.synth = [](decoder::DecoderState&, int32_t) {
    if (first_granule_lines.empty())
      first_granule_lines.assign(l3.quant_lines[0], l3.quant_lines[0] + l3.line_count[0]);
  };
  static decoder::PcmBlocks out;
  decoder::decode_frame(l3test::state, h, {f.bytes.data() + 4, 417 - 4, 417 - 4}, out);
  EXPECT_EQ(first_granule_lines, (std::vector<int32_t>{1, -1}));
  EXPECT_EQ(bits.write, 417 - 21);
}

// ---- The reservoir ring.

TEST(Reservoir, BitReadsAndAShortLoad) {
  decoder::Reservoir r{};
  std::memset(r.bytes, 0xEE, 100);
  const uint8_t bytes[] = {0xA5, 0x0F, 0xF0, 0x3C, 0x81, 0x7E};
  decoder::load_reservoir(r, bytes, 6, 10);
  EXPECT_EQ(r.write, 10) << "the write position moves on as if all had come";
  EXPECT_EQ(r.bytes[6], 0xEE) << "a short frame keeps the ring's old bytes";
  EXPECT_EQ(decoder::get_bits(r, 0), 0u);
  EXPECT_EQ(r.bits, 0u);
  EXPECT_EQ(decoder::peek_bits(r, 8), 0xA5u);
  EXPECT_EQ(decoder::get_bits(r, 5), 0x14u);          // 10100
  EXPECT_EQ(decoder::get_bits_nonzero(r, 7), 0x50u);  // 101 then 0000: "1010000"
  EXPECT_EQ(r.bits, 12u);
  EXPECT_EQ(decoder::get_bits(r, 25), (0x0FF03C81u >> 3) & 0x1FFFFFFu);
}

// Streams a known byte sequence through the ring in loads of random size (frames of a stream) while
// reading it back in random bit counts that straddle the ring's end many times. Whatever the load
// pattern, the bits read must be the bits written.
TEST(Reservoir, StreamThroughTheRingReadsBack) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::vector<uint8_t> data(400000);
  for (uint8_t& b : data) b = uint8_t(rng());
  auto bit_at = [&](uint64_t pos) { return (data[pos >> 3] >> (7 - (pos & 7))) & 1u; };

  static decoder::Reservoir r{};
  uint64_t loaded = 0, read = 0;
  while (loaded + 2048 < data.size()) {
    // Small loads often, so that wraps of fewer than four bytes happen.
    int32_t n = rng() % 4 == 0 ? int32_t(rng() % 6 + 1) : int32_t(rng() % 1800 + 1);
    decoder::load_reservoir(r, data.data() + loaded, n, n);
    loaded += uint64_t(n);
    ASSERT_EQ(0, std::memcmp(r.bytes + decoder::RESERVOIR_SIZE, r.bytes, 4));
    // Read up to four bytes short of what has landed: the 32-bit window may look that far ahead.
    while (read + 25 + 32 <= loaded * 8) {
      int32_t count = int32_t(rng() % 25 + 1);
      uint32_t expected = 0;
      for (int32_t i = 0; i < count; ++i) expected = expected << 1 | bit_at(read + uint64_t(i));
      uint32_t got = decoder::get_bits(r, count);
      ASSERT_EQ(got, expected) << "at bit " << read << " of the stream, " << count << " bits";
      read += uint64_t(count);
    }
    // The reader keeps within one lap of the writer, as the decoders do.
    ASSERT_LT(loaded * 8 - read, uint64_t(decoder::RESERVOIR_SIZE) * 8);
  }
}

}  // namespace
