// The keyed maps: a contract suite run for HashMap and OrderedMap (including
// changes made while iterating and a backlog drained from a bookmark), then
// what only HashMap promises: its bit-reversed hash order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "framework/Vela/HashMap.h"
#include "framework/Vela/LargeBlock.h"
#include "framework/Vela/OrderedMap.h"
#include "framework/Vela/Ptr.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

// Jenkins one-at-a-time over the 8 bytes, low byte first (the tunnel id hash).
std::uint32_t oneAtATime(std::uint64_t v) {
  std::uint32_t h = 0;
  for (int i = 0; i < 8; ++i) {
    h += static_cast<std::uint8_t>(v >> (8 * i));
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

struct Id {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return oneAtATime(v); }
  friend bool operator==(Id, Id) = default;
  friend auto operator<=>(Id, Id) = default;
};

// Four keys share each hash, and 0 and 1 hash to all ones, the largest
// reversed hash: the tie and edge cases of the order.
struct Crowded {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return v < 2 ? 0xFFFFFFFFu : oneAtATime(v / 4); }
  friend bool operator==(Crowded, Crowded) = default;
  friend auto operator<=>(Crowded, Crowded) = default;
};

// Distinct hashes packed several to a home slot: long runs whose members sit
// far from their homes, from many homes, sharing the hash bits lookups check
// first.
struct Clustered {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return Vela::bitReverse32(static_cast<std::uint32_t>(v << 18)); }
  friend bool operator==(Clustered, Clustered) = default;
  friend auto operator<=>(Clustered, Clustered) = default;
};

// Crowded keys without operator<: equal hashes keep their insertion order.
struct Unordered {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return oneAtATime(v / 4); }
  friend bool operator==(Unordered, Unordered) = default;
};

template <class K>
std::uint32_t revOf(K const& k) {
  return Vela::bitReverse32(Vela::hashOf(k));
}

// The iteration order each map kind promises, as a comparison.
template <class Map>
struct Model;
template <class K, class V>
struct Model<Vela::HashMap<K, V>> {
  bool operator()(K const& a, K const& b) const { return revOf(a) != revOf(b) ? revOf(a) < revOf(b) : a < b; }
};
template <class K, class V>
struct Model<Vela::OrderedMap<K, V>> {
  bool operator()(K const& a, K const& b) const { return a < b; }
};

template <class Map>
std::vector<typename Map::key_type> keysOf(Map const& m) {
  std::vector<typename Map::key_type> keys;
  for (auto const& [k, v] : m) keys.push_back(k);
  return keys;
}

// Fills keys 0..n-1 and iterates, keeping every third member and erasing the
// others as it goes, by key or through the iterator; the table shrinks along
// the way. Each member must be visited exactly once.
template <class Map, class MakeKey>
void expectErasingWhileIteratingVisitsEachOnce(Map& m, std::uint64_t n, MakeKey key) {
  for (std::uint64_t i = 0; i < n; ++i) m.insertOrAssign(key(i), 0);
  std::multiset<std::uint64_t> visited;
  for (auto it = m.begin(); it != m.end();) {
    std::uint64_t const v = it.key().v;
    visited.insert(v);
    if (v % 3 == 0) {
      ++it;
    } else if (v % 3 == 1) {
      m.erase(key(v));
      ++it;
    } else {
      it = m.erase(it);
    }
  }
  EXPECT_EQ(visited.size(), n);
  EXPECT_EQ(std::set<std::uint64_t>(visited.begin(), visited.end()).size(), n);
  EXPECT_EQ(m.size(), (n + 2) / 3);
}

template <class Map>
class MapContractTest : public testing::Test {
 protected:
  using K = typename Map::key_type;
  using Reference = std::map<K, int, Model<Map>>;
  static K key(std::uint64_t v) { return K{v}; }
};

using MapKinds = testing::Types<Vela::HashMap<Id, int>, Vela::HashMap<Crowded, int>,
                                Vela::HashMap<Clustered, int>, Vela::OrderedMap<Id, int>>;
TYPED_TEST_SUITE(MapContractTest, MapKinds);

