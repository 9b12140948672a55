// Reading scenarios: the values built for the library, and every kind of bad
// input reported with its file position, JSON path and reason.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <string>

#include "TunnelTable/TunnelIntfId.h"
#include "tests/TunnelTable/TestHelpers.h"
#include "tools/tunnel-agent/Commands.h"
#include "tools/tunnel-agent/Scenario.h"

namespace {

using namespace Tunnel::Tool;
using namespace Tunnel::TunnelTable;
using Json = nlohmann::json;

Scenario read(std::string const& text) {
  std::ostringstream err;
  auto scenario = readScenarioText("test.json", text, err);
  EXPECT_TRUE(scenario.has_value()) << err.str();
  return scenario.value_or(Scenario{});
}

// The diagnostics of a scenario that must be rejected.
Diagnostics problems(std::string const& text) {
  Diagnostics diagnostics;
  auto scenario = readScenario(Json::parse(text), diagnostics);
  EXPECT_FALSE(scenario.has_value()) << text;
  return diagnostics;
}

// A scenario whose only table is `table` holding the one entry `entry`.
std::string withEntry(std::string const& table, std::string const& entry) {
  return R"({"tables": {")" + table + R"(": {"entries": [)" + entry + "]}}}";
}

TEST(ScenarioTest, BuildsTheLibrarysEntriesForEveryTable) {
  Scenario const s = read(R"({
    "tables": {
      "ldp": {"tablePref": "srPref", "entries": [
        {"index": 1, "tep": "10.0.0.1/32", "igpMetric": 10, "igpPref2": 4,
         "vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [3001]}]}]},
      "sr": {"entries": [{"index": 3, "ipv6": true, "tep": "2001:db8::3/128",
         "vias": [{"nexthop": "fe80::2", "interface": "Ethernet2", "labels": "swap 16003"}]}]},
      "bgpLu": {"bgpConverged": true, "entries": [
        {"index": 7, "tep": "192.168.0.7/32", "labels": [100, 200], "contribution": "nonContributing",
         "bgpMetric": 5, "bgpLinkBw": 2.5, "nexthopTunnelId": "nexthop/4", "vias": [{"tunnel": "ldp/1"}]}]},
      "bgpLuPush": {"entries": [{"tunnelId": 17592186044425, "vias": [{"tunnel": "bgpLu/7"}]}]},
      "static": {"entries": [{"index": 2, "tep": "10.0.0.5/32", "name": "toCE5", "labels": [500],
         "vias": [{"nexthop": "10.1.3.2", "interface": "Ethernet3"}]}]},
      "srTeSegmentList": {"entries": [{"index": 1, "vias": [{"tunnel": "sr/3/ipv6", "labels": [16005]}]}]}
    }})");
  ASSERT_EQ(s.tables.size(), 6u);
  // Tables come in the fixed order, whatever the file's order.
  EXPECT_EQ(s.tables[0].kind, TableKind::bgpLu);
  EXPECT_TRUE(s.tables[0].bgpConverged);
  EXPECT_EQ(s.tables[2].kind, TableKind::ldp);
  EXPECT_EQ(s.tables[2].tablePref, TunnelTablePref::srPref);

  LdpSrTunnelTableEntry ldp(makeId(TunnelType::ldpTunnel, 1));
  ldp.tepIs(Nimbo::IpGenPrefix("10.0.0.1/32"));
  ldp.igpMetricIs(10);
  ldp.igpPref2Is(4);
  ldp.viaIs(MplsVia(Nimbo::IpGenAddr("10.1.1.2"), Nimbo::IntfId("Ethernet1"),
                    Nimbo::MplsLabelOperation::pushOf({3001})));
  EXPECT_EQ(std::get<LdpSrTunnelTableEntry>(s.tables[2].entries[0].value), ldp);

  // A via "through tunnel ldp/1" is exactly what the library's tunnelIdViaIs writes.
  BgpLuTunnelTableEntry lu(makeId(TunnelType::bgpLuTunnel, 7));
  lu.tepIs(Nimbo::IpGenPrefix("192.168.0.7/32"));
  lu.labelsIs(Nimbo::MplsLabelOperation::pushOf({100, 200}));
  lu.contributionIs(ContributionToTunnelRIB::nonContributing);
  lu.bgpMetricIs(5);
  lu.bgpLinkBwIs(2.5f);
  lu.nexthopTunnelIdIs(makeId(TunnelType::nexthopTunnel, 4));
  lu.tunnelIdViaIs(makeId(TunnelType::ldpTunnel, 1));
  EXPECT_EQ(std::get<BgpLuTunnelTableEntry>(s.tables[0].entries[0].value), lu);

  // A raw tunnel id of the right kind; a tep is optional outside the RIB's tables.
  EXPECT_EQ(s.tables[1].entries[0].tunnelId(), makeId(TunnelType::bgpLuPushTunnel, 9));
  EXPECT_TRUE(s.tables[1].entries[0].tep().isEmpty());

  auto const& sr = std::get<LdpSrTunnelTableEntry>(s.tables[3].entries[0].value);
  EXPECT_EQ(sr.tunnelId().addressFamilyCliStr(), "IPv6");
  ASSERT_EQ(sr.vias().size(), 1u);
  EXPECT_EQ(sr.vias().begin()->labels().toStrep(), "swap 16003");

  auto const& st = std::get<StaticTunnelTableEntry>(s.tables[4].entries[0].value);
  EXPECT_EQ(st.name(), "toCE5");
  EXPECT_EQ(st.labels(), Nimbo::MplsLabelOperation::pushOf({500}));

  auto const& te = std::get<SrTeSegmentListTunnelTableEntry>(s.tables[5].entries[0].value);
  ASSERT_EQ(te.vias().size(), 1u);
  MplsVia const& via = *te.vias().begin();
  EXPECT_EQ(TunnelId(Nimbo::DynamicTunnelIntfId::tunnelId(via.intfId())).toCliStrep(),
            "IS-IS SR IPv6 Tunnel index 3");
  EXPECT_EQ(via.labels(), Nimbo::MplsLabelOperation::pushOf({16005}));
}

struct BadEntry {
  std::string table;
  std::string entry;
  std::string path;
  std::string message;  // a fragment of the reason
};

// Names the case in test listings by what it breaks.
void PrintTo(BadEntry const& bad, std::ostream* os) { *os << bad.path << " (" << bad.message << ")"; }

class BadEntryTest : public ::testing::TestWithParam<BadEntry> {};

TEST_P(BadEntryTest, IsReportedAtItsPathWithItsReason) {
  BadEntry const& bad = GetParam();
  Diagnostics const d = problems(withEntry(bad.table, bad.entry));
  ASSERT_FALSE(d.empty());
  bool found = false;
  std::string all;
  for (auto const& x : d) {
    all += x.path + ": " + x.message + "\n";
    if (x.path == bad.path && x.message.find(bad.message) != std::string::npos) found = true;
  }
  EXPECT_TRUE(found) << "expected " << bad.path << ": ..." << bad.message << "...\ngot:\n" << all;
}

// A bad entry of table `table`; `at` continues the path after "tables.<table>.entries".
BadEntry in(std::string const& table, std::string entry, std::string const& at, std::string message) {
  return {table, std::move(entry), "tables." + table + ".entries" + at, std::move(message)};
}
BadEntry ldp(std::string entry, std::string const& at, std::string message) {
  return in("ldp", std::move(entry), at, std::move(message));
}
// Entry 1 to 10.0.0.1/32 with further `fields`, and with the one via `via`.
std::string one(std::string const& fields) { return R"({"index": 1, "tep": "10.0.0.1/32", )" + fields + "}"; }
std::string oneVia(std::string const& via) { return one(R"("vias": [{)" + via + "}]"); }

INSTANTIATE_TEST_SUITE_P(
    Entries, BadEntryTest,
    ::testing::Values(
        ldp(R"({"index": "one", "tep": "10.0.0.1/32"})", "[0].index",
            "expected an unsigned integer, got a string"),
        ldp(R"({"index": 2.0, "tep": "10.0.0.1/32"})", "[0].index", "expected an unsigned integer, got 2.0"),
        ldp(R"({"index": 18446744073709551616, "tep": "10.0.0.1/32"})", "[0].index",
            "out of range (0 to 18446744073709551615)"),
        ldp(one(R"("igpMetric": 4294967296)"), "[0].igpMetric", "4294967296 out of range (0 to 4294967295)"),
        ldp(R"({"index": 1, "tep": "10.0.0.1/33"})", "[0].tep", "prefix length 33 out of range"),
        ldp(R"({"index": 1})", "[0]", "needs its \"tep\""),
        ldp(R"({"tep": "10.0.0.1/32"})", "[0]", "an entry needs its tunnel"),
        ldp(oneVia(R"("nexthop": "10.1.1", "interface": "Ethernet1")"), "[0].vias[0].nexthop",
            "invalid IP address '10.1.1'"),
        ldp(oneVia(R"("nexthop": "10.1.1.2", "interface": "Eth1")"), "[0].vias[0].interface",
            "invalid interface name 'Eth1'"),
        ldp(oneVia(R"("interface": "Ethernet1")"), "[0].vias[0]", "needs a \"nexthop\""),
        ldp(oneVia(R"("nexthop": "10.1.1.2", "interface": "Ethernet1", "tunnel": "ldp/2")"), "[0].vias[0]",
            "not both"),
        ldp(R"({"index": 17592186044416, "tep": "10.0.0.1/32"})", "[0].index",
            "Invalid 'indexAndAf'value, value is above 2^44"),
        ldp(R"({"index": 8796093022208, "tep": "10.0.0.1/32"})", "[0].index",
            "out of range (0 to 8796093022207"),
        ldp(R"({"tunnelId": 281474976710656, "tep": "10.0.0.1/32"})", "[0].tunnelId",
            "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed"),
        ldp(R"({"tunnelId": 123145302310913, "tep": "10.0.0.1/32"})", "[0].tunnelId",
            "is of kind srTunnel (IS-IS SR IPv4 Tunnel index 1); table ldp holds ldpTunnel tunnels"),
        ldp(R"({"tunnelId": 61572651155457, "tep": "10.0.0.1/32"})", "[0].tunnelId",
            "IPv6 not yet supported for 3"),
        ldp(one(R"("ipv6": true)"), "[0].ipv6", "table ldp has no IPv6 tunnels"),
        ldp(oneVia(R"("nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [1048576])"),
            "[0].vias[0].labels[0]", "MplsLabel::value < MplsLabel::min or > MplsLabel::max not allowed"),
        ldp(oneVia(R"("nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": "push 1 2 3 4 5 6 7")"),
            "[0].vias[0].labels", "invalid MPLS label operation"),
        ldp(oneVia(R"("tunnel": "nexthop/4")"), "[0].vias[0].tunnel", "unknown table 'nexthop'"),
        ldp(oneVia(R"("tunnel": "ldp/x")"), "[0].vias[0].tunnel", "the index must be a decimal number"),
        ldp(oneVia(R"("tunnel": "ldp/2/ipv6")"), "[0].vias[0].tunnel", "table ldp has no IPv6 tunnels"),
        ldp(oneVia(R"("nexthop": "0.0.0.0", "interface": "DynamicTunnel12582912.1")"),
            "[0].vias[0].interface", "(evpnVxlanTunnel), which no MPLS table holds"),
        ldp(oneVia(R"("nexthop": "10.1.1.2", "interface": "Ethernet1")") +
                R"(, {"index": 1, "tep": "10.0.0.2/32"})",
            "[1]", "tunnel ldp/1 is already defined at tables.ldp.entries[0]"),
        ldp(one(R"("vias": [{"tunnel": "ldp/2"}, {"tunnel": "ldp/2"}])"), "[0].vias[1]",
            "the same via as vias[0]"),
        in("bgpLu", oneVia(R"("tunnel": "ldp/1", "labels": [5])"), "[0].vias[0].labels",
           "belong to its entry, not to its vias"),
        in("bgpLu", one(R"("contribution": "maybe")"), "[0].contribution",
           "unknown contribution 'maybe'; one of: contributing, nonContributing"),
        in("bgpLu", one(R"("igpMetric": 5)"), "[0].igpMetric",
           "unknown field 'igpMetric' in an entry of table bgpLu")));

TEST(ScenarioTest, ReportsProblemsOfTablesSectionsAndTheirKinds) {
  auto has = [](Diagnostics const& d, std::string const& path, std::string const& fragment) {
    for (auto const& x : d) {
      if (x.path == path && x.message.find(fragment) != std::string::npos) return true;
    }
    return false;
  };
  Diagnostics d = problems(R"({"tables": {"mpls": {}, "ldp": {"bgpConverged": true, "tablePref": 0},
                               "sr": {"tablePref": "bestPref"}, "static": []}, "extra": 1})");
  EXPECT_TRUE(has(d, "tables.mpls", "unknown table 'mpls'; tables: bgpLu, bgpLuPush, ldp, sr, static"));
  EXPECT_TRUE(has(d, "tables.ldp.bgpConverged", "bgpConverged belongs to table bgpLu"));
  EXPECT_TRUE(
      has(d, "tables.ldp.tablePref", "invalid value 0 for enumeration Tunnel::TunnelTable::TunnelTablePref"));
  EXPECT_TRUE(has(d, "tables.sr.tablePref", "unknown table preference 'bestPref'"));
  EXPECT_TRUE(has(d, "tables.static", "expected table static (an object), got an array"));
  EXPECT_TRUE(has(d, "extra", "unknown field 'extra' in a scenario"));
  for (auto const& x : d) {
    if (x.path == "tables.mpls" || x.path == "extra") {
      EXPECT_TRUE(x.atKey) << x.path;
    }
  }

  d = problems(
      R"({"decap": {"cli": [{"name": "g"}, {"name": "g"}, {"name": "h", "addresses": ["10.0.0.1", "10.0.0.1"]}],
                             "dynamic": [{"source": "cli"}, {"source": "a/b"},
                                         {"source": "s", "groups": [{"name": "h", "type": "vxlan",
                                          "interfaces": [{"interface": "Loopback0", "addressFamily": "ipunknown"}]}]}]},
                   "staticConfig": [{"tep": "10.0.0.1/32"}, {"name": "x", "labels": [1048576]}],
                   "show": ["tunnel-rib", "fib", "dependents", "proto-rib:nexthop"]})");
  EXPECT_TRUE(has(d, "decap.cli[2].addresses[1]", "address 10.0.0.1 is listed twice"));
  EXPECT_TRUE(has(d, "decap.cli[1].name", "decap group g is defined twice"));
  EXPECT_TRUE(has(d, "decap.dynamic[0].source", "'cli' is the command-line source"));
  EXPECT_TRUE(has(d, "decap.dynamic[1].source", "must not contain '/'"));
  EXPECT_TRUE(
      has(d, "decap.dynamic[2].groups[0].type", "unknown decapsulation type 'vxlan'; one of: gre, ipip"));
  EXPECT_TRUE(has(d, "decap.dynamic[2].groups[0].interfaces[0].addressFamily", "one of: ipv4, ipv6"));
  EXPECT_TRUE(has(d, "staticConfig[0]", "needs its \"name\""));
  EXPECT_TRUE(has(d, "staticConfig[1].labels[0]", "MplsLabel::value"));
  EXPECT_TRUE(has(d, "show[1]", "unknown view 'fib'; views: tunnel-rib"));
  EXPECT_TRUE(has(d, "show[2]", "dependents needs a tunnel"));
  EXPECT_TRUE(has(d, "show[3]", "proto-rib: unknown protocol 'nexthop'"));
}

