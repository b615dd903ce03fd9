// The few facts of the system that change behaviour: the system family the program was written
// for (TOVRA_PLATFORM=win9x|nt|old, default win9x) and thread priorities as nice values.
#pragma once

#include <cstdint>
#include <string>

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

// The words of the CPUID instruction that the about box names the processor by.
struct CpuidWords {
  int32_t has_cpuid = 0;            // 0: no CPUID (a 386 or 486, or not an x86 at all)
  int32_t division_sets_flags = 1;  // without CPUID: 0 when a division leaves the flags (Cyrix)
  uint32_t max_leaf = 0;            // leaf 0, EAX
  char vendor[13] = {};             // leaf 0, EBX EDX ECX
  uint32_t version = 0;             // leaf 1, EAX: type 13-12, family 11-8, model 7-4
  uint32_t features = 0;            // leaf 1, EDX: bit 23 MMX
  uint32_t ext_features = 0;        // leaf 0x80000001, EDX: bit 31 3DNow!; 0 when absent
};

// This processor's words; has_cpuid 0 on other architectures.
CpuidWords read_cpuid();

// The about box's first line, e.g. "AMD K6-2 <MMX> /3DNow!\nOriginal OEM Processor" (the type
// bits break it). machine is uname's machine name, which names a processor that isn't an x86.
std::string processor_name(const CpuidWords& cpu, const char* machine);

// The about box's text: "CPU: " and the processor, "\nOS: Linux <release> (<machine>)", and
// "\nMemory: %d.%dMB" from the total memory in bytes (left out when it is 0, unknown).
std::string about_text(const CpuidWords& cpu, const char* machine, const char* release, uint64_t memory_bytes);
// The same for this system: CPUID, uname and /proc/meminfo's MemTotal.
std::string system_about_text();

}  // namespace session
