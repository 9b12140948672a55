#include "TunnelTable/TunnelAggregatorSm.h"

#include "framework/Skein/Trace.h"

namespace Tunnel::TunnelTable {

namespace {

constexpr char const kHandleDirFn[] =
    "void Tunnel::TunnelTable::TunnelAggregatorSm::handleProtoTunnelTable()";
constexpr char const kHandleEntryFn[] =
    "void Tunnel::TunnelTable::TunnelAggregatorSm::handleProtoTunnelTable(const Vela::String8&)";
constexpr char const kMaybeStartFn[] =
    "void Tunnel::TunnelTable::TunnelAggregatorSm::maybeStartStateMachines()";

template <class T>
Vela::Ptr<T> const& validPtr(Vela::Ptr<T> const& p) {
  if (!p) throw Vela::RangeException("null ValidPtr");
  return p;
}

}  // namespace

TunnelAggregatorSm::TunnelAggregatorSm(Vela::Ptr<Vela::Dir const> protoTunnelTablesDir,
                                       Vela::Ptr<TunnelRib> tunnelRib,
                                       Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                                       Vela::Ptr<MplsTunnelFib> mplsTunnelFib,
                                       Vela::Ptr<Quay::TaskScheduler> scheduler)
    : Entity("TunnelAggregatorSm"),
      tunnelRib_(std::move(tunnelRib)),
      protoTunnelRibColl_(std::move(protoTunnelRibColl)),
      mplsTunnelFib_(std::move(mplsTunnelFib)),
      scheduler_(validPtr(scheduler)) {
  dirReactor_.notifierIs(protoTunnelTablesDir);
  handleProtoTunnelTable();
}

TunnelAggregatorSm::~TunnelAggregatorSm() {
  dirReactor_.notifierIs(nullptr);
  unprogrammableTunnelIdDel();
  tunnelRibSmDel();
  mplsTunnelFibSmDel();
}

void TunnelAggregatorSm::handleProtoTunnelTable() {
  SKEIN_TRACE(8, kHandleDirFn);
  if (auto const& dir = protoTunnelTablesDir()) {
    // Names are copied first: a handler may change the directory's members.
    std::vector<Vela::Name> names;
    for (auto const& [name, entity] : dir->entries()) names.push_back(name);
    for (auto const& name : names) handleProtoTunnelTable(name);
  }
  maybeStartStateMachines();
}

void TunnelAggregatorSm::handleProtoTunnelTable(Vela::String8 const& name) {
  SKEIN_TRACE(8, kHandleEntryFn << " for Tunnel Table " << name);
  auto const& dir = protoTunnelTablesDir();
  auto entity = dir ? dir->entry(name) : nullptr;
  if (entity) {
    if (auto table = Vela::dynamicPtrCast<TunnelTableBase const>(entity)) {
      switch (table->tableType()) {
        case TunnelType::bgpLuTunnel:
          bgpLuTableIs(Vela::dynamicPtrCast<BgpLuTunnelTable const>(entity));
          break;
        case TunnelType::bgpLuPushTunnel:
          bgpLuPushTableIs(Vela::dynamicPtrCast<BgpLuPushTunnelTable const>(entity));
          break;
        case TunnelType::ldpTunnel:
          ldpTableIs(Vela::dynamicPtrCast<LdpTunnelTable const>(entity));
          break;
        case TunnelType::srTunnel:
          srTableIs(Vela::dynamicPtrCast<SrTunnelTable const>(entity));
          break;
        case TunnelType::staticTunnel:
          staticTableIs(Vela::dynamicPtrCast<StaticTunnelTable const>(entity));
          break;
        case TunnelType::srTeSegmentListTunnel:
          srTeSegmentListTableIs(Vela::dynamicPtrCast<SrTeSegmentListTunnelTable const>(entity));
          break;
        default:
          break;  // a table of another type is not ours
      }
    }
    maybeStartStateMachines();
    return;
  }
  SKEIN_TRACE(8, "Tunnel Table " << name << " was deleted ");
  // Any removal stops both machines, even of a name that matches no table;
  // they come back only when a table entry is next added or changed.
  tunnelRibSmDel();
  mplsTunnelFibSmDel();
  initializedIs(false);
  if (name == "bgpLu") {
    bgpLuTableIs(nullptr);
  } else if (name == "bgpLuPush") {
    bgpLuPushTableIs(nullptr);
  } else if (name == "ldp") {
    ldpTableIs(nullptr);
  } else if (name == "sr") {
    srTableIs(nullptr);
  } else if (name == "static") {
    staticTableIs(nullptr);
  } else if (name == "srTeSegmentList") {
    srTeSegmentListTableIs(nullptr);
  }
}

void TunnelAggregatorSm::maybeStartStateMachines() {
  SKEIN_TRACE(8, kMaybeStartFn);
  if (initialized_) return;
  if (!bgpLuTable_ || !bgpLuPushTable_ || !srTable_ || !staticTable_ || !ldpTable_) return;
  unprogrammableTunnelIdIs();
  tunnelRibSmIs(tunnelRib_, protoTunnelRibColl_, bgpLuTable_, ldpTable_, srTable_, staticTable_,
                unprogrammableTunnelId_, protoTunnelTablesDir());
  mplsTunnelFibSmIs(mplsTunnelFib_, unprogrammableTunnelId_, bgpLuTable_, ldpTable_, srTable_,
                    bgpLuPushTable_, staticTable_, srTeSegmentListTable_, scheduler_);
  initializedIs(true);
}

void TunnelAggregatorSm::tunnelRibSmIs(Vela::Ptr<TunnelRib> const& tunnelRib,
                                       Vela::Ptr<ProtocolTunnelRibCollection> const& protoTunnelRibColl,
                                       Vela::Ptr<BgpLuTunnelTable const> const& bgpLuTable,
                                       Vela::Ptr<LdpTunnelTable const> const& ldpTable,
                                       Vela::Ptr<SrTunnelTable const> const& srTable,
                                       Vela::Ptr<StaticTunnelTable const> const& staticTable,
                                       Vela::Ptr<TunnelIdColl const> const& unprogrammableTunnelId,
                                       Vela::Ptr<Vela::Dir const> const& protoTunnelTablesDir) {
  tunnelRibSmDel();
  tunnelRibSm_ = Vela::make<TunnelRibSm>(tunnelRib, protoTunnelRibColl, bgpLuTable, ldpTable, srTable,
                                         staticTable, unprogrammableTunnelId, protoTunnelTablesDir);
}

void TunnelAggregatorSm::tunnelRibSmDel() {
  if (!tunnelRibSm_) return;
  tunnelRibSm_->hasNotificationActiveIs(false);
  tunnelRibSm_ = nullptr;
}

void TunnelAggregatorSm::mplsTunnelFibSmIs(
    Vela::Ptr<MplsTunnelFib> const& mplsTunnelFib, Vela::Ptr<TunnelIdColl> const& unprogrammableTunnelId,
    Vela::Ptr<BgpLuTunnelTable const> const& bgpLuTable, Vela::Ptr<LdpTunnelTable const> const& ldpTable,
    Vela::Ptr<SrTunnelTable const> const& srTable,
    Vela::Ptr<BgpLuPushTunnelTable const> const& bgpLuPushTable,
    Vela::Ptr<StaticTunnelTable const> const& staticTable,
    Vela::Ptr<SrTeSegmentListTunnelTable const> const& srTeSegmentListTable,
    Vela::Ptr<Quay::TaskScheduler> const& scheduler) {
  mplsTunnelFibSmDel();
  mplsTunnelFibSm_ =
      Vela::make<MplsTunnelFibSm>(mplsTunnelFib, unprogrammableTunnelId, bgpLuTable, ldpTable, srTable,
                                  bgpLuPushTable, staticTable, srTeSegmentListTable, scheduler);
}

void TunnelAggregatorSm::mplsTunnelFibSmDel() {
  if (!mplsTunnelFibSm_) return;
  mplsTunnelFibSm_->hasNotificationActiveIs(false);
  mplsTunnelFibSm_ = nullptr;
}

void TunnelAggregatorSm::unprogrammableTunnelIdIs() {
  if (!unprogrammableTunnelId_) unprogrammableTunnelId_ = tunnelIdCollFactory();
}

void TunnelAggregatorSm::unprogrammableTunnelIdDel() { unprogrammableTunnelId_ = nullptr; }

Agent::Agent(Vela::Ptr<Corvel::EntityManager> entityManager, Vela::Name name)
    : CAgent(std::move(name), std::move(entityManager)) {}

Agent::~Agent() {
  protoTunnelRibCollDel();
  aggregatorSmDel();
  schedulerRootDel();
}

Vela::Ptr<Plinth::SchedulerRoot> Agent::schedulerRootIs(Vela::String8 const& name) {
  if (!schedulerRoot_ || schedulerRoot_->name() != name) {
    schedulerRoot_ = Vela::make<Plinth::SchedulerRoot>(name, scheduler());
  }
  return schedulerRoot_;
}

Vela::Ptr<ProtocolTunnelRibCollection> Agent::protoTunnelRibCollIs(Vela::Name const& name) {
  if (!protoTunnelRibColl_ || protoTunnelRibColl_->name() != name) {
    protoTunnelRibColl_ = Vela::make<ProtocolTunnelRibCollection>(name);
  }
  return protoTunnelRibColl_;
}

Vela::Ptr<TunnelAggregatorSm> Agent::aggregatorSmIs(Vela::Ptr<Vela::Dir const> const& dir,
                                                    Vela::Ptr<TunnelRib> const& tunnelRib,
                                                    Vela::Ptr<ProtocolTunnelRibCollection> const& coll,
                                                    Vela::Ptr<MplsTunnelFib> const& fib,
                                                    Vela::Ptr<Quay::TaskScheduler> const& scheduler) {
  aggregatorSm_ = Vela::make<TunnelAggregatorSm>(dir, tunnelRib, coll, fib, scheduler);
  return aggregatorSm_;
}

void Agent::doInit(Vela::Ptr<Corvel::EntityManager> const& entityManager) {
  SKEIN_TRACE(8, "virtual void Tunnel::TunnelTable::Agent::doInit(const Vela::Ptr<Corvel::EntityManager>&)");
  schedulerRootIs("root");
  auto group = entityManager->getMountGroup(this);
  group->doMount("tunnel/table", "Vela::Dir", "riO");
  group->doMount("tunnel/tunnelRib", "Tunnel::TunnelTable::TunnelRib", "w");
  group->doMount("tunnel/protoTunnelRib/bgpLu", "Tunnel::TunnelTable::TunnelRib", "w");
  group->doMount("tunnel/protoTunnelRib/ldp", "Tunnel::TunnelTable::TunnelRib", "w");
  group->doMount("tunnel/protoTunnelRib/sr", "Tunnel::TunnelTable::TunnelRib", "w");
  group->doMount("tunnel/protoTunnelRib/static", "Tunnel::TunnelTable::TunnelRib", "w");
  group->doMount("tunnel/mplsTunnelFib", "Tunnel::TunnelFib::MplsTunnelFib", "w");
  group->doClose("", 0.0);
}

void Agent::doMountsComplete(Corvel::MountStatus status,
                             Vela::Ptr<Corvel::EntityManager> const& entityManager) {
  SKEIN_TRACE(8,
              "virtual void Tunnel::TunnelTable::Agent::doMountsComplete(Corvel::MountStatus, const "
              "Vela::Ptr<Corvel::EntityManager>&)");
  VELA_ASSERT_TEXT(status == Corvel::mountSuccess, "status == Corvel::mountSuccess_");
  tunnelTablesDirIs(Vela::dynamicPtrCast<Vela::Dir const>(entityManager->getEntity("tunnel/table")));
  tunnelRibIs(Vela::dynamicPtrCast<TunnelRib>(entityManager->getEntity("tunnel/tunnelRib")));
  auto coll = protoTunnelRibCollIs("protoTunnelRib");
  static constexpr std::pair<char const*, TunnelType> kProtocolRibs[] = {
      {"tunnel/protoTunnelRib/bgpLu", TunnelType::bgpLuTunnel},
      {"tunnel/protoTunnelRib/ldp", TunnelType::ldpTunnel},
      {"tunnel/protoTunnelRib/sr", TunnelType::srTunnel},
      {"tunnel/protoTunnelRib/static", TunnelType::staticTunnel},
  };
  for (auto const& [path, type] : kProtocolRibs) {
    auto rib = Vela::dynamicPtrCast<TunnelRib>(entityManager->getEntity(path));
    coll->protocolTunnelRibIs(type)->tunnelRibIs(rib);
  }
  mplsTunnelFibIs(Vela::dynamicPtrCast<MplsTunnelFib>(entityManager->getEntity("tunnel/mplsTunnelFib")));
  aggregatorSmIs(tunnelTablesDir_, tunnelRib_, protoTunnelRibColl_, mplsTunnelFib_,
                 schedulerRoot_->scheduler());
}

void registerTunnelTypes(Corvel::EntityManager& entityManager) {
  entityManager.typeIs<TunnelRib>("Tunnel::TunnelTable::TunnelRib");
  entityManager.typeIs<MplsTunnelFib>("Tunnel::TunnelFib::MplsTunnelFib");
}

}  // namespace Tunnel::TunnelTable
