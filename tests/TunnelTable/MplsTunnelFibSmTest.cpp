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
TunnelId bgpLuPushId(std::uint64_t n) { return makeId(TunnelType::bgpLuPushTunnel, n); }
TunnelId ldpId(std::uint64_t n) { return makeId(TunnelType::ldpTunnel, n); }
TunnelId srId(std::uint64_t n) { return makeId(TunnelType::srTunnel, n); }
TunnelId staticId(std::uint64_t n) { return makeId(TunnelType::staticTunnel, n); }
TunnelId srTeId(std::uint64_t n) { return makeId(TunnelType::srTeSegmentListTunnel, n); }

IpGenAddr nh(char const* text) { return IpGenAddr(std::string_view(text)); }
IntfId eth(std::uint32_t n) { return IntfId::ethernet(n); }
MplsLabelOperation push(std::initializer_list<std::uint32_t> labels) {
  return MplsLabelOperation::pushOf(labels);
}
MplsVia mplsVia(char const* nexthop, IntfId intf, std::initializer_list<std::uint32_t> labels) {
  return MplsVia(nh(nexthop), intf, push(labels));
}
// A via riding on tunnel t.
MplsVia overTunnel(TunnelId t, std::initializer_list<std::uint32_t> labels) {
  return MplsVia(nh("0.0.0.0"), t.intfId(), push(labels));
}

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

// The level of the first line that reads exactly `text`; -1 when none does.
int levelOf(Skein::CaptureSink const& cap, std::string const& text) {
  for (auto const& line : cap.lines()) {
    if (line.text == text) return line.level;
  }
  return -1;
}

