// The playlist: a fixed table of 1000 path slots, the index of the entry to play, the play counts
// of the random choice, and the list files that hold the table between runs.
//
// Threads: the table and the command-line intake are written on the main thread. The play thread
// reads the slot of current_entry and moves current_entry on at a track's end, and counts each start
// and finish in play_counts; those two are atomics. The slots' text is not locked: an edit during
// playing may change the path that the next track takes, which is allowed.
//
// Paths are bytes (code page 932 in list files written elsewhere, whatever the file system holds
// here) and are never re-encoded. The writer separates folders with "/"; the readers turn "\" into
// "/" outside double-byte characters, so that lists made on Windows load.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

namespace library {

constexpr int32_t PLAYLIST_SLOTS = 1000;
constexpr int32_t ENTRY_BYTES = 260;  // a path of up to 259 bytes and its terminating zero
// The random choice's linear scan reads two slots beyond the list; they exist and stay empty.
constexpr int32_t PLAYLIST_SCAN_SLOTS = PLAYLIST_SLOTS + 2;

struct PlaylistEntry {
  char path[ENTRY_BYTES];  // zero-terminated; a first byte of 0 marks the slot empty
};
static_assert(sizeof(PlaylistEntry) == 260);

struct Playlist {
  // Packed from slot 0: the first empty slot ends the list for everything but pick_random_entry.
  PlaylistEntry entries[PLAYLIST_SCAN_SLOTS] = {};
  std::atomic<int32_t> current_entry{0};
  // Starts and finishes of each slot since the last reset, wrapping at 256; 0 means unplayed.
  std::atomic<uint8_t> play_counts[PLAYLIST_SCAN_SLOTS] = {};
  // Set by take_command_line: non-zero means start playing (the start-up's autoplay_on_start).
  int32_t command_line_play = 0;
};

extern Playlist playlist;

// Empties the table and clears current_entry, play_counts and command_line_play (tests, start-up).
void reset_playlist();

inline bool slot_used(int32_t index) {
  return index >= 0 && index < PLAYLIST_SCAN_SLOTS && playlist.entries[index].path[0] != 0;
}
// Index of the first empty slot, PLAYLIST_SLOTS when the table is full.
int32_t playlist_length();
// Clears every slot and every play count.
void clear_playlist();
// Stores path (cut to 259 bytes) in the first empty slot and zeroes its count. Returns the slot,
// or -1 when the table is full and the path is dropped.
int32_t append_entry(const char* path);
// Removes a slot: the later slots and their counts move up by one, the last is cleared.
void remove_entry(int32_t index);

// Loads a list file into the table: with append 0 from slot 0, else from the first empty slot. Each
// line of up to 259 bytes goes to its own slot, a blank line leaving its slot as it was, so that a
// blank line after a clear ends the list there. A file that won't open changes nothing.
void read_playlist(const char* path, int32_t append);
void read_playlist_file(std::FILE* file, int32_t append);

// The stricter reader of the default playlist: only lines that end in a line ending count (a last
// line without one is lost) and blank lines take no slot.
void read_default_playlist(const char* path);
void read_default_playlist_file(std::FILE* file);

enum WriteMode : int32_t {
  WRITE_AS_IS = 0,        // every entry as it stands (the default playlist)
  WRITE_ABSOLUTE = 1,     // relative entries behind the current folder
  WRITE_RELATIVE = 2,     // entries in the list's folder as bare names, others as they stand
  WRITE_ONLY_FOLDER = 3,  // as 2, entries outside the list's folder left out
};
// Writes the list up to its first empty slot, one entry a line ended by "\n". The new list replaces
// the old file whole (a full disk leaves the old list as it was). Returns 1, or 0 when the file
// couldn't be written.
int32_t write_playlist(const char* path, int32_t mode);

// The command line of a start or of a second start handed over: paths, list files, "/A" (append),
// "/O" (don't play), "/P" (play), "/n" (play entry n). shift_held appends the files to the list.
// On this system a token that starts with "/" is a switch only in the switch forms ("/", "/" and
// one letter, "/" and a number); anything longer is an absolute path. "-" always starts a switch.
void take_command_line(const char* text, bool shift_held);

// Adds the MPEG audio files (extensions ".mp*" and ".rmp") under a folder, recursing into its
// subfolders in name order. Returns 1, or 0 when the folder (or any folder below it) couldn't be
// read, which ends the scan there.
int32_t scan_folder(const char* path);
// The playlist editor's folder intake: the same scan, after which the editor is told through
// playlist_scanned once, when the outermost folder is done. The session points the hook at a sent
// MSG_PLAYLIST_REFRESH (first argument 1) to the editor (set_sink); null, nobody is told.
constexpr int32_t MSG_PLAYLIST_REFRESH = 1042;
int32_t scan_folder_dialog(const char* path);
extern void (*playlist_scanned)();

// The next entry of the random mode: an entry not played since the last reset, found from a start
// index taken from the clock; when all are played, the counts are cleared and a new cycle starts,
// avoiding the entry just played where another exists. now_ms is the clock in milliseconds.
int32_t pick_random_entry();
int32_t pick_random_entry_at(uint32_t now_ms);
// Clears play_counts; with count_current set, counts current_entry as played and returns it;
// else returns 0.
int32_t reset_play_counts(int32_t count_current);

// Folder and extension by the classic splitting rule: the folder is everything up to and with the
// last "/", the extension runs from the last "." of the name that follows (empty without one).
struct PathParts {
  const char* folder;
  size_t folder_len;
  const char* ext;  // points into the path; "" without an extension
};
PathParts split_path(const char* path);

}  // namespace library
