// One encode job: a PCM WAVE file in, an MPEG audio Layer I or II file out, optionally inside a
// RIFF WAVE file (format tag 80).
//
// Threads: encode_open runs on the caller's thread and opens both files; run_encode_job then
// owns them to the end, on whatever thread runs the job. It reads session::state.file_job_cancel
// once per frame (a Cancel takes effect at the head of the next frame) and posts
// MSG_PROGRESS_ENCODE (data bytes left, in all) to the progress window every fourth frame and at
// the end, then MSG_PROGRESS_STATUS (0, 0) and MSG_PROGRESS_END. A cancelled job posts nothing and
// removes its output unless session::options.leave is set.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "encoder/encoder.h"

namespace encoder {

// encode_open results; the front end words them.
enum EncodeOpenCode : int32_t {
  ENCODE_OK = 0,
  ENCODE_NO_INPUT = 1,    // input cannot be opened
  ENCODE_NO_OUTPUT = 2,   // output cannot be created
  ENCODE_NOT_WAVE = 3,    // not a WAVE file, or a sample format, rate or channel count the encoder can't take
  ENCODE_NO_DATA = 4,     // no "data" chunk
  ENCODE_EMPTY = 6,       // "data" chunk of length 0
  ENCODE_BAD_PARAMS = 7,  // parameters refused by encoder_init (layer, rate, mode pairing)
};

// Size of the RIFF WAVE wrapper written ahead of the stream when asked: "RIFF", "fmt " with the
// 40-byte MPEG-1 wave format (22 bytes beyond the common 18), "fact" and the "data" head.
constexpr int32_t MPEG_WAVE_HEADER_BYTES = 80;

struct EncodeJob {
  EncoderState* state = nullptr;  // allocated by encode_open, freed by run_encode_job
  std::FILE* out = nullptr;
  std::string out_path;
  bool wave_header = false;
  bool downmix = false;      // a two-channel input coded as mono
  int32_t channels = 0;      // of the input
  int64_t frames_total = 0;  // sample frames in the input
  int64_t frames_read = 0;
  int64_t bytes_total = 0;  // of the data chunk, for progress
  int64_t frames_written = 0;
  int64_t stream_bytes = 0;
  int32_t cancelled = 0;
};

// Opens the input through the WAVE reader, fills the rate and mode of params from it (mono input
// is always mode 3; mode 3 for a stereo input mixes both channels down) and the bit rate index
// from kbps (0: 192 kbit/s at 32-48 kHz, 96 at 16-24 kHz), checks them with encoder_init and
// creates the output. On failure nothing stays open and no output is left.
int32_t encode_open(EncodeJob& job, const char* input_path, const char* output_path, EncoderParams params, int32_t kbps,
                    bool wave_header);
// The frame loop to the end of input or to a Cancel, then the closing (WAVE header when asked,
// removal of a cancelled output unless "Leave"). Returns 0 when done, 1 when cancelled, 2 when
// writing failed (the output is removed).
int32_t run_encode_job(EncodeJob& job);

// Fills pcm with the next frame of the input (samples per channel of the job's layer), zero beyond
// the data. Returns the sample frames taken from the input, 0 at its end.
int32_t read_pcm_frame(EncodeJob& job, int16_t (*pcm)[FRAME_SAMPLES_L2]);

// Fills the wrapper of MPEG_WAVE_HEADER_BYTES for a stream of stream_bytes and frames frames.
void make_mpeg_wave_header(uint8_t* header, const EncoderState& s, int64_t stream_bytes, int64_t frames);

}  // namespace encoder
