// tovra-cli play [options] [FILE|LIST...]: plays the playlist through the sound device, with the
// transport on the keyboard when standard input is a terminal.
//
// The session is steered exactly as the window steers it: the Play command starts it, the keys call
// the same transport operations, and the elapsed time shown is display_seconds, the program's own
// estimate from the blocks the device has handed back.
#include <poll.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "cli/commands.h"
#include "cli/console.h"
#include "library/playlist.h"
#include "library/settings.h"
#include "output/wave.h"
#include "output/wave_device.h"
#include "session/messages.h"
#include "session/platform.h"
#include "session/play.h"
#include "session/session.h"
#include "session/stream.h"
#include "session/transport.h"

namespace cli {

namespace {

constexpr const char* usage_text =
    "usage: tovra-cli play [options] [FILE|LIST...]\n"
    "  --rate N        0 full, 1 half, 2 quarter, 3 the 1/8 position\n"
    "  --overdrive     cheaper synthesis on slow processors\n"
    "  --mono          fold stereo to one channel\n"
    "  --8bit          8-bit output\n"
    "  --device N      sound device number (-1 the default)\n"
    "  --repeat 0|1|2  stop at the list's end, wrap round, random\n"
    "  --no-emphasis   no de-emphasis\n"
    "  --hifi          the Hi-Fi treatment\n"
    "  --timing        report the time to the first block at the device and the processor use\n"
    "keys: space pause, left/right skip back/forward, n/p next/previous, 0-9 seek to tenths, q stop\n";

std::atomic<int32_t> stop_signal{0};
void on_signal(int) { stop_signal.store(1); }

using Clock = std::chrono::steady_clock;
Clock::time_point started;
// Milliseconds from the command's start to the first primed blocks running at the device, -1 before.
std::atomic<int64_t> first_block_ms{-1};

// The wave thread refreshes the title when it lets the device run after its priming.
void on_device_running(int32_t) {
  int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
  int64_t none = -1;
  first_block_ms.compare_exchange_strong(none, ms);
}

void report_timing() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  double cpu = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  double wall = std::chrono::duration<double>(Clock::now() - started).count();
  std::fprintf(stderr,
               "timing: first block at the device after %lld ms; processor %.3f s over %.3f s (%.2f %% of one core)\n",
               static_cast<long long>(first_block_ms.load()), cpu, wall, wall > 0 ? cpu * 100 / wall : 0.0);
}

bool parse_int(const char* text, int32_t lo, int32_t hi, int32_t& out) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (!text[0] || *end || v < lo || v > hi) return false;
  out = int32_t(v);
  return true;
}

bool is_list_file(const char* path) {
  library::PathParts parts = library::split_path(path);
  return strcasecmp(parts.ext, ".m3u") == 0 || strncasecmp(parts.ext, ".pl", 3) == 0;
}

// Files go into the list with absolute paths, so that a list file's folder (made current while it
// is read, for its relative entries) does not change what later arguments name.
bool add_argument(const char* arg) {
  char* resolved = realpath(arg, nullptr);
  std::string path = resolved ? resolved : arg;
  std::free(resolved);
  if (is_list_file(path.c_str())) {
    library::PathParts parts = library::split_path(path.c_str());
    std::string folder(path.c_str(), parts.folder_len);
    if (!folder.empty() && chdir(folder.c_str()) != 0) return false;
    library::read_playlist(path.c_str(), 1);
    return true;
  }
  return library::append_entry(path.c_str()) >= 0;
}

// The play thread names each track as it starts.
void print_track() {
  int32_t index = library::playlist.current_entry.load(std::memory_order_relaxed);
  const char* path = library::slot_used(index) ? library::playlist.entries[index].path : "";
  if (isatty(STDERR_FILENO)) std::fputs("\r\033[K", stderr);  // over the time line
  std::fprintf(stderr, "%d. %s (Layer %d, %d Hz, %d kbit/s)\n", index + 1, path, session::stream.layer,
               session::stream.sample_rate, session::stream.bitrate_kbps);
}

struct Terminal {
  bool raw = false;
  termios saved{};
  void enter() {
    if (!isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &saved) != 0) return;
    termios t = saved;
    t.c_lflag &= tcflag_t(~(ICANON | ECHO));
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    raw = tcsetattr(STDIN_FILENO, TCSANOW, &t) == 0;
  }
  void leave() {
    if (raw) tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    raw = false;
  }
};

// Reads one key if one is waiting: a character, or 'L'/'R' standing for the arrow keys.
int read_key(int timeout_ms) {
  pollfd p{STDIN_FILENO, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return 0;
  unsigned char c[8];
  ssize_t n = read(STDIN_FILENO, c, sizeof c);
  if (n <= 0) return 0;
  if (n >= 3 && c[0] == 0x1B && c[1] == '[') return c[2] == 'D' ? 'L' : c[2] == 'C' ? 'R' : 0;
  return c[0];
}

void show_time() {
  uint32_t s = output::wave.display_seconds.load(std::memory_order_relaxed);
  std::fprintf(stderr, "\r%u:%02u%s", s / 60, s % 60, session::state.paused.load() ? " (paused)" : "         ");
  std::fflush(stderr);
}

}  // namespace

