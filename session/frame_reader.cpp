// The sync search slides a four-byte window through the buffered file one byte at a time: resync
// speed matters less than simplicity, and there is no bound on the search.
#include "session/frame_reader.h"

#include <cstring>

namespace session {

FrameReader reader;
BitReader bits;

namespace {

// Splits the 20 bits behind the sync into the header fields.
void split_header(uint32_t w, FrameHeader& h) {
  h.id = int32_t((w >> 19) & 1);
  h.layer_code = int32_t((w >> 17) & 3);
  h.protection_bit = int32_t((w >> 16) & 1);
  h.bitrate_index = int32_t((w >> 12) & 15);
  h.sampling_index = int32_t((w >> 10) & 3);
  h.padding_bit = int32_t((w >> 9) & 1);
  h.private_bit = int32_t((w >> 8) & 1);
  h.mode = int32_t((w >> 6) & 3);
  h.mode_ext = h.mode == 0 ? 0 : int32_t((w >> 4) & 3);
  h.copyright = int32_t((w >> 3) & 1);
  h.original = int32_t((w >> 2) & 1);
  h.emphasis = int32_t(w & 3);
}

bool acceptable(const FrameHeader& h) { return h.layer_code != 0 && h.bitrate_index != 15 && h.sampling_index != 3; }

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
  if (std::fread(reader.frame_head, 1, 4, reader.file) != 4) return FRAME_SHORT;
  for (;;) {
    const uint8_t* w = reader.frame_head;
    uint32_t word = (uint32_t(w[0]) << 24) | (uint32_t(w[1]) << 16) | (uint32_t(w[2]) << 8) | w[3];
    uint32_t sync = word >> 20;
    FrameHeader h;
    split_header(word & 0xFFFFF, h);
    if (sync == 0xFFF) {
      if (acceptable(h)) {
        reader.frame_head_bits = 32;
        if (h.layer_code == 3) {
          header = h;
          return FRAME_LAYER1;
        }
        if (h.bitrate_index == 0) return FRAME_FREE_FORMAT;
        header = h;
        return FRAME_OK;
      }
      reader.frame_head_bits = 0;
      if (!slide_window()) return FRAME_EOF_AFTER_SYNC;
      continue;
    }
    if (sync == 0xFFE && acceptable(h)) {
      reader.frame_head_bits = 32;
      return FRAME_MPEG25;
    }
    reader.frame_head_bits = 0;
    if (!slide_window()) return FRAME_EOF;
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
  std::memset(reader.frame_head, 0, sizeof reader.frame_head);
}

void reset_bit_reader() {
  std::memset(bits.reservoir, 0, sizeof bits.reservoir);
  bits.reservoir_write = 0;
  bits.reservoir_bits = 0;
}

void sync_reservoir_guard() { std::memcpy(bits.reservoir + RESERVOIR_SIZE, bits.reservoir, 4); }

void load_reservoir(int32_t n) {
  // Frame sizes come from fixed tables and never exceed the guard; the clamp only keeps a caller's
  // arithmetic slip from writing past the storage.
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
  uint32_t v = 0;
  for (int32_t i = 0; i < n; ++i) {
    int32_t pos = reader.frame_head_bits + i;
    uint32_t bit = pos < 48 * 8 ? (reader.frame_head[pos >> 3] >> (7 - (pos & 7))) & 1 : 0;
    v = (v << 1) | bit;
  }
  reader.frame_head_bits += n;
  return v;
}

}  // namespace session
