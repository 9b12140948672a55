// Scenarios of the MPLS tunnel FIB state machine and of via resolution: one
// test per behaviour to keep, including the deliberate oddities (the kinds 10
// to 14 that never assert, the non-push label operation that is still used,
// the first yield of a run that is not delayed).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "TunnelTable/MplsTunnelFibSm.h"
#include "TunnelTable/ViaResolution.h"
#include "framework/Quay/Clock.h"
#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Hash.h"
#include "tests/TunnelTable/FibMachineWorld.h"
#include "tests/TunnelTable/TestHelpers.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel::TunnelTable {
namespace {

using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::MplsLabelOperation;

TunnelId bgpLuId(std::uint64_t n) { return makeId(TunnelType::bgpLuTunnel, n); }
TunnelId ldpId(std::uint64_t n) { return makeId(TunnelType::ldpTunnel, n); }
TunnelId srId(std::uint64_t n) { return makeId(TunnelType::srTunnel, n); }
TunnelId staticId(std::uint64_t n) { return makeId(TunnelType::staticTunnel, n); }

IpGenAddr nh(char const* text) { return IpGenAddr(std::string_view(text)); }
IntfId eth(std::uint32_t n) { return IntfId::ethernet(n); }
MplsLabelOperation push(std::initializer_list<std::uint32_t> labels) {
  return MplsLabelOperation::pushOf(labels);
}
MplsVia mplsVia(char const* nexthop, IntfId intf, std::initializer_list<std::uint32_t> labels) {
  return MplsVia(nh(nexthop), intf, push(labels));
}
// A via riding on tunnel t.
Via over(TunnelId t) { return Via(nh("0.0.0.0"), t.intfId()); }

// Position of an id in the iteration order of every collection keyed by tunnel.
std::uint32_t orderOf(TunnelId id) { return Vela::bitReverse32(id.hash()); }

std::set<std::uint64_t> members(MplsTunnelFibSm::TunnelIdSet const& set) {
  std::set<std::uint64_t> out;
  for (TunnelId const& id : set) out.insert(id.value());
  return out;
}
std::set<std::uint64_t> ids(std::initializer_list<TunnelId> list) {
  std::set<std::uint64_t> out;
  for (TunnelId const& id : list) out.insert(id.value());
  return out;
}

// The ids reviewed, in review order, as the trace shows them.
std::vector<std::uint64_t> reviewOrder(Skein::CaptureSink const& cap) {
  std::vector<std::uint64_t> out;
  std::string const prefix = "  updateTunnelFibEntry tunnelId: ";
  for (auto const& line : cap.lines()) {
    if (line.text.rfind(prefix, 0) == 0) out.push_back(std::stoull(line.text.substr(prefix.size())));
  }
  return out;
}

// The texts of the lines traced at `level` or below.
std::vector<std::string> textsUpTo(Skein::CaptureSink const& cap, int level) {
  std::vector<std::string> out;
  for (auto const& line : cap.lines()) {
    if (line.level <= level) out.push_back(line.text);
  }
  return out;
}

// The levels of the lines that read exactly `text`.
std::vector<int> levelsOf(Skein::CaptureSink const& cap, std::string const& text) {
  std::vector<int> out;
  for (auto const& line : cap.lines()) {
    if (line.text == text) out.push_back(line.level);
  }
  return out;
}

std::string const kSm = "Tunnel::TunnelTable::MplsTunnelFibSm::";
std::string const kUpdate = "void " + kSm + "updateTunnelFibEntry(const Tunnel::TunnelTable::TunnelId&) ";

// Everything the aggregator hands the state machine, on a manual clock.
struct World : fibtest::FibMachineWorld {
  // An LDP, SR or SR-TE tunnel: every via has labels of its own. Kinds
  // without a table of their own go to the LDP table.
  void addMpls(TunnelId id, std::initializer_list<MplsVia> vias) {
    auto const add = [&](auto& table) {
      typename std::decay_t<decltype(table)>::EntryType e(id);
      for (MplsVia const& v : vias) e.viaIs(v, true);
      table.entryIs(e);
    };
    if (!withTable(id.tunnelType(), add)) add(*ldp);
  }
  // A BGP LU, BGP LU push or static tunnel: `labels` go on every via.
  void addPlain(TunnelId id, MplsLabelOperation const& labels, std::initializer_list<Via> vias) {
    withTable(id.tunnelType(), [&](auto& table) {
      typename std::decay_t<decltype(table)>::EntryType e(id);
      if constexpr (requires { e.labelsIs(labels); }) {
        e.labelsIs(labels);
        for (Via const& v : vias) e.viaIs(v, true);
        table.entryIs(e);
      }
    });
  }

