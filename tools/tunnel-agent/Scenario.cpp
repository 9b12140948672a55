#include "tools/tunnel-agent/Scenario.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "TunnelTable/TunnelIntfId.h"
#include "framework/Vela/Enum.h"
#include "framework/Vela/Exception.h"
#include "tools/tunnel-agent/JsonSource.h"

namespace Tunnel::Tool {

using Json = nlohmann::json;
using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::IpGenPrefix;
using Nimbo::MplsLabelOperation;
using TunnelTable::ContributionToTunnelRIB;
using TunnelTable::MplsVia;
using TunnelTable::TunnelTablePref;
using TunnelTable::Via;

// --- tables and tunnel references ----------------------------------------------------------------

std::string_view tableName(TableKind kind) {
  switch (kind) {
    case TableKind::bgpLu:
      return "bgpLu";
    case TableKind::bgpLuPush:
      return "bgpLuPush";
    case TableKind::ldp:
      return "ldp";
    case TableKind::sr:
      return "sr";
    case TableKind::staticMpls:
      return "static";
    case TableKind::srTeSegmentList:
      return "srTeSegmentList";
  }
  return "?";
}

std::optional<TableKind> tableKindOf(std::string_view name) {
  for (TableKind kind : allTableKinds) {
    if (tableName(kind) == name) return kind;
  }
  return std::nullopt;
}

TunnelType tunnelTypeOf(TableKind kind) {
  switch (kind) {
    case TableKind::bgpLu:
      return TunnelType::bgpLuTunnel;
    case TableKind::bgpLuPush:
      return TunnelType::bgpLuPushTunnel;
    case TableKind::ldp:
      return TunnelType::ldpTunnel;
    case TableKind::sr:
      return TunnelType::srTunnel;
    case TableKind::staticMpls:
      return TunnelType::staticTunnel;
    case TableKind::srTeSegmentList:
      return TunnelType::srTeSegmentListTunnel;
  }
  return TunnelType::invalidTunnel;
}

std::optional<TableKind> tableKindOf(TunnelType type) {
  for (TableKind kind : allTableKinds) {
    if (tunnelTypeOf(kind) == type) return kind;
  }
  return std::nullopt;
}

bool requiredTable(TableKind kind) { return kind != TableKind::srTeSegmentList; }

bool ipv6Allowed(TableKind kind) {
  return kind == TableKind::staticMpls || kind == TableKind::sr || kind == TableKind::srTeSegmentList;
}

namespace {

// The short kind name of a tunnel type that has no table of its own.
std::string kindName(TunnelType type) {
  if (auto kind = tableKindOf(type)) return std::string(tableName(*kind));
  std::string name = Vela::enumName(type);
  if (name.size() > 6 && name.ends_with("Tunnel")) return name.substr(0, name.size() - 6);
  return "type" + name;  // 10 to 14 print as their number
}

bool isV6(TunnelId id) { return (id.value() & TunnelTable::tunnelAfMask()) != 0; }

}  // namespace

std::string tunnelRef(TunnelId id) {
  std::string ref = kindName(id.tunnelType()) + "/" + std::to_string(id.tunnelIndex());
  if (isV6(id)) ref += "/ipv6";
  return ref;
}

TunnelId EntryDef::tunnelId() const {
  return std::visit([](auto const& e) { return e.tunnelId(); }, value);
}

Nimbo::IpGenPrefix EntryDef::tep() const {
  return std::visit([](auto const& e) { return e.tep(); }, value);
}

// --- views ------------------------------------------------------------------------------------

namespace {

struct ViewName {
  ViewKind kind;
  std::string_view name;
};

constexpr ViewName kViewNames[] = {
    {ViewKind::tunnelRib, "tunnel-rib"},       {ViewKind::protoRib, "proto-rib"},
    {ViewKind::mplsFib, "mpls-fib"},           {ViewKind::unprogrammable, "unprogrammable"},
    {ViewKind::dependents, "dependents"},      {ViewKind::ribDump, "rib-dump"},
    {ViewKind::staticConfig, "static-config"}, {ViewKind::decapGroups, "decap-groups"},
    {ViewKind::decapIps, "decap-ips"},
};

// Reads "<kind>/<index>[/ipv6]"; `nexthopAllowed` admits "nexthop/<index>".
std::optional<TunnelId> parseTunnelText(std::string_view text, bool nexthopAllowed, std::string* error);

}  // namespace

std::vector<std::string> const& viewNames() {
  static std::vector<std::string> const names = {"tunnel-rib",
                                                 "proto-rib[:bgpLu|ldp|sr|static]",
                                                 "mpls-fib",
                                                 "unprogrammable",
                                                 "dependents:<tunnel>",
                                                 "rib-dump",
                                                 "static-config",
                                                 "decap-groups",
                                                 "decap-ips"};
  return names;
}

std::optional<ViewRequest> parseView(std::string_view text, std::string* error) {
  auto const colon = text.find(':');
  std::string_view const name = text.substr(0, colon);
  std::string_view const arg = colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
  ViewRequest view;
  view.written = std::string(text);
  auto known = std::find_if(std::begin(kViewNames), std::end(kViewNames),
                            [&](ViewName const& v) { return v.name == name; });
  if (known == std::end(kViewNames)) {
    std::string list;
    for (auto const& n : viewNames()) list += (list.empty() ? "" : ", ") + n;
    *error = "unknown view '" + std::string(text) + "'; views: " + list;
    return std::nullopt;
  }
  view.kind = known->kind;
  bool const hasArg = colon != std::string_view::npos;
  if (view.kind == ViewKind::protoRib) {
    if (hasArg) {
      auto kind = tableKindOf(arg);
      if (!kind || !TunnelTable::contributeToTunnelRib(tunnelTypeOf(*kind))) {
        *error = "proto-rib: unknown protocol '" + std::string(arg) + "'; protocols: bgpLu, ldp, sr, static";
        return std::nullopt;
      }
      view.protocol = kind;
    }
  } else if (view.kind == ViewKind::dependents) {
    if (!hasArg) {
      *error = "dependents needs a tunnel: dependents:<table>/<index>, e.g. dependents:ldp/1";
      return std::nullopt;
    }
    std::string why;
    auto id = parseTunnelText(arg, false, &why);
    if (!id) {
      *error = "dependents: " + why;
      return std::nullopt;
    }
    view.tunnel = *id;
  } else if (hasArg) {
    *error = "view '" + std::string(name) + "' takes no argument";
    return std::nullopt;
  }
  return view;
}

std::vector<ViewRequest> defaultViews() {
  std::string ignored;
  return {*parseView("tunnel-rib", &ignored), *parseView("mpls-fib", &ignored)};
}

// --- actions ----------------------------------------------------------------------------------

namespace {

template <class... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

std::string plural(std::size_t n, std::string_view word) {
  return std::to_string(n) + " " + std::string(word) + (n == 1 ? "" : "s");
}

}  // namespace

std::string describe(Action const& action) {
  return std::visit(
      Overloaded{
          [](AddEntry const& a) {
            return "added " + a.entry.tunnelId().toCliStrep() + " to table " +
                   std::string(tableName(a.entry.table));
          },
          [](ChangeEntry const& a) {
            return "changed " + a.entry.tunnelId().toCliStrep() + " in table " +
                   std::string(tableName(a.entry.table));
          },
          [](RemoveEntry const& a) {
            return "removed " + a.tunnel.toCliStrep() + " from table " + std::string(tableName(a.table));
          },
          [](AddTable const& a) {
            return "added table " + std::string(tableName(a.table.kind)) + " (" +
                   std::to_string(a.table.entries.size()) +
                   (a.table.entries.size() == 1 ? " entry)" : " entries)");
          },
          [](RemoveTable const& a) { return "removed table " + std::string(tableName(a.table)); },
          [](SetBgpConverged const& a) {
            return std::string("set bgpConverged of table bgpLu to ") + (a.value ? "true" : "false");
          },
          [](AddDecapSource const& a) {
            return "added decap source " + a.source.name + " (" + plural(a.source.groups.size(), "group") +
                   ")";
          },
          [](AddDecapGroup const& a) {
            return "added decap group " + a.group.name + " to source " + a.source;
          },
          [](RemoveDecapGroup const& a) {
            return "removed decap group " + a.group + " from source " + a.source;
          },
          [](AddDecapAddress const& a) {
            return "added address " + a.address.toStrep() + " to decap group " + a.group + " of source " +
                   a.source;
          },
          [](RemoveDecapAddress const& a) {
            return "removed address " + a.address.toStrep() + " from decap group " + a.group + " of source " +
                   a.source;
          },
          [](AddStaticConfig const& a) { return "added static tunnel configuration " + a.entry.name(); },
          [](ChangeStaticConfig const& a) { return "changed static tunnel configuration " + a.entry.name(); },
          [](RemoveStaticConfig const& a) { return "removed static tunnel configuration " + a.name; },
          [](RestartAgent const&) { return std::string("restarted the tunnel agent"); },
      },
      action);
}

// --- the model --------------------------------------------------------------------------------

Model Model::of(Scenario const& scenario) {
  Model model;
  for (auto const& table : scenario.tables) {
    auto& ids = model.tables[table.kind];
    for (auto const& entry : table.entries) ids.insert(entry.tunnelId());
  }
  auto& cli = model.decapSources[std::string(cliDecapSource)];
  for (auto const& group : scenario.cliDecap) {
    cli[group.name].insert(group.addresses.begin(), group.addresses.end());
  }
  for (auto const& source : scenario.dynamicDecap) {
    auto& groups = model.decapSources[source.name];
    for (auto const& group : source.groups)
      groups[group.name].insert(group.addresses.begin(), group.addresses.end());
  }
  for (auto const& entry : scenario.staticConfig) model.staticConfig.insert(entry.name());
  return model;
}

void Model::apply(Action const& action) {
  std::visit(Overloaded{
                 [&](AddEntry const& a) { tables[a.entry.table].insert(a.entry.tunnelId()); },
                 [&](ChangeEntry const&) {},
                 [&](RemoveEntry const& a) { tables[a.table].erase(a.tunnel); },
                 [&](AddTable const& a) {
                   auto& ids = tables[a.table.kind];
                   for (auto const& entry : a.table.entries) ids.insert(entry.tunnelId());
                 },
                 [&](RemoveTable const& a) { tables.erase(a.table); },
                 [&](SetBgpConverged const&) {},
                 [&](AddDecapSource const& a) {
                   auto& groups = decapSources[a.source.name];
                   for (auto const& g : a.source.groups)
                     groups[g.name].insert(g.addresses.begin(), g.addresses.end());
                 },
                 [&](AddDecapGroup const& a) {
                   decapSources[a.source][a.group.name].insert(a.group.addresses.begin(),
                                                               a.group.addresses.end());
                 },
                 [&](RemoveDecapGroup const& a) { decapSources[a.source].erase(a.group); },
                 [&](AddDecapAddress const& a) { decapSources[a.source][a.group].insert(a.address); },
                 [&](RemoveDecapAddress const& a) { decapSources[a.source][a.group].erase(a.address); },
                 [&](AddStaticConfig const& a) { staticConfig.insert(a.entry.name()); },
                 [&](ChangeStaticConfig const&) {},
                 [&](RemoveStaticConfig const& a) { staticConfig.erase(a.name); },
                 [&](RestartAgent const&) {},
             },
             action);
}

std::vector<TableKind> Model::missingRequiredTables() const {
  std::vector<TableKind> missing;
  for (TableKind kind : allTableKinds) {
    if (requiredTable(kind) && !tables.count(kind)) missing.push_back(kind);
  }
  return missing;
}

// --- reading ----------------------------------------------------------------------------------

namespace {

constexpr std::uint64_t kMaxIndex = TunnelTable::tunnelIndexMask();

std::string kindOfJson(Json const& j) {
  switch (j.type()) {
    case Json::value_t::object:
      return "an object";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::string:
      return "a string";
    case Json::value_t::boolean:
      return "a boolean";
    case Json::value_t::null:
      return "null";
    default:
      return "a number";
  }
}

// The value as written, shortened for messages.
std::string shown(Json const& j) {
  std::string text = jsonText(j);
  if (text.size() > 40) text = text.substr(0, 37) + "...";
  return text;
}

std::string joined(std::vector<std::string_view> const& items) {
  std::string out;
  for (auto item : items) {
    if (!out.empty()) out += ", ";
    out += item;
  }
  return out;
}

std::optional<TunnelId> tunnelIdOf(TunnelType type, std::uint64_t index, bool ipv6, std::string* error) {
  if (index > kMaxIndex) {
    std::string why = "tunnel index " + std::to_string(index) + " out of range (0 to " +
                      std::to_string(kMaxIndex) + "; bit 43 is the address-family bit)";
    try {
      (void)TunnelId::convertToTunnelValue(type, index);
    } catch (Vela::RangeException const& e) {
      why = "tunnel index " + std::to_string(index) + " out of range: " + e.what();
    }
    *error = why;
    return std::nullopt;
  }
  return TunnelId(TunnelId::convertToTunnelValue(type, index | (ipv6 ? TunnelTable::tunnelAfMask() : 0)));
}

std::optional<TunnelId> parseTunnelText(std::string_view text, bool nexthopAllowed, std::string* error) {
  std::string const example = "write a tunnel as <table>/<index>, e.g. \"ldp/5\" or \"sr/3/ipv6\"";
  auto const slash = text.find('/');
  if (slash == std::string_view::npos) {
    *error = "malformed tunnel '" + std::string(text) + "': " + example;
    return std::nullopt;
  }
  std::string_view const kindText = text.substr(0, slash);
  std::string_view rest = text.substr(slash + 1);
  bool ipv6 = false;
  if (auto const slash2 = rest.find('/'); slash2 != std::string_view::npos) {
    if (rest.substr(slash2 + 1) != "ipv6") {
      *error = "malformed tunnel '" + std::string(text) + "': only \"/ipv6\" may follow the index";
      return std::nullopt;
    }
    ipv6 = true;
    rest = rest.substr(0, slash2);
  }
  TunnelType type;
  if (auto kind = tableKindOf(kindText)) {
    type = tunnelTypeOf(*kind);
    if (ipv6 && !ipv6Allowed(*kind)) {
      *error = "tunnel '" + std::string(text) + "': table " + std::string(kindText) +
               " has no IPv6 tunnels (only static, sr and srTeSegmentList have)";
      return std::nullopt;
    }
  } else if (nexthopAllowed && kindText == "nexthop" && !ipv6) {
    type = TunnelType::nexthopTunnel;
  } else {
    *error = "unknown table '" + std::string(kindText) + "' in tunnel '" + std::string(text) +
             "'; tables: bgpLu, bgpLuPush, ldp, sr, static, srTeSegmentList" +
             (nexthopAllowed ? ", nexthop" : "");
    return std::nullopt;
  }
  std::uint64_t index = 0;
  auto const [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), index);
  if (rest.empty() || ec == std::errc::invalid_argument || end != rest.data() + rest.size()) {
    *error = "malformed tunnel '" + std::string(text) + "': the index must be a decimal number";
    return std::nullopt;
  }
  if (ec == std::errc::result_out_of_range) {
    *error = "tunnel index " + std::string(rest) + " out of range (0 to " + std::to_string(kMaxIndex) + ")";
    return std::nullopt;
  }
  return tunnelIdOf(type, index, ipv6, error);
}

// Reads JSON values into library values, collecting problems by path.
class Reader {
 public:
  explicit Reader(Diagnostics& diagnostics) : d_(diagnostics), start_(diagnostics.size()) {}

