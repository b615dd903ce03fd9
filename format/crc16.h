// CRC-16 of MPEG audio frames: polynomial 0x8005 (x^16 + x^15 + x^2 + 1), initial value 0xFFFF,
// fed the protected fields MSB first at their own widths. Decoders and encoders call the same
// update, so that a frame that one writes the other accepts.
#pragma once

#include <cstdint>

namespace format {

constexpr uint32_t CRC16_INIT = 0xFFFF;
constexpr uint32_t CRC16_POLY = 0x8005;

// Feeds the low `bits` bits of value (at most 32) into crc, most significant first.
inline void crc16_update(uint32_t& crc, uint32_t value, int32_t bits) {
  for (int32_t i = bits - 1; i >= 0; --i) {
    uint32_t in = (value >> i) & 1;
    uint32_t top = (crc >> 15) & 1;
    crc = (crc << 1) & 0xFFFF;
    if (in != top) crc ^= CRC16_POLY;
  }
}

}  // namespace format
