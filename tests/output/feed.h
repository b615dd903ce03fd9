// The test stream the output tests feed through the ring, and the shaper's way of feeding it.
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "output/ring.h"

namespace feed {

// Byte k of the test stream; it changes from block to block, so a block out of place shows.
inline uint8_t pattern(uint32_t k) { return uint8_t(k * 131u + (k / output::BLOCK_BYTES) * 7u + 5u); }

inline std::vector<uint8_t> stream_bytes(uint32_t from, uint32_t n) {
  std::vector<uint8_t> v(n);
  for (uint32_t k = 0; k < n; ++k) v[k] = pattern(from + k);
  return v;
}

// The drain's padding up to a whole block: 128, 0, 128, 0, ...
inline std::vector<uint8_t> with_pad(std::vector<uint8_t> v) {
  for (size_t k = 0; v.size() % output::BLOCK_BYTES; ++k) v.push_back(k & 1 ? 0 : 128);
  return v;
}

// What a shaper does, in 2304-byte steps: wait for room, copy, count, move on. pushed is the
// stream offset reached.
inline void push(uint32_t bytes, uint32_t& pushed) {
  using namespace output;
  while (bytes) {
    while (ring.ring_fill.load(std::memory_order_acquire) >= RING_UNITS)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const uint32_t n = bytes < 2304 ? bytes : 2304;
    const uint32_t at = ring.ring_write.load();
    for (uint32_t k = 0; k < n; ++k) ring.ring_base[at + k] = pattern(pushed + k);
    ring.ring_fill.fetch_add(int32_t(n / UNIT_BYTES), std::memory_order_release);
    ring.ring_write = at + n >= RING_BYTES ? 0 : at + n;
    pushed += n;
    bytes -= n;
  }
}

}  // namespace feed
