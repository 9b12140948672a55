// The tunnel agent's mounts and the aggregator's waiting and running states.
#include <gtest/gtest.h>

#include "TunnelTable/TunnelAggregatorSm.h"
#include "framework/Skein/Trace.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

using namespace Tunnel::TunnelTable;

class TunnelAggregatorSmTest : public ::testing::Test {
 protected:
  Vela::Ptr<Quay::TaskScheduler> scheduler = Vela::make<Quay::TaskScheduler>(Vela::make<Quay::ManualClock>());
  Vela::Ptr<Corvel::EntityManager> em = Vela::make<Corvel::EntityManager>(scheduler);
  Vela::Ptr<Agent> agent;

  void SetUp() override { registerTunnelTypes(*em); }

  void publishRequiredTables() {
    em->entityIs("tunnel/table/bgpLu", Vela::make<BgpLuTunnelTable>("bgpLu"));
    em->entityIs("tunnel/table/bgpLuPush", Vela::make<BgpLuPushTunnelTable>("bgpLuPush"));
    em->entityIs("tunnel/table/ldp", Vela::make<LdpTunnelTable>("ldp"));
    em->entityIs("tunnel/table/sr", Vela::make<SrTunnelTable>("sr"));
    em->entityIs("tunnel/table/static", Vela::make<StaticTunnelTable>("static"));
  }

  Vela::Ptr<TunnelAggregatorSm> const& startAgent() {
    agent = Vela::make<Agent>(em);
    agent->start();
    scheduler->runUntilIdle();
    return agent->aggregatorSm();
  }
};

TEST_F(TunnelAggregatorSmTest, AgentMountsItsStateAndBuildsTheAggregator) {
  auto const& aggregator = startAgent();
  ASSERT_NE(aggregator, nullptr);
  EXPECT_NE(agent->tunnelRib(), nullptr);
  EXPECT_EQ(em->getEntity("tunnel/tunnelRib"), agent->tunnelRib());
  EXPECT_NE(agent->mplsTunnelFib(), nullptr);
  for (auto [path, type] : {std::pair{"tunnel/protoTunnelRib/bgpLu", TunnelType::bgpLuTunnel},
                            std::pair{"tunnel/protoTunnelRib/ldp", TunnelType::ldpTunnel},
                            std::pair{"tunnel/protoTunnelRib/sr", TunnelType::srTunnel},
                            std::pair{"tunnel/protoTunnelRib/static", TunnelType::staticTunnel}}) {
    auto wrapper = agent->protoTunnelRibColl()->protocolTunnelRib(type);
    ASSERT_NE(wrapper, nullptr) << path;
    EXPECT_EQ(wrapper->tunnelRib(), em->getEntity(path)) << path;
  }
  // No tables yet: the aggregator waits.
  EXPECT_FALSE(aggregator->initialized());
  EXPECT_EQ(aggregator->tunnelRibSm(), nullptr);
  EXPECT_EQ(aggregator->unprogrammableTunnelId(), nullptr);
}

// Tables published after the agent started are seen: the aggregator waits
// for the last required one, and the tunnels then flow to the RIB and FIB.
TEST_F(TunnelAggregatorSmTest, WaitsUntilTheLastRequiredTableArrives) {
  auto const ldp = Vela::make<LdpTunnelTable>("ldp");
  em->entityIs("tunnel/table/bgpLu", Vela::make<BgpLuTunnelTable>("bgpLu"));
  em->entityIs("tunnel/table/ldp", ldp);
  auto const& aggregator = startAgent();
  EXPECT_FALSE(aggregator->initialized());
  em->entityIs("tunnel/table/srTeSegmentList", Vela::make<SrTeSegmentListTunnelTable>("srTeSegmentList"));
  em->entityIs("tunnel/table/sr", Vela::make<SrTunnelTable>("sr"));
  em->entityIs("tunnel/table/static", Vela::make<StaticTunnelTable>("static"));
  EXPECT_FALSE(aggregator->initialized());
  em->entityIs("tunnel/table/bgpLuPush", Vela::make<BgpLuPushTunnelTable>("bgpLuPush"));
  ASSERT_TRUE(aggregator->initialized());
  EXPECT_NE(aggregator->mplsTunnelFibSm()->srTeSegmentListTable(), nullptr);

  LdpSrTunnelTableEntry entry(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 1)));
  entry.tepIs(Nimbo::IpGenPrefix("10.0.0.1/32"));
  entry.viaIs(MplsVia(Nimbo::IpGenAddr("192.168.1.2"), Nimbo::IntfId("Ethernet1"),
                      Nimbo::MplsLabelOperation::pushOf({3})),
              true);
  ldp->entryIs(entry);
  scheduler->runUntilIdle();
  EXPECT_NE(agent->tunnelRib()->entry(Nimbo::IpGenPrefix("10.0.0.1/32")), nullptr);
  EXPECT_EQ(agent->mplsTunnelFib()->entry(entry.tunnelId()).vias().size(), 1u);
}

