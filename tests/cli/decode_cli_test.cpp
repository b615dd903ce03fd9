// tovra-cli decode as scripts use it: exit status and what is left on disk for bad input.
#include <gtest/gtest.h>

#include "support/support.h"

namespace {

std::string cli() { return test::cli_path(); }

TEST(DecodeCli, BadInputFailsWithStatusOneAndLeavesNoOutput) {
  test::TempDir dir;
  std::string out = dir.file("out.wav");
  test::write_file(dir.file("junk.mp3"), std::vector<uint8_t>(4096, 0x5A));
  // (What open_stream makes of empty, short and junk input is checked with the stream facts.)
  for (const std::string& in : {dir.file("junk.mp3"), dir.file("missing.mp3"), dir.path}) {
    EXPECT_EQ(test::run(cli() + " decode " + in + " " + out + " 2>/dev/null"), 1) << in;
    EXPECT_NE(test::run("test -e " + out), 0) << in << " left an output behind";
  }
}

TEST(DecodeCli, UsageErrorsExitWithTwo) {
  EXPECT_EQ(test::run(cli() + " decode 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " decode a b --format flac 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " nosuchcommand 2>/dev/null"), 2);
  EXPECT_EQ(test::run(cli() + " --help >/dev/null"), 0);
}

// Messages speak the locale's language: Japanese for a Japanese one (generated on the machine or
// not), English for any other; a failed write is a write error, not a read error.
TEST(DecodeCli, MessagesFollowTheLocale) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  test::TempDir dir;
  std::string wav = dir.file("in.wav"), mp2 = dir.file("in.mp2"), junk = dir.file("junk.mp3");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 1 -b 16 " + wav + " synth 0.2 sine 440"), 0);
  ASSERT_EQ(test::run("twolame --quiet -m m -b 64 " + wav + " " + mp2), 0);
  test::write_file(junk, std::vector<uint8_t>(4096, 0x5A));
  const std::string missing = dir.file("missing.mp3");
  auto said = [&](const char* lang, const std::string& args) {
    return test::run_output("LC_ALL= LANGUAGE= LANG=" + std::string(lang) + " " + cli() + " " + args + " 2>&1");
  };
  const std::string runs[] = {"decode " + missing + " " + dir.file("o.wav"), "decode " + junk + " " + dir.file("o.wav"),
                              "decode " + mp2 + " /dev/full",
                              "resample " + wav + " " + dir.file("no/o.wav") + " --rate 8000"};
  const std::string english[] = {"TOVRA: Cannot open '" + missing + "'\n", "TOVRA: '" + junk + "' is not MPEG audio\n",
                                 "TOVRA Error: Write error\n", "TOVRA: Cannot create the output file\n"};
  const std::string japanese[] = {"TOVRA: '" + missing + "'が開けない\n",
                                  "TOVRA: '" + junk + "' は MPEGｵｰﾃﾞｨｵ ではない\n", "TOVRA Error: 書込みエラー\n",
                                  "TOVRA: 出力ファイルを作成できません\n"};
  for (size_t i = 0; i < std::size(runs); ++i) {
    EXPECT_EQ(said("C", runs[i]), english[i]);
    EXPECT_EQ(said("ja_JP.UTF-8", runs[i]), japanese[i]);
  }
}

// Ctrl+C presses Cancel: the job ends, its partial output is removed, and the status says so.
TEST(DecodeCli, InterruptCancelsAndRemovesThePartialOutput) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  test::TempDir dir;
  std::string wav = dir.file("in.wav"), part = dir.file("part.mp2"), mp2 = dir.file("in.mp2");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 10 sine 440"), 0);
  ASSERT_EQ(test::run("twolame --quiet -b 192 " + wav + " " + part), 0);
  // A quarter of an hour of frames, so that the job is still running when the signal comes.
  ASSERT_EQ(test::run("for i in $(seq 90); do cat " + part + "; done > " + mp2), 0);
  std::string out = dir.file("out.wav");
  int status = test::run(cli() + " decode " + mp2 + " " + out +
                         " 2>/dev/null & pid=$!; "
                         // Signal only once the job writes, so that the handler is in place on a loaded machine.
                         "for i in $(seq 500); do [ -s " +
                         out + " ] && break; sleep 0.01; done; kill -INT $pid; wait $pid");
  EXPECT_EQ(status, 130);
  EXPECT_NE(test::run("test -e " + out), 0) << "the partial output was left behind";
}

}  // namespace
