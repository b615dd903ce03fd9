// The decoder's own interface between decode_frame and the three layers: each layer decodes a frame
// from its body, the CRC bytes (when protected) included, and adds the blocks it finishes to out.
#pragma once

#include <cstdint>
#include <cstring>

#include "decoder/decoder.h"

namespace decoder {

int32_t decode_layer1_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out);
int32_t decode_layer2_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out);
int32_t decode_layer3_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out);

// Appends n bytes to the ring at its write position, of which the first got come from src (a short
// frame leaves the ring's old bytes in the rest), keeping the guard.
void load_reservoir(Reservoir& r, const uint8_t* src, int32_t got, int32_t n);
// Copies the ring's first four bytes into the guard.
void sync_reservoir_guard(Reservoir& r);
// The part of body from byte `from` on, up to `length` bytes of the frame.
inline FrameBody body_from(const FrameBody& b, int32_t from) {
  const int32_t got = b.got - from;
  return {b.bytes + (from < b.got ? from : b.got), got > 0 ? got : 0, b.length - from};
}
// The finished block goes out: s.pcm is copied to the next free block of out.
inline void emit_block(const DecoderState& s, PcmBlocks& out) {
  int16_t* dst = out.block[out.count < 2 ? out.count : 1];
  std::memcpy(dst, s.pcm, sizeof s.pcm);
  if (out.count < 2) ++out.count;
}

}  // namespace decoder
