// The system stream splitter: the audio of an MPEG-1 system stream, as a plain MPEG audio file.
// It walks the packs and packets by their start codes, skips everything but the audio packets
// (stream ids C0 to CF, all of them into one output) and appends their payloads unchanged.
// MPEG-2 program streams are not understood: their packet header forms are refused.
//
// Threads: start_split runs on the main thread while no converter runs and starts split_thread,
// which owns both files until it ends. The main thread stops it only through
// session::state.file_job_cancel, which the walk reads between units and within a packet header.
// The thread posts MSG_SPLIT_PROGRESS (position, file size) for each audio packet and
// MSG_SPLIT_END (result, bytes read) at its end, unless it was cancelled. A job that ends with an
// error or without any audio removes its output file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace tools {

enum SplitResult : int32_t {
  SPLIT_OK = 0,  // success, or the file ended
  SPLIT_READ_ERROR = 1,
  SPLIT_BAD_START_CODE = 4,
  SPLIT_BAD_VIDEO_HEADER = 5,
  SPLIT_BAD_AUDIO_HEADER = 6,
  SPLIT_VIDEO_WRITE_ERROR = 7,  // reserved: video is never written
  SPLIT_AUDIO_WRITE_ERROR = 8,
  SPLIT_NO_AUDIO = 9,    // the walk ended without a byte of audio: no output is left
  SPLIT_CANCELLED = -1,  // the walk saw file_job_cancel; no result is posted
};

// The progress window's text for a result (nullptr for 0 and unknown ones).
const char* split_result_text(int32_t result);

// A packet's length field is 16 bits, so one buffer of this size holds any packet whole.
constexpr int32_t SPLIT_PACKET_BUFFER_BYTES = 65536;

struct SplitState {
  std::FILE* in = nullptr;
  std::FILE* out = nullptr;
  std::string out_path;  // deleted on cancel unless "Leave"
  int64_t file_size = 0;
  int64_t bytes_read = 0;
};

extern SplitState split;

// Opens the input ("rb", else 2) and the output ("wb", else the input is closed again and 3),
// and starts the thread. Returns 0, or 1 while another converter runs.
int32_t start_split(const char* input_path, const char* output_path);
// Waits for the splitter thread, if any, to end.
void wait_split();

// The walk over open files on the calling thread, posting progress as the thread does. packet is
// SPLIT_PACKET_BUFFER_BYTES long. Returns a SplitResult; bytes_read counts every byte read.
int32_t split_stream(std::FILE* in, std::FILE* out, int64_t file_size, int64_t& bytes_read, uint8_t* packet);

// The length of a packet's header (stuffing, buffer size field, time stamps) in its first length
// bytes: SPLIT_HEADER_BAD for a form MPEG-1 does not have, SPLIT_HEADER_SHORT when the header
// runs past length or the cancel flag was seen.
constexpr int32_t SPLIT_HEADER_BAD = -1;
constexpr int32_t SPLIT_HEADER_SHORT = -2;
constexpr int32_t SPLIT_HEADER_CANCELLED = -3;
int32_t packet_header_length(const uint8_t* packet, int32_t length);

}  // namespace tools
