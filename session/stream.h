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

using format::bitrate_table;
using format::sample_rate_table;

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

// format::frame_length and format::header_kbps with the free-format length the frame reader
// measured for this stream (4 bytes when none was).
int32_t frame_length(const FrameHeader& header);
int32_t header_kbps(const FrameHeader& header);
using format::frame_samples;
using format::header_hz;

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
