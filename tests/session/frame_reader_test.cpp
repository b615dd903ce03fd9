// The frame reader on crafted byte strings (every result code, the sliding sync search and its
// ends) and the reservoir ring with its guard. Walks of real streams are in stream_test.
#include "session/frame_reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "session/stream.h"
#include "support/support.h"

namespace {

using test::Bytes;
using test::cat;

// Holds bytes in an anonymous file as the session's input for one test.
struct Input {
  explicit Input(const Bytes& bytes) {
    session::reader.file = std::tmpfile();
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), session::reader.file);
    std::rewind(session::reader.file);
    session::reset_frame_reader();
  }
  ~Input() {
    std::fclose(session::reader.file);
    session::reader.file = nullptr;
  }
  long position() const { return std::ftell(session::reader.file); }
};

struct Fields {
  uint32_t sync = 0xFFF, id = 1, layer_code = 1, protection = 1, bitrate = 9, sampling = 0, padding = 0,
           private_bit = 0, mode = 0, mode_ext = 0, copyright = 0, original = 0, emphasis = 0;
};

Bytes header(const Fields& f) {
  uint32_t w = f.sync << 20 | f.id << 19 | f.layer_code << 17 | f.protection << 16 | f.bitrate << 12 |
               f.sampling << 10 | f.padding << 9 | f.private_bit << 8 | f.mode << 6 | f.mode_ext << 4 |
               f.copyright << 3 | f.original << 2 | f.emphasis;
  return {uint8_t(w >> 24), uint8_t(w >> 16), uint8_t(w >> 8), uint8_t(w)};
}

struct CodeCase {
  const char* name;
  Bytes bytes;
  int32_t code;
  long position;  // file position after the call
};

TEST(ReadFrame, CodesAndPositions) {
  const Bytes layer3 = header({}), layer2 = header({.layer_code = 2}), layer1 = header({.layer_code = 3});
  const Bytes mpeg25 = header({.sync = 0xFFE, .id = 0});
  const Bytes bad_rate = header({.bitrate = 15});
  const Bytes junk = {0x00, 0x12, 0x34, 0x56, 0x78};

  const std::vector<CodeCase> cases = {
      {"layer III", layer3, session::FRAME_OK, 4},
      {"layer II", layer2, session::FRAME_OK, 4},
      {"layer I", layer1, session::FRAME_LAYER1, 4},
      {"layer I free format passes", header({.layer_code = 3, .bitrate = 0}), session::FRAME_LAYER1, 4},
      {"free format with no header to measure by", header({.bitrate = 0}), session::FRAME_EOF_AFTER_SYNC, 4},
      {"MPEG 2.5", mpeg25, session::FRAME_OK, 4},
      {"empty file", {}, session::FRAME_SHORT, 0},
      {"three bytes at the call", {0xFF, 0xFB, 0x90}, session::FRAME_SHORT, 3},
      {"junk to the end", junk, session::FRAME_EOF, 5},
      {"rejected sync is the last pattern", cat({{0x00}, bad_rate}), session::FRAME_EOF_AFTER_SYNC, 5},
      {"rejected sync then three junk bytes", cat({bad_rate, {0x01, 0x02, 0x03}}), session::FRAME_EOF, 7},
      {"junk then a rejected sync at the end", cat({junk, bad_rate}), session::FRAME_EOF_AFTER_SYNC, 9},
      {"three bytes of a sync at the end are junk", cat({junk, {0xFF, 0xFB, 0x90}}), session::FRAME_EOF, 8},
      {"rejected MPEG 2.5 is plain junk", header({.sync = 0xFFE, .id = 0, .bitrate = 15}), session::FRAME_EOF, 4},
      {"junk before a frame", cat({junk, layer3}), session::FRAME_OK, 9},
      {"bit-rate index 15 in junk", cat({{0x00}, bad_rate, {0x00}, layer3}), session::FRAME_OK, 10},
      {"reserved layer skipped", cat({header({.layer_code = 0}), layer2}), session::FRAME_OK, 8},
      {"reserved sampling index skipped", cat({header({.sampling = 3}), layer1}), session::FRAME_LAYER1, 8},
      // FF FF FB 90: the first window (FFF, Layer I, bit-rate 15) is refused, the next one is good.
      {"sync one byte after a refused one", {0xFF, 0xFF, 0xFB, 0x90, 0x00}, session::FRAME_OK, 5},
      {"MPEG 2.5 found behind junk", cat({junk, mpeg25}), session::FRAME_OK, 9},
      {"MPEG 2.5 is Layer III only", header({.sync = 0xFFE, .id = 0, .layer_code = 2}), session::FRAME_EOF, 4},
  };
  for (const CodeCase& c : cases) {
    SCOPED_TRACE(c.name);
    Input in(c.bytes);
    session::FrameHeader h;
    std::memset(&h, 0x5A, sizeof h);
    int32_t code = session::read_frame(h);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(in.position(), c.position);
    if (code == session::FRAME_OK || code == session::FRAME_LAYER1) {
      // The window holds the accepted header's bytes.
      EXPECT_EQ(0, std::memcmp(session::reader.frame_head, c.bytes.data() + c.position - 4, 4));
    } else {
      session::FrameHeader untouched;
      std::memset(&untouched, 0x5A, sizeof untouched);
      EXPECT_EQ(0, std::memcmp(&h, &untouched, sizeof h)) << "header written on a failure";
    }
  }
}

