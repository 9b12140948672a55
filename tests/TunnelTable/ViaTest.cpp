// Vias: textual forms, equality and hash over every field, and the orderings
// that are deliberately not lexicographic.
#include <gtest/gtest.h>

#include <string>

#include "TunnelTable/Via.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/Value.h"

namespace {

using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::MplsLabelOperation;
using Tunnel::TunnelTable::BgpLuVia;
using Tunnel::TunnelTable::EncapId;
using Tunnel::TunnelTable::EncapType;
using Tunnel::TunnelTable::MplsVia;
using Tunnel::TunnelTable::TunnelVia;
using Tunnel::TunnelTable::Via;

IpGenAddr addr(char const* text) { return IpGenAddr(std::string_view(text)); }

TEST(ViaTest, TextualFormsListTheFieldsInOrder) {
  Via const via(addr("10.0.0.1"), IntfId("Ethernet1"));
  EXPECT_EQ(Vela::valueToStrep(via),
            "Value('Tunnel::TunnelTable::Via', ** {'nexthop': '10.0.0.1', 'intfId': "
            "'Ethernet1'})");

  TunnelVia const tunnelVia(addr("10.0.0.1"), IntfId("Ethernet1"), EncapId(EncapType::mplsEncap, 5));
  EXPECT_EQ(Vela::valueToStrep(tunnelVia),
            "Value('Tunnel::TunnelTable::TunnelVia', ** {'nexthop': '10.0.0.1', 'intfId': 'Ethernet1', "
            "'encapId': 536870917})");

  MplsVia const mplsVia(addr("10.0.0.1"), IntfId("Ethernet1"), MplsLabelOperation::pushOf({16, 3000}));
  EXPECT_EQ(Vela::valueToStrep(mplsVia),
            "Value('Tunnel::TunnelTable::MplsVia', ** {'nexthop': '10.0.0.1', 'intfId': 'Ethernet1', "
            "'labels': 'push 16 3000'})");

  // The via set is deliberately not shown.
  BgpLuVia luVia;
  luVia.viaIs(via, true);
  luVia.labelsIs(MplsLabelOperation::pushOf({100}));
  EXPECT_EQ(Vela::valueToStrep(luVia),
            "Value('Tunnel::TunnelTable::BgpLuVia', ** {'via': None, 'labels': 'push 100'})");

  // The forms read back.
  EXPECT_EQ(Vela::parseValue<Via>(Vela::valueToStrep(via)), via);
  EXPECT_EQ(Vela::parseValue<TunnelVia>(Vela::valueToStrep(tunnelVia)), tunnelVia);
  EXPECT_EQ(Vela::parseValue<MplsVia>(Vela::valueToStrep(mplsVia)), mplsVia);
}

TEST(ViaTest, EqualityAndHashCoverEveryField) {
  MplsVia const base(addr("10.0.0.1"), IntfId("Ethernet1"), MplsLabelOperation::pushOf({16}));
  MplsVia otherNexthop = base, otherIntf = base, otherLabels = base, same = base;
  otherNexthop.nexthopIs(addr("10.0.0.2"));
  otherIntf.intfIdIs(IntfId("Ethernet2"));
  otherLabels.labelsIs(MplsLabelOperation::pushOf({17}));
  EXPECT_EQ(base, same);
  EXPECT_EQ(Vela::hashOf(base), Vela::hashOf(same));
  for (MplsVia const* other : {&otherNexthop, &otherIntf, &otherLabels}) {
    EXPECT_NE(base, *other) << *other;
    EXPECT_NE(Vela::hashOf(base), Vela::hashOf(*other)) << *other;
  }
  // An IPv4 next hop 0.0.0.0 is not the empty address.
  EXPECT_NE(Via(addr("0.0.0.0"), IntfId("Ethernet1")), Via(IpGenAddr(), IntfId("Ethernet1")));
}

// The orderings are deliberately not lexicographic: a Via is less only when
// both its interface and next hop are, an MplsVia only when all three fields
// are, and a TunnelVia goes by its encap id alone.
TEST(ViaTest, OrderingsNeedEveryFieldLessOrGoByEncapIdAlone) {
  Via const a(addr("10.0.0.2"), IntfId(1)), b(addr("10.0.0.1"), IntfId(2)), c(addr("10.0.0.3"), IntfId(3));
  EXPECT_FALSE(a < b);  // the interface says a < b, the next hop says b < a
  EXPECT_FALSE(b < a);
  EXPECT_TRUE(a < c);
  EXPECT_FALSE(c < a);
  EXPECT_FALSE(Via(addr("10.0.0.1"), IntfId(1)) < Via(addr("10.0.0.9"), IntfId(1)));

  MplsVia const low(addr("10.0.0.1"), IntfId(1), MplsLabelOperation::pushOf({16}));
  MplsVia const high(addr("10.0.0.2"), IntfId(2), MplsLabelOperation::pushOf({17}));
  MplsVia const highButLowLabels(addr("10.0.0.2"), IntfId(2), MplsLabelOperation::pushOf({15}));
  EXPECT_TRUE(low < high);
  EXPECT_FALSE(high < low);
  EXPECT_FALSE(low < highButLowLabels);
  EXPECT_FALSE(highButLowLabels < low);

  TunnelVia const small(addr("10.0.0.9"), IntfId(9), EncapId(EncapType::greEncap, 1));
  TunnelVia const large(addr("10.0.0.1"), IntfId(1), EncapId(EncapType::greEncap, 2));
  TunnelVia const sameEncap(addr("10.0.0.1"), IntfId(1), EncapId(EncapType::greEncap, 1));
  EXPECT_TRUE(small < large);
  EXPECT_FALSE(large < small);
  EXPECT_FALSE(small < sameEncap);
  EXPECT_FALSE(sameEncap < small);
  EXPECT_NE(small, sameEncap);
  EXPECT_NE(small, large);
}

TEST(ViaTest, BgpLuViaComparesItsViaSetAsASet) {
  Via const v1(addr("10.0.0.1"), IntfId(1));
  Via const v2(addr("10.0.0.2"), IntfId(2));
  BgpLuVia a;
  a.viaIs(v1, true);
  a.viaIs(v2, true);
  BgpLuVia b;
  b.newVia(v2, true);
  b.newVia(v1, true);
  EXPECT_EQ(a, b);
  EXPECT_EQ(Vela::hashOf(a), Vela::hashOf(b));
  b.viaDel(v1);
  EXPECT_NE(a, b);
  b.viaIs(v1, true);
  b.labelsIs(MplsLabelOperation::pushOf({1}));
  EXPECT_NE(a, b);
}

}  // namespace
