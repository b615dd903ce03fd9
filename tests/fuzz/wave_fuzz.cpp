// Fuzzes the WAVE header parser at every length a reader may hand it, its refusal texts, and the
// reader itself over the bytes as a file: no input may crash it, read outside its buffer, or hang it.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "session/message_text.h"
#include "tools/wave.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int32_t rate, bits, channels, offset;
  uint32_t data_size;
  for (size_t length = 0; length <= size && length <= 2048; length += 56)
    tools::parse_wave_header(data, int32_t(length), rate, bits, channels, data_size, offset);
  if (size <= 2048) {
    tools::WaveHeader h;
    session::wave_problem_message(tools::parse_wave_header(data, int32_t(size), h), h);
  }

  int fd = memfd_create("wave_fuzz", 0);
  if (fd < 0) return 0;
  if (write(fd, data, size) == ssize_t(size)) {
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (tools::open_wave_input(path.c_str(), rate, bits, channels, data_size) == format::ERR_OK) {
      int32_t l, r;
      for (int64_t index : {int64_t(-300000), int64_t(-1), int64_t(0), int64_t(1), int64_t(data_size), int64_t(200000),
                            int64_t(140000), int64_t(5000000)})
        tools::read_wave_frame(index, l, r);
      tools::close_wave_input();
    }
  }
  close(fd);
  return 0;
}