TEST(ReadFrame, SplitsEveryFieldAndZeroesModeExtensionForStereo) {
  for (uint32_t mode = 0; mode < 4; ++mode) {
    SCOPED_TRACE(mode);
    Fields f;
    f.id = 0, f.layer_code = 2, f.protection = 0, f.bitrate = 13, f.sampling = 2, f.padding = 1, f.private_bit = 1;
    f.mode = mode, f.mode_ext = 2, f.copyright = 1, f.original = 0, f.emphasis = 3;
    Input in(header(f));
    session::FrameHeader h{};
    ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
    EXPECT_EQ(
        (std::vector<int32_t>{h.id, h.layer_code, h.protection_bit, h.bitrate_index, h.sampling_index, h.padding_bit,
                              h.private_bit, h.mode, h.mode_ext, h.copyright, h.original, h.emphasis}),
        (std::vector<int32_t>{0, 2, 0, 13, 2, 1, 1, int32_t(mode), mode == 0 ? 0 : 2, 1, 0, 3}));
  }
}

TEST(ReadFrame, LayerOneHeaderInMidStream) {
  // A Layer III frame of 417 bytes, then a Layer I header: the reader takes it as it comes.
  Bytes bytes = header({});
  bytes.resize(417, 0x00);
  Input in(cat({bytes, header({.layer_code = 3, .bitrate = 2})}));
  session::FrameHeader h{};
  ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
  EXPECT_EQ(h.layer_code, 1);
  ASSERT_EQ(session::read_frame(h), session::FRAME_LAYER1);
  EXPECT_EQ(h.layer_code, 3);
  EXPECT_EQ(in.position(), 421);
  EXPECT_EQ(session::read_frame(h), session::FRAME_SHORT);
}

TEST(ReadFrame, BodyBytesAndReset) {
  Input in(cat({header({.protection = 0}), {0xAB, 0xCD, 0xEF}}));
  session::FrameHeader h{};
  ASSERT_EQ(session::read_frame(h), session::FRAME_OK);
  EXPECT_EQ(session::read_frame_body(5), 3) << "the end of the file cuts the body short";
  const uint8_t* body = session::reader.body;
  EXPECT_EQ((std::vector<long>{body[0], body[1], body[2], in.position()}), (std::vector<long>{0xAB, 0xCD, 0xEF, 7}));
  EXPECT_EQ(session::read_frame_body(0), 0);
  session::reset_frame_reader();
  const auto& r = session::reader;
  EXPECT_EQ(Bytes(r.frame_head, r.frame_head + sizeof r.frame_head), Bytes(sizeof r.frame_head, 0));
}

}  // namespace
