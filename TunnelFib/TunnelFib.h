// The tunnel FIBs: what the tunnel agent publishes for forwarding.
//
// MplsTunnelFib holds one MplsTunnelFibEntry per programmable MPLS tunnel:
// its vias fully resolved, each leaving on a real interface with the complete
// label stack to push. MplsTunnelFibSm is its only writer and the agent
// mounts it at "tunnel/mplsTunnelFib"; it never holds an entry without vias.
// TunnelFib holds TunnelFibEntrys whose vias name their encapsulation by
// EncapId, and the three encapsulation tables (labelStack, ipsecEncap,
// greEncap, chosen by the EncapId's type) those ids refer to.
//
// Entries are values keyed by their own tunnelId. They compare their via
// sets as sets, have no ordering, and print the set as None. Every collection
// of the entities notifies per key and only when the stored value really
// changes, so a reactor can follow single entries cheaply.
#pragma once

#include <string_view>
#include <tuple>
#include <utility>

#include "TunnelTable/EncapDescriptors.h"
#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/Via.h"
#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Types.h"
#include "framework/Vela/Value.h"
#include "framework/Vela/ValueSet.h"

namespace Tunnel::TunnelFib {

using TunnelTable::EncapId;
using TunnelTable::MplsVia;
using TunnelTable::TunnelId;
using TunnelTable::TunnelVia;

class TunnelFibEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelFib::TunnelFibEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("tunnelId", &TunnelFibEntry::tunnelId_),
                           Vela::field("tunnelVia", &TunnelFibEntry::tunnelVia_));
  }

  TunnelFibEntry() = default;
  explicit TunnelFibEntry(TunnelId tunnelId) : tunnelId_(tunnelId) {}

  TunnelId tunnelId() const { return tunnelId_; }

  bool operator!() const { return *this == TunnelFibEntry(); }
  friend bool operator<(TunnelFibEntry const&, TunnelFibEntry const&) = delete;

 private:
  TunnelId tunnelId_;
  // tunnelVia(v), tunnelViaIs(v, true), tunnelViaDel(v), tunnelViaDelAll(), tunnelVias().
  VELA_VALUE_SET(TunnelVia, tunnelVia, TunnelVia);
};

class MplsTunnelFibEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelFib::MplsTunnelFibEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("tunnelId", &MplsTunnelFibEntry::tunnelId_),
                           Vela::field("via", &MplsTunnelFibEntry::via_));
  }

  MplsTunnelFibEntry() = default;
  explicit MplsTunnelFibEntry(TunnelId tunnelId) : tunnelId_(tunnelId) {}

  TunnelId tunnelId() const { return tunnelId_; }

  bool operator!() const { return *this == MplsTunnelFibEntry(); }
  friend bool operator<(MplsTunnelFibEntry const&, MplsTunnelFibEntry const&) = delete;

 private:
  TunnelId tunnelId_;
  // via(v), viaIs(v, true), viaDel(v), viaDelAll(), vias().
  VELA_VALUE_SET(MplsVia, via, Via);
};

// Tunnels whose vias carry an encapsulation, and the encapsulations.
class TunnelFib : public Vela::Entity {
 public:
  explicit TunnelFib(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::TunnelFib::TunnelFib"; }

  // The entry of `id`, or the empty entry when absent; the reference is
  // valid until the FIB next changes.
  TunnelFibEntry const& entry(TunnelId id) const { return entry_.get(id); }
  // Stores the entry under its tunnelId; notifies only when that changes it.
  void entryIs(TunnelFibEntry const& e);
  // The same as entryIs().
  void newEntry(TunnelFibEntry const& e) { entryIs(e); }
  void entryDel(TunnelId id);
  void entryDelAll() { entry_.delAll(); }
  Vela::ValueCollection<TunnelId, TunnelFibEntry> const& entrys() const { return entry_; }

 private:
  Vela::ValueCollection<TunnelId, TunnelFibEntry> entry_;

  // Encapsulations by EncapId: labelStack(id), labelStackIs(id, v),
  // labelStackDel(id), labelStackDelAll(), labelStacks(); the same for
  // ipsecEncap and greEncap.
  VELA_VALUE_COLLECTION(EncapId, Nimbo::MplsLabelOperation, labelStack);
  VELA_VALUE_COLLECTION(EncapId, IpsecTunnelInfo, ipsecEncap);
  VELA_VALUE_COLLECTION(EncapId, GreTunnelInfo, greEncap);
};

// The MPLS tunnels as forwarding programs them.
class MplsTunnelFib : public Vela::Entity {
 public:
  explicit MplsTunnelFib(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  // The state database mounts it under this name.
  std::string_view typeName() const override { return "Tunnel::TunnelFib::MplsTunnelFib"; }

  // The entry of `id`, or the empty entry (TunnelId 0, no vias) when absent;
  // the reference is valid until the FIB next changes.
  MplsTunnelFibEntry const& entry(TunnelId id) const { return entry_.get(id); }
  // Stores the entry under its tunnelId; notifies only when that changes it.
  void entryIs(MplsTunnelFibEntry const& e);
  // The same, taking the entry's vias over when it is stored.
  void entryIs(MplsTunnelFibEntry&& e);
  // The same as entryIs().
  void newEntry(MplsTunnelFibEntry const& e) { entryIs(e); }
  void entryDel(TunnelId id);
  void entryDelAll() { entry_.delAll(); }
  // Makes room for n entries at once (a bulk load); the FIB still shrinks
  // as entries go.
  void entrysMakeRoom(std::size_t n) { entry_.makeRoom(n); }
  // Iteration, size and the per-id changed() signal.
  Vela::ValueCollection<TunnelId, MplsTunnelFibEntry> const& entrys() const { return entry_; }

 private:
  Vela::ValueCollection<TunnelId, MplsTunnelFibEntry> entry_;
};

// Empty FIBs, for whoever creates them by name.
Vela::Ptr<TunnelFib> tunnelFibFactory(Vela::Name const& name);
Vela::Ptr<MplsTunnelFib> mplsTunnelFibFactory(Vela::Name const& name);

}  // namespace Tunnel::TunnelFib
