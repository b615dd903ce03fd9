// The plug-in host over folders of sample modules built with the tests.
#include "shell/plugins.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/support.h"

namespace {

std::string log_text(const std::string& path) {
  std::vector<uint8_t> bytes = test::read_file(path);
  return std::string(bytes.begin(), bytes.end());
}

void copy(const char* from, const std::string& to) { test::run(std::string("cp '") + from + "' '" + to + "'"); }

TEST(Plugins, BothEntriesLoadTwiceSixLoadFiveAndEntrylessModulesAreLetGo) {
  test::TempDir dir;
  std::string log = dir.file("log");
  setenv("TOVRA_PLUGIN_LOG", log.c_str(), 1);

  // One module with both entries counts in both tables; one without entries takes no slot.
  copy(TOVRA_PLUGIN_NONE, dir.file("a_none.so"));
  copy(TOVRA_PLUGIN_BOTH, dir.file("b_both.so"));
  shell::load_plugins(dir.path.c_str());
  EXPECT_EQ(shell::plugins.output_count, 1);
  EXPECT_EQ(shell::plugins.effect_count, 1);
  EXPECT_STREQ(shell::plugins.output[0].file, "b_both.so");
  EXPECT_EQ(shell::plugins.output[1].module, nullptr);
  shell::unload_plugins();
  EXPECT_EQ(log_text(log), "xfdd");
  EXPECT_EQ(shell::plugins.output[0].object, nullptr);

  // Six output filters: five load, the sixth is never asked.
  test::TempDir six;
  for (int i = 0; i < 6; ++i) copy(TOVRA_PLUGIN_FILTER, six.file("f" + std::to_string(i) + ".so"));
  std::remove(log.c_str());
  shell::load_plugins(six.path.c_str());
  EXPECT_EQ(shell::plugins.output_count, 5);
  EXPECT_EQ(shell::plugins.effect_count, 0);
  shell::unload_plugins();
  EXPECT_EQ(log_text(log), "xxxxxddddd");

  // A missing folder is an empty one.
  shell::load_plugins(dir.file("missing").c_str());
  EXPECT_EQ(shell::plugins.output_count + shell::plugins.effect_count, 0);
  unsetenv("TOVRA_PLUGIN_LOG");
}

}  // namespace
