// Positions in JSON texts: byte offsets and value paths to line and column.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "tools/tunnel-agent/JsonSource.h"

namespace {

using namespace Tunnel::Tool;

std::string at(SourcePosition p) { return std::to_string(p.line) + ":" + std::to_string(p.column); }

TEST(JsonSourceTest, PathsReadAsOperatorsWriteThem) {
  EXPECT_EQ(indexPath(childPath(childPath("", "tables"), "entries"), 3), "tables.entries[3]");
  EXPECT_EQ(childPath("decap", "my source"), "decap[\"my source\"]");
  EXPECT_EQ(childPath("", "2x"), "[\"2x\"]");
}

TEST(JsonSourceTest, OffsetsBecomeLinesAndCharacterColumns) {
  std::string const text = "{\n  \"a\": \"\xc3\xa9t\xc3\xa9\",\n  \"b\": 1\n}";
  EXPECT_EQ(at(positionOfOffset(text, 0)), "1:1");
  EXPECT_EQ(at(positionOfOffset(text, 4)), "2:3");
  // Two-byte characters count once: "b" is on line 3 whatever came before.
  EXPECT_EQ(at(positionOfOffset(text, text.find("\"b\""))), "3:3");
  EXPECT_EQ(at(positionOfOffset(text, text.find('t'))), "2:10");
  EXPECT_EQ(at(positionOfOffset(text, 10'000)), "4:2");
}

TEST(JsonSourceTest, AgreesWithTheParsersOwnPositionOfASyntaxError) {
  for (std::string const text :
       {"{\n  \"a\": [1,\n   2,,\n]}", "{\"x\": tru }", "[\n\n  {\"k\" 1}]", "{\"a\": \"\xc3\xa9\" 1}"}) {
    try {
      auto const parsed = nlohmann::json::parse(text);
      ADD_FAILURE() << parsed.dump();
    } catch (nlohmann::json::parse_error const& e) {
      std::smatch m;
      std::string const what = e.what();
      ASSERT_TRUE(std::regex_search(what, m, std::regex("line ([0-9]+), column ([0-9]+)"))) << what;
      SourcePosition const pos = positionOfOffset(text, e.byte - 1);
      EXPECT_EQ(std::to_string(pos.line), m[1].str()) << text;
      // The parser counts bytes; we count characters.
      if (text.find('\xc3') == std::string::npos) {
        EXPECT_EQ(std::to_string(pos.column), m[2].str()) << text;
      }
    }
  }
}

TEST(JsonSourceTest, MapsEveryValueAndKeyAndFindsDuplicateKeys) {
  std::string const text =
      "{\n"
      "  \"tables\": {\"ldp\": {\"entries\": [\n"
      "    {\"index\": 1, \"vias\": [{\"labels\": [16, 17]}]},\n"
      "    {\"index\": 2, \"a\\\"b\": true, \"index\": 3}\n"
      "  ]}},\n"
      "  \"caf\\u00e9\": null\n"
      "}\n";
  JsonSourceMap const map(text);
  EXPECT_EQ(at(map.value("")), "1:1");
  EXPECT_EQ(at(map.value("tables.ldp.entries")), "2:33");
  EXPECT_EQ(at(map.value("tables.ldp.entries[0].vias[0].labels[1]")), "3:43");
  EXPECT_EQ(at(map.key("tables.ldp.entries[0].index")), "3:6");
  EXPECT_EQ(at(map.value("tables.ldp.entries[0].index")), "3:15");
  EXPECT_EQ(at(map.key("tables.ldp.entries[1][\"a\\\"b\"]")), "4:18");
  EXPECT_EQ(at(map.key("[\"caf\xc3\xa9\"]")), "6:3");
  EXPECT_FALSE(map.value("tables.sr").known());
  EXPECT_EQ(map.duplicateKeys(), std::vector<std::string>{"tables.ldp.entries[1].index"});
}

}  // namespace
