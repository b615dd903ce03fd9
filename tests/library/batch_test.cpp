// The batch list: rows and their targets, .m3e files, and the texts the window shows.
#include "library/batch.h"

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

using namespace library;

TEST(BatchList, RowsListFilesAndTexts) {
  test::TempDir dir;
  BatchChoices c;
  c.ext_filter = 3;
  BatchList list;
  list.mode = BATCH_DECODE;
  // A CP932 name with a "\" trail byte (0x95 0x5C) stays as it is, bytes and all.
  const std::string sjis = "/m/\x95\x5C.MP3";
  EXPECT_EQ(add_batch_entry(list, sjis, c), 1);
  EXPECT_EQ(add_batch_entry(list, "/m/\x95\x5C.mp3", c), 0) << "the same source, blind to case";
  c.out_dir = "/out";
  EXPECT_EQ(add_batch_entry(list, "/m/a.wav", c), 1);
  EXPECT_EQ(add_batch_entry(list, "/m/b.rmp", c), 1);
  EXPECT_EQ(list.entries[0].target, "/m/\x95\x5C.au");
  EXPECT_EQ(list.entries[1].target, "/out/a_dec.au");
  EXPECT_EQ(list.entries[2].target, "/out/b.rmp.au");
  EXPECT_EQ(batch_decode_format(list.entries[0]), 3);

  std::string path = dir.file("list.m3e");
  ASSERT_EQ(write_batch_list(list, path.c_str()), 1);
  auto bytes = test::read_file(path);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), sjis + "\r\n/m/a.wav\r\n/m/b.rmp\r\n");
  // Lists from elsewhere: LF alone, blank lines, a last line without an end.
  test::write_file(path, {'/', 'x', '.', 'm', 'p', '2', '\n', '\r', '\n', '/', 'y', '.', 'm', 'p', '2'});
  BatchList loaded;
  loaded.mode = BATCH_RESAMPLE;
  c.rate = 22050;
  c.bits = 8;
  EXPECT_EQ(read_batch_list(loaded, path.c_str(), c), 2);
  EXPECT_EQ(read_batch_list(loaded, dir.file("none.m3e").c_str(), c), -1);
  ASSERT_EQ(loaded.entries.size(), 2u);
  EXPECT_EQ(loaded.entries[1].target, "/out/y.mp2.wav");
  // The source can't be read: its own side is zero, the target side what the resampler is given.
  EXPECT_EQ(batch_column_text(BATCH_RESAMPLE, loaded.entries[0], 3), "0s[16]->22050s[8]");
  int32_t rate, bits, channels, quality;
  loaded.entries[0].fields[1] = "44100s[16]->11025m[8]";
  batch_resample_params(loaded.entries[0], rate, bits, channels, quality);
  EXPECT_EQ(rate * 1000 + bits * 10 + channels, 11025 * 1000 + 80 + 1);
  EXPECT_EQ(quality, 20);

  EXPECT_STREQ(batch_column_title(BATCH_ENCODE, 8), "status");
  EXPECT_EQ(batch_column_title(BATCH_DECODE, 4), nullptr);
  loaded.entries[0].status = STATUS_RUNNING;
  EXPECT_EQ(batch_column_text(BATCH_RESAMPLE, loaded.entries[0], 4), "resampling");
  EXPECT_STREQ(batch_ready_caption(BATCH_ENCODE), "Ready TOVRA encoder");
  EXPECT_EQ(batch_running_caption(BATCH_RESAMPLE, 1, 3), "[2/3] re-sampling...");
  // 30 s for a tenth of the units: 270 s to go, 4 minutes and the one added.
  EXPECT_EQ(batch_remaining_minutes(30, 1000, 100), 5);
}

}  // namespace
