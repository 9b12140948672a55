#include "Decap/TunnelOrlaRoot.h"

namespace Tunnel {

TunnelOrlaRoot::~TunnelOrlaRoot() { dgConfigMergeSmDel(); }

Vela::Ptr<Decap::Config> const& TunnelOrlaRoot::dgConfigIs() {
  if (!dgConfig_) dgConfig_ = Decap::configFactory();
  return dgConfig_;
}

Vela::Ptr<Decap::DecapGroupConfigMergeSm> const& TunnelOrlaRoot::dgConfigMergeSmIs(
    Vela::Ptr<Decap::Config> const& mergedConfig, Vela::Ptr<Decap::ConfigInput const> const& cliConfig,
    Vela::Ptr<Vela::Dir const> const& configDir, Vela::Ptr<Corvel::EntityManager> const& entityManager) {
  dgConfigMergeSmDel();
  dgConfigMergeSm_ =
      Vela::make<Decap::DecapGroupConfigMergeSm>(mergedConfig, cliConfig, configDir, entityManager);
  return dgConfigMergeSm_;
}

void TunnelOrlaRoot::dgConfigMergeSmDel() {
  if (!dgConfigMergeSm_) return;
  // Its mounters hold it until their mounts complete: abandon them first.
  dgConfigMergeSm_->stop();
  dgConfigMergeSm_ = nullptr;
}

}  // namespace Tunnel
