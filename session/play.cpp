// The play session: start_play, the per-track set-up and the frame loop of play_thread.
//
// How: start_play checks and opens on the main thread, then hands the open file to play_thread.
// The thread works one track at a time: choose the rate, variant and shaper, open the device at the
// first frame's rate, decode frames into the ring until the end of the stream or a stop, let the wave
// thread drain, and go on to the next entry by the repeat rules. Every wait on the wave thread is a
// 20 ms poll of wave_running; transport commands are taken between frames.
#include "session/play.h"

#include <strings.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "decoder/decoder.h"
#include "decoder/synth.h"
#include "library/playlist.h"
#include "output/ring.h"
#include "output/shapers.h"
#include "output/wave.h"
#include "session/messages.h"
#include "session/platform.h"
#include "session/seek.h"
#include "session/stream.h"

namespace session {

PlayHooks play_hooks;
std::atomic<int32_t> play_thread_handle{0};
std::atomic<int32_t> play_generation{0};

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
// Poll period of every wait on the wave thread.
constexpr int32_t WAVE_POLL_MS = 20;

std::thread play_thread_object;

using output::sleep_ms;

const char* entry_path(int32_t index) { return library::slot_used(index) ? library::playlist.entries[index].path : ""; }

void count_play(int32_t index) {
  if (index >= 0 && index < library::PLAYLIST_SCAN_SLOTS) library::playlist.play_counts[index].fetch_add(1, relaxed);
}

bool end_of_stream(int32_t code) { return code == FRAME_SHORT || code == FRAME_EOF; }

// How a track ended: by a stop (a command, a device refusal, a decode failure) or at the end of its
// stream; abandoned means stop_play gave up on this thread, which must then touch nothing shared.
enum TrackEnd { TRACK_STOPPED, TRACK_ENDED, TRACK_ABANDONED };

// The generation of the play thread running on this thread; -1 on every other thread.
thread_local int32_t thread_generation = -1;

// One play thread's life: its generation tells whether it still owns the session.
struct Life {
  int32_t generation;
  bool live() const { return play_generation.load(relaxed) == generation; }
};

// Polls wave_running until the wave thread is gone. False if the session was abandoned meanwhile.
bool wait_wave_end(const Life& life) {
  while (output::wave.wave_running.load(std::memory_order_acquire)) {
    if (!life.live()) return false;
    sleep_ms(WAVE_POLL_MS);
  }
  // The wave thread's last copy out of the ring was made under ring_lock: taking the lock once
  // orders it before the next track's writes into the ring, or the ring's release.
  { std::lock_guard<std::mutex> lock(output::ring.ring_lock); }
  return life.live();
}

// Hands the wave thread the command that ends its track (WAVE_DRAIN or WAVE_ABORT) and waits for it
// to end. The wave thread turns a seek command back to WAVE_RUN once it has re-primed, so an end
// written while a seek is still being handled would be overwritten and lost, and each thread would
// then wait for the other for good; a pending seek is let through first. False if the session was
// abandoned meanwhile.
// The same holds for a seek written while the last one is still being handled: it waits too.
bool wait_seek_taken(const Life& life) {
  for (;;) {
    int32_t pending = output::wave.wave_command.load(relaxed);
    if (pending < output::WAVE_JUMP || pending > output::WAVE_REPRIME) return true;
    if (!output::wave.wave_running.load(relaxed)) return true;
    if (!life.live()) return false;
    output::wave.wave_event.set();
    sleep_ms(WAVE_POLL_MS);
  }
}

bool end_wave_track(int32_t command, const Life& life) {
  if (!wait_seek_taken(life)) return false;
  output::wave.wave_command.store(command, relaxed);
  output::wave.wave_event.set();  // a wave thread waiting for a block takes the end at once
  return wait_wave_end(life);
}

void close_input() {
  if (reader.file) std::fclose(reader.file);
  reader.file = nullptr;
}

// The device refused to open: the message, and the session stops with the playlist position kept.
void report_device_error(int32_t error) {
  char number[16];
  std::snprintf(number, sizeof number, "%d", error);
  message_box(format::ERR_DEVICE, number);
  state.decoder_command.store(CMD_STOP, relaxed);
}

// Carries out a transport command between frames. Returns false for a stop.
bool take_command(int32_t command, FrameHeader& header, int32_t& frame, const Life& life) {
  output::wave.wave_event.set();  // a waiting wave thread looks at its command at once
  if (command >= CMD_JUMP && command <= CMD_BACK && !wait_seek_taken(life)) return false;
  auto position = [&] {
    // The count is by 1152-sample frames; a Layer I frame holds a third of one.
    return position_count(stream.layer == 1 ? frame / 3 : frame, stream.mode, stream.mpeg_id, state.session_stereo,
                          state.session_16bit, state.rate_shift);
  };
  switch (command) {
    case CMD_JUMP:
      // Layer I slots decoded before the jump and still waiting for a block belong to the old place.
      decoder::reset_layer1_state(decoding);
      frame = seek_to_frame(header);
      output::wave.seek_count.store(position(), relaxed);
      output::wave.wave_command.store(output::WAVE_JUMP, relaxed);
      output::ring_reset_for_seek();
      break;
    case CMD_FORWARD:
      // The file position stays: what the listener skips is the audio decoded ahead and now thrown
      // away with the ring, and what the device held.
      if (stream.frame_count - SEEK_STEP_FRAMES > frame) {
        output::wave.seek_count.store(position(), relaxed);
        output::wave.wave_command.store(output::WAVE_FORWARD, relaxed);
        output::ring_reset_for_seek();
      }
      break;
    case CMD_BACK:
      if (frame >= SEEK_STEP_FRAMES) {
        decoder::reset_layer1_state(decoding);
        int32_t n = skip_frames_back(header, SEEK_STEP_FRAMES);
        if (n != -1) {
          frame -= n;
          output::wave.seek_count.store(position(), relaxed);
        }
        output::wave.wave_command.store(output::WAVE_BACK, relaxed);
        output::ring_reset_for_seek();
      }
      break;
    default:
      return false;
  }
  // Taken or not, the command is done with.
  state.decoder_command.store(CMD_RUN, relaxed);
  return true;
}

// The track's output choices, as the device and the shaper take them.
output::OutputChoice output_choice() { return {state.session_stereo, state.session_16bit, state.rate_shift}; }

// Units that one frame's output can take in the ring: 1152 stereo 16-bit sample frames.
constexpr int32_t FRAME_UNITS = 1152 * 4 / int32_t(output::UNIT_BYTES);

// Waits until the ring has room for a frame, or a command or the abandonment comes. The shapers
// wait for room too, but there a seek would stand until the device had played a whole block (and
// the wave thread had taken one); here the frame loop takes it at once.
void wait_for_ring_room(const Life& life) {
  while (output::ring.ring_fill.load(std::memory_order_acquire) > output::RING_UNITS - FRAME_UNITS &&
         state.decoder_command.load(relaxed) == CMD_RUN && life.live())
    sleep_ms(WAVE_POLL_MS);
}

// Open the device at the first good frame's format, then frame by frame.
TrackEnd play_frames(const Life& life) {
  FrameHeader header{};
  int32_t code;
  while (!frame_found(code = read_frame(header))) {
    if (end_of_stream(code)) {
      // Nothing playable: no device was opened. Clear the request as a failed open would, so the
      // next Play is not ignored.
      state.play_requested.store(0, relaxed);
      return TRACK_ENDED;
    }
    state.damaged_flag.store(1, relaxed);
  }
  int32_t error = output::wave_open(header_hz(header), header.mode != 3, output_choice());
  if (error != 0) {
    report_device_error(error);
    state.play_requested.store(0, relaxed);
    return TRACK_STOPPED;
  }
  state.play_requested.store(0, relaxed);
  if (state.decoder_command.load(relaxed) != CMD_RUN) return TRACK_STOPPED;
  decoder::reset_synth_indices(decoding);

  // frame counts the frames decoded: 1 once the first one is.
  int32_t frame = 0;
  for (bool first = true;; first = false) {
    if (!first) {
      code = read_frame(header);
      if (end_of_stream(code)) {
        // The Layer I slots still waiting for a block play as one, padded with silence.
        int16_t pcm[decoder::BLOCK_SAMPLES];
        if (flush_decoding(pcm) && state.shaper_slot) state.shaper_slot(pcm);
        return TRACK_ENDED;
      }
      if (!frame_found(code)) {
        // A refused frame: step over it and go on. No message and no limit.
        skip_frames_forward(header, 1);
        state.damaged_flag.store(1, relaxed);
        continue;
      }
      wait_for_ring_room(life);
      if (!life.live()) return TRACK_ABANDONED;
      int32_t command = state.decoder_command.load(relaxed);
      if (command != CMD_RUN && !take_command(command, header, frame, life))
        return life.live() ? TRACK_STOPPED : TRACK_ABANDONED;
    }
    const int32_t decoded = decode_next_frame(header);
    if (decoded == decoder::LAYER1_CRC_MISMATCH) {
      // A protected Layer I frame with a wrong CRC stops the session.
      state.decoder_command.store(CMD_STOP, relaxed);
      return TRACK_STOPPED;
    }
    if (decoded != decoder::DECODE_OK) {
      if (!life.live()) return TRACK_ABANDONED;
      message_box(format::ERR_DECODE);
      return TRACK_STOPPED;
    }
    ++frame;
  }
}

// Opens path as the next track. An entry that will not open or holds no MPEG audio is reported
// (the list goes on without it; it stays in the list, which is the main thread's to edit).
bool open_entry(const char* path) {
  reader.file = std::fopen(path, "rb");
  if (!reader.file) {
    message_box(format::ERR_OPEN_INPUT, path);
    return false;
  }
  if (open_stream() != STREAM_OK) {
    close_input();
    message_box(format::ERR_NOT_MPEG, path);
    return false;
  }
  return true;
}

// The end of a track that played out: pick the next entry by the repeat rules and open it, passing
// over entries that won't play, at most once round the list. Returns false when the session ends
// here.
bool open_next_entry() {
  int32_t entries = 0;
  while (library::slot_used(entries)) ++entries;
  int32_t current = library::playlist.current_entry.load(relaxed);
  count_play(current);  // an entry played to its end counts twice
  for (int32_t tries = 0; tries < entries; ++tries) {
    if (state.decoder_command.load(relaxed) != CMD_RUN) return false;
    int32_t repeat = std::atomic_ref<int32_t>(options.repeat).load(relaxed);
    int32_t next = repeat == 2 ? library::pick_random_entry() : current + 1;
    library::playlist.current_entry.store(next, relaxed);
    if (!library::slot_used(next)) {
      library::playlist.current_entry.store(0, relaxed);
      next = 0;
      if (repeat == 0) return false;
    }
    const char* path = entry_path(next);
    if (is_url(path)) {
      // A URL in the list ends the session at that entry; it stays in the list.
      message_box(format::ERR_URL, path);
      return false;
    }
    if (open_entry(path)) {
      publish_stream();
      if (options.powersave) preread_file(reader.file);
      state.damaged_flag.store(0, relaxed);
      if (play_hooks.title_next_entry) play_hooks.title_next_entry();
      return true;
    }
    current = next;
  }
  return false;
}

void play_thread_main(int32_t generation) {
  const Life life{generation};
  thread_generation = generation;
  set_current_thread_priority(options.prior_dec ? PRIORITY_ABOVE_NORMAL : PRIORITY_HIGHEST);
  state.decoder_running.store(1, relaxed);
  output::ring_allocate();
  const int32_t family = cpu_family;
  output::wave.wave_wait_ms.store(wave_wait_for(family, options.prior_dec, state.rate_shift, options.sixteen_bit),
                                  relaxed);

  for (;;) {
    // The options are copied per track: an edit while playing takes effect with the next track.
    TrackRate rate = track_rate(options.rate_setting, stream.mpeg_id, options.mpeg2_relief);
    state.rate_shift = rate.rate_shift;
    state.session_stereo = options.stereo;
    state.session_16bit = options.sixteen_bit;
    state.session_emphasis = options.emphasis;
    state.session_alias = options.alias;
    state.session_hi_fi = options.hi_fi;
    state.shaper_slot = output::select_shaper(output_choice(), stream.mode == 3)->fn;
    // The shaper has chosen its row by the shift before a full-rate selector takes it back to 0,
    // while the device opens at shift 0: selectors 3 and 7 thin the sound all the same. Only a
    // hand-edited settings file reaches them.
    SynthChoice synth = choose_synth(rate.selector, stream.mode, family, options.pentium_synth);
    decoding.synth = synth.synth;
    if (synth.shift_reset) state.rate_shift = 0;

    count_play(library::playlist.current_entry.load(relaxed));
    if (play_hooks.title_new_track) play_hooks.title_new_track();

    TrackEnd end = play_frames(life);
    if (end == TRACK_ABANDONED) return;

    if (end == TRACK_STOPPED) {
      if (!end_wave_track(output::WAVE_ABORT, life)) return;
      close_input();
      break;
    }
    // The wave thread plays out what is queued and closes the device.
    if (!end_wave_track(output::WAVE_DRAIN, life)) return;
    close_input();
    if (!open_next_entry()) break;
  }

  state.decoder_command.store(CMD_STOP, relaxed);
  output::ring_free();
  state.decoder_running.store(0, relaxed);
  play_thread_handle.store(0, relaxed);
}

}  // namespace

