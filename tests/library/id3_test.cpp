// The tag dialog's logic without a window: how fields come out of a record and go back into one,
// and the stream information text with the quirks it keeps.
#include "library/id3.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Id3, FieldsComeAndGoAsTheDialogMovesThem) {
  library::Id3Record r;
  library::clear_record(r, 247);
  std::memcpy(r.mark, "tag", 3);
  std::memcpy(r.title, "ab  \0 ", 6);
  r.genre = 200;  // no name: the list shows nothing, and saving writes the no-genre byte
  library::TagForm f = library::form_from_record(r);
  EXPECT_EQ(f.title, "ab");
  EXPECT_EQ(f.genre, "");
  EXPECT_FALSE(f.v11);
  EXPECT_EQ(library::record_from_form(f, 255).genre, 255);

  // A name the list does not offer without "J-IDtag" still matches the table.
  f.genre = "Anime(J)";
  // A 30-byte comment in the v1.1 form loses its last byte to the track, and then reads as v1.
  f.v11 = 1;
  f.track = 5;
  f.comment = "abcdefghijklmnopqrstuvwxyz0123";
  r = library::record_from_form(f, 255);
  EXPECT_EQ(r.genre, 255);
  EXPECT_EQ(r.comment[28], '2');
  EXPECT_EQ(r.comment[29], 5);
  EXPECT_FALSE(library::is_v11(r));
  EXPECT_EQ(std::memcmp(r.title, "ab\0\0", 4), 0);  // zero padding in the v1.1 form

  // A double-byte character is never cut in half.
  EXPECT_EQ(library::fit_cp932("a\x82\xa0\x82\xa2", 4), "a\x82\xa0");
  EXPECT_EQ(library::last_offered_genre(0), 247);
  EXPECT_EQ(library::info_group_title(2, 5), "MPEG info (2/5)");
}

TEST(Id3, InformationTextShowsTheStreamLastOpened) {
  session::StreamInfo s;
  s.file_size = 1000;
  s.play_seconds = 75;
  s.frame_count = 40;
  s.mpeg_id = 1;
  s.layer = 2;
  s.bitrate_kbps = 192;
  s.sample_rate = 44100;
  s.mode = 1;
  s.mode_ext = 1;
  s.emphasis_mode = 5;  // 50/15 ms with Hi-Fi added
  s.data_start = 128;
  EXPECT_EQ(library::mpeg_info_text(s, nullptr, 0),
            "filesize = 1000 (1:15)\r\nframes = 40\r\nMPEG-1, layer 2\r\nbitrate = 192kbit/sec\r\n"
            "sample_rate = 44100Hz\r\nmode = Joint stereo (8-31)\r\nprotection = Yes\r\nprivate = No\r\n"
            "copyright = No\r\noriginal = No\r\nemphasis = wav\r\n(+ Mac Header)");
  // With a path the probe only decides whether there is a text; the emphasis loses the Hi-Fi bit.
  session::ProbeInfo probe{};
  probe.id = 1;
  probe.play_seconds = 1;
  s.layer = 3;
  s.mode_ext = 3;
  s.data_start = 0;
  const std::string text = library::mpeg_info_text(s, &probe, 1);
  EXPECT_NE(text.find("mode = Combined stereo\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("emphasis = 50/15ms\r\n(+ Wave Header)"), std::string::npos) << text;
  probe.id = 0;  // MPEG-2: no text at all
  EXPECT_EQ(library::mpeg_info_text(s, &probe, 0), "");

  // The dialog on the current stream: a WAVE-wrapped one is shown, never tagged.
  std::memcpy(session::stream.tag_buffer, "rif", 3);
  const library::Id3View v = library::open_view(nullptr, 0, 0, 1);
  EXPECT_EQ(v.wrapper_kind, 1);
  EXPECT_FALSE(v.can_save || v.can_delete);
  EXPECT_EQ(v.group_title, "MPEG info");
}

}  // namespace
