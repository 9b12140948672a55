// tunnel-agent serve: one answer per request line, rejected lines change
// nothing, and the stream goes on.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tools/tunnel-agent/Commands.h"

namespace {

using namespace Tunnel::Tool;

struct Served {
  int status;
  std::string out;
  std::string err;
};

Served serve(std::string const& input, bool json = false, std::optional<std::string> file = std::nullopt) {
  ServeOptions options;
  options.json = json;
  options.file = std::move(file);
  options.clock = Vela::make<Quay::ManualClock>();
  std::istringstream in(input);
  std::ostringstream out, err;
  int const status = serveCommand(options, in, out, err);
  return {status, out.str(), err.str()};
}

std::string const addLdp1 =
    R"({"actions": [{"action": "addEntry", "table": "ldp", "entry": {"index": 1, "tep": "10.0.0.1/32", )"
    R"("vias": [{"nexthop": "10.1.1.2", "interface": "Ethernet1", "labels": [3001]}]}}]})";

TEST(ServeTest, ARejectedLineAppliesNothingAndTheStreamGoesOn) {
  // Line 4's first action is valid alone; its second is not, so neither is
  // applied. The requests after it still run. 1e999 is valid JSON syntax but
  // no double holds it: bad input, never an escaped exception.
  Served const s = serve(
      addLdp1 +
      "\n"
      "\n"
      "# blank lines and comments are skipped, and counted\n"
      R"({"actions": [{"action": "removeEntry", "tunnel": "ldp/1"}, )"
      R"({"action": "addEntry", "table": "sr", "entry": {"index": 1, "ipv6": true, "tep": "::1/128", "igpMetric": -2}}]})"
      "\n"
      R"({"show": ["tunnel-rib"], "actions": [{"action": "removeEntry", "tunnel": "ldp/9"}]})"
      "\n"
      R"({"show": ["tunnel-rib"])"
      "\n"
      R"({"show": ["tunnel-rib"], "colour": 1})"
      "\n"
      R"({"show": [1e999]})"
      "\n"
      R"({"show": ["mpls-fib"]})"
      "\n");
  EXPECT_EQ(s.status, exitBadInput);
  EXPECT_EQ(s.out,
            "line 1: ok, 1 change applied\n"
            "  added LDP IPv4 Tunnel index 1 to table ldp\n"
            "\n"
            "line 4: rejected, nothing applied\n"
            "  column 165: actions[1].entry.igpMetric: expected an unsigned integer, got -2\n"
            "\n"
            "line 5: rejected, nothing applied\n"
            "  column 74: actions[0].tunnel: tunnel ldp/9 is not in table ldp\n"
            "\n"
            "line 6: rejected, nothing applied\n"
            "  column 24: not valid JSON: syntax error while parsing object - unexpected end of input; "
            "expected '}'\n"
            "\n"
            "line 7: rejected, nothing applied\n"
            "  column 26: colour: unknown field 'colour' in a step; fields: name, actions, show\n"
            "\n"
            "line 8: rejected, nothing applied\n"
            "  not valid JSON: number overflow parsing '1e999'\n"
            "\n"
            "line 9: ok\n"
            "\n"
            "MPLS tunnel FIB: 1 tunnel, 1 via\n"
            "Tunnel                   Nexthop   Interface  Labels\n"
            "LDP IPv4 Tunnel index 1  10.1.1.2  Ethernet1  [3001]\n"
            "\n");
  EXPECT_EQ(s.err, "");
}

TEST(ServeTest, JsonAnswersAreOneObjectPerLine) {
  // A stray byte: the parser's message quotes it, and the answer must still
  // be printable JSON.
  Served const s = serve("\xb9\n" + addLdp1 + "\n" + R"({"actions": [{"action": "bgpConverged"}]})" + "\n" +
                             R"({"show": ["dependents:ldp/1", "decap-ips"]})" + "\n",
                         true);
  EXPECT_EQ(s.status, exitBadInput);
  std::istringstream lines(s.out);
  std::string line;
  std::vector<nlohmann::json> answers;
  while (std::getline(lines, line)) answers.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(answers.size(), 4u);
  EXPECT_EQ(answers[0]["line"], 1);
  EXPECT_EQ(answers[0]["ok"], false);
  EXPECT_EQ(answers[1]["line"], 2);
  EXPECT_EQ(answers[1]["ok"], true);
  EXPECT_EQ(answers[1]["applied"], nlohmann::json::array({"added LDP IPv4 Tunnel index 1 to table ldp"}));
  EXPECT_EQ(answers[2]["ok"], false);
  EXPECT_EQ(answers[2]["errors"][0]["path"], "actions[0]");
  EXPECT_EQ(answers[2]["errors"][0]["message"], "a bgpConverged action needs \"value\"");
  EXPECT_EQ(answers[2]["errors"][0]["column"], 14);
  EXPECT_EQ(answers[3]["views"][0]["view"], "dependents:ldp/1");
  EXPECT_EQ(answers[3]["views"][0]["dependents"], nlohmann::json::array());
  EXPECT_EQ(answers[3]["views"][1]["addresses"], nlohmann::json::array());
}

TEST(ServeTest, StartsFromAScenarioFileWithoutPlayingItsTimeline) {
  Served s = serve(
      R"({"show": ["unprogrammable"]})"
      "\n"
      R"({"actions": [{"action": "changeEntry", "table": "ldp", "entry": {"index": 3, "tep": "10.0.0.3/32"}}], "show": ["unprogrammable"]})"
      "\n",
      false, std::string(TUNNEL_SOURCE_DIR) + "/examples/failover.json");
  EXPECT_EQ(s.status, exitOk) << s.err;
  EXPECT_EQ(s.out,
            "line 1: ok\n"
            "\n"
            "Unprogrammable tunnels: none\n"
            "\n"
            "line 2: ok, 1 change applied\n"
            "  changed LDP IPv4 Tunnel index 3 in table ldp\n"
            "\n"
            "Unprogrammable tunnels: 3\n"
            "Tunnel                      TEP             Reason\n"
            "BGP LU IPv4 Tunnel index 2  192.168.3.1/32  it rides on LDP IPv4 Tunnel index 3, which has no "
            "FIB entry (unprogrammable itself)\n"
            "BGP LU IPv4 Tunnel index 3  192.168.3.2/32  it rides on LDP IPv4 Tunnel index 3, which has no "
            "FIB entry (unprogrammable itself)\n"
            "LDP IPv4 Tunnel index 3     10.0.0.3/32     its entry has no via\n"
            "\n");

  // A bad scenario file stops before any request.
  s = serve(addLdp1 + "\n", false, std::string(TUNNEL_SOURCE_DIR) + "/examples/no-such-file.json");
  EXPECT_EQ(s.status, exitBadInput);
  EXPECT_EQ(s.out, "");
  EXPECT_NE(s.err.find("cannot read"), std::string::npos);

  // A number no double holds, in a scenario text.
  RunOptions options;
  options.clock = Vela::make<Quay::ManualClock>();
  std::ostringstream out, err;
  EXPECT_EQ(runScenarioText(options, "big.json", R"({"tables": {"ldp": {"entries": [{"index": 1e999}]}}})",
                            out, err),
            exitBadInput);
  EXPECT_EQ(
      err.str(),
      "big.json: error: number overflow parsing '1e999'\nbig.json: not valid JSON; nothing was applied\n");
}

}  // namespace
