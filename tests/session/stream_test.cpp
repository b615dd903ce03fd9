// Stream opening: streams made by lame and twolame at every sampling rate, each wrapper form built
// here around them, the first-frame failures with their messages, probe_stream's differences, and
// `tovra-cli info` end to end.
#include "session/stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "session/messages.h"
#include "session/session.h"
#include "support/support.h"

namespace {

using test::Bytes;
using test::cat;
using test::le32;
using test::str;

Bytes chunk(const std::string& id, const Bytes& body) { return cat({str(id), le32(body.size()), body}); }
Bytes riff(const std::string& form, const Bytes& chunks) {
  return cat({str("RIFF"), le32(4 + chunks.size()), str(form), chunks});
}
// A WAVE format chunk of the given tag and total size (at least 16): stereo, 44100 Hz.
Bytes fmt_chunk(uint32_t tag, uint32_t size) {
  Bytes body = {uint8_t(tag), uint8_t(tag >> 8), 2, 0, 0x44, 0xAC, 0, 0, 0x80, 0x3E, 0, 0, 1, 0, 0, 0};
  body.resize(size, 0);
  return chunk("fmt ", body);
}
Bytes tail_tag(const char* mark) {
  Bytes tag(128, 0);
  std::memcpy(tag.data(), mark, 3);
  std::memcpy(tag.data() + 3, "A title", 7);
  return tag;
}

// A crafted header of the fields that matter to stream facts, followed by zeros to fill a file.
Bytes crafted(uint32_t id, uint32_t layer_code, uint32_t bitrate, uint32_t sampling, uint32_t padding,
              uint32_t last_byte, size_t size, uint32_t sync = 0xFFF) {
  uint32_t w = sync << 20 | id << 19 | layer_code << 17 | 1u << 16 | bitrate << 12 | sampling << 10 | padding << 9;
  Bytes b = {uint8_t(w >> 24), uint8_t(w >> 16), uint8_t(w >> 8), uint8_t(last_byte)};
  b.resize(size, 0);
  return b;
}

// The RMP3 file: an odd "data" chunk with its pad byte, a LIST INFO chunk of unaligned items (one
// unknown, "ISFT" and then "IPCD" for the same slot), another pad byte, and a chunk behind it.
struct Rmp3 {
  Bytes file;
  int32_t name_at = 0, artist_at = 0, comment_at = 0, software_at = 0;
};
Rmp3 make_rmp3(const Bytes& audio) {
  Rmp3 r;
  Bytes data = audio;
  if (data.size() % 2 == 0) data.push_back(0);
  const Bytes head = cat({chunk("data", data), {0}});
  Bytes info = str("INFO");
  auto item = [&](const char* id, const std::string& text) {
    info = cat({info, str(id), le32(text.size())});
    const int32_t at = 12 + int32_t(head.size() + 8 + info.size());
    info = cat({info, str(text)});
    return at;
  };
  r.name_at = item("INAM", std::string("Title\0", 6));
  r.artist_at = item("IART", "Art");  // odd: the next item follows without alignment
  item("IXYZ", "unknown");
  item("ISFT", "soft");
  r.software_at = item("IPCD", "pcd!");
  r.comment_at = item("ICMT", "comment");
  // The LIST chunk's size is odd: a pad byte follows.
  r.file = riff("RMP3", cat({head, chunk("LIST", info), {0}, chunk("DISP", Bytes(9, 'd'))}));
  return r;
}

using Ints = std::vector<int32_t>;

std::vector<int32_t> boxes;
int32_t record_box(int32_t code, const char*, int32_t) {
  boxes.push_back(code);
  return session::ANSWER_OK;
}

// The lame stream the wrapper tests wrap: one second of stereo at 44.1 kHz, 128 kbit/s, without an
// Info frame. Empty when sox or lame is missing.
const Bytes& base() {
  static const Bytes made = [] {
    test::TempDir dir;
    const std::string wav = dir.file("base.wav"), mp3 = dir.file("base.mp3");
    if (!test::have_tool("sox") || !test::have_tool("lame") ||
        test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 1 sine 440 vol 0.5") != 0 ||
        test::run("lame --quiet -t -b 128 " + wav + " " + mp3) != 0)
      return Bytes{};
    return test::read_file(mp3);
  }();
  return made;
}
#define REQUIRE_BASE() \
  if (base().size() < 1000) GTEST_SKIP() << "lame or sox is not installed"

struct Opened {
  int32_t code;
  long position;
};
// open_stream on a file as the session does it; the file is closed again.
Opened open(const std::string& path) {
  session::reader.file = std::fopen(path.c_str(), "rb");
  if (!session::reader.file) return {-999, -1};
  session::reset_frame_reader();
  Opened o{session::open_stream(), std::ftell(session::reader.file)};
  std::fclose(session::reader.file);
  session::reader.file = nullptr;
  return o;
}

class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    boxes.clear();
    session::set_sink({nullptr, record_box});
    session::options = session::OutputOptions{};
  }
  void TearDown() override { session::set_sink({}); }
  std::string write(const std::string& name, const Bytes& bytes) {
    std::string path = dir_.file(name);
    test::write_file(path, bytes);
    return path;
  }
  test::TempDir dir_;
};

