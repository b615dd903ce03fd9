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
// A column is stored once per output place rather than once per row: place j holds row j for
// j <= 16 and row 32 - j above. Output sample j is then the sum over the 16 columns, by age, of
// the column's place j times a derived window (synth_kernel[age][j], built once from SYNTH_WINDOW:
// the backwards reading, the signs, and for j = 16 the zeros of the columns that hold no value).
// All 32 samples of a slot run side by side in vector lanes, with no sum across lanes, and the six
// variants differ only in which samples they keep, where they store them and how they fill the
// gaps.
//
// Column and phase stay in step: column s is always written at phase s mod 2, because both start at
// 0, s steps by one and the phase toggles each slot, and each call moves s by 18 (even) and leaves
// the phase as it found it. The sign rule by column parity and phase is therefore the sign rule by
// the column's age, which is what the derived window encodes.
//
// Arithmetic: single precision throughout, in one fixed order, the same in every build. A window
// sum adds the products of the even ages in age order, those of the odd ages likewise, then the
// two. The sum is truncated towards zero and clipped.
//
// Speed without changing a value: a call first transforms all 18 slots, eight at a time in vector
// lanes; the same source is built twice, portable
// (SSE2 on x86-64) and for AVX2, and the wider one runs where the processor has it. A state
// belongs to the one thread decoding its stream, so it is plain.
#include "decoder/synth.h"

#include <cstring>
#include <initializer_list>

#include "decoder/decoder.h"
#include "decoder/tables.h"

