// The sound device as the wave thread sees it: a narrow table of functions modelled on the classic
// wave-out calls, so that the wave thread's protocol (prepare, write, pause, restart, reset,
// unprepare that says "still playing", a completion callback per block) is the same on every device.
//
// Two implementations: SDL2 (wave_device_sdl.cpp, in the tovra_audio library, the only SDL code)
// and a recording test device (wave_device_test.h, in the engine). The front end installs one with
// set_wave_device before any session starts.
//
// Threads: every function may be called from any thread (the wave thread plays, the main thread
// pauses and sets the volume); implementations lock internally. The completion callback runs on
// the device's own thread once per block played, and on the calling thread for the blocks that a
// reset hands back. A handle is a small number; a stale handle (a device closed meanwhile) gives
// WAVE_ERR_INVALID_HANDLE instead of touching freed memory.
#pragma once

#include <cstdint>

namespace output {

// Result codes, numbered as the classic wave-out API numbers them.
enum WaveResult : int32_t {
  WAVE_OK = 0,
  WAVE_ERR_ERROR = 1,
  WAVE_ERR_BAD_DEVICE_ID = 2,
  WAVE_ERR_ALLOCATED = 4,
  WAVE_ERR_INVALID_HANDLE = 5,
  WAVE_ERR_NO_DRIVER = 6,
  WAVE_ERR_NO_MEMORY = 7,
  WAVE_ERR_BAD_FORMAT = 32,
  WAVE_ERR_STILL_PLAYING = 33,
  WAVE_ERR_UNPREPARED = 34,
};

// The only callback message the wave thread listens to: a block has been played (or reset).
constexpr int32_t WOM_DONE = 957;

// The device number that means "the system's default device".
constexpr int32_t WAVE_MAPPER = -1;

// PCM format, as the classic format record has it.
struct WaveFormat {
  int32_t sample_rate = 44100;
  int32_t channels = 2;
  int32_t bits = 16;           // 8 (unsigned samples) or 16 (signed, little-endian)
  int32_t block_align = 4;     // channels * bytes per sample
  int32_t byte_rate = 176400;  // block_align * sample_rate
};

// One block header. The owner (the wave thread) sets data and length before prepare and keeps the
// header and its data alive until unprepare succeeds. device_state is the device's own word,
// touched only under the device's lock.
struct WaveBlock {
  uint8_t* data = nullptr;
  uint32_t length = 0;
  uint32_t device_state = 0;
};

using WaveHandle = int32_t;  // 0 = closed
// msg is WOM_DONE; user is the value given to open.
using WaveCallback = void (*)(int32_t msg, WaveBlock* block, uintptr_t user);

struct WaveDeviceOps {
  const char* name;
  // Devices 0 .. count-1; WAVE_MAPPER opens the default one.
  int32_t (*device_count)();
  // Copies the device's name (NUL-terminated, cut to size); returns WAVE_OK or BAD_DEVICE_ID.
  int32_t (*device_name)(int32_t device, char* out, uint32_t size);
  int32_t (*open)(WaveHandle* out, int32_t device, const WaveFormat& format, WaveCallback callback, uintptr_t user);
  // STILL_PLAYING while blocks are queued: reset first.
  int32_t (*close)(WaveHandle h);
  int32_t (*prepare)(WaveHandle h, WaveBlock* block);
  // STILL_PLAYING until the block has come back; then the block is the owner's again.
  int32_t (*unprepare)(WaveHandle h, WaveBlock* block);
  // Queues a prepared block; it plays after the blocks before it unless the device is paused.
  int32_t (*write)(WaveHandle h, WaveBlock* block);
  // Holds playback; queued blocks (and those written meanwhile) stay queued.
  int32_t (*pause)(WaveHandle h);
  int32_t (*restart)(WaveHandle h);
  // Hands back every queued block with its callback and forgets the partly played one. The pause
  // state stays as it was.
  int32_t (*reset)(WaveHandle h);
  // Volume word: left level in the low 16 bits, right in the high 16 bits; 0xFFFF is unity gain.
  // One-channel output uses the left level. The word outlives the open device, as a mixer's would.
  int32_t (*get_volume)(WaveHandle h, uint32_t* volume);
  int32_t (*set_volume)(WaveHandle h, uint32_t volume);
};

// Installs the device used by wave_open (main thread, before any session). Null means none:
// wave_open then fails with WAVE_ERR_NO_DRIVER.
void set_wave_device(const WaveDeviceOps* ops);
const WaveDeviceOps* wave_device_ops();

// The SDL2 device; defined in the tovra_audio library only.
const WaveDeviceOps* sdl_wave_device();

// Applies a volume word to interleaved PCM in place: the device-layer gain of both implementations.
// 0xFFFF leaves samples exactly as they are.
void apply_gain(uint8_t* data, uint32_t bytes, const WaveFormat& format, uint32_t volume);

}  // namespace output
