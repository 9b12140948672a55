// Fuzzes the tunnel agent with what other processes write: the protocol
// tunnel tables.
//
// The input's bytes become a sequence of table operations, every one of them
// something a protocol may do: entries added, changed and removed in the six
// MPLS tables, tables published, withdrawn and republished under
// "tunnel/table", preferences and BGP convergence changed, foreign entries
// in the directory, and restarts of the agent. Ids and TEPs come from small
// spaces so that tunnels ride on each other, form cycles and stack labels
// beyond the six the FIB allows. Everything runs through the real Agent on a
// Corvel::EntityManager whose scheduler has a manual clock; the review task is
// drained now and then, sometimes only in part, with forced yields.
//
// After every complete drain the state must satisfy what always holds:
//  - the MPLS tunnel FIB: no entry without vias, none on a dynamic tunnel
//    interface, no stack deeper than six, every entry's tunnel in its table
//    and not unprogrammable; a tunnel whose vias all leave on real interfaces
//    has exactly those vias (with the entry's labels where the table gives
//    plain vias); every tunnel in a table is programmed or unprogrammable,
//    and unprogrammable ones are in their table (or were left in the set by
//    an earlier machine: the aggregator keeps the set across a restart);
//  - the review machine: backlog, start-up marks and bookmark empty, the task
//    unscheduled; the dependency maps mutually consistent, without empty
//    sets, keyed only by tunnels in tables, and each tunnel's inner set the
//    tunnels its vias ride on;
//  - the tunnel RIBs: entries non-empty, of one protocol each (the per-protocol
//    RIBs of their own protocol); the id-to-TEP map holds exactly the
//    tunnels present, contributing and programmable, each under its table
//    TEP.
// The selection machine's literal rules (an id whose TEP changed in place
// stays under the old TEP too; a per-protocol entry of one id is deleted by
// the removal of any id) let the tunnel RIBs hold ids that are gone or
// unprogrammable and drop present ones, so their exact content is not
// checked by default; TUNNEL_FUZZ_STRICT=1 in the environment checks it too.
//
// A check that fails prints the operations so far and aborts; an exception
// or an assertion from the library ends the run the same way.
// TUNNEL_FUZZ_VERBOSE=1 prints the operations of every input.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "TunnelTable/TunnelAggregatorSm.h"
#include "framework/Corvel/EntityManager.h"
#include "framework/Quay/Clock.h"
#include "framework/Quay/TaskScheduler.h"
#include "framework/Quay/TimerTask.h"
#include "framework/Vela/Exception.h"
#include "fuzz/OperationLog.h"

