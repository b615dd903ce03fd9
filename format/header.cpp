#include "format/header.h"

namespace format {

// id * 3 + sampling_index. Source: ISO 11172-3 and 13818-3, sampling_frequency; behind them the
// rates of MPEG 2.5, half those of MPEG-2.
constexpr int32_t sample_rate_table[9] = {22050, 24000, 16000, 44100, 48000, 32000, 11025, 12000, 8000};

namespace {

// Rows by (id * 3 - layer_code) + 3: MPEG-2 Layer I, II, III, then MPEG-1 Layer I, II, III.
// Column 0 (free format) holds 1, not 0, so that a free-format Layer I stream never divides by
// zero. Source: the bit-rate tables of ISO 11172-3 and 13818-3 (MPEG-2 Layers II and III share one).
constexpr int32_t BITRATE_ROWS = 6;
constexpr int32_t bitrate_rows[BITRATE_ROWS * 15] = {
    1, 32, 48, 56, 64,  80,  96,  112, 128, 144, 160, 176, 192, 224, 256,  // MPEG-2 Layer I
    1, 8,  16, 24, 32,  40,  48,  56,  64,  80,  96,  112, 128, 144, 160,  // MPEG-2 Layer II
    1, 8,  16, 24, 32,  40,  48,  56,  64,  80,  96,  112, 128, 144, 160,  // MPEG-2 Layer III
    1, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448,  // MPEG-1 Layer I
    1, 32, 48, 56, 64,  80,  96,  112, 128, 160, 192, 224, 256, 320, 384,  // MPEG-1 Layer II
    1, 32, 40, 48, 56,  64,  80,  96,  112, 128, 160, 192, 224, 256, 320,  // MPEG-1 Layer III
};
static_assert(bitrate_rows[4 * 15 + 14] == 384 && bitrate_rows[5 * 15 + 9] == 128 && bitrate_rows[1 * 15 + 8] == 64);

int32_t padding_bytes(const FrameHeader& h) { return h.padding_bit * (h.layer_code == 3 ? 4 : 1); }

}  // namespace

const int32_t* const bitrate_table = bitrate_rows + 3 * 15;

void split_header(uint32_t w, FrameHeader& h) {
  h.id = int32_t((w >> 19) & 1);
  h.layer_code = int32_t((w >> 17) & 3);
  h.protection_bit = int32_t((w >> 16) & 1);
  h.bitrate_index = int32_t((w >> 12) & 15);
  h.sampling_index = int32_t((w >> 10) & 3);
  h.padding_bit = int32_t((w >> 9) & 1);
  h.private_bit = int32_t((w >> 8) & 1);
  h.mode = int32_t((w >> 6) & 3);
  h.mode_ext = h.mode == 0 ? 0 : int32_t((w >> 4) & 3);
  h.copyright = int32_t((w >> 3) & 1);
  h.original = int32_t((w >> 2) & 1);
  h.emphasis = int32_t(w & 3);
}

bool parse_header(const uint8_t* p, FrameHeader& h) {
  const uint32_t word = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
  split_header(word & 0xFFFFF, h);
  if (word >> 20 == 0xFFF) return header_acceptable(h);
  if (word >> 20 != 0xFFE || h.id != 0 || h.layer_code != 1 || !header_acceptable(h)) return false;
  h.sampling_index += 3;
  return true;
}

int32_t header_hz(const FrameHeader& h) {
  // MPEG 2.5's rates (sampling_index 3-5) stand behind MPEG-1's in the table.
  return sample_rate_table[h.sampling_index >= 3 ? h.sampling_index + 3 : h.id * 3 + h.sampling_index];
}

int32_t frame_samples(const FrameHeader& h) {
  if (h.layer_code == 3) return 384;
  return h.layer_code == 1 && h.id == 0 ? 576 : 1152;
}

int32_t frame_length(const FrameHeader& h, int32_t free_bytes) {
  if (h.bitrate_index == 0) return free_bytes < 0 ? 4 : free_bytes + padding_bytes(h);
  const int32_t kbps = bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  const int32_t hz = header_hz(h);
  if (h.layer_code == 3) return (12000 * kbps / hz + h.padding_bit) * 4;
  // Bytes are samples / 8 * bits per second / Hz: 144000 for 1152 samples, 72000 for 576.
  return frame_samples(h) * 125 * kbps / hz + h.padding_bit;
}

int32_t header_kbps(const FrameHeader& h, int32_t free_bytes) {
  if (h.bitrate_index != 0) return bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  // Free format: the rate the measured length gives, to the nearest kbit/s.
  const int64_t bits = int64_t(frame_length(h, free_bytes) - padding_bytes(h)) * 8 * header_hz(h);
  const int64_t per_frame_ms = int64_t(frame_samples(h)) * 1000;
  return int32_t((bits + per_frame_ms / 2) / per_frame_ms);
}

}  // namespace format
