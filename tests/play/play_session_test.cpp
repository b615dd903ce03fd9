// The play session on the recording test device: pause, stop, the transport's skips and jumps,
// the end of a track, and the rules for the next entry. (The drain's padding is the wave thread's,
// tested there and end to end through the SDL device.)
#include <algorithm>

#include "play_support.h"
#include "session/message_text.h"

namespace {

using namespace play_test;
using session::state;

TEST_F(PlaySession, PauseHoldsTheDeviceAndPlayResumesTheSameTrack) {
  add_track("a.mp2", silent_layer2(400));
  output::test_device_set_player(2);
  session::play_command(0);
  ASSERT_TRUE(wait_until([] { return output::test_device_record().played_blocks >= 3; }));
  EXPECT_EQ(state.play_requested.load(), 0);  // cleared once the device was open
  EXPECT_EQ(session::start_play(), format::ERR_BUSY);

  session::pause_command();
  EXPECT_EQ(state.paused.load(), 1);
  EXPECT_TRUE(output::test_device_record().paused);
  int32_t held = output::test_device_record().played_blocks;
  sleep_ms(60);
  EXPECT_EQ(output::test_device_record().played_blocks, held);

  // Play on a paused session only leaves the pause: no new device, no restart of the track.
  session::play_command(0);
  EXPECT_EQ(state.paused.load(), 0);
  ASSERT_TRUE(wait_until([&] { return output::test_device_record().played_blocks > held; }));
  EXPECT_EQ(count_of(output::test_device_record().calls, 'O'), 1);
  // The same goes for start_play itself.
  session::pause_command();
  EXPECT_EQ(session::start_play(), format::ERR_OK);
  EXPECT_EQ(state.paused.load(), 0);

  session::pause_command();
  EXPECT_EQ(session::stop_play(), 1);
  EXPECT_EQ(state.paused.load(), 0);
  EXPECT_FALSE(output::test_device_record().open);
}

TEST_F(PlaySession, ForwardNeedsMoreThanTheStepLeft) {
  // 401 frames: with the decoder about 232 frames ahead of the listener it is within the last 320,
  // so a forward changes nothing and the whole track is heard.
  add_track("short.mp2", silent_layer2(401));
  ASSERT_EQ(session::start_play(), format::ERR_OK);
  ASSERT_TRUE(wait_lead_full());
  int32_t count = output::wave.output_count.load();
  session::seek_forward();
  EXPECT_EQ(state.decoder_command.load(), session::CMD_FORWARD);
  output::test_device_play(1);  // room in the ring: the decoder reads on and takes the word
  ASSERT_TRUE(wait_until([] { return state.decoder_command.load() == session::CMD_RUN; }));
  EXPECT_EQ(output::wave.output_count.load(), count + 16);  // only the block just played
  EXPECT_EQ(output::wave.wave_command.load(), output::WAVE_RUN);
  ASSERT_TRUE(play_out());
  output::TestDeviceRecord r = output::test_device_record();
  EXPECT_EQ(r.reset_blocks, 0);
  EXPECT_EQ(r.played.size(), padded_length(401 * STEREO_FRAME_BYTES));

  // With more than 320 frames ahead the decoded lead is thrown away and the device reset.
  output::test_device_clear();
  library::reset_playlist();
  add_track("long.mp2", silent_layer2(2000));
  ASSERT_EQ(session::start_play(), format::ERR_OK);
  ASSERT_TRUE(wait_lead_full());
  session::seek_forward();
  output::test_device_play(1);
  ASSERT_TRUE(wait_until([] { return state.decoder_command.load() == session::CMD_RUN; }));
  ASSERT_TRUE(play_out());
  r = output::test_device_record();
  EXPECT_GT(r.reset_blocks, 0);
  EXPECT_LT(r.played.size(), padded_length(2000 * STEREO_FRAME_BYTES));
}

TEST_F(PlaySession, BackNeedsTheStepBehind) {
  add_track("long.mp2", silent_layer2(2000));
  ASSERT_EQ(session::start_play(), format::ERR_OK);
  ASSERT_TRUE(wait_lead_full());
  // About 232 frames decoded: too few to go back 320. Nothing happens, and the word returns.
  session::seek_back();
  output::test_device_play(1);
  ASSERT_TRUE(wait_until([] { return state.decoder_command.load() == session::CMD_RUN; }));
  EXPECT_EQ(output::test_device_record().reset_blocks, 0);

  // Let the listener get 30 blocks in (the decoder then at about 350 frames) and go back: 320
  // frames are heard again, more than the thrown-away lead of about 232.
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(wait_until([] { return output::test_device_record().queued > 0; }));
    output::test_device_play(1);
  }
  ASSERT_TRUE(wait_lead_full());
  session::seek_back();
  output::test_device_play(1);
  ASSERT_TRUE(wait_until([] { return state.decoder_command.load() == session::CMD_RUN; }));
  ASSERT_TRUE(play_out());
  output::TestDeviceRecord r = output::test_device_record();
  EXPECT_GT(r.reset_blocks, 0);
  EXPECT_GT(r.played.size(), padded_length(2000 * STEREO_FRAME_BYTES));
}

