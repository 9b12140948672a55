// The simulated decapsulation address table: one remembered address per
// group, shared addresses, changes, unspecified addresses, deletions and the
// exact trace forms.
#include <gtest/gtest.h>

#include <string>

#include "Decap/TunnelSimulator.h"
#include "framework/Skein/Trace.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel::Decap {
namespace {

using Nimbo::IpGenAddr;

IpGenAddr const addrA("10.0.0.1");
IpGenAddr const addrB("10.0.0.2");
IpGenAddr const addrV6("2001:db8::1");

class TunnelSimulatorTest : public ::testing::Test {
 protected:
  // Puts a new group of the CLI source into the merged configuration.
  Vela::Ptr<DecapGroup> group(Vela::Name const& name) {
    auto g = cli->newDecapGroup(name);
    config->decapGroupIs(g);
    return g;
  }
  Vela::Ptr<TunnelSimulator> const& start() {
    sim = Vela::make<TunnelSimulator>(config);
    return sim;
  }
  static bool hasLine(Skein::CaptureSink const& cap, std::string const& text) {
    for (auto const& line : cap.lines()) {
      if (line.text == text) return true;
    }
    return false;
  }
  // The one line containing `fragment` (empty when none or several).
  static std::string lineWith(Skein::CaptureSink const& cap, std::string const& fragment) {
    std::string found;
    for (auto const& line : cap.lines()) {
      if (line.text.find(fragment) == std::string::npos) continue;
      if (!found.empty()) return {};
      found = line.text;
    }
    return found;
  }

