#include "session/stream.h"

namespace session {

int32_t header_hz(const FrameHeader& h) {
  // MPEG 2.5's rates (sampling_index 3-5) stand behind MPEG-1's in the table.
  return sample_rate_table[h.sampling_index >= 3 ? h.sampling_index + 3 : h.id * 3 + h.sampling_index];
}

int32_t frame_samples(const FrameHeader& h) {
  if (h.layer_code == 3) return 384;
  return h.layer_code == 1 && h.id == 0 ? 576 : 1152;
}

int32_t frame_length(const FrameHeader& h) {
  if (h.bitrate_index == 0) {
    // Free format: the length measured by the frame reader, when it belongs to this kind of frame.
    if (reader.free_key < 0) return 4;
    return reader.free_bytes + h.padding_bit * (h.layer_code == 3 ? 4 : 1);
  }
  const int32_t kbps = bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  const int32_t hz = header_hz(h);
  if (h.layer_code == 3) return (12000 * kbps / hz + h.padding_bit) * 4;
  // Bytes are samples / 8 * bits per second / Hz: 144000 for 1152 samples, 72000 for 576.
  return frame_samples(h) * 125 * kbps / hz + h.padding_bit;
}

int32_t header_kbps(const FrameHeader& h) {
  if (h.bitrate_index != 0) return bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  // Free format: the rate the measured length gives, to the nearest kbit/s.
  const int64_t bits = int64_t(frame_length(h) - h.padding_bit * (h.layer_code == 3 ? 4 : 1)) * 8 * header_hz(h);
  const int64_t per_frame_ms = int64_t(frame_samples(h)) * 1000;
  return int32_t((bits + per_frame_ms / 2) / per_frame_ms);
}

}  // namespace session
