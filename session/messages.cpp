#include "session/messages.h"

#include "library/ini.h"
#include "library/playlist.h"

namespace session {

namespace {

// The sink is installed once on the main thread before any job thread starts, so plain reads from
// the job threads are safe; the open flags change at any time and are atomic.
Sink current_sink;
std::atomic<int32_t> open_flags[WINDOW_COUNT];

void show_text_refused(int32_t code, const char* path) { message_box(code, path); }
void tell_playlist_editor() { send_message(WINDOW_PLAYLIST, library::MSG_PLAYLIST_REFRESH, 1, 0); }

}  // namespace

// The settings and playlist code below the session reports through hooks; they are pointed here
// with the sink, before anything can be refused or scanned.
void set_sink(const Sink& sink) {
  current_sink = sink;
  library::text_refused = show_text_refused;
  library::playlist_scanned = tell_playlist_editor;
}

void set_window_open(int32_t window, bool open) {
  if (window >= 0 && window < WINDOW_COUNT) open_flags[window].store(open ? 1 : 0, std::memory_order_relaxed);
}

bool window_open(int32_t window) {
  return window >= 0 && window < WINDOW_COUNT && open_flags[window].load(std::memory_order_relaxed) != 0;
}

void post_message(int32_t window, int32_t msg, int64_t wparam, int64_t lparam) {
  if (window_open(window) && current_sink.message) current_sink.message(window, msg, wparam, lparam, false);
}

void send_message(int32_t window, int32_t msg, int64_t wparam, int64_t lparam) {
  if (window_open(window) && current_sink.message) current_sink.message(window, msg, wparam, lparam, true);
}

int32_t message_box(int32_t code, const char* arg, int32_t kind) {
  if (current_sink.box) return current_sink.box(code, arg, kind);
  return kind == BOX_YES_NO ? ANSWER_NO : ANSWER_OK;
}

}  // namespace session
