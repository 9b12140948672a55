// The tunnel agent and its aggregator.
//
// Tunnel::TunnelTable::Agent mounts the tunnel state of the database (the
// directory of protocol tunnel tables, the tunnel RIB, the four per-protocol
// tunnel RIBs and the MPLS tunnel FIB) and, once the mounts complete, builds
// the aggregator. TunnelAggregatorSm watches the directory of protocol
// tables: when the five required tables are present it creates the shared
// unprogrammable set, then TunnelRibSm, then MplsTunnelFibSm; the removal of
// any directory entry stops both machines again until a table is next added.
#pragma once

#include "TunnelFib/TunnelFib.h"
#include "TunnelTable/MplsTunnelFibSm.h"
#include "TunnelTable/TunnelRibSm.h"
#include "TunnelTable/TunnelTable.h"
#include "framework/Plinth/CAgent.h"
#include "framework/Quay/TaskScheduler.h"
#include "framework/Vela/Entity.h"

namespace Tunnel::TunnelTable {

using Tunnel::TunnelFib::MplsTunnelFib;

class TunnelAggregatorSm : public Vela::Entity {
 public:
  TunnelAggregatorSm(Vela::Ptr<Vela::Dir const> protoTunnelTablesDir, Vela::Ptr<TunnelRib> tunnelRib,
                     Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                     Vela::Ptr<MplsTunnelFib> mplsTunnelFib, Vela::Ptr<Quay::TaskScheduler> scheduler);
  ~TunnelAggregatorSm() override;
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelAggregatorSm"; }

  void handleProtoTunnelTable();
  void handleProtoTunnelTable(Vela::String8 const& name);
  void maybeStartStateMachines();

  void tunnelRibSmIs(Vela::Ptr<TunnelRib> const& tunnelRib,
                     Vela::Ptr<ProtocolTunnelRibCollection> const& protoTunnelRibColl,
                     Vela::Ptr<BgpLuTunnelTable const> const& bgpLuTable,
                     Vela::Ptr<LdpTunnelTable const> const& ldpTable,
                     Vela::Ptr<SrTunnelTable const> const& srTable,
                     Vela::Ptr<StaticTunnelTable const> const& staticTable,
                     Vela::Ptr<TunnelIdColl const> const& unprogrammableTunnelId,
                     Vela::Ptr<Vela::Dir const> const& protoTunnelTablesDir);
  void tunnelRibSmDel();
  void mplsTunnelFibSmIs(Vela::Ptr<MplsTunnelFib> const& mplsTunnelFib,
                         Vela::Ptr<TunnelIdColl> const& unprogrammableTunnelId,
                         Vela::Ptr<BgpLuTunnelTable const> const& bgpLuTable,
                         Vela::Ptr<LdpTunnelTable const> const& ldpTable,
                         Vela::Ptr<SrTunnelTable const> const& srTable,
                         Vela::Ptr<BgpLuPushTunnelTable const> const& bgpLuPushTable,
                         Vela::Ptr<StaticTunnelTable const> const& staticTable,
                         Vela::Ptr<SrTeSegmentListTunnelTable const> const& srTeSegmentListTable,
                         Vela::Ptr<Quay::TaskScheduler> const& scheduler);
  void mplsTunnelFibSmDel();
  void unprogrammableTunnelIdIs();
  void unprogrammableTunnelIdDel();

