#include "TunnelTable/MplsTunnelFibSm.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "TunnelTable/ViaResolution.h"
#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"

namespace Tunnel::TunnelTable {

namespace {

// Trace lines begin with the function's full signature, spelled as g++ spells
// it, so that they read the same whichever compiler built the agent.
constexpr char const kFnHandleInitialized[] =
    "virtual void Tunnel::TunnelTable::MplsTunnelFibSm::handleInitialized()";
constexpr char const kFnHandleBgpLuTunnelEntry[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::handleBgpLuTunnelEntry()";
constexpr char const kFnHandleLdpSrTunnelEntry[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::handleLdpSrTunnelEntry()";
constexpr char const kFnHandleBgpLuPushTunnelEntry[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::handleBgpLuPushTunnelEntry()";
constexpr char const kFnHandleStaticTunnelEntry[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::handleStaticTunnelEntry()";
constexpr char const kFnHandleSrTeSegmentListTunnelEntry[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::handleSrTeSegmentListTunnelEntry()";
constexpr char const kFnRemoveStaleEntries[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::removeStaleEntries()";
constexpr char const kFnDrainTunnelBacklog[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::drainTunnelBacklog()";
constexpr char const kFnUpdateTunnelFibEntry[] =
    "void Tunnel::TunnelTable::MplsTunnelFibSm::updateTunnelFibEntry(const Tunnel::TunnelTable::TunnelId&)";

MplsTunnelFibSm::TunnelIdSet const kNoTunnels;

// How many reviews ahead the drain prefetches, and how many ids at a time.
constexpr std::uint64_t kReadAhead = 16;
// How many dependents ahead queuing them prefetches their backlog slots.
constexpr std::size_t kQueueAhead = 8;

// The entry of `id` (a TunnelId, or one with its hash) in `table`, or null
// when there is no table or no entry.
template <class Table, class Id>
auto const* findEntry(Vela::Ptr<Table const> const& table, Id const& id) {
  return table ? table->entrys().lookup(id) : nullptr;
}

// The common part of the entry of `id` in `table`; the empty entry when absent.
template <class Table>
TunnelTableEntry commonPartOf(Vela::Ptr<Table const> const& table, TunnelId const& id) {
  if (auto const* entry = findEntry(table, id)) return TunnelTableEntry(*entry);
  return TunnelTableEntry();
}

}  // namespace

MplsTunnelFibSm::MplsTunnelFibSm(Vela::Ptr<MplsTunnelFib> mplsTunnelFib,
                                 Vela::Ptr<TunnelIdColl> unprogrammableTunnelId,
                                 Vela::Ptr<BgpLuTunnelTable const> bgpLuTable,
                                 Vela::Ptr<LdpTunnelTable const> ldpTable,
                                 Vela::Ptr<SrTunnelTable const> srTable,
                                 Vela::Ptr<BgpLuPushTunnelTable const> bgpLuPushTable,
                                 Vela::Ptr<StaticTunnelTable const> staticTable,
                                 Vela::Ptr<SrTeSegmentListTunnelTable const> srTeSegmentListTable,
                                 Vela::Ptr<Quay::TaskScheduler> scheduler)
    : mplsTunnelFib_(std::move(mplsTunnelFib)),
      unprogrammableTunnelId_(std::move(unprogrammableTunnelId)),
      scheduler_(std::move(scheduler)) {
  if (!mplsTunnelFib_) {
    throw Vela::RangeException(
        "null mplsTunnelFib parameter to Tunnel::TunnelTable::MplsTunnelFibSm not allowed");
  }
  mplsTunnelFibReactor_.notifierIs(mplsTunnelFib_);
  bgpLuTable_.notifierIs(bgpLuTable);
  ldpTable_.notifierIs(ldpTable);
  srTable_.notifierIs(srTable);
  bgpLuPushTable_.notifierIs(bgpLuPushTable);
  staticTable_.notifierIs(staticTable);
  srTeSegmentListTable_.notifierIs(srTeSegmentListTable);
  handleInitialized();
}

MplsTunnelFibSm::~MplsTunnelFibSm() {
  // The task may outlive this machine (its scheduler holds it while it runs).
  if (task_) {
    task_->unscheduleTask();
    task_->handlerIs({});
  }
}

Vela::Ptr<MplsTunnelFibSm> mplsTunnelFibSmFactory(
    Vela::Ptr<MplsTunnelFib> mplsTunnelFib, Vela::Ptr<TunnelIdColl> unprogrammableTunnelId,
    Vela::Ptr<BgpLuTunnelTable const> bgpLuTable, Vela::Ptr<LdpTunnelTable const> ldpTable,
    Vela::Ptr<SrTunnelTable const> srTable, Vela::Ptr<BgpLuPushTunnelTable const> bgpLuPushTable,
    Vela::Ptr<StaticTunnelTable const> staticTable,
    Vela::Ptr<SrTeSegmentListTunnelTable const> srTeSegmentListTable,
    Vela::Ptr<Quay::TaskScheduler> scheduler) {
  return Vela::make<MplsTunnelFibSm>(std::move(mplsTunnelFib), std::move(unprogrammableTunnelId),
                                     std::move(bgpLuTable), std::move(ldpTable), std::move(srTable),
                                     std::move(bgpLuPushTable), std::move(staticTable),
                                     std::move(srTeSegmentListTable), std::move(scheduler));
}

// --- attributes ------------------------------------------------------------------------------------

void MplsTunnelFibSm::taskIs(Vela::Ptr<Quay::TaskScheduler> const& scheduler, Quay::TaskPriority priority,
                             std::string const& name) {
  if (task_) task_->unscheduleTask();
  task_ = Vela::make<Quay::TimerTask>(scheduler, priority, name, [this] { drainTunnelBacklog(); });
  // Attaching a task runs its handler once; before initialization it returns at once.
  drainTunnelBacklog();
}

bool MplsTunnelFibSm::tunnelForReview(TunnelId const& id) const {
  bool const* flag = tunnelForReview_.lookup(id);
  return flag && *flag;
}

void MplsTunnelFibSm::tunnelForReviewIs(HashedId const& id, bool flag) {
  auto [it, inserted] = tunnelForReview_.tryEmplace(id, flag);
  if (!inserted) {
    if (it.value() == flag) return;
    it.value() = flag;
  }
  scheduleTunnelReview();
}

MplsTunnelFibSm::TunnelIdSet const& MplsTunnelFibSm::directlyDependentTunnels(TunnelId const& id) const {
  TunnelIdSet const* set = directlyDependentTunnels_.lookup(id);
  return set ? *set : kNoTunnels;
}

void MplsTunnelFibSm::directlyDependentTunnelsIs(TunnelId const& id, TunnelId const& dependent) {
  // During the review of `dependent` this is settled at the end of the review.
  if (reviewActive_ && dependent == reviewing_) return;
  directlyDependentTunnels_.tryEmplace(id).first.value().insert(dependent);
}

void MplsTunnelFibSm::directlyDependentTunnelsDel(TunnelId const& id, TunnelId const& dependent) {
  TunnelIdSet* set = directlyDependentTunnels_.lookup(id);
  if (!set) return;
  set->erase(dependent);
  if (set->empty()) directlyDependentTunnels_.erase(id);
}

std::size_t MplsTunnelFibSm::DependencySetView::size() const {
  std::size_t n = 0;
  for (auto it = begin(); !(it == end()); ++it) ++n;
  return n;
}

MplsTunnelFibSm::TunnelIdSet const& MplsTunnelFibSm::tunnelsDirectlyDependingOn(TunnelId const& id) const {
  TunnelDependencies const* record = tunnelDependencies_.lookup(id);
  return record ? record->tunnelsDirectlyDependingOn : kNoTunnels;
}

void MplsTunnelFibSm::tunnelsDirectlyDependingOnIs(TunnelId const& id, HashedId const& inner) {
  if (reviewActive_ && id == reviewing_) {
    reviewInners_.push_back(inner);
    return;
  }
  tunnelDependencies_.tryEmplace(id).first.value().tunnelsDirectlyDependingOn.insert(inner);
}

MplsTunnelFibSm::TunnelIdSet const& MplsTunnelFibSm::resolvedByTunnels(TunnelId const& id) const {
  TunnelDependencies const* record = tunnelDependencies_.lookup(id);
  return record ? record->resolvedByTunnels : kNoTunnels;
}

void MplsTunnelFibSm::resolvedByTunnelsIs(TunnelId const& id, TunnelId const& inner) {
  if (reviewActive_ && id == reviewing_) {
    reviewResolved_.emplace_back(inner);
    return;
  }
  tunnelDependencies_.tryEmplace(id).first.value().resolvedByTunnels.insert(inner);
}

void MplsTunnelFibSm::resolvedByTunnelsInheritIs(TunnelId const& id, HashedId const& inner) {
  if (reviewActive_ && id == reviewing_) {
    reviewResolved_.push_back(inner);
    // A tunnel under review inherits nothing from itself: its own record is
    // the one being rebuilt.
    if (inner.key == id) return;
    if (TunnelDependencies const* record = tunnelDependencies_.lookup(inner)) {
      for (TunnelId const& t : record->resolvedByTunnels) reviewResolved_.emplace_back(t);
    }
    return;
  }
  // The record of `id` first: creating it may move every record of the map.
  TunnelIdSet& set = tunnelDependencies_.tryEmplace(id).first.value().resolvedByTunnels;
  set.insert(inner);
  if (inner.key == id) return;
  if (TunnelDependencies const* record = tunnelDependencies_.lookup(inner)) {
    for (TunnelId const& t : record->resolvedByTunnels) set.insert(t);
  }
}

bool MplsTunnelFibSm::resolvedThrough(HashedId const& id, TunnelId const& other) const {
  if (reviewActive_ && id.key == reviewing_) {
    return std::any_of(reviewResolved_.begin(), reviewResolved_.end(),
                       [&other](HashedId const& t) { return t.key == other; });
  }
  TunnelDependencies const* record = tunnelDependencies_.lookup(id);
  return record && record->resolvedByTunnels.contains(other);
}

bool MplsTunnelFibSm::tunnelFibEntryMarkedUnprocessed(TunnelId const& id) const {
  bool const* flag = tunnelFibEntryMarkedUnprocessed_.lookup(id);
  return flag && *flag;
}

void MplsTunnelFibSm::tunnelFibEntryMarkedUnprocessedIs(TunnelId const& id, bool flag) {
  tunnelFibEntryMarkedUnprocessed_.insertOrAssign(id, flag);
}

void MplsTunnelFibSm::hasNotificationActiveIs(bool active) {
  notificationActive_ = active;
  mplsTunnelFibReactor_.hasNotificationActiveIs(active);
  bgpLuTable_.hasNotificationActiveIs(active);
  ldpTable_.hasNotificationActiveIs(active);
  srTable_.hasNotificationActiveIs(active);
  bgpLuPushTable_.hasNotificationActiveIs(active);
  staticTable_.hasNotificationActiveIs(active);
  srTeSegmentListTable_.hasNotificationActiveIs(active);
}

// --- start -----------------------------------------------------------------------------------------

void MplsTunnelFibSm::handleInitialized() {
  SKEIN_TRACE(8, kFnHandleInitialized);
  taskIs(scheduler_, reviewTaskPriority, reviewTaskName);
  removeStaleEntries();
  // What is left in the FIB stays until reviewed; tunnels riding on these
  // entries wait for them (ViaResolution.cpp).
  for (auto it = mplsTunnelFib_->entrys().begin(); it != mplsTunnelFib_->entrys().end(); ++it) {
    TunnelId const id = it.key();
    tunnelFibEntryMarkedUnprocessedIs(id, true);
    tunnelForReviewIs(id, true);
  }
  handleBgpLuPushTunnelEntry();
  handleStaticTunnelEntry();
  handleBgpLuTunnelEntry();
  handleLdpSrTunnelEntry();
  handleSrTeSegmentListTunnelEntry();
  // Make room at once for what the first drain stores, rather than grow the
  // maps step by step in the backlog's order, which is their own: a FIB
  // entry for nearly every queued tunnel, and a dependency record for every
  // BGP LU tunnel (they ride on other tunnels; most others do not).
  mplsTunnelFib_->entrysMakeRoom(tunnelForReview_.size());
  tunnelDependencies_.makeRoom(entryCount(bgpLuTable()) + entryCount(bgpLuPushTable()));
  initializedIs(true);
}

void MplsTunnelFibSm::removeStaleEntries() {
  SKEIN_TRACE(8, kFnRemoveStaleEntries);
  std::vector<TunnelId> stale;
  for (auto it = mplsTunnelFib_->entrys().begin(); it != mplsTunnelFib_->entrys().end(); ++it) {
    TunnelId const id = it.key();
    if (!tunnelTableEntry(id)) {
      stale.push_back(id);
    } else {
      SKEIN_TRACE(8, kFnRemoveStaleEntries << " tunnel id " << id << " is not stale.");
    }
  }
  for (TunnelId const& id : stale) mplsTunnelFib_->entryDel(id);
}

// --- handlers --------------------------------------------------------------------------------------

template <class Table>
void MplsTunnelFibSm::queueAll(Vela::Ptr<Table const> const& table,
                               void (MplsTunnelFibSm::*handler)(TunnelId const&)) {
  if (!table) return;
  // Queuing changes no table, so the walk may go over the live collection.
  for (auto it = table->entrys().begin(); it != table->entrys().end(); ++it) (this->*handler)(it.key());
}

void MplsTunnelFibSm::handleBgpLuTunnelEntry(TunnelId const& id) { tunnelForReviewIs(id, true); }

void MplsTunnelFibSm::handleBgpLuTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleBgpLuTunnelEntry);
  queueAll(bgpLuTable(), &MplsTunnelFibSm::handleBgpLuTunnelEntry);
}

void MplsTunnelFibSm::handleLdpSrTunnelEntry(TunnelId const& id) { tunnelForReviewIs(id, true); }

void MplsTunnelFibSm::handleLdpSrTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleLdpSrTunnelEntry);
  queueAll(ldpTable(), &MplsTunnelFibSm::handleLdpSrTunnelEntry);
  queueAll(srTable(), &MplsTunnelFibSm::handleLdpSrTunnelEntry);
}

void MplsTunnelFibSm::handleBgpLuPushTunnelEntry(TunnelId const& id) { tunnelForReviewIs(id, true); }

void MplsTunnelFibSm::handleBgpLuPushTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleBgpLuPushTunnelEntry);
  queueAll(bgpLuPushTable(), &MplsTunnelFibSm::handleBgpLuPushTunnelEntry);
}

void MplsTunnelFibSm::handleStaticTunnelEntry(TunnelId const& id) { tunnelForReviewIs(id, true); }

void MplsTunnelFibSm::handleStaticTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleStaticTunnelEntry);
  queueAll(staticTable(), &MplsTunnelFibSm::handleStaticTunnelEntry);
}