namespace {

// Assertions of the selection machine that its literal rules let ordinary
// table changes reach (see runCatchingAssertions).
constexpr std::string_view kLiteralRule[] = {
    "!!luEntry && luEntry.contribution() == contributing()",
    "tunnelIdIter.key() != id",
};

using namespace Tunnel::TunnelTable;
using Nimbo::DynamicTunnelIntfId;
using Nimbo::IntfId;
using Nimbo::IpGenAddr;
using Nimbo::IpGenPrefix;
using Nimbo::MplsAction;
using Nimbo::MplsLabelOperation;
using Tunnel::TunnelFib::MplsTunnelFib;
using Tunnel::TunnelFib::MplsTunnelFibEntry;

constexpr int kMaxOperations = 160;
constexpr std::uint64_t kDrainStepLimit = 200000;
constexpr std::uint64_t kIndexes = 4;  // tunnel indexes 1..4 per table

// The six MPLS tables, in the aggregator's names.
enum Kind : int { kBgpLu, kBgpLuPush, kLdp, kSr, kStatic, kSrTe, kKinds };
char const* const kNames[kKinds] = {"bgpLu", "bgpLuPush", "ldp", "sr", "static", "srTeSegmentList"};
TunnelType const kTypes[kKinds] = {TunnelType::bgpLuTunnel,  TunnelType::bgpLuPushTunnel,
                                   TunnelType::ldpTunnel,    TunnelType::srTunnel,
                                   TunnelType::staticTunnel, TunnelType::srTeSegmentListTunnel};
bool ipv6Allowed(int kind) { return kind == kSr || kind == kStatic || kind == kSrTe; }

bool strict() {
  static bool const on = [] {
    char const* v = std::getenv("TUNNEL_FUZZ_STRICT");
    return v && *v && *v != '0';
  }();
  return on;
}

std::string str(TunnelId id) {
  std::ostringstream os;
  os << Vela::enumName(id.tunnelType()) << "/" << id.tunnelIndex();
  if (id.value() & tunnelAfMask()) os << "/v6";
  return os.str();
}

TunnelId makeId(int kind, std::uint64_t index, bool v6) {
  std::uint64_t indexAndAf = index;
  if (v6 && ipv6Allowed(kind)) indexAndAf |= tunnelAfMask();
  return TunnelId(TunnelId::convertToTunnelValue(kTypes[kind], indexAndAf));
}

IpGenPrefix const& tepOf(int n) {
  static IpGenPrefix const teps[] = {IpGenPrefix("10.0.0.1/32"), IpGenPrefix("10.0.0.2/32"),
                                     IpGenPrefix("10.0.0.3/32"), IpGenPrefix("2001:db8::1/128"),
                                     IpGenPrefix()};
  return teps[n];
}

IpGenAddr const& nexthopOf(int n) {
  static IpGenAddr const nexthops[] = {IpGenAddr("10.1.0.1"), IpGenAddr("10.1.0.2"), IpGenAddr("fe80::1"),
                                       IpGenAddr("0.0.0.0")};
  return nexthops[n];
}

// The common part and the vias of a table entry, whatever its table.
struct EntryView {
  TunnelTableEntry common;
  bool contributing = true;
  std::vector<MplsVia> vias;  // as the FIB would take them when they leave directly
};

template <class Entry>
EntryView viewPlain(Entry const& e) {
  EntryView v{TunnelTableEntry(e), true, {}};
  for (Via const& via : e.vias()) v.vias.emplace_back(via.nexthop(), via.intfId(), e.labels());
  return v;
}
template <class Entry>
EntryView viewMpls(Entry const& e) {
  EntryView v{TunnelTableEntry(e), true, {}};
  for (MplsVia const& via : e.vias()) v.vias.push_back(via);
  return v;
}

// The tables one machine watches.
struct Tables {
  Vela::Ptr<BgpLuTunnelTable const> bgpLu;
  Vela::Ptr<BgpLuPushTunnelTable const> bgpLuPush;
  Vela::Ptr<LdpTunnelTable const> ldp;
  Vela::Ptr<SrTunnelTable const> sr;
  Vela::Ptr<StaticTunnelTable const> staticTable;
  Vela::Ptr<SrTeSegmentListTunnelTable const> srTe;

  // The entry of `id` in its table, if the table is watched and holds it.
  bool find(TunnelId id, EntryView& out) const {
    switch (id.tunnelType()) {
      case TunnelType::bgpLuTunnel:
        if (auto const* e = bgpLu ? bgpLu->entrys().lookup(id) : nullptr) {
          out = viewPlain(*e);
          out.contributing = e->contribution() == ContributionToTunnelRIB::contributing;
          return true;
        }
        return false;
      case TunnelType::bgpLuPushTunnel:
        if (auto const* e = bgpLuPush ? bgpLuPush->entrys().lookup(id) : nullptr)
          return out = viewPlain(*e), true;
        return false;
      case TunnelType::ldpTunnel:
        if (auto const* e = ldp ? ldp->entrys().lookup(id) : nullptr) return out = viewMpls(*e), true;
        return false;
      case TunnelType::srTunnel:
        if (auto const* e = sr ? sr->entrys().lookup(id) : nullptr) return out = viewMpls(*e), true;
        return false;
      case TunnelType::staticTunnel:
        if (auto const* e = staticTable ? staticTable->entrys().lookup(id) : nullptr)
          return out = viewPlain(*e), true;
        return false;
      case TunnelType::srTeSegmentListTunnel:
        if (auto const* e = srTe ? srTe->entrys().lookup(id) : nullptr) return out = viewMpls(*e), true;
        return false;
      default:
        return false;
    }
  }

  // Every id of the watched tables.
  std::vector<TunnelId> ids() const {
    std::vector<TunnelId> out;
    auto add = [&](auto const& table) {
      if (!table) return;
      for (auto it = table->entrys().begin(); it != table->entrys().end(); ++it) out.push_back(it.key());
    };
    add(bgpLu);
    add(bgpLuPush);
    add(ldp);
    add(sr);
    add(staticTable);
    add(srTe);
    return out;
  }
};

class Harness {
 public:
  Harness() { registerTunnelTypes(*em_); }
  ~Harness() { agent_ = nullptr; }

