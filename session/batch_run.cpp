// The batch worker and the hand-over hooks of the conversion threads.
#include "session/batch_run.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "session/messages.h"
#include "session/session.h"
#include "session/tool_jobs.h"
#include "tools/resample.h"

namespace session {

namespace {

using library::BatchEntry;
constexpr auto relaxed = std::memory_order_relaxed;

// The run whose rows the in-process conversion thread fetches; null outside a batch.
std::atomic<BatchRun*> active_run{nullptr};

// The worker's poll of its jobs and children. A row of a short file takes a few tens of
// milliseconds, so a longer nap would leave the processors idle for a good part of a batch.
void nap() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void post_state(int32_t state, int32_t row) { post_message(WINDOW_BATCH, MSG_BATCH_JOB_STATE, state, row); }

// The worker's own state beside batch_job_state: the source doesn't exist.
constexpr int32_t JOB_NOT_FOUND = JOB_NOT_READABLE + 100;

// A row the worker may start: not cancelled beforehand, its source present. Posts the state of a
// row passed over. Called with run.lock held.
bool row_ready(BatchRun& run, int32_t row) {
  if (run.cancel_all.load(relaxed)) return false;
  if (std::find(run.cancelled_rows.begin(), run.cancelled_rows.end(), row) != run.cancelled_rows.end()) {
    post_state(JOB_CANCELLED, row);
    return false;
  }
  if (!exists(run.list->entries[row].source)) {
    post_state(JOB_NOT_FOUND, row);
    return false;
  }
  return true;
}

}  // namespace

encoder::EncoderParams batch_encode_params(const BatchEntry& e, int32_t& kbps, bool& wave_header) {
  encoder::EncoderParams p;
  p.layer = std::atoi(e.fields[1].c_str());
  kbps = std::atoi(e.fields[2].c_str());
  p.psy_model = std::atoi(e.fields[3].c_str());
  p.emphasis = e.fields[4] == "50/15ms" ? 1 : e.fields[4] == "Reserved" ? 2 : 0;
  char letter = e.fields[0].empty() ? 's' : e.fields[0].back();
  p.mode = letter == 'm' ? 3 : letter == 's' ? 0 : 1;
  const std::string& f = e.fields[5];
  auto on = [&](size_t i) { return int32_t(i < f.size() && f[i] != '-'); };
  p.extension = on(0);
  p.error_protection = on(1);
  p.copyright = on(2);
  p.original = on(3);
  wave_header = on(4);
  return p;
}

namespace {

// One in-process conversion from row on; returns the last row it took.
int32_t run_in_process(BatchRun& run, int32_t row) {
  const int32_t mode = run.list->mode;
  int32_t started = -1;
  {
    std::lock_guard<std::mutex> hold(run.lock);
    const BatchEntry& e = run.list->entries[row];
    run.base = row;
    run.reached = row;
    if (mode == library::BATCH_DECODE) {
      options.ext_filter = library::batch_decode_format(e);
      active_run.store(&run);
      started = start_decode_file(run.job, e.source.c_str(), e.target.c_str());
    } else if (mode == library::BATCH_RESAMPLE) {
      int32_t rate, bits, channels, quality;
      library::batch_resample_params(e, rate, bits, channels, quality);
      active_run.store(&run);
      started = session::start_resample(run.job, e.source.c_str(), e.target.c_str(), rate, bits, channels, quality);
    } else {
      int32_t kbps = 0;
      bool wave_header = false;
      encoder::EncoderParams p = batch_encode_params(e, kbps, wave_header);
      started = session::start_encode(run.job, run.enc, e.source.c_str(), e.target.c_str(), p, kbps, wave_header);
      if (started == format::ERR_NOT_WAVE || started == format::ERR_BAD_WAVE) message_box(started);
      if (started == 0) post_state(JOB_STARTED, row);
    }
  }
  if (started != 0) {
    active_run.store(nullptr);
    post_state(JOB_NOT_READABLE, row);
    return row;
  }
  while (run.job.busy.load(std::memory_order_acquire)) {
    if (run.cancel_all.load(relaxed)) run.job.cancel.store(1, relaxed);
    nap();
  }
  wait_job(run.job);
  active_run.store(nullptr);
  if (mode == library::BATCH_ENCODE) {
    int32_t end = run.job.end.load(relaxed);
    post_state(end == JOB_END_DONE ? JOB_DONE : end == JOB_END_CANCELLED ? JOB_CANCELLED : JOB_FAILED, row);
  }
  std::lock_guard<std::mutex> hold(run.lock);
  return run.reached;
}

// The job of a forked row, for its Ctrl+C or the worker's SIGINT.
std::atomic<Job*> child_job{nullptr};
static_assert(std::atomic<Job*>::is_always_lock_free);

void on_child_interrupt(int) {
  if (Job* job = child_job.load(relaxed)) job->cancel.store(1, relaxed);
}

// The body of a forked row: the single conversion, as its own command runs it, and the exit status
// of that command. The child touches nothing that another thread of the parent may have held at the
// fork (run.lock, the front end's sink): its messages go nowhere, and it ends by _exit.
[[noreturn]] void convert_forked_row(int32_t mode, const BatchEntry& e) {
  set_sink({});
  for (int32_t w = 0; w < WINDOW_COUNT; ++w) set_window_open(w, false);
  active_run.store(nullptr);
  static Job job;
  static encoder::EncodeJob enc;
  child_job.store(&job);
  signal(SIGINT, on_child_interrupt);
  int32_t started;
  if (mode == library::BATCH_DECODE) {
    options.ext_filter = library::batch_decode_format(e);
    started = start_decode_file(job, e.source.c_str(), e.target.c_str());
  } else if (mode == library::BATCH_RESAMPLE) {
    int32_t rate, bits, channels, quality;
    library::batch_resample_params(e, rate, bits, channels, quality);
    started = session::start_resample(job, e.source.c_str(), e.target.c_str(), rate, bits, channels, quality);
  } else {
    int32_t kbps = 0;
    bool wave_header = false;
    encoder::EncoderParams p = batch_encode_params(e, kbps, wave_header);
    started = session::start_encode(job, enc, e.source.c_str(), e.target.c_str(), p, kbps, wave_header);
  }
  if (started != 0) _exit(1);
  wait_job(job);
  int32_t end = job.end.load(relaxed);
  _exit(end == JOB_END_DONE ? 0 : end == JOB_END_CANCELLED ? 130 : 1);
}

// Forks a child for the row; 0 when the system refuses. The tables are built already, so a child
// starts at once, where an exec would load and set up the program again for every row.
pid_t spawn_row(BatchRun& run, int32_t row) {
  pid_t pid = fork();
  if (pid == 0) convert_forked_row(run.list->mode, run.list->entries[row]);
  return pid > 0 ? pid : 0;
}

void run_children(BatchRun& run) {
  const int32_t rows = int32_t(run.list->entries.size());
  int32_t next = 0, running = 0;
  while (next < rows || running > 0) {
    {
      std::lock_guard<std::mutex> hold(run.lock);
      while (running < run.jobs && next < rows) {
        int32_t row = next++;
        if (!row_ready(run, row)) continue;
        pid_t pid = spawn_row(run, row);
        if (pid == 0) {
          post_state(JOB_FAILED, row);
          continue;
        }
        run.children[row] = pid;
        ++running;
        post_state(JOB_STARTED, row);
      }
    }
    nap();
    std::lock_guard<std::mutex> hold(run.lock);
    for (int32_t row = 0; row < rows; ++row) {
      pid_t pid = run.children[row];
      if (pid == 0) continue;
      if (run.cancel_all.load(relaxed)) kill(pid, SIGINT);
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) != pid) continue;
      run.children[row] = 0;
      --running;
      bool done = WIFEXITED(status) && WEXITSTATUS(status) == 0;
      bool cancelled = (WIFEXITED(status) && WEXITSTATUS(status) == 130) || WIFSIGNALED(status);
      post_state(done ? JOB_DONE : cancelled ? JOB_CANCELLED : JOB_FAILED, row);
    }
  }
}

