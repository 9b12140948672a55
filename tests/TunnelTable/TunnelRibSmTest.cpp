// Scenarios of the tunnel RIB selection: one test per behaviour the state
// machine must keep, including its deliberate oddities (the tie rule, the
// fallback in fixed protocol order, the inverted convergence flag) and the
// literal consequences of its removal rules.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <set>
#include <string>

#include "TunnelTable/TunnelRibSm.h"
#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"
#include "tests/TunnelTable/TestHelpers.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel::TunnelTable {
namespace {

struct Metrics {
  std::uint32_t metric = 0, metric2 = 0, pref = 0, pref2 = 0;
  bool operator==(Metrics const&) const = default;
  friend std::ostream& operator<<(std::ostream& os, Metrics const& m) {
    return os << "{" << m.metric << ", " << m.metric2 << ", " << m.pref << ", " << m.pref2 << "}";
  }
};

TunnelId bgpLuId(std::uint64_t n) { return makeId(TunnelType::bgpLuTunnel, n); }
TunnelId ldpId(std::uint64_t n) { return makeId(TunnelType::ldpTunnel, n); }
TunnelId srId(std::uint64_t n) { return makeId(TunnelType::srTunnel, n); }
TunnelId staticId(std::uint64_t n) { return makeId(TunnelType::staticTunnel, n); }
Nimbo::IpGenPrefix prefix(char const* text) { return Nimbo::IpGenPrefix(std::string_view(text)); }

// Sorted id values, for comparisons that do not depend on hash order.
using IdSet = std::set<std::uint64_t>;
IdSet ids(std::initializer_list<TunnelId> list) {
  IdSet out;
  for (TunnelId const& id : list) out.insert(id.value());
  return out;
}

BgpLuTunnelTableEntry bgpLuEntry(TunnelId id, Nimbo::IpGenPrefix const& tep, Metrics m,
                                 ContributionToTunnelRIB contribution) {
  BgpLuTunnelTableEntry e(id);
  e.tepIs(tep);
  e.contributionIs(contribution);
  e.bgpMetricIs(m.metric);
  e.bgpMetric2Is(m.metric2);
  e.bgpPrefIs(m.pref);
  e.bgpPref2Is(m.pref2);
  return e;
}

LdpSrTunnelTableEntry ldpSrEntry(TunnelId id, Nimbo::IpGenPrefix const& tep, Metrics m) {
  LdpSrTunnelTableEntry e(id);
  e.tepIs(tep);
  e.igpMetricIs(m.metric);
  e.igpMetric2Is(m.metric2);
  e.igpPrefIs(m.pref);
  e.igpPref2Is(m.pref2);
  return e;
}

// The four tables, the unprogrammable set, the tunnel RIB and the four
// per-protocol tunnel RIBs, as the aggregator hands them over; start()
// builds the state machine over them.
class TunnelRibSmTest : public ::testing::Test {
 protected:
  TunnelRibSmTest() {
    for (TunnelType type :
         {TunnelType::bgpLuTunnel, TunnelType::ldpTunnel, TunnelType::srTunnel, TunnelType::staticTunnel}) {
      protoTunnelRibColl->protocolTunnelRibIs(type)->tunnelRibIs(Vela::make<TunnelRib>(Vela::enumName(type)));
    }
  }
  ~TunnelRibSmTest() override {
    if (sm) sm->hasNotificationActiveIs(false);
  }

  void start() {
    sm = Vela::make<TunnelRibSm>(tunnelRib, protoTunnelRibColl, bgpLuTable, ldpTable, srTable, staticTable,
                                 unprogrammable, dir);
  }

  void addBgpLu(TunnelId id, Nimbo::IpGenPrefix const& tep, Metrics m = {},
                ContributionToTunnelRIB c = ContributionToTunnelRIB::contributing) {
    bgpLuTable->entryIs(bgpLuEntry(id, tep, m, c));
  }
  void addLdp(TunnelId id, Nimbo::IpGenPrefix const& tep, Metrics m = {}) {
    ldpTable->entryIs(ldpSrEntry(id, tep, m));
  }
  void addSr(TunnelId id, Nimbo::IpGenPrefix const& tep, Metrics m = {}) {
    srTable->entryIs(ldpSrEntry(id, tep, m));
  }
  void addStatic(TunnelId id, Nimbo::IpGenPrefix const& tep) {
    StaticTunnelTableEntry e(id);
    e.tepIs(tep);
    staticTable->entryIs(e);
  }
  void deleteBgpLu(TunnelId id) { bgpLuTable->entryDel(id); }
  void deleteLdp(TunnelId id) { ldpTable->entryDel(id); }
  void deleteSr(TunnelId id) { srTable->entryDel(id); }
  void deleteStatic(TunnelId id) { staticTable->entryDel(id); }
  void unprogrammableIs(TunnelId id, bool in) {
    in ? unprogrammable->entryIs(id, true) : unprogrammable->entryDel(id);
  }

