// Frame reader: the sync search over the session's input file, the four-byte MPEG audio header,
// and the bytes of the frame behind it, which the decoder takes.
//
// Only the session's thread reads frames. open_stream and the start operations use the same state
// on the main thread, before the session's thread exists. Nothing here is shared with the wave thread.
//
// The header fields and their meaning are in format/header.h. A free-format frame (bit-rate index 0)
// is handed on too: its length is the distance to the next header, measured once a stream and kept
// in the reader (see frame_length).
#pragma once

#include <cstdint>
#include <cstdio>

#include "format/bit_reader.h"
#include "format/header.h"

namespace session {

using format::FrameHeader;
using format::head_and_side_bytes;
using format::header_and_side_info_bytes;

// read_frame codes. 260 and 261 are only used as message selectors by open_stream.
enum ReadCode : int32_t {
  FRAME_OK = 0,                // Layer II or III header, file behind its 4 bytes
  FRAME_LAYER1 = 256,          // Layer I header
  FRAME_EOF_AFTER_SYNC = 257,  // end of file while stepping after a rejected FFF sync
  FRAME_MPEG25 = 258,          // message selector only: MPEG 2.5 frames are read as FRAME_OK
  FRAME_FREE_FORMAT = 259,     // message selector only: free-format frames are read as FRAME_OK
  FRAME_SYNC_ERROR = 260,
  FRAME_VIDEO = 261,
  FRAME_SHORT = 262,  // fewer than 4 bytes left at the call
  FRAME_EOF = 263,    // end of file while stepping after any other pattern
};
// A frame header of any layer was read.
inline bool frame_found(int32_t code) { return code == FRAME_OK || code == FRAME_LAYER1; }

// Bounds of a free-format frame's measured length: 640 kbit/s Layer III at 32 kHz is 2880 bytes.
constexpr int32_t MIN_FREE_BYTES = 24;
constexpr int32_t MAX_FREE_BYTES = 2881;
// The most bytes a frame holds behind its header: a free-format frame of MAX_FREE_BYTES with padding.
constexpr int32_t MAX_BODY_BYTES = MAX_FREE_BYTES + 4;

struct FrameReader {
  std::FILE* file = nullptr;          // the session's input file; owned by the session, not by the reader
  uint8_t frame_head[4] = {};         // the sync search's window: the header once one is found
  uint8_t body[MAX_BODY_BYTES] = {};  // the frame's bytes behind its header, as read_frame_body read them
  // The free-format frame length without padding, measured at the first free-format header of a
  // stream, and the id, layer and rate it belongs to (free_key -1: none measured).
  int32_t free_bytes = 0;
  int32_t free_key = -1;
  // No header is taken at or beyond this file offset: the tags at a bare stream's tail.
  long end_limit = 0x7FFFFFFF;
};

extern FrameReader reader;

// Sync search and header parse; fills header on codes 0 and 256.
int32_t read_frame(FrameHeader& header);
// Reads the bytes of the frame behind the header that read_frame found, as many as `wanted` (the
// decoder's body_bytes_wanted), into reader.body; returns how many came (fewer at the end of the
// file).
int32_t read_frame_body(int32_t wanted);
// Position 0, frame_head cleared, the free-format measure and the end limit forgotten.
void reset_frame_reader();

}  // namespace session