  bool inFib(TunnelId id) const { return fib->entrys().contains(id); }
  bool isUnprogrammable(TunnelId id) const { return unprogrammable->entry(id); }
  std::uint64_t reviewed() const { return sm->task()->taskWorkCount(); }
};

// MplsVia's own < is deliberately conjunctive; sets in tests order by text.
struct ViaText {
  bool operator()(MplsVia const& a, MplsVia const& b) const { return str(a) < str(b); }
};
using ViaSet = std::set<MplsVia, ViaText>;

ViaSet fibViasOf(World const& w, TunnelId id) {
  ViaSet out;
  for (MplsVia const& v : w.fib->entry(id).vias()) out.insert(v);
  return out;
}
ViaSet viaSet(std::initializer_list<MplsVia> vias) { return ViaSet(vias); }

class MplsTunnelFibSmTest : public ::testing::Test {
 protected:
  World w;
};

// --- start-up and the review task ------------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, StartUpQueuesEveryTableInFixedOrderAndOneRunDrainsTheBacklog) {
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16}), mplsVia("10.0.0.2", eth(2), {17})});
  w.addPlain(staticId(1), push({5}), {Via(nh("10.0.0.9"), eth(9))});
  Skein::CaptureSink cap(8);
  w.start();
  std::vector<std::string> const scans = {
      "virtual void " + kSm + "handleInitialized()",        "void " + kSm + "removeStaleEntries()",
      "void " + kSm + "handleBgpLuPushTunnelEntry()",       "void " + kSm + "handleStaticTunnelEntry()",
      "void " + kSm + "handleBgpLuTunnelEntry()",           "void " + kSm + "handleLdpSrTunnelEntry()",
      "void " + kSm + "handleSrTeSegmentListTunnelEntry()",
  };
  EXPECT_EQ(textsUpTo(cap, 8), scans);
  EXPECT_TRUE(textsUpTo(cap, 7).empty());

  ASSERT_TRUE(w.sm->task());
  EXPECT_EQ(w.sm->task()->name(), "TunnelFibSm");
  EXPECT_EQ(w.sm->task()->priority(), Quay::TaskPriority{2});
  // Attaching ran the handler once; it returned before any work.
  EXPECT_EQ(w.sm->task()->taskWorkCount(), 0u);
  EXPECT_EQ(w.sm->tunnelForReviews().size(), 2u);
  EXPECT_TRUE(w.sm->task()->taskScheduled());
  EXPECT_EQ(w.sm->tunnelReviewDelay(), 0.01);

  cap.clear();
  w.drain();
  std::vector<std::string> const progress = {
      "void " + kSm + "drainTunnelBacklog(): 2 backlog entries",
      "drainTunnelBacklog: Reviewed 2 tunnels. 0 remain in the backlog.",
  };
  EXPECT_EQ(textsUpTo(cap, 6), progress);
  EXPECT_TRUE(textsUpTo(cap, 5).empty());
  EXPECT_EQ(fibViasOf(w, ldpId(1)),
            viaSet({mplsVia("10.0.0.1", eth(1), {16}), mplsVia("10.0.0.2", eth(2), {17})}));
  EXPECT_EQ(w.sm->task()->taskWorkPending(), 0u);
}