TrackRate track_rate(uint32_t rate_setting, int32_t mpeg_id, int32_t mpeg2_relief) {
  int32_t shift = int32_t(rate_setting & 3);
  if (mpeg_id == 0 && mpeg2_relief && shift != 0) {
    --shift;
    return {shift, (rate_setting & ~3u) | uint32_t(shift)};
  }
  return {shift, rate_setting};
}

SynthChoice choose_synth(uint32_t selector, int32_t mode, int32_t family, int32_t pentium_synth) {
  // Full-rate choice of selector 0: a processor below the Pentium class gets the cheaper variant
  // unless "Pentium" asks for the regular one.
  auto full_rate = [&]() -> SynthFn {
    if (family < 5 && !pentium_synth) return decoder::synth_fast;
    return mode == 3 ? decoder::synth_mono : decoder::synth_full;
  };
  switch (selector) {
    case 0:
      return {full_rate(), false};
    case 1:
    case 5:
      return {decoder::synth_half, false};
    case 2:
    case 6:
      return {decoder::synth_quarter, false};
    case 3:
      return {decoder::synth_fast, true};
    case 7:
      return {decoder::synth_overdrive, true};
    default:  // 4, and anything a hand-edited file puts above 7
      if (family >= 5) return {full_rate(), false};
      return {pentium_synth ? decoder::synth_fast : decoder::synth_overdrive, false};
  }
}

