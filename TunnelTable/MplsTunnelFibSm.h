// MplsTunnelFibSm: keeps the MPLS tunnel FIB in step with the six MPLS
// protocol tunnel tables.
//
// A table entry may have vias that ride on another tunnel (their interface is
// that tunnel's dynamic tunnel interface); the FIB holds only flattened vias.
// The state machine resolves every tunnel through the FIB entries of the
// tunnels it rides on (ViaResolution.h) and remembers who depends on whom, so
// that a change to one tunnel's FIB entry re-resolves exactly its direct
// dependents, and those theirs, one level per review.
//
// Notifications never do work: every table or FIB notification only queues
// the tunnel id in the review backlog (`tunnelForReview`). The review task
// "TunnelFibSm" drains the backlog in the iteration order of its hash
// collection, yields whenever the scheduler asks and resumes at a bookmark.
// A tunnel that stays in its table but resolves to no via leaves the FIB and
// joins `unprogrammableTunnelId`, which the tunnel RIB watches.
//
// The dependency maps hold an entry per BGP LU tunnel at PE scale, so they
// are kept compact: small sets of ids (TunnelIdSet), and one record per
// tunnel for the two maps keyed by the tunnel that depends
// (tunnelsDirectlyDependingOn and resolvedByTunnels), read through views
// that show each as a collection of its own. Before dropping the machine its
// owner switches its notifications off with hasNotificationActiveIs(false).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "TunnelFib/TunnelFib.h"
#include "TunnelTable/TunnelTable.h"
#include "framework/Quay/TaskScheduler.h"
#include "framework/Quay/TimerTask.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/HashMap.h"
#include "framework/Vela/Ptr.h"
#include "framework/Vela/ValueSet.h"

namespace Tunnel::TunnelTable {

using Tunnel::TunnelFib::MplsTunnelFib;
using Tunnel::TunnelFib::MplsTunnelFibEntry;

class MplsTunnelFibSm : public Vela::Entity {
 public:
  // A set of tunnel ids: a small sorted array up to eight members, a hash
  // table beyond. Iterated in the bit-reversed hash order of its members.
  // Two ids are kept in the set itself: a BGP LU tunnel usually rides on two
  // tunnels, and its dependency records then need no block of their own.
  using TunnelIdSet = Vela::ValueSet<TunnelId, Vela::Hash<TunnelId>, std::equal_to<TunnelId>, 2>;
  // Tunnel id -> set of tunnel ids (directlyDependentTunnels).
  using TunnelIdSetMap = Vela::HashMap<TunnelId, TunnelIdSet>;
  // Tunnel id -> flag (the backlog and the start-up marks).
  using TunnelIdFlagMap = Vela::HashMap<TunnelId, bool>;

  // What one tunnel's last review recorded about the tunnels under it. A
  // record exists while either set is non-empty.
  struct TunnelDependencies {
    TunnelIdSet tunnelsDirectlyDependingOn;
    TunnelIdSet resolvedByTunnels;
  };
  using TunnelDependenciesMap = Vela::HashMap<TunnelId, TunnelDependencies>;
  // A tunnel id with its hash: the resolution finds an inner tunnel in
  // several maps and sets, and hashes it once.
  using HashedId = Vela::Hashed<TunnelId>;

  // One of the two sets of every record, seen as a collection keyed by
  // tunnel: its members are the tunnels whose set is non-empty. Iteration
  // yields (id, set) in the records' order; size() counts.
  class DependencySetView {
   public:
    using Set = TunnelIdSet TunnelDependencies::*;

    class const_iterator {
     public:
      using Inner = TunnelDependenciesMap::const_iterator;
      const_iterator(Inner it, Inner end, Set set) : it_(std::move(it)), end_(std::move(end)), set_(set) {
        skipEmpty();
      }
      std::pair<TunnelId const&, TunnelIdSet const&> operator*() const {
        return {it_.key(), it_.value().*set_};
      }
      TunnelId const& key() const { return it_.key(); }
      TunnelIdSet const& value() const { return it_.value().*set_; }
      const_iterator& operator++() {
        ++it_;
        skipEmpty();
        return *this;
      }
      friend bool operator==(const_iterator const& a, const_iterator const& b) { return a.it_ == b.it_; }

     private:
      void skipEmpty() {
        while (!(it_ == end_) && (it_.value().*set_).empty()) ++it_;
      }
      Inner it_;
      Inner end_;
      Set set_;
    };

