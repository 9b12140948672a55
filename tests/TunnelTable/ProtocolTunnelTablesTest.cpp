// Protocol tunnel tables: what each table declares about itself, the entry
// collection and its notifications, the ids interface tunnels and EVPN VXLAN
// tunnels are given, and the EVPN kernel interface names.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "TunnelTable/ProtocolTunnelTables.h"
#include "TunnelTable/TunnelIntfId.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Ptr.h"
#include "tests/TunnelTable/TestHelpers.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::MplsLabelOperation;
using namespace Tunnel::TunnelTable;

MplsVia mplsVia(char const* nexthop, std::uint64_t intf, std::uint32_t label) {
  return MplsVia(IpGenAddr(std::string_view(nexthop)), IntfId(intf), MplsLabelOperation::pushOf({label}));
}

struct TableFacts {
  Vela::Ptr<TunnelTableBase> table;
  char const* typeName;
  TunnelType type;
  TunnelTablePref pref;
  bool contributes;
};

TEST(ProtocolTunnelTablesTest, EachTableDeclaresItsTypePreferenceAndContribution) {
  std::vector<TableFacts> const tables = {
      {Vela::make<LdpTunnelTable>("ldp"), "Tunnel::TunnelTable::LdpTunnelTable", TunnelType::ldpTunnel,
       TunnelTablePref::ldpPref, true},
      {Vela::make<SrTunnelTable>("sr"), "Tunnel::TunnelTable::SrTunnelTable", TunnelType::srTunnel,
       TunnelTablePref::srPref, true},
      {Vela::make<BgpLuTunnelTable>("bgpLu"), "Tunnel::TunnelTable::BgpLuTunnelTable",
       TunnelType::bgpLuTunnel, TunnelTablePref::bgpLuPref, true},
      {Vela::make<BgpLuPushTunnelTable>("bgpLuPush"), "Tunnel::TunnelTable::BgpLuPushTunnelTable",
       TunnelType::bgpLuPushTunnel, TunnelTablePref::maxPref, false},
      {Vela::make<StaticTunnelTable>("static"), "Tunnel::TunnelTable::StaticTunnelTable",
       TunnelType::staticTunnel, TunnelTablePref::staticPref, true},
      {Vela::make<SrTeSegmentListTunnelTable>("srTe"), "Tunnel::TunnelTable::SrTeSegmentListTunnelTable",
       TunnelType::srTeSegmentListTunnel, TunnelTablePref::maxPref, false},
      {Vela::make<EvpnVxlanTunnelTable>("evpn"), "Tunnel::TunnelTable::EvpnVxlanTunnelTable",
       TunnelType::evpnVxlanTunnel, TunnelTablePref::maxPref, false},
      {Vela::make<GreIntfTunnelTable>("gre"), "Tunnel::TunnelTable::GreIntfTunnelTable",
       TunnelType::staticInterfaceTunnel, TunnelTablePref::maxPref, false},
      {Vela::make<IpsecIntfTunnelTable>("ipsec"), "Tunnel::TunnelTable::IpsecIntfTunnelTable",
       TunnelType::staticInterfaceTunnel, TunnelTablePref::maxPref, false},
  };
  for (auto const& facts : tables) {
    SCOPED_TRACE(facts.typeName);
    EXPECT_EQ(facts.table->typeName(), facts.typeName);
    EXPECT_EQ(facts.table->tableType(), facts.type);
    EXPECT_EQ(facts.table->tablePref(), facts.pref);
    EXPECT_EQ(facts.table->contributeToTunnelRib(), facts.contributes);
  }

  // The base alone carries nothing and contributes nothing.
  auto const base = Vela::make<TunnelTableBase>("base");
  EXPECT_EQ(base->tableType(), TunnelType::invalidTunnel);
  EXPECT_EQ(base->tablePref(), TunnelTablePref::maxPref);
  EXPECT_FALSE(base->contributeToTunnelRib());
  // The member follows tableType.
  base->tableTypeIs(TunnelType::srTunnel);
  EXPECT_TRUE(base->contributeToTunnelRib());
}

