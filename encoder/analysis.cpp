// The polyphase analysis filter bank, scale factors and the FFT the models share.
#include <cmath>
#include <cstring>

#include "encoder/l12.h"

namespace encoder {

// The matrixing of the filter bank, cos((2i + 1)(k - 16) pi / 64), is symmetric about k = 16 and
// antisymmetric about k = 48. So the 64 folded sums y[k] reduce to 32 inputs: y[16] alone, the 16
// sums a[k] = y[16 - k] + y[16 + k] and the 15 differences b[k] = y[48 - k] - y[48 + k]; y[48]
// has a zero coefficient. The coefficients are rounded to nine decimals, the precision in which
// the filter's matrix is usually tabulated.
void analysis_init(EncoderState& s) {
  std::memset(s.analysis_ring, 0, sizeof s.analysis_ring);
  s.ring_offset[0] = s.ring_offset[1] = 0;
  for (int32_t i = 0; i < 32; ++i) {
    for (int32_t j = 0; j < 32; ++j) {
      int32_t k = j <= 16 ? 16 + j : 48 - (j - 16);  // input j: 0 -> y16, 1..16 -> a, 17..31 -> b
      double c = std::cos((2 * i + 1) * (k - 16) * M_PI / 64.0);
      float scaled = float(c * 1e9);
      double rounded = double(int64_t(scaled + (scaled < 0 ? -0.5f : 0.5f))) * 1e-9;
      s.matrix[j][i] = float(rounded);
    }
  }
}

// The window and matrix run in wider vectors where the processor has them; every output is the
// same sum in the same order on every path, so the bytes out do not depend on the processor.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__)
#define TOVRA_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define TOVRA_VECTOR_CLONES
#endif

namespace {

TOVRA_VECTOR_CLONES void window_and_matrix(const float* x, const float (*matrix)[32], float* out) {
  double y[64];
  for (int32_t j = 0; j < 64; ++j) y[j] = 0.0;
  for (int32_t i = 0; i < 8; ++i)
    for (int32_t j = 0; j < 64; ++j) y[j] += double(x[64 * i + j] * ANALYSIS_WINDOW[64 * i + j]);
  float v[32];
  v[0] = float(y[16]);
  for (int32_t k = 1; k <= 16; ++k) v[k] = float(y[16 - k] + y[16 + k]);
  for (int32_t k = 1; k <= 15; ++k) v[16 + k] = float(y[48 - k] - y[48 + k]);
  double acc[32];
  for (int32_t i = 0; i < 32; ++i) acc[i] = 0.0;
  for (int32_t j = 0; j < 32; ++j) {
    const float* m = matrix[j];
    for (int32_t i = 0; i < 32; ++i) acc[i] += double(m[i] * v[j]);
  }
  for (int32_t i = 0; i < 32; ++i) out[i] = float(acc[i]);
}

}  // namespace

void analyse_slot(EncoderState& s, int32_t ch, const int16_t* pcm, float* out) {
  float* ring = s.analysis_ring[ch];
  const int32_t off = s.ring_offset[ch];
  // The newest sample goes lowest: the window reads ring[off .. off + 511] newest first.
  for (int32_t i = 0; i < 32; ++i) {
    const float v = float(pcm[i]) * 3.0517578e-5f;
    ring[off + 31 - i] = v;
    ring[off + 31 - i + 512] = v;
  }
  window_and_matrix(ring + off, s.matrix, out);
  s.ring_offset[ch] = (off + 480) & 511;
}

void scale_factors(const float (*sb)[12][32], int32_t groups, int32_t sblimit, int32_t layer, int32_t (*index)[32]) {
  for (int32_t g = 0; g < groups; ++g) {
    float peaks[32] = {};
    for (int32_t t = 0; t < 12; ++t)
      for (int32_t b = 0; b < 32; ++b) {
        const float v = sb[g][t][b] < 0 ? -sb[g][t][b] : sb[g][t][b];
        peaks[b] = v > peaks[b] ? v : peaks[b];
      }
    for (int32_t b = 0; b < 32; ++b) {
      if (b >= sblimit) {
        index[g][b] = 63;
        continue;
      }
      const double peak = peaks[b];
      // multiple[] falls with the index: find the largest index whose entry is above the peak
      // (Layer II: at or above it), 0 when none is.
      int32_t lo = 0, hi = 62;  // the answer lies in [lo, hi]
      auto fits = [&](int32_t i) { return layer == 1 ? SCALE_MULTIPLE[i] > peak : SCALE_MULTIPLE[i] >= peak; };
      while (lo < hi) {
        const int32_t mid = (lo + hi + 1) / 2;
        if (fits(mid))
          lo = mid;
        else
          hi = mid - 1;
      }
      const int32_t found = lo;
      index[g][b] = found;
    }
  }
}

namespace {

struct Twiddle {
  double c[512], s[512];  // cos and -sin of 2 pi i / 1024
  Twiddle() {
    for (int32_t i = 0; i < 512; ++i) {
      c[i] = std::cos(2 * M_PI * i / 1024.0);
      s[i] = -std::sin(2 * M_PI * i / 1024.0);
    }
  }
};
const Twiddle tw;

// Iterative radix-2 decimation-in-time complex FFT of n points (at most 512 here), twiddles read
// from the 1024-point table with a stride.
void complex_fft(double* re, double* im, int32_t n) {
  for (int32_t i = 1, j = 0; i < n; ++i) {
    int32_t bit = n >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j |= bit;
    if (i < j) {
      double t = re[i];
      re[i] = re[j];
      re[j] = t;
      t = im[i];
      im[i] = im[j];
      im[j] = t;
    }
  }
  for (int32_t len = 2; len <= n; len <<= 1) {
    const int32_t half = len >> 1, stride = 1024 / len;
    for (int32_t i = 0; i < n; i += len) {
      for (int32_t k = 0; k < half; ++k) {
        const double wr = tw.c[k * stride], wi = tw.s[k * stride];
        const int32_t a = i + k, b = a + half;
        const double xr = re[b] * wr - im[b] * wi;
        const double xi = re[b] * wi + im[b] * wr;
        re[b] = re[a] - xr;
        im[b] = im[a] - xi;
        re[a] += xr;
        im[a] += xi;
      }
    }
  }
}

}  // namespace

// The real input is packed as n/2 complex points (even samples real, odd imaginary), transformed,
// and the two interleaved spectra separated: half the work of a complex transform of n points.
void real_fft(const double* x, double* re, double* im, int32_t n) {
  const int32_t h = n / 2;
  double zr[512], zi[512];
  for (int32_t k = 0; k < h; ++k) {
    zr[k] = x[2 * k];
    zi[k] = x[2 * k + 1];
  }
  complex_fft(zr, zi, h);
  const int32_t stride = 1024 / n;
  re[0] = zr[0] + zi[0];
  im[0] = 0.0;
  re[h] = zr[0] - zi[0];
  im[h] = 0.0;
  for (int32_t k = 1; k < h; ++k) {
    const double ar = zr[k], ai = zi[k], br = zr[h - k], bi = -zi[h - k];  // Z[k], conj Z[h - k]
    const double er = 0.5 * (ar + br), ei = 0.5 * (ai + bi);               // even samples' spectrum
    const double orr = 0.5 * (ai - bi), oi = -0.5 * (ar - br);             // odd samples' spectrum
    const double wr = tw.c[k * stride], wi = tw.s[k * stride];
    re[k] = er + orr * wr - oi * wi;
    im[k] = ei + orr * wi + oi * wr;
  }
}

}  // namespace encoder