// Everything the aggregator hands the state machine, on a manual clock.
struct World : fibtest::FibMachineWorld {
  void addLdp(TunnelId id, std::initializer_list<MplsVia> vias) {
    LdpSrTunnelTableEntry e(id);
    for (MplsVia const& v : vias) e.viaIs(v, true);
    if (id.tunnelType() == TunnelType::srTunnel) {
      sr->entryIs(e);
    } else {
      ldp->entryIs(e);
    }
  }
  void addSrTe(TunnelId id, std::initializer_list<MplsVia> vias) {
    SrTeSegmentListTunnelTableEntry e(id);
    for (MplsVia const& v : vias) e.viaIs(v, true);
    srTe->entryIs(e);
  }
  // A BGP LU tunnel pushing `labels` over each of `over`, plus `direct` vias.
  void addBgpLu(TunnelId id, MplsLabelOperation const& labels, std::initializer_list<TunnelId> over,
                std::initializer_list<Via> direct = {}) {
    BgpLuTunnelTableEntry e(id);
    e.labelsIs(labels);
    for (TunnelId t : over) e.tunnelIdViaIs(t);
    for (Via const& v : direct) e.viaIs(v, true);
    bgpLu->entryIs(e);
  }
  void addStatic(TunnelId id, MplsLabelOperation const& labels, std::initializer_list<Via> vias) {
    StaticTunnelTableEntry e(id);
    e.labelsIs(labels);
    for (Via const& v : vias) e.viaIs(v, true);
    staticTable->entryIs(e);
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

// The dependency maps agree with each other and keep no empty sets.
void expectConsistentMaps(MplsTunnelFibSm const& sm) {
  for (auto const& [x, dependents] : sm.directlyDependentTunnelss()) {
    EXPECT_FALSE(dependents.empty()) << "directlyDependentTunnels " << x;
    for (TunnelId const& y : dependents) {
      EXPECT_TRUE(sm.tunnelsDirectlyDependingOn(y).contains(x)) << y << " -> " << x;
    }
  }
  for (auto const& [y, inners] : sm.tunnelsDirectlyDependingOns()) {
    EXPECT_FALSE(inners.empty()) << "tunnelsDirectlyDependingOn " << y;
    for (TunnelId const& x : inners)
      EXPECT_TRUE(sm.directlyDependentTunnels(x).contains(y)) << y << " -> " << x;
  }
  for (auto const& [y, resolved] : sm.resolvedByTunnelss()) EXPECT_FALSE(resolved.empty()) << y;
}

class MplsTunnelFibSmTest : public ::testing::Test {
 protected:
  World w;
};

// --- start-up and the review task ------------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, StartUpQueuesEveryTableInFixedOrderAndCreatesTheTask) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.addBgpLu(bgpLuId(1), push({100}), {ldpId(1)});
  Skein::CaptureSink cap(8);
  w.start();

  std::vector<std::string> scans;
  for (auto const& line : cap.lines()) {
    if (line.text.find("Tunnel::TunnelTable::MplsTunnelFibSm::") != std::string::npos)
      scans.push_back(line.text);
  }
  std::vector<std::string> const expected = {
      "virtual void Tunnel::TunnelTable::MplsTunnelFibSm::handleInitialized()",
      "void Tunnel::TunnelTable::MplsTunnelFibSm::removeStaleEntries()",
      "void Tunnel::TunnelTable::MplsTunnelFibSm::handleBgpLuPushTunnelEntry()",
      "void Tunnel::TunnelTable::MplsTunnelFibSm::handleStaticTunnelEntry()",
      "void Tunnel::TunnelTable::MplsTunnelFibSm::handleBgpLuTunnelEntry()",
      "void Tunnel::TunnelTable::MplsTunnelFibSm::handleLdpSrTunnelEntry()",
      "void Tunnel::TunnelTable::MplsTunnelFibSm::handleSrTeSegmentListTunnelEntry()",
  };
  EXPECT_EQ(scans, expected);
  for (auto const& line : cap.lines()) EXPECT_EQ(line.level, 8) << line.text;

  ASSERT_TRUE(w.sm->task());
  EXPECT_EQ(w.sm->task()->name(), "TunnelFibSm");
  EXPECT_EQ(w.sm->task()->priority(), Quay::TaskPriority{2});
  // Attaching ran the handler once; it returned before any work.
  EXPECT_EQ(w.sm->task()->taskWorkCount(), 0u);
  EXPECT_TRUE(w.sm->initialized());
  EXPECT_EQ(w.sm->tunnelForReviews().size(), 2u);
  EXPECT_TRUE(w.sm->task()->taskScheduled());
  EXPECT_EQ(w.sm->tunnelReviewDelay(), 0.01);
}

TEST_F(MplsTunnelFibSmTest, DrainTracesProgressAndLeavesTheTaskIdle) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16}), mplsVia("10.0.0.2", eth(2), {17})});
  w.start();
  Skein::CaptureSink cap(6);
  w.drain();

  std::vector<std::string> lines;
  for (auto const& line : cap.lines()) {
    EXPECT_EQ(line.level, 6);
    lines.push_back(line.text);
  }
  std::vector<std::string> const expected = {
      "void Tunnel::TunnelTable::MplsTunnelFibSm::drainTunnelBacklog(): 1 backlog entries",
      "drainTunnelBacklog: Reviewed 1 tunnels. 0 remain in the backlog.",
  };
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(fibViasOf(w, ldpId(1)),
            viaSet({mplsVia("10.0.0.1", eth(1), {16}), mplsVia("10.0.0.2", eth(2), {17})}));
  EXPECT_EQ(w.fib->entry(ldpId(1)).tunnelId(), ldpId(1));
  EXPECT_FALSE(w.sm->task()->taskScheduled());
  EXPECT_EQ(w.sm->task()->taskWorkPending(), 0u);
  EXPECT_EQ(w.sm->tunnelReviewBookmark(), TunnelId());
  EXPECT_TRUE(w.sm->tunnelForReviews().empty());
}

TEST_F(MplsTunnelFibSmTest, NotificationsOnlyQueueAndOneReviewServesABurst) {
  w.start();
  w.drain();
  for (std::uint32_t label = 16; label < 26; ++label)
    w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {label})});
  EXPECT_EQ(w.sm->tunnelForReviews().size(), 1u);
  EXPECT_FALSE(w.inFib(ldpId(1)));
  w.drain();
  EXPECT_EQ(w.reviewed(), 1u);
  EXPECT_EQ(fibViasOf(w, ldpId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {25})}));
}

TEST_F(MplsTunnelFibSmTest, AllSixTablesAreWatched) {
  w.start();
  w.drain();
  Via const direct(nh("10.0.0.9"), eth(9));
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {1})});
  w.addLdp(srId(1), {mplsVia("10.0.0.2", eth(2), {2})});
  w.addSrTe(srTeId(1), {mplsVia("10.0.0.3", eth(3), {3})});
  w.addBgpLu(bgpLuId(1), push({4}), {}, {direct});
  w.addStatic(staticId(1), push({5}), {direct});
  BgpLuPushTunnelTableEntry pushEntry(bgpLuPushId(1));
  pushEntry.labelsIs(push({6}));
  pushEntry.viaIs(direct, true);
  w.bgpLuPush->entryIs(pushEntry);
  w.drain();
  EXPECT_EQ(fibViasOf(w, ldpId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {1})}));
  EXPECT_EQ(fibViasOf(w, srId(1)), viaSet({mplsVia("10.0.0.2", eth(2), {2})}));
  EXPECT_EQ(fibViasOf(w, srTeId(1)), viaSet({mplsVia("10.0.0.3", eth(3), {3})}));
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.9", eth(9), {4})}));
  EXPECT_EQ(fibViasOf(w, staticId(1)), viaSet({mplsVia("10.0.0.9", eth(9), {5})}));
  EXPECT_EQ(fibViasOf(w, bgpLuPushId(1)), viaSet({mplsVia("10.0.0.9", eth(9), {6})}));
}