TEST(ProtocolTunnelTablesTest, OnlyBgpLuLdpStaticAndSrContribute) {
  for (unsigned t = 0; t < 256; ++t) {
    auto const type = static_cast<TunnelType>(t);
    bool const expected = t == 2 || t == 3 || t == 5 || t == 7;
    EXPECT_EQ(contributeToTunnelRib(type), expected) << t;
  }
}

TEST(ProtocolTunnelTablesTest, EntriesNotifyOnRealChangesOnly) {
  auto const table = Vela::make<LdpTunnelTable>("ldp");
  std::vector<TunnelId> told;
  auto const sub = table->entrys().changed().connect([&](TunnelId const& id) { told.push_back(id); });

  TunnelId const id = makeId(TunnelType::ldpTunnel, 1);
  EXPECT_TRUE(!table->entry(id));  // absent: the default entry

  LdpSrTunnelTableEntry entry(id);
  entry.viaIs(mplsVia("10.1.0.1", 1, 16), true);
  entry.viaIs(mplsVia("10.1.0.2", 2, 17), true);
  table->newEntry(entry);
  EXPECT_EQ(told, std::vector<TunnelId>{id});
  EXPECT_EQ(table->entry(id), entry);

  // The same entry, its vias inserted the other way round: no change.
  LdpSrTunnelTableEntry same(id);
  same.viaIs(mplsVia("10.1.0.2", 2, 17), true);
  same.viaIs(mplsVia("10.1.0.1", 1, 16), true);
  table->entryIs(same);
  EXPECT_EQ(told.size(), 1u);

  LdpSrTunnelTableEntry changed = same;
  changed.igpMetricIs(5);
  table->entryIs(changed);
  EXPECT_EQ(told.size(), 2u);
  EXPECT_EQ(table->entry(id).igpMetric(), 5u);

  TunnelId const other = makeId(TunnelType::ldpTunnel, 2);
  table->entryDel(other);  // absent: nothing to tell
  EXPECT_EQ(told.size(), 2u);
  table->entryIs(LdpSrTunnelTableEntry(other));
  EXPECT_EQ(table->entrys().size(), 2u);

  table->entryDel(id);
  EXPECT_EQ(told.back(), id);
  EXPECT_TRUE(!table->entry(id));
  table->entryDelAll();
  EXPECT_EQ(told, (std::vector<TunnelId>{id, id, other, id, other}));
  EXPECT_TRUE(table->entrys().empty());
}

TEST(ProtocolTunnelTablesTest, EvpnEntriesAreKeyedByTheirKey) {
  auto const table = Vela::make<EvpnVxlanTunnelTable>("evpn");
  TunnelId const key = makeId(TunnelType::evpnVxlanTunnel, 3);
  EvpnVxlanTunnelEntry entry(key);
  entry.vlanIdIs(10);
  table->entryIs(entry);
  EXPECT_EQ(table->entry(key).vlanId(), 10u);
  EXPECT_EQ(table->entrys().size(), 1u);
  table->entryDel(key);
  EXPECT_TRUE(table->entrys().empty());
}

TEST(ProtocolTunnelTablesTest, InterfaceTunnelIdsComeFromTheInterface) {
  auto const gre = Vela::make<GreIntfTunnelTable>("gre");
  auto const ipsec = Vela::make<IpsecIntfTunnelTable>("ipsec");

  TunnelId const v6 = gre->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipv6);
  EXPECT_EQ(v6.tunnelType(), TunnelType::staticInterfaceTunnel);
  EXPECT_EQ(v6.tunnelIndex(), 7u);
  EXPECT_EQ(v6.addressFamilyCliStr(), "IPv6");
  EXPECT_EQ(v6.tunnelAf(), Nimbo::AddressFamily::ipv6);

  TunnelId const v4 = ipsec->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipv4);
  EXPECT_EQ(v4.value(), TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 7));
  EXPECT_EQ(v4.addressFamilyCliStr(), "IPv4");
  EXPECT_EQ(ipsec->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipunknown), v4);
  // GRE and IPsec share the scheme.
  EXPECT_EQ(gre->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipv4), v4);

  EXPECT_EQ(thrownText<Vela::RangeException>(
                [&] { gre->newTunnelId(IntfId(std::uint64_t(1) << 44), Nimbo::AddressFamily::ipv4); }),
            "Invalid 'indexAndAf'value, value is above 2^44");
}

