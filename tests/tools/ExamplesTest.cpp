// The bundled examples, end to end: each is played by the tunnel-agent
// binary and compared with examples/expected/<name>.txt. The
// expected outputs were worked out by hand from the library's rules (tunnel
// RIB selection by table preference with the fixed fallback order, via
// flattening, unprogrammable tunnels leaving the RIB, stale-entry cleanup at
// restart); a difference is a finding, not something to re-pin blindly.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tools/tunnel-agent/Commands.h"

namespace {

using namespace Tunnel::Tool;

std::string const sourceDir = TUNNEL_SOURCE_DIR;
std::string const binary = TUNNEL_AGENT_BINARY;

std::string readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

struct Result {
  int status;
  std::string out;
  std::string err;
};

// Runs the binary with `args`, standard input from `input`.
Result runBinary(std::string const& args, std::string const& input = "") {
  // ctest runs tests in parallel processes: the file names must not collide.
  std::string const dir = ::testing::TempDir() + "/tunnel-agent-" + std::to_string(::getpid());
  std::string const in = dir + "-in.txt";
  std::string const out = dir + "-out.txt";
  std::string const err = dir + "-err.txt";
  std::ofstream(in) << input;
  std::string const command =
      "cd '" + sourceDir + "' && '" + binary + "' " + args + " <'" + in + "' >'" + out + "' 2>'" + err + "'";
  int const raw = std::system(command.c_str());
  int const status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return {status, readFile(out), readFile(err)};
}

class ExamplesTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ExamplesTest, BinaryRunMatchesTheExpectedOutput) {
  Result const r = runBinary("run examples/" + GetParam() + ".json");
  EXPECT_EQ(r.status, exitOk) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, readFile(sourceDir + "/examples/expected/" + GetParam() + ".txt"));
}

INSTANTIATE_TEST_SUITE_P(Bundled, ExamplesTest, ::testing::Values("provider-edge", "failover", "edge-cases"),
                         [](auto const& info) {
                           std::string name = info.param;
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });

TEST(DocumentationTest, TheCompleteExampleRunsAsDescribed) {
  std::string const doc = readFile(sourceDir + "/docs/scenario-format.md");
  auto const section = doc.find("## A complete example");
  ASSERT_NE(section, std::string::npos);
  auto const start = doc.find("```json\n", section) + 8;
  std::string const scenario = doc.substr(start, doc.find("```", start) - start);
  RunOptions options;
  options.clock = Vela::make<Quay::ManualClock>();
  std::ostringstream out, err;
  ASSERT_EQ(runScenarioText(options, "doc.json", scenario, out, err), exitOk) << err.str();
  std::string const text = out.str();
  auto const step2 = text.find("== step 2: LDP to 10.0.0.1 loses its vias ==");
  ASSERT_NE(step2, std::string::npos) << text;
  EXPECT_NE(text.find("Unprogrammable tunnels: 2\n", step2), std::string::npos) << text;
  EXPECT_NE(text.find("Decap address table: 3 addresses\n"), std::string::npos) << text;
  EXPECT_NE(text.find("== final state ==\nTunnel RIB: 3 entries, converged: yes\n"), std::string::npos)
      << text;
}

TEST(TunnelAgentBinaryTest, JsonOutputCarriesEveryRequestedView) {
  Result const r = runBinary(
      "run examples/failover.json --json --show tunnel-rib proto-rib unprogrammable rib-dump static-config "
      "decap-groups decap-ips dependents:ldp/1");
  ASSERT_EQ(r.status, exitOk) << r.err;
  auto const report = nlohmann::json::parse(r.out);
  ASSERT_EQ(report["steps"].size(), 5u);
  EXPECT_EQ(report["steps"][3]["applied"], nlohmann::json::array({"restarted the tunnel agent"}));
  EXPECT_EQ(report["initial"]["views"][0]["entries"].size(), 5u);
  auto const& views = report["final"]["views"];
  ASSERT_EQ(views.size(), 8u);
  EXPECT_EQ(views[1]["protocols"]["ldp"].size(), 3u);
  EXPECT_EQ(views[1]["protocols"]["bgpLu"].size(), 3u);
  EXPECT_EQ(views[2]["tunnels"], nlohmann::json::array());
  EXPECT_EQ(views[3]["text"].get<std::string>().rfind("TunnelRib converged false\n  entries #5\n", 0), 0u);
  EXPECT_EQ(views[7]["dependents"][0]["ref"], "bgpLu/1");
}

