// The transport operations and the main window's play commands.
//
// How: every operation first leaves the pause, then writes decoder_command; the play thread takes
// the word at its next frame and writes CMD_RUN back when it is done with it. The last writer wins:
// a second seek before the first is taken replaces it. stop_play polls decoder_running; a session
// that misses the bound is abandoned (see play.h): a thread cannot be killed safely.
#include "session/transport.h"

#include <cstdio>
#include <thread>

#include "library/playlist.h"
#include "output/wave.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "session/play.h"
#include "session/session.h"

namespace session {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

using output::sleep_ms;

void leave_pause() {
  if (state.paused.load(relaxed)) output::toggle_pause();
}

int32_t command() { return state.decoder_command.load(relaxed); }

int32_t current() { return library::playlist.current_entry.load(relaxed); }
void set_current(int32_t index) { library::playlist.current_entry.store(index, relaxed); }

// The repeat word is read by the play thread at a track's end while the main thread may change it.
std::atomic_ref<int32_t> repeat_word() { return std::atomic_ref<int32_t>(options.repeat); }

// MulDiv: a * b / c with a 64-bit intermediate, rounded half away from zero; -1 when c is 0.
int32_t mul_div(int32_t a, int32_t b, int32_t c) {
  if (c == 0) return -1;
  int64_t p = int64_t(a) * b;
  int64_t ap = p < 0 ? -p : p, ac = c < 0 ? -int64_t(c) : c;
  int64_t q = (ap + ac / 2) / ac;
  return int32_t((p < 0) != (c < 0) ? -q : q);
}

void stop_with_message() {
  if (stop_play() == 0) message_box(format::ERR_TIMEOUT);
}

// An entry that can't be played leaves the playlist: through the editor when it is open, so that
// its view follows, else directly. The index then walks back to the nearest used slot.
void remove_current_entry() {
  state.decoder_command.store(CMD_STOP, relaxed);
  if (window_open(WINDOW_PLAYLIST))
    send_message(WINDOW_PLAYLIST, PLAYLIST_DELETE_COMMAND, 1);
  else
    library::remove_entry(current());
  int32_t index = current();
  while (index > 0 && !library::slot_used(index)) --index;
  set_current(index);
  if (play_hooks.set_title_display) play_hooks.set_title_display(1);
}

}  // namespace

int32_t stop_play() {
  if (state.paused.load(relaxed)) {
    // Silence first, then restart the device so the thread can end; the volume fades back in at
    // the device's close, ready for the next use.
    output::mute_for_stop();
    output::toggle_pause();
  } else {
    output::wave.fade_needed.store(0, relaxed);
  }
  state.decoder_command.store(CMD_STOP, relaxed);
  for (int32_t i = 0; i < STOP_POLLS; ++i) {
    if (state.decoder_running.load(relaxed) == 0) {
      join_finished_play_thread();
      return 1;
    }
    sleep_ms(STOP_POLL_MS);
  }
  sleep_ms(STOP_GRACE_MS);
  if (play_thread_handle.load(relaxed)) {
    abandon_play_thread();
    return 0;
  }
  join_finished_play_thread();
  return 0;
}

void seek_percent(int32_t position) {
  if (command() != CMD_RUN) return;
  leave_pause();
  // Two signed integer divisions, as the bar always computed it.
  int64_t percent = int64_t(position) * 100 / SEEK_BAR_PIXELS;
  state.seek_target.store(int32_t(percent * published_stream().frame_count / 100), relaxed);
  state.decoder_command.store(CMD_JUMP, relaxed);
}

void seek_frame(int32_t frame) {
  leave_pause();
  state.seek_target.store(frame, relaxed);
  state.decoder_command.store(CMD_JUMP, relaxed);
}

void seek_forward() {
  if (state.file_job_active.load(relaxed) || command() != CMD_RUN) return;
  leave_pause();
  state.decoder_command.store(CMD_FORWARD, relaxed);
}

void seek_back() {
  if (state.file_job_active.load(relaxed) || command() != CMD_RUN) return;
  leave_pause();
  state.decoder_command.store(CMD_BACK, relaxed);
}

void pause_command() { output::toggle_pause(); }

void seek_milliseconds(int32_t ms) {
  if (command() != CMD_RUN) return;
  const StreamInfo s = published_stream();
  int32_t limit = s.play_seconds * 1000;
  if (ms > limit)
    seek_frame(s.frame_count);
  else
    seek_frame(mul_div(ms, s.frame_count, limit));
}

