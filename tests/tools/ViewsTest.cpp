// The views' layout and content on small cases, and why unprogrammable
// tunnels resolve to nothing.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tools/tunnel-agent/Commands.h"
#include "tools/tunnel-agent/Views.h"

namespace {

using namespace Tunnel::Tool;

// The five required tables, empty, around the given table members.
std::string scenarioWith(std::string const& tables, std::string const& rest = "") {
  std::string text = R"({"tables": {)" + tables;
  for (char const* name : {"bgpLu", "bgpLuPush", "ldp", "sr", "static"}) {
    if (tables.find(std::string("\"") + name + "\"") == std::string::npos) {
      text += std::string(text.back() == '{' ? "" : ", ") + "\"" + name + "\": {}";
    }
  }
  return text + "}" + rest + "}";
}

class ViewsTest : public ::testing::Test {
 protected:
  Lab lab{Vela::make<Quay::ManualClock>()};

  void load(std::string const& text) {
    std::ostringstream err;
    auto scenario = readScenarioText("test.json", text, err);
    ASSERT_TRUE(scenario.has_value()) << err.str();
    lab.load(*scenario);
  }

  std::string view(std::string const& text) {
    std::string why;
    auto request = parseView(text, &why);
    EXPECT_TRUE(request.has_value()) << why;
    return request ? renderView(lab, *request).text : "";
  }