TEST(TunnelAgentBinaryTest, WritesTheDependencyGraphAndShowsTraceLines) {
  std::string const dot = ::testing::TempDir() + "/edge-cases.dot";
  Result const r = runBinary("run examples/provider-edge.json --show none --trace 1 --dot '" + dot + "'");
  ASSERT_EQ(r.status, exitOk) << r.err;
  // --show none: only the initial views and the step remain.
  EXPECT_EQ(r.out.find("== final state =="), std::string::npos);
  EXPECT_NE(r.err.find("1 setOutputForDecapGroup add merged config entry for core-gre from source cli\n"),
            std::string::npos)
      << r.err;
  EXPECT_NE(
      r.err.find("1 setOutputForDecapGroup remove merged config entry for shared with source count 2\n"),
      std::string::npos);
  std::string const graph = readFile(dot);
  EXPECT_EQ(graph.substr(0, 18), "digraph tunnels {\n");
  EXPECT_NE(graph.find("\"bgpLuPush/1\" -> \"bgpLu/1\" [label=\"[900]\"];"), std::string::npos) << graph;
  EXPECT_NE(graph.find("\"bgpLu/2\" -> \"ldp/2\" [label=\"[100002]\"];"), std::string::npos) << graph;
}

TEST(TunnelAgentBinaryTest, BadInputIsReportedAndNothingRuns) {
  std::string const file = ::testing::TempDir() + "/bad-scenario.json";
  std::ofstream(file)
      << "{\n  \"tables\": {\"ldp\": {\"entries\": [{\"index\": 1, \"tep\": \"10.0.0.1/32\",\n"
         "    \"vias\": [{\"nexthop\": \"10.1.1.2\", \"interface\": \"Ethernet1\", \"labels\": [1, 2, 3, "
         "4, 5, 6, 7]}]}]}},\n"
         "  \"timeline\": [{\"actions\": [{\"action\": \"restartAgent\"}], \"show\": [\"tunnel-ribs\"]}]\n"
         "}\n";
  Result r = runBinary("run '" + file + "'");
  EXPECT_EQ(r.status, exitBadInput);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(
      r.err,
      file +
          ":3:74: error: tables.ldp.entries[0].vias[0].labels: 7 labels; a label stack holds at most 6: "
          "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not "
          "allowed\n" +
          file +
          ":4:67: error: timeline[0].show[0]: unknown view 'tunnel-ribs'; views: tunnel-rib, "
          "proto-rib[:bgpLu|ldp|sr|static], mpls-fib, unprogrammable, dependents:<tunnel>, rib-dump, "
          "static-config, decap-groups, decap-ips\n" +
          file + ": 2 errors; nothing was applied\n");

  r = runBinary("run examples/provider-edge.json --show tunnel-rib nonsense");
  EXPECT_EQ(r.status, exitBadInput);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.substr(0, 49), "tunnel-agent: --show: unknown view 'nonsense'; vi");

  r = runBinary("run examples/provider-edge.json --trace 12");
  EXPECT_EQ(r.status, exitBadInput);
  EXPECT_NE(r.err.find("--trace"), std::string::npos) << r.err;

  r = runBinary("");
  EXPECT_EQ(r.status, exitBadInput);
}

