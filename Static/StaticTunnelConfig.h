// Static tunnel configuration.
//
// The command line writes one StaticTunnelConfigEntry per configured static
// tunnel name into a Tunnel::Static::Config; the component that programs
// static tunnels reads it. Nothing in this library turns these entries into
// static tunnel table entries.
#pragma once

#include <string_view>

#include "framework/Nimbo/IntfId.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Value.h"

namespace Corvel {
class EntityManager;
}

namespace Tunnel::Static {

class StaticTunnelConfigEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::Static::StaticTunnelConfigEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("name", &StaticTunnelConfigEntry::name_),
                           Vela::field("tep", &StaticTunnelConfigEntry::tep_),
                           Vela::field("nexthop", &StaticTunnelConfigEntry::nexthop_),
                           Vela::field("intfId", &StaticTunnelConfigEntry::intfId_),
                           Vela::field("labels", &StaticTunnelConfigEntry::labels_));
  }

  StaticTunnelConfigEntry() = default;
  explicit StaticTunnelConfigEntry(Vela::String8 name) : name_(std::move(name)) {}

  Vela::String8 const& name() const { return name_; }
  Nimbo::IpGenPrefix const& tep() const { return tep_; }
  void tepIs(Nimbo::IpGenPrefix const& v) { tep_ = v; }
  Nimbo::IpGenAddr const& nexthop() const { return nexthop_; }
  void nexthopIs(Nimbo::IpGenAddr const& v) { nexthop_ = v; }
  Nimbo::IntfId const& intfId() const { return intfId_; }
  void intfIdIs(Nimbo::IntfId const& v) { intfId_ = v; }
  // Equality compares all six label slots, also those beyond the stack size.
  Nimbo::MplsLabelOperation const& labels() const { return labels_; }
  void labelsIs(Nimbo::MplsLabelOperation const& v) { labels_ = v; }

  // Reads the textual form back; malformed text raises Vela::RangeException.
  static StaticTunnelConfigEntry fromValueStrep(std::string_view text);

 private:
  Vela::String8 name_;
  Nimbo::IpGenPrefix tep_;
  Nimbo::IpGenAddr nexthop_;
  Nimbo::IntfId intfId_;
  Nimbo::MplsLabelOperation labels_;
};

class Config : public Vela::Entity {
 public:
  explicit Config(Vela::Name name) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::Static::Config"; }

  // An absent name yields an entry with an empty name and default fields.
  StaticTunnelConfigEntry const& entry(Vela::String8 const& name) const { return entry_.get(name); }
  // Inserts or replaces; an equal entry changes nothing and notifies no one.
  void entryIs(StaticTunnelConfigEntry const& e) { entry_.set(e.name(), e); }
  void newEntry(StaticTunnelConfigEntry const& e) { entry_.set(e.name(), e); }
  void entryDel(Vela::String8 const& name) { entry_.del(name); }
  void entryDelAll() { entry_.delAll(); }
  auto const& entrys() const { return entry_; }

 private:
  Vela::ValueCollection<Vela::String8, StaticTunnelConfigEntry> entry_;
};

Vela::Ptr<Config> configFactory(Vela::Name const& name);

// Lets the state database create a Config at a path by its type name.
void registerStaticTypes(Corvel::EntityManager& entityManager);

}  // namespace Tunnel::Static