  Vela::Ptr<ConfigInput> cli = configInputFactory("cli");
  Vela::Ptr<Config> config = configFactory();
  Vela::Ptr<TunnelSimulator> sim;
};

TEST_F(TunnelSimulatorTest, SharedAddressIsCountedOncePerGroupAndMovesWithItsGroups) {
  start();
  auto g1 = group("g1");
  auto g2 = group("g2");
  group("g3")->decapIpIs(addrA, true);
  g1->decapIpIs(addrA, true);
  g2->decapIpIs(addrA, true);
  EXPECT_EQ(sim->decapIp(addrA), 3u);
  config->decapGroupDel("g3");
  EXPECT_EQ(sim->decapIp(addrA), 2u);
  EXPECT_EQ(sim->decapGroup("g3"), nullptr);

  Skein::CaptureSink cap(8);
  g1->decapIpIs(addrB, true);
  EXPECT_EQ(sim->decapIp(addrB), 1u);
  EXPECT_EQ(sim->decapIp(addrA), 1u);
  EXPECT_EQ(sim->decapGroup("g1")->prevIpAddr(), addrB);
  EXPECT_TRUE(hasLine(cap, "oldIpAddr: 10.0.0.1 count: 1"));
  g2->decapIpIs(addrV6, true);
  EXPECT_FALSE(sim->decapIps().contains(addrA));  // reached zero: removed, never stored as 0
  EXPECT_EQ(sim->decapIp(addrV6), 1u);
  EXPECT_TRUE(hasLine(cap, "oldIpAddr: 10.0.0.1 count: 0"));
  EXPECT_EQ(sim->decapIps().size(), 2u);
  config->decapGroupDel("g1");
  config->decapGroupDel("g2");
  EXPECT_TRUE(sim->decapIps().empty());
}

TEST_F(TunnelSimulatorTest, RepeatedAndRemovedAddressesCountAgain) {
  start();
  auto g = group("g");
  g->decapIpIs(addrA, true);
  g->decapIpIs(addrA, false);  // a change of the entry notifies again
  EXPECT_EQ(sim->decapIp(addrA), 2u);
  g->decapIpDel(addrA);  // removal counts like an addition
  EXPECT_EQ(sim->decapIp(addrA), 3u);
  g->decapIpIs(addrB, true);
  EXPECT_EQ(sim->decapIp(addrA), 2u);
  EXPECT_EQ(sim->decapIp(addrB), 1u);
  // Deletion returns only the remembered address.
  config->decapGroupDel("g");
  EXPECT_FALSE(sim->decapIps().contains(addrB));
  EXPECT_EQ(sim->decapIp(addrA), 2u);
}

TEST_F(TunnelSimulatorTest, UnspecifiedAddressesNeverCount) {
  start();
  auto g = group("g");
  for (auto const& addr : {IpGenAddr(), IpGenAddr("::"), IpGenAddr("0.0.0.0")}) g->decapIpIs(addr, true);
  EXPECT_TRUE(sim->decapIps().empty());
  EXPECT_EQ(sim->decapGroup("g")->prevIpAddr(), IpGenAddr("0.0.0.0"));
  config->decapGroupDel("g");
  EXPECT_TRUE(sim->decapIps().empty());

  // Moving from a real address to an unspecified one returns the real one.
  auto g6 = group("g6");
  g6->decapIpIs(addrA, true);
  g6->decapIpIs(IpGenAddr("::"), true);
  EXPECT_TRUE(sim->decapIps().empty());
  config->decapGroupDel("g6");
  EXPECT_TRUE(sim->decapIps().empty());
}

TEST_F(TunnelSimulatorTest, TraceFormsAndDeletingAGroupThatNeverReported) {
  start();
  auto g1 = group("g1");
  group("quiet");
  Skein::CaptureSink cap(8);
  g1->decapIpIs(addrA, true);
  // The count line begins with "IpAddr: ", no blank before it.
  EXPECT_TRUE(hasLine(cap, "IpAddr: 10.0.0.1 count: 1"));
  auto const entry = lineWith(cap, "handleDecapIp");
  EXPECT_TRUE(entry.ends_with("Decap group g1 add decapIp: 10.0.0.1")) << entry;

  // The remembered address is empty: the line ends after the label.
  cap.clear();
  config->decapGroupDel("quiet");
  EXPECT_EQ(sim->decapIp(addrA), 1u);
  EXPECT_EQ(sim->decapIps().size(), 1u);
  EXPECT_TRUE(lineWith(cap, "Deleting Decap group ").ends_with("Deleting Decap group quiet IpAddr: "));

  cap.clear();
  config->decapGroupDel("g1");
  // Here " IpAddr: " follows the group name after a blank.
  auto const del = lineWith(cap, "handleDel");
  EXPECT_TRUE(del.ends_with("Deleting Decap group g1 IpAddr: 10.0.0.1")) << del;
  EXPECT_TRUE(hasLine(cap, "oldIpAddr: 10.0.0.1 count 1"));  // no colon after "count" here
}

TEST_F(TunnelSimulatorTest, StartWalksExistingGroupsButLaterGroupsOnlyCountLaterChanges) {
  auto g1 = group("g1");
  g1->decapIpIs(addrA, true);
  auto g2 = group("g2");
  g2->decapIpIs(addrA, true);
  g2->decapIpIs(addrV6, true);
  start();
  EXPECT_TRUE(sim->initialized());
  EXPECT_EQ(sim->decapGroups().size(), 2u);
  // g2 walked two addresses: only the last one walked stays counted for it.
  auto const g2Last = sim->decapGroup("g2")->prevIpAddr();
  ASSERT_TRUE(g2Last == addrA || g2Last == addrV6);
  if (g2Last == addrA) {
    EXPECT_EQ(sim->decapIp(addrA), 2u);
    EXPECT_FALSE(sim->decapIps().contains(addrV6));
  } else {
    EXPECT_EQ(sim->decapIp(addrA), 1u);
    EXPECT_EQ(sim->decapIp(addrV6), 1u);
  }

  // A group that enters later is not walked.
  auto late = cli->newDecapGroup("late");
  late->decapIpIs(addrB, true);
  config->decapGroupIs(late);
  EXPECT_FALSE(sim->decapIps().contains(addrB));
  EXPECT_EQ(sim->decapGroup("late")->prevIpAddr(), IpGenAddr());
  late->decapIpIs(addrB, false);
  EXPECT_EQ(sim->decapIp(addrB), 1u);
}

TEST_F(TunnelSimulatorTest, AReplacedGroupIsFollowedUnderItsName) {
  start();
  auto first = group("g");
  first->decapIpIs(addrA, true);
  auto dyn = configInputFactory("dyn");
  auto second = dyn->newDecapGroup("g");
  config->decapGroupIs(second);
  EXPECT_EQ(sim->decapGroup("g")->decapGroup(), second);
  EXPECT_EQ(sim->decapGroup("g")->prevIpAddr(), addrA);  // kept across the replacement
  first->decapIpIs(addrB, true);                         // no longer followed
  EXPECT_FALSE(sim->decapIps().contains(addrB));
  second->decapIpIs(addrB, true);
  EXPECT_EQ(sim->decapIp(addrB), 1u);
  EXPECT_FALSE(sim->decapIps().contains(addrA));
}

TEST_F(TunnelSimulatorTest, RefusalsAndAssertions) {
  start();
  EXPECT_EQ(
      thrownText<Vela::RangeException>([&] { sim->decapGroupIs(nullptr); }),
      "null _decapGroup parameter to mutator for Tunnel::Decap::TunnelSimulator::decapGroup not allowed\"");

  // A count that would go below zero stops the process.
  auto g = group("g");
  g->decapIpIs(addrA, true);
  auto reactor = sim->decapGroup("g");
  reactor->handleDel();
  EXPECT_TRUE(sim->decapIps().empty());
  EXPECT_EQ(assertionText([&] { reactor->handleDel(); }), "count > 1");
  // addrA, the remembered address, is gone.
  EXPECT_EQ(assertionText([&] { g->decapIpIs(addrB, true); }), "count > 1");
  EXPECT_FALSE(sim->decapIps().contains(addrA));
}

TEST(TunnelSimulatorAgentTest, HoldsOneSimulatorOnItsConfig) {
  auto config = configFactory();
  auto g = configInputFactory("cli")->newDecapGroup("g");
  g->decapIpIs(addrA, true);
  config->decapGroupIs(g);

  auto agent = Vela::make<TunnelSimulatorAgent>("sim");
  auto sim = agent->tunnelSimIs(config);
  EXPECT_EQ(sim->decapIp(addrA), 1u);
  agent->tunnelSimDel();
  EXPECT_EQ(agent->tunnelSim(), nullptr);
  // Gone with its last holder, it stops watching the configuration.
  sim = nullptr;
  g->decapIpIs(addrB, true);
  config->decapGroupDel("g");
}

}  // namespace
}  // namespace Tunnel::Decap