  // Runs the input. The selection machine's literal rules let a sequence of
  // ordinary table changes reach one of its own assertions (kLiteralRule
  // below): such an input ends there, as the agent would, and counts as
  // passed. Any other assertion fails with the operations so far.
  void runCatchingAssertions(FuzzedDataProvider& in) {
    Vela::ScopedAssertionCatcher catcher;
    try {
      run(in);
    } catch (Vela::AssertionFailure const& e) {
      bool const literal = std::find(std::begin(kLiteralRule), std::end(kLiteralRule), e.condition()) !=
                           std::end(kLiteralRule);
      if (!literal) fail("assertion failed: " + e.condition());
      if (std::getenv("TUNNEL_FUZZ_VERBOSE")) {
        std::fprintf(stderr, "AgentFuzz: reached by the literal rules: %s\noperations:\n",
                     e.condition().c_str());
        log_.print();
      }
    }
  }

  void run(FuzzedDataProvider& in) {
    // The tables a set bit leaves out are not there at first (a zero byte:
    // all six); the agent starts before or after they are published.
    std::uint8_t const absent = in.ConsumeIntegral<std::uint8_t>();
    bool const agentFirst = absent & 0x80;
    if (agentFirst) startAgent();
    for (int kind = 0; kind < kKinds; ++kind) {
      if (absent & (1u << kind)) continue;
      auto t = newTable(kind);
      tables_[kind] = t;
      em_->entityIs(std::string("tunnel/table/") + kNames[kind], t);
    }
    if (!agentFirst) startAgent();
    noteMachineStart();
    log("start: " + std::to_string(tables_.size()) + " tables, agent " + (agentFirst ? "first" : "last"));
    for (int n = 0; n < kMaxOperations && in.remaining_bytes() > 0; ++n) {
      switch (in.ConsumeIntegralInRange<int>(0, 15)) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
          writeEntry(in);
          break;
        case 5:
        case 6:
          removeEntry(in);
          break;
        case 7:
        case 8:
          drain(in.ConsumeIntegralInRange<int>(0, 3));
          check();
          break;
        case 9:
          partialDrain(in);
          break;
        case 10:
          changeTable(in);
          break;
        case 11:
          changePref(in);
          break;
        case 12:
          flipConvergence();
          break;
        case 13:
          restartAgent();
          break;
        case 14:
          foreignEntry(in);
          break;
        default:
          clearTable(in);
          break;
      }
      noteMachineStart();
    }
    drain(0);
    check();
    log_.printIfVerbose();
  }

 private:
  // --- the world -------------------------------------------------------------------------------

  void log(std::string line) { log_.add(std::move(line)); }
  [[noreturn]] void fail(std::string const& what) const { log_.fail(what); }

  void startAgent() {
    agent_ = Vela::make<Agent>(em_);
    agent_->start();
    // Only the start: the mounts complete and the aggregator is built, the
    // review task has not run yet.
    scheduler_->runUntil([&] { return agent_->aggregatorSm() != nullptr; });
    if (!agent_->aggregatorSm()) fail("the agent did not build its aggregator");
    // A new agent's aggregator makes a new unprogrammable set.
    inherited_.clear();
    fibSm_ = nullptr;
    noteMachineStart();
  }

  // The aggregator keeps its unprogrammable set when it restarts the machines;
  // what a new machine finds there for tunnels that are in none of its tables
  // stays until the tunnel comes back.
  void noteMachineStart() {
    auto const& aggregator = agent_->aggregatorSm();
    MplsTunnelFibSm const* sm = aggregator ? aggregator->mplsTunnelFibSm().get() : nullptr;
    if (sm == fibSm_) return;
    fibSm_ = sm;
    if (!sm) return;
    Tables const tables = watched();
    EntryView view;
    for (auto it = aggregator->unprogrammableTunnelId()->entrys().begin();
         it != aggregator->unprogrammableTunnelId()->entrys().end(); ++it) {
      if (!tables.find(it.key(), view)) inherited_.insert(it.key());
    }
  }

  Tables watched() const {
    MplsTunnelFibSm const& sm = *agent_->aggregatorSm()->mplsTunnelFibSm();
    return Tables{sm.bgpLuTable(), sm.bgpLuPushTable(), sm.ldpTable(),
                  sm.srTable(),    sm.staticTable(),    sm.srTeSegmentListTable()};
  }

  Vela::Ptr<TunnelTableBase> newTable(int kind) {
    switch (kind) {
      case kBgpLu:
        return Vela::make<BgpLuTunnelTable>(kNames[kind]);
      case kBgpLuPush:
        return Vela::make<BgpLuPushTunnelTable>(kNames[kind]);
      case kLdp:
        return Vela::make<LdpTunnelTable>(kNames[kind]);
      case kSr:
        return Vela::make<SrTunnelTable>(kNames[kind]);
      case kStatic:
        return Vela::make<StaticTunnelTable>(kNames[kind]);
      default:
        return Vela::make<SrTeSegmentListTunnelTable>(kNames[kind]);
    }
  }

