// The console front end of tovra-cli: a message sink that draws a progress bar on stderr when stderr
// is a terminal, prints the system's message boxes as "CAPTION: text" on stderr, and records how a
// job ended for the exit code.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "session/job.h"

namespace cli {

struct Console {
  std::atomic<int64_t> total{0};  // units of a whole job for the bar (frames, bytes, ...)
  std::atomic<int64_t> done{0};
  std::atomic<int32_t> ended{0};  // a progress_end (1046) arrived
  std::atomic<int32_t> boxes{0};  // message boxes shown
  // Optional per-command translation of a message into progress: returns true when handled.
  bool (*on_message)(int32_t msg, int64_t wparam, int64_t lparam) = nullptr;
};

extern Console console;

// Prints the message of code (format::Error or session::Text) as "CAPTION: text" on stderr, in the
// user's language; report_text prints code's caption with a text already worded.
void report(int32_t code, const char* arg = nullptr);
void report_text(int32_t code, const std::string& text);

// Installs the sink and opens the progress window (the job's messages go there).
void install_console(int64_t total);
// Draws the bar for done of total (only on a terminal).
void draw_progress(int64_t done, int64_t total);
// Clears the bar line.
void finish_progress();

// Runs a job at the console: installs the console (keeping on_message), arms Ctrl+C to press the job's Cancel (so that
// the job removes its partial output as a cancel does) while start() starts it and the job runs, waits for its end and
// clears the progress bar. Returns -1 when start refused (start_code holds its code, and nothing ran), 130 after
// Ctrl+C, 1 when the job did not end done, else 0.
int run_job(session::Job& job, const std::function<int32_t()>& start, int32_t& start_code);

}  // namespace cli
