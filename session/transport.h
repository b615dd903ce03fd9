// The transport: how the main window steers a play session. An operation never does the work
// itself: it leaves the pause if there is one, writes decoder_command (and seek_target), and the
// play thread carries the command out at its next frame, since only that thread knows the file
// position. stop_play is the only operation that waits.
//
// Threads: everything here runs on the main thread. The main-window sequences (Play, Stop, Next,
// Previous, Repeat, Random, the track start) are here too, so that every front end (the window,
// tovra-cli, remote control) steers a session the same way.
#pragma once

#include <cstdint>

namespace session {

// Bounds of stop_play's wait for the play thread: 200 polls 40 ms apart, then one last 200 ms.
constexpr int32_t STOP_POLLS = 200;
constexpr int32_t STOP_POLL_MS = 40;
constexpr int32_t STOP_GRACE_MS = 200;

// Width of the seek bar in pixels.
constexpr int32_t SEEK_BAR_PIXELS = 88;

// Ends the play session. Returns 1 if it ended in time (or none ran), 0 if it had to be abandoned
// after the bound or ended only in the last grace period.
int32_t stop_play();
// A click on the seek bar at pixel position (0-87). Only while a session runs and nothing is pending.
void seek_percent(int32_t position);
// Jumps to a frame; unconditional, also with no session running (the word then stays set).
void seek_frame(int32_t frame);
// Skip forward or back by the step of the play thread; only while a session runs and no file job.
void seek_forward();
void seek_back();
// Pauses or resumes the device.
void pause_command();
// Remote control's position request in milliseconds (only while a session runs): beyond the
// stream's length it jumps to the end, else to the proportional frame, rounded.
void seek_milliseconds(int32_t ms);

// Track start flags: bit 0 keeps the current index even in random mode, bit 1 restarts the title's
// scroll-in.
enum TrackStartFlags : int32_t { START_KEEP_INDEX = 1, START_NEW_TITLE = 2 };

// Starts the current entry (after a random pick unless START_KEEP_INDEX) and reports a refused
// start by its message box; an entry that can't be played leaves the playlist.
void start_current(int32_t flags);

// The main window's commands.
void play_command(int32_t flags);
void stop_command();
void next_command();
void previous_command();
// Repeat: from a skin button it cycles 0, 1, 2 (random); from the menu it toggles 0/1.
void repeat_command(bool from_skin);
void random_command();

// The message numbers a removal sends to an open playlist editor: its delete command, tag 1.
constexpr int32_t PLAYLIST_DELETE_COMMAND = 40050;

}  // namespace session
