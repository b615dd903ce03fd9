// How the wave thread runs a track:
//
//   round start: free_blocks = block_count - prime, device paused
//   priming:     fill and write `prime` blocks (12 or 6 by processor family; 6 or 3 after a seek)
//   steady loop: device running; while the device holds every block it may, nap (drawing the
//                visualiser); else fill the next block from the ring and write it
//   round end:   a seek command resets the device and starts a new round; a drain or an abort
//                leaves, to close after draining or at once
//
// free_blocks counts what the wave thread may still write: it starts below the pool's size, so the
// block the thread fills next is always one that the device gave back long ago. The device hands
// blocks back in order, so block i is reused only after it has played.
//
// Memory order: free_blocks and ring_fill are the two hand-over words. Their rises are releases and
// the waits that read them acquire, so a block's bytes are the device's (or the wave thread's) before
// the other side sees the count. Every other word is relaxed, as the program's plain words were.
#include "output/wave.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "output/ring.h"

namespace output {

int32_t cpu_family_from_environment() {
  const char* v = std::getenv("TOVRA_CPU_FAMILY");
  if (v && *v) {
    int32_t f = std::atoi(v);
    if (f > 0) return f;
  }
  return 6;
}

WaveState& wave = *new WaveState;
WaveHooks wave_hooks;
SessionLink session_link;

void sleep_ms(int32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

bool stop_asked() { return session_link.command && session_link.command->load(relaxed) != 0; }
bool paused() { return session_link.paused && session_link.paused->load(relaxed) != 0; }

// The pool: block headers and their data, one allocation per track, owned by the wave thread.
struct WavePool {
  WaveBlock blocks[BLOCK_COUNT];
  uint8_t* data = nullptr;
};

enum FillResult { INCOMPLETE, COMPLETE };

// One wave thread's view: what it was started with. Nothing here is shared but through `wave`.
struct Track {
  uint32_t generation;
  const WaveDeviceOps* ops;
  WaveHandle handle;
  WavePool* pool;
  uint8_t* ring_base;
  int32_t block_count;

  bool alive() const { return wave.generation.load(std::memory_order_acquire) == generation; }
  int32_t command() const { return wave.wave_command.load(relaxed); }
  WaveBlock* block(int32_t i) { return &pool->blocks[i]; }
  void write(int32_t i) { ops->write(handle, block(i)); }
};

void draw_time_if_changed() {
  const int32_t shown = int32_t(wave.display_seconds.load(relaxed));
  if (shown != wave.last_drawn_seconds.load(relaxed)) {
    if (wave_hooks.draw_time) wave_hooks.draw_time();
    wave.last_drawn_seconds.store(shown, relaxed);
  }
}

void advance_read(uint32_t bytes) {
  uint32_t r = ring.ring_read.load(relaxed) + bytes;
  const uint32_t size = ring.ring_bytes.load(relaxed);
  if (r >= size) r -= size;
  ring.ring_read.store(r, relaxed);
}

// Fills block i from the ring. Complete: a whole block was taken. Incomplete: a command other than
// WAVE_RUN came first; under WAVE_DRAIN the block then holds what was left, padded.
FillResult fill_block(Track& t, int32_t i) {
  uint8_t* dst = t.block(i)->data;
  if (ring.ring_fill.load(std::memory_order_acquire) < BLOCK_UNITS) {
    bool enough = false;
    while (t.command() == WAVE_RUN) {
      if (!t.alive()) return INCOMPLETE;
      wave.wave_event.wait(uint32_t(wave.wave_wait_ms.load(relaxed)));
      if (ring.ring_fill.load(std::memory_order_acquire) >= BLOCK_UNITS) {
        enough = true;
        break;
      }
    }
    if (!enough) {
      if (t.command() != WAVE_DRAIN) return INCOMPLETE;
      if (ring.ring_fill.load(std::memory_order_acquire) < BLOCK_UNITS) {
        // The end of the track: what is left, then the pad. The pad alternates 128 and 0, a
        // 16-bit value of 128; in 8-bit formats it is a short buzz at the very end, left so.
        {
          std::lock_guard lock(ring.ring_lock);
          if (!t.alive()) return INCOMPLETE;
          uint32_t bytes;
          const int32_t fill = ring.ring_fill.load(std::memory_order_acquire);
          bytes = fill > 0 ? uint32_t(fill) * UNIT_BYTES : 0;
          const uint32_t at = ring.ring_read.load(relaxed);
          const uint32_t limit = ring.ring_bytes.load(relaxed) + RING_SPARE;
          if (at + bytes > limit) bytes = at < limit ? limit - at : 0;
          if (bytes > BLOCK_BYTES) bytes = BLOCK_BYTES;
          std::memcpy(dst, t.ring_base + at, bytes);
          for (uint32_t k = bytes; k < BLOCK_BYTES; ++k) dst[k] = (k - bytes) & 1 ? 0 : 128;
          advance_read(bytes);
          wave.free_blocks.fetch_sub(1, relaxed);
        }
        return INCOMPLETE;
      }
    }
  }
  {
    std::lock_guard lock(ring.ring_lock);
    // A seek zeroes the count under this lock; if it did so since the test above, the ring's bytes
    // are the decoder's again and the block stays empty. The seek's command is already set.
    if (ring.ring_fill.load(std::memory_order_acquire) < BLOCK_UNITS) return INCOMPLETE;
    // A thread given up with its session takes nothing from the next session's ring: the
    // generation changes under this lock.
    if (!t.alive()) return INCOMPLETE;
    std::memcpy(dst, t.ring_base + ring.ring_read.load(relaxed), BLOCK_BYTES);
    ring.ring_fill.fetch_sub(BLOCK_UNITS, std::memory_order_release);
    advance_read(BLOCK_BYTES);
    wave.free_blocks.fetch_sub(1, relaxed);
  }
  return COMPLETE;
}

// After the last block of the track: fill is what the pad followed; a partial block is written.
void write_partial_if_any(Track& t, int32_t i) {
  if (t.command() == WAVE_DRAIN && ring.ring_fill.load(relaxed) != 0) {
    ring.ring_fill.store(0, relaxed);
    t.write(i);
  }
}

void free_pool(Track& t) {
  wave.blocks.store(nullptr, relaxed);
  std::free(t.pool->data);
  delete t.pool;
}

// Waits for every block to come back, the time and the visualiser going on meanwhile; a stop
// (decoder_command no longer CMD_RUN) cuts it short with a reset. Returns false if abandoned.
bool close_after_draining(Track& t) {
  for (int32_t b = 0; b < t.block_count; ++b) {
    int32_t frame = 0;
    while (t.ops->unprepare(t.handle, t.block(b)) == WAVE_ERR_STILL_PLAYING) {
      if (!t.alive()) return false;
      if (stop_asked()) {
        sleep_ms(10);
        t.ops->reset(t.handle);
        wave.free_blocks.store(0, relaxed);
      } else if (wave.style.load(relaxed) < 2) {
        draw_time_if_changed();
        if (wave.render.load(relaxed)) {
          if (!paused() && wave_hooks.draw_display) wave_hooks.draw_display(frame++);
          sleep_ms(wave.wait_ms.load(relaxed));
        } else {
          sleep_ms(20);
        }
      } else {
        sleep_ms(20);
      }
    }
    t.block(b)->data = nullptr;
  }
  wave.free_blocks.store(0, relaxed);
  t.ops->set_volume(t.handle, wave.saved_device_volume.load(relaxed));
  t.ops->reset(t.handle);
  if (wave.fade_needed.exchange(0, relaxed)) {
    sleep_ms(20);
    apply_volume(1);
  } else {
    sleep_ms(20);
  }
  wave.wave_device.store(0, relaxed);
  t.ops->close(t.handle);
  free_pool(t);
  return true;
}

bool close_at_once(Track& t, int32_t i) {
  sleep_ms(20);
  t.ops->pause(t.handle);
  t.ops->reset(t.handle);
  sleep_ms(20);
  wave.free_blocks.store(0, relaxed);
  if (i < 0 || i >= t.block_count) i = 0;
  for (int32_t n = 0; n < t.block_count; ++n) {
    const int32_t b = (i + n) % t.block_count;  // from i to the last, then from the first
    while (t.ops->unprepare(t.handle, t.block(b)) == WAVE_ERR_STILL_PLAYING) {
      if (!t.alive()) return false;
      sleep_ms(10);
      t.ops->reset(t.handle);
    }
  }
  t.ops->set_volume(t.handle, wave.saved_device_volume.load(relaxed));
  if (wave.fade_needed.exchange(0, relaxed)) apply_volume(1);
  sleep_ms(20);
  wave.wave_device.store(0, relaxed);
  t.ops->close(t.handle);
  free_pool(t);
  return true;
}

// A seek's output_count, once the blocks queued before it have been handed back and counted.
void take_seek_count() {
  const int32_t count = wave.seek_count.exchange(-1, relaxed);
  if (count >= 0) wave.output_count.store(count, relaxed);
}

void refresh_title() {
  if (wave_hooks.refresh_title) wave_hooks.refresh_title(0);
}

void wave_thread(Track t) {
  wave.wave_running.store(1, relaxed);
  wave.display_seconds.store(0, relaxed);
  wave.wave_event.clear();
  const bool slow = wave.cpu_family.load(relaxed) < 5;
  int32_t prime = slow ? 12 : 6;
  int32_t i = 0;

  for (;;) {
    if (!t.alive()) return;
    wave.free_blocks.store(t.block_count - prime, relaxed);
    wave.last_drawn_seconds.store(-1, relaxed);
    t.ops->pause(t.handle);

    bool primed = true;
    for (i = 0; i < prime; ++i) {
      FillResult r = fill_block(t, i);
      if (!t.alive()) return;
      if (r == COMPLETE) {
        t.write(i);
        continue;
      }
      write_partial_if_any(t, i);
      t.ops->restart(t.handle);
      refresh_title();
      primed = false;
      break;
    }

    if (primed) {
      t.ops->restart(t.handle);
      refresh_title();
      i = prime;
      for (;;) {
        if (i >= t.block_count) i = 0;
        if (wave.style.load(relaxed) < 2) draw_time_if_changed();
        bool command = false;
        int32_t frame = 0;
        while (wave.free_blocks.load(std::memory_order_acquire) == 0) {
          if (!t.alive()) return;
          // The naps end early when the session thread sets the event for a command, so that a
          // seek is taken at once rather than after a whole nap.
          if (wave.style.load(relaxed) >= 2 || !wave.render.load(relaxed)) {
            wave.wave_event.wait(200);
          } else {
            if (!paused() && wave_hooks.draw_display) wave_hooks.draw_display(frame++);
            wave.wave_event.wait(uint32_t(wave.wait_ms.load(relaxed)));
          }
          if (t.command() >= WAVE_JUMP) {
            command = true;
            break;
          }
        }
        if (command || t.command() >= WAVE_JUMP) break;
        FillResult r = fill_block(t, i);
        if (!t.alive()) return;
        if (r == COMPLETE) {
          t.write(i);
          ++i;
          continue;
        }
        write_partial_if_any(t, i);
        break;
      }
    }

    sleep_ms(20);
    if (!t.alive()) return;
    const int32_t c = t.command();
    if (c < WAVE_JUMP || c >= WAVE_ABORT) break;
    if (c == WAVE_REPRIME) {
      take_seek_count();
      ring.ring_read.store(0, relaxed);
      wave.wave_command.store(WAVE_RUN, relaxed);
    } else {
      sleep_ms(20);
      t.ops->pause(t.handle);
      t.ops->reset(t.handle);
      take_seek_count();
      ring.ring_read.store(0, relaxed);
      wave.wave_command.store(WAVE_RUN, relaxed);
      t.ops->restart(t.handle);
    }
    prime = slow ? 6 : 3;  // a seek restarts faster than a track
  }

  const bool closed = t.command() == WAVE_ABORT ? close_at_once(t, i) : close_after_draining(t);
  if (!closed) return;
  if (wave_hooks.clear_display) wave_hooks.clear_display();
  wave.wave_running.store(0, std::memory_order_release);  // the close is done: the session may go on
  wave.wave_event.set();
  sleep_ms(200);
}

}  // namespace

void WaveEvent::set() {
  std::lock_guard lock(mu);
  signalled = true;
  cv.notify_all();
}

void WaveEvent::clear() {
  std::lock_guard lock(mu);
  signalled = false;
}

bool WaveEvent::wait(uint32_t ms) {
  std::unique_lock lock(mu);
  if (!signalled && ms > 0) cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return signalled; });
  const bool was = signalled;
  signalled = false;
  if (!was && ms == 0) {
    lock.unlock();
    std::this_thread::yield();  // a zero wait polls; let the decoder run between looks
  }
  return was;
}

