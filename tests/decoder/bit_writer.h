// Writes bits MSB first into a growing byte vector: the decoder tests build frames with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct BitWriter {
  std::vector<uint8_t> bytes;
  size_t bit = 0;  // bits written
  void put(uint32_t value, int n) {
    for (int i = n - 1; i >= 0; --i, ++bit) {
      if (bit % 8 == 0) bytes.push_back(0);
      if ((value >> i) & 1) bytes.back() |= uint8_t(0x80 >> (bit % 8));
    }
  }
};
