#include "tools/tunnel-agent/Views.h"

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <sstream>

#include "Decap/DecapGroupConfigMergeSm.h"
#include "TunnelTable/TunnelIntfId.h"
#include "framework/Quay/DumpContext.h"
#include "framework/Vela/Enum.h"

namespace Tunnel::Tool {

using Json = nlohmann::json;
using namespace Tunnel::TunnelTable;

// --- layout helpers -----------------------------------------------------------------------------

TextTable::TextTable(std::vector<std::string> header, std::vector<bool> rightAligned)
    : header_(std::move(header)), right_(std::move(rightAligned)) {
  right_.resize(header_.size(), false);
}

void TextTable::row(std::vector<std::string> cells) {
  cells.resize(header_.size());
  rows_.push_back(std::move(cells));
}

std::string TextTable::render() const {
  std::vector<std::size_t> width(header_.size(), 0);
  auto measure = [&](std::vector<std::string> const& cells) {
    for (std::size_t i = 0; i < cells.size(); ++i) width[i] = std::max(width[i], cells[i].size());
  };
  measure(header_);
  for (auto const& r : rows_) measure(r);
  std::string out;
  auto line = [&](std::vector<std::string> const& cells) {
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      if (i) text += "  ";
      std::string const pad(width[i] - cells[i].size(), ' ');
      text += right_[i] ? pad + cells[i] : cells[i] + pad;
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out += text + "\n";
  };
  line(header_);
  for (auto const& r : rows_) line(r);
  return out;
}

std::string labelText(Nimbo::MplsLabelOperation const& labels) {
  std::string text = "[";
  for (std::size_t i = 0; i < labels.stackSize(); ++i) {
    if (i) text += " ";
    text += std::to_string(labels.label(i));
  }
  text += "]";
  if (labels.operation() != Nimbo::MplsAction::push) text = Vela::enumName(labels.operation()) + " " + text;
  return text;
}

namespace {

std::string yesNo(bool b) { return b ? "yes" : "no"; }

std::string count(std::size_t n, std::string const& one, std::string const& many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

Json tunnelJson(TunnelId id) {
  return Json{{"id", id.value()}, {"ref", tunnelRef(id)}, {"cli", id.toCliStrep()}};
}

Json labelsJson(Nimbo::MplsLabelOperation const& labels) {
  return Json{{"operation", Vela::enumName(labels.operation())}, {"labels", labels.labels()}};
}

std::string intfText(Nimbo::IntfId intf) { return intf.toStrep(); }

// Vias in a stable order: interface, next hop, labels.
std::vector<MplsVia> sortedVias(Vela::ValueSet<MplsVia> const& set) {
  std::vector<MplsVia> vias;
  vias.reserve(set.size());
  for (MplsVia const& via : set) vias.push_back(via);
  std::sort(vias.begin(), vias.end(), [](MplsVia const& a, MplsVia const& b) {
    if (a.intfId() != b.intfId()) return a.intfId() < b.intfId();
    if (a.nexthop() != b.nexthop()) return a.nexthop() < b.nexthop();
    return a.labels() < b.labels();
  });
  return vias;
}

// The ids of a set or of an id collection, in id order.
template <class Set>
std::vector<TunnelId> sortedSet(Set const& set) {
  std::vector<TunnelId> out;
  out.reserve(set.size());
  for (auto it = set.begin(); it != set.end(); ++it) out.push_back(it.key());
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<Nimbo::IpGenPrefix> sortedTeps(TunnelRib const& rib) {
  std::vector<Nimbo::IpGenPrefix> teps;
  for (auto const& [tep, entry] : rib.entrys()) teps.push_back(tep);
  std::sort(teps.begin(), teps.end());
  return teps;
}

// A line telling why the RIB and FIB are not being kept up to date, or "".
std::string machinesNote(Lab const& lab) {
  auto const* aggregator = lab.aggregator();
  if (aggregator && aggregator->initialized()) return "";
  auto const missing = lab.model().missingRequiredTables();
  std::string note = "(the tunnel RIB and FIB state machines are stopped: ";
  if (!missing.empty()) {
    std::string names;
    for (auto kind : missing) names += (names.empty() ? "" : ", ") + std::string(tableName(kind));
    note += "the agent waits for table" + std::string(missing.size() == 1 ? " " : "s ") + names;
  } else {
    note += "a table was removed; they restart when a table is next added";
  }
  return note + "; what follows is the state they left)\n";
}

// --- the views ----------------------------------------------------------------------------------

ViewOutput tunnelRibView(Lab const& lab) {
  ViewOutput out;
  auto rib = lab.tunnelRib();
  if (!rib) {
    out.text = "Tunnel RIB: not mounted (the agent has not started)\n";
    out.json = {{"mounted", false}};
    return out;
  }
  out.text = "Tunnel RIB: " + count(rib->entrys().size(), "entry", "entries") +
             ", converged: " + yesNo(rib->tunnelRibConverged()) + "\n" + machinesNote(lab);
  TextTable table({"TEP", "Protocol", "Tunnel", "Metric", "Metric2", "Pref", "Pref2"},
                  {false, false, false, true, true, true, true});
  Json entries = Json::array();
  for (auto const& tep : sortedTeps(*rib)) {
    auto entry = rib->entry(tep);
    auto const ids = sortedSet(entry->tunnelIds());
    Json tunnels = Json::array();
    bool first = true;
    for (TunnelId id : ids) {
      if (first) {
        table.row({tep.toStrep(), id.typeCliStr(), id.toCliStrep(), std::to_string(entry->metric()),
                   std::to_string(entry->metric2()), std::to_string(entry->pref()),
                   std::to_string(entry->pref2())});
      } else {
        table.row({"", "", id.toCliStrep()});
      }
      first = false;
      tunnels.push_back(tunnelJson(id));
    }
    if (ids.empty()) table.row({tep.toStrep(), "", "(no tunnel)"});
    entries.push_back({{"tep", tep.toStrep()},
                       {"protocol", ids.empty() ? "" : ids.front().typeCliStr()},
                       {"tunnels", tunnels},
                       {"metric", entry->metric()},
                       {"metric2", entry->metric2()},
                       {"pref", entry->pref()},
                       {"pref2", entry->pref2()}});
  }
  if (!table.empty()) out.text += table.render();
  out.json = {
      {"converged", rib->tunnelRibConverged()}, {"running", machinesNote(lab).empty()}, {"entries", entries}};
  return out;
}

ViewOutput protoRibView(Lab const& lab, ViewRequest const& view) {
  ViewOutput out;
  Json protocols = Json::object();
  bool firstSection = true;
  for (TableKind kind : {TableKind::staticMpls, TableKind::ldp, TableKind::sr, TableKind::bgpLu}) {
    if (view.protocol && *view.protocol != kind) continue;
    std::string const name(tableName(kind));
    auto rib = lab.protoTunnelRib(kind);
    if (!firstSection) out.text += "\n";
    firstSection = false;
    std::string const protocol = TunnelId(TunnelId::convertToTunnelValue(tunnelTypeOf(kind), 0)).typeCliStr();
    if (!rib) {
      out.text += protocol + " tunnel RIB: not mounted (the agent has not started)\n";
      protocols[name] = nullptr;
      continue;
    }
    out.text += protocol + " tunnel RIB (tunnel/protoTunnelRib/" + name +
                "): " + count(rib->entrys().size(), "entry", "entries") + "\n";
    TextTable table({"TEP", "Tunnel"});
    Json entries = Json::array();
    for (auto const& tep : sortedTeps(*rib)) {
      Json tunnels = Json::array();
      bool first = true;
      for (TunnelId id : sortedSet(rib->entry(tep)->tunnelIds())) {
        table.row({first ? tep.toStrep() : "", id.toCliStrep()});
        first = false;
        tunnels.push_back(tunnelJson(id));
      }
      entries.push_back({{"tep", tep.toStrep()}, {"tunnels", tunnels}});
    }
    if (!table.empty()) out.text += table.render();
    protocols[name] = entries;
  }
  out.text.insert(0, machinesNote(lab));
  out.json = {{"protocols", protocols}};
  return out;
}

ViewOutput mplsFibView(Lab const& lab) {
  ViewOutput out;
  auto fib = lab.mplsTunnelFib();
  if (!fib) {
    out.text = "MPLS tunnel FIB: not mounted (the agent has not started)\n";
    out.json = {{"mounted", false}};
    return out;
  }
  std::vector<TunnelId> ids;
  std::size_t viaCount = 0;
  for (auto const& [id, entry] : fib->entrys()) {
    ids.push_back(id);
    viaCount += entry.vias().size();
  }
  std::sort(ids.begin(), ids.end());
  out.text = "MPLS tunnel FIB: " + count(ids.size(), "tunnel", "tunnels") + ", " +
             count(viaCount, "via", "vias") + "\n" + machinesNote(lab);
  TextTable table({"Tunnel", "Nexthop", "Interface", "Labels"});
  Json entries = Json::array();
  for (TunnelId id : ids) {
    Json vias = Json::array();
    bool first = true;
    for (MplsVia const& via : sortedVias(fib->entry(id).vias())) {
      table.row({first ? id.toCliStrep() : "", via.nexthop().toStrep(), intfText(via.intfId()),
                 labelText(via.labels())});
      first = false;
      Json v = labelsJson(via.labels());
      v["nexthop"] = via.nexthop().toStrep();
      v["interface"] = intfText(via.intfId());
      vias.push_back(v);
    }
    entries.push_back({{"tunnel", tunnelJson(id)}, {"vias", vias}});
  }
  if (!table.empty()) out.text += table.render();
  out.json = {{"running", machinesNote(lab).empty()}, {"entries", entries}};
  return out;
}

std::vector<TunnelId> unprogrammableIds(Lab const& lab) {
  auto const* aggregator = lab.aggregator();
  if (!aggregator || !aggregator->unprogrammableTunnelId()) return {};
  return sortedSet(aggregator->unprogrammableTunnelId()->entrys());
}

ViewOutput unprogrammableView(Lab const& lab) {
  ViewOutput out;
  auto const ids = unprogrammableIds(lab);
  out.text = "Unprogrammable tunnels: " + (ids.empty() ? std::string("none") : std::to_string(ids.size())) +
             "\n" + machinesNote(lab);
  TextTable table({"Tunnel", "TEP", "Reason"});
  Json tunnels = Json::array();
  for (TunnelId id : ids) {
    auto const entry = lab.tableEntry(id);
    auto const reasons = explainUnprogrammable(lab, id);
    std::string text;
    Json reasonsJson = Json::array();
    for (auto const& reason : reasons) {
      text += (text.empty() ? "" : "; ") + reason.text;
      reasonsJson.push_back({{"kind", reason.kind}, {"text", reason.text}});
    }
    table.row({id.toCliStrep(), entry.tep.toStrep(), text});
    tunnels.push_back({{"tunnel", tunnelJson(id)}, {"tep", entry.tep.toStrep()}, {"reasons", reasonsJson}});
  }
  if (!table.empty()) out.text += table.render();
  out.json = {{"tunnels", tunnels}};
  return out;
}

ViewOutput dependentsView(Lab const& lab, ViewRequest const& view) {
  ViewOutput out;
  auto const* sm = lab.fibSm();
  out.json = {{"tunnel", tunnelJson(view.tunnel)}, {"running", sm != nullptr}};
  if (!sm) {
    out.text = "Tunnels riding on " + view.tunnel.toCliStrep() +
               ": unknown (the MPLS tunnel FIB state machine is not running)\n";
    out.json["dependents"] = nullptr;
    return out;
  }
  auto const ids = sortedSet(sm->directlyDependentTunnels(view.tunnel));
  out.text = "Tunnels riding on " + view.tunnel.toCliStrep() + ": " +
             (ids.empty() ? std::string("none") : std::to_string(ids.size())) + "\n";
  TextTable table({"Tunnel", "TEP", "In FIB"});
  Json dependents = Json::array();
  auto fib = lab.mplsTunnelFib();
  for (TunnelId id : ids) {
    bool const inFib = fib && fib->entrys().contains(id);
    table.row({id.toCliStrep(), lab.tableEntry(id).tep.toStrep(), yesNo(inFib)});
    Json t = tunnelJson(id);
    t["inFib"] = inFib;
    dependents.push_back(t);
  }
  if (!table.empty()) out.text += table.render();
  out.json["dependents"] = dependents;
  return out;
}

ViewOutput ribDumpView(Lab const& lab) {
  ViewOutput out;
  Quay::DumpContext context;
  TunnelTable::dumpState(context, lab.tunnelRib(), 0);
  out.text = "Tunnel RIB dump:\n" + context.str();
  out.json = {{"text", context.str()}};
  return out;
}

ViewOutput staticConfigView(Lab const& lab) {
  ViewOutput out;
  auto config = lab.staticConfig();
  std::vector<Static::StaticTunnelConfigEntry> entries;
  if (config) {
    for (auto const& [name, entry] : config->entrys()) entries.push_back(entry);
  }
  std::sort(entries.begin(), entries.end(), [](auto const& a, auto const& b) { return a.name() < b.name(); });
  out.text = "Static tunnel configuration: " + count(entries.size(), "entry", "entries") + "\n";
  TextTable table({"Name", "TEP", "Nexthop", "Interface", "Labels"});
  Json list = Json::array();
  for (auto const& e : entries) {
    table.row(
        {e.name(), e.tep().toStrep(), e.nexthop().toStrep(), intfText(e.intfId()), labelText(e.labels())});
    Json j = labelsJson(e.labels());
    j["name"] = e.name();
    j["tep"] = e.tep().toStrep();
    j["nexthop"] = e.nexthop().toStrep();
    j["interface"] = intfText(e.intfId());
    list.push_back(j);
  }
  if (!table.empty()) out.text += table.render();
  out.json = {{"entries", list}};
  return out;
}

std::vector<std::string> sourcesOf(Decap::DecapGroupConfigMergeSm const* merge, std::string const& group) {
  std::vector<std::string> sources;
  if (!merge) return sources;
  if (auto set = merge->sourceSet(group)) {
    for (auto const& [source, present] : set->sources()) sources.push_back(source);
  }
  std::sort(sources.begin(), sources.end());
  return sources;
}

ViewOutput decapGroupsView(Lab const& lab) {
  ViewOutput out;
  auto config = lab.decapConfig();
  auto const* merge = lab.decapMerge();
  std::vector<std::string> names;
  if (config) {
    for (auto const& [name, group] : config->decapGroups()) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  bool const ready = config && config->ready();
  out.text = "Decap groups (merged configuration, ready: " + yesNo(ready) +
             "): " + (names.empty() ? std::string("none") : std::to_string(names.size())) + "\n";
  TextTable table({"Name", "Source", "Type", "Address", "Interface"});
  Json groups = Json::array();
  for (auto const& name : names) {
    auto group = config->decapGroup(name);
    auto const sources = sourcesOf(merge, name);
    std::string const source = sources.empty() ? "?" : sources.front();
    std::vector<Nimbo::IpGenAddr> addresses;
    for (auto const& [address, present] : group->decapIps()) addresses.push_back(address);
    std::sort(addresses.begin(), addresses.end());
    std::vector<Decap::DecapIntf> intfs;
    for (auto const& [key, intf] : group->decapIntfs()) intfs.push_back(intf);
    std::sort(intfs.begin(), intfs.end());
    auto intfLine = [](Decap::DecapIntf const& d) {
      return d.decapIntfKey().intfId().toStrep() + " " + Vela::enumName(d.decapIntfKey().addressFamily()) +
             " " + Vela::enumName(d.addressType());
    };
    std::size_t const lines = std::max<std::size_t>({1, addresses.size(), intfs.size()});
    for (std::size_t i = 0; i < lines; ++i) {
      table.row({i == 0 ? name : "", i == 0 ? source : "", i == 0 ? Vela::enumName(group->tunnelType()) : "",
                 i < addresses.size() ? addresses[i].toStrep() : "",
                 i < intfs.size() ? intfLine(intfs[i]) : ""});
    }
    Json addressJson = Json::array();
    for (auto const& a : addresses) addressJson.push_back(a.toStrep());
    Json intfJson = Json::array();
    for (auto const& d : intfs) {
      intfJson.push_back({{"interface", d.decapIntfKey().intfId().toStrep()},
                          {"addressFamily", Vela::enumName(d.decapIntfKey().addressFamily())},
                          {"addressType", Vela::enumName(d.addressType())}});
    }
    groups.push_back({{"name", name},
                      {"source", source},
                      {"type", Vela::enumName(group->tunnelType())},
                      {"addresses", addressJson},
                      {"interfaces", intfJson}});
  }
  if (!table.empty()) out.text += table.render();

  // Names that two or more sources configure are left out of the merge.
  std::vector<std::pair<std::string, std::vector<std::string>>> leftOut;
  if (merge) {
    for (auto const& [name, set] : merge->sourceSets()) {
      if (set->sourceCount() >= 2) leftOut.emplace_back(name, sourcesOf(merge, name));
    }
  }
  std::sort(leftOut.begin(), leftOut.end());
  Json leftOutJson = Json::array();
  if (!leftOut.empty()) {
    out.text += "Left out, configured by two or more sources: " + std::to_string(leftOut.size()) + "\n";
    TextTable conflicts({"Name", "Sources"});
    for (auto const& [name, sources] : leftOut) {
      std::string list;
      for (auto const& s : sources) list += (list.empty() ? "" : ", ") + s;
      conflicts.row({name, list});
      leftOutJson.push_back({{"name", name}, {"sources", sources}});
    }
    out.text += conflicts.render();
  }
  out.json = {{"ready", ready}, {"groups", groups}, {"leftOut", leftOutJson}};
  return out;
}

ViewOutput decapIpsView(Lab const& lab) {
  ViewOutput out;
  std::vector<std::pair<Nimbo::IpGenAddr, std::uint32_t>> rows;
  if (auto const* sim = lab.simulator()) {
    for (auto const& [address, n] : sim->decapIps()) rows.emplace_back(address, n);
  }
  std::sort(rows.begin(), rows.end());
  out.text = "Decap address table: " + count(rows.size(), "address", "addresses") + "\n";
  TextTable table({"Address", "Groups"}, {false, true});
  Json list = Json::array();
  for (auto const& [address, n] : rows) {
    table.row({address.toStrep(), std::to_string(n)});
    list.push_back({{"address", address.toStrep()}, {"groups", n}});
  }
  if (!table.empty()) out.text += table.render();
  out.json = {{"addresses", list}};
  return out;
}

// --- why a tunnel is unprogrammable ---------------------------------------------------------------

// The tunnel a via rides on, or 0 for a via on a real interface.
TunnelId innerOf(MplsVia const& via) {
  if (!Nimbo::DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intfId())) return TunnelId();
  return TunnelId(Nimbo::DynamicTunnelIntfId::tunnelId(via.intfId()));
}

// The shortest chain of table entries leading from `from` back to `to`, or
// empty when there is none.
std::vector<TunnelId> pathBack(Lab const& lab, TunnelId from, TunnelId to) {
  std::map<TunnelId, TunnelId> parent;
  std::deque<TunnelId> queue{from};
  parent[from] = from;
  while (!queue.empty()) {
    TunnelId const at = queue.front();
    queue.pop_front();
    for (MplsVia const& via : lab.tableEntry(at).vias) {
      TunnelId const next = innerOf(via);
      if (!next.isValid()) continue;
      if (next == to) {
        std::vector<TunnelId> back;  // at, ..., from
        for (TunnelId t = at;; t = parent[t]) {
          back.push_back(t);
          if (t == from) break;
        }
        std::vector<TunnelId> chain{to};
        chain.insert(chain.end(), back.rbegin(), back.rend());
        chain.push_back(to);
        return chain;  // to, from, ..., at, to
      }
      if (parent.emplace(next, at).second) queue.push_back(next);
    }
  }
  return {};
}

std::string chainText(std::vector<TunnelId> const& chain) {
  std::string text;
  for (TunnelId t : chain) text += (text.empty() ? "" : " -> ") + t.toCliStrep();
  return text;
}

}  // namespace

std::vector<UnprogrammableReason> explainUnprogrammable(Lab const& lab, TunnelId id) {
  std::vector<UnprogrammableReason> reasons;
  auto add = [&](std::string kind, std::string text) {
    for (auto const& r : reasons) {
      if (r.text == text) return;
    }
    reasons.push_back({std::move(kind), std::move(text)});
  };
  auto const entry = lab.tableEntry(id);
  if (!entry.present) {
    add("notInTable", "it is in no table");
    return reasons;
  }
  if (entry.vias.empty()) {
    add("noVia", "its entry has no via");
    return reasons;
  }
  auto fib = lab.mplsTunnelFib();
  auto const* sm = lab.fibSm();
  auto const* aggregator = lab.aggregator();
  auto isUnprogrammable = [&](TunnelId t) {
    return aggregator && aggregator->unprogrammableTunnelId() &&
           aggregator->unprogrammableTunnelId()->entry(t);
  };
  for (MplsVia const& via : entry.vias) {
    TunnelId const inner = innerOf(via);
    if (!inner.isValid()) {
      add("notYetReviewed", "it has a via on " + via.intfId().toStrep() + " (not reviewed since)");
      continue;
    }
    if (inner == id) {
      add("cycle", "it rides on itself");
      continue;
    }
    if (auto chain = pathBack(lab, inner, id); !chain.empty()) {
      add("cycle", "its vias ride in a cycle: " + chainText(chain));
      continue;
    }
    if (!lab.tableEntry(inner).present) {
      add("innerMissing", "it rides on " + inner.toCliStrep() + ", which is in no table");
      continue;
    }
    if (sm && sm->tunnelFibEntryMarkedUnprocessed(inner)) {
      add("innerUnprocessed", "it rides on " + inner.toCliStrep() + ", whose FIB entry is still unprocessed");
      continue;
    }
    auto const* innerEntry = fib ? fib->entrys().lookup(inner) : nullptr;
    if (!innerEntry || innerEntry->vias().empty()) {
      add("innerWithoutFibEntry", "it rides on " + inner.toCliStrep() + ", which has no FIB entry" +
                                      (isUnprogrammable(inner) ? " (unprogrammable itself)" : ""));
      continue;
    }
    std::size_t smallest = Nimbo::MplsLabelOperation::maxStackSize + 1;
    for (MplsVia const& v : innerEntry->vias())
      smallest = std::min<std::size_t>(smallest, v.labels().stackSize());
    std::size_t const own = via.labels().stackSize();
    if (own + smallest > Nimbo::MplsLabelOperation::maxStackSize) {
      add("labelStackTooLarge", "the label stack would exceed six labels: " + std::to_string(own) +
                                    " here + " + std::to_string(smallest) + " from " + inner.toCliStrep() +
                                    " = " + std::to_string(own + smallest));
      continue;
    }
    add("notYetReviewed",
        "it rides on " + inner.toCliStrep() + " (not reviewed since its FIB entry changed)");
  }
  return reasons;
}

ViewOutput renderView(Lab const& lab, ViewRequest const& view) {
  ViewOutput out;
  switch (view.kind) {
    case ViewKind::tunnelRib:
      out = tunnelRibView(lab);
      break;
    case ViewKind::protoRib:
      out = protoRibView(lab, view);
      break;
    case ViewKind::mplsFib:
      out = mplsFibView(lab);
      break;
    case ViewKind::unprogrammable:
      out = unprogrammableView(lab);
      break;
    case ViewKind::dependents:
      out = dependentsView(lab, view);
      break;
    case ViewKind::ribDump:
      out = ribDumpView(lab);
      break;
    case ViewKind::staticConfig:
      out = staticConfigView(lab);
      break;
    case ViewKind::decapGroups:
      out = decapGroupsView(lab);
      break;
    case ViewKind::decapIps:
      out = decapIpsView(lab);
      break;
  }
  out.json["view"] = view.written;
  return out;
}

namespace {

std::string dotQuoted(std::string const& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string shortReason(std::vector<UnprogrammableReason> const& reasons) {
  std::set<std::string> kinds;
  for (auto const& r : reasons) kinds.insert(r.kind);
  std::string text;
  auto add = [&](char const* kind, char const* words) {
    if (kinds.count(kind)) text += (text.empty() ? "" : ", ") + std::string(words);
  };
  add("noVia", "no via");
  add("cycle", "cycle");
  add("innerMissing", "rides on a missing tunnel");
  add("innerWithoutFibEntry", "rides on a tunnel without FIB entry");
  add("innerUnprocessed", "rides on an unprocessed tunnel");
  add("labelStackTooLarge", "label stack > 6");
  add("notYetReviewed", "not reviewed yet");
  return text;
}

}  // namespace

std::string renderDot(Lab const& lab) {
  std::ostringstream out;
  out << "digraph tunnels {\n"
      << "  rankdir=LR;\n"
      << "  node [shape=box, fontname=\"Helvetica\"];\n"
      << "  edge [fontname=\"Helvetica\", fontsize=10];\n";
  auto const tunnels = lab.allTunnels();
  std::set<TunnelId> known(tunnels.begin(), tunnels.end());
  std::set<TunnelId> missing;
  std::set<TunnelId> unprogrammable;
  for (TunnelId id : unprogrammableIds(lab)) unprogrammable.insert(id);
  std::ostringstream edges;
  for (TunnelId id : tunnels) {
    auto const entry = lab.tableEntry(id);
    std::string label = id.toCliStrep();
    if (!entry.tep.isEmpty()) label += "\\n" + entry.tep.toStrep();
    out << "  " << dotQuoted(tunnelRef(id)) << " [label=\"" << label << "\"";
    if (unprogrammable.count(id)) {
      out << ", xlabel=" << dotQuoted("unprogrammable: " + shortReason(explainUnprogrammable(lab, id)))
          << ", color=red, fontcolor=red";
    }
    out << "];\n";
    std::set<std::pair<TunnelId, std::string>> seen;
    for (MplsVia const& via : entry.vias) {
      TunnelId const inner = innerOf(via);
      if (!inner.isValid()) continue;
      if (!known.count(inner)) missing.insert(inner);
      std::string const labels = labelText(via.labels());
      if (!seen.emplace(inner, labels).second) continue;
      edges << "  " << dotQuoted(tunnelRef(id)) << " -> " << dotQuoted(tunnelRef(inner))
            << " [label=" << dotQuoted(labels) << "];\n";
    }
  }
  for (TunnelId id : missing) {
    out << "  " << dotQuoted(tunnelRef(id)) << " [label=\"" << id.toCliStrep()
        << "\\nin no table\", style=dashed, color=gray40, fontcolor=gray40];\n";
  }
  out << edges.str() << "}\n";
  return out.str();
}

}  // namespace Tunnel::Tool
