// Layer III frame driver: side information from the file, main data through the reservoir, then per
// granule the Huffman lines of each channel and the signal path.
#include "decoder/layer3.h"

#include <cstring>

#include "decoder/decoder.h"
#include "decoder/layer3_tables.h"
#include "decoder/synth.h"
#include "format/header.h"
#include "session/session.h"
#include "session/stream.h"

namespace decoder {

Layer3State l3;

void reset_layer3_state() {
  std::memset(&l3, 0, sizeof l3);
  l3.active_subbands = 32;
  l3.sfb_long = sfb_long[3];
  l3.sfb_short = sfb_short[3];
  l3.table_row = 3;
  std::memset(subband_samples, 0, sizeof subband_samples);
}

int32_t decode_layer3_frame(const session::FrameHeader& h) {
  // The output keeps the first frame's channel count, which the output file or device was opened
  // with; a stream that joins parts of other modes must not change it midway.
  if (!l3.out_channels) l3.out_channels = h.mode == 3 ? 1 : 2;
  session::state.decoded_channels = l3.out_channels;
  read_side_info(h, l3.side);

  // The frame's main data starts main_data_begin bytes before where this frame's bytes land. The
  // ring is not asked how much it really holds: after a stream start or a seek, data reaching
  // behind it decodes whatever the ring contains.
  session::bits.reservoir_bits =
      uint32_t((session::bits.reservoir_write - l3.side.main_data_begin) & (session::RESERVOIR_SIZE - 1)) * 8;
  const int32_t row = sfb_row(h.id & 1, h.sampling_index);
  // The frame's size with padding, less the header, CRC and side information already read.
  session::load_reservoir(session::frame_length(h) - format::head_and_side_bytes(h));

  l3.table_row = row;
  l3.sfb_long = sfb_long[row];
  l3.sfb_short = sfb_short[row];
  const int32_t channels = h.mode == 3 ? 1 : 2;
  for (int32_t gr = 0; gr < (h.id ? 2 : 1); ++gr) {
    for (int32_t ch = 0; ch < channels; ++ch) decode_huffman(h, l3.side, gr, ch);
    decode_granule_signal(h, gr);
  }
  return 0;
}

}  // namespace decoder
