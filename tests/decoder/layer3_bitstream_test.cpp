// Layer III bitstream: every Huffman code of the standard's tables, and the decoder's own choices on
// damaged or unusual data (tables without codes, the reservoir after a stream start, the LSF mixed
// block's stored count, a count-1 quad across the granule's end).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "decoder/layer3_tables.h"
#include "layer3_support.h"
#include "support/support.h"

namespace {

using decoder::l3;
using session::bits;

void fresh_state() {
  static bool tables = (decoder::init_decoder_tables(), true);
  (void)tables;
  session::reset_frame_reader();
  session::reset_bit_reader();
  decoder::reset_decoder_state();
  session::state.damaged_flag.store(0);
}

session::FrameHeader mpeg1_mono() {
  session::FrameHeader h{};
  h.id = 1;
  h.layer_code = 1;
  h.protection_bit = 1;
  h.bitrate_index = 9;
  h.sampling_index = 0;
  h.mode = 3;
  return h;
}

// Selects the band tables of the header's rate, as the frame driver does.
void choose_tables(const session::FrameHeader& h) {
  l3.table_row = h.id * 3 + h.sampling_index;
  l3.sfb_long = decoder::sfb_long[l3.table_row];
  l3.sfb_short = decoder::sfb_short[l3.table_row];
}

struct Code {
  int32_t table, x, y, quad;
  std::string bits;
};

// The codes of ISO 11172-3 Table B.7 as the standard's figures give them.
std::vector<Code> standard_codes() {
  std::vector<Code> codes;
  std::ifstream in("/work/shared/iso/huffman_l3.txt");
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

// Every code of every table, at every bit alignment and across the ring's end, followed by random
// bits: the symbol, its length and the new position must be exact. Tables 16-23 and 24-31 share
// their codes, so every table number is tried with the list of its owner.
TEST(Layer3Huffman, DecodesEveryStandardCode) {
  std::vector<Code> codes = standard_codes();
  if (codes.empty()) GTEST_SKIP() << "standard figures not at hand";
  fresh_state();
  std::mt19937 rng(1234);
  int32_t checked = 0;
  for (int32_t table = 1; table < 34; ++table) {
    if (table == 4 || table == 14) continue;
    int32_t owner = table >= 24 && table < 32 ? 24 : table >= 16 && table < 24 ? 16 : table;
    for (const Code& c : codes) {
      if (c.table != owner) continue;
      for (uint32_t start : {0u, 3u, 7u, 13u, 32768u - 9u, 32768u - 2u}) {
        l3test::RingWriter w(start);
        w.put_code(c.bits);
        w.put(rng(), 24);
        bits.reservoir_bits = start;
        int32_t x = -1, y = -1;
        int32_t used = decoder::huffman_symbol(table, x, y);
        ASSERT_EQ(used, int32_t(c.bits.size())) << "table " << table << " code " << c.bits;
        if (table >= 32) {
          EXPECT_EQ(x, c.quad) << "table " << table << " code " << c.bits;
        } else {
          EXPECT_EQ(x, c.x) << "table " << table << " code " << c.bits;
          EXPECT_EQ(y, c.y) << "table " << table << " code " << c.bits;
        }
        EXPECT_EQ(bits.reservoir_bits, (start + c.bits.size()) & session::RESERVOIR_BIT_MASK);
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 6 * 3000);
  // Table 0 codes nothing: no bits, both values 0.
  bits.reservoir_bits = 100;
  int32_t x = 5, y = 5;
  EXPECT_EQ(decoder::huffman_symbol(0, x, y), 0);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(y, 0);
  EXPECT_EQ(bits.reservoir_bits, 100u);
}

// The granule loops take their own path to the codes (a finer start index, signs and linbits from
// one window): every code of every table, with linbits and signs, through decode_huffman, 64 pairs a
// granule; then every quad of both count-1 tables.
TEST(Layer3Huffman, GranuleLoopsDecodeEveryCode) {
  std::vector<Code> codes = standard_codes();
  if (codes.empty()) GTEST_SKIP() << "standard figures not at hand";
  fresh_state();
  session::FrameHeader h = mpeg1_mono();
  choose_tables(h);
  decoder::SideInfo& si = l3.side;
  std::mt19937 rng(5);
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
          if (v) {
            bool negative = rng() & 1;
            w.put(negative, 1);
            v = negative ? -v : v;
          }
          expected.push_back(v);
        }
      }
      si.big_values[0] = int32_t(n);
      si.region0_count[0] = 3;
      si.region1_count[0] = 4;
      si.table_select[0][0] = si.table_select[0][1] = si.table_select[0][2] = table;
      si.part2_3_length[0] = int32_t((w.pos - start) & session::RESERVOIR_BIT_MASK);
      ASSERT_LT(si.part2_3_length[0], 4096);
      bits.reservoir_bits = start;
      decoder::decode_huffman(h, si, 0, 0);
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
        int32_t v = (c.quad >> (3 - k)) & 1;
        if (v) {
          bool negative = rng() & 1;
          w.put(negative, 1);
          v = negative ? -1 : 1;
        }
        expected.push_back(v);
      }
    }
    si.big_values[0] = 0;
    si.count1table_select[0] = select;
    si.part2_3_length[0] = int32_t((w.pos - start) & session::RESERVOIR_BIT_MASK);
    bits.reservoir_bits = start;
    decoder::decode_huffman(h, si, 0, 0);
    ASSERT_EQ(l3.line_count[0], 64);
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_EQ(l3.quant_lines[0][i], expected[i]) << select << " " << i;
  }
}

