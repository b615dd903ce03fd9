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

inline void put_le(std::vector<uint8_t>& out, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
inline void put_id(std::vector<uint8_t>& out, const char* id) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(id[i]));
}

inline uint32_t get_le(const std::vector<uint8_t>& b, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = 0; i < bytes; ++i) v |= uint32_t(b[at + i]) << (8 * i);
  return v;
}

// The bytes of a "fmt " chunk.
inline std::vector<uint8_t> fmt_chunk(int32_t rate, int32_t bits, int32_t channels, uint32_t size = 16) {
  std::vector<uint8_t> c;
  put_id(c, "fmt ");
  put_le(c, size, 4);
  put_le(c, 1, 2);
  put_le(c, uint32_t(channels), 2);
  put_le(c, uint32_t(rate), 4);
  put_le(c, uint32_t(rate * bits * channels / 8), 4);
  put_le(c, uint32_t(bits * channels / 8), 2);
  put_le(c, uint32_t(bits), 2);
  c.resize(8 + size, 0);
  return c;
}

// A canonical PCM WAVE file of interleaved 16-bit values; 8-bit files store (v >> 8) + 128.
inline std::vector<uint8_t> wave_bytes(int32_t rate, int32_t bits, int32_t channels, const std::vector<int16_t>& v) {
  std::vector<uint8_t> data;
  for (int16_t s : v) {
    if (bits == 16)
      put_le(data, uint16_t(s), 2);
    else
      data.push_back(uint8_t((s >> 8) + 128));
  }
  std::vector<uint8_t> out;
  put_id(out, "RIFF");
  put_le(out, uint32_t(36 + data.size()), 4);
  put_id(out, "WAVE");
  std::vector<uint8_t> fmt = fmt_chunk(rate, bits, channels);
  out.insert(out.end(), fmt.begin(), fmt.end());
  put_id(out, "data");
  put_le(out, uint32_t(data.size()), 4);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

inline void write_wave(const std::string& path, int32_t rate, int32_t bits, int32_t channels,
                       const std::vector<int16_t>& v) {
  test::write_file(path, wave_bytes(rate, bits, channels, v));
}

// Deterministic noise, printed seed-free: the same values every run.
inline std::vector<int16_t> noise(size_t count, uint32_t seed, int32_t amplitude = 20000) {
  std::vector<int16_t> v(count);
  uint32_t x = seed;
  for (size_t i = 0; i < count; ++i) {
    x = x * 1664525u + 1013904223u;
    v[i] = int16_t(int32_t(x >> 16) % (2 * amplitude + 1) - amplitude);
  }
  return v;
}

struct WaveFacts {
  int32_t rate = 0, bits = 0, channels = 0;
  std::vector<uint8_t> data;
};

// Reads a file the tools wrote and checks that its 44-byte header matches the bytes behind it.
inline WaveFacts check_written_wave(const std::string& path) {
  WaveFacts f;
  std::vector<uint8_t> b = test::read_file(path);
  EXPECT_GE(b.size(), 44u) << path;
  if (b.size() < 44) return f;
  EXPECT_EQ(0, std::memcmp(b.data(), "RIFF", 4));
  EXPECT_EQ(0, std::memcmp(b.data() + 8, "WAVEfmt ", 8));
  EXPECT_EQ(0, std::memcmp(b.data() + 36, "data", 4));
  EXPECT_EQ(get_le(b, 4, 4), b.size() - 8) << "RIFF size of " << path;
  EXPECT_EQ(get_le(b, 40, 4), b.size() - 44) << "data size of " << path;
  EXPECT_EQ(get_le(b, 16, 4), 16u);
  EXPECT_EQ(get_le(b, 20, 2), 1u);
  f.channels = int32_t(get_le(b, 22, 2));
  f.rate = int32_t(get_le(b, 24, 4));
  f.bits = int32_t(get_le(b, 34, 2));
  uint32_t align = uint32_t(f.bits * f.channels / 8);
  EXPECT_EQ(get_le(b, 32, 2), align);
  EXPECT_EQ(get_le(b, 28, 4), uint32_t(f.rate) * align);
  EXPECT_EQ((b.size() - 44) % (align ? align : 1), 0u);
  f.data.assign(b.begin() + 44, b.end());
  return f;
}

inline std::vector<int16_t> as_pcm16(const std::vector<uint8_t>& data) {
  std::vector<int16_t> v(data.size() / 2);
  for (size_t i = 0; i < v.size(); ++i) v[i] = int16_t(data[2 * i] | data[2 * i + 1] << 8);
  return v;
}

// Records the messages of a job in place of the windows; can press Cancel when a given message
// arrives (on the job's thread, before the job goes on: a deterministic cancel).
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

inline void record_message(int32_t window, int32_t msg, int64_t wparam, int64_t lparam, bool) {
  {
    std::lock_guard<std::mutex> hold(recorder.lock);
    recorder.messages.push_back({window, msg, wparam, lparam});
  }
  if (msg == recorder.cancel_on.load()) session::state.file_job_cancel.store(1);
}

inline void install_recorder() {
  std::lock_guard<std::mutex> hold(recorder.lock);
  recorder.messages.clear();
  recorder.cancel_on.store(0);
  session::set_sink({record_message, nullptr});
  session::set_window_open(session::WINDOW_PROGRESS, true);
}

inline std::vector<Message> recorded() {
  std::lock_guard<std::mutex> hold(recorder.lock);
  return recorder.messages;
}

inline std::vector<Message> recorded(int32_t msg) {
  std::vector<Message> out;
  for (const Message& m : recorded())
    if (m.msg == msg) out.push_back(m);
  return out;
}

// Every test starts with no job running and the default options.
class ToolsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    session::state.file_job_cancel.store(1);
    session::options = session::OutputOptions{};
    install_recorder();
  }
  test::TempDir dir;
};

}  // namespace tools_test
