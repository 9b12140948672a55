// ValueSet: set semantics across the small-array / hash-map switch, the
// iteration order it shares with HashMap, order-independent equality and
// hash, and the None textual form.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "framework/Vela/HashMap.h"
#include "framework/Vela/Value.h"
#include "framework/Vela/ValueSet.h"

namespace {

struct Key {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return Vela::mix64(v * 0x9e3779b97f4a7c15ull); }
  friend bool operator==(Key, Key) = default;
  friend auto operator<=>(Key, Key) = default;
};

// Four keys share each hash: the tie rule of the iteration order.
struct Crowded {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return Vela::mix64(v / 4); }
  friend bool operator==(Crowded, Crowded) = default;
  friend auto operator<=>(Crowded, Crowded) = default;
};

// A key too wide to stand in for the pointer of a one-member set.
struct Wide {
  std::uint64_t v = 0;
  std::uint64_t pad = 0;
  std::uint32_t hash() const { return Vela::mix64(v * 0x9e3779b97f4a7c15ull); }
  friend bool operator==(Wide, Wide) = default;
  friend auto operator<=>(Wide, Wide) = default;
};

// Crowded keys without operator<: equal hashes keep their insertion order.
struct Unordered {
  std::uint64_t v = 0;
  std::uint32_t hash() const { return Vela::mix64(v / 4); }
  friend bool operator==(Unordered, Unordered) = default;
};

template <class S>
std::vector<std::uint64_t> members(S const& s) {
  std::vector<std::uint64_t> out;
  for (auto const& k : s) out.push_back(k.v);
  return out;
}

template <class M>
std::vector<std::uint64_t> mapKeys(M const& m) {
  std::vector<std::uint64_t> out;
  for (auto it = m.begin(); it != m.end(); ++it) out.push_back(it.key().v);
  return out;
}

// The members in a HashMap: the iteration order a set must share.
template <class K, class Values>
Vela::HashMap<K, bool> hashMapOf(Values const& values) {
  Vela::HashMap<K, bool> m;
  for (std::uint64_t v : values) m.insertOrAssign(K{v}, true);
  return m;
}

// Members inserted in the given order iterate as a HashMap's do.
template <class K>
void expectHashMapOrder(std::vector<std::uint64_t> const& values) {
  Vela::ValueSet<K> s;
  for (std::uint64_t v : values) s.insert(K{v});
  EXPECT_EQ(members(s), mapKeys(hashMapOf<K>(values))) << values.size() << " members";
}

struct Holder : Vela::ValueTag {
  static constexpr char const* valueTypeName = "Test::Holder";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("id", &Holder::id), Vela::field("members", &Holder::set));
  }
  std::uint32_t id = 0;
  Vela::ValueSet<Key> set;
};

template <class K, std::uint32_t InlineMax>
using InlineSet = Vela::ValueSet<K, Vela::Hash<K>, std::equal_to<K>, InlineMax>;

// One pointer and two counters: a via set costs 16 bytes in every entry.
// Members kept in place widen the pointer's place only as far as they need.
TEST(ValueSetTest, IsCompact) {
  EXPECT_EQ(sizeof(Vela::ValueSet<Key>), 16u);
  EXPECT_EQ(sizeof(InlineSet<Key, 2>), 24u);
  EXPECT_EQ(sizeof(InlineSet<Wide, 2>), 16u);
}

// Runs through the in-place, small and large forms and back, in both
// directions, reserving and assigning whole sets now and then, comparing with
// std::set.
template <class S>
void matchModel() {
  using K = typename S::key_type;
  std::uint32_t const seed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  S s;
  std::set<std::uint64_t> model;
  for (int step = 0; step < 20000; ++step) {
    // Few distinct keys, so that the set keeps crossing the switch both ways.
    std::uint64_t const v = rng() % 14;
    if (rng() % 2) {
      // With its hash worked out or not, a key goes to the same place.
      bool const inserted = rng() % 2 ? s.insert(Vela::Hashed<K>(K{v})) : s.insert(K{v});
      EXPECT_EQ(inserted, model.insert(v).second);
    } else {
      EXPECT_EQ(s.erase(K{v}), model.erase(v) == 1);
    }
    ASSERT_EQ(s.size(), model.size());
    // Room made ahead, in every form, changes no member and no order.
    if (step % 13 == 0) s.reserve(rng() % 12);
    if (step % 97 == 0 || model.size() <= 1) {
      ASSERT_EQ(members(s), mapKeys(hashMapOf<K>(model))) << "step " << step;
      // The iterator's hashes are the members' own.
      for (auto it = s.begin(); it != s.end(); ++it) ASSERT_EQ(it.hashed().rev, Vela::Hashed<K>(*it).rev);
      for (std::uint64_t k = 0; k < 14; ++k) {
        EXPECT_EQ(s.contains(K{k}), model.count(k) == 1);
        EXPECT_EQ(s.contains(Vela::Hashed<K>(K{k})), model.count(k) == 1);
      }
      S const copy = s;
      ASSERT_EQ(members(copy), members(s)) << "step " << step;
    }
    if (step % 31 == 0) {
      // A whole set written at once, in iteration order, over whatever was there.
      std::set<std::uint64_t> next;
      for (std::uint64_t k = 0; k < 14; ++k) {
        if (rng() % 3 == 0) next.insert(k);
      }
      auto const ordered = hashMapOf<K>(next);
      std::vector<Vela::Hashed<K>> hashed;
      for (auto it = ordered.begin(); it != ordered.end(); ++it) hashed.push_back(it.hashed());
      s.assignOrdered(hashed.begin(), hashed.end());
      model = next;
      ASSERT_EQ(members(s), mapKeys(ordered)) << "step " << step;
    }
  }
}

