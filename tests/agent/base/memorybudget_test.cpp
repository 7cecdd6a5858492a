// The memory budget: past its bound cJSON gets no more memory and the
// callback runs once; C++ allocations go on; its end lifts the bound.
#include "agent/base/memorybudget.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(MemoryBudget, BoundsCjsonAndCallsOnce) {
  MemoryBudget::install();
  std::string document = "[0";
  for (int i = 0; i < 100000; ++i) document += ",0";  // 200 KB, millions of bytes parsed
  document += "]";
  int calls = 0;
  {
    MemoryBudget budget(
        1 << 20, [](void* count) { ++*static_cast<int*>(count); }, &calls);
    EXPECT_EQ(cJSON_Parse(document.c_str()), nullptr);
    std::vector<char> more(2 << 20, 'x');
    EXPECT_TRUE(budget.exceeded());
  }
  EXPECT_EQ(calls, 1);
  cJSON* const tree = cJSON_Parse(document.c_str());
  EXPECT_NE(tree, nullptr);
  cJSON_Delete(tree);
}
