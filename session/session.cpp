// The file job: decodes one file, or the jobs of a batch list one after another, into PCM files
// through the writers, as the body of a Job.
//
// Threads: start_decode_file runs on the main thread while no job exists; the job's thread owns the
// input file, the output file and the decoder state until it ends. The main thread stops it only
// through the job's Cancel word, which the job reads once a frame.
#include "session/session.h"

#include <cstdio>
#include <mutex>
#include <thread>

#include "decoder/decoder.h"
#include "decoder/synth.h"
#include "output/wave.h"
#include "session/messages.h"
#include "session/platform.h"
#include "session/stream.h"
#include "session/writers.h"
#include "tools/wave.h"

namespace session {

StreamInfo stream;
SessionState state;
decoder::DecoderState decoding;

namespace {

std::mutex published_lock;
StreamInfo published;

constexpr int32_t PROGRESS_INTERVAL = 10;  // frames between progress messages
// The progress rate is the MPEG-1 row by sampling index, for MPEG-2 streams too.
constexpr int32_t progress_rate[3] = {44100, 48000, 32000};

constexpr auto relaxed = std::memory_order_relaxed;

enum Outcome { OUTCOME_DONE, OUTCOME_CANCELLED, OUTCOME_FATAL };

using output::sleep_ms;

// The job's files go through large buffers. The file system's cost of a write is mostly per call
// and per cached page, and large writes let it cache the file in large pieces: writing a decoded
// file in 256 KiB steps instead of the stream's default 4 KiB ones takes about a third of the
// system time. The input is read in 64 KiB steps. One job runs at a time, and close_files gives
// the buffers back before the next job opens its files.
alignas(4096) char out_buffer[1 << 18];
alignas(4096) char in_buffer[1 << 16];

std::FILE* open_input(const char* path) {
  std::FILE* f = std::fopen(path, "rb");
  if (f) std::setvbuf(f, in_buffer, _IOFBF, sizeof in_buffer);
  return f;
}

std::FILE* open_output(const char* path) {
  std::FILE* f = std::fopen(path, "w+b");
  if (f) std::setvbuf(f, out_buffer, _IOFBF, sizeof out_buffer);
  return f;
}

void close_files() {
  // Buffered bytes go out at the close: a disk that fills there fails the job like a write.
  if (state.out_file && std::fclose(state.out_file) != 0) state.write_failed.store(1, relaxed);
  state.out_file = nullptr;
  if (reader.file) std::fclose(reader.file);
  reader.file = nullptr;
}

// Messages of the running job go to the batch list if one exists, else to the progress window.
void report_progress(int32_t frames, int32_t sampling_index) {
  post_message(WINDOW_PROGRESS, MSG_PROGRESS_FRAMES, frames, progress_rate[sampling_index % 3]);
}

// The end of a job's stream: the Layer I slots still waiting, then the output format's header.
void finish_stream(const FrameHeader& header) {
  int16_t pcm[decoder::BLOCK_SAMPLES];
  if (int32_t tail = flush_decoding(pcm)) write_decoded_frames(pcm, tail);
  if (state.file_job_active.load(relaxed) && options.ext_filter >= EXT_WAV && options.ext_filter <= EXT_VOC)
    finish_header(options.ext_filter, header);
}

// Walks one job's frames. Returns the outcome; frames and the last header are left for the reports.
Outcome decode_frames(Job& job, int32_t& frames) {
  FrameHeader& header = state.last_header;
  for (;;) {
    int32_t code = read_frame(header);
    if (!frame_found(code)) {
      // The end of the file, or a reader failure, which looks like one: no frame skipping in a
      // file job.
      finish_stream(header);
      return OUTCOME_DONE;
    }
    if (job.cancel.load(relaxed)) return OUTCOME_CANCELLED;
    const int32_t decoded = decode_next_frame(header);
    if (decoded == decoder::LAYER1_CRC_MISMATCH) {
      // A protected Layer I frame with a wrong CRC ends the track; what was decoded before it
      // stays a complete file.
      finish_stream(header);
      state.decoder_command.store(CMD_STOP, relaxed);
      return OUTCOME_DONE;
    }
    if (decoded != decoder::DECODE_OK) return OUTCOME_FATAL;
    // On NT the job yields to the system every 64 frames.
    if (platform_family() == PLATFORM_NT && frames % 64 == 0) sleep_ms(10);
    ++frames;
    if (frames % PROGRESS_INTERVAL == 0) report_progress(frames, header.sampling_index);
  }
}

// The runner removes the output of a job that did not end done once this returns.
int32_t end_thread(Job& job, int32_t end) {
  state.file_job_idle.store(1, relaxed);
  state.file_job_active.store(0, relaxed);
  state.decoder_command.store(CMD_STOP, relaxed);
  if (end == JOB_END_DONE && state.write_failed.load(relaxed)) {
    job.code = format::ERR_WRITE;
    end = JOB_END_FAILED;
  }
  return end;
}

void fatal_decode_error(bool in_batch, int32_t job_index) {
  message_box(format::ERR_DECODE_ABORTED);
  post_message(WINDOW_PROGRESS, MSG_PROGRESS_END);
  if (in_batch) {
    post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, JOB_FAILED, job_index);
    post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, JOB_LIST_FINISHED, job_index);
  }
  close_files();
}

