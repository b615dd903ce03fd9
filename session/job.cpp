// The job runner. busy is stored last, with release, so that whoever sees it clear also sees the
// end, the code and the settled output.
#include "session/job.h"

#include <cstdio>

#include "session/session.h"
#include "tools/wave.h"

namespace session {

namespace {

void run(Job* job, JobBody body) {
  int32_t end = body(*job);
  settle_output(*job, end);
  job->end.store(end, std::memory_order_relaxed);
  job->busy.store(0, std::memory_order_release);
}

}  // namespace

Job::~Job() {
  cancel.store(1, std::memory_order_relaxed);
  wait_job(*this);
}

int32_t start_job(Job& job, JobBody body, const char* out_path) {
  if (job.busy.load(std::memory_order_acquire)) return format::ERR_BUSY;
  wait_job(job);  // a finished job's thread
  job.cancel.store(0, std::memory_order_relaxed);
  job.end.store(JOB_END_DONE, std::memory_order_relaxed);
  job.code = 0;
  job.out_path = out_path ? out_path : "";
  job.busy.store(1, std::memory_order_relaxed);
  job.thread = std::thread(run, &job, body);
  return 0;
}

void wait_job(Job& job) {
  if (job.thread.joinable()) job.thread.join();
}

void settle_output(const Job& job, int32_t end) {
  if (end == JOB_END_FAILED || (end == JOB_END_CANCELLED && !options.leave))
    tools::remove_partial_output(job.out_path.c_str());
}

}  // namespace session
