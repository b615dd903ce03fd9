// Reads bits MSB first from a caller-owned byte buffer, the order of every MPEG audio field: the
// counterpart of bit_writer.h. Two forms: a fast peek for buffers that keep readable bytes behind
// the position (a ring with a guard copy of its start), and a bounded read for fixed buffers where
// bits beyond the end read as zeros.
#pragma once

#include <cstdint>

namespace format {

// The 32 bits from the byte that holds bit position pos of data, shifted so that the position is
// bit 31 (at least 25 valid bits). The four bytes from pos / 8 on must be readable.
[[gnu::always_inline]] inline uint32_t bits_window(const uint8_t* data, uint32_t pos) {
  const uint8_t* p = data + (pos >> 3);
  const uint32_t w = (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
  return w << (pos & 7);
}

// The n bits (1 to 25) at bit position pos of data, without moving.
[[gnu::always_inline]] inline uint32_t peek_bits(const uint8_t* data, uint32_t pos, int32_t n) {
  return bits_window(data, pos) >> (32 - n);
}

// The n bits (0 to 32) at bit position pos of the `bytes` bytes of data, pos moved past them. Bits
// beyond the buffer read as zeros.
inline uint32_t read_bits_bounded(const uint8_t* data, int32_t bytes, int32_t& pos, int32_t n) {
  uint32_t v = 0;
  for (int32_t i = 0; i < n; ++i) {
    const int32_t at = pos + i;
    const uint32_t bit = at < bytes * 8 ? (data[at >> 3] >> (7 - (at & 7))) & 1 : 0;
    v = (v << 1) | bit;
  }
  pos += n;
  return v;
}

}  // namespace format
