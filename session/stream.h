// Stream opening: finds the audio behind any wrapper (tail tag, Macromedia and MacBinary heads,
// RIFF WAVE with MPEG format tags, RIFF "RMP3"), reads the first frame and fills StreamInfo.
// probe_stream does nearly the same for any file, for information displays, without touching
// the session's state.
#pragma once

#include <cstdint>
#include <cstdio>

#include "session/frame_reader.h"

namespace session {

constexpr int32_t STREAM_OK = 85;
constexpr int32_t STREAM_NO_DATA = 32768;  // RIFF file without a "data" chunk

// Fixed tables shared by the decoders, the encoder and the information displays.
// sample_rate_table[id * 3 + sampling_index]
extern const int32_t sample_rate_table[6];
// bitrate_table[(id * 3 - layer_code) * 15 + bitrate_index], kbit/s; column 0 (free format) holds 1.
// The row index runs from -3 (MPEG-2 Layer I) to 2 (MPEG-1 Layer III), so the name points at the
// fourth row of the storage: rows MPEG-2 Layer I, II, III, then MPEG-1 Layer I, II, III.
extern const int32_t* const bitrate_table;
// frame_size_table[((id * 3 + sampling_index) * 3 - layer_code) * 15 + bitrate_index], bytes
// without padding, floor(K * kbit/s / Hz) with K = 144000 (MPEG-1) or 72000 (MPEG-2) for every layer.
// The row index runs from -3 to 14, so the name points at the fourth of 18 rows.
extern const int32_t* const frame_size_table;

// Works on reader.file. Returns STREAM_OK, -1 (first read_frame failed), a RIFF WAVE format tag
// outside 80-85, or STREAM_NO_DATA.
int32_t open_stream();

// What the last open_stream found around the audio, as bits, for information displays. Written
// by open_stream only (main thread or the session's thread, never both at once).
enum WrapperBits : int32_t {
  WRAP_MACROMEDIA = 1,  // "MACR" head: data behind a big-endian length
  WRAP_MACBINARY = 2,   // 128-byte MacBinary head
  WRAP_WAVE = 4,        // RIFF WAVE with an MPEG audio format tag
  WRAP_RMP3 = 8,        // RIFF "RMP3"
  WRAP_TAG = 16,        // 128-byte tag at the tail
};
extern int32_t stream_wrapper;

// The 17 values of a probe, in order.
struct ProbeInfo {
  int32_t id, layer, protection, kbps, hz, padding, private_bit, mode, mode_ext, copyright, original, emphasis,
      data_start, data_end, file_size, play_seconds, frame_count;
};
static_assert(sizeof(ProbeInfo) == 17 * 4);

// Returns 0 bare, 1 WAVE wrapper, 2 "RMP3" wrapper, -1 failure, STREAM_NO_DATA. Closes the file
// itself on every path that passes the wrapper stage. The two results given inside the wrapper
// stage leave it open for the caller: STREAM_NO_DATA, and -1 for a WAVE file whose format tag is
// not MPEG audio; a -1 from a missing sync has already closed it.
int32_t probe_stream(std::FILE* file, ProbeInfo& info);
// probe_stream on a path: opens the file and always leaves it closed. Returns -1 when it will not
// open.
int32_t probe_file(const char* path, ProbeInfo& info);

}  // namespace session

namespace session {

// The real length in bytes of the frame that header heads, padding included: 384 samples for
// Layer I (in four-byte slots), 1152 for Layer II and MPEG-1 Layer III, 576 for MPEG-2 Layer III.
int32_t frame_length(const FrameHeader& header);

}  // namespace session
