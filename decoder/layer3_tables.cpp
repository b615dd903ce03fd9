// The stored tables come from decoder/layer3_tables.inc, written by decoder/gen/layer3_tables.py
// from the standards' published tables. Each is checked at compile time: sizes, the band tables'
// order, and for every Huffman list that it is sorted, prefix-free and complete, and that its prefix
// index points at the word that matches each four-bit prefix.
#include "decoder/layer3_tables.h"

#include <cstring>

namespace decoder {

#include "decoder/layer3_tables.inc"

namespace {

// A list is sorted by code, no code is the prefix of another, the lengths fill the code space
// exactly (so every bit pattern decodes), and the prefix slices start at the matching word.
constexpr bool huffman_list_ok(int32_t table) {
  const uint32_t* list = huffman_lists[table];
  int32_t n = huffman_list_size[table];
  if (!list) return n == 0;
  uint64_t space = 0;
  for (int32_t i = 0; i < n; ++i) {
    uint32_t len = (list[i] >> 8) & 31;
    if (len > 19) return false;
    space += uint64_t(1) << (19 - len);
    if (i > 0) {
      uint32_t prev_len = (list[i - 1] >> 8) & 31;
      uint32_t prev_code = prev_len ? list[i - 1] >> (32 - prev_len) : 0;
      uint32_t top = prev_len ? list[i] >> (32 - prev_len) : 0;
      if (list[i - 1] >= list[i] || top == prev_code) return false;  // unsorted, or a prefix
    }
  }
  if (space != (uint64_t(1) << 19)) return false;
  for (uint32_t p = 0; p < 16; ++p) {
    int32_t start = huffman_prefix[table][p];
    uint32_t probe = p << 28;
    if (start >= n || (list[start] & 0xFFFFE000u) > probe) return false;
    if (start + 1 < n && (list[start + 1] & 0xFFFFE000u) <= probe) return false;
  }
  return true;
}

constexpr bool huffman_tables_ok() {
  constexpr int32_t sizes[HUFFMAN_TABLES] = {1,   4,   9,   9,   0,   16,  16,  36,  36,  36,  64,  64,
                                             64,  256, 0,   256, 256, 256, 256, 256, 256, 256, 256, 256,
                                             256, 256, 256, 256, 256, 256, 256, 256, 16,  16};
  for (int32_t t = 0; t < HUFFMAN_TABLES; ++t)
    if (huffman_list_size[t] != sizes[t] || !huffman_list_ok(t)) return false;
  return true;
}
static_assert(huffman_tables_ok(), "Huffman lists or prefix index damaged");
// Storage sizes, padding included: 2, 4, 10, 10, none, 16, 16, 36, 36, 36, 64, 64, 64, 256, none, 256,
// 256 (shared), 256 (shared), 16, 16.
static_assert(sizeof huffman_list_0 == 2 * 4 && sizeof huffman_list_2 == 10 * 4 && sizeof huffman_list_3 == 10 * 4);
static_assert(linbits_table[16] == 1 && linbits_table[23] == 13 && linbits_table[24] == 4 && linbits_table[31] == 13);

constexpr bool band_tables_ok() {
  for (int32_t r = 0; r < SFB_ROWS; ++r) {
    if (sfb_long[r][SFB_LONG_BANDS - 1] != 575 || sfb_short[r][SFB_SHORT_BANDS - 1] != 191) return false;
    for (int32_t b = 1; b < SFB_LONG_BANDS; ++b)
      if (sfb_long[r][b] <= sfb_long[r][b - 1] || (sfb_long[r][b] & 1) == 0) return false;
    for (int32_t b = 1; b < SFB_SHORT_BANDS; ++b)
      if (sfb_short[r][b] <= sfb_short[r][b - 1]) return false;
    // A mixed block's long part ends at line 35, where its short part starts with short band 3 (8 kHz
    // has wider bands and no such boundary).
    if (r != 8 && (sfb_short[r][2] != 11 || sfb_long[r][r < 3 || r > 5 ? 5 : 7] != 35)) return false;
  }
  for (int32_t r = 0; r < 6; ++r)
    for (int32_t k = 0; k < 3; ++k) {
      int32_t total = 0;
      for (int32_t g = 0; g < 4; ++g) total += lsf_sfb_counts[r][k][g];
      // Long: at most 21 bands; short: 12 bands of 3 windows; mixed: 6 long bands, then 9 short.
      if (k == 0 ? total > 21 : k == 1 ? total != 36 : total != 33) return false;
    }
  return true;
}
static_assert(band_tables_ok(), "band tables damaged");

struct Reorder {
  int16_t row[SFB_ROWS][576];
};

// Stream order is band, then window, then line; line j of band b, window w, at within-window line
// f, goes to (f div 6) * 18 + w * 6 + f mod 6.
constexpr Reorder make_reorder() {
  Reorder r{};
  for (int32_t row = 0; row < SFB_ROWS; ++row) {
    int32_t i = 0;
    int32_t first = 0;
    for (int32_t b = 0; b < SFB_SHORT_BANDS; ++b) {
      int32_t width = sfb_short[row][b] + 1 - first;
      for (int32_t w = 0; w < 3; ++w)
        for (int32_t j = 0; j < width; ++j) {
          int32_t f = first + j;
          r.row[row][i++] = int16_t(f / 6 * 18 + w * 6 + f % 6);
        }
      first += width;
    }
  }
  return r;
}

constexpr Reorder reorder = make_reorder();
static_assert(reorder.row[3][12] == 4 && reorder.row[3][14] == 18 && reorder.row[3][575] == 575);

constexpr int32_t mask_of(int32_t bits) { return (1 << bits) - 1; }

}  // namespace

const int32_t slen1_mask[16] = {
    mask_of(slen1_table[0]),  mask_of(slen1_table[1]),  mask_of(slen1_table[2]),  mask_of(slen1_table[3]),
    mask_of(slen1_table[4]),  mask_of(slen1_table[5]),  mask_of(slen1_table[6]),  mask_of(slen1_table[7]),
    mask_of(slen1_table[8]),  mask_of(slen1_table[9]),  mask_of(slen1_table[10]), mask_of(slen1_table[11]),
    mask_of(slen1_table[12]), mask_of(slen1_table[13]), mask_of(slen1_table[14]), mask_of(slen1_table[15])};
const int32_t slen2_mask[16] = {
    mask_of(slen2_table[0]),  mask_of(slen2_table[1]),  mask_of(slen2_table[2]),  mask_of(slen2_table[3]),
    mask_of(slen2_table[4]),  mask_of(slen2_table[5]),  mask_of(slen2_table[6]),  mask_of(slen2_table[7]),
    mask_of(slen2_table[8]),  mask_of(slen2_table[9]),  mask_of(slen2_table[10]), mask_of(slen2_table[11]),
    mask_of(slen2_table[12]), mask_of(slen2_table[13]), mask_of(slen2_table[14]), mask_of(slen2_table[15])};

// The reorder is fully determined by sfb_short; the compiler works it out and stores it.
const int16_t (*const short_reorder)[576] = reorder.row;

const float is_ratio_table[7] = {1.0f, 0.78867513f, 0.6339746f, 0.5f, 0.36602542f, 0.21132487f, 0.0f};

// The exact powers, rounded once to single precision.
const float lsf_intensity_table[2][32] = {
    {1.0f, 0.840896415f, 0.707106781f, 0.594603558f, 0.5f, 0.420448208f, 0.353553391f, 0.297301779f, 0.25f,
     0.210224104f, 0.176776695f, 0.148650889f, 0.125f, 0.105112052f, 0.0883883476f, 0.0743254447f},
    {1.0f, 0.707106781f, 0.5f, 0.353553391f, 0.25f, 0.176776695f, 0.125f, 0.0883883476f, 0.0625f, 0.0441941738f,
     0.03125f, 0.0220970869f, 0.015625f, 0.0110485435f, 0.0078125f, 0.00552427173f},
};

uint8_t huffman_start8[HUFFMAN_TABLES][256];
uint16_t huffman_fast[HUFFMAN_TABLES][1 << HUFFMAN_FAST_BITS];

void init_layer3_tables() {
  for (int32_t t = 0; t < HUFFMAN_TABLES; ++t) {
    const uint32_t* list = huffman_lists[t];
    if (!list) continue;
    // The last word whose code, padded with zeros, is not above the eight bits followed by zeros:
    // since the lists are complete, that word's code is a prefix of (or starts with) those bits.
    int32_t i = 0;
    for (uint32_t p = 0; p < 256; ++p) {
      const uint32_t probe = p << 24;
      while (i + 1 < huffman_list_size[t] && (list[i + 1] & 0xFFFFE000u) <= probe) ++i;
      huffman_start8[t][p] = uint8_t(i);
    }
    i = 0;
    for (uint32_t p = 0; p < (1u << HUFFMAN_FAST_BITS); ++p) {
      const uint32_t probe = p << (32 - HUFFMAN_FAST_BITS);
      while (i + 1 < huffman_list_size[t] && (list[i + 1] & 0xFFFFE000u) <= probe) ++i;
      const uint32_t len = (list[i] >> 8) & 31;
      huffman_fast[t][p] = len >= 1 && len <= uint32_t(HUFFMAN_FAST_BITS) ? uint16_t(list[i] & 0x1FFF) : 0;
    }
  }
}

}  // namespace decoder
