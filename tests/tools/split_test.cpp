// The system stream splitter: streams built here byte by byte for the walk's rules, streams made
// by ffmpeg compared with ffmpeg's own copy of their audio, messages, cancel and the CLI.
#include "tools/split.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "session/tool_jobs.h"
#include "tools_support.h"

namespace {

using namespace tools_test;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes code(uint8_t c) { return {0, 0, 1, c}; }
// An MPEG-1 pack header: start code and the 8 bytes of clock and rate.
Bytes pack() { return code(0xBA) + Bytes{0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x1B, 0x91}; }
Bytes unit(uint8_t c, const Bytes& body) {
  return code(c) + Bytes{uint8_t(body.size() >> 8), uint8_t(body.size())} + body;
}
Bytes system_header() {
  return unit(0xBB, Bytes{0x80, 0x1B, 0x91, 0x04, 0xE1, 0xFF, 0xC0, 0xC0, 0x20, 0xE0, 0xE0, 0xE6});
}
Bytes padding(size_t n) { return unit(0xBE, Bytes(n, 0xFF)); }
Bytes end_code() { return code(0xB9); }

// Packet header forms of MPEG-1.
const Bytes NO_STAMP = {0x0F};
const Bytes STUFFED = {0xFF, 0xFF, 0xFF, 0x0F};
const Bytes BUFFER_SIZE = {0x60, 0x20, 0x0F};
const Bytes PTS = {0x21, 0x00, 0x01, 0x00, 0x01};
const Bytes PTS_DTS = {0x31, 0x00, 0x01, 0x00, 0x01, 0x11, 0x00, 0x01, 0x00, 0x01};
const Bytes BUFFER_PTS = {0xFF, 0x40, 0x10, 0x40, 0x10, 0x21, 0x00, 0x01, 0x00, 0x01};
// The MPEG-2 form: '10' marker bits, flags, header length, PTS.
const Bytes MPEG2_HEADER = {0x81, 0x80, 0x05, 0x21, 0x00, 0x01, 0x00, 0x01};

class Split : public ToolsTest {
 protected:
  // Splits bytes; returns the result of message 1049 (or -100 when none came) and the output.
  int32_t split(const Bytes& in, Bytes* out = nullptr) {
    test::write_file(dir.file("in.mpg"), in);
    return split_file(dir.file("in.mpg"), out);
  }
  int32_t split_file(const std::string& path, Bytes* out = nullptr) {
    install_recorder();
    int32_t started = session::start_split(tool_job, path.c_str(), dir.file("out.mpa").c_str());
    EXPECT_EQ(started, 0);
    if (started != 0) return -200;
    session::wait_job(tool_job);
    if (out) *out = test::read_file(dir.file("out.mpa"));
    std::vector<Message> ends = recorded(session::MSG_SPLIT_END);
    return ends.size() == 1 ? tools::split_end_error(int32_t(ends[0].wparam)) : -100;
  }
  void TearDown() override { session::wait_job(tool_job); }
};

TEST_F(Split, WritesTheAudioPayloadsAndSkipsEverythingElse) {
  Bytes a1(300, 0x11);
  Bytes a2(5000, 0x22);  // longer than the classic 4096-byte packet buffer
  Bytes a3(17, 0x33), a4(100, 0x44), a5(64, 0x55), a6(1, 0x66);
  for (size_t i = 0; i < a2.size(); ++i) a2[i] = uint8_t(i * 7);
  Bytes stream = pack() + system_header() + unit(0xE0, PTS_DTS + Bytes(700, 0xAA)) + unit(0xC0, PTS + a1) +
                 padding(50) + unit(0xC0, STUFFED + a2) + unit(0xD0, PTS + Bytes(90, 0xDD)) + pack() +
                 unit(0xC1, BUFFER_SIZE + a3) + unit(0xE3, BUFFER_PTS + Bytes(9, 0xAB)) + unit(0xCF, BUFFER_PTS + a4) +
                 unit(0xBD, Bytes(33, 0x01)) + unit(0xC0, NO_STAMP + a5) + Bytes(8, 0) + unit(0xC0, PTS_DTS + a6) +
                 end_code();
  Bytes out;
  EXPECT_EQ(split(stream, &out), format::ERR_OK);
  EXPECT_EQ(out, a1 + a2 + a3 + a4 + a5 + a6);

  // Progress with each audio packet, at the position behind it; the end with the bytes read.
  std::vector<Message> progress = recorded(session::MSG_SPLIT_PROGRESS);
  ASSERT_EQ(progress.size(), 7u);  // six audio packets and the end code
  EXPECT_EQ(progress.back().wparam, int64_t(stream.size()));
  EXPECT_EQ(progress.back().lparam, int64_t(stream.size()));
  EXPECT_EQ(recorded(session::MSG_SPLIT_END)[0].lparam, int64_t(stream.size()));
}

TEST_F(Split, EndsWhereTheFileOrTheStreamEnds) {
  Bytes out;
  // An end code stops the walk: what follows is not looked at.
  EXPECT_EQ(split(pack() + unit(0xC0, PTS + Bytes(10, 1)) + end_code() + Bytes{0x12, 0x34, 0x56}, &out), 0);
  EXPECT_EQ(out, Bytes(10, 1));
  // A file may stop anywhere, inside a packet too: the audio that is there is kept.
  Bytes whole = pack() + unit(0xC0, PTS + Bytes(10, 1)) + unit(0xC0, PTS + Bytes(100, 2));
  EXPECT_EQ(split(Bytes(whole.begin(), whole.end() - 40), &out), 0);
  EXPECT_EQ(out, Bytes(10, 1) + Bytes(60, 2));
  // No audio at all, from an empty file, a file cut before its first payload, or audio numbered
  // 0xD0 (not taken), is an error, and leaves no output.
  const Bytes silent[] = {{},
                          Bytes(whole.begin(), whole.begin() + 17),
                          pack() + unit(0xD0, PTS + Bytes(400, 5)) + unit(0xE0, PTS + Bytes(40, 6)) + end_code()};
  for (const Bytes& in : silent) {
    EXPECT_EQ(split(in), format::ERR_NO_AUDIO_FRAMES) << in.size();
    EXPECT_NE(access(dir.file("out.mpa").c_str(), F_OK), 0) << in.size();
  }
}

TEST_F(Split, RefusesWhatIsNotAnMpeg1SystemStream) {
  // An MPEG audio file: refused at its first two bytes.
  EXPECT_EQ(split(Bytes{0xFF, 0xFB, 0x90, 0x64, 0, 0, 0, 0}), format::ERR_NOT_SYSTEM);
  // Zeros are stepped over four at a time: six zeros in front of a code put it out of step.
  Bytes zeros4 = Bytes(4, 0) + pack() + unit(0xC0, PTS + Bytes(3, 9));
  Bytes out;
  EXPECT_EQ(split(zeros4, &out), format::ERR_OK);
  EXPECT_EQ(out, Bytes(3, 9));
  EXPECT_EQ(split(Bytes(6, 0) + pack()), format::ERR_NOT_SYSTEM);

  // The MPEG-2 packet header is the error of its packet's kind.
  EXPECT_EQ(split(pack() + unit(0xE0, MPEG2_HEADER + Bytes(20, 0))), format::ERR_VIDEO_FRAME);
  // A refused stream leaves no output, even behind audio already written.
  EXPECT_EQ(split(pack() + unit(0xC0, PTS + Bytes(10, 1)) + unit(0xC0, MPEG2_HEADER + Bytes(20, 0))),
            format::ERR_AUDIO_FRAME);
  EXPECT_NE(access(dir.file("out.mpa").c_str(), F_OK), 0);
  // A header that doesn't fit its packet, and one of stuffing alone, are bad headers too.
  EXPECT_EQ(split(pack() + unit(0xC0, Bytes{0x21, 0x00})), format::ERR_AUDIO_FRAME);
  EXPECT_EQ(split(pack() + unit(0xE0, Bytes(30, 0xFF))), format::ERR_VIDEO_FRAME);
  EXPECT_EQ(split(pack() + unit(0xC0, Bytes{})), format::ERR_AUDIO_FRAME);
}

TEST_F(Split, CancelAndRefusedStarts) {
  Bytes stream = pack();
  for (int i = 0; i < 50; ++i) stream = stream + unit(0xC0, PTS + Bytes(200, uint8_t(i)));
  test::write_file(dir.file("in.mpg"), stream);
  for (int32_t leave : {0, 1}) {
    session::options.leave = leave;
    install_recorder();
    recorder.cancel_on.store(session::MSG_SPLIT_PROGRESS);  // Cancel as the first progress shows
    ASSERT_EQ(session::start_split(tool_job, dir.file("in.mpg").c_str(), dir.file("out.mpa").c_str()), 0);
    session::wait_job(tool_job);
    EXPECT_EQ(recorded(session::MSG_SPLIT_END).size(), 0u);
    if (leave)
      EXPECT_EQ(test::read_file(dir.file("out.mpa")), Bytes(200, 0));  // the packet in hand is written
    else
      EXPECT_NE(access(dir.file("out.mpa").c_str(), F_OK), 0);
  }
  // The start refuses a missing input, an output it can't make, a running job.
  EXPECT_EQ(session::start_split(tool_job, dir.file("missing.mpg").c_str(), dir.file("o.mpa").c_str()),
            format::ERR_OPEN_INPUT);
  EXPECT_EQ(session::start_split(tool_job, dir.file("in.mpg").c_str(), dir.file("no/dir/o.mpa").c_str()),
            format::ERR_OPEN_OUTPUT);
  tool_job.busy.store(1);
  EXPECT_EQ(session::start_split(tool_job, dir.file("in.mpg").c_str(), dir.file("o.mpa").c_str()), format::ERR_BUSY);
  tool_job.busy.store(0);
}

// An ffmpeg system stream, split here and its audio copied by ffmpeg itself: the same bytes.
TEST_F(Split, FfmpegsStreamGivesFfmpegsCopyOfItsAudio) {
  REQUIRE_TOOL("ffmpeg");
  const std::string in = dir.file("a.mpg"), copy = dir.file("copy.mp2");
  ASSERT_EQ(test::run("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25 -f lavfi -i "
                      "sine=f=440:sample_rate=44100 -t 3 -c:v mpeg1video -c:a mp2 -b:a 128k -f mpeg " +
                      in + " </dev/null"),
            0);
  ASSERT_EQ(test::run("ffmpeg -v error -y -i " + in + " -map 0:a:0 -c:a copy -f mp2 " + copy + " </dev/null"), 0);
  Bytes out, want = test::read_file(copy);
  EXPECT_EQ(split_file(in, &out), format::ERR_OK);
  ASSERT_GT(want.size(), 40000u);
  EXPECT_TRUE(out == want) << out.size() << " bytes, ffmpeg " << want.size();
}

TEST_F(Split, CommandLineSpeaksTheSystemsTexts) {
  test::write_file(dir.file("in.mpg"), pack() + unit(0xC0, PTS + Bytes(10, 1)) + end_code());
  test::write_file(dir.file("bad.mpg"), Bytes{0xFF, 0xFB, 0x90, 0x64});
  const std::tuple<const char*, int, const char*> cases[] = {
      {"in.mpg", 0, ""}, {"bad.mpg", 1, "TOVRA Error: Not an MPEG file"}, {"missing.mpg", 1, "Cannot open"}};
  for (const auto& [in, want_status, text] : cases) {
    int status = -1;
    const std::string said = test::run_output(
        test::cli_path() + " split " + dir.file(in) + " " + dir.file(std::string(in) + ".mpa") + " 2>&1", &status);
    EXPECT_EQ(status, want_status) << said;
    EXPECT_NE(said.find(text), std::string::npos) << said;
  }
  EXPECT_EQ(test::read_file(dir.file("in.mpg.mpa")), Bytes(10, 1));
  EXPECT_NE(access(dir.file("bad.mpg.mpa").c_str(), F_OK), 0);
}

}  // namespace
