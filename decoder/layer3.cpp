// Layer III frame driver: side information from the frame's head, main data through the reservoir,
// then per granule the Huffman lines of each channel and the signal path.
#include "decoder/layer3.h"

#include <cstring>

#include "decoder/layer3_tables.h"
#include "format/header.h"

namespace decoder {

void reset_layer3_state(DecoderState& s) {
  std::memset(&s.l3, 0, sizeof s.l3);
  s.l3.active_subbands = 32;
  s.l3.sfb_long = sfb_long[3];
  s.l3.sfb_short = sfb_short[3];
  s.l3.table_row = 3;
  std::memset(s.subband_samples, 0, sizeof s.subband_samples);
}

int32_t decode_layer3_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out) {
  Layer3State& l3 = s.l3;
  Reservoir& r = s.reservoir;
  // The output keeps the first frame's channel count, which the output file or device was opened
  // with; a stream that joins parts of other modes must not change it midway.
  if (!l3.out_channels) l3.out_channels = h.mode == 3 ? 1 : 2;
  s.channels = l3.out_channels;
  const int32_t crc_bytes = h.protection_bit ? 0 : 2;
  read_side_info(s, h, body_from(body, crc_bytes), l3.side);

  // The frame's main data starts main_data_begin bytes before where this frame's bytes land. The
  // ring is not asked how much it really holds: after a stream start or a seek, data reaching
  // behind it decodes whatever the ring contains.
  r.bits = uint32_t((r.write - l3.side.main_data_begin) & (RESERVOIR_SIZE - 1)) * 8;
  const int32_t row = sfb_row(h.id & 1, h.sampling_index);
  // The frame's bytes behind the header, CRC and side information.
  const FrameBody main = body_from(body, format::head_and_side_bytes(h) - 4);
  load_reservoir(r, main.bytes, main.got, main.length);

  l3.table_row = row;
  l3.sfb_long = sfb_long[row];
  l3.sfb_short = sfb_short[row];
  const int32_t channels = h.mode == 3 ? 1 : 2;
  for (int32_t gr = 0; gr < (h.id ? 2 : 1); ++gr) {
    for (int32_t ch = 0; ch < channels; ++ch) decode_huffman(s, h, l3.side, gr, ch);
    decode_granule_signal(s, h, gr);
    emit_block(s, out);
  }
  return DECODE_OK;
}

}  // namespace decoder
