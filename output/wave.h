// The wave thread: one per track. wave_open opens the device and starts it; it carries PcmRing to
// the device one 18432-byte block at a time from a pool of 32, primes the device before letting it
// run, re-primes after a seek, plays the ring out at the end of a track (padding the last block)
// and closes the device. Between writes it draws the time and steps the visualiser through hooks.
//
// Threads:
// - session thread: wave_open, and the commands in wave_command (it is the only writer of a
//   command other than WAVE_RUN); sets wave_event to cut the wave thread's wait short; sets
//   seek_count on a seek.
// - wave thread: owns the pool and ring_read; turns wave_command back to WAVE_RUN; lowers
//   free_blocks; calls the hooks.
// - device thread: wave_callback raises free_blocks and output_count and works out
//   display_seconds, which everybody reads.
// - main thread: apply_volume, mute_for_stop, toggle_pause; the settings words and the hooks.
// Shared words are atomics. Polling waits keep the program's sleeps and bounds. A wave thread whose
// session was given up (wave_abandon) notices its stale generation when it wakes, and leaves
// without touching anything shared; its pool is never freed under it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "output/wave_device.h"

namespace output {

// Sleeps the calling thread; the polling waits of the wave and session threads use it.
void sleep_ms(int32_t ms);

enum WaveCommand : int32_t {
  WAVE_RUN = 0,
  WAVE_DRAIN = 1,
  WAVE_JUMP = 2,
  WAVE_FORWARD = 3,
  WAVE_BACK = 4,
  WAVE_REPRIME = 5,
  WAVE_ABORT = 6,
};

// An auto-reset event that lives for the process: "creating" it at a thread's start clears it.
struct WaveEvent {
  std::mutex mu;
  std::condition_variable cv;
  bool signalled = false;
  void set();
  void clear();
  // Waits up to ms (0: just looks); true if it was set. Resets it either way.
  bool wait(uint32_t ms);
};

using Word = std::atomic<int32_t>;

// TOVRA_CPU_FAMILY when set (tests reach the slow processors' paths with it), else 6. The shell
// stores the detected family into wave.cpu_family at start-up.
int32_t cpu_family_from_environment();

struct WaveState {
  // Settings the front end mirrors here ("Style", "Render", "Wait", "WaveOutDevice"), the volume
  // state (volume_level 0-65535, pan_level -32767..32767) and the processor family. Main thread
  // writes, the wave thread reads.
  Word style{0};
  Word render{1};
  Word wait_ms{33};
  Word wave_out_device{WAVE_MAPPER};
  Word volume_level{65535};
  Word pan_level{0};
  Word cpu_family{cpu_family_from_environment()};

  Word block_count{32};
  Word free_blocks{0};
  Word wave_command{WAVE_RUN};
  Word wave_running{0};
  Word wave_wait_ms{1000};
  Word output_count{0};  // 1 = 1152 bytes of output played
  // A seek's new output_count, -1 when none waits. The session thread sets it with the seek; the
  // wave thread moves it into output_count once the device's reset has handed back (and counted)
  // the blocks queued before the seek, so that the time shown is the target's, not target plus
  // the blocks thrown away.
  Word seek_count{-1};
  std::atomic<uint32_t> display_seconds{0};
  std::atomic<uint32_t> saved_device_volume{0};
  std::atomic<WaveHandle> wave_device{0};
  Word fade_needed{0};
  Word last_drawn_seconds{-1};

  // The device's format and the position arithmetic, fixed by wave_open for the track before the
  // wave thread starts (the format for the wave thread's visualiser; nobody else should read it).
  WaveFormat format{};
  Word seconds_k{288};       // sample frames per unit of output_count (see wave_callback)
  Word seconds_rate{44100};  // the stream's sample rate
  Word seconds_shift{0};     // rate_shift
  // The pool's block headers while a device is open (the visualiser reads them), else null.
  std::atomic<WaveBlock*> blocks{nullptr};

  std::atomic<uint32_t> generation{1};
  WaveEvent wave_event;
};

// Never destroyed: a wave thread may still be in its last sleep when the process ends.
extern WaveState& wave;

// Calls into the window; each may be null. They run on the wave thread (draw_time, draw_display,
// refresh_title, clear_display) or on the session thread (reset_visualiser).
struct WaveHooks {
  void (*draw_time)() = nullptr;
  void (*draw_display)(int32_t frame) = nullptr;
  void (*refresh_title)(int32_t new_track) = nullptr;
  void (*reset_visualiser)() = nullptr;  // at wave_open
  void (*clear_display)() = nullptr;     // when the wave thread ends
};
extern WaveHooks wave_hooks;

// The play session's words as the wave thread and the shapers see them. The session fills it once,
// on the main thread, before it starts its first play thread; a null member reads as "run", "not
// paused", "not abandoned".
struct SessionLink {
  const std::atomic<int32_t>* command = nullptr;  // the session's command: anything but 0 stops a track
  std::atomic<int32_t>* paused = nullptr;         // the pause flag, which toggle_pause flips
  bool (*abandoned)() = nullptr;                  // the calling play thread has been given up
};
extern SessionLink session_link;

// The track's output choices: two channels or one (for a stereo stream), 16 or 8 bits, and the rate
// shift (the device runs at rate >> rate_shift).
struct OutputChoice {
  int32_t stereo = 1;
  int32_t sixteen_bit = 1;
  int32_t rate_shift = 0;
};

// Session thread. Opens the device for rate >> rate_shift, one or two channels, 8 or 16 bits as
// choice says, starts the wave thread and waits for it. Returns 0 or the device's error.
int32_t wave_open(int32_t rate, bool two_channels, const OutputChoice& choice);
// Device thread: the completion callback given to the device.
void wave_callback(int32_t msg, WaveBlock* block, uintptr_t user);
// Sets the device's volume word from volume_level and pan_level; with fade, rises to it from 0 in
// steps of 8192 every 10 ms. A no-op with no device open.
void apply_volume(int32_t fade);
// Main thread, on a stop from pause: silence now, and fade in at the close.
void mute_for_stop();
// Main thread: pause or restart the device, flipping the session's pause flag.
void toggle_pause();
// Main thread, after a session missed its time-out: give up the running wave thread (it leaves
// when it wakes) and stop the device. The pool is not freed.
void wave_abandon();
// Tests: back to the initial state. Only while no wave thread runs.
void wave_reset_state();

}  // namespace output
