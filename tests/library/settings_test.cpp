#include <sys/stat.h>

#include <cstdlib>

#include "fixture.h"
#include "session/platform.h"
#include "session/session.h"

namespace {

using namespace library;
using test::LibraryTest;

TEST_F(LibraryTest, FirstStartWritesEveryKeyInOrderWithItsDefault) {
  ASSERT_EQ(chdir(dir.path.c_str()), 0);
  int status = 0;
  std::string out = test::run_output(test::cli_path() + " settings --file tovra.ini --save", &status);
  ASSERT_EQ(status, 0) << out;
  const std::string first = read_text(dir.file("tovra.ini"));
  EXPECT_EQ(first.rfind("[TOVRA]\nBuild=108\n", 0), 0u);
  EXPECT_NE(first.find("\nCurrentDir=" + dir.path + "\n"), std::string::npos);
  EXPECT_EQ(first.find("Pentium"), std::string::npos);
  EXPECT_TRUE(test::read_file(dir.file("tovra.m3u")).empty());
  // The listing: the place, then the keys as read (Pentium included, though never written).
  EXPECT_EQ(out.substr(0, out.find('\n')), dir.file("tovra.ini"));
  EXPECT_NE(out.find("\nSettings.Mpeg2R=0\nSettings.Pentium=0\nSettings.Stereo=1\n"), std::string::npos);

  // Loaded again, a saved file gives itself back.
  StartupRecord rec;
  EXPECT_EQ(load_settings(dir.file("tovra.ini"), rec, session::cpu_family), 1);
  EXPECT_EQ(rec.x, POSITION_DEFAULT);
  ASSERT_EQ(save_settings(), 1);
  EXPECT_EQ(read_text(dir.file("tovra.ini")), first);
}

TEST_F(LibraryTest, OutOfRangeValuesAreResetAsTheTablesSay) {
  const std::pair<const char*, const char*> cases[] = {
      // lines of the file, lines the listing must hold
      {"Rate=6\nOverdrive=0", "Settings.Rate=2\nSettings.Overdrive=1\n"},  // bit 2 is Overdrive
      {"Volume=154\nPan=22", "Settings.Volume=80\nSettings.Pan=45\n"},     // just past each end
      {"Volume=153\nPan=23", "Settings.Volume=153\nSettings.Pan=23\n"},    // the ends themselves
      {"PlayNum=7", "Settings.PlayNum=0\n"},                               // no such entry in an empty list
      {"Volume=garbage", "Settings.Volume=80\n"},
  };
  for (const auto& [lines, want] : cases) {
    std::string ini = write_text("c.ini", std::string("[Settings]\n") + lines + "\n");
    std::string out = test::run_output(test::cli_path() + " settings --file " + ini);
    EXPECT_NE(out.find(std::string("\n") + want), std::string::npos) << lines << "\n" << out;
  }
}

TEST_F(LibraryTest, GainsFollowTheSliders) {
  EXPECT_EQ(volume_level_of(80), 65535);
  EXPECT_EQ(volume_level_of(153), 0);
  for (int v = 81; v <= 153; ++v) EXPECT_LT(volume_level_of(v), volume_level_of(v - 1));
  EXPECT_EQ(pan_level_of(45), 0);
  EXPECT_EQ(pan_level_of(23), -32767);
  EXPECT_EQ(pan_level_of(67), 32767);
  EXPECT_EQ(pan_level_of(56), (11 << 15) / 22);

  // Loading sets the levels; a double-size window's place is made even.
  std::string ini = write_text("g.ini", "[Settings]\nVolume=153\nPan=30\nDouble=3\n");
  StartupRecord rec;
  load_settings(ini, rec, session::cpu_family);
  int32_t x = 101, y = -41;
  clamp_settings(x, y);
  EXPECT_EQ(settings.volume_level, 0);
  EXPECT_EQ(settings.pan_level, ((30 - 45) * 32768) / 22);
  EXPECT_EQ(settings.double_size, 1);
  EXPECT_EQ(x, 100);
  EXPECT_EQ(y, -42);
}

TEST_F(LibraryTest, HandEditsAndGarbageLoadAndSurviveTheSave) {
  std::string bytes =
      "\x01\x02garbage\xff\xfe\n[Settings\nVolume = 100\n; my note\n=novalue\nStyle=1Zjunk\nPentium=1\n"
      "[Font]\nCharSet=300\nFace=\x82\x6c\x82\x72 \x83\x53\x83\x56\x83\x62\x83\x4e and a very long tail\n"
      "[Mine]\nKeep=me\n";
  bytes[bytes.find("Style=1") + 7] = 0;
  std::string ini = write_text("h.ini", bytes);
  StartupRecord rec;
  EXPECT_EQ(load_settings(ini, rec, 6), 1);  // Pentium is read only below family 5
  EXPECT_EQ(options.pentium_synth, 0);
  load_settings(ini, rec, 4);
  EXPECT_EQ(options.pentium_synth, 1);
  EXPECT_EQ(settings.volume, 100);
  EXPECT_EQ(settings.style, 1);
  EXPECT_EQ(settings.font.charset, uint8_t(300 & 255));  // a byte field
  EXPECT_EQ(settings.font.face.size(), 31u);             // the record's 32 bytes with the zero
  ASSERT_EQ(save_settings(), 1);
  std::string saved = read_text(ini);
  EXPECT_NE(saved.find("; my note\n"), std::string::npos);
  EXPECT_NE(saved.find("[Mine]\nKeep=me\n"), std::string::npos);
  EXPECT_NE(saved.find("Volume=100\n"), std::string::npos);
  EXPECT_EQ(saved.find("Volume = 100"), std::string::npos);
  // Pentium stays as the user wrote it, once.
  EXPECT_NE(saved.find("Pentium=1\n"), std::string::npos);
  EXPECT_EQ(saved.find("Pentium=1\n"), saved.rfind("Pentium=1\n"));
}

TEST_F(LibraryTest, AnUnwritablePlaceLosesOnlyTheSave) {
  std::string ini = write_text("blocker", "") + "/tovra.ini";  // beneath a file: no one can write there
  StartupRecord rec;
  EXPECT_EQ(load_settings(ini, rec, session::cpu_family), 0);
  EXPECT_EQ(settings.volume, 80);
  EXPECT_EQ(save_settings(), 0);
  int status = 0;
  test::run_output(test::cli_path() + " settings --save --file " + ini, &status);
  EXPECT_EQ(status, 1);
  if (geteuid() == 0) return;  // permissions bind everyone but root

  std::string ro = dir.file("ro"), file = ro + "/tovra.ini";
  ASSERT_EQ(mkdir(ro.c_str(), 0700), 0);
  write_text("ro/tovra.ini", "[Settings]\nVolume=100\n");
  ASSERT_EQ(chmod(ro.c_str(), 0500), 0);
  load_settings(file, rec, session::cpu_family);
  EXPECT_EQ(settings.volume, 100);
  EXPECT_EQ(save_settings(), 0);
  ASSERT_EQ(chmod(ro.c_str(), 0700), 0);
  ASSERT_EQ(chmod(file.c_str(), 0400), 0);  // the file itself read-only
  EXPECT_EQ(save_settings(), 0);
  EXPECT_EQ(read_text(file), "[Settings]\nVolume=100\n");
}

TEST_F(LibraryTest, DefaultPlaylistAndCurrentFolderComeBack) {
  std::string sub = dir.file("music");
  ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
  write_text("music/my.m3u", "a.mp3\n\nb.mp3\nlost.mp3");
  std::string ini = write_text("d.ini", "[Position]\nCurrentDir=" + sub + "\n[Settings]\nPlayList=my.m3u\nPlayNum=1\n");
  StartupRecord rec;
  load_settings(ini, rec, session::cpu_family);
  EXPECT_EQ(cwd(), sub);
  int32_t x = 0, y = 0;
  clamp_settings(x, y);
  EXPECT_EQ(current(), 1);
  append_entry("c.mp3");
  ASSERT_EQ(save_settings(), 1);
  EXPECT_EQ(read_text(sub + "/my.m3u"), "a.mp3\nb.mp3\nc.mp3\n");
}

TEST_F(LibraryTest, SettingsFileLivesInTheConfigurationFolder) {
  // The test binary's folder holds no tovra.ini: the user's configuration folder is used.
  const char* home = std::getenv("HOME");
  std::string saved_home = home ? home : "";
  setenv("XDG_CONFIG_HOME", dir.path.c_str(), 1);
  EXPECT_EQ(settings_file_path(), dir.path + "/tovra/tovra.ini");
  setenv("XDG_CONFIG_HOME", "relative/ignored", 1);
  setenv("HOME", dir.path.c_str(), 1);
  EXPECT_EQ(settings_file_path(), dir.path + "/.config/tovra/tovra.ini");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(default_playlist_path("/x/y.z/tovra.ini"), "/x/y.z/tovra.m3u");
  EXPECT_EQ(default_playlist_path("/x/y.z/settings"), "/x/y.z/settings.m3u");
  StartupRecord rec;  // the first save makes the folders
  load_settings(settings_file_path(), rec, session::cpu_family);
  ASSERT_EQ(save_settings(), 1);
  EXPECT_FALSE(read_text(dir.path + "/.config/tovra/tovra.ini").empty());
  setenv("HOME", saved_home.c_str(), 1);
}

TEST(Placement, SavedPlacesStayReachableAndMissingOnesAreCentred) {
  const WorkArea area{0, 0, 1024, 768};
  struct Case {
    int32_t x, y, style, want_x, want_y;
  };
  const Case cases[] = {
      {POSITION_DEFAULT, 5, 0, 512 - 144, 384 - 61},
      {-72, -41, 0, -72, -41},
      {-73, -42, 0, 0, 0},
      {1024 - 217, 768 - 83, 0, 1024 - 217, 768 - 83},
      {1024 - 216, 768 - 82, 0, 1024 - 288, 768 - 123},
      {10, -1, 1, 10, 0},  // shade: any negative y goes
      {10, 768 - 23, 1, 10, 768 - 24},
  };
  for (const Case& c : cases) {
    int32_t x = c.x, y = c.y;
    place_main_window(x, y, c.style, area);
    EXPECT_EQ(x, c.want_x) << c.x << "," << c.y;
    EXPECT_EQ(y, c.want_y) << c.x << "," << c.y;
  }
  int32_t x = POSITION_DEFAULT, y = 0;
  place_main_window(x, y, 0, WorkArea{100, 50, 1124, 818});
  EXPECT_EQ(x, 100 + 512 - 144);
  EXPECT_EQ(y, 50 + 384 - 61);

  EXPECT_TRUE(snapped_to_bottom(768 - 123, 0, 0, area));
  EXPECT_TRUE(snapped_to_bottom(768 - 246, 0, 1, area));
  EXPECT_TRUE(snapped_to_bottom(768 - 24, 1, 0, area));
  EXPECT_FALSE(snapped_to_bottom(768 - 123, 1, 0, area));
  EXPECT_FALSE(snapped_to_bottom(768 - 123, 2, 0, area));
}

}  // namespace