int32_t worker(Job& job) {
  BatchRun& run = *static_cast<BatchRun*>(job.context);
  const int32_t rows = int32_t(run.list->entries.size());
  if (run.jobs > 1) {
    run_children(run);
  } else {
    for (int32_t row = 0; row < rows; ++row) {
      {
        std::lock_guard<std::mutex> hold(run.lock);
        if (!row_ready(run, row)) continue;
      }
      row = run_in_process(run, row);
    }
  }
  post_state(JOB_LIST_FINISHED, rows);
  return run.cancel_all.load(relaxed) ? JOB_END_CANCELLED : JOB_END_DONE;
}

}  // namespace

int32_t start_batch(BatchRun& run) {
  if (run.worker.busy.load(std::memory_order_acquire)) return format::ERR_BUSY;
  wait_job(run.worker);
  run.cancel_all.store(0, relaxed);
  run.cancelled_rows.clear();
  run.children.assign(run.list->entries.size(), 0);
  run.jobs = std::max(1, run.jobs);
  for (BatchEntry& e : run.list->entries) e.status = library::STATUS_NONE;
  run.worker.context = &run;
  return start_job(run.worker, worker, nullptr);
}

void cancel_batch_row(BatchRun& run, int32_t row) {
  std::lock_guard<std::mutex> hold(run.lock);
  if (row < 0 || row >= int32_t(run.children.size())) return;
  if (run.children[row] != 0) {
    kill(run.children[row], SIGINT);
  } else if (run.jobs == 1 && run.job.busy.load(std::memory_order_acquire) && run.reached == row) {
    run.job.cancel.store(1, relaxed);
  } else {
    run.cancelled_rows.push_back(row);
  }
}

