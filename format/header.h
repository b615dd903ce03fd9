// The MPEG audio frame header and what it implies: the field split, the rate and bit-rate tables,
// the sampling rate, samples per frame, frame length and the bytes of header and side information.
// Pure functions of the header's bits; the sync search over a file belongs to the reader that uses
// them.
//
// Header layout (32 bits, most significant first):
//
//   AAAAAAAA AAAABCCD EEEEFFGH IIJJKLMM
//   A sync (FFF; FFE is MPEG 2.5)   B id        C layer_code   D protection_bit
//   E bitrate_index  F sampling_index  G padding_bit  H private_bit
//   I mode           J mode_ext        K copyright    L original     M emphasis
//
// An MPEG 2.5 frame (sync FFE, id 0; Layer III only) is described as an MPEG-2 header whose
// sampling_index is the field + 3: 3, 4, 5 for 11025, 12000, 8000 Hz.
#pragma once

#include <cstdint>

namespace format {

// Twelve signed words in header order; callers copy it field by field.
struct FrameHeader {
  int32_t id;              // 1 MPEG-1, 0 MPEG-2
  int32_t layer_code;      // 3 Layer I, 2 Layer II, 1 Layer III
  int32_t protection_bit;  // 0 means a CRC follows
  int32_t bitrate_index;   // 1-14 valid
  int32_t sampling_index;  // 0-2; 3-5 for MPEG 2.5 (11025, 12000, 8000 Hz)
  int32_t padding_bit;
  int32_t private_bit;
  int32_t mode;      // 0 stereo, 1 joint, 2 dual, 3 single channel
  int32_t mode_ext;  // zeroed when mode is 0
  int32_t copyright;
  int32_t original;
  int32_t emphasis;
};
static_assert(sizeof(FrameHeader) == 12 * 4);

// sample_rate_table[id * 3 + sampling_index], then MPEG 2.5's 11025, 12000, 8000 Hz at 6-8 (index
// sampling_index + 3 for its headers: header_hz does the choice).
extern const int32_t sample_rate_table[9];
// bitrate_table[(id * 3 - layer_code) * 15 + bitrate_index], kbit/s; column 0 (free format) holds 1.
// The row index runs from -3 (MPEG-2 Layer I) to 2 (MPEG-1 Layer III), so the name points at the
// fourth row of the storage: rows MPEG-2 Layer I, II, III, then MPEG-1 Layer I, II, III.
extern const int32_t* const bitrate_table;

// Splits the 20 bits behind the sync (the header word's low 20 bits) into the fields.
void split_header(uint32_t bits20, FrameHeader& h);
// Neither the reserved layer, the forbidden bit-rate index nor the reserved rate.
inline bool header_acceptable(const FrameHeader& h) {
  return h.layer_code != 0 && h.bitrate_index != 15 && h.sampling_index != 3;
}
// The header in the four bytes at p when they are one a reader takes (FFF sync, or an MPEG 2.5
// Layer III header), with MPEG 2.5 rates moved to 3-5.
bool parse_header(const uint8_t* p, FrameHeader& h);

// The frame's sampling rate in Hz, MPEG 2.5 included.
int32_t header_hz(const FrameHeader& h);
// Samples a channel of the frame holds: 384, 1152 or 576.
int32_t frame_samples(const FrameHeader& h);
// The real length in bytes of the frame, padding included, for every layer and version: 384
// samples for Layer I (in four-byte slots), 1152 for Layer II and MPEG-1 Layer III, 576 for MPEG-2
// and 2.5 Layer III. A free-format frame is free_bytes (its measured length without padding) plus
// padding, or 4 when free_bytes is negative (nothing measured).
int32_t frame_length(const FrameHeader& h, int32_t free_bytes);
// The bit rate in kbit/s; for free format the rate the measured length gives.
int32_t header_kbps(const FrameHeader& h, int32_t free_bytes);

// Bytes of the header and the side information of a frame, without the CRC: the side information
// of Layer III ends there. Frame walks use the same numbers for every layer.
inline int32_t header_and_side_info_bytes(const FrameHeader& h) {
  if (h.id) return h.mode == 3 ? 21 : 36;
  return h.mode == 3 ? 13 : 21;
}
// The same with the CRC when protection_bit is 0: where a frame's main data begins.
inline int32_t head_and_side_bytes(const FrameHeader& h) {
  return header_and_side_info_bytes(h) + (h.protection_bit ? 0 : 2);
}

}  // namespace format
