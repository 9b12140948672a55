// Decapsulation groups: the configuration that says on which local addresses
// and interfaces tunnelled packets of one kind are stripped of their outer
// header, and what the forwarding hardware can do about it.
//
// A configuration source (the command line, or one dynamic source published
// under "routing/tunneldecap/input/dynamic/") is a ConfigInput that owns its
// DecapGroup entities. The merge of all sources (DecapGroupConfigMergeSm) is
// a Config that owns nothing: its entries refer to the sources' own groups,
// so a reader of the merged configuration sees every later change of a
// group's addresses without further merge work. Hardware::Status carries the
// capabilities reported by the platform layer that drives the hardware.
//
// These types hold no logic beyond their accessors and the null-reference
// check of Config::decapGroupIs().
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "framework/Corvel/EntityManager.h"
#include "framework/Nimbo/IntfId.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Enum.h"
#include "framework/Vela/Types.h"
#include "framework/Vela/Value.h"

namespace Tunnel::Decap {

// The decapsulation kind of a group (not the tunnel table's tunnel type).
VELA_ENUM(TunnelType, std::uint8_t, "Tunnel::Decap::TunnelType", unknown = 0, gre = 1, ipip = 2)

// Which addresses of an interface a decap interface entry covers.
VELA_ENUM(AddressType, std::uint8_t, "Tunnel::Decap::AddressType", primary = 0, all = 1)

// Where a group's decapsulation address may come from (a hardware capability).
VELA_ENUM(TunnelDecapIpSrc, std::uint8_t, "Tunnel::Decap::TunnelDecapIpSrc", ip = 0, intf = 1)

// Key of a group's decap interfaces: an interface and an address family.
// Ordered by interface, then by the family's numeric value.
class DecapIntfKey : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::Decap::DecapIntfKey";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("intfId", &DecapIntfKey::intfId_),
                           Vela::field("addressFamily", &DecapIntfKey::addressFamily_));
  }

  DecapIntfKey() = default;
  DecapIntfKey(Nimbo::IntfId intfId, Nimbo::AddressFamily addressFamily)
      : intfId_(intfId), addressFamily_(addressFamily) {}

  Nimbo::IntfId intfId() const { return intfId_; }
  Nimbo::AddressFamily addressFamily() const { return addressFamily_; }

  // " Intf: <interface> address-family: <family>"
  std::string stringValue() const;

 private:
  Nimbo::IntfId intfId_;
  Nimbo::AddressFamily addressFamily_ = Nimbo::AddressFamily::ipunknown;
};

// One decap interface entry of a group. `oldConfig` is carried for the
// configuration writers; nothing in this library reads it.
class DecapIntf : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::Decap::DecapIntf";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("decapIntfKey", &DecapIntf::decapIntfKey_),
                           Vela::field("addressType", &DecapIntf::addressType_),
                           Vela::field("oldConfig", &DecapIntf::oldConfig_));
  }

  DecapIntf() = default;
  explicit DecapIntf(DecapIntfKey const& decapIntfKey, AddressType addressType = AddressType::primary,
                     bool oldConfig = false)
      : decapIntfKey_(decapIntfKey), addressType_(addressType), oldConfig_(oldConfig) {}

  DecapIntfKey const& decapIntfKey() const { return decapIntfKey_; }
  AddressType addressType() const { return addressType_; }
  void addressTypeIs(AddressType addressType) { addressType_ = addressType; }
  bool oldConfig() const { return oldConfig_; }
  void oldConfigIs(bool oldConfig) { oldConfig_ = oldConfig; }

  // The key's stringValue(), " address-type: <type> oldConfig: <0|1>"
  std::string stringValue() const;

 private:
  DecapIntfKey decapIntfKey_;
  AddressType addressType_ = AddressType::primary;
  bool oldConfig_ = false;
};