TEST_F(PlaySession, JumpsAtAnyMomentPrimingIncludedLeaveTheSessionWhole) {
  add_track("long.mp2", silent_layer2(3000));
  ASSERT_EQ(session::start_play(), format::ERR_OK);
  // A jump before the first frame would stop the session; the first block at the device means the
  // frame loop runs.
  ASSERT_TRUE(wait_until([] { return !output::test_device_record().lengths.empty(); }));
  // Jumps in quick succession land while the wave thread re-primes after the one before, while it
  // waits for data and while the decoder is blocked on a full ring.
  for (int i = 0; i < 40; ++i) {
    session::seek_frame(i * 61 % 2900);
    output::test_device_play(i % 3);
    sleep_ms(i % 4);
  }
  session::seek_frame(2900);
  ASSERT_TRUE(wait_until([] {
    output::test_device_play(1);
    return state.decoder_command.load() != session::CMD_JUMP;
  }));
  ASSERT_TRUE(play_out()) << "wave command " << output::wave.wave_command.load() << ", ring fill "
                          << output::ring.ring_fill.load();
  output::TestDeviceRecord r = output::test_device_record();
  EXPECT_GT(count_of(r.calls, 'X'), 1);
  EXPECT_EQ(r.calls.back(), 'C');
  EXPECT_EQ(state.decoder_command.load(), session::CMD_STOP);
  EXPECT_TRUE(boxes_shown().empty());
  // The wave position follows the last jump: the 2900th frame of stereo MPEG-1 is unit 11600, and
  // what played afterwards only adds to it.
  EXPECT_GE(output::wave.output_count.load(), 2900 * 4);
}