TYPED_TEST(MapContractTest, InsertLookupErase) {
  TypeParam m;
  auto const k = TestFixture::key;
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.lookup(k(1)), nullptr);
  EXPECT_EQ(m.begin(), m.end());

  auto [it, inserted] = m.tryEmplace(k(1), 10);
  EXPECT_TRUE(inserted);
  EXPECT_EQ(it.key(), k(1));
  EXPECT_EQ(it.value(), 10);
  EXPECT_FALSE(m.tryEmplace(k(1), 11).second);
  EXPECT_EQ(*m.lookup(k(1)), 10);

  EXPECT_TRUE(m.insertOrAssign(k(2), 20));
  EXPECT_FALSE(m.insertOrAssign(k(2), 21));
  EXPECT_EQ(*m.lookup(k(2)), 21);
  m.find(k(2)).value() = 22;
  EXPECT_EQ(*m.lookup(k(2)), 22);
  EXPECT_EQ(m.find(k(3)), m.end());
  EXPECT_EQ(m.size(), 2u);

  // An argument that refers into the map survives the insertion moving members.
  for (std::uint64_t i = 10; i < 200; ++i) m.insertOrAssign(k(i), *m.lookup(k(2)));
  EXPECT_EQ(*m.lookup(k(199)), 22);

  EXPECT_TRUE(m.erase(k(1)));
  EXPECT_FALSE(m.erase(k(1)));
  EXPECT_FALSE(m.contains(k(1)));
  EXPECT_TRUE(m.contains(k(2)));

  TypeParam copy = m;
  EXPECT_EQ(copy, m);
  copy.insertOrAssign(k(2), 0);
  EXPECT_NE(copy, m);
  m.clear();
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.begin(), m.end());
  EXPECT_EQ(copy.size(), 191u);
}

TYPED_TEST(MapContractTest, HoldsMoveOnlyValues) {
  using K = typename TestFixture::K;
  using Map = std::conditional_t<std::is_same_v<TypeParam, Vela::OrderedMap<K, int>>,
                                 Vela::OrderedMap<K, std::unique_ptr<std::string>>,
                                 Vela::HashMap<K, std::unique_ptr<std::string>>>;
  Map m;
  for (std::uint64_t i = 0; i < 100; ++i)
    m.tryEmplace(K{i}, std::make_unique<std::string>(std::to_string(i)));
  m.tryEmplace(K{100});
  EXPECT_EQ(*m.lookup(K{100}), nullptr);
  for (std::uint64_t i = 0; i < 100; i += 2) m.erase(K{i});
  Map moved = std::move(m);
  EXPECT_EQ(moved.size(), 51u);
  for (auto const& [k, v] : moved) {
    if (k.v < 100) {
      EXPECT_EQ(*v, std::to_string(k.v));
    }
  }
}

TYPED_TEST(MapContractTest, ErasingTheCurrentMemberVisitsEachMemberOnce) {
  TypeParam m;
  expectErasingWhileIteratingVisitsEachOnce(m, 3000, TestFixture::key);
}

TYPED_TEST(MapContractTest, InsertingWhileIteratingVisitsOnlyMembersAhead) {
  using K = typename TestFixture::K;
  Model<TypeParam> const before;
  TypeParam m;
  for (std::uint64_t i = 0; i < 200; ++i) m.insertOrAssign(TestFixture::key(i), 0);
  std::multiset<std::uint64_t> visited;
  std::vector<K> ahead;
  std::uint64_t next = 1000;
  for (auto it = m.begin(); it != m.end(); ++it) {
    visited.insert(it.key().v);
    if (next < 5000) {
      // Forty new members per step: the table grows many times over.
      K const current = it.key();
      for (int n = 0; n < 40; ++n, ++next) {
        K const k = TestFixture::key(next);
        m.insertOrAssign(k, 1);
        if (before(current, k)) ahead.push_back(k);
      }
      EXPECT_EQ(it.key(), current);  // still at its member, wherever that moved
    }
  }
  for (std::uint64_t i = 0; i < 200; ++i) EXPECT_EQ(visited.count(i), 1u) << i;
  std::size_t newVisited = 0;
  for (auto v : visited) newVisited += v >= 1000;
  EXPECT_EQ(newVisited, ahead.size());
  for (K const& k : ahead) EXPECT_EQ(visited.count(k.v), 1u) << k.v;
  EXPECT_EQ(m.size(), 4200u);
}

