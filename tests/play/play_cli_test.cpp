// tovra-cli play end to end: the SDL2 device on its disk driver captures exactly what the decoder
// puts out, and the exit status says how the session ended.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/support.h"

namespace {

constexpr size_t BLOCK_BYTES = 18432;
// At most 150 ms of the device's silence before a 44.1 kHz stereo 16-bit stream starts.
constexpr size_t FIRST_SOUND_BOUND = 4 * 44100 * 150 / 1000;

std::string cli() { return test::cli_path(); }

// The environment that sends tovra-cli's sound to a file through SDL2's disk driver. SDL keeps a
// little of its audio state until the process ends, which a leak-checking build would report as
// ours: that library's allocations are left out of the check.
std::string disk_driver(const test::TempDir& dir, const std::string& capture) {
  std::string supp = dir.file("lsan.supp");
  test::write_file(supp, {'l', 'e', 'a', 'k', ':', 'l', 'i', 'b', 'S', 'D', 'L', '2', '\n'});
  return "LSAN_OPTIONS=suppressions=" + supp + " SDL_AUDIODRIVER=disk SDL_DISKAUDIOFILE=" + capture + " ";
}

bool all_silent(const std::vector<uint8_t>& v, size_t from, size_t to, uint8_t silence = 0) {
  return std::all_of(v.begin() + long(from), v.begin() + long(to), [=](uint8_t b) { return b == silence; });
}

// An output form of the play command and what the shapers make of a full-rate stereo decode.
struct Form {
  const char* options;
  size_t frame_bytes;  // bytes of one sample time at the device
  uint8_t silence;     // the device's silence: 128 for 8-bit
  std::vector<uint8_t> (*shape)(const std::vector<int16_t>& stereo);
};

void put16(std::vector<uint8_t>& out, int32_t v) {
  out.push_back(uint8_t(v & 0xFF));
  out.push_back(uint8_t((v >> 8) & 0xFF));
}

const Form full_rate_stereo = {"--rate 0", 4, 0, [](const std::vector<int16_t>& s) {
                                 std::vector<uint8_t> out;
                                 for (int16_t v : s) put16(out, v);
                                 return out;
                               }};

// Plays one file through the disk driver in real time (with no delay the driver would drain the
// device faster than any decoder fills it, and write silence in the gaps), and checks the capture:
// silence while the device is held for its priming, then the very bytes that the shapers make of
// what `decode --format raw --no-gapless` writes, then the padding of the last block (alternating 128 and 0),
// then silence until the device closes. A Layer I track plays its last partial block as a whole one
// (tail_bytes, 2304), silent past the decoded frames, before the padding.
void expect_capture_matches_decode(const std::string& in, const test::TempDir& dir, size_t tail_bytes = 1,
                                   const Form& form = full_rate_stereo, size_t* lead = nullptr) {
  SCOPED_TRACE(form.options);
  std::string raw_path = dir.file("decoded.raw"), cap_path = dir.file("captured.raw");
  // Playback is not gapless: the decode to compare with keeps every sample.
  ASSERT_EQ(test::run(cli() + " decode " + in + " " + raw_path + " --format raw --no-gapless 2>/dev/null"), 0);
  std::vector<uint8_t> raw = form.shape(test::read_pcm16(raw_path));
  ASSERT_FALSE(raw.empty());
  auto sound = [&](uint8_t b) { return b != form.silence; };
  auto first_sound = std::find_if(raw.begin(), raw.end(), sound);
  if (first_sound == raw.end()) GTEST_SKIP() << "the decoders of this build put out silence";

  int status = test::run(disk_driver(dir, cap_path) + cli() + " play " + form.options + " " + in + " 2>/dev/null");
  ASSERT_EQ(status, 0);
  std::vector<uint8_t> cap = test::read_file(cap_path);
  auto cap_sound = std::find_if(cap.begin(), cap.end(), sound);
  ASSERT_NE(cap_sound, cap.end()) << "nothing but silence captured";
  size_t raw_lead = size_t(first_sound - raw.begin()), cap_lead = size_t(cap_sound - cap.begin());
  ASSERT_GE(cap_lead, raw_lead);
  size_t start = cap_lead - raw_lead;
  ASSERT_EQ(start % form.frame_bytes, 0u) << "the capture is not aligned to sample times";
  ASSERT_GE(cap.size(), start + raw.size());
  EXPECT_TRUE(all_silent(cap, 0, start, form.silence));
  if (lead) *lead = start;
  size_t mismatch = 0;
  while (mismatch < raw.size() && cap[start + mismatch] == raw[mismatch]) ++mismatch;
  ASSERT_EQ(mismatch, raw.size()) << "first difference at byte " << mismatch << " of " << raw.size();

  size_t tail = (raw.size() + tail_bytes - 1) / tail_bytes * tail_bytes;
  size_t padded = (tail + BLOCK_BYTES - 1) / BLOCK_BYTES * BLOCK_BYTES;
  ASSERT_GE(cap.size(), start + padded);
  EXPECT_TRUE(all_silent(cap, start + raw.size(), start + tail));
  for (size_t i = tail; i < padded; ++i)
    ASSERT_EQ(cap[start + i], (i - tail) % 2 == 0 ? 128 : 0) << "padding byte " << i - tail;
  EXPECT_TRUE(all_silent(cap, start + padded, cap.size(), form.silence)) << "sound after the last block";
}

// Layers II and III play as decoded, padded to the last block. The narrowed, folded and thinned
// forms are the shaper table applied to the same decode: 8-bit is the value shifted right by 8
// plus 128, the fold is the mean of the pair rounded down (the loud tones make the pair's sum
// overflow 16 bits), and the half rate keeps the first pair of every two (the half-rate synthesis
// computes exactly those).
TEST(PlayCli, CapturesAreTheDecodedStreamShapedAndPadded) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  REQUIRE_TOOL("lame");
  test::TempDir dir;
  std::string wav = dir.file("in.wav"), mp2 = dir.file("in.mp2"), mp3 = dir.file("in.mp3");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 1.5 sine 440 sine 660 vol 0.95"), 0);
  ASSERT_EQ(test::run("twolame --quiet -b 192 " + wav + " " + mp2), 0);
  ASSERT_EQ(test::run("lame --quiet -b 128 " + wav + " " + mp3), 0);
  for (const std::string& in : {mp2, mp3}) {
    size_t lead = SIZE_MAX;
    expect_capture_matches_decode(in, dir, 1, full_rate_stereo, &lead);
    EXPECT_LE(lead, FIRST_SOUND_BOUND) << "the sound starts late";
  }
  const Form forms[] = {
      {"--rate 0 --8bit", 2, 128,
       [](const std::vector<int16_t>& s) {
         std::vector<uint8_t> out;
         for (int16_t v : s) out.push_back(uint8_t((v >> 8) + 128));
         return out;
       }},
      {"--rate 0 --mono", 2, 0,
       [](const std::vector<int16_t>& s) {
         std::vector<uint8_t> out;
         for (size_t i = 0; i + 1 < s.size(); i += 2) put16(out, (int32_t(s[i]) + s[i + 1]) >> 1);
         return out;
       }},
      {"--rate 1", 4, 0,
       [](const std::vector<int16_t>& s) {
         std::vector<uint8_t> out;
         for (size_t i = 0; i + 1 < s.size(); i += 4) {
           put16(out, s[i]);
           put16(out, s[i + 1]);
         }
         return out;
       }},
  };
  for (const Form& form : forms) expect_capture_matches_decode(mp2, dir, 1, form);
}

