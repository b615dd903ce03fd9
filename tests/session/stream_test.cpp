// Stream opening: streams made by lame and twolame at every sampling rate, each wrapper form built
// here around them, the first-frame failures with their messages, probe_stream's differences, and
// `tovra-cli info` end to end.
#include "session/stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "session/messages.h"
#include "session/session.h"
#include "support/support.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
}
void put16(Bytes& b, uint32_t v) {
  b.push_back(uint8_t(v));
  b.push_back(uint8_t(v >> 8));
}
void put(Bytes& b, const std::string& s) { b.insert(b.end(), s.begin(), s.end()); }
void put(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }

Bytes chunk(const std::string& id, const Bytes& body) {
  Bytes b;
  put(b, id);
  put32(b, uint32_t(body.size()));
  put(b, body);
  return b;
}

// RIFF head around chunks; the size is left for the test to fill if it cares.
Bytes riff(const std::string& form, const Bytes& chunks) {
  Bytes b;
  put(b, "RIFF");
  put32(b, uint32_t(4 + chunks.size()));
  put(b, form);
  put(b, chunks);
  return b;
}

// A WAVE format chunk of the given tag and total size (at least 16).
Bytes fmt_chunk(uint32_t tag, uint32_t size) {
  Bytes body;
  put16(body, tag);
  put16(body, 2);
  put32(body, 44100);
  put32(body, 16000);
  put16(body, 1);
  put16(body, 0);
  body.resize(size, 0);
  return chunk("fmt ", body);
}

// A crafted header of the fields that matter to stream facts, followed by zeros to fill a file.
Bytes crafted(uint32_t id, uint32_t layer_code, uint32_t bitrate, uint32_t sampling, uint32_t padding,
              uint32_t last_byte, size_t size, uint32_t sync = 0xFFF) {
  uint32_t w = sync << 20 | id << 19 | layer_code << 17 | 1u << 16 | bitrate << 12 | sampling << 10 | padding << 9;
  Bytes b = {uint8_t(w >> 24), uint8_t(w >> 16), uint8_t(w >> 8), uint8_t(last_byte)};
  b.resize(size, 0);
  return b;
}

// Message boxes shown while a test runs.
struct Box {
  std::string caption, text;
};
std::vector<Box> boxes;
int32_t record_box(const char* caption, const char* text, int32_t) {
  boxes.push_back({caption, text});
  return session::ANSWER_OK;
}

struct Opened {
  int32_t code;
  long position;
};

class StreamTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    made_ = new test::TempDir;
    if (!test::have_tool("sox") || !test::have_tool("lame")) return;
    std::string wav = made_->file("base.wav");
    if (test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 1 sine 440 vol 0.5") == 0)
      test::run("lame --quiet -b 128 " + wav + " " + made_->file("base.mp3"));
    base_ = test::read_file(made_->file("base.mp3"));
  }
  static void TearDownTestSuite() {
    delete made_;
    made_ = nullptr;
  }

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

  // open_stream on a file as the session does it; the file is closed again.
  static Opened open(const std::string& path) {
    session::reader.file = std::fopen(path.c_str(), "rb");
    if (!session::reader.file) return {-999, -1};
    session::reset_frame_reader();
    Opened o{session::open_stream(), std::ftell(session::reader.file)};
    std::fclose(session::reader.file);
    session::reader.file = nullptr;
    return o;
  }

  // The lame stream of the suite; tests that wrap it skip without the tools.
  const Bytes& base() { return base_; }
  bool have_base() const { return base_.size() > 1000; }

  static std::string tag_text() { return std::string(reinterpret_cast<const char*>(session::stream.tag_buffer), 3); }

  test::TempDir dir_;
  static test::TempDir* made_;
  static Bytes base_;
};

test::TempDir* StreamTest::made_ = nullptr;
Bytes StreamTest::base_;

#define REQUIRE_BASE() \
  if (!have_base()) GTEST_SKIP() << "lame or sox is not installed"

// ---- Tables.

