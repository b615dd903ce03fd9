// One encode job: a PCM WAVE file in, an MPEG audio file out, optionally inside a RIFF WAVE file
// (format tag 80 for Layers I and II, 85 for Layer III).
//
// Threads: encode_open runs on the caller's thread and opens both files; run_encode_job then owns
// them on whatever thread runs it (the session runs it as a job). It reads the Cancel word of its
// format::Work once per frame (a Cancel takes effect at the head of the next frame) and reports
// progress (data bytes left, in all) every fourth frame and, after a successful end, (0, in all).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "encoder/encoder.h"
#include "format/errors.h"
#include "format/work.h"

namespace encoder {

// Size of the RIFF WAVE wrapper written ahead of the stream when asked: "RIFF", "fmt " with the
// 40-byte MPEG-1 wave format (22 bytes beyond the common 18), "fact" and the "data" head.
constexpr int32_t MPEG_WAVE_HEADER_BYTES = 80;
// The Layer III wrapper: "fmt " with the 12-byte MPEG Layer III extension.
constexpr int32_t MP3_WAVE_HEADER_BYTES = 70;
inline int32_t wave_header_bytes(const EncoderParams& p) {
  return p.layer == 3 ? MP3_WAVE_HEADER_BYTES : MPEG_WAVE_HEADER_BYTES;
}

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
};

// Opens the input through the WAVE reader, fills the rate and mode of params from it (mono input
// is always mode 3; mode 3 for a stereo input mixes both channels down) and the bit rate index
// from kbps (0: 192 kbit/s at 32-48 kHz, 96 at 16-24 kHz), checks them with encoder_init and
// creates the output. On failure nothing stays open and no output is left.
int32_t encode_open(EncodeJob& job, const char* input_path, const char* output_path, EncoderParams params, int32_t kbps,
                    bool wave_header);
// The frame loop to the end of input or to cancel, then the closing (the WAVE wrapper when asked).
// Frees the encoder state and closes both files. Returns ERR_OK, ERR_WRITE or WORK_CANCELLED.
int32_t run_encode_job(EncodeJob& job, const format::Work& work);

// Fills pcm with the next frame of the input (samples per channel of the job's layer), zero beyond
// the data. Returns the sample frames taken from the input, 0 at its end.
int32_t read_pcm_frame(EncodeJob& job, int16_t (*pcm)[FRAME_SAMPLES_L2]);

// Fills the wrapper of wave_header_bytes() for a stream of stream_bytes and frames frames.
void make_mpeg_wave_header(uint8_t* header, const EncoderState& s, int64_t stream_bytes, int64_t frames);

}  // namespace encoder
