// PCM WAVE files for the file tools: a header parser, a reader that gives random access to sample
// frames through a double buffer of two half-megabyte halves, and a writer whose 44-byte header is
// written when the file opens and patched with the true sizes when it closes.
//
// Threads: there is one reader and one writer in the process, for one job at a time. The job's
// start opens both on the main thread before the job thread exists; from then on only the job
// thread touches them. parse_wave_header is pure and may be called from anywhere.
#pragma once

#include <cstdint>
#include <cstdio>

namespace tools {

// Result codes of the WAVE functions and of the resampler. The texts are what the progress window
// shows for each (wave_code_text).
enum WaveCode : int32_t {
  WAVE_OK = 0,
  WAVE_READ_ERROR = 1,    // file cannot be opened, sought or read
  WAVE_WRITE_ERROR = 2,   // write failed
  WAVE_NO_MEMORY = 7,     // allocation failed
  WAVE_CHUNK_ERROR = 23,  // the header's chunks run beyond the bytes read
  WAVE_BAD_FORMAT = 58,   // not a WAVE file, or a format that is not supported
  WAVE_NO_DATA = 63,      // no data
};

// The progress window's text for a code, or nullptr for 0 and unknown codes.
const char* wave_code_text(int32_t code);

// I/O runs in halves of half a megabyte, so that a sample frame costs a few compares.
constexpr int32_t WAVE_HALF_BYTES = 0x80000;
constexpr int32_t WAVE_IN_BUFFER_BYTES = 2 * WAVE_HALF_BYTES + 256;  // two halves and 256 spare bytes
constexpr int32_t WAVE_OUT_FLUSH_BYTES = 0x80000;
constexpr int32_t WAVE_OUT_BUFFER_BYTES = WAVE_OUT_FLUSH_BYTES + 0x100;
constexpr int32_t WAVE_HEADER_BYTES = 44;
// How far open_wave_input reads to find the "data" chunk, and in which steps.
constexpr int32_t WAVE_PARSE_STEP = 56;
constexpr int32_t WAVE_PARSE_LIMIT = 1024;

struct WaveInput {
  uint8_t* buffer = nullptr;  // WAVE_IN_BUFFER_BYTES
  std::FILE* file = nullptr;
  int32_t rate = 0;
  int32_t bits = 0;
  int32_t channels = 0;
  uint32_t data_size = 0;       // the "data" chunk's bytes, cut to what the file holds
  int64_t data_left = 0;        // data bytes not yet read into the buffer; past them comes silence
  int32_t bytes_per_frame = 0;  // (bits * channels) / 8
  int32_t frames_per_half = 0;
  int64_t half = 0;     // halves read so far; the low bit names the half most recently filled
  int64_t limit = 0;    // first frame index not yet in memory
  uint32_t serial = 0;  // differs for every file opened, so that caches of its frames can tell
};

struct WaveOutput {
  uint8_t* buffer = nullptr;  // WAVE_OUT_BUFFER_BYTES
  std::FILE* file = nullptr;
  int32_t rate = 0;
  int32_t bits = 0;
  int32_t channels = 0;
  int32_t bytes_per_frame = 0;
  int32_t fill = 0;    // frames in the buffer
  int64_t frames = 0;  // frames written to the file so far
  int32_t status = 0;  // WAVE_WRITE_ERROR once a write has failed
};

extern WaveInput wave_in;
extern WaveOutput wave_out;

// Parses a WAVE header from the first length bytes of a file. Returns WAVE_OK with the "fmt "
// facts, the "data" chunk's size and the offset of its first byte; WAVE_CHUNK_ERROR when more
// bytes are needed; WAVE_BAD_FORMAT when the bytes are not a usable WAVE header.
int32_t parse_wave_header(const uint8_t* buffer, int32_t length, int32_t& rate, int32_t& bits, int32_t& channels,
                          uint32_t& data_size, int32_t& data_offset);

// Opens path, finds its header and fills the first half. Returns a WaveCode; on failure nothing
// stays open or allocated.
int32_t open_wave_input(const char* path, int32_t& rate, int32_t& bits, int32_t& channels, uint32_t& data_size);
// The frame at index as two values on the 16-bit scale (a mono file gives the same value twice).
// Indices may rise by any amount; reading behind works within the two resident halves, and before
// frame 0 or past the data the values are silence.
void read_wave_frame(int64_t index, int32_t& left, int32_t& right);
// Closes the input and frees its buffer; harmless when nothing is open.
void close_wave_input();

// Allocates the output buffer (else WAVE_NO_MEMORY), creates path (else WAVE_READ_ERROR) and writes
// the first header with data_size_estimate as the data size (else WAVE_WRITE_ERROR, file removed).
int32_t open_wave_output(const char* path, int32_t rate, int32_t bits, int32_t channels, uint32_t data_size_estimate);
// Clips both values to 16 bits and stores the frame in the output's format. Returns WAVE_OK, or
// WAVE_WRITE_ERROR after a failed flush, which has already closed the output.
int32_t write_wave_frame(int32_t left, int32_t right);
// Flushes, rewrites the header with the true sizes, closes the file and frees the buffer. Returns
// WAVE_WRITE_ERROR when the flush or the header write failed (the file is closed all the same); a
// second close does nothing and returns WAVE_OK.
int32_t close_wave_output();

// Fills the 44-byte header of a PCM WAVE file.
void make_wave_header(uint8_t* header, int32_t rate, int32_t bits, int32_t channels, uint32_t data_bytes);

}  // namespace tools
