#include "output/ring.h"

#include <cstdlib>
#include <vector>

namespace output {

PcmRing ring;

void ring_allocate() {
  if (ring.ring_base) return;
  ring.ring_base = static_cast<uint8_t*>(std::calloc(ring.ring_bytes.load(std::memory_order_relaxed) + RING_SPARE, 1));
  ring.ring_write.store(0, std::memory_order_relaxed);
  ring.ring_read.store(0, std::memory_order_relaxed);
  ring.ring_fill.store(0, std::memory_order_relaxed);
}

void ring_free() {
  std::free(ring.ring_base);
  ring.ring_base = nullptr;
}

void ring_forget() {
  // Kept reachable, so that leak checkers see it as the deliberate keep it is.
  static std::vector<uint8_t*> forgotten;
  if (ring.ring_base) forgotten.push_back(ring.ring_base);
  ring.ring_base = nullptr;
}

void ring_reset_for_seek() {
  std::lock_guard lock(ring.ring_lock);
  ring.ring_write.store(0, std::memory_order_relaxed);
  ring.ring_fill.store(0, std::memory_order_relaxed);
}

}  // namespace output
