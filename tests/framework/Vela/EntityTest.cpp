// Entities, their notifying attributes and collections, and reactors.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "framework/Vela/Entity.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

class Item : public Vela::Entity {
 public:
  explicit Item(int key) : Entity("item" + std::to_string(key)), key_(key) {}
  int key() const { return key_; }

 private:
  int key_;
};

class Box : public Vela::Entity {
 public:
  explicit Box(Vela::Name name) : Entity(std::move(name)) {}
  VELA_ATTRIBUTE(int, size);
  VELA_VALUE_COLLECTION(int, std::string, label);
  VELA_ENTITY_COLLECTION(int, Item, item, Item);

 public:
  Vela::RefCollection<int, Item const> borrowed{"item", "Test::Box::borrowed"};
};

// Counts every notification of a box.
class BoxReactor : public Vela::Reactor<Box> {
 public:
  std::vector<std::string> seen;
  std::function<void()> onSize;

 protected:
  void onNotifier(Box const& box) override {
    watch(box.sizeChanged(), [this] {
      seen.push_back("size");
      if (onSize) onSize();
    });
    watch(box.labels().changed(), [this](int const& k) { seen.push_back("label" + std::to_string(k)); });
    watch(box.items().changed(), [this](int const& k) { seen.push_back("item" + std::to_string(k)); });
  }
};

// A RIB holds millions of entities: each costs its vtable pointer, its count
// (with the on-demand flag beside it) and a pointer to its name, if any.
TEST(EntityTest, IsThreeWordsWhateverItsName) { EXPECT_EQ(sizeof(Vela::Entity), 3 * sizeof(void*)); }

// Writes notify only when they change something; deleting all notifies
// every key; absent keys read as the default.
TEST(EntityTest, EqualWriteNotifiesNoOne) {
  auto box = Vela::make<Box>("b");
  BoxReactor r;
  r.notifierIs(box);
  box->sizeIs(0);
  box->sizeIs(3);
  box->sizeIs(3);
  box->labelIs(1, "a");
  box->labelIs(1, "a");
  box->labelIs(1, "b");
  box->labelDel(2);
  box->labelDel(1);
  EXPECT_EQ(r.seen, (std::vector<std::string>{"size", "label1", "label1", "label1"}));
  EXPECT_EQ(box->label(1), "");
  for (int i = 0; i < 5; ++i) box->labelIs(i, "x");
  r.seen.clear();
  box->labelDelAll();
  std::sort(r.seen.begin(), r.seen.end());
  EXPECT_EQ(r.seen, (std::vector<std::string>{"label0", "label1", "label2", "label3", "label4"}));
  EXPECT_TRUE(box->labels().empty());
}

// A value handed over as an rvalue is taken only when it changes the
// collection; an equal one stays with the caller, untouched.
TEST(EntityTest, RvalueWriteTakesTheValueOnlyOnChange) {
  Vela::ValueCollection<int, std::string> c;
  std::vector<int> heard;
  auto const conn = c.changed().connect([&](int k) { heard.push_back(k); });
  std::string const a(40, 'a'), b(40, 'b');  // longer than any inline string buffer
  std::string first = a, same = a, other = b;
  EXPECT_TRUE(c.set(1, std::move(first)));
  EXPECT_FALSE(c.set(1, std::move(same)));
  EXPECT_EQ(same, a);
  EXPECT_TRUE(c.set(1, std::move(other)));
  EXPECT_EQ(c.get(1), b);
  EXPECT_EQ(heard, (std::vector<int>{1, 1}));
}

// A collection of bool over a ValueSet behaves as one over a HashMap: the
// same notifications, the same iteration order, small or spilled.
TEST(EntityTest, SetBackedCollectionMatchesTheHashMapOne) {
  Vela::ValueCollection<int, bool> byMap;
  Vela::ValueCollection<int, bool, Vela::ValueSet<int>> bySet;
  std::vector<int> mapHeard, setHeard;
  auto const a = byMap.changed().connect([&](int k) { mapHeard.push_back(k); });
  auto const b = bySet.changed().connect([&](int k) { setHeard.push_back(k); });
  auto both = [&](auto&& op) {
    EXPECT_EQ(op(byMap), op(bySet));
    std::vector<int> m, s;
    for (auto it = byMap.begin(); it != byMap.end(); ++it) m.push_back(it.key());
    for (auto it = bySet.begin(); it != bySet.end(); ++it) s.push_back(it.key());
    EXPECT_EQ(m, s);
  };
  // Up to twelve members crosses the small form's limit both ways.
  for (int k = 1; k <= 12; ++k) both([k](auto& c) { return c.set(k, true); });
  both([](auto& c) { return c.set(3, true); });  // already there: no one hears
  for (int k = 12; k >= 2; k -= 2) both([k](auto& c) { return c.del(k); });
  both([](auto& c) { return c.del(2); });
  EXPECT_EQ(mapHeard, setHeard);
  EXPECT_TRUE(bySet.get(1));
  EXPECT_FALSE(bySet.get(2));
  EXPECT_EQ(bySet.lookup(2), nullptr);
  bySet.delAll();
  EXPECT_TRUE(bySet.empty());
}

