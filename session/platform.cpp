#include "session/platform.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace session {

int32_t platform_family() {
  // Read once: the family does not change while the process runs.
  static const int32_t family = [] {
    const char* v = std::getenv("TOVRA_PLATFORM");
    if (v && std::strcmp(v, "nt") == 0) return int32_t(PLATFORM_NT);
    if (v && std::strcmp(v, "old") == 0) return int32_t(PLATFORM_OLD);
    return int32_t(PLATFORM_WIN9X);
  }();
  return family;
}

void set_current_thread_priority(int32_t level) {
  // Raising a priority needs privilege on Linux; without it the thread keeps its nice value.
  int nice_value = level >= PRIORITY_HIGHEST        ? -10
                   : level == PRIORITY_ABOVE_NORMAL ? -5
                   : level == PRIORITY_NORMAL       ? 0
                                                    : 5;
  pid_t tid = pid_t(syscall(SYS_gettid));
  (void)setpriority(PRIO_PROCESS, id_t(tid), nice_value);
}

}  // namespace session
