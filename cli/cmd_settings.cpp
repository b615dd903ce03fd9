// Placeholder until this command's subsystem lands.
#include <cstdio>

#include "cli/commands.h"

namespace cli {

int cmd_settings(int, char**) {
  std::fputs("tovra-cli: 'settings' is not available in this build\n", stderr);
  return 2;
}

}  // namespace cli