int32_t decode_file_thread(Job& job) {
  state.file_job_idle.store(0, relaxed);
  state.file_job_active.store(1, relaxed);
  if (options.prior_cnv && platform_family() != PLATFORM_NT) set_current_thread_priority(PRIORITY_ABOVE_NORMAL);

  const bool in_batch = batch_active();
  int32_t job_index = batch_first_index();
  int32_t frames = 0;
  int32_t sampling_index = 0;
  for (;;) {
    decoder::reset_synth_indices(decoding);
    decoding.synth = stream.mode == 3 ? decoder::synth_mono : decoder::synth_full;
    reserve_header(options.ext_filter);
    if (in_batch) post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, JOB_STARTED, job_index);

    frames = 0;
    const Outcome outcome = decode_frames(job, frames);
    sampling_index = state.last_header.sampling_index;
    if (outcome == OUTCOME_FATAL) {
      fatal_decode_error(in_batch, job_index);
      job.code = format::ERR_DECODE_ABORTED;
      return end_thread(job, JOB_END_FAILED);
    }
    if (outcome == OUTCOME_DONE && frames == 0) {
      // Headers that looked like a stream and not one frame behind them: no audio, no file.
      job.code = format::ERR_NOT_MPEG;
      if (!in_batch) {
        post_message(WINDOW_PROGRESS, MSG_PROGRESS_END);
        close_files();
        return end_thread(job, JOB_END_FAILED);
      }
    }

    close_files();  // the buffered end is written before anyone hears that the row is done
    if (in_batch) {
      post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, outcome == OUTCOME_DONE ? JOB_DONE : JOB_CANCELLED, job_index);
    } else {
      if (outcome == OUTCOME_DONE) report_progress(frames, sampling_index);
      post_message(WINDOW_PROGRESS, MSG_PROGRESS_END);
    }
    if (!in_batch) break;

    // Next job of the batch list: -1 means nothing to do at that index, a value outside 0-4 that
    // the list is exhausted.
    bool more = false;
    std::string in_path, out_path;
    for (;;) {
      ++job_index;
      int32_t format = batch_fetch_job(job_index, in_path, out_path);
      if (format == -1) continue;
      if (format < 0 || format > 4) break;
      if (tools::same_file(in_path.c_str(), out_path.c_str())) {
        post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, JOB_NOT_READABLE, job_index);
        continue;
      }
      options.ext_filter = format;
      reader.file = open_input(in_path.c_str());
      if (reader.file) {
        reset_decoding();
        if (open_stream() == STREAM_OK) {
          publish_stream();
          more = true;
          break;
        }
        std::fclose(reader.file);
        reader.file = nullptr;
      }
      post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, JOB_NOT_READABLE, job_index);
    }
    if (more) {
      state.out_file = open_output(out_path.c_str());
      if (!state.out_file) {
        close_files();
        message_box(format::ERR_CREATE_OUTPUT);
        more = false;
      }
    }
    if (!more) {
      report_progress(frames, sampling_index);
      post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, JOB_LIST_FINISHED, job_index);
      post_message(WINDOW_PROGRESS, MSG_PROGRESS_END);
      break;
    }
    state.damaged_flag.store(0, relaxed);
    if (job.cancel.load(relaxed)) {
      // Cancel was pressed on the job just ended: drop its output, wait for the progress window to
      // close, and let the rest of the list go on.
      settle_output(job, JOB_END_CANCELLED);
      while (window_open(WINDOW_PROGRESS)) sleep_ms(20);
      send_message(WINDOW_BATCH, MSG_BATCH_PROGRESS_GONE);
      job.cancel.store(0, relaxed);
    } else {
      post_message(WINDOW_PROGRESS, MSG_PROGRESS_NEXT);
    }
    job.out_path = out_path;
  }
  return end_thread(job, job.cancel.load(relaxed) ? JOB_END_CANCELLED : JOB_END_DONE);
}

}  // namespace

