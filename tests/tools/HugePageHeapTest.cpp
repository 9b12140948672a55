// The environment the programs run themselves again with.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tools/HugePageHeap.h"

namespace {

using Tunnel::Tool::hugePageTunables;

TEST(HugePageHeapTest, AddsTheTunableUnlessTheHeapIsAlreadyDecided) {
  EXPECT_EQ(hugePageTunables(nullptr), "glibc.malloc.hugetlb=1");
  EXPECT_EQ(hugePageTunables(""), "glibc.malloc.hugetlb=1");
  EXPECT_EQ(hugePageTunables("glibc.malloc.tcache_count=0"),
            "glibc.malloc.tcache_count=0:glibc.malloc.hugetlb=1");
  // A tunable whose name only begins like ours is another one.
  EXPECT_EQ(hugePageTunables("glibc.malloc.hugetlbx=2"), "glibc.malloc.hugetlbx=2:glibc.malloc.hugetlb=1");

  // A heap already decided, either way, anywhere in the list: no second run, so no loop.
  EXPECT_EQ(hugePageTunables("glibc.malloc.hugetlb=0"), std::nullopt);
  EXPECT_EQ(hugePageTunables("glibc.malloc.hugetlb=1"), std::nullopt);
  EXPECT_EQ(hugePageTunables("glibc.malloc.tcache_count=0:glibc.malloc.hugetlb=2"), std::nullopt);
  EXPECT_EQ(hugePageTunables("glibc.malloc.hugetlb=0:glibc.malloc.tcache_count=0"), std::nullopt);
}

}  // namespace
