// The decapsulation address table of the software-forwarding simulation.
//
// TunnelSimulator watches the merged decap group Config and counts, for each
// local address, how many groups currently have it as their latest reported
// decapsulation address. The simulated data path decapsulates packets sent
// to any address in the table.
//
// The bookkeeping follows one address per group, the last one the group
// reported, and is deliberately asymmetric:
//  - every notification of an address counts it again, so the same address
//    reported twice by one group counts twice;
//  - the removal of an address from a group is counted like an addition;
//    only a later, different address or the group's deletion brings the
//    count back down;
//  - a group that enters the Config after start contributes only through
//    later notifications of its addresses.
// Only IPv4 addresses other than 0.0.0.0 and IPv6 addresses other than ::
// count. A count never drops below one: the address is removed instead, and
// an address that should be counted but is absent fails the assertion
// "count > 1".
#pragma once

#include <cstdint>
#include <string_view>

#include "Decap/DecapGroup.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Types.h"

namespace Tunnel::Decap {

class TunnelSimulator : public Vela::Entity {
 public:
  // Follows one group of the Config and remembers the address it last
  // contributed.
  class DecapGroupReactor : public Vela::Entity, public Vela::Reactor<DecapGroup> {
   public:
    DecapGroupReactor(Vela::Ptr<DecapGroup const> const& decapGroup, TunnelSimulator* tunnelSimulator);
    std::string_view typeName() const override { return "Tunnel::Decap::TunnelSimulator::DecapGroupReactor"; }

    Vela::Ptr<DecapGroup const> const& decapGroup() const { return notifier(); }
    TunnelSimulator* tunnelSimulator() const { return tunnelSimulator_; }
    // The address this group last reported; empty until it reports one.
    Nimbo::IpGenAddr const& prevIpAddr() const { return prevIpAddr_; }

    void handleDecapIp(Nimbo::IpGenAddr const& addr);
    // The group left the Config: returns its address's count.
    void handleDel();

   private:
    void onNotifier(DecapGroup const& decapGroup) override;

    TunnelSimulator* tunnelSimulator_;  // the owner
    Nimbo::IpGenAddr prevIpAddr_;
  };

  // Follows every group already in the Config and runs handleInitialized().
  explicit TunnelSimulator(Vela::Ptr<Config const> config);
  ~TunnelSimulator() override;
  std::string_view typeName() const override { return "Tunnel::Decap::TunnelSimulator"; }

  Vela::Ptr<Config const> const& tunnelConfig() const { return tunnelConfig_.notifier(); }
  bool initialized() const { return initialized_; }

  Vela::Ptr<DecapGroupReactor> decapGroup(Vela::Name const& name) const { return decapGroup_.get(name); }
  auto const& decapGroups() const { return decapGroup_; }
  // Follows the group under its name, creating its reactor if there is none
  // (without walking the group's present addresses). A null group is refused
  // with a range error.
  void decapGroupIs(Vela::Ptr<DecapGroup const> const& group);
  // Stops following the group; its reactor's handleDel() runs first.
  void decapGroupDel(Vela::Name const& name);

  // The address table: each address with the number of groups using it.
  std::uint32_t decapIp(Nimbo::IpGenAddr const& addr) const { return decapIp_.get(addr); }
  auto const& decapIps() const { return decapIp_; }

  void handleInitialized();
  // A change of the Config's entry `name`.
  void onDecapGroup(Vela::Name const& name);

  // Whether an address takes part in the table.
  static bool countsAsDecapIp(Nimbo::IpGenAddr const& addr);

 private:
  friend class DecapGroupReactor;

  class ConfigReactor : public Vela::Reactor<Config> {
   public:
    explicit ConfigReactor(TunnelSimulator* tunnelSimulator) : tunnelSimulator_(tunnelSimulator) {}

   private:
    void onNotifier(Config const& config) override;
    TunnelSimulator* tunnelSimulator_;
  };

  // One more group uses the address.
  void decapIpInc(Nimbo::IpGenAddr const& addr);

  Vela::RefCollection<Vela::Name, DecapGroupReactor> decapGroup_{
      "decapGroup", "Tunnel::Decap::TunnelSimulator::decapGroup"};
  Vela::ValueCollection<Nimbo::IpGenAddr, std::uint32_t> decapIp_;
  bool initialized_ = false;
  ConfigReactor tunnelConfig_{this};
};

// The named holder of one simulator.
class TunnelSimulatorAgent : public Vela::Entity {
 public:
  explicit TunnelSimulatorAgent(Vela::Name name) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::Decap::TunnelSimulatorAgent"; }

  Vela::Ptr<TunnelSimulator> const& tunnelSim() const { return tunnelSim_; }
  // Creates the simulator on `config`, replacing any previous one.
  Vela::Ptr<TunnelSimulator> const& tunnelSimIs(Vela::Ptr<Config const> const& config);
  void tunnelSimDel() { tunnelSim_ = nullptr; }

 private:
  Vela::Ptr<TunnelSimulator> tunnelSim_;
};

}  // namespace Tunnel::Decap
