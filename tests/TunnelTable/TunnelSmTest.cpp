// The nexthop tunnel allocator: shared ids, counts, revival, counters.
#include <gtest/gtest.h>

#include <cstdlib>

#include "TunnelTable/TunnelSm.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

using namespace Tunnel::TunnelTable;

NexthopTunnelL3Info greTo(char const* dst) {
  NexthopTunnelL3Info info;
  info.groupType = NexthopType::gre;
  info.ttl = 64;
  info.sourceIp = Nimbo::IpGenAddr("10.0.0.1");
  info.destinationIp = Nimbo::IpGenAddr(dst);
  info.l3Intf = Nimbo::IntfId("Ethernet1");
  return info;
}

class NexthopTunnelTableSmTest : public ::testing::Test {
 protected:
  Vela::Ptr<NexthopTunnelTable> table = Vela::make<NexthopTunnelTable>("nexthopTunnelTable");
  Vela::Ptr<NexthopHwTunnelTable> hwTable = Vela::make<NexthopHwTunnelTable>("nexthopHwTunnelTable");
  Vela::Ptr<NexthopTunnelTableSm> sm = nexthopTunnelTableSmFactory(table, hwTable);
};

TEST_F(NexthopTunnelTableSmTest, EqualDescriptionsShareOneTunnelAndCountUsers) {
  auto const a1 = sm->createOrUpdateStatus(greTo("10.0.0.2"));
  auto const a2 = sm->createOrUpdateStatus(greTo("10.0.0.2"));
  auto const b = sm->createOrUpdateStatus(greTo("10.0.0.3"));
  EXPECT_EQ(Vela::valueToStrep(a1),
            "Value('Tunnel::TunnelTable::ReverseTunnelEntry', ** {'tunnelId': 1, 'refCount': 1})");
  EXPECT_EQ(a2.tunnelId, TunnelId(1));
  EXPECT_EQ(a2.refCount, 2u);
  EXPECT_EQ(b.tunnelId, TunnelId(2));
  EXPECT_EQ(sm->refCount(TunnelId(1)), 2u);
  EXPECT_EQ(table->nextAvailableIndex(), 3u);
  EXPECT_EQ(table->entry(TunnelId(2)), greTo("10.0.0.3"));
  EXPECT_TRUE(hwTable->entrys().contains(TunnelId(2)));
  EXPECT_EQ(sm->tunnelIdFromL3Info(greTo("10.0.0.3")), TunnelId(2));
  EXPECT_EQ(sm->tunnelIdFromL3Info(greTo("10.9.9.9")), TunnelId());
}

TEST_F(NexthopTunnelTableSmTest, TunnelWhoseCountReachedZeroIsRevivedWithItsId) {
  auto const first = sm->createOrUpdateStatus(greTo("10.0.0.2"));
  sm->deleteTunnelEntry(first.tunnelId);
  EXPECT_EQ(sm->refCount(first.tunnelId), 0u);
  EXPECT_FALSE(sm->tunnelExists(first.tunnelId));
  EXPECT_EQ(sm->getL3Info(first.tunnelId), greTo("10.0.0.2"));
  auto const again = sm->createOrUpdateStatus(greTo("10.0.0.2"));
  EXPECT_EQ(again.tunnelId, first.tunnelId);
  EXPECT_EQ(again.refCount, 1u);
  EXPECT_EQ(sm->nextAvailableIndex(), 2u);  // no new id was used
}

TEST_F(NexthopTunnelTableSmTest, DeletingWhatTheAllocatorDidNotHandOutStopsOnAnAssertion) {
  EXPECT_EQ(assertionText([&] { sm->deleteTunnelEntry(TunnelId(42)); }),
            "fetchedL3Info != NexthopTunnelL3Info()");
  // A table entry whose reverse index names another tunnel.
  auto const a = sm->createOrUpdateStatus(greTo("10.0.0.2"));
  table->entryIs(TunnelId(7), greTo("10.0.0.2"));
  EXPECT_EQ(assertionText([&] { sm->deleteTunnelEntry(TunnelId(7)); }),
            "reverseEntry.tunnelId() == tunnelId");
  EXPECT_EQ(sm->refCount(a.tunnelId), 1u);
}

