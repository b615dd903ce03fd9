// The dialogs the main window opens: the tag dialog "TOVRA - ID3tag editor" (modeless on the playing
// stream, or modal on one file of a series), the playlist editor "tvrplaylistdlg", a modeless window
// whose list view mirrors the playlist table, and the modal about and wave output settings boxes.
// All live on the main thread; other threads reach the playlist editor through the message sink
// (window WINDOW_PLAYLIST).
#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <string>
#include <vector>

#include "session/message_text.h"

namespace shell {

// 40009: opens the tag dialog on the current stream, or closes it when it is open.
void toggle_id3_dialog();
// Runs the tag dialog modally on path, file n of count (count 0: no series). Returns the exit value
// (library::Id3Exit).
int32_t run_id3_dialog(const char* path, int32_t n, int32_t count);
bool id3_dialog_open();

// 40016: opens the playlist editor, or closes it when it is open.
void toggle_playlist_editor();
bool playlist_editor_open();
void present_playlist_editor();
// A message for the playlist editor: 1042 (refresh) or 273 (command, wparam its id, lparam its tag).
void playlist_editor_message(int32_t msg, int64_t wparam, int64_t lparam);

// 40002: the modal about box "tvraboutdlg": the processor, the system and the memory.
void run_about_dialog(GtkWindow* parent);
// 40014: the modal wave output settings "tvrsettingdlg": device, rate and the output switches.
void run_wave_settings_dialog(GtkWindow* parent);

// What the main window shares with its dialogs: names in UTF-8 (bytes that are not UTF-8 are
// read as code page 932), message boxes, and list files (".m3u", ".pl*") read from their folder.
std::string to_utf8(const char* bytes);
// Shows the box of code (format::Error or session::Text) with its argument, worded by the message
// table; returns its session::BoxAnswer.
int32_t show_box(int32_t code, const char* arg, int32_t kind);
bool is_list_file(const char* path);
void load_list(const char* path);
// Dropped or chosen paths to the end of the playlist until it is full: a folder is scanned (with
// the progress dialog when with_dialog), a list file read, anything else appended.
void append_paths(const std::vector<std::string>& paths, bool with_dialog);

}  // namespace shell