void wave_callback(int32_t msg, WaveBlock*, uintptr_t user) {
  if (msg != WOM_DONE) return;
  if (user != wave.generation.load(relaxed)) return;  // a device of an abandoned track
  wave.free_blocks.fetch_add(1, std::memory_order_release);
  const int64_t count = wave.output_count.fetch_add(16, relaxed) + 16;
  const int64_t rate = wave.seconds_rate.load(relaxed);
  // The stream's rate, not the device's: the shift comes after the integer division.
  const int64_t seconds =
      rate > 0 ? (count * wave.seconds_k.load(relaxed) / rate) << wave.seconds_shift.load(relaxed) : 0;
  wave.display_seconds.store(uint32_t(seconds), relaxed);
}

int32_t wave_open(int32_t rate, bool two_channels, const OutputChoice& choice) {
  const WaveDeviceOps* ops = wave_device_ops();
  if (!ops) return WAVE_ERR_NO_DRIVER;
  ring_allocate();  // the session allocates it first; this only guards a caller that didn't

  // No system sounds exist to be stopped here: the device is ours alone.
  const bool stereo_out = choice.stereo && two_channels;
  const int32_t shift = choice.rate_shift < 0 ? 0 : choice.rate_shift > 30 ? 30 : choice.rate_shift;
  WaveFormat f;
  f.sample_rate = rate >> shift;
  f.channels = stereo_out ? 2 : 1;
  f.bits = choice.sixteen_bit ? 16 : 8;
  f.block_align = f.channels * f.bits / 8;
  f.byte_rate = f.block_align * f.sample_rate;

  const uint32_t generation = wave.generation.load(relaxed);
  WaveHandle handle = 0;
  const int32_t err = ops->open(&handle, wave.wave_out_device.load(relaxed), f, wave_callback, generation);
  if (err != WAVE_OK) return err;
  uint32_t volume = 0xFFFFFFFF;
  ops->get_volume(handle, &volume);
  wave.saved_device_volume.store(volume, relaxed);
  wave.format = f;
  // display_seconds: k sample frames per unit of output_count (1152 bytes).
  wave.seconds_k.store(f.bits == 8 ? (stereo_out ? 576 : 1152) : (stereo_out ? 288 : 576), relaxed);
  wave.seconds_rate.store(rate, relaxed);
  wave.seconds_shift.store(shift, relaxed);
  wave.wave_device.store(handle, relaxed);
  // No fade here: the device holds no block yet, so a fade would be heard by nobody and would only
  // hold back the first sound by 80 ms. The fade after a mute (at the close) stays.
  apply_volume(0);

  int32_t count = wave.block_count.load(relaxed);
  if (count < 1 || count > BLOCK_COUNT) count = BLOCK_COUNT;
  WavePool* pool = new WavePool;
  pool->data = static_cast<uint8_t*>(std::calloc(size_t(count) * BLOCK_BYTES, 1));
  for (int32_t b = 0; b < count; ++b) {
    pool->blocks[b].data = pool->data + size_t(b) * BLOCK_BYTES;
    pool->blocks[b].length = BLOCK_BYTES;
    ops->prepare(handle, &pool->blocks[b]);
  }
  wave.blocks.store(pool->blocks, relaxed);
  wave.seek_count.store(-1, relaxed);
  wave.output_count.store(0, relaxed);
  ring.ring_write.store(0, relaxed);
  ring.ring_read.store(0, relaxed);
  ring.ring_fill.store(0, relaxed);
  if (wave_hooks.reset_visualiser) wave_hooks.reset_visualiser();
  wave.wave_command.store(WAVE_RUN, relaxed);

  Track t{generation, ops, handle, pool, ring.ring_base, count};
  // Detached: the thread ends by itself after its close, and a thread given up with its session
  // must not be waited for.
  std::thread(wave_thread, t).detach();
  while (wave.wave_running.load(relaxed) != 1) sleep_ms(20);
  return 0;
}

