// Decap group values and entities: orderings, textual forms, the merged
// configuration's reference collection and creation by type name.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Decap/DecapGroup.h"
#include "framework/Quay/TaskScheduler.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel::Decap {
namespace {

using Nimbo::AddressFamily;
using Nimbo::IntfId;
using Nimbo::IpGenAddr;

TEST(DecapIntfKeyTest, OrdersByInterfaceThenFamilyAndHashesBothFields) {
  DecapIntfKey const eth1v4(IntfId("Ethernet1"), AddressFamily::ipv4);
  DecapIntfKey const eth1v6(IntfId("Ethernet1"), AddressFamily::ipv6);
  DecapIntfKey const eth2v4(IntfId("Ethernet2"), AddressFamily::ipv4);
  DecapIntfKey const eth2none(IntfId("Ethernet2"), AddressFamily::ipunknown);

  // Same interface: the family decides.
  EXPECT_LT(eth1v4, eth1v6);
  EXPECT_FALSE(eth1v6 < eth1v4);
  EXPECT_LT(eth2none, eth2v4);
  // Different interfaces: the family is not consulted.
  EXPECT_LT(eth1v6, eth2none);
  EXPECT_FALSE(eth2none < eth1v6);
  EXPECT_GT(eth2v4, eth1v6);
  EXPECT_LE(eth1v4, eth1v4);
  EXPECT_GE(eth1v6, eth1v6);
  EXPECT_FALSE(eth1v4 >= eth1v6);
  EXPECT_NE(eth1v4, eth1v6);

  DecapIntfKey const eth1v4Again(IntfId("Ethernet1"), AddressFamily::ipv4);
  EXPECT_EQ(eth1v4, eth1v4Again);
  EXPECT_EQ(Vela::hashOf(eth1v4), Vela::hashOf(eth1v4Again));
  EXPECT_NE(Vela::hashOf(eth1v4), Vela::hashOf(eth1v6));
  EXPECT_NE(Vela::hashOf(eth1v4), Vela::hashOf(eth2v4));
}

TEST(DecapIntfTest, OrderingAndTextualFormsOfKeysAndIntfs) {
  DecapIntfKey const key(IntfId("Ethernet1"), AddressFamily::ipv4);
  DecapIntf const plain(key);
  DecapIntf const all(key, AddressType::all);
  DecapIntf const old(key, AddressType::primary, true);
  DecapIntf const later(DecapIntfKey(IntfId("Ethernet1"), AddressFamily::ipv6));
  // Lexicographic: key, then address type, then oldConfig with false first.
  EXPECT_LT(plain, old);
  EXPECT_LT(old, all);
  EXPECT_LT(all, later);
  EXPECT_GT(later, all);
  EXPECT_LE(plain, plain);
  EXPECT_GE(all, old);
  EXPECT_NE(plain, old);

  std::string const keyStrep =
      "Value('Tunnel::Decap::DecapIntfKey', ** {'intfId': 'Ethernet1', 'addressFamily': ipv6})";
  EXPECT_EQ(Vela::valueToStrep(later.decapIntfKey()), keyStrep);
  EXPECT_EQ(Vela::parseValue<DecapIntfKey>(keyStrep), later.decapIntfKey());
  EXPECT_EQ(later.decapIntfKey().stringValue(), " Intf: Ethernet1 address-family: ipv6");

  std::string const strep =
      "Value('Tunnel::Decap::DecapIntf', ** {'decapIntfKey': Value('Tunnel::Decap::DecapIntfKey', ** "
      "{'intfId': 'Ethernet1', 'addressFamily': ipv4}), 'addressType': all, 'oldConfig': True})";
  DecapIntf const both(key, AddressType::all, true);
  EXPECT_EQ(Vela::valueToStrep(both), strep);
  EXPECT_EQ(Vela::parseValue<DecapIntf>(strep), both);
  EXPECT_EQ(both.stringValue(), " Intf: Ethernet1 address-family: ipv4 address-type: all oldConfig: 1");
  // The defaults: primary addresses, not old configuration.
  EXPECT_EQ(plain.stringValue(), " Intf: Ethernet1 address-family: ipv4 address-type: primary oldConfig: 0");
}

TEST(DecapEntityTest, GroupsAreOwnedByTheirInput) {
  auto input = configInputFactory("cli");
  auto group = input->newDecapGroup("dg1");
  DecapIntfKey const key(IntfId("Ethernet1"), AddressFamily::ipv4);
  // Absent keys read as defaults.
  EXPECT_FALSE(group->decapIp(IpGenAddr("10.0.0.1")));
  EXPECT_EQ(group->decapIntf(key), DecapIntf());
  EXPECT_EQ(input->newDecapGroup("dg1"), group);  // the existing group
  EXPECT_EQ(input->decapGroups().size(), 1u);
  group->decapIpIs(IpGenAddr("2001:db8::1"), true);
  group->decapIntfIs(key, DecapIntf(key, AddressType::all));
  input->decapGroupDel("dg1");
  EXPECT_EQ(input->decapGroup("dg1"), nullptr);
  // Another holder keeps the released group alive, unchanged.
  EXPECT_TRUE(group->decapIp(IpGenAddr("2001:db8::1")));
  EXPECT_EQ(group->decapIntf(key).addressType(), AddressType::all);
}

TEST(DecapEntityTest, ConfigRefersToGroupsByNameAndRefusesNull) {
  auto cli = configInputFactory("cli");
  auto dyn = configInputFactory("dyn");
  auto cliGroup = cli->newDecapGroup("dg1");
  auto dynGroup = dyn->newDecapGroup("dg1");
  cliGroup->decapIpIs(IpGenAddr("10.0.0.1"), true);

  auto config = configFactory();
  std::vector<Vela::Name> changes;
  auto sub = config->decapGroups().changed().connect([&](Vela::Name const& n) { changes.push_back(n); });
  config->decapGroupIs(cliGroup);
  EXPECT_EQ(config->decapGroup("dg1"), cliGroup);
  config->decapGroupIs(cliGroup);  // the same reference again: nothing changes
  EXPECT_EQ(changes.size(), 1u);

  // Same name, other group: the reference is replaced, the old group untouched.
  config->decapGroupIs(dynGroup);
  EXPECT_EQ(config->decapGroup("dg1"), dynGroup);
  EXPECT_EQ(config->decapGroups().size(), 1u);
  EXPECT_EQ(changes.size(), 2u);
  EXPECT_TRUE(cliGroup->decapIp(IpGenAddr("10.0.0.1")));
  EXPECT_EQ(cli->decapGroup("dg1"), cliGroup);

  EXPECT_EQ(thrownText<Vela::RangeException>([&] { config->decapGroupIs(nullptr); }),
            "null _decapGroup parameter to mutator for Tunnel::Decap::Config::decapGroup not allowed\"");
  EXPECT_EQ(config->decapGroup("dg1"), dynGroup);

  config->decapGroupDel("dg1");
  EXPECT_TRUE(config->decapGroups().empty());
  EXPECT_EQ(changes, (std::vector<Vela::Name>{"dg1", "dg1", "dg1"}));
}

TEST(DecapEntityTest, TypesAreCreatedByTypeName) {
  auto scheduler = Vela::make<Quay::TaskScheduler>();
  auto em = Vela::make<Corvel::EntityManager>(scheduler);
  registerDecapTypes(*em);
  for (char const* type :
       {"Tunnel::Decap::ConfigInput", "Tunnel::Decap::Config", "Tunnel::Decap::Hardware::Status"}) {
    ASSERT_TRUE(em->knowsType(type)) << type;
    auto e = em->newEntity(type, "x");
    ASSERT_NE(e, nullptr) << type;
    EXPECT_EQ(e->typeName(), type);
  }
  EXPECT_EQ(em->newEntity("Tunnel::Decap::ConfigInput", "src1")->name(), "src1");
  EXPECT_EQ(em->newEntity("Tunnel::Decap::Config", "merged")->name(), "");  // nameless
  EXPECT_EQ(em->newEntity("Tunnel::Decap::Hardware::Status", "hw")->name(), "hw");

  // A mount of an empty path creates the entity there.
  EXPECT_EQ(em->mount({"routing/tunneldecap/config", "Tunnel::Decap::Config", "w"}), Corvel::mountSuccess);
  EXPECT_NE(Vela::dynamicPtrCast<Config>(em->getEntity("routing/tunneldecap/config")), nullptr);
}

}  // namespace
}  // namespace Tunnel::Decap