TEST_F(MplsTunnelFibSmTest, SwitchedOffNotificationsQueueNothing) {
  w.start();
  w.drain();
  w.sm->hasNotificationActiveIs(false);
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  EXPECT_TRUE(w.sm->tunnelForReviews().empty());
  w.sm->hasNotificationActiveIs(true);
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {17})});
  EXPECT_TRUE(w.sm->tunnelForReview(ldpId(1)));
}

// --- resolution ----------------------------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, ChainOfThreeIsFlattenedBottomUpAndChangesClimbOneLevelPerReview) {
  // static -> BGP LU -> LDP -> Ethernet1
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {3})});
  w.addBgpLu(bgpLuId(1), push({2}), {ldpId(1)});
  w.addStatic(staticId(1), push({1}), {Via(nh("0.0.0.0"), bgpLuId(1).intfId())});
  w.start();
  w.drain();
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {2, 3})}));
  EXPECT_EQ(fibViasOf(w, staticId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {1, 2, 3})}));
  EXPECT_EQ(members(w.sm->resolvedByTunnels(staticId(1))), ids({bgpLuId(1), ldpId(1)}));
  EXPECT_EQ(members(w.sm->tunnelsDirectlyDependingOn(staticId(1))), ids({bgpLuId(1)}));

  std::uint64_t const before = w.reviewed();
  Skein::CaptureSink cap(8);
  w.addLdp(ldpId(1), {mplsVia("10.0.0.4", eth(4), {30})});
  w.drain();
  EXPECT_EQ(w.reviewed() - before, 3u);
  // Each level is reviewed after the FIB entry below it changed.
  EXPECT_EQ(reviewOrder(cap),
            (std::vector<std::uint64_t>{ldpId(1).value(), bgpLuId(1).value(), staticId(1).value()}));
  EXPECT_EQ(fibViasOf(w, staticId(1)), viaSet({mplsVia("10.0.0.4", eth(4), {1, 2, 30})}));
  EXPECT_EQ(cap.count("  handleTunnelFibEntry tunnelId: " + str(ldpId(1))), 1u);
}

// Only flattened vias count towards the limit of six labels, and only the
// overlong ones are dropped.
TEST_F(MplsTunnelFibSmTest, FlattenedStackKeepsOuterLabelsFirstAndStopsAtSix) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {11, 12, 13, 14})});
  w.addLdp(ldpId(2), {mplsVia("10.0.0.2", eth(2), {21, 22, 23, 24, 25})});
  w.addLdp(ldpId(3), {mplsVia("10.0.0.1", eth(1), {11}), mplsVia("10.0.0.2", eth(2), {21, 22, 23, 24, 25}),
                      mplsVia("10.0.0.3", eth(3), {})});
  w.addBgpLu(bgpLuId(1), push({1, 2}), {ldpId(1)});
  w.addBgpLu(bgpLuId(2), push({1, 2}), {ldpId(2)});
  w.addBgpLu(bgpLuId(3), push({1, 2}), {ldpId(3)});
  w.addBgpLu(bgpLuId(4), push({1, 2, 3, 4, 5, 6}), {}, {Via(nh("10.0.0.1"), eth(1))});
  w.start();
  Skein::CaptureSink cap(7);
  w.drain();

  auto const six = fibViasOf(w, bgpLuId(1));
  ASSERT_EQ(six.size(), 1u);
  MplsLabelOperation const& labels = six.begin()->labels();
  EXPECT_EQ(labels.stackSize(), 6u);
  EXPECT_EQ(labels.labels(), (std::vector<std::uint32_t>{1, 2, 11, 12, 13, 14}));
  EXPECT_EQ(labels.operation(), Nimbo::MplsAction::push);

  // 2 + 5: the only via is dropped, so the tunnel is unprogrammable, but it
  // still counts as resolved through the inner tunnel.
  MplsVia const inner = mplsVia("10.0.0.2", eth(2), {21, 22, 23, 24, 25});
  std::string const dropped = "      Ignored flattened MplsVia for tunnel " + str(bgpLuId(2)) + " via " +
                              str(inner) + " (label stack too large)";
  EXPECT_EQ(cap.count(dropped), 1u);
  EXPECT_EQ(levelOf(cap, dropped), 7);
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