  template <class Table>
  Table* table(int kind) const {
    auto it = tables_.find(kind);
    return it == tables_.end() ? nullptr : static_cast<Table*>(it->second.get());
  }

  // --- operations ------------------------------------------------------------------------------

  MplsLabelOperation labels(FuzzedDataProvider& in) {
    static MplsAction const actions[] = {MplsAction::push, MplsAction::push, MplsAction::push,
                                         MplsAction::push, MplsAction::pop,  MplsAction::swap,
                                         MplsAction::none, MplsAction::push};
    static std::uint32_t const values[] = {16, 17, 3000, 1048575};
    MplsLabelOperation op;
    op.operationIs(actions[in.ConsumeIntegralInRange<int>(0, 7)]);
    int const count = in.ConsumeIntegralInRange<int>(0, 6);
    for (int i = 0; i < count; ++i) op.push(values[in.ConsumeIntegralInRange<int>(0, 3)]);
    return op;
  }

  // A via's interface: a real one, or the dynamic interface of a tunnel
  // (mostly of the six tables, now and then of one no table holds).
  IntfId viaIntf(FuzzedDataProvider& in, std::string& text) {
    int const choice = in.ConsumeIntegralInRange<int>(0, 15);
    if (choice < 6) {
      IntfId const intf = IntfId::ethernet(1 + choice % 3);
      text += intf.toStrep();
      return intf;
    }
    TunnelId inner;
    if (choice < 14) {
      int const kind = in.ConsumeIntegralInRange<int>(0, kKinds - 1);
      inner = makeId(kind, in.ConsumeIntegralInRange<std::uint64_t>(1, kIndexes), in.ConsumeBool());
    } else if (choice == 14) {
      inner = makeId(kLdp, 99, false);  // in no table
    } else {
      inner = TunnelId(TunnelId::convertToTunnelValue(TunnelType::nexthopTunnel, 1));
    }
    text += "over " + str(inner);
    return inner.intfId();
  }

  template <class Entry>
  void plainVias(FuzzedDataProvider& in, Entry& e, std::string& text) {
    e.labelsIs(labels(in));
    text += " labels '" + e.labels().toStrep() + "'";
    int const count = in.ConsumeIntegralInRange<int>(0, 3);
    for (int i = 0; i < count; ++i) {
      text += " via ";
      IntfId const intf = viaIntf(in, text);
      e.viaIs(Via(nexthopOf(in.ConsumeIntegralInRange<int>(0, 3)), intf), true);
    }
  }

  template <class Entry>
  void mplsVias(FuzzedDataProvider& in, Entry& e, std::string& text) {
    int const count = in.ConsumeIntegralInRange<int>(0, 3);
    for (int i = 0; i < count; ++i) {
      text += " via ";
      IntfId const intf = viaIntf(in, text);
      MplsLabelOperation const op = labels(in);
      text += " '" + op.toStrep() + "'";
      e.viaIs(MplsVia(nexthopOf(in.ConsumeIntegralInRange<int>(0, 3)), intf, op), true);
    }
  }

  template <class Entry>
  void common(FuzzedDataProvider& in, Entry& e, std::string& text) {
    int const tep = in.ConsumeIntegralInRange<int>(0, 4);
    e.tepIs(tepOf(tep));
    text += " tep '" + tepOf(tep).toStrep() + "'";
    if (in.ConsumeIntegralInRange<int>(0, 7) == 0) {
      e.nexthopTunnelIdIs(makeId(kLdp, in.ConsumeIntegralInRange<std::uint64_t>(1, kIndexes), false));
    }
  }

