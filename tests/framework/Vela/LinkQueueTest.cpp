// LinkQueue: 8-bit positions that wrap, FIFO order, the full index space and
// the head/tail counters carried as metadata.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/Vela/LinkQueue.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

using Entries = std::vector<std::pair<int, std::string>>;

Entries entriesOf(Vela::LinkQueue<std::string> const& q) {
  Entries out;
  for (auto [index, value] : q) out.emplace_back(index, value);
  return out;
}

TEST(LinkQueueTest, IndicesWrapAndPopRemovesInPushOrder) {
  Vela::LinkQueue<std::string> q(253, 253);
  for (char const* s : {"a", "b", "c", "d", "e"}) q.push(s);
  EXPECT_EQ(entriesOf(q), (Entries{{253, "a"}, {254, "b"}, {255, "c"}, {0, "d"}, {1, "e"}}));
  EXPECT_EQ(q.headIndex(), 253);
  EXPECT_EQ(q.tailIndex(), 2);
  EXPECT_EQ(q.at(0), "d");
  EXPECT_EQ(q.lookup(2), nullptr);
  EXPECT_EQ(q.lookup(252), nullptr);

  q.pop();
  q.pop();
  EXPECT_EQ(q.front(), "c");
  EXPECT_EQ(q.headIndex(), 255);
  EXPECT_FALSE(q.contains(253));
  EXPECT_THROW(q.at(253), Vela::RangeException);
  EXPECT_EQ(q.push("f"), 2);
  EXPECT_EQ(entriesOf(q), (Entries{{255, "c"}, {0, "d"}, {1, "e"}, {2, "f"}}));

  q.clear();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.push("g"), 3);  // positions are not reused after clear
  EXPECT_EQ(q.headIndex(), 3);
  q.pop();
  EXPECT_THROW(q.pop(), Vela::RangeException);
}

TEST(LinkQueueTest, AllPositionsInUseRefusesAnotherPush) {
  Vela::LinkQueue<std::unique_ptr<int>> q(10, 10);
  for (int i = 0; i < 256; ++i) q.push(std::make_unique<int>(i));
  EXPECT_EQ(q.size(), 256u);
  EXPECT_EQ(q.headIndex(), q.tailIndex());
  EXPECT_EQ(*q.at(9), 255);  // the last position before the head
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { q.push(std::make_unique<int>(256)); }),
            "linkqueue index space full");
  EXPECT_EQ(q.size(), 256u);
  q.pop();
  EXPECT_EQ(q.push(std::make_unique<int>(256)), 10);
  EXPECT_EQ(*q.front(), 1);
}

TEST(LinkQueueTest, RebuiltFromCountersAndComparedByContents) {
  Vela::LinkQueue<std::string> restored(254, 1);  // positions 254, 255 and 0
  EXPECT_EQ(restored.size(), 3u);
  restored.at(254) = "x";
  restored.at(255) = "y";
  restored.at(0) = "z";
  EXPECT_EQ(restored.push("w"), 1);

  Vela::LinkQueue<std::string> pushed;
  for (char const* s : {"x", "y", "z", "w"}) pushed.push(s);
  EXPECT_EQ(restored, pushed);  // same values in the same order, other indices
  pushed.pop();
  pushed.push("x");
  EXPECT_NE(restored, pushed);
}

}  // namespace