TEST_F(MplsTunnelFibSmTest, FlatteningKeepsTheOuterOperationAndItsHiddenSlots) {
  // A swap over a push: the outer operation stays, and the outer operation's
  // slots beyond the stack are copied as they are.
  MplsLabelOperation outer(Nimbo::MplsAction::swap, {7});
  outer.labelIs(5, 99);  // beyond the stack: hidden, but part of equality
  LdpSrTunnelTableEntry ldpEntry(ldpId(1));
  ldpEntry.viaIs(mplsVia("10.0.0.1", eth(1), {8}), true);
  w.ldp->entryIs(ldpEntry);
  LdpSrTunnelTableEntry srEntry(srId(1));
  srEntry.viaIs(MplsVia(nh("0.0.0.0"), ldpId(1).intfId(), outer), true);
  w.sr->entryIs(srEntry);
  w.start();
  w.drain();
  auto const vias = fibViasOf(w, srId(1));
  ASSERT_EQ(vias.size(), 1u);
  MplsLabelOperation expected(Nimbo::MplsAction::swap, {7, 8});
  expected.labelIs(5, 99);
  EXPECT_EQ(vias.begin()->labels(), expected);
}

TEST_F(MplsTunnelFibSmTest, NonPushLabelOperationIsTracedButItsViasAreUsed) {
  BgpLuTunnelTableEntry e(bgpLuId(1));
  e.labelsIs(MplsLabelOperation(Nimbo::MplsAction::swap, {100}));
  e.viaIs(Via(nh("10.0.0.1"), eth(1)), true);
  w.bgpLu->entryIs(e);
  w.start();
  Skein::CaptureSink cap(7);
  w.drain();
  std::string const line = "Non push label operation for tableEntry: " + str(e) + " !!";
  ASSERT_EQ(cap.count(line), 1u);
  EXPECT_EQ(levelOf(cap, line), 7);
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)),
            viaSet({MplsVia(nh("10.0.0.1"), eth(1), MplsLabelOperation(Nimbo::MplsAction::swap, {100}))}));
}

TEST_F(MplsTunnelFibSmTest, TwoTunnelCycleGivesTheSecondReviewedNoViaThroughTheFirst) {
  TunnelId const a = staticId(1), b = staticId(2);
  w.addStatic(a, push({1}), {Via(nh("10.0.0.1"), eth(1)), Via(nh("0.0.0.0"), b.intfId())});
  w.addStatic(b, push({2}), {Via(nh("10.0.0.2"), eth(2)), Via(nh("0.0.0.0"), a.intfId())});
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
  for (auto const& v : fibViasOf(w, x))
    EXPECT_FALSE(Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId()));
  for (auto const& v : fibViasOf(w, y))
    EXPECT_FALSE(Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId()));
  expectConsistentMaps(*w.sm);
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
  w.addStatic(a, push({100}), {Via(nh("0.0.0.0"), b.intfId())});
  w.addStatic(b, push({}), {Via(nh("0.0.0.0"), c.intfId()), Via(nh("10.0.0.2"), eth(2))});
  w.addStatic(c, push({}), {Via(nh("0.0.0.0"), a.intfId()), Via(nh("10.0.0.3"), eth(3))});
  w.scheduler->yieldEveryIs(6);
  w.start();
  Skein::CaptureSink cap(7);
  for (int run = 0; run < 50; ++run) {
    ASSERT_TRUE(w.sm->task()->taskScheduled()) << run;
    w.clock->advance(w.sm->tunnelReviewDelay());
    ASSERT_TRUE(w.scheduler->runOne());
    for (auto const& [id, entry] : w.fib->entrys()) {
      EXPECT_FALSE(entry.vias().empty());
      for (MplsVia const& v : entry.vias()) {
        EXPECT_FALSE(Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId()));
        EXPECT_LE(v.labels().stackSize(), 6u);
      }
    }
  }
  EXPECT_EQ(w.reviewed(), 300u);
  EXPECT_EQ(cap.count("    Cycle detected while trying to create MplsVia for tunnelId " + str(b) +
                      " via tunnelId " + str(c)),
            cap.count("    Cycle detected while trying to create MplsVia for tunnelId " + str(c) +
                      " via tunnelId " + str(a)));
  EXPECT_GE(cap.count("Cycle detected"), 30u);
}