TEST(ValueSetTest, MatchesAModelAcrossTheSmallAndLargeForms) {
  matchModel<Vela::ValueSet<Key>>();
  matchModel<Vela::ValueSet<Wide>>();
  matchModel<InlineSet<Key, 2>>();
  matchModel<InlineSet<Key, 3>>();
}

TEST(ValueSetTest, IteratesInTheOrderOfAHashMapOfTheSameMembers) {
  for (std::size_t n : {1u, 3u, 8u, 9u, 40u}) {
    std::vector<std::uint64_t> values;
    for (std::size_t i = 0; i < n; ++i) values.push_back(i * 7919 + 3);
    expectHashMapOrder<Key>(values);
    expectHashMapOrder<Key>(std::vector<std::uint64_t>(values.rbegin(), values.rend()));
  }
  // Equal hashes follow key order, or insertion order for keys without one.
  expectHashMapOrder<Crowded>({6, 4, 7, 5, 1, 3});
  expectHashMapOrder<Unordered>({6, 4, 7, 5, 1, 3});
}

TEST(ValueSetTest, EqualityAndHashIgnoreInsertionOrderAndRepresentation) {
  Vela::ValueSet<Key> a{Key{1}, Key{2}, Key{3}, Key{4}, Key{5}};
  Vela::ValueSet<Key> b{Key{5}, Key{3}, Key{1}, Key{4}, Key{2}};
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());

  // Grown into a map and shrunk to five members again: still in map form,
  // still equal to the small one.
  Vela::ValueSet<Key> c;
  for (std::uint64_t v = 1; v <= 9; ++v) c.insert(Key{v});
  for (std::uint64_t v = 6; v <= 9; ++v) c.erase(Key{v});
  EXPECT_EQ(c, a);
  EXPECT_EQ(a, c);
  EXPECT_EQ(c.hash(), a.hash());

  Vela::ValueSet<Key> d = a;
  d.erase(Key{5});
  d.insert(Key{6});
  EXPECT_NE(a, d);  // same size, one member differs
  d.erase(Key{6});
  EXPECT_NE(a, d);  // one member fewer
  EXPECT_NE(a.hash(), d.hash());
  d.insert(Key{5});
  EXPECT_EQ(a, d);
}

TEST(ValueSetTest, CopiesAreIndependentAndMovesLeaveTheSourceEmpty) {
  for (std::uint64_t n : {1u, 3u, 12u}) {
    Vela::ValueSet<Key> a;
    for (std::uint64_t v = 0; v < n; ++v) a.insert(Key{v});
    Vela::ValueSet<Key> b = a;
    b.insert(Key{100});
    EXPECT_FALSE(a.contains(Key{100}));
    EXPECT_EQ(a.size(), n);
    Vela::ValueSet<Key> c = std::move(b);
    EXPECT_TRUE(b.empty());  // NOLINT(bugprone-use-after-move): moved-from state is specified
    EXPECT_EQ(c.size(), n + 1);
    c = a;
    EXPECT_EQ(c, a);
    c.clear();
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(a.size(), n);
  }
}

TEST(ValueSetTest, PrintsAsNoneInsideAValueAndReadsBackEmpty) {
  Holder h;
  h.id = 7;
  h.set.insert(Key{1});
  h.set.insert(Key{2});
  std::string const text = Vela::valueToStrep(h);
  EXPECT_EQ(text, "Value('Test::Holder', ** {'id': 7, 'members': None})");
  Holder back = Vela::parseValue<Holder>(text);
  EXPECT_EQ(back.id, 7u);
  EXPECT_TRUE(back.set.empty());
}

}  // namespace