int32_t wave_wait_for(int32_t family, int32_t prior_dec, int32_t last_rate_shift, int32_t sixteen_bit) {
  if (family >= 6) return prior_dec ? 100 : 1000;
  if (family == 5) return prior_dec ? 100 : 500;
  if (prior_dec) return 0;
  return last_rate_shift == 0 && sixteen_bit ? 20 : 50;
}

int32_t position_count(int32_t frame, int32_t mode, int32_t mpeg_id, int32_t session_stereo, int32_t session_16bit,
                       int32_t rate_shift) {
  int32_t channels = mode == 3 ? 1 : 2;
  int32_t per_frame = channels * (mpeg_id ? 2 : 1);
  int32_t shift = (session_stereo ? 0 : 1) + (session_16bit ? 0 : 1) + rate_shift;
  return (frame * per_frame) >> shift;
}

bool is_url(const char* path) {
  return path && (strncasecmp(path, "http://", 7) == 0 || strncasecmp(path, "mms://", 6) == 0);
}

void preread_file(std::FILE* file) {
  long position = std::ftell(file);
  if (position < 0 || std::fseek(file, 0, SEEK_END) != 0) return;
  long end = std::ftell(file);
  std::fseek(file, position, SEEK_SET);
  if (end <= position) return;
  uint64_t bytes = uint64_t(end - position);
  long pages = sysconf(_SC_PHYS_PAGES), page_size = sysconf(_SC_PAGE_SIZE);
  if (pages > 0 && page_size > 0) {
    uint64_t quarter = uint64_t(pages) * uint64_t(page_size) / 4;
    if (bytes > quarter) bytes = quarter;
  }
  // A refused allocation only means the file is read as it plays.
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[bytes]);
  if (buffer) (void)!std::fread(buffer.get(), 1, bytes, file);
  std::fseek(file, position, SEEK_SET);
}