TEST_F(StreamTest, EncodersAtEverySamplingRate) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("twolame");
  struct Encoded {
    const char* tool;
    int32_t hz, kbps, channels;
  };
  const Encoded cases[] = {
      {"lame", 32000, 128, 2},    {"lame", 44100, 128, 2},   {"lame", 48000, 160, 1},    {"lame", 16000, 64, 2},
      {"lame", 22050, 64, 1},     {"lame", 24000, 48, 2},    {"twolame", 32000, 192, 2}, {"twolame", 44100, 192, 2},
      {"twolame", 48000, 128, 1}, {"twolame", 16000, 64, 2}, {"twolame", 22050, 96, 1},  {"twolame", 24000, 64, 2},
  };
  for (const Encoded& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + " " + std::to_string(c.hz));
    std::string wav = dir_.file("in.wav"), out = dir_.file("out.mpa");
    ASSERT_EQ(test::run("sox -q -n -r " + std::to_string(c.hz) + " -c " + std::to_string(c.channels) + " -b 16 " + wav +
                        " synth 2 sine 440 vol 0.5"),
              0);
    // lame would resample to suit the bit rate: hold it to the input's rate.
    std::string keep_rate = c.tool[0] == 'l' ? " --resample " + std::to_string(c.hz / 1000.0) : "";
    ASSERT_EQ(
        test::run(std::string(c.tool) + " --quiet -b " + std::to_string(c.kbps) + keep_rate + " " + wav + " " + out),
        0);
    const int32_t size = int32_t(test::read_file(out).size());
    const int32_t id = c.hz >= 32000 ? 1 : 0;
    const int32_t layer = c.tool[0] == 'l' ? 3 : 2;

    // Every frame must begin where the one before ended, and the walk must end at the file's end.
    session::reader.file = std::fopen(out.c_str(), "rb");
    session::reset_frame_reader();
    session::FrameHeader h{};
    long at = 0, frames = 0;
    while (session::read_frame(h) == session::FRAME_OK && std::ftell(session::reader.file) - 4 == at) {
      EXPECT_EQ(h.layer_code, 4 - layer);
      EXPECT_EQ(session::header_hz(h), c.hz);
      at += session::frame_length(h);
      std::fseek(session::reader.file, at, SEEK_SET);
      ++frames;
    }
    std::fclose(session::reader.file);
    session::reader.file = nullptr;
    EXPECT_EQ(at, size);
    EXPECT_GT(frames, 20);

    // lame's first frame is its Info frame (where it fits): no audio, so the data starts behind it.
    Opened o = open(out);
    ASSERT_EQ(o.code, session::STREAM_OK);
    const session::StreamInfo& s = session::stream;
    if (layer == 3 && c.kbps >= 64) {
      EXPECT_EQ(s.vbr_kind, session::VBR_INFO);
    }
    const int32_t start = s.vbr_kind ? s.frame_bytes : 0;
    EXPECT_EQ(o.position, start);
    EXPECT_EQ((Ints{s.mpeg_id, s.layer, s.sample_rate, s.sample_rate_khz, s.bitrate_kbps, s.mode == 3, s.data_start,
                    s.data_end, s.file_size, s.data_size, s.frame_count, s.play_seconds, s.tag_buffer[127],
                    session::stream_wrapper}),
              (Ints{id, layer, c.hz, c.hz / 1000, c.kbps, c.channels == 1, start, size, size, size - start,
                    int32_t(frames) - (start > 0), 2, 247, 0}));  // 247: an untagged file gets the cleared record
    // One length for every layer: 1152 samples a frame but for MPEG-2 Layer III's 576.
    const int32_t base_bytes = (id || layer == 2 ? 144000 : 72000) * c.kbps / c.hz;
    EXPECT_GE(s.frame_bytes, base_bytes);
    EXPECT_LE(s.frame_bytes, base_bytes + 1);
    EXPECT_TRUE(boxes.empty());

    session::ProbeInfo p{};
    ASSERT_EQ(session::probe_file(out.c_str(), p), 0);
    // The probe's sampling index loses its low bit: 48000 and 24000 are shown as 44100 and 22050.
    const int32_t shown = c.hz == 48000 ? 44100 : c.hz == 24000 ? 22050 : c.hz;
    EXPECT_EQ((Ints{p.id, p.layer, p.kbps, p.hz, p.data_end, p.file_size, p.play_seconds}),
              (Ints{id, layer, c.kbps, shown, size, size, size / (c.kbps * 125)}));
  }
}

