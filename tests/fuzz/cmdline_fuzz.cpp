// Command lines of any bytes, taken directly and by way of the hand-over buffer. List-file tokens
// may change the current folder; it is put back after each input so that the fuzzer's own files
// land where they should.
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <string>

#include "library/instance.h"
#include "library/playlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace library;
  static std::string home = [] {
    char buf[PATH_MAX];
    return std::string(getcwd(buf, sizeof buf) ? buf : "/");
  }();
  reset_playlist();
  std::string line(reinterpret_cast<const char*>(data), size);
  line = line.substr(0, line.find('\0'));
  bool shift = size && (data[0] & 1);
  take_command_line(line.c_str(), shift);
  int32_t cur = playlist.current_entry;
  if (cur < 0 || cur >= PLAYLIST_SLOTS) __builtin_trap();

  HandOver h;
  int32_t commands[2];
  hand_over_message(h, -1, false, false, commands);
  for (size_t i = 0; i < size; ++i)
    if (data[i]) hand_over_message(h, int64_t(int8_t(data[i])), false, shift, commands);
  int32_t n = hand_over_message(h, 0, size & 2, shift, commands);
  if (n < 1 || n > 2) __builtin_trap();
  if (chdir(home.c_str()) != 0) __builtin_trap();
  return 0;
}
