// MPEG audio decoders: functions of a caller-owned DecoderState (decoder/state.h) and one frame's
// bytes, giving blocks of 16-bit PCM through the state's synthesis variant. No file, no globals but
// the start-up tables: the caller reads the frames, and owns pacing, shaping and writing.
//
// Threads: a state is used by one thread at a time, the one decoding its stream; several states
// may decode at once. init_decoder_tables runs once before any of them.
#pragma once

#include <cstdint>

#include "decoder/state.h"
#include "format/header.h"

namespace decoder {

// Computes the start-up tables once per process, before any decoding.
void init_decoder_tables();

// Clears everything a stream left in s (reservoir, synthesis ring and indices, Layer III buffers,
// Layer I slots, the PCM block), keeping the caller's choices and reports.
void reset_decoder_state(DecoderState& s);
// Clears the Layer III overlap, dequantisation and stereo buffers and the subband samples.
void reset_layer3_state(DecoderState& s);
// Resets the synthesis column and phase without clearing the ring (a track's first frame), and
// drops any Layer I slots still waiting.
void reset_synth_indices(DecoderState& s);
// Drops the Layer I slots waiting for a block (a seek leaves them behind).
void reset_layer1_state(DecoderState& s);

// One frame's bytes behind its four header bytes: length is the frame's length less those 4, got
// how many of them bytes holds. At the end of a file got may be short: missing main data reads as
// whatever the reservoir held, missing side information as zeros.
struct FrameBody {
  const uint8_t* bytes;
  int32_t got;
  int32_t length;
};

// The blocks a frame finished: up to two (a Layer II or MPEG-1 Layer III frame), none or one for
// Layer I, whose 12 slots per channel wait until 18 have gathered.
struct PcmBlocks {
  int32_t count;
  int16_t block[2][BLOCK_SAMPLES];
};

enum DecodeCode : int32_t {
  DECODE_OK = 0,
  // A protected Layer I frame whose CRC is wrong: nothing of it is decoded, the caller stops.
  LAYER1_CRC_MISMATCH = 1,
};

// Decodes one frame of any layer into out (count 0 first). A frame found damaged raises s.damaged
// and decodes as well as it can. Returns DECODE_OK or LAYER1_CRC_MISMATCH.
int32_t decode_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body, PcmBlocks& out);
// The number of bytes behind the header that decode_frame wants for h, given the frame's length:
// only the CRC of a Layer I frame of free format, which has no length to go by and is passed over as
// damaged.
int32_t body_bytes_wanted(const format::FrameHeader& h, int32_t frame_length);
// A frame passed over by a seek: its main data joins the reservoir, so that the Layer III frames
// behind it find the bytes they reach back for.
void skip_frame(DecoderState& s, const format::FrameHeader& h, const FrameBody& body);
// At the end of a Layer I stream: synthesises the slots still waiting, padded with silence, into
// pcm (a whole block, silence past the decoded sound). Returns how many of the block's 576 frames
// are decoded sound (0, 192 or 384; 0 leaves pcm alone).
int32_t flush_layer1(DecoderState& s, int16_t* pcm);

}  // namespace decoder
