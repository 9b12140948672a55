#include "TunnelTable/TunnelSm.h"

#include <cstdlib>

namespace Tunnel::TunnelTable {

NextHopIndex::NextHopIndex(std::uint32_t value) : value_(value) {
  if (value > max) {
    throw Vela::RangeException("NextHopIndex::value < NextHopIndex::min or > NextHopIndex::max not allowed");
  }
}

NexthopTunnelTable::NexthopTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::nexthopTunnel);
}

NexthopHwTunnelTable::NexthopHwTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::nexthopTunnel);
}

NexthopTunnelTableSm::NexthopTunnelTableSm(Vela::Ptr<NexthopTunnelTable> tunnelTable,
                                           Vela::Ptr<NexthopHwTunnelTable> hwTunnelTable)
    : Entity("NexthopTunnelTableSm"),
      tunnelTable_(std::move(tunnelTable)),
      hwTunnelTable_(std::move(hwTunnelTable)) {
  handleInitialized();
}

TunnelId NexthopTunnelTableSm::getFreeTunnelIndex() {
  // The range check of TunnelId stops allocation beyond its largest value.
  TunnelId const id(nextAvailableIndex_);
  ++nextAvailableIndex_;
  return id;
}

ReverseTunnelEntry NexthopTunnelTableSm::createOrUpdateStatus(NexthopTunnelL3Info const& l3Info) {
  if (!inputsPresent()) return ReverseTunnelEntry();
  if (auto const* existing = nexthopTunnelTableId_.lookup(l3Info)) {
    ReverseTunnelEntry reverse = *existing;
    ++reverse.refCount;
    nexthopTunnelTableId_.set(l3Info, reverse);
    return reverse;
  }
  TunnelId const id = getFreeTunnelIndex();
  tunnelTable_->nextAvailableIndexIs(static_cast<std::uint32_t>(nextAvailableIndex_));
  ReverseTunnelEntry reverse;
  reverse.tunnelId = id;
  reverse.refCount = 1;
  nexthopTunnelTableId_.set(l3Info, reverse);
  tunnelTable_->entryIs(id, l3Info);  // notifies only when different
  if (!hwTunnelTable_->entryLookup(id)) hwTunnelTable_->entryIs(id, NexthopTunnelL2Info());
  return reverse;
}

void NexthopTunnelTableSm::deleteTunnelEntry(TunnelId const& tunnelId) {
  NexthopTunnelL3Info const fetchedL3Info = getL3Info(tunnelId);
  VELA_ASSERT_TEXT(fetchedL3Info != NexthopTunnelL3Info(), "fetchedL3Info != NexthopTunnelL3Info()");
  ReverseTunnelEntry reverseEntry = nexthopTunnelTableId_.get(fetchedL3Info);
  VELA_ASSERT_TEXT(reverseEntry != ReverseTunnelEntry(), "reverseEntry != ReverseTunnelEntry()");
  VELA_ASSERT_TEXT(reverseEntry.tunnelId == tunnelId, "reverseEntry.tunnelId() == tunnelId");
  // At 0 the entry stays (with count 0) so that the same description revives
  // the same tunnel id.
  if (reverseEntry.refCount > 0) --reverseEntry.refCount;
  nexthopTunnelTableId_.set(fetchedL3Info, reverseEntry);
}

void NexthopTunnelTableSm::deleteTunnelTable() {
  if (tunnelTable_) tunnelTable_->entryDelAll();
  if (hwTunnelTable_) hwTunnelTable_->entryDelAll();
  nexthopTunnelTableId_.delAll();
  nexthopGroupTunnelCollectionDelAll();
}

NexthopTunnelL2Info NexthopTunnelTableSm::getL2Info(TunnelId const& tunnelId) const {
  return hwTunnelTable_ ? hwTunnelTable_->entry(tunnelId) : NexthopTunnelL2Info();
}

NexthopTunnelL3Info NexthopTunnelTableSm::getL3Info(TunnelId const& tunnelId) const {
  return tunnelTable_ ? tunnelTable_->entry(tunnelId) : NexthopTunnelL3Info();
}

std::uint32_t NexthopTunnelTableSm::refCount(TunnelId const& tunnelId) const {
  return nexthopTunnelTableId_.get(getL3Info(tunnelId)).refCount;
}

TunnelId NexthopTunnelTableSm::tunnelIdFromL3Info(NexthopTunnelL3Info const& l3Info) const {
  return nexthopTunnelTableId_.get(l3Info).tunnelId;
}

void NexthopTunnelTableSm::createOrUpdateHwStatus(TunnelId const& tunnelId,
                                                  NexthopTunnelL2Info const& l2Info) {
  if (hwTunnelTable_) hwTunnelTable_->entryIs(tunnelId, l2Info);
}

void NexthopTunnelTableSm::updateHwStatusCounters(TunnelId const& tunnelId, std::uint64_t packets,
                                                  std::uint64_t bytes) {
  NexthopTunnelL2Info info = getL2Info(tunnelId);
  info.packets = packets;
  info.bytes = bytes;
  createOrUpdateHwStatus(tunnelId, info);
}

bool NexthopTunnelTableSm::tunnelExists(TunnelId const& tunnelId) const { return refCount(tunnelId) > 0; }

void NexthopTunnelTableSm::updateCounterInfo(TunnelId const& tunnelId, std::uint64_t counterIndex,
                                             Quay::ChipSet chipMask, std::uint64_t packets,
                                             std::uint64_t bytes) {
  NexthopTunnelL2Info info = getL2Info(tunnelId);
  info.counterIndex = counterIndex;
  info.chipMask = chipMask;
  info.packets = packets;
  info.bytes = bytes;
  createOrUpdateHwStatus(tunnelId, info);
}

ReverseTunnelEntry NexthopTunnelTableSm::doUpdateTunnel(NexthopTunnelL3Info const& l3Info,
                                                        NexthopTunnelL2Info const& l2Info) {
  if (!inputsPresent()) return ReverseTunnelEntry();
  ReverseTunnelEntry const reverse = createOrUpdateStatus(l3Info);
  createOrUpdateHwStatus(reverse.tunnelId, l2Info);
  return reverse;
}

void NexthopTunnelTableSm::clearCounters() {
  if (!hwTunnelTable_) return;
  std::vector<std::pair<TunnelId, NexthopTunnelL2Info>> cleared;
  for (auto const& [id, info] : hwTunnelTable_->entrys()) {
    NexthopTunnelL2Info copy = info;
    copy.packets = 0;
    copy.bytes = 0;
    cleared.emplace_back(id, copy);
  }
  for (auto const& [id, info] : cleared) hwTunnelTable_->entryIs(id, info);
}

void NexthopTunnelTableSm::handleInitialized() {
  // Read and deliberately not acted upon.
  [[maybe_unused]] char const* vmid = std::getenv("SIMULATION_VMID");
  initialized_ = true;
  // Nexthop tunnels do not survive a restart of the state machine.
  if (inputsPresent()) {
    tunnelTable_->entryDelAll();
    hwTunnelTable_->entryDelAll();
  }
}

Vela::Ptr<NexthopTunnelTableSm> nexthopTunnelTableSmFactory(Vela::Ptr<NexthopTunnelTable> tunnelTable,
                                                            Vela::Ptr<NexthopHwTunnelTable> hwTunnelTable) {
  return Vela::make<NexthopTunnelTableSm>(std::move(tunnelTable), std::move(hwTunnelTable));
}

}  // namespace Tunnel::TunnelTable