void MplsTunnelFibSm::handleSrTeSegmentListTunnelEntry(TunnelId const& id) { tunnelForReviewIs(id, true); }

void MplsTunnelFibSm::handleSrTeSegmentListTunnelEntry() {
  SKEIN_TRACE(8, kFnHandleSrTeSegmentListTunnelEntry);
  queueAll(srTeSegmentListTable(), &MplsTunnelFibSm::handleSrTeSegmentListTunnelEntry);
}

void MplsTunnelFibSm::handleTunnelFibEntry(TunnelId const& id) {
  SKEIN_TRACE(8, "  handleTunnelFibEntry tunnelId: " << id);
  addDependentTunnelsForReview(id);
}

// --- workers ---------------------------------------------------------------------------------------

void MplsTunnelFibSm::addDependentTunnelsForReview(TunnelId const& id) {
  TunnelIdSet const* dependents = directlyDependentTunnels_.lookup(id);
  if (!dependents) return;
  // Queuing touches only the backlog, so the set stays as it is meanwhile.
  // The dependents of a much used tunnel land all over a large backlog: the
  // slots of the next few are asked for while one is queued.
  auto ahead = dependents->begin();
  auto const end = dependents->end();
  for (std::size_t i = 0; i < kQueueAhead && ahead != end; ++i, ++ahead)
    tunnelForReview_.prefetch(ahead.hashed());
  for (auto it = dependents->begin(); it != end; ++it) {
    if (ahead != end) {
      tunnelForReview_.prefetch(ahead.hashed());
      ++ahead;
    }
    tunnelForReviewIs(it.hashed(), true);
  }
}

