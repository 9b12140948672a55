// The nexthop tunnel allocator.
//
// NexthopTunnelTableSm hands out nexthop tunnels: given a layer-3
// description it returns the tunnel that carries it, creating the tunnel on
// first use and counting its users. Ids come from a counter that starts at 1
// and are never reused; a tunnel whose count drops to 0 keeps its id and its
// table entries, so a later request for the same description revives it.
#pragma once

#include <cstdint>

#include "TunnelTable/TunnelSmTypes.h"
#include "TunnelTable/TunnelTable.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/OrderedMap.h"

namespace Tunnel::TunnelTable {

// Tunnel id -> layer-3 description.
class NexthopTunnelTable : public TunnelTableBase {
 public:
  explicit NexthopTunnelTable(Vela::Name name);
  std::string_view typeName() const override { return "Tunnel::TunnelTable::NexthopTunnelTable"; }

  NexthopTunnelL3Info const& entry(TunnelId const& id) const { return entry_.get(id); }
  void entryIs(TunnelId const& id, NexthopTunnelL3Info const& info) { entry_.set(id, info); }
  void newEntry(TunnelId const& id, NexthopTunnelL3Info const& info) { entry_.set(id, info); }
  void entryDel(TunnelId const& id) { entry_.del(id); }
  void entryDelAll() { entry_.delAll(); }
  auto const& entrys() const { return entry_; }

  VELA_ATTRIBUTE(std::uint32_t, nextAvailableIndex);

 private:
  Vela::ValueCollection<TunnelId, NexthopTunnelL3Info> entry_;
};

// Tunnel id -> layer-2 status and counters.
class NexthopHwTunnelTable : public TunnelTableBase {
 public:
  explicit NexthopHwTunnelTable(Vela::Name name);
  std::string_view typeName() const override { return "Tunnel::TunnelTable::NexthopHwTunnelTable"; }

  NexthopTunnelL2Info const& entry(TunnelId const& id) const { return entry_.get(id); }
  NexthopTunnelL2Info const* entryLookup(TunnelId const& id) const { return entry_.lookup(id); }
  void entryIs(TunnelId const& id, NexthopTunnelL2Info const& info) { entry_.set(id, info); }
  void entryDel(TunnelId const& id) { entry_.del(id); }
  void entryDelAll() { entry_.delAll(); }
  auto const& entrys() const { return entry_; }

 private:
  Vela::ValueCollection<TunnelId, NexthopTunnelL2Info> entry_;
};

// The tunnels of one nexthop group, in position order.
class NexthopGroupTunnelCollection : public Vela::Entity {
 public:
  explicit NexthopGroupTunnelCollection(std::uint32_t nhId) : Entity(std::to_string(nhId)), nhId_(nhId) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::NexthopGroupTunnelCollection"; }
  std::uint32_t nhId() const { return nhId_; }

  VELA_ATTRIBUTE(std::uint32_t, currentSize);
  VELA_VALUE_COLLECTION(std::uint32_t, TunnelId, via, Vela::OrderedMap<std::uint32_t, TunnelId>);

 private:
  std::uint32_t nhId_;
};

class NexthopTunnelTableSm : public Vela::Entity {
 public:
  NexthopTunnelTableSm(Vela::Ptr<NexthopTunnelTable> tunnelTable,
                       Vela::Ptr<NexthopHwTunnelTable> hwTunnelTable);
  std::string_view typeName() const override { return "Tunnel::TunnelTable::NexthopTunnelTableSm"; }

  Vela::Ptr<NexthopTunnelTable> const& tunnelTable() const { return tunnelTable_; }
  Vela::Ptr<NexthopHwTunnelTable> const& hwTunnelTable() const { return hwTunnelTable_; }
  std::uint64_t nextAvailableIndex() const { return nextAvailableIndex_; }
  ReverseTunnelEntry const& nexthopTunnelTableId(NexthopTunnelL3Info const& info) const {
    return nexthopTunnelTableId_.get(info);
  }
  auto const& nexthopTunnelTableIds() const { return nexthopTunnelTableId_; }
  bool initialized() const { return initialized_; }

  VELA_ENTITY_COLLECTION(std::uint32_t, NexthopGroupTunnelCollection, nexthopGroupTunnelCollection,
                         NexthopGroupTunnelCollection);

 public:
  TunnelId getFreeTunnelIndex();
  ReverseTunnelEntry createOrUpdateStatus(NexthopTunnelL3Info const& l3Info);
  void deleteTunnelEntry(TunnelId const& tunnelId);
  void deleteTunnelTable();
  NexthopTunnelL2Info getL2Info(TunnelId const& tunnelId) const;
  NexthopTunnelL3Info getL3Info(TunnelId const& tunnelId) const;
  std::uint32_t refCount(TunnelId const& tunnelId) const;
  TunnelId tunnelIdFromL3Info(NexthopTunnelL3Info const& l3Info) const;
  void createOrUpdateHwStatus(TunnelId const& tunnelId, NexthopTunnelL2Info const& l2Info);
  void updateHwStatusCounters(TunnelId const& tunnelId, std::uint64_t packets, std::uint64_t bytes);
  bool tunnelExists(TunnelId const& tunnelId) const;
  void updateCounterInfo(TunnelId const& tunnelId, std::uint64_t counterIndex, Quay::ChipSet chipMask,
                         std::uint64_t packets, std::uint64_t bytes);
  ReverseTunnelEntry doUpdateTunnel(NexthopTunnelL3Info const& l3Info, NexthopTunnelL2Info const& l2Info);
  void clearCounters();
  void handleInitialized();

 private:
  bool inputsPresent() const { return tunnelTable_ && hwTunnelTable_; }

  Vela::Ptr<NexthopTunnelTable> tunnelTable_;
  Vela::Ptr<NexthopHwTunnelTable> hwTunnelTable_;
  std::uint64_t nextAvailableIndex_ = 1;
  Vela::ValueCollection<NexthopTunnelL3Info, ReverseTunnelEntry> nexthopTunnelTableId_;
  bool initialized_ = false;
};

Vela::Ptr<NexthopTunnelTableSm> nexthopTunnelTableSmFactory(Vela::Ptr<NexthopTunnelTable> tunnelTable,
                                                            Vela::Ptr<NexthopHwTunnelTable> hwTunnelTable);

}  // namespace Tunnel::TunnelTable
