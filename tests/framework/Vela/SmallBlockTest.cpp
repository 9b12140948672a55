// The small-block pool: sizes, reuse, counting, entities and threads.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "framework/Vela/Entity.h"
#include "framework/Vela/SmallBlock.h"

namespace {

bool aligned(void const* p, std::size_t to) { return reinterpret_cast<std::uintptr_t>(p) % to == 0; }

// The bytes the pool takes for a block: the size rounded up to its grain.
std::size_t rounded(std::size_t bytes) {
  return (bytes + Vela::kSmallBlockGrain - 1) / Vela::kSmallBlockGrain * Vela::kSmallBlockGrain;
}

TEST(SmallBlockTest, BlocksOfEverySizeAreDistinctAlignedAndCounted) {
  long long const before = Vela::smallBlockBytesInUse();
  std::vector<std::pair<void*, std::size_t>> blocks;
  long long expected = 0;
  for (std::size_t bytes = 1; bytes <= Vela::kSmallBlockBytes + 40; bytes += 7) {
    void* const p = Vela::allocateSmallBlock(bytes);
    // Sizes of 8, 24, 40 ... bytes follow those of 16, 32 ... and back, so
    // the pool must skip to keep the latter on 16 bytes.
    ASSERT_TRUE(aligned(
        p, rounded(bytes) % Vela::kSmallBlockAlign == 0 ? Vela::kSmallBlockAlign : Vela::kSmallBlockGrain))
        << bytes;
    std::memset(p, static_cast<int>(bytes), bytes);
    blocks.emplace_back(p, bytes);
    if (bytes <= Vela::kSmallBlockBytes) {
      expected += static_cast<long long>(rounded(bytes));
    }
  }
  // No block overlaps another: each still holds its own fill.
  for (auto const& [p, bytes] : blocks) {
    auto const* b = static_cast<unsigned char const*>(p);
    for (std::size_t i = 0; i < bytes; ++i) ASSERT_EQ(b[i], static_cast<unsigned char>(bytes)) << bytes;
  }
  if (Vela::kSmallBlocksPooled) {
    EXPECT_EQ(Vela::smallBlockBytesInUse() - before, expected);
  }
  for (auto const& [p, bytes] : blocks) Vela::freeSmallBlock(p, bytes);
  Vela::freeSmallBlock(nullptr, 16);
  EXPECT_EQ(Vela::smallBlockBytesInUse(), before);
}

TEST(SmallBlockTest, FreedBlockServesTheNextOfItsSizeOnly) {
  if (!Vela::kSmallBlocksPooled) GTEST_SKIP() << "blocks come from operator new in this build";
  void* const a = Vela::allocateSmallBlock(40);
  Vela::freeSmallBlock(a, 40);
  void* const other = Vela::allocateSmallBlock(64);
  EXPECT_NE(other, a);
  // 33 to 40 bytes share a size.
  void* const again = Vela::allocateSmallBlock(33);
  EXPECT_EQ(again, a);
  Vela::freeSmallBlock(other, 64);
  Vela::freeSmallBlock(again, 33);
  EXPECT_GT(Vela::smallBlockChunkBytes(), 0u);
}

struct Small : Vela::Entity {
  Small() : Vela::Entity("small") {}
  std::string_view typeName() const override { return "Small"; }
};
struct Larger : Small {
  unsigned char payload[100] = {};
};
struct alignas(64) Aligned : Small {
  unsigned char payload[8] = {};
};
// Aligned as the pool's largest alignment, so served by it.
struct alignas(16) Aligned16 : Small {
  unsigned char payload[8] = {};
};
struct Huge : Small {
  unsigned char payload[Vela::kSmallBlockBytes] = {};
};

// A derived entity freed through its base is freed with its own size, so the
// count comes back to where it was; over-aligned and large ones are served
// beside the pool.
TEST(SmallBlockTest, EntitiesAreFreedWithTheSizeOfTheirOwnType) {
  long long const before = Vela::smallBlockBytesInUse();
  {
    Vela::Ptr<Small> small = Vela::make<Small>();
    Vela::Ptr<Small> larger = Vela::make<Larger>();
    Vela::Ptr<Small> huge = Vela::make<Huge>();
    Vela::Ptr<Small> alignedOne = Vela::make<Aligned>();
    EXPECT_TRUE(aligned(alignedOne.get(), 64));
    // Served by the pool, on 16 bytes whatever sizes it served before.
    Vela::Ptr<Small> aligned16 = Vela::make<Aligned16>();
    EXPECT_TRUE(aligned(aligned16.get(), 16));
    if (Vela::kSmallBlocksPooled) {
      EXPECT_EQ(Vela::smallBlockBytesInUse() - before,
                static_cast<long long>(rounded(sizeof(Small)) + rounded(sizeof(Larger)) +
                                       rounded(sizeof(Aligned16))));
    }
  }
  EXPECT_EQ(Vela::smallBlockBytesInUse(), before);
}

// Blocks cross threads: one taken on a thread that has ended is freed here,
// and what an ended thread freed is taken by the next thread that needs
// blocks of that size.
TEST(SmallBlockTest, BlocksOutliveTheirThreadAndItsFreeBlocksAreReused) {
  constexpr std::size_t kBytes = 203;
  constexpr long long kRounded = 208;  // taken in the pool's steps
  long long const before = Vela::smallBlockBytesInUse();
  void* kept = nullptr;
  std::set<void*> freedThere;
  std::thread([&] {
    kept = Vela::allocateSmallBlock(kBytes);
    std::memset(kept, 0x11, kBytes);
    std::vector<void*> some;
    for (int i = 0; i < 5; ++i) some.push_back(Vela::allocateSmallBlock(kBytes));
    for (void* p : some) {
      Vela::freeSmallBlock(p, kBytes);
      freedThere.insert(p);
    }
  }).join();
  if (Vela::kSmallBlocksPooled) {
    EXPECT_EQ(Vela::smallBlockBytesInUse() - before, kRounded);
  }
  EXPECT_EQ(static_cast<unsigned char*>(kept)[kBytes - 1], 0x11);
  Vela::freeSmallBlock(kept, kBytes);
  EXPECT_EQ(Vela::smallBlockBytesInUse(), before);

  std::vector<void*> taken;
  std::thread([&] {
    for (std::size_t i = 0; i < freedThere.size(); ++i) taken.push_back(Vela::allocateSmallBlock(kBytes));
    // Blocks taken and not freed by a thread stay in use after it ends.
  }).join();
  if (Vela::kSmallBlocksPooled) {
    for (void* p : taken) EXPECT_EQ(freedThere.count(p), 1u);
    EXPECT_EQ(Vela::smallBlockBytesInUse() - before, kRounded * static_cast<long long>(taken.size()));
  }
  for (void* p : taken) Vela::freeSmallBlock(p, kBytes);
  EXPECT_EQ(Vela::smallBlockBytesInUse(), before);
}

// Free blocks of threads that end one after another all reach the next
// thread, the later thread's first (the second hand-over links the stock's
// list behind its own).
TEST(SmallBlockTest, ThreadsEndingInTurnHandOverAllTheirFreeBlocks) {
  if (!Vela::kSmallBlocksPooled) GTEST_SKIP() << "blocks come from operator new in this build";
  constexpr std::size_t kBytes = 176;
  std::vector<void*> blocks;
  for (int i = 0; i < 6; ++i) blocks.push_back(Vela::allocateSmallBlock(kBytes));
  // Freed by threads that did not take them: each ends holding its share.
  std::thread([&] {
    for (int i = 0; i < 3; ++i) Vela::freeSmallBlock(blocks[i], kBytes);
  }).join();
  std::thread([&] {
    for (int i = 3; i < 6; ++i) Vela::freeSmallBlock(blocks[i], kBytes);
  }).join();
  std::vector<void*> taken;
  std::thread([&] {
    for (int i = 0; i < 6; ++i) taken.push_back(Vela::allocateSmallBlock(kBytes));
  }).join();
  EXPECT_EQ(std::set<void*>(taken.begin(), taken.begin() + 3),
            std::set<void*>(blocks.begin() + 3, blocks.end()));
  EXPECT_EQ(std::set<void*>(taken.begin() + 3, taken.end()),
            std::set<void*>(blocks.begin(), blocks.begin() + 3));
  for (void* p : taken) Vela::freeSmallBlock(p, kBytes);
}

}  // namespace