TunnelTableEntry MplsTunnelFibSm::tunnelTableEntry(TunnelId const& id) const {
  switch (id.tunnelType()) {
    case TunnelType::bgpLuPushTunnel:
      return commonPartOf(bgpLuPushTable(), id);
    case TunnelType::bgpLuTunnel:
      return commonPartOf(bgpLuTable(), id);
    case TunnelType::ldpTunnel:
      return commonPartOf(ldpTable(), id);
    case TunnelType::staticTunnel:
      return commonPartOf(staticTable(), id);
    case TunnelType::srTunnel:
      return commonPartOf(srTable(), id);
    case TunnelType::srTeSegmentListTunnel:
      return commonPartOf(srTeSegmentListTable(), id);
    default:
      SKEIN_TRACE(8, "Unknown tunnel type " << id.tunnelType());
      return TunnelTableEntry();
  }
}

namespace {

using HashedId = MplsTunnelFibSm::HashedId;

// A review usually finds a few ids at most: so many are handled with plain
// loops rather than std::sort's set-up or hashing.
constexpr std::size_t kFewIds = 8;

// The order of a set's iteration: by reversed hash, then by id.
constexpr auto kSetOrder = [](HashedId const& a, HashedId const& b) {
  return a.rev != b.rev ? a.rev < b.rev : a.key < b.key;
};

void sortUnique(std::vector<HashedId>& ids) {
  if (ids.size() <= kFewIds) {
    // Sorted by insertion.
    for (auto i = ids.begin(); i != ids.end(); ++i) {
      for (auto j = i; j != ids.begin() && kSetOrder(*j, *(j - 1)); --j) std::iter_swap(j, j - 1);
    }
  } else {
    std::sort(ids.begin(), ids.end(), kSetOrder);
  }
  ids.erase(std::unique(ids.begin(), ids.end(),
                        [](HashedId const& a, HashedId const& b) { return a.key == b.key; }),
            ids.end());
}

// Whether `ids` (in the sets' order, unique) holds t. A few are compared as
// they stand: hashing t costs more.
bool foundIn(std::vector<HashedId> const& ids, TunnelId const& t) {
  if (ids.size() <= kFewIds) {
    return std::any_of(ids.begin(), ids.end(), [&t](HashedId const& h) { return h.key == t; });
  }
  return std::binary_search(ids.begin(), ids.end(), HashedId(t), kSetOrder);
}

// Makes `set` hold exactly `ids` (in the set's order, unique), writing only on
// a change.
void assignSet(MplsTunnelFibSm::TunnelIdSet& set, std::vector<HashedId> const& ids) {
  if (set.size() == ids.size() &&
      std::all_of(ids.begin(), ids.end(), [&set](HashedId const& t) { return set.contains(t); })) {
    return;
  }
  set.assignOrdered(ids.begin(), ids.end());
}

}  // namespace

