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

TEST(ProtocolTunnelTablesTest, EachTableDeclaresItsTypePreferenceAndContribution) {
  struct Facts {
    Vela::Ptr<TunnelTableBase> table;
    TunnelType type;
    TunnelTablePref pref;
    bool contributes;
  };
  std::vector<Facts> const tables = {
      {Vela::make<LdpTunnelTable>("ldp"), TunnelType::ldpTunnel, TunnelTablePref::ldpPref, true},
      {Vela::make<SrTunnelTable>("sr"), TunnelType::srTunnel, TunnelTablePref::srPref, true},
      {Vela::make<BgpLuTunnelTable>("bgpLu"), TunnelType::bgpLuTunnel, TunnelTablePref::bgpLuPref, true},
      {Vela::make<BgpLuPushTunnelTable>("bgpLuPush"), TunnelType::bgpLuPushTunnel, TunnelTablePref::maxPref,
       false},
      {Vela::make<StaticTunnelTable>("static"), TunnelType::staticTunnel, TunnelTablePref::staticPref, true},
      {Vela::make<SrTeSegmentListTunnelTable>("srTe"), TunnelType::srTeSegmentListTunnel,
       TunnelTablePref::maxPref, false},
      {Vela::make<EvpnVxlanTunnelTable>("evpn"), TunnelType::evpnVxlanTunnel, TunnelTablePref::maxPref,
       false},
      {Vela::make<GreIntfTunnelTable>("gre"), TunnelType::staticInterfaceTunnel, TunnelTablePref::maxPref,
       false},
      {Vela::make<IpsecIntfTunnelTable>("ipsec"), TunnelType::staticInterfaceTunnel, TunnelTablePref::maxPref,
       false},
      // The base alone carries nothing and contributes nothing.
      {Vela::make<TunnelTableBase>("base"), TunnelType::invalidTunnel, TunnelTablePref::maxPref, false},
  };
  for (auto const& facts : tables) {
    SCOPED_TRACE(facts.table->typeName());
    EXPECT_EQ(facts.table->tableType(), facts.type);
    EXPECT_EQ(facts.table->tablePref(), facts.pref);
    EXPECT_EQ(facts.table->contributeToTunnelRib(), facts.contributes);
  }
  // The member follows tableType, and only these four types contribute.
  tables.back().table->tableTypeIs(TunnelType::srTunnel);
  EXPECT_TRUE(tables.back().table->contributeToTunnelRib());
  for (unsigned t = 0; t < 256; ++t) {
    EXPECT_EQ(contributeToTunnelRib(static_cast<TunnelType>(t)), t == 2 || t == 3 || t == 5 || t == 7) << t;
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
  EXPECT_EQ(table->entry(id), entry);

  // The same entry, its vias inserted the other way round: no change.
  LdpSrTunnelTableEntry same(id);
  same.viaIs(mplsVia("10.1.0.2", 2, 17), true);
  same.viaIs(mplsVia("10.1.0.1", 1, 16), true);
  table->entryIs(same);
  EXPECT_EQ(told.size(), 1u);
  same.igpMetricIs(5);
  table->entryIs(same);
  EXPECT_EQ(table->entry(id).igpMetric(), 5u);

  TunnelId const other = makeId(TunnelType::ldpTunnel, 2);
  table->entryDel(other);  // absent: nothing to tell
  table->entryIs(LdpSrTunnelTableEntry(other));
  table->entryDel(id);
  EXPECT_TRUE(!table->entry(id));
  EXPECT_EQ(table->entrys().size(), 1u);
  table->entryDelAll();
  EXPECT_EQ(told, (std::vector<TunnelId>{id, id, other, id, other}));
  EXPECT_TRUE(table->entrys().empty());
}

TEST(ProtocolTunnelTablesTest, InterfaceTunnelIdsComeFromTheInterface) {
  auto const gre = Vela::make<GreIntfTunnelTable>("gre");
  auto const ipsec = Vela::make<IpsecIntfTunnelTable>("ipsec");
  TunnelId const v4(TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 7));
  EXPECT_EQ(gre->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipv6),
            TunnelId(TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 7 | tunnelAfMask())));
  // GRE and IPsec share the scheme; an unknown family is IPv4.
  EXPECT_EQ(ipsec->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipv4), v4);
  EXPECT_EQ(ipsec->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipunknown), v4);
  EXPECT_EQ(gre->newTunnelId(IntfId(7), Nimbo::AddressFamily::ipv4), v4);
  EXPECT_EQ(thrownText<Vela::RangeException>(
                [&] { gre->newTunnelId(IntfId(std::uint64_t(1) << 44), Nimbo::AddressFamily::ipv4); }),
            "Invalid 'indexAndAf'value, value is above 2^44");
}

