// Stream opening: finds the audio behind any wrapper (tail tag, Macromedia and MacBinary heads,
// RIFF WAVE with MPEG format tags, RIFF "RMP3"), reads the first frame and fills StreamInfo.
// probe_stream does nearly the same for any file, for information displays, without touching
// the session's state.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "session/frame_reader.h"

namespace session {

constexpr int32_t STREAM_OK = 85;
constexpr int32_t STREAM_NO_DATA = 32768;  // RIFF file without a "data" chunk

// Fixed tables shared by the decoders, the encoder and the information displays.
// sample_rate_table[id * 3 + sampling_index], then MPEG 2.5's 11025, 12000, 8000 Hz at 6-8 (index
// sampling_index + 3 for its headers: header_hz does the choice).
extern const int32_t sample_rate_table[9];
// bitrate_table[(id * 3 - layer_code) * 15 + bitrate_index], kbit/s; column 0 (free format) holds 1.
// The row index runs from -3 (MPEG-2 Layer I) to 2 (MPEG-1 Layer III), so the name points at the
// fourth row of the storage: rows MPEG-2 Layer I, II, III, then MPEG-1 Layer I, II, III.
extern const int32_t* const bitrate_table;

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

// The real length in bytes of the frame that header heads, padding included, for every layer and
// version: 384 samples for Layer I (in four-byte slots), 1152 for Layer II and MPEG-1 Layer III, 576
// for MPEG-2 and 2.5 Layer III. A free-format frame has the length the frame reader measured (4 when
// none was).
int32_t frame_length(const FrameHeader& header);
// Samples a channel of that frame holds: 384, 1152 or 576.
int32_t frame_samples(const FrameHeader& header);
// The frame's sampling rate in Hz, MPEG 2.5 included.
int32_t header_hz(const FrameHeader& header);
// The frame's bit rate in kbit/s; for free format the rate its measured length gives.
int32_t header_kbps(const FrameHeader& header);

}  // namespace session

namespace session {

// Tags and header frames around the audio (stream_tags.cpp).

// The offset behind the ID3v2 tags that start at `at` (at itself when none does).
int32_t skip_id3v2(std::FILE* f, int32_t at, int32_t file_size);
// The end of the audio before `end` once APE, Lyrics3 (v1, v2) and footed ID3v2 tags at the tail
// are taken off, in whatever order they follow each other.
int32_t strip_tail_tags(std::FILE* f, int32_t start, int32_t end);

// Title, artist and album of the ID3v2 tag at `at`, as UTF-8 (empty when absent).
struct Id3v2Text {
  std::string title, artist, album;
};
Id3v2Text read_id3v2_text(std::FILE* f, int32_t at);

enum VbrKind : int32_t { VBR_NONE = 0, VBR_XING = 1, VBR_INFO = 2, VBR_VBRI = 3 };
// What a Xing/Info (with its LAME extension) or VBRI frame records. The table of contents holds
// the byte position of each percent of the play time in 256ths of `bytes`: for Xing counted from
// the header frame, for VBRI from the first audio frame behind it.
struct VbrFrame {
  int32_t kind = VBR_NONE;
  int32_t frames = 0;  // audio frames, the header frame not counted; 0 unknown
  int32_t bytes = 0;   // 0 unknown
  int32_t has_toc = 0;
  uint8_t toc[100] = {};
  int32_t delay = -1;  // encoder delay and padding in samples, -1 unknown
  int32_t padding = -1;
};
// Reads the header frame from the `length` bytes of the first frame; false when it is none.
bool read_vbr_frame(const uint8_t* frame, int32_t length, const FrameHeader& h, VbrFrame& v);

// A walk over the frames from `start`, header to header by their lengths, up to the header at or
// behind `end` (or the end of the file). damaged counts the places where junk stood before a header.
struct FrameWalk {
  int32_t frames = 0;
  int32_t damaged = 0;
  int64_t samples = 0;    // per channel
  double seconds = 0;     // the sum over the frames, each at its own rate
  int64_t walked_to = 0;  // file offset behind the last frame walked
  bool bounded = false;   // the walk stopped at max_bytes, not at the end
};
// Walks the session's input file; each frame's offset goes to offsets when it is given. Reads at most
// max_bytes of the file (0: no bound). The file position is left wherever the walk ended.
void walk_frames(int32_t start, int32_t end, int64_t max_bytes, FrameWalk& walk, std::vector<int32_t>* offsets);

}  // namespace session
