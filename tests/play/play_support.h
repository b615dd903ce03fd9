// Shared set-up of the play session tests: the recording test device, a message sink that keeps
// the message boxes, fixtures of silent Layer II frames, and polling helpers.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "decoder/decoder.h"
#include "library/playlist.h"
#include "output/ring.h"
#include "output/wave.h"
#include "output/wave_device_test.h"
#include "session/messages.h"
#include "session/platform.h"
#include "session/play.h"
#include "session/session.h"
#include "session/transport.h"
#include "support/support.h"

namespace play_test {

struct Box {
  int32_t code;
  std::string arg;
};

inline std::mutex box_lock;
inline std::vector<Box> boxes;

inline int32_t record_box(int32_t code, const char* arg, int32_t) {
  std::lock_guard<std::mutex> lock(box_lock);
  boxes.push_back({code, arg ? arg : ""});
  return session::ANSWER_OK;
}

inline std::vector<Box> boxes_shown() {
  std::lock_guard<std::mutex> lock(box_lock);
  return boxes;
}

using test::silent_layer2;

// Bytes one stereo 16-bit full-rate frame puts into the ring.
constexpr size_t STEREO_FRAME_BYTES = 1152 * 4;

// Polls pred every 2 ms for up to ms; returns its last value.
template <typename Pred>
bool wait_until(Pred pred, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

inline int count_of(const std::string& calls, char c) {
  int n = 0;
  for (char x : calls) n += x == c;
  return n;
}

// Waits until the session has ended by itself, and joins its thread: everything the thread did is
// then visible to the test.
inline bool wait_session_end(int ms = 5000) {
  bool ended = wait_until([] { return session::state.decoder_running.load() == 0; }, ms);
  if (ended) session::join_finished_play_thread();
  return ended;
}

// Plays blocks one at a time until the session has ended by itself.
inline bool play_out(int ms = 20000) {
  bool ended = wait_until(
      [] {
        output::test_device_play(1);
        return session::state.decoder_running.load() == 0;
      },
      ms);
  if (ended) session::join_finished_play_thread();
  return ended;
}

// Waits until the decoder is as far ahead as it can get: the wave thread has no free block left
// (26 of the pool's 32 are queued at the device after a priming of 6) and the ring is full. The
// decoder then stands about 58 blocks, 232 stereo frames, ahead of the listener.
inline bool wait_lead_full() {
  return wait_until([] {
    return output::wave.free_blocks.load() == 0 && output::test_device_record().queued > 0 &&
           output::ring.ring_fill.load() >= output::RING_UNITS;
  });
}

// The played bytes that a track of n stereo frames comes to: whole blocks, the last one padded.
inline size_t padded_length(size_t bytes) {
  return (bytes + output::BLOCK_BYTES - 1) / output::BLOCK_BYTES * output::BLOCK_BYTES;
}

class PlaySession : public ::testing::Test {
 protected:
  void SetUp() override {
    decoder::init_decoder_tables();
    output::wave_reset_state();
    // Short visualiser naps so that the wave thread refills the device promptly in tests.
    output::wave.wait_ms.store(2);
    session::cpu_family = 6;
    output::wave.cpu_family.store(6);
    output::test_device_clear();
    output::test_device_set_player(0);
    output::test_device_set_open_result(output::WAVE_OK);
    output::set_wave_device(output::test_wave_device());
    library::reset_playlist();
    session::options = session::OutputOptions{};
    session::options.rate_setting = 0;
    session::state.decoder_command.store(session::CMD_STOP);
    session::state.paused.store(0);
    session::state.play_requested.store(0);
    session::state.rate_shift = 0;
    session::play_hooks = session::PlayHooks{};
    {
      std::lock_guard<std::mutex> lock(box_lock);
      boxes.clear();
    }
    session::set_sink({nullptr, record_box});
  }

  void TearDown() override {
    // Let a paused or blocked session end, then wait for it.
    output::test_device_set_player(0);
    if (session::state.decoder_running.load()) {
      std::thread player([] { play_out(10000); });
      session::stop_play();
      player.join();
    }
    session::join_finished_play_thread();
    // The last wave thread may still be in its close.
    wait_until([] { return output::wave.wave_running.load() == 0; });
    session::set_sink({});
  }

  // Writes a fixture and puts it into the next playlist slot.
  std::string add_track(const std::string& name, const std::vector<uint8_t>& bytes) {
    std::string path = dir.file(name);
    test::write_file(path, bytes);
    EXPECT_GE(library::append_entry(path.c_str()), 0);
    return path;
  }

  test::TempDir dir;
};

}  // namespace play_test
