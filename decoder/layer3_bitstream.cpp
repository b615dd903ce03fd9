// Layer III bitstream: side information from the frame head, scale factors and Huffman lines from
// the reservoir.
//
// Every read takes a 32-bit big-endian word at the bit position's byte; the guard behind the ring
// repeats its first bytes, so there is no wrap test and no per-bit loop. The scale factors read
// through a local copy of the position; the Huffman loops through a 64-bit cache refilled ahead of
// the decoding, with the start-up tables of layer3_tables.h (a direct look-up for codes of up to
// ten bits, an eight-bit index into the list for the rest). Corrupt data cannot push a read out of
// the ring: positions are masked to 15 bits and every store index is bounded.
#include <cstring>

#include "decoder/layer3.h"
#include "decoder/layer3_tables.h"
#include "format/bit_reader.h"
#include "format/header.h"

namespace decoder {

namespace {

// A local copy of the reservoir's read position; stored back when a loop ends.
struct Cursor {
  const uint8_t* ring;
  uint32_t pos;

  uint32_t word() const { return format::bits_window(ring, pos); }
  uint32_t peek(int32_t n) const { return word() >> (32 - n); }
  void skip(int32_t n) { pos = (pos + uint32_t(n)) & RESERVOIR_BIT_MASK; }
  uint32_t get(int32_t n) {
    uint32_t v = peek(n);
    skip(n);
    return v;
  }
  // n from 0 to 25.
  uint32_t get_or_zero(int32_t n) { return n == 0 ? 0 : get(n); }
};

// The Huffman loops read through a 64-bit cache of the next bits, refilled 24 bits at a time from
// the ring: the loads run ahead of the decoding instead of waiting for each code's length.
struct BitCache {
  uint64_t cache = 0;  // the next bits, left aligned; the bits below the valid ones are zero
  int32_t avail = 0;   // valid bits in the cache
  const uint8_t* ring;
  uint32_t fetch;  // ring position of the first bit not yet in the cache