// A backlog is drained in runs of a few members: each run starts at the
// bookmark, reviews and removes members (reviewing may queue new ones,
// anywhere in the order), wraps around at the end, and stops early leaving a
// bookmark at the next member. Between runs others add and remove members.
TYPED_TEST(MapContractTest, BacklogDrainedFromBookmarkReviewsEveryMemberOnce) {
  using K = typename TestFixture::K;
  std::mt19937_64 rng(7);
  TypeParam backlog;
  std::set<std::uint64_t> queued, dropped;
  std::uint64_t nextId = 1;
  auto queue = [&](std::uint64_t n) {
    for (std::uint64_t i = 0; i < n; ++i, ++nextId) {
      backlog.insertOrAssign(TestFixture::key(nextId), 1);
      queued.insert(nextId);
    }
  };
  queue(3000);
  std::multiset<std::uint64_t> reviewed;
  K bookmark{};
  int runs = 0;
  for (; !backlog.empty() && runs < 10000; ++runs) {
    auto it = backlog.iterFrom(bookmark);
    for (int budget = 97; budget > 0; --budget) {
      if (it == backlog.end()) {
        if (backlog.empty()) break;
        it = backlog.begin();
      }
      K const id = it.key();
      reviewed.insert(id.v);
      if (id.v % 5 == 0 && nextId < 6000) queue(2);  // reviewing queues dependents
      backlog.erase(id);
      ++it;
    }
    bookmark = it == backlog.end() ? K{} : it.key();
    if (runs % 4 == 0) {
      if (runs < 40) queue(20);
      // Someone else removes the bookmarked member before the next run.
      if (backlog.erase(bookmark)) dropped.insert(bookmark.v);
      std::uint64_t const victim = rng() % nextId;
      if (backlog.erase(TestFixture::key(victim))) dropped.insert(victim);
    }
  }
  EXPECT_TRUE(backlog.empty());
  EXPECT_LT(runs, 10000);
  EXPECT_EQ(reviewed.size() + dropped.size(), queued.size());
  for (std::uint64_t id : queued) EXPECT_EQ(reviewed.count(id) + dropped.count(id), 1u) << id;
}

TYPED_TEST(MapContractTest, RandomOperationsMatchAModel) {
  using K = typename TestFixture::K;
  std::uint32_t const seed = testing::UnitTest::GetInstance()->random_seed() + 20240611u;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  TypeParam m;
  typename TestFixture::Reference ref;
  auto key = [&] { return TestFixture::key(rng() % 2000); };
  // A HashMap takes keys with their hashes worked out, too: half the
  // lookups and insertions below go that way.
  constexpr bool kTakesHashed = requires(TypeParam & map, K const& k) { map.lookup(Vela::Hashed<K>(k)); };
  for (int step = 0; step < 20000; ++step) {
    K const k = key();
    bool const hashed = kTakesHashed && rng() % 2 == 0;
    switch (rng() % 10) {
      case 0:
      case 1:
      case 2: {
        int const v = static_cast<int>(rng() % 100);
        ASSERT_EQ(m.insertOrAssign(k, v), !ref.contains(k));
        ref[k] = v;
        break;
      }
      case 3: {
        bool inserted = false;
        if constexpr (kTakesHashed) {
          inserted = hashed ? m.tryEmplace(Vela::Hashed<K>(k), 7).second : m.tryEmplace(k, 7).second;
        } else {
          inserted = m.tryEmplace(k, 7).second;
        }
        ASSERT_EQ(inserted, ref.try_emplace(k, 7).second);
        break;
      }
      case 4:
      case 5:
        ASSERT_EQ(m.erase(k), ref.erase(k) == 1);
        break;
      case 6: {
        auto const* v = m.lookup(k);
        if constexpr (kTakesHashed) {
          if (hashed) {
            v = m.lookup(Vela::Hashed<K>(k));
            ASSERT_EQ(m.contains(Vela::Hashed<K>(k)), v != nullptr);
          }
        }
        auto r = ref.find(k);
        ASSERT_EQ(v != nullptr, r != ref.end());
        if (v) {
          ASSERT_EQ(*v, r->second);
        }
        break;
      }
      case 7: {
        // Erase through iterFrom and check the member after.
        auto it = m.iterFrom(k);
        auto r = ref.lower_bound(k);
        ASSERT_EQ(it == m.end(), r == ref.end());
        if (r == ref.end()) break;
        ASSERT_EQ(it.key(), r->first);
        if constexpr (kTakesHashed) {
          // The iterator hands out the hash the map keeps, which is the key's.
          ASSERT_EQ(it.hashed().key, r->first);
          ASSERT_EQ(it.hashed().rev, Vela::Hashed<K>(r->first).rev);
        }
        it = m.erase(it);
        r = ref.erase(r);
        ASSERT_EQ(it == m.end(), r == ref.end());
        if (r != ref.end()) {
          ASSERT_EQ(it.key(), r->first);
        }
        break;
      }
      case 8:
        if constexpr (requires { m.reserve(1); }) {
          if (rng() % 50 == 0) m.reserve(rng() % 4000);
          if (rng() % 50 == 0) m.makeRoom(rng() % 4000);
        }
        if (rng() % 200 == 0) {
          m.clear();
          ref.clear();
        }
        break;
      case 9: {
        ASSERT_EQ(m.size(), ref.size());
        std::vector<K> expected;
        for (auto const& [rk, rv] : ref) expected.push_back(rk);
        ASSERT_EQ(keysOf(m), expected);
        break;
      }
    }
  }
}