TEST(ScenarioTest, TimelineIsCheckedAgainstTheStateEachStepMeets) {
  std::string const tables = R"("tables": {"ldp": {"entries": [{"index": 1, "tep": "10.0.0.1/32"}]},
                                           "bgpLu": {}, "bgpLuPush": {}, "sr": {}, "static": {}},
                                "decap": {"cli": [{"name": "g", "addresses": ["10.0.0.9"]}]})";
  // Valid: each action sees what the ones before it did.
  Scenario const ok = read("{" + tables + R"(, "timeline": [
      {"actions": [{"action": "removeEntry", "tunnel": "ldp/1"},
                   {"action": "addEntry", "table": "ldp", "entry": {"index": 1, "tep": "10.0.0.1/32"}}]},
      {"actions": [{"action": "removeTable", "table": "ldp"}]},
      {"actions": [{"action": "addTable", "table": "ldp", "tablePref": 1,
                    "entries": [{"index": 2, "tep": "10.0.0.2/32"}]}]},
      {"actions": [{"action": "changeEntry", "table": "ldp", "entry": {"index": 2, "tep": "10.0.0.3/32"}},
                   {"action": "removeDecapAddress", "source": "cli", "group": "g", "address": "10.0.0.9"},
                   {"action": "addDecapSource", "source": "evpn", "groups": [{"name": "g"}]},
                   {"action": "addDecapAddress", "source": "evpn", "group": "g", "address": "10.0.0.8"},
                   {"action": "addStaticConfig", "entry": {"name": "s"}},
                   {"action": "removeStaticConfig", "name": "s"},
                   {"action": "bgpConverged", "value": true},
                   {"action": "restartAgent"}],
       "show": ["unprogrammable"]}]})");
  ASSERT_EQ(ok.timeline.size(), 4u);
  EXPECT_EQ(ok.timeline[3].actions.size(), 8u);
  EXPECT_EQ(describe(ok.timeline[0].actions[0]), "removed LDP IPv4 Tunnel index 1 from table ldp");
  EXPECT_EQ(describe(ok.timeline[2].actions[0]), "added table ldp (1 entry)");

  Diagnostics const d = problems("{" + tables + R"(, "timeline": [
      {"actions": [{"action": "removeEntry", "tunnel": "ldp/1"},
                   {"action": "changeEntry", "table": "ldp", "entry": {"index": 1, "tep": "10.0.0.1/32"}},
                   {"action": "removeTable", "table": "ldp"},
                   {"action": "addEntry", "table": "ldp", "entry": {"index": 5, "tep": "10.0.0.5/32"}},
                   {"action": "addTable", "table": "bgpLu"},
                   {"action": "removeDecapAddress", "source": "cli", "group": "g", "address": "10.0.0.1"},
                   {"action": "addDecapGroup", "source": "cli", "group": {"name": "g"}},
                   {"action": "addDecapSource", "source": "cli"},
                   {"action": "removeDecapGroup", "source": "nobody", "group": "g"},
                   {"action": "removeStaticConfig", "name": "s"},
                   {"action": "restartAgent", "now": true}]},
      {"name": "nothing"},
      {"actions": [{"action": "removeTable", "table": "bgpLu"}, {"action": "bgpConverged", "value": false}]}]})");
  std::vector<std::string> const expected = {
      "timeline[0].actions[1].entry: tunnel ldp/1 is not in table ldp; use addEntry",
      "timeline[0].actions[3].table: table ldp is not present (add it with addTable)",
      "timeline[0].actions[4].table: table bgpLu is already present",
      "timeline[0].actions[5].address: decap group g has no address 10.0.0.1",
      "timeline[0].actions[6].group: decap source cli already has a group 'g'",
      "timeline[0].actions[7].source: 'cli' is the command-line source; a dynamic source needs another name",
      "timeline[0].actions[8].source: there is no decap source 'nobody'",
      "timeline[0].actions[9].name: there is no static tunnel configuration s",
      "timeline[0].actions[10].now: unknown field 'now' in a restartAgent action; fields: action",
      "timeline[1]: a step needs \"actions\" or \"show\" (or both)",
      "timeline[2].actions[1]: table bgpLu is not present (add it with addTable)",
  };
  std::vector<std::string> got;
  for (auto const& x : d) got.push_back(x.path + ": " + x.message);
  EXPECT_EQ(got, expected);
}

