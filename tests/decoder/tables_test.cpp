// The hand-typed Layer II allocation tables against the standard's figures.
#include "decoder/tables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "decoder/decoder.h"
#include "decoder/layer3_tables.h"
#include "support/support.h"

namespace {

// Each allocation row's classes have the step counts of the standard's tables; the narrow tables'
// slip 127 stands where 127 steps are meant.
TEST(Tables, AllocationTablesMatchTheStandardsStepCounts) {
  FILE* f = std::fopen((test::iso_dir() + "/layer2_alloc_tables.txt").c_str(), "r");
  if (!f) GTEST_SKIP() << "the standard's allocation figures are not at hand";
  std::map<std::pair<int, int>, std::vector<int>> rows;  // nbal, then steps by code
  std::map<int, int> limits;
  char line[512];
  while (std::fgets(line, sizeof line, f)) {
    std::istringstream in(line);
    std::string kind;
    int t, n;
    in >> kind >> t >> n;
    if (kind == "L") limits[t] = n;
    if (kind == "A")
      for (int s; in >> s;) rows[{t, n}].push_back(s);
  }
  std::fclose(f);
  ASSERT_EQ(limits.size(), 5u);
  int slips = 0;
  for (int t = 0; t < decoder::ALLOCATION_TABLES; ++t) {
    EXPECT_EQ(decoder::allocation_sblimit[t], limits[t]) << t;
    for (int sb = 0; sb < limits[t]; ++sb) {
      SCOPED_TRACE(testing::Message() << "table " << t << " subband " << sb);
      std::vector<int> want = rows[{t, sb}];
      ASSERT_FALSE(want.empty());
      EXPECT_EQ(decoder::allocation_bits[t][sb], want[0]);
      want[0] = 0;
      want.resize(16, 0);
      for (int code = 0; code < 16; ++code) {
        int cls = decoder::allocation_table[t][sb][code];
        if (cls == decoder::NARROW_SLIP_CLASS) {
          EXPECT_EQ(want[code], 127);
          ++slips;
        } else {
          ASSERT_LT(cls, decoder::QUANT_CLASSES);
          EXPECT_EQ(cls ? decoder::quant_class_table[cls].steps : 0, want[code]) << code;
        }
      }
    }
  }
  EXPECT_EQ(slips, 6 + 10);  // every 3-bit row of the two narrow tables
}

}  // namespace