  BitCache(const uint8_t* bytes, uint32_t pos) : ring(bytes), fetch(pos) { refill(); }
  // Leaves at least 41 valid bits.
  void refill() {
    while (avail <= 40) {
      const uint32_t w = format::bits_window(ring, fetch);  // at least 25 valid bits; take 24
      cache |= uint64_t(w >> 8) << (40 - avail);
      avail += 24;
      fetch = (fetch + 24) & RESERVOIR_BIT_MASK;
    }
  }
  uint32_t top() const { return uint32_t(cache >> 32); }
  void skip(int32_t n) {
    cache <<= n;
    avail -= n;
  }
  // n from 1 to 32, within the valid bits.
  uint32_t get(int32_t n) {
    uint32_t v = uint32_t(cache >> (64 - n));
    skip(n);
    return v;
  }
  uint32_t pos() const { return (fetch - uint32_t(avail)) & RESERVOIR_BIT_MASK; }
};

// The word of list that matches the stream bits s (19 bits, left aligned from bit 31). The prefix
// table gives the slice for the first four bits; its first word is the answer for most codes.
// Otherwise a binary search finds the last word whose code is not above the stream: since every
// list is complete and prefix-free, that word's code is a prefix of the stream.
inline uint32_t search_slice(const uint32_t* base, uint32_t n, uint32_t s) {
  const uint32_t probe = s | 0x1FFF;
  while (n > 1) {
    const uint32_t half = n >> 1;
    base = base[half] <= probe ? base + half : base;
    n -= half;
  }
  return *base;
}

inline bool matches(uint32_t w, uint32_t s) {
  const uint32_t len = (w >> 8) & 31;
  return (((w ^ s) >> 13) >> (19 - len)) == 0;
}

// The word of the list that matches the stream bits, found from the eight-bit start index.
inline uint32_t find_word8(int32_t table, uint32_t s) {
  const uint32_t* list = huffman_lists[table];
  const uint8_t* start = huffman_start8[table];
  const uint32_t p = s >> 24;
  const uint32_t lo = start[p];
  if (matches(list[lo], s)) return list[lo];
  const uint32_t hi = p < 255 ? start[p + 1] + 1u : huffman_list_size[table];
  return search_slice(list + lo, hi - lo, s);
}

}  // namespace

int32_t huffman_symbol(DecoderState& s, int32_t table, int32_t& x, int32_t& y) {
  if (table < 0 || table >= HUFFMAN_TABLES || !huffman_lists[table]) {
    s.damaged = 1;
    return -1;
  }
  Reservoir& bits = s.reservoir;
  const uint32_t w = find_word8(table, peek_bits(bits, 19) << 13);
  x = int32_t((w >> 4) & 15);
  y = int32_t(w & 15);
  const int32_t len = int32_t((w >> 8) & 31);
  bits.bits = (bits.bits + uint32_t(len)) & RESERVOIR_BIT_MASK;
  return len;
}

void parse_side_info(DecoderState& s, const format::FrameHeader& h, SideInfo& si) {
  auto head_bits = [&s](int32_t n) {
    return format::read_bits_bounded(s.head, int32_t(sizeof s.head), s.head_bits, n);
  };
  const int32_t channels = h.mode == 3 ? 1 : 2;
  const int32_t granules = h.id ? 2 : 1;
  if (h.id) {
    si.main_data_begin = int32_t(head_bits(9));
    head_bits(channels == 1 ? 5 : 3);
    for (int32_t ch = 0; ch < channels; ++ch)
      for (int32_t g = 0; g < 4; ++g) si.scfsi[ch][g] = int32_t(head_bits(1));
  } else {
    si.main_data_begin = int32_t(head_bits(8));
    head_bits(channels == 1 ? 1 : 2);
  }
  for (int32_t gr = 0; gr < granules; ++gr)
    for (int32_t ch = 0; ch < channels; ++ch) {
      const int32_t gc = gr * 2 + ch;
      si.part2_3_length[gc] = int32_t(head_bits(12));
      si.big_values[gc] = int32_t(head_bits(9));
      si.global_gain[gc] = int32_t(head_bits(8));
      si.scalefac_compress[gc] = int32_t(head_bits(h.id ? 4 : 9));
      si.window_switching[gc] = int32_t(head_bits(1));
      if (si.window_switching[gc]) {
        si.block_type[gc] = int32_t(head_bits(2));
        si.mixed_block[gc] = int32_t(head_bits(1));
        si.table_select[gc][0] = int32_t(head_bits(5));
        si.table_select[gc][1] = int32_t(head_bits(5));
        si.table_select[gc][2] = 0;
        for (int32_t w = 0; w < 3; ++w) si.subblock_gain[gc][w] = int32_t(head_bits(3));
      } else {
        si.block_type[gc] = 0;
        si.mixed_block[gc] = 0;
        for (int32_t r = 0; r < 3; ++r) si.table_select[gc][r] = int32_t(head_bits(5));
        for (int32_t w = 0; w < 3; ++w) si.subblock_gain[gc][w] = 0;
        si.region0_count[gc] = int32_t(head_bits(4));
        si.region1_count[gc] = int32_t(head_bits(3));
      }
      si.preflag[gc] = h.id ? int32_t(head_bits(1)) : 0;
      si.scalefac_scale[gc] = int32_t(head_bits(1));
      si.count1table_select[gc] = int32_t(head_bits(1));
    }
}

void read_side_info(DecoderState& s, const format::FrameHeader& h, const FrameBody& side, SideInfo& si) {
  // Side information cut off by the end of the file reads as zeros.
  const int32_t n = format::header_and_side_info_bytes(h) - 4;
  std::memset(s.head, 0, sizeof s.head);
  const int32_t got = side.got < n ? side.got : n;
  if (got > 0) std::memcpy(s.head, side.bytes, size_t(got));
  s.head_bits = 0;
  parse_side_info(s, h, si);
}

namespace {

inline bool is_short_block(const SideInfo& si, int32_t gc) { return si.window_switching[gc] && si.block_type[gc] == 2; }

// Reads n values of width bits each in one read (n * bits at most 24) and stores them to out[0..n-1],
// split by mask and shift from the last value to the first.
inline void read_group(Cursor& c, int32_t* out, int32_t n, int32_t width, int32_t stride = 1) {
  if (width == 0) {
    for (int32_t i = 0; i < n; ++i) out[i * stride] = 0;
    return;
  }
  uint32_t v = c.get(n * width);
  const uint32_t mask = (1u << width) - 1;
  for (int32_t i = n - 1; i >= 0; --i) {
    out[i * stride] = int32_t(v & mask);
    v >>= width;
  }
}

// MPEG-1 scale factors; returns the bits read.
int32_t scalefactors_mpeg1(Layer3State& l3, Cursor& c, const SideInfo& si, int32_t gr, int32_t ch) {
  const int32_t gc = gr * 2 + ch;
  const int32_t compress = si.scalefac_compress[gc] & 15;
  const int32_t s1 = slen1_table[compress];
  const int32_t s2 = slen2_table[compress];
  int32_t* sl = l3.scalefac_long[gc];
  int32_t* ss = l3.scalefac_short[gc];
  if (is_short_block(si, gc)) {
    int32_t first_short = 0;
    int32_t count = 0;
    if (si.mixed_block[gc]) {
      // Eight long bands at slen1, read as 6 + 2 to stay within one 25-bit read.
      read_group(c, sl, 6, s1);
      read_group(c, sl + 6, 2, s1);
      first_short = 3;
      count = 8 * s1;
    }
    for (int32_t b = first_short; b < 12; ++b) {
      const int32_t width = b < 6 ? s1 : s2;
      read_group(c, ss + b * 3, 3, width);
      count += 3 * width;
    }
    ss[36] = ss[37] = ss[38] = 0;
    return count;
  }
  static constexpr int32_t group_first[5] = {0, 6, 11, 16, 21};
  int32_t count = 0;
  for (int32_t g = 0; g < 4; ++g) {
    const int32_t first = group_first[g];
    const int32_t n = group_first[g + 1] - first;
    if (gr == 1 && si.scfsi[ch][g]) {
      std::memcpy(sl + first, l3.scalefac_long[ch] + first, size_t(n) * sizeof(int32_t));
      continue;
    }
    const int32_t width = g < 2 ? s1 : s2;
    read_group(c, sl + first, n, width);
    count += n * width;
  }
  sl[21] = 0;
  return count;
}

// Low-sampling-frequency scale factors; returns the bits the decoder counts (see the mixed block).
int32_t scalefactors_lsf(Layer3State& l3, Cursor& c, const format::FrameHeader& h, SideInfo& si, int32_t ch) {
  const int32_t gc = ch;  // one granule
  const int32_t compress = si.scalefac_compress[gc];
  const bool intensity = ch == 1 && h.mode == 1 && (h.mode_ext & 1);
  int32_t* slen = l3.lsf_slen;
  int32_t row = 0;
  si.preflag[gc] = 0;
  if (!intensity) {
    if (compress < 400) {
      slen[0] = (compress >> 4) / 5;
      slen[1] = (compress >> 4) % 5;
      slen[2] = (compress & 15) >> 2;
      slen[3] = compress & 3;
      row = 0;
    } else if (compress < 500) {
      const int32_t d = compress - 400;
      slen[0] = (d >> 2) / 5;
      slen[1] = (d >> 2) % 5;
      slen[2] = d & 3;
      slen[3] = 0;
      row = 1;
    } else {
      const int32_t d = compress - 500;
      slen[0] = d / 3;
      slen[1] = d % 3;
      slen[2] = slen[3] = 0;
      row = 2;
      si.preflag[gc] = 1;
    }
  } else {
    l3.intensity_scale = compress & 1;
    const int32_t e = compress >> 1;
    row = 3;
    if (e < 180) {
      slen[0] = e / 36;
      slen[1] = (e % 36) / 6;
      slen[2] = e % 6;
      slen[3] = 0;
    } else if (e < 244) {
      const int32_t d = e - 180;
      slen[0] = (d & 63) >> 4;
      slen[1] = (d & 15) >> 2;
      slen[2] = d & 3;
      slen[3] = 0;
      row = 4;
    } else if (e < 255) {
      const int32_t d = e - 244;
      slen[0] = d / 3;
      slen[1] = d % 3;
      slen[2] = slen[3] = 0;
      row = 5;
    }
    // A larger value keeps the widths of the last frame, with row 3.
  }

  int32_t* sl = l3.scalefac_long[gc];
  int32_t* ss = l3.scalefac_short[gc];
  int32_t* limit_long = l3.intensity_limit;
  int32_t* limit_short = l3.intensity_limit_short;
  int32_t count = 0;
  if (!is_short_block(si, gc)) {
    const int32_t* counts = lsf_sfb_counts[row][0];
    int32_t band = 0;
    for (int32_t i = 0; i < 4; ++i)
      for (int32_t j = 0; j < counts[i] && band < 21; ++j) {
        sl[band] = int32_t(c.get_or_zero(slen[i]));
        limit_long[band] = (1 << slen[i]) - 1;
        count += slen[i];
        ++band;
      }
    for (; band < 22; ++band) sl[band] = limit_long[band] = 0;
    return count;
  }

  // Short counts are band-window entries, three to a band. A mixed block's first group starts with
  // the six long bands below line 36; the rest of that group is short entries from band 3.
  const bool mixed = si.mixed_block[gc];
  const int32_t* counts = lsf_sfb_counts[row][mixed ? 2 : 1];
  int32_t band = 0;
  int32_t first_count = counts[0];
  if (mixed) {
    read_group(c, sl, 6, slen[0]);
    for (int32_t b = 0; b < 6; ++b) limit_long[b] = (1 << slen[0]) - 1;
    count += 6 * slen[0];
    first_count -= 6;
    band = 3;
  }
  for (int32_t i = 0; i < 4; ++i) {
    for (int32_t n = i ? counts[i] : first_count; n > 0 && band < 12; n -= 3, ++band) {
      for (int32_t w = 0; w < 3; ++w) ss[band * 3 + w] = int32_t(c.get_or_zero(slen[i]));
      limit_short[band] = (1 << slen[i]) - 1;
      count += 3 * slen[i];
    }
  }
  for (; band < 13; ++band) {
    ss[band * 3] = ss[band * 3 + 1] = ss[band * 3 + 2] = 0;
    limit_short[band] = 0;
  }
  return count;
}

// Big-value pairs from pos up to end with one table. Linbits and signs follow each value as the
// standard orders them. Returns the new position; x and y carry the last magnitudes for tables 4
// and 14. After a refill the cache holds the longest code (19 bits) with one escape and its sign.
template <bool kLinbits>
int32_t decode_pairs(Cursor& c, int32_t table, int32_t pos, int32_t end, int32_t* q, int32_t& x, int32_t& y) {
  const int32_t linbits = kLinbits ? linbits_table[table] : 0;
  const uint16_t* fast = huffman_fast[table];
  BitCache b(c.ring, c.pos);
  int32_t vx = x, vy = y;
  for (; pos < end; pos += 2) {
    b.refill();
    const uint32_t window = b.top();
    const uint32_t hit = fast[window >> (32 - HUFFMAN_FAST_BITS)];
    const uint32_t w = hit ? hit : find_word8(table, window & 0xFFFFE000u);
    const int32_t len = int32_t((w >> 8) & 31);
    vx = int32_t((w >> 4) & 15);
    vy = int32_t(w & 15);
    if (!kLinbits || (vx != 15 && vy != 15)) {
      // Sign bits follow the non-zero values; taken without branches, as they are unpredictable.
      // (v + 15) >> 4 is 1 for v of 1 to 15, 0 for 0: plain arithmetic, no flags to keep.
      uint32_t rest = window << len;
      const uint32_t has_x = uint32_t(vx + 15) >> 4, has_y = uint32_t(vy + 15) >> 4;
      const int32_t neg_x = -int32_t((rest >> 31) & has_x);
      rest <<= has_x;
      const int32_t neg_y = -int32_t((rest >> 31) & has_y);
      b.skip(len + int32_t(has_x + has_y));
      q[pos] = (vx ^ neg_x) - neg_x;
      q[pos + 1] = (vy ^ neg_y) - neg_y;
      continue;
    }
    b.skip(len);
    int32_t sx = vx, sy = vy;
    if (vx == 15) vx += int32_t(b.get(linbits));
    if (vx) sx = b.get(1) ? -vx : vx;
    b.refill();
    if (vy == 15) vy += int32_t(b.get(linbits));
    if (vy) sy = b.get(1) ? -vy : vy;
    q[pos] = sx;
    q[pos + 1] = sy;
  }
  c.pos = b.pos();
  x = vx;
  y = vy;
  return pos;
}

// A table without codes (4 or 14): nothing is consumed for the code; the last pair repeats, with
// sign bits read as usual, and the frame counts as damaged.
int32_t repeat_pairs(Cursor& c, int32_t pos, int32_t end, int32_t* q, int32_t x, int32_t y) {
  for (; pos < end; pos += 2) {
    q[pos] = x && c.get(1) ? -x : x;
    q[pos + 1] = y && c.get(1) ? -y : y;
  }
  return pos;
}

}  // namespace

void decode_huffman(DecoderState& s, const format::FrameHeader& h, SideInfo& si, int32_t gr, int32_t ch) {
  Layer3State& l3 = s.l3;
  Reservoir& bits = s.reservoir;
  const int32_t gc = gr * 2 + ch;
  Cursor c{bits.bytes, bits.bits};
  const uint32_t granule_start = c.pos;
  const int32_t part2_bits = h.id ? scalefactors_mpeg1(l3, c, si, gr, ch) : scalefactors_lsf(l3, c, h, si, ch);
  const uint32_t huffman_start = c.pos;
  const int32_t target = si.part2_3_length[gc] - part2_bits;

  int32_t* q = l3.quant_lines[ch];
  const int32_t* sfb_long = l3.sfb_long;
  // big_values above 288 would run the pair loop past the 576 lines.
  const int32_t big_end = (si.big_values[gc] > 288 ? 288 : si.big_values[gc]) * 2;
  int32_t bound[3];
  if (!si.window_switching[gc] && !si.block_type[gc]) {
    // A region1 end beyond the band table is the end of the spectrum.
    const int32_t r1 = si.region0_count[gc] + si.region1_count[gc] + 1;
    bound[0] = sfb_long[si.region0_count[gc]] + 1;
    bound[1] = (r1 < SFB_LONG_BANDS ? sfb_long[r1] : 575) + 1;
  } else {
    // Region 0 of a mixed block is its long part, 36 lines at every rate.
    bound[0] = si.block_type[gc] != 2 ? sfb_long[7] + 1 : si.mixed_block[gc] ? 36 : l3.sfb_short[2] * 3 + 3;
    bound[1] = big_end;
  }
  bound[0] = bound[0] < big_end ? bound[0] : big_end;
  bound[1] = bound[1] < big_end ? bound[1] : big_end;
  bound[2] = big_end;

  int32_t pos = 0;
  int32_t x = 0, y = 0;
  for (int32_t r = 0; r < 3; ++r) {
    const int32_t table = si.table_select[gc][r];
    if (pos >= bound[r]) continue;
    if (table == 0) {
      // Table 0 codes no bits and only zeros.
      std::memset(q + pos, 0, size_t(bound[r] - pos) * sizeof(int32_t));
      pos = (bound[r] + 1) & ~1;
      x = y = 0;
    } else if (!huffman_lists[table]) {
      s.damaged = 1;
      pos = repeat_pairs(c, pos, bound[r], q, x, y);
    } else if (linbits_table[table & 31]) {
      pos = decode_pairs<true>(c, table, pos, bound[r], q, x, y);
    } else {
      pos = decode_pairs<false>(c, table, pos, bound[r], q, x, y);
    }
  }

  // Count-1 quads until the granule's bits are used up. A quad that ends beyond them is not part of
  // the granule and is dropped.
  const int32_t quad_table = 32 + si.count1table_select[gc];
  BitCache b(c.ring, c.pos);
  int32_t used = int32_t((b.pos() - huffman_start) & RESERVOIR_BIT_MASK);
  const uint16_t* quad_fast = huffman_fast[quad_table];
  while (pos < 576 && used < target) {
    b.refill();
    const uint32_t window = b.top();
    const uint32_t hit = quad_fast[window >> (32 - HUFFMAN_FAST_BITS)];
    const uint32_t w = hit ? hit : find_word8(quad_table, window & 0xFFFFE000u);
    // At most 6 code bits and 4 sign bits: all within the window.
    int32_t n = int32_t((w >> 8) & 31);
    uint32_t rest = window << n;
    for (int32_t k = 0; k < 4; ++k) {
      const int32_t has = (w >> (7 - k)) & 1;
      const int32_t neg = -int32_t((rest >> 31) & uint32_t(has));
      rest <<= has;
      n += has;
      q[pos + k] = (has ^ neg) - neg;
    }
    b.skip(n);
    used += n;
    pos += 4;
    if (used > target) {
      pos -= 4;
      q[pos] = q[pos + 1] = q[pos + 2] = q[pos + 3] = 0;
    }
  }
  if (pos > 576) pos = 576;
  l3.line_count[ch] = pos;
  std::memset(q + pos, 0, size_t(578 - pos) * sizeof(int32_t));
  // Whatever the loops consumed, the next granule starts where this one's length says.
  bits.bits = (granule_start + uint32_t(si.part2_3_length[gc])) & RESERVOIR_BIT_MASK;
}

}  // namespace decoder
