// Decode sessions: the state that the play session and the file job share, and the file job.
//
// There is one session at a time: the play thread or the file-job thread, never both. Its state is
// process-wide. Words that the main thread, the session thread and the wave thread share without a
// lock are std::atomic with relaxed loads and stores; each has one writer per purpose, and the
// polling sleeps around them carry the ordering that the program relies on.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "decoder/state.h"
#include "format/errors.h"
#include "library/settings.h"
#include "session/frame_reader.h"
#include "session/job.h"

namespace session {

// The user's output choices live with the settings that load and save them (library/settings.h).
using library::OutputOptions;

// The RIFF LIST INFO items that open_stream records, by slot.
constexpr int32_t LIST_INFO_SLOTS = 9;

// Facts of the one open stream, valid from a successful open_stream until the next.
struct StreamInfo {
  int32_t data_start = 0;
  int32_t data_end = 0;
  int32_t file_size = 0;
  int32_t data_size = 0;
  int32_t frame_bytes = 0;
  int32_t frame_count = 0;
  int32_t bitrate_kbps = 0;
  int32_t play_seconds = 0;
  int32_t sample_rate = 0;
  int32_t sample_rate_khz = 0;
  int32_t mpeg_id = -1;  // -1 while a stream is being opened
  int32_t layer = 0;     // 1, 2 or 3
  int32_t mode = 0;
  int32_t mode_ext = 0;
  int32_t protection = 0;
  int32_t private_bit = 0;
  int32_t copyright = 0;
  int32_t original = 0;
  int32_t emphasis_mode = 0;  // stream's (or forced) emphasis, plus 4 with "Hi-Fi"
  uint8_t tag_buffer[128] = {};
  int32_t list_info[LIST_INFO_SLOTS][2] = {};  // absolute offset, size
  // What the frames tell beyond the first header (stream.h): the Xing/Info or VBRI frame (which is
  // no audio: data_start stands behind it), the encoder's delay and padding, the measured length.
  int32_t id3v2_start = -1;  // offset of the leading ID3v2 tag, -1 none
  int32_t vbr_kind = 0;      // VbrKind
  int32_t free_format = 0;   // the first frame is of free format
  int32_t encoder_delay = -1;
  int32_t encoder_padding = -1;
  int64_t total_samples = 0;  // per channel, delay and padding taken off when known
  double total_seconds = 0;
  // File offset of each percent of the frames, for seeking; seek_points[100] 0 while none.
  int32_t seek_points[101] = {};
};

enum DecoderCommand : int32_t { CMD_RUN = 0, CMD_STOP = 1, CMD_JUMP = 2, CMD_FORWARD = 3, CMD_BACK = 4 };

// One synthesis variant per track.
using decoder::SynthFn;
// One shaper per track: moves a finished block of PCM (decoder::BLOCK_SAMPLES values) onwards.
using ShaperFn = void (*)(const int16_t* block);

using Word = std::atomic<int32_t>;

// The running session: the words it shares with the other threads and what it chose for the track.
struct SessionState {
  // Shared between threads (main thread writes commands, session thread acts on them).
  Word decoder_command{CMD_STOP};
  Word seek_target{0};
  Word decoder_running{0};
  Word paused{0};
  Word file_job_active{0};
  Word file_job_idle{1};
  Word damaged_flag{0};
  Word play_requested{0};
  Word write_failed{0};

  // Owned by the session thread while one runs, by the main thread otherwise.
  ShaperFn shaper_slot = nullptr;
  int32_t rate_shift = 0;
  int32_t session_stereo = 1;
  int32_t session_16bit = 1;
  int32_t session_emphasis = 1;
  int32_t session_alias = 1;  // copied per track, read by nothing
  int32_t session_hi_fi = 0;  // copied per track, read by nothing

  std::FILE* out_file = nullptr;
  // The running file job, whose Cancel the frame loops read; set before its thread starts.
  Job* file_job = nullptr;
  FrameHeader last_header{};
};

using library::options;
extern StreamInfo stream;  // the session thread's own; other threads read published_stream()
extern SessionState state;
// The session's decoder: its synthesis variant is chosen per track, its channels are those of the
// blocks it gives.
extern decoder::DecoderState decoding;

// The open stream's facts for other threads: the thread that opened a stream publishes a copy of
// it whole; published_stream returns that copy, taken whole under a lock, never half of one track
// and half of the next.
void publish_stream();
StreamInfo published_stream();

// Clears the frame reader and the decoder's state, as both start operations do.
void reset_decoding();
// Decodes the frame whose header read_frame just found: reads its bytes, decodes them and hands
// each finished block to the shaper. Returns the decoder's code.
int32_t decode_next_frame(const FrameHeader& header);
// The end of a Layer I stream: the slots still waiting go to pcm as one block (flush_layer1).
// Returns the block's frames of decoded sound, 0 for none.
int32_t flush_decoding(int16_t* pcm);

// Starts a file job on job converting in_path to out_path in options.ext_filter's format.
// Returns format::ERR_OK, format::ERR_BUSY, format::ERR_OPEN_INPUT, format::ERR_STREAM_REFUSED, format::ERR_OPEN_OUTPUT
// or format::ERR_SAME_FILE (checked in that order after busy and same file); a refused start creates and touches no
// output file. The job ends failed (and its output is removed) after a decode error, a write error or when no frame at
// all was decoded.
int32_t start_decode_file(Job& job, const char* in_path, const char* out_path);

// Hooks of the batch worker (session/batch_run.cpp). Fetches row index's paths and format; returns
// -1 for nothing to do, a value outside 0-4 when the list is exhausted, else the job's ext_filter.
int32_t batch_fetch_job(int32_t index, std::string& in_path, std::string& out_path);
bool batch_active();
// The row of a batch's first job (0 outside a batch).
int32_t batch_first_index();

}  // namespace session