TEST_F(MplsTunnelFibSmTest, TunnelOverAnUnprogrammedTunnelWaitsAndIsNowProgrammable) {
  w.addBgpLu(bgpLuId(1), push({100}), {ldpId(1)});
  w.start();
  Skein::CaptureSink cap(8);
  w.drain();
  EXPECT_FALSE(w.inFib(bgpLuId(1)));
  EXPECT_TRUE(w.isUnprogrammable(bgpLuId(1)));
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::MplsTunnelFibSm::updateTunnelFibEntry(const "
                      "Tunnel::TunnelTable::TunnelId&) " +
                      str(bgpLuId(1)) + " is unprogrammable"),
            1u);
  // No via was visited, so nothing is resolved; the dependency stays.
  EXPECT_FALSE(w.sm->resolvedByTunnelss().contains(bgpLuId(1)));
  EXPECT_EQ(members(w.sm->directlyDependentTunnels(ldpId(1))), ids({bgpLuId(1)}));

  cap.clear();
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.drain();
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.1", eth(1), {100, 16})}));
  EXPECT_FALSE(w.isUnprogrammable(bgpLuId(1)));
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::MplsTunnelFibSm::updateTunnelFibEntry(const "
                      "Tunnel::TunnelTable::TunnelId&) " +
                      str(bgpLuId(1)) + " is now programmable"),
            1u);
}

TEST_F(MplsTunnelFibSmTest, LosingTheInnerTunnelMakesTheOuterUnprogrammable) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.addBgpLu(bgpLuId(1), push({100}), {ldpId(1)});
  w.start();
  w.drain();
  ASSERT_TRUE(w.inFib(bgpLuId(1)));
  w.ldp->entryDel(ldpId(1));
  w.drain();
  EXPECT_FALSE(w.inFib(ldpId(1)));
  EXPECT_FALSE(w.isUnprogrammable(ldpId(1)));  // gone, not unprogrammable
  EXPECT_FALSE(w.inFib(bgpLuId(1)));
  EXPECT_TRUE(w.isUnprogrammable(bgpLuId(1)));
  EXPECT_FALSE(w.sm->resolvedByTunnelss().contains(bgpLuId(1)));
  EXPECT_TRUE(w.sm->directlyDependentTunnels(ldpId(1)).contains(bgpLuId(1)));
}

TEST_F(MplsTunnelFibSmTest, MovingToAnotherInnerTunnelMovesTheDependencies) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.addLdp(ldpId(2), {mplsVia("10.0.0.2", eth(2), {17})});
  w.addBgpLu(bgpLuId(1), push({100}), {ldpId(1)});
  w.start();
  w.drain();
  w.addBgpLu(bgpLuId(1), push({100}), {ldpId(2)});
  w.drain();
  EXPECT_FALSE(w.sm->directlyDependentTunnelss().contains(ldpId(1)));
  EXPECT_EQ(members(w.sm->directlyDependentTunnels(ldpId(2))), ids({bgpLuId(1)}));
  EXPECT_EQ(members(w.sm->resolvedByTunnels(bgpLuId(1))), ids({ldpId(2)}));
  EXPECT_EQ(fibViasOf(w, bgpLuId(1)), viaSet({mplsVia("10.0.0.2", eth(2), {100, 17})}));

  // A change of the old inner tunnel wakes nobody now.
  std::uint64_t const before = w.reviewed();
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {18})});
  w.drain();
  EXPECT_EQ(w.reviewed() - before, 1u);

  w.bgpLu->entryDel(bgpLuId(1));
  w.drain();
  EXPECT_TRUE(w.sm->directlyDependentTunnelss().empty());
  EXPECT_TRUE(w.sm->tunnelsDirectlyDependingOns().empty());
  EXPECT_TRUE(w.sm->resolvedByTunnelss().empty());
  EXPECT_FALSE(w.isUnprogrammable(bgpLuId(1)));
}

TEST_F(MplsTunnelFibSmTest, UnchangedFibEntryWakesNoDependents) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.addBgpLu(bgpLuId(1), push({100}), {ldpId(1)});
  w.start();
  w.drain();
  std::uint64_t const before = w.reviewed();
  // A new metric changes the table entry but not the FIB entry.
  LdpSrTunnelTableEntry e = w.ldp->entry(ldpId(1));
  e.igpMetricIs(20);
  w.ldp->entryIs(e);
  w.drain();
  EXPECT_EQ(w.reviewed() - before, 1u);
}

