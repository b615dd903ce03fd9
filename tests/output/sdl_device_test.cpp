// The SDL2 device through SDL's disk driver: what the wave thread plays must appear in the capture
// byte for byte, the drain's padding included, with only silence around it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "output/feed.h"
#include "output/ring.h"
#include "output/wave.h"
#include "session/session.h"
#include "support/support.h"

namespace {

using namespace output;

bool wait_until(bool (*done)(), int32_t ms) {
  for (int32_t waited = 0; waited < ms && !done(); ++waited) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}

TEST(SdlDevice, DiskCaptureHoldsExactlyWhatWasPlayed) {
#ifndef TOVRA_HAVE_SDL_DEVICE
  GTEST_SKIP() << "built without the SDL2 device";
#else
  test::TempDir dir;
  const std::string capture = dir.file("capture.raw");
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", capture.c_str(), 1);
  setenv("SDL_DISKAUDIODELAY", "0", 1);

  wave_reset_state();
  set_wave_device(sdl_wave_device());
  ring_allocate();
  session::state.session_stereo = 1;
  session::state.session_16bit = 1;
  session::state.rate_shift = 0;
  session::state.paused = 0;
  session::state.decoder_command = session::CMD_RUN;
  wave.wave_wait_ms = 5;

  char name[64] = {};
  ASSERT_EQ(sdl_wave_device()->device_name(WAVE_MAPPER, name, sizeof name), WAVE_OK);
  EXPECT_GE(sdl_wave_device()->device_count(), 1);

  const int32_t opened = wave_open(44100, true);
  if (opened == WAVE_ERR_NO_DRIVER) GTEST_SKIP() << "SDL audio could not start";
  ASSERT_EQ(opened, 0);
  uint32_t pushed = 0;
  const uint32_t bytes = 2 * BLOCK_BYTES + 40 * UNIT_BYTES;
  feed::push(bytes, pushed);
  wave.wave_command = WAVE_DRAIN;
  wave.wave_event.set();
  ASSERT_TRUE(wait_until([] { return wave.wave_running.load() == 0; }, 20000));
  set_wave_device(nullptr);

  const std::vector<uint8_t> got = test::read_file(capture);
  const std::vector<uint8_t> want = feed::with_pad(feed::stream_bytes(0, bytes));
  auto at = std::search(got.begin(), got.end(), want.begin(), want.begin() + 64);
  ASSERT_NE(at, got.end()) << "capture of " << got.size() << " bytes lacks the stream";
  const size_t start = size_t(at - got.begin());
  ASSERT_GE(got.size() - start, want.size());
  EXPECT_TRUE(std::equal(want.begin(), want.end(), got.begin() + start));
  EXPECT_TRUE(std::all_of(got.begin(), got.begin() + start, [](uint8_t b) { return b == 0; }));
  EXPECT_TRUE(std::all_of(got.begin() + start + want.size(), got.end(), [](uint8_t b) { return b == 0; }));
  std::printf("capture: %zu bytes, stream at %zu\n", got.size(), start);
#endif
}

}  // namespace