  nlohmann::json json(std::string const& text) {
    std::string why;
    return renderView(lab, *parseView(text, &why)).json;
  }
};

TEST(TextTableTest, AlignsColumnsRightAlignsNumbersAndTrimsTrailingBlanks) {
  TextTable table({"Name", "Count", "Note"}, {false, true, false});
  table.row({"a", "7", ""});
  table.row({"longer", "1234"});
  EXPECT_EQ(table.render(),
            "Name    Count  Note\n"
            "a           7\n"
            "longer   1234\n");
  // Label stacks read as bracketed lists, the operation named unless a push
  // (pushes and pop are in the views below).
  EXPECT_EQ(labelText(Nimbo::MplsLabelOperation::fromStrep("swap 100")), "swap [100]");
  EXPECT_EQ(labelText(Nimbo::MplsLabelOperation()), "none []");
}

TEST_F(ViewsTest, TunnelRibListsEveryTunnelOfATepUnderOneEntry) {
  load(scenarioWith(R"("ldp": {"entries": [
      {"index": 1, "tep": "10.0.0.1/32", "igpMetric": 10,
       "vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [3001]}]}]},
    "bgpLu": {"entries": [
      {"index": 1, "tep": "192.168.0.1/32", "labels": [100], "bgpMetric": 5, "bgpPref2": 9, "vias": [{"tunnel": "ldp/1"}]},
      {"index": 2, "tep": "192.168.0.1/32", "labels": [200], "bgpMetric": 5, "bgpPref2": 9, "vias": [{"tunnel": "ldp/1"}]}]})"));
  EXPECT_EQ(view("tunnel-rib"),
            "Tunnel RIB: 2 entries, converged: no\n"
            "TEP             Protocol  Tunnel                      Metric  Metric2  Pref  Pref2\n"
            "10.0.0.1/32     LDP       LDP IPv4 Tunnel index 1         10        0     0      0\n"
            "192.168.0.1/32  BGP LU    BGP LU IPv4 Tunnel index 1       5        0     0      9\n"
            "                          BGP LU IPv4 Tunnel index 2\n");
  EXPECT_EQ(view("proto-rib:bgpLu"),
            "BGP LU tunnel RIB (tunnel/protoTunnelRib/bgpLu): 1 entry\n"
            "TEP             Tunnel\n"
            "192.168.0.1/32  BGP LU IPv4 Tunnel index 1\n"
            "                BGP LU IPv4 Tunnel index 2\n");
  auto const j = json("tunnel-rib");
  EXPECT_EQ(j["converged"], false);
  ASSERT_EQ(j["entries"].size(), 2u);
  EXPECT_EQ(j["entries"][1]["tunnels"][1]["ref"], "bgpLu/2");
  EXPECT_EQ(j["entries"][1]["tunnels"][1]["cli"], "BGP LU IPv4 Tunnel index 2");
  EXPECT_EQ(j["entries"][1]["pref2"], 9);
}

TEST_F(ViewsTest, MplsFibFlattensViasAndListsThemUnderTheirTunnel) {
  load(scenarioWith(R"("ldp": {"entries": [
      {"index": 1, "tep": "10.0.0.1/32", "vias": [
        {"nexthop": "10.1.2.2", "interface": "Ethernet2", "labels": [3101]},
        {"nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [3001]}]}]},
    "bgpLuPush": {"entries": [{"index": 4, "labels": [40, 41], "vias": [{"tunnel": "ldp/1"}]}]})"));
  EXPECT_EQ(view("mpls-fib"),
            "MPLS tunnel FIB: 2 tunnels, 4 vias\n"
            "Tunnel                           Nexthop   Interface  Labels\n"
            "BGP LU Push IPv4 Tunnel index 4  10.1.1.2  Ethernet1  [40 41 3001]\n"
            "                                 10.1.2.2  Ethernet2  [40 41 3101]\n"
            "LDP IPv4 Tunnel index 1          10.1.1.2  Ethernet1  [3001]\n"
            "                                 10.1.2.2  Ethernet2  [3101]\n");
  auto const j = json("mpls-fib");
  ASSERT_EQ(j["entries"].size(), 2u);
  EXPECT_EQ(j["entries"][0]["vias"][0]["labels"], nlohmann::json::array({40, 41, 3001}));
  EXPECT_EQ(j["entries"][0]["vias"][0]["operation"], "push");
  EXPECT_EQ(view("dependents:ldp/1"),
            "Tunnels riding on LDP IPv4 Tunnel index 1: 1\n"
            "Tunnel                           TEP  In FIB\n"
            "BGP LU Push IPv4 Tunnel index 4       yes\n");
}

TEST_F(ViewsTest, RibDumpIsTheLibrarysDumpStateText) {
  load(scenarioWith(R"("ldp": {"entries": [
      {"index": 26, "tep": "10.0.0.1/32", "igpMetric": 10, "igpPref": 2,
       "vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [3001]}]}]})"));
  EXPECT_EQ(view("rib-dump"),
            "Tunnel RIB dump:\n"
            "TunnelRib converged false\n"
            "  entries #1\n"
            "    TunnelRibEntry 10.0.0.1/32 metric 10 metric2 0 pref 2 pref2 0\n"
            "      tunnelIds #1\n"
            "        type ldpTunnel index 1a\n");
}

TEST_F(ViewsTest, UnprogrammableTunnelsAreExplainedByWhatTheirViasMeet) {
  load(scenarioWith(R"("ldp": {"entries": [
      {"index": 1, "tep": "10.0.0.1/32", "vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [1, 2, 3]}]}]},
    "bgpLu": {"entries": [
      {"index": 1, "tep": "192.168.0.1/32", "vias": [{"tunnel": "bgpLu/1"}]},
      {"index": 2, "tep": "192.168.0.2/32", "labels": [7, 8, 9, 10], "vias": [{"tunnel": "ldp/1"}]},
      {"index": 3, "tep": "192.168.0.3/32", "vias": [{"tunnel": "static/5"}, {"tunnel": "bgpLu/1"}]},
      {"index": 4, "tep": "192.168.0.4/32", "labels": [1, 2, 3], "vias": [{"tunnel": "ldp/1"}]}]})"));
  auto kinds = [&](int index) {
    std::vector<std::string> out;
    TunnelId const id(TunnelId::convertToTunnelValue(Tunnel::TunnelTable::TunnelType::bgpLuTunnel, index));
    for (auto const& r : explainUnprogrammable(lab, id)) out.push_back(r.kind);
    return out;
  };
  EXPECT_EQ(kinds(1), std::vector<std::string>{"cycle"});
  EXPECT_EQ(kinds(2), std::vector<std::string>{"labelStackTooLarge"});
  // Vias are looked at in interface order: BGP LU tunnels before static ones.
  EXPECT_EQ(kinds(3), (std::vector<std::string>{"innerWithoutFibEntry", "innerMissing"}));
  EXPECT_EQ(
      view("unprogrammable"),
      "Unprogrammable tunnels: 3\n"
      "Tunnel                      TEP             Reason\n"
      "BGP LU IPv4 Tunnel index 1  192.168.0.1/32  it rides on itself\n"
      "BGP LU IPv4 Tunnel index 2  192.168.0.2/32  the label stack would exceed six labels: 4 here + 3 from "
      "LDP IPv4 Tunnel index 1 = 7\n"
      "BGP LU IPv4 Tunnel index 3  192.168.0.3/32  it rides on BGP LU IPv4 Tunnel index 1, which has no FIB "
      "entry (unprogrammable itself); it rides on Static MPLS IPv4 Tunnel index 5, which is in no table\n");

  std::string const dot = renderDot(lab);
  EXPECT_NE(dot.find("\"bgpLu/3\" -> \"static/5\" [label=\"[]\"];"), std::string::npos) << dot;
  EXPECT_NE(dot.find("\"bgpLu/2\" -> \"ldp/1\" [label=\"[7 8 9 10]\"];"), std::string::npos) << dot;
  EXPECT_NE(dot.find("\"static/5\" [label=\"Static MPLS IPv4 Tunnel index 5\\nin no table\", style=dashed"),
            std::string::npos)
      << dot;
  EXPECT_NE(dot.find("\"bgpLu/2\" [label=\"BGP LU IPv4 Tunnel index 2\\n192.168.0.2/32\", "
                     "xlabel=\"unprogrammable: label stack > 6\", color=red, fontcolor=red];"),
            std::string::npos)
      << dot;
  EXPECT_NE(dot.find("\"ldp/1\" [label=\"LDP IPv4 Tunnel index 1\\n10.0.0.1/32\"];"), std::string::npos)
      << dot;
}

TEST_F(ViewsTest, StoppedStateMachinesAreSaidSo) {
  load(R"({"tables": {"ldp": {"entries": [{"index": 1, "tep": "10.0.0.1/32"}]}}})");
  EXPECT_EQ(
      view("tunnel-rib"),
      "Tunnel RIB: 0 entries, converged: no\n"
      "(the tunnel RIB and FIB state machines are stopped: the agent waits for tables bgpLu, bgpLuPush, sr, "
      "static; what follows is the state they left)\n");
  EXPECT_EQ(view("dependents:ldp/1"),
            "Tunnels riding on LDP IPv4 Tunnel index 1: unknown (the MPLS tunnel FIB state machine is not "
            "running)\n");
  EXPECT_EQ(
      view("unprogrammable"),
      "Unprogrammable tunnels: none\n"
      "(the tunnel RIB and FIB state machines are stopped: the agent waits for tables bgpLu, bgpLuPush, sr, "
      "static; what follows is the state they left)\n");
}

// The layouts with full entries are in examples/expected/provider-edge.txt;
// here, the corners: empty fields, a pop, sorting, unknown types, 0.0.0.0.
TEST_F(ViewsTest, StaticConfigurationAndDecapViews) {
  load(scenarioWith("", R"(,
    "staticConfig": [{"name": "b", "tep": "10.0.0.6/32", "nexthop": "10.1.3.6", "interface": "Ethernet3", "labels": [6]},
                     {"name": "a", "labels": "pop"}],
    "decap": {"dynamic": [{"source": "dyn", "groups": [
        {"name": "g2", "type": "ipip", "addresses": ["10.255.0.1"],
         "interfaces": [{"interface": "Loopback2", "addressFamily": "ipv6", "addressType": "all"},
                        {"interface": "Loopback1", "addressFamily": "ipv4"}]},
        {"name": "zero", "addresses": ["0.0.0.0"]}]}]})"));
  EXPECT_EQ(view("static-config"),
            "Static tunnel configuration: 2 entries\n"
            "Name  TEP          Nexthop   Interface  Labels\n"
            "a                                       pop []\n"
            "b     10.0.0.6/32  10.1.3.6  Ethernet3  [6]\n");
  EXPECT_EQ(view("decap-groups"),
            "Decap groups (merged configuration, ready: yes): 2\n"
            "Name  Source  Type     Address     Interface\n"
            "g2    dyn     ipip     10.255.0.1  Loopback1 ipv4 primary\n"
            "                                   Loopback2 ipv6 all\n"
            "zero  dyn     unknown  0.0.0.0\n");
  // 0.0.0.0 is configured but never counts as a decapsulation address.
  EXPECT_EQ(view("decap-ips"),
            "Decap address table: 1 address\n"
            "Address     Groups\n"
            "10.255.0.1       1\n");
}

}  // namespace
