// Test support shared by every test binary: temporary folders, running the machine's tools to make
// fixtures at test time, reading files, and the shared vectors folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <ostream>
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

using Bytes = std::vector<uint8_t>;
// Building byte fixtures: a text's bytes, a 32-bit little-endian word, parts joined.
Bytes str(const std::string& s);
Bytes le32(uint32_t v);
Bytes cat(std::initializer_list<Bytes> parts);

std::vector<uint8_t> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<int16_t> read_pcm16(const std::string& path, size_t skip_bytes = 0);

// The shared conformance vectors, or an empty string when the folder is absent.
std::string vectors_dir();
// The standards' table figures (plain text) beside the vectors, or an empty string when absent.
std::string iso_dir();
// Path of the tovra-cli binary under test.
std::string cli_path();

// Polls done every 50 ms for up to timeout_s seconds of wall time (the machine may be busy; nothing
// that uses it is timed). Returns the last answer.
bool wait_until(const std::function<bool()>& done, int timeout_s = 20);
// s without its trailing newlines and blanks: a command's one-line answer.
std::string trim(std::string s);

// MPEG-1 Layer II, 44.1 kHz, 128 kbit/s, no CRC: 417-byte frames with zero bodies, so every
// subband has allocation 0 and each frame decodes to 1152 silent sample frames. Stereo unless mono.
Bytes silent_layer2(int frames, bool mono = false);

// Decodes in to raw 16-bit samples at out and returns them, empty when nothing was written: ours
// with `tovra-cli decode` (flags added, such as --no-gapless), mpg123's without gapless trimming.
std::vector<int16_t> decode_ours(const std::string& in, const std::string& out, const std::string& flags = "");
std::vector<int16_t> decode_mpg123(const std::string& in, const std::string& out, const std::string& flags = "");

// Largest absolute difference over the common length of two sample sequences.
int32_t max_abs_diff(const std::vector<int16_t>& a, const std::vector<int16_t>& b, size_t* at = nullptr);

// Our decode against another decoder's (or a reference), over the common length from `from` in
// steps of `step` up to `to`. The others scale full scale to 32768 and round where we use 32767 and
// truncate: raw, a sample may differ by 2; with the scale taken out, by the truncation (below 1)
// plus the other's rounding (0.5) plus float noise.
struct PcmComparison {
  int32_t max_raw = 0;
  double max_scaled = 0;
  double within_one = 1.0;  // share of samples that differ by at most 1
};
PcmComparison compare_pcm(const std::vector<int16_t>& ours, const std::vector<int16_t>& theirs, size_t from = 0,
                          size_t step = 1, size_t to = SIZE_MAX);
// Whether a comparison is as close as a decoder to the standard gets: at most 2 raw, 1.6 scaled,
// and at least 95% of the samples within 1.
bool decodes_alike(const PcmComparison& c);
std::ostream& operator<<(std::ostream& out, const PcmComparison& c);

}  // namespace test

// Skips the current test when a tool is missing.
#define REQUIRE_TOOL(name) \
  if (!test::have_tool(name)) GTEST_SKIP() << name << " is not installed"

// Skips a window test without an X display, or without one of the tools it drives the window with.
#define REQUIRE_X_AND_TOOLS(...)                                                    \
  if (!std::getenv("DISPLAY")) GTEST_SKIP() << "no X display (run under xvfb-run)"; \
  for (const char* tool_ : {__VA_ARGS__})                                           \
    if (!test::have_tool(tool_)) GTEST_SKIP() << tool_ << " is not installed"