  bool ok() const { return d_.size() == start_; }
  std::size_t mark() const { return d_.size(); }
  bool okSince(std::size_t mark) const { return d_.size() == mark; }

  void error(std::string path, std::string message, bool atKey = false) {
    d_.push_back({std::move(path), std::move(message), atKey});
  }

  // Checks that `j` is an object whose keys are all in `fields`.
  bool object(Json const& j, std::string const& path, std::string_view what,
              std::vector<std::string_view> const& fields) {
    if (!j.is_object()) {
      error(path, "expected " + std::string(what) + " (an object), got " + kindOfJson(j));
      return false;
    }
    for (auto const& [key, value] : j.items()) {
      if (std::find(fields.begin(), fields.end(), key) == fields.end()) {
        error(childPath(path, key),
              "unknown field '" + key + "' in " + std::string(what) + "; fields: " + joined(fields), true);
      }
    }
    return true;
  }

  bool array(Json const& j, std::string const& path, std::string_view what) {
    if (j.is_array()) return true;
    error(path, "expected " + std::string(what) + " (an array), got " + kindOfJson(j));
    return false;
  }

  std::optional<std::uint64_t> unsignedValue(Json const& j, std::string const& path, std::uint64_t max) {
    if (j.is_number_unsigned()) {
      std::uint64_t const v = j.get<std::uint64_t>();
      if (v > max) {
        error(path, std::to_string(v) + " out of range (0 to " + std::to_string(max) + ")");
        return std::nullopt;
      }
      return v;
    }
    // Integers beyond 64 bits reach us as floating-point numbers.
    if (j.is_number_float() && j.get<double>() >= 18446744073709551616.0) {
      error(path, shown(j) + " out of range (0 to " + std::to_string(max) + ")");
      return std::nullopt;
    }
    error(path, "expected an unsigned integer, got " + (j.is_number() ? shown(j) : kindOfJson(j)));
    return std::nullopt;
  }

