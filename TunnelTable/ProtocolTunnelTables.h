// Protocol tunnel tables: where each tunnel-producing protocol publishes its
// tunnels.
//
// A table is an entity holding the protocol's entries (TunnelTableEntry.h),
// keyed by TunnelId, plus the kind of tunnel it carries (tableType) and the
// preference its tunnels have in tunnel RIB selection (tablePref, lower is
// preferred). The constructors fix both; tables that take no part in
// selection keep maxPref. The tunnel agent finds the tables as entries of the
// "tunnel/table" directory and tells them apart by tableType.
//
// Every table offers the same entry operations: entry(id) (the default entry
// when absent), entryIs(entry) and newEntry(entry) (store under the entry's
// own id, replacing any other), entryDel(id), entryDelAll(), and entrys(), the
// collection itself, for iteration, size and its per-id changed() signal.
// Storing an entry equal to the stored one changes nothing and notifies no one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "framework/Nimbo/IntfId.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Ptr.h"
#include "framework/Vela/Types.h"

namespace Tunnel::TunnelTable {

// Whether tunnels of this kind take part in tunnel RIB selection: BGP LU,
// LDP, static and SR tunnels do, every other kind does not.
bool contributeToTunnelRib(TunnelType t);

class TunnelTableBase : public Vela::Entity {
 public:
  explicit TunnelTableBase(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelTableBase"; }

  // contributeToTunnelRib(tableType()).
  bool contributeToTunnelRib() const;

  VELA_ATTRIBUTE(TunnelType, tableType);
  VELA_ATTRIBUTE(TunnelTablePref, tablePref){TunnelTablePref::maxPref};
};

// The entries of a table, keyed by the entry's id (its `key` for EVPN VXLAN).
// A base of each concrete table beside TunnelTableBase.
template <class Entry>
class TunnelTableEntryCollection {
 public:
  using EntryType = Entry;
  using Collection = Vela::ValueCollection<TunnelId, Entry>;

  // The entry of `id`, or the default entry (TunnelId 0) when absent. The
  // reference is valid until the table next changes.
  Entry const& entry(TunnelId id) const { return entry_.get(id); }
  // Stores the entry under its own id; notifies only when that changes it.
  void entryIs(Entry const& e) { entry_.set(keyOf(e), e); }
  // The same as entryIs().
  void newEntry(Entry const& e) { entry_.set(keyOf(e), e); }
  void entryDel(TunnelId id) { entry_.del(id); }
  void entryDelAll() { entry_.delAll(); }
  Collection const& entrys() const { return entry_; }

 private:
  static TunnelId keyOf(Entry const& e) {
    if constexpr (requires { e.tunnelId(); }) {
      return e.tunnelId();
    } else {
      return e.key();
    }
  }

  Collection entry_;
};

class LdpTunnelTable : public TunnelTableBase, public TunnelTableEntryCollection<LdpSrTunnelTableEntry> {
 public:
  explicit LdpTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::LdpTunnelTable"; }
};

// Deliberately the same entry type as LDP; the tables differ only in kind and preference.
class SrTunnelTable : public TunnelTableBase, public TunnelTableEntryCollection<LdpSrTunnelTableEntry> {
 public:
  explicit SrTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::SrTunnelTable"; }
};

class BgpLuTunnelTable : public TunnelTableBase, public TunnelTableEntryCollection<BgpLuTunnelTableEntry> {
 public:
  explicit BgpLuTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::BgpLuTunnelTable"; }

  // Set by BGP once it has converged; the tunnel RIB follows it.
  VELA_ATTRIBUTE(bool, bgpConverged);
};

class BgpLuPushTunnelTable : public TunnelTableBase,
                             public TunnelTableEntryCollection<BgpLuPushTunnelTableEntry> {
 public:
  explicit BgpLuPushTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::BgpLuPushTunnelTable"; }
};

class StaticTunnelTable : public TunnelTableBase, public TunnelTableEntryCollection<StaticTunnelTableEntry> {
 public:
  explicit StaticTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::StaticTunnelTable"; }
};

class SrTeSegmentListTunnelTable : public TunnelTableBase,
                                   public TunnelTableEntryCollection<SrTeSegmentListTunnelTableEntry> {
 public:
  explicit SrTeSegmentListTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::SrTeSegmentListTunnelTable"; }
};

// EVPN VXLAN numbers its own tunnels, from an id allocator it owns, and
// names their kernel interfaces "t0x<index in hex>".
class EvpnVxlanTunnelTable : public TunnelTableBase, public TunnelTableEntryCollection<EvpnVxlanTunnelEntry> {
 public:
  explicit EvpnVxlanTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::EvpnVxlanTunnelTable"; }

  // The allocator, null until created by newIdAllocator() or idAllocatorIs();
  // both return the existing one if there is one.
  Vela::Ptr<Id64Allocator> const& idAllocator() const { return idAllocator_.get(); }
  Vela::Ptr<Id64Allocator> newIdAllocator();
  Vela::Ptr<Id64Allocator> idAllocatorIs() { return newIdAllocator(); }
  void idAllocatorDel() { idAllocator_.set(nullptr); }
  Vela::Signal<> const& idAllocatorChanged() const { return idAllocator_.changed(); }

  // A fresh EVPN VXLAN tunnel id from the allocator (1, 2, 3, ...; never
  // reused). The allocator must exist.
  TunnelId newTunnelId();

  // "t0x" and the tunnel index in lower-case hexadecimal, e.g. "t0x1a".
  static Vela::String8 tunKernelIntfName(TunnelId t);
  // The EVPN VXLAN tunnel of a kernel interface name, or TunnelId 0 when
  // the name is malformed; never raises.
  static TunnelId tunKernelIntfTunnelId(Vela::String8 const& name);
  // Whether the interface is the dynamic tunnel interface of an EVPN VXLAN tunnel.
  static bool isValidEvpnIntf(Nimbo::IntfId intfId);

 private:
  Vela::Attribute<Vela::Ptr<Id64Allocator>> idAllocator_;
};

// The common base of the interface tunnel tables: an interface tunnel's id is
// derived from its interface.
class L3IntfTunnelTableBase : public TunnelTableBase {
 public:
  explicit L3IntfTunnelTableBase(Vela::Name name = {}) : TunnelTableBase(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::L3IntfTunnelTableBase"; }

  // The static interface tunnel whose index is the interface's number, with
  // the IPv6 bit for IPv6. Raises Vela::RangeException ("Invalid
  // 'indexAndAf'value, value is above 2^44") for interface numbers of 2^44
  // and more. GRE and IPsec share the scheme, so their ids never collide.
  TunnelId newTunnelId(Nimbo::IntfId intfId, Nimbo::AddressFamily af) const;
};

class GreIntfTunnelTable : public L3IntfTunnelTableBase,
                           public TunnelTableEntryCollection<GreIntfTunnelTableEntry> {
 public:
  explicit GreIntfTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::GreIntfTunnelTable"; }
};

class IpsecIntfTunnelTable : public L3IntfTunnelTableBase,
                             public TunnelTableEntryCollection<IpsecIntfTunnelTableEntry> {
 public:
  explicit IpsecIntfTunnelTable(Vela::Name name = {});
  std::string_view typeName() const override { return "Tunnel::TunnelTable::IpsecIntfTunnelTable"; }
};

// How many entries a table holds; none without a table.
template <class Table>
std::size_t entryCount(Vela::Ptr<Table const> const& table) {
  return table ? table->entrys().size() : 0;
}

}  // namespace Tunnel::TunnelTable
