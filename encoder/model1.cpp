// Psychoacoustic model 1 for Layers I and II: tonal and noise maskers found in a windowed FFT,
// a global masking threshold over the frequency rows of the rate's table, and per subband the
// ratio of signal to the lowest threshold.
//
// Levels are added by db_add, which reads 2^(level / 20) from tables at whole-dB steps instead of
// 10^(level / 10). Its sums are far below the true sum of powers (two lines of 60 dB add to about
// 12 dB), so the thresholds come out low and allocation follows the signal's level closely. That is
// this encoder's deliberate character; the look-up also keeps the innermost loop free of pow().
#include <cmath>
#include <cstring>

#include "encoder/l12.h"

namespace encoder {

namespace {

// db_add(a, b) = 10 log10(p(a) + p(b)) with p(x) = 2^(0.05 trunc x) from float tables. The result
// depends only on the two truncated levels; it is read as 10 log10 p(larger) plus a correction by
// their distance, 10 log10(1 + p(smaller) / p(larger)), both from tables. Levels beyond +-799 dB
// take the last entry.
struct DbAddTables {
  double level[1599];       // 10 log10 p(i - 799)
  double correction[1599];  // 10 log10(1 + 2^(-0.05 d))
  DbAddTables() {
    for (int32_t i = 0; i < 1599; ++i) {
      const float p = float(std::pow(2.0, 0.05 * (i - 799)));  // the float tables' entry
      level[i] = 10.0 * std::log10(double(p));
      correction[i] = 10.0 * std::log10(1.0 + std::pow(2.0, -0.05 * i));
    }
  }
};
const DbAddTables db_tables;

inline int32_t whole_db(double a) {
  const double limited = a < -799.0 ? -799.0 : a > 799.0 ? 799.0 : a;
  return int32_t(limited);  // truncation toward zero, as the level tables are indexed
}

inline double db_add(double a, double b) {
  const int32_t ia = whole_db(a), ib = whole_db(b);
  const int32_t hi = ia > ib ? ia : ib, d = ia > ib ? ia - ib : ib - ia;
  return db_tables.level[hi + 799] + db_tables.correction[d];
}

constexpr double FLOOR = -200.0;
constexpr int32_t TONE = 20;
constexpr int32_t NOISE = 10;

struct Masker {
  int32_t line;
  int32_t type;
  double power;
};

// The tone search's neighbourhood at a line: how far a peak must stand 7 dB clear, and how far it
// claims the lines around it.
int32_t tone_range(int32_t line, int32_t layer) {
  if (line < 3) return 0;
  if (layer == 1) {
    if (line > 250) return 0;
    return line < 63 ? 2 : line < 127 ? 3 : 6;
  }
  if (line > 500) return 0;
  return line < 63 ? 2 : line < 127 ? 3 : line < 255 ? 6 : 12;
}

}  // namespace

void model1(EncoderState& s, const int16_t* const* pcm, const double (*max_scale)[32], double (*smr)[32]) {
  const int32_t layer = s.params.layer;
  const int32_t n = layer == 1 ? 512 : 1024;
  const int32_t half = n / 2;
  const int32_t ring_len = layer == 1 ? 640 : 1408;
  const int32_t count = layer == 1 ? 384 : 1152;
  const int32_t read_offset = layer == 1 ? 448 : 1216;
  const int32_t per_sb = half / 32;
  const int32_t peak_end = layer == 1 ? 249 : 499;
  const int32_t rate_row = s.params.sample_rate_index + (s.params.mpeg1 ? 0 : 3);
  const Model1Table& t = MODEL1_TABLES[layer - 1][rate_row];
  Model1State& m = s.model1;

  // Line to table row: the highest row at or below the line.
  int32_t row_of[512];
  for (int32_t i = 0, r = 0; i < half; ++i) {
    while (r + 1 < t.rows && t.row[r + 1].line <= i) ++r;
    row_of[i] = r;
  }

  for (int32_t ch = 0; ch < s.stereo; ++ch) {
    // 1-2. Ring, window.
    double* ring = m.ring[ch];
    int32_t pos = m.write_pos[ch];
    for (int32_t i = 0, at = pos; i < count; ++i, at = at + 1 == ring_len ? 0 : at + 1)
      ring[at] = pcm[ch][i] * (1.0 / 32768.0);
    double x[1024], re[513], im[513];
    for (int32_t i = 0, at = (pos + read_offset) % ring_len; i < n; ++i, at = at + 1 == ring_len ? 0 : at + 1)
      x[i] = ring[at] * m.window[i];
    m.write_pos[ch] = (pos + count) % ring_len;
    // 3-4. Spectrum in dB.
    real_fft(x, re, im, n);
    double power[512], energy[512];
    for (int32_t i = 0; i < half; ++i) {
      float e = float(re[i] * re[i] + im[i] * im[i]);
      if (e < 1e-20f) e = 1e-20f;
      energy[i] = e;
      power[i] = 10.0 * std::log10(double(e)) + 90.309;
    }
    // 5. Subband levels with the true power sum.
    // 10^(0.1 power) is the line's energy scaled by 10^9.0309, summed here from the energy itself.
    double level[32];
    for (int32_t b = 0; b < 32; ++b) {
      double sum = 0.0;
      for (int32_t i = 0; i < per_sb; ++i) sum += energy[b * per_sb + i];
      level[b] = 10.0 * std::log10(1e-20 + sum * 1.0737421456e9);
    }
    // 6. Tones.
    bool tone[512] = {};
    Masker maskers[512];
    int32_t masker_count = 0;
    int32_t last_tone = -1000, last_range = 0;
    for (int32_t i = 2; i <= peak_end; ++i) {
      if (!(power[i] > power[i - 1] && power[i] >= power[i + 1])) continue;
      int32_t range = tone_range(i, layer);
      bool clear = true;
      for (int32_t d = 2; d <= range && clear; ++d) {
        if (i - d >= 0 && power[i] - power[i - d] < 7.0) clear = false;
        if (i + d < half && power[i] - power[i + d] < 7.0) clear = false;
      }
      if (!clear) continue;
      if (i - last_tone <= last_range) continue;  // within the reach of the tone kept before
      tone[i] = true;
      maskers[masker_count++] = {i, TONE, db_add(power[i], db_add(power[i - 1], power[i + 1]))};
      last_tone = i;
      last_range = range;
    }
    for (int32_t k = 0; k < masker_count; ++k) {
      int32_t i = maskers[k].line, range = tone_range(i, layer);
      for (int32_t d = -range; d <= range; ++d)
        if (d != 0 && i + d >= 0 && i + d < half && !tone[i + d]) power[i + d] = FLOOR;
      if (range == 0) {  // a tone always takes its direct neighbours into its own power
        if (!tone[i - 1]) power[i - 1] = FLOOR;
        if (i + 1 < half && !tone[i + 1]) power[i + 1] = FLOOR;
      }
    }
    // 7. Noise, one masker per critical band at its geometric centre.
    for (int32_t band = 0; band < t.bands; ++band) {
      int32_t lo = t.bound[band];
      int32_t hi = band + 1 < t.bands ? t.bound[band + 1] : t.row[t.rows - 1].line + 1;
      if (hi > half) hi = half;
      double sum = FLOOR;
      bool any = false;
      for (int32_t i = lo; i < hi; ++i) {
        if (tone[i] || power[i] <= FLOOR) continue;
        sum = db_add(sum, power[i]);
        power[i] = FLOOR;
        any = true;
      }
      if (!any) continue;
      int32_t centre = int32_t(std::sqrt(double(lo) * double(hi > lo ? hi - 1 : lo)));
      if (centre >= half) centre = half - 1;
      if (tone[centre]) centre = centre + 1 < half && !tone[centre + 1] ? centre + 1 : centre - 1;
      maskers[masker_count++] = {centre, NOISE, sum};
    }
    // 8. Decimation: below the threshold in quiet, then tones nearer than half a bark.
    int32_t kept = 0;
    for (int32_t k = 0; k < masker_count; ++k)
      if (maskers[k].power >= t.row[row_of[maskers[k].line]].quiet) maskers[kept++] = maskers[k];
    masker_count = kept;
    int32_t prev = -1;
    for (int32_t k = 0; k < masker_count; ++k) {
      if (maskers[k].type != TONE) continue;
      if (prev >= 0 && t.row[row_of[maskers[k].line]].bark - t.row[row_of[maskers[prev].line]].bark < 0.5) {
        if (maskers[k].power > maskers[prev].power) {
          maskers[prev].type = 0;
          prev = k;
        } else {
          maskers[k].type = 0;
        }
        continue;
      }
      prev = k;
    }
    // 9. Global threshold per row.
    const int32_t total = s.kbps;
    int32_t tested = layer == 2 ? total / s.stereo : (s.stereo == 2 && ch == 0 ? total / 2 : total);
    const double quiet_offset = tested >= 96 ? -12.0 : 0.0;
    double global[134];
    for (int32_t r = 1; r < t.rows; ++r) {
      double g = FLOOR;
      const double z = t.row[r].bark;
      for (int32_t k = 0; k < masker_count; ++k) {
        const Masker& mk = maskers[k];
        if (mk.type == 0) continue;
        const double zm = t.row[row_of[mk.line]].bark;
        const double dz = z - zm;
        if (dz < -3.0 || dz >= 8.0) continue;
        const double x = mk.power;
        double vf;
        if (dz < -1.0)
          vf = 17.0 * (dz + 1.0) - (0.4 * x + 6.0);
        else if (dz < 0.0)
          vf = (0.4 * x + 6.0) * dz;
        else if (dz < 1.0)
          vf = -17.0 * dz;
        else
          vf = -(dz - 1.0) * (17.0 - 0.15 * x) - 17.0;
        double av = mk.type == TONE ? -6.025 - 0.275 * zm : -2.025 - 0.175 * zm;
        g = db_add(g, vf + x + av);
      }
      global[r] = db_add(g, t.row[r].quiet + quiet_offset);
    }
    // 10. Lowest threshold per subband; subbands past the table take the last row's.
    double min_global[32];
    for (int32_t b = 0; b < 32; ++b) min_global[b] = 1e30;
    for (int32_t r = 1; r < t.rows; ++r) {
      int32_t b = t.row[r].line / per_sb;
      if (b < 32 && global[r] < min_global[b]) min_global[b] = global[r];
    }
    for (int32_t b = 0; b < 32; ++b)
      if (min_global[b] >= 1e30) min_global[b] = b > 0 ? min_global[b - 1] : global[t.rows - 1];
    // 11. Signal to mask.
    for (int32_t b = 0; b < 32; ++b) {
      double spl = 20.0 * std::log10(max_scale[ch][b] * 32768.0) - 10.0;
      smr[ch][b] = (spl > level[b] ? spl : level[b]) - min_global[b];
    }
  }
}

}  // namespace encoder