  Vela::Ptr<Vela::Dir const> const& protoTunnelTablesDir() const { return dirReactor_.notifier(); }
  Vela::Ptr<TunnelRib> const& tunnelRib() const { return tunnelRib_; }
  Vela::Ptr<ProtocolTunnelRibCollection> const& protoTunnelRibColl() const { return protoTunnelRibColl_; }
  Vela::Ptr<MplsTunnelFib> const& mplsTunnelFib() const { return mplsTunnelFib_; }
  Vela::Ptr<Quay::TaskScheduler> const& scheduler() const { return scheduler_; }
  Vela::Ptr<BgpLuTunnelTable const> const& bgpLuTable() const { return bgpLuTable_; }
  Vela::Ptr<LdpTunnelTable const> const& ldpTable() const { return ldpTable_; }
  Vela::Ptr<SrTunnelTable const> const& srTable() const { return srTable_; }
  Vela::Ptr<BgpLuPushTunnelTable const> const& bgpLuPushTable() const { return bgpLuPushTable_; }
  Vela::Ptr<StaticTunnelTable const> const& staticTable() const { return staticTable_; }
  Vela::Ptr<SrTeSegmentListTunnelTable const> const& srTeSegmentListTable() const {
    return srTeSegmentListTable_;
  }
  void bgpLuTableIs(Vela::Ptr<BgpLuTunnelTable const> const& t) { bgpLuTable_ = t; }
  void ldpTableIs(Vela::Ptr<LdpTunnelTable const> const& t) { ldpTable_ = t; }
  void srTableIs(Vela::Ptr<SrTunnelTable const> const& t) { srTable_ = t; }
  void bgpLuPushTableIs(Vela::Ptr<BgpLuPushTunnelTable const> const& t) { bgpLuPushTable_ = t; }
  void staticTableIs(Vela::Ptr<StaticTunnelTable const> const& t) { staticTable_ = t; }
  void srTeSegmentListTableIs(Vela::Ptr<SrTeSegmentListTunnelTable const> const& t) {
    srTeSegmentListTable_ = t;
  }
  Vela::Ptr<TunnelIdColl> const& unprogrammableTunnelId() const { return unprogrammableTunnelId_; }
  Vela::Ptr<TunnelRibSm> const& tunnelRibSm() const { return tunnelRibSm_; }
  Vela::Ptr<MplsTunnelFibSm> const& mplsTunnelFibSm() const { return mplsTunnelFibSm_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

 private:
  class DirReactor : public Vela::Reactor<Vela::Dir> {
   public:
    explicit DirReactor(TunnelAggregatorSm* sm) : sm_(sm) {}

   protected:
    void onNotifier(Vela::Dir const& dir) override {
      watch(dir.entries().changed(), [this](Vela::Name const& name) { sm_->handleProtoTunnelTable(name); });
    }

   private:
    TunnelAggregatorSm* sm_;
  };

  DirReactor dirReactor_{this};
  Vela::Ptr<TunnelRib> tunnelRib_;
  Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl_;
  Vela::Ptr<MplsTunnelFib> mplsTunnelFib_;
  Vela::Ptr<Quay::TaskScheduler> scheduler_;
  Vela::Ptr<BgpLuTunnelTable const> bgpLuTable_;
  Vela::Ptr<LdpTunnelTable const> ldpTable_;
  Vela::Ptr<SrTunnelTable const> srTable_;
  Vela::Ptr<BgpLuPushTunnelTable const> bgpLuPushTable_;
  Vela::Ptr<StaticTunnelTable const> staticTable_;
  Vela::Ptr<SrTeSegmentListTunnelTable const> srTeSegmentListTable_;
  Vela::Ptr<TunnelIdColl> unprogrammableTunnelId_;
  Vela::Ptr<TunnelRibSm> tunnelRibSm_;
  Vela::Ptr<MplsTunnelFibSm> mplsTunnelFibSm_;
  bool initialized_ = false;
};

// The tunnel agent: mounts the tunnel state and runs the aggregator.
class Agent : public Plinth::CAgent {
 public:
  explicit Agent(Vela::Ptr<Corvel::EntityManager> entityManager, Vela::Name name = "TunnelAgent");
  ~Agent() override;
  std::string_view typeName() const override { return "Tunnel::TunnelTable::Agent"; }

  void doInit(Vela::Ptr<Corvel::EntityManager> const& entityManager) override;
  void doMountsComplete(Corvel::MountStatus status,
                        Vela::Ptr<Corvel::EntityManager> const& entityManager) override;

  Vela::Ptr<Vela::Dir const> const& tunnelTablesDir() const { return tunnelTablesDir_; }
  void tunnelTablesDirIs(Vela::Ptr<Vela::Dir const> const& d) { tunnelTablesDir_ = d; }
  Vela::Ptr<TunnelRib> const& tunnelRib() const { return tunnelRib_; }
  void tunnelRibIs(Vela::Ptr<TunnelRib> const& r) { tunnelRib_ = r; }
  Vela::Ptr<ProtocolTunnelRibCollection> const& protoTunnelRibColl() const { return protoTunnelRibColl_; }
  Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibCollIs(Vela::Name const& name);
  void protoTunnelRibCollDel() { protoTunnelRibColl_ = nullptr; }
  Vela::Ptr<MplsTunnelFib> const& mplsTunnelFib() const { return mplsTunnelFib_; }
  void mplsTunnelFibIs(Vela::Ptr<MplsTunnelFib> const& f) { mplsTunnelFib_ = f; }
  Vela::Ptr<TunnelAggregatorSm> const& aggregatorSm() const { return aggregatorSm_; }
  Vela::Ptr<TunnelAggregatorSm> aggregatorSmIs(Vela::Ptr<Vela::Dir const> const& dir,
                                               Vela::Ptr<TunnelRib> const& tunnelRib,
                                               Vela::Ptr<ProtocolTunnelRibCollection> const& coll,
                                               Vela::Ptr<MplsTunnelFib> const& fib,
                                               Vela::Ptr<Quay::TaskScheduler> const& scheduler);
  void aggregatorSmDel() { aggregatorSm_ = nullptr; }
  Vela::Ptr<Plinth::SchedulerRoot> const& schedulerRoot() const { return schedulerRoot_; }
  Vela::Ptr<Plinth::SchedulerRoot> schedulerRootIs(Vela::String8 const& name);
  void schedulerRootDel() { schedulerRoot_ = nullptr; }

 private:
  Vela::Ptr<Vela::Dir const> tunnelTablesDir_;
  Vela::Ptr<TunnelRib> tunnelRib_;
  Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl_;
  Vela::Ptr<MplsTunnelFib> mplsTunnelFib_;
  Vela::Ptr<TunnelAggregatorSm> aggregatorSm_;
  Vela::Ptr<Plinth::SchedulerRoot> schedulerRoot_;
};

// Registers the entity types that the agent mounts by type name, so that the
// state database can create them when nobody has written them yet.
void registerTunnelTypes(Corvel::EntityManager& entityManager);

}  // namespace Tunnel::TunnelTable