TEST(PlayCli, LayerICaptureIsTheDecodedStreamItsTailAndItsPadding) {
  std::string vectors = test::vectors_dir();
  if (vectors.empty() || test::read_file(vectors + "/l1-fl6.bit").empty()) GTEST_SKIP() << "no conformance vectors";
  test::TempDir dir;
  expect_capture_matches_decode(vectors + "/l1-fl6.bit", dir, 2304);
}

TEST(PlayCli, ExitStatusSaysHowTheSessionEnded) {
  test::TempDir dir;
  // The entry won't open: the message, and a failure.
  std::string missing = dir.file("missing.mp2");
  std::string err = test::run_output(cli() + " play " + missing + " 2>&1");
  EXPECT_NE(err.find("TOVRA: Cannot open '" + missing + "'"), std::string::npos) << err;
  EXPECT_EQ(test::run(cli() + " play " + missing + " 2>/dev/null"), 1);
  // A URL is refused before anything is opened.
  err = test::run_output(cli() + " play http://example.invalid/a.mp3 2>&1");
  EXPECT_NE(err.find("The URL 'http://example.invalid/a.mp3' cannot be used"), std::string::npos) << err;
  // Usage errors.
  EXPECT_EQ(test::run(cli() + " play --rate 9 a.mp2 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " play --nonsense 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " play --help >/dev/null"), 0);
}