TEST(ScenarioTest, ErrorsGiveFileLineColumnInFileOrder) {
  std::ostringstream err;
  auto s = readScenarioText("pe.json",
                            "{\n"
                            "  \"tables\": {\n"
                            "    \"ldp\": {\"entries\": [\n"
                            "      {\"index\": 1, \"tep\": \"10.0.0.1/32\", \"typo\": 1},\n"
                            "      {\"index\": 2, \"tep\": \"10.0.0.300/32\"}\n"
                            "    ]},\n"
                            "    \"bgpLu\": {\"entries\": [{\"index\": 1, \"tep\": \"10.0.0.1/32\", "
                            "\"labels\": [1, 2, 3, 4, 5, 6, 7]}]}\n"
                            "  },\n"
                            "  \"show\": [\"tunnel-rib\"],\n"
                            "  \"show\": [\"mpls-fib\"]\n"
                            "}\n",
                            err);
  EXPECT_FALSE(s.has_value());
  EXPECT_EQ(
      err.str(),
      "pe.json:4:42: error: tables.ldp.entries[0].typo: unknown field 'typo' in an entry of table ldp; "
      "fields: "
      "index, ipv6, tunnelId, tep, nexthopTunnelId, vias, igpMetric, igpMetric2, igpPref, igpPref2\n"
      "pe.json:5:27: error: tables.ldp.entries[1].tep: invalid IP prefix '10.0.0.300/32': octet '300' out of "
      "range (0..255)\n"
      "pe.json:7:72: error: tables.bgpLu.entries[0].labels: 7 labels; a label stack holds at most 6: "
      "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not allowed\n"
      "pe.json:10:3: error: show: this key is given twice\n"
      "pe.json: 4 errors; nothing was applied\n");
}