namespace {

// Says why a start failed; removes the entry where the code asks for it. Returns true if removed.
bool report_start_failure(int32_t code) {
  const char* path = library::playlist.entries[current()].path;
  bool remove = false;
  switch (code) {
    case format::ERR_BUSY:
      code = TEXT_PLAYING;
      break;
    case format::ERR_OPEN_INPUT:
    case format::ERR_NOT_MPEG:  // no start returns it today; the message stays for when one does
    case format::ERR_URL:
      remove = true;
      break;
    case format::ERR_STREAM_REFUSED:
      return false;  // open_stream has spoken for itself; the entry stays
    default:
      code = TEXT_ERROR;
      break;
  }
  message_box(code, remove ? path : nullptr);
  if (remove) remove_current_entry();
  return remove;
}

int32_t entry_count() {
  int32_t n = 0;
  while (library::slot_used(n)) ++n;
  return n;
}

}  // namespace

void start_current(int32_t flags) {
  if (repeat_word().load(relaxed) == 2 && !(flags & START_KEEP_INDEX)) {
    int32_t before = current();
    set_current(library::pick_random_entry());
    if (current() != before) flags |= START_NEW_TITLE;
  }
  // An entry that will not open or holds no MPEG audio is reported and the list goes on with the
  // one after it, as the session does between tracks; at most once through the list.
  for (int32_t tries = entry_count(); tries > 0; --tries) {
    if (!library::slot_used(current())) break;
    int32_t code = start_play();
    if (code == format::ERR_OK) {
      if ((flags & START_NEW_TITLE) && play_hooks.restart_title_scroll) play_hooks.restart_title_scroll();
      return;
    }
    state.play_requested.store(0, relaxed);
    const int32_t index = current();
    const bool removed = report_start_failure(code);
    if (code != format::ERR_OPEN_INPUT && code != format::ERR_NOT_MPEG && code != format::ERR_STREAM_REFUSED) return;
    // A removed entry's place is taken by the next one, unless it was the last.
    const int32_t next = removed ? index : index + 1;
    if ((removed && current() != index) || !library::slot_used(next)) return;
    set_current(next);
    flags |= START_NEW_TITLE;
  }
  state.play_requested.store(0, relaxed);
}

void play_command(int32_t flags) {
  if (command() == CMD_RUN) flags |= START_NEW_TITLE;
  if (state.paused.load(relaxed)) {
    pause_command();
    return;
  }
  if (state.play_requested.load(relaxed)) return;
  state.play_requested.store(1, relaxed);
  stop_with_message();
  start_current(flags);
}

void stop_command() { stop_with_message(); }

void next_command() {
  if (state.play_requested.load(relaxed)) return;
  int32_t before = current();
  state.play_requested.store(1, relaxed);
  stop_with_message();
  int32_t index = current() + 1;
  if (index >= library::PLAYLIST_SLOTS || !library::slot_used(index)) index = 0;
  set_current(index);
  start_current(index != before ? START_KEEP_INDEX | START_NEW_TITLE : START_KEEP_INDEX);
}

void previous_command() {
  if (state.play_requested.load(relaxed)) return;
  int32_t before = current();
  state.play_requested.store(1, relaxed);
  stop_with_message();
  int32_t index = current() - 1;
  if (index < 0) index = library::PLAYLIST_SLOTS - 1;
  while (index > 0 && !library::slot_used(index)) --index;
  set_current(index);
  start_current(index != before ? START_KEEP_INDEX | START_NEW_TITLE : START_KEEP_INDEX);
}

void repeat_command(bool from_skin) {
  int32_t repeat = repeat_word().load(relaxed);
  int32_t next;
  if (from_skin) {
    next = repeat == 0 ? 1 : repeat == 1 ? 2 : 0;
  } else {
    next = repeat == 1 ? 0 : 1;
  }
  repeat_word().store(next, relaxed);
  if (from_skin && next == 2) library::reset_play_counts(0);
}

void random_command() {
  if (repeat_word().load(relaxed) == 2) {
    repeat_word().store(0, relaxed);
  } else {
    repeat_word().store(2, relaxed);
    library::reset_play_counts(0);
  }
}

}  // namespace session
