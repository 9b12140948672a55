// Tunnel FIB entities: entries compare their vias as sets and print them as
// None; the FIBs notify per tunnel and only on a real change; absent tunnels
// read as the empty entry.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "TunnelFib/TunnelFib.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/Value.h"
#include "tests/TunnelTable/TestHelpers.h"

namespace {

using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::MplsLabelOperation;
using namespace Tunnel::TunnelFib;
using Tunnel::TunnelTable::EncapType;
using Tunnel::TunnelTable::makeId;
using Tunnel::TunnelTable::TunnelType;

MplsVia mplsVia(char const* nexthop, std::uint64_t intf, std::initializer_list<std::uint32_t> labels) {
  return MplsVia(IpGenAddr(std::string_view(nexthop)), IntfId(intf), MplsLabelOperation::pushOf(labels));
}

TunnelVia tunnelVia(char const* nexthop, std::uint64_t intf, std::uint32_t encapIndex) {
  return TunnelVia(IpGenAddr(std::string_view(nexthop)), IntfId(intf),
                   EncapId(EncapType::mplsEncap, encapIndex));
}

MplsTunnelFibEntry mplsEntry(TunnelId id, std::initializer_list<MplsVia> vias) {
  MplsTunnelFibEntry e(id);
  for (MplsVia const& v : vias) e.viaIs(v, true);
  return e;
}

TEST(TunnelFibTest, EntriesPrintTheirIdAndNoneForTheVias) {
  MplsTunnelFibEntry const mpls = mplsEntry(makeId(TunnelType::ldpTunnel, 26),
                                            {mplsVia("10.1.0.1", 1, {16}), mplsVia("10.1.0.2", 2, {17, 18})});
  EXPECT_EQ(Vela::valueToStrep(mpls),
            "Value('Tunnel::TunnelFib::MplsTunnelFibEntry', ** {'tunnelId': 52776558133274, 'via': None})");
  std::ostringstream os;
  os << mpls;
  EXPECT_EQ(os.str(), Vela::valueToStrep(mpls));

  TunnelFibEntry entry(makeId(TunnelType::staticInterfaceTunnel, 11));
  entry.tunnelViaIs(tunnelVia("10.1.0.1", 1, 5), true);
  EXPECT_EQ(
      Vela::valueToStrep(entry),
      "Value('Tunnel::TunnelFib::TunnelFibEntry', ** {'tunnelId': 158329674399755, 'tunnelVia': None})");
  EXPECT_EQ(Vela::valueToStrep(MplsTunnelFibEntry()),
            "Value('Tunnel::TunnelFib::MplsTunnelFibEntry', ** {'tunnelId': 0, 'via': None})");
}

TEST(TunnelFibTest, EntriesCompareTheirViasAsSets) {
  TunnelId const id = makeId(TunnelType::bgpLuTunnel, 1);
  MplsVia const v1 = mplsVia("10.1.0.1", 1, {16});
  MplsVia const v2 = mplsVia("10.1.0.2", 2, {17, 3000});
  MplsVia const v3 = mplsVia("10.1.0.3", 3, {18});
  MplsTunnelFibEntry const a = mplsEntry(id, {v1, v2, v3});
  MplsTunnelFibEntry b = mplsEntry(id, {v3, v2, v1});
  EXPECT_EQ(a, b);
  EXPECT_EQ(Vela::hashOf(a), Vela::hashOf(b));
  EXPECT_NE(a, mplsEntry(makeId(TunnelType::bgpLuTunnel, 2), {v1, v2, v3}));  // the id alone

  b.viaDel(v2);
  EXPECT_FALSE(b.via(v2));
  EXPECT_NE(a, b);
  EXPECT_NE(b, a);
  b.viaIs(mplsVia("10.1.0.2", 2, {17, 3001}), true);  // the same size, one label differs
  EXPECT_NE(a, b);
  b.viaDelAll();
  EXPECT_TRUE(b.vias().empty());
  EXPECT_FALSE(!b);  // still names its tunnel

  TunnelFibEntry t1(id);
  TunnelFibEntry t2(id);
  t1.tunnelViaIs(tunnelVia("10.1.0.1", 1, 1), true);
  t1.tunnelViaIs(tunnelVia("10.1.0.1", 1, 2), true);
  t2.tunnelViaIs(tunnelVia("10.1.0.1", 1, 2), true);
  EXPECT_NE(t1, t2);
  t2.tunnelViaIs(tunnelVia("10.1.0.1", 1, 1), true);
  EXPECT_EQ(t1, t2);
  t2.tunnelViaDel(tunnelVia("10.1.0.1", 1, 1));
  EXPECT_EQ(t2.tunnelVias().size(), 1u);
}

TEST(TunnelFibTest, MplsFibNotifiesOnlyOnRealChanges) {
  auto const fib = mplsTunnelFibFactory("mplsTunnelFib");
  std::vector<TunnelId> told;
  auto const sub = fib->entrys().changed().connect([&](TunnelId const& id) { told.push_back(id); });

  TunnelId const id = makeId(TunnelType::ldpTunnel, 1);
  // Absent: the empty entry, equal to a default-constructed one.
  EXPECT_EQ(fib->entry(id), MplsTunnelFibEntry());
  EXPECT_TRUE(!fib->entry(id));

  fib->newEntry(mplsEntry(id, {mplsVia("10.1.0.1", 1, {16}), mplsVia("10.1.0.2", 2, {17})}));
  EXPECT_EQ(told, std::vector<TunnelId>{id});
  // Equal, the vias inserted the other way round: nothing to tell.
  fib->entryIs(mplsEntry(id, {mplsVia("10.1.0.2", 2, {17}), mplsVia("10.1.0.1", 1, {16})}));
  EXPECT_EQ(told.size(), 1u);
  fib->entryIs(mplsEntry(id, {mplsVia("10.1.0.1", 1, {16})}));
  EXPECT_EQ(told.size(), 2u);
  EXPECT_EQ(fib->entry(id).vias().size(), 1u);

  TunnelId const other = makeId(TunnelType::srTunnel, 1);
  fib->entryIs(mplsEntry(other, {mplsVia("10.1.0.3", 3, {18})}));
  std::vector<TunnelId> present;
  for (auto it = fib->entrys().begin(); it != fib->entrys().end(); ++it) {
    EXPECT_EQ(it.key(), it.value().tunnelId());
    present.push_back(it.key());
  }
  EXPECT_EQ(present.size(), 2u);

  fib->entryDel(id);
  fib->entryDel(id);  // absent by now
  EXPECT_EQ(told, (std::vector<TunnelId>{id, id, other, id}));
  fib->entryDelAll();
  EXPECT_EQ(told.back(), other);
  EXPECT_TRUE(fib->entrys().empty());
}

TEST(TunnelFibTest, TunnelFibKeepsOneEntryPerTunnel) {
  auto const fib = tunnelFibFactory("tunnelFib");
  int entryTold = 0;
  auto const sub = fib->entrys().changed().connect([&](TunnelId const&) { ++entryTold; });

  TunnelId const id = makeId(TunnelType::staticInterfaceTunnel, 3);
  TunnelFibEntry entry(id);
  entry.tunnelViaIs(tunnelVia("10.1.0.1", 1, 1), true);
  fib->entryIs(entry);
  fib->entryIs(entry);
  EXPECT_EQ(entryTold, 1);
  EXPECT_EQ(fib->entry(id), entry);
  EXPECT_EQ(fib->entry(makeId(TunnelType::staticInterfaceTunnel, 4)), TunnelFibEntry());
  fib->entryDel(id);
  EXPECT_EQ(entryTold, 2);
}

}  // namespace
