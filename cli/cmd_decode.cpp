// tovra-cli decode IN OUT [--format raw|wav|aif|au|voc] [--no-gapless]: the file job from the command
// line. By default the encoder delay and padding that an Info frame records are taken off, so that a
// file encoded from a WAVE decodes to the WAVE's length; --no-gapless keeps every decoded sample.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/writers.h"

namespace cli {

namespace {

constexpr const char* format_names[] = {"raw", "wav", "aif", "au", "voc"};

// The format by OUT's extension, as users name their files; anything unknown is raw.
int32_t format_from_extension(std::string_view path) {
  size_t dot = path.rfind('.');
  size_t slash = path.rfind('/');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return session::EXT_RAW;
  std::string ext(path.substr(dot + 1));
  for (char& c : ext) c = char(c >= 'A' && c <= 'Z' ? c + 32 : c);
  if (ext == "wav") return session::EXT_WAV;
  if (ext == "aif" || ext == "aiff") return session::EXT_AIF;
  if (ext == "au" || ext == "snd") return session::EXT_AU;
  if (ext == "voc") return session::EXT_VOC;
  return session::EXT_RAW;
}

}  // namespace

int cmd_decode(int argc, char** argv) {
  const char* in = nullptr;
  const char* out = nullptr;
  int32_t format = -1;
  session::options.gapless = 1;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-gapless") == 0) {
      session::options.gapless = 0;
    } else if (std::strcmp(argv[i], "--format") == 0 && i + 1 < argc) {
      ++i;
      for (int32_t f = 0; f < 5; ++f)
        if (std::strcmp(argv[i], format_names[f]) == 0) format = f;
      if (format < 0) {
        std::fprintf(stderr, "tovra-cli decode: unknown format '%s' (raw, wav, aif, au, voc)\n", argv[i]);
        return 2;
      }
    } else if (!in) {
      in = argv[i];
    } else if (!out) {
      out = argv[i];
    } else {
      std::fprintf(stderr, "tovra-cli decode: unexpected argument '%s'\n", argv[i]);
      return 2;
    }
  }
  if (!in || !out) {
    std::fputs("usage: tovra-cli decode IN OUT [--format raw|wav|aif|au|voc] [--no-gapless]\n", stderr);
    return 2;
  }
  session::options.ext_filter = format >= 0 ? format : format_from_extension(out);

  session::Job job;
  int32_t code = 0;
  int status = run_job(
      job,
      [&] {
        int32_t started = session::start_decode_file(job, in, out);
        if (started == format::ERR_OK) console.total.store(session::published_stream().frame_count);
        return started;
      },
      code);
  switch (code) {
    case format::ERR_OK:
      break;
    case format::ERR_OPEN_INPUT:
    case format::ERR_OPEN_OUTPUT:
      report(code, code == format::ERR_OPEN_INPUT ? in : out);
      return 1;
    case format::ERR_SAME_FILE:
      report(code);
      return 2;
    default:
      // open_stream spoke for itself where it had anything to say; silence otherwise.
      if (console.boxes.load() == 0) report(format::ERR_NOT_MPEG, in);
      return 1;
  }
  // A box during the job (a damaged stream, say) makes the run a failure too.
  if (status == 0) return console.ended.load() && console.boxes.load() == 0 ? 0 : 1;
  if (status != 1) return status;
  if (job.code == format::ERR_WRITE || job.code == format::ERR_NOT_MPEG) report(job.code, in);
  return 1;
}

}  // namespace cli