namespace decoder {

namespace {

// By column age (0: the column just written) and output place.
alignas(64) float synth_kernel[16][32];

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

// Truncation towards zero, then the clip: 32768 and above give 32767, everything else outside the
// range (NaN included) gives -32768. Eight samples at once.
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
// Rows 2V[r] = 2X[16 + r] go to bank p, rows 2V[32 + r] = -2X[16 - r] to bank 1-p (the
// transform's gain of 2 is an exact scaling, applied here), each spread over the output places
// that read it: row j at place j, row 32 - j at place j above 16. Bank p has no row 16; its place
// holds 0.
struct SlotPlaces {
  alignas(32) float now[18][32];
  alignas(32) float other[18][32];
};

// Eight vectors of eight lanes transposed: out[i][k] = in[k][i].
[[gnu::always_inline]] inline void transpose8(const v8f (&in)[8], v8f (&out)[8]) {
  v8f t[8], u[8];
#pragma GCC unroll 4
  for (int k = 0; k < 8; k += 2) {
    t[k] = __builtin_shufflevector(in[k], in[k + 1], 0, 8, 1, 9, 4, 12, 5, 13);
    t[k + 1] = __builtin_shufflevector(in[k], in[k + 1], 2, 10, 3, 11, 6, 14, 7, 15);
  }
#pragma GCC unroll 2
  for (int h = 0; h < 8; h += 4) {
    u[h] = __builtin_shufflevector(t[h], t[h + 2], 0, 1, 8, 9, 4, 5, 12, 13);
    u[h + 1] = __builtin_shufflevector(t[h], t[h + 2], 2, 3, 10, 11, 6, 7, 14, 15);
    u[h + 2] = __builtin_shufflevector(t[h + 1], t[h + 3], 0, 1, 8, 9, 4, 5, 12, 13);
    u[h + 3] = __builtin_shufflevector(t[h + 1], t[h + 3], 2, 3, 10, 11, 6, 7, 14, 15);
  }
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    out[i] = __builtin_shufflevector(u[i], u[i + 4], 0, 1, 2, 3, 8, 9, 10, 11);
    out[i + 4] = __builtin_shufflevector(u[i], u[i + 4], 4, 5, 6, 7, 12, 13, 14, 15);
  }
}

// Rows 0-16 of eight slots (one per lane) to the places of those slots, eight places at a time.
[[gnu::always_inline]] inline void spread_rows(const v8f (&rows)[17], float (*places)[32]) {
#pragma GCC unroll 4
  for (int block = 0; block < 4; ++block) {
    v8f in[8], out[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; ++i) {
      const int j = 8 * block + i;
      in[i] = rows[j <= 16 ? j : 32 - j];
    }
    transpose8(in, out);
#pragma GCC unroll 8
    for (int lane = 0; lane < 8; ++lane) std::memcpy(&places[lane][8 * block], &out[lane], sizeof(v8f));
  }
}

[[gnu::always_inline]] inline void transform_slots(const float (&subband_samples)[32][18], SlotPlaces& out) {
  for (int32_t t0 : {0, 8, 10}) {
    v8f x[32], X[32];
#pragma GCC unroll 32
    for (int k = 0; k < 32; ++k) std::memcpy(&x[k], &subband_samples[k][t0], sizeof(v8f));
    dct<32, v8f>(x, X);
    v8f now[17], other[17];
#pragma GCC unroll 16
    for (int r = 0; r < 16; ++r) now[r] = 2.0f * X[16 + r];
    now[16] = v8f{};
#pragma GCC unroll 17
    for (int r = 0; r < 17; ++r) other[r] = -2.0f * X[16 - r];
    spread_rows(now, &out.now[t0]);
    spread_rows(other, &out.other[t0]);
  }
}

// Slot t into the ring's column s: bank p and bank 1-p.
[[gnu::always_inline]] inline void store_slot(const SlotPlaces& v, int32_t t, float (*banks)[16][32], uint32_t s,
                                              int32_t p) {
  std::memcpy(banks[p][s], v.now[t], sizeof v.now[t]);
  std::memcpy(banks[1 - p][s], v.other[t], sizeof v.other[t]);
}

// The 32 window sums of bank p with the newest column at s.
[[gnu::always_inline]] inline void window_sums(const float (*bank)[32], uint32_t s, int32_t* out) {
  v8f even[4], odd[4];
#pragma GCC unroll 16
  for (int32_t a = 0; a < 16; ++a) {
    const float* column = bank[(s + uint32_t(a)) & 15];
    const float* w = synth_kernel[a];
#pragma GCC unroll 4
    for (int32_t b = 0; b < 4; ++b) {
      v8f product = load8(column + 8 * b) * load8(w + 8 * b);
      if (a == 0)
        even[b] = product;
      else if (a == 1)
        odd[b] = product;
      else if (a & 1)
        odd[b] += product;
      else
        even[b] += product;
    }
  }
#pragma GCC unroll 4
  for (int32_t b = 0; b < 4; ++b) {
    v8i v = to_pcm8(even[b] + odd[b]);
    std::memcpy(out + 8 * b, &v, sizeof v);
  }
}

// All 32 samples of a slot into a mono block (32 in a row), or into one channel's places of a
// stereo block, the other channel's samples kept.
typedef int16_t v8s __attribute__((vector_size(16)));
typedef int16_t v16s __attribute__((vector_size(32)));
[[gnu::always_inline]] inline void store_all(const int32_t* out, int16_t* dst, bool stereo, int32_t c) {
#pragma GCC unroll 4
  for (int b = 0; b < 4; ++b) {
    v8i wide;
    std::memcpy(&wide, out + 8 * b, sizeof wide);
    const v8s v = __builtin_convertvector(wide, v8s);  // already clipped to 16 bits
    if (!stereo) {
      std::memcpy(dst + 8 * b, &v, sizeof v);
      continue;
    }
    v16s pair, both = __builtin_shufflevector(v, v, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7);
    std::memcpy(&pair, dst + 16 * b, sizeof pair);
    if (c == 0)
      pair = __builtin_shufflevector(both, pair, 0, 17, 2, 19, 4, 21, 6, 23, 8, 25, 10, 27, 12, 29, 14, 31);
    else
      pair = __builtin_shufflevector(pair, both, 0, 17, 2, 19, 4, 21, 6, 23, 8, 25, 10, 27, 12, 29, 14, 31);
    std::memcpy(dst + 16 * b, &pair, sizeof pair);
  }
}

template <Variant V>
[[gnu::always_inline]] inline void synth_run(DecoderState& st, int32_t channel) {
  if (st.emphasis_mode != 0) treat_subbands(st);
  const int32_t c = channel & 1;
  float(*banks)[16][32] = st.synth_banks[c];
  uint32_t s = st.synth_column[c] & 15;
  int32_t p = st.synth_phase & 1;
  int16_t* const pcm_block = st.pcm;

  int32_t base, stride;
  if (V.addressing == ADDR_STEREO || (V.addressing == ADDR_BY_CHANNELS && st.channels == 2)) {
    base = c;
    stride = 2;
  } else {
    base = 0;
    stride = 1;
  }

  SlotPlaces slots;
  transform_slots(st.subband_samples, slots);
  for (int32_t t = 0; t < 18; ++t) {
    store_slot(slots, t, banks, s, p);
    int32_t out[32];
    window_sums(banks[p], s, out);
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
    if constexpr (stored == ALL_SAMPLES && V.addressing != ADDR_BY_CHANNELS) {
      store_all(out, pcm_block + (V.addressing == ADDR_STEREO ? 64 * t : 32 * t), V.addressing == ADDR_STEREO, c);
    } else {
#pragma GCC unroll 32
      for (int j = 0; j < 32; ++j) {
        if (stored & (1u << j)) dst[j * stride] = int16_t(out[j]);
      }
    }
    p ^= 1;
    s = (s - 1) & 15;
  }
  st.synth_column[c] = s;
  // 18 toggles: the phase ends the call as it began.
}

// The portable kernel, and the same kernel built for AVX2 where the processor has it (no fused
// multiply-adds: contraction stays off, as everywhere in the decoder).
bool use_wide = false;

template <Variant V>
void synth_portable(DecoderState& st, int32_t channel) {
  synth_run<V>(st, channel);
}
#if defined(__x86_64__)
template <Variant V>
[[gnu::target("avx2")]] void synth_wide(DecoderState& st, int32_t channel) {
  synth_run<V>(st, channel);
}
#endif

template <Variant V>
void synth_dispatch(DecoderState& st, int32_t channel) {
#if defined(__x86_64__)
  if (use_wide) return synth_wide<V>(st, channel);
#endif
  synth_portable<V>(st, channel);
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
  for (int32_t age = 0; age < 16; ++age) {
    for (int32_t j = 0; j < 32; ++j) {
      float w;
      if (j < 16) {
        w = SYNTH_WINDOW[j][age];
      } else if (j == 16) {
        // Row 16 holds values only in the columns of odd age; the others were never written.
        w = (age & 1) ? SYNTH_WINDOW[16][age] : 0.0f;
      } else {
        // Row 32-j read backwards; even ages added, odd ages subtracted.
        float v = SYNTH_WINDOW[32 - j][15 - age];
        w = (age & 1) ? -v : v;
      }
      synth_kernel[age][j] = w;
    }
  }
}

void synth_full(DecoderState& st, int32_t channel) { synth_dispatch<FULL>(st, channel); }
void synth_mono(DecoderState& st, int32_t channel) { synth_dispatch<MONO>(st, channel); }
void synth_half(DecoderState& st, int32_t channel) { synth_dispatch<HALF>(st, channel); }
void synth_quarter(DecoderState& st, int32_t channel) { synth_dispatch<QUARTER>(st, channel); }
void synth_fast(DecoderState& st, int32_t channel) { synth_dispatch<FAST>(st, channel); }
void synth_overdrive(DecoderState& st, int32_t channel) { synth_dispatch<OVERDRIVE>(st, channel); }

void treat_subbands(DecoderState& st) {
  float(&subband_samples)[32][18] = st.subband_samples;
  // Any mode but these three leaves the samples alone: with Hi-Fi on, a stream that has emphasis
  // (1 or 3, giving 5 or 7) loses its de-emphasis.
  switch (st.emphasis_mode) {
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

void reset_decoder_state(DecoderState& s) {
  // The caller's choices and reports stay; everything the stream left behind goes.
  const SynthFn synth = s.synth;
  const int32_t emphasis_mode = s.emphasis_mode, channels = s.channels, damaged = s.damaged;
  std::memset(&s, 0, sizeof s);
  s.synth = synth;
  s.emphasis_mode = emphasis_mode;
  s.channels = channels;
  s.damaged = damaged;
  reset_layer3_state(s);
  reset_synth_indices(s);
}

void reset_synth_indices(DecoderState& s) {
  s.synth_column[0] = s.synth_column[1] = 0;
  s.synth_phase = 0;
  reset_layer1_state(s);
}

}  // namespace decoder
