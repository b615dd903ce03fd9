// The tag dialog's logic without a window: how fields come out of a record and go back into one.
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

}  // namespace
