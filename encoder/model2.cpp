// Psychoacoustic model 2 in its Layers I/II form: a 1024-point spectrum per pass, the
// unpredictability of each line against the last two spectra, energies spread over partitions of
// a third of a bark, a tonality-weighted threshold, and per subband the ratio of signal to mask.
#include <cmath>
#include <cstring>

#include "encoder/l12.h"

namespace encoder {

namespace {

// Minimum signal to noise ratio in dB by bark.
constexpr double BMAX[27] = {20,  20,  20,  20,  20,  17,  15,  10,  7,   4.4, 4.5, 4.5, 4.5, 4.5,
                             4.5, 4.5, 4.5, 4.5, 4.5, 4.5, 4.5, 4.5, 4.5, 4.5, 3.5, 3.5, 3.5};
// Critical band edges in Hz.
constexpr double BARK_EDGES[27] = {0,    100,  200,  300,  400,  510,   630,   770,   920,
                                   1080, 1270, 1480, 1720, 2000, 2320,  2700,  3150,  3700,
                                   4400, 5300, 6400, 7700, 9500, 12000, 15500, 25000, 30000};

double bark_of(double hz) {
  int32_t i = 0;
  while (i + 2 < 27 && BARK_EDGES[i + 1] <= hz) ++i;
  return i + (hz - BARK_EDGES[i]) / (BARK_EDGES[i + 1] - BARK_EDGES[i]);
}

// The Hann window over 1024 samples.
struct Hann {
  double w[1024];
  Hann() {
    for (int32_t i = 0; i < 1024; ++i) w[i] = 0.5 * (1.0 - std::cos(2.0 * M_PI * (i - 0.5) / 1024.0));
  }
};
const Hann hann;

}  // namespace

void model2_init(Model2State& m, int32_t rate_hz) {
  std::memset(&m, 0, sizeof m);
  // Threshold in quiet by rate family: 16 and 32 kHz, 22.05 and 44.1 kHz, 24 and 48 kHz.
  m.absthr = MODEL2_ABSTHR[rate_hz % 11025 == 0 ? 1 : rate_hz % 16000 == 0 ? 0 : 2];
  double bark[513];
  for (int32_t i = 0; i < 513; ++i) bark[i] = bark_of(i * rate_hz / 1024.0);
  int32_t p = 0, first = 0;
  for (int32_t i = 0; i < 513; ++i) {
    if (bark[i] - bark[first] > 0.33 && p < 62) {
      ++p;
      first = i;
    }
    m.partition_of[i] = p;
    m.numlines[p] += 1;
    m.bval[p] += bark[i];
  }
  m.partitions = p + 1;
  for (int32_t b = 0; b < m.partitions; ++b) {
    m.bval[b] /= m.numlines[b];
    m.tmn[b] = std::fmax(m.bval[b] + 15.5, 24.5);
  }
  for (int32_t i = 0; i < m.partitions; ++i) {
    double sum = 0.0;
    for (int32_t j = 0; j < m.partitions; ++j) {
      double tx = 1.05 * (m.bval[i] - m.bval[j]);
      double x = tx >= 0.5 && tx <= 2.5 ? 8.0 * ((tx - 0.5) * (tx - 2.5)) : 0.0;
      double t = tx + 0.474;
      double y = 15.811389 + 7.5 * t - 17.5 * std::sqrt(1.0 + t * t);
      double v = y < -100.0 ? 0.0 : std::pow(10.0, (x + y) / 10.0);
      m.spread[i][j] = v;
      sum += v;
      if (v != 0.0) {
        if (sum == v) m.spread_low[i] = j;
        m.spread_high[i] = j;
      }
    }
    m.norm[i] = sum;
  }
}

void model2_spectrum(Model2State& m, const int16_t* samples, int32_t ch, double* energy, double* cw) {
  double x[1024], re[513], im[513];
  for (int32_t i = 0; i < 1024; ++i) x[i] = samples[i] * hann.w[i];
  real_fft(x, re, im, 1024);
  // Unpredictability: distance of each line from its prediction out of the last two spectra,
  // magnitude 2 r1 - r2 and phase 2 f1 - f2; the phase is carried as a unit phasor, so the
  // prediction is u1 * u1 * conj(u2) and no angle is ever computed.
  double* mag0 = m.magnitude[ch][0];
  double* mag1 = m.magnitude[ch][1];
  double* pr0 = m.phasor_re[ch][0];
  double* pr1 = m.phasor_re[ch][1];
  double* pi0 = m.phasor_im[ch][0];
  double* pi1 = m.phasor_im[ch][1];
  for (int32_t i = 0; i < 513; ++i) {
    double e = re[i] * re[i] + im[i] * im[i];
    double r = std::sqrt(e);
    double ur = r > 0 ? re[i] / r : 1.0, ui = r > 0 ? -im[i] / r : 0.0;
    double rp = 2.0 * mag0[i] - mag1[i];
    double sr = pr0[i] * pr0[i] - pi0[i] * pi0[i], si = 2.0 * pr0[i] * pi0[i];
    double fr = sr * pr1[i] + si * pi1[i], fi = si * pr1[i] - sr * pi1[i];
    double dr = r * ur - rp * fr, di = r * ui - rp * fi;
    double den = r + std::fabs(rp);
    cw[i] = den != 0.0 ? std::sqrt(dr * dr + di * di) / den : 0.0;
    energy[i] = e;
    mag1[i] = mag0[i];
    pr1[i] = pr0[i];
    pi1[i] = pi0[i];
    mag0[i] = r;
    pr0[i] = ur;
    pi0[i] = ui;
  }
}

namespace {

// Energy by partition (eb), and the spread energy and spread unpredictability-weighted energy.
void model2_partitions(const Model2State& m, const double* energy, const double* cw, double* eb, double* spread_e,
                       double* spread_c) {
  double cb[63] = {};
  for (int32_t b = 0; b < 63; ++b) eb[b] = 0.0;
  for (int32_t i = 0; i < 513; ++i) {
    eb[m.partition_of[i]] += energy[i];
    cb[m.partition_of[i]] += energy[i] * cw[i];
  }
  for (int32_t b = 0; b < m.partitions; ++b) {
    double ecb = 0.0, ct = 0.0;
    for (int32_t j = m.spread_low[b]; j <= m.spread_high[b]; ++j) {
      ecb += m.spread[b][j] * eb[j];
      ct += m.spread[b][j] * cb[j];
    }
    spread_e[b] = ecb;
    spread_c[b] = ct;
  }
}

}  // namespace

void model2_l12(Model2State& m, const int16_t* pcm, int32_t ch, int32_t layer, double* smr) {
  const int32_t passes = layer == 1 ? 1 : 2;
  const int32_t flush = layer == 1 ? 384 : 576;
  const int32_t kept = layer == 1 ? 576 : 480;
  const int32_t fresh = layer == 1 ? 448 : 576;
  for (int32_t b = 0; b < 32; ++b) smr[b] = -1e30;
  for (int32_t pass = 0; pass < passes; ++pass) {
    int16_t* save = m.save[ch];
    std::memmove(save, save + flush, size_t(kept) * sizeof(int16_t));
    std::memcpy(save + kept, pcm + pass * fresh, size_t(fresh) * sizeof(int16_t));
    double energy[513], cw[513];
    model2_spectrum(m, save, ch, energy, cw);
    double eb[63], spread_e[63], spread_c[63];
    model2_partitions(m, energy, cw, eb, spread_e, spread_c);
    double nb[63];
    for (int32_t b = 0; b < m.partitions; ++b) {
      const double ecb = spread_e[b], ct = spread_c[b];
      double c = ecb != 0.0 ? ct / ecb : 0.0;
      c = c < 0.05 ? 0.05 : c > 0.5 ? 0.5 : c;
      double tb = -0.434294482 * std::log(c) - 0.301029996;
      double snr = m.tmn[b] * tb + 5.5 * (1.0 - tb);
      int32_t bi = int32_t(m.bval[b] + 0.5);
      const double floor_db = BMAX[bi < 26 ? bi : 26];
      if (snr < floor_db) snr = floor_db;
      double den = m.numlines[b] * m.norm[b];
      nb[b] = den != 0.0 ? ecb * std::pow(10.0, -snr / 10.0) / den : 0.0;
    }
    double thr[513];
    for (int32_t i = 0; i < 513; ++i) {
      const double quiet = m.absthr[i], partition = nb[m.partition_of[i]];
      const double raw = partition > quiet ? partition : quiet;
      thr[i] = raw;
      if (layer == 1) {  // pre-echo control against the last frame's threshold
        thr[i] = std::fmax(std::fmin(raw, m.fthr[ch][i]), 0.00316 * raw);
        m.fthr[ch][i] = 32.0 * raw;
      }
    }
    for (int32_t b = 0; b < 32; ++b) {
      double sum_e = 0.0, sum_t = 0.0, low = 1e300;
      for (int32_t i = 16 * b; i <= 16 * b + 16 && i < 513; ++i) {
        sum_e += energy[i];
        sum_t += thr[i];
        low = thr[i] < low ? thr[i] : low;
      }
      double v = b < 13 ? sum_e / (low * 17.0) : sum_e / sum_t;
      double ratio = v > 0.0 ? 4.342944819 * std::log(v) : -200.0;
      smr[b] = std::fmax(smr[b], ratio);
    }
  }
}

void model2_l3(Model2State& m, Layer3State& l3, const int16_t* pcm, int32_t ch, const int32_t* long_start,
               const int32_t* short_start, double* ratio_l, double* ratio_s, double& pe) {
  int16_t* save = l3.save[ch];
  std::memmove(save, save + 576, 768 * sizeof(int16_t));
  std::memcpy(save + 768, pcm, 576 * sizeof(int16_t));
  double energy[513], cw[513];
  model2_spectrum(m, save, ch, energy, cw);
  double eb[63], spread_e[63], spread_c[63];
  model2_partitions(m, energy, cw, eb, spread_e, spread_c);
  // Partition thresholds: tonal parts (low cb) want 29 dB of signal to noise, noise-like ones 6,
  // at least the bark's minimum. Pre-echo control: no more than twice the last granule's
  // threshold, sixteen times the one before.
  double thr_line[513];
  pe = 0.0;
  double tb = 0.0;
  int32_t first = 0;  // first line of partition b
  for (int32_t b = 0; b < m.partitions; first += m.numlines[b], ++b) {
    const double ecb = spread_e[b], ct = spread_c[b];
    int32_t bi = int32_t(m.bval[b] + 0.5);
    const double snr_min = BMAX[bi < 26 ? bi : 26];
    double snr = snr_min > 6.0 ? snr_min : 6.0;
    if (ecb != 0.0) {
      double c = ct / ecb;
      if (c >= 0.01) {
        tb = -0.299 - 0.43 * std::log(c);
        tb = tb < 0.0 ? 0.0 : tb > 1.0 ? 1.0 : tb;
      }
      snr = std::fmax(29.0 * tb + 6.0 * (1.0 - tb), snr_min);
    }
    double nb = m.norm[b] != 0.0 ? std::pow(10.0, -snr / 10.0) * ecb / m.norm[b] : 0.0;
    double thr = std::fmin(nb, std::fmin(2.0 * l3.nb1[ch][b], 16.0 * l3.nb2[ch][b]));
    l3.nb2[ch][b] = l3.nb1[ch][b];
    l3.nb1[ch][b] = nb;
    double quiet = 0.0;
    for (int32_t i = first; i < first + m.numlines[b]; ++i) quiet += m.absthr[i];
    thr = std::fmax(thr, quiet);
    if (eb[b] > thr) pe -= m.numlines[b] * std::log((thr + 1.0) / (eb[b] + 1.0));
    for (int32_t i = first; i < first + m.numlines[b]; ++i) thr_line[i] = thr / m.numlines[b];
  }
  // Ratios of threshold to energy by scale factor band: MDCT line k lies at (k + 1/2) fs / 1152,
  // FFT line j at j fs / 1024, so a band's lines map onto FFT lines k * 8 / 9.
  auto band_ratio = [&](int32_t lo, int32_t hi) {
    int32_t a = (lo * 8 + 4) / 9, z = (hi * 8 + 4) / 9;
    if (z <= a) z = a + 1;
    double en = 0.0, th = 0.0;
    for (int32_t j = a; j < z && j < 513; ++j) {
      en += energy[j];
      th += thr_line[j];
    }
    return en > 0.0 ? th / en : 0.0;
  };
  for (int32_t b = 0; b < 22; ++b) ratio_l[b] = band_ratio(long_start[b], long_start[b + 1]);
  for (int32_t b = 0; b < 13; ++b) ratio_s[b] = band_ratio(3 * short_start[b], 3 * short_start[b + 1]);
}

}  // namespace encoder