TEST(StreamTables, RowsIndexedAsTheDecodersIndexThem) {
  // MPEG-1 Layer III at 128 kbit/s, MPEG-2 Layer II at 64, MPEG-2 Layer I at 256, free format.
  EXPECT_EQ(session::bitrate_table[(1 * 3 - 1) * 15 + 9], 128);
  EXPECT_EQ(session::bitrate_table[(0 * 3 - 2) * 15 + 8], 64);
  EXPECT_EQ(session::bitrate_table[(0 * 3 - 3) * 15 + 14], 256);
  EXPECT_EQ(session::bitrate_table[(1 * 3 - 3) * 15 + 0], 1);
  // Every frame_size_table entry against the formula, with the one K per MPEG version.
  for (int32_t id = 0; id < 2; ++id)
    for (int32_t si = 0; si < 3; ++si)
      for (int32_t lc = 1; lc <= 3; ++lc)
        for (int32_t b = 0; b < 15; ++b) {
          int32_t kbps = b == 0 ? 0 : session::bitrate_table[(id * 3 - lc) * 15 + b];
          int32_t hz = session::sample_rate_table[id * 3 + si];
          int32_t expected = int32_t(int64_t(id ? 144000 : 72000) * kbps / hz);
          ASSERT_EQ(session::frame_size_table[((id * 3 + si) * 3 - lc) * 15 + b], expected)
              << "id " << id << " sampling " << si << " layer_code " << lc << " index " << b;
        }
}

// ---- Streams made by the encoders.

struct Encoded {
  const char* tool;
  int32_t hz;
  int32_t kbps;
  int32_t channels;
};

TEST_F(StreamTest, EncodersAtEverySamplingRate) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  REQUIRE_TOOL("twolame");
  const Encoded cases[] = {
      {"lame", 32000, 128, 2},    {"lame", 44100, 128, 2},   {"lame", 48000, 160, 1},    {"lame", 16000, 64, 2},
      {"lame", 22050, 64, 1},     {"lame", 24000, 48, 2},    {"twolame", 32000, 192, 2}, {"twolame", 44100, 192, 2},
      {"twolame", 48000, 128, 1}, {"twolame", 16000, 64, 2}, {"twolame", 22050, 96, 1},  {"twolame", 24000, 64, 2},
  };
  for (const Encoded& c : cases) {
    std::string label = std::string(c.tool) + " " + std::to_string(c.hz);
    SCOPED_TRACE(label);
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

    Opened o = open(out);
    ASSERT_EQ(o.code, session::STREAM_OK);
    EXPECT_EQ(o.position, 0);
    const session::StreamInfo& s = session::stream;
    EXPECT_EQ(s.mpeg_id, id);
    EXPECT_EQ(s.layer, layer);
    EXPECT_EQ(s.sample_rate, c.hz);
    EXPECT_EQ(s.sample_rate_khz, c.hz / 1000);
    EXPECT_EQ(s.bitrate_kbps, c.kbps);
    EXPECT_EQ(s.mode == 3, c.channels == 1);
    EXPECT_EQ(s.data_start, 0);
    EXPECT_EQ(s.data_end, size);
    EXPECT_EQ(s.file_size, size);
    EXPECT_EQ(s.data_size, size);
    // The same K for Layers II and III: MPEG-2 Layer II frames count half their real length.
    const int32_t base_bytes = (id ? 144000 : 72000) * c.kbps / c.hz;
    EXPECT_GE(s.frame_bytes, base_bytes);
    EXPECT_LE(s.frame_bytes, base_bytes + 1);
    EXPECT_EQ(s.frame_count, size / s.frame_bytes);
    EXPECT_EQ(s.play_seconds, size / (c.kbps * 125));
    EXPECT_GE(s.play_seconds, 2);
    EXPECT_LE(s.play_seconds, 3);
    EXPECT_EQ(s.tag_buffer[127], 247) << "an untagged file gets the cleared record";
    EXPECT_EQ(session::stream_wrapper, 0);
    EXPECT_TRUE(boxes.empty());

    session::ProbeInfo p{};
    ASSERT_EQ(session::probe_file(out.c_str(), p), 0);
    EXPECT_EQ(p.id, id);
    EXPECT_EQ(p.layer, layer);
    EXPECT_EQ(p.kbps, c.kbps);
    // The probe's sampling index loses its low bit: 48000 and 24000 are shown as 44100 and 22050.
    const int32_t shown = c.hz == 48000 ? 44100 : c.hz == 24000 ? 22050 : c.hz;
    EXPECT_EQ(p.hz, shown);
    EXPECT_EQ(p.data_end, size);
    EXPECT_EQ(p.file_size, size);
    EXPECT_EQ(p.play_seconds, s.play_seconds);
  }
}