// Tables 4 and 14 have no codes: the symbol fails without consuming bits and marks the frame as
// damaged; in a granule the last pair repeats, with its sign bits read as usual.
TEST(Layer3Huffman, TablesWithoutCodesRepeatTheLastPair) {
  fresh_state();
  int32_t x = 0, y = 0;
  bits.reservoir_bits = 40;
  EXPECT_EQ(decoder::huffman_symbol(14, x, y), -1);
  EXPECT_EQ(bits.reservoir_bits, 40u);
  EXPECT_EQ(session::state.damaged_flag.load(), 1);

  fresh_state();
  session::FrameHeader h = mpeg1_mono();
  choose_tables(h);
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
  bits.reservoir_bits = 0;
  decoder::decode_huffman(h, si, 0, 0);
  const int32_t expected[8] = {1, -1, -1, 1, 1, 1, -1, -1};
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(l3.quant_lines[0][i], expected[i]) << i;
  EXPECT_EQ(l3.line_count[0], 8);
  EXPECT_EQ(bits.reservoir_bits, 14u);
  EXPECT_EQ(session::state.damaged_flag.load(), 1);
}

TEST(Layer3Huffman, AllZeroGranuleAndBigValuesCut) {
  fresh_state();
  session::FrameHeader h = mpeg1_mono();
  choose_tables(h);
  decoder::SideInfo& si = l3.side;
  // Scale factors only: slen 4 and 3 for compress 15 give 6*4 + 5*4 + 10*3 = 74 bits.
  si.scalefac_compress[0] = 15;
  si.part2_3_length[0] = 74;
  for (int32_t i = 0; i < 578; ++i) l3.quant_lines[0][i] = 7;
  bits.reservoir_bits = 1000;
  decoder::decode_huffman(h, si, 0, 0);
  EXPECT_EQ(l3.line_count[0], 0);
  for (int32_t i = 0; i < 578; ++i) ASSERT_EQ(l3.quant_lines[0][i], 0) << i;
  EXPECT_EQ(bits.reservoir_bits, 1074u);

  // big_values far beyond 288 stops at the last line; table 0 reads nothing.
  si.scalefac_compress[0] = 0;
  si.part2_3_length[0] = 0;
  si.big_values[0] = 511;
  si.region0_count[0] = 15;
  si.region1_count[0] = 7;  // beyond the band table: the end of the spectrum
  bits.reservoir_bits = 0;
  decoder::decode_huffman(h, si, 0, 0);
  EXPECT_EQ(l3.line_count[0], 576);
  EXPECT_EQ(bits.reservoir_bits, 0u);
}

