// tovra-cli resample IN OUT --rate HZ [--bits 8|16] [--channels 1|2] [--quality Q]: the
// high-quality resampler from the command line. Bits and channels default to the input's (16 bits
// for inputs wider than that), the quality to 21 taps of the sinc. Ctrl+C cancels the job like the progress window's
// Cancel: the partial output is removed.
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/messages.h"
#include "session/session.h"
#include "tools/resample.h"
#include "tools/wave.h"

namespace cli {

namespace {

constexpr int32_t DEFAULT_QUALITY = 21;
constexpr int32_t MIN_RATE = 2000;
constexpr int32_t MAX_RATE = 96000;

std::atomic<int32_t> job_result{-1};
bool on_resample_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (msg == session::MSG_RESAMPLE_PROGRESS) {
    console.done.store(wparam);
    draw_progress(wparam, lparam);
    return true;
  }
  if (msg == session::MSG_PROGRESS_STATUS) {
    job_result.store(int32_t(wparam));
    return true;
  }
  return false;
}

bool parse_number(const char* text, int32_t& value) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < -2147483647L || v > 2147483647L) return false;
  value = int32_t(v);
  return true;
}

bool same_file(const char* a, const char* b) {
  struct stat sa, sb;
  if (stat(a, &sa) != 0 || stat(b, &sb) != 0) return std::strcmp(a, b) == 0;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

constexpr const char* USAGE =
    "usage: tovra-cli resample IN OUT --rate HZ [--bits 8|16] [--channels 1|2] [--quality Q]\n";

}  // namespace

int cmd_resample(int argc, char** argv) {
  const char* in = nullptr;
  const char* out = nullptr;
  int32_t rate = 0, bits = 0, channels = 0, quality = DEFAULT_QUALITY;
  for (int i = 0; i < argc; ++i) {
    int32_t* option = std::strcmp(argv[i], "--rate") == 0       ? &rate
                      : std::strcmp(argv[i], "--bits") == 0     ? &bits
                      : std::strcmp(argv[i], "--channels") == 0 ? &channels
                      : std::strcmp(argv[i], "--quality") == 0  ? &quality
                                                                : nullptr;
    if (option) {
      if (i + 1 >= argc || !parse_number(argv[i + 1], *option)) {
        std::fprintf(stderr, "tovra-cli resample: %s needs a number\n", argv[i]);
        return 2;
      }
      ++i;
    } else if (!in) {
      in = argv[i];
    } else if (!out) {
      out = argv[i];
    } else {
      std::fprintf(stderr, "tovra-cli resample: unexpected argument '%s'\n", argv[i]);
      return 2;
    }
  }
  if (!in || !out || rate == 0) {
    std::fputs(USAGE, stderr);
    return 2;
  }
  if (rate < MIN_RATE || rate > MAX_RATE) {
    std::fprintf(stderr, "%s: サンプルレートは2000～96000で設定してください\n", session::CAPTION);
    return 2;
  }
  if ((bits != 0 && bits != 8 && bits != 16) || (channels != 0 && channels != 1 && channels != 2) || quality < 0 ||
      quality > tools::RESAMPLE_QUALITY_MAX) {
    std::fputs("tovra-cli resample: --bits is 8 or 16, --channels 1 or 2, --quality 0 to 102\n", stderr);
    return 2;
  }
  if (same_file(in, out)) {
    std::fprintf(stderr, "%s: 入力と出力で同じ名前は使えません\n", session::CAPTION);
    return 2;
  }
  install_console(0);
  // The input is looked at first, so that a refusal can say what the file is and why.
  tools::WaveHeader header;
  int32_t probed = tools::probe_wave_file(in, header);
  if (probed == tools::WAVE_READ_ERROR) {
    std::fprintf(stderr, "%s: '%s'が開けない\n", session::CAPTION, in);
    return 1;
  }
  if (probed != tools::WAVE_OK) {
    char text[256];
    session::message_box(session::CAPTION_ERROR, tools::wave_problem_text(probed, header, text, sizeof text));
    return 1;
  }
  // Wider inputs than 16 bits come out in 16, the widest the writer makes.
  if (bits == 0) bits = header.bits == 8 ? 8 : 16;
  if (channels == 0) channels = header.channels;

  console.on_message = on_resample_message;
  job_result.store(-1);
  cancel_job_on_interrupt(true);
  int32_t code = tools::start_resample(in, out, rate, bits, channels, quality);
  if (code != tools::WAVE_OK) {
    cancel_job_on_interrupt(false);
    const char* text = tools::wave_code_text(code);
    session::message_box(session::CAPTION_ERROR, text ? text : "ファイルオープンに失敗");
    return 1;
  }
  tools::wait_resample();
  cancel_job_on_interrupt(false);
  finish_progress();
  if (interrupted()) return 130;
  int32_t result = job_result.load();
  if (result != tools::WAVE_OK) {
    const char* text = tools::wave_code_text(result);
    session::message_box(session::CAPTION_ERROR, text ? text : "error");
    return 1;
  }
  return 0;
}

}  // namespace cli