  Vela::Ptr<TunnelRib> protoRib(TunnelType type) const {
    return protoTunnelRibColl->protocolTunnelRib(type)->tunnelRib();
  }
  static IdSet idsOf(Vela::Ptr<TunnelRib> const& rib, Nimbo::IpGenPrefix const& tep) {
    IdSet out;
    if (auto e = rib->entry(tep)) {
      for (auto it = e->tunnelIds().begin(); it != e->tunnelIds().end(); ++it) out.insert(it.key().value());
    }
    return out;
  }
  IdSet ribIds(Nimbo::IpGenPrefix const& tep) const { return idsOf(tunnelRib, tep); }
  IdSet protoIds(TunnelType type, Nimbo::IpGenPrefix const& tep) const { return idsOf(protoRib(type), tep); }
  Metrics metrics(Nimbo::IpGenPrefix const& tep) const {
    auto e = tunnelRib->entry(tep);
    if (!e) return {};
    return {e->metric(), e->metric2(), e->pref(), e->pref2()};
  }

  Vela::Ptr<TunnelRib> tunnelRib = Vela::make<TunnelRib>("tunnelRib");
  Vela::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl =
      Vela::make<ProtocolTunnelRibCollection>("protoTunnelRib");
  Vela::Ptr<BgpLuTunnelTable> bgpLuTable = Vela::make<BgpLuTunnelTable>("bgpLu");
  Vela::Ptr<LdpTunnelTable> ldpTable = Vela::make<LdpTunnelTable>("ldp");
  Vela::Ptr<SrTunnelTable> srTable = Vela::make<SrTunnelTable>("sr");
  Vela::Ptr<StaticTunnelTable> staticTable = Vela::make<StaticTunnelTable>("static");
  Vela::Ptr<TunnelIdColl> unprogrammable = tunnelIdCollFactory();
  Vela::Ptr<Vela::Dir> dir = Vela::make<Vela::Dir>("table");
  Vela::Ptr<TunnelRibSm> sm;
};

// --- selection between protocols ---------------------------------------------------------------------

// The whole trace of one tunnel entering a new TEP: each step once, in order.
TEST_F(TunnelRibSmTest, EnteringATunnelTracesEachStepOnce) {
  start();
  Skein::CaptureSink cap(8);
  addBgpLu(bgpLuId(1), prefix("10.0.0.1/32"), {10, 11, 12, 13});
  std::vector<std::string> texts;
  for (Skein::Line const& line : cap.lines()) texts.push_back(line.text);
  std::string const id = str(bgpLuId(1));
  std::string const fn = "void Tunnel::TunnelTable::TunnelRibSm::";
  std::string const args = "(const Tunnel::TunnelTable::TunnelId&, const Nimbo::IpGenPrefix&";
  EXPECT_EQ(texts,
            (std::vector<std::string>{
                fn + "handleBgpLuTunnelEntry(const Tunnel::TunnelTable::TunnelId&) tunnel ID " + id,
                fn + "doUpdateLocalCollectionsAndTunnelRib" + args + ", bool) for tunnel id " + id +
                    ", tep 10.0.0.1/32, add: 1",
                fn + "assertProtoTunnelRib(Tunnel::TunnelTable::TunnelType) const",
                "bgpLuTunnel: adding protocol-specific TEP / tunnel ID mapping, tunnel ID " + id +
                    ", TEP 10.0.0.1/32",
                fn + "doUpdateTunnelRibEntry" + args + ", bool)",
                "Adding Tunnel RIB entry tep: 10.0.0.1/32 id: " + id, fn + "doAddTunnelId" + args + ")",
                fn + "doAddTunnelId" + args + ") updating id: " + id + ", m: 10, m2: 11, p: 12, p2: 13"}));
}

TEST_F(TunnelRibSmTest, LdpWinsOverBgpLuAndWithdrawalFallsBackToAllBgpLuIds) {
  start();
  auto const tep = prefix("10.0.0.1/32");
  addBgpLu(bgpLuId(1), tep, {10, 11, 12, 13});
  addBgpLu(bgpLuId(2), tep, {20, 21, 22, 23});
  Skein::CaptureSink cap(8);
  addLdp(ldpId(1), tep, {5, 6, 7, 8});
  EXPECT_TRUE(
      cap.contains("Deleting existing entry contributed by table: bgpLuTunnel as the entry from table: "
                   "ldpTunnel is more preferred."));
  EXPECT_TRUE(cap.contains("New ID is: " + str(ldpId(1))));
  EXPECT_EQ(ribIds(tep), ids({ldpId(1)}));
  EXPECT_EQ(metrics(tep), (Metrics{5, 6, 7, 8}));
  // The BGP LU ids stay in their own per-protocol tunnel RIB.
  EXPECT_EQ(protoIds(TunnelType::bgpLuTunnel, tep), ids({bgpLuId(1), bgpLuId(2)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, tep), ids({ldpId(1)}));

  cap.clear();
  addBgpLu(bgpLuId(3), tep, {30, 31, 32, 33});
  EXPECT_TRUE(
      cap.contains("Existing tunnel entry contributed by table: ldpTunnel (2) is preferred more than "
                   "bgpLuTunnel (4) "));
  EXPECT_EQ(ribIds(tep), ids({ldpId(1)}));

  cap.clear();
  deleteLdp(ldpId(1));
  EXPECT_TRUE(cap.contains("bgpLuTunnel table entry is contributing for tep: 10.0.0.1/32"));
  EXPECT_EQ(cap.count("   TunnelID: "), 3u);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1), bgpLuId(2), bgpLuId(3)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, tep), ids({}));
  // The fields are those of the BGP LU id entered last, which is the metric source.
  auto const& source = bgpLuTable->entry(sm->tunRibMetricTunId(tep));
  EXPECT_EQ(metrics(tep),
            (Metrics{source.bgpMetric(), source.bgpMetric2(), source.bgpPref(), source.bgpPref2()}));
}

