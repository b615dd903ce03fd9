// tovra-cli: the command-line front end to the engine, for scripts, tests and benchmarks.
#include <cstdio>
#include <cstring>

#include "cli/commands.h"
#include "cli/console.h"
#include "decoder/decoder.h"
#include "session/message_text.h"
#include "session/platform.h"

namespace {

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);
  const char* usage;
  bool own_help = false;  // the command prints a longer --help of its own
};

constexpr Command commands[] = {
    {"info", cli::cmd_info, "info [--frames] FILE...      stream facts (and each frame's header)"},
    {"decode", cli::cmd_decode, "decode IN OUT [--format raw|wav|aif|au|voc] [--no-gapless]   MPEG audio to PCM file"},
    {"play", cli::cmd_play, "play [options] [FILE|LIST...]   play through the sound device", true},
    {"settings", cli::cmd_settings, "settings [--file PATH] [--save]   effective settings"},
    {"resample", cli::cmd_resample,
     "resample IN OUT --rate HZ [--bits 8|16] [--channels 1|2] [--quality Q]   WAVE to WAVE"},
    {"encode", cli::cmd_encode,
     "encode IN.wav OUT [--layer 1|2|3] [--bitrate KBPS] [--mode stereo|joint|mono] [--model 1|2] ...   WAVE to MPEG",
     true},
    {"batch", cli::cmd_batch,
     "batch LIST.m3e --mode encode|decode|resample [--out DIR] [--jobs N] ...   a list of conversions", true},
    {"split", cli::cmd_split, "split IN OUT                 audio of an MPEG-1 system stream"},
    {"tag", cli::cmd_tag, "tag FILE [--title T ...|--delete|--show]   the ID3v1 tag at the file's end", true},
};

void usage(std::FILE* to) {
  std::fputs("usage: tovra-cli COMMAND [ARGS]\n       tovra-cli --help | --version\n\ncommands:\n", to);
  for (const Command& c : commands) std::fprintf(to, "  %s\n", c.usage);
}

}  // namespace

namespace cli {

const char* demo_playlist_path() { return TOVRA_DEMO_DIR "/demo.m3u"; }

}  // namespace cli

int main(int argc, char** argv) {
  session::init_messages();
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    std::puts("tovra-cli " TOVRA_VERSION);
    return 0;
  }
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    usage(stdout);
    return 0;
  }
  // Start-up order of the program: processor first (it picks the synthesis variant), then tables.
  session::detect_cpu();
  decoder::init_decoder_tables();
  // Message boxes from the first step on (a settings or list file refused as it is read).
  cli::install_console(0);
  for (const Command& c : commands) {
    if (std::strcmp(argv[1], c.name) != 0) continue;
    if (!c.own_help && argc >= 3 && (std::strcmp(argv[2], "--help") == 0 || std::strcmp(argv[2], "-h") == 0)) {
      std::printf("usage: tovra-cli %s\n", c.usage);
      return 0;
    }
    return c.run(argc - 2, argv + 2);
  }
  std::fprintf(stderr, "tovra-cli: unknown command '%s'\n", argv[1]);
  usage(stderr);
  return 2;
}
