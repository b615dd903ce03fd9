// Placeholder Layer II step: loads the frame's bytes through the reservoir so that a job walks
// every frame as it will when decoding, and emits a silent block.
#include "decoder/decoder.h"
#include "session/session.h"
#include "session/stream.h"

namespace decoder {

int32_t decode_layer2_frame(const session::FrameHeader& h) {
  int32_t kbps = session::bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  int32_t hz = session::sample_rate_table[h.id * 3 + h.sampling_index];
  int32_t k = h.layer_code == 3 ? 48000 : 144000;
  int32_t bytes = k * kbps / hz + (h.layer_code == 3 ? 4 * h.padding_bit : h.padding_bit);
  session::load_reservoir(bytes - 4 - (h.protection_bit ? 0 : 2));
  session::state.decoded_channels = h.mode == 3 ? 1 : 2;
  session::state.shaper_slot();
  session::state.shaper_slot();
  return 0;
}

}  // namespace decoder
