// The about box's processor naming from CPUID words, and its system and memory lines.
#include "session/platform.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

session::CpuidWords words(const char* vendor, uint32_t version, uint32_t features, uint32_t ext) {
  session::CpuidWords w;
  w.has_cpuid = 1;
  w.max_leaf = 1;
  std::memcpy(w.vendor, vendor, 12);
  w.version = version;
  w.features = features;
  w.ext_features = ext;
  return w;
}

constexpr uint32_t MMX = 1u << 23;

TEST(About, NamesProcessorsFromTheirCpuidWords) {
  // A K6-2 (family 5, model 8) with MMX and 3DNow!, as sold: the type bits read 0.
  EXPECT_EQ(session::about_text(words("AuthenticAMD", 0x58C, MMX, 1u << 31), "i586", "6.1.0", 66584576),
            "CPU: AMD K6-2 <MMX> /3DNow!\nOriginal OEM Processor\nOS: Linux 6.1.0 (i586)\nMemory: 64.4MB");
  EXPECT_EQ(session::processor_name(words("GenuineIntel", 0x633, MMX, 0), "i686"),
            "Intel Pentium II\nOriginal OEM Processor");
  // Without MMX a family 6 is a Pentium Pro; type 2 is the second processor of a pair; a family 6
  // of another maker is a compatible one.
  EXPECT_EQ(session::processor_name(words("GenuineIntel", 0x2617, 0, 0), "i686"), "Intel Pentium PRO\nDual Processor");
  EXPECT_EQ(session::processor_name(words("AuthenticAMD", 0x1642, MMX, 1u << 31), "x86_64"),
            "AMD Pentium II (compatible) /3DNow!\nOverDrive Processor");
  // Not an x86: the machine's own name.
  EXPECT_EQ(session::processor_name(session::CpuidWords{}, "aarch64"), "aarch64 Processor");
}

}  // namespace
