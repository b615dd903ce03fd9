// tovra-cli info [--frames] FILE...: the facts open_stream finds (with the wrapper around the
// audio, the tail tag and the RIFF LIST INFO items), and with --frames each frame's header as the
// frame reader sees it.
#include <iconv.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/console.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/stream.h"

namespace cli {

namespace {

constexpr const char* mode_names[4] = {"stereo", "joint stereo", "dual channel", "single channel"};

// The RIFF item identifiers of list_info's slots (slot 6 holds "ISFT" or "IPCD").
constexpr const char* info_names[session::LIST_INFO_SLOTS] = {"INAM", "IART", "ICMT", "IGNR", "ICRD",
                                                              "ICOP", "ISFT", "ISRC", "IENG"};

std::string wrapper_text(int32_t bits) {
  std::string text;
  auto add = [&](int32_t bit, const char* name) {
    if (!(bits & bit)) return;
    if (!text.empty()) text += " + ";
    text += name;
  };
  add(session::WRAP_MACROMEDIA, "Macromedia");
  add(session::WRAP_MACBINARY, "MacBinary");
  add(session::WRAP_WAVE, "RIFF WAVE");
  add(session::WRAP_RMP3, "RIFF RMP3");
  return text.empty() ? "none" : text;
}

// Item texts are code page 932 bytes: shown as UTF-8, or as they are when they do not convert.
std::string from_cp932(const std::string& bytes) {
  iconv_t cd = iconv_open("UTF-8", "CP932");
  if (cd == iconv_t(-1)) return bytes;
  std::string out(bytes.size() * 3 + 4, '\0');
  char* in = const_cast<char*>(bytes.data());
  size_t in_left = bytes.size();
  char* to = out.data();
  size_t to_left = out.size();
  size_t r = iconv(cd, &in, &in_left, &to, &to_left);
  iconv_close(cd);
  if (r == size_t(-1)) return bytes;
  out.resize(out.size() - to_left);
  return out;
}

// Prints the LIST INFO items that open_stream recorded; the file position is restored.
void print_list_info() {
  long at = std::ftell(session::reader.file);
  for (int32_t slot = 0; slot < session::LIST_INFO_SLOTS; ++slot) {
    int32_t offset = session::stream.list_info[slot][0];
    int32_t size = session::stream.list_info[slot][1];
    if (offset <= 0 || size <= 0) continue;
    std::vector<char> text(size_t(std::min(size, 1024)));
    std::fseek(session::reader.file, offset, SEEK_SET);
    size_t got = std::fread(text.data(), 1, text.size(), session::reader.file);
    std::string item(text.data(), got);
    item.resize(std::strlen(item.c_str()));  // the text ends at its first zero byte
    for (char& c : item)
      if (uint8_t(c) < 32) c = ' ';
    std::printf("info %s: %s\n", info_names[slot], from_cp932(item).c_str());
  }
  std::fseek(session::reader.file, at, SEEK_SET);
}

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
                h.id ? 1 : 2, 4 - h.layer_code, kbps, hz, mode_names[h.mode], length, h.protection_bit ? "" : ", CRC");
    // A header whose length is shorter than itself (Layer I free format) is stepped over.
    if (length > 4) std::fseek(session::reader.file, offset + length, SEEK_SET);
    ++index;
  }
}

}  // namespace

int cmd_info(int argc, char** argv) {
  bool frames = false;
  int files = 0, failed = 0;
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
      if (code == session::STREAM_NO_DATA)
        std::fprintf(stderr, "tovra-cli info: '%s' is a RIFF file without a data chunk\n", path);
      else if (code != -1)
        std::fprintf(stderr, "tovra-cli info: '%s' is a WAVE file of format tag %d, not MPEG audio\n", path, code);
      else
        std::fprintf(stderr, "tovra-cli info: no MPEG audio found in '%s'\n", path);
      std::fclose(session::reader.file);
      session::reader.file = nullptr;
      ++failed;
      continue;
    }
    const session::StreamInfo& s = session::stream;
    std::printf("file: %s\n", path);
    std::printf("wrapper: %s\ntag: %s\n", wrapper_text(session::stream_wrapper).c_str(),
                session::stream_wrapper & session::WRAP_TAG ? "yes" : "no");
    print_list_info();
    std::printf("format: MPEG-%d Layer %d\n", s.mpeg_id ? 1 : 2, s.layer);
    std::printf("bitrate: %d kbit/s\nsample_rate: %d Hz\nmode: %s\nmode_ext: %d\n", s.bitrate_kbps, s.sample_rate,
                mode_names[s.mode & 3], s.mode_ext);
    std::printf("protection: %d\nprivate: %d\ncopyright: %d\noriginal: %d\nemphasis: %d\n", s.protection, s.private_bit,
                s.copyright, s.original, s.emphasis_mode);
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