// The remaining comparisons, derived from the field-list `==` and `<`.
inline bool operator>(DecapIntfKey const& a, DecapIntfKey const& b) { return b < a; }
inline bool operator<=(DecapIntfKey const& a, DecapIntfKey const& b) { return !(b < a); }
inline bool operator>=(DecapIntfKey const& a, DecapIntfKey const& b) { return !(a < b); }
inline bool operator>(DecapIntf const& a, DecapIntf const& b) { return b < a; }
inline bool operator<=(DecapIntf const& a, DecapIntf const& b) { return !(b < a); }
inline bool operator>=(DecapIntf const& a, DecapIntf const& b) { return !(a < b); }

// One decap group, owned by the ConfigInput that configures it and held
// under its name there.
class DecapGroup : public Vela::Entity {
 public:
  explicit DecapGroup(Vela::Name name) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::Decap::DecapGroup"; }

  VELA_ATTRIBUTE(TunnelType, tunnelType);
  // The decapsulation addresses; each change notifies with the address.
  VELA_VALUE_COLLECTION(Nimbo::IpGenAddr, bool, decapIp);
  // The decap interfaces; each change notifies with the key.
  VELA_VALUE_COLLECTION(DecapIntfKey, DecapIntf, decapIntf);
  // Set by a source that is not the command line; nothing here reads it.
  VELA_ATTRIBUTE(bool, dynamic);
};

// One configuration source: the command-line configuration or one dynamic
// source. It owns its groups.
class ConfigInput : public Vela::Entity {
 public:
  explicit ConfigInput(Vela::Name name) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::Decap::ConfigInput"; }

  // newDecapGroup(name) returns the existing group when the name is present.
  VELA_ENTITY_COLLECTION(Vela::Name, DecapGroup, decapGroup, DecapGroup);
};

// The merged configuration. It refers to groups owned by the sources and is
// complete only while `ready` is true.
class Config : public Vela::Entity {
 public:
  Config() = default;
  std::string_view typeName() const override { return "Tunnel::Decap::Config"; }

  Vela::Ptr<DecapGroup const> decapGroup(Vela::Name const& name) const { return decapGroup_.get(name); }
  // Inserts the group under its own name, replacing a reference held under
  // that name; a null group is refused with a range error.
  void decapGroupIs(Vela::Ptr<DecapGroup const> const& group);
  void decapGroupDel(Vela::Name const& name) { decapGroup_.del(name); }
  void decapGroupDelAll() { decapGroup_.delAll(); }
  auto const& decapGroups() const { return decapGroup_; }

 private:
  Vela::RefCollection<Vela::Name, DecapGroup const> decapGroup_{"decapGroup",
                                                                "Tunnel::Decap::Config::decapGroup"};

  VELA_ATTRIBUTE(bool, ready);
};

Vela::Ptr<ConfigInput> configInputFactory(Vela::Name const& name);
// The merged configuration has no name.
Vela::Ptr<Config> configFactory();

namespace Hardware {

// What the forwarding hardware supports and reports.
class Status : public Vela::Entity {
 public:
  explicit Status(Vela::Name name) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::Decap::Hardware::Status"; }

  VELA_ATTRIBUTE(bool, decapSupported);
  VELA_ATTRIBUTE(bool, multiDecapIpSupported);
  VELA_ATTRIBUTE(bool, hwResourceFull);
  VELA_ATTRIBUTE(bool, ip6DecapFeatureWarning);
  VELA_VALUE_COLLECTION(TunnelDecapIpSrc, bool, decapIpSrcSupported);
  VELA_VALUE_COLLECTION(TunnelType, bool, decapTunnelTypeSupported);
};

Vela::Ptr<Status> statusFactory(Vela::Name const& name);

}  // namespace Hardware

// Makes ConfigInput, Config and Hardware::Status creatable by type name in
// the state database (a mount of a path nobody wrote yet creates them).
void registerDecapTypes(Corvel::EntityManager& entityManager);

}  // namespace Tunnel::Decap
