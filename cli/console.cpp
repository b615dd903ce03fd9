#include "cli/console.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <mutex>

#include "session/message_text.h"
#include "session/messages.h"
#include "session/session.h"

namespace cli {

Console console;

namespace {

volatile std::sig_atomic_t interrupt_seen = 0;
std::atomic<session::Job*> interrupt_job{nullptr};
static_assert(std::atomic<session::Job*>::is_always_lock_free);

void on_interrupt(int) {
  interrupt_seen = 1;
  // Lock-free atomic loads and stores are safe in a signal handler.
  if (session::Job* job = interrupt_job.load(std::memory_order_relaxed))
    job->cancel.store(1, std::memory_order_relaxed);
}

std::mutex print_lock;  // messages arrive on job threads; keep lines whole
bool bar_shown = false;

void on_message(int32_t window, int32_t msg, int64_t wparam, int64_t lparam, bool) {
  (void)window;
  if (console.on_message && console.on_message(msg, wparam, lparam)) return;
  if (msg == session::MSG_PROGRESS_FRAMES) {
    console.done.store(wparam);
    draw_progress(wparam, console.total.load());
  } else if (msg == session::MSG_PROGRESS_END) {
    console.ended.store(1);
  }
}

int32_t on_box(int32_t code, const char* arg, int32_t kind) {
  report(code, arg);
  console.boxes.fetch_add(1);
  // Nobody answers at a console: questions get the cautious answer.
  return kind == session::BOX_YES_NO ? session::ANSWER_NO : session::ANSWER_OK;
}

}  // namespace

void report_text(int32_t code, const std::string& text) {
  std::lock_guard<std::mutex> lock(print_lock);
  if (bar_shown) std::fputs("\r\033[K", stderr);
  bar_shown = false;
  std::fprintf(stderr, "%s: %s\n", session::message_caption(code), text.c_str());
}

void report(int32_t code, const char* arg) { report_text(code, session::message_text(code, arg)); }

void install_console(int64_t total) {
  console.total.store(total);
  console.done.store(0);
  console.ended.store(0);
  session::set_sink({on_message, on_box});
  session::set_window_open(session::WINDOW_PROGRESS, true);
}

void draw_progress(int64_t done, int64_t total) {
  if (!isatty(STDERR_FILENO)) return;
  std::lock_guard<std::mutex> lock(print_lock);
  constexpr int width = 40;
  int64_t filled = total > 0 ? (done >= total ? width : done * width / total) : 0;
  int percent = total > 0 ? int(done >= total ? 100 : done * 100 / total) : 0;
  std::fputs("\r[", stderr);
  for (int i = 0; i < width; ++i) std::fputc(i < filled ? '#' : '.', stderr);
  std::fprintf(stderr, "] %3d%%", percent);
  std::fflush(stderr);
  bar_shown = true;
}

void finish_progress() {
  std::lock_guard<std::mutex> lock(print_lock);
  if (bar_shown) std::fputs("\r\033[K", stderr);
  bar_shown = false;
}

int run_job(session::Job& job, const std::function<int32_t()>& start, int32_t& start_code) {
  install_console(0);
  interrupt_seen = 0;
  interrupt_job.store(&job);
  std::signal(SIGINT, on_interrupt);
  start_code = start();
  if (start_code == 0) session::wait_job(job);
  std::signal(SIGINT, SIG_DFL);
  interrupt_job.store(nullptr);
  finish_progress();
  if (start_code != 0) return -1;
  if (interrupt_seen) return 130;
  return job.end.load() == session::JOB_END_DONE ? 0 : 1;
}

}  // namespace cli
