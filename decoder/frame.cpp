// One frame of any layer: the reservoir's loading and the dispatch by layer.
#include <cstring>

#include "decoder/layers.h"

namespace decoder {

void sync_reservoir_guard(Reservoir& r) { std::memcpy(r.bytes + RESERVOIR_SIZE, r.bytes, 4); }

void load_reservoir(Reservoir& r, const uint8_t* src, int32_t got, int32_t n) {
  // Frame lengths never exceed the guard (free-format ones are bounded when measured); the clamp
  // only keeps a caller's arithmetic slip from writing past the storage.
  if (n <= 0) return;
  if (n > RESERVOIR_GUARD) n = RESERVOIR_GUARD;
  if (got > n) got = n;
  if (got > 0) std::memcpy(r.bytes + r.write, src, size_t(got));
  const int32_t start = r.write;
  const int32_t end = start + n;
  if (end < RESERVOIR_SIZE) {
    r.write = end;
    // After a wrap that ran fewer than four bytes over, the next load lands on the ring's first
    // four bytes, which the guard repeats: refresh it, or a read across the ring's end would see
    // the bytes that lay there one lap before.
    if (start < 4) sync_reservoir_guard(r);
    return;
  }
  int32_t over = end - RESERVOIR_SIZE;
  std::memcpy(r.bytes, r.bytes + RESERVOIR_SIZE, size_t(over));
  if (over < 4) std::memcpy(r.bytes + RESERVOIR_SIZE, r.bytes, 4);
  r.write = over;
}

int32_t body_bytes_wanted(const format::FrameHeader& h, int32_t frame_length) {
  // Such a frame's CRC is still taken, so that the search for the next header starts behind it.
  if (h.layer_code == 3 && h.bitrate_index == 0) return h.protection_bit ? 0 : 2;
  return frame_length > 4 ? frame_length - 4 : 0;
}

int32_t decode_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out) {
  out.count = 0;
  if (h.layer_code == 1) return decode_layer3_frame(s, h, body, out);
  if (h.layer_code == 3) return decode_layer1_frame(s, h, body, out);
  return decode_layer2_frame(s, h, body, out);
}

void skip_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body) {
  const FrameBody main = body_from(body, format::head_and_side_bytes(h) - 4);
  load_reservoir(s.reservoir, main.bytes, main.got, main.length);
}

}  // namespace decoder
