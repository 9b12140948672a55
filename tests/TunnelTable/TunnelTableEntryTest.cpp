// Tunnel table entries: the exact textual form of every entry type, set
// equality of their vias, operator! (the default-entry test readers rely on)
// and layering a BGP LU tunnel over another tunnel.
#include <gtest/gtest.h>

#include <string>

#include "TunnelTable/TunnelIntfId.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/Value.h"
#include "tests/TunnelTable/TestHelpers.h"

namespace {

using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::IpGenPrefix;
using Nimbo::MplsLabelOperation;
using namespace Tunnel::TunnelTable;

IpGenAddr addr(char const* text) { return IpGenAddr(std::string_view(text)); }
IpGenPrefix prefix(char const* text) { return IpGenPrefix(std::string_view(text)); }

Via via(char const* nexthop, char const* intf) { return Via(addr(nexthop), IntfId(std::string_view(intf))); }
MplsVia mplsVia(char const* nexthop, char const* intf, std::uint32_t label) {
  return MplsVia(addr(nexthop), IntfId(std::string_view(intf)), MplsLabelOperation::pushOf({label}));
}

TEST(TunnelTableEntryTest, TextualFormsOfTheCommonAndMplsEntries) {
  TunnelTableEntry base(makeId(TunnelType::ldpTunnel, 26));
  base.tepIs(prefix("10.0.0.1/32"));
  EXPECT_EQ(
      Vela::valueToStrep(base),
      "Value('Tunnel::TunnelTable::TunnelTableEntry', ** {'tunnelId': 52776558133274, 'tep': '10.0.0.1/32', "
      "'nexthopTunnelId': 0})");

  BgpLuPushTunnelTableEntry push(makeId(TunnelType::bgpLuPushTunnel, 7));
  push.tepIs(prefix("10.0.0.7/32"));
  push.nexthopTunnelIdIs(makeId(TunnelType::ldpTunnel, 26));
  push.viaIs(via("10.1.0.1", "Ethernet1"), true);
  push.labelsIs(MplsLabelOperation::pushOf({16, 3000}));
  EXPECT_EQ(Vela::valueToStrep(push),
            "Value('Tunnel::TunnelTable::BgpLuPushTunnelTableEntry', ** {'tunnelId': 17592186044423, 'tep': "
            "'10.0.0.7/32', 'nexthopTunnelId': 52776558133274, 'via': None, 'labels': 'push 16 3000'})");

  BgpLuTunnelTableEntry lu(makeId(TunnelType::bgpLuTunnel, 5));
  lu.tepIs(prefix("10.0.0.5/32"));
  lu.labelsIs(MplsLabelOperation::pushOf({100}));
  lu.contributionIs(ContributionToTunnelRIB::nonContributing);
  lu.bgpMetricIs(10);
  lu.bgpMetric2Is(20);
  lu.bgpPrefIs(30);
  lu.bgpPref2Is(40);
  lu.bgpLinkBwIs(2.5f);
  EXPECT_EQ(Vela::valueToStrep(lu),
            "Value('Tunnel::TunnelTable::BgpLuTunnelTableEntry', ** {'tunnelId': 35184372088837, 'tep': "
            "'10.0.0.5/32', 'nexthopTunnelId': 0, 'via': None, 'labels': 'push 100', 'contribution': "
            "nonContributing, 'bgpMetric': 10, 'bgpMetric2': 20, 'bgpPref': 30, 'bgpPref2': 40, 'bgpLinkBw': "
            "2.5})");

  LdpSrTunnelTableEntry ldp(makeId(TunnelType::ldpTunnel, 26));
  ldp.tepIs(prefix("10.0.0.1/32"));
  ldp.viaIs(mplsVia("10.1.0.1", "Ethernet1", 16), true);
  ldp.igpMetricIs(1);
  ldp.igpMetric2Is(2);
  ldp.igpPrefIs(3);
  ldp.igpPref2Is(4);
  EXPECT_EQ(
      Vela::valueToStrep(ldp),
      "Value('Tunnel::TunnelTable::LdpSrTunnelTableEntry', ** {'tunnelId': 52776558133274, 'tep': "
      "'10.0.0.1/32', 'nexthopTunnelId': 0, 'via': None, 'igpMetric': 1, 'igpMetric2': 2, 'igpPref': 3, "
      "'igpPref2': 4})");

  SrTeSegmentListTunnelTableEntry srTe(makeId(TunnelType::srTeSegmentListTunnel, 4));
  EXPECT_EQ(Vela::valueToStrep(srTe),
            "Value('Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry', ** {'tunnelId': 140737488355332, "
            "'tep': '', 'nexthopTunnelId': 0, 'via': None})");

  StaticTunnelTableEntry stat(makeId(TunnelType::staticTunnel, 9));
  stat.tepIs(prefix("10.0.0.9/32"));
  stat.labelsIs(MplsLabelOperation::pushOf({200}));
  stat.nameIs("st1");
  EXPECT_EQ(Vela::valueToStrep(stat),
            "Value('Tunnel::TunnelTable::StaticTunnelTableEntry', ** {'tunnelId': 87960930222089, 'tep': "
            "'10.0.0.9/32', 'nexthopTunnelId': 0, 'via': None, 'labels': 'push 200', 'name': 'st1'})");
}

TEST(TunnelTableEntryTest, TextualFormsOfTheInterfaceAndEvpnEntries) {
  L3IntfTunnelTableEntry l3(makeId(TunnelType::staticInterfaceTunnel, 11));
  EXPECT_EQ(
      Vela::valueToStrep(l3),
      "Value('Tunnel::TunnelTable::L3IntfTunnelTableEntry', ** {'tunnelId': 158329674399755, 'tep': '', "
      "'nexthopTunnelId': 0, 'via': None})");

  Tunnel::GreTunnelInfo gre;
  gre.srcIs(addr("1.1.1.1"));
  gre.dstIs(addr("2.2.2.2"));
  GreIntfTunnelTableEntry greEntry(makeId(TunnelType::staticInterfaceTunnel, 11));
  greEntry.tunnelInfoIs(gre);
  EXPECT_EQ(
      Vela::valueToStrep(greEntry),
      "Value('Tunnel::TunnelTable::GreIntfTunnelTableEntry', ** {'tunnelId': 158329674399755, 'tep': '', "
      "'nexthopTunnelId': 0, 'via': None, 'tunnelInfo': " +
          Vela::valueToStrep(gre) + "})");

  IpsecIntfTunnelTableEntry ipsecEntry(makeId(TunnelType::staticInterfaceTunnel, 11));
  EXPECT_EQ(
      Vela::valueToStrep(ipsecEntry),
      "Value('Tunnel::TunnelTable::IpsecIntfTunnelTableEntry', ** {'tunnelId': 158329674399755, 'tep': '', "
      "'nexthopTunnelId': 0, 'via': None, 'tunnelInfo': " +
          Vela::valueToStrep(Tunnel::IpsecTunnelInfo()) + "})");

  EvpnVxlanTunnelEntry evpn(makeId(TunnelType::evpnVxlanTunnel, 1));
  evpn.macIs(Nimbo::EthAddr(std::string_view("00:1c:73:00:00:01")));
  evpn.vlanIdIs(10);
  evpn.vniIs(Vxlan::Vni(10010));
  evpn.vtepAddrIs(Nimbo::IpAddr(std::string_view("192.0.2.1")));
  EXPECT_EQ(Vela::valueToStrep(evpn),
            "Value('Tunnel::TunnelTable::EvpnVxlanTunnelEntry', ** {'key': 105553116266497, 'mac': "
            "'00:1c:73:00:00:01', 'vlanId': 10, 'vni': 10010, 'vtepAddr': '192.0.2.1'})");
}

// Vias form a set: insertion order does not count, every member does, and
// the set is never printed.
TEST(TunnelTableEntryTest, EqualityComparesViasAsASetThatIsNeverPrinted) {
  LdpSrTunnelTableEntry a(makeId(TunnelType::ldpTunnel, 1));
  LdpSrTunnelTableEntry b = a;
  MplsVia const v1 = mplsVia("10.1.0.1", "Ethernet1", 16);
  MplsVia const v2 = mplsVia("10.1.0.2", "Ethernet2", 17);
  MplsVia const v3 = mplsVia("10.1.0.3", "Ethernet3", 18);
  for (MplsVia const& v : {v1, v2, v3}) a.viaIs(v, true);
  EXPECT_EQ(Vela::valueToStrep(a), Vela::valueToStrep(b));
  EXPECT_NE(a, b);
  for (MplsVia const& v : {v3, v1, v2}) b.viaIs(v, true);
  EXPECT_EQ(a, b);
  EXPECT_EQ(Vela::hashOf(a), Vela::hashOf(b));

  b.viaDel(v2);
  EXPECT_NE(a, b);  // a subset is not equal
  b.viaIs(mplsVia("10.1.0.2", "Ethernet2", 99), true);
  EXPECT_NE(a, b);  // same size, one via differs in its labels
  b.viaDel(mplsVia("10.1.0.2", "Ethernet2", 99));
  b.viaIs(v2, false);
  b.viaIs(v2, true);
  EXPECT_EQ(a, b);

  LdpSrTunnelTableEntry c = a;
  c.igpPref2Is(1);  // the last field alone
  EXPECT_NE(a, c);
  LdpSrTunnelTableEntry d(makeId(TunnelType::ldpTunnel, 2));  // the key alone
  for (MplsVia const& v : {v1, v2, v3}) d.viaIs(v, true);
  EXPECT_NE(a, d);
}

// operator! is true exactly for the default entry of each type (not its base's).
TEST(TunnelTableEntryTest, NotIsTrueExactlyForTheDefaultEntry) {
  LdpSrTunnelTableEntry ldp;
  EXPECT_TRUE(!ldp);
  ldp.viaIs(mplsVia("10.1.0.1", "Ethernet1", 16), true);
  EXPECT_FALSE(!ldp);
  ldp.viaDelAll();
  EXPECT_TRUE(!ldp);
  ldp.igpMetricIs(1);
  EXPECT_FALSE(!ldp);
  EXPECT_FALSE(!LdpSrTunnelTableEntry(makeId(TunnelType::ldpTunnel, 1)));

  BgpLuTunnelTableEntry lu, nonContributing;
  EXPECT_TRUE(!lu);
  lu.bgpLinkBwIs(1.0f);
  EXPECT_FALSE(!lu);
  nonContributing.contributionIs(ContributionToTunnelRIB::nonContributing);
  EXPECT_FALSE(!nonContributing);

  EXPECT_TRUE(!TunnelTableEntry() && !BgpLuPushTunnelTableEntry() && !SrTeSegmentListTunnelTableEntry() &&
              !StaticTunnelTableEntry() && !L3IntfTunnelTableEntry() && !IpsecIntfTunnelTableEntry());
  StaticTunnelTableEntry named;
  named.nameIs("x");
  EXPECT_FALSE(!named);
  GreIntfTunnelTableEntry gre;
  EXPECT_TRUE(!gre);
  Tunnel::GreTunnelInfo info;
  info.ttlIs(64);
  gre.tunnelInfoIs(info);
  EXPECT_FALSE(!gre);
  EvpnVxlanTunnelEntry evpn;
  EXPECT_TRUE(!evpn);
  evpn.vlanIdIs(1);
  EXPECT_FALSE(!evpn);
  EXPECT_FALSE(!EvpnVxlanTunnelEntry(makeId(TunnelType::evpnVxlanTunnel, 1)));
}

TEST(TunnelTableEntryTest, TunnelIdViaIsLayersOverATunnelOnce) {
  BgpLuTunnelTableEntry lu(makeId(TunnelType::bgpLuTunnel, 5));
  TunnelId const ldp1 = makeId(TunnelType::ldpTunnel, 1);
  TunnelId const ldp2 = makeId(TunnelType::ldpTunnel, 2);
  lu.tunnelIdViaIs(ldp1);
  lu.tunnelIdViaIs(ldp1);
  ASSERT_EQ(lu.vias().size(), 1u);
  Via const& v = *lu.vias().begin();
  EXPECT_EQ(v.nexthop(), addr("0.0.0.0"));
  EXPECT_TRUE(v.nexthop().isV4());
  EXPECT_EQ(v.intfId(), Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(ldp1.value()));

  // Vias already there stay.
  Via const direct = via("10.1.0.1", "Ethernet1");
  lu.viaIs(direct, true);
  lu.tunnelIdViaIs(ldp2);
  lu.tunnelIdViaIs(ldp1);
  EXPECT_EQ(lu.vias().size(), 3u);
  EXPECT_TRUE(lu.via(direct));
  EXPECT_TRUE(lu.via(Via(addr("0.0.0.0"), Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(ldp2.value()))));
}

}  // namespace
