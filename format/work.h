// What a long piece of file work (a split, a resample, an encode) gets from whoever runs it: the
// job's Cancel word, read between units of work, and a progress callback, called on the working
// thread. The work itself returns a format::Error, or WORK_CANCELLED when it saw the Cancel.
#pragma once

#include <atomic>
#include <cstdint>

namespace format {

// A result that is no error: the work stopped because its Cancel was pressed.
constexpr int32_t WORK_CANCELLED = -1;

struct Work {
  const std::atomic<int32_t>* cancel = nullptr;  // nullptr: nothing cancels
  void (*progress)(void* context, int64_t done, int64_t total) = nullptr;
  void* context = nullptr;

  bool cancelled() const { return cancel && cancel->load(std::memory_order_relaxed) != 0; }
  void report(int64_t done, int64_t total) const {
    if (progress) progress(context, done, total);
  }
};

}  // namespace format
