// Tunnel RIB entities: the dump formats (indent 0, a deeper indent, null
// references), entry and id-set notifications, and the per-protocol RIB
// collection and tunnel id sets the selection state machine keeps.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "TunnelTable/TunnelRib.h"
#include "framework/Quay/DumpContext.h"
#include "tests/TunnelTable/TestHelpers.h"

namespace {

using Nimbo::IpGenPrefix;
using namespace Tunnel::TunnelTable;

IpGenPrefix prefix(char const* text) { return IpGenPrefix(std::string_view(text)); }

TEST(TunnelRibTest, DumpsNestEntriesAndIdsFourDeeperAndNullReferencesShowNull) {
  auto const rib = Vela::make<TunnelRib>("tunnelRib");
  rib->tunnelRibConvergedIs(true);
  auto const entry = rib->newEntry(prefix("10.0.0.1/32"));
  entry->tunnelIdIs(makeId(TunnelType::ldpTunnel, 0x1a), true);
  entry->metricIs(10);
  entry->metric2Is(20);
  entry->prefIs(30);
  entry->pref2Is(40);
  Quay::DumpContext context;
  rib->dumpState(context, 3);
  EXPECT_EQ(context.str(),
            "   TunnelRib converged true\n"
            "     entries #1\n"
            "       TunnelRibEntry 10.0.0.1/32 metric 10 metric2 20 pref 30 pref2 40\n"
            "         tunnelIds #1\n"
            "           type ldpTunnel index 1a\n");

  // Every id gets a line, in iteration order.
  entry->tunnelIdIs(makeId(TunnelType::bgpLuTunnel, 0x20), true);
  entry->tunnelIdIs(makeId(TunnelType::bgpLuTunnel, 0x30), true);
  std::string expected =
      "TunnelRibEntry 10.0.0.1/32 metric 10 metric2 20 pref 30 pref2 40\n"
      "  tunnelIds #3\n";
  for (auto it = entry->tunnelIds().begin(); it != entry->tunnelIds().end(); ++it) {
    expected += it.key().tunnelType() == TunnelType::ldpTunnel ? "    type ldpTunnel index 1a\n"
                : it.key().tunnelIndex() == 0x20               ? "    type bgpLuTunnel index 20\n"
                                                               : "    type bgpLuTunnel index 30\n";
  }
  Quay::DumpContext top;
  entry->dumpState(top, 0);
  EXPECT_EQ(top.str(), expected);

  Quay::DumpContext null;
  dumpState(null, Vela::Ptr<TunnelRib const>(), 4);
  dumpState(null, Vela::Ptr<TunnelRibEntry const>(), 2);
  // "%*c" writes its blank even at width 0.
  dumpState(null, Vela::Ptr<TunnelRib const>(), 0);
  EXPECT_EQ(null.str(), "    NULL\n  NULL\n NULL\n");
  Quay::DumpContext present;
  dumpState(present, Vela::Ptr<TunnelRib const>(Vela::make<TunnelRib>("rib")), 0);
  EXPECT_EQ(present.str(), "TunnelRib converged false\n  entries #0\n");
}

TEST(TunnelRibTest, EntriesAreCreatedOnceAndNotifyPerTep) {
  auto const rib = Vela::make<TunnelRib>("tunnelRib");
  std::vector<IpGenPrefix> told;
  auto const sub = rib->entrys().changed().connect([&](IpGenPrefix const& tep) { told.push_back(tep); });
  IpGenPrefix const tep = prefix("10.0.0.1/32"), v6 = prefix("2001:db8::/64");
  EXPECT_FALSE(rib->entry(tep));
  auto const entry = rib->newEntry(tep);
  EXPECT_EQ(rib->entryIs(tep), entry);  // the one there is
  // Two entries per TEP at a million TEPs: the TEP shares the last metric's
  // padding, and the name is not held until asked for.
  EXPECT_LE(sizeof(TunnelRibEntry), 128u);
  EXPECT_EQ(rib->newEntry(v6)->name(), "2001:db8::/64");
  EXPECT_EQ(&rib->entry(v6)->name(), &rib->entry(v6)->name());
  rib->entryDel(v6);
  EXPECT_FALSE(rib->entry(v6));
  EXPECT_EQ(told, (std::vector<IpGenPrefix>{tep, v6, v6}));

  std::vector<TunnelId> ids;
  auto const idSub = entry->tunnelIds().changed().connect([&](TunnelId const& id) { ids.push_back(id); });
  TunnelId const a = makeId(TunnelType::ldpTunnel, 1);
  entry->tunnelIdIs(a, true);
  entry->tunnelIdIs(a, true);
  EXPECT_TRUE(entry->tunnelId(a));
  entry->tunnelIdDel(a);
  entry->tunnelIdDel(a);
  EXPECT_FALSE(entry->tunnelId(a));
  EXPECT_EQ(ids, (std::vector<TunnelId>{a, a}));
}

TEST(TunnelRibTest, ProtocolRibsAreFoundByTunnelType) {
  auto const coll = Vela::make<ProtocolTunnelRibCollection>("protoTunnelRib");
  EXPECT_FALSE(coll->protocolTunnelRib(TunnelType::ldpTunnel));
  auto const wrapper = coll->protocolTunnelRibIs(TunnelType::ldpTunnel);
  EXPECT_EQ(coll->protocolTunnelRibIs(TunnelType::ldpTunnel), wrapper);
  EXPECT_EQ(coll->protocolTunnelRib(TunnelType::ldpTunnel), wrapper);
  EXPECT_EQ(wrapper->tunnelType(), TunnelType::ldpTunnel);
  EXPECT_FALSE(wrapper->tunnelRib());
  coll->protocolTunnelRibDel(TunnelType::ldpTunnel);
  EXPECT_TRUE(coll->protocolTunnelRibs().empty());
}

TEST(TunnelRibTest, TunnelIdSetsHoldEachIdOnce) {
  auto const coll = tunnelIdCollFactory();
  int told = 0;
  auto const sub = coll->entrys().changed().connect([&](TunnelId const&) { ++told; });
  TunnelId const id = makeId(TunnelType::bgpLuTunnel, 9);
  coll->entryIs(id, true);
  coll->entryIs(id, true);
  EXPECT_TRUE(coll->entry(id));
  EXPECT_EQ(told, 1);
  coll->entryIs(id, false);
  EXPECT_FALSE(coll->entry(id));
  EXPECT_EQ(told, 2);

  auto const byId = Vela::make<TunnelIdCollByTunnelId>(id);
  byId->entryIs(makeId(TunnelType::ldpTunnel, 1), true);
  byId->entryIs(makeId(TunnelType::ldpTunnel, 2), true);
  EXPECT_EQ(byId->entrys().size(), 2u);
  byId->entryDelAll();
  EXPECT_TRUE(byId->entrys().empty());
}

}  // namespace
