// How the synthesis works.
//
// Each slot runs a 32-point cosine transform of the slot's 32 subband samples (the recursive
// even/odd split, fully unrolled by templates) and stores the two halves of the standard's 64-value
// matrixing vector in the two banks of the channel's ring: with p the phase, bank p, column s gets
// 2V[0..15] and bank 1-p, column s gets 2V[32..48]. The other 47 values of V follow from these by
// the matrix's symmetries (V[32-i] = -V[i], V[48+i] = V[48-i]). Output sample j is then a 16-term
// sum over the columns of one bank row against one window row; the samples above 16 use the
// window's symmetry about its middle, read backwards with alternating signs.
//
// The sums run against a derived window (synth_kernel) of 32 rows, one per output sample, built
// once from SYNTH_WINDOW: row j already holds the backwards reading, the signs, and for j = 16 the
// zeros of the columns that hold no value, each doubled like SYNTH_WINDOW so that the read starts
// at 16 - s and needs no wrap. So every output sample is the same kernel with a different bank row
// and window row, and the six variants differ only in the mask of samples they compute, where they
// store them and how they fill the gaps.
//
// Column and phase stay in step: column s is always written at phase s mod 2, because both start at
// 0, s steps by one and the phase toggles each slot, and each call moves s by 18 (even) and leaves
// the phase as it found it. The sign rule by column parity and phase is therefore the sign rule by
// the column's age, which is what the derived window encodes.
//
// Arithmetic: single precision throughout, in one fixed order, the same in every build. A window
// sum is eight partial sums over the columns k and k+8 for k = 0..7, then
// ((p0 + p1) + (p2 + p3)) + ((p4 + p5) + (p6 + p7)). The sum is truncated towards zero and clipped.
//
// Speed without changing a value: a call first transforms all 18 slots, eight at a time in vector
// lanes; the window sums finish eight samples at once; the same source is built twice, portable
// (SSE2 on x86-64) and for AVX2, and the wider one runs where the processor has it. Only the
// session thread calls in, so the state is plain.
#include "decoder/synth.h"

#include <cstring>
#include <utility>

#include "decoder/decoder.h"
#include "decoder/tables.h"
#include "session/session.h"