TEST(HashMapTest, OrderIsByReversedHashWhateverTheHistory) {
  std::mt19937_64 rng(42);
  std::vector<Id> keys;
  for (int i = 0; i < 20000; ++i) keys.push_back(Id{rng() & 0xF0000FFFFFFFull});

  Vela::HashMap<Id, int> inOrder;
  for (Id k : keys) inOrder.insertOrAssign(k, 0);
  std::vector<Id> expected = keysOf(inOrder);
  std::sort(expected.begin(), expected.end(), Model<Vela::HashMap<Id, int>>());
  EXPECT_EQ(keysOf(inOrder), expected);

  // Shuffled, into a reserved table, with other members coming and going.
  Vela::HashMap<Id, int> shuffled;
  shuffled.reserve(100000);
  std::shuffle(keys.begin(), keys.end(), rng);
  for (Id k : keys) {
    shuffled.insertOrAssign(k, 0);
    shuffled.insertOrAssign(Id{k.v ^ 1}, 0);
  }
  for (Id k : keys) {
    if (!inOrder.contains(Id{k.v ^ 1})) shuffled.erase(Id{k.v ^ 1});
  }
  EXPECT_GT(shuffled.capacity(), inOrder.capacity());
  EXPECT_EQ(keysOf(shuffled), expected);
}

TEST(HashMapTest, EqualHashesWithoutKeyOrderKeepInsertionOrder) {
  Vela::HashMap<Unordered, int> m;
  for (std::uint64_t i : {3, 1, 2, 0, 7, 4}) m.insertOrAssign(Unordered{i}, 0);
  std::vector<std::uint64_t> order;
  for (auto const& [k, v] : m) order.push_back(k.v);
  // 0..3 share a hash, 4..7 share another.
  std::vector<std::uint64_t> const first{3, 1, 2, 0}, second{7, 4};
  bool const lowFirst = revOf(Unordered{0}) < revOf(Unordered{4});
  std::vector<std::uint64_t> expected = lowFirst ? first : second;
  expected.insert(expected.end(), (lowFirst ? second : first).begin(), (lowFirst ? second : first).end());
  EXPECT_EQ(order, expected);
  // Absent keys start at the first member of their hash.
  EXPECT_EQ(m.iterFrom(Unordered{5}).key(), Unordered{7});

  // Erasing the current member among equal hashes keeps the place.
  expectErasingWhileIteratingVisitsEachOnce(m, 2000, [](std::uint64_t v) { return Unordered{v}; });
}

TEST(HashMapTest, SingleHashStillWorks) {
  // Every key in one run from the last home slot (and with the reversed hash
  // that also marks empty slots): the overflow area grows, not the table.
  struct Same {
    std::uint64_t v;
    std::uint32_t hash() const { return 0xFFFFFFFFu; }
    bool operator==(Same const&) const = default;
    auto operator<=>(Same const&) const = default;
  };
  Vela::HashMap<Same, int> m;
  for (std::uint64_t i = 0; i < 500; ++i) m.insertOrAssign(Same{499 - i}, 0);
  EXPECT_LE(m.capacity(), 2048u);  // a main area of 1024 slots is enough for 500 members
  std::uint64_t expected = 0;
  for (auto const& [k, v] : m) EXPECT_EQ(k.v, expected++);
  for (std::uint64_t i = 0; i < 500; i += 2) m.erase(Same{i});
  EXPECT_EQ(m.size(), 250u);
  EXPECT_EQ(m.begin().key().v, 1u);
}