void apply_volume(int32_t fade) {
  const WaveDeviceOps* ops = wave_device_ops();
  const WaveHandle h = wave.wave_device.load(relaxed);
  if (!ops || !h) return;
  const int32_t level = wave.volume_level.load(relaxed);
  const int32_t pan = wave.pan_level.load(relaxed);
  int32_t left = pan >= 0 ? level - 2 * pan : level;
  int32_t right = pan < 0 ? level + 2 * pan : level;
  if (left < 0) left = 0;
  if (right < 0) right = 0;
  if (left > 0xFFFF) left = 0xFFFF;
  if (right > 0xFFFF) right = 0xFFFF;
  if (fade) {
    int32_t l = 0, r = 0;
    while (l < left || r < right) {
      ops->set_volume(h, uint32_t(l) | uint32_t(r) << 16);
      sleep_ms(10);
      l = l + 8192 < left ? l + 8192 : left;
      r = r + 8192 < right ? r + 8192 : right;
    }
  }
  ops->set_volume(h, uint32_t(left) | uint32_t(right) << 16);
}

void mute_for_stop() {
  const WaveDeviceOps* ops = wave_device_ops();
  const WaveHandle h = wave.wave_device.load(relaxed);
  if (!ops || !h) return;
  wave.fade_needed.store(1, relaxed);
  ops->set_volume(h, 0);
}

