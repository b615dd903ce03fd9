// The Layer I decoder: a whole track in one call, apart from the frame reader and the Layer II/III
// synthesis.
//
// How it works. The track's buffers (bit reader, synthesis rings, per-frame arrays) live in one
// block allocated at the start and released on every way out. The bit reader is a byte buffer of
// 3840 bytes filled from the file top index downward and read downward bit by bit; reads past the
// end of the file give zeros and raise its end flag. Each frame is found by a byte-aligned search
// for the twelve sync bits, its header parsed, its allocations and scale indices read (with the CRC
// check when the frame carries one), then twelve rounds of one sample per subband and channel are
// requantised, run through the direct-form synthesis and moved out to pcm_block_l1, which goes to
// the output whenever it holds 1152 values. The rest of the frame is skipped bit by bit.
//
// Runs on the session thread that called it; reads decoder_command and the file job's Cancel, which the
// main thread writes, once a frame and once a block of 200 frames.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <thread>

#include "decoder/decoder.h"
#include "decoder/layer1_tables.h"
#include "decoder/synth.h"
#include "output/shapers.h"
#include "session/messages.h"
#include "session/session.h"
#include "session/stream.h"
#include "session/writers.h"

namespace decoder {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

constexpr int32_t L1_BUFFER_BYTES = 3840;
constexpr int32_t FRAMES_PER_BLOCK = 200;
constexpr int32_t PCM_BLOCK_VALUES = 1152;
constexpr int32_t HISTORY = 1024;  // synthesis ring per channel, in floats
constexpr int32_t SYNC_BITS = 12;
constexpr uint32_t SYNC = 0xFFF;
constexpr int32_t ROUNDS = 12;

// The Layer I header behind its sync bits (20 bits, most significant first):
//
//   B CC D EEEE FF G H II JJ K L MM
//   B version (1 MPEG-1, 0 MPEG-2)   C layer bits (3 for Layer I)   D protection bit (0: CRC follows)
//   E bitrate_index   F sampling_frequency   G padding   H extension
//   I mode   J mode_ext   K copyright   L original   M emphasis
struct Layer1Header {
  int32_t version;
  int32_t layer;             // 4 minus the two layer bits
  int32_t error_protection;  // 1 when a CRC follows
  int32_t bitrate_index;
  int32_t sampling_frequency;
  int32_t padding;
  int32_t extension;
  int32_t mode;
  int32_t mode_ext;
  int32_t copyright;
  int32_t original;
  int32_t emphasis;
};

struct Layer1Reader {
  std::FILE* file = nullptr;
  uint8_t buffer[L1_BUFFER_BYTES];
  int32_t byte_index = L1_BUFFER_BYTES;  // byte being read; counts down towards low
  int32_t low = L1_BUFFER_BYTES;         // lowest index holding file data
  int32_t bits_left = 0;                 // unread bits of buffer[byte_index]
  bool file_done = false;
  bool end = false;       // a read has run past the last byte of the file
  int64_t bits_read = 0;  // every bit handed out, zeros past the end included
};

// Everything one track needs, allocated at its start.
struct Layer1Track {
  Layer1Reader reader;
  Layer1Header header;
  int32_t allocation[2][32];
  int32_t scale_index[2][32];  // 63 where nothing is allocated
  uint32_t sample_codes[2][32];
  float dequantised[2][32];
  int16_t pcm_line[2][32];
  float history[2][HISTORY];
  int32_t history_pos[2];
  float cos_table[32];
  float window_by_offset[16][32];  // layer1_window transposed: coefficient i of every output sample
  int32_t pcm_fill;
};

// --- Bit reader -----------------------------------------------------------------------------------

// Loads the next stretch of the file into the buffer, first byte at the top index.
bool refill(Layer1Reader& r) {
  if (r.file_done) return false;
  size_t n = std::fread(r.buffer, 1, L1_BUFFER_BYTES, r.file);
  if (n < size_t(L1_BUFFER_BYTES)) r.file_done = true;
  if (n == 0) return false;
  std::reverse(r.buffer, r.buffer + n);
  if (n < size_t(L1_BUFFER_BYTES)) std::memmove(r.buffer + L1_BUFFER_BYTES - n, r.buffer, n);
  r.low = L1_BUFFER_BYTES - int32_t(n);
  r.byte_index = L1_BUFFER_BYTES - 1;
  return true;
}

// Steps to the next byte, refilling when the buffer is spent. False at the end of the file.
bool next_byte(Layer1Reader& r) {
  if (r.end) return false;
  if (--r.byte_index < r.low && !refill(r)) {
    r.end = true;
    return false;
  }
  r.bits_left = 8;
  return true;
}

uint32_t get_one_bit(Layer1Reader& r) {
  ++r.bits_read;
  if (r.bits_left == 0 && !next_byte(r)) return 0;
  --r.bits_left;
  return (r.buffer[r.byte_index] >> r.bits_left) & 1;
}

// n from 0 to 16. Hands out the same bits as n single reads, taking what the current byte holds at
// once; past the end the missing bits are zeros.
uint32_t get_bits(Layer1Reader& r, int32_t n) {
  uint32_t v = 0;
  r.bits_read += n;
  while (n > 0) {
    if (r.bits_left == 0 && !next_byte(r)) return v << n;
    const int32_t take = n < r.bits_left ? n : r.bits_left;
    r.bits_left -= take;
    v = (v << take) | ((uint32_t(r.buffer[r.byte_index]) >> r.bits_left) & ((1u << take) - 1));
    n -= take;
  }
  return v;
}

// Moves to the next byte boundary, then slides a byte at a time until the last twelve bits read are
// all ones. False when the data ran out first.
bool seek_sync(Layer1Reader& r) {
  r.bits_read += r.bits_left;
  r.bits_left = 0;
  uint32_t v = get_bits(r, SYNC_BITS);
  while ((v & SYNC) != SYNC && !r.end) v = ((v << 8) | get_bits(r, 8)) & 0xFFFFF;
  return !r.end;
}

// --- Frame structure ------------------------------------------------------------------------------

// 0 on success; 1 not Layer I, 2 free format or a forbidden bit rate, 3 a reserved sampling rate.
int32_t parse_header(Layer1Reader& r, Layer1Header& h) {
  h.version = int32_t(get_one_bit(r));
  h.layer = 4 - int32_t(get_bits(r, 2));
  h.error_protection = get_one_bit(r) ? 0 : 1;
  h.bitrate_index = int32_t(get_bits(r, 4));
  h.sampling_frequency = int32_t(get_bits(r, 2));
  h.padding = int32_t(get_one_bit(r));
  h.extension = int32_t(get_one_bit(r));
  h.mode = int32_t(get_bits(r, 2));
  h.mode_ext = int32_t(get_bits(r, 2));
  h.copyright = int32_t(get_one_bit(r));
  h.original = int32_t(get_one_bit(r));
  h.emphasis = int32_t(get_bits(r, 2));
  if (h.layer != 1) return 1;
  if (h.bitrate_index == 0 || h.bitrate_index == 15) return 2;
  if (h.sampling_frequency == 3) return 3;
  return 0;
}

// Subbands from the bound up carry one allocation and one sample code for both channels.
int32_t joint_bound(const Layer1Header& h) { return h.mode == 1 ? (h.mode_ext + 1) * 4 : 32; }

// CRC-16 with generator 8005, most significant bit first.
void crc_update(uint32_t& crc, uint32_t value, int32_t bits) {
  for (int32_t i = bits - 1; i >= 0; --i) {
    uint32_t in = (value >> i) & 1;
    uint32_t top = (crc >> 15) & 1;
    crc = (crc << 1) & 0xFFFF;
    if (in != top) crc ^= 0x8005;
  }
}

// The protected bits: the header's last sixteen, then the allocation codes in stream order.
uint32_t frame_crc(const Layer1Track& t, int32_t channels, int32_t bound) {
  const Layer1Header& h = t.header;
  uint32_t crc = 0xFFFF;
  crc_update(crc, uint32_t(h.bitrate_index), 4);
  crc_update(crc, uint32_t(h.sampling_frequency), 2);
  crc_update(crc, uint32_t(h.padding), 1);
  crc_update(crc, uint32_t(h.extension), 1);
  crc_update(crc, uint32_t(h.mode), 2);
  crc_update(crc, uint32_t(h.mode_ext), 2);
  crc_update(crc, uint32_t(h.copyright), 1);
  crc_update(crc, uint32_t(h.original), 1);
  crc_update(crc, uint32_t(h.emphasis), 2);
  for (int32_t sb = 0; sb < 32; ++sb)
    for (int32_t ch = 0; ch < (sb < bound ? channels : 1); ++ch) crc_update(crc, uint32_t(t.allocation[ch][sb]), 4);
  return crc;
}

void read_allocation(Layer1Track& t, int32_t channels, int32_t bound) {
  Layer1Reader& r = t.reader;
  for (int32_t sb = 0; sb < 32; ++sb) {
    if (sb < bound) {
      for (int32_t ch = 0; ch < channels; ++ch) t.allocation[ch][sb] = int32_t(get_bits(r, 4));
    } else {
      t.allocation[0][sb] = t.allocation[1][sb] = int32_t(get_bits(r, 4));
    }
  }
}

void read_scale_indices(Layer1Track& t, int32_t channels) {
  for (int32_t sb = 0; sb < 32; ++sb)
    for (int32_t ch = 0; ch < channels; ++ch)
      t.scale_index[ch][sb] = t.allocation[ch][sb] != 0 ? int32_t(get_bits(t.reader, 6)) : 63;
}

// --- Requantisation -------------------------------------------------------------------------------

// By allocation A: the code has A + 1 bits; N = 2^(A+1) levels, step 2^-A, and the mask of the
// code without its top bit.
constexpr int32_t ALLOCATIONS = 16;
constexpr auto make_levels() {
  std::array<double, ALLOCATIONS> a{};
  for (int32_t i = 0; i < ALLOCATIONS; ++i) a[size_t(i)] = double(int64_t(1) << (i + 1));
  return a;
}
constexpr auto make_steps() {
  std::array<double, ALLOCATIONS> a{};
  for (int32_t i = 0; i < ALLOCATIONS; ++i) a[size_t(i)] = 1.0 / double(int64_t(1) << i);
  return a;
}
constexpr auto make_masks() {
  std::array<uint32_t, ALLOCATIONS> a{};
  for (int32_t i = 0; i < ALLOCATIONS; ++i) a[size_t(i)] = (uint32_t(1) << i) - 1;
  return a;
}
constexpr std::array<double, ALLOCATIONS> code_levels = make_levels();
constexpr std::array<double, ALLOCATIONS> code_steps = make_steps();
constexpr std::array<uint32_t, ALLOCATIONS> code_masks = make_masks();

// The standard's requantisation in its own order of operations, worked in extended precision and
// stored in single precision. The top bit of the code is the inverted sign.
float requantise(uint32_t code, int32_t a, int32_t scale) {
  const long double levels = code_levels[size_t(a)];
  const long double step = code_steps[size_t(a)];
  const long double u = code & code_masks[size_t(a)];
  long double v;
  if ((code >> a) & 1)
    v = (u * step + step) / (levels - 1);
  else
    v = (u * step - 1.0L + step) / (levels - 1);
  return float(levels * v * layer1_scale_factors[scale]);
}

// Reads one round's codes (bound and above: one code for both channels) and requantises them.
void read_round(Layer1Track& t, int32_t channels, int32_t bound) {
  Layer1Reader& r = t.reader;
  for (int32_t sb = 0; sb < 32; ++sb) {
    if (sb < bound) {
      for (int32_t ch = 0; ch < channels; ++ch) {
        int32_t a = t.allocation[ch][sb];
        t.sample_codes[ch][sb] = a ? get_bits(r, a + 1) : 0;
      }
    } else {
      int32_t a = t.allocation[0][sb];
      t.sample_codes[0][sb] = t.sample_codes[1][sb] = a ? get_bits(r, a + 1) : 0;
    }
  }
  for (int32_t ch = 0; ch < channels; ++ch)
    for (int32_t sb = 0; sb < 32; ++sb) {
      int32_t a = t.allocation[ch][sb];
      t.dequantised[ch][sb] = a ? requantise(t.sample_codes[ch][sb], a, t.scale_index[ch][sb]) : 0.0f;
    }
}

// --- Synthesis ------------------------------------------------------------------------------------

// Entry i is 1/(2 cos(i pi/64)) held to nine decimals: the whole-and-fraction split rounds the value
// scaled by 1e9 half up before it is scaled back.
void fill_cos_table(float* table) {
  for (int32_t i = 0; i < 32; ++i) {
    double t = 500000000.0 / std::cos(i * 0.04908738521234052);
    if (t >= 0) {
      double whole;
      std::modf(t + 0.5, &whole);
      t = whole;
    }
    table[i] = float(t * 1e-9);
  }
}

// The N-point DCT-II, X[m] = sum x[k] cos(m (2k+1) pi / 2N), by Lee's split into sums and scaled
// differences: the sums give the even outputs, the differences times 1/(2 cos((2k+1) pi/2N)) give
// each odd output as the sum of two neighbours. That constant is cos_table[(2k+1) 32/N].
template <int N>
void dct(const float* x, float* out, const float* cos_table) {
  if constexpr (N == 1) {
    out[0] = x[0];
  } else {
    constexpr int H = N / 2;
    float sums[H], diffs[H], even[H], odd[H];
    for (int k = 0; k < H; ++k) {
      sums[k] = x[k] + x[N - 1 - k];
      diffs[k] = (x[k] - x[N - 1 - k]) * cos_table[(2 * k + 1) * (32 / N)];
    }
    dct<H>(sums, even, cos_table);
    dct<H>(diffs, odd, cos_table);
    for (int m = 0; m < H - 1; ++m) {
      out[2 * m] = even[m];
      out[2 * m + 1] = odd[m] + odd[m + 1];
    }
    out[N - 2] = even[H - 1];
    out[N - 1] = odd[H - 1];
  }
}

// The standard's matrixing V[i] = sum S[k] cos((16 + i)(2k + 1) pi/64), i = 0..63, from the
// 32-point DCT X by the symmetries of the cosine: V = X[16..31], 0, -X[31..1], -X[0..15].
void matrix(const float* samples, const float* cos_table, float* v) {
  float x[32];
  dct<32>(samples, x, cos_table);
  for (int32_t i = 0; i < 16; ++i) v[i] = x[16 + i];
  v[16] = 0.0f;
  for (int32_t i = 17; i < 48; ++i) v[i] = -x[48 - i];
  for (int32_t i = 48; i < 64; ++i) v[i] = -x[i - 48];
}

// Ring offsets of the 16 products for output sample j, from j's place: the standard's U vector.
constexpr int32_t window_offsets[16] = {0, 96, 128, 224, 256, 352, 384, 480, 512, 608, 640, 736, 768, 864, 896, 992};

int16_t clip(float sum) {
  // Equal to: the truncated sum if it lies in -32768..32767, else the nearer end.
  if (sum >= 32768.0f) return 32767;
  if (sum <= -32769.0f) return -32768;
  return int16_t(int32_t(sum));
}

// The 16 products of each output sample are summed in ring-offset order. Because the ring position
// is a multiple of 64 and every offset a multiple of 32, the 32 outputs' ring values for one offset
// lie side by side; the loop runs over the outputs inside, so they are summed together, each in
// its own unchanged order.
void synthesise(Layer1Track& t, int32_t ch) {
  float* ring = t.history[ch];
  const int32_t pos = (t.history_pos[ch] - 64) & (HISTORY - 1);
  t.history_pos[ch] = pos;
  matrix(t.dequantised[ch], t.cos_table, ring + pos);
  float sums[32] = {};
  for (int32_t i = 0; i < 16; ++i) {
    const float* v = ring + ((pos + window_offsets[i]) & (HISTORY - 1));
    const float* w = t.window_by_offset[i];
    for (int32_t j = 0; j < 32; ++j) sums[j] += v[j] * w[j];
  }
  for (int32_t j = 0; j < 32; ++j) t.pcm_line[ch][j] = clip(sums[j]);
}

// --- Output ---------------------------------------------------------------------------------------

// How Layer I reaches its output. The session's slot holds the shaper of the track: a play session
// chooses one of the Layer I forms, which consume pcm_block_l1; a file job holds write_decoded_block,
// the writer of the Layer II/III block in pcm_block. For a file job the writer is exchanged here for
// its Layer I form, so that the session need not know the layer when it sets the slot and a play
// session's choice passes untouched.
struct Output {
  session::ShaperFn block = nullptr;
  bool to_file = false;
};

Output choose_output() {
  Output out;
  out.block = session::state.shaper_slot;
  if (out.block == session::write_decoded_block) {
    out.block = session::write_decoded_block_l1;
    out.to_file = true;
  }
  return out;
}

void put_value(Layer1Track& t, const Output& out, int16_t value) {
  pcm_block_l1[t.pcm_fill++] = value;
  if (t.pcm_fill == PCM_BLOCK_VALUES) {
    if (out.block) out.block();
    t.pcm_fill = 0;
  }
}

// One channel's 32 values in order, two channels' interleaved. Value by value, so that a stream
// switching between one and two channels never writes past the block.
void move_out(Layer1Track& t, const Output& out, int32_t channels) {
  for (int32_t j = 0; j < 32; ++j)
    for (int32_t ch = 0; ch < channels; ++ch) put_value(t, out, t.pcm_line[ch][j]);
}

// The last, incomplete block. A file job writes its values straight to the file; in a play session
// the output stage's flush_layer1_tail copies them to the ring.
void flush_tail(const Layer1Track& t, const Output& out) {
  if (out.to_file)
    session::write_decoded_tail_l1(t.pcm_fill);
  else
    output::flush_layer1_tail(t.pcm_fill);
}

// --- Track ----------------------------------------------------------------------------------------

enum class Ending { NORMAL, COMMAND, CRC_MISMATCH };

// The frame that the finish describes: the last one parsed, or the stream's first before any.
session::FrameHeader header_for_finish(const Layer1Header& h) {
  session::FrameHeader f{};
  f.id = h.version;
  f.layer_code = 3;
  f.protection_bit = h.error_protection ? 0 : 1;
  f.bitrate_index = h.bitrate_index;
  f.sampling_index = h.sampling_frequency;
  f.padding_bit = h.padding;
  f.private_bit = h.extension;
  f.mode = h.mode;
  f.mode_ext = h.mode_ext;
  f.copyright = h.copyright;
  f.original = h.original;
  f.emphasis = h.emphasis;
  return f;
}

session::FrameHeader stream_header() {
  session::FrameHeader f{};
  f.id = session::stream.mpeg_id == 0 ? 0 : 1;
  f.layer_code = 3;
  for (int32_t i = 0; i < 3; ++i)
    if (session::sample_rate_table[f.id * 3 + i] == session::stream.sample_rate) f.sampling_index = i;
  f.mode = session::stream.mode;
  return f;
}

// Decodes one frame behind its sync word. Returns false to end the track, with ending set.
bool decode_frame(Layer1Track& t, const Output& out, int32_t& channels, session::FrameHeader& last, Ending& ending) {
  Layer1Reader& r = t.reader;
  const int64_t frame_start = r.bits_read;  // just behind the sync bits
  if (parse_header(r, t.header) != 0) {
    // The time display reads the flag when it next draws.
    session::state.damaged_flag.store(1, relaxed);
    return false;
  }
  const Layer1Header& h = t.header;
  channels = h.mode == 3 ? 1 : 2;
  last = header_for_finish(h);
  const int32_t bound = std::min(joint_bound(h), 32);
  const uint32_t crc = h.error_protection ? get_bits(r, 16) : 0;
  read_allocation(t, channels, bound);
  read_scale_indices(t, channels);
  if (h.error_protection && frame_crc(t, channels, bound) != crc) {
    ending = Ending::CRC_MISMATCH;
    return false;
  }
  for (int32_t round = 0; round < ROUNDS; ++round) {
    read_round(t, channels, bound);
    for (int32_t ch = 0; ch < channels; ++ch) synthesise(t, ch);
    move_out(t, out, channels);
  }
  // Skip the rest of the frame: its length in four-byte slots, less what was read, less the sync.
  const int32_t kbps = session::bitrate_table[(h.version * 3 - 3) * 15 + h.bitrate_index];
  const int32_t hz = session::sample_rate_table[h.version * 3 + h.sampling_frequency];
  const int64_t slots = int64_t(kbps * 1000.0 / hz * 12) + h.padding;
  for (int64_t rest = slots * 32 - (r.bits_read - frame_start) - SYNC_BITS; rest > 0; rest -= 16)
    get_bits(r, int32_t(rest < 16 ? rest : 16));
  return true;
}

bool command_allows_decoding() {
  // Seeks are not carried out in this layer: the jump commands leave the word set and decoding goes on.
  int32_t command = session::state.decoder_command.load(relaxed);
  return command == session::CMD_RUN || (command >= 2 && command <= 5);
}

void sleep_ms(int32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

void decode_layer1_stream() {
  using namespace session;
  if (!reader.file) return;
  // Whether the file is hexadecimal text was once tested here; binary is assumed in every case.
  std::fseek(reader.file, 0, SEEK_SET);

  // One block holds every buffer of the track; it is released on every way out, the CRC stop
  // included. That stop has always returned at once without the track's closing steps (no tail, no
  // finished header, a stopped session), and it still does; only the memory is no longer left behind.
  auto track = std::make_unique<Layer1Track>();
  Layer1Track& t = *track;
  t.reader.file = reader.file;
  std::memset(t.history, 0, sizeof t.history);
  t.history_pos[0] = t.history_pos[1] = 64;  // the first move takes it to 0
  t.pcm_fill = 0;
  fill_cos_table(t.cos_table);
  for (int32_t i = 0; i < 16; ++i)
    for (int32_t j = 0; j < 32; ++j) t.window_by_offset[i][j] = layer1_window[j][i];

  const Output out = choose_output();
  FrameHeader last = stream_header();
  int32_t channels = stream.mode == 3 ? 1 : 2;
  Ending ending = Ending::NORMAL;
  int32_t position = 0;  // reported to the progress window, 96 a block
  int32_t checked = 0;   // 48 a block; the track ends when it reaches the stream's frame count

  for (bool running = true; running;) {
    for (int32_t frame = 0; frame < FRAMES_PER_BLOCK && running; ++frame) {
      if (t.reader.end) {
        running = false;
      } else if (!command_allows_decoding()) {
        ending = Ending::COMMAND;
        running = false;
      } else if (!seek_sync(t.reader)) {
        flush_tail(t, out);
        running = false;
      } else {
        running = decode_frame(t, out, channels, last, ending);
      }
    }
    if (ending == Ending::CRC_MISMATCH) {
      state.decoder_command.store(CMD_STOP, relaxed);
      return;
    }
    if (!running) break;
    // Pacing and progress, once a block of 200 frames.
    if (state.file_job_active.load(relaxed) == 0) {
      sleep_ms(200);
      continue;
    }
    if (state.file_job && state.file_job->cancel.load(relaxed)) break;
    post_message(WINDOW_PROGRESS, MSG_PROGRESS_FRAMES, position, stream.frame_count - 1);
    position += 96;
    checked += 48;
    if (checked >= stream.frame_count) break;
  }

  if (state.file_job_active.load(relaxed) && options.ext_filter >= EXT_WAV && options.ext_filter <= EXT_VOC) {
    state.decoded_channels = channels;
    finish_header(options.ext_filter, last);
  }
  if (ending == Ending::COMMAND) state.decoder_command.store(CMD_STOP, relaxed);
}

}  // namespace decoder
