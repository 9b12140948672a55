// TunnelRibSm: selection of the tunnel RIB from the protocol tunnel tables.
//
// The state machine reads the static, LDP, SR and BGP labelled-unicast tunnel
// tables and keeps, for every tunnel endpoint prefix (TEP), the tunnel ids of
// the one most preferred protocol that offers a tunnel to it, with the metric
// and preference fields of the tunnel entered last. Beside the tunnel RIB it
// writes one per-protocol tunnel RIB for each of the four protocols (all ids
// of that protocol per TEP, no selection), keeps the reverse map from tunnel
// id to TEP, withdraws the tunnels that the MPLS tunnel FIB declared
// unprogrammable and restores them when they leave that set, and follows BGP
// convergence into the tunnel RIB's `tunnelRibConverged` flag.
//
// The aggregator creates it once all protocol tables exist. The constructor
// cleans stale ids out of the (persistent) tunnel RIBs and rebuilds them with
// full scans of the tables; from then on every table notification is handled
// per tunnel id, in constant time. Before dropping the machine its owner
// switches its notifications off with hasNotificationActiveIs(false).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/TunnelTable.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/HashMap.h"
#include "framework/Vela/Ptr.h"

namespace Tunnel::TunnelTable {

// Keeps the tunnel RIB and the per-protocol tunnel RIBs in step with the
// protocol tables. Per TEP the entry holds the ids of one protocol only: a
// tunnel of another protocol replaces them only when its table's tablePref is
// strictly lower (on a tie the protocol already there stays, deliberately),
// and when the selected protocol loses its last id the TEP falls back to the
// first protocol in the fixed order static, LDP, SR, BGP LU that still offers
// one (deliberately not by tablePref).
class TunnelRibSm : public Vela::Entity {
 public:
  // Binds the inputs (a null table gets no reactor) and runs
  // handleInitialized(): stale ids out, full scans in. `tunnelRib` must not
  // be null; a missing per-protocol tunnel RIB is an internal error.
  TunnelRibSm(Vela::Ptr<TunnelRib> tunnelRib, Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
              Vela::Ptr<BgpLuTunnelTable const> bgpLuTable, Vela::Ptr<LdpTunnelTable const> ldpTable,
              Vela::Ptr<SrTunnelTable const> srTable, Vela::Ptr<StaticTunnelTable const> staticTable,
              Vela::Ptr<TunnelIdColl const> unprogrammableTunnelId,
              Vela::Ptr<Vela::Dir const> protoTunnelTablesDir);
  ~TunnelRibSm() override;
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelRibSm"; }

  // Outputs.
  Vela::Ptr<TunnelRib> const& tunnelRib() const { return tunnelRib_; }
  Vela::Ptr<ProtocolTunnelRibCollection> const& protoTunnelRibColl() const { return protoTunnelRibColl_; }

  // Inputs. Pointing a table input at a different, non-null table after
  // construction runs that table's full scan (BGP LU: then also the
  // convergence handler); null drops the input's reactor. Re-pointing the
  // unprogrammable set runs nothing.
  Vela::Ptr<BgpLuTunnelTable const> bgpLuTable() const;
  Vela::Ptr<LdpTunnelTable const> ldpTable() const;
  Vela::Ptr<SrTunnelTable const> srTable() const;
  Vela::Ptr<StaticTunnelTable const> staticTable() const;
  Vela::Ptr<TunnelIdColl const> unprogrammableTunnelId() const;
  void bgpLuTableIs(Vela::Ptr<BgpLuTunnelTable const> const& table);
  void ldpTableIs(Vela::Ptr<LdpTunnelTable const> const& table);
  void srTableIs(Vela::Ptr<SrTunnelTable const> const& table);
  void staticTableIs(Vela::Ptr<StaticTunnelTable const> const& table);
  void unprogrammableTunnelIdIs(Vela::Ptr<TunnelIdColl const> const& coll);
  Vela::Ptr<Vela::Dir const> const& protoTunnelTablesDir() const { return protoTunnelTablesDir_; }

  // Local state: the TEP under which each id present in a per-protocol tunnel
  // RIB was entered, and, per TEP whose tunnel RIB entry shows the metrics of
  // a BGP LU tunnel, that tunnel's id. Absent keys read as the default value.
  TunnelIdToTepEntry const& tunnelIdToTep(TunnelId const& id) const;
  Vela::HashMap<TunnelId, TunnelIdToTepEntry> const& tunnelIdToTeps() const { return tunnelIdToTep_; }
  TunnelId const& tunRibMetricTunId(Nimbo::IpGenPrefix const& tep) const;
  Vela::HashMap<Nimbo::IpGenPrefix, TunnelId> const& tunRibMetricTunIds() const { return tunRibMetricTunId_; }
  bool initialized() const { return initialized_; }

  // Switches the notifications of every input on or off.
  bool hasNotificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool active);