// The review forgets the tunnel's old dependencies and records the new ones
// as its resolution finds them. Both are done here at once, after the
// resolution: the end state is the same, but a dependency that stays (the
// usual case) is neither removed from nor re-inserted into the sets of the
// tunnels it points at, which may hold a hundred thousand dependents.
void MplsTunnelFibSm::settleDependencies(HashedId const& self) {
  reviewActive_ = false;
  sortUnique(reviewInners_);
  sortUnique(reviewResolved_);
  // A record that will hold something is found or made in one probe; one
  // whose sets both come out empty goes at the end.
  bool const keep = !reviewInners_.empty() || !reviewResolved_.empty();
  TunnelId const& id = self.key;
  TunnelDependencies* record =
      keep ? &tunnelDependencies_.tryEmplace(self).first.value() : tunnelDependencies_.lookup(self);
  // Only directlyDependentTunnels_ changes from here until the record is
  // written, so `record` stays valid.
  if (record) {
    for (TunnelId const& t : record->tunnelsDirectlyDependingOn) {
      if (!foundIn(reviewInners_, t)) directlyDependentTunnelsDel(t, id);
    }
  }
  // Inner tunnels were recorded only if `keep`, so there is a record.
  for (HashedId const& t : reviewInners_) {
    if (!record->tunnelsDirectlyDependingOn.contains(t)) {
      directlyDependentTunnels_.tryEmplace(t).first.value().insert(self);
    }
  }
  if (!keep) {
    if (record) tunnelDependencies_.erase(id);
    return;
  }
  assignSet(record->tunnelsDirectlyDependingOn, reviewInners_);
  assignSet(record->resolvedByTunnels, reviewResolved_);
}

