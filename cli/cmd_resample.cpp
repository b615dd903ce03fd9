// Placeholder until this command's subsystem lands.
#include <cstdio>

#include "cli/commands.h"

namespace cli {

int cmd_resample(int, char**) {
  std::fputs("tovra-cli: 'resample' is not available in this build\n", stderr);
  return 2;
}

}  // namespace cli
