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
  MplsVia otherNexthop = base;
  otherNexthop.nexthopIs(addr("10.0.0.2"));
  MplsVia otherIntf = base;
  otherIntf.intfIdIs(IntfId("Ethernet2"));
  MplsVia otherLabels = base;
  otherLabels.labelsIs(MplsLabelOperation::pushOf({17}));
  MplsVia same = base;

  EXPECT_EQ(base, same);
  EXPECT_EQ(Vela::hashOf(base), Vela::hashOf(same));
  for (MplsVia const* other : {&otherNexthop, &otherIntf, &otherLabels}) {
    EXPECT_NE(base, *other) << *other;
    EXPECT_NE(Vela::hashOf(base), Vela::hashOf(*other)) << *other;
  }

  TunnelVia const t1(addr("10.0.0.1"), IntfId("Ethernet1"), EncapId(EncapType::greEncap, 1));
  TunnelVia const t2(addr("10.0.0.1"), IntfId("Ethernet1"), EncapId(EncapType::greEncap, 2));
  EXPECT_NE(t1, t2);

  // An IPv4 next hop 0.0.0.0 is not the empty address.
  EXPECT_NE(Via(addr("0.0.0.0"), IntfId("Ethernet1")), Via(IpGenAddr(), IntfId("Ethernet1")));
}

TEST(ViaTest, ViaLessNeedsBothInterfaceAndNexthopLess) {
  Via const a(addr("10.0.0.2"), IntfId(1));
  Via const b(addr("10.0.0.1"), IntfId(2));
  // Neither is less: the interface says a < b, the next hop says b < a.
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_NE(a, b);

  Via const c(addr("10.0.0.3"), IntfId(3));
  EXPECT_TRUE(a < c);
  EXPECT_FALSE(c < a);
  // Equal interfaces are not less, whatever the next hops.
  EXPECT_FALSE(Via(addr("10.0.0.1"), IntfId(1)) < Via(addr("10.0.0.9"), IntfId(1)));
}

TEST(ViaTest, MplsViaLessNeedsAllThreeFieldsLess) {
  MplsVia const low(addr("10.0.0.1"), IntfId(1), MplsLabelOperation::pushOf({16}));
  MplsVia const high(addr("10.0.0.2"), IntfId(2), MplsLabelOperation::pushOf({17}));
  EXPECT_TRUE(low < high);
  EXPECT_FALSE(high < low);

  MplsVia const highButLowLabels(addr("10.0.0.2"), IntfId(2), MplsLabelOperation::pushOf({15}));
  EXPECT_FALSE(low < highButLowLabels);
  EXPECT_FALSE(highButLowLabels < low);
}

TEST(ViaTest, TunnelViaIsOrderedByEncapIdAlone) {
  TunnelVia const small(addr("10.0.0.9"), IntfId(9), EncapId(EncapType::greEncap, 1));
  TunnelVia const large(addr("10.0.0.1"), IntfId(1), EncapId(EncapType::greEncap, 2));
  EXPECT_TRUE(small < large);
  EXPECT_FALSE(large < small);

  TunnelVia const sameEncap(addr("10.0.0.1"), IntfId(1), EncapId(EncapType::greEncap, 1));
  EXPECT_FALSE(small < sameEncap);
  EXPECT_FALSE(sameEncap < small);
  EXPECT_NE(small, sameEncap);
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
  EXPECT_TRUE(a.via(v1));
  EXPECT_EQ(a.vias().size(), 2u);

  b.viaDel(v1);
  EXPECT_NE(a, b);
  b.viaIs(v1, true);
  b.labelsIs(MplsLabelOperation::pushOf({1}));
  EXPECT_NE(a, b);
  b.viaDelAll();
  EXPECT_TRUE(b.vias().empty());
}

}  // namespace
