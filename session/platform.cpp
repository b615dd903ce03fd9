#include "session/platform.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#endif

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

namespace session {

int32_t cpu_family = 4;
int32_t cpu_has_mmx = 0;

void detect_cpu() {
  int32_t family = 6;
  int32_t mmx = 0;
#if defined(__i386__) || defined(__x86_64__)
  // __get_cpuid_max makes the flags-bit-21 test on 32-bit builds; leaf 0 gives the highest leaf.
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid_max(0, nullptr) >= 1 && __get_cpuid(1, &a, &b, &c, &d)) {
    family = int32_t((a >> 8) & 15);
    mmx = int32_t((d >> 23) & 1);
  } else {
    family = 4;
  }
#endif
  if (const char* v = std::getenv("TOVRA_CPU_FAMILY"); v && *v) family = std::atoi(v);
  if (family < 5) {
    family = 4;
    mmx = 0;
  }
  cpu_family = family;
  cpu_has_mmx = mmx;
}

}  // namespace session