// ---- Tail tag.

TEST_F(StreamTest, TailTagInAnyCase) {
  REQUIRE_BASE();
  for (const char* mark : {"TAG", "tag", "TaG"}) {
    SCOPED_TRACE(mark);
    Bytes file = base();
    Bytes tag(128, 0);
    std::memcpy(tag.data(), mark, 3);
    std::memcpy(tag.data() + 3, "A title", 7);
    tag[127] = 17;
    put(file, tag);
    Opened o = open(write("tagged.mp3", file));
    ASSERT_EQ(o.code, session::STREAM_OK);
    EXPECT_EQ(session::stream.data_end, int32_t(base().size()));
    EXPECT_EQ(session::stream.file_size, int32_t(file.size()));
    EXPECT_EQ(0, std::memcmp(session::stream.tag_buffer, tag.data(), 128));
    EXPECT_TRUE(session::stream_wrapper & session::WRAP_TAG);
  }
}

TEST_F(StreamTest, UntaggedFileGetsClearedRecord) {
  REQUIRE_BASE();
  std::memset(session::stream.tag_buffer, 0x77, 128);
  ASSERT_EQ(open(write("plain.mp3", base())).code, session::STREAM_OK);
  for (int i = 0; i < 128; ++i) {
    uint8_t expected = i == 125 ? ' ' : i == 127 ? 247 : 0;
    ASSERT_EQ(session::stream.tag_buffer[i], expected) << "byte " << i;
  }
  EXPECT_EQ(session::stream.data_end, int32_t(base().size()));
}

TEST_F(StreamTest, ShortFileKeepsThePreviousTag) {
  REQUIRE_BASE();
  Bytes tagged = base();
  Bytes tag(128, 'x');
  std::memcpy(tag.data(), "TAG", 3);
  put(tagged, tag);
  ASSERT_EQ(open(write("tagged.mp3", tagged)).code, session::STREAM_OK);
  // 100 bytes: a Layer I header at 44.1 kHz, 64 kbit/s, then zeros.
  Opened o = open(write("short.mp1", crafted(1, 3, 2, 0, 0, 0xC0, 100)));
  ASSERT_EQ(o.code, session::STREAM_OK);
  EXPECT_EQ(0, std::memcmp(session::stream.tag_buffer, tag.data(), 128));
  EXPECT_EQ(session::stream.data_end, 100);
  EXPECT_EQ(session::stream.file_size, 100);
  EXPECT_EQ(session::stream.layer, 1);
  // Layer I counts with K = 48000: floor(48000 * 64 / 44100) = 69.
  EXPECT_EQ(session::stream.frame_bytes, 69);
}

// ---- First frame and its facts.

TEST_F(StreamTest, LayerOneFrameBytes) {
  struct Case {
    uint32_t id, bitrate, sampling, padding;
    int32_t bytes;
  };
  const Case cases[] = {
      {1, 2, 0, 0, 69},                      // 48000 * 64 / 44100, the padding adds one byte though a slot is four
      {1, 2, 0, 1, 70}, {1, 14, 2, 0, 672},  // 48000 * 448 / 32000
      {0, 1, 0, 0, 34},                      // MPEG-2: 24000 * 32 / 22050
      {1, 0, 1, 0, 1},                       // free format counts with the 1 of column 0
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    ASSERT_EQ(open(write("l1.mp1", crafted(c.id, 3, c.bitrate, c.sampling, c.padding, 0xC0, 4000))).code,
              session::STREAM_OK);
    EXPECT_EQ(session::stream.frame_bytes, c.bytes);
    EXPECT_EQ(session::stream.frame_count, 4000 / c.bytes);
  }
}

