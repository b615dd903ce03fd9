// tovra-cli resample IN OUT --rate HZ [--bits 8|16] [--channels 1|2] [--quality Q]: the
// high-quality resampler from the command line. Bits and channels default to the input's (16 bits
// for inputs wider than that), the quality to 21 taps of the sinc. Ctrl+C cancels the job like the
// progress window's Cancel: the partial output is removed.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/tool_jobs.h"
#include "tools/resample.h"
#include "tools/wave.h"

namespace cli {

namespace {

constexpr int32_t DEFAULT_QUALITY = 21;
constexpr int32_t MIN_RATE = 2000;
constexpr int32_t MAX_RATE = 96000;

bool on_resample_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (msg == session::MSG_RESAMPLE_PROGRESS) {
    console.done.store(wparam);
    draw_progress(wparam, lparam);
    return true;
  }
  return msg == session::MSG_PROGRESS_STATUS;  // the result is the job's code
}

bool parse_number(const char* text, int32_t& value) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < -2147483647L || v > 2147483647L) return false;
  value = int32_t(v);
  return true;
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
    report(format::ERR_RATE_RANGE);
    return 2;
  }
  if ((bits != 0 && bits != 8 && bits != 16) || (channels != 0 && channels != 1 && channels != 2) || quality < 0 ||
      quality > tools::RESAMPLE_QUALITY_MAX) {
    std::fputs("tovra-cli resample: --bits is 8 or 16, --channels 1 or 2, --quality 0 to 102\n", stderr);
    return 2;
  }
  // The input is looked at first, so that a refusal can say what the file is and why.
  tools::WaveHeader header;
  int32_t probed = tools::probe_wave_file(in, header);
  if (probed == format::ERR_READ) {
    report(format::ERR_OPEN_INPUT, in);
    return 1;
  }
  if (probed != format::ERR_OK) {
    report_text(probed, session::wave_problem_message(probed, header));
    return 1;
  }
  // Wider inputs than 16 bits come out in 16, the widest the writer makes.
  if (bits == 0) bits = header.bits == 8 ? 8 : 16;
  if (channels == 0) channels = header.channels;

  console.on_message = on_resample_message;
  session::Job job;
  int32_t code = 0;
  int status = run_job(
      job, [&] { return session::start_resample(job, in, out, rate, bits, channels, quality); }, code);
  if (code == format::ERR_SAME_FILE) {
    report(code);
    return 2;
  }
  if (status == -1 || status == 1) {
    if (status == 1) code = job.code;
    report(code != 0 ? code : session::TEXT_OPEN_FAILED, out);
    return 1;
  }
  return status;
}

}  // namespace cli