// Keys in the map's own order, as when one map is filled from another's
// iteration: the first keys all have small reversed hashes. The range refits
// to them, so runs stay short while inserting, looking up and draining from
// the front (bounded probes, where crowded homes used to probe the whole run).
std::vector<Id> keysInOrder(std::size_t n) {
  std::vector<Id> keys;
  for (std::uint64_t i = 0; i < n; ++i) keys.push_back(Id{(std::uint64_t(1 + i % 8) << 44) | i});
  std::sort(keys.begin(), keys.end(), Model<Vela::HashMap<Id, int>>());
  return keys;
}

TEST(HashMapTest, MakeRoomGrowsAtOnceAndSetsNoFloor) {
  std::vector<Id> const keys = keysInOrder(20000);
  Vela::HashMap<Id, int> m, grown;
  m.makeRoom(keys.size());
  std::size_t const room = m.capacity();
  for (Id k : keys) {
    m.insertOrAssign(k, 0);
    grown.insertOrAssign(k, 0);
  }
  // The room made held them all; step-by-step growth ends no smaller.
  EXPECT_EQ(m.capacity(), room);
  EXPECT_GE(grown.capacity(), room);
  // Unlike reserve(), nothing keeps the table large once they go.
  for (std::size_t i = 100; i < keys.size(); ++i) m.erase(keys[i]);
  EXPECT_LT(m.capacity(), room / 8);
  EXPECT_EQ(keysOf(m), std::vector<Id>(keys.begin(), keys.begin() + 100));
}

TEST(HashMapTest, KeysArrivingInOrderKeepProbesShort) {
  std::vector<Id> const keys = keysInOrder(200000);
  Vela::HashMap<Id, int> m;
  std::size_t worst = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    m.insertOrAssign(keys[i], static_cast<int>(i));
    if (i % 4096 == 0) worst = std::max(worst, m.maxProbeDistance());
  }
  worst = std::max(worst, m.maxProbeDistance());
  EXPECT_LE(worst, 128u);
  for (std::size_t i = 0; i < keys.size(); ++i) ASSERT_EQ(*m.lookup(keys[i]), static_cast<int>(i)) << i;
  EXPECT_EQ(keysOf(m), keys);

  // Descending order crowds the other end.
  Vela::HashMap<Id, int> down;
  for (std::size_t i = keys.size(); i-- > 150000;) {
    down.insertOrAssign(keys[i], 0);
    if (i % 4096 == 0) {
      EXPECT_LE(down.maxProbeDistance(), 128u) << i;
    }
  }
  EXPECT_EQ(keysOf(down), std::vector<Id>(keys.begin() + 150000, keys.end()));
}

// A FIB filled in review order: a first pass in order whose members come
// ever more densely (more of the tunnels they ride on are resolved as it
// goes), starting a little way in, then a pass over the rest from the front.
TEST(HashMapTest, KeysArrivingInOrderEverFasterAndAgainFromTheFrontKeepProbesShort) {
  std::size_t const n = 200000;
  std::vector<Id> const keys = keysInOrder(n);
  std::size_t const start = n / 500;
  auto const inFirstPass = [n, start](std::size_t i) {
    std::size_t const done = (i + n - start) % n;  // how far the pass has come
    return (i * 7919) % n < done;
  };
  Vela::HashMap<Id, int> m;
  std::size_t worst = 0, inserted = 0;
  auto const insert = [&](std::size_t i) {
    m.insertOrAssign(keys[i], 0);
    if (++inserted % 2048 == 0) worst = std::max(worst, m.maxProbeDistance());
  };
  for (std::size_t k = 0; k < n; ++k) {
    if (std::size_t const i = (start + k) % n; inFirstPass(i)) insert(i);
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (!inFirstPass(i)) insert(i);
  }
  worst = std::max(worst, m.maxProbeDistance());
  EXPECT_LE(worst, 128u);
  EXPECT_EQ(keysOf(m), keys);
}

