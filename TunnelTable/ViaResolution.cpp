#include "TunnelTable/ViaResolution.h"

#include <cstddef>

#include "TunnelTable/MplsTunnelFibSm.h"
#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Skein/Trace.h"

namespace Tunnel::TunnelTable {

using Tunnel::TunnelFib::MplsTunnelFibEntry;

namespace {

template <class Entry>
void calculateViasOf(Vela::Ptr<MplsTunnelFibSm> const& sm, MplsTunnelFibEntry& fibEntry,
                     Entry const& tableEntry) {
  Nimbo::MplsLabelOperation const& labels = tableEntry.labels();
  if (labels.operation() != Nimbo::MplsAction::push) {
    SKEIN_TRACE(7, "Non push label operation for tableEntry: " << tableEntry << " !!");
  }
  for (Via const& via : tableEntry.vias()) {
    calculateTunnelFibEntryMplsVia(sm, fibEntry, MplsVia(via.nexthop(), via.intfId(), labels));
  }
}

}  // namespace

void calculateTunnelFibEntryVias(Vela::Ptr<MplsTunnelFibSm> const& sm, MplsTunnelFibEntry& fibEntry,
                                 BgpLuPushTunnelTableEntry const& tableEntry) {
  calculateViasOf(sm, fibEntry, tableEntry);
}

void calculateTunnelFibEntryVias(Vela::Ptr<MplsTunnelFibSm> const& sm, MplsTunnelFibEntry& fibEntry,
                                 BgpLuTunnelTableEntry const& tableEntry) {
  calculateViasOf(sm, fibEntry, tableEntry);
}

void calculateTunnelFibEntryVias(Vela::Ptr<MplsTunnelFibSm> const& sm, MplsTunnelFibEntry& fibEntry,
                                 StaticTunnelTableEntry const& tableEntry) {
  calculateViasOf(sm, fibEntry, tableEntry);
}

void calculateTunnelFibEntryMplsVia(Vela::Ptr<MplsTunnelFibSm> const& sm, MplsTunnelFibEntry& fibEntry,
                                    MplsVia const& via) {
  if (!Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intfId())) {
    // A via on a real interface goes in as it is; no label-stack check applies.
    fibEntry.viaIs(via, true);
    return;
  }
  TunnelId const outer = fibEntry.tunnelId();
  // Range-checked: an interface that encodes more than 48 bits raises here.
  // Hashed once for the maps and sets it is looked up in below.
  MplsTunnelFibSm::HashedId const hashedInner{TunnelId(Nimbo::DynamicTunnelIntfId::tunnelId(via.intfId()))};
  TunnelId const& inner = hashedInner.key;

  // Recorded whatever follows, so that the outer tunnel is reviewed again
  // whenever the inner one's FIB entry changes.
  sm->directlyDependentTunnelsIs(inner, outer);
  sm->tunnelsDirectlyDependingOnIs(outer, hashedInner);

  if (sm->tunnelFibEntryMarkedUnprocessed(inner)) {
    // Left over from before start-up; the outer tunnel is reviewed again
    // once the inner one has been processed.
    SKEIN_TRACE(7, "      Skipping vias for tunnel " << inner << " (marked unprocessed)");
    return;
  }

  // The inner tunnel's FIB vias, read in place: nothing below writes the FIB,
  // so the stored entry cannot change while it is walked.
  MplsTunnelFibEntry const* innerEntry = sm->mplsTunnelFib()->entrys().lookup(hashedInner);

  if (sm->resolvedThrough(hashedInner, outer)) {
    SKEIN_TRACE(7, "    Cycle detected while trying to create MplsVia for tunnelId "
                       << outer << " via tunnelId " << inner);
    return;
  }
  if (!innerEntry || innerEntry->vias().empty()) return;

  Nimbo::MplsLabelOperation const& outerLabels = via.labels();
  std::size_t const outerCount = outerLabels.stackSize();
  fibEntry.viasReserve(fibEntry.vias().size() + innerEntry->vias().size());
  for (MplsVia const& innerVia : innerEntry->vias()) {
    Nimbo::MplsLabelOperation const& innerLabels = innerVia.labels();
    std::size_t const innerCount = innerLabels.stackSize();
    std::size_t const total = outerCount + innerCount;
    if (total > Nimbo::MplsLabelOperation::maxStackSize) {
      SKEIN_TRACE(7, "      Ignored flattened MplsVia for tunnel " << outer << " via " << innerVia
                                                                   << " (label stack too large)");
      continue;
    }
    // The outer labels stay at positions 0 to n-1; the inner ones follow.
    Nimbo::MplsLabelOperation flattened = outerLabels;
    for (std::size_t i = 0; i < innerCount; ++i) flattened.labelIs(outerCount + i, innerLabels.label(i));
    flattened.stackSizeIs(total);
    fibEntry.viaIs(MplsVia(innerVia.nexthop(), innerVia.intfId(), flattened), true);
  }
  // Some inner via was looked at (added or skipped for its stack): the outer
  // tunnel is now resolved through the inner one and all it was resolved through.
  sm->resolvedByTunnelsInheritIs(outer, hashedInner);
}

}  // namespace Tunnel::TunnelTable
