// Fuzzes the system stream splitter's walk and its packet header scan over arbitrary bytes: every
// input must end with one of the walk's results, without a crash, an overrun or a hang.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tools/split.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static uint8_t packet[tools::SPLIT_PACKET_BUFFER_BYTES];
  static std::FILE* sink = std::fopen("/dev/null", "wb");
  if (size == 0 || !sink) return 0;
  tools::packet_header_length(data, int32_t(size < 65536 ? size : 65536));
  std::FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "rb");
  if (!in) return 0;
  int64_t bytes_read = 0;
  int32_t result = tools::split_stream(in, sink, int64_t(size), bytes_read, packet, format::Work{});
  std::fclose(in);
  // Every result is one the progress window knows (0, 1, 4 to 8), never a cancel.
  const int32_t end = tools::split_end_code(result);
  if (end != 0 && end != 1 && (end < 4 || end > 8)) std::abort();
  if (bytes_read > int64_t(size)) std::abort();
  return 0;
}