// A jump through the session gives the samples of a straight decode, on every layer and at
// many points, forwards and back. The jump primes the reservoir with the target frame and decodes on
// from the frame behind it, with the synthesis history (and Layer III's overlap) of the frames
// played before the jump. Excused: the first two frames decoded after the jump. The filter bank
// carries 15 slots (480 samples) of the old history into the first; in Layer III the
// first frame may reach for main data from before the target, and the second overlaps its first
// granule with the first frame's last. From the third frame on the samples must be identical.
TEST_F(PlaySession, JumpsGiveTheSamplesOfAStraightDecode) {
  REQUIRE_TOOL("sox");
  REQUIRE_TOOL("twolame");
  REQUIRE_TOOL("lame");
  const std::string wav = dir.file("src.wav");
  ASSERT_EQ(test::run("sox -R -q -n -r 44100 -c 2 -b 16 " + wav +
                      " synth 20 sine 300-5000 pinknoise vol 0.3 : synth 0.004 square 50 vol 0.6 pad 0 0.3 repeat 3"),
            0);
  struct Layer {
    const char* name;
    std::string encode;
    int32_t samples;  // per frame and channel
  };
  const Layer layers[] = {
      {"l2.mp2", "twolame --quiet -b 192 " + wav + " %s", 1152},
      {"l3.mp3", "lame --quiet -t -b 160 " + wav + " %s", 1152},
      {"l1.mp1", test::cli_path() + " encode --layer 1 --bitrate 384 " + wav + " %s", 384},
  };
  for (const Layer& layer : layers) {
    SCOPED_TRACE(layer.name);
    const std::string in = dir.file(layer.name);
    std::string encode = layer.encode;
    encode.replace(encode.find("%s"), 2, in);
    ASSERT_EQ(test::run(encode + " 2>/dev/null"), 0);
    // Playback keeps every sample: so does the straight decode.
    const std::vector<int16_t> straight = test::decode_ours(in, dir.file("straight.raw"), "--no-gapless");
    const size_t frame_values = size_t(layer.samples) * 2;
    const int32_t frames = int32_t(straight.size() / frame_values);

    library::reset_playlist();
    add_track(layer.name, test::read_file(in));
    output::test_device_clear();
    ASSERT_EQ(session::start_play(), format::ERR_OK);
    // Targets as fractions of the track; the last lies within the decoder's lead of the end.
    std::vector<int32_t> targets;
    for (int32_t per_mille : {20, 610, 130, 370, 5, 960}) targets.push_back(frames * per_mille / 1000);
    std::vector<size_t> starts;  // bytes the device had been given when each jump was taken
    for (size_t i = 0; i < targets.size(); ++i) {
      // The device full: the wave thread waits for a free block and writes nothing until the reset.
      ASSERT_TRUE(wait_until([] {
        return output::wave.free_blocks.load() == 0 && output::test_device_record().queued > 0;
      })) << "jump "
          << i;
      sleep_ms(20);
      const output::TestDeviceRecord before = output::test_device_record();
      starts.push_back(before.written.size());
      session::seek_frame(targets[i]);
      ASSERT_TRUE(wait_until([&] {
        return count_of(output::test_device_record().calls, 'X') > count_of(before.calls, 'X') &&
               state.decoder_command.load() == session::CMD_RUN;
      }));
    }
    ASSERT_TRUE(play_out(60000));
    const std::vector<uint8_t> written = output::test_device_record().written;
    starts.push_back(written.size());
    for (size_t i = 0; i < targets.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "jump to frame " << targets[i]);
      const size_t first = size_t(targets[i] + 1 + 2) * frame_values;  // two frames excused
      const size_t from = starts[i] + 2 * frame_values * 2;
      ASSERT_LT(first, straight.size());
      ASSERT_LT(from, starts[i + 1]);
      const size_t n = std::min((starts[i + 1] - from) / 2, straight.size() - first);
      size_t diff = 0;
      while (diff < n &&
             int16_t(written[from + 2 * diff] | written[from + 2 * diff + 1] << 8) == straight[first + diff])
        ++diff;
      EXPECT_EQ(diff, n) << "first difference " << diff << " values into " << n;
      EXPECT_GT(n, 20 * frame_values);
    }
  }
}

// The wave thread turns a seek command back to WAVE_RUN once it has re-primed: an end of stream
// that the decoder reaches while the wave thread handles a jump must not be overwritten by that,
// or both threads wait for each other for good. The track ends in a long stretch without a sync
// word, so that the end comes some tens of milliseconds after a jump to its last frames: the
// stretch grows from round to round to sweep over the wave thread's handling of the jump.
TEST_F(PlaySession, AnEndReachedWhileAJumpIsHandledStillEndsTheTrack) {
  session::options.prior_dec = 1;  // short waits for data: quicker rounds
  for (int round = 0; round < 8; ++round) {
    std::vector<uint8_t> bytes = silent_layer2(300);
    bytes.resize(bytes.size() + size_t(round + 1) * 256 * 1024, 0x11);
    library::reset_playlist();
    add_track("tail" + std::to_string(round) + ".mp2", bytes);
    output::test_device_clear();
    ASSERT_EQ(session::start_play(), format::ERR_OK);
    ASSERT_TRUE(wait_until([] { return !output::test_device_record().lengths.empty(); }));
    ASSERT_TRUE(wait_lead_full());
    session::seek_frame(298);
    ASSERT_TRUE(play_out(15000)) << "round " << round << ", wave command " << output::wave.wave_command.load();
    output::TestDeviceRecord r = output::test_device_record();
    EXPECT_EQ(r.calls.back(), 'C');
    EXPECT_GT(count_of(r.calls, 'X'), 1);  // the jump's reset, and the close's
    // The last block is the last frame and the padding.
    ASSERT_GE(r.played.size(), output::BLOCK_BYTES);
    EXPECT_EQ(r.played[r.played.size() - 2], 128) << "round " << round;
  }
}

