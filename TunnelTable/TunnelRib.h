// The tunnel RIB and its companion records.
//
// TunnelRib holds one TunnelRibEntry per tunnel end point prefix (TEP): the
// tunnel ids of the one protocol selected for that TEP and the metric fields
// of the tunnel entered last. The agent mounts one at "tunnel/tunnelRib" and
// one per protocol under "tunnel/protoTunnelRib/" (there an entry holds all
// ids of that protocol, and the metrics are not kept); TunnelRibSm writes
// them all. ProtocolTunnelRibCollection finds the per-protocol RIBs by
// TunnelType. TunnelIdColl is a set of tunnel ids (the unprogrammable
// tunnels), TunnelIdCollByTunnelId such a set owned by one tunnel, and
// TunnelIdToTepEntry records the TEP a tunnel id was entered under.
//
// Every collection and attribute notifies its watchers per key and only on a
// real change. dumpState() writes the RIB as indented lines for diagnostics.
#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "TunnelTable/TunnelBasicTypes.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Ptr.h"
#include "framework/Vela/Types.h"
#include "framework/Vela/Value.h"

namespace Quay {
class DumpContext;
}

namespace Tunnel::TunnelTable {

// The ids of a tunnel RIB entry: one to a few, so kept in a small set.
using TunnelIdSet = Vela::ValueCollection<TunnelId, bool, Vela::ValueSet<TunnelId>>;
// A TEP with its hash, for code that finds it in several TEP-keyed maps.
using HashedTep = Vela::Hashed<Nimbo::IpGenPrefix>;
// A tunnel id with its hash, likewise.
using HashedTunnelId = Vela::Hashed<TunnelId>;

// The tunnels that reach one TEP. All ids are of one TunnelType, and an entry
// without ids is removed by its writer.
class TunnelRibEntry : public Vela::Entity {
 public:
  explicit TunnelRibEntry(Nimbo::IpGenPrefix const& tep);
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelRibEntry"; }

  Nimbo::IpGenPrefix const& tep() const { return tep_; }

  // The set of tunnel ids: tunnelId(id) tells membership, tunnelIdIs(id,
  // true) adds (false removes), tunnelIds() is the set with its per-id signal.
  bool tunnelId(TunnelId id) const { return tunnelId_.contains(id); }
  void tunnelIdIs(TunnelId id, bool present = true);
  void tunnelIdDel(TunnelId id) { tunnelId_.del(id); }
  void tunnelIdDelAll() { tunnelId_.delAll(); }
  TunnelIdSet const& tunnelIds() const { return tunnelId_; }

  // "TunnelRibEntry <tep> metric .. metric2 .. pref .. pref2 ..", the number
  // of ids and one "type <kind> index <hex>" line per id.
  void dumpState(Quay::DumpContext& context, int indent) const;

 protected:
  // The TEP's text form; made only when the name is asked for, since a RIB
  // creates its entries far more often than anyone reads their names.
  Vela::Name nameOnDemand() const override;

 private:
  TunnelIdSet tunnelId_;

