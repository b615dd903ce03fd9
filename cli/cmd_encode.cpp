// tovra-cli encode IN.wav OUT [options]: the MPEG audio encoder, Layers I, II and III, from the command
// line. The job runs on the job runner with a progress bar; Ctrl+C cancels it like the progress
// window's Cancel, and the partial output is removed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/console.h"
#include "encoder/job.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/tool_jobs.h"

namespace cli {

namespace {

constexpr const char* USAGE =
    "usage: tovra-cli encode IN.wav OUT [--layer 1|2|3] [--bitrate KBPS] [--mode stereo|joint|mono]\n"
    "                        [--model 1|2] [--emphasis none|50/15|ccitt] [--crc] [--private]\n"
    "                        [--copyright] [--original] [--wave-header]\n"
    "  Bit rates (kbit/s): Layer I 32-448 (MPEG-1), 32-256 (16-24 kHz); Layer II 32-384 (MPEG-1),\n"
    "  8-160 (16-24 kHz); Layer III 32-320 (MPEG-1), 8-160 (16-24 kHz); Layer III always uses model 2.\n"
    "  Default: Layer II, 192 kbit/s (MPEG-1) or 96 (16-24 kHz), stereo, model 1.\n";

bool on_encode_message(int32_t msg, int64_t wparam, int64_t lparam) {
  if (msg != session::MSG_PROGRESS_ENCODE) return false;
  console.done.store(lparam - wparam);
  draw_progress(lparam - wparam, lparam);
  return true;
}

int fail(const char* text) {
  std::fprintf(stderr, "tovra-cli encode: %s\n", text);
  return 2;
}

}  // namespace

int cmd_encode(int argc, char** argv) {
  const char* in = nullptr;
  const char* out = nullptr;
  encoder::EncoderParams p;
  int32_t kbps = 0;
  bool wave_header = false;
  for (int i = 0; i < argc; ++i) {
    const char* a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    if (std::strcmp(a, "--help") == 0 || std::strcmp(a, "-h") == 0) {
      std::fputs(USAGE, stdout);
      return 0;
    }
    bool takes_value = std::strcmp(a, "--layer") == 0 || std::strcmp(a, "--bitrate") == 0 ||
                       std::strcmp(a, "--mode") == 0 || std::strcmp(a, "--model") == 0 ||
                       std::strcmp(a, "--emphasis") == 0;
    if (takes_value && !v) return fail((std::string(a) + " needs a value").c_str());
    if (std::strcmp(a, "--layer") == 0) {
      if (std::strcmp(v, "1") != 0 && std::strcmp(v, "2") != 0 && std::strcmp(v, "3") != 0)
        return fail("--layer is 1, 2 or 3");
      p.layer = std::atoi(v);
    } else if (std::strcmp(a, "--bitrate") == 0) {
      kbps = std::atoi(v);
      if (kbps <= 0) return fail("--bitrate needs kbit/s, for example 192");
    } else if (std::strcmp(a, "--mode") == 0) {
      p.mode = std::strcmp(v, "stereo") == 0  ? 0
               : std::strcmp(v, "joint") == 0 ? 1
               : std::strcmp(v, "mono") == 0  ? 3
                                              : -1;
      if (p.mode < 0) return fail("--mode is stereo, joint or mono");
    } else if (std::strcmp(a, "--model") == 0) {
      if (std::strcmp(v, "1") != 0 && std::strcmp(v, "2") != 0) return fail("--model is 1 or 2");
      p.psy_model = std::atoi(v);
    } else if (std::strcmp(a, "--emphasis") == 0) {
      p.emphasis = std::strcmp(v, "none") == 0    ? 0
                   : std::strcmp(v, "50/15") == 0 ? 1
                   : std::strcmp(v, "ccitt") == 0 ? 2
                                                  : -1;
      if (p.emphasis < 0) return fail("--emphasis is none, 50/15 or ccitt");
    } else if (std::strcmp(a, "--crc") == 0) {
      p.error_protection = 1;
    } else if (std::strcmp(a, "--private") == 0) {
      p.extension = 1;
    } else if (std::strcmp(a, "--copyright") == 0) {
      p.copyright = 1;
    } else if (std::strcmp(a, "--original") == 0) {
      p.original = 1;
    } else if (std::strcmp(a, "--wave-header") == 0) {
      wave_header = true;
    } else if (a[0] == '-' && a[1] == '-') {
      return fail((std::string("unknown option ") + a).c_str());
    } else if (!in) {
      in = a;
    } else if (!out) {
      out = a;
    } else {
      return fail((std::string("unexpected argument ") + a).c_str());
    }
    if (takes_value) ++i;
  }
  if (!in || !out) {
    std::fputs(USAGE, stderr);
    return 2;
  }
  console.on_message = on_encode_message;
  session::Job job;
  encoder::EncodeJob enc;
  int32_t code = format::ERR_OK;
  int status = run_job(
      job, [&] { return session::start_encode(job, enc, in, out, p, kbps, wave_header); }, code);
  switch (status == -1 ? code : format::ERR_OK) {
    case format::ERR_OK:
      break;
    case format::ERR_OPEN_INPUT:
      report(code, in);
      return 1;
    case format::ERR_OPEN_OUTPUT:
      report(code, out);
      return 1;
    case format::ERR_WAVE_EMPTY:
      return 1;
    case format::ERR_SAME_FILE:
      report(code);
      return 2;
    default:
      report(code);
      return 1;
  }
  if (status == 1 && job.end.load() == session::JOB_END_FAILED) report(format::ERR_WRITE);
  return status;
}

}  // namespace cli
