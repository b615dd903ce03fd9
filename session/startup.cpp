// Start-up steps in their order; see startup.h. The entry test opens the file with the session's
// own stream opening, on the main thread, while no session exists.
#include "session/startup.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "library/playlist.h"
#include "session/platform.h"
#include "session/session.h"
#include "session/stream.h"

namespace session {

int32_t start_up_settings(const char* command_line, bool shift_held, const library::WorkArea& area, StartPlacement& out,
                          const std::string& file) {
  using namespace library;
  detect_cpu();
  StartupRecord record;
  load_settings(file.empty() ? settings_file_path() : file, record, cpu_family);
  state.session_emphasis = options.emphasis;
  int32_t x = record.x, y = record.y;
  place_main_window(x, y, settings.style, area);
  clamp_settings(x, y);
  settings.x = x;
  settings.y = y;
  out.x = x;
  out.y = y;
  out.snapped_to_bottom = settings.snap && snapped_to_bottom(y, settings.style, settings.double_size, area);
  take_command_line(command_line, shift_held);
  return record.build;
}

std::string join_command_line(int argc, const char* const* argv) {
  std::string line;
  for (int i = 0; i < argc; ++i) {
    if (i) line += ' ';
    const char* a = argv[i];
    bool quote = !*a || std::strpbrk(a, " \t");
    if (quote) line += '"';
    line += a;
    if (quote) line += '"';
  }
  return line;
}

bool entry_playable(const char* path, EntryPassed on_pass, void* context) {
  if (state.decoder_running.load(std::memory_order_relaxed) || state.file_job_active.load(std::memory_order_relaxed))
    return false;
  if (strncasecmp(path, "http://", 7) == 0 || strncasecmp(path, "mms://", 6) == 0) return false;
  std::FILE* file = std::fopen(path, "rb");
  if (!file) return false;
  std::FILE* saved = reader.file;
  reader.file = file;
  reset_frame_reader();
  bool ok = open_stream() == STREAM_OK;
  if (ok && on_pass) on_pass(context);
  reader.file = saved;
  std::fclose(file);
  return ok;
}

namespace {

bool default_test(const char* path, void*) { return entry_playable(path); }

}  // namespace

int32_t validate_start_entry(EntryTest test, void* context) {
  using namespace library;
  if (!test) test = default_test;
  int32_t i = playlist.current_entry.load(std::memory_order_relaxed);
  if (i < 0 || i >= PLAYLIST_SLOTS) i = 0;
  while (slot_used(i) && !test(playlist.entries[i].path, context)) remove_entry(i);
  if (!slot_used(i)) {
    while (i > 0) {
      --i;
      if (!slot_used(i)) continue;  // an index that stood beyond the list
      if (test(playlist.entries[i].path, context)) break;
      remove_entry(i);
    }
  }
  playlist.current_entry.store(i, std::memory_order_relaxed);
  return i;
}

}  // namespace session