  // Metric fields of the tunnel entered last (BGP LU: bgpMetric ...;
  // LDP / SR: igpMetric ...).
  VELA_ATTRIBUTE(std::uint32_t, metric);
  VELA_ATTRIBUTE(std::uint32_t, metric2);
  VELA_ATTRIBUTE(std::uint32_t, pref);
  VELA_ATTRIBUTE(std::uint32_t, pref2);
  // Declared last, so that it starts in the room behind pref2's value: a
  // RIB holds two entries per TEP.
  Nimbo::IpGenPrefix tep_;
};

class TunnelRib : public Vela::Entity {
 public:
  explicit TunnelRib(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  // The state database mounts tunnel RIBs under this name.
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelRib"; }

  // The entry of `tep`, null when absent.
  Vela::Ptr<TunnelRibEntry> entry(Nimbo::IpGenPrefix const& tep) const { return entry_.get(tep); }
  Vela::Ptr<TunnelRibEntry> entry(HashedTep const& tep) const { return entry_.get(tep); }
  // Creates the entry of `tep`, or returns the one there is.
  Vela::Ptr<TunnelRibEntry> entryIs(Nimbo::IpGenPrefix const& tep) { return entry_.newMember(tep); }
  Vela::Ptr<TunnelRibEntry> newEntry(Nimbo::IpGenPrefix const& tep) { return entry_.newMember(tep); }
  Vela::Ptr<TunnelRibEntry> newEntry(HashedTep const& tep) { return entry_.newMember(tep); }
  void entryDel(Nimbo::IpGenPrefix const& tep) { entry_.del(tep); }
  void entryDelAll() { entry_.delAll(); }
  Vela::EntityCollection<Nimbo::IpGenPrefix, TunnelRibEntry> const& entrys() const { return entry_; }

  // "TunnelRib converged <true|false>", the number of entries, then each
  // entry at indent + 4.
  void dumpState(Quay::DumpContext& context, int indent) const;

 private:
  Vela::EntityCollection<Nimbo::IpGenPrefix, TunnelRibEntry> entry_;

  // Follows BGP convergence; notifies only when the value changes.
  VELA_ATTRIBUTE(bool, tunnelRibConverged);
};

// Dump helpers that also take a null reference, which dumps as "NULL".
void dumpState(Quay::DumpContext& context, Vela::Ptr<TunnelRib const> const& rib, int indent);
void dumpState(Quay::DumpContext& context, Vela::Ptr<TunnelRibEntry const> const& entry, int indent);

// The per-protocol tunnel RIB of one TunnelType.
class ProtocolTunnelRibWrapper : public Vela::Entity {
 public:
  explicit ProtocolTunnelRibWrapper(TunnelType tunnelType);
  ProtocolTunnelRibWrapper(Vela::Name name, TunnelType tunnelType)
      : Vela::Entity(std::move(name)), tunnelType_(tunnelType) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::ProtocolTunnelRibWrapper"; }

  TunnelType tunnelType() const { return tunnelType_; }

 private:
  TunnelType tunnelType_;

  // The mounted per-protocol tunnel RIB.
  VELA_ATTRIBUTE(Vela::Ptr<TunnelRib>, tunnelRib);
};

class ProtocolTunnelRibCollection : public Vela::Entity {
 public:
  explicit ProtocolTunnelRibCollection(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::ProtocolTunnelRibCollection"; }

  Vela::Ptr<ProtocolTunnelRibWrapper> protocolTunnelRib(TunnelType type) const {
    return protocolTunnelRib_.get(type);
  }
  // Creates the wrapper of `type`, or returns the one there is.
  Vela::Ptr<ProtocolTunnelRibWrapper> protocolTunnelRibIs(TunnelType type) {
    return protocolTunnelRib_.newMember(type);
  }
  Vela::Ptr<ProtocolTunnelRibWrapper> newProtocolTunnelRib(TunnelType type) {
    return protocolTunnelRib_.newMember(type);
  }
  void protocolTunnelRibDel(TunnelType type) { protocolTunnelRib_.del(type); }
  void protocolTunnelRibDelAll() { protocolTunnelRib_.delAll(); }
  Vela::EntityCollection<TunnelType, ProtocolTunnelRibWrapper> const& protocolTunnelRibs() const {
    return protocolTunnelRib_;
  }

 private:
  Vela::EntityCollection<TunnelType, ProtocolTunnelRibWrapper> protocolTunnelRib_;
};

// Tunnel RIB entries of one TunnelType by TEP; not filled by this library's
// state machines.
class TunnelTypeToTunnelRib : public Vela::Entity {
 public:
  TunnelTypeToTunnelRib(Vela::Name name, TunnelType tunnelType)
      : Vela::Entity(std::move(name)), tunnelType_(tunnelType) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelTypeToTunnelRib"; }

