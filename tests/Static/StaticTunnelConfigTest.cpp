// Static tunnel configuration entries and the Config entity.
#include <gtest/gtest.h>

#include <random>

#include "Static/StaticTunnelConfig.h"

namespace {

using Tunnel::Static::Config;
using Tunnel::Static::StaticTunnelConfigEntry;

StaticTunnelConfigEntry sampleEntry() {
  StaticTunnelConfigEntry e("toPe2");
  e.tepIs(Nimbo::IpGenPrefix("10.0.0.2/32"));
  e.nexthopIs(Nimbo::IpGenAddr("192.168.1.2"));
  e.intfIdIs(Nimbo::IntfId("Ethernet1"));
  e.labelsIs(Nimbo::MplsLabelOperation::pushOf({16, 3000}));
  return e;
}

TEST(StaticTunnelConfigEntryTest, FreshEntryNamesAllFieldsInOrderAndParsesBack) {
  StaticTunnelConfigEntry const fresh("t1");
  auto const text = Vela::valueToStrep(fresh);
  EXPECT_EQ(text.rfind("Value('Tunnel::Static::StaticTunnelConfigEntry', ** {'name': 't1', 'tep': ", 0), 0u)
      << text;
  auto const tep = text.find("'tep'"), nexthop = text.find("'nexthop'"), intf = text.find("'intfId'"),
             labels = text.find("'labels'");
  EXPECT_TRUE(tep < nexthop && nexthop < intf && intf < labels) << text;
  // Empty fields parse back too (the random entries below always have a tep).
  EXPECT_EQ(StaticTunnelConfigEntry::fromValueStrep(text), fresh);
}

TEST(StaticTunnelConfigEntryTest, SlotBeyondTheStackSizeTakesPartInEquality) {
  auto a = sampleEntry();
  auto b = sampleEntry();
  EXPECT_EQ(a, b);
  auto labels = b.labels();
  labels.labelIs(5, 77);  // stack size stays 2
  b.labelsIs(labels);
  EXPECT_EQ(b.labels().stackSize(), 2u);
  EXPECT_NE(a, b);
}

TEST(StaticTunnelConfigEntryTest, RandomEntriesRoundTrip) {
  unsigned const seed = 20261122;
  std::mt19937 rng(seed);
  auto pick = [&](unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(rng); };
  for (int i = 0; i < 500; ++i) {
    StaticTunnelConfigEntry e("tunnel " + std::to_string(pick(1000)) + (pick(2) ? "'quoted'" : ""));
    e.tepIs(Nimbo::IpGenPrefix(Nimbo::IpGenAddr(Nimbo::IpAddr(rng())), static_cast<std::uint8_t>(pick(33))));
    if (pick(2)) e.nexthopIs(Nimbo::IpGenAddr(Nimbo::IpAddr(rng())));
    if (pick(2)) e.intfIdIs(Nimbo::IntfId("Ethernet" + std::to_string(1 + pick(48))));
    Nimbo::MplsLabelOperation op;
    op.operationIs(static_cast<Nimbo::MplsAction>(pick(4)));
    for (unsigned n = pick(7); n > 0; --n) op.push(pick(0x100000));
    e.labelsIs(op);
    auto const text = Vela::valueToStrep(e);
    ASSERT_EQ(StaticTunnelConfigEntry::fromValueStrep(text), e) << "seed " << seed << ": " << text;
  }
}

TEST(StaticTunnelConfigEntryTest, MalformedTextIsARangeError) {
  auto const good = Vela::valueToStrep(sampleEntry());
  for (std::string bad :
       {std::string(""), good.substr(0, good.size() - 2), good + "x",
        std::string("Value('Tunnel::Static::Other', ** {})"),
        std::string("Value('Tunnel::Static::StaticTunnelConfigEntry', ** {'name': 't', 'tep': "
                    "'10.0.0.300/32', 'nexthop': '', 'intfId': '', 'labels': 'none'})"),
        std::string("Value('Tunnel::Static::StaticTunnelConfigEntry', ** {'name': 't', 'tep': "
                    "'', 'nexthop': '', 'intfId': '', 'labels': 'push 1 2 3 4 5 6 7'})")}) {
    EXPECT_THROW(StaticTunnelConfigEntry::fromValueStrep(bad), Vela::RangeException) << bad;
  }
}

TEST(StaticConfigTest, EntryIsNotifiesOnlyOnChangeAndAbsentNamesReadEmpty) {
  auto config = Tunnel::Static::configFactory("static");
  std::vector<std::string> seen;
  auto sub = config->entrys().changed().connect([&](Vela::String8 const& n) { seen.push_back(n); });
  auto e = sampleEntry();
  config->entryIs(e);
  config->entryIs(e);
  EXPECT_EQ(config->entry("toPe2"), e);
  EXPECT_EQ(config->entry("nope"), StaticTunnelConfigEntry());
  e.nexthopIs(Nimbo::IpGenAddr("192.168.1.3"));
  config->entryIs(e);
  config->entryDel("absent");
  config->entryDel("toPe2");
  EXPECT_EQ(seen, (std::vector<std::string>{"toPe2", "toPe2", "toPe2"}));
}

}  // namespace
