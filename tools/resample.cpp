// The resampler job and its three kernels.
//
// The loop walks the input with a double position that grows by input rate / output rate per
// output frame, so no drift builds up beyond double rounding. Each output frame is one kernel call
// at that position. The loop works out a block of positions ahead (each one the previous plus the
// step, exactly as a frame-by-frame loop would) and lets the kernel evaluate the whole block, then
// writes the frames one by one with the stop test, the progress message and the cancel test in
// their places; frames worked out past the stop are dropped.
//
// kernel_sinc, for rates that rise or stay, is the plain truncated sinc at the input's Nyquist
// rate (then the lower of the two), no window, no normalisation. Its arithmetic is fixed in detail, because users
// compare outputs: the argument d * pi is reduced by repeated steps of 2 pi, the divisor is the single-precision copy
// of d * pi taken before that reduction, and the two sums are floats, each product added in turn. Its sine is our own
// polynomial (sinc_sine), not the C library's, whose last bit differs between library versions and processors.
// kernel_sinc_block computes the same numbers for eight output frames at once, one frame per vector lane and every lane
// doing the scalar operations in the scalar order; tests hold the two paths to bit equality.
#include "tools/resample.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "tools/wave.h"

namespace tools {

ResampleState resample;

namespace {

// pi as the nearest double, and the rest of pi behind it; 2 pi by an exact doubling.
constexpr double PI = 3.141592653589793;
constexpr double PI_LO = 1.2246467991473532e-16;
constexpr double TWO_PI = 2.0 * PI;
constexpr double INV_PI = 0.3183098861837907;
// Adding 1.5 * 2^52 rounds a double of magnitude below 2^51 to an integer, which then stands in
// the low bits of the sum's mantissa.
constexpr double ROUND_MAGIC = 6755399441055744.0;

// Taylor coefficients of sin r = r + r^3 * (c0 + c1 r^2 + c2 r^4 + ...), c_k = (-1)^(k+1) / (2k+3)!,
// up to r^21: on |r| <= pi/2 the first term left out is below 2e-18.
constexpr int32_t SINE_TERMS = 10;
struct SineTable {
  double c[SINE_TERMS];
};
constexpr SineTable make_sine_table() {
  SineTable t{};
  double term = 1.0;
  for (int32_t k = 0; k < SINE_TERMS; ++k) {
    term = -term / double((2 * k + 2) * (2 * k + 3));
    t.c[k] = term;
  }
  return t;
}
constexpr SineTable sine_table = make_sine_table();
static_assert(sine_table.c[0] == -1.0 / 6.0 && sine_table.c[1] == 1.0 / 120.0);

// Rounds a double to the nearest single-precision value, ties to even, by rounding its 52-bit
// mantissa to 23 bits in place (a carry moves into the exponent as it should). This is exactly
// float(v) for every v whose float is a normal number, which holds for all the sums and divisors
// here: they are 0 or far above 2^-126 and far below 2^128. The vector path has no cheap
// conversion to float and back for eight lanes, and the same bit operations serve both paths.
constexpr int32_t SINGLE_DROPPED_BITS = 52 - 23;
constexpr int64_t SINGLE_DROPPED_MASK = (int64_t(1) << SINGLE_DROPPED_BITS) - 1;
constexpr int64_t SINGLE_HALF = int64_t(1) << (SINGLE_DROPPED_BITS - 1);
}  // namespace

double round_to_single(double v) {
  int64_t b;
  std::memcpy(&b, &v, sizeof b);
  b = (b + (SINGLE_HALF - 1) + ((b >> SINGLE_DROPPED_BITS) & 1)) & ~SINGLE_DROPPED_MASK;
  std::memcpy(&v, &b, sizeof v);
  return v;
}

namespace {

// Kernel results are truncated towards zero; the clamp only keeps the conversion defined.
int32_t to_int(double v) { return int32_t(std::clamp(v, -2147483648.0, 2147483647.0)); }

// The weight of one sinc tap at distance d.
double sinc_weight(double d) {
  if (d == 0.0) return 1.0;
  double x = d * PI;
  double divisor = round_to_single(x);  // kept from before the reduction, in single precision
  while (x >= TWO_PI) x -= TWO_PI;
  while (x <= -TWO_PI) x += TWO_PI;
  return sinc_sine(x) / divisor;
}

// --- The vector path of kernel_sinc -------------------------------------------------------------

constexpr int32_t LANES = 8;
typedef double VecD __attribute__((vector_size(LANES * sizeof(double))));
typedef int64_t VecL __attribute__((vector_size(LANES * sizeof(int64_t))));

// The helpers are always inlined into their callers, so no vector crosses a call and the
// warning about the ABI of wide vector arguments does not apply.
#if defined(__GNUC__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif
#define VECTOR_INLINE inline __attribute__((always_inline))

VECTOR_INLINE VecD splat(double v) { return VecD{} + v; }
VECTOR_INLINE VecD load(const double* p) {
  VecD v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
VECTOR_INLINE VecD select(VecL mask, VecD yes, VecD no) { return VecD((VecL(yes) & mask) | (VecL(no) & ~mask)); }
// Rounding to single precision, lane by lane, by the same bit operations as round_to_single.
VECTOR_INLINE VecD round_to_float(VecD v) {
  VecL b = VecL(v);
  return VecD((b + (SINGLE_HALF - 1) + ((b >> SINGLE_DROPPED_BITS) & 1)) & ~SINGLE_DROPPED_MASK);
}

// Input frames converted once, for the taps of many output frames. Filled in rising index order
// through read_wave_frame, so the reader sees what a frame-by-frame kernel would show it.
struct SampleWindow {
  static constexpr int64_t CAPACITY = 8192;
  int64_t base = 0;     // index of left[0]
  int64_t end = 0;      // first index not held
  uint32_t serial = 0;  // the input file the values came from
  double left[CAPACITY];
  double right[CAPACITY];
};
SampleWindow window;

// Makes the window hold [lo, hi). False when the span is too wide (steps of hundreds of frames).
bool fill_window(int64_t lo, int64_t hi) {
  SampleWindow& w = window;
  if (hi - lo > SampleWindow::CAPACITY) return false;
  if (w.serial != wave_in.serial || lo < w.base || lo > w.end) {
    w.serial = wave_in.serial;
    w.base = w.end = lo;
  } else if (hi - w.base > SampleWindow::CAPACITY) {
    int64_t keep = w.end - lo;
    std::memmove(w.left, w.left + (lo - w.base), size_t(keep) * sizeof(double));
    std::memmove(w.right, w.right + (lo - w.base), size_t(keep) * sizeof(double));
    w.base = lo;
  }
  for (; w.end < hi; ++w.end) {
    int32_t l, r;
    read_wave_frame(w.end, l, r);
    w.left[w.end - w.base] = l;
    w.right[w.end - w.base] = r;
  }
  return true;
}

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__)
#define TOVRA_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define TOVRA_VECTOR_CLONES
#endif

// sin r for |r| <= pi/2 (and a little beyond), by the Taylor polynomial in z = r^2 evaluated in
// Estrin's order: a short dependency chain, and the same operations whether T is one double or a
// vector of them.
template <typename T>
VECTOR_INLINE T sine_near_zero(T r) {
  const double* c = sine_table.c;
  const T z = r * r;
  const T z2 = z * z;
  const T z4 = z2 * z2;
  const T z8 = z4 * z4;
  const T a0 = c[0] + c[1] * z;
  const T a1 = c[2] + c[3] * z;
  const T a2 = c[4] + c[5] * z;
  const T a3 = c[6] + c[7] * z;
  const T a4 = c[8] + c[9] * z;
  const T p = ((a0 + a1 * z2) + (a2 + a3 * z2) * z4) + a4 * z8;
  return r + (r * z) * p;
}
static_assert(SINE_TERMS == 10, "sine_near_zero is written out for ten coefficients");

// x = q pi + r with q the nearest integer to x / pi; sin x = (-1)^q sin r. t carries q in the low
// bits of its mantissa, so its lowest bit is q's parity.
VECTOR_INLINE VecD sine_lanes(VecD x) {
  VecD t = x * INV_PI + ROUND_MAGIC;
  VecD q = t - ROUND_MAGIC;
  VecD r = (x - q * PI) - q * PI_LO;
  VecD s = sine_near_zero(r);
  return VecD(VecL(s) ^ (VecL(t) << 63));
}

// Where a lane finds its taps' input values. Transposed: copied out tap by tap, LANES values each.
struct TransposedTaps {
  const double* left;
  const double* right;
  VECTOR_INLINE VecD at(const double* from, int32_t k) const { return load(from + k * LANES); }
};

#if defined(__GNUC__) && !defined(__clang__)
#define TOVRA_SHUFFLED_TAPS 1
// Shuffled: when the lanes' first taps lie within LANES frames of the least one's, lane j's tap k is
// element lanes[j] of the 2 * LANES window values from that one's tap k on, so one permutation per
// tap replaces the copying.
struct ShuffledTaps {
  const double* left;
  const double* right;
  VecL lanes;
  VECTOR_INLINE VecD at(const double* from, int32_t k) const {
    return __builtin_shuffle(load(from + k), load(from + k + LANES), lanes);
  }
};
#endif

// One output frame per lane: pos and first are the lanes' positions and first tap indices (as
// doubles). The work is done in three sweeps over the taps, so that the last one, which carries
// nearly all of it, has no branch but its loop's and its iterations overlap in the processor.
template <typename Taps>
VECTOR_INLINE void sinc_lanes(const double* pos, const double* first, int32_t taps, const Taps& source, double* out_l,
                              double* out_r) {
  const VecD position = load(pos);
  const VecD start = load(first);
  const VecD two_pi = splat(TWO_PI);
  VecD xs[RESAMPLE_QUALITY_MAX];
  VecD divisors[RESAMPLE_QUALITY_MAX];
  for (int32_t k = 0; k < taps; ++k) {
    VecD x = (position - (start + double(k))) * PI;
    xs[k] = x;
    divisors[k] = round_to_float(x);
  }
  // The reduction by steps of 2 pi. For tap k every lane's d lies within [m, m + 1], m = taps/2 -
  // 1 - k, so the sign of x is known and so is the number of steps the frame-by-frame loop takes,
  // within three: the steps that are certainly due are taken outright, the last three only where
  // due (a step that isn't due leaves x as it is).
  for (int32_t k = 0; k < taps; ++k) {
    const int32_t m = taps / 2 - 1 - k;
    VecD x = xs[k];
    if (m >= 0) {
      for (int32_t sure = m / 2 - 1; sure > 0; --sure) x -= two_pi;
      for (int32_t pass = 0; pass < 3; ++pass) x -= VecD(VecL(two_pi) & VecL(x >= two_pi));
    } else {
      for (int32_t sure = (-m - 1) / 2 - 1; sure > 0; --sure) x += two_pi;
      for (int32_t pass = 0; pass < 3; ++pass) x += VecD(VecL(two_pi) & VecL(x <= -two_pi));
    }
    xs[k] = x;
  }
  VecD sum_l{}, sum_r{};
  for (int32_t k = 0; k < taps; ++k) {
    const VecD d = position - (start + double(k));
    VecD w = sine_lanes(xs[k]) / divisors[k];
    w = select(VecL(d == 0.0), splat(1.0), w);
    sum_l = round_to_float(sum_l + source.at(source.left, k) * w);
    sum_r = round_to_float(sum_r + source.at(source.right, k) * w);
  }
  std::memcpy(out_l, &sum_l, sizeof sum_l);
  std::memcpy(out_r, &sum_r, sizeof sum_r);
}

TOVRA_VECTOR_CLONES void sinc_lanes_transposed(const double* pos, const double* first, int32_t taps,
                                               const double* samples_l, const double* samples_r, double* out_l,
                                               double* out_r) {
  sinc_lanes(pos, first, taps, TransposedTaps{samples_l, samples_r}, out_l, out_r);
}

#if TOVRA_SHUFFLED_TAPS
TOVRA_VECTOR_CLONES void sinc_lanes_shuffled(const double* pos, const double* first, int32_t taps,
                                             const double* window_l, const double* window_r, const int64_t* lanes,
                                             double* out_l, double* out_r) {
  VecL lane_index;
  std::memcpy(&lane_index, lanes, sizeof lane_index);
  sinc_lanes(pos, first, taps, ShuffledTaps{window_l, window_r, lane_index}, out_l, out_r);
}
#endif

// --- The low-pass kernel for downsampling -------------------------------------------------------

// Below the input's rate the sinc must cut at the output's Nyquist frequency, or everything between
// the two Nyquist frequencies folds back as aliases. kernel_lowpass applies a Kaiser-windowed sinc
// stretched by the step. The window makes the stopband real (70 dB), and its transition band lies
// just below the output's Nyquist frequency, so that nothing above it comes through. The kernel
// spans `span` output samples, the quality or LOWPASS_MIN_SPAN if that is more: fewer could not
// hold the stopband with a passband worth the name.
//
// The weights come from a polyphase table filled once per job: row p holds the weights of the
// taps i - before, i - before + 1, ... for a position of i + p / phases, and a position between
// two rows takes the weights linearly between them. Rows are padded with zero weights to a
// multiple of LANES taps, so that the sums run over whole vectors.
constexpr int32_t LOWPASS_MIN_SPAN = 80;
constexpr double LOWPASS_ATTENUATION = 70.0;  // dB
constexpr double LOWPASS_PHASES_PER_OUTPUT_SAMPLE = 256.0;

struct Lowpass {
  int32_t phases = 0;     // rows - 1
  int32_t taps = 0;       // per row, a multiple of LANES
  int32_t before = 0;     // the first tap's distance to the left of the position's frame
  float* rows = nullptr;  // (phases + 1) * taps, kept from job to job
  size_t capacity = 0;    // floats allocated at rows
};
Lowpass lowpass;

// The modified Bessel function of order 0, by its power series.
double bessel_i0(double x) {
  double sum = 1.0, term = 1.0;
  const double q = x * x / 4.0;
  for (int32_t k = 1; k < 200 && term > sum * 1e-20; ++k) {
    term *= q / (double(k) * double(k));
    sum += term;
  }
  return sum;
}

// Fills the table for a step above 1 and a quality of 2 and up. Returns false without memory.
bool make_lowpass(double step, int32_t quality) {
  const int32_t span = std::max(quality, LOWPASS_MIN_SPAN);
  const double half = span / 2.0;
  // Kaiser's estimates: the transition width that the span buys at the attenuation, and the
  // window's shape for that attenuation. The transition ends at the output's Nyquist frequency.
  const double transition = (LOWPASS_ATTENUATION - 8.0) / (2.285 * 2.0 * PI * span);
  const double cutoff = 0.5 - transition / 2.0;  // cycles per output sample
  const double beta = 0.1102 * (LOWPASS_ATTENUATION - 8.7);
  const double i0_beta = bessel_i0(beta);
  // The kernel at u output samples from its centre, scaled for taps one input frame apart.
  auto kernel = [&](double u) {
    u = std::fabs(u);
    if (u >= half) return 0.0;
    const double x = 2.0 * PI * cutoff * u;
    const double sinc = u == 0.0 ? 1.0 : sinc_sine(x - TWO_PI * std::floor(x / TWO_PI)) / x;
    const double r = u / half;
    return 2.0 * cutoff * sinc * bessel_i0(beta * std::sqrt(1.0 - r * r)) / i0_beta / step;
  };
  Lowpass& lp = lowpass;
  const int32_t reach = int32_t(half * step);
  lp.before = reach;
  lp.taps = (2 * reach + 2 + LANES - 1) / LANES * LANES;
  // The weights change as fast in the input's frames as the kernel does in the output's samples
  // divided by the step: the phases follow, at no fewer than 16 a frame.
  lp.phases = std::max(16, int32_t(std::ceil(LOWPASS_PHASES_PER_OUTPUT_SAMPLE / step)));
  const size_t need = size_t(lp.phases + 1) * size_t(lp.taps);
  if (need > lp.capacity) {
    auto* grown = static_cast<float*>(std::realloc(lp.rows, need * sizeof(float)));
    if (!grown) return false;
    lp.rows = grown;
    lp.capacity = need;
  }
  for (int32_t p = 0; p <= lp.phases; ++p) {
    const double fraction = double(p) / lp.phases;
    for (int32_t n = 0; n < lp.taps; ++n)
      lp.rows[size_t(p) * size_t(lp.taps) + size_t(n)] = float(kernel((fraction + lp.before - n) / step));
  }
  return true;
}

typedef float VecF __attribute__((vector_size(LANES * sizeof(float))));

VECTOR_INLINE VecF load_floats(const float* p) {
  VecF v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// The sums of one output frame over taps samples from l and r, with the weights between rows a
// and b at pf. Each lane sums every LANES-th tap; the lanes are added at the end in a fixed order.
TOVRA_VECTOR_CLONES void lowpass_lanes(const float* a, const float* b, float pf, int32_t taps, const double* l,
                                       const double* r, float& out_l, float& out_r) {
  VecF sum_l{}, sum_r{};
  for (int32_t n = 0; n < taps; n += LANES) {
    const VecF wa = load_floats(a + n);
    const VecF w = wa + pf * (load_floats(b + n) - wa);
    sum_l += __builtin_convertvector(load(l + n), VecF) * w;
    sum_r += __builtin_convertvector(load(r + n), VecF) * w;
  }
  float total_l = 0.0f, total_r = 0.0f;
  for (int32_t j = 0; j < LANES; ++j) {
    total_l += sum_l[j];
    total_r += sum_r[j];
  }
  out_l = total_l;
  out_r = total_r;
}

}  // namespace

double sinc_sine(double x) {
  double t = x * INV_PI + ROUND_MAGIC;
  double q = t - ROUND_MAGIC;
  double r = (x - q * PI) - q * PI_LO;
  double s = sine_near_zero(r);
  uint64_t s_bits, t_bits;
  std::memcpy(&s_bits, &s, sizeof s);
  std::memcpy(&t_bits, &t, sizeof t);
  s_bits ^= t_bits << 63;
  std::memcpy(&s, &s_bits, sizeof s);
  return s;
}

double cubic_weight(double x) {
  double a = std::fabs(x);
  if (a <= 1.0) return (a - 2.0) * (a * a) + 1.0;
  if (a < 2.0) return ((5.0 - a) * a - 8.0) * a + 4.0;
  return 0.0;
}

void kernel_linear(double position, int32_t& left, int32_t& right) {
  int64_t i = int64_t(position);
  double f = position - double(i);
  int32_t l0, r0, l1, r1;
  read_wave_frame(i, l0, r0);
  read_wave_frame(i + 1, l1, r1);
  left = to_int(l1 * f + l0 * (1.0 - f));
  right = to_int(r1 * f + r0 * (1.0 - f));
}

void kernel_cubic(double position, int32_t& left, int32_t& right) {
  int64_t i = int64_t(position);
  double f = position - double(i);
  const double w[4] = {cubic_weight(-1.0 - f), cubic_weight(-f), cubic_weight(1.0 - f), cubic_weight(2.0 - f)};
  double sum_l = 0.0, sum_r = 0.0;
  for (int32_t k = 0; k < 4; ++k) {
    int32_t l, r;
    read_wave_frame(i - 1 + k, l, r);
    sum_l += l * w[k];
    sum_r += r * w[k];
  }
  left = to_int(sum_l);
  right = to_int(sum_r);
}

void kernel_sinc(double position, int32_t& left, int32_t& right) {
  const int32_t taps = resample.quality;
  int64_t index = int64_t(position) - taps / 2 + 1;
  double sum_l = 0.0, sum_r = 0.0;  // single-precision values
  for (int32_t k = 0; k < taps; ++k, ++index) {
    int32_t l, r;
    read_wave_frame(index, l, r);
    double w = sinc_weight(position - double(index));
    sum_l = round_to_single(sum_l + double(l) * w);
    sum_r = round_to_single(sum_r + double(r) * w);
  }
  left = to_int(sum_l);
  right = to_int(sum_r);
}

void kernel_lowpass(double position, int32_t& left, int32_t& right) {
  const Lowpass& lp = lowpass;
  const int64_t i = int64_t(position);
  const double phase = (position - double(i)) * lp.phases;
  const int32_t row = std::min(int32_t(phase), lp.phases - 1);
  const float pf = float(phase - row);
  const float* a = lp.rows + size_t(row) * size_t(lp.taps);
  const float* b = a + lp.taps;
  const int64_t first = i - lp.before;
  float sum_l, sum_r;
  if (fill_window(first, first + lp.taps)) {
    lowpass_lanes(a, b, pf, lp.taps, window.left + (first - window.base), window.right + (first - window.base), sum_l,
                  sum_r);
  } else {
    // Steps of hundreds of frames: the taps are read one by one, summed as the lanes would.
    float lanes_l[LANES] = {}, lanes_r[LANES] = {};
    for (int32_t n = 0; n < lp.taps; ++n) {
      int32_t l, r;
      read_wave_frame(first + n, l, r);
      const float w = a[n] + pf * (b[n] - a[n]);
      lanes_l[n % LANES] += float(l) * w;
      lanes_r[n % LANES] += float(r) * w;
    }
    sum_l = sum_r = 0.0f;
    for (int32_t j = 0; j < LANES; ++j) {
      sum_l += lanes_l[j];
      sum_r += lanes_r[j];
    }
  }
  left = to_int(sum_l);
  right = to_int(sum_r);
}

void kernel_sinc_block(const double* positions, int32_t count, int32_t* left, int32_t* right) {
  const int32_t taps = resample.quality;
  alignas(64) double samples_l[RESAMPLE_QUALITY_MAX * LANES];
  alignas(64) double samples_r[RESAMPLE_QUALITY_MAX * LANES];
  for (int32_t done = 0; done < count; done += LANES) {
    const int32_t n = std::min(LANES, count - done);
    const double* p = positions + done;
    alignas(64) double pos[LANES], first[LANES], out_l[LANES], out_r[LANES];
    int64_t start[LANES];
    int64_t lo = INT64_MAX, hi = INT64_MIN;
    for (int32_t j = 0; j < LANES; ++j) {
      // Lanes past the end repeat the first one: their results are dropped.
      pos[j] = p[j < n ? j : 0];
      start[j] = int64_t(pos[j]) - taps / 2 + 1;
      first[j] = double(start[j]);
      lo = std::min(lo, start[j]);
      hi = std::max(hi, start[j] + taps);
    }
    if (taps < 2 || taps > RESAMPLE_QUALITY_MAX) {
      for (int32_t j = 0; j < n; ++j) kernel_sinc(p[j], left[done + j], right[done + j]);
      continue;
    }
#if TOVRA_SHUFFLED_TAPS
    // Steps up to about one input frame (upsampling and mild downsampling) keep the lanes close.
    // (lo and hi - taps are the least and the greatest first tap over the lanes.)
    if (hi - taps - lo < LANES && fill_window(lo, lo + taps + 2 * LANES)) {
      int64_t lanes[LANES];
      for (int32_t j = 0; j < LANES; ++j) lanes[j] = start[j] - lo;
      const int64_t at = lo - window.base;
      sinc_lanes_shuffled(pos, first, taps, window.left + at, window.right + at, lanes, out_l, out_r);
      for (int32_t j = 0; j < n; ++j) {
        left[done + j] = to_int(out_l[j]);
        right[done + j] = to_int(out_r[j]);
      }
      continue;
    }
#endif
    if (!fill_window(lo, hi)) {
      for (int32_t j = 0; j < n; ++j) kernel_sinc(p[j], left[done + j], right[done + j]);
      continue;
    }
    for (int32_t j = 0; j < LANES; ++j) {
      const int64_t at = start[j] - window.base;
      for (int32_t k = 0; k < taps; ++k) {
        samples_l[k * LANES + j] = window.left[at + k];
        samples_r[k * LANES + j] = window.right[at + k];
      }
    }
    sinc_lanes_transposed(pos, first, taps, samples_l, samples_r, out_l, out_r);
    for (int32_t j = 0; j < n; ++j) {
      left[done + j] = to_int(out_l[j]);
      right[done + j] = to_int(out_r[j]);
    }
  }
}

int32_t resample_setup(const char* input_path, const char* output_path, int32_t rate, int32_t bits, int32_t channels,
                       int32_t quality) {
  if ((bits != 8 && bits != 16) || (channels != 1 && channels != 2) || rate <= 0) return format::ERR_WAVE_FORMAT;
  int32_t in_rate, in_bits, in_channels;
  uint32_t data_size;
  int32_t code = open_wave_input(input_path, in_rate, in_bits, in_channels, data_size);
  if (code != format::ERR_OK) return code;
  resample.limit = wave_in.frames;
  resample.step = double(in_rate) / double(rate);
  resample.total = int64_t(rate) * resample.limit / in_rate;
  // A file without a single frame to write makes no output: the job is refused before one exists.
  if (resample.total == 0) {
    close_wave_input();
    return format::ERR_WAVE_NO_DATA;
  }
  // The estimate in the first header is the output's own size, which a reader of a file left by a
  // crash finds closest to the truth.
  const int64_t estimate = resample.total * (bits / 8) * channels;
  code = open_wave_output(output_path, rate, bits, channels, uint32_t(std::min<int64_t>(estimate, 0xFFFFFFD0)));
  if (code != format::ERR_OK) {
    close_wave_input();
    return code;
  }
  resample.quality = std::clamp(quality, 0, RESAMPLE_QUALITY_MAX);
  resample.kernel = resample.quality == 0 ? kernel_linear : resample.quality == 1 ? kernel_cubic : kernel_sinc;
  if (resample.quality >= 2 && resample.step > 1.0) {
    if (!make_lowpass(resample.step, resample.quality)) {
      close_wave_output();
      remove_partial_output(output_path);
      close_wave_input();
      return format::ERR_NO_MEMORY;
    }
    resample.kernel = kernel_lowpass;
  }
  return format::ERR_OK;
}

int32_t resample_run(const format::Work& work, bool pause_now_and_then, int64_t& frames) {
  constexpr int32_t BLOCK = 64;
  double positions[BLOCK];
  int32_t left[BLOCK], right[BLOCK];
  const double step = resample.step;
  const int64_t total = resample.total;
  const int64_t limit = resample.limit;
  double position = 0.0;
  int64_t n = 0;
  frames = 0;
  while (n < total) {
    int32_t count = int32_t(std::min<int64_t>(BLOCK, total - n));
    positions[0] = position;
    for (int32_t j = 1; j < count; ++j) positions[j] = positions[j - 1] + step;
    if (resample.kernel == kernel_sinc) {
      kernel_sinc_block(positions, count, left, right);
    } else {
      for (int32_t j = 0; j < count; ++j) resample.kernel(positions[j], left[j], right[j]);
    }
    for (int32_t j = 0; j < count; ++j, ++n) {
      int32_t result = write_wave_frame(left[j], right[j]);
      if (result != format::ERR_OK) return result;
      frames = n + 1;
      position = positions[j] + step;
      if (int64_t(position) >= limit) return format::ERR_OK;
      if ((n & RESAMPLE_PROGRESS_MASK) == 0) {
        work.report(n, total);
        if (work.cancelled()) return format::WORK_CANCELLED;
        if (pause_now_and_then) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
  }
  return format::ERR_OK;
}

}  // namespace tools