TEST_F(MplsTunnelFibSmTest, TableEntryAddedAndRemovedBeforeTheTaskRunsIsReviewedOnce) {
  w.start();
  w.drain();
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.ldp->entryDel(ldpId(1));
  w.drain();
  EXPECT_EQ(w.reviewed(), 1u);
  EXPECT_FALSE(w.inFib(ldpId(1)));
  EXPECT_FALSE(w.isUnprogrammable(ldpId(1)));
  EXPECT_TRUE(w.fib->entrys().empty());
}

TEST_F(MplsTunnelFibSmTest, TunnelWithoutViasIsUnprogrammableUntilItGetsOne) {
  w.addLdp(ldpId(1), {});
  w.start();
  w.drain();
  EXPECT_TRUE(w.isUnprogrammable(ldpId(1)));
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.drain();
  EXPECT_FALSE(w.isUnprogrammable(ldpId(1)));
  w.addLdp(ldpId(1), {});
  w.drain();
  EXPECT_FALSE(w.inFib(ldpId(1)));
  EXPECT_TRUE(w.isUnprogrammable(ldpId(1)));
  w.ldp->entryDel(ldpId(1));
  w.drain();
  EXPECT_FALSE(w.isUnprogrammable(ldpId(1)));
}

// --- start-up over a populated FIB ---------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, StartUpRemovesStaleEntriesFirstAndDependentsWaitForUnprocessedOnes) {
  MplsVia const ldpVia = mplsVia("10.0.0.1", eth(1), {16});
  // An outer BGP LU tunnel reviewed before its inner LDP tunnel.
  TunnelId inner = ldpId(1);
  TunnelId outer = bgpLuId(1);
  for (std::uint64_t i = 1; orderOf(outer) > orderOf(inner); ++i) outer = bgpLuId(i);
  TunnelId const stale = ldpId(99);

  // The LDP entry left in the FIB is exactly what its review computes, so
  // the review changes nothing and no FIB notification wakes the outer one.
  MplsTunnelFibEntry kept(inner);
  kept.viaIs(ldpVia, true);
  w.fib->entryIs(kept);
  MplsTunnelFibEntry old(stale);
  old.viaIs(mplsVia("10.0.0.9", eth(9), {99}), true);
  w.fib->entryIs(old);
  w.addLdp(inner, {ldpVia});
  w.addBgpLu(outer, push({100}), {inner});

  Skein::CaptureSink cap(8);
  w.start();
  EXPECT_FALSE(w.inFib(stale));
  EXPECT_TRUE(w.inFib(inner));
  EXPECT_TRUE(w.sm->tunnelFibEntryMarkedUnprocessed(inner));
  EXPECT_FALSE(w.sm->tunnelFibEntryMarkedUnprocessed(stale));
  EXPECT_TRUE(cap.contains("void Tunnel::TunnelTable::MplsTunnelFibSm::removeStaleEntries() tunnel id " +
                           str(inner) + " is not stale."));
  EXPECT_FALSE(cap.contains("tunnel id " + str(stale) + " is not stale."));

  cap.clear();
  w.drain();
  EXPECT_EQ(cap.count("      Skipping vias for tunnel " + str(inner) + " (marked unprocessed)"), 1u);
  EXPECT_EQ(reviewOrder(cap), (std::vector<std::uint64_t>{outer.value(), inner.value(), outer.value()}));
  EXPECT_EQ(fibViasOf(w, outer), viaSet({mplsVia("10.0.0.1", eth(1), {100, 16})}));
  EXPECT_FALSE(w.isUnprogrammable(outer));
  EXPECT_TRUE(w.sm->tunnelFibEntryMarkedUnprocesseds().empty());
}