TEST(ProtocolTunnelTablesTest, EvpnEntriesAreKeyedByTheirKeyAndIdsComeFromTheOwnedAllocator) {
  auto const table = Vela::make<EvpnVxlanTunnelTable>("evpn");
  TunnelId const key = makeId(TunnelType::evpnVxlanTunnel, 3);
  EvpnVxlanTunnelEntry entry(key);
  entry.vlanIdIs(10);
  table->entryIs(entry);
  EXPECT_EQ(table->entry(key).vlanId(), 10u);
  table->entryDel(key);
  EXPECT_TRUE(table->entrys().empty());

  EXPECT_FALSE(table->idAllocator());
  {
    Vela::ScopedAssertionCatcher catcher;
    EXPECT_THROW(table->newTunnelId(), Vela::AssertionFailure);
  }
  auto const allocator = table->newIdAllocator();
  ASSERT_TRUE(allocator);
  EXPECT_EQ(table->idAllocatorIs(), allocator);  // the one there is
  EXPECT_EQ(table->newTunnelId(), makeId(TunnelType::evpnVxlanTunnel, 1));
  EXPECT_EQ(table->newTunnelId(), makeId(TunnelType::evpnVxlanTunnel, 2));
  EXPECT_EQ(allocator->currentId(), Id64(2));
  table->idAllocatorDel();
  EXPECT_FALSE(table->idAllocator());
}

TEST(ProtocolTunnelTablesTest, KernelInterfaceNamesRoundTripAndAreReadLeniently) {
  auto const evpn = [](std::uint64_t index) { return makeId(TunnelType::evpnVxlanTunnel, index); };
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfName(evpn(26)), "t0x1a");
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfName(evpn(0)), "t0x0");
  // Every index whose name stays within 14 characters (up to 11 hex digits).
  for (std::uint64_t index : {std::uint64_t(1), std::uint64_t(0xABCDEF), std::uint64_t(0x3FFFFFFFFFF),
                              std::uint64_t(0x7FFFFFFFFFF)}) {
    std::string const name = EvpnVxlanTunnelTable::tunKernelIntfName(evpn(index));
    ASSERT_LE(name.size(), 14u) << name;
    EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId(name), evpn(index)) << name;
  }
  // Only the first character is dropped and "0x" is optional.
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t1a"), evpn(26));
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("x0x1A"), evpn(26));
  EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId("t0000000000001"), evpn(1));
  // Malformed, not an error: anything longer than 14 characters (even a
  // well-formed number) and numbers that are no tunnel index.
  for (char const* bad : {"t0x", "t0x1g", "t", "", "tzz", "t0x1a ", "t0x-", "t0x000000000001",
                          "t0xt0xt0xt0xt0x", "t00000000000001", "t100000000000", "t-1"}) {
    EXPECT_EQ(EvpnVxlanTunnelTable::tunKernelIntfTunnelId(bad), TunnelId()) << "'" << bad << "'";
  }
}

TEST(ProtocolTunnelTablesTest, OnlyDynamicInterfacesOfEvpnTunnelsAreEvpnInterfaces) {
  auto const dynamic = [](std::uint64_t v) { return Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(v); };
  EXPECT_TRUE(EvpnVxlanTunnelTable::isValidEvpnIntf(dynamic(makeId(TunnelType::evpnVxlanTunnel, 5).value())));
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(dynamic(makeId(TunnelType::ldpTunnel, 5).value())));
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(dynamic(0)));  // the interface of TunnelId 0
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(IntfId(std::string_view("Ethernet1"))));
  EXPECT_FALSE(EvpnVxlanTunnelTable::isValidEvpnIntf(IntfId()));
}

}  // namespace