TEST_F(MplsTunnelFibSmTest, NotificationsOnlyQueueAndOneReviewServesABurstOrAnAddThenRemove) {
  w.start();
  w.drain();
  w.sm->hasNotificationActiveIs(false);
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  EXPECT_TRUE(w.sm->tunnelForReviews().empty());
  w.sm->hasNotificationActiveIs(true);
  for (std::uint32_t label = 17; label < 26; ++label)
    w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {label})});
  EXPECT_EQ(w.sm->tunnelForReviews().size(), 1u);
  EXPECT_FALSE(w.inFib(ldpId(1)));
  w.drain();
  EXPECT_EQ(w.reviewed(), 1u);
  EXPECT_EQ(fibViasOf(w, ldpId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {25})}));

  // Added and removed before the task runs: one review, nothing left.
  w.addMpls(ldpId(2), {mplsVia("10.0.0.1", eth(1), {16})});
  w.ldp->entryDel(ldpId(2));
  w.drain();
  EXPECT_EQ(w.reviewed(), 2u);
  EXPECT_FALSE(w.inFib(ldpId(2)));
  EXPECT_FALSE(w.isUnprogrammable(ldpId(2)));
}

// --- resolution ----------------------------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, ChainOfThreeIsFlattenedBottomUpAndChangesClimbOneLevelPerReview) {
  // static -> BGP LU -> LDP -> Ethernet1
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {3})});
  w.addPlain(bgpLuId(1), push({2}), {over(ldpId(1))});
  w.addPlain(staticId(1), push({1}), {over(bgpLuId(1))});
  w.start();
  w.drain();
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {2, 3})}));
  EXPECT_EQ(fibViasOf(w, staticId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {1, 2, 3})}));
  EXPECT_EQ(members(w.sm->resolvedByTunnels(staticId(1))), ids({bgpLuId(1), ldpId(1)}));

  std::uint64_t const before = w.reviewed();
  Skein::CaptureSink cap(8);
  w.addMpls(ldpId(1), {mplsVia("10.0.0.4", eth(4), {30})});
  w.drain();
  EXPECT_EQ(w.reviewed() - before, 3u);
  // Each level is reviewed after the FIB entry below it changed.
  EXPECT_EQ(reviewOrder(cap),
            (std::vector<std::uint64_t>{ldpId(1).value(), bgpLuId(1).value(), staticId(1).value()}));
  EXPECT_EQ(fibViasOf(w, staticId(1)), viaSet({mplsVia("10.0.0.4", eth(4), {1, 2, 30})}));
  EXPECT_EQ(cap.count("  handleTunnelFibEntry tunnelId: " + str(ldpId(1))), 1u);

  // Resolving a via writes only the entry under construction; the
  // bookkeeping is the state machine's.
  MplsTunnelFibEntry e(bgpLuId(5));
  calculateTunnelFibEntryMplsVia(w.sm, e, MplsVia(nh("0.0.0.0"), ldpId(1).intfId(), push({7})));
  calculateTunnelFibEntryMplsVia(w.sm, e, mplsVia("10.0.0.2", eth(2), {8}));
  EXPECT_EQ(ViaSet(e.vias().begin(), e.vias().end()),
            viaSet({mplsVia("10.0.0.4", eth(4), {7, 30}), mplsVia("10.0.0.2", eth(2), {8})}));
  EXPECT_FALSE(w.inFib(bgpLuId(5)));
  EXPECT_TRUE(w.sm->directlyDependentTunnels(ldpId(1)).contains(bgpLuId(5)));
  EXPECT_TRUE(w.sm->resolvedByTunnels(bgpLuId(5)).contains(ldpId(1)));
}

