// The job runner: one converter job (decode, resample, split, encode) on a thread of its own.
//
// A Job is owned by whoever starts it (the window, tovra-cli, a test). start_job refuses a job that
// is still busy, so one Job per front end means one converter at a time. Each job has its own
// Cancel word: pressing Cancel on one job never touches another. When the body returns, the runner
// removes the output of a failed job, and of a cancelled one unless "Leave" is set, then clears
// busy. The body posts its own progress messages (1046 up) as it goes.
//
// A batch body runs entry after entry on the one job. Between entries it hands over: it settles the
// ended entry's output (settle_output), points out_path at the next entry's output, and clears
// cancel when only that entry was cancelled; the runner settles the last one.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "format/errors.h"

namespace session {

// How a job ended; the body returns one.
enum JobEnd : int32_t { JOB_END_DONE = 0, JOB_END_CANCELLED = 1, JOB_END_FAILED = 2 };

struct Job;
// The work, on the job's thread. Returns a JobEnd and may leave its own result in job.code.
using JobBody = int32_t (*)(Job& job);

struct Job {
  std::thread thread;
  std::atomic<int32_t> busy{0};    // 1 from a successful start until the output is settled
  std::atomic<int32_t> cancel{0};  // Cancel: any thread (a signal handler too) may set it
  std::atomic<int32_t> end{JOB_END_DONE};
  int32_t code = 0;         // the body's own result (a format::Error), read after the end
  std::string out_path;     // what to remove after a failed or cancelled end; the body may change it
  void* context = nullptr;  // the caller's state for the body

  Job() = default;
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  ~Job();  // cancels and waits for a job still running
};

// Starts body on the job's thread with out_path to settle at its end. Returns 0 or format::ERR_BUSY.
int32_t start_job(Job& job, JobBody body, const char* out_path);
// Waits until the job's thread has ended (at once when none runs).
void wait_job(Job& job);
// Removes the job's output after an end as the runner does at the end: for batches between
// entries.
void settle_output(const Job& job, int32_t end);

}  // namespace session