    DependencySetView(TunnelDependenciesMap const& map, Set set) : map_(map), set_(set) {}
    const_iterator begin() const { return const_iterator(map_.begin(), map_.end(), set_); }
    const_iterator end() const { return const_iterator(map_.end(), map_.end(), set_); }
    bool contains(TunnelId const& id) const {
      TunnelDependencies const* record = map_.lookup(id);
      return record && !(record->*set_).empty();
    }
    std::size_t size() const;
    bool empty() const { return begin() == end(); }

   private:
    TunnelDependenciesMap const& map_;
    Set set_;
  };

  static constexpr double defaultTunnelReviewDelay = 0.01;
  static constexpr Quay::TaskPriority reviewTaskPriority = Quay::TaskPriority::defaultPriority;
  static constexpr char const* reviewTaskName = "TunnelFibSm";

  // A null table leaves that input unwatched. Ends by running handleInitialized().
  MplsTunnelFibSm(Vela::Ptr<MplsTunnelFib> mplsTunnelFib, Vela::Ptr<TunnelIdColl> unprogrammableTunnelId,
                  Vela::Ptr<BgpLuTunnelTable const> bgpLuTable, Vela::Ptr<LdpTunnelTable const> ldpTable,
                  Vela::Ptr<SrTunnelTable const> srTable,
                  Vela::Ptr<BgpLuPushTunnelTable const> bgpLuPushTable,
                  Vela::Ptr<StaticTunnelTable const> staticTable,
                  Vela::Ptr<SrTeSegmentListTunnelTable const> srTeSegmentListTable,
                  Vela::Ptr<Quay::TaskScheduler> scheduler);
  std::string_view typeName() const override { return "Tunnel::TunnelTable::MplsTunnelFibSm"; }

  // --- attributes, in their declared order -------------------------------------------------------
  Vela::Ptr<MplsTunnelFib> const& mplsTunnelFib() const { return mplsTunnelFib_; }
  Vela::Ptr<TunnelIdColl> const& unprogrammableTunnelId() const { return unprogrammableTunnelId_; }
  Vela::Ptr<BgpLuTunnelTable const> const& bgpLuTable() const { return bgpLuTable_.notifier(); }
  Vela::Ptr<LdpTunnelTable const> const& ldpTable() const { return ldpTable_.notifier(); }
  Vela::Ptr<SrTunnelTable const> const& srTable() const { return srTable_.notifier(); }
  Vela::Ptr<BgpLuPushTunnelTable const> const& bgpLuPushTable() const { return bgpLuPushTable_.notifier(); }
  Vela::Ptr<StaticTunnelTable const> const& staticTable() const { return staticTable_.notifier(); }
  Vela::Ptr<SrTeSegmentListTunnelTable const> const& srTeSegmentListTable() const {
    return srTeSegmentListTable_.notifier();
  }
  Vela::Ptr<Quay::TaskScheduler> const& scheduler() const { return scheduler_; }

  // The review task; created by handleInitialized().
  Vela::Ptr<Quay::TimerTask> const& task() const { return task_; }
  // Creates the review task (run handler: drainTunnelBacklog) and runs its
  // handler once, as attaching a task does.
  void taskIs(Vela::Ptr<Quay::TaskScheduler> const& scheduler, Quay::TaskPriority priority,
              std::string const& name);

  // Seconds a rescheduled review waits while work is pending.
  double tunnelReviewDelay() const { return tunnelReviewDelay_; }
  void tunnelReviewDelayIs(double seconds) { tunnelReviewDelay_ = seconds; }

  // Where the next drain resumes (zero: at the beginning).
  TunnelId tunnelReviewBookmark() const { return tunnelReviewBookmark_; }
  void tunnelReviewBookmarkIs(TunnelId id) { tunnelReviewBookmark_ = id; }

  // The backlog: tunnels whose FIB entry must be recomputed.
  bool tunnelForReview(TunnelId const& id) const;
  // Queues the id; schedules the review when the id was not queued yet (or
  // its flag differed). An id already queued changes nothing.
  void tunnelForReviewIs(HashedId const& id, bool flag);
  void tunnelForReviewDel(TunnelId const& id) { tunnelForReview_.erase(id); }
  TunnelIdFlagMap const& tunnelForReviews() const { return tunnelForReview_; }

  // For tunnel X: the tunnels that have a via pointing directly at X. An
  // entry is removed as soon as its set becomes empty. Reading an absent key
  // gives the empty set.
  TunnelIdSet const& directlyDependentTunnels(TunnelId const& id) const;
  TunnelIdSetMap const& directlyDependentTunnelss() const { return directlyDependentTunnels_; }
  // Adds `dependent` to the set of `id`.
  void directlyDependentTunnelsIs(TunnelId const& id, TunnelId const& dependent);
  // Removes `dependent` from the set of `id`, and the entry once it is empty.
  void directlyDependentTunnelsDel(TunnelId const& id, TunnelId const& dependent);

