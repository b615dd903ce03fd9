// tovra: the player window, or with --remote the remote control's client for scripts.
#include <cstring>

#include "shell/window.h"

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--remote") == 0) return shell::remote_client(argc - 2, argv + 2);
  return shell::process_entry(argc, argv);
}