// A window of members sliding through the order at constant size: the
// range must follow it although the size never changes.
TEST(HashMapTest, WindowSlidingThroughTheOrderKeepsProbesShort) {
  std::vector<Id> const keys = keysInOrder(200000);
  std::size_t const window = 20000;
  Vela::HashMap<Id, int> m;
  std::size_t worst = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    m.insertOrAssign(keys[i], 0);
    if (i >= window) m.erase(keys[i - window]);
    if (i % 2048 == 0) worst = std::max(worst, m.maxProbeDistance());
  }
  EXPECT_LE(worst, 128u);
  EXPECT_EQ(keysOf(m), std::vector<Id>(keys.end() - window, keys.end()));
}

TEST(HashMapTest, BacklogFilledInOrderDrainsFromTheFrontWithShortProbes) {
  std::vector<Id> const keys = keysInOrder(200000);
  Vela::HashMap<Id, int> backlog;
  for (Id k : keys) backlog.insertOrAssign(k, 0);
  std::size_t drained = 0;
  std::size_t worst = 0;
  for (auto it = backlog.begin(); it != backlog.end(); ++drained) {
    ASSERT_EQ(it.key(), keys[drained]);
    it = backlog.erase(it);
    if (drained % 4096 == 0) worst = std::max(worst, backlog.maxProbeDistance());
    // Refilling from the front while draining, now and then.
    if (drained % 50000 == 49999) backlog.insertOrAssign(keys[drained], 0);
  }
  EXPECT_LE(worst, 128u);
  EXPECT_EQ(drained, keys.size());
  EXPECT_EQ(backlog.size(), 4u);  // the refills landed behind the iterator
}

TEST(HashMapTest, RefittingTheRangeKeepsTheOrderAndIterators) {
  std::vector<Id> const keys = keysInOrder(5000);
  Vela::HashMap<Id, int> m;
  std::vector<Id> const expected(keys.begin(), keys.begin() + 2000);
  for (Id k : expected) m.insertOrAssign(k, 0);
  EXPECT_EQ(keysOf(m), expected);

  // An iterator held across inserts that refit the range and grow the table.
  auto it = m.find(keys[1000]);
  auto bookmark = m.iterFrom(keys[1999]);
  for (std::size_t i = 2000; i < keys.size(); ++i) m.insertOrAssign(keys[i], 1);
  EXPECT_EQ(it.key(), keys[1000]);
  EXPECT_EQ(std::next(it).key(), keys[1001]);
  EXPECT_EQ(std::next(bookmark).key(), keys[2000]);
  EXPECT_EQ(keysOf(m), keys);
  for (std::size_t i = 0; i < keys.size(); i += 7) EXPECT_EQ(m.iterFrom(keys[i]).key(), keys[i]);
  EXPECT_EQ(m.iterFrom(Id{~0ull}).key(),
            *std::lower_bound(keys.begin(), keys.end(), Id{~0ull}, Model<Vela::HashMap<Id, int>>()));

  // Emptied, the map starts over with the whole range; a copy keeps the layout.
  Vela::HashMap<Id, int> copy = m;
  EXPECT_EQ(keysOf(copy), keys);
  EXPECT_EQ(copy.maxProbeDistance(), m.maxProbeDistance());
  for (Id k : keys) m.erase(k);
  EXPECT_TRUE(m.empty());
  for (Id k : expected) m.insertOrAssign(k, 0);
  EXPECT_EQ(keysOf(m), expected);
}

// Large tables of plain members grow inside their own block, the members
// spreading out from the last down. Whatever the keys (runs far from their
// homes, equal hashes, a refitted range), each growth keeps every member, the
// order and the iterators held across it.
template <class K>
class HashMapGrowthTest : public testing::Test {};
using GrowthKeys = testing::Types<Id, Crowded, Clustered>;
TYPED_TEST_SUITE(HashMapGrowthTest, GrowthKeys);

