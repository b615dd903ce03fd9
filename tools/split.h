// The system stream splitter: the audio of an MPEG-1 system stream, as a plain MPEG audio file.
// It walks the packs and packets by their start codes, skips everything but the audio packets
// (stream ids C0 to CF, all of them into one output) and appends their payloads unchanged.
// MPEG-2 program streams are not understood: their packet header forms are refused.
//
// Threads: start_split runs on the main thread while its Job is idle and starts the job, whose
// thread owns both files until it ends. The main thread stops it only through the job's Cancel
// word, which the walk reads between units and within a packet header. The thread posts
// MSG_SPLIT_PROGRESS (position, file size) for each audio packet and MSG_SPLIT_END (result, bytes
// read) at its end, unless it was cancelled. A failed or cancelled job, or one that finds no audio, leaves no output.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "format/errors.h"
#include "session/job.h"

namespace tools {

// The walk saw the job's Cancel; no result is posted.
constexpr int32_t SPLIT_CANCELLED = -1;

// MSG_SPLIT_END carries the result as the progress window numbers it (1 read, 4 not MPEG, 5 and 6
// a video or audio frame, 7 and 8 their writes, 9 no audio); these map a format::Error to that
// number and back (0 stays 0, an unknown number comes back as itself).
int32_t split_end_code(int32_t error);
int32_t split_end_error(int32_t code);

// A packet's length field is 16 bits, so one buffer of this size holds any packet whole.
constexpr int32_t SPLIT_PACKET_BUFFER_BYTES = 65536;

struct SplitState {
  std::FILE* in = nullptr;
  std::FILE* out = nullptr;
  int64_t file_size = 0;
  int64_t bytes_read = 0;
};

extern SplitState split;

// Opens the input ("rb", else ERR_OPEN_INPUT) and the output ("wb", else the input is closed
// again and ERR_OPEN_OUTPUT), and starts the job. Returns ERR_OK, ERR_BUSY while the job runs, or
// ERR_SAME_FILE when the output would overwrite the input.
int32_t start_split(session::Job& job, const char* input_path, const char* output_path);

// The walk over open files on the calling thread, posting progress as the thread does. packet is
// SPLIT_PACKET_BUFFER_BYTES long. Returns a format::Error; bytes_read counts every byte read.
int32_t split_stream(std::FILE* in, std::FILE* out, int64_t file_size, int64_t& bytes_read, uint8_t* packet);

// The length of a packet's header (stuffing, buffer size field, time stamps) in its first length
// bytes: SPLIT_HEADER_BAD for a form MPEG-1 does not have, SPLIT_HEADER_SHORT when the header
// runs past length or the cancel flag was seen.
constexpr int32_t SPLIT_HEADER_BAD = -1;
constexpr int32_t SPLIT_HEADER_SHORT = -2;
constexpr int32_t SPLIT_HEADER_CANCELLED = -3;
int32_t packet_header_length(const uint8_t* packet, int32_t length);

}  // namespace tools
