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

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> out;
  std::string::size_type start = 0;
  while (start < text.size()) {
    auto const end = text.find('\n', start);
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

TEST(TunnelRibTest, EntriesDumpAsChildrenFourDeeper) {
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

  Quay::DumpContext top;
  entry->dumpState(top, 0);
  EXPECT_EQ(top.str(),
            "TunnelRibEntry 10.0.0.1/32 metric 10 metric2 20 pref 30 pref2 40\n"
            "  tunnelIds #1\n"
            "    type ldpTunnel index 1a\n");
}

TEST(TunnelRibTest, EveryIdOfAnEntryGetsALineInIterationOrder) {
  auto const rib = Vela::make<TunnelRib>("tunnelRib");
  auto const entry = rib->entryIs(prefix("10.0.0.2/32"));
  for (std::uint64_t i = 1; i <= 3; ++i) entry->tunnelIdIs(makeId(TunnelType::bgpLuTunnel, i * 0x10), true);
  Quay::DumpContext context;
  rib->dumpState(context, 0);
  std::vector<std::string> expected = {"TunnelRib converged false", "  entries #1",
                                       "    TunnelRibEntry 10.0.0.2/32 metric 0 metric2 0 pref 0 pref2 0",
                                       "      tunnelIds #3"};
  for (auto it = entry->tunnelIds().begin(); it != entry->tunnelIds().end(); ++it) {
    expected.push_back("        type bgpLuTunnel index " + std::to_string(it.key().tunnelIndex() / 16) + "0");
  }
  EXPECT_EQ(lines(context.str()), expected);
}

TEST(TunnelRibTest, NullReferencesDumpAsNull) {
  Quay::DumpContext context;
  dumpState(context, Vela::Ptr<TunnelRib const>(), 4);
  dumpState(context, Vela::Ptr<TunnelRibEntry const>(), 2);
  // "%*c" writes its blank even at width 0.
  dumpState(context, Vela::Ptr<TunnelRib const>(), 0);
  EXPECT_EQ(context.str(), "    NULL\n  NULL\n NULL\n");

  Quay::DumpContext present;
  dumpState(present, Vela::Ptr<TunnelRib const>(Vela::make<TunnelRib>("rib")), 0);
  EXPECT_EQ(present.str(), "TunnelRib converged false\n  entries #0\n");
}

TEST(TunnelRibTest, EntriesAreCreatedOnceAndNotifyPerTep) {
  auto const rib = Vela::make<TunnelRib>("tunnelRib");
  std::vector<IpGenPrefix> told;
  auto const sub = rib->entrys().changed().connect([&](IpGenPrefix const& tep) { told.push_back(tep); });
  IpGenPrefix const tep = prefix("10.0.0.1/32");

  EXPECT_FALSE(rib->entry(tep));
  auto const entry = rib->newEntry(tep);
  EXPECT_EQ(rib->entryIs(tep), entry);  // the one there is
  EXPECT_EQ(entry->tep(), tep);
  EXPECT_EQ(entry->name(), "10.0.0.1/32");  // made when first asked for
  EXPECT_EQ(&entry->name(), &entry->name());
  // Two entries per TEP at a million TEPs: the TEP shares the last metric's
  // padding, and the name is not held until asked for.
  EXPECT_LE(sizeof(TunnelRibEntry), 128u);
  EXPECT_EQ(rib->newEntry(prefix("2001:db8::/64"))->name(), "2001:db8::/64");
  EXPECT_EQ(told.size(), 2u);
  rib->entryDel(prefix("2001:db8::/64"));
  told.clear();

  std::vector<TunnelId> ids;
  auto const idSub = entry->tunnelIds().changed().connect([&](TunnelId const& id) { ids.push_back(id); });
  TunnelId const a = makeId(TunnelType::ldpTunnel, 1);
  entry->tunnelIdIs(a, true);
  entry->tunnelIdIs(a, true);
  EXPECT_TRUE(entry->tunnelId(a));
  EXPECT_EQ(ids, std::vector<TunnelId>{a});
  entry->tunnelIdDel(a);
  entry->tunnelIdDel(a);
  EXPECT_FALSE(entry->tunnelId(a));
  EXPECT_EQ(ids, (std::vector<TunnelId>{a, a}));

  rib->entryDel(tep);
  EXPECT_FALSE(rib->entry(tep));
  EXPECT_EQ(told.size(), 1u);
}

TEST(TunnelRibTest, ProtocolRibsAreFoundByTunnelType) {
  auto const coll = Vela::make<ProtocolTunnelRibCollection>("protoTunnelRib");
  EXPECT_EQ(coll->typeName(), "Tunnel::TunnelTable::ProtocolTunnelRibCollection");
  EXPECT_FALSE(coll->protocolTunnelRib(TunnelType::ldpTunnel));
  auto const wrapper = coll->protocolTunnelRibIs(TunnelType::ldpTunnel);
  EXPECT_EQ(coll->protocolTunnelRibIs(TunnelType::ldpTunnel), wrapper);
  EXPECT_EQ(wrapper->tunnelType(), TunnelType::ldpTunnel);
  EXPECT_FALSE(wrapper->tunnelRib());
  coll->protocolTunnelRibDel(TunnelType::ldpTunnel);
  EXPECT_TRUE(coll->protocolTunnelRibs().empty());

  EXPECT_EQ(Vela::make<TunnelRib>("ldp")->typeName(), "Tunnel::TunnelTable::TunnelRib");
}

TEST(TunnelRibTest, TunnelIdSetsHoldEachIdOnce) {
  auto const coll = tunnelIdCollFactory();
  EXPECT_TRUE(coll->entrys().empty());
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
  EXPECT_EQ(byId->key(), id);
  byId->entryIs(makeId(TunnelType::ldpTunnel, 1), true);
  byId->entryIs(makeId(TunnelType::ldpTunnel, 2), true);
  EXPECT_EQ(byId->entrys().size(), 2u);
  byId->entryDelAll();
  EXPECT_TRUE(byId->entrys().empty());
}

}  // namespace