  std::optional<bool> boolean(Json const& j, std::string const& path) {
    if (j.is_boolean()) return j.get<bool>();
    error(path, "expected true or false, got " + kindOfJson(j));
    return std::nullopt;
  }

  std::optional<std::string> string(Json const& j, std::string const& path, bool allowEmpty = false) {
    if (!j.is_string()) {
      error(path, "expected a string, got " + kindOfJson(j));
      return std::nullopt;
    }
    std::string s = j.get<std::string>();
    if (s.empty() && !allowEmpty) {
      error(path, "must not be empty");
      return std::nullopt;
    }
    return s;
  }

  std::optional<IpGenAddr> address(Json const& j, std::string const& path) {
    auto text = string(j, path);
    if (!text) return std::nullopt;
    try {
      return IpGenAddr::fromStrep(*text);
    } catch (Vela::RangeException const& e) {
      error(path, e.what());
      return std::nullopt;
    }
  }

  std::optional<IpGenPrefix> prefix(Json const& j, std::string const& path) {
    auto text = string(j, path);
    if (!text) return std::nullopt;
    try {
      return IpGenPrefix::fromStrep(*text);
    } catch (Vela::RangeException const& e) {
      error(path, e.what());
      return std::nullopt;
    }
  }

  std::optional<IntfId> interface(Json const& j, std::string const& path) {
    auto text = string(j, path);
    if (!text) return std::nullopt;
    IntfId intf;
    try {
      intf = IntfId::fromStrep(*text);
    } catch (Vela::RangeException const& e) {
      error(path, e.what());
      return std::nullopt;
    }
    if (Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(intf)) {
      TunnelId const inner(Nimbo::DynamicTunnelIntfId::tunnelId(intf));
      if (!tableKindOf(inner.tunnelType())) {
        error(path, "'" + *text + "' is the dynamic tunnel interface of tunnel id " +
                        std::to_string(inner.value()) + " (" + Vela::enumName(inner.tunnelType()) +
                        "), which no MPLS table holds");
        return std::nullopt;
      }
    }
    return intf;
  }

  // An array of labels to push, or a label operation in its text form ("pop", "swap 100").
  std::optional<MplsLabelOperation> labels(Json const& j, std::string const& path) {
    if (j.is_string()) {
      try {
        return MplsLabelOperation::fromStrep(j.get<std::string>());
      } catch (Vela::RangeException const& e) {
        error(path, e.what());
        return std::nullopt;
      }
    }
    if (!j.is_array()) {
      error(path, "expected labels (an array of labels to push, or an operation such as \"swap 100\"), got " +
                      kindOfJson(j));
      return std::nullopt;
    }
    MplsLabelOperation op;
    op.operationIs(Nimbo::MplsAction::push);
    std::size_t const start = mark();
    for (std::size_t i = 0; i < j.size(); ++i) {
      std::string const labelPath = indexPath(path, i);
      auto label = unsignedValue(j[i], labelPath, std::numeric_limits<std::uint32_t>::max());
      if (!label) continue;
      if (*label > MplsLabelOperation::maxLabel) {
        error(labelPath, "label " + std::to_string(*label) + " out of range (0 to 1048575): " +
                             libraryText([&] { op.labelIs(0, static_cast<std::uint32_t>(*label)); }));
        continue;
      }
      if (op.stackSize() < MplsLabelOperation::maxStackSize) op.push(static_cast<std::uint32_t>(*label));
    }
    if (j.size() > MplsLabelOperation::maxStackSize) {
      error(path, std::to_string(j.size()) +
                      " labels; a label stack holds at most 6: " + libraryText([&] { op.push(0); }));
      return std::nullopt;
    }
    if (!okSince(start)) return std::nullopt;
    return op;
  }

  // A tunnel: "<table>/<index>[/ipv6]" or the tunnel id's decimal value.
  std::optional<TunnelId> tunnel(Json const& j, std::string const& path, bool nexthopAllowed) {
    if (j.is_string()) {
      std::string why;
      auto id = parseTunnelText(j.get<std::string>(), nexthopAllowed, &why);
      if (!id) error(path, why);
      return id;
    }
    if (j.is_number_unsigned()) return rawTunnelId(j.get<std::uint64_t>(), path);
    error(path, "expected a tunnel such as \"ldp/5\" (or a tunnel id value), got " +
                    (j.is_number() ? shown(j) : kindOfJson(j)));
    return std::nullopt;
  }

  std::optional<TunnelId> rawTunnelId(std::uint64_t value, std::string const& path) {
    if (value == 0) {
      error(path, "tunnel id 0 is the invalid tunnel id");
      return std::nullopt;
    }
    try {
      return TunnelId(value);
    } catch (Vela::RangeException const& e) {
      error(path, "tunnel id " + std::to_string(value) + ": " + e.what());
      return std::nullopt;
    }
  }

  template <class E>
  std::optional<E> enumerator(Json const& j, std::string const& path, std::string_view what,
                              std::vector<std::string_view> const& names) {
    auto text = string(j, path);
    if (!text) return std::nullopt;
    if (std::find(names.begin(), names.end(), *text) != names.end()) return Vela::enumFromName<E>(*text);
    error(path, "unknown " + std::string(what) + " '" + *text + "'; one of: " + joined(names));
    return std::nullopt;
  }

 private:
  // The text of the library's range error raised by `f`.
  template <class F>
  static std::string libraryText(F&& f) {
    try {
      f();
    } catch (Vela::RangeException const& e) {
      return e.what();
    }
    return {};
  }