TEST_F(TunnelRibSmTest, ProtocolOrderStaticLdpSrBgpLu) {
  start();
  auto const tep = prefix("10.0.0.2/32");
  addBgpLu(bgpLuId(1), tep);
  addSr(srId(1), tep);
  EXPECT_EQ(ribIds(tep), ids({srId(1)}));
  addLdp(ldpId(1), tep);
  EXPECT_EQ(ribIds(tep), ids({ldpId(1)}));
  addStatic(staticId(1), tep);
  EXPECT_EQ(ribIds(tep), ids({staticId(1)}));
  // A static winner leaves the fields of the fresh entry alone.
  EXPECT_EQ(metrics(tep), (Metrics{0, 0, 0, 0}));
  deleteStatic(staticId(1));
  EXPECT_EQ(ribIds(tep), ids({ldpId(1)}));
  deleteLdp(ldpId(1));
  EXPECT_EQ(ribIds(tep), ids({srId(1)}));
  deleteSr(srId(1));
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  Skein::CaptureSink cap(8);
  deleteBgpLu(bgpLuId(1));
  EXPECT_TRUE(cap.contains("No table entry is contributing for tep: 10.0.0.2/32"));
  EXPECT_FALSE(tunnelRib->entry(tep));
  EXPECT_EQ(tunnelRib->entrys().size(), 0u);
  EXPECT_EQ(sm->tunnelIdToTeps().size(), 0u);
}

// BGP LU fields come from the id entered or updated last, and on its removal
// from the first remaining one.
TEST_F(TunnelRibSmTest, FieldsComeFromTheMetricSourceId) {
  start();
  auto const tep = prefix("10.0.0.3/32");
  addBgpLu(bgpLuId(1), tep, {1, 2, 3, 4});
  addBgpLu(bgpLuId(2), tep, {5, 6, 7, 8});
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1), bgpLuId(2)}));
  EXPECT_EQ(metrics(tep), (Metrics{5, 6, 7, 8}));
  EXPECT_EQ(sm->tunRibMetricTunId(tep), bgpLuId(2));

  // An update of the other id makes it the source.
  addBgpLu(bgpLuId(1), tep, {9, 10, 11, 12});
  EXPECT_EQ(metrics(tep), (Metrics{9, 10, 11, 12}));
  EXPECT_EQ(sm->tunRibMetricTunId(tep), bgpLuId(1));

  // Removing a non-source id keeps the fields.
  addBgpLu(bgpLuId(3), tep, {13, 14, 15, 16});
  addBgpLu(bgpLuId(1), tep, {17, 18, 19, 20});
  deleteBgpLu(bgpLuId(2));
  EXPECT_EQ(metrics(tep), (Metrics{17, 18, 19, 20}));

  // Removing the source copies the fields of the first remaining id.
  deleteBgpLu(bgpLuId(1));
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(3)}));
  EXPECT_EQ(metrics(tep), (Metrics{13, 14, 15, 16}));
  EXPECT_EQ(sm->tunRibMetricTunId(tep), bgpLuId(3));

  // Only BGP LU fields are re-copied on removal: an LDP entry still shows the removed id's fields.
  auto const ldpTep = prefix("10.0.0.5/32");
  addLdp(ldpId(1), ldpTep, {1, 2, 3, 4});
  addLdp(ldpId(2), ldpTep, {5, 6, 7, 8});
  EXPECT_EQ(metrics(ldpTep), (Metrics{5, 6, 7, 8}));
  deleteLdp(ldpId(2));
  EXPECT_EQ(ribIds(ldpTep), ids({ldpId(1)}));
  EXPECT_EQ(metrics(ldpTep), (Metrics{5, 6, 7, 8}));
}