  void writeEntry(FuzzedDataProvider& in) {
    int const kind = in.ConsumeIntegralInRange<int>(0, kKinds - 1);
    TunnelId const id = makeId(kind, in.ConsumeIntegralInRange<std::uint64_t>(1, kIndexes), in.ConsumeBool());
    std::string text = "write " + str(id);
    switch (kind) {
      case kBgpLu: {
        BgpLuTunnelTableEntry e(id);
        common(in, e, text);
        plainVias(in, e, text);
        if (in.ConsumeIntegralInRange<int>(0, 3) == 0) {
          e.contributionIs(ContributionToTunnelRIB::nonContributing);
          text += " nonContributing";
        }
        e.bgpMetricIs(in.ConsumeIntegralInRange<std::uint32_t>(0, 3));
        e.bgpPrefIs(in.ConsumeIntegralInRange<std::uint32_t>(0, 3));
        if (auto* t = table<BgpLuTunnelTable>(kind)) t->entryIs(e);
        break;
      }
      case kBgpLuPush: {
        BgpLuPushTunnelTableEntry e(id);
        common(in, e, text);
        plainVias(in, e, text);
        if (auto* t = table<BgpLuPushTunnelTable>(kind)) t->entryIs(e);
        break;
      }
      case kLdp:
      case kSr: {
        LdpSrTunnelTableEntry e(id);
        common(in, e, text);
        mplsVias(in, e, text);
        e.igpMetricIs(in.ConsumeIntegralInRange<std::uint32_t>(0, 3));
        if (kind == kLdp) {
          if (auto* t = table<LdpTunnelTable>(kind)) t->entryIs(e);
        } else if (auto* t = table<SrTunnelTable>(kind)) {
          t->entryIs(e);
        }
        break;
      }
      case kStatic: {
        StaticTunnelTableEntry e(id);
        common(in, e, text);
        plainVias(in, e, text);
        e.nameIs("st" + std::to_string(id.tunnelIndex()));
        if (auto* t = table<StaticTunnelTable>(kind)) t->entryIs(e);
        break;
      }
      default: {
        SrTeSegmentListTunnelTableEntry e(id);
        common(in, e, text);
        mplsVias(in, e, text);
        if (auto* t = table<SrTeSegmentListTunnelTable>(kind)) t->entryIs(e);
        break;
      }
    }
    if (!tables_.count(kind)) text += " (no table)";
    log(text);
  }

  void removeEntry(FuzzedDataProvider& in) {
    int const kind = in.ConsumeIntegralInRange<int>(0, kKinds - 1);
    TunnelId const id = makeId(kind, in.ConsumeIntegralInRange<std::uint64_t>(1, kIndexes), in.ConsumeBool());
    log("remove " + str(id));
    switch (kind) {
      case kBgpLu:
        if (auto* t = table<BgpLuTunnelTable>(kind)) t->entryDel(id);
        break;
      case kBgpLuPush:
        if (auto* t = table<BgpLuPushTunnelTable>(kind)) t->entryDel(id);
        break;
      case kLdp:
        if (auto* t = table<LdpTunnelTable>(kind)) t->entryDel(id);
        break;
      case kSr:
        if (auto* t = table<SrTunnelTable>(kind)) t->entryDel(id);
        break;
      case kStatic:
        if (auto* t = table<StaticTunnelTable>(kind)) t->entryDel(id);
        break;
      default:
        if (auto* t = table<SrTeSegmentListTunnelTable>(kind)) t->entryDel(id);
        break;
    }
  }

  void clearTable(FuzzedDataProvider& in) {
    int const kind = in.ConsumeIntegralInRange<int>(0, kKinds - 1);
    log(std::string("clear ") + kNames[kind]);
    auto it = tables_.find(kind);
    if (it == tables_.end()) return;
    switch (kind) {
      case kBgpLu:
        table<BgpLuTunnelTable>(kind)->entryDelAll();
        break;
      case kBgpLuPush:
        table<BgpLuPushTunnelTable>(kind)->entryDelAll();
        break;
      case kLdp:
        table<LdpTunnelTable>(kind)->entryDelAll();
        break;
      case kSr:
        table<SrTunnelTable>(kind)->entryDelAll();
        break;
      case kStatic:
        table<StaticTunnelTable>(kind)->entryDelAll();
        break;
      default:
        table<SrTeSegmentListTunnelTable>(kind)->entryDelAll();
        break;
    }
  }

  // Publishes, withdraws or republishes (a new table object with the same
  // entries, as a restarted protocol would) one table.
  void changeTable(FuzzedDataProvider& in) {
    int const kind = in.ConsumeIntegralInRange<int>(0, kKinds - 1);
    std::string const path = std::string("tunnel/table/") + kNames[kind];
    auto it = tables_.find(kind);
    if (it == tables_.end()) {
      log(std::string("publish ") + kNames[kind]);
      auto t = newTable(kind);
      tables_[kind] = t;
      em_->entityIs(path, t);
      return;
    }
    if (in.ConsumeBool()) {
      log(std::string("withdraw ") + kNames[kind]);
      tables_.erase(it);
      em_->entityDel(path);
      return;
    }
    log(std::string("republish ") + kNames[kind]);
    auto t = newTable(kind);
    auto copy = [](auto const* from, auto* to) {
      for (auto e = from->entrys().begin(); e != from->entrys().end(); ++e) to->entryIs(e.value());
      to->tablePrefIs(from->tablePref());
    };
    switch (kind) {
      case kBgpLu:
        copy(table<BgpLuTunnelTable>(kind), static_cast<BgpLuTunnelTable*>(t.get()));
        static_cast<BgpLuTunnelTable*>(t.get())->bgpConvergedIs(
            table<BgpLuTunnelTable>(kind)->bgpConverged());
        break;
      case kBgpLuPush:
        copy(table<BgpLuPushTunnelTable>(kind), static_cast<BgpLuPushTunnelTable*>(t.get()));
        break;
      case kLdp:
        copy(table<LdpTunnelTable>(kind), static_cast<LdpTunnelTable*>(t.get()));
        break;
      case kSr:
        copy(table<SrTunnelTable>(kind), static_cast<SrTunnelTable*>(t.get()));
        break;
      case kStatic:
        copy(table<StaticTunnelTable>(kind), static_cast<StaticTunnelTable*>(t.get()));
        break;
      default:
        copy(table<SrTeSegmentListTunnelTable>(kind), static_cast<SrTeSegmentListTunnelTable*>(t.get()));
        break;
    }
    it->second = t;
    em_->entityIs(path, t);
  }