// Only flattened vias count towards the limit of six labels, and only the
// overlong ones are dropped.
TEST_F(MplsTunnelFibSmTest, FlattenedStackKeepsOuterLabelsFirstAndStopsAtSix) {
  MplsVia const fiveLabels = mplsVia("10.0.0.2", eth(2), {21, 22, 23, 24, 25});
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {11, 12, 13, 14})});
  w.addMpls(ldpId(2), {fiveLabels});
  w.addMpls(ldpId(3), {mplsVia("10.0.0.1", eth(1), {11}), fiveLabels, mplsVia("10.0.0.3", eth(3), {})});
  for (std::uint64_t i = 1; i <= 3; ++i) w.addPlain(bgpLuId(i), push({1, 2}), {over(ldpId(i))});
  w.addPlain(bgpLuId(4), push({1, 2, 3, 4, 5, 6}), {Via(nh("10.0.0.1"), eth(1))});
  w.start();
  Skein::CaptureSink cap(7);
  w.drain();
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {1, 2, 11, 12, 13, 14})}));

  // 2 + 5: the only via is dropped, so the tunnel is unprogrammable, but it
  // still counts as resolved through the inner tunnel.
  std::string const dropped = "      Ignored flattened MplsVia for tunnel " + str(bgpLuId(2)) + " via " +
                              str(fiveLabels) + " (label stack too large)";
  EXPECT_EQ(levelsOf(cap, dropped), std::vector<int>{7});
  EXPECT_FALSE(w.inFib(bgpLuId(2)));
  EXPECT_TRUE(w.isUnprogrammable(bgpLuId(2)));
  EXPECT_EQ(members(w.sm->resolvedByTunnels(bgpLuId(2))), ids({ldpId(2)}));

  // Of several inner vias only the overlong one is dropped.
  EXPECT_EQ(fibViasOf(w, bgpLuId(3)),
            viaSet({mplsVia("10.0.0.1", eth(1), {1, 2, 11}), mplsVia("10.0.0.3", eth(3), {1, 2})}));
  EXPECT_FALSE(w.isUnprogrammable(bgpLuId(3)));
  // Direct vias are never checked for stack depth.
  EXPECT_EQ(fibViasOf(w, bgpLuId(4)), viaSet({mplsVia("10.0.0.1", eth(1), {1, 2, 3, 4, 5, 6})}));
}

TEST_F(MplsTunnelFibSmTest, NonPushOperationsAreTracedUsedAndFlattenedWithTheirHiddenSlots) {
  // A swap over a push: the outer operation stays, and the outer operation's
  // slots beyond the stack are copied as they are.
  MplsLabelOperation outer(Nimbo::MplsAction::swap, {7});
  outer.labelIs(5, 99);  // beyond the stack: hidden, but part of equality
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {8})});
  w.addMpls(srId(1), {MplsVia(nh("0.0.0.0"), ldpId(1).intfId(), outer)});
  MplsLabelOperation const swap(Nimbo::MplsAction::swap, {100});
  w.addPlain(bgpLuId(1), swap, {Via(nh("10.0.0.1"), eth(1))});
  w.start();
  Skein::CaptureSink cap(7);
  w.drain();
  MplsLabelOperation flattened(Nimbo::MplsAction::swap, {7, 8});
  flattened.labelIs(5, 99);
  EXPECT_EQ(fibViasOf(w, srId(1)), viaSet({MplsVia(nh("10.0.0.1"), eth(1), flattened)}));

  std::string const line =
      "Non push label operation for tableEntry: " + str(w.bgpLu->entry(bgpLuId(1))) + " !!";
  EXPECT_EQ(levelsOf(cap, line), std::vector<int>{7});
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({MplsVia(nh("10.0.0.1"), eth(1), swap)}));
}

TEST_F(MplsTunnelFibSmTest, TwoTunnelCycleGivesTheSecondReviewedNoViaThroughTheFirst) {
  TunnelId const a = staticId(1), b = staticId(2);
  w.addPlain(a, push({1}), {Via(nh("10.0.0.1"), eth(1)), over(b)});
  w.addPlain(b, push({2}), {Via(nh("10.0.0.2"), eth(2)), over(a)});
  w.start();
  Skein::CaptureSink cap(7);
  w.drain();

  // The first reviewed (X) finds the other without FIB entry. The other (Y)
  // is then resolved through X, which wakes X; X now finds itself in Y's
  // resolvedByTunnels and gets no via through Y.
  TunnelId const x = orderOf(a) < orderOf(b) ? a : b;
  TunnelId const y = x == a ? b : a;
  std::string const cycle =
      "    Cycle detected while trying to create MplsVia for tunnelId " + str(x) + " via tunnelId " + str(y);
  EXPECT_EQ(cap.count(cycle), 1u);
  EXPECT_EQ(cap.count("Cycle detected"), 1u);
  EXPECT_EQ(fibViasOf(w, x).size(), 1u);
  EXPECT_EQ(fibViasOf(w, y).size(), 2u);
  EXPECT_EQ(members(w.sm->resolvedByTunnels(y)), ids({x}));
  EXPECT_FALSE(w.sm->resolvedByTunnelss().contains(x));
  // The dependency is recorded even where the cycle dropped the via.
  EXPECT_TRUE(w.sm->directlyDependentTunnels(y).contains(x));
  w.expectFlatFib();
  w.expectConsistentMaps();
}

