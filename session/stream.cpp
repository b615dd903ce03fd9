// Minimal stream opening for bare streams; the wrapper forms come with the full implementation.
#include "session/stream.h"

#include <algorithm>

#include "session/session.h"

namespace session {

// id * 3 + sampling_index.
const int32_t sample_rate_table[6] = {22050, 24000, 16000, 44100, 48000, 32000};

// Rows by (id * 3 - layer_code) + 3. Column 0 holds 1, not 0, so that free format never divides
// by zero. Source: the bit-rate tables of ISO 11172-3 and 13818-3 (MPEG-2 Layers II and III share one).
constexpr int32_t bitrate_rows[6 * 15] = {
    1, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256,     // MPEG-2 Layer I
    1, 8,  16, 24, 32, 40, 48, 56,  64,  80,  96,  112, 128, 144, 160,     // MPEG-2 Layer II
    1, 8,  16, 24, 32, 40, 48, 56,  64,  80,  96,  112, 128, 144, 160,     // MPEG-2 Layer III
    1, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448,  // MPEG-1 Layer I
    1, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384,     // MPEG-1 Layer II
    1, 32, 40, 48, 56, 64, 80, 96,  112, 128, 160, 192, 224, 256, 320,     // MPEG-1 Layer III
};
const int32_t* const bitrate_table = bitrate_rows + 3 * 15;


constexpr int32_t frame_size_rows[18 * 15] = {};  // filled with the full stream opening
const int32_t* const frame_size_table = frame_size_rows + 3 * 15;

int32_t open_stream() {
  FrameHeader h;
  stream.mpeg_id = -1;
  stream.data_start = 0;
  std::fseek(reader.file, 0, SEEK_END);
  stream.file_size = stream.data_end = int32_t(std::ftell(reader.file));
  std::fseek(reader.file, 0, SEEK_SET);
  int32_t code = read_frame(h);
  if (code != FRAME_OK && code != FRAME_LAYER1) return -1;
  int32_t kbps = bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
  int32_t hz = sample_rate_table[h.id * 3 + h.sampling_index];
  int32_t k = h.layer_code == 3 ? (h.id ? 48000 : 24000) : (h.id ? 144000 : 72000);
  stream.frame_bytes = k * kbps / hz + h.padding_bit;
  stream.data_size = stream.data_end - stream.data_start;
  stream.frame_count = stream.data_size / stream.frame_bytes;
  stream.bitrate_kbps = kbps;
  stream.play_seconds = kbps ? std::max(1, stream.data_size / (kbps * 125)) : 0;
  stream.sample_rate = hz;
  stream.sample_rate_khz = hz / 1000;
  stream.mpeg_id = h.id;
  stream.layer = 4 - h.layer_code;
  stream.mode = h.mode;
  stream.mode_ext = h.mode_ext;
  stream.protection = h.protection_bit;
  stream.private_bit = h.private_bit;
  stream.copyright = h.copyright;
  stream.original = h.original;
  stream.emphasis_mode = h.emphasis;
  std::fseek(reader.file, stream.data_start, SEEK_SET);
  return STREAM_OK;
}

int32_t probe_stream(std::FILE* file, ProbeInfo& info) {
  (void)info;
  std::fclose(file);
  return -1;
}

}  // namespace session
