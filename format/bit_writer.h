// Writes bits MSB first into a caller-owned byte buffer, the order of every MPEG audio field.
// The writer never runs past its buffer: bits beyond capacity are counted but dropped, so a
// caller can compare `bits` with the size it meant to fill and treat the difference as an error.
#pragma once

#include <cstdint>
#include <cstring>

namespace format {

struct BitWriter {
  uint8_t* data = nullptr;
  int32_t capacity = 0;  // bytes
  int32_t bits = 0;      // bits written so far
};

// Starts writing at data[0]; clears the buffer so that bits can be OR-ed in.
inline void bit_writer_init(BitWriter& w, uint8_t* data, int32_t capacity) {
  w.data = data;
  w.capacity = capacity;
  w.bits = 0;
  std::memset(data, 0, size_t(capacity));
}

// Appends the low n bits of value (n from 0 to 32).
inline void put_bits(BitWriter& w, uint32_t value, int32_t n) {
  while (n > 0) {
    int32_t byte = w.bits >> 3;
    int32_t free = 8 - (w.bits & 7);
    int32_t take = n < free ? n : free;
    uint32_t part = (value >> (n - take)) & ((1u << take) - 1);
    if (byte < w.capacity) w.data[byte] |= uint8_t(part << (free - take));
    w.bits += take;
    n -= take;
  }
}

}  // namespace format
