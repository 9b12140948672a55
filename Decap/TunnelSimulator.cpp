#include "Decap/TunnelSimulator.h"

#include <vector>

#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"

namespace Tunnel::Decap {

// --- DecapGroupReactor ------------------------------------------------------

TunnelSimulator::DecapGroupReactor::DecapGroupReactor(Vela::Ptr<DecapGroup const> const& decapGroup,
                                                      TunnelSimulator* tunnelSimulator)
    : Entity(decapGroup->name()), tunnelSimulator_(tunnelSimulator) {
  notifierIs(decapGroup);
}

void TunnelSimulator::DecapGroupReactor::onNotifier(DecapGroup const& decapGroup) {
  watch(decapGroup.decapIps().changed(), [this](Nimbo::IpGenAddr const& addr) { handleDecapIp(addr); });
}

void TunnelSimulator::DecapGroupReactor::handleDecapIp(Nimbo::IpGenAddr const& addr) {
  SKEIN_TRACE(8, __PRETTY_FUNCTION__ << " Decap group " << name() << " add decapIp: " << addr);
  auto& table = tunnelSimulator_->decapIp_;
  // Counted on every notification, a removal of the address included.
  if (countsAsDecapIp(addr)) tunnelSimulator_->decapIpInc(addr);
  if (countsAsDecapIp(prevIpAddr_) && prevIpAddr_ != addr) {
    std::uint32_t const count = table.get(prevIpAddr_);
    SKEIN_TRACE(8, "oldIpAddr: " << prevIpAddr_ << " count: " << static_cast<std::int64_t>(count) - 1);
    VELA_ASSERT_TEXT(count > 0, "count > 1");
    if (count == 1) {
      table.del(prevIpAddr_);
    } else {
      table.set(prevIpAddr_, count - 1);
    }
  }
  prevIpAddr_ = addr;
}

void TunnelSimulator::DecapGroupReactor::handleDel() {
  SKEIN_TRACE(8, __PRETTY_FUNCTION__ << " Deleting Decap group " << name() << " IpAddr: " << prevIpAddr_);
  if (!countsAsDecapIp(prevIpAddr_)) return;
  auto& table = tunnelSimulator_->decapIp_;
  std::uint32_t const count = table.get(prevIpAddr_);
  VELA_ASSERT_TEXT(count > 0, "count > 1");
  if (count == 1) {
    SKEIN_TRACE(8, "oldIpAddr: " << prevIpAddr_ << " count " << count);
    table.del(prevIpAddr_);
  } else {
    table.set(prevIpAddr_, count - 1);
  }
}

// --- TunnelSimulator --------------------------------------------------------

void TunnelSimulator::ConfigReactor::onNotifier(Config const& config) {
  watch(config.decapGroups().changed(),
        [this](Vela::Name const& name) { tunnelSimulator_->onDecapGroup(name); });
}

TunnelSimulator::TunnelSimulator(Vela::Ptr<Config const> config) : Entity("tunnelSimulator") {
  tunnelConfig_.notifierIs(config);
  if (config) {
    for (auto it = config->decapGroups().begin(); it != config->decapGroups().end(); ++it) {
      decapGroupIs(it.value());
    }
  }
  handleInitialized();
}

TunnelSimulator::~TunnelSimulator() {
  // A reactor handed out by decapGroup() may outlive the simulator.
  for (auto it = decapGroup_.begin(); it != decapGroup_.end(); ++it)
    it.value()->hasNotificationActiveIs(false);
}

bool TunnelSimulator::countsAsDecapIp(Nimbo::IpGenAddr const& addr) {
  return (addr.isV4() || addr.isV6()) && !addr.isUnspecified();
}

void TunnelSimulator::decapIpInc(Nimbo::IpGenAddr const& addr) {
  std::uint32_t const count = decapIp_.get(addr) + 1;
  SKEIN_TRACE(8, "IpAddr: " << addr << " count: " << count);
  decapIp_.set(addr, count);
}

void TunnelSimulator::decapGroupIs(Vela::Ptr<DecapGroup const> const& group) {
  if (!group) decapGroup_.set(Vela::Name(), nullptr);  // refused with the collection's range error
  if (auto const reactor = decapGroup_.get(group->name())) {
    // The Config now refers to another group of that name: follow it from
    // here on, keeping the address the name last contributed.
    reactor->notifierIs(group);
    return;
  }
  decapGroup_.set(group->name(), Vela::make<DecapGroupReactor>(group, this));
}

void TunnelSimulator::decapGroupDel(Vela::Name const& name) {
  auto const reactor = decapGroup_.get(name);
  if (!reactor) return;
  reactor->handleDel();
  reactor->hasNotificationActiveIs(false);
  decapGroup_.del(name);
}

void TunnelSimulator::handleInitialized() {
  SKEIN_TRACE(8, "handleInitialized");
  initialized_ = true;
  std::vector<Vela::Ptr<DecapGroupReactor>> reactors;
  for (auto it = decapGroup_.begin(); it != decapGroup_.end(); ++it) reactors.push_back(it.value());
  for (auto const& reactor : reactors) {
    std::vector<Nimbo::IpGenAddr> addrs;
    for (auto it = reactor->decapGroup()->decapIps().begin(); it != reactor->decapGroup()->decapIps().end();
         ++it) {
      addrs.push_back(it.key());
    }
    for (auto const& addr : addrs) reactor->handleDecapIp(addr);
  }
}

void TunnelSimulator::onDecapGroup(Vela::Name const& name) {
  if (auto const group = tunnelConfig()->decapGroup(name)) {
    decapGroupIs(group);
  } else {
    decapGroupDel(name);
  }
}

// --- TunnelSimulatorAgent ---------------------------------------------------

Vela::Ptr<TunnelSimulator> const& TunnelSimulatorAgent::tunnelSimIs(Vela::Ptr<Config const> const& config) {
  tunnelSim_ = Vela::make<TunnelSimulator>(config);
  return tunnelSim_;
}

}  // namespace Tunnel::Decap