TEST_F(MplsTunnelFibSmTest, StartUpOverFibEntriesOfKindsWithoutTableRemovesThem) {
  MplsTunnelFibEntry e(makeId(TunnelType::nexthopTunnel, 1));
  e.viaIs(mplsVia("10.0.0.1", eth(1), {16}), true);
  w.fib->entryIs(e);
  Skein::CaptureSink cap(8);
  w.start();
  EXPECT_TRUE(w.fib->entrys().empty());
  EXPECT_TRUE(cap.contains("Unknown tunnel type nexthopTunnel"));
  w.drain();
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
  std::vector<TunnelId> queued;
  for (std::uint64_t i = 1; i <= 10; ++i) {
    w.addLdp(ldpId(i), {mplsVia("10.0.0.1", eth(1), {std::uint32_t(i)})});
    queued.push_back(ldpId(i));
  }
  std::sort(queued.begin(), queued.end(), [](TunnelId a, TunnelId b) { return orderOf(a) < orderOf(b); });
  w.start();
  w.scheduler->yieldEveryIs(4);

  Skein::CaptureSink cap(8);
  ASSERT_TRUE(w.scheduler->runOne());
  EXPECT_EQ(reviewOrder(cap), (std::vector<std::uint64_t>{queued[0].value(), queued[1].value(),
                                                          queued[2].value(), queued[3].value()}));
  EXPECT_TRUE(cap.contains("drainTunnelBacklog: Yielding"));
  EXPECT_TRUE(cap.contains("drainTunnelBacklog: Reviewed 4 tunnels. 6 remain in the backlog."));
  EXPECT_EQ(w.sm->tunnelReviewBookmark(), queued[4]);
  EXPECT_EQ(w.sm->task()->taskWorkPending(), 6u);
  // Work is pending: the next run waits for the review delay.
  ASSERT_TRUE(w.sm->task()->taskDueTime());
  EXPECT_DOUBLE_EQ(*w.sm->task()->taskDueTime(), w.clock->now() + 0.01);
  EXPECT_FALSE(w.scheduler->runOne());

  // A tunnel queued behind the bookmark is reviewed after the wrap-around.
  TunnelId behind = ldpId(11);
  for (std::uint64_t i = 12; orderOf(behind) >= orderOf(queued[4]); ++i) behind = ldpId(i);
  w.addLdp(behind, {mplsVia("10.0.0.1", eth(1), {5000})});

  cap.clear();
  w.drain();
  std::vector<std::uint64_t> expected;
  for (std::size_t i = 4; i < queued.size(); ++i) expected.push_back(queued[i].value());
  expected.push_back(behind.value());
  EXPECT_EQ(reviewOrder(cap), expected);
  EXPECT_EQ(w.sm->tunnelReviewBookmark(), TunnelId());
  EXPECT_EQ(w.sm->task()->taskWorkCount(), 11u);
  EXPECT_EQ(w.fib->entrys().size(), 11u);
}

TEST_F(MplsTunnelFibSmTest, TunnelsQueuedBehindTheIteratorAreReviewedInTheSameRun) {
  // The LDP tunnel comes late in the order, its dependents early: they are
  // reviewed, woken by the LDP entry and reviewed again after the wrap-around.
  TunnelId const inner = ldpId(1);
  std::vector<TunnelId> outers;
  for (std::uint64_t i = 1; outers.size() < 3; ++i) {
    if (orderOf(bgpLuId(i)) < orderOf(inner)) outers.push_back(bgpLuId(i));
  }
  w.addLdp(inner, {mplsVia("10.0.0.1", eth(1), {16})});
  for (TunnelId o : outers) w.addBgpLu(o, push({100}), {inner});
  w.start();
  Skein::CaptureSink cap(6);
  ASSERT_TRUE(w.scheduler->runOne());
  EXPECT_EQ(w.sm->task()->runCount(), 1u);
  EXPECT_EQ(w.reviewed(), 7u);
  EXPECT_TRUE(cap.contains("drainTunnelBacklog: Reviewed 7 tunnels. 0 remain in the backlog."));
  for (TunnelId o : outers) EXPECT_EQ(fibViasOf(w, o), viaSet({mplsVia("10.0.0.1", eth(1), {100, 16})}));
}

TEST_F(MplsTunnelFibSmTest, FirstYieldOfARunThatQueuedWorkIsNotDelayed) {
  // Work pending is what delays a review. A run that starts with none
  // pending schedules the task at once when its reviews queue dependents, so
  // its own yield finds the task already scheduled and adds no delay. Kept
  // as it is: the delay applies from the second yielding run on.
  TunnelId const inner = ldpId(1);
  w.addLdp(inner, {mplsVia("10.0.0.1", eth(1), {16})});
  for (std::uint64_t i = 1; i <= 20; ++i) w.addBgpLu(bgpLuId(i), push({100}), {inner});
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
    w.addLdp(ldpId(i), {mplsVia("10.0.1.1", eth(std::uint32_t(i)), {std::uint32_t(16 + i)}),
                        mplsVia("10.0.1.2", eth(std::uint32_t(10 + i)), {std::uint32_t(32 + i), 7})});
  }
  for (std::uint64_t i = 1; i <= 30; ++i) {
    w.addBgpLu(bgpLuId(i), push({std::uint32_t(1000 + i)}), {ldpId(1 + i % 6), ldpId(1 + (i * 5) % 6)});
  }
  for (std::uint64_t i = 1; i <= 10; ++i) {
    w.addStatic(staticId(i), push({std::uint32_t(2000 + i), 5}),
                {Via(nh("0.0.0.0"), bgpLuId(i * 3).intfId()), Via(nh("10.0.2.1"), eth(40))});
  }
}

