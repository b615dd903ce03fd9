// The few facts of the system that change behaviour: the system family the program was written
// for (TOVRA_PLATFORM=win9x|nt|old, default win9x) and thread priorities as nice values.
#pragma once

#include <cstdint>

namespace session {

enum PlatformFamily : int32_t { PLATFORM_WIN9X = 0, PLATFORM_NT = 1, PLATFORM_OLD = 2 };

// Read once from TOVRA_PLATFORM; an unknown value counts as win9x.
int32_t platform_family();
inline bool is_not_win9x() { return platform_family() != PLATFORM_WIN9X; }

enum ThreadPriority : int32_t {
  PRIORITY_BELOW_NORMAL = -1,
  PRIORITY_NORMAL = 0,
  PRIORITY_ABOVE_NORMAL = 1,
  PRIORITY_HIGHEST = 2,
};

// Sets the calling thread's nice value for the level; a refusal (no privilege) is ignored.
void set_current_thread_priority(int32_t level);

}  // namespace session

namespace session {

// The processor: family 4 stands for anything without CPUID or older than a Pentium (the slow
// paths: more wave buffers, reduced synthesis where chosen, "Pentium" read from the settings).
// Written once by detect_cpu on the main thread before any other thread starts; read-only after.
extern int32_t cpu_family;
extern int32_t cpu_has_mmx;  // recorded, read by nothing

// Sets cpu_family and cpu_has_mmx from CPUID, or from TOVRA_CPU_FAMILY=N when set (N below 5
// counts as 4), so that tests reach the paths of slow processors. Processors without CPUID on
// other architectures count as family 6: they are all far beyond a Pentium.
void detect_cpu();

}  // namespace session
