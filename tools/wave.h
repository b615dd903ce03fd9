// WAVE files for the file tools: a header parser that walks the chunks as other programs write
// them, a reader that gives random access to sample frames through a double buffer of two halves,
// and a writer whose 44-byte header is written when the file opens and patched with the true sizes
// when it closes.
//
// The reader takes PCM of 8 to 32 bits and IEEE float of 32 and 64 bits, plain or in the
// extensible format, mono or stereo, and hands every frame out on the 16-bit scale: the tools
// (and the encoder) work on 16-bit samples whatever the file holds.
//
// Threads: there is one reader and one writer in the process, for one job at a time. The job's
// start opens both on the main thread before the job thread exists; from then on only the job
// thread touches them. parse_wave_header and probe_wave_file are free of shared
// state and may be called from anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "format/errors.h"

namespace tools {

// Input is held in halves of half a megabyte of 16-bit stereo frames (131072 frames each), so that
// a sample frame costs a few compares; the file's bytes pass through a staging area on their way.
constexpr int32_t WAVE_HALF_BYTES = 0x80000;
constexpr int32_t WAVE_STAGE_BYTES = 0x10000;
constexpr int32_t WAVE_IN_BUFFER_BYTES = 2 * WAVE_HALF_BYTES + 256 + WAVE_STAGE_BYTES;
constexpr int32_t WAVE_OUT_FLUSH_BYTES = 0x80000;
constexpr int32_t WAVE_OUT_BUFFER_BYTES = WAVE_OUT_FLUSH_BYTES + 0x100;
constexpr int32_t WAVE_HEADER_BYTES = 44;

// The format tags the reader takes; an extensible header names one of the first two as its
// sub-format.
constexpr int32_t WAVE_TAG_PCM = 1;
constexpr int32_t WAVE_TAG_FLOAT = 3;
constexpr int32_t WAVE_TAG_EXTENSIBLE = 0xFFFE;

// Why a header was refused, for the message that tells the user (session::wave_problem_message).
enum WaveProblem : int32_t {
  WAVE_PROBLEM_NONE = 0,
  WAVE_PROBLEM_NOT_RIFF = 1,    // neither "RIFF" nor "WAVE" where a WAVE file has them
  WAVE_PROBLEM_NO_FMT = 2,      // "data" before any "fmt "
  WAVE_PROBLEM_SHORT_FMT = 3,   // "fmt " too short for its format
  WAVE_PROBLEM_FORMAT_TAG = 4,  // neither PCM nor IEEE float (format_tag says which)
  WAVE_PROBLEM_CHANNELS = 5,    // not mono or stereo
  WAVE_PROBLEM_BITS = 6,        // a sample size the reader does not take
  WAVE_PROBLEM_RATE = 7,        // 0 or beyond a signed word
  WAVE_PROBLEM_NO_DATA = 8,     // the chunks end without a "data" chunk
};

// What a WAVE header says. bits is the size of a sample's container (8 to 32, or 64 for double
// floats), so data_size / (bits / 8 * channels) is the frame count; valid_bits is how many of them
// the writer says it used.
struct WaveHeader {
  int32_t format_tag = 0;  // the "fmt " tag, or the sub-format's for an extensible header
  bool is_float = false;
  int32_t rate = 0;
  int32_t bits = 0;
  int32_t valid_bits = 0;
  int32_t channels = 0;
  int32_t block_align = 0;  // bits / 8 * channels
  uint32_t data_size = 0;   // as the "data" chunk says; probe_wave_file cuts it to the file
  int64_t data_offset = 0;  // the first sample byte
  int32_t problem = WAVE_PROBLEM_NONE;
};

struct WaveInput {
  uint8_t* buffer = nullptr;  // WAVE_IN_BUFFER_BYTES
  std::FILE* file = nullptr;
  int32_t rate = 0;
  int32_t bits = 0;
  int32_t channels = 0;
  uint32_t data_size = 0;       // the "data" chunk's bytes, cut to what the file holds
  int64_t data_left = 0;        // data bytes not yet read into the buffer; past them comes silence
  int32_t bytes_per_frame = 0;  // the file's: (bits * channels) / 8
  bool is_float = false;
  int64_t frames = 0;  // data_size / bytes_per_frame: the frames the file holds
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
  int32_t status = 0;  // format::ERR_WRITE once a write has failed
};

extern WaveInput wave_in;
extern WaveOutput wave_out;

// Parses a WAVE header from the first length bytes of a file, walking its chunks in any order up to
// "data" (odd-sized chunks are followed by a pad byte). Returns format::ERR_OK with the header filled;
// format::ERR_WAVE_CHUNK when more bytes are needed; format::ERR_WAVE_FORMAT, with h.problem saying why, when the
// bytes are not a WAVE header the reader takes.
int32_t parse_wave_header(const uint8_t* buffer, int32_t length, WaveHeader& h);
// The same, giving the header's facts one by one.
int32_t parse_wave_header(const uint8_t* buffer, int32_t length, int32_t& rate, int32_t& bits, int32_t& channels,
                          uint32_t& data_size, int32_t& data_offset);
// Walks the chunks of the file at path, however far its "data" chunk lies, and cuts the data size
// to what the file holds (a size beyond the file's end means "to the end of the file"). Returns
// format::ERR_OK, format::ERR_READ, format::ERR_WAVE_FORMAT or format::ERR_WAVE_NO_DATA (no "data" chunk); h.problem
// says why.
int32_t probe_wave_file(const char* path, WaveHeader& h);

// Opens path, finds its header and fills the first half. Returns a format::Error; on failure nothing
// stays open or allocated. bits is the container size as in WaveHeader; header, when given,
// receives the whole header (with the problem on a refusal).
int32_t open_wave_input(const char* path, int32_t& rate, int32_t& bits, int32_t& channels, uint32_t& data_size,
                        WaveHeader* header = nullptr);
// The frame at index as two values on the 16-bit scale (a mono file gives the same value twice):
// 8-bit samples shifted up, wider ones cut to their upper 16 bits, floats scaled by 32768,
// truncated and clipped. Indices may rise by any amount; reading behind works within the two
// resident halves, and before frame 0 or past the data the values are silence.
void read_wave_frame(int64_t index, int32_t& left, int32_t& right);
// Closes the input and frees its buffer; harmless when nothing is open.
void close_wave_input();

// Allocates the output buffer (else format::ERR_NO_MEMORY), creates path (else format::ERR_CREATE_OUTPUT) and writes
// the first header with data_size_estimate as the data size (else format::ERR_WRITE, file removed).
int32_t open_wave_output(const char* path, int32_t rate, int32_t bits, int32_t channels, uint32_t data_size_estimate);
// Clips both values to 16 bits and stores the frame in the output's format. Returns format::ERR_OK, or
// format::ERR_WRITE after a failed flush, which has already closed the output.
int32_t write_wave_frame(int32_t left, int32_t right);
// Flushes, rewrites the header with the true sizes, closes the file and frees the buffer. Returns
// format::ERR_WRITE when the flush or the header write failed (the file is closed all the same); a
// second close does nothing and returns format::ERR_OK.
int32_t close_wave_output();

// Whether writing out_path would overwrite in_path: the same regular file by device and inode,
// through any link. A path that does not exist yet is never the same.
bool same_file(const char* in_path, const char* out_path);
// Deletes a tool's unfinished output file. Only a regular file goes: an output named by a device
// (/dev/null, /dev/full) or a pipe stays.
void remove_partial_output(const char* path);

// Fills the 44-byte header of a PCM WAVE file.
void make_wave_header(uint8_t* header, int32_t rate, int32_t bits, int32_t channels, uint32_t data_bytes);

}  // namespace tools
