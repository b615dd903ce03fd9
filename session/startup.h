// The window-free half of the program's start: the settings with their placement and clamps, the
// command line, and the check of the entry to play. The shell calls these in the start-up order:
// claim_instance (library/instance.h), then start_up_settings, then its window, then validate_start_entry
// at the window's creation; with the window it opens the instance socket (open_instance_server),
// and at exit it calls save_settings and release_instance_lock.
//
// Main thread only, before any session or job thread exists.
#pragma once

#include <cstdint>
#include <string>

#include "library/settings.h"

namespace session {

struct StartPlacement {
  int32_t x = 0, y = 0;  // the main window's top-left corner, in unscaled pixels
  bool snapped_to_bottom = false;
};

// Detects the processor, loads the settings from file (settings_file_path() when empty) with the
// default playlist, hands the "Emphasis" choice to the session, places the window against the work
// area, clamps the settings and derives the gains, and takes the command line (shift_held appends).
// The window's place is also left in settings.x and settings.y. Returns the settings file's "Build".
int32_t start_up_settings(const char* command_line, bool shift_held, const library::WorkArea& area, StartPlacement& out,
                          const std::string& file = {});

// Joins a process's arguments into one command line of the classic form: blank-separated, an
// argument with blanks (or an empty one) in double quotes.
std::string join_command_line(int argc, const char* const* argv);

// The test of one entry: fails while a session runs, for URLs ("http://", "mms://", in any case),
// for a file that won't open and for one that doesn't open as an MPEG audio stream. on_pass, when
// given, runs while the passing stream's facts are in session::stream.
using EntryPassed = void (*)(void* context);
bool entry_playable(const char* path, EntryPassed on_pass = nullptr, void* context = nullptr);

// Makes current_entry stand on an entry that plays: entries that fail the test are removed from
// the list, first at the index and onwards, then walking down towards 0 when the index ends on an
// empty slot. Returns the index reached (0 with an empty list). test defaults to entry_playable.
using EntryTest = bool (*)(const char* path, void* context);
int32_t validate_start_entry(EntryTest test = nullptr, void* context = nullptr);

}  // namespace session