TEST_F(StreamTest, HeaderFieldsAndEmphasis) {
  // MPEG-1 Layer II, 32 kHz, no CRC, private, dual channel with mode_ext 3, copyright, original,
  // emphasis 2, 160 kbit/s. The bits behind the sync: 1 10 0, 1001 10 0 1, 10 11 1 1 10.
  const Bytes bytes = {0xFF, 0xFC, 0x99, 0xBE};
  Bytes file = bytes;
  file.resize(5000, 0);
  std::string path = write("fields.mp2", file);
  ASSERT_EQ(open(path).code, session::STREAM_OK);
  const session::StreamInfo& s = session::stream;
  EXPECT_EQ(s.mpeg_id, 1);
  EXPECT_EQ(s.layer, 2);
  EXPECT_EQ(s.protection, 0);
  EXPECT_EQ(s.bitrate_kbps, 160);
  EXPECT_EQ(s.sample_rate, 32000);
  EXPECT_EQ(s.private_bit, 1);
  EXPECT_EQ(s.mode, 2);
  EXPECT_EQ(s.mode_ext, 3);
  EXPECT_EQ(s.copyright, 1);
  EXPECT_EQ(s.original, 1);
  EXPECT_EQ(s.emphasis_mode, 2);
  EXPECT_EQ(s.frame_bytes, 720);
  EXPECT_EQ(s.play_seconds, 1) << "at least one second";

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
  struct Case {
    const char* name;
    Bytes bytes;
    const char* text;  // nullptr: silent
  };
  Bytes junk(300, 0x11);
  Bytes rejected_sync_last = junk;
  put(rejected_sync_last, Bytes{0xFF, 0xFB, 0xF0, 0x00});
  const Case cases[] = {
      {"end after a refused sync", rejected_sync_last, "読み込みエラー"},
      {"MPEG 2.5", crafted(0, 1, 9, 0, 0, 0x44, 300, 0xFFE),
       "MPEG 2.5(Fraunhofer format)フォーマットには対応していません"},
      {"free format", crafted(1, 1, 0, 0, 0, 0x44, 300), "free format stream には対応していません"},
      {"empty", {}, nullptr},
      {"three bytes", {0xFF, 0xFB, 0x90}, nullptr},
      {"junk", junk, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    boxes.clear();
    EXPECT_EQ(open(write("bad.mp3", c.bytes)).code, -1);
    if (c.text) {
      ASSERT_EQ(boxes.size(), 1u);
      EXPECT_EQ(boxes[0].caption, "TOVRA Information");
      EXPECT_EQ(boxes[0].text, c.text);
    } else {
      EXPECT_TRUE(boxes.empty());
    }
  }
}

// ---- Macintosh heads.

TEST_F(StreamTest, MacBinaryHead) {
  REQUIRE_BASE();
  auto mac_head = [](uint8_t name_length, bool zero_80, bool zero_38) {
    Bytes head(128, 0);
    head[1] = name_length;
    std::memcpy(head.data() + 2, "song.mp3", 8);
    std::memcpy(head.data() + 65, "MPG3hook", 8);
    if (!zero_80) head[81] = 0x12;
    if (!zero_38) head[38] = 'x';
    head[84] = 0x10;  // data fork length, low bytes
    return head;
  };
  struct Case {
    const char* name;
    Bytes head;
    int32_t data_start;
  };
  const Case cases[] = {
      {"MacBinary", mac_head(8, true, true), 128},
      {"bytes 80-83 not zero", mac_head(8, false, true), 0},
      {"name reaching byte 38", mac_head(8, true, false), 0},
      {"name length of 64", mac_head(64, true, true), 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes file = c.head;
    put(file, base());
    Opened o = open(write("mac.mp3", file));
    // Without the head the sync search still finds the frames behind it.
    ASSERT_EQ(o.code, session::STREAM_OK);
    EXPECT_EQ(session::stream.data_start, c.data_start);
    EXPECT_EQ(o.position, c.data_start);
    EXPECT_EQ(session::stream.data_size, int32_t(file.size()) - c.data_start);
    EXPECT_EQ(bool(session::stream_wrapper & session::WRAP_MACBINARY), c.data_start == 128);
  }
}

TEST_F(StreamTest, MacromediaHead) {
  REQUIRE_BASE();
  // A big-endian length of 60 bytes of head behind the length word; "MACR" at 36.
  Bytes file = {0, 0, 0, 60};
  file.resize(64, 0x20);
  std::memcpy(file.data() + 36, "MACR", 4);
  put(file, base());
  Opened o = open(write("macr.mp3", file));
  ASSERT_EQ(o.code, session::STREAM_OK);
  EXPECT_EQ(session::stream.data_start, 64);
  EXPECT_EQ(o.position, 64);
  EXPECT_TRUE(session::stream_wrapper & session::WRAP_MACROMEDIA);

  session::ProbeInfo p{};
  EXPECT_EQ(session::probe_file(dir_.file("macr.mp3").c_str(), p), 0);
  EXPECT_EQ(p.data_start, 64);
}

// ---- RIFF wrappers.

TEST_F(StreamTest, WaveWrapperWithTrailingChunks) {
  REQUIRE_BASE();
  for (uint32_t fmt_size : {30u, 40u}) {
    SCOPED_TRACE(fmt_size);
    Bytes chunks = fmt_chunk(fmt_size == 30 ? 85 : 80, fmt_size);
    put(chunks, chunk("fact", {0x10, 0, 0, 0}));
    const int32_t data_start = 12 + int32_t(chunks.size()) + 8;
    put(chunks, chunk("data", base()));
    put(chunks, chunk("LIST", Bytes(40, 'l')));
    put(chunks, chunk("junk", Bytes(300, 'j')));
    Bytes file = riff("WAVE", chunks);
    Opened o = open(write("wrapped.wav", file));
    ASSERT_EQ(o.code, session::STREAM_OK);
    EXPECT_EQ(o.position, data_start);
    EXPECT_EQ(session::stream.data_start, data_start);
    EXPECT_EQ(session::stream.data_end, data_start + int32_t(base().size()));
    EXPECT_EQ(session::stream.file_size, int32_t(file.size()));
    EXPECT_EQ(session::stream.sample_rate, 44100);
    EXPECT_EQ(tag_text(), "RIF");
    EXPECT_TRUE(session::stream_wrapper & session::WRAP_WAVE);

    session::ProbeInfo p{};
    EXPECT_EQ(session::probe_file(dir_.file("wrapped.wav").c_str(), p), 1);
    EXPECT_EQ(p.data_start, data_start);
    EXPECT_EQ(p.kbps, 128);
  }
}

TEST_F(StreamTest, WaveOfOtherFormatReturnsItsTag) {
  for (uint32_t tag : {1u, 3u, 79u, 86u, 0x55AAu}) {
    SCOPED_TRACE(tag);
    Bytes chunks = fmt_chunk(tag, 16);
    put(chunks, chunk("data", Bytes(2000, 0)));
    Opened o = open(write("pcm.wav", riff("WAVE", chunks)));
    EXPECT_EQ(o.code, int32_t(tag));
    EXPECT_EQ(o.position, 0);
    EXPECT_TRUE(boxes.empty());
  }
}

TEST_F(StreamTest, PcmWaveFromSox) {
  REQUIRE_TOOL("sox");
  std::string wav = dir_.file("pcm.wav");
  ASSERT_EQ(test::run("sox -q -n -r 22050 -c 1 -b 16 " + wav + " synth 0.5 sine 300 vol 0.5"), 0);
  EXPECT_EQ(open(wav).code, 1);
  session::ProbeInfo p{};
  EXPECT_EQ(session::probe_file(wav.c_str(), p), -1);
}

TEST_F(StreamTest, RiffWithoutDataChunk) {
  // MPEG format tags, but no "data": 32768 and the file back at the data start.
  Bytes chunks = fmt_chunk(85, 30);
  put(chunks, chunk("fact", {1, 0, 0, 0}));
  Opened o = open(write("nodata.wav", riff("WAVE", chunks)));
  EXPECT_EQ(o.code, session::STREAM_NO_DATA);
  EXPECT_EQ(o.position, 0);

  o = open(write("nodata.rmp", riff("RMP3", chunk("LIST", Bytes(10, 'x')))));
  EXPECT_EQ(o.code, session::STREAM_NO_DATA);
  EXPECT_EQ(o.position, 0);
}

// The RMP3 file: an odd "data" chunk with its pad byte, a LIST INFO chunk of unaligned items (one
// unknown, "ISFT" and then "IPCD" for the same slot), another pad byte, and a chunk behind it.
struct Rmp3 {
  Bytes file;
  int32_t data_start = 0;
  int32_t name_at = 0, artist_at = 0, comment_at = 0, software_at = 0;
};

Rmp3 make_rmp3(const Bytes& audio) {
  Rmp3 r;
  Bytes chunks;
  Bytes data = audio;
  if (data.size() % 2 == 0) data.push_back(0);  // odd, so that a pad byte follows
  r.data_start = 12 + 8;
  put(chunks, chunk("data", data));
  chunks.push_back(0);
  Bytes info;
  put(info, "INFO");
  const int32_t list_contents = 12 + int32_t(chunks.size()) + 8;
  auto item = [&](const std::string& id, const std::string& text, int32_t* at) {
    put(info, id);
    put32(info, uint32_t(text.size()));
    if (at) *at = list_contents + int32_t(info.size());
    put(info, text);
  };
  item("INAM", std::string("Title\0", 6), &r.name_at);
  item("IART", "Art", &r.artist_at);  // odd: the next item follows without alignment
  item("IXYZ", "unknown", nullptr);
  item("ISFT", "soft", nullptr);
  item("IPCD", "pcd!", &r.software_at);
  item("ICMT", "comment", &r.comment_at);
  put(chunks, chunk("LIST", info));  // odd size: a pad byte follows
  chunks.push_back(0);
  put(chunks, chunk("DISP", Bytes(9, 'd')));
  r.file = riff("RMP3", chunks);
  return r;
}

TEST_F(StreamTest, Rmp3WrapperWithListInfo) {
  REQUIRE_BASE();
  Rmp3 r = make_rmp3(base());
  std::string path = write("song.rmp", r.file);
  std::memset(session::stream.list_info, 0x33, sizeof session::stream.list_info);
  Opened o = open(path);
  ASSERT_EQ(o.code, session::STREAM_OK);
  EXPECT_EQ(o.position, r.data_start);
  EXPECT_EQ(session::stream.data_start, r.data_start);
  EXPECT_EQ(session::stream.data_end, r.data_start + int32_t(base().size() | 1));
  EXPECT_EQ(tag_text(), "RMP");
  EXPECT_TRUE(session::stream_wrapper & session::WRAP_RMP3);
  const auto& info = session::stream.list_info;
  EXPECT_EQ(info[0][0], r.name_at);
  EXPECT_EQ(info[0][1], 6);
  EXPECT_EQ(info[1][0], r.artist_at);
  EXPECT_EQ(info[1][1], 3);
  EXPECT_EQ(info[2][0], r.comment_at);
  EXPECT_EQ(info[6][0], r.software_at) << "the last of ISFT and IPCD wins";
  for (int slot : {3, 4, 5, 7, 8}) {
    EXPECT_EQ(info[slot][0], 0) << "slot " << slot << " not cleared";
    EXPECT_EQ(info[slot][1], 0);
  }
  // The offsets point at the texts.
  EXPECT_EQ(0, std::memcmp(r.file.data() + r.name_at, "Title", 5));
  EXPECT_EQ(0, std::memcmp(r.file.data() + r.artist_at, "Art", 3));

  session::ProbeInfo p{};
  EXPECT_EQ(session::probe_file(path.c_str(), p), 2);
  EXPECT_EQ(p.data_start, r.data_start);
}

TEST_F(StreamTest, Rmp3WithoutListAndWithBrokenItems) {
  REQUIRE_BASE();
  // No LIST: no mark.
  Bytes plain = riff("RMP3", chunk("data", base()));
  ASSERT_EQ(open(write("plain.rmp", plain)).code, session::STREAM_OK);
  EXPECT_EQ(tag_text(), std::string("\0\0\0", 3));

  // An item whose size runs past its chunk, and a LIST that claims more than the file holds: the
  // items before them count, nothing is read out of bounds.
  Bytes info;
  put(info, "INFO");
  put(info, "INAM");
  put32(info, 2);
  put(info, "ok");
  put(info, "IART");
  put32(info, 0x7FFFFFF0);
  put(info, "cut");
  Bytes chunks = chunk("data", base());
  put(chunks, chunk("LIST", info));
  Bytes huge;
  put(huge, "LIST");
  put32(huge, 0xFFFFFF00u);
  put(huge, "INFOIENG");
  put(chunks, huge);
  ASSERT_EQ(open(write("broken.rmp", riff("RMP3", chunks))).code, session::STREAM_OK);
  EXPECT_EQ(session::stream.list_info[0][1], 2);
  EXPECT_EQ(session::stream.list_info[1][1], 0x7FFFFFF0);
  EXPECT_EQ(session::stream.data_start, 20);
}

TEST_F(StreamTest, OtherRiffFormSearchedFromItsHead) {
  REQUIRE_BASE();
  Bytes file = riff("AVI ", chunk("data", base()));
  Opened o = open(write("other.riff", file));
  ASSERT_EQ(o.code, session::STREAM_OK);
  EXPECT_EQ(session::stream.data_start, 0);
  EXPECT_EQ(session::stream_wrapper, 0);
}

// ---- probe_stream.

bool fd_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST_F(StreamTest, ProbeDifferences) {
  REQUIRE_BASE();
  session::ProbeInfo p{};
  // No sync search: junk before the first frame fails, though open_stream finds it.
  Bytes junk_first(10, 0x11);
  put(junk_first, base());
  std::string junk_path = write("junk.mp3", junk_first);
  EXPECT_EQ(session::probe_file(junk_path.c_str(), p), -1);
  EXPECT_EQ(open(junk_path).code, session::STREAM_OK);

  // Only bit-rate index 15 is refused: a reserved layer and sampling index pass.
  EXPECT_EQ(session::probe_file(write("br15.mp3", crafted(1, 1, 15, 0, 0, 0x44, 500)).c_str(), p), -1);
  ASSERT_EQ(session::probe_file(write("layer0.mp3", crafted(1, 0, 9, 3, 0, 0x44, 500)).c_str(), p), 0);
  EXPECT_EQ(p.layer, 4);
  EXPECT_EQ(p.hz, 32000) << "index 3 masked with 2";
  EXPECT_EQ(p.kbps, 0);
  EXPECT_EQ(p.play_seconds, 0);
  EXPECT_EQ(session::probe_file(write("mpeg25.mp3", crafted(0, 1, 9, 0, 0, 0x44, 500, 0xFFE)).c_str(), p), -1);
  EXPECT_TRUE(boxes.empty()) << "the probe never speaks";

  // No options: the stream's own emphasis.
  session::options.force_de_emphasis = 3;
  session::options.hi_fi = 1;
  ASSERT_EQ(session::probe_file(write("emph.mp3", crafted(1, 1, 9, 0, 0, 0x45, 500)).c_str(), p), 0);
  EXPECT_EQ(p.emphasis, 1);

  // probe_stream leaves the file open on the wrapper stage's own failures, and closes it on the rest.
  Bytes pcm = fmt_chunk(1, 16);
  put(pcm, chunk("data", Bytes(100, 0)));
  struct Case {
    Bytes bytes;
    int32_t result;
    bool stays_open;
  };
  const Case cases[] = {
      {riff("WAVE", pcm), -1, true},
      {riff("WAVE", fmt_chunk(85, 30)), session::STREAM_NO_DATA, true},
      {junk_first, -1, false},
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

// ---- The file job over wrapped streams.

// Decodes a file to raw PCM with a file job; returns the output's size, or -1 when it did not start.
long decode_to_raw(const std::string& in_path, const std::string& out_path) {
  session::options.ext_filter = 0;
  int32_t started = session::start_decode_file(in_path.c_str(), out_path.c_str());
  if (started != session::START_OK) {
    EXPECT_EQ(session::reader.file, nullptr) << "a refused start closes the input";
    return -1;
  }
  session::wait_file_job();
  EXPECT_EQ(session::reader.file, nullptr);
  EXPECT_EQ(session::state.file_job_cancel.load(), 1);
  return long(test::read_file(out_path).size());
}

TEST_F(StreamTest, FileJobOverWrappedFiles) {
  REQUIRE_BASE();
  const long bare = decode_to_raw(write("bare.mp3", base()), dir_.file("bare.raw"));
  ASSERT_GT(bare, 0);
  // The wrappers' chunks add no frames and lose none. A "data" chunk that claims less than the
  // frames hold only shortens the measured length: the job reads on past it.
  Bytes chunks = fmt_chunk(85, 30);
  Bytes short_data;
  put(short_data, "data");
  put32(short_data, uint32_t(base().size() / 2));
  put(short_data, base());
  put(chunks, short_data);
  const std::string wave = write("short.wav", riff("WAVE", chunks));
  EXPECT_EQ(decode_to_raw(wave, dir_.file("wave.raw")), bare);
  EXPECT_EQ(session::stream.data_size, int32_t(base().size() / 2));
  EXPECT_EQ(decode_to_raw(write("song.rmp", make_rmp3(base()).file), dir_.file("rmp.raw")), bare);

  EXPECT_EQ(decode_to_raw(write("empty.mp3", {}), dir_.file("empty.raw")), -1);
  EXPECT_FALSE(std::ifstream(dir_.file("empty.raw")).good()) << "a refused job's output is deleted";
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

TEST_F(StreamTest, CliInfoShowsFactsAndWrappers) {
  REQUIRE_BASE();
  std::string plain = write("plain.mp3", base());
  Cli c = info(plain);
  EXPECT_EQ(c.status, 0) << c.out;
  for (const char* line : {"format: MPEG-1 Layer 3\n", "bitrate: 128 kbit/s\n", "sample_rate: 44100 Hz\n",
                           "wrapper: none\n", "tag: no\n", "data_start: 0\n", "play_seconds: 1\n"})
    EXPECT_NE(c.out.find(line), std::string::npos) << line << " missing in\n" << c.out;
  EXPECT_NE(c.out.find("file_size: " + std::to_string(base().size()) + "\n"), std::string::npos);

  Rmp3 r = make_rmp3(base());
  c = info(write("song.rmp", r.file));
  EXPECT_EQ(c.status, 0) << c.out;
  for (const char* line :
       {"wrapper: RIFF RMP3\n", "info INAM: Title\n", "info IART: Art\n", "info ISFT: pcd!\n", "data_start: 20\n"})
    EXPECT_NE(c.out.find(line), std::string::npos) << line << " missing in\n" << c.out;

  Bytes chunks = fmt_chunk(85, 30);
  put(chunks, chunk("data", base()));
  Bytes tagged = riff("WAVE", chunks);
  Bytes tag(128, 0);
  std::memcpy(tag.data(), "TAG", 3);
  put(tagged, tag);
  c = info(write("tagged.wav", tagged));
  EXPECT_EQ(c.status, 0) << c.out;
  EXPECT_NE(c.out.find("wrapper: RIFF WAVE\n"), std::string::npos) << c.out;
  EXPECT_NE(c.out.find("tag: yes\n"), std::string::npos) << c.out;

  c = info("--frames " + plain);
  EXPECT_EQ(c.status, 0);
  EXPECT_NE(c.out.find("frame 0: offset 0, MPEG-1 Layer 3, 128 kbit/s, 44100 Hz"), std::string::npos) << c.out;
  EXPECT_NE(c.out.find("end: code 262"), std::string::npos) << c.out;
}

TEST_F(StreamTest, CliInfoRefusesWhatIsNotMpegAudio) {
  REQUIRE_BASE();
  Bytes garbage(5000);
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t((i * 37 + 11) & 0x7F);
  Bytes truncated(base().begin(), base().begin() + 3);
  Bytes pcm = fmt_chunk(1, 16);
  put(pcm, chunk("data", Bytes(100, 0)));
  struct Case {
    const char* name;
    std::string path;
    const char* says;
  };
  const Case cases[] = {
      {"garbage", write("garbage.bin", garbage), "no MPEG audio"},
      {"empty", write("empty.mp3", {}), "no MPEG audio"},
      {"truncated", write("cut.mp3", truncated), "no MPEG audio"},
      {"folder", dir_.path, "no MPEG audio"},
      {"missing", dir_.file("missing.mp3"), "が開けない"},
      {"PCM WAVE", write("pcm.wav", riff("WAVE", pcm)), "format tag 1"},
      {"MPEG 2.5", write("m25.mp3", crafted(0, 1, 9, 0, 0, 0x44, 500, 0xFFE)),
       "TOVRA Information: MPEG 2.5(Fraunhofer format)フォーマットには対応していません"},
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
