#include "support/support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tovra-test-XXXXXX").string();
  char* made = mkdtemp(pattern.data());
  path = made ? made : "";
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path.empty()) std::filesystem::remove_all(path, ec);
}

int run(const std::string& command) {
  int status = std::system(command.c_str());
  if (status == -1) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string run_output(const std::string& command, int* status) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) {
    if (status) *status = -1;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int st = pclose(p);
  if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}

bool have_tool(const std::string& name) { return run("command -v " + name + " >/dev/null 2>&1") == 0; }

Bytes str(const std::string& s) { return Bytes(s.begin(), s.end()); }
Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream f(path, std::ios::binary);
  f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<int16_t> read_pcm16(const std::string& path, size_t skip_bytes) {
  std::vector<uint8_t> bytes = read_file(path);
  std::vector<int16_t> out;
  for (size_t i = skip_bytes; i + 1 < bytes.size(); i += 2) out.push_back(int16_t(bytes[i] | (bytes[i + 1] << 8)));
  return out;
}

std::string vectors_dir() {
  struct stat st;
  if (stat(TOVRA_VECTORS_DIR, &st) == 0 && S_ISDIR(st.st_mode)) return TOVRA_VECTORS_DIR;
  return "";
}

std::string iso_dir() {
  struct stat st;
  const std::string dir = TOVRA_VECTORS_DIR "/../iso";
  if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return dir;
  return "";
}

std::string cli_path() { return TOVRA_CLI; }

// The programs the tests run speak English whatever the developer's locale; a test that wants
// another language sets it on the command it runs.
const int english_messages = [] {
  setenv("LC_ALL", "C.UTF-8", 1);
  unsetenv("LANGUAGE");
  return 0;
}();

Bytes silent_layer2(int frames, bool mono) {
  Bytes bytes(size_t(frames) * 417, 0);
  for (size_t at = 0; at < bytes.size(); at += 417) {
    bytes[at] = 0xFF;
    bytes[at + 1] = 0xFD;
    bytes[at + 2] = 0x80;
    bytes[at + 3] = mono ? 0xC0 : 0x00;
  }
  return bytes;
}

std::vector<int16_t> decode_ours(const std::string& in, const std::string& out, const std::string& flags) {
  std::remove(out.c_str());
  run("'" + cli_path() + "' decode '" + in + "' '" + out + "' --format raw " + flags + " >/dev/null 2>&1");
  return read_pcm16(out);
}

std::vector<int16_t> decode_mpg123(const std::string& in, const std::string& out, const std::string& flags) {
  run("mpg123 -q --no-gapless " + flags + " -s '" + in + "' > '" + out + "' 2>/dev/null");
  return read_pcm16(out);
}

int32_t max_abs_diff(const std::vector<int16_t>& a, const std::vector<int16_t>& b, size_t* at) {
  int32_t worst = 0;
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    int32_t d = std::abs(int32_t(a[i]) - int32_t(b[i]));
    if (d > worst) {
      worst = d;
      if (at) *at = i;
    }
  }
  return worst;
}

PcmComparison compare_pcm(const std::vector<int16_t>& ours, const std::vector<int16_t>& theirs, size_t from,
                          size_t step, size_t to) {
  PcmComparison c;
  size_t count = 0, close = 0;
  for (size_t i = from; i < std::min({ours.size(), theirs.size(), to}); i += step) {
    const int32_t d = std::abs(int32_t(ours[i]) - int32_t(theirs[i]));
    c.max_raw = std::max(c.max_raw, d);
    c.max_scaled = std::max(c.max_scaled, std::fabs(ours[i] - theirs[i] * (32767.0 / 32768.0)));
    ++count;
    close += d <= 1;
  }
  if (count) c.within_one = double(close) / double(count);
  return c;
}

std::ostream& operator<<(std::ostream& out, const PcmComparison& c) {
  return out << "max " << c.max_raw << ", scaled " << c.max_scaled << ", within 1: " << c.within_one;
}

bool decodes_alike(const PcmComparison& c) { return c.max_raw <= 2 && c.max_scaled <= 1.6 && c.within_one >= 0.95; }

bool wait_until(const std::function<bool()>& done, int timeout_s) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
  while (std::chrono::steady_clock::now() < end) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return done();
}

std::string trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

}  // namespace test
