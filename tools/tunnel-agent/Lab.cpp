#include "tools/tunnel-agent/Lab.h"

#include <algorithm>
#include <chrono>

#include "Decap/DecapGroupConfigMergeSm.h"
#include "TunnelTable/TunnelIntfId.h"

namespace Tunnel::Tool {

using namespace Tunnel::TunnelTable;

namespace {

template <class... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

std::string tablePath(TableKind kind) { return "tunnel/table/" + std::string(tableName(kind)); }

std::string dynamicSourcePath(std::string const& name) {
  return std::string(Decap::dynamicInputDir) + "/" + name;
}

void fillDecapGroup(Decap::DecapGroup& group, DecapGroupDef const& def, bool dynamic) {
  group.tunnelTypeIs(def.type);
  group.dynamicIs(dynamic);
  for (auto const& address : def.addresses) group.decapIpIs(address, true);
  for (auto const& intf : def.interfaces) group.decapIntfIs(intf.decapIntfKey(), intf);
}

// The vias of an entry with entry-level labels, as the FIB sees them.
template <class Entry>
std::vector<MplsVia> viasWithEntryLabels(Entry const& entry) {
  std::vector<MplsVia> vias;
  for (Via const& via : entry.vias()) vias.emplace_back(via.nexthop(), via.intfId(), entry.labels());
  return vias;
}

template <class Entry>
std::vector<MplsVia> mplsVias(Entry const& entry) {
  std::vector<MplsVia> vias;
  for (MplsVia const& via : entry.vias()) vias.push_back(via);
  return vias;
}

}  // namespace

Lab::Lab(Vela::Ptr<Quay::Clock> clock)
    : scheduler_(clock ? Vela::make<Quay::TaskScheduler>(clock) : Vela::make<Quay::TaskScheduler>()),
      entityManager_(Vela::make<Corvel::EntityManager>(scheduler_)) {
  registerTunnelTypes(*entityManager_);
  Decap::registerDecapTypes(*entityManager_);
  Static::registerStaticTypes(*entityManager_);
}

Lab::~Lab() {
  // Consumers before what they consume: the simulator, the merge (which
  // abandons its mounts), the agent (whose destructor tears the machines down).
  simulatorAgent_ = nullptr;
  orlaRoot_ = nullptr;
  agent_ = nullptr;
}

void Lab::load(Scenario const& scenario) {
  // The protocols publish their tables; the agent finds them when it starts.
  for (auto const& table : scenario.tables) addTable(table);

  staticConfig_ = Static::configFactory("config");
  for (auto const& entry : scenario.staticConfig) staticConfig_->entryIs(entry);

  cliDecap_ = Decap::configInputFactory(std::string(cliDecapSource));
  for (auto const& group : scenario.cliDecap)
    fillDecapGroup(*cliDecap_->newDecapGroup(group.name), group, false);
  for (auto const& source : scenario.dynamicDecap) {
    auto input = Decap::configInputFactory(source.name);
    for (auto const& group : source.groups) fillDecapGroup(*input->newDecapGroup(group.name), group, true);
    dynamicDecap_[source.name] = input;
    entityManager_->entityIs(dynamicSourcePath(source.name), input);
  }
  model_ = Model::of(scenario);

  startAgent();
  startDecap();
}

void Lab::loadEmpty() {
  Scenario scenario;
  for (TableKind kind : allTableKinds) scenario.tables.push_back(TableDef{kind, std::nullopt, false, {}});
  load(scenario);
}

void Lab::startAgent() {
  agent_ = Vela::make<Agent>(entityManager_);
  agent_->start();
  settle();
}

void Lab::startDecap() {
  orlaRoot_ = Vela::make<TunnelOrlaRoot>("tunnel");
  orlaRoot_->dgConfigIs();
  orlaRoot_->dgConfigMergeSmIs(orlaRoot_->dgConfig(), cliDecap_,
                               entityManager_->dirIs(Decap::dynamicInputDir), entityManager_);
  // The dynamic sources present at start are merged once their mounts
  // complete; the simulator starts on that merged configuration.
  settle();
  simulatorAgent_ = Vela::make<Decap::TunnelSimulatorAgent>("tunnelSimulator");
  simulatorAgent_->tunnelSimIs(orlaRoot_->dgConfig());
  settle();
}

void Lab::settle() {
  auto const start = std::chrono::steady_clock::now();
  MplsTunnelFibSm const* sm = nullptr;
  std::uint64_t baseline = 0;
  std::uint64_t before = 0;  // reviews of machines that were replaced during this settle
  auto report = [&](bool done) {
    if (!progress_) return;
    MplsTunnelFibSm const* now = fibSm();
    if (now != sm) {
      before += sm && sm->task() ? sm->task()->taskWorkCount() - baseline : 0;
      sm = now;
      baseline = sm && sm->task() ? sm->task()->taskWorkCount() : 0;
    }
    Progress p;
    p.reviewed = before + (sm && sm->task() ? sm->task()->taskWorkCount() - baseline : 0);
    p.backlog = sm ? sm->tunnelForReviews().size() : 0;
    p.elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    p.done = done;
    progress_(p);
  };
  report(false);
  scheduler_->runUntil([&] {
    report(false);
    return false;
  });
  report(true);
}

void Lab::addTable(TableDef const& def) {
  auto publish = [&](auto& slot, auto table) {
    if (def.tablePref) table->tablePrefIs(*def.tablePref);
    slot = table;
    for (auto const& entry : def.entries) writeEntry(entry);
    entityManager_->entityIs(tablePath(def.kind), table);
  };
  std::string const name(tableName(def.kind));
  switch (def.kind) {
    case TableKind::bgpLu: {
      auto table = Vela::make<BgpLuTunnelTable>(name);
      table->bgpConvergedIs(def.bgpConverged);
      publish(bgpLu_, table);
      break;
    }
    case TableKind::bgpLuPush:
      publish(bgpLuPush_, Vela::make<BgpLuPushTunnelTable>(name));
      break;
    case TableKind::ldp:
      publish(ldp_, Vela::make<LdpTunnelTable>(name));
      break;
    case TableKind::sr:
      publish(sr_, Vela::make<SrTunnelTable>(name));
      break;
    case TableKind::staticMpls:
      publish(static_, Vela::make<StaticTunnelTable>(name));
      break;
    case TableKind::srTeSegmentList:
      publish(srTeSegmentList_, Vela::make<SrTeSegmentListTunnelTable>(name));
      break;
  }
}

void Lab::removeTable(TableKind kind) {
  entityManager_->entityDel(tablePath(kind));
  switch (kind) {
    case TableKind::bgpLu:
      bgpLu_ = nullptr;
      break;
    case TableKind::bgpLuPush:
      bgpLuPush_ = nullptr;
      break;
    case TableKind::ldp:
      ldp_ = nullptr;
      break;
    case TableKind::sr:
      sr_ = nullptr;
      break;
    case TableKind::staticMpls:
      static_ = nullptr;
      break;
    case TableKind::srTeSegmentList:
      srTeSegmentList_ = nullptr;
      break;
  }
}

void Lab::writeEntry(EntryDef const& entry) {
  std::visit(Overloaded{
                 [&](BgpLuTunnelTableEntry const& e) { bgpLu_->entryIs(e); },
                 [&](BgpLuPushTunnelTableEntry const& e) { bgpLuPush_->entryIs(e); },
                 [&](LdpSrTunnelTableEntry const& e) {
                   if (entry.table == TableKind::sr) {
                     sr_->entryIs(e);
                   } else {
                     ldp_->entryIs(e);
                   }
                 },
                 [&](StaticTunnelTableEntry const& e) { static_->entryIs(e); },
                 [&](SrTeSegmentListTunnelTableEntry const& e) { srTeSegmentList_->entryIs(e); },
             },
             entry.value);
}

void Lab::removeEntry(TableKind kind, TunnelId id) {
  switch (kind) {
    case TableKind::bgpLu:
      bgpLu_->entryDel(id);
      break;
    case TableKind::bgpLuPush:
      bgpLuPush_->entryDel(id);
      break;
    case TableKind::ldp:
      ldp_->entryDel(id);
      break;
    case TableKind::sr:
      sr_->entryDel(id);
      break;
    case TableKind::staticMpls:
      static_->entryDel(id);
      break;
    case TableKind::srTeSegmentList:
      srTeSegmentList_->entryDel(id);
      break;
  }
}

Vela::Ptr<Decap::ConfigInput> Lab::decapSource(std::string const& name) const {
  if (name == cliDecapSource) return cliDecap_;
  auto it = dynamicDecap_.find(name);
  return it == dynamicDecap_.end() ? nullptr : it->second;
}

void Lab::apply(Action const& action) {
  std::visit(Overloaded{
                 [&](AddEntry const& a) { writeEntry(a.entry); },
                 [&](ChangeEntry const& a) { writeEntry(a.entry); },
                 [&](RemoveEntry const& a) { removeEntry(a.table, a.tunnel); },
                 [&](AddTable const& a) { addTable(a.table); },
                 [&](RemoveTable const& a) { removeTable(a.table); },
                 [&](SetBgpConverged const& a) { bgpLu_->bgpConvergedIs(a.value); },
                 [&](AddDecapSource const& a) {
                   auto input = Decap::configInputFactory(a.source.name);
                   for (auto const& group : a.source.groups)
                     fillDecapGroup(*input->newDecapGroup(group.name), group, true);
                   dynamicDecap_[a.source.name] = input;
                   entityManager_->entityIs(dynamicSourcePath(a.source.name), input);
                 },
                 [&](AddDecapGroup const& a) {
                   auto source = decapSource(a.source);
                   fillDecapGroup(*source->newDecapGroup(a.group.name), a.group, source != cliDecap_);
                 },
                 [&](RemoveDecapGroup const& a) { decapSource(a.source)->decapGroupDel(a.group); },
                 [&](AddDecapAddress const& a) {
                   decapSource(a.source)->decapGroup(a.group)->decapIpIs(a.address, true);
                 },
                 [&](RemoveDecapAddress const& a) {
                   decapSource(a.source)->decapGroup(a.group)->decapIpDel(a.address);
                 },
                 [&](AddStaticConfig const& a) { staticConfig_->entryIs(a.entry); },
                 [&](ChangeStaticConfig const& a) { staticConfig_->entryIs(a.entry); },
                 [&](RemoveStaticConfig const& a) { staticConfig_->entryDel(a.name); },
                 [&](RestartAgent const&) {
                   // The old agent tears its machines down as it goes; the new one
                   // finds the RIBs and the FIB it left in the state database.
                   agent_ = nullptr;
                   startAgent();
                 },
             },
             action);
  model_.apply(action);
}

TunnelAggregatorSm const* Lab::aggregator() const { return agent_ ? agent_->aggregatorSm().get() : nullptr; }

MplsTunnelFibSm const* Lab::fibSm() const {
  auto const* aggregator = this->aggregator();
  return aggregator ? aggregator->mplsTunnelFibSm().get() : nullptr;
}

Vela::Ptr<TunnelRib const> Lab::tunnelRib() const {
  return Vela::dynamicPtrCast<TunnelRib const>(entityManager_->getEntity("tunnel/tunnelRib"));
}

Vela::Ptr<TunnelRib const> Lab::protoTunnelRib(TableKind protocol) const {
  return Vela::dynamicPtrCast<TunnelRib const>(
      entityManager_->getEntity("tunnel/protoTunnelRib/" + std::string(tableName(protocol))));
}

Vela::Ptr<TunnelFib::MplsTunnelFib const> Lab::mplsTunnelFib() const {
  return Vela::dynamicPtrCast<TunnelFib::MplsTunnelFib const>(
      entityManager_->getEntity("tunnel/mplsTunnelFib"));
}

Vela::Ptr<TunnelTableBase const> Lab::table(TableKind kind) const {
  switch (kind) {
    case TableKind::bgpLu:
      return bgpLu_;
    case TableKind::bgpLuPush:
      return bgpLuPush_;
    case TableKind::ldp:
      return ldp_;
    case TableKind::sr:
      return sr_;
    case TableKind::staticMpls:
      return static_;
    case TableKind::srTeSegmentList:
      return srTeSegmentList_;
  }
  return nullptr;
}

Lab::TableEntry Lab::tableEntry(TunnelId id) const {
  TableEntry result;
  auto fill = [&](auto const& table, auto vias) {
    if (!table) return;
    if (auto const* entry = table->entrys().lookup(id)) {
      result.present = true;
      result.tep = entry->tep();
      result.vias = vias(*entry);
      // In interface order rather than the set's hash order, for readers.
      std::sort(result.vias.begin(), result.vias.end(), [](MplsVia const& a, MplsVia const& b) {
        if (a.intfId() != b.intfId()) return a.intfId() < b.intfId();
        if (a.nexthop() != b.nexthop()) return a.nexthop() < b.nexthop();
        return a.labels() < b.labels();
      });
    }
  };
  auto withEntryLabels = [](auto const& e) { return viasWithEntryLabels(e); };
  auto withViaLabels = [](auto const& e) { return mplsVias(e); };
  switch (id.tunnelType()) {
    case TunnelType::bgpLuTunnel:
      fill(bgpLu_, withEntryLabels);
      break;
    case TunnelType::bgpLuPushTunnel:
      fill(bgpLuPush_, withEntryLabels);
      break;
    case TunnelType::staticTunnel:
      fill(static_, withEntryLabels);
      break;
    case TunnelType::ldpTunnel:
      fill(ldp_, withViaLabels);
      break;
    case TunnelType::srTunnel:
      fill(sr_, withViaLabels);
      break;
    case TunnelType::srTeSegmentListTunnel:
      fill(srTeSegmentList_, withViaLabels);
      break;
    default:
      break;
  }
  return result;
}

std::vector<TunnelId> Lab::allTunnels() const {
  std::vector<TunnelId> ids;
  auto collect = [&](auto const& table) {
    if (!table) return;
    for (auto const& [id, entry] : table->entrys()) ids.push_back(id);
  };
  collect(bgpLu_);
  collect(bgpLuPush_);
  collect(ldp_);
  collect(sr_);
  collect(static_);
  collect(srTeSegmentList_);
  std::sort(ids.begin(), ids.end());
  return ids;
}

Vela::Ptr<Decap::Config const> Lab::decapConfig() const {
  return orlaRoot_ ? Vela::Ptr<Decap::Config const>(orlaRoot_->dgConfig()) : nullptr;
}

Decap::DecapGroupConfigMergeSm const* Lab::decapMerge() const {
  return orlaRoot_ ? orlaRoot_->dgConfigMergeSm().get() : nullptr;
}

Decap::TunnelSimulator const* Lab::simulator() const {
  return simulatorAgent_ ? simulatorAgent_->tunnelSim().get() : nullptr;
}

}  // namespace Tunnel::Tool
