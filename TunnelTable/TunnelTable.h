// The tunnel tables in one include: vias (Via.h), the protocols' tunnel table
// entries (TunnelTableEntry.h), the protocol tunnel tables
// (ProtocolTunnelTables.h) and the tunnel RIB entities (TunnelRib.h), over the
// identifiers of TunnelBasicTypes.h and the dynamic tunnel interfaces of
// TunnelIntfId.h.
#pragma once

#include "TunnelTable/ProtocolTunnelTables.h"
#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/TunnelIntfId.h"
#include "TunnelTable/TunnelRib.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"
