// What tunnel-agent shows of a running Lab.
//
// Every view reads the library's own entities (the tunnel RIBs, the MPLS
// tunnel FIB, the unprogrammable set, the FIB state machine's dependency map,
// the static configuration, the merged decap configuration and the
// simulator's address table) and lays them out for an operator: one title
// line, then aligned columns, tunnels in their CLI form ("LDP IPv4 Tunnel
// index 1"), label stacks as "[16 3000]". Rows are sorted (TEPs and addresses
// in address order, tunnels by id) so that the output is the same on every
// run. Each view has a JSON form with the same content.
//
// The one thing computed here rather than read is why an unprogrammable
// tunnel resolves to nothing: explainUnprogrammable() looks at the tunnel's
// table entry, the tables it rides on and the FIB, beside what the state
// machine decided, and changes nothing.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/tunnel-agent/Lab.h"
#include "tools/tunnel-agent/Scenario.h"

namespace Tunnel::Tool {

struct ViewOutput {
  std::string text;  // ends with a newline
  nlohmann::json json;
};

ViewOutput renderView(Lab const& lab, ViewRequest const& view);

// Why an unprogrammable tunnel has no via, one reason per kind of failure
// found among its vias.
struct UnprogrammableReason {
  // noVia, cycle, innerMissing, innerWithoutFibEntry, innerUnprocessed,
  // labelStackTooLarge, notYetReviewed
  std::string kind;
  std::string text;
};
std::vector<UnprogrammableReason> explainUnprogrammable(Lab const& lab, TunnelId id);

// The tunnel dependency graph in Graphviz DOT: an edge from each tunnel to
// every tunnel one of its vias rides on, unprogrammable tunnels in red,
// tunnels that are in no table dashed.
std::string renderDot(Lab const& lab);

// "[16 3000]"; an operation other than push is named first ("swap [100]").
std::string labelText(Nimbo::MplsLabelOperation const& labels);

// Columns separated by two blanks; right-aligned columns for numbers.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header, std::vector<bool> rightAligned = {});
  void row(std::vector<std::string> cells);
  bool empty() const { return rows_.empty(); }
  // The header and the rows, each line ending in a newline, no trailing blanks.
  std::string render() const;

 private:
  std::vector<std::string> header_;
  std::vector<bool> right_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace Tunnel::Tool