int cmd_play(int argc, char** argv) {
  started = Clock::now();
  library::reset_settings();
  library::reset_playlist();
  session::OutputOptions& o = session::options;
  int32_t rate = 0, device = output::WAVE_MAPPER;
  bool overdrive = false, timing = false;
  int files = 0;
  for (int i = 0; i < argc; ++i) {
    const char* a = argv[i];
    bool has_value = i + 1 < argc;
    if (std::strcmp(a, "--rate") == 0 && has_value && parse_int(argv[i + 1], 0, 3, rate)) {
      ++i;
    } else if (std::strcmp(a, "--overdrive") == 0) {
      overdrive = true;
    } else if (std::strcmp(a, "--mono") == 0) {
      o.stereo = 0;
    } else if (std::strcmp(a, "--8bit") == 0) {
      o.sixteen_bit = 0;
    } else if (std::strcmp(a, "--device") == 0 && has_value && parse_int(argv[i + 1], -1, 255, device)) {
      ++i;
    } else if (std::strcmp(a, "--repeat") == 0 && has_value && parse_int(argv[i + 1], 0, 2, o.repeat)) {
      ++i;
    } else if (std::strcmp(a, "--no-emphasis") == 0) {
      o.emphasis = 0;
    } else if (std::strcmp(a, "--hifi") == 0) {
      o.hi_fi = 1;
    } else if (std::strcmp(a, "--timing") == 0) {
      timing = true;
    } else if (std::strcmp(a, "--help") == 0 || std::strcmp(a, "-h") == 0) {
      std::fputs(usage_text, stdout);
      return 0;
    } else if (a[0] == '-' && a[1] == '-') {
      std::fprintf(stderr, "tovra-cli play: bad option '%s'\n", a);
      std::fputs(usage_text, stderr);
      return 2;
    } else {
      if (!add_argument(a)) std::fprintf(stderr, "tovra-cli play: '%s' not added\n", a);
      ++files;
    }
  }
  // Without a file: the demo playlist the build made.
  if (files == 0 && !add_argument(demo_playlist_path()))
    std::fprintf(stderr, "tovra-cli play: the demo playlist '%s' is missing\n", demo_playlist_path());
  if (!library::slot_used(0)) {
    std::fputs("tovra-cli play: nothing to play\n", stderr);
    return 1;
  }
  // Overdrive is an explicit choice here, off unless asked for; on a Pentium-class processor or
  // better it changes nothing at the full rate anyway.
  o.rate_setting = uint32_t(rate) | (overdrive ? 4u : 0u);

  const output::WaveDeviceOps* ops = nullptr;
#ifdef TOVRA_HAVE_SDL_DEVICE
  ops = output::sdl_wave_device();
#endif
  if (!ops) {
    std::fputs("tovra-cli play: this build has no sound device\n", stderr);
    return 1;
  }
  output::set_wave_device(ops);
  output::wave.cpu_family.store(session::cpu_family);
  output::wave.wave_out_device.store(device);
  output::wave.volume_level.store(library::settings.volume_level);
  output::wave.pan_level.store(library::settings.pan_level);
  output::wave.render.store(0);  // no visualiser to step
  session::play_hooks.title_new_track = print_track;
  if (timing) output::wave_hooks.refresh_title = on_device_running;

  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  Terminal terminal;
  terminal.enter();
  const bool interactive = terminal.raw;
  bool user_stopped = false;

  library::playlist.current_entry.store(0);
  session::play_command(session::START_NEW_TITLE);
  while (session::state.decoder_running.load()) {
    if (stop_signal.load()) {
      session::stop_command();
      user_stopped = true;
      break;
    }
    if (!interactive) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    show_time();
    int key = read_key(100);
    if (key == 'q' || key == 'Q') {
      session::stop_command();
      user_stopped = true;
    } else if (key == ' ') {
      session::pause_command();
    } else if (key == 'L') {
      session::seek_back();
    } else if (key == 'R') {
      session::seek_forward();
    } else if (key == 'n' || key == 'N') {
      session::next_command();
    } else if (key == 'p' || key == 'P') {
      session::previous_command();
    } else if (key >= '0' && key <= '9') {
      // A tenth of the track as a pixel of the seek bar, rounded up so that the bar's two integer
      // divisions land on the tenth itself.
      session::seek_percent(((key - '0') * session::SEEK_BAR_PIXELS + 9) / 10);
    }
  }
  terminal.leave();
  if (interactive) std::fputs("\n", stderr);
  session::stop_play();  // a session that ended by itself: only joins its thread
  if (timing) report_timing();
  // A refused start or device, a decode failure, a URL: each said so in a box.
  return user_stopped || console.boxes.load() == 0 ? 0 : 1;
}

}  // namespace cli
