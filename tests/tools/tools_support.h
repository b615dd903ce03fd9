// Helpers of the file tools' tests: WAVE files made in memory, a message recorder standing in for
// the progress window, and a check that a written WAVE header tells the truth about its file.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "session/messages.h"
#include "session/session.h"
#include "support/support.h"

namespace tools_test {

using Bytes = std::vector<uint8_t>;

inline void put_le(Bytes& out, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
inline void put_id(Bytes& out, const char* id) { out.insert(out.end(), id, id + 4); }
inline uint32_t get_le(const Bytes& b, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = 0; i < bytes; ++i) v |= uint32_t(b[at + i]) << (8 * i);
  return v;
}

// A chunk of size bytes of which present are there (0x11 each).
inline Bytes chunk(const char* id, uint32_t size, size_t present) {
  Bytes c;
  put_id(c, id);
  put_le(c, size, 4);
  c.resize(8 + present, 0x11);
  return c;
}
inline Bytes fmt_chunk(int32_t rate, int32_t bits, int32_t channels, uint32_t size = 16) {
  Bytes c = chunk("fmt ", size, 0);
  for (auto [v, n] : {std::pair{1, 2},
                      {channels, 2},
                      {rate, 4},
                      {rate * bits * channels / 8, 4},
                      {bits * channels / 8, 2},
                      {bits, 2}})
    put_le(c, uint32_t(v), n);
  c.resize(8 + size, 0);
  return c;
}
inline Bytes riff(const char* riff_id, const char* wave_id, const std::vector<Bytes>& chunks) {
  Bytes out;
  put_id(out, riff_id);
  put_le(out, 0, 4);
  put_id(out, wave_id);
  for (const Bytes& c : chunks) out.insert(out.end(), c.begin(), c.end());
  return out;
}

inline void set_riff_size(Bytes& b, size_t size) {
  for (int i = 0; i < 4; ++i) b[4 + i] = uint8_t(size >> (8 * i));
}

// A canonical PCM WAVE file of interleaved 16-bit values; 8-bit files store (v >> 8) + 128.
inline Bytes wave_bytes(int32_t rate, int32_t bits, int32_t channels, const std::vector<int16_t>& v) {
  Bytes data;
  for (int16_t s : v) bits == 16 ? put_le(data, uint16_t(s), 2) : data.push_back(uint8_t((s >> 8) + 128));
  Bytes out = riff("RIFF", "WAVE", {fmt_chunk(rate, bits, channels), chunk("data", uint32_t(data.size()), 0)});
  set_riff_size(out, 36 + data.size());
  out.insert(out.end(), data.begin(), data.end());
  return out;
}
inline void write_wave(const std::string& path, int32_t rate, int32_t bits, int32_t channels,
                       const std::vector<int16_t>& v) {
  test::write_file(path, wave_bytes(rate, bits, channels, v));
}

// Deterministic noise: the same values every run.
inline std::vector<int16_t> noise(size_t count, uint32_t seed, int32_t amplitude = 20000) {
  std::vector<int16_t> v(count);
  for (size_t i = 0; i < count; ++i) {
    seed = seed * 1664525u + 1013904223u;
    v[i] = int16_t(int32_t(seed >> 16) % (2 * amplitude + 1) - amplitude);
  }
  return v;
}

struct WaveFacts {
  int32_t rate = 0, bits = 0, channels = 0;
  Bytes data;
};

// Reads a file the tools wrote and checks that its 44-byte header matches the bytes behind it.
inline WaveFacts check_written_wave(const std::string& path) {
  WaveFacts f;
  Bytes b = test::read_file(path);
  EXPECT_GE(b.size(), 44u) << path;
  if (b.size() < 44) return f;
  f.channels = int32_t(get_le(b, 22, 2));
  f.rate = int32_t(get_le(b, 24, 4));
  f.bits = int32_t(get_le(b, 34, 2));
  const uint32_t align = uint32_t(f.bits * f.channels / 8);
  Bytes head = riff("RIFF", "WAVE", {fmt_chunk(f.rate, f.bits, f.channels), chunk("data", uint32_t(b.size() - 44), 0)});
  set_riff_size(head, b.size() - 8);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 44), head) << path;
  EXPECT_EQ((b.size() - 44) % (align ? align : 1), 0u);
  f.data.assign(b.begin() + 44, b.end());
  return f;
}

inline std::vector<int16_t> as_pcm16(const Bytes& data) {
  std::vector<int16_t> v(data.size() / 2);
  for (size_t i = 0; i < v.size(); ++i) v[i] = int16_t(data[2 * i] | data[2 * i + 1] << 8);
  return v;
}

// Records a job's messages in place of the windows; presses Cancel when a given message arrives
// (on the job's thread, before the job goes on: a deterministic cancel).
struct Message {
  int32_t window, msg;
  int64_t wparam, lparam;
};
struct Recorder {
  std::mutex lock;
  std::vector<Message> messages;
  std::atomic<int32_t> cancel_on{0};
};
inline Recorder recorder;
// The job every tool test runs on.
inline session::Job tool_job;

inline void install_recorder() {
  std::lock_guard<std::mutex> hold(recorder.lock);
  recorder.messages.clear();
  recorder.cancel_on.store(0);
  session::set_sink({[](int32_t window, int32_t msg, int64_t wparam, int64_t lparam, bool) {
                       {
                         std::lock_guard<std::mutex> hold(recorder.lock);
                         recorder.messages.push_back({window, msg, wparam, lparam});
                       }
                       if (msg == recorder.cancel_on.load()) tool_job.cancel.store(1);
                     },
                     nullptr});
  session::set_window_open(session::WINDOW_PROGRESS, true);
}

inline std::vector<Message> recorded(int32_t msg) {
  std::lock_guard<std::mutex> hold(recorder.lock);
  std::vector<Message> out;
  for (const Message& m : recorder.messages)
    if (m.msg == msg) out.push_back(m);
  return out;
}

// Every test starts with no job running and the default options.
class ToolsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    session::options = session::OutputOptions{};
    install_recorder();
  }
  test::TempDir dir;
};

}  // namespace tools_test