  TunnelType tunnelType() const { return tunnelType_; }

  Vela::Ptr<TunnelRibEntry> tunnelRibEntries(Nimbo::IpGenPrefix const& tep) const {
    return tunnelRibEntries_.get(tep);
  }
  Vela::Ptr<TunnelRibEntry> tunnelRibEntriesIs(Nimbo::IpGenPrefix const& tep) {
    return tunnelRibEntries_.newMember(tep);
  }
  Vela::Ptr<TunnelRibEntry> newTunnelRibEntries(Nimbo::IpGenPrefix const& tep) {
    return tunnelRibEntries_.newMember(tep);
  }
  void tunnelRibEntriesDel(Nimbo::IpGenPrefix const& tep) { tunnelRibEntries_.del(tep); }
  void tunnelRibEntriesDelAll() { tunnelRibEntries_.delAll(); }
  Vela::EntityCollection<Nimbo::IpGenPrefix, TunnelRibEntry> const& allTunnelRibEntries() const {
    return tunnelRibEntries_;
  }

 private:
  TunnelType tunnelType_;
  Vela::EntityCollection<Nimbo::IpGenPrefix, TunnelRibEntry> tunnelRibEntries_;
};

// A set of tunnel ids (the unprogrammable tunnels, for one).
class TunnelIdColl : public Vela::Entity {
 public:
  explicit TunnelIdColl(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelIdColl"; }

  bool entry(TunnelId id) const { return entry_.contains(id); }
  // Adds the id (false removes it).
  void entryIs(TunnelId id, bool present = true);
  void entryDel(TunnelId id) { entry_.del(id); }
  void entryDelAll() { entry_.delAll(); }
  Vela::ValueCollection<TunnelId, bool> const& entrys() const { return entry_; }

 private:
  Vela::ValueCollection<TunnelId, bool> entry_;
};

// An empty TunnelIdColl.
Vela::Ptr<TunnelIdColl> tunnelIdCollFactory(Vela::Name const& name = {});

// A set of tunnel ids owned by one tunnel id.
class TunnelIdCollByTunnelId : public Vela::Entity {
 public:
  explicit TunnelIdCollByTunnelId(TunnelId key);
  std::string_view typeName() const override { return "Tunnel::TunnelTable::TunnelIdCollByTunnelId"; }

  TunnelId key() const { return key_; }

  bool entry(TunnelId id) const { return entry_.contains(id); }
  // Adds the id (false removes it).
  void entryIs(TunnelId id, bool present = true);
  void entryDel(TunnelId id) { entry_.del(id); }
  void entryDelAll() { entry_.delAll(); }
  Vela::ValueCollection<TunnelId, bool> const& entrys() const { return entry_; }

 private:
  TunnelId key_;
  Vela::ValueCollection<TunnelId, bool> entry_;
};

// The TEP a tunnel id was entered under.
class TunnelIdToTepEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::TunnelIdToTepEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("tunnelId", &TunnelIdToTepEntry::tunnelId_),
                           Vela::field("tep", &TunnelIdToTepEntry::tep_));
  }

  TunnelIdToTepEntry() = default;
  explicit TunnelIdToTepEntry(TunnelId tunnelId) : tunnelId_(tunnelId) {}
  TunnelIdToTepEntry(TunnelId tunnelId, Nimbo::IpGenPrefix const& tep) : tunnelId_(tunnelId), tep_(tep) {}

  TunnelId tunnelId() const { return tunnelId_; }
  Nimbo::IpGenPrefix const& tep() const { return tep_; }
  void tepIs(Nimbo::IpGenPrefix const& v) { tep_ = v; }

  bool operator!() const { return *this == TunnelIdToTepEntry(); }

 private:
  TunnelId tunnelId_;
  Nimbo::IpGenPrefix tep_;
};

}  // namespace Tunnel::TunnelTable