TEST_F(TunnelRibSmTest, EqualTablePrefKeepsTheProtocolThatCameFirst) {
  srTable->tablePrefIs(TunnelTablePref::ldpPref);
  start();
  auto const a = prefix("10.0.1.1/32");
  auto const b = prefix("10.0.1.2/32");
  addSr(srId(1), a);
  addLdp(ldpId(1), a);
  addLdp(ldpId(2), b);
  Skein::CaptureSink cap(8);
  addSr(srId(2), b);
  EXPECT_TRUE(
      cap.contains("Existing tunnel entry contributed by table: ldpTunnel (2) is preferred more than "
                   "srTunnel (2) "));
  EXPECT_EQ(ribIds(a), ids({srId(1)}));
  EXPECT_EQ(ribIds(b), ids({ldpId(2)}));
}

TEST_F(TunnelRibSmTest, FallbackUsesTheFixedProtocolOrderNotTablePref) {
  staticTable->tablePrefIs(TunnelTablePref::bgpLuPref);
  bgpLuTable->tablePrefIs(TunnelTablePref::staticPref);
  start();
  auto const tep = prefix("10.0.2.1/32");
  addStatic(staticId(1), tep);
  addBgpLu(bgpLuId(1), tep);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));  // 1 < 4
  addLdp(ldpId(1), tep);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));  // 2 >= 1
  deleteBgpLu(bgpLuId(1));
  // LDP (2) is preferred over static (4) by the tables, but the fallback walks static first.
  EXPECT_EQ(ribIds(tep), ids({staticId(1)}));
  // The incremental path goes by tablePref again.
  addLdp(ldpId(2), tep);
  EXPECT_EQ(ribIds(tep), ids({ldpId(2)}));
}

// --- withdrawal ---------------------------------------------------------------------------------------

TEST_F(TunnelRibSmTest, NonContributingBgpLuIsRemovedLikeADeletedEntry) {
  start();
  auto const tep = prefix("10.0.3.1/32");
  addBgpLu(bgpLuId(1), tep);
  addBgpLu(bgpLuId(2), tep);
  addBgpLu(bgpLuId(2), tep, {}, ContributionToTunnelRIB::nonContributing);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  EXPECT_EQ(protoIds(TunnelType::bgpLuTunnel, tep), ids({bgpLuId(1)}));
  EXPECT_FALSE(sm->tunnelIdToTeps().contains(bgpLuId(2)));
  addBgpLu(bgpLuId(1), tep, {}, ContributionToTunnelRIB::nonContributing);
  EXPECT_FALSE(tunnelRib->entry(tep));
  EXPECT_FALSE(protoRib(TunnelType::bgpLuTunnel)->entry(tep));
  // Contributing again: entered again.
  addBgpLu(bgpLuId(2), tep);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(2)}));
}

// --- unprogrammable tunnels ---------------------------------------------------------------------------

TEST_F(TunnelRibSmTest, UnprogrammableIdIsIgnoredByTheTableAndRestoredWhenItLeavesTheSet) {
  start();
  auto const tep = prefix("10.0.4.1/32");
  addBgpLu(bgpLuId(1), tep);
  addLdp(ldpId(1), tep);
  unprogrammableIs(ldpId(1), true);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, tep), ids({}));

  Skein::CaptureSink cap(8);
  addLdp(ldpId(1), tep, {1, 2, 3, 4});
  addLdp(ldpId(2), tep);
  unprogrammableIs(ldpId(2), true);
  EXPECT_TRUE(cap.contains(
      "void Tunnel::TunnelTable::TunnelRibSm::handleLdpSrTunnelEntry(const Tunnel::TunnelTable::TunnelId&) " +
      str(ldpId(1)) + " is unprogrammable"));
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  // Removal from the table while unprogrammable is ignored as well.
  deleteLdp(ldpId(2));

  unprogrammableIs(ldpId(1), false);
  EXPECT_EQ(ribIds(tep), ids({ldpId(1)}));
  EXPECT_EQ(metrics(tep), (Metrics{1, 2, 3, 4}));
  cap.clear();
  unprogrammableIs(ldpId(2), false);
  EXPECT_TRUE(cap.contains(str(ldpId(2)) + " is not present in any of the protocol tables"));
  EXPECT_EQ(ribIds(tep), ids({ldpId(1)}));
}

