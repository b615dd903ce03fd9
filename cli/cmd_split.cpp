// tovra-cli split IN OUT: the audio of an MPEG-1 system stream into a plain MPEG audio file.
// Ctrl+C cancels the job like the progress window's Cancel: the partial output is removed.
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/messages.h"
#include "session/session.h"
#include "tools/split.h"

namespace cli {

namespace {

std::atomic<int32_t> split_result{-1};
bool on_split_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (msg == session::MSG_SPLIT_PROGRESS) {
    console.done.store(wparam);
    draw_progress(wparam, lparam);
    return true;
  }
  if (msg == session::MSG_SPLIT_END) {
    split_result.store(int32_t(wparam));
    return true;
  }
  return false;
}

bool same_file(const char* a, const char* b) {
  struct stat sa, sb;
  if (stat(a, &sa) != 0 || stat(b, &sb) != 0) return std::strcmp(a, b) == 0;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

int cmd_split(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: tovra-cli split IN OUT\n", stderr);
    return 2;
  }
  const char* in = argv[0];
  const char* out = argv[1];
  if (same_file(in, out)) {
    std::fprintf(stderr, "%s: 入力と出力で同じ名前は使えません\n", session::CAPTION);
    return 2;
  }
  install_console(0);
  console.on_message = on_split_message;
  split_result.store(-1);
  cancel_job_on_interrupt(true);
  int32_t code = tools::start_split(in, out);
  if (code != 0) {
    cancel_job_on_interrupt(false);
    if (code == session::START_NO_INPUT || code == session::START_NO_OUTPUT)
      std::fprintf(stderr, "%s: '%s'が開けない\n", session::CAPTION, code == session::START_NO_INPUT ? in : out);
    else
      std::fprintf(stderr, "%s: error\n", session::CAPTION);
    return 1;
  }
  tools::wait_split();
  cancel_job_on_interrupt(false);
  finish_progress();
  if (interrupted()) return 130;
  int32_t result = split_result.load();
  if (result != tools::SPLIT_OK) {
    const char* text = tools::split_result_text(result);
    session::message_box(session::CAPTION_ERROR, text ? text : "error");
    return 1;
  }
  return 0;
}

}  // namespace cli