int32_t start_play() {
  if (state.decoder_command.load(relaxed) == CMD_RUN || state.decoder_running.load(relaxed) ||
      state.file_job_active.load(relaxed)) {
    if (state.paused.load(relaxed)) {
      output::toggle_pause();
      return format::ERR_OK;
    }
    return format::ERR_BUSY;
  }
  // A running file job is looked at before the decoder state is cleared, not after: clearing it
  // under a job that is just starting would spoil that job's output.
  if (state.file_job_idle.load(relaxed) == 0) return format::ERR_OK;
  // The last session's thread has cleared decoder_running: it is at its end, or already gone.
  if (play_thread_object.joinable()) play_thread_object.join();
  reset_decoding();

  const char* path = entry_path(library::playlist.current_entry.load(relaxed));
  if (is_url(path)) return format::ERR_URL;  // nothing is opened: there is no network code
  reader.file = std::fopen(path, "rb");
  if (!reader.file) return format::ERR_OPEN_INPUT;
  if (open_stream() != STREAM_OK) {
    close_input();
    return format::ERR_STREAM_REFUSED;
  }
  publish_stream();
  if (options.powersave) preread_file(reader.file);

  decoding.channels = 1;
  output::wave.block_count.store(output::BLOCK_COUNT, relaxed);
  output::ring.ring_bytes.store(output::RING_BYTES, relaxed);
  state.damaged_flag.store(0, relaxed);
  state.decoder_command.store(CMD_RUN, relaxed);
  state.paused.store(0, relaxed);
  // Marked running before the thread exists, so that a stop_play at once waits for it.
  state.decoder_running.store(1, relaxed);
  play_thread_handle.store(1, relaxed);
  // Filled once, before the first wave thread: a thread given up later may still read it.
  if (!output::session_link.command)
    output::session_link = {&state.decoder_command, &state.paused, play_thread_abandoned};
  play_thread_object = std::thread(play_thread_main, play_generation.load(relaxed));
  return format::ERR_OK;
}

void join_finished_play_thread() {
  if (play_thread_object.joinable() && state.decoder_running.load(relaxed) == 0) play_thread_object.join();
}

bool play_thread_abandoned() { return thread_generation >= 0 && thread_generation != play_generation.load(relaxed); }

void abandon_play_thread() {
  play_generation.fetch_add(1, relaxed);
  if (play_thread_object.joinable()) play_thread_object.detach();
  output::wave_abandon();
  // The thread may still wake and write into the ring: its storage is left to it.
  output::ring_forget();
  state.decoder_running.store(0, relaxed);
  play_thread_handle.store(0, relaxed);
}

}  // namespace session