// A count-1 quad that runs past the granule's bits stays in the lines, and the next granule starts
// exactly where the granule's length says.
TEST(Layer3Huffman, Count1OvershootKeepsTheQuad) {
  fresh_state();
  session::FrameHeader h = mpeg1_mono();
  choose_tables(h);
  decoder::SideInfo& si = l3.side;
  si.count1table_select[0] = 1;  // table 33: four-bit codes, the value bits inverted
  l3test::RingWriter w(0);
  w.put(0b0111, 4);  // 1000: v = 1
  w.put(1, 1);       // negative
  w.put(0b1110, 4);  // 0001: y = 1
  w.put(0, 1);
  si.part2_3_length[0] = 7;  // ends inside the second quad
  bits.reservoir_bits = 0;
  decoder::decode_huffman(h, si, 0, 0);
  const int32_t expected[8] = {-1, 0, 0, 0, 0, 0, 0, 1};
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(l3.quant_lines[0][i], expected[i]) << i;
  EXPECT_EQ(l3.line_count[0], 8);
  EXPECT_EQ(bits.reservoir_bits, 7u);
}

// Scale factor sharing in MPEG-1 granule 1 reads no bits.
TEST(Layer3Huffman, SharedScaleFactorsReadNothing) {
  fresh_state();
  session::FrameHeader h = mpeg1_mono();
  choose_tables(h);
  decoder::SideInfo& si = l3.side;
  for (int32_t b = 0; b < 21; ++b) l3.scalefac_long[0][b] = b % 16;
  for (int32_t g = 0; g < 4; ++g) si.scfsi[0][g] = 1;
  si.scalefac_compress[2] = 15;
  si.part2_3_length[2] = 0;
  bits.reservoir_bits = 500;
  decoder::decode_huffman(h, si, 1, 0);
  EXPECT_EQ(bits.reservoir_bits, 500u);
  for (int32_t b = 0; b < 21; ++b) EXPECT_EQ(l3.scalefac_long[2][b], b % 16);
}

// The LSF mixed block: the stored count of its row loses six at every block, for the life of the
// process, and stops at 0; the first six long bands take the slipped read.
TEST(Layer3Huffman, LsfMixedBlockCountPersistsToTheFloor) {
  fresh_state();
  decoder::restore_lsf_sfb_counts();
  session::FrameHeader h{};
  h.id = 0;
  h.layer_code = 1;
  h.sampling_index = 0;
  h.mode = 3;
  choose_tables(h);
  decoder::SideInfo& si = l3.side;
  si.window_switching[0] = 1;
  si.block_type[0] = 2;
  si.mixed_block[0] = 1;
  si.scalefac_compress[0] = 500;  // row 2, slen 0 and 0: no bits
  const int32_t expected[5] = {9, 3, 0, 0, 0};
  for (int32_t block = 0; block < 5; ++block) {
    bits.reservoir_bits = 0;
    decoder::decode_huffman(h, si, 0, 0);
    EXPECT_EQ(decoder::lsf_sfb_counts[2][2][0], expected[block]) << block;
    EXPECT_EQ(si.preflag[0], 1);
  }
  EXPECT_EQ(decoder::lsf_sfb_counts[2][2][1], 18);

  // Row 2 with slen 3 and 2 (compress 511): the first read of 18 bits is split from its low end
  // into bands 5 to 2, band 1 takes the next 3 bits, band 0 the top group; the group between them
  // is dropped.
  decoder::restore_lsf_sfb_counts();
  si.scalefac_compress[0] = 511;
  l3test::RingWriter w(0);
  for (int32_t v : {1, 2, 3, 4, 5, 6, 7}) w.put(uint32_t(v), 3);
  si.part2_3_length[0] = 18 + 9 * 3 + 18 * 2;  // what the decoder counts
  bits.reservoir_bits = 0;
  decoder::decode_huffman(h, si, 0, 0);
  const int32_t bands[6] = {1, 7, 3, 4, 5, 6};
  for (int32_t b = 0; b < 6; ++b) EXPECT_EQ(l3.scalefac_long[0][b], bands[b]) << b;
  // The granule's length decides where the next one starts, slip or not.
  EXPECT_EQ(bits.reservoir_bits, uint32_t(si.part2_3_length[0]));
  decoder::restore_lsf_sfb_counts();
}