  // For tunnel Y: the tunnels that Y's vias point at directly (the reverse
  // of directlyDependentTunnels). An entry emptied by a review is removed at
  // the end of that review.
  TunnelIdSet const& tunnelsDirectlyDependingOn(TunnelId const& id) const;
  DependencySetView tunnelsDirectlyDependingOns() const {
    return DependencySetView(tunnelDependencies_, &TunnelDependencies::tunnelsDirectlyDependingOn);
  }
  // (An id converts to HashedId, hashing once.)
  void tunnelsDirectlyDependingOnIs(TunnelId const& id, HashedId const& inner);

  // For tunnel Y: every tunnel, directly or transitively, through which Y's
  // vias were flattened. Emptied entries go at the end of the review.
  TunnelIdSet const& resolvedByTunnels(TunnelId const& id) const;
  DependencySetView resolvedByTunnelss() const {
    return DependencySetView(tunnelDependencies_, &TunnelDependencies::resolvedByTunnels);
  }
  void resolvedByTunnelsIs(TunnelId const& id, TunnelId const& inner);
  // Adds `inner` and every member of resolvedByTunnels(inner) to the set of `id`.
  void resolvedByTunnelsInheritIs(TunnelId const& id, HashedId const& inner);
  // Whether resolvedByTunnels(id) holds `other`, counting what the review of
  // `id` in progress (if any) has recorded so far.
  bool resolvedThrough(HashedId const& id, TunnelId const& other) const;

  // Both sets of every tunnel, one record per tunnel.
  TunnelDependenciesMap const& tunnelDependencies() const { return tunnelDependencies_; }

  // FIB entries found at start-up that have not been recomputed yet.
  bool tunnelFibEntryMarkedUnprocessed(TunnelId const& id) const;
  void tunnelFibEntryMarkedUnprocessedIs(TunnelId const& id, bool flag);
  void tunnelFibEntryMarkedUnprocessedDel(TunnelId const& id) { tunnelFibEntryMarkedUnprocessed_.erase(id); }
  TunnelIdFlagMap const& tunnelFibEntryMarkedUnprocesseds() const { return tunnelFibEntryMarkedUnprocessed_; }

  // Set at the end of handleInitialized(); the backlog is not drained before.
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  // Switches the notifications of every input (the six tables and the FIB) on or off.
  bool hasNotificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool active);

  // --- handlers ----------------------------------------------------------------------------------
  // Cleans stale FIB entries, marks the rest unprocessed and queues every
  // tunnel of every table.
  virtual void handleInitialized();
  // Each keyed handler only queues the id; the argument-less forms queue
  // every entry of their table (LDP first, then SR, for the shared handler).
  void handleBgpLuTunnelEntry(TunnelId const& id);
  void handleBgpLuTunnelEntry();
  void handleLdpSrTunnelEntry(TunnelId const& id);
  void handleLdpSrTunnelEntry();
  void handleBgpLuPushTunnelEntry(TunnelId const& id);
  void handleBgpLuPushTunnelEntry();
  void handleStaticTunnelEntry(TunnelId const& id);
  void handleStaticTunnelEntry();
  void handleSrTeSegmentListTunnelEntry(TunnelId const& id);
  void handleSrTeSegmentListTunnelEntry();
  // The FIB entry of `id` was written, replaced or deleted: its direct
  // dependents go into the backlog.
  void handleTunnelFibEntry(TunnelId const& id);

  // --- workers -----------------------------------------------------------------------------------
  void addDependentTunnelsForReview(TunnelId const& id);
  // The protocol table entry behind `id` (its common part), chosen by the
  // id's tunnel type; the empty entry when absent or of no MPLS table's type.
  TunnelTableEntry tunnelTableEntry(TunnelId const& id) const;
  // Recomputes the FIB entry of one tunnel and its dependencies.
  void updateTunnelFibEntry(TunnelId const& id) { reviewTunnel(HashedId(id)); }
  // The review task's run handler.
  void drainTunnelBacklog();
  void scheduleTunnelReview();
  // Deletes the FIB entries whose tunnel is in no table.
  void removeStaleEntries();

 protected:
  // Held only through Vela::Ptr.
  ~MplsTunnelFibSm() override;

 private:
  // Forwards the per-id notifications of one input's `entry` collection.
  template <class Notifier>
  class EntryReactor : public Vela::Reactor<Notifier> {
   public:
    using Handler = void (MplsTunnelFibSm::*)(TunnelId const&);
    EntryReactor(MplsTunnelFibSm* sm, Handler handler) : sm_(sm), handler_(handler) {}