// What the answers hold is ServeTest's business; here, that the program
// reads its standard input and says by its status that a line was rejected.
TEST(TunnelAgentBinaryTest, ServeReadsRequestsFromStandardInputAndBenchReports) {
  Result r = runBinary("serve --json", "{\"show\": [\"tunnel-rib\"]}\nnot json\n");
  EXPECT_EQ(r.status, exitBadInput);
  std::istringstream lines(r.out);
  std::string first, second;
  std::getline(lines, first);
  std::getline(lines, second);
  EXPECT_EQ(nlohmann::json::parse(first)["views"][0]["entries"], nlohmann::json::array());
  EXPECT_EQ(nlohmann::json::parse(second)["line"], 2);

  r = runBinary("bench --ldp 5 --bgp-lu 40 --seed 7 --progress");
  ASSERT_EQ(r.status, exitOk) << r.err;
  auto const report = nlohmann::json::parse(r.out);
  auto const& converge = report["converge"];
  EXPECT_EQ(converge["tunnelRibEntries"], 45);
  EXPECT_EQ(converge["mplsTunnelFibEntries"], 45);
  EXPECT_EQ(converge["unprogrammable"], 0);
  EXPECT_TRUE(converge["endToEnd"].contains("cpuSeconds") && converge["endToEnd"].contains("wallSeconds"));
  auto const& reconverge = report["reconvergeAfterOneLdpChange"];
  EXPECT_GT(reconverge["tunnelsReviewed"].get<int>(), 0);
  EXPECT_EQ(reconverge["tunnelsReviewed"].get<int>(), reconverge["directlyDependentTunnels"].get<int>() + 1);
  EXPECT_GT(report["peakMemoryKiB"].get<long>(), 0);
  EXPECT_NE(r.err.find("reviewing tunnels: "), std::string::npos) << r.err;
}

TEST(RunCommandTest, ScenarioWithoutAllTablesSaysWhatTheAgentWaitsFor) {
  RunOptions options;
  options.clock = Vela::make<Quay::ManualClock>();
  options.show = {"mpls-fib"};
  std::ostringstream out, err;
  EXPECT_EQ(runScenarioText(options, "t.json",
                            R"({"tables": {"ldp": {}, "sr": {}, "static": {}, "bgpLu": {}}})", out, err),
            exitOk);
  EXPECT_EQ(
      err.str(),
      "tunnel-agent: note: no table bgpLuPush in the scenario; the agent waits for it before it builds the "
      "tunnel RIB and FIB\n");
  EXPECT_EQ(
      out.str(),
      "== final state ==\n"
      "MPLS tunnel FIB: 0 tunnels, 0 vias\n"
      "(the tunnel RIB and FIB state machines are stopped: the agent waits for table bgpLuPush; what follows "
      "is the state they left)\n");
}

TEST(RunCommandTest, RemovingAnyTableStopsTheMachinesUntilATableIsAdded) {
  RunOptions options;
  options.clock = Vela::make<Quay::ManualClock>();
  options.show = {"none"};
  std::ostringstream out, err;
  EXPECT_EQ(runScenarioText(options, "t.json", R"({
      "tables": {"ldp": {"entries": [{"index": 1, "tep": "10.0.0.1/32",
                   "vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1"}]}]},
                 "sr": {}, "static": {}, "bgpLu": {}, "bgpLuPush": {}, "srTeSegmentList": {}},
      "timeline": [
        {"actions": [{"action": "removeTable", "table": "srTeSegmentList"},
                     {"action": "addEntry", "table": "ldp", "entry": {"index": 2, "tep": "10.0.0.2/32",
                      "vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1"}]}}],
         "show": ["tunnel-rib"]},
        {"actions": [{"action": "addTable", "table": "srTeSegmentList"}], "show": ["tunnel-rib"]}]})",
                            out, err),
            exitOk)
      << err.str();
  EXPECT_EQ(
      out.str(),
      "== step 1 ==\n"
      "removed table srTeSegmentList\n"
      "added LDP IPv4 Tunnel index 2 to table ldp\n"
      "\n"
      "Tunnel RIB: 1 entry, converged: no\n"
      "(the tunnel RIB and FIB state machines are stopped: a table was removed; they restart when a table is "
      "next added; what follows is the state they left)\n"
      "TEP          Protocol  Tunnel                   Metric  Metric2  Pref  Pref2\n"
      "10.0.0.1/32  LDP       LDP IPv4 Tunnel index 1       0        0     0      0\n"
      "\n"
      "== step 2 ==\n"
      "added table srTeSegmentList (0 entries)\n"
      "\n"
      "Tunnel RIB: 2 entries, converged: no\n"
      "TEP          Protocol  Tunnel                   Metric  Metric2  Pref  Pref2\n"
      "10.0.0.1/32  LDP       LDP IPv4 Tunnel index 1       0        0     0      0\n"
      "10.0.0.2/32  LDP       LDP IPv4 Tunnel index 2       0        0     0      0\n");
}

}  // namespace