// One frame in a file: MPEG-1 Layer III, 128 kbit/s, 44.1 kHz, mono, no CRC, 417 bytes.
std::vector<uint8_t> mono_frame(int32_t main_data_begin, const std::vector<uint8_t>& main_data,
                                int32_t part2_3_length) {
  std::vector<uint8_t> f = {0xFF, 0xFB, 0x90, 0xC0};
  std::vector<uint8_t> side(17, 0);
  uint32_t pos = 0;
  auto put = [&](uint32_t v, int32_t n) {
    for (int32_t i = n - 1; i >= 0; --i, ++pos)
      if ((v >> i) & 1) side[pos >> 3] |= uint8_t(0x80 >> (pos & 7));
  };
  put(uint32_t(main_data_begin), 9);
  put(0, 5 + 4);
  // Granule 0: one pair of table 1; granule 1: nothing.
  put(uint32_t(part2_3_length), 12);
  put(1, 9);    // big_values
  put(210, 8);  // global_gain
  put(0, 4 + 1);
  put(1, 5);  // table_select 1, 0, 0
  put(0, 10 + 4 + 3 + 3);
  f.insert(f.end(), side.begin(), side.end());
  f.insert(f.end(), main_data.begin(), main_data.end());
  f.resize(417, 0);
  return f;
}

std::vector<int32_t> first_granule_lines;

void capture_lines(int32_t) {
  if (first_granule_lines.empty()) first_granule_lines.assign(l3.quant_lines[0], l3.quant_lines[0] + l3.line_count[0]);
}
void no_shaper() {}

int32_t decode_file_frame(const std::string& path) {
  session::reader.file = std::fopen(path.c_str(), "rb");
  session::FrameHeader h{};
  int32_t code = session::read_frame(h);
  session::state.synth_slot = capture_lines;
  session::state.shaper_slot = no_shaper;
  first_granule_lines.clear();
  if (code == session::FRAME_OK) decoder::decode_layer3_frame(h);
  std::fclose(session::reader.file);
  session::reader.file = nullptr;
  return code;
}

// After a stream start the ring holds nothing of the stream, and main_data_begin may still point
// behind the frame: the decoder reads what the ring holds there, without a check.
TEST(Layer3Reservoir, MainDataBeginReachesBehindTheRing) {
  test::TempDir dir;
  std::string path = dir.file("one.mp3");

  fresh_state();
  test::write_file(path, mono_frame(100, {}, 5));
  // Stale bytes where the frame points: 100 bytes before write offset 0 is ring byte 3996.
  l3test::RingWriter w(3996 * 8);
  w.put_code("000");
  w.put(0b01, 2);
  ASSERT_EQ(decode_file_frame(path), session::FRAME_OK);
  EXPECT_EQ(first_granule_lines, (std::vector<int32_t>{1, -1}));
  EXPECT_EQ(bits.reservoir_write, 417 - 21);

  // main_data_begin 0: the data starts with the bytes this frame brings.
  fresh_state();
  test::write_file(path, mono_frame(0, {0x08}, 5));  // 00001: (1, -1)
  ASSERT_EQ(decode_file_frame(path), session::FRAME_OK);
  EXPECT_EQ(first_granule_lines, (std::vector<int32_t>{1, -1}));
}

}  // namespace
