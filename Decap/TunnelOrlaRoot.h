// The simulation environment's root entity for the tunnel library.
//
// In the software-forwarding simulation the environment builds one
// TunnelOrlaRoot: it owns the merged decap group Config and the merge state
// machine that fills it from the command-line configuration and the dynamic
// sources. The environment hands the same Config, read-only, to the
// TunnelSimulatorAgent that builds the decapsulation address table:
//
//   auto root = Vela::make<Tunnel::TunnelOrlaRoot>("tunnel");
//   root->dgConfigIs();
//   root->dgConfigMergeSmIs(root->dgConfig(), cliInput, em->dirIs(dynamicInputDir), em);
//   simAgent->tunnelSimIs(root->dgConfig());
#pragma once

#include <string_view>

#include "Decap/DecapGroup.h"
#include "Decap/DecapGroupConfigMergeSm.h"
#include "framework/Corvel/EntityManager.h"
#include "framework/Vela/Entity.h"

namespace Tunnel {

class TunnelOrlaRoot : public Vela::Entity {
 public:
  explicit TunnelOrlaRoot(Vela::Name name) : Entity(std::move(name)) {}
  ~TunnelOrlaRoot() override;
  std::string_view typeName() const override { return "Tunnel::TunnelOrlaRoot"; }

  Vela::Ptr<Decap::Config> const& dgConfig() const { return dgConfig_; }
  // Creates the merged configuration unless it exists; returns it.
  Vela::Ptr<Decap::Config> const& dgConfigIs();
  void dgConfigDel() { dgConfig_ = nullptr; }

  Vela::Ptr<Decap::DecapGroupConfigMergeSm> const& dgConfigMergeSm() const { return dgConfigMergeSm_; }
  // Creates the merge state machine on its four inputs (the merged
  // configuration is normally dgConfig()), replacing any previous one.
  Vela::Ptr<Decap::DecapGroupConfigMergeSm> const& dgConfigMergeSmIs(
      Vela::Ptr<Decap::Config> const& mergedConfig, Vela::Ptr<Decap::ConfigInput const> const& cliConfig,
      Vela::Ptr<Vela::Dir const> const& configDir, Vela::Ptr<Corvel::EntityManager> const& entityManager);
  // Stops the merge (its notifications and the mounts in progress) and
  // releases it.
  void dgConfigMergeSmDel();

 private:
  Vela::Ptr<Decap::Config> dgConfig_;
  Vela::Ptr<Decap::DecapGroupConfigMergeSm> dgConfigMergeSm_;
};

}  // namespace Tunnel