template <class F>
bool MplsTunnelFibSm::withTableEntry(HashedId const& id, F&& f) const {
  auto const visit = [&id, &f](auto const& table) {
    auto const* entry = findEntry(table, id);
    if (entry) f(*entry);
    return entry != nullptr;
  };
  switch (id.key.tunnelType()) {
    case TunnelType::bgpLuPushTunnel:
      return visit(bgpLuPushTable());
    case TunnelType::bgpLuTunnel:
      return visit(bgpLuTable());
    case TunnelType::staticTunnel:
      return visit(staticTable());
    case TunnelType::ldpTunnel:
      return visit(ldpTable());
    case TunnelType::srTunnel:
      return visit(srTable());
    case TunnelType::srTeSegmentListTunnel:
      return visit(srTeSegmentListTable());
    default:
      return false;
  }
}

void MplsTunnelFibSm::resolveTunnel(Vela::Ptr<MplsTunnelFibSm> const& self, HashedId const& id,
                                    MplsTunnelFibEntry& fibEntry, bool& gone) {
  switch (id.key.tunnelType()) {
    case TunnelType::invalidTunnel:
    case TunnelType::nexthopTunnel:
    case TunnelType::evpnVxlanTunnel:
    case TunnelType::staticInterfaceTunnel:
    case TunnelType::maxTunnelType:
      VELA_ASSERT_TEXT(false, "0 && \"Unsupported tunnel type\"");
      return;
    case TunnelType::bgpLuPushTunnel:
    case TunnelType::bgpLuTunnel:
    case TunnelType::staticTunnel:
    case TunnelType::ldpTunnel:
    case TunnelType::srTunnel:
    case TunnelType::srTeSegmentListTunnel:
      break;
    default:
      // Kinds 10 to 14: no vias, so the tunnel is reported unprogrammable as
      // if its table entry existed. Deliberately unlike the asserting kinds above.
      return;
  }
  gone = !withTableEntry(id, [&](auto const& entry) {
    if constexpr (requires { calculateTunnelFibEntryVias(self, fibEntry, entry); }) {
      // Tunnels with a label operation of their own: BGP LU, BGP LU push, static.
      calculateTunnelFibEntryVias(self, fibEntry, entry);
    } else {
      // Tunnels whose vias carry their labels: LDP, SR, SR-TE segment lists.
      for (MplsVia const& via : entry.vias()) calculateTunnelFibEntryMplsVia(self, fibEntry, via);
    }
  });
}