TEST_F(NexthopTunnelTableSmTest, CountersAreReplacedNotAddedAndClearingKeepsEveryOtherField) {
  NexthopTunnelL2Info l2;
  l2.vlanId = 100;
  l2.macAddr = Nimbo::EthAddr::fromStrep("00:1c:73:00:00:01");
  l2.counterIndex = 9;
  l2.chipMask = Quay::ChipSet(0x5);
  auto const t = sm->doUpdateTunnel(greTo("10.0.0.2"), l2).tunnelId;
  sm->updateHwStatusCounters(t, 10, 1000);
  sm->updateHwStatusCounters(t, 10, 1000);
  auto expected = l2;
  expected.packets = 10;
  expected.bytes = 1000;
  EXPECT_EQ(sm->getL2Info(t), expected);
  sm->updateCounterInfo(t, 5, Quay::ChipSet(0x3), 20, 2000);
  expected.counterIndex = 5;
  expected.chipMask = Quay::ChipSet(0x3);
  expected.packets = 20;
  expected.bytes = 2000;
  EXPECT_EQ(sm->getL2Info(t), expected);
  sm->clearCounters();
  expected.packets = 0;
  expected.bytes = 0;
  EXPECT_EQ(sm->getL2Info(t), expected);
}

TEST_F(NexthopTunnelTableSmTest, RestartClearsTheTablesAndCountsFromOne) {
  sm->createOrUpdateStatus(greTo("10.0.0.2"));
  setenv("SIMULATION_VMID", "7", 1);  // read, not acted upon
  auto restarted = nexthopTunnelTableSmFactory(table, hwTable);
  unsetenv("SIMULATION_VMID");
  EXPECT_TRUE(restarted->initialized());
  EXPECT_TRUE(table->entrys().empty());
  EXPECT_TRUE(hwTable->entrys().empty());
  EXPECT_EQ(restarted->createOrUpdateStatus(greTo("10.0.0.9")).tunnelId, TunnelId(1));
}

TEST_F(NexthopTunnelTableSmTest, WithoutTablesNothingIsAllocated) {
  auto bare = nexthopTunnelTableSmFactory(nullptr, nullptr);
  EXPECT_EQ(bare->createOrUpdateStatus(greTo("10.0.0.2")), ReverseTunnelEntry());
  EXPECT_EQ(bare->doUpdateTunnel(greTo("10.0.0.2"), NexthopTunnelL2Info()), ReverseTunnelEntry());
  EXPECT_EQ(bare->nextAvailableIndex(), 1u);
}

TEST(NexthopValuesTest, IndexBoundsCounterIdLayoutAndL3InfoText) {
  EXPECT_EQ(NextHopIndex(127).value(), 127u);
  EXPECT_EQ(thrownText<Vela::RangeException>([] { NextHopIndex(128); }),
            "NextHopIndex::value < NextHopIndex::min or > NextHopIndex::max not allowed");
  EXPECT_EQ(TunnelCounterId::convertToTunnelValue(3, 7), 0x300000007ull);
  auto const l3 = Vela::valueToStrep(greTo("10.0.0.2"));
  EXPECT_EQ(l3.rfind("Value('Tunnel::TunnelTable::NexthopTunnelL3Info', ** {'groupType': gre, 'ttl': 64, "
                     "'sourceIp': '10.0.0.1', 'destinationIp': '10.0.0.2', 'mplsLabelStack': ",
                     0),
            0u)
      << l3;
  EXPECT_EQ(Vela::parseValue<NexthopTunnelL3Info>(l3), greTo("10.0.0.2"));
}

}  // namespace