TEST(PlayCli, APlaylistPlaysToItsEndThroughTheDiskDriver) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  test::TempDir dir;
  std::string wav = dir.file("in.wav");
  ASSERT_EQ(test::run("sox -q -n -r 32000 -c 1 -b 16 " + wav + " synth 0.3 sine 440"), 0);
  ASSERT_EQ(test::run("twolame --quiet -m m -b 64 " + wav + " " + dir.file("a.mp2")), 0);
  ASSERT_EQ(test::run("cp " + dir.file("a.mp2") + " " + dir.file("b.mp2")), 0);
  // Relative entries are taken from the list's folder.
  test::write_file(dir.file("list.m3u"), {'a', '.', 'm', 'p', '2', '\n', 'b', '.', 'm', 'p', '2', '\n'});
  std::string cap = dir.file("cap.raw");
  int status = -1;
  std::string err = test::run_output(
      "cd / && " + disk_driver(dir, cap) + cli() + " play --mono --8bit " + dir.file("list.m3u") + " 2>&1", &status);
  EXPECT_EQ(status, 0) << err;
  EXPECT_NE(err.find("1. "), std::string::npos) << err;
  EXPECT_NE(err.find("2. "), std::string::npos) << err;
  EXPECT_EQ(err.find("TOVRA"), std::string::npos) << err;
  // The second track's device replaces the first one's file: one track of 8-bit mono, whole blocks.
  std::vector<uint8_t> captured = test::read_file(cap);
  EXPECT_GE(captured.size(), BLOCK_BYTES);

  // A file in the middle that won't open is reported and skipped; the run then ends as a failure.
  std::string missing = dir.file("missing.mp2");
  err = test::run_output(
      disk_driver(dir, cap) + cli() + " play " + dir.file("a.mp2") + " " + missing + " " + dir.file("b.mp2") + " 2>&1",
      &status);
  EXPECT_EQ(status, 1) << err;
  EXPECT_NE(err.find("TOVRA: Cannot open '" + missing + "'"), std::string::npos) << err;
  EXPECT_NE(err.find("3. "), std::string::npos) << err;
}

// Damaged and unusual streams play to their end or are refused, never crash or hang: refused
// frames are skipped. The driver runs without delay here, since only the ending matters.
TEST(PlayCli, DamagedStreamsPlayOrAreRefusedWithoutCrashOrHang) {
  test::TempDir dir;
  std::vector<std::string> inputs;
  std::string vectors = test::vectors_dir();
  for (const char* name :
       {"ILL2_layer3", "ILL2_ext_switching", "ILL2_overalloc2", "ILL2_wrongcrc", "ILL2_layer1",
        "l3-nonstandard-compl-sideinfo-bigvalues", "l3-nonstandard-compl-sideinfo-blocktype", "l3-nonstandard-big-iscf",
        "l3-nonstandard-sideinfo-size", "l3-nonstandard-small", "l3-nonstandard-vbrtag-corrupted"})
    if (!vectors.empty()) inputs.push_back(vectors + "/" + name + ".bit");
  if (test::have_tool("sox") && test::have_tool("lame")) {
    // A stream with a stretch of its middle overwritten: broken headers and main data.
    std::string wav = dir.file("in.wav"), mp3 = dir.file("in.mp3");
    ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 2 sine 440 vol 0.5"), 0);
    ASSERT_EQ(test::run("lame --quiet -b 128 " + wav + " " + mp3), 0);
    std::vector<uint8_t> bytes = test::read_file(mp3);
    uint32_t seed = 12345;
    for (size_t i = bytes.size() / 3; i < bytes.size() / 2; ++i)
      bytes[i] = uint8_t((seed = seed * 1103515245u + 12345u) >> 24);
    test::write_file(dir.file("broken.mp3"), bytes);
    inputs.push_back(dir.file("broken.mp3"));
  }
  if (inputs.empty()) GTEST_SKIP() << "no damaged streams at hand";
  for (const std::string& in : inputs) {
    int status = -1;
    std::string out = test::run_output("SDL_DISKAUDIODELAY=0 timeout 60 env " + disk_driver(dir, dir.file("cap.raw")) +
                                           cli() + " play " + in + " 2>&1 </dev/null",
                                       &status);
    EXPECT_TRUE(status == 0 || status == 1) << in << " ended with " << status << "\n" << out;
    EXPECT_EQ(out.find("Sanitizer"), std::string::npos) << in << "\n" << out;
  }
}

}  // namespace
