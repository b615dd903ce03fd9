// The tag dialog's view of the stream: the information text with the quirks it keeps, and the
// dialog opened on the current stream.
#include "session/tag_view.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(TagView, InformationTextShowsTheStreamLastOpened) {
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
  EXPECT_EQ(session::mpeg_info_text(s, nullptr, 0),
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
  const std::string text = session::mpeg_info_text(s, &probe, 1);
  EXPECT_NE(text.find("mode = Combined stereo\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("emphasis = 50/15ms\r\n(+ Wave Header)"), std::string::npos) << text;
  probe.id = 0;  // MPEG-2: no text at all
  EXPECT_EQ(session::mpeg_info_text(s, &probe, 0), "");

  // The dialog on the current stream: a WAVE-wrapped one is shown, never tagged.
  std::memcpy(session::stream.tag_buffer, "rif", 3);
  const session::Id3View v = session::open_view(nullptr, 0, 0, 1);
  EXPECT_EQ(v.wrapper_kind, 1);
  EXPECT_FALSE(v.can_save || v.can_delete);
  EXPECT_EQ(v.group_title, "MPEG info");
}

}  // namespace
