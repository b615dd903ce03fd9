// The console front end of tovra-cli: a message sink that draws a progress bar on stderr when stderr
// is a terminal, prints the system's message boxes as "CAPTION: text" on stderr, and records how a
// job ended for the exit code.
#pragma once

#include <atomic>
#include <cstdint>

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

// Installs the sink and opens the progress window (the job's messages go there).
void install_console(int64_t total);
// Draws the bar for done of total (only on a terminal).
void draw_progress(int64_t done, int64_t total);
// Clears the bar line.
void finish_progress();

// While on, Ctrl+C presses the running job's Cancel (file_job_cancel) instead of killing the process,
// so that the job removes its partial output as a cancel does. Off restores the default.
void cancel_job_on_interrupt(bool on);
// Whether Ctrl+C was pressed since the last cancel_job_on_interrupt(true).
bool interrupted();

}  // namespace cli
