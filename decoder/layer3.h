// Layer III decoder, internal interface: the side information, the scale factors and Huffman lines
// of one granule (layer3_bitstream.cpp), and the signal path from quantised lines to subband samples
// (layer3_signal.cpp). decode_layer3_frame (layers.h) drives both, once a frame.
//
// Everything a granule leaves for the next lives in the caller's DecoderState (state.h);
// reset_layer3_state clears it at a stream start.
#pragma once

#include <cstdint>

#include "decoder/layers.h"

namespace decoder {

// Takes the side information from the frame's bytes (behind any CRC) into s.head and parses it.
void read_side_info(DecoderState& s, const format::FrameHeader& header, const FrameBody& side_bytes, SideInfo& side);
// Parses side information already in s.head from its current bit position.
void parse_side_info(DecoderState& s, const format::FrameHeader& header, SideInfo& side);
// Scale factors, then Huffman lines of one granule and channel, from the reservoir's read position.
// Low-sampling-frequency scale factors write preflag into side.
void decode_huffman(DecoderState& s, const format::FrameHeader& header, SideInfo& side, int32_t granule,
                    int32_t channel);
// Decodes one code word of table 0-33 at the reservoir's read position with the same search as the
// granule loops: stores x and y (for the quad tables x holds the four value bits) and returns the
// bits used; -1 for tables 4 and 14, which have no codes (s.damaged is raised, nothing consumed).
int32_t huffman_symbol(DecoderState& s, int32_t table, int32_t& x, int32_t& y);

// Signal path of one granule, both channels, ending with the synthesis of each channel into s.pcm.
void decode_granule_signal(DecoderState& s, const format::FrameHeader& header, int32_t granule);
void dequantise(Layer3State& l3, int32_t granule, int32_t channel);
void dequantise_stereo(Layer3State& l3, const format::FrameHeader& header, int32_t granule);

// The transforms on one subband: in holds 18 lines (destroyed), out gets 18 time slots to which the
// overlap is added, overlap gets the second half. kind: 0 long, 1 start, 2 stop.
void imdct36(float* in, float* out, float* overlap, int32_t kind);
void imdct12x3(const float* in, float* out, float* overlap);
// Alias reduction between subbands 0 and 1, ... up to the given count of boundaries (1-31).
void alias_reduce(float* lines, int32_t boundaries);

}  // namespace decoder
