// Frame reader: the sync search over the session's input file, the four-byte MPEG audio header,
// the CRC bytes, the 48-byte frame head and the 4096-byte bit reservoir with its bit reads.
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

constexpr int32_t RESERVOIR_SIZE = 4096;
// Storage behind the ring: takes a whole frame that runs over the ring's end (the largest is a
// free-format frame of MAX_FREE_BYTES), and keeps the four guard bytes that repeat
// the ring's start so that a 32-bit read at the end needs no wrap test.
constexpr int32_t RESERVOIR_GUARD = 3072;
// Bounds of a free-format frame's measured length: 640 kbit/s Layer III at 32 kHz is 2880 bytes.
constexpr int32_t MIN_FREE_BYTES = 24;
constexpr int32_t MAX_FREE_BYTES = 2881;
constexpr uint32_t RESERVOIR_BIT_MASK = 0x7FFF;  // 4096 * 8 bits

struct FrameReader {
  std::FILE* file = nullptr;  // the session's input file; owned by the session, not by the reader
  uint8_t frame_head[48] = {};
  int32_t frame_head_bits = 0;
  // The free-format frame length without padding, measured at the first free-format header of a
  // stream, and the id, layer and rate it belongs to (free_key -1: none measured).
  int32_t free_bytes = 0;
  int32_t free_key = -1;
  // No header is taken at or beyond this file offset: the tags at a bare stream's tail.
  long end_limit = 0x7FFFFFFF;
};

struct BitReader {
  uint8_t reservoir[RESERVOIR_SIZE + RESERVOIR_GUARD] = {};
  int32_t reservoir_write = 0;  // next byte to land, 0-4095
  uint32_t reservoir_bits = 0;  // read position in bits, modulo 32768
};

extern FrameReader reader;
extern BitReader bits;

// Sync search and header parse; fills header on codes 0 and 256.
int32_t read_frame(FrameHeader& header);
// Reads the two CRC bytes into frame_head and sets its bit position to 16. The CRC is not checked.
void skip_crc();
// Position 0, frame_head cleared, the free-format measure and the end limit forgotten.
void reset_frame_reader();
// Clears the reservoir, its write offset and read position.
void reset_bit_reader();
// Reads n bytes of the input file into the reservoir at reservoir_write, keeping the guard.
void load_reservoir(int32_t n);
// Copies the ring's first four bytes into the guard (done once at the start of a track).
void sync_reservoir_guard();
// Reads n bytes of the input file into frame_head from byte 0 (side information); short reads
// leave zeros. Returns the bytes read.
int32_t read_frame_head(int32_t n);

// Bit reads from the reservoir, n from 1 to 25.
inline uint32_t peek_bits(int32_t n) { return format::peek_bits(bits.reservoir, bits.reservoir_bits, n); }
inline uint32_t get_bits_nonzero(int32_t n) {
  uint32_t v = peek_bits(n);
  bits.reservoir_bits = (bits.reservoir_bits + uint32_t(n)) & RESERVOIR_BIT_MASK;
  return v;
}
inline uint32_t get_bits(int32_t n) { return n == 0 ? 0 : get_bits_nonzero(n); }
inline uint32_t peek_bit() { return peek_bits(1); }
// The next bit in bit 31 of the result: 0 or 0x80000000.
inline uint32_t get_bit_msb() { return get_bits_nonzero(1) << 31; }

// Reads from frame_head at frame_head_bits (side information), n from 1 to 25. Reads past the
// 48 bytes give zeros.
uint32_t head_bits(int32_t n);

}  // namespace session
