#include "session/startup.h"

#include "library/fixture.h"
#include "session/session.h"

namespace {

using namespace library;
using namespace session;
using test::LibraryTest;

bool passes_unless_bad(const char* path, void* context) {
  ++*static_cast<int*>(context);
  return std::string(path).rfind("bad", 0) != 0;
}

TEST_F(LibraryTest, FailingEntriesAreRemovedAndTheIndexWalksDown) {
  struct Case {
    std::vector<const char*> entries;
    int32_t current;
    std::vector<std::string> want;
    int32_t want_current;
  };
  const Case cases[] = {
      {{"good0", "good1", "bad2", "bad3"}, 2, {"good0", "good1"}, 1},
      {{"bad0", "good1", "bad2", "good3"}, 2, {"bad0", "good1", "good3"}, 2},
      {{"bad0", "bad1"}, 1, {}, 0},
      {{"good0", "bad1", "bad2"}, 1, {"good0"}, 0},
      {{}, 0, {}, 0},
      {{"good0"}, 5, {"good0"}, 0},
  };
  for (const Case& c : cases) {
    reset_playlist();
    for (const char* e : c.entries) append_entry(e);
    playlist.current_entry = c.current;
    int tests = 0;
    EXPECT_EQ(validate_start_entry(passes_unless_bad, &tests), c.want_current);
    EXPECT_EQ(current(), c.want_current);
    EXPECT_EQ(entries(), c.want);
    EXPECT_LE(tests, int(c.entries.size()));
  }
}

void note_layer(void* context) { *static_cast<int32_t*>(context) = session::stream.layer; }

TEST_F(LibraryTest, EntryTestOpensTheStream) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  std::string wav = dir.file("t.wav"), mp2 = dir.file("t.mp2");
  ASSERT_EQ(test::run("sox -q -n -r 44100 -c 2 -b 16 " + wav + " synth 0.3 sine 440"), 0);
  ASSERT_EQ(test::run("twolame --quiet " + wav + " " + mp2), 0);
  std::string text = write_text("t.txt", std::string(4000, 'x'));
  int32_t layer = 0;
  EXPECT_TRUE(entry_playable(mp2.c_str(), note_layer, &layer));
  EXPECT_EQ(layer, 2);
  EXPECT_FALSE(entry_playable(text.c_str()));
  for (const std::string& e : {dir.file("missing.mp2"), std::string("HTTP://x/a.mp3"), std::string("mms://x/a.mp3")})
    EXPECT_FALSE(entry_playable(e.c_str())) << e;
  session::state.decoder_running = 1;  // nothing is opened under a running session
  EXPECT_FALSE(entry_playable(mp2.c_str()));
  session::state.decoder_running = 0;

  for (const std::string& e : {mp2, std::string("http://x/a.mp3"), text}) append_entry(e.c_str());
  playlist.current_entry = 1;
  EXPECT_EQ(validate_start_entry(), 0);
  EXPECT_EQ(entries(), Paths{mp2});
}

TEST_F(LibraryTest, StartUpPlacesClampsAndTakesTheCommandLine) {
  const WorkArea area{0, 0, 1024, 768};
  std::string ini = write_text("s.ini", "[Position]\nX=-73\nY=5000\n[Settings]\nDouble=1\nVolume=200\n");
  StartPlacement place;
  EXPECT_EQ(start_up_settings("a.mp3 b.mp3", false, area, place, ini), 0);
  EXPECT_EQ(place.x, 0);
  EXPECT_EQ(place.y, 768 - 123 - 1);  // moved up, then made even for the double size
  EXPECT_FALSE(place.snapped_to_bottom);
  EXPECT_EQ(settings.volume_level, 65535);
  EXPECT_EQ(entries(), (Paths{"a.mp3", "b.mp3"}));
  EXPECT_EQ(playlist.command_line_play, 1);

  write_text("s.ini", "[Position]\nX=10\nY=522\n[Settings]\nDouble=1\n");
  start_up_settings("", false, area, place, ini);
  EXPECT_TRUE(place.snapped_to_bottom);
  EXPECT_EQ(playlist.command_line_play, 0);
  write_text("s.ini", "[Position]\nX=10\nY=522\n[Settings]\nDouble=1\nSnap=0\n");
  start_up_settings("", false, area, place, ini);
  EXPECT_FALSE(place.snapped_to_bottom);
}

TEST(CommandLine, ArgumentsJoinIntoTheClassicForm) {
  const char* argv[] = {"a.mp3", "my song.mp3", "", "/P"};
  std::string line = join_command_line(4, argv);
  EXPECT_EQ(line, "a.mp3 \"my song.mp3\" \"\" /P");
  library::reset_playlist();
  take_command_line(line.c_str(), false);
  EXPECT_STREQ(playlist.entries[1].path, "my song.mp3");
  EXPECT_EQ(playlist.command_line_play, 2);
}

}  // namespace
