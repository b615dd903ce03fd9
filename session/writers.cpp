// Placeholder writers: raw samples only, until the PCM file formats land.
#include "session/writers.h"

#include <cstdio>

#include "decoder/synth.h"
#include "session/session.h"

namespace session {

void write_decoded_block() {
  size_t bytes = state.decoded_channels == 2 ? 2304 : 1152;
  if (std::fwrite(decoder::pcm_block, 1, bytes, state.out_file) == 0) state.write_failed.store(1, std::memory_order_relaxed);
}
void write_decoded_block_l1() {
  if (std::fwrite(decoder::pcm_block_l1, 1, 2304, state.out_file) == 0) state.write_failed.store(1, std::memory_order_relaxed);
}
void reserve_header(int32_t) {}
void finish_header(int32_t, const FrameHeader&) {}

}  // namespace session
