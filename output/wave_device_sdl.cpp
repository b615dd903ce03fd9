// The SDL2 sound device: the only file that includes SDL.
//
// Each open device is an SDL audio device with a callback that copies from a queue of written
// blocks. A block that has been copied to its end leaves the queue and its completion callback runs
// right there, on SDL's audio thread. Pause is a flag the callback honours (it then gives silence),
// so blocks written while paused stay queued. Reset empties the queue under SDL's device lock and
// hands the blocks back on the caller's thread. The volume word is applied to the copied samples.
//
// Locking: `table_lock` guards the handle table and is taken by every entry point (never by the
// audio callback); the queue and the block states are guarded by SDL's device lock, which SDL holds
// around the callback. Order: table_lock, then the device lock.
#include <SDL.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "output/wave_device.h"

namespace output {

namespace {

constexpr uint32_t QUEUED = 2;
constexpr uint32_t PREPARED = 1;

struct SdlDevice {
  SDL_AudioDeviceID id = 0;
  WaveFormat format{};
  WaveCallback callback = nullptr;
  uintptr_t user = 0;
  int32_t device_number = WAVE_MAPPER;
  // Under SDL's device lock:
  std::deque<WaveBlock*> queue;
  uint32_t offset = 0;  // bytes of the front block already played
  bool paused = false;
  std::atomic<uint32_t> volume{0xFFFFFFFF};
};

std::mutex table_lock;
std::map<WaveHandle, SdlDevice*> devices;
std::map<int32_t, uint32_t> volumes;  // by device number: the word outlives an open device
WaveHandle next_handle = 1;
bool sdl_ready = false;

// SDL and the ~50 libraries it pulls in are loaded the first time a device is listed or opened, so
// that the converters, which never play, start without them. The table holds the few entry points
// this file calls; SDL's header still gives the types and constants.
struct SdlCalls {
  decltype(&SDL_InitSubSystem) InitSubSystem;
  decltype(&SDL_GetNumAudioDevices) GetNumAudioDevices;
  decltype(&SDL_GetAudioDeviceName) GetAudioDeviceName;
  decltype(&SDL_OpenAudioDevice) OpenAudioDevice;
  decltype(&SDL_PauseAudioDevice) PauseAudioDevice;
  decltype(&SDL_LockAudioDevice) LockAudioDevice;
  decltype(&SDL_UnlockAudioDevice) UnlockAudioDevice;
  decltype(&SDL_CloseAudioDevice) CloseAudioDevice;
};
SdlCalls sdl{};
bool sdl_load_tried = false;

template <typename F>
bool look_up(void* lib, const char* name, F* out) {
  *out = reinterpret_cast<F>(dlsym(lib, name));
  return *out != nullptr;
}

// Caller holds table_lock. Tries once; a missing library is reported once on stderr.
bool load_sdl() {
  if (sdl_load_tried) return sdl.CloseAudioDevice != nullptr;
  sdl_load_tried = true;
  void* lib = dlopen("libSDL2-2.0.so.0", RTLD_NOW | RTLD_LOCAL);
  if (!lib) {
    std::fprintf(stderr, "tovra: cannot load the SDL2 library for sound output: %s\n", dlerror());
    return false;
  }
  SdlCalls t{};
  const bool ok = look_up(lib, "SDL_InitSubSystem", &t.InitSubSystem) &&
                  look_up(lib, "SDL_GetNumAudioDevices", &t.GetNumAudioDevices) &&
                  look_up(lib, "SDL_GetAudioDeviceName", &t.GetAudioDeviceName) &&
                  look_up(lib, "SDL_OpenAudioDevice", &t.OpenAudioDevice) &&
                  look_up(lib, "SDL_PauseAudioDevice", &t.PauseAudioDevice) &&
                  look_up(lib, "SDL_LockAudioDevice", &t.LockAudioDevice) &&
                  look_up(lib, "SDL_UnlockAudioDevice", &t.UnlockAudioDevice) &&
                  look_up(lib, "SDL_CloseAudioDevice", &t.CloseAudioDevice);
  if (!ok) {
    std::fprintf(stderr, "tovra: the SDL2 library lacks a function sound output needs\n");
    dlclose(lib);
    return false;
  }
  sdl = t;  // kept loaded for the life of the program: SDL's audio thread runs its code
  return true;
}

// Caller holds table_lock.
bool ensure_sdl() {
  if (!sdl_ready) sdl_ready = load_sdl() && sdl.InitSubSystem(SDL_INIT_AUDIO) == 0;
  return sdl_ready;
}

SdlDevice* find(WaveHandle h) {
  auto it = devices.find(h);
  return it == devices.end() ? nullptr : it->second;
}

void audio_callback(void* userdata, Uint8* stream, int len) {
  SdlDevice* d = static_cast<SdlDevice*>(userdata);
  const uint8_t silence = d->format.bits == 8 ? 128 : 0;
  uint32_t at = 0;
  const uint32_t total = uint32_t(len);
  while (!d->paused && at < total && !d->queue.empty()) {
    WaveBlock* b = d->queue.front();
    uint32_t n = b->length - d->offset;
    if (n > total - at) n = total - at;
    std::memcpy(stream + at, b->data + d->offset, n);
    at += n;
    d->offset += n;
    if (d->offset >= b->length) {
      d->queue.pop_front();
      d->offset = 0;
      b->device_state &= ~QUEUED;
      if (d->callback) d->callback(WOM_DONE, b, d->user);
    }
  }
  // Blocks are whole frames, so the gain sees whole frames too.
  apply_gain(stream, at, d->format, d->volume.load(std::memory_order_relaxed));
  if (at < total) std::memset(stream + at, silence, total - at);
}

int32_t device_count() {
  std::lock_guard lock(table_lock);
  if (!ensure_sdl()) return 0;
  const int n = sdl.GetNumAudioDevices(0);
  return n > 0 ? n : 0;
}

int32_t device_name(int32_t device, char* out, uint32_t size) {
  std::lock_guard lock(table_lock);
  if (!ensure_sdl()) return WAVE_ERR_NO_DRIVER;
  const char* name = device == WAVE_MAPPER ? "Default device" : sdl.GetAudioDeviceName(device, 0);
  if (!name) return WAVE_ERR_BAD_DEVICE_ID;
  if (size) {
    std::strncpy(out, name, size - 1);
    out[size - 1] = 0;
  }
  return WAVE_OK;
}

int32_t open(WaveHandle* out, int32_t device, const WaveFormat& format, WaveCallback callback, uintptr_t user) {
  std::lock_guard lock(table_lock);
  if (!ensure_sdl()) return WAVE_ERR_NO_DRIVER;
  if (format.bits != 8 && format.bits != 16) return WAVE_ERR_BAD_FORMAT;
  if (format.channels < 1 || format.channels > 2 || format.sample_rate <= 0) return WAVE_ERR_BAD_FORMAT;
  const char* name = nullptr;
  if (device != WAVE_MAPPER) {
    if (device < 0 || device >= sdl.GetNumAudioDevices(0)) return WAVE_ERR_BAD_DEVICE_ID;
    name = sdl.GetAudioDeviceName(device, 0);
  }
  SdlDevice* d = new SdlDevice;
  d->format = format;
  d->callback = callback;
  d->user = user;
  d->device_number = device;
  auto v = volumes.find(device);
  d->volume.store(v == volumes.end() ? 0xFFFFFFFF : v->second, std::memory_order_relaxed);

  SDL_AudioSpec want{};
  want.freq = format.sample_rate;
  want.format = format.bits == 8 ? AUDIO_U8 : AUDIO_S16LSB;
  want.channels = Uint8(format.channels);
  want.samples = 1024;
  want.callback = audio_callback;
  want.userdata = d;
  SDL_AudioSpec have{};
  // No allowed changes: SDL converts to whatever the hardware takes, so our bytes are what it gets.
  d->id = sdl.OpenAudioDevice(name, 0, &want, &have, 0);
  if (d->id == 0) {
    delete d;
    return WAVE_ERR_ALLOCATED;
  }
  const WaveHandle h = next_handle++;
  devices[h] = d;
  sdl.PauseAudioDevice(d->id, 0);
  *out = h;
  return WAVE_OK;
}

int32_t close(WaveHandle h) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  sdl.LockAudioDevice(d->id);
  const bool busy = !d->queue.empty();
  sdl.UnlockAudioDevice(d->id);
  if (busy) return WAVE_ERR_STILL_PLAYING;
  sdl.CloseAudioDevice(d->id);
  devices.erase(h);
  delete d;
  return WAVE_OK;
}

int32_t prepare(WaveHandle h, WaveBlock* block) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  sdl.LockAudioDevice(d->id);
  block->device_state = PREPARED;
  sdl.UnlockAudioDevice(d->id);
  return WAVE_OK;
}

