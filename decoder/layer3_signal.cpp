// Layer III signal path: quantised lines to subband samples, then the synthesis.
//
// Dequantisation is a table look-up times a band gain that changes only at band ends. Both channels
// are dequantised in stream order; the stereo pass works line by line on that order, and short blocks
// are then reordered so that each subband holds its three windows of 6 lines. The 36-point inverse
// transform is an 18-point DCT-IV: neighbour additions turn it into a DCT-III, which splits into two
// 9-point transforms; the window, the sign of each output and the DCT-IV's output factors are folded
// into one multiplier per output (layer3_tables.inc). The short transform is the same scheme at 12
// points. Frequency inversion happens as the outputs are written.
#include <cstring>

#include "decoder/layer3.h"
#include "decoder/layer3_tables.h"
#include "decoder/synth.h"
#include "decoder/tables.h"

namespace decoder {

namespace {

inline bool is_short_block(const SideInfo& si, int32_t gc) { return si.window_switching[gc] && si.block_type[gc] == 2; }

inline float band_gain(int32_t e) { return e >= 0 && e <= 254 ? gain_table[e] : 0.0f; }

// The Huffman decoder bounds every line to +-POW43_MAX.
inline float pow43(int32_t q) { return pow43_table[q + POW43_MAX]; }

// Dequantises one channel's lines [0, line_count) in stream order into dst; the rest is zero.
void dequantise_lines(const Layer3State& l3, int32_t gr, int32_t ch, float* dst) {
  const SideInfo& si = l3.side;
  const int32_t gc = gr * 2 + ch;
  const int32_t* q = l3.quant_lines[ch];
  const int32_t n = l3.line_count[ch];
  const int32_t shift = 1 + si.scalefac_scale[gc];
  const int32_t base = si.global_gain[gc] - 210 + 127;
  const int32_t* sfb_long = l3.sfb_long;
  const int32_t* sl = l3.scalefac_long[gc];
  int32_t pos = 0;
  if (!is_short_block(si, gc) || si.mixed_block[gc]) {
    // Long bands; for a mixed block only those below line 36. pretab is 0 on a mixed block's long
    // bands, so preflag has no effect there.
    const int32_t end_line = is_short_block(si, gc) ? 36 : 576;
    const int32_t pre = si.preflag[gc];
    for (int32_t b = 0; pos < n && pos < end_line; ++b) {
      const float g = band_gain(base - ((sl[b] + pre * pretab[b]) << shift));
      const int32_t end = sfb_long[b] + 1 < n ? sfb_long[b] + 1 : n;
#pragma GCC unroll 4
      for (; pos < end; ++pos) dst[pos] = pow43(q[pos]) * g;
    }
  }
  if (is_short_block(si, gc)) {
    const int32_t* sfb_short = l3.sfb_short;
    const int32_t* ss = l3.scalefac_short[gc];
    int32_t b = si.mixed_block[gc] ? 3 : 0;
    pos = b ? 36 : 0;
    for (; b < SFB_SHORT_BANDS && pos < n; ++b) {
      const int32_t width = sfb_short[b] - (b ? sfb_short[b - 1] : -1);
      for (int32_t w = 0; w < 3; ++w) {
        const float g = band_gain(base - 8 * si.subblock_gain[gc][w] - (ss[b * 3 + w] << shift));
        const int32_t end = pos + width < n ? pos + width : n;
#pragma GCC unroll 4
        for (; pos < end; ++pos) dst[pos] = pow43(q[pos]) * g;
      }
    }
  }
  if (pos < n) pos = n;  // cannot happen: the bands cover all 576 lines
  std::memset(dst + pos, 0, size_t(576 - pos) * sizeof(float));
}

// Moves a short block's stream-order lines into their subband places; a mixed block keeps its first
// 36 lines where they are.
void reorder_short(const Layer3State& l3, int32_t gc, float* lines) {
  alignas(16) float tmp[576];
  std::memcpy(tmp, lines, sizeof tmp);
  const int16_t* place = short_reorder[l3.table_row];
  for (int32_t i = l3.side.mixed_block[gc] ? 36 : 0; i < 576; ++i) lines[place[i]] = tmp[i];
}

constexpr float INV_SQRT2 = 0.70710677f;

inline void mid_side(float* l, float* r, int32_t from, int32_t to) {
  for (int32_t i = from; i < to; ++i) {
    const float m = l[i], s = r[i];
    l[i] = (m + s) * INV_SQRT2;
    r[i] = (m - s) * INV_SQRT2;
  }
}

// One intensity band, lines [from, to): position p from channel 1's scale factor. An illegal
// position makes the band an ordinary one (mid/side or plain as mode_ext says): 7 in MPEG-1 (and the
// values above it, which four-bit scale factors can hold but which name no position), the band's
// largest scale factor value (limit) in LSF.
inline void intensity_band(const Layer3State& l3, const format::FrameHeader& h, float* l, float* r, int32_t from,
                           int32_t to, int32_t p, int32_t limit, bool ms) {
  if (h.id ? p >= 7 : p == limit) {
    if (ms) mid_side(l, r, from, to);
    return;
  }
  if (h.id) {
    const float kr = is_ratio_table[p];
    const float kl = 1.0f - kr;
    for (int32_t i = from; i < to; ++i) {
      const float x = l[i];
      l[i] = x * kl;
      r[i] = x * kr;
    }
    return;
  }
  const float* t = lsf_intensity_table[l3.intensity_scale & 1];
  if (p & 1) {
    const float k = t[((p + 1) >> 1) & 31];
    for (int32_t i = from; i < to; ++i) {
      r[i] = l[i];
      l[i] *= k;
    }
  } else {
    const float k = t[(p >> 1) & 31];
    for (int32_t i = from; i < to; ++i) r[i] = l[i] * k;
  }
}

// Last non-zero line of channel 1 below its line count, or 0.
int32_t last_nonzero(const int32_t* q, int32_t from, int32_t to) {
  for (int32_t i = to - 1; i >= from; --i)
    if (q[i]) return i;
  return -1;
}

// First long band whose last line is at or above line.
inline int32_t long_band_of(const int32_t* sfb_long, int32_t line) {
  int32_t b = 0;
  while (b < SFB_LONG_BANDS - 1 && sfb_long[b] < line) ++b;
  return b;
}

// active_subbands from a line count c.
int32_t active_from(const Layer3State& l3, bool short_block, int32_t c) {
  if (!short_block) return (c - 1) / 18 + 1;
  const int32_t* sfb_short = l3.sfb_short;
  for (int32_t b = 0; b < SFB_SHORT_BANDS; ++b)
    if (sfb_short[b] * 3 + 2 >= c - 1) return (sfb_short[b] - 1) / 6 + 1;
  return 32;
}

}  // namespace

void dequantise(Layer3State& l3, int32_t gr, int32_t ch) {
  float* lines = l3.hybrid_in[ch];
  dequantise_lines(l3, gr, ch, lines);
  if (is_short_block(l3.side, gr * 2 + ch)) reorder_short(l3, gr * 2 + ch, lines);
  l3.active_subbands = 32;
}

void dequantise_stereo(Layer3State& l3, const format::FrameHeader& h, int32_t gr) {
  const SideInfo& si = l3.side;
  const int32_t g0 = gr * 2, g1 = gr * 2 + 1;
  float* l = l3.hybrid_in[0];
  float* r = l3.hybrid_in[1];
  dequantise_lines(l3, gr, 0, l);
  dequantise_lines(l3, gr, 1, r);
  const bool ms = h.mode_ext != 1;
  const bool intensity = h.mode_ext & 1;
  const int32_t lc0 = l3.line_count[0], lc1 = l3.line_count[1];
  const bool short0 = is_short_block(si, g0);

  // Rows to transform: enough for the higher of the two line counts in either channel's layout.
  const int32_t c = lc0 > lc1 ? lc0 : lc1;
  const int32_t a0 = active_from(l3, short0, c), a1 = active_from(l3, is_short_block(si, g1), c);
  l3.active_subbands = a0 > a1 ? a0 : a1;
  if (!intensity) {
    if (ms) mid_side(l, r, 0, c);  // above c both channels are zero
  } else {
    const int32_t* sfb_long = l3.sfb_long;
    const int32_t* q1 = l3.quant_lines[1];
    const int32_t* limit = l3.intensity_limit;
    if (!is_short_block(si, g1)) {
      // Long block: the band holding channel 1's last non-zero line ends the plain part. With no
      // such line every band is an intensity band.
      const int32_t last = last_nonzero(q1, 0, lc1);
      const int32_t first_band = last < 0 ? -1 : long_band_of(sfb_long, last);
      if (ms && last >= 0) mid_side(l, r, 0, sfb_long[first_band] + 1);
      // The top band has no scale factor of its own and takes the position of the band below.
      const int32_t* sl1 = l3.scalefac_long[g1];
      for (int32_t b = first_band + 1; b < SFB_LONG_BANDS; ++b) {
        const int32_t k = b < SFB_LONG_BANDS - 1 ? b : b - 1;
        intensity_band(l3, h, l, r, b ? sfb_long[b - 1] + 1 : 0, sfb_long[b] + 1, sl1[k], limit[k], ms);
      }
    } else {
      // Short block: per window, the first band above the last one holding a non-zero line.
      const int32_t* sfb_short = l3.sfb_short;
      const bool mixed = si.mixed_block[g1];
      const int32_t first_short = mixed ? 3 : 0;
      int32_t start[SFB_SHORT_BANDS + 1];
      start[0] = 0;
      for (int32_t b = 0; b < SFB_SHORT_BANDS; ++b) start[b + 1] = (sfb_short[b] + 1) * 3;
      int32_t bound_band[3] = {-1, -1, -1};
      for (int32_t w = 0; w < 3; ++w)
        for (int32_t b = SFB_SHORT_BANDS - 1; b >= first_short && bound_band[w] < 0; --b) {
          const int32_t width = (start[b + 1] - start[b]) / 3;
          const int32_t from = start[b] + w * width;
          if (from < lc1 && last_nonzero(q1, from, from + width < lc1 ? from + width : lc1) >= 0) bound_band[w] = b + 1;
        }
      int32_t long_bound = 0;
      if (mixed) {
        if (bound_band[0] < 0 && bound_band[1] < 0 && bound_band[2] < 0) {
          // Nothing in the short part: the long search over the first 36 lines decides.
          const int32_t last = last_nonzero(q1, 0, lc1 < 36 ? lc1 : 36);
          long_bound = last < 0 ? 0 : sfb_long[long_band_of(sfb_long, last)] + 1;
        } else {
          long_bound = 36;
        }
        for (int32_t w = 0; w < 3; ++w)
          if (bound_band[w] < 0) bound_band[w] = 3;
      } else {
        for (int32_t w = 0; w < 3; ++w)
          if (bound_band[w] < 0) bound_band[w] = 0;
      }
      if (mixed) {
        if (ms) mid_side(l, r, 0, long_bound);
        const int32_t* sl1 = l3.scalefac_long[g1];
        for (int32_t b = 0; sfb_long[b] < 36; ++b) {
          const int32_t from = b ? sfb_long[b - 1] + 1 : 0;
          if (from >= long_bound) intensity_band(l3, h, l, r, from, sfb_long[b] + 1, sl1[b], limit[b], ms);
        }
      }
      // Each window has its own bound; the top band takes the position of the band below.
      const int32_t* ss1 = l3.scalefac_short[g1];
      const int32_t* limit_short = l3.intensity_limit_short;
      for (int32_t b = first_short; b < SFB_SHORT_BANDS; ++b) {
        const int32_t width = (start[b + 1] - start[b]) / 3;
        const int32_t k = b < SFB_SHORT_BANDS - 1 ? b : b - 1;
        for (int32_t w = 0; w < 3; ++w) {
          const int32_t from = start[b] + w * width;
          if (b < bound_band[w]) {
            if (ms) mid_side(l, r, from, from + width);
          } else {
            intensity_band(l3, h, l, r, from, from + width, ss1[k * 3 + w], limit_short[k], ms);
          }
        }
      }
    }
  }
  if (short0) reorder_short(l3, g0, l);
  if (is_short_block(si, g1)) reorder_short(l3, g1, r);
}

void alias_reduce(float* x, int32_t boundaries) {
  static constexpr float cs[8] = {0.8574929f, 0.881742f,  0.94962865f, 0.9833146f,
                                  0.9955178f, 0.9991606f, 0.9998992f,  0.99999315f};
  static constexpr float ca[8] = {-0.51449573f, -0.47173196f,  -0.31337744f,  -0.1819132f,
                                  -0.09457419f, -0.040965583f, -0.014198569f, -0.0036999746f};
  for (int32_t sb = 1; sb <= boundaries; ++sb) {
    float* up = x + sb * 18 - 1;  // top lines of the subband below, going down
    float* down = x + sb * 18;    // bottom lines of this subband, going up
    for (int32_t i = 0; i < 8; ++i) {
      const float bu = up[-i], bd = down[i];
      up[-i] = bu * cs[i] - bd * ca[i];
      down[i] = bd * cs[i] + bu * ca[i];
    }
  }
}

namespace {

// Four floats in one register; the compiler's vector extension, so that the same source builds on
// any target. Each lane goes through the same operations in the same order as scalar code would,
// so results do not depend on the lane width.
using Float4 = float __attribute__((vector_size(16)));

inline Float4 load4(const float* p) {
  Float4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store4(float* p, Float4 v) { std::memcpy(p, &v, sizeof v); }

// 9-point DCT-III: e[m] = a[0] + sum over j of a[j] cos(j (2m+1) pi/18), m = 0-8. The two transforms
// of the 36-point transform run side by side in lanes 0 and 1.
inline void dct9(const Float4* a, Float4* e) {
  constexpr float c10 = 0.98480775f, c20 = 0.93969262f, c30 = 0.86602540f, c40 = 0.76604444f;
  constexpr float c50 = 0.64278761f, c70 = 0.34202014f, c80 = 0.17364818f;
  const Float4 a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3], a4 = a[4], a5 = a[5], a6 = a[6], a7 = a[7], a8 = a[8];
  const Float4 t = a0 + 0.5f * a6;
  const Float4 ev0 = t + a2 * c20 + a4 * c40 + a8 * c80;
  const Float4 od0 = a1 * c10 + a3 * c30 + a5 * c50 + a7 * c70;
  const Float4 ev1 = a0 + 0.5f * (a2 - a4 - a8) - a6;
  const Float4 od1 = c30 * (a1 - a5 - a7);
  const Float4 ev2 = t - a2 * c80 - a4 * c20 + a8 * c40;
  const Float4 od2 = a1 * c50 - a3 * c30 - a5 * c70 + a7 * c10;
  const Float4 ev3 = t - a2 * c40 + a4 * c80 - a8 * c20;
  const Float4 od3 = a1 * c70 - a3 * c30 + a5 * c10 - a7 * c50;
  e[0] = ev0 + od0;
  e[8] = ev0 - od0;
  e[1] = ev1 + od1;
  e[7] = ev1 - od1;
  e[2] = ev2 + od2;
  e[6] = ev2 - od2;
  e[3] = ev3 + od3;
  e[5] = ev3 - od3;
  e[4] = a0 - a2 + a4 - a6 + a8;
}

}  // namespace

void imdct36(float* in, float* out, float* overlap, int32_t kind) {
  // Neighbour additions, then the running sum over the odd ones.
  float x[20];
  x[0] = in[0];
  for (int32_t k = 1; k < 17; k += 4) store4(x + k, load4(in + k) + load4(in + k - 1));
  x[17] = in[17] + in[16];
  Float4 pairs[9];  // lane 0: the even inputs, lane 1: the odd ones
  pairs[0] = Float4{x[0], x[1], 0.0f, 0.0f};
#pragma GCC unroll 8
  for (int32_t j = 1; j < 9; ++j) pairs[j] = Float4{x[2 * j], x[2 * j + 1] + x[2 * j - 1], 0.0f, 0.0f};
  Float4 es[9];
  dct9(pairs, es);
  // The odd half's outputs take 1/(2cos((2m+1)pi/36)); Z[m] and Z[17-m] are their sum and difference
  // with the even half's. Output i of the 36 takes Z[i + 9] for i < 9, Z[26 - i] up to 26, Z[i - 27]
  // above; laid out here in two runs of 18 so that the windowing runs straight.
  static constexpr float odd_factor[9] = {0.50190991f, 0.51763809f, 0.55168896f, 0.61038729f, 0.70710678f,
                                          0.87172340f, 1.18310079f, 1.93185165f, 5.73685662f};
  alignas(16) float first[20], second[20];
#pragma GCC unroll 9
  for (int32_t m = 0; m < 9; ++m) {
    const float e = es[m][0];
    const float o = es[m][1] * odd_factor[m];
    first[8 - m] = e - o;   // Z[17 - m]
    first[9 + m] = e - o;   // Z[17 - m]
    second[8 - m] = e + o;  // Z[m]
    second[9 + m] = e + o;  // Z[m]
  }
  const float* w = imdct_window[kind];
  for (int32_t i = 0; i < 16; i += 4) {
    store4(out + i, load4(first + i) * load4(w + i) + load4(overlap + i));
    store4(overlap + i, load4(second + i) * load4(w + 18 + i));
  }
  for (int32_t i = 16; i < 18; ++i) {
    out[i] = first[i] * w[i] + overlap[i];
    overlap[i] = second[i] * w[18 + i];
  }
}

namespace {

// 12-point transform of 6 lines (stride 1): 12 windowed outputs.
inline void imdct12(const float* in, float* out) {
  float x0 = in[0], x1 = in[1], x2 = in[2], x3 = in[3], x4 = in[4], x5 = in[5];
  x5 += x4;
  x4 += x3;
  x3 += x2;
  x2 += x1;
  x1 += x0;
  x5 += x3;
  x3 += x1;
  constexpr float c30 = 0.8660254f;
  const float e0 = x0 + 0.5f * x4 + c30 * x2, e1 = x0 - x4, e2 = x0 + 0.5f * x4 - c30 * x2;
  const float s0 = x1 + 0.5f * x5 + c30 * x3, s1 = x1 - x5, s2 = x1 + 0.5f * x5 - c30 * x3;
  const float o0 = s0 * 0.5176381f, o1 = s1 * 0.70710677f, o2 = s2 * 1.9318516f;
  float z[6];
  z[0] = e0 + o0;
  z[5] = e0 - o0;
  z[1] = e1 + o1;
  z[4] = e1 - o1;
  z[2] = e2 + o2;
  z[3] = e2 - o2;
  const float* w = imdct_short_window;
  // Output i takes Z[i + 3] for i < 3, Z[8 - i] up to 8, Z[i - 9] above.
  for (int32_t i = 0; i < 3; ++i) {
    out[i] = z[i + 3] * w[i];
    out[i + 3] = z[5 - i] * w[i + 3];
    out[i + 6] = z[2 - i] * w[i + 6];
    out[i + 9] = z[i] * w[i + 9];
  }
}

}  // namespace

void imdct12x3(const float* in, float* out, float* overlap) {
  float a[12], b[12], c[12];
  imdct12(in, a);
  imdct12(in + 6, b);
  imdct12(in + 12, c);
  // Windows at offsets 6, 12 and 18 of a 36-value block: the first 18 join the overlap.
  for (int32_t i = 0; i < 6; ++i) {
    out[i] = overlap[i];
    out[i + 6] = a[i] + overlap[i + 6];
    out[i + 12] = (a[i + 6] + b[i]) + overlap[i + 12];
    overlap[i] = b[i + 6] + c[i];
    overlap[i + 6] = c[i + 6];
    overlap[i + 12] = 0.0f;
  }
}

namespace {

// Frequency inversion of a transformed subband in subband_samples: odd slots of odd subbands are
// negated.
inline void invert_row(float (&subband_samples)[32][18], int32_t sb) {
  if (sb & 1) {
    float* row = subband_samples[sb];
    for (int32_t i = 1; i < 18; i += 2) row[i] = -row[i];
  }
}

// True when the subband's 18 lines are all zero (either sign).
inline bool silent_row(const float* lines) {
  uint32_t any = 0;
  for (int32_t i = 0; i < 18; ++i) {
    uint32_t b;
    std::memcpy(&b, lines + i, 4);
    any |= b << 1;
  }
  return any == 0;
}

// A silent row transforms to nothing: its output is the overlap alone, and no overlap remains.
inline void pass_overlap(float* t, float* overlap) {
  std::memcpy(t, overlap, 18 * sizeof(float));
  std::memset(overlap, 0, 18 * sizeof(float));
}

void transform_channel(DecoderState& s, int32_t gr, int32_t ch) {
  Layer3State& l3 = s.l3;
  float(&subband_samples)[32][18] = s.subband_samples;
  const SideInfo& si = l3.side;
  const int32_t gc = gr * 2 + ch;
  float* lines = l3.hybrid_in[ch];
  float(*overlap)[18] = l3.overlap[ch];
  const int32_t active = l3.active_subbands < 1 ? 1 : l3.active_subbands > 32 ? 32 : l3.active_subbands;
  if (is_short_block(si, gc)) {
    // Short windows have no aliasing to reduce; a mixed block reduces between its two long subbands.
    const int32_t long_rows = si.mixed_block[gc] ? 2 : 0;
    if (long_rows) alias_reduce(lines, 1);
    const int32_t rows = active > long_rows ? active : long_rows;
    int32_t sb = 0;
    for (; sb < rows; ++sb) {
      float* t = subband_samples[sb];
      if (silent_row(lines + sb * 18))
        pass_overlap(t, overlap[sb]);
      else if (sb < long_rows)
        imdct36(lines + sb * 18, t, overlap[sb], 0);
      else
        imdct12x3(lines + sb * 18, t, overlap[sb]);
      invert_row(subband_samples, sb);
    }
    // Above the active rows only the overlap remains: it goes out as it is and is cleared.
    for (; sb < 32; ++sb) {
      pass_overlap(subband_samples[sb], overlap[sb]);
      invert_row(subband_samples, sb);
    }
    return;
  }
  // Alias reduction reaches one subband past the active ones; the rows above hold no lines.
  const int32_t rows = active < 32 ? active + 1 : 32;
  alias_reduce(lines, rows - 1);
  // Block type 1 is the start window, 3 (and the reserved 0 with window switching) the stop window.
  const int32_t kind = !si.window_switching[gc] ? 0 : si.block_type[gc] == 1 ? 1 : 2;
  int32_t sb = 0;
  for (; sb < rows; ++sb) {
    float* t = subband_samples[sb];
    if (silent_row(lines + sb * 18))
      pass_overlap(t, overlap[sb]);
    else
      imdct36(lines + sb * 18, t, overlap[sb], kind);
    invert_row(subband_samples, sb);
  }
  // Silent rows: their output is the overlap alone.
  for (; sb < 32; ++sb) {
    pass_overlap(subband_samples[sb], overlap[sb]);
    invert_row(subband_samples, sb);
  }
}

}  // namespace

void decode_granule_signal(DecoderState& s, const format::FrameHeader& h, int32_t gr) {
  Layer3State& l3 = s.l3;
  float(&subband_samples)[32][18] = s.subband_samples;
  const int32_t channels = h.mode == 3 ? 1 : 2;
  if (h.mode == 1 && h.mode_ext != 0) {
    dequantise_stereo(l3, h, gr);
  } else {
    for (int32_t ch = 0; ch < channels; ++ch) dequantise(l3, gr, ch);
  }
  const int32_t out = l3.out_channels ? l3.out_channels : channels;
  if (channels == out) {
    for (int32_t ch = channels - 1; ch >= 0; --ch) {
      transform_channel(s, gr, ch);
      s.synth(s, ch);
    }
  } else if (out == 2) {
    // A mono frame in a stereo stream plays in both channels. Channel 1 takes channel 0's overlap
    // too, so that it goes on without a seam when the stream turns stereo again. The synthesis may
    // treat the samples in place (emphasis): each channel gets them fresh.
    transform_channel(s, gr, 0);
    std::memcpy(l3.overlap[1], l3.overlap[0], sizeof l3.overlap[0]);
    alignas(16) float mono[32][18];
    std::memcpy(mono, subband_samples, sizeof mono);
    s.synth(s, 1);
    std::memcpy(subband_samples, mono, sizeof mono);
    s.synth(s, 0);
  } else {
    // A stereo frame in a mono stream: the mean of the two channels.
    transform_channel(s, gr, 1);
    alignas(16) float right[32][18];
    std::memcpy(right, subband_samples, sizeof right);
    transform_channel(s, gr, 0);
    for (int32_t sb = 0; sb < 32; ++sb)
      for (int32_t t = 0; t < 18; ++t) subband_samples[sb][t] = (subband_samples[sb][t] + right[sb][t]) * 0.5f;
    s.synth(s, 0);
  }
}

}  // namespace decoder
