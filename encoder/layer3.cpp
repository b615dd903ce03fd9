// Layer III: the hybrid filter bank (polyphase analysis, then an MDCT of 18 or 3 x 6 lines per
// subband with the standard's windows and alias butterflies), block switching from model 2's
// perceptual entropy, mid/side stereo, the quantisation loops (global gain by bisection, scale
// factors raised where noise exceeds the mask), Huffman coding, and the frames with their main
// data placed in the reservoir of earlier frames.
//
// Band tables and Huffman code lists are the decoder's own (decoder/layer3_tables.h): a stream is
// read with exactly the bands and codes it was written with.
#include <cmath>
#include <cstring>

#include "decoder/layer3_tables.h"
#include "encoder/l12.h"
#include "format/bit_writer.h"
#include "format/crc16.h"

namespace encoder {

namespace {

constexpr int32_t BLOCK_LONG = 0, BLOCK_START = 1, BLOCK_SHORT = 2, BLOCK_STOP = 3;
constexpr int32_t MAX_QUANT = 8191 + 15;  // largest magnitude a Huffman table with linbits 13 codes

// ---------------------------------------------------------------------------------------------
// Fixed tables, built once per process from formulas and the decoder's code lists.

struct Tables {
  float win[4][36];     // windows of block types 0 to 3 (type 2 uses the first 12)
  float cos_l[36][18];  // long MDCT [input][line], with the 1/9 that makes the inverse exact
  float cos_s[12][6];   // short MDCT [input][line], with 1/3
  float cs[8], ca[8];   // alias butterflies
  float pow43[MAX_QUANT + 1];
  float step[256];    // 2^(g/4) for g = index - 210: the quantiser's step
  float step34[256];  // 2^(-3g/16): its inverse to the power 3/4
  // Huffman codes and lengths of pairs [table][x][y] (x, y at most 15), quadruples [table - 32][v].
  uint32_t code[32][16][16];
  uint8_t len[32][16][16];
  uint8_t qcode[2][16];
  uint8_t qlen[2][16];
  int32_t xlen[32];
};

Tables make_tables() {
  Tables t{};
  for (int32_t i = 0; i < 36; ++i) {
    float s36 = float(std::sin(M_PI / 36 * (i + 0.5)));
    t.win[0][i] = s36;
    t.win[1][i] = i < 18 ? s36 : i < 24 ? 1.0f : i < 30 ? float(std::sin(M_PI / 12 * (i - 18 + 0.5))) : 0.0f;
    t.win[3][i] = i < 6 ? 0.0f : i < 12 ? float(std::sin(M_PI / 12 * (i - 6 + 0.5))) : i < 18 ? 1.0f : s36;
    t.win[2][i] = i < 12 ? float(std::sin(M_PI / 12 * (i + 0.5))) : 0.0f;
  }
  for (int32_t k = 0; k < 18; ++k)
    for (int32_t n = 0; n < 36; ++n) t.cos_l[n][k] = float(std::cos(M_PI / 72 * (2 * n + 19) * (2 * k + 1)) / 9.0);
  for (int32_t k = 0; k < 6; ++k)
    for (int32_t n = 0; n < 12; ++n) t.cos_s[n][k] = float(std::cos(M_PI / 24 * (2 * n + 7) * (2 * k + 1)) / 3.0);
  static constexpr double CI[8] = {-0.6, -0.535, -0.33, -0.185, -0.095, -0.041, -0.0142, -0.0037};
  for (int32_t i = 0; i < 8; ++i) {
    double sq = std::sqrt(1.0 + CI[i] * CI[i]);
    t.cs[i] = float(1.0 / sq);
    t.ca[i] = float(CI[i] / sq);
  }
  for (int32_t i = 0; i <= MAX_QUANT; ++i) t.pow43[i] = float(std::pow(double(i), 4.0 / 3.0));
  for (int32_t g = 0; g < 256; ++g) {
    t.step[g] = float(std::pow(2.0, (g - 210) / 4.0));
    t.step34[g] = float(std::pow(2.0, -0.1875 * (g - 210)));
  }
  for (int32_t tab = 1; tab < 34; ++tab) {
    const uint32_t* list = decoder::huffman_lists[tab];
    if (!list) continue;
    for (int32_t i = 0; i < decoder::huffman_list_size[tab]; ++i) {
      uint32_t w = list[i];
      if (w == 0xFFFFFFFFu) continue;
      int32_t n = int32_t((w >> 8) & 31);
      if (n == 0) continue;
      uint32_t c = w >> (32 - n);
      if (tab >= 32) {
        int32_t v = int32_t((w >> 4) & 15);
        t.qcode[tab - 32][v] = uint8_t(c);
        t.qlen[tab - 32][v] = uint8_t(n);
      } else {
        int32_t x = int32_t((w >> 4) & 15), y = int32_t(w & 15);
        t.code[tab][x][y] = c;
        t.len[tab][x][y] = uint8_t(n);
        if (x + 1 > t.xlen[tab]) t.xlen[tab] = x + 1;
      }
    }
  }
  return t;
}

const Tables& tables() {
  static const Tables t = make_tables();
  return t;
}

// Region counts by the number of long bands the big values cover (ISO 11172-3's subdivision).
constexpr int8_t SUBDV[23][2] = {{0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 1}, {1, 1}, {1, 1},
                                 {1, 2}, {2, 2}, {2, 3}, {2, 3}, {3, 4}, {3, 4}, {3, 4}, {4, 5},
                                 {4, 5}, {4, 6}, {5, 6}, {5, 6}, {5, 7}, {6, 7}, {6, 7}};

// Line cutoff by channels, ID and bit rate index (4 to 10 and up): the coded bandwidth at low bit
// rates, where the bits are better spent on fewer lines.
constexpr int16_t CUTOFF[4][7] = {{504, 576, 576, 576, 576, 576, 576},
                                  {288, 306, 432, 432, 450, 540, 576},
                                  {522, 576, 576, 576, 576, 576, 576},
                                  {216, 216, 252, 288, 486, 576, 576}};

// ---------------------------------------------------------------------------------------------
// One granule of one channel while it is coded.

struct Granule {
  int32_t block_type = 0;
  int32_t part2_3 = 0;
  int32_t part2 = 0;
  int32_t big_values = 0;
  int32_t count1 = 0;
  int32_t global_gain = 210;
  int32_t scalefac_compress = 0;
  int32_t table[3] = {};
  int32_t region0 = 0, region1 = 0;
  int32_t count1table = 0;
  int32_t slen[4] = {};
  int32_t sf_l[22] = {};
  int32_t sf_s[13][3] = {};
  int32_t ix[576] = {};
};

// Band layout of one granule for quantisation: bands in stream order, each a run of lines with
// its scale factor (long band, or short band and window).
struct Bands {
  int32_t count;
  int32_t start[40];
  int32_t end[40];
  int32_t sfb[40];
  int32_t win[40];  // -1 for long
};

void make_bands(const int32_t* long_start, const int32_t* short_start, bool short_block, Bands& b) {
  b.count = 0;
  if (!short_block) {
    for (int32_t i = 0; i < 22; ++i) {
      b.start[b.count] = long_start[i];
      b.end[b.count] = long_start[i + 1];
      b.sfb[b.count] = i;
      b.win[b.count++] = -1;
    }
    return;
  }
  for (int32_t i = 0; i < 13; ++i) {
    int32_t w = short_start[i + 1] - short_start[i];
    for (int32_t k = 0; k < 3; ++k) {
      b.start[b.count] = 3 * short_start[i] + k * w;
      b.end[b.count] = b.start[b.count] + w;
      b.sfb[b.count] = i;
      b.win[b.count++] = k;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Bit counting and table choice.

int32_t pair_bits(const int32_t* ix, int32_t begin, int32_t end, int32_t tab) {
  if (tab == 0) return 0;
  const Tables& t = tables();
  const int32_t lb = tab >= 16 ? decoder::linbits_table[tab] : 0;
  const uint8_t(*len)[16] = t.len[tab];
  int32_t bits = 0;
  for (int32_t i = begin; i < end; i += 2) {
    int32_t x = ix[i], y = ix[i + 1];
    if (x > 14) {
      x = 15;
      bits += lb;
    }
    if (y > 14) {
      y = 15;
      bits += lb;
    }
    bits += len[x][y] + (x != 0) + (y != 0);
  }
  return bits;
}

// The cheapest table for lines begin to end; its bits through *bits.
int32_t choose_table(const int32_t* ix, int32_t begin, int32_t end, int32_t* bits) {
  int32_t max = 0;
  for (int32_t i = begin; i < end; ++i) max = ix[i] > max ? ix[i] : max;
  *bits = 0;
  if (max == 0) return 0;
  int32_t best = -1, best_bits = 1 << 30;
  auto consider = [&](int32_t tab) {
    int32_t b = pair_bits(ix, begin, end, tab);
    if (b < best_bits) {
      best_bits = b;
      best = tab;
    }
  };
  if (max < 15) {
    static constexpr int8_t GROUPS[][3] = {{1, 0, 0}, {2, 3, 0}, {2, 3, 0},    {5, 6, 0},    {5, 6, 0},
                                           {7, 8, 9}, {7, 8, 9}, {10, 11, 12}, {10, 11, 12}, {13, 15, 0}};
    // Smallest table family whose alphabet holds max: 1 (0-1), 2/3 (0-2), 5/6 (0-3), 7-9 (0-5),
    // 10-12 (0-7), 13/15 (0-15).
    int32_t g = max <= 1 ? 0 : max <= 2 ? 1 : max <= 3 ? 3 : max <= 5 ? 5 : max <= 7 ? 7 : 9;
    for (int32_t k = 0; k < 3 && GROUPS[g][k]; ++k) consider(GROUPS[g][k]);
  } else {
    const int32_t need = max - 15;
    for (int32_t tab = 16; tab < 24; ++tab)
      if ((1 << decoder::linbits_table[tab]) - 1 >= need) {
        consider(tab);
        break;
      }
    for (int32_t tab = 24; tab < 32; ++tab)
      if ((1 << decoder::linbits_table[tab]) - 1 >= need) {
        consider(tab);
        break;
      }
  }
  *bits = best_bits;
  return best;
}

// Run lengths, regions, tables and the Huffman bits of a quantised granule (part 3 of its data).
int32_t count_bits(Granule& g, const int32_t* long_start) {
  const int32_t* ix = g.ix;
  int32_t end = 576;
  while (end > 1 && ix[end - 1] == 0 && ix[end - 2] == 0) end -= 2;
  int32_t count1 = 0;
  while (end >= 4 && ix[end - 1] <= 1 && ix[end - 2] <= 1 && ix[end - 3] <= 1 && ix[end - 4] <= 1) {
    end -= 4;
    ++count1;
  }
  g.count1 = count1;
  g.big_values = end / 2;
  int32_t bits = 0;
  // count1 table: A (variable) or B (four bits plus signs).
  const Tables& t = tables();
  int32_t a = 0, signs = 0;
  for (int32_t i = end; i < end + 4 * count1; i += 4) {
    int32_t v = ix[i] * 8 + ix[i + 1] * 4 + ix[i + 2] * 2 + ix[i + 3];
    a += t.qlen[0][v];
    signs += ix[i] + ix[i + 1] + ix[i + 2] + ix[i + 3];
  }
  g.count1table = a < 4 * count1 ? 0 : 1;
  bits += (a < 4 * count1 ? a : 4 * count1) + signs;
  if (g.block_type != BLOCK_LONG) {
    int32_t split = g.block_type == BLOCK_SHORT ? 36 : long_start[8];
    if (split > end) split = end;
    int32_t b0, b1;
    g.table[0] = choose_table(ix, 0, split, &b0);
    g.table[1] = choose_table(ix, split, end, &b1);
    g.table[2] = 0;
    return bits + b0 + b1;
  }
  int32_t bands = 0;
  while (long_start[bands] < end) ++bands;
  int32_t r0 = SUBDV[bands][0], r1 = SUBDV[bands][1];
  while (r0 > 0 && long_start[r0 + 1] > end) --r0;
  while (r1 > 0 && long_start[r0 + r1 + 2] > end) --r1;
  g.region0 = r0;
  g.region1 = r1;
  int32_t a1 = long_start[r0 + 1], a2 = long_start[r0 + r1 + 2];
  if (a1 > end) a1 = end;
  if (a2 > end) a2 = end;
  int32_t b0, b1, b2;
  g.table[0] = choose_table(ix, 0, a1, &b0);
  g.table[1] = choose_table(ix, a1, a2, &b1);
  g.table[2] = choose_table(ix, a2, end, &b2);
  return bits + b0 + b1 + b2;
}

// ---------------------------------------------------------------------------------------------
// Scale factors: their bits (part 2), or -1 when the values do not fit any compress code.

int32_t scale_bits(Granule& g, bool mpeg1, bool short_block) {
  int32_t m0 = 0, m1 = 0;
  if (mpeg1) {
    if (short_block) {
      for (int32_t b = 0; b < 12; ++b)
        for (int32_t w = 0; w < 3; ++w) (b < 6 ? m0 : m1) = std::max(b < 6 ? m0 : m1, g.sf_s[b][w]);
    } else {
      for (int32_t b = 0; b < 21; ++b) (b < 11 ? m0 : m1) = std::max(b < 11 ? m0 : m1, g.sf_l[b]);
    }
    int32_t best = -1, best_bits = 0;
    for (int32_t k = 0; k < 16; ++k) {
      if (m0 > decoder::slen1_mask[k] || m1 > decoder::slen2_mask[k]) continue;
      int32_t bits = short_block ? 18 * (decoder::slen1_table[k] + decoder::slen2_table[k])
                                 : 11 * decoder::slen1_table[k] + 10 * decoder::slen2_table[k];
      if (best < 0 || bits < best_bits) {
        best = k;
        best_bits = bits;
      }
    }
    if (best < 0) return -1;
    g.scalefac_compress = best;
    return best_bits;
  }
  // ISO 13818-3, no intensity stereo, no pre-emphasis: four groups of bands by block kind, widths
  // up to 4, 4, 3, 3 bits, compress = ((slen1 * 5 + slen2) << 4) + (slen3 << 2) + slen4.
  const int32_t* counts = decoder::lsf_sfb_counts[0][short_block ? 1 : 0];
  int32_t band = 0, bits = 0;
  for (int32_t p = 0; p < 4; ++p) {
    int32_t n = short_block ? counts[p] / 3 : counts[p], max = 0;
    for (int32_t i = 0; i < n; ++i, ++band)
      for (int32_t w = 0; w < (short_block ? 3 : 1); ++w)
        max = std::max(max, short_block ? g.sf_s[band][w] : g.sf_l[band]);
    int32_t slen = 0;
    while ((1 << slen) - 1 < max) ++slen;
    if (slen > (p < 2 ? 4 : 3)) return -1;
    g.slen[p] = slen;
    bits += slen * counts[p];
  }
  g.scalefac_compress = ((g.slen[0] * 5 + g.slen[1]) << 4) + (g.slen[2] << 2) + g.slen[3];
  return bits;
}

// ---------------------------------------------------------------------------------------------
// Quantisation.

// Quantises every band with the global gain and its scale factor; false when a magnitude is too
// large to code.
bool quantise(Granule& g, const float* xr34, const Bands& bands, const float* band_max, int32_t sf_shift) {
  const Tables& t = tables();
  const float base = t.step34[g.global_gain];
  for (int32_t b = 0; b < bands.count; ++b) {
    int32_t sf = bands.win[b] < 0 ? g.sf_l[bands.sfb[b]] : g.sf_s[bands.sfb[b]][bands.win[b]];
    // A scale factor lowers the step by 2^(-sf/2) (or 2^-sf), so the 3/4 power rises by
    // 2^(3 sf/8) (or 2^(3 sf/4)): an exact table index away.
    const float step = sf ? base * t.step34[210 - (sf << sf_shift)] : base;
    if (band_max[b] * step > float(MAX_QUANT)) return false;
    int32_t* ix = g.ix;
    for (int32_t i = bands.start[b]; i < bands.end[b]; ++i) ix[i] = int32_t(xr34[i] * step + 0.4054f);
  }
  return true;
}

// Noise over mask per band: counts the bands above their allowed noise and sums the excess in dB.
void noise(const Granule& g, const float* xr, const Bands& bands, const double* xmin, int32_t sf_shift, int32_t& over,
           double& over_db, bool* loud) {
  const Tables& t = tables();
  over = 0;
  over_db = 0.0;
  for (int32_t b = 0; b < bands.count; ++b) {
    int32_t sf = bands.win[b] < 0 ? g.sf_l[bands.sfb[b]] : g.sf_s[bands.sfb[b]][bands.win[b]];
    int32_t gi = g.global_gain - (sf << sf_shift);
    float step = t.step[gi < 0 ? 0 : gi];
    double n = 0.0;
    for (int32_t i = bands.start[b]; i < bands.end[b]; ++i) {
      double d = std::fabs(xr[i]) - double(t.pow43[g.ix[i]] * step);
      n += d * d;
    }
    loud[b] = n > xmin[b];
    if (loud[b]) {
      ++over;
      over_db += 10.0 * std::log10(n / (xmin[b] > 1e-30 ? xmin[b] : 1e-30));
    }
  }
}

// Finds the smallest global gain at or above `low` whose bits fit the budget (bits fall as the
// gain rises). The search starts at `hint`, steps outward by doubling distances until the answer is
// bracketed, then bisects: near a good hint that is a handful of quantisations instead of eight.
int32_t fit_gain(Granule& g, const float* xr34, const Bands& bands, const float* band_max, int32_t sf_shift,
                 int32_t budget, const int32_t* long_start, int32_t low, int32_t hint) {
  auto fits = [&](int32_t gain) {
    g.global_gain = gain;
    return quantise(g, xr34, bands, band_max, sf_shift) && count_bits(g, long_start) <= budget;
  };
  int32_t lo = low, hi = 255;
  if (hint >= low && hint < 255) {
    int32_t step = 1;
    if (fits(hint)) {
      hi = hint;
      while (hi - step >= lo) {
        if (!fits(hi - step)) {
          lo = hi - step + 1;
          break;
        }
        hi -= step;
        step *= 2;
      }
    } else {
      lo = hint + 1;
      while (lo + step < hi) {
        if (fits(lo + step)) {
          hi = lo + step;
          break;
        }
        lo += step + 1;
        step *= 2;
      }
    }
  }
  while (lo < hi) {
    int32_t mid = (lo + hi) >> 1;
    if (fits(mid))
      hi = mid;
    else
      lo = mid + 1;
  }
  g.global_gain = lo;
  quantise(g, xr34, bands, band_max, sf_shift);
  return count_bits(g, long_start);
}

// The loops for one granule and channel: xr in stream order, xmin the allowed noise per band.
void code_granule(Granule& g, const float* xr, const Bands& bands, const double* xmin, int32_t max_bits, bool mpeg1,
                  const int32_t* long_start, int32_t hint) {
  const bool short_block = g.block_type == BLOCK_SHORT;
  std::memset(g.ix, 0, sizeof g.ix);
  std::memset(g.sf_l, 0, sizeof g.sf_l);
  std::memset(g.sf_s, 0, sizeof g.sf_s);
  g.global_gain = 210;
  g.part2 = scale_bits(g, mpeg1, short_block);
  float xr34[576];
  bool any = false;
  for (int32_t i = 0; i < 576; ++i) {
    float a = std::fabs(xr[i]);
    xr34[i] = std::sqrt(a * std::sqrt(a));
    any = any || a > 0.0f;
  }
  float band_max[40];
  for (int32_t b = 0; b < bands.count; ++b) {
    band_max[b] = 0.0f;
    for (int32_t i = bands.start[b]; i < bands.end[b]; ++i) band_max[b] = std::max(band_max[b], xr34[i]);
  }
  if (!any || max_bits <= g.part2) {
    g.part2_3 = 0;
    count_bits(g, long_start);
    return;
  }
  const int32_t sf_shift = 1;  // scalefac_scale 0: a scale factor step is 2^(1/2) in amplitude
  count_bits(g, long_start);
  g.part2_3 = g.part2;
  Granule best = g;
  int32_t best_over = 1 << 30;
  double best_db = 0.0;
  int32_t low = 0;
  bool loud[40];
  for (int32_t pass = 0; pass < 24; ++pass) {
    int32_t part2 = scale_bits(g, mpeg1, short_block);
    if (part2 < 0) break;
    int32_t huff = fit_gain(g, xr34, bands, band_max, sf_shift, max_bits - part2, long_start, low, hint);
    if (huff > max_bits - part2) break;
    g.part2 = part2;
    g.part2_3 = part2 + huff;
    int32_t over;
    double over_db;
    noise(g, xr, bands, xmin, sf_shift, over, over_db, loud);
    if (over < best_over || (over == best_over && over_db < best_db)) {
      best = g;
      best_over = over;
      best_db = over_db;
    }
    if (over == 0) break;
    // Amplify the bands that are too noisy; the last band has no scale factor.
    bool all = true, any_up = false;
    for (int32_t b = 0; b < bands.count; ++b) {
      int32_t sfb = bands.sfb[b];
      bool has_sf = short_block ? sfb < 12 : sfb < 21;
      if (!has_sf) continue;
      int32_t& sf = bands.win[b] < 0 ? g.sf_l[sfb] : g.sf_s[sfb][bands.win[b]];
      if (loud[b]) {
        ++sf;
        any_up = true;
      }
      all = all && sf > 0;
    }
    if (!any_up || all) break;
    low = hint = g.global_gain;  // raising factors raises the bits: the gain only goes up from here
  }
  g = best;
}

// ---------------------------------------------------------------------------------------------
// The transform.

void mdct_subband(const float* z, int32_t block_type, float* out) {
  const Tables& t = tables();
  if (block_type != BLOCK_SHORT) {
    float x[36];
    for (int32_t n = 0; n < 36; ++n) x[n] = z[n] * t.win[block_type][n];
    // Each line's sum runs over n in order; the loop over lines is the one that vectorises.
    float sum[18] = {};
    for (int32_t n = 0; n < 36; ++n)
      for (int32_t k = 0; k < 18; ++k) sum[k] += x[n] * t.cos_l[n][k];
    std::memcpy(out, sum, sizeof sum);
    return;
  }
  for (int32_t w = 0; w < 3; ++w) {
    float x[12];
    for (int32_t n = 0; n < 12; ++n) x[n] = z[6 + 6 * w + n] * t.win[2][n];
    float sum[6] = {};
    for (int32_t n = 0; n < 12; ++n)
      for (int32_t k = 0; k < 6; ++k) sum[k] += x[n] * t.cos_s[n][k];
    for (int32_t k = 0; k < 6; ++k) out[3 * k + w] = sum[k];
  }
}

// 18 slots of subband samples to 576 lines; short blocks come out in stream order (band, window,
// line), the order the decoder reads them in.
void mdct_granule(float (*prev)[32], const float (*cur)[32], int32_t block_type, const int32_t* short_start,
                  float* xr) {
  const Tables& t = tables();
  float lines[32][18];
  for (int32_t sb = 0; sb < 32; ++sb) {
    float z[36];
    // Frequency inversion: odd subbands of odd slots change sign.
    for (int32_t n = 0; n < 18; ++n) {
      float sign = (sb & n & 1) ? -1.0f : 1.0f;
      z[n] = prev[n][sb] * sign;
      z[n + 18] = cur[n][sb] * sign;
    }
    mdct_subband(z, block_type, lines[sb]);
  }
  for (int32_t n = 0; n < 18; ++n)
    for (int32_t sb = 0; sb < 32; ++sb) prev[n][sb] = cur[n][sb];
  if (block_type != BLOCK_SHORT) {
    for (int32_t sb = 1; sb < 32; ++sb)
      for (int32_t i = 0; i < 8; ++i) {
        float lo = lines[sb - 1][17 - i], up = lines[sb][i];
        lines[sb - 1][17 - i] = lo * t.cs[i] + up * t.ca[i];
        lines[sb][i] = up * t.cs[i] - lo * t.ca[i];
      }
    std::memcpy(xr, lines, 576 * sizeof(float));
    return;
  }
  int32_t pos = 0;
  for (int32_t b = 0; b < 13; ++b)
    for (int32_t w = 0; w < 3; ++w)
      for (int32_t f = short_start[b]; f < short_start[b + 1]; ++f) xr[pos++] = lines[f / 6][3 * (f % 6) + w];
}

// ---------------------------------------------------------------------------------------------
// Main data of one granule and channel.

void write_main(format::BitWriter& w, const Granule& g, const float* xr, bool mpeg1, const int32_t* long_start) {
  const Tables& t = tables();
  const bool short_block = g.block_type == BLOCK_SHORT;
  if (mpeg1) {
    const int32_t s1 = decoder::slen1_table[g.scalefac_compress], s2 = decoder::slen2_table[g.scalefac_compress];
    if (short_block) {
      for (int32_t b = 0; b < 12; ++b)
        for (int32_t k = 0; k < 3; ++k) format::put_bits(w, uint32_t(g.sf_s[b][k]), b < 6 ? s1 : s2);
    } else {
      for (int32_t b = 0; b < 21; ++b) format::put_bits(w, uint32_t(g.sf_l[b]), b < 11 ? s1 : s2);
    }
  } else {
    const int32_t* counts = decoder::lsf_sfb_counts[0][short_block ? 1 : 0];
    int32_t band = 0;
    for (int32_t p = 0; p < 4; ++p) {
      int32_t n = short_block ? counts[p] / 3 : counts[p];
      for (int32_t i = 0; i < n; ++i, ++band)
        if (short_block)
          for (int32_t k = 0; k < 3; ++k) format::put_bits(w, uint32_t(g.sf_s[band][k]), g.slen[p]);
        else
          format::put_bits(w, uint32_t(g.sf_l[band]), g.slen[p]);
    }
  }
  const int32_t end = 2 * g.big_values;
  int32_t a1, a2;
  if (short_block || g.block_type != BLOCK_LONG) {
    a1 = short_block ? 36 : long_start[8];
    a2 = 576;
  } else {
    a1 = long_start[g.region0 + 1];
    a2 = long_start[g.region0 + g.region1 + 2];
  }
  auto sign = [&](int32_t i) { return xr[i] < 0.0f ? 1u : 0u; };
  for (int32_t i = 0; i < end; i += 2) {
    int32_t tab = g.table[i < a1 ? 0 : i < a2 ? 1 : 2];
    if (tab == 0) continue;
    const int32_t lb = tab >= 16 ? decoder::linbits_table[tab] : 0;
    int32_t x = g.ix[i], y = g.ix[i + 1];
    int32_t cx = x > 14 && lb ? 15 : x, cy = y > 14 && lb ? 15 : y;
    format::put_bits(w, t.code[tab][cx][cy], t.len[tab][cx][cy]);
    if (cx == 15 && lb) format::put_bits(w, uint32_t(x - 15), lb);
    if (x) format::put_bits(w, sign(i), 1);
    if (cy == 15 && lb) format::put_bits(w, uint32_t(y - 15), lb);
    if (y) format::put_bits(w, sign(i + 1), 1);
  }
  for (int32_t q = 0; q < g.count1; ++q) {
    int32_t i = end + 4 * q;
    int32_t v = g.ix[i] * 8 + g.ix[i + 1] * 4 + g.ix[i + 2] * 2 + g.ix[i + 3];
    if (g.count1table == 0)
      format::put_bits(w, t.qcode[0][v], t.qlen[0][v]);
    else
      format::put_bits(w, t.qcode[1][v], t.qlen[1][v]);
    for (int32_t k = 0; k < 4; ++k)
      if (g.ix[i + k]) format::put_bits(w, sign(i + k), 1);
  }
}

// Emits the held frames that are complete (all of them when `all`), oldest first.
int32_t release_frames(Layer3State& l3, uint8_t* out, bool all) {
  int32_t n = 0;
  while (n < l3.held && (all || l3.frame_end[n] <= l3.fill)) ++n;
  if (n == 0) return 0;
  const int32_t bytes = l3.frame_end[n - 1];
  std::memcpy(out, l3.hold, size_t(bytes));
  std::memmove(l3.hold, l3.hold + bytes, size_t(l3.hold_len - bytes));
  l3.hold_len -= bytes;
  l3.fill = l3.fill > bytes ? l3.fill - bytes : 0;
  for (int32_t i = n; i < l3.held; ++i) {
    l3.frame_end[i - n] = l3.frame_end[i] - bytes;
    l3.side_end[i - n] = l3.side_end[i] - bytes;
  }
  l3.held -= n;
  std::memset(l3.hold + l3.hold_len, 0, size_t(bytes));
  return bytes;
}

}  // namespace

void layer3_init(EncoderState& s) {
  tables();
  Layer3State& l3 = s.l3;
  std::memset(&l3, 0, sizeof l3);
  for (int32_t ch = 0; ch < 2; ++ch)
    for (int32_t b = 0; b < 63; ++b) l3.nb1[ch][b] = l3.nb2[ch][b] = 1e30;
  const int32_t index = s.params.bit_rate_index < 4 ? 4 : s.params.bit_rate_index > 10 ? 10 : s.params.bit_rate_index;
  l3.last_gain[0] = l3.last_gain[1] = 180;
  l3.line_cutoff = CUTOFF[(s.params.mpeg1 ? 2 : 0) + (s.stereo == 2 ? 1 : 0)][index - 4];
  if (s.params.mode == 1) l3.line_cutoff = std::min(576, l3.line_cutoff + 18);
  // The decoder's buffer holds 7680 bits; main_data_begin has 9 bits (8 at the low rates).
  const int32_t frame_bits = 8 * s.whole_slots;
  l3.resv_max = std::max(0, 7680 - frame_bits);
  l3.resv_max = std::min(l3.resv_max, s.params.mpeg1 ? 511 * 8 : 255 * 8);
}

int32_t encode_frame_l3(EncoderState& s, const int16_t (*pcm)[FRAME_SAMPLES_L2], int32_t padding, uint8_t* out) {
  Layer3State& l3 = s.l3;
  const EncoderParams& p = s.params;
  const bool mpeg1 = p.mpeg1 != 0;
  const int32_t granules = mpeg1 ? 2 : 1;
  const int32_t nch = s.stereo;
  const bool ms = p.mode == 1 && nch == 2;
  const int32_t row = (mpeg1 ? 3 : 0) + p.sample_rate_index;
  int32_t long_start[23], short_start[14];
  long_start[0] = short_start[0] = 0;
  for (int32_t b = 0; b < 22; ++b) long_start[b + 1] = decoder::sfb_long[row][b] + 1;
  for (int32_t b = 0; b < 13; ++b) short_start[b + 1] = decoder::sfb_short[row][b] + 1;

  const int32_t frame_bytes = s.whole_slots + padding;
  const int32_t crc_bytes = p.error_protection ? 2 : 0;
  const int32_t side_bytes = mpeg1 ? (nch == 2 ? 32 : 17) : (nch == 2 ? 17 : 9);
  const int32_t own_main = frame_bytes - 4 - crc_bytes - side_bytes;

  // Psychoacoustics and block types, then the filter bank and transform, granule by granule.
  float xr[2][2][576];
  double ratio_l[2][2][22], ratio_s[2][2][13], pe[2][2] = {};
  int32_t block[2][2];
  for (int32_t gr = 0; gr < granules; ++gr) {
    for (int32_t ch = 0; ch < nch; ++ch) {
      model2_l3(s.model2, l3, pcm[ch] + 576 * gr, ch, long_start, short_start, ratio_l[gr][ch], ratio_s[gr][ch],
                pe[gr][ch]);
      // Below 32 kHz the granule is long enough that pre-echo stays masked: never short blocks,
      // and no reservoir bits asked for by entropy.
      if (s.rate_hz < 32000) pe[gr][ch] = 0.0;
    }
    // Types run one granule behind the model so that a short granule is always preceded by a
    // start block and followed by a stop block. Mid/side channels switch together.
    bool attack[2] = {pe[gr][0] >= 1800.0, pe[gr][1] >= 1800.0};
    if (ms) attack[0] = attack[1] = attack[0] || attack[1];
    for (int32_t ch = 0; ch < nch; ++ch) {
      int32_t& old = l3.blocktype_old[ch];
      int32_t next;
      if (attack[ch]) {
        next = BLOCK_SHORT;
        if (old == BLOCK_LONG) old = BLOCK_START;
        if (old == BLOCK_STOP) old = BLOCK_SHORT;
      } else {
        next = old == BLOCK_SHORT ? BLOCK_STOP : BLOCK_LONG;
      }
      block[gr][ch] = old;
      old = next;
    }
    float sb[2][18][32];
    for (int32_t slot = 0; slot < 18; ++slot)
      for (int32_t ch = 0; ch < nch; ++ch) analyse_slot(s, ch, pcm[ch] + 576 * gr + 32 * slot, sb[ch][slot]);
    for (int32_t ch = 0; ch < nch; ++ch) mdct_granule(l3.sb_prev[ch], sb[ch], block[gr][ch], short_start, xr[gr][ch]);
  }

  // Mid/side, then the coded bandwidth.
  for (int32_t gr = 0; gr < granules; ++gr) {
    if (ms) {
      for (int32_t i = 0; i < 576; ++i) {
        float l = xr[gr][0][i], r = xr[gr][1][i];
        xr[gr][0][i] = (l + r) * 0.70710678f;
        xr[gr][1][i] = (l - r) * 0.70710678f;
      }
    }
    for (int32_t ch = 0; ch < nch; ++ch) {
      if (block[gr][ch] == BLOCK_SHORT) {
        // Short lines are in band order: zero each window's lines above the cutoff's frequency.
        const int32_t cut = l3.line_cutoff / 3;
        for (int32_t b = 0; b < 13; ++b) {
          int32_t w = short_start[b + 1] - short_start[b];
          for (int32_t k = 0; k < 3; ++k)
            for (int32_t f = short_start[b]; f < short_start[b + 1]; ++f)
              if (f >= cut) xr[gr][ch][3 * short_start[b] + k * w + f - short_start[b]] = 0.0f;
        }
      } else {
        for (int32_t i = l3.line_cutoff; i < 576; ++i) xr[gr][ch][i] = 0.0f;
      }
    }
  }

  // Reservoir: main data may begin up to resv_bits back in earlier frames' free bytes.
  int32_t free_bytes = l3.hold_len - l3.fill;
  int32_t begin = std::min(free_bytes, l3.resv_max / 8);
  l3.fill = l3.hold_len - begin;
  const int32_t mean = own_main * 8 / (granules * nch);
  int32_t resv = begin * 8;
  Granule gi[2][2];
  for (int32_t gr = 0; gr < granules; ++gr) {
    for (int32_t ch = 0; ch < nch; ++ch) {
      Granule& g = gi[gr][ch];
      g.block_type = block[gr][ch];
      Bands bands;
      make_bands(long_start, short_start, g.block_type == BLOCK_SHORT, bands);
      double xmin[40];
      for (int32_t b = 0; b < bands.count; ++b) {
        double en = 0.0;
        for (int32_t i = bands.start[b]; i < bands.end[b]; ++i) en += double(xr[gr][ch][i]) * xr[gr][ch][i];
        double ratio = bands.win[b] < 0 ? ratio_l[gr][ch][bands.sfb[b]] : ratio_s[gr][ch][bands.sfb[b]];
        // Mid and side noise lands in both channels: the stricter mask of the two rules.
        if (ms)
          ratio = bands.win[b] < 0 ? std::min(ratio_l[gr][0][bands.sfb[b]], ratio_l[gr][1][bands.sfb[b]])
                                   : std::min(ratio_s[gr][0][bands.sfb[b]], ratio_s[gr][1][bands.sfb[b]]);
        xmin[b] = ratio * en;
      }
      // The granule's share, plus reservoir bits when the model asks for them.
      // A demanding granule (high perceptual entropy) takes up to three fifths of the reservoir;
      // a reservoir above four fifths full gives its excess to whichever granule comes.
      const int32_t more = int32_t(pe[gr][ch] * 3.1) - mean;
      int32_t add = more > 100 ? std::min(resv * 3 / 5, more) : 0;
      const int32_t over = resv - l3.resv_max * 4 / 5 - add;
      if (over > 0) add += over;
      const int32_t max_bits = std::min(4095, mean + std::min(add, resv));
      code_granule(g, xr[gr][ch], bands, xmin, max_bits, mpeg1, long_start, l3.last_gain[ch]);
      if (g.part2_3 > 0) l3.last_gain[ch] = g.global_gain;
      resv += mean - g.part2_3;
    }
  }

  // Main data into the held frames, after the side information of each.
  uint8_t main[4096];
  format::BitWriter w;
  format::bit_writer_init(w, main, sizeof main);
  for (int32_t gr = 0; gr < granules; ++gr)
    for (int32_t ch = 0; ch < nch; ++ch) write_main(w, gi[gr][ch], xr[gr][ch], mpeg1, long_start);
  const int32_t main_bytes = (w.bits + 7) / 8;

  // Header and side information of the new frame, appended to the held ones.
  uint8_t* f = l3.hold + l3.hold_len;
  std::memset(f, 0, size_t(frame_bytes));
  format::BitWriter h;
  format::bit_writer_init(h, f, 4 + crc_bytes + side_bytes);
  format::put_bits(h, 0xFFF, 12);
  format::put_bits(h, mpeg1 ? 1 : 0, 1);
  format::put_bits(h, 1, 2);  // Layer III
  format::put_bits(h, p.error_protection ? 0 : 1, 1);
  format::put_bits(h, uint32_t(p.bit_rate_index), 4);
  format::put_bits(h, uint32_t(p.sample_rate_index), 2);
  format::put_bits(h, uint32_t(padding), 1);
  format::put_bits(h, uint32_t(p.extension), 1);
  format::put_bits(h, uint32_t(p.mode), 2);
  format::put_bits(h, ms ? 2u : 0u, 2);
  format::put_bits(h, uint32_t(p.copyright), 1);
  format::put_bits(h, uint32_t(p.original), 1);
  format::put_bits(h, p.emphasis == 2 ? 3u : uint32_t(p.emphasis), 2);
  if (crc_bytes) format::put_bits(h, 0, 16);
  const int32_t side_at = h.bits;
  format::put_bits(h, uint32_t(begin), mpeg1 ? 9 : 8);
  format::put_bits(h, 0, mpeg1 ? (nch == 2 ? 3 : 5) : (nch == 2 ? 2 : 1));
  if (mpeg1) format::put_bits(h, 0, 4 * nch);  // no scale factor sharing between granules
  for (int32_t gr = 0; gr < granules; ++gr)
    for (int32_t ch = 0; ch < nch; ++ch) {
      const Granule& g = gi[gr][ch];
      format::put_bits(h, uint32_t(g.part2_3), 12);
      format::put_bits(h, uint32_t(g.big_values), 9);
      format::put_bits(h, uint32_t(g.global_gain), 8);
      format::put_bits(h, uint32_t(g.scalefac_compress), mpeg1 ? 4 : 9);
      if (g.block_type != BLOCK_LONG) {
        format::put_bits(h, 1, 1);
        format::put_bits(h, uint32_t(g.block_type), 2);
        format::put_bits(h, 0, 1);  // not mixed
        format::put_bits(h, uint32_t(g.table[0]), 5);
        format::put_bits(h, uint32_t(g.table[1]), 5);
        format::put_bits(h, 0, 9);  // subblock gains
      } else {
        format::put_bits(h, 0, 1);
        for (int32_t k = 0; k < 3; ++k) format::put_bits(h, uint32_t(g.table[k]), 5);
        format::put_bits(h, uint32_t(g.region0), 4);
        format::put_bits(h, uint32_t(g.region1), 3);
      }
      if (mpeg1) format::put_bits(h, 0, 1);  // preflag
      format::put_bits(h, 0, 1);             // scalefac_scale
      format::put_bits(h, uint32_t(g.count1table), 1);
    }
  if (crc_bytes) {
    uint32_t crc = format::CRC16_INIT;
    format::crc16_update(crc, uint32_t(f[2]) << 8 | f[3], 16);
    for (int32_t i = side_at / 8; i < side_at / 8 + side_bytes; ++i) format::crc16_update(crc, f[i], 8);
    f[4] = uint8_t(crc >> 8);
    f[5] = uint8_t(crc);
  }
  l3.side_end[l3.held] = l3.hold_len + 4 + crc_bytes + side_bytes;
  l3.hold_len += frame_bytes;
  l3.frame_end[l3.held++] = l3.hold_len;

  // Copy the main data into the free bytes from fill on, skipping every frame's head.
  int32_t k = 0;
  for (int32_t i = 0; i < l3.held && k < main_bytes; ++i) {
    if (l3.fill >= l3.frame_end[i]) continue;
    if (l3.fill < l3.side_end[i]) l3.fill = l3.side_end[i];
    int32_t n = std::min(main_bytes - k, l3.frame_end[i] - l3.fill);
    std::memcpy(l3.hold + l3.fill, main + k, size_t(n));
    l3.fill += n;
    k += n;
  }
  if (l3.fill < l3.side_end[l3.held - 1]) l3.fill = l3.side_end[l3.held - 1];
  return release_frames(l3, out, false);
}

int32_t flush_l3(EncoderState& s, uint8_t* out) { return release_frames(s.l3, out, true); }

}  // namespace encoder
