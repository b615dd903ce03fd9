// Profile files as a user's editor may leave them: any bytes must parse, every lookup must stay in
// bounds, and a key just set must read back.
#include <cstdint>
#include <string>
#include <string_view>

#include "library/ini.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  library::IniFile ini;
  library::ini_parse(ini, text);
  const char* sections[] = {"TOVRA", "Position", "Settings", "Font", ""};
  const char* keys[] = {"Build", "X", "CurrentDir", "Volume", "Face", ""};
  std::string s;
  for (const char* sec : sections)
    for (const char* key : keys) {
      (void)library::ini_get_int(ini, sec, key, -7);
      (void)library::ini_get_string(ini, sec, key, s, 32);
    }
  library::ini_set_int(ini, "Settings", "Volume", 123);
  library::ini_set(ini, "Font", "Face", text.substr(0, 40));
  if (library::ini_get_int(ini, "settings", "VOLUME", 0) != 123) __builtin_trap();
  // Written and read again, the key is still there (an editor's mark at the start may change the
  // first line's meaning, so such texts are left out of this check).
  if (text.substr(0, 3) != "\xEF\xBB\xBF") {
    library::IniFile again;
    library::ini_parse(again, library::ini_text(ini));
    if (library::ini_get_int(again, "Settings", "Volume", 0) != 123) __builtin_trap();
  }
  return 0;
}