TEST_F(PlaySession, RepeatOffStopsAtTheListsEndAndLeavesTheIndexAtZero) {
  add_track("a.mp2", silent_layer2(10));
  add_track("b.mp2", silent_layer2(12, true));
  output::test_device_set_player(1);
  session::play_command(0);
  ASSERT_TRUE(wait_session_end());
  output::TestDeviceRecord r = output::test_device_record();
  EXPECT_EQ(count_of(r.calls, 'O'), 2);  // a device of its own for each track, at its format
  EXPECT_EQ(r.format.channels, 1);
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
  EXPECT_EQ(library::playlist.play_counts[0].load(), 2);
  EXPECT_EQ(library::playlist.play_counts[1].load(), 2);
  EXPECT_TRUE(boxes_shown().empty());
  EXPECT_EQ(state.decoder_command.load(), session::CMD_STOP);
}

TEST_F(PlaySession, RepeatOnWrapsRoundAndRandomPlaysASingleEntryAgain) {
  add_track("a.mp2", silent_layer2(8));
  add_track("b.mp2", silent_layer2(8));
  session::options.repeat = 1;
  output::test_device_set_player(1);
  session::play_command(0);
  ASSERT_TRUE(wait_until([] { return count_of(output::test_device_record().calls, 'O') >= 3; }))
      << output::test_device_record().calls << " entry " << library::playlist.current_entry.load() << " running "
      << state.decoder_running.load() << " cmd " << state.decoder_command.load();
  EXPECT_EQ(session::stop_play(), 1);
  EXPECT_GE(library::playlist.play_counts[0].load(), 3);

  library::reset_playlist();
  output::test_device_clear();
  output::test_device_set_player(1);
  add_track("only.mp2", silent_layer2(8));
  session::random_command();
  ASSERT_EQ(session::options.repeat, 2);
  session::play_command(0);
  ASSERT_TRUE(wait_until([] { return count_of(output::test_device_record().calls, 'O') >= 3; }));
  EXPECT_EQ(session::stop_play(), 1);
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
  // The counts start a new cycle each time the one entry has played.
  EXPECT_LE(library::playlist.play_counts[0].load(), 3);
  EXPECT_TRUE(boxes_shown().empty());
}

// Entries that won't open or hold no MPEG audio are reported and passed over, at the start and
// between tracks, and the list goes on. A start removes its failed entry; the session leaves the
// list alone.
TEST_F(PlaySession, EntriesThatWontPlayAreReportedAndTheListGoesOn) {
  const std::string missing = dir.file("missing.mp2"), gone = dir.file("gone.mp2");
  const std::string junk = dir.file("junk.mp2");
  test::write_file(junk, std::vector<uint8_t>(3000, 0x11));
  // At the start: the missing file is removed, the junk (which the stream opening speaks for) stays.
  for (const std::string& path : {missing, junk}) library::append_entry(path.c_str());
  add_track("a.mp2", silent_layer2(8));
  for (const std::string& path : {gone, junk}) library::append_entry(path.c_str());
  add_track("c.mp2", silent_layer2(8));
  output::test_device_set_player(1);
  session::play_command(0);
  ASSERT_TRUE(wait_session_end());
  EXPECT_EQ(count_of(output::test_device_record().calls, 'O'), 2);  // a and c
  std::vector<std::string> texts;
  for (const Box& b : boxes_shown()) texts.push_back(session::message_text(b.code, b.arg.c_str()));
  for (const std::string& want :
       {"Cannot open '" + missing + "'", "Cannot open '" + gone + "'", "'" + junk + "' is not MPEG audio"})
    EXPECT_NE(std::find(texts.begin(), texts.end(), want), texts.end()) << want;
  EXPECT_EQ(library::playlist_length(), 5);
  EXPECT_EQ(library::playlist.entries[0].path, junk);
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
}

