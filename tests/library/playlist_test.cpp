#include <sys/stat.h>

#include <array>
#include <set>

#include "fixture.h"
#include "session/messages.h"

namespace {

using namespace library;
using test::LibraryTest;

int32_t count_of(int32_t i) { return playlist.play_counts[i].load(); }

TEST_F(LibraryTest, ReadPlaylistBlankLineEndsTheListButTheRestStays) {
  std::string list = write_text("l.m3u", "one.mp3\r\ntwo.mp3\n\nfour.mp3\nfive.mp3");
  read_playlist(list.c_str(), 0);
  EXPECT_EQ(entry(0), "one.mp3");
  EXPECT_EQ(entry(1), "two.mp3");
  EXPECT_EQ(playlist_length(), 2);
  EXPECT_EQ(entry(3), "four.mp3");
  EXPECT_EQ(entry(4), "five.mp3");  // the last line without its line ending is kept
  append_entry("filled.mp3");       // fills the gap: the rest of the file reappears
  EXPECT_EQ(playlist_length(), 5);

  // The default playlist's reader on the same file: no gap, and the last line is lost.
  reset_playlist();
  read_default_playlist(list.c_str());
  EXPECT_EQ(playlist_length(), 3);
  EXPECT_EQ(entry(2), "four.mp3");

  // Appending goes behind the list; a missing file changes nothing.
  read_playlist(list.c_str(), 1);
  EXPECT_EQ(entry(3), "one.mp3");
  read_playlist(dir.file("missing.m3u").c_str(), 0);
  EXPECT_EQ(entry(0), "one.mp3");
}

TEST_F(LibraryTest, ReadersMapBackslashesButNotInsideDoubleByteCharacters) {
  // "ソフト" in code page 932: the first character's second byte is 0x5C.
  const std::string soft = "\x83\x5C\x83\x74\x83\x67";
  std::string list = write_text("w.m3u", "\\music\\" + soft + ".mp3\nC:\\old\\a.mp3\n\xe9\x9f\xb3\\b.mp3\n");
  read_playlist(list.c_str(), 0);
  EXPECT_EQ(entry(0), "/music/" + soft + ".mp3");
  EXPECT_EQ(entry(1), "C:/old/a.mp3");
  EXPECT_EQ(entry(2), "\xe9\x9f\xb3/b.mp3");  // UTF-8 "音" followed by a separator
}

TEST_F(LibraryTest, LongLinesArriveInPiecesOfTheLineBuffer) {
  std::string long_name(300, 'x');
  std::string list = write_text("long.m3u", long_name + "\n");
  read_playlist(list.c_str(), 0);
  EXPECT_EQ(entry(0).size(), 259u);
  EXPECT_EQ(entry(1), std::string(41, 'x'));
  reset_playlist();
  read_default_playlist(list.c_str());  // the first piece has no line ending: lost
  EXPECT_EQ(entry(0), std::string(41, 'x'));
}

TEST_F(LibraryTest, TheTableHoldsAThousandEntriesAndDropsTheRest) {
  std::string text;
  for (int i = 0; i < 1001; ++i) text += "f" + std::to_string(i) + ".mp3\n";
  read_playlist(write_text("big.m3u", text).c_str(), 0);
  EXPECT_EQ(playlist_length(), PLAYLIST_SLOTS);
  EXPECT_EQ(entry(999), "f999.mp3");
  EXPECT_EQ(append_entry("extra.mp3"), -1);
  take_command_line("/A extra.mp3", false);
  EXPECT_EQ(entry(999), "f999.mp3");
  EXPECT_EQ(entry(1000), "");
}

TEST_F(LibraryTest, WriterModes) {
  ASSERT_EQ(chdir(dir.path.c_str()), 0);
  const std::string d = dir.path;
  for (const std::string& e : {d + "/a.mp3", d + "/sub/b.mp3", std::string("c.mp3"), std::string("/x/d.mp3")})
    append_entry(e.c_str());
  std::string list = dir.file("list.m3u");
  const char* want[] = {
      "{d}/a.mp3\n{d}/sub/b.mp3\nc.mp3\n/x/d.mp3\n",
      "{d}/a.mp3\n{d}/sub/b.mp3\n{d}/c.mp3\n/x/d.mp3\n",
      "a.mp3\n{d}/sub/b.mp3\nc.mp3\n/x/d.mp3\n",
      "a.mp3\n",
  };
  for (int32_t mode = 0; mode < 4; ++mode) {
    ASSERT_EQ(write_playlist(list.c_str(), mode), 1);
    std::string w = want[mode];
    for (size_t at; (at = w.find("{d}")) != std::string::npos;) w.replace(at, 3, d);
    EXPECT_EQ(read_text(list), w) << "mode " << mode;
  }
  EXPECT_EQ(write_playlist(dir.file("list.m3u/x.m3u").c_str(), 0), 0);
  // An empty list gives an empty file.
  reset_playlist();
  ASSERT_EQ(write_playlist(list.c_str(), 0), 1);
  EXPECT_EQ(read_text(list), "");
}

TEST_F(LibraryTest, CommandLineForms) {
  auto fill = [] {
    reset_playlist();
    for (const char* e : {"old1.mp3", "old2.mp3", "old3.mp3"}) append_entry(e);
  };
  fill();
  take_command_line("", false);
  EXPECT_EQ(playlist.command_line_play, 0);
  EXPECT_EQ(playlist_length(), 3);

  take_command_line("x.mp3 y.mp3", false);  // replaces the list
  EXPECT_EQ(playlist_length(), 2);
  EXPECT_EQ(entry(1), "y.mp3");
  EXPECT_EQ(playlist.command_line_play, 1);

  fill();
  take_command_line("/a x.mp3", false);  // appends
  EXPECT_EQ(playlist_length(), 4);
  EXPECT_EQ(entry(3), "x.mp3");

  fill();
  playlist.play_counts[1] = 5;
  take_command_line("x.mp3", true);  // Shift: appended, and it becomes the current entry
  EXPECT_EQ(playlist_length(), 4);
  EXPECT_EQ(current(), 3);
  EXPECT_EQ(count_of(1), 5);

  fill();
  take_command_line("/O \"my song.mp3\" \"\"   -P \"/abs/other song.mp3\"", false);
  EXPECT_EQ(playlist.command_line_play, 1);  // /O cleared it, -P raised it again
  EXPECT_EQ(playlist_length(), 2);
  EXPECT_EQ(entry(0), "my song.mp3");
  EXPECT_EQ(entry(1), "/abs/other song.mp3");

  struct Jump {
    const char* line;
    int32_t want;
  };
  for (Jump j : {Jump{"/3", 2}, Jump{"/0", 0}, Jump{"/4", 0}, Jump{"/2000", 0}, Jump{"-2", 1}, Jump{"-m", 0},
                 Jump{"/-5", 0}, Jump{"/99999999999999", 0}}) {
    fill();
    playlist.current_entry = 1;
    take_command_line(j.line, false);
    EXPECT_EQ(current(), j.want) << j.line;
    EXPECT_EQ(playlist.command_line_play, 2) << j.line;
    EXPECT_EQ(playlist_length(), 3) << j.line;
  }
  // Only the switch forms of "/" are switches here: longer tokens are absolute paths.
  fill();
  take_command_line("/abc /tmp/x.mp3", false);
  EXPECT_EQ(entry(0), "/abc");
  EXPECT_EQ(entry(1), "/tmp/x.mp3");
}

TEST_F(LibraryTest, CommandLineListFileMakesItsFolderCurrent) {
  std::string sub = dir.file("sub");
  ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
  write_text("sub/l.M3U", "a.mp3\nb.mp3\n");
  write_text("sub/l.pls", "c.mp3\n");
  ASSERT_EQ(chdir(dir.path.c_str()), 0);
  append_entry("old.mp3");
  take_command_line("sub/l.M3U sub/l.pls", false);  // relative: opened from where the start stood
  EXPECT_EQ(playlist_length(), 2);  // the second list wasn't found from sub/: the first folder change counts
  EXPECT_EQ(entry(0), "a.mp3");
  char cwd[PATH_MAX];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(std::string(cwd), sub);

  take_command_line((sub + "/l.pls").c_str(), false);
  EXPECT_EQ(playlist_length(), 1);
  EXPECT_EQ(entry(0), "c.mp3");
}

TEST_F(LibraryTest, ScanFolderTakesMpegFilesInNameOrder) {
  const std::string d = dir.path;
  ASSERT_EQ(mkdir((d + "/sub").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((d + "/z.mp3.d").c_str(), 0755), 0);  // a folder with a matching name recurses
  for (const char* f : {"b.mp3", "a.MP2", "c.wav", "d.rmp", "e.rmpx", "f.mpeg", "g.m3u", "noext", "sub/h.Mp3",
                        "z.mp3.d/i.mp1", "sub.mp3x"})
    write_text(f, "");
  ASSERT_EQ(symlink("..", (d + "/sub/loop").c_str()), 0);  // not followed
  ASSERT_EQ(symlink((d + "/b.mp3").c_str(), (d + "/sub/link.mp3").c_str()), 0);
  EXPECT_EQ(scan_folder(d.c_str()), 1);
  std::vector<std::string> got;
  for (int32_t i = 0; i < playlist_length(); ++i) got.push_back(entry(i));
  std::vector<std::string> want = {d + "/a.MP2",     d + "/b.mp3",        d + "/d.rmp",    d + "/f.mpeg",
                                   d + "/sub/h.Mp3", d + "/sub/link.mp3", d + "/sub.mp3x", d + "/z.mp3.d/i.mp1"};
  EXPECT_EQ(got, want);
  EXPECT_EQ(scan_folder((d + "/missing").c_str()), 0);
}

std::vector<std::array<int64_t, 4>> sent_messages;
void record_message(int32_t window, int32_t msg, int64_t wparam, int64_t, bool sent) {
  sent_messages.push_back({window, msg, wparam, sent});
}

TEST_F(LibraryTest, EditorIsToldOnceWhenItsScanEnds) {
  const std::string d = dir.path;
  ASSERT_EQ(mkdir((d + "/a").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((d + "/a/b").c_str(), 0755), 0);
  write_text("a/b/x.mp3", "");
  sent_messages.clear();
  session::set_sink(session::Sink{record_message, nullptr});
  session::set_window_open(session::WINDOW_PLAYLIST, true);
  EXPECT_EQ(scan_folder_dialog(d.c_str()), 1);
  session::set_window_open(session::WINDOW_PLAYLIST, false);
  session::set_sink(session::Sink{});
  EXPECT_EQ(playlist_length(), 1);
  ASSERT_EQ(sent_messages.size(), 1u);
  EXPECT_EQ(sent_messages[0], (std::array<int64_t, 4>{session::WINDOW_PLAYLIST, MSG_PLAYLIST_REFRESH, 1, 1}));
}

TEST_F(LibraryTest, RandomWithOneEntryPlaysItAgainAndAgain) {
  append_entry("only.mp3");
  for (uint32_t ms : {0u, 1u, 500u, 999u, 123456u}) {
    playlist.play_counts[0] = 2;  // started and finished
    EXPECT_EQ(pick_random_entry_at(ms), 0);
    EXPECT_EQ(count_of(0), 0);  // the counts were cleared for a new cycle
  }
}

TEST_F(LibraryTest, RandomPlaysEveryEntryOnceAndThenAvoidsTheLastOne) {
  for (uint32_t seed : {0u, 7u, 250u, 999u}) {
    reset_playlist();
    for (int i = 0; i < 6; ++i) append_entry(("t" + std::to_string(i)).c_str());
    std::set<int32_t> seen;
    uint32_t ms = seed;
    for (int k = 0; k < 6; ++k) {
      int32_t i = pick_random_entry_at(ms);
      ASSERT_TRUE(slot_used(i));
      EXPECT_TRUE(seen.insert(i).second) << "seed " << seed;
      playlist.play_counts[i].fetch_add(1);  // the start of the track
      playlist.current_entry = i;
      ms = ms * 31 + 17;
    }
    for (int k = 0; k < 20; ++k, ms = ms * 31 + 17) {
      int32_t last = current();
      for (auto& c : playlist.play_counts) c = 1;
      int32_t i = pick_random_entry_at(ms);
      EXPECT_NE(i, last) << "seed " << seed;
      EXPECT_EQ(count_of(last), 0);  // the mark of the new cycle is taken off again
    }
  }
  // A full table with the clock near its wrap reads the two slots beyond and finds the free one.
  reset_playlist();
  for (int i = 0; i < PLAYLIST_SLOTS; ++i) append_entry("x");
  for (int i = 0; i < PLAYLIST_SLOTS; ++i) playlist.play_counts[i] = i == 3 ? 0 : 1;
  EXPECT_EQ(pick_random_entry_at(999), 3);
}

TEST_F(LibraryTest, CountsMoveWithTheirEntries) {
  for (const char* e : {"a", "b", "c"}) append_entry(e);
  playlist.play_counts[2] = 9;
  playlist.current_entry = 2;
  remove_entry(1);
  EXPECT_EQ(entry(1), "c");
  EXPECT_EQ(count_of(1), 9);
  EXPECT_EQ(count_of(2), 0);
  EXPECT_EQ(playlist_length(), 2);
  EXPECT_EQ(reset_play_counts(0), 0);
  EXPECT_EQ(count_of(1), 0);
  playlist.current_entry = 1;
  EXPECT_EQ(reset_play_counts(1), 1);
  EXPECT_EQ(count_of(1), 1);
}

TEST(SplitPath, ExtensionIsTheLastDotOfTheName) {
  PathParts p = split_path("/a.b/c");
  EXPECT_EQ(p.folder_len, 5u);
  EXPECT_STREQ(p.ext, "");
  EXPECT_STREQ(split_path("/a.b/c.tar.mp3").ext, ".mp3");
  EXPECT_STREQ(split_path("c.").ext, ".");
  EXPECT_EQ(split_path("name").folder_len, 0u);
}

}  // namespace