void cancel_batch(BatchRun& run) { run.cancel_all.store(1, relaxed); }

int32_t apply_batch_state(BatchRun& run, int32_t state, int64_t row) {
  if (row < 0 || row >= int64_t(run.list->entries.size())) return -1;
  // By batch_job_state, JOB_STARTED to JOB_FAILED.
  constexpr int32_t status_of[] = {library::STATUS_RUNNING, library::STATUS_DONE, library::STATUS_BREAK,
                                   library::STATUS_SKIP, library::STATUS_ERROR};
  int32_t& status = run.list->entries[row].status;
  if (state == JOB_NOT_FOUND) {
    status = library::STATUS_NOT_FOUND;
  } else if (state == JOB_NOT_READABLE) {
    // A row passed over as missing or cancelled keeps that status when the conversion skips it too.
    if (status != library::STATUS_NOT_FOUND && status != library::STATUS_BREAK) status = library::STATUS_SKIP;
  } else if (state >= JOB_STARTED && state <= JOB_FAILED) {
    status = status_of[state];
  } else {
    return -1;
  }
  return int32_t(row);
}

// The hooks of the conversion threads.

bool batch_active() { return active_run.load() != nullptr; }

int32_t batch_first_index() {
  BatchRun* run = active_run.load();
  return run ? run->base : 0;
}

int32_t batch_fetch_job(int32_t index, std::string& in_path, std::string& out_path) {
  BatchRun* run = active_run.load();
  if (!run) return -2;
  std::lock_guard<std::mutex> hold(run->lock);
  if (index >= int32_t(run->list->entries.size()) || run->cancel_all.load(relaxed)) return -2;
  run->reached = index;
  if (!row_ready(*run, index)) return -1;
  const BatchEntry& e = run->list->entries[index];
  if (e.source.rfind("http://", 0) == 0 || e.source.rfind("mms://", 0) == 0) {
    post_state(JOB_NOT_READABLE, index);
    return -1;
  }
  in_path = e.source;
  out_path = e.target;
  return library::batch_decode_format(e);
}

int32_t next_resample_job(std::string& in, std::string& out, int32_t& rate, int32_t& bits, int32_t& channels,
                          int32_t& quality, int32_t row) {
  BatchRun* run = active_run.load();
  if (!run) return 0;
  std::lock_guard<std::mutex> hold(run->lock);
  if (row >= int32_t(run->list->entries.size()) || run->cancel_all.load(std::memory_order_relaxed)) return 0;
  run->reached = row;
  const library::BatchEntry& e = run->list->entries[row];
  in = e.source;
  out = e.target;
  library::batch_resample_params(e, rate, bits, channels, quality);
  if (!row_ready(*run, row)) in.clear();  // passed over: the setup fails and the row is skipped
  return 1;
}

}  // namespace session