void toggle_pause() {
  const WaveDeviceOps* ops = wave_device_ops();
  if (!ops || !wave.wave_device.load(relaxed)) return;
  sleep_ms(20);
  const WaveHandle h = wave.wave_device.load(relaxed);
  std::atomic<int32_t>* flag = session_link.paused;
  if (paused()) {
    ops->restart(h);
    if (flag) flag->store(0, relaxed);
  } else {
    ops->pause(h);
    if (flag) flag->store(1, relaxed);
  }
}

void wave_abandon() {
  {
    std::lock_guard lock(ring.ring_lock);
    wave.generation.fetch_add(1, std::memory_order_acq_rel);
  }
  // The given-up thread may still use its pool; it stays allocated, and reachable from here.
  static std::mutex graveyard_lock;
  static std::vector<WaveBlock*> graveyard;
  if (WaveBlock* pool = wave.blocks.exchange(nullptr, relaxed)) {
    std::lock_guard lock(graveyard_lock);
    graveyard.push_back(pool);
  }
  wave.wave_running.store(0, relaxed);
  const WaveDeviceOps* ops = wave_device_ops();
  const WaveHandle h = wave.wave_device.exchange(0, relaxed);
  if (ops && h) {
    // The old thread may still call the device; with its handle closed those calls only fail.
    ops->reset(h);
    ops->close(h);
  }
  wave.wave_event.set();
}

void wave_reset_state() {
  wave.style.store(0, relaxed);
  wave.render.store(1, relaxed);
  wave.wait_ms.store(33, relaxed);
  wave.wave_out_device.store(WAVE_MAPPER, relaxed);
  wave.volume_level.store(65535, relaxed);
  wave.pan_level.store(0, relaxed);
  wave.cpu_family.store(cpu_family_from_environment(), relaxed);
  wave.block_count.store(BLOCK_COUNT, relaxed);
  wave.free_blocks.store(0, relaxed);
  wave.wave_command.store(WAVE_RUN, relaxed);
  wave.wave_running.store(0, relaxed);
  wave.wave_wait_ms.store(1000, relaxed);
  wave.seek_count.store(-1, relaxed);
  wave.output_count.store(0, relaxed);
  wave.display_seconds.store(0, relaxed);
  wave.saved_device_volume.store(0, relaxed);
  wave.wave_device.store(0, relaxed);
  wave.fade_needed.store(0, relaxed);
  wave.last_drawn_seconds.store(-1, relaxed);
  wave.blocks.store(nullptr, relaxed);
  wave.wave_event.clear();
  wave_hooks = WaveHooks{};
}

}  // namespace output
