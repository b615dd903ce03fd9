// tovra-cli split IN OUT: the audio of an MPEG-1 system stream into a plain MPEG audio file.
// Ctrl+C cancels the job like the progress window's Cancel: the partial output is removed.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/tool_jobs.h"
#include "tools/split.h"

namespace cli {

namespace {

bool on_split_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (msg == session::MSG_SPLIT_PROGRESS) {
    console.done.store(wparam);
    draw_progress(wparam, lparam);
    return true;
  }
  return msg == session::MSG_SPLIT_END;  // the result is the job's code
}

}  // namespace

int cmd_split(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: tovra-cli split IN OUT\n", stderr);
    return 2;
  }
  const char* in = argv[0];
  const char* out = argv[1];
  console.on_message = on_split_message;
  session::Job job;
  int32_t code = 0;
  int status = run_job(
      job, [&] { return session::start_split(job, in, out); }, code);
  if (code == format::ERR_SAME_FILE) {
    report(code);
    return 2;
  }
  if (status == -1) {
    report(code, code == format::ERR_OPEN_INPUT ? in : out);
    return 1;
  }
  if (status == 1) {
    report(job.code);
  }
  return status;
}

}  // namespace cli
