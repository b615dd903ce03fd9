// One kernel, instantiated once per table row. A row is fixed by: the source buffer, how many
// values make a group (1, or 2 for a left/right pair), the distance between group starts, the number
// of groups, the output width, and whether a pair is copied or folded to its mean. Every parameter is
// a template argument, so each routine's loop has no test on format.
#include "output/shapers.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "output/ring.h"
#include "output/wave.h"

namespace output {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

enum Op { COPY, FOLD };

// While the whole ring is full the decoder sleeps; the wave thread taking a block (or a seek
// zeroing the count) is the only way on. A play thread that stop_play gave up on stays here for
// good: the next session's ring is not its to write.
inline void wait_for_room() {
  while (ring.ring_fill.load(std::memory_order_acquire) >= RING_UNITS ||
         (session_link.abandoned && session_link.abandoned()))
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
}

inline uint8_t narrow(int32_t v) { return uint8_t((v >> 8) + 128); }
inline void store16(uint8_t*& out, int32_t v) {
  int16_t s = int16_t(v);
  std::memcpy(out, &s, 2);
  out += 2;
}

template <int Group, int Stride, int Count, int Width, Op O, uint32_t Counted>
void shape(const int16_t* v) {
  static_assert((Count - 1) * Stride + Group <= 1152, "reads stay inside the source block");
  static_assert(Counted % UNIT_BYTES == 0 && RING_BYTES % Counted == 0, "blocks end at the ring's end");
  static_assert(O == COPY || Group == 2);
  constexpr uint32_t stored = Count * (O == FOLD ? 1 : Group) * (Width / 8);
  static_assert(stored >= Counted && stored - Counted <= 288, "surplus fits the ring's spare bytes");

  wait_for_room();
  uint32_t at = ring.ring_write.load(relaxed);
  uint8_t* out = ring.ring_base + at;
  int count = Count;
  if constexpr (stored > Counted) {
    // The over-long rows: the surplus is garbage that the next call overwrites. Where the ring is
    // too full to take it, storing it would cut into the oldest unread block (the next one the
    // wave thread plays) while that thread may be copying it; there only as much is stored as the
    // free room takes.
    static_assert(O == COPY && Group == 1 && Width == 8, "one byte per value");
    const int32_t room = (RING_UNITS - ring.ring_fill.load(std::memory_order_acquire)) * int32_t(UNIT_BYTES);
    if (room < int32_t(stored)) count = room > int32_t(Counted) ? room : int32_t(Counted);
  }
  if constexpr (O == COPY && Width == 16 && Group == Stride) {
    std::memcpy(out, v, stored);  // all values in order: a plain copy
  } else {
    for (int j = 0; j < count; ++j) {
      const int16_t* g = v + j * Stride;
      if constexpr (O == FOLD) {
        if constexpr (Width == 16)
          store16(out, (int32_t(g[0]) + int32_t(g[1])) >> 1);
        else
          *out++ = uint8_t((((g[0] >> 8) + (g[1] >> 8)) >> 1) + 128);
      } else {
        for (int k = 0; k < Group; ++k) {
          if constexpr (Width == 16)
            store16(out, g[k]);
          else
            *out++ = narrow(g[k]);
        }
      }
    }
  }
  // A read-modify-write: no update is lost against the wave thread's decrement, so the count cannot
  // drift.
  constexpr int32_t units = int32_t(Counted / UNIT_BYTES);
  const int32_t before = ring.ring_fill.fetch_add(units, std::memory_order_release);
  // The ring has just come to hold a block: a wave thread priming (at a track's start, after a seek)
  // or starved waits for exactly this, and would otherwise sleep out its whole wait.
  if (before < BLOCK_UNITS && before + units >= BLOCK_UNITS) wave.wave_event.set();
  uint32_t next = at + Counted;
  if (next >= ring.ring_bytes.load(relaxed)) next = 0;
  ring.ring_write.store(next, relaxed);
}

// Table columns: rate row, case, width, routine, bytes stored, bytes counted.
#define ROW(rate, cs, width, G, St, N, O, counted) \
  { rate, cs, width, shape<G, St, N, width, O, counted>, N*(O == FOLD ? 1 : G) * (width / 8), counted }

}  // namespace

const ShaperRow shaper_table[SHAPER_COUNT] = {
    // 576 values for one channel, 576 pairs for two.
    ROW(0, CASE_MONO, 8, 1, 1, 576, COPY, 576),
    ROW(0, CASE_MONO, 16, 1, 1, 576, COPY, 1152),
    ROW(0, CASE_FOLD, 8, 2, 2, 576, FOLD, 576),
    ROW(0, CASE_FOLD, 16, 2, 2, 576, FOLD, 1152),
    ROW(0, CASE_STEREO, 8, 2, 2, 576, COPY, 1152),
    ROW(0, CASE_STEREO, 16, 2, 2, 576, COPY, 2304),
    // The thinned mono 8-bit rows walk the whole stereo-sized buffer: they store twice what they
    // count, and the next call overwrites the surplus.
    ROW(1, CASE_MONO, 8, 1, 2, 576, COPY, 288),
    ROW(1, CASE_MONO, 16, 1, 2, 288, COPY, 576),
    ROW(1, CASE_FOLD, 8, 2, 4, 288, FOLD, 288),
    ROW(1, CASE_FOLD, 16, 2, 4, 288, FOLD, 576),
    ROW(1, CASE_STEREO, 8, 2, 4, 288, COPY, 576),
    ROW(1, CASE_STEREO, 16, 2, 4, 288, COPY, 1152),
    ROW(2, CASE_MONO, 8, 1, 4, 288, COPY, 144),
    ROW(2, CASE_MONO, 16, 1, 4, 144, COPY, 288),
    ROW(2, CASE_FOLD, 8, 2, 8, 144, FOLD, 144),
    ROW(2, CASE_FOLD, 16, 2, 8, 144, FOLD, 288),
    ROW(2, CASE_STEREO, 8, 2, 8, 144, COPY, 288),
    ROW(2, CASE_STEREO, 16, 2, 8, 144, COPY, 576),
};

#undef ROW

const ShaperRow* select_shaper(const OutputChoice& choice, bool mono_stream) {
  const int32_t shift = choice.rate_shift;
  const int32_t rate_row = shift >= 2 ? 2 : shift < 0 ? 0 : shift;
  const int32_t channel_case = mono_stream ? CASE_MONO : choice.stereo ? CASE_STEREO : CASE_FOLD;
  const int32_t width = choice.sixteen_bit ? 16 : 8;
  for (const ShaperRow& row : shaper_table)
    if (row.rate_row == rate_row && row.channel_case == channel_case && row.width == width) return &row;
  return nullptr;  // unreachable: the table covers every combination
}

}  // namespace output
