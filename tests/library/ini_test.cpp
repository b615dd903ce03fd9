#include "library/ini.h"

#include <sys/stat.h>

#include "fixture.h"
#include "session/messages.h"
#include "session/platform.h"

namespace {

using namespace library;
using test::LibraryTest;

TEST(Ini, LookupIsBlindToCaseAndBlanksAndSkipsWhatIsNoKey) {
  IniFile ini;
  ini_parse(ini,
            "\xEF\xBB\xBFVolume=1\n"  // before any section: belongs to none
            "[settings]\r\norphan line without equals\n; Volume=1 is a comment\n"
            "  VOLUME  =  100  \r\nVolume=120\n"  // a second key of the same name: the first wins
            "Face=\"MS Gothic\"\nQuoted='x'\nEmpty=\nJunk=12abc\nLetters=abc\nBig=99999999999\n"
            "Small=-99999999999\nMin=-2147483648\n[Other\nKey=7\n");  // "[Other" lost its "]"
  EXPECT_EQ(ini_get_int(ini, "SETTINGS", "volume", 80), 100);
  std::string s;
  ASSERT_TRUE(ini_get_string(ini, "Settings", "Face", s));
  EXPECT_EQ(s, "MS Gothic");
  ASSERT_TRUE(ini_get_string(ini, "Settings", "Quoted", s));
  EXPECT_EQ(s, "x");
  ASSERT_TRUE(ini_get_string(ini, "Settings", "Face", s, 4));
  EXPECT_EQ(s, "MS ");  // as a 4-byte buffer holds it
  const std::pair<const char*, int32_t> ints[] = {
      {"Empty", 33},        {"Junk", 12},       {"Letters", 0},  {"Big", INT32_MAX},
      {"Small", INT32_MIN}, {"Min", INT32_MIN}, {"Missing", 33}, {"orphan line without equals", 33},
      {"; Volume", 33}};
  for (const auto& [key, want] : ints) EXPECT_EQ(ini_get_int(ini, "Settings", key, 33), want) << key;
  EXPECT_EQ(ini_get_int(ini, "Other", "Key", 0), 7);
  EXPECT_EQ(ini_get_int(ini, "Nowhere", "Key", 3), 3);
}

TEST(Ini, SetReplacesInPlaceAndAddsWhereTheKeyBelongs) {
  IniFile ini;
  ini_parse(ini, "; mine\n[A]\nOne=1\n\n[B]\nTwo=2\nlast line");
  ini_set_int(ini, "a", "ONE", -5);           // replaced where it stands
  ini_set(ini, "A", "Three", "x\ny=broken");  // new key at the end of A, cut at the line break
  ini_set(ini, "C", "Four", "4");             // new section at the end
  EXPECT_EQ(ini_text(ini), "; mine\n[A]\nONE=-5\nThree=x\n\n[B]\nTwo=2\nlast line\n[C]\nFour=4\n");
  EXPECT_EQ(ini_get_int(ini, "A", "y", 9), 9);
}

TEST_F(LibraryTest, SaveReplacesTheFileWholeAndKeepsItsPermissionsAndLinks) {
  std::string path = write_text("a.ini", "[A]\nK=1\n");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  std::string link = dir.file("link.ini");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  IniFile ini;
  ASSERT_EQ(ini_load(ini, link), TEXT_OK);
  ini_set_int(ini, "A", "K", 2);
  ASSERT_TRUE(ini_save(ini, link));
  EXPECT_EQ(read_text(path), "[A]\nK=2\n");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  // A place that can't be written: false, nothing left behind.
  EXPECT_FALSE(ini_save(ini, dir.file("a.ini/sub.ini")));
  EXPECT_EQ(test::run_output("ls " + dir.path + " | wc -l"), "2\n");
}

}  // namespace

// Settings and lists beyond 1 MiB, or with a line beyond 4 KiB, are refused with a message and
// change nothing: not the settings, not the playlist, not the file at the next save. Devices and
// pipes that never end are cut off at the limit.
TEST_F(LibraryTest, OversizedTextFilesAreRefusedAndKept) {
  static int boxes = 0;
  boxes = 0;
  session::set_sink({nullptr, [](int32_t, const char*, int32_t) { return ++boxes, int32_t(session::ANSWER_OK); }});
  std::string lines;
  while (lines.size() <= TEXT_FILE_MAX_BYTES) lines += "[Settings]\nVolume=1\n";
  const std::string big = write_text("big.ini", lines);
  const std::string wide = write_text("wide.m3u", std::string(TEXT_LINE_MAX_BYTES + 1, 'a') + "\n");
  std::string text;
  EXPECT_EQ(read_text_file(big.c_str(), text), TEXT_TOO_LARGE);
  EXPECT_EQ(read_text_file("/dev/zero", text), TEXT_LONG_LINE);
  EXPECT_EQ(read_text_file(dir.file("none").c_str(), text), TEXT_MISSING);
  EXPECT_EQ(boxes, 2);
  EXPECT_TRUE(text.empty());

  library::StartupRecord record;
  EXPECT_EQ(library::load_settings(big, record, session::cpu_family), 0);
  EXPECT_EQ(library::save_settings(), 0);
  EXPECT_EQ(read_text(big), lines);
  library::read_playlist(wide.c_str(), 0);
  EXPECT_EQ(library::playlist_length(), 0);
  session::set_sink({});
}
