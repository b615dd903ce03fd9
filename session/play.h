// The play session: start_play on the main thread, and play_thread, which walks the playlist from
// current_entry, decodes each entry into the PCM ring and leaves the rest to the wave thread.
//
// Threads: start_play and the transport (transport.h) run on the main thread. play_thread owns the
// input file, the decoder state and the ring's write side from its start to its end; it reads
// decoder_command once a frame and is the only writer of wave_command. The main thread learns of
// its end only through decoder_running. A thread that stop_play gives up on is detached and
// abandoned: its generation no longer matches play_generation, and from then on it touches nothing
// shared (see stop_play).
//
// The per-track choices (rate shift, selector, synthesis variant, wait times, position counter) are
// pure functions here so that the front ends and the tests can see exactly what a track will do.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "session/session.h"

namespace session {

// Frames that one forward or back step of the transport covers, and the margin it keeps.
constexpr int32_t SEEK_STEP_FRAMES = 320;

// What a track does with the "Rate" choice: the shift the device and shaper use, and the selector
// that picks the synthesis variant (rate_setting with its low bits replaced by the shift; bit 2,
// Overdrive, stays).
struct TrackRate {
  int32_t rate_shift;
  uint32_t selector;
};
// MPEG-2 streams take one rate step less with "Mpeg2R" on.
TrackRate track_rate(uint32_t rate_setting, int32_t mpeg_id, int32_t mpeg2_relief);

// The synthesis variant for a selector. shift_reset is set for selectors 3 and 7, whose variants
// compute at the full rate; play_thread then zeroes rate_shift after select_shaper has already
// chosen its row by the old value.
struct SynthChoice {
  SynthFn synth;
  bool shift_reset;
};
SynthChoice choose_synth(uint32_t selector, int32_t mode, int32_t family, int32_t pentium_synth);

// The wave thread's wait for its event, in milliseconds, chosen once per session.
int32_t wave_wait_for(int32_t family, int32_t prior_dec, int32_t last_rate_shift, int32_t sixteen_bit);

// The wave position counter (1 = 1152 output bytes) that matches frame: frame x channels x (2 for
// MPEG-1, 1 for MPEG-2), shifted right by the narrowing of mono, 8 bits and the rate shift.
// channels follow the stream's mode, not the output, so a mono stream with "Stereo" off comes out
// at half its position.
int32_t position_count(int32_t frame, int32_t mode, int32_t mpeg_id, int32_t session_stereo, int32_t session_16bit,
                       int32_t rate_shift);

// True when path begins with "http://" or "mms://", compared blind to case.
bool is_url(const char* path);

// Reads the rest of the file once and throws it away, so that it comes through the system's file
// cache at once and the disk may sleep during the track ("Powersave"). Capped at a quarter of the
// physical memory; the position is kept.
void preread_file(std::FILE* file);

// Starts playing playlist entry current_entry. Returns format::ERR_OK (started, a paused session resumed,
// or a file job runs and nothing was done), format::ERR_BUSY (a session is playing), format::ERR_OPEN_INPUT,
// format::ERR_URL or format::ERR_STREAM_REFUSED.
int32_t start_play();

// Calls from the session to the window; all optional.
struct PlayHooks {
  // Play thread (a front end must only queue work for its main thread from these two):
  // a new track starts, and the title shows the current entry;
  void (*title_new_track)() = nullptr;
  // the session moved on to the next entry by itself: the title's scroll offset starts over, and
  // the scrolling title restarts if "Scroll" is on.
  void (*title_next_entry)() = nullptr;
  // Main thread: rebuild the title (show: also put it on the window), after an entry was removed;
  void (*set_title_display)(int32_t show) = nullptr;
  // a start with a new title: the scroll-in starts over if "Scroll" is on.
  void (*restart_title_scroll)() = nullptr;
};
extern PlayHooks play_hooks;

// Session-wide facts of the play thread beside SessionState: the handle stands for the thread object,
// play_generation tells a live thread from one that stop_play abandoned.
extern std::atomic<int32_t> play_thread_handle;  // 1 while a play thread exists, cleared as its last act
extern std::atomic<int32_t> play_generation;

// True on a play thread that stop_play has abandoned (false on every other thread). The shapers'
// wait for room asks it, so that such a thread never writes into a later session's ring.
bool play_thread_abandoned();

// Blocks until a play thread that has finished (or is finishing) is joined; a thread still running
// is left alone. For tests and front ends at exit.
void join_finished_play_thread();
// Called by stop_play when the bound is missed: detaches the thread and marks it abandoned.
void abandon_play_thread();

}  // namespace session
