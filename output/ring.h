// PcmRing: the store between the decoder and the wave thread. Shapers append shaped PCM at
// ring_write; the wave thread takes whole 18432-byte blocks at ring_read. Sizes are counted in units
// of 144 bytes (the smallest shaper output), 128 units to a block, 4096 to the ring.
//
// Threads: the session thread allocates and frees the storage, writes bytes and ring_write, raises
// ring_fill, and zeroes both on a seek. The wave thread reads bytes, owns ring_read and lowers
// ring_fill, under ring_lock. ring_fill is the hand-over word: a rise is a release (the bytes are
// there), a fall is a release too (the bytes have been copied out and may be overwritten).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace output {

constexpr uint32_t UNIT_BYTES = 144;
constexpr uint32_t BLOCK_BYTES = 18432;
constexpr int32_t BLOCK_UNITS = 128;
constexpr int32_t RING_UNITS = 4096;
constexpr uint32_t RING_BYTES = 589824;  // 32 blocks; a multiple of every shaper's output size
constexpr int32_t BLOCK_COUNT = 32;
static_assert(RING_BYTES == BLOCK_BYTES * BLOCK_COUNT && BLOCK_BYTES == UNIT_BYTES * BLOCK_UNITS);
static_assert(RING_UNITS * UNIT_BYTES == RING_BYTES);
// Storage behind ring_bytes: the thinned mono 8-bit shapers store 288 bytes more than they count,
// and the last Layer I block is copied without a wrap test (up to 2302 bytes past a block that
// ends anywhere). Both land here instead of outside the allocation.
constexpr uint32_t RING_SPARE = 2304;

struct PcmRing {
  uint8_t* ring_base = nullptr;
  std::atomic<uint32_t> ring_bytes{RING_BYTES};
  std::atomic<uint32_t> ring_write{0};
  std::atomic<uint32_t> ring_read{0};
  // Signed: a seek may zero it while the wave thread takes a block, and a count below zero then
  // reads as an empty ring instead of a nearly endless one.
  std::atomic<int32_t> ring_fill{0};
  std::mutex ring_lock;
};

extern PcmRing ring;

// Session thread: storage for ring_bytes + RING_SPARE bytes, zeroed, if none exists.
void ring_allocate();
// Session thread, with no wave thread alive.
void ring_free();
// For a session abandoned after its time-out: a thread that may still wake must not find the
// storage freed under it, so it is left allocated and forgotten.
void ring_forget();
// Session thread, on a seek: empty the ring. Taken under ring_lock so that the wave thread is never
// halfway through a copy of bytes that the next shaper call overwrites.
void ring_reset_for_seek();

}  // namespace output