TEST_F(TunnelAggregatorSmTest, StartsWithoutTheSegmentListTableWhichRestartsNothingLater) {
  publishRequiredTables();
  auto const& aggregator = startAgent();
  ASSERT_TRUE(aggregator->initialized());
  auto const ribSm = aggregator->tunnelRibSm();
  auto const fibSm = aggregator->mplsTunnelFibSm();
  ASSERT_NE(ribSm, nullptr);
  ASSERT_NE(fibSm, nullptr);
  EXPECT_NE(aggregator->unprogrammableTunnelId(), nullptr);
  em->entityIs("tunnel/table/srTeSegmentList", Vela::make<SrTeSegmentListTunnelTable>("srTeSegmentList"));
  EXPECT_EQ(aggregator->tunnelRibSm(), ribSm);
  EXPECT_EQ(aggregator->mplsTunnelFibSm(), fibSm);
  EXPECT_EQ(fibSm->srTeSegmentListTable(), nullptr);  // keeps the null table it was given
  EXPECT_NE(aggregator->srTeSegmentListTable(), nullptr);
}

TEST_F(TunnelAggregatorSmTest, AnyRemovalStopsBothMachinesUntilTheNextAdd) {
  publishRequiredTables();
  em->entityIs("tunnel/table/unrelated", Vela::make<Vela::Dir>("unrelated"));
  auto const& aggregator = startAgent();
  auto const unprogrammable = aggregator->unprogrammableTunnelId();
  auto const firstRibSm = aggregator->tunnelRibSm();
  unprogrammable->entryIs(TunnelId(0x300000000001), true);

  Skein::CaptureSink capture(8);
  em->entityDel("tunnel/table/unrelated");  // even a name that matches no table
  EXPECT_TRUE(capture.contains("Tunnel Table unrelated was deleted "));
  EXPECT_FALSE(aggregator->initialized());
  EXPECT_EQ(aggregator->tunnelRibSm(), nullptr);
  EXPECT_EQ(aggregator->mplsTunnelFibSm(), nullptr);
  EXPECT_NE(aggregator->ldpTable(), nullptr);  // clears nothing

  em->entityDel("tunnel/table/ldp");
  EXPECT_EQ(aggregator->ldpTable(), nullptr);
  EXPECT_FALSE(aggregator->initialized());

  em->entityIs("tunnel/table/ldp", Vela::make<LdpTunnelTable>("ldp"));
  ASSERT_TRUE(aggregator->initialized());
  EXPECT_NE(aggregator->tunnelRibSm(), firstRibSm);                 // a fresh machine
  EXPECT_EQ(aggregator->unprogrammableTunnelId(), unprogrammable);  // the same set, contents kept
  EXPECT_TRUE(unprogrammable->entry(TunnelId(0x300000000001)));
  EXPECT_TRUE(capture.contains(
      "void Tunnel::TunnelTable::TunnelAggregatorSm::handleProtoTunnelTable(const Vela::String8&) for Tunnel "
      "Table ldp"));
}

TEST_F(TunnelAggregatorSmTest, TableOfAnUnlistedTypeIsIgnored) {
  publishRequiredTables();
  em->entityDel("tunnel/table/static");
  em->entityIs("tunnel/table/static", Vela::make<EvpnVxlanTunnelTable>("static"));
  auto const& aggregator = startAgent();
  EXPECT_FALSE(aggregator->initialized());
  EXPECT_EQ(aggregator->staticTable(), nullptr);
}

TEST_F(TunnelAggregatorSmTest, FailedMountStopsTheAgent) {
  em->entityIs("tunnel/tunnelRib", Vela::make<Vela::Dir>("tunnelRib"));  // the wrong type
  agent = Vela::make<Agent>(em);
  agent->start();
  EXPECT_EQ(assertionText([&] { scheduler->runUntilIdle(); }), "status == Corvel::mountSuccess_");
}

TEST_F(TunnelAggregatorSmTest, AgentTeardownReleasesTheMachines) {
  publishRequiredTables();
  startAgent();
  Vela::Ptr<TunnelRibSm> ribSm = agent->aggregatorSm()->tunnelRibSm();
  agent = nullptr;
  EXPECT_EQ(ribSm->refCount(), 1u);  // only ours
}

}  // namespace
