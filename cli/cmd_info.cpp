// tovra-cli info [--frames] FILE...: the facts open_stream finds (with the wrapper around the
// audio, the tail tag, the ID3v2 texts and the RIFF LIST INFO items), and with --frames each
// frame's header as the frame reader sees it, with the count and length of the frames walked.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/console.h"
#include "library/id3.h"
#include "session/message_text.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/stream.h"
#include "tools/wave.h"

namespace cli {

namespace {

constexpr const char* mode_names[4] = {"stereo", "joint stereo", "dual channel", "single channel"};
constexpr const char* vbr_names[4] = {"none", "Xing", "Info", "VBRI"};

// MPEG-2.5's rates (8000-12000 Hz) lie below every MPEG-2 rate.
const char* version_name(int32_t id, int32_t hz) { return id ? "MPEG-1" : hz < 16000 ? "MPEG-2.5" : "MPEG-2"; }

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
    // Item texts are code page 932 bytes.
    std::printf("info %s: %s\n", info_names[slot], library::from_cp932(item).c_str());
  }
  std::fseek(session::reader.file, at, SEEK_SET);
}

void print_frames() {
  session::FrameHeader h;
  int32_t index = 0;
  std::fseek(session::reader.file, session::stream.data_start, SEEK_SET);
  for (;;) {
    int32_t code = session::read_frame(h);
    if (code != session::FRAME_OK && code != session::FRAME_LAYER1) {
      std::printf("end: code %d\n", code);
      break;
    }
    const long offset = std::ftell(session::reader.file) - 4;
    int32_t length = session::frame_length(h);
    std::printf("frame %d: offset %ld, %s Layer %d, %d kbit/s%s, %d Hz, %s, %d bytes%s\n", index, offset,
                version_name(h.id, session::header_hz(h)), 4 - h.layer_code, session::header_kbps(h),
                h.bitrate_index == 0 ? " (free format)" : "", session::header_hz(h), mode_names[h.mode], length,
                h.protection_bit ? "" : ", CRC");
    // A header whose length is shorter than itself (Layer I free format) is stepped over.
    if (length > 4) std::fseek(session::reader.file, offset + length, SEEK_SET);
    ++index;
  }
  session::FrameWalk walk;
  session::walk_frames(session::stream.data_start, session::stream.data_end, 0, walk, nullptr);
  std::printf("frames: %d\ndamaged: %d\nduration: %.2f\n", walk.frames, walk.damaged, walk.seconds);
}

// Describes a PCM or float WAVE file from its header, or says why the tools refuse it. False when
// the file is no such WAVE (MPEG audio in a RIFF wrapper among them): the MPEG facts are looked for.
bool describe_wave(const char* path, int& failed) {
  tools::WaveHeader h;
  const int32_t code = tools::probe_wave_file(path, h);
  const bool pcm_refused = h.problem == tools::WAVE_PROBLEM_CHANNELS || h.problem == tools::WAVE_PROBLEM_BITS ||
                           h.problem == tools::WAVE_PROBLEM_RATE;
  if (code != format::ERR_OK && !pcm_refused) return false;
  if (code != format::ERR_OK) {
    std::fprintf(stderr, "tovra-cli info: '%s': %s\n", path, session::wave_problem_message(code, h).c_str());
    ++failed;
    return true;
  }
  const int64_t frames = h.data_size / uint32_t(h.block_align);
  std::printf("file: %s\nformat: WAVE %s\nsample_rate: %d Hz\nchannels: %d\n", path, h.is_float ? "IEEE float" : "PCM",
              h.rate, h.channels);
  std::printf("bits: %d", h.bits);
  if (h.valid_bits != h.bits) std::printf(" (%d used)", h.valid_bits);
  std::printf("\nframes: %lld\nlength: %.3f s\n", static_cast<long long>(frames), double(frames) / h.rate);
  return true;
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
    if (describe_wave(path, failed)) continue;
    session::reader.file = std::fopen(path, "rb");
    if (!session::reader.file) {
      report(format::ERR_OPEN_INPUT, path);
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
        report(format::ERR_NOT_MPEG, path);
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
    if (s.id3v2_start >= 0) {
      const session::Id3v2Text text = session::read_id3v2_text(session::reader.file, s.id3v2_start);
      if (!text.title.empty()) std::printf("title: %s\n", text.title.c_str());
      if (!text.artist.empty()) std::printf("artist: %s\n", text.artist.c_str());
      if (!text.album.empty()) std::printf("album: %s\n", text.album.c_str());
    }
    std::printf("format: %s Layer %d\n", version_name(s.mpeg_id, s.sample_rate), s.layer);
    if (s.free_format) {
      std::printf("bitrate: free format, %d kbit/s\n", s.bitrate_kbps);
    } else {
      std::printf("bitrate: %d kbit/s\n", s.bitrate_kbps);
    }
    std::printf("sample_rate: %d Hz\nmode: %s\nmode_ext: %d\n", s.sample_rate, mode_names[s.mode & 3], s.mode_ext);
    std::printf("protection: %d\nprivate: %d\ncopyright: %d\noriginal: %d\nemphasis: %d\n", s.protection, s.private_bit,
                s.copyright, s.original, s.emphasis_mode);
    std::printf("data_start: %d\ndata_end: %d\nfile_size: %d\ndata_size: %d\n", s.data_start, s.data_end, s.file_size,
                s.data_size);
    std::printf("frame_bytes: %d\nframe_count: %d\nplay_seconds: %.2f\nvbr_header: %s\n", s.frame_bytes, s.frame_count,
                s.total_seconds, vbr_names[s.vbr_kind & 3]);
    if (s.encoder_delay >= 0)
      std::printf("encoder_delay: %d\nencoder_padding: %d\n", s.encoder_delay, s.encoder_padding);
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
