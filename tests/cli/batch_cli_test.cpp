// tovra-cli batch end to end: a list with a missing file converts the rest, reports that row and
// exits 1; every output equals the single command's, one row at a time and four at once.
#include <gtest/gtest.h>

#include "support/support.h"

namespace {

std::string cli() { return test::cli_path(); }

TEST(BatchCli, MissingRowIsReportedAndTheRestMatchTheSingleCommands) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("lame");
  test::TempDir dir;
  const char* names[] = {"a", "b", "c"};
  std::string list;
  for (int i = 0; i < 3; ++i) {
    std::string wav = dir.file(std::string(names[i]) + ".wav"), mp3 = dir.file(std::string(names[i]) + ".mp3");
    ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 0.5 sine " + std::to_string(300 + 200 * i)),
              0);
    ASSERT_EQ(test::run("lame --quiet -b 128 " + wav + " " + mp3), 0);
    list += wav + "\r\n";
    if (i == 0) list += dir.file("missing.wav") + "\r\n";
  }
  test::write_file(dir.file("list.m3e"), std::vector<uint8_t>(list.begin(), list.end()));
  std::string mp3_list = list;
  for (size_t at; (at = mp3_list.find(".wav")) != std::string::npos;) mp3_list.replace(at, 4, ".mp3");
  test::write_file(dir.file("mp3.m3e"), std::vector<uint8_t>(mp3_list.begin(), mp3_list.end()));

  struct Mode {
    const char* args;
    const char* list;
    const char* command;  // the single command and its options for the same rows
    const char* options;
    const char* ext;  // of the source
    const char* out;  // the target's name behind the source's stem
  };
  const Mode modes[] = {
      {"--mode decode --format au", "mp3.m3e", "decode", "--format au", ".mp3", ".au"},
      {"--mode encode --layer 1 --bitrate 256 --crc", "list.m3e", "encode", "--layer 1 --bitrate 256 --crc", ".wav",
       ".mp1"},
      {"--mode resample --rate 22050 --bits 8 --channels 1", "list.m3e", "resample",
       "--rate 22050 --bits 8 --channels 1 --quality 20", ".wav", "_rs.wav"},
  };
  for (const Mode& m : modes) {
    for (const char* jobs : {"1", "4"}) {
      std::string out = dir.file(std::string("out") + jobs);
      ASSERT_EQ(test::run("rm -rf " + out + " && mkdir " + out), 0);
      int status = 0;
      std::string printed = test::run_output(
          cli() + " batch " + dir.file(m.list) + " " + m.args + " --jobs " + jobs + " --out " + out + " 2>/dev/null",
          &status);
      EXPECT_EQ(status, 1) << m.args;
      EXPECT_NE(printed.find("file not found " + dir.file("missing")), std::string::npos) << printed;
      for (const char* name : names) {
        std::string single = dir.file(std::string("single") + m.out);
        ASSERT_EQ(test::run(cli() + " " + m.command + " " + dir.file(std::string(name) + m.ext) + " " + single + " " +
                            m.options + " 2>/dev/null"),
                  0);
        EXPECT_EQ(test::read_file(out + "/" + name + m.out), test::read_file(single)) << m.args << " jobs " << jobs;
      }
    }
  }
}

}  // namespace