  void changePref(FuzzedDataProvider& in) {
    int const kind = in.ConsumeIntegralInRange<int>(0, kKinds - 1);
    auto const pref = static_cast<TunnelTablePref>(in.ConsumeIntegralInRange<int>(1, 5));
    log(std::string("pref ") + kNames[kind] + " " + Vela::enumName(pref));
    if (auto it = tables_.find(kind); it != tables_.end()) it->second->tablePrefIs(pref);
  }

  void flipConvergence() {
    auto* t = table<BgpLuTunnelTable>(kBgpLu);
    log("flip bgpConverged");
    if (t) t->bgpConvergedIs(!t->bgpConverged());
  }

  // Directory entries that are no table of ours: a plain directory, and an
  // LDP table under another name (the aggregator goes by the table's type).
  void foreignEntry(FuzzedDataProvider& in) {
    bool const ldp = in.ConsumeBool();
    std::string const name = ldp ? "ldp2" : "other";
    std::string const path = "tunnel/table/" + name;
    if (em_->getEntity(path)) {
      log("withdraw " + name);
      em_->entityDel(path);
    } else {
      log("publish " + name);
      if (ldp) {
        em_->entityIs(path, Vela::make<LdpTunnelTable>(name));
      } else {
        em_->entityIs(path, Vela::make<Vela::Dir>(name));
      }
    }
  }

  void restartAgent() {
    log("restart agent");
    agent_ = nullptr;
    startAgent();
  }

  void partialDrain(FuzzedDataProvider& in) {
    std::uint32_t const every = in.ConsumeIntegralInRange<std::uint32_t>(1, 3);
    int const steps = in.ConsumeIntegralInRange<int>(1, 4);
    log("run " + std::to_string(steps) + " steps, yield every " + std::to_string(every));
    scheduler_->yieldEveryIs(every);
    for (int i = 0; i < steps; ++i) {
      clock_->advance(0.01);
      scheduler_->runOne();
    }
    scheduler_->yieldEveryIs(0);
  }

  void drain(int mode) {
    static std::uint32_t const every[] = {0, 1, 2, 5};
    log("drain, yield every " + std::to_string(every[mode]));
    scheduler_->yieldEveryIs(every[mode]);
    std::uint64_t const limit = scheduler_->stepCount() + kDrainStepLimit;
    scheduler_->runUntil([&] { return scheduler_->stepCount() > limit; });
    scheduler_->yieldEveryIs(0);
    if (scheduler_->pendingWork()) fail("the review did not settle");
  }

  // --- invariants ------------------------------------------------------------------------------

  void check() {
    auto const& aggregator = agent_->aggregatorSm();
    if (!aggregator->initialized()) {
      if (aggregator->mplsTunnelFibSm() || aggregator->tunnelRibSm()) fail("machines without initialization");
      return;
    }
    checkFib(*aggregator);
    checkRib(*aggregator);
  }