TEST_F(MplsTunnelFibSmTest, RingOfThreeReviewedInRingOrderNeverSettles) {
  // a rides on b pushing a label, b on c, c on a; b and c also leave
  // directly. Reviewed in the order a, b, c, the resolvedByTunnels records
  // chase each other round the ring: a cycle is found at b, then at c, each
  // finding shrinks an entry and wakes the next tunnel, whose review grows
  // the ring's entries again, six reviews a turn. Nothing in the rules ends
  // this; the task keeps yielding, so the ring costs CPU but blocks nothing.
  TunnelId const a = staticId(4), b = staticId(9), c = staticId(2);
  ASSERT_LT(orderOf(a), orderOf(b));
  ASSERT_LT(orderOf(b), orderOf(c));
  w.addPlain(a, push({100}), {over(b)});
  w.addPlain(b, push({}), {over(c), Via(nh("10.0.0.2"), eth(2))});
  w.addPlain(c, push({}), {over(a), Via(nh("10.0.0.3"), eth(3))});
  w.scheduler->yieldEveryIs(6);
  w.start();
  Skein::CaptureSink cap(7);
  for (int run = 0; run < 50; ++run) {
    ASSERT_TRUE(w.sm->task()->taskScheduled()) << run;
    w.clock->advance(w.sm->tunnelReviewDelay());
    ASSERT_TRUE(w.scheduler->runOne());
    w.expectFlatFib();
  }
  EXPECT_EQ(w.reviewed(), 300u);
  std::string const cycle = "    Cycle detected while trying to create MplsVia for tunnelId ";
  EXPECT_EQ(cap.count(cycle + str(b) + " via tunnelId " + str(c)),
            cap.count(cycle + str(c) + " via tunnelId " + str(a)));
  EXPECT_GE(cap.count("Cycle detected"), 30u);
}

// A riding edge reversed (b rode on a, now a rides on b) with a reviewed
// before b: a finds itself in b's stale resolvedByTunnels and gets no via
// through b. b's review clears that record, but b's FIB entry comes out
// unchanged, so nothing wakes a until b's entry changes.
TEST_F(MplsTunnelFibSmTest, ReversedEdgeCanLeaveAStaleCycleDrop) {
  TunnelId a = staticId(1), b = staticId(2);
  if (orderOf(a) > orderOf(b)) std::swap(a, b);
  Via const direct(nh("10.0.0.1"), eth(1));
  w.addPlain(a, push({16}), {direct});
  w.addPlain(b, push({}), {over(a)});
  w.start();
  w.drain();
  ASSERT_TRUE(w.sm->resolvedByTunnels(b).contains(a));

  Skein::CaptureSink cap(7);
  w.addPlain(b, push({16}), {direct});  // exactly the via it had through a
  w.addPlain(a, push({}), {over(b)});
  w.drain();
  EXPECT_TRUE(cap.contains("Cycle detected while trying to create MplsVia for tunnelId " + str(a) +
                           " via tunnelId " + str(b)));
  EXPECT_FALSE(w.inFib(a));
  EXPECT_TRUE(w.isUnprogrammable(a));
  EXPECT_FALSE(w.sm->resolvedByTunnels(b).contains(a));
  w.addPlain(b, push({17}), {direct});
  w.drain();
  EXPECT_TRUE(w.inFib(a));
}

TEST_F(MplsTunnelFibSmTest, TunnelOverAnUnprogrammedTunnelWaitsAndIsNowProgrammable) {
  w.addPlain(bgpLuId(1), push({100}), {over(ldpId(1))});
  w.start();
  Skein::CaptureSink cap(8);
  w.drain();
  EXPECT_FALSE(w.inFib(bgpLuId(1)));
  EXPECT_TRUE(w.isUnprogrammable(bgpLuId(1)));
  EXPECT_EQ(cap.count(kUpdate + str(bgpLuId(1)) + " is unprogrammable"), 1u);
  // No via was visited, so nothing is resolved; the dependency stays.
  EXPECT_FALSE(w.sm->resolvedByTunnelss().contains(bgpLuId(1)));
  EXPECT_EQ(members(w.sm->directlyDependentTunnels(ldpId(1))), ids({bgpLuId(1)}));

  cap.clear();
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.drain();
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {100, 16})}));
  EXPECT_FALSE(w.isUnprogrammable(bgpLuId(1)));
  EXPECT_EQ(cap.count(kUpdate + str(bgpLuId(1)) + " is now programmable"), 1u);
}

