// A sound device for tests: it records every call and the bytes of every block written, and plays
// (hands back) blocks only when told, or by a player thread at a fixed pace.
//
// Threads: the ops may be called from any thread. test_device_play runs on the caller's thread,
// which then acts as the device's thread: the completion callback runs there. The player thread,
// when enabled, is the device's thread instead. One device can be open at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "output/wave_device.h"

namespace output {

const WaveDeviceOps* test_wave_device();

struct TestDeviceRecord {
  bool open = false;
  bool paused = false;
  WaveFormat format{};
  int32_t queued = 0;             // blocks written and not yet handed back
  std::string calls;              // one letter a call: O open, W write, P pause, R restart, X reset, C close
  std::vector<uint8_t> written;   // bytes of every write, in order
  std::vector<uint32_t> lengths;  // length of every write
  std::vector<uint8_t> played;    // bytes of the blocks that played to their end, in order
  int32_t played_blocks = 0;
  int32_t reset_blocks = 0;       // blocks handed back by resets
  std::vector<uint32_t> volumes;  // every volume word set
  uint32_t volume = 0xFFFFFFFF;   // the current volume word
};

// Closes nothing, forgets everything: the next open starts a clean record. Not while a device is open.
void test_device_clear();
TestDeviceRecord test_device_record();
// open answers this code (WAVE_OK by default) until changed.
void test_device_set_open_result(int32_t code);
// With a period above 0, each device opened from now on plays one block per period on a thread of
// its own while it isn't paused. 0 (the default) plays only on test_device_play.
void test_device_set_player(int32_t period_ms);
// Plays up to n queued blocks at once unless paused; returns how many.
int32_t test_device_play(int32_t n);
// Sets the word that get_volume reports (the device's volume before anybody opened it).
void test_device_set_volume(uint32_t volume);

}  // namespace output
