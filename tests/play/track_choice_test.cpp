// The per-track choices that users would not guess from the settings: what the MPEG-2 relief keeps,
// the selector that an edited settings file can carry, and a mono stream's narrowed position.
#include <gtest/gtest.h>

#include "decoder/synth.h"
#include "session/play.h"

namespace {

TEST(TrackChoice, ReliefKeepsOverdriveEditedSelectorsActAsFourAndMonoPositionsNarrowTwice) {
  // MPEG-2 with "Mpeg2R": one rate step less, Overdrive (bit 2) kept; MPEG-1 ignores the relief.
  EXPECT_EQ(session::track_rate(6, 0, 1).rate_shift, 1);
  EXPECT_EQ(session::track_rate(6, 0, 1).selector, 5u);
  EXPECT_EQ(session::track_rate(2, 1, 1).selector, 2u);
  // A hand-edited selector above 7 behaves as Overdrive at full rate.
  EXPECT_EQ(session::choose_synth(9, 0, 4, 0).synth, session::choose_synth(4, 0, 4, 0).synth);
  EXPECT_EQ(session::choose_synth(12, 3, 6, 0).synth, decoder::synth_mono);
  // A mono stream with "Stereo" off is narrowed twice: half its true position.
  EXPECT_EQ(session::position_count(100, 3, 1, 1, 1, 0), 200);
  EXPECT_EQ(session::position_count(100, 3, 1, 0, 1, 0), 100);
  EXPECT_TRUE(session::is_url("MMS://x") && session::is_url("http://x") && !session::is_url("https://x"));
}

}  // namespace