void publish_stream() {
  std::lock_guard<std::mutex> lock(published_lock);
  published = stream;
}

StreamInfo published_stream() {
  std::lock_guard<std::mutex> lock(published_lock);
  return published;
}

void reset_decoding() {
  reset_frame_reader();
  decoder::reset_decoder_state(decoding);
}

namespace {

// Emphasis and Hi-Fi as the track's settings have them: the user's "Emphasis" off leaves the
// samples alone.
void prepare_decoding() { decoding.emphasis_mode = state.session_emphasis ? stream.emphasis_mode : 0; }

}  // namespace

int32_t decode_next_frame(const FrameHeader& header) {
  static decoder::PcmBlocks out;  // one session decodes at a time
  const int32_t wanted = decoder::body_bytes_wanted(header, frame_length(header));
  const int32_t got = read_frame_body(wanted);
  prepare_decoding();
  const int32_t code = decoder::decode_frame(decoding, header, {reader.body, got, wanted}, out);
  if (decoding.damaged) {
    state.damaged_flag.store(1, relaxed);
    decoding.damaged = 0;
  }
  if (state.shaper_slot)
    for (int32_t b = 0; b < out.count; ++b) state.shaper_slot(out.block[b]);
  return code;
}

int32_t flush_decoding(int16_t* pcm) {
  prepare_decoding();
  return decoder::flush_layer1(decoding, pcm);
}

int32_t start_decode_file(Job& job, const char* in_path, const char* out_path) {
  if (job.busy.load(std::memory_order_acquire)) return format::ERR_BUSY;
  if (tools::same_file(in_path, out_path)) return format::ERR_SAME_FILE;
  wait_job(job);  // a finished job's thread still owns the files until it is joined
  reader.file = open_input(in_path);
  if (!reader.file) return format::ERR_OPEN_INPUT;
  reset_decoding();
  // The input is known to be MPEG audio before the output is created: a file already standing at
  // out_path is not emptied for an input that turns out to be something else.
  if (open_stream() != STREAM_OK) {
    close_files();
    return format::ERR_STREAM_REFUSED;
  }
  state.out_file = open_output(out_path);
  if (!state.out_file) {
    close_files();
    return format::ERR_OPEN_OUTPUT;
  }
  publish_stream();
  decoding.channels = 0;
  state.damaged_flag.store(0, relaxed);
  state.decoder_command.store(CMD_RUN, relaxed);
  state.paused.store(0, relaxed);
  state.shaper_slot = write_decoded_block;
  state.write_failed.store(0, relaxed);
  state.file_job = &job;
  // Marked busy before the thread runs, so that a play start is refused at once.
  state.file_job_idle.store(0, relaxed);
  start_job(job, decode_file_thread, out_path);
  return format::ERR_OK;
}

}  // namespace session
