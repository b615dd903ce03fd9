// List files of any content through both readers, then the operations that walk the table.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "library/playlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace library;
  reset_playlist();
  std::FILE* f = fmemopen(const_cast<uint8_t*>(data), size, "r");
  if (!f) return 0;
  read_playlist_file(f, 0);
  std::rewind(f);
  read_playlist_file(f, 1);
  std::rewind(f);
  read_default_playlist_file(f);
  std::fclose(f);
  for (int32_t i = 0; i < PLAYLIST_SCAN_SLOTS; ++i)
    if (std::memchr(playlist.entries[i].path, 0, ENTRY_BYTES) == nullptr) __builtin_trap();
  if (slot_used(PLAYLIST_SLOTS) || slot_used(PLAYLIST_SLOTS + 1)) __builtin_trap();
  uint32_t ms = size ? data[0] * 7u + uint32_t(size) : 0;
  playlist.current_entry = int32_t(ms % 1000);
  int32_t pick = pick_random_entry_at(ms);
  if (pick < 0 || pick >= PLAYLIST_SCAN_SLOTS) __builtin_trap();
  remove_entry(int32_t(ms % 1000));
  (void)split_path(playlist.entries[0].path);
  return 0;
}
