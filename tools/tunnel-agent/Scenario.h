// Scenarios: what tunnel-agent feeds the tunnel agent, read from JSON.
//
// A scenario describes the protocol tunnel tables with their entries, the
// static tunnel configuration, the decapsulation-group sources, and an
// optional timeline of steps that change any of these (or restart the agent)
// and ask for views. docs/scenario-format.md is the reference for the format;
// this file turns the JSON into the library's own values (table entries are
// built here, so what is applied later cannot fail on a malformed value).
//
// Reading is all-or-nothing: readScenario() and readStep() check the whole
// input, collect every problem with the JSON path of the value concerned and
// return nothing usable when any was found. The timeline is checked against a
// Model of the state it will meet (which tables exist, which tunnels are in
// them, which decap sources, groups and addresses, which static entries), so
// that "remove a tunnel that is not there" is found before anything runs.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Decap/DecapGroup.h"
#include "Static/StaticTunnelConfig.h"
#include "TunnelTable/TunnelTable.h"

namespace Tunnel::Tool {

using TunnelTable::TunnelId;
using TunnelTable::TunnelType;

// The six MPLS protocol tunnel tables, in the order they are listed.
enum class TableKind : std::uint8_t { bgpLu, bgpLuPush, ldp, sr, staticMpls, srTeSegmentList };

inline constexpr std::array<TableKind, 6> allTableKinds = {TableKind::bgpLu,      TableKind::bgpLuPush,
                                                           TableKind::ldp,        TableKind::sr,
                                                           TableKind::staticMpls, TableKind::srTeSegmentList};

// The table's name in the scenario and in "tunnel/table/<name>".
std::string_view tableName(TableKind kind);
std::optional<TableKind> tableKindOf(std::string_view name);
std::optional<TableKind> tableKindOf(TunnelType type);
TunnelType tunnelTypeOf(TableKind kind);
// Whether the agent needs the table to start (all but srTeSegmentList).
bool requiredTable(TableKind kind);
// Whether the table's tunnels may carry the IPv6 address-family bit.
bool ipv6Allowed(TableKind kind);

// "ldp/5", "sr/3/ipv6", "nexthop/7": the short form the scenario uses for a
// tunnel; kinds without a table use their kind's name.
std::string tunnelRef(TunnelId id);

// One entry of a protocol table, built as the library's entry value.
struct EntryDef {
  using Value = std::variant<TunnelTable::BgpLuTunnelTableEntry, TunnelTable::BgpLuPushTunnelTableEntry,
                             TunnelTable::LdpSrTunnelTableEntry, TunnelTable::StaticTunnelTableEntry,
                             TunnelTable::SrTeSegmentListTunnelTableEntry>;

  TableKind table = TableKind::ldp;
  Value value;

