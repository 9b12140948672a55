// What the aggregator hands the MPLS tunnel FIB machine (the six tables, the
// FIB and the unprogrammable set) on a manual clock; the FIB machine's tests
// build on it.
#pragma once

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
};

}  // namespace Tunnel::TunnelTable::fibtest