TEST_F(TunnelRibSmTest, UnprogrammableBgpLuIsRestoredOnlyWhenContributing) {
  start();
  auto const tep = prefix("10.0.4.2/32");
  addBgpLu(bgpLuId(1), tep);
  addBgpLu(bgpLuId(2), tep);
  unprogrammableIs(bgpLuId(1), true);
  unprogrammableIs(bgpLuId(2), true);
  EXPECT_FALSE(tunnelRib->entry(tep));
  addBgpLu(bgpLuId(2), tep, {}, ContributionToTunnelRIB::nonContributing);
  unprogrammableIs(bgpLuId(1), false);
  unprogrammableIs(bgpLuId(2), false);
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  EXPECT_EQ(protoIds(TunnelType::bgpLuTunnel, tep), ids({bgpLuId(1)}));
}

// Literal rule: removing an id from a per-protocol entry that holds exactly
// one id deletes the entry, whichever id it holds. A non-contributing BGP LU
// tunnel was already withdrawn; when it also becomes unprogrammable it is
// withdrawn a second time, and takes the other tunnel's per-protocol entry.
TEST_F(TunnelRibSmTest, NonContributingBgpLuBecomingUnprogrammableIsRemovedTwice) {
  start();
  auto const tep = prefix("10.0.4.3/32");
  addBgpLu(bgpLuId(1), tep);
  addBgpLu(bgpLuId(2), tep, {}, ContributionToTunnelRIB::nonContributing);
  EXPECT_EQ(protoIds(TunnelType::bgpLuTunnel, tep), ids({bgpLuId(1)}));
  unprogrammableIs(bgpLuId(2), true);
  EXPECT_FALSE(protoRib(TunnelType::bgpLuTunnel)->entry(tep));
  // The tunnel RIB does not hold the removed id, so it keeps the other one.
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  EXPECT_EQ(sm->tunnelIdToTep(bgpLuId(1)).tep(), tep);
}

// --- TEP changes -------------------------------------------------------------------------------------

