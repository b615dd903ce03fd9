// Sample shapers: move the finished pcm_block (Layers II and III) or pcm_block_l1 (Layer I) into
// PcmRing in exactly the byte format the wave device was opened with: thinned to the reduced rate,
// folded to one channel, narrowed to 8 bits. 32 routines, one per row of the selection table, all
// instances of one kernel.
//
// Threads: select_shaper and the shapers run on the session thread only. A shaper sleeps in 40 ms
// steps while the ring is full; that is the decoder's only flow control.
#pragma once

#include <cstdint>

#include "session/session.h"

namespace output {

enum ShaperLayer : int32_t { SHAPE_LAYER23 = 0, SHAPE_LAYER1 = 1 };
enum ShaperCase : int32_t { CASE_MONO = 0, CASE_FOLD = 1, CASE_STEREO = 2 };

// One row of the selection table. rate_row is 0, 1, or 2 for "2 or more". Layer I rows with
// decoded_channels 2 at 16 bits read pcm_block (see the .cpp); dc2 tells those rows apart.
struct ShaperRow {
  int32_t layer_class;
  int32_t rate_row;
  int32_t channel_case;  // Layer I: CASE_MONO stands for "mono or stereo"
  int32_t width;         // 8 or 16
  int32_t dc2;           // -1 any, 0 decoded_channels not 2, 1 decoded_channels 2
  session::ShaperFn fn;
  uint32_t bytes_stored;   // what the routine writes at ring_write
  uint32_t bytes_counted;  // how far ring_write moves
};

constexpr int32_t SHAPER_COUNT = 32;
extern const ShaperRow shaper_table[SHAPER_COUNT];

// Picks the row for this track from stream.layer, rate_shift, stream.mode, session_stereo,
// session_16bit and decoded_channels, and puts its routine into state.shaper_slot. Returns the row.
const ShaperRow* select_shaper();

// Writes the last, incomplete Layer I block: count 16-bit values of pcm_block_l1. In a file job
// they go straight to the output file; in play they are copied to the ring at ring_write with no
// wrap test and no wait, ring_fill rising by 16 units whatever count is.
void flush_layer1_tail(int32_t count);

}  // namespace output
