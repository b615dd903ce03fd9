// Placeholder Layer III step: reads the side information and loads the main data through the
// reservoir so that a job walks every frame as it will when decoding, and emits silent blocks.
#include "decoder/decoder.h"
#include "session/session.h"
#include "session/stream.h"

namespace decoder {

void reset_layer3_state() {}

int32_t decode_layer3_frame(const session::FrameHeader& h) {
  int32_t kbps = session::bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  int32_t hz = session::sample_rate_table[h.id * 3 + h.sampling_index];
  int32_t bytes = (h.id ? 144000 : 72000) * kbps / hz + h.padding_bit;
  int32_t side = h.id ? (h.mode == 3 ? 17 : 32) : (h.mode == 3 ? 9 : 17);
  session::read_frame_head(side);
  session::load_reservoir(bytes - 4 - side - (h.protection_bit ? 0 : 2));
  session::state.decoded_channels = h.mode == 3 ? 1 : 2;
  for (int g = 0; g < (h.id ? 2 : 1); ++g) session::state.shaper_slot();
  return 0;
}

}  // namespace decoder