int32_t unprepare(WaveHandle h, WaveBlock* block) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  sdl.LockAudioDevice(d->id);
  int32_t result = WAVE_OK;
  if (block->device_state & QUEUED)
    result = WAVE_ERR_STILL_PLAYING;
  else
    block->device_state = 0;
  sdl.UnlockAudioDevice(d->id);
  return result;
}

int32_t write(WaveHandle h, WaveBlock* block) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  sdl.LockAudioDevice(d->id);
  int32_t result = WAVE_OK;
  if (!(block->device_state & PREPARED)) {
    result = WAVE_ERR_UNPREPARED;
  } else if (block->device_state & QUEUED) {
    result = WAVE_ERR_STILL_PLAYING;
  } else {
    block->device_state |= QUEUED;
    d->queue.push_back(block);
  }
  sdl.UnlockAudioDevice(d->id);
  return result;
}

int32_t set_paused(WaveHandle h, bool paused) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  sdl.LockAudioDevice(d->id);
  d->paused = paused;
  sdl.UnlockAudioDevice(d->id);
  return WAVE_OK;
}
int32_t pause(WaveHandle h) { return set_paused(h, true); }
int32_t restart(WaveHandle h) { return set_paused(h, false); }

int32_t reset(WaveHandle h) {
  std::unique_lock lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  std::deque<WaveBlock*> taken;
  sdl.LockAudioDevice(d->id);
  taken.swap(d->queue);
  d->offset = 0;
  for (WaveBlock* b : taken) b->device_state &= ~QUEUED;
  sdl.UnlockAudioDevice(d->id);
  WaveCallback cb = d->callback;
  uintptr_t user = d->user;
  lock.unlock();
  for (WaveBlock* b : taken)
    if (cb) cb(WOM_DONE, b, user);
  return WAVE_OK;
}

int32_t get_volume(WaveHandle h, uint32_t* volume) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  *volume = d->volume.load(std::memory_order_relaxed);
  return WAVE_OK;
}

int32_t set_volume(WaveHandle h, uint32_t volume) {
  std::lock_guard lock(table_lock);
  SdlDevice* d = find(h);
  if (!d) return WAVE_ERR_INVALID_HANDLE;
  d->volume.store(volume, std::memory_order_relaxed);
  volumes[d->device_number] = volume;
  return WAVE_OK;
}

constexpr WaveDeviceOps ops = {"sdl2", device_count, device_name, open,  close,      prepare,   unprepare,
                               write,  pause,        restart,     reset, get_volume, set_volume};

}  // namespace

const WaveDeviceOps* sdl_wave_device() { return &ops; }

}  // namespace output
