// The installed device and the gain that both implementations apply in their own layer.
#include "output/wave_device.h"

#include <atomic>

namespace output {

namespace {
std::atomic<const WaveDeviceOps*> installed{nullptr};
}

void set_wave_device(const WaveDeviceOps* ops) { installed.store(ops, std::memory_order_release); }
const WaveDeviceOps* wave_device_ops() { return installed.load(std::memory_order_acquire); }

void apply_gain(uint8_t* data, uint32_t bytes, const WaveFormat& format, uint32_t volume) {
  const int64_t left = volume & 0xFFFF;
  const int64_t right = format.channels == 2 ? int64_t(volume >> 16) : left;
  if (left == 0xFFFF && right == 0xFFFF) return;  // unity: the bytes stay exactly as decoded
  const int32_t channels = format.channels == 2 ? 2 : 1;
  if (format.bits == 16) {
    const uint32_t count = bytes / 2;
    for (uint32_t i = 0; i < count; ++i) {
      int64_t gain = (channels == 2 && (i & 1)) ? right : left;
      int16_t s = int16_t(uint16_t(data[2 * i] | (data[2 * i + 1] << 8)));
      int16_t g = int16_t(s * gain / 0xFFFF);
      data[2 * i] = uint8_t(uint16_t(g) & 0xFF);
      data[2 * i + 1] = uint8_t(uint16_t(g) >> 8);
    }
  } else {
    for (uint32_t i = 0; i < bytes; ++i) {
      int64_t gain = (channels == 2 && (i & 1)) ? right : left;
      int64_t s = int64_t(data[i]) - 128;
      data[i] = uint8_t(s * gain / 0xFFFF + 128);
    }
  }
}

}  // namespace output
