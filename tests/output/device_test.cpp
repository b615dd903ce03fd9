// The device layer: the gain both devices apply, and the SDL2 device's block protocol (unprepare
// says "still playing" while a block is queued, pause holds blocks, reset hands them back, a stale
// handle is refused) on SDL's disk driver.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "output/wave_device.h"
#include "support/support.h"

namespace {

using namespace output;

TEST(Gain, ScalesEachSideAndLeavesUnityExact) {
  WaveFormat stereo16{8000, 2, 16, 4, 32000};
  int16_t s[4] = {-32768, 32767, 1000, -1000};
  std::vector<uint8_t> bytes(8);
  std::memcpy(bytes.data(), s, 8);
  const std::vector<uint8_t> before = bytes;
  apply_gain(bytes.data(), 8, stereo16, 0xFFFFFFFF);
  EXPECT_EQ(bytes, before);
  apply_gain(bytes.data(), 8, stereo16, 0x0000FFFF);  // right side silent
  std::memcpy(s, bytes.data(), 8);
  EXPECT_EQ(s[0], -32768);
  EXPECT_EQ(s[1], 0);
  EXPECT_EQ(s[2], 1000);
  EXPECT_EQ(s[3], 0);

  // 8 bit is offset by 128; one channel takes the low (left) level only.
  WaveFormat mono8{8000, 1, 8, 1, 8000};
  uint8_t u[4] = {0, 255, 128, 192};
  apply_gain(u, 4, mono8, 0xFFFF8000);
  EXPECT_EQ(u[0], 64);   // -128 halved
  EXPECT_EQ(u[1], 191);  // 127 halved, towards zero
  EXPECT_EQ(u[2], 128);
  EXPECT_EQ(u[3], 160);
}

#ifdef TOVRA_HAVE_SDL_DEVICE
std::atomic<int32_t> done_count{0};
std::atomic<bool> done_elsewhere{false};
std::thread::id test_thread;

void on_done(int32_t msg, WaveBlock*, uintptr_t user) {
  if (msg != WOM_DONE || user != 77) return;
  if (std::this_thread::get_id() != test_thread) done_elsewhere = true;
  ++done_count;
}

TEST(SdlDevice, BlockProtocol) {
  test::TempDir dir;
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", dir.file("protocol.raw").c_str(), 1);
  setenv("SDL_DISKAUDIODELAY", "0", 1);
  const WaveDeviceOps* ops = sdl_wave_device();
  test_thread = std::this_thread::get_id();

  WaveHandle h = 0;
  WaveFormat format{22050, 1, 16, 2, 44100};
  const int32_t opened = ops->open(&h, WAVE_MAPPER, format, on_done, 77);
  if (opened == WAVE_ERR_NO_DRIVER) GTEST_SKIP() << "SDL audio could not start";
  ASSERT_EQ(opened, WAVE_OK);

  std::vector<uint8_t> data(3 * 4096, 1);
  WaveBlock blocks[3];
  for (int i = 0; i < 3; ++i) {
    blocks[i].data = data.data() + i * 4096;
    blocks[i].length = 4096;
  }
  EXPECT_EQ(ops->write(h, &blocks[0]), WAVE_ERR_UNPREPARED);
  for (WaveBlock& b : blocks) ASSERT_EQ(ops->prepare(h, &b), WAVE_OK);

  // Paused: written blocks stay queued.
  ASSERT_EQ(ops->pause(h), WAVE_OK);
  ASSERT_EQ(ops->write(h, &blocks[0]), WAVE_OK);
  ASSERT_EQ(ops->write(h, &blocks[1]), WAVE_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(done_count.load(), 0);
  EXPECT_EQ(ops->unprepare(h, &blocks[0]), WAVE_ERR_STILL_PLAYING);
  EXPECT_EQ(ops->close(h), WAVE_ERR_STILL_PLAYING);

  // Reset hands both back, each with its callback.
  ASSERT_EQ(ops->reset(h), WAVE_OK);
  EXPECT_EQ(done_count.load(), 2);
  EXPECT_EQ(ops->unprepare(h, &blocks[0]), WAVE_OK);
  ASSERT_EQ(ops->prepare(h, &blocks[0]), WAVE_OK);

  // Running: the device plays the block and reports it from its own thread.
  ASSERT_EQ(ops->restart(h), WAVE_OK);
  ASSERT_EQ(ops->write(h, &blocks[2]), WAVE_OK);
  for (int i = 0; i < 5000 && done_count.load() < 3; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(done_count.load(), 3);
  EXPECT_TRUE(done_elsewhere.load());
  EXPECT_EQ(ops->unprepare(h, &blocks[2]), WAVE_OK);

  // The volume word outlives the device.
  ASSERT_EQ(ops->set_volume(h, 0x12345678), WAVE_OK);
  ASSERT_EQ(ops->close(h), WAVE_OK);
  EXPECT_EQ(ops->pause(h), WAVE_ERR_INVALID_HANDLE);
  ASSERT_EQ(ops->open(&h, WAVE_MAPPER, format, on_done, 77), WAVE_OK);
  uint32_t volume = 0;
  EXPECT_EQ(ops->get_volume(h, &volume), WAVE_OK);
  EXPECT_EQ(volume, 0x12345678u);
  ASSERT_EQ(ops->set_volume(h, 0xFFFFFFFF), WAVE_OK);
  EXPECT_EQ(ops->close(h), WAVE_OK);
  EXPECT_EQ(ops->open(&h, 999, format, on_done, 77), WAVE_ERR_BAD_DEVICE_ID);
}
#endif

}  // namespace