TYPED_TEST(HashMapGrowthTest, GrowingKeepsMembersOrderAndIterators) {
  using K = TypeParam;
  std::mt19937_64 rng(11);
  Vela::HashMap<K, std::uint64_t> m;
  std::map<K, std::uint64_t, Model<Vela::HashMap<K, int>>> ref;
  auto check = [&] {
    ASSERT_EQ(m.size(), ref.size());
    auto r = ref.begin();
    for (auto const& [k, v] : m) {
      ASSERT_EQ(k, r->first);
      ASSERT_EQ(v, r->second);
      ++r;
    }
    for (auto const& [k, v] : ref) ASSERT_EQ(*m.lookup(k), v);
  };
  std::size_t growths = 0;
  std::size_t capacity = m.capacity();
  std::optional<K> held;
  typename Vela::HashMap<K, std::uint64_t>::iterator it;
  for (std::uint64_t step = 0; step < 60000; ++step) {
    K const k{rng() % 200000};
    if (rng() % 5 == 0) {
      m.erase(k);
      ref.erase(k);
    } else {
      m.insertOrAssign(k, step);
      ref[k] = step;
    }
    if (!held && ref.size() > 3000) {
      held = ref.begin()->first;
      it = m.find(*held);
      ref.erase(std::next(ref.begin()));  // the member after it goes, so ++ must find its place
      m.erase(std::next(it).key());
    }
    if (m.capacity() != capacity) {
      capacity = m.capacity();
      ++growths;
      ASSERT_NO_FATAL_FAILURE(check()) << "after growing to " << capacity << " slots";
      if (held && ref.contains(*held)) {
        ASSERT_EQ(it.key(), *held);
        ASSERT_EQ(std::next(it).key(), std::next(ref.find(*held))->first);
      }
    }
  }
  EXPECT_GE(growths, 4u);

  // Keys arriving in order refit the range; growing keeps it.
  std::vector<K> inOrder;
  for (std::uint64_t i = 0; i < 30000; ++i) inOrder.push_back(K{200000 + i});
  std::sort(inOrder.begin(), inOrder.end(), Model<Vela::HashMap<K, int>>());
  Vela::HashMap<K, std::uint64_t> fresh;
  for (K const& key : inOrder) fresh.insertOrAssign(key, 0);
  EXPECT_EQ(keysOf(fresh), inOrder);
  for (K const& key : inOrder) ASSERT_TRUE(fresh.contains(key));
}

// Counted references are moved as bytes too: after growing, shifting and
// erasing, every object is counted exactly by those who hold it.
TEST(HashMapTest, CountedReferencesSurviveGrowingInPlace) {
  struct Counted : Vela::RefCounted {
    std::uint64_t v;
    explicit Counted(std::uint64_t v) : v(v) {}
  };
  static_assert(Vela::kTriviallyRelocatable<Vela::Ptr<Counted>>);
  std::vector<Vela::Ptr<Counted>> held;
  Vela::HashMap<Id, Vela::Ptr<Counted>> m;
  for (std::uint64_t i = 0; i < 20000; ++i) {
    held.push_back(Vela::make<Counted>(i));
    m.insertOrAssign(Id{i}, held.back());
  }
  for (std::uint64_t i = 0; i < 20000; i += 3) m.erase(Id{i});
  for (std::uint64_t i = 0; i < 20000; ++i) {
    ASSERT_EQ(held[i]->refCount(), i % 3 ? 2u : 1u) << i;
    if (i % 3) {
      ASSERT_EQ((*m.lookup(Id{i}))->v, i);
    }
  }
  m.clear();
  for (auto const& p : held) ASSERT_EQ(p->refCount(), 1u);
}

// Tables of many megabytes ask for large pages; whatever the system makes of
// that, the members, their order and the table's growth and rebuilds are
// unchanged.
TEST(HashMapTest, LargeTablesKeepTheirMembers) {
  EXPECT_FALSE(Vela::adviseLargeBlock(nullptr, Vela::kLargeBlockBytes));
  std::vector<unsigned char> small(Vela::kLargeBlockBytes - 1, 0x5A);
  EXPECT_FALSE(Vela::adviseLargeBlock(small.data(), small.size()));
  std::vector<std::uint64_t> block(Vela::kLargeBlockBytes, 0);
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = i * 0x9E3779B97F4A7C15ull;
  Vela::adviseLargeBlock(block.data(), block.size() * sizeof(std::uint64_t));
  for (std::size_t i = 0; i < block.size(); ++i) ASSERT_EQ(block[i], i * 0x9E3779B97F4A7C15ull) << i;

  // 400,000 members of 16 bytes: a table of over 8 MiB, grown in place and
  // then rebuilt smaller by erasing.
  constexpr std::uint64_t kCount = 400000;
  Vela::HashMap<Id, std::uint64_t> m;
  for (std::uint64_t i = 0; i < kCount; ++i) m.insertOrAssign(Id{i * 7}, i);
  ASSERT_GE(m.capacity() * (sizeof(Id) + sizeof(std::uint64_t)), Vela::kLargeBlockBytes);
  std::vector<Id> keys = keysOf(m);
  ASSERT_EQ(keys.size(), kCount);
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end(), Model<Vela::HashMap<Id, std::uint64_t>>()));
  for (std::uint64_t i = 0; i < kCount; ++i) ASSERT_EQ(*m.lookup(Id{i * 7}), i) << i;
  for (std::uint64_t i = 0; i < kCount; ++i) {
    if (i % 32) m.erase(Id{i * 7});
  }
  EXPECT_EQ(m.size(), kCount / 32);
  for (std::uint64_t i = 0; i < kCount; i += 32) ASSERT_EQ(*m.lookup(Id{i * 7}), i) << i;
}

