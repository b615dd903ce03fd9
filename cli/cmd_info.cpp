// tovra-cli info [--frames] FILE...: the facts open_stream finds, and with --frames each frame's
// header as the frame reader sees it.
#include <cstdio>
#include <cstring>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/stream.h"

namespace cli {

namespace {

constexpr const char* mode_names[4] = {"stereo", "joint stereo", "dual channel", "single channel"};

void print_frames() {
  session::FrameHeader h;
  int32_t index = 0;
  for (;;) {
    long offset = std::ftell(session::reader.file);
    int32_t code = session::read_frame(h);
    if (code != session::FRAME_OK && code != session::FRAME_LAYER1) {
      std::printf("end: code %d\n", code);
      return;
    }
    offset = std::ftell(session::reader.file) - 4;
    int32_t kbps = session::bitrate_table[(h.id * 3 - h.layer_code) * 15 + h.bitrate_index];
    int32_t hz = session::sample_rate_table[h.id * 3 + h.sampling_index];
    int32_t length = session::frame_length(h);
    std::printf("frame %d: offset %ld, MPEG-%d Layer %d, %d kbit/s, %d Hz, %s, %d bytes%s\n", index, offset,
                h.id ? 1 : 2, 4 - h.layer_code, kbps, hz, mode_names[h.mode], length,
                h.protection_bit ? "" : ", CRC");
    std::fseek(session::reader.file, offset + length, SEEK_SET);
    ++index;
  }
}

}  // namespace

int cmd_info(int argc, char** argv) {
  bool frames = false;
  int files = 0, failed = 0;
  install_console(0);
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--frames") == 0) {
      frames = true;
      continue;
    }
  }
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--frames") == 0) continue;
    ++files;
    const char* path = argv[i];
    session::reader.file = std::fopen(path, "rb");
    if (!session::reader.file) {
      std::fprintf(stderr, "%s: '%s'が開けない\n", session::CAPTION, path);
      ++failed;
      continue;
    }
    session::reset_decoding();
    int32_t code = session::open_stream();
    if (code != session::STREAM_OK) {
      std::fprintf(stderr, "tovra-cli info: no MPEG audio found in '%s'\n", path);
      std::fclose(session::reader.file);
      session::reader.file = nullptr;
      ++failed;
      continue;
    }
    const session::StreamInfo& s = session::stream;
    std::printf("file: %s\n", path);
    std::printf("format: MPEG-%d Layer %d\n", s.mpeg_id ? 1 : 2, s.layer);
    std::printf("bitrate: %d kbit/s\nsample_rate: %d Hz\nmode: %s\nmode_ext: %d\n", s.bitrate_kbps, s.sample_rate,
                mode_names[s.mode & 3], s.mode_ext);
    std::printf("protection: %d\nprivate: %d\ncopyright: %d\noriginal: %d\nemphasis: %d\n", s.protection,
                s.private_bit, s.copyright, s.original, s.emphasis_mode);
    std::printf("data_start: %d\ndata_end: %d\nfile_size: %d\ndata_size: %d\n", s.data_start, s.data_end, s.file_size,
                s.data_size);
    std::printf("frame_bytes: %d\nframe_count: %d\nplay_seconds: %d\n", s.frame_bytes, s.frame_count, s.play_seconds);
    if (frames) print_frames();
    std::fclose(session::reader.file);
    session::reader.file = nullptr;
  }
  if (files == 0) {
    std::fputs("usage: tovra-cli info [--frames] FILE...\n", stderr);
    return 2;
  }
  return failed ? 1 : 0;
}

}  // namespace cli
