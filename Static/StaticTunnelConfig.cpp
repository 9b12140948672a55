#include "Static/StaticTunnelConfig.h"

#include "framework/Corvel/EntityManager.h"

namespace Tunnel::Static {

StaticTunnelConfigEntry StaticTunnelConfigEntry::fromValueStrep(std::string_view text) {
  return Vela::parseValue<StaticTunnelConfigEntry>(text, "Tunnel::Static::StaticTunnelConfigEntry");
}

Vela::Ptr<Config> configFactory(Vela::Name const& name) { return Vela::make<Config>(name); }

void registerStaticTypes(Corvel::EntityManager& entityManager) {
  entityManager.typeIs<Config>("Tunnel::Static::Config");
}

}  // namespace Tunnel::Static
