// The decoder's state, owned by its caller: one per stream being decoded. It holds the main-data
// reservoir (the bytes of earlier frames that Layer III reaches back into), the frame's side
// information, the Layer III buffers, the Layer I slots waiting for a block, the synthesis ring and
// the block of PCM being filled, and the per-track choices (synthesis variant, emphasis).
//
// A state belongs to one thread at a time: the thread that decodes the stream (the play thread or a
// file job's thread). Nothing in it is shared, so several states decode side by side. A new state
// is made ready by reset_decoder_state (decoder.h).
#pragma once

#include <cstdint>

#include "format/bit_reader.h"

namespace decoder {

constexpr int32_t RESERVOIR_SIZE = 4096;
// Storage behind the ring: takes a whole frame that runs over the ring's end (the largest is a
// free-format frame of 2881 bytes), and keeps the four guard bytes that repeat the ring's start so
// that a 32-bit read at the end needs no wrap test.
constexpr int32_t RESERVOIR_GUARD = 3072;
constexpr uint32_t RESERVOIR_BIT_MASK = 0x7FFF;  // 4096 * 8 bits
// Room for a Layer III frame's side information (up to 32 bytes); reads past it give zeros.
constexpr int32_t FRAME_HEAD_BYTES = 48;
// 576 stereo frames of signed 16-bit samples: what one synthesis round fills.
constexpr int32_t BLOCK_SAMPLES = 1152;

struct DecoderState;
// A synthesis variant: subband_samples of one channel (0 or 1) into pcm.
using SynthFn = void (*)(DecoderState& s, int32_t channel);

// The main-data ring with its read position in bits.
struct Reservoir {
  uint8_t bytes[RESERVOIR_SIZE + RESERVOIR_GUARD];
  int32_t write;  // next byte to land, 0-4095
  uint32_t bits;  // read position in bits, modulo 32768
};

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

// Everything the granule loop carries from granule to granule and frame to frame.
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

struct DecoderState {
  // Chosen by the caller per track.
  SynthFn synth;
  int32_t emphasis_mode;  // the stream's (or forced) emphasis plus 4 for Hi-Fi; 0 leaves samples alone

  // Told to the caller: channels of the PCM blocks (0 before the first frame) and whether a frame
  // was found damaged (raised here, cleared by the caller).
  int32_t channels;
  int32_t damaged;

  Reservoir reservoir;
  uint8_t head[FRAME_HEAD_BYTES];  // side information of the frame being decoded
  int32_t head_bits;               // read position in head

  Layer3State l3;

  // Layer I slots decoded and not yet synthesised, by channel, subband and slot.
  float waiting[2][32][18];
  int32_t waiting_slots;
  int32_t waiting_channels;

  // 32 subbands by 18 time slots of one channel, 1.0 full scale: the layer decoders fill it for the
  // synthesis.
  alignas(64) float subband_samples[32][18];
  // The synthesis ring: channel, bank, 16 columns (slots) by 32 output places; place j holds
  // transform row j up to 16 and row 32 - j above.
  alignas(64) float synth_banks[2][2][16][32];
  // Current ring column per channel (0-15) and the phase (0 or 1) that names the current bank; the
  // phase is shared by both channels and every call leaves it as it found it.
  uint32_t synth_column[2];
  int32_t synth_phase;
  // The block being filled: 576 stereo frames, each sample at its full-rate place.
  alignas(64) int16_t pcm[BLOCK_SAMPLES];
};

// Bit reads from the reservoir, n from 1 to 25.
inline uint32_t peek_bits(const Reservoir& r, int32_t n) { return format::peek_bits(r.bytes, r.bits, n); }
inline uint32_t get_bits_nonzero(Reservoir& r, int32_t n) {
  uint32_t v = peek_bits(r, n);
  r.bits = (r.bits + uint32_t(n)) & RESERVOIR_BIT_MASK;
  return v;
}
// n from 0 to 25.
inline uint32_t get_bits(Reservoir& r, int32_t n) { return n == 0 ? 0 : get_bits_nonzero(r, n); }

}  // namespace decoder
