// Via resolution and label-stack flattening for the MPLS tunnel FIB.
//
// A via whose interface is a dynamic tunnel interface rides on the tunnel
// that interface stands for (the inner tunnel). The forwarding plane cannot
// follow it, so before a tunnel's FIB entry is written every such via is
// replaced by the FIB vias of the inner tunnel, each carrying the outer via's
// labels followed by the inner via's (at most six in all). Inner FIB vias are
// already flattened, so one level of lookup suffices; a chain of tunnels is
// flattened bottom-up as each level's FIB entry is written and wakes its
// direct dependents (MplsTunnelFibSm).
//
// Both functions run inside MplsTunnelFibSm::updateTunnelFibEntry for one
// (outer) tunnel, whose entry under construction is `fibEntry`; they read
// the FIB entries of other tunnels and record the dependencies in the state
// machine's maps. Vias through a tunnel not yet processed, through a cycle or
// with too deep a combined stack are dropped with a trace, never an error.
#pragma once

#include "TunnelFib/TunnelFib.h"
#include "TunnelTable/TunnelTable.h"
#include "framework/Vela/Ptr.h"

namespace Tunnel::TunnelTable {

class MplsTunnelFibSm;

// Turns the entry's plain vias into MPLS vias carrying the entry's label
// operation and resolves each. A label operation that is not a push is
// traced and still used.
void calculateTunnelFibEntryVias(Vela::Ptr<MplsTunnelFibSm> const& sm,
                                 Tunnel::TunnelFib::MplsTunnelFibEntry& fibEntry,
                                 BgpLuPushTunnelTableEntry const& tableEntry);
void calculateTunnelFibEntryVias(Vela::Ptr<MplsTunnelFibSm> const& sm,
                                 Tunnel::TunnelFib::MplsTunnelFibEntry& fibEntry,
                                 BgpLuTunnelTableEntry const& tableEntry);
void calculateTunnelFibEntryVias(Vela::Ptr<MplsTunnelFibSm> const& sm,
                                 Tunnel::TunnelFib::MplsTunnelFibEntry& fibEntry,
                                 StaticTunnelTableEntry const& tableEntry);

// Resolves one via of the outer tunnel `fibEntry.tunnelId()` and adds the
// result to `fibEntry`: the via itself when it leaves on a real interface,
// else the flattened vias through the inner tunnel. Raises the TunnelId range
// error when the dynamic tunnel interface encodes no valid tunnel id.
void calculateTunnelFibEntryMplsVia(Vela::Ptr<MplsTunnelFibSm> const& sm,
                                    Tunnel::TunnelFib::MplsTunnelFibEntry& fibEntry, MplsVia const& via);

}  // namespace Tunnel::TunnelTable