// Literal rule: a changed TEP is an add under the new TEP; the id stays under
// its old TEP in both RIBs, and only the new one is withdrawn later.
TEST_F(TunnelRibSmTest, TepChangedInPlaceStaysUnderTheOldTep) {
  start();
  auto const oldTep = prefix("10.0.5.1/32");
  auto const newTep = prefix("10.0.5.2/32");
  addLdp(ldpId(1), oldTep);
  addLdp(ldpId(1), newTep);
  EXPECT_EQ(ribIds(oldTep), ids({ldpId(1)}));
  EXPECT_EQ(ribIds(newTep), ids({ldpId(1)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, oldTep), ids({ldpId(1)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, newTep), ids({ldpId(1)}));
  EXPECT_EQ(sm->tunnelIdToTep(ldpId(1)).tep(), newTep);
  deleteLdp(ldpId(1));
  EXPECT_EQ(ribIds(oldTep), ids({ldpId(1)}));
  EXPECT_FALSE(tunnelRib->entry(newTep));
}

// --- convergence -------------------------------------------------------------------------------------

// Not run at construction; afterwards each convergence inverts the flag.
TEST_F(TunnelRibSmTest, ConvergenceInvertsTheFlagEachTimeBgpConverges) {
  bgpLuTable->bgpConvergedIs(true);
  tunnelRib->tunnelRibConvergedIs(true);
  start();
  EXPECT_TRUE(tunnelRib->tunnelRibConverged());
  bgpLuTable->bgpConvergedIs(false);
  EXPECT_TRUE(tunnelRib->tunnelRibConverged());
  bgpLuTable->bgpConvergedIs(true);
  EXPECT_FALSE(tunnelRib->tunnelRibConverged());
  bgpLuTable->bgpConvergedIs(false);
  bgpLuTable->bgpConvergedIs(true);
  EXPECT_TRUE(tunnelRib->tunnelRibConverged());
}

// --- inputs ------------------------------------------------------------------------------------------

TEST_F(TunnelRibSmTest, RepointingTablesRunsTheirScansButConstructionDoesNot) {
  auto const tep = prefix("10.0.6.1/32");
  addBgpLu(bgpLuId(1), tep);
  Skein::CaptureSink cap(8);
  start();
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::TunnelRibSm::handleBgpLuTunnelEntry()"), 1u);
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::TunnelRibSm::handleLdpSrTunnelEntry()"), 1u);
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::TunnelRibSm::handleBgpConvergence()"), 0u);

  auto other = Vela::make<BgpLuTunnelTable>("bgpLu2");
  other->bgpConvergedIs(true);
  other->entryIs(bgpLuEntry(bgpLuId(2), tep, {}, ContributionToTunnelRIB::contributing));
  cap.clear();
  sm->bgpLuTableIs(other);
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::TunnelRibSm::handleBgpLuTunnelEntry()"), 1u);
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::TunnelRibSm::handleBgpConvergence()"), 1u);
  EXPECT_TRUE(tunnelRib->tunnelRibConverged());
  // The new table's ids are added; those of the old table are not withdrawn.
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1), bgpLuId(2)}));
  // The same table again: nothing runs.
  cap.clear();
  sm->bgpLuTableIs(other);
  EXPECT_EQ(cap.lines().size(), 0u);
  // The old table is no longer watched, the new one is.
  addBgpLu(bgpLuId(3), tep);
  EXPECT_FALSE(ribIds(tep).count(bgpLuId(3).value()));
  other->entryIs(bgpLuEntry(bgpLuId(4), tep, {}, ContributionToTunnelRIB::contributing));
  EXPECT_TRUE(ribIds(tep).count(bgpLuId(4).value()));

  auto otherSr = Vela::make<SrTunnelTable>("sr2");
  otherSr->entryIs(ldpSrEntry(srId(1), prefix("10.0.6.2/32"), {}));
  cap.clear();
  sm->srTableIs(otherSr);
  EXPECT_EQ(cap.count("void Tunnel::TunnelTable::TunnelRibSm::handleLdpSrTunnelEntry()"), 1u);
  EXPECT_EQ(ribIds(prefix("10.0.6.2/32")), ids({srId(1)}));

  cap.clear();
  sm->unprogrammableTunnelIdIs(tunnelIdCollFactory());
  EXPECT_EQ(cap.lines().size(), 0u);

  // Null drops the input: its changes are no longer seen.
  sm->staticTableIs(nullptr);
  addStatic(staticId(1), tep);
  EXPECT_FALSE(ribIds(tep).count(staticId(1).value()));
}

TEST_F(TunnelRibSmTest, SwitchedOffNotificationsSilenceEveryInput) {
  start();
  auto const tep = prefix("10.0.7.1/32");
  sm->hasNotificationActiveIs(false);
  addBgpLu(bgpLuId(1), tep);
  addLdp(ldpId(1), tep);
  addSr(srId(1), tep);
  addStatic(staticId(1), tep);
  unprogrammableIs(bgpLuId(1), true);
  bgpLuTable->bgpConvergedIs(true);
  EXPECT_EQ(tunnelRib->entrys().size(), 0u);
  EXPECT_FALSE(tunnelRib->tunnelRibConverged());
  sm->hasNotificationActiveIs(true);
  addLdp(ldpId(2), tep);
  EXPECT_EQ(ribIds(tep), ids({ldpId(2)}));
}

// --- traces ------------------------------------------------------------------------------------------

