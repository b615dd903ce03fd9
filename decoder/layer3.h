// Layer III decoder, internal interface: the side information, the scale factors and Huffman lines
// of one granule (layer3_bitstream.cpp), and the signal path from quantised lines to subband samples
// (layer3_signal.cpp). decode_layer3_frame (decoder.h) drives both, once a frame.
//
// Only the decoding thread (the play thread or the file-job thread, one at a time) comes here. All
// state is static, one copy for the process; reset_layer3_state clears it at a stream start.
#pragma once

#include <cstdint>

#include "session/frame_reader.h"

namespace decoder {

// Side information, a flat record of 32-bit words. Per-granule fields are addressed by granule * 2 +
// channel; low-sampling-frequency frames have one granule and use granule 0.
//
// MPEG-1 layout (bits):  main_data_begin 9, private 5 (mono) or 3, scfsi 4 per channel, then per
// granule and channel:
//   part2_3_length 12 | big_values 9 | global_gain 8 | scalefac_compress 4 | window_switching 1 |
//   window_switching 1: block_type 2, mixed_block 1, table_select 2 x 5, subblock_gain 3 x 3
//   window_switching 0: table_select 3 x 5, region0_count 4, region1_count 3
//   preflag 1 | scalefac_scale 1 | count1table_select 1
// Low sampling frequencies: main_data_begin 8, private 1 (mono) or 2, no scfsi, scalefac_compress 9,
// no preflag (set by the scale factor decoding instead).
struct SideInfo {
  int32_t main_data_begin;
  int32_t scfsi[2][4];  // non-zero means the group is shared with granule 0; the masked bit is kept
  int32_t part2_3_length[4];
  int32_t big_values[4];  // not range checked here; the Huffman decoder cuts it to 288
  int32_t global_gain[4];
  int32_t scalefac_compress[4];
  int32_t window_switching[4];
  int32_t block_type[4];   // 0 when window_switching is 0
  int32_t mixed_block[4];  // 0 when window_switching is 0
  int32_t table_select[4][3];
  int32_t subblock_gain[4][3];
  int32_t region0_count[4];
  int32_t region1_count[4];
  int32_t preflag[4];
  int32_t scalefac_scale[4];
  int32_t count1table_select[4];
};

// Everything the granule loop carries. Static; one instance.
struct Layer3State {
  SideInfo side;
  int32_t scalefac_long[4][22];   // granule * 2 + channel
  int32_t scalefac_short[4][39];  // 13 bands by 3 windows
  int32_t quant_lines[2][578];    // two guard words take the pair and quad writes at the end
  int32_t line_count[2];          // lines the Huffman decoder reached
  int32_t intensity_scale;        // low sampling frequencies, intensity frames
  // Per band of channel 1 in LSF intensity frames, long and short: the illegal position, 2 to the
  // slen minus 1. Such a band is not an intensity band.
  int32_t intensity_limit[22];
  int32_t intensity_limit_short[13];
  int32_t lsf_slen[4];      // kept from frame to frame: an out-of-range compress value reuses them
  const int32_t* sfb_long;  // rows of the band tables, chosen per frame
  const int32_t* sfb_short;
  int32_t table_row;  // sfb_row of the frame

  alignas(16) float hybrid_in[2][576];  // dequantised lines, short blocks reordered
  alignas(16) float overlap[2][32][18];
  int32_t active_subbands;
  // Channels of the output, fixed by the stream's first frame (0 before it): a later frame with
  // another channel count is duplicated or mixed to fit.
  int32_t out_channels;
};

extern Layer3State l3;

// Reads and parses the side information into side; reads it from the input file into frame_head.
void read_side_info(const session::FrameHeader& header, SideInfo& side);
// Parses side information already in frame_head from its current bit position.
void parse_side_info(const session::FrameHeader& header, SideInfo& side);
// Scale factors, then Huffman lines of one granule and channel, from the reservoir's read position.
// Low-sampling-frequency scale factors write preflag into side.
void decode_huffman(const session::FrameHeader& header, SideInfo& side, int32_t granule, int32_t channel);
// Decodes one code word of table 0-33 at the reservoir's read position with the same search as the
// granule loops: stores x and y (for the quad tables x holds the four value bits) and returns the
// bits used; -1 for tables 4 and 14, which have no codes (damaged_flag is raised, nothing consumed).
int32_t huffman_symbol(int32_t table, int32_t& x, int32_t& y);

// Signal path of one granule, both channels, ending with SynthFn per channel and ShaperFn once.
void decode_granule_signal(const session::FrameHeader& header, int32_t granule);
void dequantise(int32_t granule, int32_t channel);
void dequantise_stereo(const session::FrameHeader& header, int32_t granule);

// The transforms on one subband: in holds 18 lines (destroyed), out gets 18 time slots to which the
// overlap is added, overlap gets the second half. kind: 0 long, 1 start, 2 stop.
void imdct36(float* in, float* out, float* overlap, int32_t kind);
void imdct12x3(const float* in, float* out, float* overlap);
// Alias reduction between subbands 0 and 1, ... up to the given count of boundaries (1-31).
void alias_reduce(float* lines, int32_t boundaries);

}  // namespace decoder