void MplsTunnelFibSm::prefetchReview(HashedId const& id) const {
  withTableEntry(id, [](auto const& entry) { entry.vias().prefetch(); });
  if (auto const* record = tunnelDependencies_.lookup(id)) {
    record->tunnelsDirectlyDependingOn.prefetch();
    record->resolvedByTunnels.prefetch();
  }
  // The FIB entry's own block is left to the review: on a cold start, when
  // most ids have none yet, looking them up ahead cost more than it saved.
}

void MplsTunnelFibSm::reviewTunnel(HashedId const& hashedId) {
  HashedId const hashed = hashedId;  // the caller's reference may point into a map changed below
  TunnelId const& id = hashed.key;
  TunnelType const type = id.tunnelType();
  SKEIN_TRACE(8, "  updateTunnelFibEntry tunnelId: " << id << " (" << type << ")");

  // From here the dependencies found by the resolution go to the review's
  // lists; settleDependencies() replaces the old ones with them.
  reviewActive_ = true;
  reviewing_ = id;
  reviewInners_.clear();
  reviewResolved_.clear();

  MplsTunnelFibEntry fibEntry(id);
  Vela::Ptr<MplsTunnelFibSm> const self(this);
  bool gone = false;
  try {
    resolveTunnel(self, hashed, fibEntry, gone);
  } catch (...) {
    settleDependencies(hashed);
    throw;
  }
  settleDependencies(hashed);

  if (!fibEntry.vias().empty()) {
    mplsTunnelFib_->entryIs(std::move(fibEntry));
    if (unprogrammableTunnelId_ && unprogrammableTunnelId_->entry(id)) {
      SKEIN_TRACE(8, kFnUpdateTunnelFibEntry << " " << id << " is now programmable");
      unprogrammableTunnelId_->entryDel(id);
    }
  } else {
    if (mplsTunnelFib_->entrys().contains(id)) mplsTunnelFib_->entryDel(id);
    if (gone) {
      if (unprogrammableTunnelId_) unprogrammableTunnelId_->entryDel(id);
    } else {
      SKEIN_TRACE(8, kFnUpdateTunnelFibEntry << " " << id << " is unprogrammable");
      if (unprogrammableTunnelId_) unprogrammableTunnelId_->entryIs(id, true);
    }
  }

  if (tunnelFibEntryMarkedUnprocessed_.erase(id)) {
    // The FIB entry may be unchanged, and then no notification wakes the
    // dependents that skipped this tunnel while it was unprocessed.
    addDependentTunnelsForReview(id);
  }
}