TEST_F(TunnelRibSmTest, HandlerAndWorkerTraceLines) {
  start();
  Skein::CaptureSink cap(8);
  auto const tep = prefix("10.0.8.1/32");
  addLdp(ldpId(1), tep);
  std::string const id = str(ldpId(1));
  // The BGP LU forms of the common lines are pinned by EnteringATunnelTracesEachStepOnce.
  EXPECT_TRUE(cap.contains(
      "void Tunnel::TunnelTable::TunnelRibSm::handleLdpSrTunnelEntry(const Tunnel::TunnelTable::TunnelId&) "
      "tunnel ID " +
      id));
  EXPECT_TRUE(cap.contains("ldpTunnel: adding protocol-specific TEP / tunnel ID mapping, tunnel ID " + id +
                           ", TEP 10.0.8.1/32"));
  addLdp(ldpId(2), tep);
  EXPECT_TRUE(cap.contains("Updating Table entry is contributing for tep: 10.0.8.1/32"));
  EXPECT_TRUE(cap.contains("Adding new ID for existing Tunnel RIB entry: " + str(ldpId(2))));
  cap.clear();
  deleteLdp(ldpId(1));
  EXPECT_TRUE(cap.contains("ldpTunnel: deleting protocol-specific TEP / tunnel ID mapping, tunnel ID " + id +
                           ", TEP 10.0.8.1/32"));
  EXPECT_TRUE(cap.contains("Deleting Tunnel RIB entry tep: 10.0.8.1/32 id: " + id));
  for (auto const& line : cap.lines()) EXPECT_EQ(line.level, 8);

  // Removing an id that was never entered only traces.
  cap.clear();
  sm->handleLdpSrTunnelEntry(ldpId(7));
  EXPECT_TRUE(cap.contains("No entry for tep  in ldpTunnel's table tunnel rib"));
  EXPECT_FALSE(cap.contains("Deleting Tunnel RIB entry"));
  EXPECT_EQ(ribIds(tep), ids({ldpId(2)}));
}

TEST_F(TunnelRibSmTest, OtherTunnelTypesYieldPreferenceZeroTheDefaultEntryAndAreNotLookedAt) {
  start();
  Skein::CaptureSink cap(8);
  TunnelId const nexthop = makeId(TunnelType::nexthopTunnel, 3);
  EXPECT_EQ(sm->getPreference(nexthop), 0u);
  EXPECT_TRUE(
      cap.contains("uint8_t Tunnel::TunnelTable::TunnelRibSm::getPreference(const "
                   "Tunnel::TunnelTable::TunnelId&) const Something wrong going on. Unknown Tunnel Type "
                   "nexthopTunnel"));
  EXPECT_TRUE(!sm->tunnelTableEntry(nexthop));
  EXPECT_TRUE(cap.contains("Unknown tunnel type nexthopTunnel"));
  // Unprogrammable ids of such types are not looked at.
  unprogrammableIs(nexthop, true);
  EXPECT_TRUE(cap.contains(str(nexthop) + " doesn't contribute to tunnel rib"));
  EXPECT_EQ(tunnelRib->entrys().size(), 0u);
}

// --- failures ----------------------------------------------------------------------------------------

TEST_F(TunnelRibSmTest, BrokenInvariantsFailTheirAssertions) {
  start();
  auto const tep = prefix("10.0.9.1/32");
  EXPECT_EQ(assertionText([&] { sm->handleLdpSrTunnelEntry(bgpLuId(1)); }), "id.tunnelType() == srTunnel()");
  addLdp(ldpId(1), tep);
  EXPECT_EQ(assertionText([&] { sm->doAddTunnelId(bgpLuId(9), tep); }),
            "!!luEntry && luEntry.contribution() == contributing()");
}

// Ordinary table changes reach the metric assertion: the id that moved to
// another TEP stays under its old one, turns non-contributing there (its
// removal deletes nothing under the old TEP), and when its companion goes,
// the old TEP's metrics are copied from it.
TEST_F(TunnelRibSmTest, IdLeftUnderItsOldTepReachesTheMetricAssertion) {
  auto const tep1 = prefix("10.0.0.1/32"), tep2 = prefix("10.0.0.2/32");
  start();
  addBgpLu(bgpLuId(1), tep1);
  addBgpLu(bgpLuId(2), tep1);
  addBgpLu(bgpLuId(1), tep2);
  addBgpLu(bgpLuId(1), tep2, {}, ContributionToTunnelRIB::nonContributing);
  EXPECT_EQ(ribIds(tep1), ids({bgpLuId(1), bgpLuId(2)}));
  EXPECT_EQ(assertionText([&] { deleteBgpLu(bgpLuId(2)); }),
            "!!luEntry && luEntry.contribution() == contributing()");
}

// A non-contributing BGP LU id can be in the tunnel RIB only if it was left
// there by an earlier run (stale ids of unprogrammable tunnels are kept).
TEST_F(TunnelRibSmTest, NonContributingBgpLuLeavingTheSetMustNotBeInTheRib) {
  auto const tep = prefix("10.0.9.2/32");
  addBgpLu(bgpLuId(1), tep, {}, ContributionToTunnelRIB::nonContributing);
  unprogrammableIs(bgpLuId(1), true);
  tunnelRib->newEntry(tep)->tunnelIdIs(bgpLuId(1), true);
  start();
  EXPECT_EQ(ribIds(tep), ids({bgpLuId(1)}));
  EXPECT_EQ(assertionText([&] { unprogrammableIs(bgpLuId(1), false); }), "tunnelIdIter.key() != id");
}

