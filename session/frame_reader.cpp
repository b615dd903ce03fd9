// The sync search slides a four-byte window through the buffered file one byte at a time: resync
// speed matters less than simplicity, and there is no bound on the search.
#include "session/frame_reader.h"

#include <cstring>

#include "session/stream.h"

namespace session {

FrameReader reader;
BitReader bits;

namespace {

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

int32_t free_key(const FrameHeader& h) { return (h.id * 4 + h.layer_code) * 8 + h.sampling_index; }
int32_t padding_bytes(const FrameHeader& h) { return h.padding_bit * (h.layer_code == 3 ? 4 : 1); }

// The length of a frame that a candidate header at distance d heads, given the measure d implies.
int32_t candidate_length(const FrameHeader& c, int32_t free_bytes) {
  if (c.bitrate_index != 0) return frame_length(c);
  return free_bytes + padding_bytes(c);
}

// Whether the kept measure ends the frame at file offset `at` where a header of its kind begins, or
// where the file or the stream ends. The file position is restored.
bool kept_measure_fits(const FrameHeader& h, long at) {
  const long next = at + reader.free_bytes + padding_bytes(h);
  if (next >= reader.end_limit) return true;
  uint8_t head[4];
  std::fseek(reader.file, next, SEEK_SET);
  const size_t got = std::fread(head, 1, 4, reader.file);
  std::fseek(reader.file, at + 4, SEEK_SET);
  FrameHeader n;
  return got < 4 || (format::parse_header(head, n) && free_key(n) == free_key(h));
}

// A free-format header h starts at file offset at, and the file stands behind its 4 bytes. Measures
// the frame length without padding as the distance to the next header of the same id, layer and
// rate, which must itself be followed by a header (or by the end of the file) where its own length
// says: a stray sync in the audio data is not taken for the next frame. The measure is kept for the
// stream, and measured again when the frame it gives does not end at a header (another free-format
// run of another rate); the file position is restored. Returns false when no length can be found.
bool measure_free_format(const FrameHeader& h, long at) {
  if (reader.free_key == free_key(h) && kept_measure_fits(h, at)) return true;
  uint8_t ahead[2 * MAX_FREE_BYTES + 8];
  const size_t got = std::fread(ahead, 1, sizeof ahead, reader.file);
  std::fseek(reader.file, at + 4, SEEK_SET);
  const bool whole = got < sizeof ahead;   // the file ends inside the window
  const int32_t avail = int32_t(got) + 4;  // bytes of the window counted from the header
  // ahead[d - 4] is the byte at distance d from the header.
  for (int32_t d = MIN_FREE_BYTES; d + 4 <= avail && d <= MAX_FREE_BYTES; ++d) {
    FrameHeader c;
    if (!format::parse_header(ahead + d - 4, c) || free_key(c) != free_key(h)) continue;
    const int32_t bytes = d - padding_bytes(h);
    const int32_t next = d + candidate_length(c, bytes);
    FrameHeader n;
    if (next + 4 <= avail ? !(format::parse_header(ahead + next - 4, n) && free_key(n) == free_key(h)) : !whole)
      continue;
    reader.free_key = free_key(h);
    reader.free_bytes = bytes;
    return true;
  }
  // Nothing new found: a damaged frame follows, and the kept measure stands.
  if (reader.free_key == free_key(h)) return true;
  // No header behind it: a stream of one free-format frame, which runs to the end of the file.
  if (whole && avail >= MIN_FREE_BYTES && avail <= MAX_FREE_BYTES) {
    reader.free_key = free_key(h);
    reader.free_bytes = avail - padding_bytes(h);
    return true;
  }
  return false;
}

// Drops the window's first byte and reads one into its last place.
bool slide_window() {
  int c = getc_unlocked(reader.file);
  if (c == EOF) return false;
  std::memmove(reader.frame_head, reader.frame_head + 1, 3);
  reader.frame_head[3] = uint8_t(c);
  return true;
}

}  // namespace

int32_t read_frame(FrameHeader& header) {
  reader.frame_head_bits = 0;
  long at = std::ftell(reader.file);  // file offset of the window's first byte
  if (at >= reader.end_limit) return FRAME_SHORT;
  if (std::fread(reader.frame_head, 1, 4, reader.file) != 4) return FRAME_SHORT;
  for (;; ++at) {
    if (at >= reader.end_limit) return FRAME_EOF;
    const uint32_t sync = be32(reader.frame_head) >> 20;
    FrameHeader h;
    bool taken = format::parse_header(reader.frame_head, h);
    // A free-format frame needs its length measured; Layer I passes without one (its own reader
    // finds its frames by sync search).
    if (taken && h.bitrate_index == 0 && !measure_free_format(h, at) && h.layer_code != 3) taken = false;
    if (taken) {
      reader.frame_head_bits = 32;
      header = h;
      return h.layer_code == 3 ? FRAME_LAYER1 : FRAME_OK;
    }
    reader.frame_head_bits = 0;
    if (!slide_window()) return sync == 0xFFF ? FRAME_EOF_AFTER_SYNC : FRAME_EOF;
  }
}

void skip_crc() {
  // A short read leaves what the head held: the CRC is never checked, so it does not matter.
  size_t got = std::fread(reader.frame_head, 1, 2, reader.file);
  (void)got;
  reader.frame_head_bits = 16;
}

void reset_frame_reader() {
  reader.frame_head_bits = 0;
  reader.free_bytes = 0;
  reader.free_key = -1;
  reader.end_limit = 0x7FFFFFFF;
  std::memset(reader.frame_head, 0, sizeof reader.frame_head);
}

void reset_bit_reader() {
  std::memset(bits.reservoir, 0, sizeof bits.reservoir);
  bits.reservoir_write = 0;
  bits.reservoir_bits = 0;
}

void sync_reservoir_guard() { std::memcpy(bits.reservoir + RESERVOIR_SIZE, bits.reservoir, 4); }

void load_reservoir(int32_t n) {
  // Frame lengths never exceed the guard (free-format ones are bounded when measured); the clamp
  // only keeps a caller's arithmetic slip from writing past the storage.
  if (n <= 0) return;
  if (n > RESERVOIR_GUARD) n = RESERVOIR_GUARD;
  // A short read is not detected: missing bytes are whatever the ring held before.
  size_t got = std::fread(bits.reservoir + bits.reservoir_write, 1, size_t(n), reader.file);
  (void)got;
  const int32_t start = bits.reservoir_write;
  const int32_t end = start + n;
  if (end < RESERVOIR_SIZE) {
    bits.reservoir_write = end;
    // After a wrap that ran fewer than four bytes over, the next load lands on the ring's first
    // four bytes, which the guard repeats: refresh it, or a read across the ring's end would see
    // the bytes that lay there one lap before.
    if (start < 4) sync_reservoir_guard();
    return;
  }
  int32_t over = end - RESERVOIR_SIZE;
  std::memcpy(bits.reservoir, bits.reservoir + RESERVOIR_SIZE, size_t(over));
  if (over < 4) std::memcpy(bits.reservoir + RESERVOIR_SIZE, bits.reservoir, 4);
  bits.reservoir_write = over;
}

int32_t read_frame_head(int32_t n) {
  if (n > int32_t(sizeof reader.frame_head)) n = int32_t(sizeof reader.frame_head);
  if (n < 0) n = 0;
  std::memset(reader.frame_head, 0, sizeof reader.frame_head);
  size_t got = std::fread(reader.frame_head, 1, size_t(n), reader.file);
  reader.frame_head_bits = 0;
  return int32_t(got);
}

uint32_t head_bits(int32_t n) {
  return format::read_bits_bounded(reader.frame_head, int32_t(sizeof reader.frame_head), reader.frame_head_bits, n);
}

}  // namespace session
