#include "session/platform.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
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

namespace session {

namespace {

enum Vendor : int32_t { V_OTHER, V_INTEL, V_AMD, V_CYRIX, V_IDT, V_NEXGEN, V_UMC };

// The vendor strings of leaf 0 and the words the about box begins the name with.
struct VendorName {
  const char* id;
  const char* word;
  Vendor vendor;
};
constexpr VendorName vendors[] = {
    {"GenuineIntel", "Intel ", V_INTEL}, {"AuthenticAMD", "AMD", V_AMD},        {"CyrixInstead", "Cyrix ", V_CYRIX},
    {"CentaurHauls", "idt", V_IDT},      {"NexGenDriven", "NexGent", V_NEXGEN}, {"UMC UMC UMC ", "UMC ", V_UMC},
};

// Intel's 486 models 0-9 (6 has no name).
constexpr const char* intel_486[] = {"DX-25/33", "DX-50", "SX", "DX2", "SL", "SX2", "", "DX2WB", "DX4", "DX4WB"};

// The family and model part of the name.
std::string model_name(Vendor v, uint32_t family, uint32_t model, bool mmx) {
  std::string s;
  if (family == 4) {
    if (v == V_CYRIX) return model == 4 ? "MediaGX" : "5x86";
    if (v == V_INTEL) return std::string("80486") + (model < 10 ? intel_486[model] : "");
    if (v == V_AMD) {
      if (model <= 2) return " 804865x86";
      if (model <= 7) return std::string(" 80486DX2") + (model == 7 ? "WB" : "");
      if (model <= 13) return std::string(" 80486DX4") + (model == 9 ? "WB" : "");
      return std::string("5x86") + (model == 15 ? "WB" : "");
    }
    if (v == V_UMC) return model == 1 ? "U5D" : "U5S";
    return "80486 (compatible)";
  }
  if (family == 5) {
    if (v == V_CYRIX)
      s = model == 4 ? "MediaGXm" : "6x86";
    else if (v == V_AMD)
      s = model < 6 ? " K5" : model == 8 ? " K6-2" : model == 9 ? " K6-3" : " K6";
    else if (v == V_IDT)
      s = " C6";
    else if (v == V_NEXGEN)
      s = " Nx586";
    else if (v == V_INTEL)
      s = "Pentium";
    else
      s = "Pentium (compatible)";
    return mmx ? s + " <MMX>" : s;
  }
  if (family == 6) {
    if (v == V_CYRIX) return model == 0 ? "6x86MX" : "MII";
    s = mmx ? "Pentium II" : "Pentium PRO";
    return v == V_INTEL ? s : s + " (compatible)";
  }
  if (family == 7) return "Next Pentium";
  return "Type unknown";
}

bool is_x86(const char* machine) {
  return !machine || !*machine || std::strcmp(machine, "x86_64") == 0 ||
         (machine[0] == 'i' && std::strcmp(machine + 2, "86") == 0);
}

}  // namespace

CpuidWords read_cpuid() {
  CpuidWords w;
#if defined(__i386__) || defined(__x86_64__)
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!__get_cpuid(0, &a, &b, &c, &d)) return w;  // makes the flags-bit-21 test on 32-bit builds
  w.has_cpuid = 1;
  w.max_leaf = a;
  std::memcpy(w.vendor, &b, 4);
  std::memcpy(w.vendor + 4, &d, 4);
  std::memcpy(w.vendor + 8, &c, 4);
  if (a >= 1 && __get_cpuid(1, &a, &b, &c, &d)) {
    w.version = a;
    w.features = d;
  }
  if (__get_cpuid_max(0x80000000, nullptr) >= 0x80000001 && __get_cpuid(0x80000001, &a, &b, &c, &d)) w.ext_features = d;
#endif
  return w;
}

std::string processor_name(const CpuidWords& cpu, const char* machine) {
  // Another architecture has no vendor table: uname's name for it says what it is.
  if (!cpu.has_cpuid && !is_x86(machine)) return std::string(machine) + " Processor";
  std::string name;
  if (!cpu.has_cpuid) {
    name = cpu.division_sets_flags ? "Intel 386/486" : "Cyrix 5x86/6x86";
  } else {
    Vendor v = V_OTHER;
    const char* word = "";
    for (const VendorName& n : vendors) {
      if (std::strncmp(cpu.vendor, n.id, 12) != 0) continue;
      v = n.vendor;
      word = n.word;
    }
    uint32_t family = (cpu.version >> 8) & 15, model = (cpu.version >> 4) & 15;
    std::string rest = cpu.max_leaf == 0 ? "Type unknown" : model_name(v, family, model, (cpu.features >> 23) & 1);
    name = word;
    // "AMD", "idt" and "NexGent" end without a space because their own models begin with one; the
    // names they share with the others ("Pentium II", "Type unknown") get one here, so that no
    // "AMDPentium II" shows.
    if (!name.empty() && name.back() != ' ' && rest[0] != ' ') name += ' ';
    name += rest;
    if (cpu.ext_features >> 31) name += " /3DNow!";
    constexpr const char* types[] = {"\nOriginal OEM", "\nOverDrive", "\nDual", ""};
    name += types[(cpu.version >> 12) & 3];
  }
  return name + " Processor";
}

std::string about_text(const CpuidWords& cpu, const char* machine, const char* release, uint64_t memory_bytes) {
  // The system line names the kernel's release and the machine: what a user reports about a Linux
  // system, as the system's version and build number were on the platform the box comes from.
  std::string text = "CPU: " + processor_name(cpu, machine) + "\nOS: Linux " + release + " (" + machine + ")";
  if (memory_bytes == 0) return text;
  // The total less what the kernel keeps for itself falls short of the installed size, so one
  // megabyte more rounds it up; the decimal is the rest's tenths, cut.
  char line[64];
  std::snprintf(line, sizeof line, "\nMemory: %d.%dMB", int((memory_bytes + 0x100000) >> 20),
                int((memory_bytes & 0xFFFFF) / 0x1999A));
  return text + line;
}

std::string system_about_text() {
  utsname u{};
  if (uname(&u) != 0) std::strcpy(u.machine, "unknown");
  uint64_t bytes = 0;
  if (FILE* f = std::fopen("/proc/meminfo", "r")) {
    unsigned long long kb = 0;
    char line[128];
    while (std::fgets(line, sizeof line, f))
      if (std::sscanf(line, "MemTotal: %llu kB", &kb) == 1) break;
    std::fclose(f);
    bytes = uint64_t(kb) * 1024;
  }
  return about_text(read_cpuid(), u.machine, u.release, bytes);
}

}  // namespace session
