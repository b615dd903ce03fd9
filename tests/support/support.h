// Test support shared by every test binary: temporary folders, running the machine's tools to make
// fixtures at test time, reading files, and the shared vectors folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// A fresh folder under the system's temporary folder, removed with its contents at destruction.
struct TempDir {
  std::string path;
  TempDir();
  ~TempDir();
  std::string file(const std::string& name) const { return path + "/" + name; }
};

// Runs a shell command; returns its exit status (-1 when it could not run).
int run(const std::string& command);
// Runs a shell command and returns its standard output.
std::string run_output(const std::string& command, int* status = nullptr);
// True when the named program is on PATH.
bool have_tool(const std::string& name);

std::vector<uint8_t> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<int16_t> read_pcm16(const std::string& path, size_t skip_bytes = 0);

// The shared conformance vectors, or an empty string when the folder is absent.
std::string vectors_dir();
// The standards' table figures (plain text) beside the vectors, or an empty string when absent.
std::string iso_dir();
// Path of the tovra-cli binary under test.
std::string cli_path();

// Largest absolute difference over the common length of two sample sequences.
int32_t max_abs_diff(const std::vector<int16_t>& a, const std::vector<int16_t>& b, size_t* at = nullptr);

}  // namespace test

// Skips the current test when a tool is missing.
#define REQUIRE_TOOL(name) \
  if (!test::have_tool(name)) GTEST_SKIP() << name << " is not installed"
