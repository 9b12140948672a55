// The notification rules of Vela::Signal.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/Vela/Signal.h"

namespace {

// Watchers dropped during a delivery: by themselves, or by another, earlier
// or later in the order. A later one is not called in that delivery, and
// none of them in the next.
TEST(SignalTest, WatchersDroppedDuringDeliveryAreNotCalledAgain) {
  Vela::Signal<> signal;
  std::vector<std::string> calls;
  Vela::Subscription earlier, self, later;
  earlier = signal.connect([&] { calls.push_back("earlier"); });
  self = signal.connect([&] {
    calls.push_back("self");
    self.reset();
    earlier.reset();
    later.reset();
  });
  later = signal.connect([&] { calls.push_back("later"); });
  auto last = signal.connect([&] { calls.push_back("last"); });
  signal.emit();
  signal.emit();
  EXPECT_EQ(calls, (std::vector<std::string>{"earlier", "self", "last", "last"}));
  EXPECT_FALSE(later.connected());
  EXPECT_EQ(signal.size(), 1u);
}

TEST(SignalTest, WatcherAddedDuringDeliveryWaitsForNextOne) {
  Vela::Signal<> signal;
  std::vector<Vela::Subscription> added;
  int addedCalls = 0;
  auto adder = signal.connect([&] { added.push_back(signal.connect([&] { ++addedCalls; })); });
  signal.emit();
  EXPECT_EQ(addedCalls, 0);
  signal.emit();
  EXPECT_EQ(addedCalls, 1);  // the first added one; the second was added during this delivery
}

TEST(SignalTest, HandlerDestroysItsOwnerDuringDelivery) {
  // The callback's captures stay valid until it returns even though the
  // object owning the subscription is destroyed inside it.
  struct Owner {
    Vela::Subscription sub;
    std::shared_ptr<int> token = std::make_shared<int>(7);
  };
  Vela::Signal<> signal;
  auto owner = std::make_unique<Owner>();
  int seen = 0;
  owner->sub = signal.connect([&, token = owner->token] {
    owner.reset();
    seen = *token;
  });
  signal.emit();
  EXPECT_EQ(seen, 7);
  EXPECT_EQ(owner, nullptr);
  EXPECT_TRUE(signal.empty());
}

// Watchers are called in connection order, and a nested emit is delivered
// in full before the outer one goes on.
TEST(SignalTest, NestedEmitDeliversInnerChangeFirst) {
  Vela::Signal<int> signal;
  std::vector<int> seen;
  auto a = signal.connect([&](int const& v) {
    seen.push_back(v);
    if (v == 1) signal.emit(2);
  });
  auto b = signal.connect([&](int const& v) { seen.push_back(100 + v); });
  signal.emit(1);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 102, 101}));
}

TEST(SignalTest, InactiveOrDestroyedSubscriptionIsSilent) {
  Vela::Signal<> signal;
  int calls = 0;
  {
    auto sub = signal.connect([&] { ++calls; });
    sub.activeIs(false);
    signal.emit();
    EXPECT_TRUE(sub.connected());
    sub.activeIs(true);
    signal.emit();
  }
  signal.emit();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(signal.empty());
}

TEST(SignalTest, SubscriptionOutlivingSignalIsHarmless) {
  Vela::Subscription sub;
  {
    Vela::Signal<> signal;
    sub = signal.connect([] {});
  }
  EXPECT_FALSE(sub.connected());
  sub.reset();
}

TEST(SignalTest, ExceptionFromHandlerPropagatesAndLeavesSignalUsable) {
  Vela::Signal<> signal;
  int calls = 0;
  Vela::Subscription thrower = signal.connect([&] {
    thrower.reset();
    throw std::runtime_error("boom");
  });
  auto counter = signal.connect([&] { ++calls; });
  EXPECT_THROW(signal.emit(), std::runtime_error);
  signal.emit();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(signal.size(), 1u);
}

}  // namespace
