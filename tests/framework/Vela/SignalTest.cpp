// The notification rules of Vela::Signal, one test each.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "framework/Vela/Signal.h"

namespace {

TEST(SignalTest, DeliversInConnectionOrderAfterEachEmit) {
  Vela::Signal<int> signal;
  std::vector<int> seen;
  auto a = signal.connect([&](int const& v) { seen.push_back(v * 10 + 1); });
  auto b = signal.connect([&](int const& v) { seen.push_back(v * 10 + 2); });
  signal.emit(1);
  signal.emit(2);
  EXPECT_EQ(seen, (std::vector<int>{11, 12, 21, 22}));
}

TEST(SignalTest, DestroyedSubscriptionIsSilent) {
  Vela::Signal<> signal;
  int calls = 0;
  {
    auto sub = signal.connect([&] { ++calls; });
    signal.emit();
  }
  signal.emit();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(signal.empty());
}

TEST(SignalTest, DisruptSelf) {
  Vela::Signal<> signal;
  int calls = 0, other = 0;
  Vela::Subscription self;
  self = signal.connect([&] {
    ++calls;
    self.reset();
  });
  auto after = signal.connect([&] { ++other; });
  signal.emit();
  signal.emit();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(other, 2);
}

TEST(SignalTest, DisruptLaterWatcherIsNotCalledInSameDelivery) {
  Vela::Signal<> signal;
  Vela::Subscription later;
  int laterCalls = 0;
  auto first = signal.connect([&] { later.reset(); });
  later = signal.connect([&] { ++laterCalls; });
  signal.emit();
  EXPECT_EQ(laterCalls, 0);
  EXPECT_FALSE(later.connected());
}

TEST(SignalTest, DisruptEarlierWatcher) {
  Vela::Signal<> signal;
  Vela::Subscription earlier;
  int earlierCalls = 0;
  earlier = signal.connect([&] { ++earlierCalls; });
  auto second = signal.connect([&] { earlier.reset(); });
  signal.emit();
  signal.emit();
  EXPECT_EQ(earlierCalls, 1);
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

TEST(SignalTest, InactiveSubscriptionStaysConnectedButSilent) {
  Vela::Signal<> signal;
  int calls = 0;
  auto sub = signal.connect([&] { ++calls; });
  sub.activeIs(false);
  signal.emit();
  EXPECT_TRUE(sub.connected());
  sub.activeIs(true);
  signal.emit();
  EXPECT_EQ(calls, 1);
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