  TunnelId tunnelId() const;
  Nimbo::IpGenPrefix tep() const;
};

struct TableDef {
  TableKind kind = TableKind::ldp;
  std::optional<TunnelTable::TunnelTablePref> tablePref;
  bool bgpConverged = false;
  std::vector<EntryDef> entries;
};

struct DecapGroupDef {
  std::string name;
  Decap::TunnelType type = Decap::TunnelType::unknown;
  std::vector<Nimbo::IpGenAddr> addresses;
  std::vector<Decap::DecapIntf> interfaces;
};

struct DecapSourceDef {
  std::string name;
  std::vector<DecapGroupDef> groups;
};

// The name of the command-line decap configuration source.
inline constexpr std::string_view cliDecapSource = "cli";

enum class ViewKind : std::uint8_t {
  tunnelRib,
  protoRib,
  mplsFib,
  unprogrammable,
  dependents,
  ribDump,
  staticConfig,
  decapGroups,
  decapIps,
};

struct ViewRequest {
  ViewKind kind = ViewKind::tunnelRib;
  std::string written;                // as written: "dependents:ldp/1"
  std::optional<TableKind> protocol;  // proto-rib:<protocol>
  TunnelId tunnel;                    // dependents:<tunnel>
};

// The view names, for help texts and error messages.
std::vector<std::string> const& viewNames();
// Reads "tunnel-rib", "proto-rib:ldp", "dependents:bgpLu/2", ...; nullopt
// with `error` set when the text names no view.
std::optional<ViewRequest> parseView(std::string_view text, std::string* error);
// The views shown when none are asked for: tunnel-rib and mpls-fib.
std::vector<ViewRequest> defaultViews();

// --- actions: the changes a timeline step (or a serve request) makes ---------------------------

struct AddEntry {
  EntryDef entry;
};
struct ChangeEntry {
  EntryDef entry;
};
struct RemoveEntry {
  TableKind table;
  TunnelId tunnel;
};
struct AddTable {
  TableDef table;
};
struct RemoveTable {
  TableKind table;
};
struct SetBgpConverged {
  bool value;
};
struct AddDecapSource {
  DecapSourceDef source;
};
struct AddDecapGroup {
  std::string source;
  DecapGroupDef group;
};
struct RemoveDecapGroup {
  std::string source;
  std::string group;
};
struct AddDecapAddress {
  std::string source;
  std::string group;
  Nimbo::IpGenAddr address;
};
struct RemoveDecapAddress {
  std::string source;
  std::string group;
  Nimbo::IpGenAddr address;
};
struct AddStaticConfig {
  Static::StaticTunnelConfigEntry entry;
};
struct ChangeStaticConfig {
  Static::StaticTunnelConfigEntry entry;
};
struct RemoveStaticConfig {
  std::string name;
};
struct RestartAgent {};

using Action =
    std::variant<AddEntry, ChangeEntry, RemoveEntry, AddTable, RemoveTable, SetBgpConverged, AddDecapSource,
                 AddDecapGroup, RemoveDecapGroup, AddDecapAddress, RemoveDecapAddress, AddStaticConfig,
                 ChangeStaticConfig, RemoveStaticConfig, RestartAgent>;

// One line saying what the action does ("added LDP IPv4 Tunnel index 5 to ldp").
std::string describe(Action const& action);

struct Step {
  std::string name;
  std::vector<Action> actions;
  std::vector<ViewRequest> show;
};

struct Scenario {
  std::string description;
  std::vector<TableDef> tables;
  std::vector<Static::StaticTunnelConfigEntry> staticConfig;
  std::vector<DecapGroupDef> cliDecap;
  std::vector<DecapSourceDef> dynamicDecap;
  // Views after the initial state is loaded.
  std::vector<ViewRequest> show;
  std::vector<Step> timeline;
};

// What exists at some point of a scenario; actions are checked against it.
struct Model {
  std::map<TableKind, std::set<TunnelId>> tables;
  // Decap sources ("cli" included) -> group -> addresses.
  std::map<std::string, std::map<std::string, std::set<Nimbo::IpGenAddr>>> decapSources;
  std::set<std::string> staticConfig;

  // The state right after the scenario's initial part is loaded.
  static Model of(Scenario const& scenario);
  // Applies an action that was found valid.
  void apply(Action const& action);
  // The required tables that are absent (the agent waits for them).
  std::vector<TableKind> missingRequiredTables() const;
};

struct Diagnostic {
  std::string path;
  std::string message;
  // The problem is the key itself (an unknown field), not its value.
  bool atKey = false;
};

using Diagnostics = std::vector<Diagnostic>;

// Reads and checks a whole scenario. Returns nullopt when `diagnostics` got
// anything (it may already hold entries; only new ones count).
std::optional<Scenario> readScenario(nlohmann::json const& document, Diagnostics& diagnostics);

// Reads and checks one step (a timeline step, or one serve request) against
// `model`, which is advanced by the step's actions when the step is valid.
// `path` is the step's path ("timeline[2]", or "" for a serve request).
std::optional<Step> readStep(nlohmann::json const& step, std::string const& path, Model& model,
                             Diagnostics& diagnostics);

}  // namespace Tunnel::Tool