   protected:
    void onNotifier(Notifier const& notifier) override {
      this->watch(notifier.entrys().changed(),
                  [sm = sm_, handler = handler_](TunnelId const& id) { (sm->*handler)(id); });
    }

   private:
    MplsTunnelFibSm* sm_;
    Handler handler_;
  };

  // Queues every id of `table` through `handler`.
  template <class Table>
  void queueAll(Vela::Ptr<Table const> const& table, void (MplsTunnelFibSm::*handler)(TunnelId const&));
  // Calls f with the entry of `id` in the table of its tunnel type, if it has
  // one; returns whether it had. False for the types of no table.
  template <class F>
  bool withTableEntry(HashedId const& id, F&& f) const;
  // updateTunnelFibEntry(), with the id's hash at hand (the backlog keeps it).
  void reviewTunnel(HashedId const& id);
  // Step 3 of a review: fills `fibEntry` from the table entry of its tunnel
  // `id`; sets `gone` when the table has no entry for it.
  void resolveTunnel(Vela::Ptr<MplsTunnelFibSm> const& self, HashedId const& id, MplsTunnelFibEntry& fibEntry,
                     bool& gone);
  // Starts loading the blocks the review of `id` will read (see drainTunnelBacklog()).
  void prefetchReview(HashedId const& id) const;
  // Ends the review of `id`: writes what its resolution recorded into the
  // dependency maps, touching only what changed (see the .cpp).
  void settleDependencies(HashedId const& id);

  Vela::Ptr<MplsTunnelFib> mplsTunnelFib_;
  Vela::Ptr<TunnelIdColl> unprogrammableTunnelId_;
  EntryReactor<MplsTunnelFib> mplsTunnelFibReactor_{this, &MplsTunnelFibSm::handleTunnelFibEntry};
  EntryReactor<BgpLuTunnelTable> bgpLuTable_{this, &MplsTunnelFibSm::handleBgpLuTunnelEntry};
  EntryReactor<LdpTunnelTable> ldpTable_{this, &MplsTunnelFibSm::handleLdpSrTunnelEntry};
  EntryReactor<SrTunnelTable> srTable_{this, &MplsTunnelFibSm::handleLdpSrTunnelEntry};
  EntryReactor<BgpLuPushTunnelTable> bgpLuPushTable_{this, &MplsTunnelFibSm::handleBgpLuPushTunnelEntry};
  EntryReactor<StaticTunnelTable> staticTable_{this, &MplsTunnelFibSm::handleStaticTunnelEntry};
  EntryReactor<SrTeSegmentListTunnelTable> srTeSegmentListTable_{
      this, &MplsTunnelFibSm::handleSrTeSegmentListTunnelEntry};
  Vela::Ptr<Quay::TaskScheduler> scheduler_;
  Vela::Ptr<Quay::TimerTask> task_;
  double tunnelReviewDelay_ = defaultTunnelReviewDelay;
  TunnelId tunnelReviewBookmark_;
  TunnelIdFlagMap tunnelForReview_;
  TunnelIdSetMap directlyDependentTunnels_;
  TunnelIdFlagMap tunnelFibEntryMarkedUnprocessed_;
  TunnelDependenciesMap tunnelDependencies_;
  bool initialized_ = false;
  bool notificationActive_ = true;
  // The review in progress: its tunnel, and what its resolution recorded
  // (unsorted, with repeats) until settleDependencies().
  bool reviewActive_ = false;
  TunnelId reviewing_;
  std::vector<HashedId> reviewInners_;
  std::vector<HashedId> reviewResolved_;
};

// Creates the state machine (the aggregator's way to start it).
Vela::Ptr<MplsTunnelFibSm> mplsTunnelFibSmFactory(
    Vela::Ptr<MplsTunnelFib> mplsTunnelFib, Vela::Ptr<TunnelIdColl> unprogrammableTunnelId,
    Vela::Ptr<BgpLuTunnelTable const> bgpLuTable, Vela::Ptr<LdpTunnelTable const> ldpTable,
    Vela::Ptr<SrTunnelTable const> srTable, Vela::Ptr<BgpLuPushTunnelTable const> bgpLuPushTable,
    Vela::Ptr<StaticTunnelTable const> staticTable,
    Vela::Ptr<SrTeSegmentListTunnelTable const> srTeSegmentListTable,
    Vela::Ptr<Quay::TaskScheduler> scheduler);

}  // namespace Tunnel::TunnelTable