  Diagnostics& d_;
  std::size_t start_;
};

Json const* member(Json const& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// --- table entries --------------------------------------------------------------------------------

// Whether the table's tunnels carry their labels on the entry (plain vias)
// rather than on each via.
bool entryLabels(TableKind kind) {
  return kind == TableKind::bgpLu || kind == TableKind::bgpLuPush || kind == TableKind::staticMpls;
}

bool tepRequired(TableKind kind) { return TunnelTable::contributeToTunnelRib(tunnelTypeOf(kind)); }

std::vector<std::string_view> entryFields(TableKind kind) {
  std::vector<std::string_view> fields = {"index", "ipv6", "tunnelId", "tep", "nexthopTunnelId", "vias"};
  switch (kind) {
    case TableKind::bgpLu:
      fields.insert(fields.end(), {"labels", "contribution", "bgpMetric", "bgpMetric2", "bgpPref", "bgpPref2",
                                   "bgpLinkBw"});
      break;
    case TableKind::bgpLuPush:
      fields.push_back("labels");
      break;
    case TableKind::ldp:
    case TableKind::sr:
      fields.insert(fields.end(), {"igpMetric", "igpMetric2", "igpPref", "igpPref2"});
      break;
    case TableKind::staticMpls:
      fields.insert(fields.end(), {"labels", "name"});
      break;
    case TableKind::srTeSegmentList:
      break;
  }
  return fields;
}

struct ViaDef {
  IpGenAddr nexthop;
  IntfId intf;
  MplsLabelOperation labels;
};

std::optional<ViaDef> readVia(Reader& r, Json const& j, std::string const& path, TableKind kind) {
  std::string const what = "a via of table " + std::string(tableName(kind));
  if (entryLabels(kind) && j.is_object() && j.contains("labels")) {
    r.error(
        childPath(path, "labels"),
        "the labels of a " + std::string(tableName(kind)) + " tunnel belong to its entry, not to its vias",
        true);
  }
  // "labels" is always known here: where it is wrong it was reported above.
  if (!r.object(j, path, what, {"nexthop", "interface", "tunnel", "labels"})) return std::nullopt;
  std::size_t const start = r.mark();
  ViaDef via;
  Json const* intf = member(j, "interface");
  Json const* tunnel = member(j, "tunnel");
  Json const* nexthop = member(j, "nexthop");
  if (intf && tunnel) {
    r.error(path, "a via leaves on an \"interface\" or rides on a \"tunnel\", not both");
  } else if (!intf && !tunnel) {
    r.error(path, "a via needs an \"interface\" (with a \"nexthop\") or a \"tunnel\" to ride on");
  } else if (intf) {
    if (auto v = r.interface(*intf, childPath(path, "interface"))) via.intf = *v;
    if (!nexthop) r.error(path, "a via on an interface needs a \"nexthop\"");
  } else if (auto inner = r.tunnel(*tunnel, childPath(path, "tunnel"), false)) {
    if (!tableKindOf(inner->tunnelType())) {
      r.error(childPath(path, "tunnel"), "tunnel id " + std::to_string(inner->value()) + " is of kind " +
                                             Vela::enumName(inner->tunnelType()) +
                                             "; a via rides only on a tunnel of the six MPLS tables");
    } else {
      via.intf = Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(inner->value());
      // The next hop of a via into a tunnel means nothing; 0.0.0.0 as the library writes it.
      via.nexthop = IpGenAddr(Nimbo::IpAddr(0));
    }
  }
  if (nexthop) {
    if (auto v = r.address(*nexthop, childPath(path, "nexthop"))) via.nexthop = *v;
  }
  if (!entryLabels(kind)) {
    if (Json const* labels = member(j, "labels")) {
      if (auto v = r.labels(*labels, childPath(path, "labels"))) via.labels = *v;
    } else {
      via.labels.operationIs(Nimbo::MplsAction::push);
    }
  }
  if (!r.okSince(start)) return std::nullopt;
  return via;
}

template <class Entry>
void readIgp(Reader& r, Json const& j, std::string const& path, Entry& e) {
  constexpr std::uint64_t max = std::numeric_limits<std::uint32_t>::max();
  auto read = [&](char const* field, void (Entry::*set)(std::uint32_t)) {
    if (Json const* v = member(j, field)) {
      if (auto n = r.unsignedValue(*v, childPath(path, field), max)) (e.*set)(static_cast<std::uint32_t>(*n));
    }
  };
  read("igpMetric", &Entry::igpMetricIs);
  read("igpMetric2", &Entry::igpMetric2Is);
  read("igpPref", &Entry::igpPrefIs);
  read("igpPref2", &Entry::igpPref2Is);
}

// The tunnel id of an entry: "index" (with "ipv6") or "tunnelId".
std::optional<TunnelId> readEntryId(Reader& r, Json const& j, std::string const& path, TableKind kind) {
  Json const* index = member(j, "index");
  Json const* ipv6 = member(j, "ipv6");
  Json const* raw = member(j, "tunnelId");
  std::string const table(tableName(kind));
  if (index && raw) {
    r.error(path, "give the tunnel as \"index\" or as \"tunnelId\", not both");
    return std::nullopt;
  }
  if (!index && !raw) {
    r.error(path, "an entry needs its tunnel: \"index\" (and \"ipv6\" where allowed) or \"tunnelId\"");
    return std::nullopt;
  }
  if (raw) {
    if (ipv6) {
      r.error(childPath(path, "ipv6"),
              "\"ipv6\" goes with \"index\"; a tunnelId carries its own address-family bit");
    }
    auto value =
        r.unsignedValue(*raw, childPath(path, "tunnelId"), std::numeric_limits<std::uint64_t>::max());
    if (!value) return std::nullopt;
    auto id = r.rawTunnelId(*value, childPath(path, "tunnelId"));
    if (!id) return std::nullopt;
    if (id->tunnelType() != tunnelTypeOf(kind)) {
      r.error(childPath(path, "tunnelId"), "tunnel id " + std::to_string(id->value()) + " is of kind " +
                                               Vela::enumName(id->tunnelType()) + " (" + id->toCliStrep() +
                                               "); table " + table + " holds " +
                                               Vela::enumName(tunnelTypeOf(kind)) + " tunnels");
      return std::nullopt;
    }
    if (isV6(*id) && !ipv6Allowed(kind)) {
      std::string libraryText;
      try {
        (void)id->tunnelAf();
      } catch (Vela::Exception const& e) {
        libraryText = e.what();
      }
      r.error(childPath(path, "tunnelId"), "tunnel id " + std::to_string(id->value()) +
                                               " has the IPv6 bit; table " + table +
                                               " has no IPv6 tunnels (" + libraryText + ")");
      return std::nullopt;
    }
    return id;
  }
  bool v6 = false;
  if (ipv6) {
    if (auto v = r.boolean(*ipv6, childPath(path, "ipv6"))) v6 = *v;
    if (v6 && !ipv6Allowed(kind)) {
      r.error(childPath(path, "ipv6"),
              "table " + table + " has no IPv6 tunnels (only static, sr and srTeSegmentList have)");
      return std::nullopt;
    }
  }
  auto n = r.unsignedValue(*index, childPath(path, "index"), std::numeric_limits<std::uint64_t>::max());
  if (!n) return std::nullopt;
  std::string why;
  auto id = tunnelIdOf(tunnelTypeOf(kind), *n, v6, &why);
  if (!id) r.error(childPath(path, "index"), why);
  return id;
}

std::optional<EntryDef> readEntry(Reader& r, Json const& j, std::string const& path, TableKind kind) {
  std::string const what = "an entry of table " + std::string(tableName(kind));
  if (!r.object(j, path, what, entryFields(kind))) return std::nullopt;
  std::size_t const start = r.mark();
  auto id = readEntryId(r, j, path, kind);

  IpGenPrefix tep;
  if (Json const* v = member(j, "tep")) {
    if (auto p = r.prefix(*v, childPath(path, "tep"))) tep = *p;
  } else if (tepRequired(kind)) {
    r.error(path, "an entry of table " + std::string(tableName(kind)) +
                      " needs its \"tep\" (tunnel end point prefix)");
  }
  TunnelId nexthopTunnel;
  if (Json const* v = member(j, "nexthopTunnelId")) {
    if (auto t = r.tunnel(*v, childPath(path, "nexthopTunnelId"), true)) nexthopTunnel = *t;
  }
  std::vector<ViaDef> vias;
  if (Json const* v = member(j, "vias")) {
    std::string const viasPath = childPath(path, "vias");
    if (r.array(*v, viasPath, "the vias")) {
      for (std::size_t i = 0; i < v->size(); ++i) {
        auto via = readVia(r, (*v)[i], indexPath(viasPath, i), kind);
        if (!via) continue;
        auto same = std::find_if(vias.begin(), vias.end(), [&](ViaDef const& o) {
          return o.intf == via->intf && o.nexthop == via->nexthop && o.labels == via->labels;
        });
        if (same != vias.end()) {
          r.error(indexPath(viasPath, i), "the same via as vias[" + std::to_string(same - vias.begin()) +
                                              "] (a via set holds each via once)");
          continue;
        }
        vias.push_back(*via);
      }
    }
  }
  MplsLabelOperation labels;
  labels.operationIs(Nimbo::MplsAction::push);
  if (entryLabels(kind)) {
    if (Json const* v = member(j, "labels")) {
      if (auto l = r.labels(*v, childPath(path, "labels"))) labels = *l;
    }
  }
  // A tunnel id that could not be read is replaced by index 0, so that the
  // remaining fields are still checked; the entry is dropped at the end.
  TunnelId const tunnelId = id.value_or(TunnelId(TunnelId::convertToTunnelValue(tunnelTypeOf(kind), 0)));

  EntryDef def;
  def.table = kind;
  auto fillBase = [&](auto& e) {
    e.tepIs(tep);
    e.nexthopTunnelIdIs(nexthopTunnel);
  };
  switch (kind) {
    case TableKind::bgpLu: {
      TunnelTable::BgpLuTunnelTableEntry e(tunnelId);
      fillBase(e);
      e.labelsIs(labels);
      for (auto const& via : vias) e.viaIs(Via(via.nexthop, via.intf), true);
      if (Json const* v = member(j, "contribution")) {
        if (auto c = r.enumerator<ContributionToTunnelRIB>(
                *v, childPath(path, "contribution"), "contribution", {"contributing", "nonContributing"})) {
          e.contributionIs(*c);
        }
      }
      constexpr std::uint64_t max = std::numeric_limits<std::uint32_t>::max();
      auto read = [&](char const* field, void (TunnelTable::BgpLuTunnelTableEntry::*set)(std::uint32_t)) {
        if (Json const* v = member(j, field)) {
          if (auto n = r.unsignedValue(*v, childPath(path, field), max))
            (e.*set)(static_cast<std::uint32_t>(*n));
        }
      };
      read("bgpMetric", &TunnelTable::BgpLuTunnelTableEntry::bgpMetricIs);
      read("bgpMetric2", &TunnelTable::BgpLuTunnelTableEntry::bgpMetric2Is);
      read("bgpPref", &TunnelTable::BgpLuTunnelTableEntry::bgpPrefIs);
      read("bgpPref2", &TunnelTable::BgpLuTunnelTableEntry::bgpPref2Is);
      if (Json const* v = member(j, "bgpLinkBw")) {
        if (!v->is_number() || v->get<double>() < 0 || !std::isfinite(v->get<double>())) {
          r.error(childPath(path, "bgpLinkBw"), "expected a bandwidth (a number, 0 or more), got " +
                                                    (v->is_number() ? shown(*v) : kindOfJson(*v)));
        } else {
          e.bgpLinkBwIs(v->get<float>());
        }
      }
      def.value = e;
      break;
    }
    case TableKind::bgpLuPush: {
      TunnelTable::BgpLuPushTunnelTableEntry e(tunnelId);
      fillBase(e);
      e.labelsIs(labels);
      for (auto const& via : vias) e.viaIs(Via(via.nexthop, via.intf), true);
      def.value = e;
      break;
    }
    case TableKind::ldp:
    case TableKind::sr: {
      TunnelTable::LdpSrTunnelTableEntry e(tunnelId);
      fillBase(e);
      for (auto const& via : vias) e.viaIs(MplsVia(via.nexthop, via.intf, via.labels), true);
      readIgp(r, j, path, e);
      def.value = e;
      break;
    }
    case TableKind::staticMpls: {
      TunnelTable::StaticTunnelTableEntry e(tunnelId);
      fillBase(e);
      e.labelsIs(labels);
      for (auto const& via : vias) e.viaIs(Via(via.nexthop, via.intf), true);
      if (Json const* v = member(j, "name")) {
        if (auto name = r.string(*v, childPath(path, "name"), true)) e.nameIs(*name);
      }
      def.value = e;
      break;
    }
    case TableKind::srTeSegmentList: {
      TunnelTable::SrTeSegmentListTunnelTableEntry e(tunnelId);
      fillBase(e);
      for (auto const& via : vias) e.viaIs(MplsVia(via.nexthop, via.intf, via.labels), true);
      def.value = e;
      break;
    }
  }
  if (!r.okSince(start)) return std::nullopt;
  return def;
}

// A table definition; `extra` are the fields of the surrounding object that
// are not the table's (an addTable action's "action" and "table"). A table
// with problems is still returned (with what could be read) so that the
// timeline can be checked against it; the problems reject the whole input.
std::optional<TableDef> readTable(Reader& r, Json const& j, std::string const& path, TableKind kind,
                                  std::vector<std::string_view> const& extra = {}) {
  std::vector<std::string_view> fields = extra;
  fields.push_back("tablePref");
  if (kind == TableKind::bgpLu) fields.push_back("bgpConverged");
  fields.push_back("entries");
  std::string const what = "table " + std::string(tableName(kind));
  if (kind != TableKind::bgpLu && j.is_object() && j.contains("bgpConverged")) {
    r.error(childPath(path, "bgpConverged"), "bgpConverged belongs to table bgpLu", true);
  }
  std::vector<std::string_view> allowed = fields;
  if (kind != TableKind::bgpLu) allowed.push_back("bgpConverged");  // reported above
  if (!r.object(j, path, what, allowed)) return std::nullopt;
  TableDef table;
  table.kind = kind;
  if (Json const* v = member(j, "tablePref")) {
    std::string const prefPath = childPath(path, "tablePref");
    if (v->is_string()) {
      if (auto p = Vela::enumLookup<TunnelTablePref>(v->get<std::string>())) {
        table.tablePref = *p;
      } else {
        r.error(prefPath,
                "unknown table preference '" + v->get<std::string>() +
                    "'; one of: staticPref (1), ldpPref (2), srPref (3), bgpLuPref (4), maxPref (5)");
      }
    } else if (auto n = r.unsignedValue(*v, prefPath, 255)) {
      try {
        table.tablePref = Vela::enumFromValue<TunnelTablePref>(*n);
      } catch (Vela::RangeException const& e) {
        r.error(prefPath,
                std::string(e.what()) + " (1 to 5: staticPref, ldpPref, srPref, bgpLuPref, maxPref)");
      }
    }
  }
  if (kind == TableKind::bgpLu) {
    if (Json const* v = member(j, "bgpConverged")) {
      if (auto b = r.boolean(*v, childPath(path, "bgpConverged"))) table.bgpConverged = *b;
    }
  }
  if (Json const* v = member(j, "entries")) {
    std::string const entriesPath = childPath(path, "entries");
    if (r.array(*v, entriesPath, "the entries")) {
      std::map<TunnelId, std::string> seen;
      for (std::size_t i = 0; i < v->size(); ++i) {
        std::string const entryPath = indexPath(entriesPath, i);
        auto entry = readEntry(r, (*v)[i], entryPath, kind);
        if (!entry) {
          // The table is rejected, but the timeline is still checked against
          // it: a stub keeps the tunnel known, so that a later action on it
          // does not report a second, misleading error.
          Diagnostics ignored;
          Reader quiet(ignored);
          if (auto id = readEntryId(quiet, (*v)[i], entryPath, kind); id && !seen.count(*id)) {
            EntryDef stub;
            stub.table = kind;
            stub.value = TunnelTable::SrTeSegmentListTunnelTableEntry(*id);
            seen.emplace(*id, entryPath);
            table.entries.push_back(std::move(stub));
          }
          continue;
        }
        auto [it, inserted] = seen.emplace(entry->tunnelId(), entryPath);
        if (!inserted) {
          r.error(entryPath,
                  "tunnel " + tunnelRef(entry->tunnelId()) + " is already defined at " + it->second);
          continue;
        }
        table.entries.push_back(std::move(*entry));
      }
    }
  }
  return table;
}

std::optional<TableKind> readTableName(Reader& r, Json const& j, std::string const& path) {
  auto name = r.string(j, path);
  if (!name) return std::nullopt;
  auto kind = tableKindOf(*name);
  if (!kind) {
    r.error(path,
            "unknown table '" + *name + "'; tables: bgpLu, bgpLuPush, ldp, sr, static, srTeSegmentList");
  }
  return kind;
}

// --- static configuration and decap groups ------------------------------------------------------

std::optional<Static::StaticTunnelConfigEntry> readStaticConfig(Reader& r, Json const& j,
                                                                std::string const& path) {
  if (!r.object(j, path, "a static tunnel configuration entry",
                {"name", "tep", "nexthop", "interface", "labels"})) {
    return std::nullopt;
  }
  std::size_t const start = r.mark();
  Json const* name = member(j, "name");
  if (!name) {
    r.error(path, "a static tunnel configuration entry needs its \"name\"");
    return std::nullopt;
  }
  auto n = r.string(*name, childPath(path, "name"));
  if (!n) return std::nullopt;
  Static::StaticTunnelConfigEntry entry(*n);
  if (Json const* v = member(j, "tep")) {
    if (auto p = r.prefix(*v, childPath(path, "tep"))) entry.tepIs(*p);
  }
  if (Json const* v = member(j, "nexthop")) {
    if (auto a = r.address(*v, childPath(path, "nexthop"))) entry.nexthopIs(*a);
  }
  if (Json const* v = member(j, "interface")) {
    if (auto i = r.interface(*v, childPath(path, "interface"))) entry.intfIdIs(*i);
  }
  if (Json const* v = member(j, "labels")) {
    if (auto l = r.labels(*v, childPath(path, "labels"))) entry.labelsIs(*l);
  }
  if (!r.okSince(start)) return std::nullopt;
  return entry;
}

std::optional<DecapGroupDef> readDecapGroup(Reader& r, Json const& j, std::string const& path) {
  if (!r.object(j, path, "a decap group", {"name", "type", "addresses", "interfaces"})) return std::nullopt;
  std::size_t const start = r.mark();
  DecapGroupDef group;
  if (Json const* v = member(j, "name")) {
    if (auto n = r.string(*v, childPath(path, "name"))) group.name = *n;
  } else {
    r.error(path, "a decap group needs its \"name\"");
  }
  if (Json const* v = member(j, "type")) {
    if (auto t = r.enumerator<Decap::TunnelType>(*v, childPath(path, "type"), "decapsulation type",
                                                 {"gre", "ipip", "unknown"})) {
      group.type = *t;
    }
  }
  if (Json const* v = member(j, "addresses")) {
    std::string const listPath = childPath(path, "addresses");
    if (r.array(*v, listPath, "the decap addresses")) {
      for (std::size_t i = 0; i < v->size(); ++i) {
        auto a = r.address((*v)[i], indexPath(listPath, i));
        if (!a) continue;
        if (std::find(group.addresses.begin(), group.addresses.end(), *a) != group.addresses.end()) {
          r.error(indexPath(listPath, i), "address " + a->toStrep() + " is listed twice");
          continue;
        }
        group.addresses.push_back(*a);
      }
    }
  }
  if (Json const* v = member(j, "interfaces")) {
    std::string const listPath = childPath(path, "interfaces");
    if (r.array(*v, listPath, "the decap interfaces")) {
      for (std::size_t i = 0; i < v->size(); ++i) {
        std::string const itemPath = indexPath(listPath, i);
        Json const& item = (*v)[i];
        if (!r.object(item, itemPath, "a decap interface", {"interface", "addressFamily", "addressType"}))
          continue;
        std::size_t const itemStart = r.mark();
        IntfId intf;
        Nimbo::AddressFamily af = Nimbo::AddressFamily::ipv4;
        Decap::AddressType type = Decap::AddressType::primary;
        if (Json const* f = member(item, "interface")) {
          if (auto x = r.interface(*f, childPath(itemPath, "interface"))) intf = *x;
        } else {
          r.error(itemPath, "a decap interface needs its \"interface\"");
        }
        if (Json const* f = member(item, "addressFamily")) {
          if (auto x = r.enumerator<Nimbo::AddressFamily>(*f, childPath(itemPath, "addressFamily"),
                                                          "address family", {"ipv4", "ipv6"})) {
            af = *x;
          }
        }
        if (Json const* f = member(item, "addressType")) {
          if (auto x = r.enumerator<Decap::AddressType>(*f, childPath(itemPath, "addressType"),
                                                        "address type", {"primary", "all"})) {
            type = *x;
          }
        }
        if (!r.okSince(itemStart)) continue;
        Decap::DecapIntfKey const key(intf, af);
        if (std::any_of(group.interfaces.begin(), group.interfaces.end(),
                        [&](Decap::DecapIntf const& d) { return d.decapIntfKey() == key; })) {
          r.error(itemPath, "interface " + intf.toStrep() + " " + Vela::enumName(af) + " is listed twice");
          continue;
        }
        group.interfaces.emplace_back(key, type);
      }
    }
  }
  if (!r.okSince(start)) return std::nullopt;
  return group;
}

std::vector<DecapGroupDef> readDecapGroups(Reader& r, Json const& j, std::string const& path) {
  std::vector<DecapGroupDef> groups;
  if (!r.array(j, path, "the decap groups")) return groups;
  for (std::size_t i = 0; i < j.size(); ++i) {
    std::string const itemPath = indexPath(path, i);
    auto group = readDecapGroup(r, j[i], itemPath);
    if (!group) continue;
    if (std::any_of(groups.begin(), groups.end(),
                    [&](DecapGroupDef const& g) { return g.name == group->name; })) {
      r.error(childPath(itemPath, "name"), "decap group " + group->name + " is defined twice in this source");
      continue;
    }
    groups.push_back(std::move(*group));
  }
  return groups;
}

bool checkSourceName(Reader& r, std::string const& name, std::string const& path) {
  if (name == cliDecapSource) {
    r.error(path, "'cli' is the command-line source; a dynamic source needs another name");
    return false;
  }
  if (name.find('/') != std::string::npos) {
    r.error(path, "a decap source name must not contain '/'");
    return false;
  }
  return true;
}

std::optional<DecapSourceDef> readDecapSource(Reader& r, Json const& j, std::string const& path,
                                              std::vector<std::string_view> const& extra = {}) {
  std::vector<std::string_view> fields = extra;
  fields.push_back("source");
  fields.push_back("groups");
  if (!r.object(j, path, "a dynamic decap source", fields)) return std::nullopt;
  std::size_t const start = r.mark();
  DecapSourceDef source;
  if (Json const* v = member(j, "source")) {
    if (auto n = r.string(*v, childPath(path, "source"))) {
      if (checkSourceName(r, *n, childPath(path, "source"))) source.name = *n;
    }
  } else {
    r.error(path, "a dynamic decap source needs its \"source\" name");
  }
  if (Json const* v = member(j, "groups")) source.groups = readDecapGroups(r, *v, childPath(path, "groups"));
  if (!r.okSince(start)) return std::nullopt;
  return source;
}

// --- views and steps ------------------------------------------------------------------------------

std::vector<ViewRequest> readViews(Reader& r, Json const& j, std::string const& path) {
  std::vector<ViewRequest> views;
  if (!r.array(j, path, "a list of views")) return views;
  for (std::size_t i = 0; i < j.size(); ++i) {
    auto text = r.string(j[i], indexPath(path, i));
    if (!text) continue;
    std::string why;
    if (auto view = parseView(*text, &why)) {
      views.push_back(*view);
    } else {
      r.error(indexPath(path, i), why);
    }
  }
  return views;
}

// Reads a required member; reports its absence.
Json const* required(Reader& r, Json const& j, std::string const& path, char const* field,
                     std::string_view what) {
  Json const* v = member(j, field);
  if (!v) r.error(path, std::string(what) + " needs \"" + field + "\"");
  return v;
}

std::string const kActionNames =
    "addEntry, changeEntry, removeEntry, addTable, removeTable, bgpConverged, addDecapSource, addDecapGroup, "
    "removeDecapGroup, addDecapAddress, removeDecapAddress, addStaticConfig, changeStaticConfig, "
    "removeStaticConfig, restartAgent";

std::optional<Action> readAction(Reader& r, Json const& j, std::string const& path) {
  if (!j.is_object()) {
    r.error(path, "expected an action (an object with \"action\"), got " + kindOfJson(j));
    return std::nullopt;
  }
  Json const* kindJson = member(j, "action");
  if (!kindJson) {
    r.error(path, "an action needs \"action\": one of " + kActionNames);
    return std::nullopt;
  }
  auto kind = r.string(*kindJson, childPath(path, "action"));
  if (!kind) return std::nullopt;
  std::string const what = "a " + *kind + " action";
  std::size_t const start = r.mark();

  auto tableOf = [&](Json const* v) -> std::optional<TableKind> {
    return v ? readTableName(r, *v, childPath(path, "table")) : std::nullopt;
  };
  auto decapTarget = [&](std::vector<std::string_view> fields, bool needsGroup, std::string& source,
                         std::string& group) {
    if (!r.object(j, path, what, fields)) return false;
    if (Json const* v = required(r, j, path, "source", what)) {
      if (auto s = r.string(*v, childPath(path, "source"))) source = *s;
    }
    if (needsGroup) {
      if (Json const* v = required(r, j, path, "group", what)) {
        if (auto g = r.string(*v, childPath(path, "group"))) group = *g;
      }
    }
    return r.okSince(start);
  };

  if (*kind == "addEntry" || *kind == "changeEntry") {
    if (!r.object(j, path, what, {"action", "table", "entry"})) return std::nullopt;
    auto table = tableOf(required(r, j, path, "table", what));
    Json const* entryJson = required(r, j, path, "entry", what);
    if (!table || !entryJson) return std::nullopt;
    auto entry = readEntry(r, *entryJson, childPath(path, "entry"), *table);
    if (!entry) return std::nullopt;
    if (*kind == "addEntry") return AddEntry{std::move(*entry)};
    return ChangeEntry{std::move(*entry)};
  }
  if (*kind == "removeEntry") {
    if (!r.object(j, path, what, {"action", "tunnel"})) return std::nullopt;
    Json const* v = required(r, j, path, "tunnel", what);
    if (!v) return std::nullopt;
    auto id = r.tunnel(*v, childPath(path, "tunnel"), false);
    if (!id) return std::nullopt;
    auto table = tableKindOf(id->tunnelType());
    if (!table) {
      r.error(childPath(path, "tunnel"),
              "tunnel id " + std::to_string(id->value()) + " belongs to no MPLS table");
      return std::nullopt;
    }
    return RemoveEntry{*table, *id};
  }
  if (*kind == "addTable") {
    if (!j.contains("table")) {
      r.error(path, what + " needs \"table\"");
      return std::nullopt;
    }
    auto table = tableOf(member(j, "table"));
    if (!table) return std::nullopt;
    auto def = readTable(r, j, path, *table, {"action", "table"});
    if (!def || !r.okSince(start)) return std::nullopt;
    return AddTable{std::move(*def)};
  }
  if (*kind == "removeTable") {
    if (!r.object(j, path, what, {"action", "table"})) return std::nullopt;
    auto table = tableOf(required(r, j, path, "table", what));
    if (!table) return std::nullopt;
    return RemoveTable{*table};
  }
  if (*kind == "bgpConverged") {
    if (!r.object(j, path, what, {"action", "value"})) return std::nullopt;
    Json const* v = required(r, j, path, "value", what);
    if (!v) return std::nullopt;
    auto b = r.boolean(*v, childPath(path, "value"));
    if (!b) return std::nullopt;
    return SetBgpConverged{*b};
  }
  if (*kind == "addDecapSource") {
    auto source = readDecapSource(r, j, path, {"action"});
    if (!source) return std::nullopt;
    return AddDecapSource{std::move(*source)};
  }
  if (*kind == "addDecapGroup") {
    std::string source, unused;
    if (!decapTarget({"action", "source", "group"}, false, source, unused)) return std::nullopt;
    Json const* v = required(r, j, path, "group", what);
    if (!v) return std::nullopt;
    auto group = readDecapGroup(r, *v, childPath(path, "group"));
    if (!group) return std::nullopt;
    return AddDecapGroup{source, std::move(*group)};
  }
  if (*kind == "removeDecapGroup") {
    std::string source, group;
    if (!decapTarget({"action", "source", "group"}, true, source, group)) return std::nullopt;
    return RemoveDecapGroup{source, group};
  }
  if (*kind == "addDecapAddress" || *kind == "removeDecapAddress") {
    std::string source, group;
    if (!decapTarget({"action", "source", "group", "address"}, true, source, group)) return std::nullopt;
    Json const* v = required(r, j, path, "address", what);
    if (!v) return std::nullopt;
    auto address = r.address(*v, childPath(path, "address"));
    if (!address) return std::nullopt;
    if (*kind == "addDecapAddress") return AddDecapAddress{source, group, *address};
    return RemoveDecapAddress{source, group, *address};
  }
  if (*kind == "addStaticConfig" || *kind == "changeStaticConfig") {
    if (!r.object(j, path, what, {"action", "entry"})) return std::nullopt;
    Json const* v = required(r, j, path, "entry", what);
    if (!v) return std::nullopt;
    auto entry = readStaticConfig(r, *v, childPath(path, "entry"));
    if (!entry) return std::nullopt;
    if (*kind == "addStaticConfig") return AddStaticConfig{std::move(*entry)};
    return ChangeStaticConfig{std::move(*entry)};
  }
  if (*kind == "removeStaticConfig") {
    if (!r.object(j, path, what, {"action", "name"})) return std::nullopt;
    Json const* v = required(r, j, path, "name", what);
    if (!v) return std::nullopt;
    auto name = r.string(*v, childPath(path, "name"));
    if (!name) return std::nullopt;
    return RemoveStaticConfig{*name};
  }
  if (*kind == "restartAgent") {
    if (!r.object(j, path, what, {"action"})) return std::nullopt;
    return RestartAgent{};
  }
  r.error(childPath(path, "action"), "unknown action '" + *kind + "'; actions: " + kActionNames);
  return std::nullopt;
}

// Checks an action against what will exist when it runs.
void checkAgainstModel(Reader& r, Action const& action, Model const& model, std::string const& path) {
  auto tablePresent = [&](TableKind kind, std::string const& where) {
    if (model.tables.count(kind)) return true;
    r.error(where, "table " + std::string(tableName(kind)) + " is not present (add it with addTable)");
    return false;
  };
  auto decapGroup = [&](std::string const& source, std::string const& group,
                        bool mustExist) -> std::set<IpGenAddr> const* {
    auto s = model.decapSources.find(source);
    if (s == model.decapSources.end()) {
      r.error(childPath(path, "source"), "there is no decap source '" + source + "'");
      return nullptr;
    }
    auto g = s->second.find(group);
    if (mustExist && g == s->second.end()) {
      r.error(childPath(path, "group"), "decap source " + source + " has no group '" + group + "'");
      return nullptr;
    }
    if (!mustExist && g != s->second.end()) {
      r.error(childPath(path, "group"), "decap source " + source + " already has a group '" + group + "'");
      return nullptr;
    }
    return mustExist ? &g->second : nullptr;
  };
  std::visit(
      Overloaded{
          [&](AddEntry const& a) {
            if (!tablePresent(a.entry.table, childPath(path, "table"))) return;
            if (model.tables.at(a.entry.table).count(a.entry.tunnelId())) {
              r.error(childPath(path, "entry"),
                      "tunnel " + tunnelRef(a.entry.tunnelId()) + " is already in table " +
                          std::string(tableName(a.entry.table)) + "; use changeEntry to replace it");
            }
          },
          [&](ChangeEntry const& a) {
            if (!tablePresent(a.entry.table, childPath(path, "table"))) return;
            if (!model.tables.at(a.entry.table).count(a.entry.tunnelId())) {
              r.error(childPath(path, "entry"), "tunnel " + tunnelRef(a.entry.tunnelId()) +
                                                    " is not in table " +
                                                    std::string(tableName(a.entry.table)) + "; use addEntry");
            }
          },
          [&](RemoveEntry const& a) {
            if (!tablePresent(a.table, childPath(path, "tunnel"))) return;
            if (!model.tables.at(a.table).count(a.tunnel)) {
              r.error(childPath(path, "tunnel"), "tunnel " + tunnelRef(a.tunnel) + " is not in table " +
                                                     std::string(tableName(a.table)));
            }
          },
          [&](AddTable const& a) {
            if (model.tables.count(a.table.kind)) {
              r.error(childPath(path, "table"),
                      "table " + std::string(tableName(a.table.kind)) + " is already present");
            }
          },
          [&](RemoveTable const& a) { tablePresent(a.table, childPath(path, "table")); },
          [&](SetBgpConverged const&) { tablePresent(TableKind::bgpLu, path); },
          [&](AddDecapSource const& a) {
            if (model.decapSources.count(a.source.name)) {
              r.error(childPath(path, "source"), "decap source " + a.source.name + " already exists");
            }
          },
          [&](AddDecapGroup const& a) { decapGroup(a.source, a.group.name, false); },
          [&](RemoveDecapGroup const& a) { decapGroup(a.source, a.group, true); },
          [&](AddDecapAddress const& a) {
            if (auto const* addresses = decapGroup(a.source, a.group, true);
                addresses && addresses->count(a.address)) {
              r.error(childPath(path, "address"),
                      "decap group " + a.group + " already has address " + a.address.toStrep());
            }
          },
          [&](RemoveDecapAddress const& a) {
            if (auto const* addresses = decapGroup(a.source, a.group, true);
                addresses && !addresses->count(a.address)) {
              r.error(childPath(path, "address"),
                      "decap group " + a.group + " has no address " + a.address.toStrep());
            }
          },
          [&](AddStaticConfig const& a) {
            if (model.staticConfig.count(a.entry.name())) {
              r.error(childPath(path, "entry"), "static tunnel configuration " + a.entry.name() +
                                                    " already exists; use changeStaticConfig");
            }
          },
          [&](ChangeStaticConfig const& a) {
            if (!model.staticConfig.count(a.entry.name())) {
              r.error(childPath(path, "entry"),
                      "there is no static tunnel configuration " + a.entry.name() + "; use addStaticConfig");
            }
          },
          [&](RemoveStaticConfig const& a) {
            if (!model.staticConfig.count(a.name)) {
              r.error(childPath(path, "name"), "there is no static tunnel configuration " + a.name);
            }
          },
          [&](RestartAgent const&) {},
      },
      action);
}

std::optional<Step> readStepWith(Reader& r, Json const& j, std::string const& path, Model& model) {
  if (!r.object(j, path, "a step", {"name", "actions", "show"})) return std::nullopt;
  std::size_t const start = r.mark();
  Step step;
  if (Json const* v = member(j, "name")) {
    if (auto n = r.string(*v, childPath(path, "name"), true)) step.name = *n;
  }
  if (Json const* v = member(j, "actions")) {
    std::string const actionsPath = childPath(path, "actions");
    if (r.array(*v, actionsPath, "the actions")) {
      for (std::size_t i = 0; i < v->size(); ++i) {
        std::string const actionPath = indexPath(actionsPath, i);
        std::size_t const actionStart = r.mark();
        auto action = readAction(r, (*v)[i], actionPath);
        if (!action || !r.okSince(actionStart)) continue;
        checkAgainstModel(r, *action, model, actionPath);
        if (!r.okSince(actionStart)) continue;
        model.apply(*action);
        step.actions.push_back(std::move(*action));
      }
    }
  }
  if (Json const* v = member(j, "show")) step.show = readViews(r, *v, childPath(path, "show"));
  if (!member(j, "actions") && !member(j, "show")) {
    r.error(path, "a step needs \"actions\" or \"show\" (or both)");
  }
  if (!r.okSince(start)) return std::nullopt;
  return step;
}

}  // namespace

std::optional<Step> readStep(Json const& step, std::string const& path, Model& model,
                             Diagnostics& diagnostics) {
  Reader r(diagnostics);
  Model scratch = model;
  auto result = readStepWith(r, step, path, scratch);
  if (!result || !r.ok()) return std::nullopt;
  model = std::move(scratch);
  return result;
}

std::optional<Scenario> readScenario(Json const& document, Diagnostics& diagnostics) {
  Reader r(diagnostics);
  if (!r.object(document, "", "a scenario",
                {"description", "tables", "staticConfig", "decap", "show", "timeline"})) {
    return std::nullopt;
  }
  Scenario scenario;
  if (Json const* v = member(document, "description")) {
    if (auto d = r.string(*v, "description", true)) scenario.description = *d;
  }
  if (Json const* v = member(document, "tables")) {
    if (!v->is_object()) {
      r.error("tables", "expected the tables (an object keyed by table name), got " + kindOfJson(*v));
    } else {
      // In the fixed table order, whatever the order in the file.
      for (auto const& [name, value] : v->items()) {
        if (!tableKindOf(name)) {
          r.error(childPath("tables", name),
                  "unknown table '" + name + "'; tables: bgpLu, bgpLuPush, ldp, sr, static, srTeSegmentList",
                  true);
        }
      }
      for (TableKind kind : allTableKinds) {
        if (Json const* t = member(*v, tableName(kind))) {
          if (auto table = readTable(r, *t, childPath("tables", tableName(kind)), kind)) {
            scenario.tables.push_back(std::move(*table));
          }
        }
      }
    }
  }
  if (Json const* v = member(document, "staticConfig")) {
    if (r.array(*v, "staticConfig", "the static tunnel configuration")) {
      std::set<std::string> names;
      for (std::size_t i = 0; i < v->size(); ++i) {
        std::string const itemPath = indexPath("staticConfig", i);
        auto entry = readStaticConfig(r, (*v)[i], itemPath);
        if (!entry) continue;
        if (!names.insert(entry->name()).second) {
          r.error(childPath(itemPath, "name"),
                  "static tunnel configuration " + entry->name() + " is defined twice");
          continue;
        }
        scenario.staticConfig.push_back(std::move(*entry));
      }
    }
  }
  if (Json const* v = member(document, "decap")) {
    if (r.object(*v, "decap", "the decap section", {"cli", "dynamic"})) {
      if (Json const* cli = member(*v, "cli")) scenario.cliDecap = readDecapGroups(r, *cli, "decap.cli");
      if (Json const* dynamic = member(*v, "dynamic")) {
        if (r.array(*dynamic, "decap.dynamic", "the dynamic decap sources")) {
          for (std::size_t i = 0; i < dynamic->size(); ++i) {
            std::string const itemPath = indexPath("decap.dynamic", i);
            auto source = readDecapSource(r, (*dynamic)[i], itemPath);
            if (!source) continue;
            if (std::any_of(scenario.dynamicDecap.begin(), scenario.dynamicDecap.end(),
                            [&](DecapSourceDef const& s) { return s.name == source->name; })) {
              r.error(childPath(itemPath, "source"), "decap source " + source->name + " is defined twice");
              continue;
            }
            scenario.dynamicDecap.push_back(std::move(*source));
          }
        }
      }
    }
  }
  if (Json const* v = member(document, "show")) scenario.show = readViews(r, *v, "show");
  if (Json const* v = member(document, "timeline")) {
    if (r.array(*v, "timeline", "the timeline")) {
      Model model = Model::of(scenario);
      for (std::size_t i = 0; i < v->size(); ++i) {
        if (auto step = readStepWith(r, (*v)[i], indexPath("timeline", i), model)) {
          scenario.timeline.push_back(std::move(*step));
        }
      }
    }
  }
  if (!r.ok()) return std::nullopt;
  return scenario;
}

}  // namespace Tunnel::Tool