TEST_F(MplsTunnelFibSmTest, OnlyAChangedFibEntryOfTheCurrentInnerTunnelWakesTheOuterOne) {
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.addMpls(ldpId(2), {mplsVia("10.0.0.2", eth(2), {17})});
  w.addPlain(bgpLuId(1), push({100}), {over(ldpId(1))});
  w.start();
  w.drain();
  w.addPlain(bgpLuId(1), push({100}), {over(ldpId(2))});
  w.drain();
  EXPECT_EQ(members(w.sm->resolvedByTunnels(bgpLuId(1))), ids({ldpId(2)}));
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.2", eth(2), {100, 17})}));

  // A change of the old inner tunnel wakes nobody now, nor does a change of
  // the new one's table entry (a metric) that leaves its FIB entry as it was.
  std::uint64_t const before = w.reviewed();
  w.addMpls(ldpId(1), {mplsVia("10.0.0.1", eth(1), {18})});
  LdpSrTunnelTableEntry e = w.ldp->entry(ldpId(2));
  e.igpMetricIs(20);
  w.ldp->entryIs(e);
  w.drain();
  EXPECT_EQ(w.reviewed() - before, 2u);
}

// --- start-up over a populated FIB ---------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, StartUpRemovesStaleEntriesFirstAndDependentsWaitForUnprocessedOnes) {
  MplsVia const ldpVia = mplsVia("10.0.0.1", eth(1), {16});
  // An outer BGP LU tunnel reviewed before its inner LDP tunnel.
  TunnelId inner = ldpId(1);
  TunnelId outer = bgpLuId(1);
  for (std::uint64_t i = 1; orderOf(outer) > orderOf(inner); ++i) outer = bgpLuId(i);
  // Left in the FIB: the LDP entry, exactly what its review computes (so the
  // review changes nothing and no FIB notification wakes the outer one), a
  // stale one, and one of a kind without table.
  TunnelId const stale = ldpId(99);
  TunnelId const noTable = makeId(TunnelType::nexthopTunnel, 1);
  for (TunnelId id : {inner, stale, noTable}) {
    MplsTunnelFibEntry left(id);
    left.viaIs(ldpVia, true);
    w.fib->entryIs(left);
  }
  w.addMpls(inner, {ldpVia});
  w.addPlain(outer, push({100}), {over(inner)});

  Skein::CaptureSink cap(8);
  w.start();
  EXPECT_FALSE(w.inFib(stale));
  EXPECT_FALSE(w.inFib(noTable));
  EXPECT_TRUE(cap.contains("Unknown tunnel type nexthopTunnel"));
  EXPECT_TRUE(w.inFib(inner));
  EXPECT_TRUE(w.sm->tunnelFibEntryMarkedUnprocessed(inner));
  EXPECT_FALSE(w.sm->tunnelFibEntryMarkedUnprocessed(stale));
  EXPECT_TRUE(
      cap.contains("void " + kSm + "removeStaleEntries() tunnel id " + str(inner) + " is not stale."));
  EXPECT_FALSE(cap.contains("tunnel id " + str(stale) + " is not stale."));

  cap.clear();
  w.drain();
  EXPECT_EQ(cap.count("      Skipping vias for tunnel " + str(inner) + " (marked unprocessed)"), 1u);
  EXPECT_EQ(reviewOrder(cap), (std::vector<std::uint64_t>{outer.value(), inner.value(), outer.value()}));
  EXPECT_EQ(fibViasOf(w, outer), viaSet({mplsVia("10.0.0.1", eth(1), {100, 16})}));
  EXPECT_FALSE(w.isUnprogrammable(outer));
  EXPECT_TRUE(w.sm->tunnelFibEntryMarkedUnprocesseds().empty());
}

TEST_F(MplsTunnelFibSmTest, DrainedBacklogWithUnprocessedEntriesLeftIsAFatalAssertion) {
  w.start();
  w.drain();
  w.sm->tunnelFibEntryMarkedUnprocessedIs(ldpId(7), true);
  w.sm->tunnelForReviewIs(ldpId(1), true);
  EXPECT_EQ(assertionText([&] { w.drain(); }), "!tunnelFibEntryMarkedUnprocesseds()");
}

