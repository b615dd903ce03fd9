// Tables of the Layer III path: band boundaries, scale factor widths, the short-block reorder, the
// stereo factors, and the Huffman code lists with their prefix index.
//
// All are fixed data, built into the binary, apart from the Huffman look-ups that
// init_layer3_tables computes once per process before any decoding.
#pragma once

#include <cstdint>

namespace decoder {

// Row of the band tables and the reorder table (sfb_row): rows 0-2 are 22.05, 24 and 16 kHz, rows 3-5
// 44.1, 48 and 32 kHz, rows 6-8 the MPEG 2.5 rates 11.025, 12 and 8 kHz.
constexpr int32_t SFB_ROWS = 9;
// The row for a header's id and sampling_index. An MPEG 2.5 header comes as id 0 with sampling_index
// 3, 4 or 5 (11.025, 12 and 8 kHz).
constexpr int32_t sfb_row(int32_t id, int32_t sampling_index) {
  const int32_t s = sampling_index >= 0 && sampling_index <= 5 ? sampling_index : 0;
  return id ? 3 + (s < 3 ? s : 0) : s < 3 ? s : s + 3;
}
constexpr int32_t SFB_LONG_BANDS = 22;
constexpr int32_t SFB_SHORT_BANDS = 13;
constexpr int32_t HUFFMAN_TABLES = 34;  // 0-31 pairs, 32 and 33 quads

// Last line of each long band (the next boundary minus 1): 3, 7, 11, ... 575 at 44.1 kHz.
extern const int32_t sfb_long[SFB_ROWS][SFB_LONG_BANDS];
// Last line of each short band within one window: 3, 7, 11, ... 191.
extern const int32_t sfb_short[SFB_ROWS][SFB_SHORT_BANDS];
extern const int32_t pretab[SFB_LONG_BANDS];
// MPEG-1 scale factor widths by scalefac_compress, and their masks (2 to the width, minus 1).
extern const int32_t slen1_table[16];
extern const int32_t slen2_table[16];
extern const int32_t slen1_mask[16];
extern const int32_t slen2_mask[16];
// Low-sampling-frequency band counts: 6 rows by block kind (0 long, 1 short, 2 mixed) by 4 groups.
// Long counts are bands; short counts are band-window entries; the first mixed count is 6 long bands
// and then short entries.
extern const int32_t lsf_sfb_counts[6][3][4];
// For stream-order line i of a short block, its place in one channel's 576 hybrid lines: each
// subband holds its 6 lines of window 0, then window 1, then window 2.
// SFB_ROWS rows of 576.
extern const int16_t (*const short_reorder)[576];
// 1/(1 + tan(p pi/12)) for intensity positions 0-6.
extern const float is_ratio_table[7];
// Row 0: 2 to the -k/4, row 1: 2 to the -k/2; 16 entries used.
extern const float lsf_intensity_table[2][32];
extern const int32_t linbits_table[32];

// Huffman code lists, sorted by code. Word: code left aligned from bit 31, length (at most 19) in
// bits 8-12, x in bits 4-7, y in bits 0-3; for tables 32 and 33 bits 4-7 hold the four value bits,
// bit 7 the first line. Tables 4 and 14 have no list (nullptr); 16-23 and 24-31 share one list each.
extern const uint32_t* const huffman_lists[HUFFMAN_TABLES];
// Words in each list (padding words beyond it are never searched).
extern const uint16_t huffman_list_size[HUFFMAN_TABLES];
// For the next four stream bits, the index of the first word that may match; the next entry (or the
// list's size for the last) ends the slice.
extern const uint8_t huffman_prefix[HUFFMAN_TABLES][16];

// The same index for the next eight bits, computed at start-up from the lists: the decoding loops
// use it so that every code of up to eight bits is found with one compare.
extern uint8_t huffman_start8[HUFFMAN_TABLES][256];
// For the next HUFFMAN_FAST_BITS bits, the low 13 bits of the matching word (length, x, y) when its
// code is at most that long, else 0: nearly every code then needs a single look-up.
constexpr int32_t HUFFMAN_FAST_BITS = 10;
extern uint16_t huffman_fast[HUFFMAN_TABLES][1 << HUFFMAN_FAST_BITS];

// Folded windows of the inverse transforms: sign, window and the DCT-IV output factor in one
// multiplier per output. Rows of imdct_window: long, start, stop.
extern const float imdct_window[3][36];
extern const float imdct_short_window[12];

// Builds the computed Layer III tables; called by init_decoder_tables.
void init_layer3_tables();

}  // namespace decoder
