// tovra-cli settings: where the settings file is and what its keys hold once loaded and clamped,
// and, with --save, the file written back as the program writes it at exit.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/console.h"
#include "library/settings.h"
#include "session/platform.h"

namespace cli {

int cmd_settings(int argc, char** argv) {
  std::string file;
  bool save = false;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--file") == 0 && i + 1 < argc) {
      file = argv[++i];
    } else if (std::strcmp(argv[i], "--save") == 0) {
      save = true;
    } else {
      std::fprintf(stderr, "tovra-cli settings: unknown argument '%s'\n", argv[i]);
      std::fputs("usage: tovra-cli settings [--file PATH] [--save]\n", stderr);
      return 2;
    }
  }
  if (file.empty()) file = library::settings_file_path();
  session::detect_cpu();
  library::StartupRecord record;
  library::load_settings(file, record, session::cpu_family);
  if (console.boxes.load() != 0) return 1;  // a file refused as it was read: the box said why
  // The window's place is left as read: without a screen there is nothing to centre it on.
  int32_t x = library::settings.x, y = library::settings.y;
  library::clamp_settings(x, y);
  library::settings.x = x;
  library::settings.y = y;

  std::printf("%s\n", library::settings.file.c_str());
  for (const library::SettingValue& v : library::settings_values(false))
    std::printf("%s.%s=%s\n", v.section, v.key, v.value.c_str());
  if (save && !library::save_settings()) {
    std::fprintf(stderr, "tovra-cli settings: could not write %s\n", library::settings.file.c_str());
    return 1;
  }
  return 0;
}

}  // namespace cli