// The main thread reads the stream's facts (the seek bar, the window's display) while the play
// thread opens track after track: it sees one track's facts whole, never half of two. Mono tracks
// here have an odd number of frames and stereo ones an even number.
TEST_F(PlaySession, TheStreamIsReadWholeWhileTracksOpen) {
  for (int i = 0; i < 6; ++i) add_track("t" + std::to_string(i) + ".mp2", silent_layer2(40 + i, i % 2 == 1));
  output::test_device_set_player(1);
  session::play_command(0);
  int torn = 0, seen = 0;
  while (state.decoder_running.load()) {
    session::StreamInfo s = session::published_stream();
    torn += (s.mode == 3) != (s.frame_count % 2 == 1);
    ++seen;
    std::this_thread::yield();
  }
  session::join_finished_play_thread();
  EXPECT_EQ(torn, 0) << "of " << seen;
  EXPECT_EQ(count_of(output::test_device_record().calls, 'O'), 6);
  EXPECT_EQ(session::published_stream().frame_count, 45);
}

TEST_F(PlaySession, AUrlInTheListEndsTheSessionAfterTheDrainAndStays) {
  add_track("a.mp2", silent_layer2(8));
  library::append_entry("Mms://radio/stream");
  output::test_device_set_player(1);
  session::play_command(0);
  ASSERT_TRUE(wait_session_end());
  std::vector<Box> b = boxes_shown();
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0].code, format::ERR_URL);
  EXPECT_EQ(b[0].arg, "Mms://radio/stream");
  EXPECT_EQ(output::test_device_record().played_blocks, 2);  // the track before it drained
  EXPECT_EQ(library::playlist.current_entry.load(), 1);
  EXPECT_STREQ(library::playlist.entries[1].path, "Mms://radio/stream");
}

TEST_F(PlaySession, AStartThatFailsRemovesTheEntryOrNotByItsCode) {
  std::string a = add_track("a.mp2", silent_layer2(8));
  library::append_entry("HTTP://host/a.mp3");
  std::string missing = dir.file("missing.mp2");
  library::append_entry(missing.c_str());
  std::string junk = add_track("junk.mp2", silent_layer2(8));

  // A URL as the entry to start: refused, told, removed; the index stays on a used slot.
  library::playlist.current_entry.store(1);
  session::play_command(session::START_KEEP_INDEX);
  EXPECT_EQ(state.decoder_running.load(), 0);
  EXPECT_EQ(state.play_requested.load(), 0);
  std::vector<Box> b = boxes_shown();
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0].code, format::ERR_URL);
  EXPECT_EQ(b[0].arg, "HTTP://host/a.mp3");
  EXPECT_EQ(library::playlist_length(), 3);
  EXPECT_EQ(std::string(library::playlist.entries[1].path), missing);

  // Two files gone at the end of the list: each is told and removed in turn, and the index walks
  // back to the entry before them.
  library::playlist.current_entry.store(1);
  std::remove(junk.c_str());
  session::play_command(session::START_KEEP_INDEX);
  EXPECT_EQ(library::playlist_length(), 1);
  EXPECT_EQ(library::playlist.current_entry.load(), 0);
  EXPECT_EQ(std::string(library::playlist.entries[0].path), a);
  EXPECT_EQ(boxes_shown().size(), 3u);
}

}  // namespace
