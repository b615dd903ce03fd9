// The test device keeps one instance under one mutex. Callbacks are made with the mutex released,
// so that a callback may call back into the device.
#include "output/wave_device_test.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace output {

namespace {

constexpr uint32_t PREPARED = 1;
constexpr uint32_t QUEUED = 2;

struct TestDevice {
  std::mutex mu;
  std::condition_variable wake;
  TestDeviceRecord record;
  std::deque<WaveBlock*> queue;
  WaveHandle handle = 0;
  WaveHandle next_handle = 1;
  WaveCallback callback = nullptr;
  uintptr_t user = 0;
  int32_t open_result = WAVE_OK;
  int32_t player_period_ms = 0;
  bool player_stop = false;
  std::thread player;
};

// Never destroyed: a device thread may outlive the test that opened it by a moment.
TestDevice& dev = *new TestDevice;

// Removes up to n blocks from the queue (all when reset) and returns them; caller holds the lock.
int32_t take_blocks(int32_t n, bool reset, WaveBlock** out) {
  int32_t taken = 0;
  while (taken < n && !dev.queue.empty()) {
    WaveBlock* b = dev.queue.front();
    dev.queue.pop_front();
    b->device_state &= ~QUEUED;
    if (reset) {
      ++dev.record.reset_blocks;
    } else {
      dev.record.played.insert(dev.record.played.end(), b->data, b->data + b->length);
      ++dev.record.played_blocks;
    }
    out[taken++] = b;
  }
  dev.record.queued = int32_t(dev.queue.size());
  return taken;
}

void deliver(WaveBlock** blocks, int32_t n, WaveCallback cb, uintptr_t user) {
  for (int32_t i = 0; i < n; ++i)
    if (cb) cb(WOM_DONE, blocks[i], user);
}

void player_loop(int32_t period_ms) {
  std::unique_lock lock(dev.mu);
  while (!dev.player_stop) {
    dev.wake.wait_for(lock, std::chrono::milliseconds(period_ms));
    if (dev.player_stop) break;
    if (dev.record.paused) continue;
    WaveBlock* b[1];
    int32_t n = take_blocks(1, false, b);
    WaveCallback cb = dev.callback;
    uintptr_t user = dev.user;
    lock.unlock();
    deliver(b, n, cb, user);
    lock.lock();
  }
}

bool valid(WaveHandle h) { return h != 0 && h == dev.handle; }

int32_t device_count() { return 1; }

int32_t device_name(int32_t device, char* out, uint32_t size) {
  if (device != 0 && device != WAVE_MAPPER) return WAVE_ERR_BAD_DEVICE_ID;
  if (size) {
    std::strncpy(out, "Test device", size - 1);
    out[size - 1] = 0;
  }
  return WAVE_OK;
}

int32_t open(WaveHandle* out, int32_t device, const WaveFormat& format, WaveCallback callback, uintptr_t user) {
  std::lock_guard lock(dev.mu);
  if (device != 0 && device != WAVE_MAPPER) return WAVE_ERR_BAD_DEVICE_ID;
  if (dev.open_result != WAVE_OK) return dev.open_result;
  if (dev.handle) return WAVE_ERR_ALLOCATED;
  dev.handle = dev.next_handle++;
  dev.callback = callback;
  dev.user = user;
  dev.record.open = true;
  dev.record.paused = false;
  dev.record.format = format;
  dev.record.calls += 'O';
  *out = dev.handle;
  if (dev.player_period_ms > 0) {
    dev.player_stop = false;
    dev.player = std::thread(player_loop, dev.player_period_ms);
  }
  return WAVE_OK;
}

int32_t close(WaveHandle h) {
  std::thread player;
  {
    std::lock_guard lock(dev.mu);
    if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
    if (!dev.queue.empty()) return WAVE_ERR_STILL_PLAYING;
    dev.handle = 0;
    dev.record.open = false;
    dev.record.calls += 'C';
    dev.player_stop = true;
    player = std::move(dev.player);
  }
  dev.wake.notify_all();
  if (player.joinable()) player.join();
  return WAVE_OK;
}

int32_t prepare(WaveHandle h, WaveBlock* block) {
  std::lock_guard lock(dev.mu);
  if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
  block->device_state = PREPARED;
  return WAVE_OK;
}

int32_t unprepare(WaveHandle h, WaveBlock* block) {
  std::lock_guard lock(dev.mu);
  if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
  if (block->device_state & QUEUED) return WAVE_ERR_STILL_PLAYING;
  block->device_state = 0;
  return WAVE_OK;
}

int32_t write(WaveHandle h, WaveBlock* block) {
  std::lock_guard lock(dev.mu);
  if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
  if (!(block->device_state & PREPARED)) return WAVE_ERR_UNPREPARED;
  if (block->device_state & QUEUED) return WAVE_ERR_STILL_PLAYING;
  block->device_state |= QUEUED;
  dev.queue.push_back(block);
  dev.record.calls += 'W';
  dev.record.written.insert(dev.record.written.end(), block->data, block->data + block->length);
  dev.record.lengths.push_back(block->length);
  dev.record.queued = int32_t(dev.queue.size());
  return WAVE_OK;
}

int32_t set_paused(WaveHandle h, bool paused) {
  std::lock_guard lock(dev.mu);
  if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
  dev.record.paused = paused;
  dev.record.calls += paused ? 'P' : 'R';
  return WAVE_OK;
}
int32_t pause(WaveHandle h) { return set_paused(h, true); }
int32_t restart(WaveHandle h) { return set_paused(h, false); }

int32_t reset(WaveHandle h) {
  WaveBlock* blocks[256];
  int32_t n;
  WaveCallback cb;
  uintptr_t user;
  {
    std::lock_guard lock(dev.mu);
    if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
    dev.record.calls += 'X';
    n = take_blocks(256, true, blocks);
    cb = dev.callback;
    user = dev.user;
  }
  deliver(blocks, n, cb, user);
  return WAVE_OK;
}

int32_t get_volume(WaveHandle h, uint32_t* volume) {
  std::lock_guard lock(dev.mu);
  if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
  *volume = dev.record.volume;
  return WAVE_OK;
}

int32_t set_volume(WaveHandle h, uint32_t volume) {
  std::lock_guard lock(dev.mu);
  if (!valid(h)) return WAVE_ERR_INVALID_HANDLE;
  dev.record.volume = volume;
  dev.record.volumes.push_back(volume);
  return WAVE_OK;
}

constexpr WaveDeviceOps ops = {"test", device_count, device_name, open,  close,      prepare,   unprepare,
                               write,  pause,        restart,     reset, get_volume, set_volume};

}  // namespace