  void checkFib(TunnelAggregatorSm const& aggregator) {
    MplsTunnelFibSm const& sm = *aggregator.mplsTunnelFibSm();
    MplsTunnelFib const& fib = *agent_->mplsTunnelFib();
    TunnelIdColl const& unprogrammable = *aggregator.unprogrammableTunnelId();
    Tables const tables = watched();

    if (!sm.tunnelForReviews().empty()) fail("backlog not empty after the drain");
    if (!sm.tunnelFibEntryMarkedUnprocesseds().empty()) fail("start-up marks left after the drain");
    if (sm.tunnelReviewBookmark() != TunnelId()) fail("bookmark not reset after the drain");
    if (!sm.task() || sm.task()->taskScheduled()) fail("review task missing or still scheduled");

    EntryView view;
    for (auto it = fib.entrys().begin(); it != fib.entrys().end(); ++it) {
      TunnelId const id = it.key();
      MplsTunnelFibEntry const& entry = it.value();
      if (entry.tunnelId() != id) fail("FIB entry under another id: " + str(id));
      if (entry.vias().empty()) fail("FIB entry without vias: " + str(id));
      for (MplsVia const& via : entry.vias()) {
        if (DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intfId()))
          fail("FIB via on a dynamic tunnel interface: " + str(id) + " " + via.intfId().toStrep());
        if (via.labels().stackSize() > MplsLabelOperation::maxStackSize)
          fail("FIB stack deeper than six: " + str(id));
      }
      if (!tables.find(id, view)) fail("FIB entry of a tunnel in no table: " + str(id));
      if (unprogrammable.entry(id)) fail("FIB entry of an unprogrammable tunnel: " + str(id));
    }

    // Forget what left the set; the rest of what an earlier machine left is allowed.
    for (auto it = inherited_.begin(); it != inherited_.end();) {
      it = unprogrammable.entry(*it) && !tables.find(*it, view) ? std::next(it) : inherited_.erase(it);
    }
    for (auto it = unprogrammable.entrys().begin(); it != unprogrammable.entrys().end(); ++it) {
      TunnelId const id = it.key();
      if (fib.entrys().contains(id)) fail("unprogrammable tunnel has a FIB entry: " + str(id));
      if (!tables.find(id, view) && !inherited_.count(id))
        fail("unprogrammable tunnel in no table: " + str(id));
    }

