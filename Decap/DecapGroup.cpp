#include "Decap/DecapGroup.h"

#include <sstream>

namespace Tunnel::Decap {

std::string DecapIntfKey::stringValue() const {
  std::ostringstream os;
  os << " Intf: " << intfId_ << " address-family: " << addressFamily_;
  return os.str();
}

std::string DecapIntf::stringValue() const {
  std::ostringstream os;
  os << decapIntfKey_.stringValue() << " address-type: " << addressType_
     << " oldConfig: " << (oldConfig_ ? 1 : 0);
  return os.str();
}

void Config::decapGroupIs(Vela::Ptr<DecapGroup const> const& group) {
  // The collection refuses a null group before it looks at the key.
  decapGroup_.set(group ? group->name() : Vela::Name(), group);
}

Vela::Ptr<ConfigInput> configInputFactory(Vela::Name const& name) { return Vela::make<ConfigInput>(name); }

Vela::Ptr<Config> configFactory() { return Vela::make<Config>(); }

namespace Hardware {

Vela::Ptr<Status> statusFactory(Vela::Name const& name) { return Vela::make<Status>(name); }

}  // namespace Hardware

void registerDecapTypes(Corvel::EntityManager& entityManager) {
  entityManager.typeIs("Tunnel::Decap::ConfigInput", [](Vela::Name const& name) -> Vela::Ptr<Vela::Entity> {
    return configInputFactory(name);
  });
  // The merged configuration is nameless whatever the path it is created at.
  entityManager.typeIs("Tunnel::Decap::Config",
                       [](Vela::Name const&) -> Vela::Ptr<Vela::Entity> { return configFactory(); });
  entityManager.typeIs(
      "Tunnel::Decap::Hardware::Status",
      [](Vela::Name const& name) -> Vela::Ptr<Vela::Entity> { return Hardware::statusFactory(name); });
}

}  // namespace Tunnel::Decap
