#include "library/ini.h"

#include <sys/stat.h>

#include "fixture.h"

namespace {

using namespace library;
using test::LibraryTest;

IniFile parse(const std::string& text) {
  IniFile ini;
  ini_parse(ini, text);
  return ini;
}

TEST(Ini, LookupIsBlindToCaseAndBlanksAndSkipsWhatIsNoKey) {
  IniFile ini = parse(
      "\xEF\xBB\xBF[settings]\r\n"
      "orphan line without equals\n"
      "; Volume=1 is a comment\n"
      "  VOLUME  =  100  \r\n"
      "Volume=120\n"  // a second key of the same name: the first wins
      "Face=\"MS Gothic\"\n"
      "Quoted='x'\n"
      "Empty=\n"
      "Junk=12abc\n"
      "Letters=abc\n"
      "Big=99999999999\n"
      "Small=-99999999999\n"
      "Min=-2147483648\n"
      "[Other\n"  // lost its "]"
      "Key=7\n");
  EXPECT_EQ(ini_get_int(ini, "SETTINGS", "volume", 80), 100);
  std::string s;
  ASSERT_TRUE(ini_get_string(ini, "Settings", "Face", s));
  EXPECT_EQ(s, "MS Gothic");
  ASSERT_TRUE(ini_get_string(ini, "Settings", "Quoted", s));
  EXPECT_EQ(s, "x");
  ASSERT_TRUE(ini_get_string(ini, "Settings", "Face", s, 4));
  EXPECT_EQ(s, "MS ");  // as a 4-byte buffer holds it
  EXPECT_EQ(ini_get_int(ini, "Settings", "Empty", 33), 33);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Junk", 33), 12);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Letters", 33), 0);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Big", 0), INT32_MAX);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Small", 0), INT32_MIN);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Min", 0), INT32_MIN);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Missing", -1), -1);
  EXPECT_EQ(ini_get_int(ini, "Settings", "orphan line without equals", 5), 5);
  EXPECT_EQ(ini_get_int(ini, "Settings", "; Volume", 5), 5);
  EXPECT_EQ(ini_get_int(ini, "Other", "Key", 0), 7);
  EXPECT_EQ(ini_get_int(ini, "Nowhere", "Key", 3), 3);
}

TEST(Ini, KeysBeforeAnySectionBelongToNone) {
  IniFile ini = parse("Volume=100\n[Settings]\nPan=30\n");
  EXPECT_EQ(ini_get_int(ini, "Settings", "Volume", 80), 80);
  EXPECT_EQ(ini_get_int(ini, "Settings", "Pan", 45), 30);
}

TEST(Ini, SetReplacesInPlaceAndAddsWhereTheKeyBelongs) {
  IniFile ini = parse("; mine\n[A]\nOne=1\n\n[B]\nTwo=2\nlast line");
  ini_set_int(ini, "a", "ONE", -5);           // replaced where it stands
  ini_set(ini, "A", "Three", "x\ny=broken");  // new key at the end of A, cut at the line break
  ini_set(ini, "C", "Four", "4");             // new section at the end
  EXPECT_EQ(ini_text(ini), "; mine\n[A]\nONE=-5\nThree=x\n\n[B]\nTwo=2\nlast line\n[C]\nFour=4\n");
  EXPECT_EQ(ini_get_int(ini, "B", "Two", 0), 2);
  EXPECT_EQ(ini_get_int(ini, "A", "Three", 0), 0);
  EXPECT_EQ(ini_get_int(ini, "A", "y", 9), 9);
}

TEST_F(LibraryTest, SaveReplacesTheFileWholeAndKeepsItsPermissions) {
  std::string path = write_text("a.ini", "[A]\nK=1\n");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  IniFile ini;
  ASSERT_TRUE(ini_load(ini, path));
  ini_set_int(ini, "A", "K", 2);
  ASSERT_TRUE(ini_save(ini, path));
  EXPECT_EQ(read_text(path), "[A]\nK=2\n");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  // Through a link: the linked file changes, the link stays.
  std::string link = dir.file("link.ini");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  ini_set_int(ini, "A", "K", 3);
  ASSERT_TRUE(ini_save(ini, link));
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(read_text(path), "[A]\nK=3\n");

  // A place that can't be written: false, nothing left behind.
  std::string blocked = dir.file("a.ini/sub.ini");  // a file stands where the folder should be
  EXPECT_FALSE(ini_save(ini, blocked));
  EXPECT_EQ(test::run_output("ls " + dir.path + " | wc -l"), "2\n");
}

}  // namespace