// Every wrapper form around the lame stream, and the RIFF files that are not MPEG audio: where the
// audio lies, the wrapper bits, the first bytes of the tag record and what probe_file returns.
TEST_F(StreamTest, WrapperForms) {
  REQUIRE_BASE();
  const Bytes& mp3 = base();
  const int32_t n = int32_t(mp3.size());
  Bytes cleared(128, 0);  // the record of an untagged file
  cleared[125] = ' ';
  cleared[127] = 247;
  auto mac_binary = [&](uint8_t name_length, uint8_t byte_38, uint8_t byte_81) {
    Bytes head(128, 0);
    head[1] = name_length;
    std::memcpy(head.data() + 2, "song.mp3", 8);
    std::memcpy(head.data() + 65, "MPG3hook", 8);
    head[38] = byte_38;
    head[81] = byte_81;
    head[84] = 0x10;  // data fork length, low bytes
    return cat({head, mp3});
  };
  // A big-endian length of 60 bytes of head behind the length word; "MACR" at 36.
  Bytes macromedia = {0, 0, 0, 60};
  macromedia.resize(64, 0x20);
  std::memcpy(macromedia.data() + 36, "MACR", 4);
  macromedia = cat({macromedia, mp3});
  // Chunks after "data" must not count as audio.
  auto wave = [&](uint32_t tag, uint32_t fmt_size) {
    return riff("WAVE", cat({fmt_chunk(tag, fmt_size), chunk("fact", {0x10, 0, 0, 0}), chunk("data", mp3),
                             chunk("LIST", Bytes(40, 'l')), chunk("junk", Bytes(300, 'j'))}));
  };
  const int32_t wave_start = 12 + 38 + 12 + 8, wave80_start = wave_start + 10;
  auto other_wave = [&](uint32_t tag) {
    return riff("WAVE", cat({fmt_chunk(tag, 16), chunk("data", Bytes(2000, 0))}));
  };
  const Bytes no_data_wave = riff("WAVE", cat({fmt_chunk(85, 30), chunk("fact", {1, 0, 0, 0})}));
  const Bytes no_data_rmp3 = riff("RMP3", chunk("LIST", Bytes(10, 'x')));
  const Bytes rmp3 = make_rmp3(mp3).file, plain_rmp3 = riff("RMP3", chunk("data", mp3));
  const Bytes other_form = riff("AVI ", chunk("data", mp3));

  const int32_t OK = session::STREAM_OK, NO_DATA = session::STREAM_NO_DATA;
  const Bytes rif = {'R', 'I', 'F'}, rmp = {'R', 'M', 'P'};
  struct Case {
    const char* name;
    Bytes file;
    int32_t code, data_start, data_end, wrapper, probe;
    Bytes record;  // the tag record's first bytes
  };
  const Case cases[] = {
      {"MacBinary", mac_binary(8, 0, 0), OK, 128, n + 128, session::WRAP_MACBINARY, 0, cleared},
      // Not MacBinary heads: the sync search finds the frames behind them.
      {"bytes 80-83 not zero", mac_binary(8, 0, 0x12), OK, 0, n + 128, 0, -1, cleared},
      {"name reaching byte 38", mac_binary(8, 'x', 0), OK, 0, n + 128, 0, -1, cleared},
      {"name length of 64", mac_binary(64, 0, 0), OK, 0, n + 128, 0, -1, cleared},
      {"Macromedia", macromedia, OK, 64, n + 64, session::WRAP_MACROMEDIA, 0, cleared},
      {"WAVE tag 85", wave(85, 30), OK, wave_start, wave_start + n, session::WRAP_WAVE, 1, rif},
      {"WAVE tag 80", wave(80, 40), OK, wave80_start, wave80_start + n, session::WRAP_WAVE, 1, rif},
      {"RMP3 with LIST INFO", rmp3, OK, 20, 20 + (n | 1), session::WRAP_RMP3, 2, rmp},
      {"RMP3 without LIST", plain_rmp3, OK, 20, 20 + n, session::WRAP_RMP3, 2, cleared},
      {"other RIFF form", other_form, OK, 0, n + 20, 0, -1, cleared},
      {"TAG", cat({mp3, tail_tag("TAG")}), OK, 0, n, session::WRAP_TAG, 0, tail_tag("TAG")},
      {"tag", cat({mp3, tail_tag("tag")}), OK, 0, n, session::WRAP_TAG, 0, tail_tag("tag")},
      {"TaG", cat({mp3, tail_tag("TaG")}), OK, 0, n, session::WRAP_TAG, 0, tail_tag("TaG")},
      // 100 bytes: a Layer I header at 44.1 kHz, 64 kbit/s, then zeros; it keeps the record before.
      {"shorter than a tag", crafted(1, 3, 2, 0, 0, 0xC0, 100), OK, 0, 100, 0, 0, tail_tag("TaG")},
      {"junk before the frames", cat({Bytes(10, 0x11), mp3}), OK, 0, n + 10, 0, -1, cleared},
      {"PCM WAVE", other_wave(1), 1, 0, 2044, 0, -1, cleared},
      {"WAVE tag 79", other_wave(79), 79, 0, 2044, 0, -1, cleared},
      {"WAVE tag 86", other_wave(86), 86, 0, 2044, 0, -1, cleared},
      {"WAVE tag 0x55AA", other_wave(0x55AA), 0x55AA, 0, 2044, 0, -1, cleared},
      {"WAVE without data", no_data_wave, NO_DATA, 0, 62, session::WRAP_WAVE, NO_DATA, {}},
      {"RMP3 without data", no_data_rmp3, NO_DATA, 0, 30, session::WRAP_RMP3, NO_DATA, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = write("wrapped.bin", c.file);
    Opened o = open(path);
    EXPECT_EQ((Ints{o.code, int32_t(o.position), session::stream.data_start, session::stream.data_end,
                    session::stream.file_size, session::stream_wrapper}),
              (Ints{c.code, c.data_start, c.data_start, c.data_end, int32_t(c.file.size()), c.wrapper}));
    EXPECT_EQ(Bytes(session::stream.tag_buffer, session::stream.tag_buffer + c.record.size()), c.record);
    EXPECT_EQ(c.code == session::STREAM_OK ? session::stream.sample_rate : 44100, 44100);
    EXPECT_TRUE(boxes.empty());

    session::ProbeInfo p{};
    EXPECT_EQ(session::probe_file(path.c_str(), p), c.probe);
    EXPECT_EQ(c.probe == 0 || c.probe == 1 || c.probe == 2 ? p.data_start : c.data_start, c.data_start);
  }
}

TEST_F(StreamTest, FirstFrameFacts) {
  // Layer I frames are four-byte slots, padding one slot; what follows the one header is no frame.
  struct Layer1 {
    uint32_t id, bitrate, sampling, padding;
    int32_t bytes;
  };
  for (const Layer1& c : {Layer1{1, 2, 0, 0, 68}, Layer1{1, 2, 0, 1, 72}, Layer1{1, 14, 2, 0, 672},
                          Layer1{0, 1, 0, 0, 68},    // MPEG-2: 12 * 32000 / 22050 slots
                          Layer1{1, 0, 1, 0, 4}}) {  // free format with no header to measure by
    SCOPED_TRACE(c.bytes);
    ASSERT_EQ(open(write("l1.mp1", crafted(c.id, 3, c.bitrate, c.sampling, c.padding, 0xC0, 4000))).code,
              session::STREAM_OK);
    EXPECT_EQ(session::stream.layer, 1);
    EXPECT_EQ(session::stream.frame_bytes, c.bytes);
    EXPECT_EQ(session::stream.frame_count, 1);
  }

  // MPEG-1 Layer II, 32 kHz, no CRC, private, dual channel with mode_ext 3, copyright, original,
  // emphasis 2, 160 kbit/s. The bits behind the sync: 1 10 0, 1001 10 0 1, 10 11 1 1 10.
  Bytes file = {0xFF, 0xFC, 0x99, 0xBE};
  file.resize(5000, 0);
  std::string path = write("fields.mp2", file);
  ASSERT_EQ(open(path).code, session::STREAM_OK);
  const session::StreamInfo& s = session::stream;
  EXPECT_EQ((Ints{s.mpeg_id, s.layer, s.protection, s.bitrate_kbps, s.sample_rate, s.private_bit, s.mode, s.mode_ext,
                  s.copyright, s.original, s.emphasis_mode, s.frame_bytes, s.play_seconds}),
            (Ints{1, 2, 0, 160, 32000, 1, 2, 3, 1, 1, 2, 720, 1}));  // at least one second
  // Forced de-emphasis 1 or 3 replaces the stream's; hi-fi adds 4.
  struct Emphasis {
    int32_t force, hi_fi, expected;
  };
  for (const Emphasis& e : {Emphasis{1, 0, 1}, Emphasis{3, 0, 3}, Emphasis{2, 0, 2}, Emphasis{4, 0, 2},
                            Emphasis{0, 1, 6}, Emphasis{3, 1, 7}}) {
    session::options.force_de_emphasis = e.force;
    session::options.hi_fi = e.hi_fi;
    ASSERT_EQ(open(path).code, session::STREAM_OK);
    EXPECT_EQ(s.emphasis_mode, e.expected) << "force " << e.force << " hi_fi " << e.hi_fi;
  }
}

TEST_F(StreamTest, FirstFrameFailuresAndTheirWords) {
  Bytes junk(300, 0x11);
  struct Case {
    const char* name;
    Bytes bytes;
    int32_t code;  // 0: silent
  };
  const Case cases[] = {
      {"end after a refused sync", cat({junk, {0xFF, 0xFB, 0xF0, 0x00}}), format::ERR_STREAM_END},
      {"empty", {}, 0},
      {"three bytes", {0xFF, 0xFB, 0x90}, 0},
      {"junk", junk, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    boxes.clear();
    EXPECT_EQ(open(write("bad.mp3", c.bytes)).code, -1);
    EXPECT_EQ(boxes, c.code ? std::vector<int32_t>{c.code} : std::vector<int32_t>{});
  }
}

TEST_F(StreamTest, Rmp3ListInfoItems) {
  REQUIRE_BASE();
  Rmp3 r = make_rmp3(base());
  std::memset(session::stream.list_info, 0x33, sizeof session::stream.list_info);
  ASSERT_EQ(open(write("song.rmp", r.file)).code, session::STREAM_OK);
  const auto& info = session::stream.list_info;
  // The last of ISFT and IPCD wins slot 6.
  EXPECT_EQ((Ints{info[0][0], info[0][1], info[1][0], info[1][1], info[2][0], info[6][0]}),
            (Ints{r.name_at, 6, r.artist_at, 3, r.comment_at, r.software_at}));
  for (int slot : {3, 4, 5, 7, 8}) EXPECT_EQ(info[slot][0] | info[slot][1], 0) << "slot " << slot << " not cleared";
  EXPECT_EQ(0, std::memcmp(r.file.data() + r.name_at, "Title", 5));
  EXPECT_EQ(0, std::memcmp(r.file.data() + r.artist_at, "Art", 3));

  // An item whose size runs past its chunk, and a LIST that claims more than the file holds: the
  // items before them count, nothing is read out of bounds.
  const std::string items(
      "INFOINAM\x02\0\0\0okIART\xF0\xFF\xFF\x7F"
      "cut",
      25);
  const std::string huge("LIST\x00\xFF\xFF\xFFINFOIENG", 16);
  const Bytes chunks =
      cat({chunk("data", base()), chunk("LIST", Bytes(items.begin(), items.end())), Bytes(huge.begin(), huge.end())});
  ASSERT_EQ(open(write("broken.rmp", riff("RMP3", chunks))).code, session::STREAM_OK);
  EXPECT_EQ(info[0][1], 2);
  EXPECT_EQ(info[1][1], 0x7FFFFFF0);
  EXPECT_EQ(session::stream.data_start, 20);
}

bool fd_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST_F(StreamTest, ProbeDifferences) {
  REQUIRE_BASE();
  session::ProbeInfo p{};
  // The probe has no sync search (see the "junk before the frames" wrapper case).
  // Only bit-rate index 15 is refused: a reserved layer and sampling index pass.
  EXPECT_EQ(session::probe_file(write("br15.mp3", crafted(1, 1, 15, 0, 0, 0x44, 500)).c_str(), p), -1);
  ASSERT_EQ(session::probe_file(write("layer0.mp3", crafted(1, 0, 9, 3, 0, 0x44, 500)).c_str(), p), 0);
  EXPECT_EQ((Ints{p.layer, p.hz, p.kbps, p.play_seconds}), (Ints{4, 32000, 0, 0}));  // sampling index 3 masked with 2
  EXPECT_EQ(session::probe_file(write("mpeg25.mp3", crafted(0, 1, 9, 0, 0, 0x44, 500, 0xFFE)).c_str(), p), -1);
  EXPECT_TRUE(boxes.empty()) << "the probe never speaks";

  // No options: the stream's own emphasis.
  session::options.force_de_emphasis = 3;
  session::options.hi_fi = 1;
  ASSERT_EQ(session::probe_file(write("emph.mp3", crafted(1, 1, 9, 0, 0, 0x45, 500)).c_str(), p), 0);
  EXPECT_EQ(p.emphasis, 1);

  // probe_stream leaves the file open on the wrapper stage's own failures, and closes it on the rest.
  struct Case {
    Bytes bytes;
    int32_t result;
    bool stays_open;
  };
  const Case cases[] = {
      {riff("WAVE", cat({fmt_chunk(1, 16), chunk("data", Bytes(100, 0))})), -1, true},
      {riff("WAVE", fmt_chunk(85, 30)), session::STREAM_NO_DATA, true},
      {cat({Bytes(10, 0x11), base()}), -1, false},
      {base(), 0, false},
  };
  for (const Case& c : cases) {
    std::FILE* f = std::fopen(write("p.bin", c.bytes).c_str(), "rb");
    ASSERT_NE(f, nullptr);
    int fd = fileno(f);
    EXPECT_EQ(session::probe_stream(f, p), c.result);
    EXPECT_EQ(fd_open(fd), c.stays_open);
    if (c.stays_open) std::fclose(f);
  }
}

// Decodes a file to raw PCM with a file job; returns the output's size.
long decode_to_raw(const std::string& in_path, const std::string& out_path) {
  session::options.ext_filter = 0;
  session::Job job;
  EXPECT_EQ(session::start_decode_file(job, in_path.c_str(), out_path.c_str()), format::ERR_OK);
  session::wait_job(job);
  EXPECT_EQ(session::reader.file, nullptr);
  return long(test::read_file(out_path).size());
}

TEST_F(StreamTest, FileJobOverWrappedFiles) {
  REQUIRE_BASE();
  const long bare = decode_to_raw(write("bare.mp3", base()), dir_.file("bare.raw"));
  ASSERT_GT(bare, 0);
  // The wrappers' chunks add no frames and lose none. A "data" chunk that claims less than the
  // frames hold only shortens the measured length: the job reads on past it.
  const Bytes short_data = cat({str("data"), le32(base().size() / 2), base()});
  EXPECT_EQ(decode_to_raw(write("short.wav", riff("WAVE", cat({fmt_chunk(85, 30), short_data}))), dir_.file("w.raw")),
            bare);
  EXPECT_EQ(session::stream.data_size, int32_t(base().size() / 2));
  EXPECT_EQ(decode_to_raw(write("song.rmp", make_rmp3(base()).file), dir_.file("rmp.raw")), bare);
}

// ---- tovra-cli info.

struct Cli {
  int status;
  std::string out;
};
Cli info(const std::string& args) {
  Cli c;
  c.out = test::run_output(test::cli_path() + " info " + args + " 2>&1", &c.status);
  return c;
}
void expect_lines(const Cli& c, std::initializer_list<std::string> lines) {
  EXPECT_EQ(c.status, 0) << c.out;
  for (const std::string& line : lines)
    EXPECT_NE(c.out.find(line), std::string::npos) << line << " missing in\n" << c.out;
}

TEST_F(StreamTest, CliInfoShowsFactsAndWrappers) {
  REQUIRE_BASE();
  std::string plain = write("plain.mp3", base());
  expect_lines(info(plain), {"format: MPEG-1 Layer 3\n", "bitrate: 128 kbit/s\n", "sample_rate: 44100 Hz\n",
                             "wrapper: none\n", "tag: no\n", "data_start: 0\n", "play_seconds: 1.0",
                             "file_size: " + std::to_string(base().size()) + "\n"});
  expect_lines(
      info(write("song.rmp", make_rmp3(base()).file)),
      {"wrapper: RIFF RMP3\n", "info INAM: Title\n", "info IART: Art\n", "info ISFT: pcd!\n", "data_start: 20\n"});
  Bytes tagged = cat({riff("WAVE", cat({fmt_chunk(85, 30), chunk("data", base())})), tail_tag("TAG")});
  expect_lines(info(write("tagged.wav", tagged)), {"wrapper: RIFF WAVE\n", "tag: yes\n"});
  expect_lines(info("--frames " + plain), {"frame 0: offset 0, MPEG-1 Layer 3, 128 kbit/s, 44100 Hz", "end: code 262"});
}

TEST_F(StreamTest, CliInfoRefusesWhatIsNotMpegAudio) {
  REQUIRE_BASE();
  Bytes garbage(5000);
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t((i * 37 + 11) & 0x7F);
  struct Case {
    const char* name;
    std::string path;
    const char* says;
  };
  const Case cases[] = {
      {"garbage", write("garbage.bin", garbage), "is not MPEG audio"},
      {"folder", dir_.path, "is not MPEG audio"},
      {"missing", dir_.file("missing.mp3"), "Cannot open"},
      {"PCM WAVE", write("pcm.wav", riff("WAVE", cat({fmt_chunk(1, 16), chunk("data", Bytes(100, 0))}))),
       "0-bit integer WAVE"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    Cli c = info("'" + k.path + "'");
    EXPECT_EQ(c.status, 1) << c.out;
    EXPECT_NE(c.out.find(k.says), std::string::npos) << c.out;
  }
  // Several files: the good ones are shown, the status tells that one failed.
  Cli c = info(write("ok.mp3", base()) + " " + dir_.file("garbage.bin"));
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.out.find("sample_rate: 44100 Hz"), std::string::npos);
}

}  // namespace
