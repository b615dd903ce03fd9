// Shared by the library tests: every test starts with an empty playlist, default settings and a
// temporary folder, and gets its current folder back at the end (list files and "CurrentDir"
// change it).
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "library/playlist.h"
#include "library/settings.h"
#include "support/support.h"

namespace test {

class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char buf[PATH_MAX];
    ASSERT_NE(getcwd(buf, sizeof buf), nullptr);
    saved_cwd = buf;
    library::reset_playlist();
    library::reset_settings();
  }
  void TearDown() override { ASSERT_EQ(chdir(saved_cwd.c_str()), 0); }

  std::string write_text(const std::string& name, const std::string& text) {
    std::string path = dir.file(name);
    write_file(path, std::vector<uint8_t>(text.begin(), text.end()));
    return path;
  }
  std::string read_text(const std::string& path) {
    std::vector<uint8_t> b = read_file(path);
    return std::string(b.begin(), b.end());
  }
  static std::string entry(int32_t i) { return library::playlist.entries[i].path; }
  static int32_t current() { return library::playlist.current_entry.load(); }

  TempDir dir;
  std::string saved_cwd;
};

}  // namespace test
