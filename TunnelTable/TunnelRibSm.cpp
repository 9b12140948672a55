#include "TunnelTable/TunnelRibSm.h"

#include <type_traits>
#include <utility>
#include <vector>

#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"

namespace Tunnel::TunnelTable {

namespace {

// Trace lines begin with the handler's full signature, spelled as g++ spells
// it, so that the lines read the same whichever compiler built the agent.
constexpr char const kFnHandleInitialized[] = "void Tunnel::TunnelTable::TunnelRibSm::handleInitialized()";
constexpr char const kFnHandleBgpLuTunnelEntryId[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleBgpLuTunnelEntry(const Tunnel::TunnelTable::TunnelId&)";
constexpr char const kFnHandleBgpLuTunnelEntry[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleBgpLuTunnelEntry()";
constexpr char const kFnHandleLdpSrTunnelEntryId[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleLdpSrTunnelEntry(const Tunnel::TunnelTable::TunnelId&)";
constexpr char const kFnHandleLdpSrTunnelEntry[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleLdpSrTunnelEntry()";
constexpr char const kFnHandleStaticTunnelEntryId[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleStaticTunnelEntry(const Tunnel::TunnelTable::TunnelId&)";
constexpr char const kFnHandleStaticTunnelEntry[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleStaticTunnelEntry()";
constexpr char const kFnHandleUnprogrammableEntry[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleUnprogrammableEntry(const Tunnel::TunnelTable::TunnelId&)";
constexpr char const kFnHandleBgpConvergence[] =
    "void Tunnel::TunnelTable::TunnelRibSm::handleBgpConvergence()";
constexpr char const kFnDoUpdateLocalCollectionsAndTunnelRib[] =
    "void Tunnel::TunnelTable::TunnelRibSm::doUpdateLocalCollectionsAndTunnelRib(const "
    "Tunnel::TunnelTable::TunnelId&, const Nimbo::IpGenPrefix&, bool)";
constexpr char const kFnDoUpdateTunnelRibEntry[] =
    "void Tunnel::TunnelTable::TunnelRibSm::doUpdateTunnelRibEntry(const Tunnel::TunnelTable::TunnelId&, "
    "const "
    "Nimbo::IpGenPrefix&, bool)";
constexpr char const kFnDoSelectBestAndUpdateTunnelRib[] =
    "void Tunnel::TunnelTable::TunnelRibSm::doSelectBestAndUpdateTunnelRib(const Nimbo::IpGenPrefix&)";
constexpr char const kFnDoAddTunnelId[] =
    "void Tunnel::TunnelTable::TunnelRibSm::doAddTunnelId(const Tunnel::TunnelTable::TunnelId&, const "
    "Nimbo::IpGenPrefix&)";
constexpr char const kFnDoUpdateTunRibMetric[] =
    "void Tunnel::TunnelTable::TunnelRibSm::doUpdateTunRibMetric(const Nimbo::IpGenPrefix&)";
constexpr char const kFnGetPreference[] =
    "uint8_t Tunnel::TunnelTable::TunnelRibSm::getPreference(const Tunnel::TunnelTable::TunnelId&) const";
constexpr char const kFnTunnelTableEntry[] =
    "Tunnel::TunnelTable::TunnelTableEntry Tunnel::TunnelTable::TunnelRibSm::tunnelTableEntry(const "
    "Tunnel::TunnelTable::TunnelId&) const";
constexpr char const kFnRemoveStaleEntries[] =
    "void Tunnel::TunnelTable::TunnelRibSm::removeStaleEntries(const "
    "Vela::Ptr<Tunnel::TunnelTable::TunnelRib>&)";
constexpr char const kFnVerifyProtoTunnelRibColl[] =
    "void Tunnel::TunnelTable::TunnelRibSm::verifyProtoTunnelRibColl() const";
constexpr char const kFnAssertProtoTunnelRib[] =
    "void Tunnel::TunnelTable::TunnelRibSm::assertProtoTunnelRib(Tunnel::TunnelTable::TunnelType) const";

// The protocols in their fixed order, used by the fallback selection.
constexpr TunnelType kProtocolOrder[] = {TunnelType::staticTunnel, TunnelType::ldpTunnel,
                                         TunnelType::srTunnel, TunnelType::bgpLuTunnel};

// The entry of `id` in `table`, or null when the table is missing or holds
// no entry for it (an entry equal to the default one counts as absent).
template <class Table, class Id>
auto const* findEntry(Vela::Ptr<Table const> const& table, Id const& id) {
  auto const* entry = table ? table->entrys().lookup(id) : nullptr;
  return entry && !!*entry ? entry : nullptr;
}

bool isContributing(BgpLuTunnelTableEntry const* luEntry) {
  return luEntry && luEntry->contribution() == ContributionToTunnelRIB::contributing;
}

unsigned prefNumber(std::uint8_t pref) { return pref; }

}  // namespace

// Watches one input and forwards its per-key notifications to `handler`.
// When the input is bound to a table after construction, `bound` runs the
// full scan of that table.
template <class Table>
class TunnelRibSm::TableReactor : public Vela::Reactor<Table> {
 public:
  using Handler = void (TunnelRibSm::*)(TunnelId const&);
  using Bound = void (TunnelRibSm::*)();

  TableReactor(TunnelRibSm* sm, Handler handler, Bound bound) : sm_(sm), handler_(handler), bound_(bound) {}

 protected:
  void onNotifier(Table const& table) override {
    this->watch(table.entrys().changed(),
                [sm = sm_, handler = handler_](TunnelId const& id) { (sm->*handler)(id); });
    if constexpr (std::is_same_v<Table, BgpLuTunnelTable>) {
      this->watch(table.bgpConvergedChanged(), [sm = sm_] { sm->handleBgpConvergence(); });
    }
    if (bound_ && sm_->initialized()) (sm_->*bound_)();
  }

 private:
  TunnelRibSm* sm_;
  Handler handler_;
  Bound bound_;
};

TunnelRibSm::TunnelRibSm(Vela::Ptr<TunnelRib> tunnelRib,
                         Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                         Vela::Ptr<BgpLuTunnelTable const> bgpLuTable,
                         Vela::Ptr<LdpTunnelTable const> ldpTable, Vela::Ptr<SrTunnelTable const> srTable,
                         Vela::Ptr<StaticTunnelTable const> staticTable,
                         Vela::Ptr<TunnelIdColl const> unprogrammableTunnelId,
                         Vela::Ptr<Vela::Dir const> protoTunnelTablesDir)
    : tunnelRib_(std::move(tunnelRib)),
      protoTunnelRibColl_(std::move(protoTunnelRibColl)),
      protoTunnelTablesDir_(std::move(protoTunnelTablesDir)) {
  VELA_ASSERT(tunnelRib_);
  // initialized_ is still false: binding the reactors runs no scan.
  bgpLuTableIs(bgpLuTable);
  ldpTableIs(ldpTable);
  srTableIs(srTable);
  staticTableIs(staticTable);
  unprogrammableTunnelIdIs(unprogrammableTunnelId);
  handleInitialized();
}

TunnelRibSm::~TunnelRibSm() = default;

// --- inputs --------------------------------------------------------------------------------------------

template <class Reactor, class Table>
void TunnelRibSm::reactorIs(std::unique_ptr<Reactor>& reactor, Vela::Ptr<Table const> const& table,
                            typename Reactor::Handler handler, typename Reactor::Bound bound) {
  if (!table) {
    reactor.reset();
    return;
  }
  if (!reactor) {
    reactor = std::make_unique<Reactor>(this, handler, bound);
    reactor->hasNotificationActiveIs(notificationActive_);
  }
  reactor->notifierIs(table);
}

Vela::Ptr<BgpLuTunnelTable const> TunnelRibSm::bgpLuTable() const {
  return bgpLuTable_ ? bgpLuTable_->notifier() : nullptr;
}
Vela::Ptr<LdpTunnelTable const> TunnelRibSm::ldpTable() const {
  return ldpTable_ ? ldpTable_->notifier() : nullptr;
}
Vela::Ptr<SrTunnelTable const> TunnelRibSm::srTable() const {
  return srTable_ ? srTable_->notifier() : nullptr;
}
Vela::Ptr<StaticTunnelTable const> TunnelRibSm::staticTable() const {
  return staticTable_ ? staticTable_->notifier() : nullptr;
}
Vela::Ptr<TunnelIdColl const> TunnelRibSm::unprogrammableTunnelId() const {
  return unprogrammableTunnelId_ ? unprogrammableTunnelId_->notifier() : nullptr;
}

void TunnelRibSm::bgpLuTableIs(Vela::Ptr<BgpLuTunnelTable const> const& table) {
  reactorIs(bgpLuTable_, table, &TunnelRibSm::handleBgpLuTunnelEntry, &TunnelRibSm::onBgpLuTableBound);
}
void TunnelRibSm::ldpTableIs(Vela::Ptr<LdpTunnelTable const> const& table) {
  reactorIs(ldpTable_, table, &TunnelRibSm::handleLdpSrTunnelEntry, &TunnelRibSm::onLdpSrTableBound);
}
void TunnelRibSm::srTableIs(Vela::Ptr<SrTunnelTable const> const& table) {
  reactorIs(srTable_, table, &TunnelRibSm::handleLdpSrTunnelEntry, &TunnelRibSm::onLdpSrTableBound);
}
void TunnelRibSm::staticTableIs(Vela::Ptr<StaticTunnelTable const> const& table) {
  reactorIs(staticTable_, table, &TunnelRibSm::handleStaticTunnelEntry, &TunnelRibSm::onStaticTableBound);
}
void TunnelRibSm::unprogrammableTunnelIdIs(Vela::Ptr<TunnelIdColl const> const& coll) {
  reactorIs(unprogrammableTunnelId_, coll, &TunnelRibSm::handleUnprogrammableEntry, nullptr);
}

void TunnelRibSm::onBgpLuTableBound() {
  handleBgpLuTunnelEntry();
  handleBgpConvergence();
}
void TunnelRibSm::onLdpSrTableBound() { handleLdpSrTunnelEntry(); }
void TunnelRibSm::onStaticTableBound() { handleStaticTunnelEntry(); }

void TunnelRibSm::hasNotificationActiveIs(bool active) {
  notificationActive_ = active;
  if (bgpLuTable_) bgpLuTable_->hasNotificationActiveIs(active);
  if (ldpTable_) ldpTable_->hasNotificationActiveIs(active);
  if (srTable_) srTable_->hasNotificationActiveIs(active);
  if (staticTable_) staticTable_->hasNotificationActiveIs(active);
  if (unprogrammableTunnelId_) unprogrammableTunnelId_->hasNotificationActiveIs(active);
}

TunnelIdToTepEntry const& TunnelRibSm::tunnelIdToTep(TunnelId const& id) const {
  static TunnelIdToTepEntry const none;
  auto const* e = tunnelIdToTep_.lookup(id);
  return e ? *e : none;
}

TunnelId const& TunnelRibSm::tunRibMetricTunId(Nimbo::IpGenPrefix const& tep) const {
  static TunnelId const none;
  auto const* id = tunRibMetricTunId_.lookup(tep);
  return id ? *id : none;
}

bool TunnelRibSm::isUnprogrammable(TunnelId const& id) const {
  if (!unprogrammableTunnelId_) return false;
  auto const* set = unprogrammableTunnelId_->notifier().get();
  return set && set->entrys().contains(id);
}

// --- start -------------------------------------------------------------------------------------------

void TunnelRibSm::handleInitialized() {
  SKEIN_TRACE(8, kFnHandleInitialized);
  removeStaleEntries(tunnelRib_);
  verifyProtoTunnelRibColl();
  if (protoTunnelRibColl_) {
    for (auto it = protoTunnelRibColl_->protocolTunnelRibs().begin();
         it != protoTunnelRibColl_->protocolTunnelRibs().end(); ++it) {
      removeStaleEntries(it.value()->tunnelRib());
    }
  }
  handleStaticTunnelEntry();
  handleBgpLuTunnelEntry();
  handleLdpSrTunnelEntry();
  initialized_ = true;
}

void TunnelRibSm::removeStaleEntries(Vela::Ptr<TunnelRib> const& rib) {
  SKEIN_TRACE(8, kFnRemoveStaleEntries);
  if (!rib) return;
  // Collected first: the entries are changed only after the walk.
  std::vector<std::pair<Nimbo::IpGenPrefix, TunnelId>> stale;
  for (auto it = rib->entrys().begin(); it != rib->entrys().end(); ++it) {
    Nimbo::IpGenPrefix const& tep = it.key();
    Vela::Ptr<TunnelRibEntry> const& ribEntry = it.value();
    for (auto idIt = ribEntry->tunnelIds().begin(); idIt != ribEntry->tunnelIds().end(); ++idIt) {
      TunnelId const id = idIt.key();
      TunnelTableEntry const entry = tunnelTableEntry(id);
      if (!!entry && entry.tep() == tep) {
        SKEIN_TRACE(8, kFnRemoveStaleEntries << " " << tep << " tunnel id " << id << " is not stale.");
      } else {
        stale.emplace_back(tep, id);
      }
    }
  }
  for (auto const& [tep, id] : stale) {
    Vela::Ptr<TunnelRibEntry> ribEntry = rib->entry(tep);
    if (!ribEntry) continue;
    if (ribEntry->tunnelIds().size() == 1) {
      rib->entryDel(tep);
    } else {
      ribEntry->tunnelIdDel(id);
    }
  }
}

void TunnelRibSm::verifyProtoTunnelRibColl() const {
  SKEIN_TRACE(8, kFnVerifyProtoTunnelRibColl);
  if (!protoTunnelRibColl_) return;
  for (auto it = protoTunnelRibColl_->protocolTunnelRibs().begin();
       it != protoTunnelRibColl_->protocolTunnelRibs().end(); ++it) {
    assertProtoTunnelRib(it.key());
  }
}

void TunnelRibSm::assertProtoTunnelRib(TunnelType type) const { protoTunnelRib(type); }

TunnelRib& TunnelRibSm::protoTunnelRib(TunnelType type) const {
  SKEIN_TRACE(8, kFnAssertProtoTunnelRib);
  Vela::Ptr<ProtocolTunnelRibWrapper> const wrapper =
      protoTunnelRibColl_ ? protoTunnelRibColl_->protocolTunnelRib(type) : nullptr;
  if (!wrapper) {
    throw Vela::InternalException("protocolTunnelRib missing for tunnelType " + Vela::enumName(type));
  }
  TunnelRib* rib = wrapper->tunnelRib().get();
  if (!rib) {
    throw Vela::InternalException("protocolTunnelRib::tunnelRib missing for tunnelType " +
                                  Vela::enumName(type));
  }
  return *rib;
}

// --- table handlers ------------------------------------------------------------------------------------

bool TunnelRibSm::skipUnprogrammable(std::string_view fn, TunnelId const& id) const {
  SKEIN_TRACE(8, fn << " tunnel ID " << id);
  if (!isUnprogrammable(id)) return false;
  SKEIN_TRACE(8, fn << " " << id << " is unprogrammable");
  return true;
}

void TunnelRibSm::enterOrWithdraw(HashedTunnelId const& id, TunnelTableEntry const* entry) {
  if (entry) {
    HashedTep const tep = entry->tep();
    // Entering a tunnel touches a slot in each of these maps, far apart in
    // memory: ask for all of them now rather than one after the other.
    tunnelIdToTep_.prefetch(id);
    // Not through protoTunnelRib(), which traces and raises: a hint must not.
    if (auto const wrapper =
            protoTunnelRibColl_ ? protoTunnelRibColl_->protocolTunnelRib(id.key.tunnelType()) : nullptr) {
      if (TunnelRib const* protoRib = wrapper->tunnelRib().get()) protoRib->entrys().map().prefetch(tep);
    }
    tunnelRib_->entrys().map().prefetch(tep);
    if (id.key.tunnelType() == TunnelType::bgpLuTunnel) tunRibMetricTunId_.prefetch(tep);
    doUpdateLocalCollectionsAndTunnelRib(id, tep, true);
  } else {
    // Absent, or no longer contributing: withdrawn under the TEP it was entered with.
    Nimbo::IpGenPrefix const tep = tunnelIdToTep(id.key).tep();
    doUpdateLocalCollectionsAndTunnelRib(id, tep, false);
  }
}

void TunnelRibSm::handleBgpLuTunnelEntry(TunnelId const& id) {
  if (skipUnprogrammable(kFnHandleBgpLuTunnelEntryId, id)) return;
  HashedTunnelId const hashed(id);
  auto const* entry = findEntry(bgpLuTable(), hashed);
  enterOrWithdraw(hashed, isContributing(entry) ? entry : nullptr);
}

void TunnelRibSm::handleLdpSrTunnelEntry(TunnelId const& id) {
  if (skipUnprogrammable(kFnHandleLdpSrTunnelEntryId, id)) return;
  HashedTunnelId const hashed(id);
  if (id.tunnelType() == TunnelType::ldpTunnel) return enterOrWithdraw(hashed, findEntry(ldpTable(), hashed));
  VELA_ASSERT_TEXT(id.tunnelType() == TunnelType::srTunnel, "id.tunnelType() == srTunnel()");
  enterOrWithdraw(hashed, findEntry(srTable(), hashed));
}

void TunnelRibSm::handleStaticTunnelEntry(TunnelId const& id) {
  if (skipUnprogrammable(kFnHandleStaticTunnelEntryId, id)) return;
  HashedTunnelId const hashed(id);
  enterOrWithdraw(hashed, findEntry(staticTable(), hashed));
}

namespace {

// Calls `handler` for every key of `table`'s entries. The keys are taken
// first: a handler may not change the table, but the walk must not depend
// on that.
template <class Table, class Fn>
void forEachId(Vela::Ptr<Table const> const& table, Fn&& handler) {
  if (!table) return;
  std::vector<TunnelId> ids;
  ids.reserve(table->entrys().size());
  for (auto it = table->entrys().begin(); it != table->entrys().end(); ++it) ids.push_back(it.key());
  for (TunnelId const& id : ids) handler(id);
}

}  // namespace

void TunnelRibSm::reserveForScan(std::size_t count) {
  // Ids come in the table's order, which is the order of tunnelIdToTep's own
  // hash: grown step by step, the map would pile them up at its start.
  tunnelIdToTep_.makeRoom(tunnelIdToTep_.size() + count);
}

void TunnelRibSm::handleBgpLuTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleBgpLuTunnelEntry);
  reserveForScan(entryCount(bgpLuTable()));
  forEachId(bgpLuTable(), [this](TunnelId const& id) { handleBgpLuTunnelEntry(id); });
}

void TunnelRibSm::handleLdpSrTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleLdpSrTunnelEntry);
  reserveForScan(entryCount(ldpTable()) + entryCount(srTable()));
  forEachId(ldpTable(), [this](TunnelId const& id) { handleLdpSrTunnelEntry(id); });
  forEachId(srTable(), [this](TunnelId const& id) { handleLdpSrTunnelEntry(id); });
}

void TunnelRibSm::handleStaticTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleStaticTunnelEntry);
  reserveForScan(entryCount(staticTable()));
  forEachId(staticTable(), [this](TunnelId const& id) { handleStaticTunnelEntry(id); });
}

// --- unprogrammable tunnels and convergence ------------------------------------------------------------

void TunnelRibSm::handleUnprogrammableEntry(TunnelId const& id) {
  SKEIN_TRACE(8, kFnHandleUnprogrammableEntry << " tunnel ID " << id);
  if (!contributeToTunnelRib(id.tunnelType())) {
    SKEIN_TRACE(8, kFnHandleUnprogrammableEntry << " " << id << " doesn't contribute to tunnel rib");
    return;
  }
  TunnelTableEntry const entry = tunnelTableEntry(id);
  if (!entry) {
    SKEIN_TRACE(8,
                kFnHandleUnprogrammableEntry << " " << id << " is not present in any of the protocol tables");
    return;
  }
  Nimbo::IpGenPrefix const tep = entry.tep();
  if (isUnprogrammable(id)) {
    doUpdateLocalCollectionsAndTunnelRib(id, tep, false);
    return;
  }
  if (id.tunnelType() != TunnelType::bgpLuTunnel) {
    doUpdateLocalCollectionsAndTunnelRib(id, tep, true);
    return;
  }
  if (isContributing(findEntry(bgpLuTable(), id))) {
    doUpdateLocalCollectionsAndTunnelRib(id, tep, true);
    return;
  }
  // A non-contributing BGP LU tunnel was withdrawn when it stopped
  // contributing; the tunnel RIB cannot hold it.
  if (Vela::Ptr<TunnelRibEntry> ribEntry = tunnelRib_->entry(tep)) {
    for (auto tunnelIdIter = ribEntry->tunnelIds().begin(); tunnelIdIter != ribEntry->tunnelIds().end();
         ++tunnelIdIter) {
      VELA_ASSERT_TEXT(tunnelIdIter.key() != id, "tunnelIdIter.key() != id");
    }
  }
}

void TunnelRibSm::handleBgpConvergence() {
  SKEIN_TRACE(8, kFnHandleBgpConvergence);
  auto const table = bgpLuTable();
  if (!table || !table->bgpConverged()) return;
  // Deliberately an inversion, not a copy: each convergence flips the flag.
  tunnelRib_->tunnelRibConvergedIs(!tunnelRib_->tunnelRibConverged());
}

// --- workers -------------------------------------------------------------------------------------------

void TunnelRibSm::doUpdateLocalCollectionsAndTunnelRib(HashedTunnelId const& id, HashedTep const& tep,
                                                       bool add) {
  SKEIN_TRACE(8, kFnDoUpdateLocalCollectionsAndTunnelRib << " for tunnel id " << id << ", tep " << tep
                                                         << ", add: " << add);
  if (add) {
    tunnelIdToTep_.insertOrAssign(id, TunnelIdToTepEntry(id.key, tep.key));
  } else {
    tunnelIdToTep_.erase(id.key);
  }
  TunnelType const type = id.key.tunnelType();
  TunnelRib& protoRib = protoTunnelRib(type);
  if (add) {
    SKEIN_TRACE(
        8, type << ": adding protocol-specific TEP / tunnel ID mapping, tunnel ID " << id << ", TEP " << tep);
    protoRib.newEntry(tep)->tunnelIdIs(id.key, true);
  } else {
    Vela::Ptr<TunnelRibEntry> protoEntry = protoRib.entry(tep);
    if (!protoEntry) {
      SKEIN_TRACE(8, "No entry for tep " << tep << " in " << type << "'s table tunnel rib");
      return;
    }
    SKEIN_TRACE(8, type << ": deleting protocol-specific TEP / tunnel ID mapping, tunnel ID " << id
                        << ", TEP " << tep);
    // Deliberately by count: an entry holding one id goes, whichever id that is.
    if (protoEntry->tunnelIds().size() == 1) {
      protoRib.entryDel(tep.key);
    } else {
      protoEntry->tunnelIdDel(id.key);
    }
  }
  doUpdateTunnelRibEntry(id, tep, add);
}

void TunnelRibSm::doUpdateTunnelRibEntry(HashedTunnelId const& id, HashedTep const& tep, bool add) {
  SKEIN_TRACE(8, kFnDoUpdateTunnelRibEntry);
  Vela::Ptr<TunnelRibEntry> ribEntry = tunnelRib_->entry(tep);
  if (add) {
    if (!ribEntry) {
      SKEIN_TRACE(8, "Adding Tunnel RIB entry tep: " << tep << " id: " << id);
      addTunnelId(*tunnelRib_->newEntry(tep), id, tep);
      return;
    }
    SKEIN_TRACE(8, "Updating Table entry is contributing for tep: " << tep);
    if (ribEntry->tunnelIds().empty()) {
      // Not left behind by this machine; the id simply joins it.
      addTunnelId(*ribEntry, id, tep);
      return;
    }
    TunnelId const first = ribEntry->tunnelIds().begin().key();
    if (id.key.tunnelType() == first.tunnelType()) {
      SKEIN_TRACE(8, "Adding new ID for existing Tunnel RIB entry: " << id);
      addTunnelId(*ribEntry, id, tep);
      return;
    }
    std::uint8_t const idPref = getPreference(id.key);
    std::uint8_t const firstPref = getPreference(first);
    if (idPref < firstPref) {
      SKEIN_TRACE(8, "Deleting existing entry contributed by table: "
                         << first.tunnelType() << " as the entry from table: " << id.key.tunnelType()
                         << " is more preferred.");
      SKEIN_TRACE(8, "New ID is: " << id);
      tunnelRib_->entryDel(tep.key);
      addTunnelId(*tunnelRib_->newEntry(tep), id, tep);
      return;
    }
    // On a tie the protocol already there keeps the TEP (deliberate).
    SKEIN_TRACE(8, "Existing tunnel entry contributed by table: "
                       << first.tunnelType() << " (" << prefNumber(firstPref) << ") is preferred more than "
                       << id.key.tunnelType() << " (" << prefNumber(idPref) << ") ");
    return;
  }
  SKEIN_TRACE(8, "Deleting Tunnel RIB entry tep: " << tep << " id: " << id);
  if (!ribEntry || !ribEntry->tunnelIds().contains(id.key)) return;
  if (ribEntry->tunnelIds().size() == 1) {
    tunnelRib_->entryDel(tep.key);
    tunRibMetricTunId_.erase(tep.key);
    doSelectBestAndUpdateTunnelRib(tep);
    return;
  }
  ribEntry->tunnelIdDel(id.key);
  if (id.key.tunnelType() == TunnelType::bgpLuTunnel && tunRibMetricTunId(tep.key) == id.key) {
    doUpdateTunRibMetric(tep);
  }
}

void TunnelRibSm::doSelectBestAndUpdateTunnelRib(HashedTep const& tep) {
  SKEIN_TRACE(8, kFnDoSelectBestAndUpdateTunnelRib);
  // Deliberately the fixed protocol order, not the tables' preferences.
  for (TunnelType const type : kProtocolOrder) {
    Vela::Ptr<TunnelRibEntry> protoEntry = protoTunnelRib(type).entry(tep);
    if (!protoEntry) continue;
    SKEIN_TRACE(8, type << " table entry is contributing for tep: " << tep);
    Vela::Ptr<TunnelRibEntry> ribEntry = tunnelRib_->newEntry(tep);
    std::vector<TunnelId> ids;
    ids.reserve(protoEntry->tunnelIds().size());
    for (auto it = protoEntry->tunnelIds().begin(); it != protoEntry->tunnelIds().end(); ++it) {
      ids.push_back(it.key());
    }
    for (TunnelId const& id : ids) {
      SKEIN_TRACE(8, "   TunnelID: " << id);
      addTunnelId(*ribEntry, id, tep);
    }
    return;
  }
  SKEIN_TRACE(8, "No table entry is contributing for tep: " << tep);
}

void TunnelRibSm::copyBgpLuMetrics(TunnelRibEntry& ribEntry, HashedTunnelId const& id, HashedTep const& tep,
                                   bool traced) {
  auto const* luEntry = findEntry(bgpLuTable(), id);
  VELA_ASSERT_TEXT(isContributing(luEntry), "!!luEntry && luEntry.contribution() == contributing()");
  if (traced) {
    SKEIN_TRACE(8, kFnDoAddTunnelId << " updating id: " << id << ", m: " << luEntry->bgpMetric()
                                    << ", m2: " << luEntry->bgpMetric2() << ", p: " << luEntry->bgpPref()
                                    << ", p2: " << luEntry->bgpPref2());
  }
  ribEntry.metricIs(luEntry->bgpMetric());
  ribEntry.metric2Is(luEntry->bgpMetric2());
  ribEntry.prefIs(luEntry->bgpPref());
  ribEntry.pref2Is(luEntry->bgpPref2());
  tunRibMetricTunId_.insertOrAssign(tep, id.key);
}

void TunnelRibSm::doAddTunnelId(HashedTunnelId const& id, HashedTep const& tep) {
  Vela::Ptr<TunnelRibEntry> ribEntry = tunnelRib_->entry(tep);
  VELA_ASSERT(ribEntry);  // the caller made the entry
  addTunnelId(*ribEntry, id, tep);
}

void TunnelRibSm::addTunnelId(TunnelRibEntry& ribEntry, HashedTunnelId const& id, HashedTep const& tep) {
  SKEIN_TRACE(8, kFnDoAddTunnelId);
  TunnelType const type = id.key.tunnelType();
  if (type == TunnelType::bgpLuTunnel) {
    copyBgpLuMetrics(ribEntry, id, tep, true);
  } else if (type == TunnelType::ldpTunnel || type == TunnelType::srTunnel) {
    static LdpSrTunnelTableEntry const absent;
    auto const* entry = type == TunnelType::ldpTunnel ? findEntry(ldpTable(), id) : findEntry(srTable(), id);
    if (!entry) entry = &absent;  // read as the table reads it: the default entry
    ribEntry.metricIs(entry->igpMetric());
    ribEntry.metric2Is(entry->igpMetric2());
    ribEntry.prefIs(entry->igpPref());
    ribEntry.pref2Is(entry->igpPref2());
  }
  ribEntry.tunnelIdIs(id.key, true);
}

void TunnelRibSm::doUpdateTunRibMetric(HashedTep const& tep) {
  SKEIN_TRACE(8, kFnDoUpdateTunRibMetric);
  Vela::Ptr<TunnelRibEntry> ribEntry = tunnelRib_->entry(tep);
  if (!ribEntry || ribEntry->tunnelIds().empty()) return;
  TunnelId const first = ribEntry->tunnelIds().begin().key();
  copyBgpLuMetrics(*ribEntry, first, tep, false);
}

std::uint8_t TunnelRibSm::getPreference(TunnelId const& id) const {
  SKEIN_TRACE(8, kFnGetPreference);
  auto prefOf = [](auto const& table) -> std::uint8_t {
    // A missing table offers nothing; it ranks last.
    return static_cast<std::uint8_t>(table ? table->tablePref() : TunnelTablePref::maxPref);
  };
  switch (id.tunnelType()) {
    case TunnelType::bgpLuTunnel:
      return prefOf(bgpLuTable());
    case TunnelType::ldpTunnel:
      return prefOf(ldpTable());
    case TunnelType::staticTunnel:
      return prefOf(staticTable());
    case TunnelType::srTunnel:
      return prefOf(srTable());
    default:
      SKEIN_TRACE(8,
                  kFnGetPreference << " Something wrong going on. Unknown Tunnel Type " << id.tunnelType());
      return 0;
  }
}

TunnelTableEntry TunnelRibSm::tunnelTableEntry(TunnelId const& id) const {
  SKEIN_TRACE(8, kFnTunnelTableEntry);
  auto asBase = [](auto const* entry) -> TunnelTableEntry {
    if (!entry) return TunnelTableEntry();
    return static_cast<TunnelTableEntry const&>(*entry);
  };
  switch (id.tunnelType()) {
    case TunnelType::bgpLuTunnel:
      return asBase(findEntry(bgpLuTable(), id));
    case TunnelType::ldpTunnel:
      return asBase(findEntry(ldpTable(), id));
    case TunnelType::staticTunnel:
      return asBase(findEntry(staticTable(), id));
    case TunnelType::srTunnel:
      return asBase(findEntry(srTable(), id));
    default:
      SKEIN_TRACE(8, "Unknown tunnel type " << id.tunnelType());
      return TunnelTableEntry();
  }
}

}  // namespace Tunnel::TunnelTable
