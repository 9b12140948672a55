// What the aggregator hands the MPLS tunnel FIB machine (the six tables, the
// FIB and the unprogrammable set) on a manual clock, and the checks that hold
// whatever the tunnel graph; the FIB machine's tests build on them.
#pragma once

#include <gtest/gtest.h>

#include "TunnelTable/MplsTunnelFibSm.h"
#include "framework/Quay/Clock.h"

namespace Tunnel::TunnelTable::fibtest {

struct FibMachineWorld {
  Vela::Ptr<Quay::ManualClock> clock = Vela::make<Quay::ManualClock>();
  Vela::Ptr<Quay::TaskScheduler> scheduler = Vela::make<Quay::TaskScheduler>(clock);
  Vela::Ptr<MplsTunnelFib> fib = Vela::make<MplsTunnelFib>("mplsTunnelFib");
  Vela::Ptr<TunnelIdColl> unprogrammable = tunnelIdCollFactory("unprogrammableTunnelId");
  Vela::Ptr<BgpLuTunnelTable> bgpLu = Vela::make<BgpLuTunnelTable>("bgpLu");
  Vela::Ptr<LdpTunnelTable> ldp = Vela::make<LdpTunnelTable>("ldp");
  Vela::Ptr<SrTunnelTable> sr = Vela::make<SrTunnelTable>("sr");
  Vela::Ptr<BgpLuPushTunnelTable> bgpLuPush = Vela::make<BgpLuPushTunnelTable>("bgpLuPush");
  Vela::Ptr<StaticTunnelTable> staticTable = Vela::make<StaticTunnelTable>("static");
  Vela::Ptr<SrTeSegmentListTunnelTable> srTe = Vela::make<SrTeSegmentListTunnelTable>("srTeSegmentList");
  Vela::Ptr<MplsTunnelFibSm> sm;

  ~FibMachineWorld() {
    if (sm) sm->hasNotificationActiveIs(false);
  }
  void start() {
    sm = mplsTunnelFibSmFactory(fib, unprogrammable, bgpLu, ldp, sr, bgpLuPush, staticTable, srTe, scheduler);
  }
  void drain() { scheduler->runUntilIdle(); }

  // Calls f with the table of tunnels of `type`; false when there is none.
  template <class F>
  bool withTable(TunnelType type, F&& f) const {
    switch (type) {
      case TunnelType::bgpLuPushTunnel:
        return f(*bgpLuPush), true;
      case TunnelType::bgpLuTunnel:
        return f(*bgpLu), true;
      case TunnelType::staticTunnel:
        return f(*staticTable), true;
      case TunnelType::ldpTunnel:
        return f(*ldp), true;
      case TunnelType::srTunnel:
        return f(*sr), true;
      case TunnelType::srTeSegmentListTunnel:
        return f(*srTe), true;
      default:
        return false;
    }
  }

  // Every FIB entry is flat (no via through a tunnel, at most six labels),
  // not empty, and its tunnel is not unprogrammable.
  void expectFlatFib() const {
    for (auto const& [id, entry] : fib->entrys()) {
      EXPECT_EQ(entry.tunnelId(), id);
      EXPECT_FALSE(entry.vias().empty()) << id.toStrep();
      EXPECT_FALSE(unprogrammable->entry(id)) << id.toStrep();
      for (MplsVia const& v : entry.vias()) {
        EXPECT_FALSE(Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId()))
            << id.toStrep() << " " << v;
        EXPECT_LE(v.labels().stackSize(), 6u) << id.toStrep();
      }
    }
  }

  // The dependency maps agree with each other and keep no empty sets.
  void expectConsistentMaps() const {
    for (auto const& [x, dependents] : sm->directlyDependentTunnelss()) {
      EXPECT_FALSE(dependents.empty()) << "directlyDependentTunnels " << x;
      for (TunnelId const& y : dependents)
        EXPECT_TRUE(sm->tunnelsDirectlyDependingOn(y).contains(x)) << y << " -> " << x;
    }
    for (auto const& [y, inners] : sm->tunnelsDirectlyDependingOns()) {
      EXPECT_FALSE(inners.empty()) << "tunnelsDirectlyDependingOn " << y;
      for (TunnelId const& x : inners)
        EXPECT_TRUE(sm->directlyDependentTunnels(x).contains(y)) << y << " -> " << x;
    }
    for (auto const& [y, resolved] : sm->resolvedByTunnelss()) EXPECT_FALSE(resolved.empty()) << y;
  }
};

}  // namespace Tunnel::TunnelTable::fibtest
