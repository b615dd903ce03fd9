#include "session/stream.h"

namespace session {

int32_t frame_length(const FrameHeader& h) {
  int32_t kbps = bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  int32_t hz = sample_rate_table[h.id * 3 + h.sampling_index];
  if (h.layer_code == 3) return (12000 * kbps / hz + h.padding_bit) * 4;
  int32_t k = (h.layer_code == 1 && h.id == 0) ? 72000 : 144000;
  return k * kbps / hz + h.padding_bit;
}

}  // namespace session