// Blocks keep their contents through every resize: within malloc, into a
// mapping of their own and out of it again, and between mappings; and the
// mapped bytes are counted while they are held.
TEST(HashMapTest, BlocksKeepTheirContentsAcrossTheLargeThreshold) {
  auto fill = [](void* p, std::size_t words, std::uint64_t seed) {
    auto* w = static_cast<std::uint64_t*>(p);
    for (std::size_t i = 0; i < words; ++i) w[i] = (i + seed) * 0x9E3779B97F4A7C15ull;
  };
  auto holds = [](void const* p, std::size_t words, std::uint64_t seed) {
    auto const* w = static_cast<std::uint64_t const*>(p);
    for (std::size_t i = 0; i < words; ++i) {
      if (w[i] != (i + seed) * 0x9E3779B97F4A7C15ull) return false;
    }
    return true;
  };
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  std::size_t const large = Vela::kLargeBlockBytes, before = Vela::mappedBlockBytes();

  std::size_t sizes[] = {4096, large / 2, large, large * 3 + 24, large + 4096, large - 8, 64};
  std::size_t was = sizes[0];
  void* block = Vela::allocateBlock(was);
  fill(block, was / kWord, 1);
  for (std::size_t bytes : sizes) {
    block = Vela::reallocateBlock(block, was, bytes);
    std::size_t const kept = std::min(was, bytes);
    ASSERT_TRUE(holds(block, kept / kWord, 1)) << was << " -> " << bytes;
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
    fill(static_cast<unsigned char*>(block) + kept, (bytes - kept) / kWord, 1 + kept / kWord);
    if (bytes >= large) {
      EXPECT_GE(Vela::mappedBlockBytes(), before + bytes) << bytes;
    }
    was = bytes;
  }
  EXPECT_EQ(Vela::mappedBlockBytes(), before);  // back in malloc
  Vela::freeBlock(block, was);
  Vela::freeBlock(nullptr, large);

  block = Vela::allocateBlock(large);
  fill(block, large / kWord, 7);
  EXPECT_TRUE(holds(block, large / kWord, 7));
  Vela::freeBlock(block, large);
  EXPECT_EQ(Vela::mappedBlockBytes(), before);
}

TEST(HashMapTest, SmallMapsAreSmall) {
  Vela::HashMap<std::uint64_t, bool> m;
  EXPECT_EQ(m.capacity(), 0u);  // nothing allocated
  m.insertOrAssign(7, true);
  EXPECT_LE(m.capacity(), 4u);
  m.insertOrAssign(8, true);
  EXPECT_LE(m.capacity(), 8u);
  for (std::uint64_t i = 0; i < 100; ++i) m.insertOrAssign(i, false);
  for (std::uint64_t i = 0; i < 100; ++i) m.erase(i);
  EXPECT_TRUE(m.empty());
  EXPECT_LE(m.capacity(), 8u);  // shrinks back
}

#ifndef NDEBUG
TEST(HashMapTest, DereferencingAnIteratorWhoseMemberWasRemovedAsserts) {
  Vela::ScopedAssertionCatcher catcher;
  Vela::HashMap<Id, int> m{{Id{1}, 1}, {Id{2}, 2}};
  auto it = m.find(Id{1});
  m.erase(Id{1});
  EXPECT_EQ(assertionText([&] { (void)it.value(); }),
            "dereferenced a HashMap iterator whose member was removed");
  ++it;  // moving on is fine
  if (revOf(Id{2}) > revOf(Id{1})) {
    EXPECT_EQ(it.key(), Id{2});
  } else {
    EXPECT_EQ(it, m.end());
  }
}
#endif

}  // namespace