  // Handlers. Those without an argument scan a whole table.
  void handleInitialized();
  void handleBgpLuTunnelEntry(TunnelId const& id);
  void handleBgpLuTunnelEntry();
  void handleLdpSrTunnelEntry(TunnelId const& id);
  void handleLdpSrTunnelEntry();
  void handleStaticTunnelEntry(TunnelId const& id);
  void handleStaticTunnelEntry();
  void handleUnprogrammableEntry(TunnelId const& id);
  // When bgpConverged is true, inverts tunnelRibConverged (deliberately an
  // inversion, not a copy); not run at construction.
  void handleBgpConvergence();

  // Workers, in calling order: a table handler calls
  // doUpdateLocalCollectionsAndTunnelRib, which calls doUpdateTunnelRibEntry,
  // which calls doAddTunnelId, doSelectBestAndUpdateTunnelRib or
  // doUpdateTunRibMetric.
  // (Each takes the TEP and the id with their hashes, worked out once for
  // the maps keyed by them; a plain TEP or id converts.)
  void doUpdateLocalCollectionsAndTunnelRib(HashedTunnelId const& id, HashedTep const& tep, bool add);
  void doUpdateTunnelRibEntry(HashedTunnelId const& id, HashedTep const& tep, bool add);
  void doSelectBestAndUpdateTunnelRib(HashedTep const& tep);
  void doAddTunnelId(HashedTunnelId const& id, HashedTep const& tep);
  void doUpdateTunRibMetric(HashedTep const& tep);
  // The tablePref of the id's protocol table; lower is preferred. 0 (which
  // wins every comparison) for a tunnel type outside the four protocols.
  std::uint8_t getPreference(TunnelId const& id) const;
  // The id's entry in its protocol table, or the default entry.
  TunnelTableEntry tunnelTableEntry(TunnelId const& id) const;
  void removeStaleEntries(Vela::Ptr<TunnelRib> const& rib);
  void verifyProtoTunnelRibColl() const;
  // Throws Vela::InternalException unless the per-protocol tunnel RIB of
  // `type` exists.
  void assertProtoTunnelRib(TunnelType type) const;

 private:
  // Traces the handler's entry; true (traced) when the id is unprogrammable
  // and the handler must leave it alone.
  bool skipUnprogrammable(std::string_view fn, TunnelId const& id) const;
  // Enters the id under its entry's TEP, or, without an entry (absent or
  // not contributing), withdraws it from the TEP it was entered under.
  void enterOrWithdraw(HashedTunnelId const& id, TunnelTableEntry const* entry);

  template <class Table>
  class TableReactor;
  using BgpLuTableReactor = TableReactor<BgpLuTunnelTable>;
  using LdpTableReactor = TableReactor<LdpTunnelTable>;
  using SrTableReactor = TableReactor<SrTunnelTable>;
  using StaticTableReactor = TableReactor<StaticTunnelTable>;
  using UnprogrammableReactor = TableReactor<TunnelIdColl>;

  template <class Reactor, class Table>
  void reactorIs(std::unique_ptr<Reactor>& reactor, Vela::Ptr<Table const> const& table,
                 typename Reactor::Handler handler, typename Reactor::Bound bound);
  // Runs when a table input is bound to a new table after construction.
  void onBgpLuTableBound();
  void onLdpSrTableBound();
  void onStaticTableBound();

  bool isUnprogrammable(TunnelId const& id) const;
  // The per-protocol tunnel RIB of `type`; the checks of assertProtoTunnelRib.
  TunnelRib& protoTunnelRib(TunnelType type) const;
  // Makes room in tunnelIdToTep before a full scan of `count` ids, so that
  // ids arriving in the table's hash order do not pile up in a small table.
  void reserveForScan(std::size_t count);
  // doAddTunnelId on the tunnel RIB entry of `tep`, already at hand.
  void addTunnelId(TunnelRibEntry& ribEntry, HashedTunnelId const& id, HashedTep const& tep);
  // Copies the BGP LU tunnel's metric fields into the tunnel RIB entry of
  // `tep` and records the tunnel as the entry's metric source.
  void copyBgpLuMetrics(TunnelRibEntry& ribEntry, HashedTunnelId const& id, HashedTep const& tep,
                        bool traced);

  Vela::Ptr<TunnelRib> tunnelRib_;
  Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl_;
  std::unique_ptr<BgpLuTableReactor> bgpLuTable_;
  std::unique_ptr<LdpTableReactor> ldpTable_;
  std::unique_ptr<SrTableReactor> srTable_;
  std::unique_ptr<StaticTableReactor> staticTable_;
  std::unique_ptr<UnprogrammableReactor> unprogrammableTunnelId_;
  Vela::Ptr<Vela::Dir const> protoTunnelTablesDir_;
  Vela::HashMap<TunnelId, TunnelIdToTepEntry> tunnelIdToTep_;
  Vela::HashMap<Nimbo::IpGenPrefix, TunnelId> tunRibMetricTunId_;
  bool initialized_ = false;
  bool notificationActive_ = true;
};

}  // namespace Tunnel::TunnelTable
