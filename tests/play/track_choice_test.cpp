// The per-track choices of the play session: rate shift and selector, synthesis variant by processor
// family, the wave thread's wait, the position counter after a seek, and the URL test.
#include <gtest/gtest.h>

#include "decoder/synth.h"
#include "session/play.h"

namespace {

using session::choose_synth;
using session::position_count;
using session::track_rate;

TEST(TrackRate, Mpeg2ReliefTakesOneStepLessAndKeepsOverdrive) {
  // MPEG-1 streams ignore the relief.
  EXPECT_EQ(track_rate(2, 1, 1).rate_shift, 2);
  EXPECT_EQ(track_rate(2, 1, 1).selector, 2u);
  // MPEG-2 with relief: one step less, Overdrive (bit 2) kept in the selector.
  EXPECT_EQ(track_rate(2, 0, 1).rate_shift, 1);
  EXPECT_EQ(track_rate(2, 0, 1).selector, 1u);
  EXPECT_EQ(track_rate(6, 0, 1).rate_shift, 1);
  EXPECT_EQ(track_rate(6, 0, 1).selector, 5u);
  EXPECT_EQ(track_rate(7, 0, 1).selector, 6u);
  // Full rate has no step to give.
  EXPECT_EQ(track_rate(4, 0, 1).rate_shift, 0);
  EXPECT_EQ(track_rate(4, 0, 1).selector, 4u);
  // Without relief MPEG-2 is treated as MPEG-1.
  EXPECT_EQ(track_rate(3, 0, 0).rate_shift, 3);
  EXPECT_EQ(track_rate(3, 0, 0).selector, 3u);
}

struct SynthCase {
  uint32_t selector;
  int32_t mode, family, pentium;
  session::SynthFn expected;
  bool reset;
};

TEST(ChooseSynth, FollowsTheSelectorTableForEveryFamily) {
  using namespace decoder;
  const SynthCase cases[] = {
      // Selector 0: regular synthesis from the Pentium class on, or when "Pentium" asks for it.
      {0, 0, 6, 0, synth_full, false},
      {0, 3, 6, 0, synth_mono, false},
      {0, 0, 5, 1, synth_full, false},
      {0, 0, 4, 0, synth_fast, false},
      {0, 3, 4, 0, synth_fast, false},
      {0, 3, 4, 1, synth_mono, false},
      // Reduced rates, mono streams too.
      {1, 3, 6, 0, synth_half, false},
      {5, 0, 4, 0, synth_half, false},
      {2, 0, 6, 0, synth_quarter, false},
      {6, 3, 4, 1, synth_quarter, false},
      // The 1/8 position computes at full rate: the shift is reset.
      {3, 0, 6, 0, synth_fast, true},
      {3, 0, 4, 1, synth_fast, true},
      {7, 0, 6, 0, synth_overdrive, true},
      // Overdrive at full rate: nothing on a fast processor, the cheap variants on a slow one.
      {4, 0, 6, 0, synth_full, false},
      {4, 3, 5, 0, synth_mono, false},
      {4, 0, 4, 0, synth_overdrive, false},
      {4, 0, 4, 1, synth_fast, false},
      // A hand-edited selector above 7 behaves as 4.
      {9, 0, 4, 0, synth_overdrive, false},
      {12, 3, 6, 0, synth_mono, false},
  };
  for (const SynthCase& c : cases) {
    session::SynthChoice got = choose_synth(c.selector, c.mode, c.family, c.pentium);
    EXPECT_EQ(got.synth, c.expected) << "selector " << c.selector << " mode " << c.mode << " family " << c.family
                                     << " pentium " << c.pentium;
    EXPECT_EQ(got.shift_reset, c.reset) << "selector " << c.selector;
  }
}

TEST(WaveWait, ByFamilyAndPriority) {
  EXPECT_EQ(session::wave_wait_for(6, 0, 0, 1), 1000);
  EXPECT_EQ(session::wave_wait_for(15, 1, 2, 0), 100);
  EXPECT_EQ(session::wave_wait_for(5, 0, 1, 1), 500);
  EXPECT_EQ(session::wave_wait_for(5, 1, 0, 1), 100);
  // Below the Pentium class the wait follows the last track's load.
  EXPECT_EQ(session::wave_wait_for(4, 0, 0, 1), 20);
  EXPECT_EQ(session::wave_wait_for(4, 0, 1, 1), 50);
  EXPECT_EQ(session::wave_wait_for(4, 0, 0, 0), 50);
  EXPECT_EQ(session::wave_wait_for(4, 1, 0, 1), 0);
}

TEST(PositionCount, MatchesTheBytesOfTheOutputFormat) {
  // MPEG-1 stereo, 16 bit, full rate: a frame is 1152 x 4 bytes, four units of 1152 bytes.
  EXPECT_EQ(position_count(100, 0, 1, 1, 1, 0), 400);
  // MPEG-2 has half the samples per frame.
  EXPECT_EQ(position_count(100, 0, 0, 1, 1, 0), 200);
  // 8 bit, folded to one channel, quarter rate: each halves.
  EXPECT_EQ(position_count(100, 0, 1, 1, 0, 0), 200);
  EXPECT_EQ(position_count(100, 1, 1, 0, 1, 0), 200);
  EXPECT_EQ(position_count(100, 0, 1, 1, 1, 2), 100);
  // A mono stream with "Stereo" off is narrowed twice: half its true position, kept as it was.
  EXPECT_EQ(position_count(100, 3, 1, 1, 1, 0), 200);
  EXPECT_EQ(position_count(100, 3, 1, 0, 1, 0), 100);
}

TEST(IsUrl, BothPrefixesBlindToCase) {
  EXPECT_TRUE(session::is_url("http://host/a.mp3"));
  EXPECT_TRUE(session::is_url("HTTP://HOST"));
  EXPECT_TRUE(session::is_url("mMs://stream"));
  EXPECT_FALSE(session::is_url("https://host/a.mp3"));
  EXPECT_FALSE(session::is_url("/music/http://a.mp3"));
  EXPECT_FALSE(session::is_url("mms:/"));
  EXPECT_FALSE(session::is_url(""));
}

}  // namespace