TEST_F(MplsTunnelFibSmTest, YieldingEveryFewReviewsGivesTheSameFibAsOneRun) {
  World reference;
  buildMixedGraph(reference);
  reference.start();
  reference.drain();
  ASSERT_EQ(reference.sm->task()->runCount(), 1u);

  for (std::uint32_t every : {1u, 2u, 3u, 7u}) {
    SCOPED_TRACE(every);
    World yielding;
    buildMixedGraph(yielding);
    yielding.scheduler->yieldEveryIs(every);
    yielding.start();
    yielding.drain();
    EXPECT_GT(yielding.sm->task()->runCount(), 3u);
    EXPECT_EQ(yielding.fib->entrys().size(), reference.fib->entrys().size());
    for (auto const& [id, entry] : reference.fib->entrys()) {
      EXPECT_TRUE(yielding.fib->entry(id) == entry) << id;
    }
    EXPECT_TRUE(yielding.unprogrammable->entrys().empty());
    expectConsistentMaps(*yielding.sm);
  }
}

// --- failures and deliberate oddities ------------------------------------------------------------

TEST_F(MplsTunnelFibSmTest, UnsupportedTunnelTypesAreAFatalAssertion) {
  w.start();
  w.drain();
  for (TunnelType type : {TunnelType::invalidTunnel, TunnelType::nexthopTunnel, TunnelType::evpnVxlanTunnel,
                          TunnelType::staticInterfaceTunnel, TunnelType::maxTunnelType}) {
    SCOPED_TRACE(str(type));
    TunnelId const id(std::uint64_t(type) << 44 | 1);
    EXPECT_EQ(assertionText([&] { w.sm->updateTunnelFibEntry(id); }), "0 && \"Unsupported tunnel type\"");
  }
  // Queued from a table, it asserts in the review task.
  LdpSrTunnelTableEntry e(makeId(TunnelType::nexthopTunnel, 3));
  e.viaIs(mplsVia("10.0.0.1", eth(1), {16}), true);
  w.ldp->entryIs(e);
  Vela::ScopedAssertionCatcher catcher;
  EXPECT_THROW(w.drain(), Vela::AssertionFailure);
}

TEST_F(MplsTunnelFibSmTest, KindsTenToFourteenAreUnprogrammableAsIfTheirEntryExisted) {
  w.start();
  w.drain();
  for (std::uint64_t type = 10; type <= 14; ++type) {
    SCOPED_TRACE(type);
    TunnelId const id(type << 44 | 5);
    LdpSrTunnelTableEntry e(id);
    e.viaIs(mplsVia("10.0.0.1", eth(1), {16}), true);
    w.ldp->entryIs(e);
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
}

TEST_F(MplsTunnelFibSmTest, DynamicInterfaceWithAnOutOfRangeTunnelRaisesTheRangeError) {
  w.start();
  w.drain();
  // Type 58 with part 1 = 2^27: the tunnel value it encodes has 50 bits.
  IntfId const bad((std::uint64_t(58) << 56) | (std::uint64_t(1) << 27 << 28) | 1);
  w.addLdp(ldpId(1), {MplsVia(nh("0.0.0.0"), bad, push({16}))});
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { w.drain(); }),
            "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
}

TEST_F(MplsTunnelFibSmTest, ResolutionWritesOnlyTheEntryUnderConstruction) {
  w.addLdp(ldpId(1), {mplsVia("10.0.0.1", eth(1), {16})});
  w.start();
  w.drain();
  MplsTunnelFibEntry e(bgpLuId(5));
  calculateTunnelFibEntryMplsVia(w.sm, e, overTunnel(ldpId(1), {7}));
  calculateTunnelFibEntryMplsVia(w.sm, e, mplsVia("10.0.0.2", eth(2), {8}));
  EXPECT_EQ(e.vias().size(), 2u);
  EXPECT_TRUE(e.via(mplsVia("10.0.0.1", eth(1), {7, 16})));
  EXPECT_TRUE(e.via(mplsVia("10.0.0.2", eth(2), {8})));
  EXPECT_FALSE(w.inFib(bgpLuId(5)));
  // The bookkeeping is the state machine's.
  EXPECT_TRUE(w.sm->directlyDependentTunnels(ldpId(1)).contains(bgpLuId(5)));
  EXPECT_TRUE(w.sm->resolvedByTunnels(bgpLuId(5)).contains(ldpId(1)));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