// --- yielding ------------------------------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, YieldSetsTheBookmarkAndTheNextRunResumesThereAndWrapsAround) {
  std::vector<std::uint64_t> order;  // the review order
  for (std::uint64_t i = 1; i <= 10; ++i) {
    w.addMpls(ldpId(i), {mplsVia("10.0.0.1", eth(1), {std::uint32_t(i)})});
    order.push_back(ldpId(i).value());
  }
  std::sort(order.begin(), order.end(),
            [](auto a, auto b) { return orderOf(TunnelId(a)) < orderOf(TunnelId(b)); });
  w.start();
  w.scheduler->yieldEveryIs(4);

  Skein::CaptureSink cap(8);
  ASSERT_TRUE(w.scheduler->runOne());
  EXPECT_EQ(reviewOrder(cap), std::vector<std::uint64_t>(order.begin(), order.begin() + 4));
  EXPECT_TRUE(cap.contains("drainTunnelBacklog: Yielding"));
  EXPECT_TRUE(cap.contains("drainTunnelBacklog: Reviewed 4 tunnels. 6 remain in the backlog."));
  EXPECT_EQ(w.sm->tunnelReviewBookmark(), TunnelId(order[4]));
  EXPECT_EQ(w.sm->task()->taskWorkPending(), 6u);
  // Work is pending: the next run waits for the review delay.
  ASSERT_TRUE(w.sm->task()->taskDueTime());
  EXPECT_DOUBLE_EQ(*w.sm->task()->taskDueTime(), w.clock->now() + 0.01);
  EXPECT_FALSE(w.scheduler->runOne());

  // A tunnel queued behind the bookmark is reviewed after the wrap-around.
  TunnelId behind = ldpId(11);
  for (std::uint64_t i = 12; orderOf(behind) >= orderOf(TunnelId(order[4])); ++i) behind = ldpId(i);
  w.addMpls(behind, {mplsVia("10.0.0.1", eth(1), {5000})});
  order.push_back(behind.value());

  cap.clear();
  w.drain();
  EXPECT_EQ(reviewOrder(cap), std::vector<std::uint64_t>(order.begin() + 4, order.end()));
  EXPECT_EQ(w.sm->tunnelReviewBookmark(), TunnelId());
  EXPECT_EQ(w.sm->task()->taskWorkCount(), 11u);
  EXPECT_EQ(w.fib->entrys().size(), 11u);
}

TEST_F(MplsTunnelFibSmTest, FirstYieldOfARunThatQueuedWorkIsNotDelayed) {
  // Work pending is what delays a review. A run that starts with none
  // pending schedules the task at once when its reviews queue dependents, so
  // its own yield finds the task already scheduled and adds no delay. Kept
  // as it is: the delay applies from the second yielding run on.
  TunnelId const inner = ldpId(1);
  w.addMpls(inner, {mplsVia("10.0.0.1", eth(1), {16})});
  for (std::uint64_t i = 1; i <= 20; ++i) w.addPlain(bgpLuId(i), push({100}), {over(inner)});
  w.start();
  w.scheduler->yieldEveryIs(21);  // the LDP review plus every BGP LU review fit; re-reviews do not
  ASSERT_TRUE(w.scheduler->runOne());
  ASSERT_GT(w.sm->task()->taskWorkPending(), 0u);
  ASSERT_TRUE(w.sm->task()->taskDueTime());
  EXPECT_DOUBLE_EQ(*w.sm->task()->taskDueTime(), w.clock->now());
  w.drain();
  for (std::uint64_t i = 1; i <= 20; ++i) EXPECT_TRUE(w.inFib(bgpLuId(i))) << i;
}