    for (TunnelId const id : tables.ids()) {
      tables.find(id, view);
      bool const inFib = fib.entrys().contains(id);
      if (inFib == unprogrammable.entry(id)) {
        fail("tunnel in its table is " +
             std::string(inFib ? "both programmed and unprogrammable: "
                               : "neither programmed nor unprogrammable: ") +
             str(id));
      }
      std::set<TunnelId> inners;
      bool direct = true;
      MplsTunnelFibEntry expected(id);
      for (MplsVia const& via : view.vias) {
        if (DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intfId())) {
          direct = false;
          inners.insert(TunnelId(DynamicTunnelIntfId::tunnelId(via.intfId())));
        } else {
          expected.viaIs(via, true);
        }
      }
      if (direct) {
        if (view.vias.empty() ? inFib : !(fib.entry(id) == expected))
          fail("tunnel with direct vias only is not programmed with them: " + str(id));
      }
      std::set<TunnelId> recorded;
      for (TunnelId const& t : sm.tunnelsDirectlyDependingOn(id)) recorded.insert(t);
      if (recorded != inners) fail("recorded inner tunnels differ from the vias: " + str(id));
    }

    for (auto const& [x, dependents] : sm.directlyDependentTunnelss()) {
      if (dependents.empty()) fail("empty dependent set of " + str(x));
      for (TunnelId const& y : dependents) {
        if (!sm.tunnelsDirectlyDependingOn(y).contains(x))
          fail("dependency maps disagree on " + str(x) + " <- " + str(y));
      }
    }
    for (auto const& [y, inners] : sm.tunnelsDirectlyDependingOns()) {
      if (inners.empty()) fail("empty inner set of " + str(y));
      if (!tables.find(y, view)) fail("inner set kept for a tunnel in no table: " + str(y));
      for (TunnelId const& x : inners) {
        if (!sm.directlyDependentTunnels(x).contains(y))
          fail("dependency maps disagree on " + str(y) + " -> " + str(x));
      }
    }
    for (auto const& [y, resolved] : sm.resolvedByTunnelss()) {
      if (resolved.empty()) fail("empty resolved set of " + str(y));
      if (!tables.find(y, view)) fail("resolved set kept for a tunnel in no table: " + str(y));
    }
  }

  void checkRib(TunnelAggregatorSm const& aggregator) {
    TunnelRibSm const& sm = *aggregator.tunnelRibSm();
    TunnelIdColl const& unprogrammable = *aggregator.unprogrammableTunnelId();
    Tables const tables{sm.bgpLuTable(), nullptr, sm.ldpTable(), sm.srTable(), sm.staticTable(), nullptr};
    static TunnelType const protocols[] = {TunnelType::staticTunnel, TunnelType::ldpTunnel,
                                           TunnelType::srTunnel, TunnelType::bgpLuTunnel};

    for (auto it = agent_->tunnelRib()->entrys().begin(); it != agent_->tunnelRib()->entrys().end(); ++it) {
      TunnelRibEntry const& entry = *it.value();
      std::string const tep = it.key().toStrep();
      if (!(entry.tep() == it.key())) fail("tunnel RIB entry under another TEP: " + tep);
      if (entry.tunnelIds().empty()) fail("empty tunnel RIB entry: " + tep);
      TunnelType const type = entry.tunnelIds().begin().key().tunnelType();
      if (!contributeToTunnelRib(type)) fail("tunnel RIB entry of a non-contributing type: " + tep);
      for (auto id = entry.tunnelIds().begin(); id != entry.tunnelIds().end(); ++id) {
        if (id.key().tunnelType() != type) fail("tunnel RIB entry mixes protocols: " + tep);
        if (strict()) {
          EntryView view;
          if (!tables.find(id.key(), view))
            fail("strict: tunnel RIB holds a tunnel in no table: " + str(id.key()));
          if (!view.contributing)
            fail("strict: tunnel RIB holds a non-contributing tunnel: " + str(id.key()));
          if (unprogrammable.entry(id.key()))
            fail("strict: tunnel RIB holds an unprogrammable tunnel: " + str(id.key()));
          if (!(view.common.tep() == it.key()))
            fail("strict: tunnel RIB holds a tunnel under an old TEP: " + str(id.key()));
        }
      }
    }

    for (TunnelType const type : protocols) {
      auto const wrapper = agent_->protoTunnelRibColl()->protocolTunnelRib(type);
      if (!wrapper || !wrapper->tunnelRib()) fail("per-protocol tunnel RIB missing");
      TunnelRib const& rib = *wrapper->tunnelRib();
      for (auto it = rib.entrys().begin(); it != rib.entrys().end(); ++it) {
        std::string const tep = it.key().toStrep();
        if (it.value()->tunnelIds().empty()) fail("empty per-protocol tunnel RIB entry: " + tep);
        for (auto id = it.value()->tunnelIds().begin(); id != it.value()->tunnelIds().end(); ++id) {
          if (id.key().tunnelType() != type) fail("per-protocol tunnel RIB holds another protocol: " + tep);
          if (strict()) {
            auto const* entered = sm.tunnelIdToTeps().lookup(id.key());
            if (!entered || !(entered->tep() == it.key()))
              fail("strict: per-protocol tunnel RIB holds a tunnel not entered there: " + str(id.key()) +
                   " " + tep);
          }
        }
      }
    }

    // The id-to-TEP map: exactly the present, contributing, programmable tunnels.
    std::set<TunnelId> entitled;
    EntryView view;
    for (TunnelId const id : tables.ids()) {
      tables.find(id, view);
      if (view.contributing && !unprogrammable.entry(id)) entitled.insert(id);
    }
    for (auto it = sm.tunnelIdToTeps().begin(); it != sm.tunnelIdToTeps().end(); ++it) {
      TunnelId const id = it.key();
      if (it.value().tunnelId() != id) fail("id-to-TEP record under another id: " + str(id));
      if (!entitled.count(id))
        fail("id-to-TEP map holds a tunnel that is gone, withdrawn or unprogrammable: " + str(id));
      tables.find(id, view);
      if (!(view.common.tep() == it.value().tep())) fail("id-to-TEP map holds an old TEP: " + str(id));
    }
    for (TunnelId const id : entitled) {
      if (!sm.tunnelIdToTeps().contains(id)) fail("id-to-TEP map misses a present tunnel: " + str(id));
      if (strict()) {
        tables.find(id, view);
        auto const proto = agent_->protoTunnelRibColl()->protocolTunnelRib(id.tunnelType())->tunnelRib();
        auto const entry = proto->entry(view.common.tep());
        if (!entry || !entry->tunnelId(id))
          fail("strict: per-protocol tunnel RIB misses a present tunnel: " + str(id));
      }
    }
  }

  Vela::Ptr<Quay::ManualClock> clock_ = Vela::make<Quay::ManualClock>();
  Vela::Ptr<Quay::TaskScheduler> scheduler_ = Vela::make<Quay::TaskScheduler>(clock_);
  Vela::Ptr<Corvel::EntityManager> em_ = Vela::make<Corvel::EntityManager>(scheduler_);
  Vela::Ptr<Agent> agent_;
  std::map<int, Vela::Ptr<TunnelTableBase>> tables_;  // as published, by kind
  MplsTunnelFibSm const* fibSm_ = nullptr;
  std::set<TunnelId> inherited_;
  OperationLog log_{"AgentFuzz"};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  Harness harness;
  harness.runCatchingAssertions(in);
  return 0;
}
