#include "session/tool_jobs.h"

#include <array>
#include <cstdio>

#include "session/messages.h"
#include "session/platform.h"
#include "session/session.h"
#include "tools/resample.h"
#include "tools/split.h"
#include "tools/wave.h"

namespace session {

namespace {

// The converters raise their thread on the 9x family only.
void raise_priority() {
  if (options.prior_cnv && !is_not_win9x()) set_current_thread_priority(PRIORITY_ABOVE_NORMAL);
}

format::Work work_of(Job& job, void (*progress)(void*, int64_t, int64_t)) { return {&job.cancel, progress, nullptr}; }

// ---- Split ---------------------------------------------------------------------------------------

// The files of the one split; its job's thread owns them while it runs.
struct SplitFiles {
  std::FILE* in = nullptr;
  std::FILE* out = nullptr;
  int64_t file_size = 0;
  int64_t bytes_read = 0;
} split;

void split_progress(void*, int64_t position, int64_t file_size) {
  post_message(WINDOW_PROGRESS, MSG_SPLIT_PROGRESS, position, file_size);
}

int32_t split_body(Job& job) {
  raise_priority();
  // The whole of a packet fits, whatever its length field says.
  std::array<uint8_t, tools::SPLIT_PACKET_BUFFER_BYTES> packet;
  int32_t result = tools::split_stream(split.in, split.out, split.file_size, split.bytes_read, packet.data(),
                                       work_of(job, split_progress));
  std::fclose(split.in);
  // An output that can't tell its position (a pipe) is taken to have received audio.
  if (result == format::ERR_OK && std::ftell(split.out) == 0) result = format::ERR_NO_AUDIO_FRAMES;
  // Buffered bytes go out at the close: a disk that fills there fails the job like a write.
  if (std::fclose(split.out) != 0 && result == format::ERR_OK) result = format::ERR_AUDIO_WRITE;
  split.in = split.out = nullptr;
  job.code = result;
  if (result == format::WORK_CANCELLED) return JOB_END_CANCELLED;
  post_message(WINDOW_PROGRESS, MSG_SPLIT_END, tools::split_end_code(result), split.bytes_read);
  return result == format::ERR_OK ? JOB_END_DONE : JOB_END_FAILED;
}

// ---- Resample ------------------------------------------------------------------------------------

int32_t resample_index = 0;  // the batch entry being worked on

void resample_progress(void*, int64_t done, int64_t total) {
  post_message(WINDOW_PROGRESS, MSG_RESAMPLE_PROGRESS, done, total);
}

// Finds the batch list's next entry that can be set up. False when the list is exhausted.
bool next_batch_entry(Job& job) {
  for (;;) {
    ++resample_index;
    std::string in, out;
    int32_t rate = 0, bits = 0, channels = 0, quality = 0;
    if (next_resample_job(in, out, rate, bits, channels, quality, resample_index) == 0) return false;
    if (!tools::same_file(in.c_str(), out.c_str()) &&
        tools::resample_setup(in.c_str(), out.c_str(), rate, bits, channels, quality) == format::ERR_OK) {
      job.out_path = out;
      return true;
    }
    post_message(WINDOW_BATCH, MSG_BATCH_RESAMPLE_STATE, JOB_NOT_READABLE, resample_index);
  }
}

int32_t resample_body(Job& job) {
  // The raise is for the 9x family only, as with the other converters; the classic call that
  // named the main window instead of a thread changed nothing and is left out.
  raise_priority();
  const bool in_batch = batch_active();
  const bool nt_family = is_not_win9x();  // its converters give the system a moment now and then
  int32_t job_end = JOB_END_DONE;
  for (;;) {
    if (in_batch) post_message(WINDOW_BATCH, MSG_BATCH_RESAMPLE_STATE, JOB_STARTED, resample_index);
    int64_t frames = 0;
    int32_t result = tools::resample_run(work_of(job, resample_progress), nt_family, frames);
    if (result == format::WORK_CANCELLED) {
      tools::close_wave_output();
      tools::close_wave_input();
      job_end = JOB_END_CANCELLED;
      if (in_batch) {
        post_message(WINDOW_BATCH, MSG_BATCH_RESAMPLE_STATE, JOB_CANCELLED, resample_index);
        post_message(WINDOW_BATCH, MSG_BATCH_RESAMPLE_STATE, JOB_LIST_FINISHED, resample_index);
      }
      break;
    }
    if (result == format::ERR_OK) post_message(WINDOW_PROGRESS, MSG_RESAMPLE_PROGRESS, frames, tools::resample.total);
    // The output is closed before the result goes out, so that a failure of the last flush is
    // the result the user sees rather than a success. After a failed write this second close
    // finds the file closed already.
    int32_t closed = tools::close_wave_output();
    if (result == format::ERR_OK) result = closed;
    tools::close_wave_input();
    post_message(WINDOW_PROGRESS, MSG_PROGRESS_STATUS, result, 0);
    job.code = result;
    job_end = result == format::ERR_OK ? JOB_END_DONE : JOB_END_FAILED;
    if (!in_batch) break;
    post_message(WINDOW_BATCH, MSG_BATCH_RESAMPLE_STATE, result == format::ERR_OK ? JOB_DONE : JOB_FAILED,
                 resample_index);
    settle_output(job, job_end);
    if (!next_batch_entry(job)) {
      post_message(WINDOW_BATCH, MSG_BATCH_RESAMPLE_STATE, JOB_LIST_FINISHED, resample_index);
      break;
    }
  }
  post_message(WINDOW_PROGRESS, MSG_PROGRESS_END);
  return job_end;
}

// ---- Encode --------------------------------------------------------------------------------------

void encode_progress(void*, int64_t left, int64_t total) {
  post_message(WINDOW_PROGRESS, MSG_PROGRESS_ENCODE, left, total);
}

int32_t encode_body(Job& job) {
  int32_t result =
      encoder::run_encode_job(*static_cast<encoder::EncodeJob*>(job.context), work_of(job, encode_progress));
  if (result == format::WORK_CANCELLED) return JOB_END_CANCELLED;
  if (result != format::ERR_OK) return JOB_END_FAILED;
  post_message(WINDOW_PROGRESS, MSG_PROGRESS_STATUS, 0, 0);
  post_message(WINDOW_PROGRESS, MSG_PROGRESS_END);
  return JOB_END_DONE;
}

// The checks of every start: a running job, and an output that is the input.
int32_t refuse(Job& job, const char* input_path, const char* output_path) {
  if (job.busy.load(std::memory_order_acquire)) return format::ERR_BUSY;
  if (tools::same_file(input_path, output_path)) return format::ERR_SAME_FILE;
  wait_job(job);  // a finished job's thread still holds its files until joined
  return format::ERR_OK;
}

}  // namespace

int32_t start_split(Job& job, const char* input_path, const char* output_path) {
  if (int32_t code = refuse(job, input_path, output_path)) return code;
  split.in = std::fopen(input_path, "rb");
  if (!split.in) return format::ERR_OPEN_INPUT;
  split.out = std::fopen(output_path, "wb");
  if (!split.out) {
    std::fclose(split.in);
    split.in = nullptr;
    return format::ERR_OPEN_OUTPUT;
  }
  // The size is for the progress bar only; an input that cannot seek (a pipe) shows none.
  split.file_size = 0;
  if (std::fseek(split.in, 0, SEEK_END) == 0) {
    long size = std::ftell(split.in);
    split.file_size = size > 0 ? size : 0;
    if (std::fseek(split.in, 0, SEEK_SET) != 0) split.file_size = 0;
  }
  split.bytes_read = 0;
  start_job(job, split_body, output_path);
  return format::ERR_OK;
}

int32_t start_resample(Job& job, const char* input_path, const char* output_path, int32_t rate, int32_t bits,
                       int32_t channels, int32_t quality) {
  if (int32_t code = refuse(job, input_path, output_path)) return code;
  int32_t code = tools::resample_setup(input_path, output_path, rate, bits, channels, quality);
  if (code != format::ERR_OK) return code;
  resample_index = batch_first_index();
  start_job(job, resample_body, output_path);
  return format::ERR_OK;
}

int32_t start_encode(Job& job, encoder::EncodeJob& enc, const char* input_path, const char* output_path,
                     encoder::EncoderParams params, int32_t kbps, bool wave_header) {
  if (int32_t code = refuse(job, input_path, output_path)) return code;
  int32_t code = encoder::encode_open(enc, input_path, output_path, params, kbps, wave_header);
  if (code != format::ERR_OK) return code;
  job.context = &enc;
  start_job(job, encode_body, output_path);
  return format::ERR_OK;
}

}  // namespace session
