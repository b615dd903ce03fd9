// The play session: start_play, the per-track set-up and the frame loop of play_thread.
//
// How: start_play checks and opens on the main thread, then hands the open file to play_thread.
// The thread works one track at a time: choose the rate, variant and shaper, open the device at the
// first frame's rate, decode frames into the ring until the end of the stream or a stop, let the wave
// thread drain, and go on to the next entry by the repeat rules. Every wait on the wave thread is a
// 20 ms poll of wave_running; transport commands are taken between frames.
#include "session/play.h"

#include <strings.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "decoder/synth.h"

namespace session {

PlayHooks play_hooks;
std::atomic<int32_t> play_thread_handle{0};
std::atomic<int32_t> play_generation{0};

TrackRate track_rate(uint32_t rate_setting, int32_t mpeg_id, int32_t mpeg2_relief) {
  int32_t shift = int32_t(rate_setting & 3);
  if (mpeg_id == 0 && mpeg2_relief && shift != 0) {
    --shift;
    return {shift, (rate_setting & ~3u) | uint32_t(shift)};
  }
  return {shift, rate_setting};
}

SynthChoice choose_synth(uint32_t selector, int32_t mode, int32_t cpu_family, int32_t pentium_synth) {
  // Full-rate choice of selector 0: a processor below the Pentium class gets the cheaper variant
  // unless "Pentium" asks for the regular one.
  auto full_rate = [&]() -> SynthFn {
    if (cpu_family < 5 && !pentium_synth) return decoder::synth_fast;
    return mode == 3 ? decoder::synth_mono : decoder::synth_full;
  };
  switch (selector) {
    case 0:
      return {full_rate(), false};
    case 1:
    case 5:
      return {decoder::synth_half, false};
    case 2:
    case 6:
      return {decoder::synth_quarter, false};
    case 3:
      return {decoder::synth_fast, true};
    case 7:
      return {decoder::synth_overdrive, true};
    default:  // 4, and anything a hand-edited file puts above 7
      if (cpu_family >= 5) return {full_rate(), false};
      return {pentium_synth ? decoder::synth_fast : decoder::synth_overdrive, false};
  }
}

int32_t wave_wait_for(int32_t cpu_family, int32_t prior_dec, int32_t last_rate_shift, int32_t sixteen_bit) {
  if (cpu_family >= 6) return prior_dec ? 100 : 1000;
  if (cpu_family == 5) return prior_dec ? 100 : 500;
  if (prior_dec) return 0;
  return last_rate_shift == 0 && sixteen_bit ? 20 : 50;
}

int32_t position_count(int32_t frame, int32_t mode, int32_t mpeg_id, int32_t session_stereo, int32_t session_16bit,
                       int32_t rate_shift) {
  int32_t channels = mode == 3 ? 1 : 2;
  int32_t per_frame = channels * (mpeg_id ? 2 : 1);
  int32_t shift = (session_stereo ? 0 : 1) + (session_16bit ? 0 : 1) + rate_shift;
  return (frame * per_frame) >> shift;
}

bool is_url(const char* path) {
  return path && (strncasecmp(path, "http://", 7) == 0 || strncasecmp(path, "mms://", 6) == 0);
}

void preread_file(std::FILE* file) {
  long position = std::ftell(file);
  if (position < 0 || std::fseek(file, 0, SEEK_END) != 0) return;
  long end = std::ftell(file);
  std::fseek(file, position, SEEK_SET);
  if (end <= position) return;
  uint64_t bytes = uint64_t(end - position);
  long pages = sysconf(_SC_PHYS_PAGES), page_size = sysconf(_SC_PAGE_SIZE);
  if (pages > 0 && page_size > 0) {
    uint64_t quarter = uint64_t(pages) * uint64_t(page_size) / 4;
    if (bytes > quarter) bytes = quarter;
  }
  // A refused allocation only means the file is read as it plays.
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[bytes]);
  if (buffer) (void)!std::fread(buffer.get(), 1, bytes, file);
  std::fseek(file, position, SEEK_SET);
}

}  // namespace session
