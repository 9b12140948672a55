// The running system a scenario is played against.
//
// A Lab holds one event loop, one state database and in it everything the
// tunnel library's agent meets in a router: the protocol tunnel tables that
// the protocols publish under "tunnel/table", the tunnel agent itself
// (Tunnel::TunnelTable::Agent, which mounts the tunnel RIBs and the MPLS
// tunnel FIB and runs the aggregator), the static tunnel configuration, and
// the decapsulation side: the command-line decap configuration, the dynamic
// sources under "routing/tunneldecap/input/dynamic/", the simulation root
// that merges them and the simulator that counts decapsulation addresses.
//
// Everything is changed the way its owner would change it (table entries
// written, tables published or withdrawn, the agent dropped and started
// again), and after each change settle() runs the loop until nothing is left
// to do: mounts completed, the FIB review backlog empty. The Lab never
// computes results itself; views read them from the library's entities.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "Decap/DecapGroup.h"
#include "Decap/TunnelOrlaRoot.h"
#include "Decap/TunnelSimulator.h"
#include "Static/StaticTunnelConfig.h"
#include "TunnelTable/TunnelAggregatorSm.h"
#include "framework/Corvel/EntityManager.h"
#include "framework/Quay/Clock.h"
#include "framework/Quay/TaskScheduler.h"
#include "tools/tunnel-agent/Scenario.h"

namespace Tunnel::Tool {

// How far a settle() has come, for progress reports.
struct Progress {
  // Tunnels reviewed by the FIB review task since settle() began.
  std::uint64_t reviewed = 0;
  // Tunnels still waiting in the review backlog.
  std::uint64_t backlog = 0;
  // Wall-clock seconds since settle() began.
  double elapsed = 0;
  // The last report of a settle(): the loop is idle.
  bool done = false;
};

class Lab {
 public:
  using ProgressHandler = std::function<void(Progress const&)>;

  // Runs on `clock` (null: the system clock).
  explicit Lab(Vela::Ptr<Quay::Clock> clock = nullptr);
  ~Lab();
  Lab(Lab const&) = delete;
  Lab& operator=(Lab const&) = delete;

  // Called while settle() runs (before loop steps) and once when it ends.
  void progressHandlerIs(ProgressHandler handler) { progress_ = std::move(handler); }

  // Sets up the scenario's initial state and settles: tables first (as the
  // protocols publish them), then the agent; the decap merge starts on the
  // sources present and the simulator starts once the merge has seen them.
  void load(Scenario const& scenario);
  // The six tables, present and empty; no decap sources, no static entries.
  void loadEmpty();
  // Applies one action that was checked against model(); does not settle.
  void apply(Action const& action);
  // Runs the event loop until nothing is posted or scheduled.
  void settle();

  // What exists now; serve checks requests against it.
  Model const& model() const { return model_; }

  Vela::Ptr<Quay::TaskScheduler> const& scheduler() const { return scheduler_; }
  Vela::Ptr<Corvel::EntityManager> const& entityManager() const { return entityManager_; }
  Vela::Ptr<TunnelTable::Agent> const& agent() const { return agent_; }
  // Null while the agent has not built it.
  TunnelTable::TunnelAggregatorSm const* aggregator() const;
  // Null while the state machines are stopped.
  TunnelTable::MplsTunnelFibSm const* fibSm() const;
  // The persistent outputs, read from the state database (they outlive
  // agent restarts); null before the agent mounted them.
  Vela::Ptr<TunnelTable::TunnelRib const> tunnelRib() const;
  Vela::Ptr<TunnelTable::TunnelRib const> protoTunnelRib(TableKind protocol) const;
  Vela::Ptr<TunnelFib::MplsTunnelFib const> mplsTunnelFib() const;

  // A table as published now (null when absent).
  Vela::Ptr<TunnelTable::TunnelTableBase const> table(TableKind kind) const;
  // The entry of `id` in its table, as the common part plus its vias (in
  // interface order), each carrying the labels it pushes (the entry's for
  // plain vias). `present` is false when the table or the entry does not exist.
  struct TableEntry {
    bool present = false;
    Nimbo::IpGenPrefix tep;
    std::vector<TunnelTable::MplsVia> vias;
  };
  TableEntry tableEntry(TunnelId id) const;
  // Every tunnel in every present table, in tunnel id order.
  std::vector<TunnelId> allTunnels() const;

  Vela::Ptr<Static::Config const> staticConfig() const { return staticConfig_; }
  Vela::Ptr<Decap::Config const> decapConfig() const;
  Decap::DecapGroupConfigMergeSm const* decapMerge() const;
  Decap::TunnelSimulator const* simulator() const;

 private:
  void addTable(TableDef const& def);
  void removeTable(TableKind kind);
  void writeEntry(EntryDef const& entry);
  void removeEntry(TableKind kind, TunnelId id);
  void startAgent();
  Vela::Ptr<Decap::ConfigInput> decapSource(std::string const& name) const;
  void startDecap();

  ProgressHandler progress_;
  Vela::Ptr<Quay::TaskScheduler> scheduler_;
  Vela::Ptr<Corvel::EntityManager> entityManager_;
  Vela::Ptr<TunnelTable::BgpLuTunnelTable> bgpLu_;
  Vela::Ptr<TunnelTable::BgpLuPushTunnelTable> bgpLuPush_;
  Vela::Ptr<TunnelTable::LdpTunnelTable> ldp_;
  Vela::Ptr<TunnelTable::SrTunnelTable> sr_;
  Vela::Ptr<TunnelTable::StaticTunnelTable> static_;
  Vela::Ptr<TunnelTable::SrTeSegmentListTunnelTable> srTeSegmentList_;
  Vela::Ptr<TunnelTable::Agent> agent_;
  Vela::Ptr<Static::Config> staticConfig_;
  Vela::Ptr<Decap::ConfigInput> cliDecap_;
  std::map<std::string, Vela::Ptr<Decap::ConfigInput>> dynamicDecap_;
  Vela::Ptr<TunnelOrlaRoot> orlaRoot_;
  Vela::Ptr<Decap::TunnelSimulatorAgent> simulatorAgent_;
  Model model_;
};

}  // namespace Tunnel::Tool
