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
// Resets the synthesis column and phase without clearing the ring (a track's first frame), and
// drops any Layer I slots still waiting.
void reset_synth_indices();
// Drops the Layer I slots waiting for a block; called by reset_synth_indices.
void reset_layer1_state();

// Decodes one Layer II frame after read_frame and skip_crc; always returns 0.
int32_t decode_layer2_frame(const session::FrameHeader& header);
// Decodes one Layer III frame after read_frame and skip_crc.
int32_t decode_layer3_frame(const session::FrameHeader& header);
// Decodes one Layer I frame after read_frame (FRAME_LAYER1) and skip_crc. Its 12 slots per channel
// wait until 18 have gathered; each 18 go through the synthesis and the shaper as one block.
// Returns 0, or LAYER1_CRC_MISMATCH for a protected frame whose CRC is wrong: nothing of that frame
// is decoded, and the caller stops the track.
constexpr int32_t LAYER1_CRC_MISMATCH = 1;
int32_t decode_layer1_frame(const session::FrameHeader& header);
// At the end of a Layer I stream: synthesises the slots still waiting, padded with silence, into
// pcm_block without calling the shaper, and silences the rest of the block. Returns how many of
// the block's 576 frames are decoded sound (0, 192 or 384; 0 leaves pcm_block alone).
int32_t flush_layer1();

}  // namespace decoder