void MplsTunnelFibSm::scheduleTunnelReview() {
  if (!task_ || task_->taskScheduled()) return;
  if (task_->taskWorkPending() != 0) {
    // The last run yielded with work left: let other tasks in first.
    task_->scheduleTaskLowestDelay(tunnelReviewDelay_);
  } else {
    task_->scheduleTask();
  }
}

void MplsTunnelFibSm::drainTunnelBacklog() {
  if (!initialized_) return;
  SKEIN_TRACE(6, kFnDrainTunnelBacklog << ": " << tunnelForReview_.size() << " backlog entries");

  // Resume where the last run yielded. The position exists whether or not the
  // bookmarked id is still queued (iteration is in bit-reversed hash order).
  auto it = tunnelForReview_.iterFrom(tunnelReviewBookmark_);
  std::uint64_t reviewed = 0;
  // Reviews wait mostly for blocks that the table and FIB entries and the
  // dependency records point to, one block each and scattered over the heap.
  // (prefetchReview() says which of them are prefetched.)
  // Every kReadAhead reviews, the blocks of the kReadAhead ids after the next
  // kReadAhead are prefetched (at the start, and after a wrap, also those of
  // the next ones), so that the loads overlap instead of waiting in turn.
  std::uint64_t untilReadAhead = 0;
  bool readAheadNear = true;
  for (;;) {
    if (it == tunnelForReview_.end()) {
      if (tunnelForReview_.empty()) break;
      // Wrap around: ids queued behind the iterator during this run, and
      // those before the bookmark, are reviewed in the same run.
      it = tunnelForReview_.begin();
      untilReadAhead = 0;
      readAheadNear = true;
    }
    if (untilReadAhead == 0) {
      // A fresh iterator: g++ 12 wrongly takes a copy of `it` for one whose
      // key may be uninitialized.
      auto ahead = tunnelForReview_.iterFrom(it.key());
      for (std::uint64_t i = 0; i < 2 * kReadAhead && !(ahead == tunnelForReview_.end()); ++i, ++ahead) {
        if (readAheadNear || i >= kReadAhead) prefetchReview(ahead.hashed());
      }
      untilReadAhead = kReadAhead;
      readAheadNear = false;
    }
    --untilReadAhead;
    // The review may queue other ids (through the FIB notification); the
    // iterator survives that and finds its place again.
    reviewTunnel(it.hashed());
    ++reviewed;
    // Reviews only ever add to the backlog, so the iterator still finds the
    // id; erasing through it spares looking the id up again.
    it = tunnelForReview_.erase(it);
    if (task_->taskShouldYield()) {
      SKEIN_TRACE(6, "drainTunnelBacklog: Yielding");
      tunnelReviewBookmark_ = it == tunnelForReview_.end() ? TunnelId() : it.key();
      break;
    }
  }

  std::uint64_t const remaining = tunnelForReview_.size();
  SKEIN_TRACE(6, "drainTunnelBacklog: Reviewed " << reviewed << " tunnels. " << remaining
                                                 << " remain in the backlog.");
  task_->taskWorkCountInc(reviewed);
  task_->taskWorkPendingIs(remaining);
  if (remaining > 0) {
    scheduleTunnelReview();
  } else {
    tunnelReviewBookmark_ = TunnelId();
    VELA_ASSERT_TEXT(tunnelFibEntryMarkedUnprocessed_.empty(), "!tunnelFibEntryMarkedUnprocesseds()");
    if (task_->taskScheduled()) task_->unscheduleTask();
  }
}

}  // namespace Tunnel::TunnelTable
