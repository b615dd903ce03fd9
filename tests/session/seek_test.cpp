// Frame walks of the transport on a generated stream whose frame bodies carry their own index, so
// that where the file stands and what the reservoir holds can be read off the bytes.
#include "session/seek.h"

#include <gtest/gtest.h>

#include "session/session.h"
#include "session/stream.h"
#include "support/support.h"

namespace {

// MPEG-1 Layer II, 44.1 kHz, 128 kbit/s, single channel, no CRC: 417 bytes a frame.
constexpr int32_t FRAME = 417;
constexpr int32_t HEAD = 21;  // header and side information of an MPEG-1 single-channel frame

std::vector<uint8_t> indexed_stream(int frames, int broken = -1) {
  std::vector<uint8_t> bytes;
  for (int i = 0; i < frames; ++i) {
    std::vector<uint8_t> frame(FRAME, uint8_t(i));
    frame[0] = 0xFF;
    frame[1] = 0xFD;
    frame[2] = i == broken ? 0xF0 : 0x80;  // bit-rate index 15 is refused by the reader
    frame[3] = 0xC0;
    bytes.insert(bytes.end(), frame.begin(), frame.end());
  }
  return bytes;
}

class Seek : public ::testing::Test {
 protected:
  void open(const std::vector<uint8_t>& bytes, int32_t first_code = session::FRAME_OK) {
    test::write_file(dir.file("s.mp2"), bytes);
    session::reader.file = std::fopen(dir.file("s.mp2").c_str(), "rb");
    ASSERT_NE(session::reader.file, nullptr);
    session::reset_decoding();
    ASSERT_EQ(session::open_stream(), session::STREAM_OK);
    ASSERT_EQ(session::read_frame(header), first_code);
  }
  void TearDown() override {
    if (session::reader.file) std::fclose(session::reader.file);
    session::reader.file = nullptr;
  }
  long position() const { return std::ftell(session::reader.file); }
  test::TempDir dir;
  session::FrameHeader header{};
};

TEST_F(Seek, JumpPrimesTheReservoirWithTheTargetAndResumesBehindIt) {
  open(indexed_stream(30));
  ASSERT_EQ(session::stream.frame_count, 30);
  for (int32_t target : {0, 5, 29}) {
    session::decoding.reservoir = {};
    session::state.seek_target.store(target);
    int32_t reached = session::seek_to_frame(header);
    if (target == 29) {
      // The target is the last frame: no frame behind it, so the end is reported.
      EXPECT_EQ(reached, 30);
      continue;
    }
    EXPECT_EQ(reached, target);
    EXPECT_EQ(position(), (target + 1) * FRAME + 4);
    for (int i = 0; i < FRAME - HEAD; ++i) ASSERT_EQ(session::decoding.reservoir.bytes[i], target) << i;
    EXPECT_EQ(session::decoding.reservoir.write, FRAME - HEAD);
  }
  session::state.seek_target.store(40);
  EXPECT_EQ(session::seek_to_frame(header), 30) << "beyond the end gives frame_count";
}

TEST_F(Seek, JumpOntoABrokenHeaderFindsTheNextFrameBySync) {
  open(indexed_stream(12, 7));
  session::decoding.reservoir = {};
  session::state.seek_target.store(7);
  EXPECT_EQ(session::seek_to_frame(header), 7);
  // The search slid over frame 7 and primed with frame 8; play resumes at frame 9.
  EXPECT_EQ(session::decoding.reservoir.bytes[0], 8);
  EXPECT_EQ(position(), 9 * FRAME + 4);
}

TEST_F(Seek, SkippingForwardAndBackWalksOneFrameAStep) {
  open(indexed_stream(10));
  EXPECT_EQ(position(), 4);
  EXPECT_EQ(session::skip_frames_back(header, 1), 0) << "nothing before the first frame";
  EXPECT_EQ(session::skip_frames_forward(header, 3), 3);
  EXPECT_EQ(position(), 3 * FRAME + 4);
  EXPECT_EQ(session::decoding.reservoir.bytes[FRAME - HEAD], 1) << "each walked frame fed the reservoir";
  EXPECT_EQ(session::skip_frames_back(header, 2), 2);
  EXPECT_EQ(position(), 1 * FRAME + 4);
  // From the second frame one step back reaches the first, by the shorter seek.
  EXPECT_EQ(session::skip_frames_back(header, 5), 1);
  EXPECT_EQ(position(), 4);
  // Forward past the end stops with the frames done.
  EXPECT_EQ(session::skip_frames_forward(header, 20), 9);
}

// Layer I frames are walked alike: 48 kHz stereo at 384 kbit/s, 384 bytes a frame.
TEST_F(Seek, LayerOneFramesWalkToo) {
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 10; ++i) {
    std::vector<uint8_t> frame(384, 0);
    frame[0] = 0xFF;
    frame[1] = 0xFF;
    frame[2] = 0xC4;
    bytes.insert(bytes.end(), frame.begin(), frame.end());
  }
  open(bytes, session::FRAME_LAYER1);
  EXPECT_EQ(session::skip_frames_forward(header, 3), 3);
  EXPECT_EQ(position(), 3 * 384 + 4);
  EXPECT_EQ(session::skip_frames_back(header, 2), 2);
  EXPECT_EQ(position(), 384 + 4);
}

}  // namespace
