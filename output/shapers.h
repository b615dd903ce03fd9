// Sample shapers: move a finished block of PCM into PcmRing in exactly the byte format the wave
// device was opened with: thinned to the reduced rate, folded to one channel, narrowed to 8 bits.
// 18 routines, one per row of the selection table, all instances of one kernel.
//
// Threads: select_shaper and the shapers run on the session thread only. A shaper sleeps in 40 ms
// steps while the ring is full; that is the decoder's only flow control.
#pragma once

#include <cstdint>

#include "output/wave.h"

namespace output {

// One shaper per track: moves a finished block of PCM (576 stereo frames) into the ring.
using ShaperFn = void (*)(const int16_t* block);

enum ShaperCase : int32_t { CASE_MONO = 0, CASE_FOLD = 1, CASE_STEREO = 2 };

// One row of the selection table. rate_row is 0, 1, or 2 for "2 or more".
struct ShaperRow {
  int32_t rate_row;
  int32_t channel_case;
  int32_t width;  // 8 or 16
  ShaperFn fn;
  uint32_t bytes_stored;   // what the routine writes at ring_write
  uint32_t bytes_counted;  // how far ring_write moves
};

constexpr int32_t SHAPER_COUNT = 18;
extern const ShaperRow shaper_table[SHAPER_COUNT];

// The row for a track: by the rate shift, whether the stream is mono, and the output choices
// (stereo or folded to one channel, 16 or 8 bits).
const ShaperRow* select_shaper(const OutputChoice& choice, bool mono_stream);

}  // namespace output