TEST(EntityTest, NewMemberCreatesOnceAndNotifiesOnce) {
  auto box = Vela::make<Box>("b");
  BoxReactor r;
  r.notifierIs(box);
  EXPECT_EQ(box->item(4), nullptr);
  auto first = box->newItem(4);
  auto again = box->newItem(4);
  EXPECT_EQ(first, again);
  EXPECT_EQ(first->key(), 4);
  EXPECT_EQ(r.seen, (std::vector<std::string>{"item4"}));
  box->itemDel(4);
  EXPECT_EQ(first->refCount(), 2u);  // only ours (first, again) are left
  EXPECT_EQ(r.seen.size(), 2u);
}

TEST(EntityTest, RefCollectionRefusesNullWithMutatorText) {
  auto box = Vela::make<Box>("b");
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { box->borrowed.set(1, nullptr); }),
            "null _item parameter to mutator for Test::Box::borrowed not allowed\"");
  EXPECT_TRUE(box->borrowed.empty());
  auto item = Vela::make<Item>(1);
  box->borrowed.set(1, item);
  EXPECT_EQ(box->borrowed.get(1), item);
}

// A reactor hears only its current notifier, and only while active.
TEST(EntityTest, ReactorHearsItsCurrentNotifierWhileActive) {
  auto a = Vela::make<Box>("a");
  auto b = Vela::make<Box>("b");
  BoxReactor r;
  r.notifierIs(a);
  r.notifierIs(b);
  a->sizeIs(1);
  b->sizeIs(1);
  EXPECT_EQ(r.seen.size(), 1u);
  r.hasNotificationActiveIs(false);
  b->sizeIs(2);
  EXPECT_EQ(r.seen.size(), 1u);
  r.hasNotificationActiveIs(true);
  b->sizeIs(3);
  EXPECT_EQ(r.seen.size(), 2u);
  r.notifierIs(nullptr);
  b->sizeIs(4);
  EXPECT_EQ(r.seen.size(), 2u);
}

TEST(EntityTest, ReactorDeletedInsideItsOwnHandler) {
  auto box = Vela::make<Box>("b");
  auto r = std::make_unique<BoxReactor>();
  r->notifierIs(box);
  r->onSize = [&] { r.reset(); };
  Box* raw = box.get();
  box = nullptr;   // the reactor holds the last reference now
  raw->sizeIs(1);  // the handler drops the reactor and with it the box
  EXPECT_EQ(r, nullptr);
}

TEST(EntityTest, HandlerChangingTheCollectionItIsToldAbout) {
  auto box = Vela::make<Box>("b");
  std::vector<int> seen;
  auto sub = box->labels().changed().connect([&](int const& k) {
    seen.push_back(k);
    if (k < 3) box->labelIs(k + 1, "chained");
  });
  box->labelIs(0, "start");
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(box->labels().size(), 4u);
}

TEST(EntityTest, DirectoryNotifiesPerName) {
  auto dir = Vela::make<Vela::Dir>("root");
  std::vector<std::string> seen;
  auto sub = dir->entries().changed().connect([&](Vela::Name const& n) { seen.push_back(n); });
  dir->entryIs("b", Vela::make<Item>(2));
  dir->entryIs("a", Vela::make<Item>(1));
  EXPECT_EQ(dir->entryCount(), 2u);
  std::vector<std::string> names;
  for (auto const& [name, entity] : dir->entries()) names.push_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(dir->entryDel("a"));
  EXPECT_FALSE(dir->entryDel("a"));
  EXPECT_EQ(seen, (std::vector<std::string>{"b", "a", "a"}));
  EXPECT_EQ(dir->typeName(), "Vela::Dir");
}

TEST(EntityTest, PtrCountsAndConvertsToConst) {
  auto item = Vela::make<Item>(1);
  EXPECT_EQ(item->refCount(), 1u);
  Vela::Ptr<Item const> view = item;
  EXPECT_EQ(item->refCount(), 2u);
  Vela::Ptr<Vela::Entity const> base = view;
  EXPECT_EQ(Vela::dynamicPtrCast<Item const>(base), view);
  EXPECT_EQ(Vela::dynamicPtrCast<Box const>(base), nullptr);
  view = nullptr;
  base = nullptr;
  EXPECT_EQ(item->refCount(), 1u);
}

}  // namespace