// A graph with dependencies in every direction of the hash order.
void buildMixedGraph(World& w) {
  for (std::uint64_t i = 1; i <= 6; ++i) {
    w.addMpls(ldpId(i), {mplsVia("10.0.1.1", eth(std::uint32_t(i)), {std::uint32_t(16 + i)}),
                         mplsVia("10.0.1.2", eth(std::uint32_t(10 + i)), {std::uint32_t(32 + i), 7})});
  }
  for (std::uint64_t i = 1; i <= 30; ++i) {
    w.addPlain(bgpLuId(i), push({std::uint32_t(1000 + i)}),
               {over(ldpId(1 + i % 6)), over(ldpId(1 + (i * 5) % 6))});
  }
  for (std::uint64_t i = 1; i <= 10; ++i) {
    w.addPlain(staticId(i), push({std::uint32_t(2000 + i), 5}),
               {over(bgpLuId(i * 3)), Via(nh("10.0.2.1"), eth(40))});
  }
}

TEST_F(MplsTunnelFibSmTest, YieldingEveryFewReviewsGivesTheSameFibAsOneRun) {
  World reference;
  buildMixedGraph(reference);
  reference.start();
  reference.drain();
  // Without yields one run does it all, the tunnels queued behind the
  // iterator (dependents woken by a later review) included.
  ASSERT_EQ(reference.sm->task()->runCount(), 1u);
  EXPECT_GT(reference.reviewed(), 46u);

  for (std::uint32_t every : {1u, 2u, 3u, 7u}) {
    SCOPED_TRACE(every);
    World yielding;
    buildMixedGraph(yielding);
    yielding.scheduler->yieldEveryIs(every);
    yielding.start();
    yielding.drain();
    EXPECT_GT(yielding.sm->task()->runCount(), 3u);
    EXPECT_EQ(yielding.fib->entrys().size(), reference.fib->entrys().size());
    for (auto const& [id, entry] : reference.fib->entrys())
      EXPECT_TRUE(yielding.fib->entry(id) == entry) << id;
    EXPECT_TRUE(yielding.unprogrammable->entrys().empty());
    yielding.expectConsistentMaps();
  }
}

// --- failures and deliberate oddities ------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, UnsupportedTypesAreAFatalAssertionButKindsTenToFourteenAreUnprogrammable) {
  w.start();
  w.drain();
  for (TunnelType type : {TunnelType::invalidTunnel, TunnelType::nexthopTunnel, TunnelType::evpnVxlanTunnel,
                          TunnelType::staticInterfaceTunnel, TunnelType::maxTunnelType}) {
    SCOPED_TRACE(str(type));
    TunnelId const id(std::uint64_t(type) << 44 | 1);
    EXPECT_EQ(assertionText([&] { w.sm->updateTunnelFibEntry(id); }), "0 && \"Unsupported tunnel type\"");
  }
  // Unlike those, the kinds 10 to 14 are unprogrammable as if their entry existed.
  for (std::uint64_t type = 10; type <= 14; ++type) {
    SCOPED_TRACE(type);
    TunnelId const id(type << 44 | 5);
    w.addMpls(id, {mplsVia("10.0.0.1", eth(1), {16})});
    w.drain();
    EXPECT_FALSE(w.inFib(id));
    EXPECT_TRUE(w.isUnprogrammable(id));
    // Not even its removal makes it "gone": there is no table to look in.
    w.ldp->entryDel(id);
    w.drain();
    EXPECT_TRUE(w.isUnprogrammable(id));
  }
  Skein::CaptureSink cap(8);
  EXPECT_EQ(w.sm->tunnelTableEntry(TunnelId(std::uint64_t(12) << 44 | 5)), TunnelTableEntry());
  EXPECT_TRUE(cap.contains("Unknown tunnel type 12"));

  // An unsupported kind queued from a table asserts in the review task.
  w.addMpls(makeId(TunnelType::nexthopTunnel, 3), {mplsVia("10.0.0.1", eth(1), {16})});
  Vela::ScopedAssertionCatcher catcher;
  EXPECT_THROW(w.drain(), Vela::AssertionFailure);
}

TEST_F(MplsTunnelFibSmTest, DynamicInterfaceWithAnOutOfRangeTunnelRaisesTheRangeError) {
  w.start();
  w.drain();
  // Type 58 with 2^27 in its first field: the tunnel value it encodes has 50 bits.
  IntfId const bad((std::uint64_t(58) << 56) | (std::uint64_t(1) << 27 << 28) | 1);
  w.addMpls(ldpId(1), {MplsVia(nh("0.0.0.0"), bad, push({16}))});
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { w.drain(); }),
            "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