TEST_F(TunnelRibSmTest, MissingPerProtocolTunnelRibIsAnInternalError) {
  protoTunnelRibColl->protocolTunnelRibDel(TunnelType::ldpTunnel);
  start();
  EXPECT_EQ(thrownText<Vela::InternalException>([&] { addLdp(ldpId(1), prefix("10.0.9.3/32")); }),
            "protocolTunnelRib missing for tunnelType ldpTunnel");
  sm->hasNotificationActiveIs(false);
  sm = nullptr;

  protoTunnelRibColl->protocolTunnelRibIs(TunnelType::ldpTunnel);
  EXPECT_EQ(thrownText<Vela::InternalException>([&] { start(); }),
            "protocolTunnelRib::tunnelRib missing for tunnelType ldpTunnel");
}

// --- restart -----------------------------------------------------------------------------------------

TEST_F(TunnelRibSmTest, RestartCleansStaleIdsAndRebuildsFromTheTables) {
  auto const a = prefix("10.1.0.1/32");
  auto const b = prefix("10.1.0.2/32");
  auto const c = prefix("10.1.0.3/32");
  auto const d = prefix("10.1.0.4/32");
  // What a previous run left behind.
  auto persist = [](Vela::Ptr<TunnelRib> const& rib, Nimbo::IpGenPrefix const& tep, TunnelId id) {
    rib->newEntry(tep)->tunnelIdIs(id, true);
  };
  persist(tunnelRib, a, bgpLuId(1));  // live
  persist(tunnelRib, a, bgpLuId(2));  // stale: gone from the table
  persist(tunnelRib, b, ldpId(1));    // stale: now under another TEP
  persist(tunnelRib, c, srId(1));     // stale: its only id
  persist(tunnelRib, d, bgpLuId(3));  // non-contributing now, yet its TEP matches
  persist(protoRib(TunnelType::bgpLuTunnel), a, bgpLuId(1));
  persist(protoRib(TunnelType::bgpLuTunnel), a, bgpLuId(2));
  persist(protoRib(TunnelType::bgpLuTunnel), d, bgpLuId(3));
  persist(protoRib(TunnelType::ldpTunnel), b, ldpId(1));
  persist(protoRib(TunnelType::srTunnel), c, srId(1));

  // The tables as they are now.
  addBgpLu(bgpLuId(1), a, {1, 2, 3, 4});
  addBgpLu(bgpLuId(3), d, {}, ContributionToTunnelRIB::nonContributing);
  addLdp(ldpId(1), c, {5, 6, 7, 8});
  addLdp(ldpId(2), a, {9, 9, 9, 9});
  addStatic(staticId(1), b);

  Skein::CaptureSink cap(8);
  start();
  EXPECT_TRUE(
      cap.contains("void Tunnel::TunnelTable::TunnelRibSm::removeStaleEntries(const "
                   "Vela::Ptr<Tunnel::TunnelTable::TunnelRib>&) 10.1.0.1/32 tunnel id " +
                   str(bgpLuId(1)) + " is not stale."));
  EXPECT_TRUE(sm->initialized());

  EXPECT_EQ(ribIds(a), ids({ldpId(2)}));
  EXPECT_EQ(metrics(a), (Metrics{9, 9, 9, 9}));
  EXPECT_EQ(ribIds(b), ids({staticId(1)}));
  EXPECT_EQ(ribIds(c), ids({ldpId(1)}));
  EXPECT_EQ(protoIds(TunnelType::bgpLuTunnel, a), ids({bgpLuId(1)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, a), ids({ldpId(2)}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, b), ids({}));
  EXPECT_EQ(protoIds(TunnelType::ldpTunnel, c), ids({ldpId(1)}));
  EXPECT_EQ(protoIds(TunnelType::srTunnel, c), ids({}));
  EXPECT_EQ(protoIds(TunnelType::staticTunnel, b), ids({staticId(1)}));
  EXPECT_EQ(sm->tunnelIdToTep(ldpId(1)).tep(), c);
  EXPECT_EQ(sm->tunnelIdToTeps().size(), 4u);
  // Literal rule: the clean-up looks only at table presence and TEP, and the
  // scan withdraws a non-contributing id under the TEP it recorded (none yet),
  // so a non-contributing id left by the previous run stays.
  EXPECT_EQ(ribIds(d), ids({bgpLuId(3)}));
  EXPECT_EQ(protoIds(TunnelType::bgpLuTunnel, d), ids({bgpLuId(3)}));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
