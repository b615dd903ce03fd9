// MPEG audio decoders: frame bytes to 16-bit PCM in pcm_block, through the synthesis variant in
// state.synth_slot and the shaper in state.shaper_slot. Only the session thread decodes.
#pragma once

#include <cstdint>

#include "session/frame_reader.h"

namespace decoder {

// Computes the start-up tables once per process, before any decoding.
void init_decoder_tables();

// Clears the synthesis ring and its indices, the Layer III overlap and stereo buffers, pcm_block.
void reset_decoder_state();
// Clears the Layer III overlap, dequantisation and stereo buffers and its reservoir positions;
// called by reset_decoder_state.
void reset_layer3_state();
// Resets the synthesis column and phase without clearing the ring (a track's first frame).
void reset_synth_indices();

// Decodes one Layer II frame after read_frame and skip_crc; always returns 0.
int32_t decode_layer2_frame(const session::FrameHeader& header);
// Decodes one Layer III frame after read_frame and skip_crc.
int32_t decode_layer3_frame(const session::FrameHeader& header);
// Decodes the whole Layer I stream of the open input file; returns when the track is over.
void decode_layer1_stream();

}  // namespace decoder