TEST(ScenarioTest, SyntaxErrorsGiveLineAndColumn) {
  std::ostringstream err;
  EXPECT_FALSE(readScenarioText("x.json", "{\n  \"tables\": {\n    \"ldp\": {,}\n  }\n}\n", err).has_value());
  EXPECT_EQ(
      err.str(),
      "x.json:3:13: error: syntax error while parsing object key - unexpected ','; expected string literal\n"
      "x.json: not valid JSON; nothing was applied\n");
  err.str("");
  EXPECT_FALSE(readScenarioText("y.json", "{\"a\": [1, 2", err).has_value());
  EXPECT_EQ(err.str().substr(0, 13), "y.json:1:12: ");
}

TEST(ScenarioTest, ViewsAndTunnelReferences) {
  std::string why;
  auto view = parseView("dependents:sr/3/ipv6", &why);
  ASSERT_TRUE(view) << why;
  EXPECT_EQ(view->kind, ViewKind::dependents);
  EXPECT_EQ(tunnelRef(view->tunnel), "sr/3/ipv6");
  EXPECT_EQ(view->tunnel.toCliStrep(), "IS-IS SR IPv6 Tunnel index 3");
  EXPECT_FALSE(parseView("rib-dump:ldp", &why));
  EXPECT_EQ(why, "view 'rib-dump' takes no argument");
  EXPECT_FALSE(parseView("proto-rib:bgpLuPush", &why));
  EXPECT_FALSE(parseView("dependents:ldp", &why));
  EXPECT_EQ(why,
            "dependents: malformed tunnel 'ldp': write a tunnel as <table>/<index>, e.g. \"ldp/5\" or "
            "\"sr/3/ipv6\"");
  EXPECT_EQ(tunnelRef(makeId(TunnelType::staticTunnel, 4)), "static/4");
  EXPECT_EQ(tunnelRef(makeId(TunnelType::nexthopTunnel, 4)), "nexthop/4");
  EXPECT_EQ(tunnelRef(TunnelId(0xA00000000005ull)), "type10/5");
}

TEST(ScenarioTest, ModelKnowsWhichRequiredTablesAreMissing) {
  Scenario const s = read(R"({"tables": {"ldp": {}, "bgpLu": {}, "srTeSegmentList": {}}})");
  Model const model = Model::of(s);
  EXPECT_EQ(model.missingRequiredTables(),
            (std::vector<TableKind>{TableKind::bgpLuPush, TableKind::sr, TableKind::staticMpls}));
  EXPECT_TRUE(model.decapSources.count("cli"));
}

}  // namespace