const WaveDeviceOps* test_wave_device() { return &ops; }

void test_device_clear() {
  std::lock_guard lock(dev.mu);
  uint32_t volume = dev.record.volume;
  dev.record = TestDeviceRecord{};
  dev.record.volume = volume;
  dev.queue.clear();
  dev.open_result = WAVE_OK;
  dev.player_period_ms = 0;
}

TestDeviceRecord test_device_record() {
  std::lock_guard lock(dev.mu);
  return dev.record;
}

void test_device_set_open_result(int32_t code) {
  std::lock_guard lock(dev.mu);
  dev.open_result = code;
}

void test_device_set_player(int32_t period_ms) {
  std::lock_guard lock(dev.mu);
  dev.player_period_ms = period_ms;
}

int32_t test_device_play(int32_t n) {
  WaveBlock* blocks[256];
  int32_t taken = 0;
  WaveCallback cb;
  uintptr_t user;
  {
    std::lock_guard lock(dev.mu);
    if (!dev.handle || dev.record.paused) return 0;
    taken = take_blocks(n < 256 ? n : 256, false, blocks);
    cb = dev.callback;
    user = dev.user;
  }
  deliver(blocks, taken, cb, user);
  return taken;
}

void test_device_set_volume(uint32_t volume) {
  std::lock_guard lock(dev.mu);
  dev.record.volume = volume;
}

}  // namespace output