TEST(ProtocolTunnelTablesTest, EvpnTunnelIdsComeFromTheOwnedAllocator) {
  auto const table = Vela::make<EvpnVxlanTunnelTable>("evpn");
  EXPECT_FALSE(table->idAllocator());
  {
    Vela::ScopedAssertionCatcher catcher;
    EXPECT_THROW(table->newTunnelId(), Vela::AssertionFailure);
  }

  auto const allocator = table->newIdAllocator();
  ASSERT_TRUE(allocator);
  EXPECT_EQ(table->idAllocatorIs(), allocator);  // the one there is

  TunnelId const first = table->newTunnelId();
  TunnelId const second = table->newTunnelId();
  EXPECT_EQ(first, makeId(TunnelType::evpnVxlanTunnel, 1));
  EXPECT_EQ(second, makeId(TunnelType::evpnVxlanTunnel, 2));
  EXPECT_EQ(allocator->currentId(), Id64(2));

  table->idAllocatorDel();
  EXPECT_FALSE(table->idAllocator());
}

TEST(ProtocolTunnelTablesTest, KernelInterfaceNamesRoundTrip) {
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfName(makeId(TunnelType::evpnVxlanTunnel, 26)), "t0x1a");
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfName(makeId(TunnelType::evpnVxlanTunnel, 0)), "t0x0");

  // Every index whose name stays within 14 characters (up to 11 hex digits).
  for (std::uint64_t index : {std::uint64_t(1), std::uint64_t(0xABCDEF), std::uint64_t(0x12345678),
                              std::uint64_t(0x3FFFFFFFFFF), std::uint64_t(0x7FFFFFFFFFF)}) {
    TunnelId const id = makeId(TunnelType::evpnVxlanTunnel, index);
    std::string const name = EvpnVxlanTunnelTable::tunKernelIntfName(id);
    ASSERT_LE(name.size(), 14u) << name;
    EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId(name), id) << name;
  }
}

TEST(ProtocolTunnelTablesTest, KernelInterfaceNamesAreReadLeniently) {
  TunnelId const t26 = makeId(TunnelType::evpnVxlanTunnel, 26);
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t0x1a"), t26);
  // Only the first character is dropped; "0x" is optional.
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t1a"), t26);
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("x0x1A"), t26);

  for (char const* bad : {"t0x", "t0x1g", "t", "", "tzz", "t0x1a ", "t0x-"}) {
    EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId(bad), TunnelId()) << "'" << bad << "'";
  }
  // Anything longer than 14 characters, even a well-formed number.
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t0x000000000001"), TunnelId());
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t0xt0xt0xt0xt0x"), TunnelId());
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t00000000000001"), TunnelId());
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t0000000000001"),
            makeId(TunnelType::evpnVxlanTunnel, 1));
  // Numbers that are no tunnel index are malformed too, not errors.
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t100000000000"), TunnelId());
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t-1"), TunnelId());
}

TEST(ProtocolTunnelTablesTest, OnlyDynamicInterfacesOfEvpnTunnelsAreEvpnInterfaces) {
  TunnelId const evpn = makeId(TunnelType::evpnVxlanTunnel, 5);
  TunnelId const ldp = makeId(TunnelType::ldpTunnel, 5);
  EXPECT_TRUE(
      EvpnVxlanTunnelTable::isValidEvpnIntf(Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(evpn.value())));
  EXPECT_FALSE(
      EvpnVxlanTunnelTable::isValidEvpnIntf(Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(ldp.value())));
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(IntfId(std::string_view("Ethernet1"))));
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(IntfId()));
  // The dynamic interface of TunnelId 0.
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(0)));
}

}  // namespace
