// The batch worker: converts the rows of a batch list one after another on the job runner, or up
// to jobs rows at once, each in a child process forked from the worker.
//
// In one process the worker starts a row's conversion and the conversion's own thread hands over to
// the next rows (batch_fetch_job, next_resample_job); the encoder has no hand-over and the worker
// starts each row. The decode session and the resampler are process-wide, so running several rows
// at once takes child processes; each runs its row as the single command would (its exit status
// too), so that the outputs are those of the single commands byte for byte.
//
// Threads: start_batch on the front end's main thread; the worker on its own Job. Rows are read
// under run.lock; status changes come to the front end as MSG_BATCH_JOB_STATE (state, row) on
// WINDOW_BATCH, which it applies with apply_batch_state on its own thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "encoder/job.h"
#include "library/batch.h"
#include "session/job.h"

namespace session {

struct BatchRun {
  library::BatchList* list = nullptr;
  int32_t jobs = 1;     // rows at once; more than 1 runs each row in a child process
  std::mutex lock;      // guards the rows while the worker reads them
  int32_t base = 0;     // row of the in-process conversion's first entry
  int32_t reached = 0;  // last row that the conversion took up
  std::atomic<int32_t> cancel_all{0};
  Job worker;
  Job job;  // the in-process conversion
  encoder::EncodeJob enc;
  std::vector<pid_t> children;          // by row, 0 when none runs
  std::vector<int32_t> cancelled_rows;  // rows cancelled before their start
};

// An encode row's choices as its job takes them: the parameters (rate and mode letter, layer, model,
// emphasis, flags), the bit rate in kbit/s and the WAVE wrapper.
encoder::EncoderParams batch_encode_params(const library::BatchEntry& e, int32_t& kbps, bool& wave_header);

// Starts the worker over all rows of run.list. Returns 0, or format::ERR_BUSY while a batch runs.
int32_t start_batch(BatchRun& run);
// Cancels one row: the running one stops ("-break-"), the rest go on. A row not yet started is
// passed over.
void cancel_batch_row(BatchRun& run, int32_t row);
// Cancels the running rows and every row after them.
void cancel_batch(BatchRun& run);
// Applies a MSG_BATCH_JOB_STATE or MSG_BATCH_RESAMPLE_STATE to the list; returns the row it
// changed, or -1. Only the front end writes the status, one call at a time: a sink that runs on the
// posting threads serialises its calls. It takes no lock, since the worker posts with run.lock held.
int32_t apply_batch_state(BatchRun& run, int32_t state, int64_t row);

}  // namespace session