namespace decoder {

alignas(64) float subband_samples[32][18];
alignas(64) int16_t pcm_block[1152];

alignas(64) float synth_banks[2][2][17][16];
uint32_t synth_column[2];
int32_t synth_phase;

namespace {

// Output sample j's window: 32 doubled entries indexed by 16 - s + column.
alignas(64) float synth_kernel[32][32];

// Vectors in the compiler's generic form: the baseline build splits them into SSE2 pairs.
// The helpers are always inlined, so no vector crosses a call and the ABI note does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"
typedef float v8f __attribute__((vector_size(32)));
typedef int32_t v8i __attribute__((vector_size(32)));

// ---- The transform ----

// 2cos((2k+1) pi / (2N)) for the recursive split at size N, as single-precision constants
// (decoder/gen_tables.py prints them).
template <int N>
struct SplitConstants;
template <>
struct SplitConstants<32> {
  static constexpr float c[16] = {1.9975909f, 1.978353f,   1.9400625f,  1.8830881f, 1.8079786f, 1.7154572f,
                                  1.606415f,  1.4819022f,  1.343118f,   1.1913986f, 1.0282055f, 0.85511017f,
                                  0.6737797f, 0.48596036f, 0.29346094f, 0.09813535f};
};
template <>
struct SplitConstants<16> {
  static constexpr float c[8] = {1.9903694f, 1.9138807f, 1.7638426f, 1.5460209f,
                                 1.2687865f, 0.9427935f, 0.5805693f, 0.19603428f};
};
template <>
struct SplitConstants<8> {
  static constexpr float c[4] = {1.9615705f, 1.6629392f, 1.1111405f, 0.39018065f};
};
template <>
struct SplitConstants<4> {
  static constexpr float c[2] = {1.847759f, 0.76536685f};
};
template <>
struct SplitConstants<2> {
  static constexpr float c[1] = {1.4142135f};
};

// X[m] = sum over k of x[k] cos((2k+1) m pi / (2N)): sums feed the even outputs, weighted
// differences the odd ones through the chain X[2p+1] = B[p] - X[2p-1].
template <int N, typename T>
[[gnu::always_inline]] inline void dct(const T* x, T* out) {
  if constexpr (N == 1) {
    out[0] = x[0];
  } else {
    constexpr int H = N / 2;
    T a[H], b[H], A[H], B[H];
#pragma GCC unroll 16
    for (int k = 0; k < H; ++k) {
      a[k] = x[k] + x[N - 1 - k];
      b[k] = (x[k] - x[N - 1 - k]) * SplitConstants<N>::c[k];
    }
    dct<H, T>(a, A);
    dct<H, T>(b, B);
#pragma GCC unroll 16
    for (int p = 0; p < H; ++p) out[2 * p] = A[p];
    out[1] = B[0] * 0.5f;
#pragma GCC unroll 16
    for (int p = 1; p < H; ++p) out[2 * p + 1] = B[p] - out[2 * p - 1];
  }
}

// ---- The window sums ----

[[gnu::always_inline]] inline v8f load8(const float* p) {
  v8f v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// One bank row (16 columns) against 16 window entries: lane k holds the columns k and k+8.
[[gnu::always_inline]] inline v8f window_lanes(const float* row, const float* w) {
  return load8(row) * load8(w) + load8(row + 8) * load8(w + 8);
}
[[gnu::always_inline]] inline float window_sum(const float* row, const float* w) {
  v8f p = window_lanes(row, w);
  return ((p[0] + p[1]) + (p[2] + p[3])) + ((p[4] + p[5]) + (p[6] + p[7]));
}
// Eight sums at once, each finished exactly as window_sum: neighbours first, then pairs, then
// halves.
[[gnu::always_inline]] inline v8f finish8(v8f a, v8f b, v8f c, v8f d, v8f e, v8f f, v8f g, v8f h) {
  auto pairs = [](v8f x, v8f y) {
    return __builtin_shufflevector(x, y, 0, 8, 2, 10, 4, 12, 6, 14) +
           __builtin_shufflevector(x, y, 1, 9, 3, 11, 5, 13, 7, 15);
  };
  auto quads = [](v8f x, v8f y) {
    return __builtin_shufflevector(x, y, 0, 1, 8, 9, 4, 5, 12, 13) +
           __builtin_shufflevector(x, y, 2, 3, 10, 11, 6, 7, 14, 15);
  };
  v8f abcd = quads(pairs(a, b), pairs(c, d)), efgh = quads(pairs(e, f), pairs(g, h));
  return __builtin_shufflevector(abcd, efgh, 0, 1, 2, 3, 8, 9, 10, 11) +
         __builtin_shufflevector(abcd, efgh, 4, 5, 6, 7, 12, 13, 14, 15);
}

// Truncation towards zero, then the clip: 32768 and above give 32767, everything else outside the
// range (NaN included) gives -32768.
[[gnu::always_inline]] inline int32_t to_pcm(float v) {
  if (v >= 32767.0f) return 32767;
  if (v > -32769.0f) return int32_t(v);
  return -32768;
}
[[gnu::always_inline]] inline v8i to_pcm8(v8f v) {
  const v8f top = v8f{} + 32767.0f, floor = v8f{} - 32769.0f, bottom = v8f{} - 32768.0f;
  v8f r = v >= top ? top : v;
  r = r > floor ? r : bottom;  // NaN fails both tests and lands here
  return __builtin_convertvector(r, v8i);
}

// ---- The variants ----

enum Fill { FILL_NONE, FILL_FAST, FILL_OVERDRIVE };
enum Addressing { ADDR_STEREO, ADDR_MONO, ADDR_BY_CHANNELS };

struct Variant {
  uint32_t computed;  // bit j: sample j is a window sum
  Fill fill;
  Addressing addressing;
};

constexpr uint32_t ALL_SAMPLES = 0xFFFFFFFFu;
constexpr uint32_t EVEN_SAMPLES = 0x55555555u;
constexpr uint32_t EVERY_FOURTH = 0x11111111u;
// The gaps of synth_fast sit at both ends of the slot only: 1, 5, 9, 13, 25, 29.
constexpr uint32_t FAST_GAPS = (1u << 1) | (1u << 5) | (1u << 9) | (1u << 13) | (1u << 25) | (1u << 29);

constexpr Variant FULL = {ALL_SAMPLES, FILL_NONE, ADDR_STEREO};
constexpr Variant MONO = {ALL_SAMPLES, FILL_NONE, ADDR_MONO};
constexpr Variant HALF = {EVEN_SAMPLES, FILL_NONE, ADDR_BY_CHANNELS};
constexpr Variant QUARTER = {EVERY_FOURTH, FILL_NONE, ADDR_BY_CHANNELS};
constexpr Variant FAST = {ALL_SAMPLES & ~FAST_GAPS, FILL_FAST, ADDR_BY_CHANNELS};
constexpr Variant OVERDRIVE = {EVEN_SAMPLES, FILL_OVERDRIVE, ADDR_BY_CHANNELS};

// The transforms of a call's 18 slots, computed before any of them enters the ring (slot 16
// reuses slot 0's column). Eight slots run side by side, one per vector lane: every lane performs
// the scalar transform's operations in the scalar order, so the values are the same. The three
// batches start at slots 0, 8 and 10 (the last recomputes slots 10-15 with identical results).
// now[r][t] = 2V[r] = 2X[16 + r] goes to bank p, other[r][t] = 2V[32 + r] = -2X[16 - r] to bank
// 1-p; the transform's gain of 2 is an exact scaling, applied here.
struct SlotVectors {
  alignas(32) float now[16][24];
  alignas(32) float other[17][24];
};

[[gnu::always_inline]] inline void transform_slots(SlotVectors& out) {
  for (int32_t t0 : {0, 8, 10}) {
    v8f x[32], X[32];
#pragma GCC unroll 32
    for (int k = 0; k < 32; ++k) std::memcpy(&x[k], &subband_samples[k][t0], sizeof(v8f));
    dct<32, v8f>(x, X);
#pragma GCC unroll 16
    for (int r = 0; r < 16; ++r) {
      v8f v = 2.0f * X[16 + r];
      std::memcpy(&out.now[r][t0], &v, sizeof v);
    }
#pragma GCC unroll 17
    for (int r = 0; r < 17; ++r) {
      v8f v = -2.0f * X[16 - r];
      std::memcpy(&out.other[r][t0], &v, sizeof v);
    }
  }
}

// Slot t into the ring's column s: bank p and bank 1-p.
[[gnu::always_inline]] inline void store_slot(const SlotVectors& v, int32_t t, float (*banks)[17][16], uint32_t s,
                                              int32_t p) {
#pragma GCC unroll 16
  for (int r = 0; r < 16; ++r) banks[p][r][s] = v.now[r][t];
#pragma GCC unroll 17
  for (int r = 0; r < 17; ++r) banks[1 - p][r][s] = v.other[r][t];
}

// The samples a variant computes, in order, as a compile-time list.
struct SampleList {
  int32_t count = 0;
  int32_t j[32] = {};
};
// Samples j and 32-j read the same bank row, so they are listed side by side: a block of eight
// then loads four rows instead of eight. The order of the list changes no value.
constexpr SampleList sample_list(uint32_t mask) {
  SampleList l;
  for (int32_t j = 0; j <= 16; ++j) {
    if (mask & (1u << j)) l.j[l.count++] = j;
    if (j > 0 && j < 16 && (mask & (1u << (32 - j)))) l.j[l.count++] = 32 - j;
  }
  return l;
}
constexpr int32_t bank_row(int32_t j) { return j <= 16 ? j : 32 - j; }
template <Variant V>
constexpr SampleList samples_of = sample_list(V.computed);

// Block b of eight computed samples: their sums side by side, converted together.
template <Variant V, int32_t B>
[[gnu::always_inline]] inline void window_block(const float (*bank)[16], int32_t offset, int32_t* out) {
  constexpr const int32_t* j = samples_of<V>.j + 8 * B;
  v8i v = to_pcm8(finish8(window_lanes(bank[bank_row(j[0])], synth_kernel[j[0]] + offset),
                          window_lanes(bank[bank_row(j[1])], synth_kernel[j[1]] + offset),
                          window_lanes(bank[bank_row(j[2])], synth_kernel[j[2]] + offset),
                          window_lanes(bank[bank_row(j[3])], synth_kernel[j[3]] + offset),
                          window_lanes(bank[bank_row(j[4])], synth_kernel[j[4]] + offset),
                          window_lanes(bank[bank_row(j[5])], synth_kernel[j[5]] + offset),
                          window_lanes(bank[bank_row(j[6])], synth_kernel[j[6]] + offset),
                          window_lanes(bank[bank_row(j[7])], synth_kernel[j[7]] + offset)));
#pragma GCC unroll 8
  for (int32_t i = 0; i < 8; ++i) out[j[i]] = v[i];
}
template <Variant V, int32_t... B>
[[gnu::always_inline]] inline void window_blocks(const float (*bank)[16], int32_t offset, int32_t* out,
                                                 std::integer_sequence<int32_t, B...>) {
  (window_block<V, B>(bank, offset, out), ...);
}

template <Variant V>
[[gnu::always_inline]] inline void synth_run(int32_t channel) {
  if (session::stream.emphasis_mode != 0) treat_subbands();
  const int32_t c = channel & 1;
  float(*banks)[17][16] = synth_banks[c];
  uint32_t s = synth_column[c] & 15;
  int32_t p = synth_phase & 1;

  int32_t base, stride;
  if (V.addressing == ADDR_STEREO || (V.addressing == ADDR_BY_CHANNELS && session::state.decoded_channels == 2)) {
    base = c;
    stride = 2;
  } else {
    base = 0;
    stride = 1;
  }

  constexpr SampleList list = sample_list(V.computed);
  constexpr int32_t blocks = list.count / 8;
  SlotVectors slots;
  transform_slots(slots);
  for (int32_t t = 0; t < 18; ++t) {
    store_slot(slots, t, banks, s, p);
    const float(*bank)[16] = banks[p];
    const int32_t offset = 16 - int32_t(s);
    int32_t out[32];
    // Vector block: eight samples per step. Scalar tail: the same sums one by one.
    window_blocks<V>(bank, offset, out, std::make_integer_sequence<int32_t, blocks>{});
#pragma GCC unroll 8
    for (int32_t i = 8 * blocks; i < list.count; ++i) {
      const int32_t j = list.j[i];
      out[j] = to_pcm(window_sum(bank[bank_row(j)], synth_kernel[j] + offset));
    }
    if constexpr (V.fill == FILL_FAST) {
      for (int j : {1, 5, 9, 13, 25, 29}) out[j] = (out[j - 1] + out[j + 1]) >> 1;
    } else if constexpr (V.fill == FILL_OVERDRIVE) {
      for (int j = 1; j < 31; j += 2) out[j] = (out[j - 1] + out[j + 1]) >> 1;
      out[31] = out[30];
    }
    // Slot t's samples at their full-rate places: 64t + 2j + c in a stereo block, 32t + j in a
    // mono one (the same place as 64(t div 2) + 32(t mod 2) + j).
    int16_t* dst = pcm_block + (stride == 2 ? 64 * t : 32 * t) + base;
    constexpr uint32_t stored = V.fill == FILL_NONE ? V.computed : ALL_SAMPLES;
#pragma GCC unroll 32
    for (int j = 0; j < 32; ++j) {
      if (stored & (1u << j)) dst[j * stride] = int16_t(out[j]);
    }
    p ^= 1;
    s = (s - 1) & 15;
  }
  synth_column[c] = s;
  // 18 toggles: the phase ends the call as it began.
}

// The portable kernel, and the same kernel built for AVX2 where the processor has it (no fused
// multiply-adds: contraction stays off, as everywhere in the decoder).
bool use_wide = false;

template <Variant V>
void synth_portable(int32_t channel) {
  synth_run<V>(channel);
}
#if defined(__x86_64__)
template <Variant V>
[[gnu::target("avx2")]] void synth_wide(int32_t channel) {
  synth_run<V>(channel);
}
#endif

template <Variant V>
void synth_dispatch(int32_t channel) {
#if defined(__x86_64__)
  if (use_wide) return synth_wide<V>(channel);
#endif
  synth_portable<V>(channel);
}

}  // namespace

void use_portable_synth(bool portable) {
#if defined(__x86_64__)
  use_wide = !portable && __builtin_cpu_supports("avx2");
#else
  (void)portable;
#endif
}

void init_synth_tables() {
  use_portable_synth(false);
  for (int32_t j = 0; j < 32; ++j) {
    for (int32_t x = 0; x < 32; ++x) {
      int32_t age = x & 15;
      float w;
      if (j < 16) {
        w = SYNTH_WINDOW[j][x];
      } else if (j == 16) {
        // Row 16 holds values only in the columns of odd age; the others were never written.
        w = (age & 1) ? SYNTH_WINDOW[16][x] : 0.0;
      } else {
        // Row 32-j read backwards; even ages added, odd ages subtracted.
        float v = SYNTH_WINDOW[32 - j][15 - age];
        w = (age & 1) ? -v : v;
      }
      synth_kernel[j][x] = w;
    }
  }
}

void synth_full(int32_t channel) { synth_dispatch<FULL>(channel); }
void synth_mono(int32_t channel) { synth_dispatch<MONO>(channel); }
void synth_half(int32_t channel) { synth_dispatch<HALF>(channel); }
void synth_quarter(int32_t channel) { synth_dispatch<QUARTER>(channel); }
void synth_fast(int32_t channel) { synth_dispatch<FAST>(channel); }
void synth_overdrive(int32_t channel) { synth_dispatch<OVERDRIVE>(channel); }

void treat_subbands() {
  if (session::state.session_emphasis == 0) return;
  // Any mode but these three leaves the samples alone: with Hi-Fi on, a stream that has emphasis
  // (1 or 3, giving 5 or 7) loses its de-emphasis, which is how the switch has always worked.
  switch (session::stream.emphasis_mode) {
    case 1:
      // 50/15 microseconds: one notch over rows 5 to 15, not a shelf.
      for (int32_t r = 5; r <= 15; ++r)
        for (float& v : subband_samples[r]) v *= 0.5f;
      break;
    case 3:
      // CCITT J.17: row r scaled by cos(r pi/64).
      for (int32_t r = 1; r < 32; ++r)
        for (float& v : subband_samples[r]) v *= deemphasis_cos[r];
      break;
    case 4: {
      // Hi-Fi: rebuild the upper subbands from lower ones, in four stages, each ascending and
      // reading what the earlier rows of the same stage have already become.
      float g = 0.35124f, d = 0.019242136f;
      for (int32_t r = 24; r < 32; ++r) {
        for (int32_t t = 0; t < 18; ++t)
          subband_samples[r][t] = (subband_samples[r - 12][t] * g + subband_samples[r][t]) * 0.5f;
        g -= d;
        d += 0.001472f;
      }
      g = 0.35124f;
      d = 0.0082576f;
      for (int32_t r = 16; r < 32; ++r) {
        for (int32_t t = 0; t < 18; ++t)
          subband_samples[r][t] = (subband_samples[r - 8][t] * g + subband_samples[r][t]) * 0.53f;
        g -= d;
        d += 0.000721246f;
      }
      g = 0.28284273f;
      for (int32_t r = 18; r <= 27; ++r) {
        for (int32_t t = 0; t < 18; ++t)
          subband_samples[r][t] = (subband_samples[r - 6][t] * g + subband_samples[r][t]) * 0.61f;
        g -= 0.00625f;
      }
      for (int32_t r = 15; r <= 16; ++r)
        for (float& v : subband_samples[r]) v *= 0.97f;
      break;
    }
    default:
      break;
  }
}

void reset_decoder_state() {
  std::memset(synth_banks, 0, sizeof synth_banks);
  reset_synth_indices();
  std::memset(pcm_block, 0, sizeof pcm_block);
  reset_layer3_state();
}

void reset_synth_indices() {
  synth_column[0] = synth_column[1] = 0;
  synth_phase = 0;
  reset_layer1_state();
}

}  // namespace decoder
