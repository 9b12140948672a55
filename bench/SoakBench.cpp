// Soak of the tunnel agent at provider-edge scale: a million random table
// operations through the real Agent, then every table put back as it was.
//
// The tables hold what a PE carries (at SOAK_SCALE 1): 2,000 LDP and 1,000
// SR transport tunnels, 100 static tunnels, 200,000 BGP LU tunnels riding on
// LDP (a tenth of them to TEPs that LDP also reaches, one in four over two
// LDP tunnels), 10,000 BGP LU push tunnels riding on BGP LU and 500 SR-TE
// segment lists riding on SR. The agent runs on a Corvel::EntityManager whose
// scheduler has a manual clock; its review task yields every 2,000 tunnels.
//
// SOAK_OPS operations (default 1,000,000) then change, withdraw and restore
// random tunnels of every table: labels, vias (moving a BGP LU tunnel onto
// another LDP tunnel, or onto a stack too deep to program), metrics,
// contribution, the TEP (rarely: the tunnel RIB keeps an id under its old TEP
// by design), withdrawal and return of transport tunnels under hundreds of
// riders, BGP convergence, one republished table and one restart of the
// agent half-way. The review runs every 500 operations. At the end every
// tunnel gets its starting entry back and the review runs dry.
//
// Reported (also as counters): the resident set at start (tables loaded,
// review done), its peak (the process's high-water mark) and at the end,
// and the sizes of the FIB, the unprogrammable set, the tunnel RIBs, the
// state machines' local collections, dependency maps and backlog at start
// and at the end. Back at the starting tables the resident set must be
// within 5% of the start and no local collection, dependency map or backlog
// may have grown; the benchmark reports an error otherwise.
//
// SOAK_SCALE scales the tables (e.g. 0.02 for a LeakSanitizer run of a
// smaller soak in a sanitizer build).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "TunnelTable/TunnelAggregatorSm.h"
#include "framework/Corvel/EntityManager.h"
#include "framework/Quay/Clock.h"
#include "framework/Quay/TaskScheduler.h"

// Under AddressSanitizer freed memory waits in a quarantine, so the resident
// set says nothing about what the agent holds: it is reported, not judged.
#if defined(__SANITIZE_ADDRESS__)
#define TUNNEL_SOAK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TUNNEL_SOAK_ASAN 1
#endif
#endif
#ifndef TUNNEL_SOAK_ASAN
#define TUNNEL_SOAK_ASAN 0
#endif

namespace Tunnel::TunnelTable {
namespace {

using Nimbo::IntfId;
using Nimbo::IpAddr;
using Nimbo::IpGenAddr;
using Nimbo::IpGenPrefix;
using Nimbo::MplsLabelOperation;

double envNumber(char const* name, double fallback) {
  char const* v = std::getenv(name);
  return v && *v ? std::strtod(v, nullptr) : fallback;
}

std::int64_t residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<std::int64_t>(resident) * sysconf(_SC_PAGESIZE);
}

// The process's resident high-water mark (VmHWM).
std::int64_t peakResidentBytes() {
  std::int64_t kb = 0;
  if (FILE* f = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, f)) {
      if (std::strncmp(line, "VmHWM:", 6) == 0) kb = std::strtoll(line + 6, nullptr, 10);
    }
    std::fclose(f);
  }
  return kb * 1024;
}

double mb(std::int64_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

IpGenPrefix hostPrefix(std::uint32_t a) { return IpGenPrefix(IpGenAddr(IpAddr(a)), 32); }
IpGenAddr host(std::uint32_t a) { return IpGenAddr(IpAddr(a)); }

TunnelId idOf(TunnelType type, std::uint64_t index) {
  return TunnelId(TunnelId::convertToTunnelValue(type, index));
}

// What the agent keeps, counted.
struct Sizes {
  std::size_t fib = 0, unprogrammable = 0, tunnelRib = 0, tunnelRibIds = 0, protoRibIds = 0;
  std::size_t tunnelIdToTep = 0, tunRibMetricTunId = 0;
  std::size_t dependents = 0, dependingOn = 0, resolvedBy = 0, backlog = 0, unprocessed = 0, scheduled = 0;
};

class Soak {
 public:
  Soak(double scale, bool tepChanges, bool contributionFlips)
      : tepChanges_(tepChanges),
        contributionFlips_(contributionFlips),
        nLdp_(count(2000, scale)),
        nSr_(count(1000, scale)),
        nStatic_(count(100, scale)),
        nLu_(count(200000, scale)),
        nLuPush_(count(10000, scale)),
        nSrTe_(count(500, scale)) {
    registerTunnelTypes(*em_);
    bgpLu_ = publish(Vela::make<BgpLuTunnelTable>("bgpLu"));
    bgpLuPush_ = publish(Vela::make<BgpLuPushTunnelTable>("bgpLuPush"));
    ldp_ = publish(Vela::make<LdpTunnelTable>("ldp"));
    sr_ = publish(Vela::make<SrTunnelTable>("sr"));
    static_ = publish(Vela::make<StaticTunnelTable>("static"));
    srTe_ = publish(Vela::make<SrTeSegmentListTunnelTable>("srTeSegmentList"));
    for (std::uint64_t i = 1; i <= nLdp_; ++i) ldp_->entryIs(ldpEntry(i, 0));
    for (std::uint64_t i = 1; i <= nSr_; ++i) sr_->entryIs(srEntry(i, 0));
    for (std::uint64_t i = 1; i <= nStatic_; ++i) static_->entryIs(staticEntry(i, 0));
    for (std::uint64_t i = 1; i <= nLu_; ++i) bgpLu_->entryIs(luEntry(i, 0));
    for (std::uint64_t i = 1; i <= nLuPush_; ++i) bgpLuPush_->entryIs(luPushEntry(i, 0));
    for (std::uint64_t i = 1; i <= nSrTe_; ++i) srTe_->entryIs(srTeEntry(i, 0));
    scheduler_->yieldEveryIs(2000);
    startAgent();
    drain();
  }
  ~Soak() {
    agent_ = nullptr;
    scheduler_->runUntilIdle();
  }

  std::uint64_t tunnels() const { return nLdp_ + nSr_ + nStatic_ + nLu_ + nLuPush_ + nSrTe_; }

  // One random operation.
  void step(std::mt19937_64& rng) {
    std::uint32_t const op = std::uniform_int_distribution<std::uint32_t>(0, 999)(rng);
    auto pick = [&](std::uint64_t n) { return std::uniform_int_distribution<std::uint64_t>(1, n)(rng); };
    std::uint32_t const variant = std::uniform_int_distribution<std::uint32_t>(1, 5)(rng);
    if (op < 450) {  // a BGP LU tunnel changes: labels, metrics, the LDP tunnels it rides on
      change(kLu, pick(nLu_), variant,
             [&](std::uint64_t i, std::uint32_t v) { bgpLu_->entryIs(luEntry(i, v)); });
    } else if (op < 600) {  // withdrawn or back
      toggle(kLu, pick(nLu_), [&](std::uint64_t i, bool back) {
        back ? bgpLu_->entryIs(luEntry(i, 0)) : bgpLu_->entryDel(idOf(TunnelType::bgpLuTunnel, i));
      });
    } else if (op < 650) {  // stops or resumes contributing
      std::uint32_t const v = contributionFlips_ ? 6 : variant;
      change(kLu, pick(nLu_), v, [&](std::uint64_t i, std::uint32_t v) { bgpLu_->entryIs(luEntry(i, v)); });
    } else if (op < 655) {  // a TEP changed in place
      std::uint32_t const v = tepChanges_ ? 7 : variant;
      change(kLu, pick(nLu_), v, [&](std::uint64_t i, std::uint32_t v) { bgpLu_->entryIs(luEntry(i, v)); });
    } else if (op < 740) {  // an LDP tunnel changes its vias or labels: its riders follow
      change(kLdp, pick(nLdp_), variant,
             [&](std::uint64_t i, std::uint32_t v) { ldp_->entryIs(ldpEntry(i, v)); });
    } else if (op < 760) {  // an LDP tunnel is withdrawn or back: its riders become unprogrammable and return
      toggle(kLdp, pick(nLdp_), [&](std::uint64_t i, bool back) {
        back ? ldp_->entryIs(ldpEntry(i, 0)) : ldp_->entryDel(idOf(TunnelType::ldpTunnel, i));
      });
    } else if (op < 820) {
      change(kSr, pick(nSr_), variant,
             [&](std::uint64_t i, std::uint32_t v) { sr_->entryIs(srEntry(i, v)); });
    } else if (op < 840) {
      toggle(kSr, pick(nSr_), [&](std::uint64_t i, bool back) {
        back ? sr_->entryIs(srEntry(i, 0)) : sr_->entryDel(idOf(TunnelType::srTunnel, i));
      });
    } else if (op < 860) {
      change(kStatic, pick(nStatic_), variant,
             [&](std::uint64_t i, std::uint32_t v) { static_->entryIs(staticEntry(i, v)); });
    } else if (op < 930) {
      change(kLuPush, pick(nLuPush_), variant,
             [&](std::uint64_t i, std::uint32_t v) { bgpLuPush_->entryIs(luPushEntry(i, v)); });
    } else if (op < 950) {
      toggle(kLuPush, pick(nLuPush_), [&](std::uint64_t i, bool back) {
        back ? bgpLuPush_->entryIs(luPushEntry(i, 0))
             : bgpLuPush_->entryDel(idOf(TunnelType::bgpLuPushTunnel, i));
      });
    } else if (op < 995) {
      change(kSrTe, pick(nSrTe_), variant,
             [&](std::uint64_t i, std::uint32_t v) { srTe_->entryIs(srTeEntry(i, v)); });
    } else {
      bgpLu_->bgpConvergedIs(!bgpLu_->bgpConverged());
    }
  }

  void drain() {
    std::uint64_t const limit = scheduler_->stepCount() + 100000000;
    scheduler_->runUntil([&] { return scheduler_->stepCount() > limit; });
    sampleResident();
  }

  // The agent dropped and started again over the tables and the RIBs and FIB it left.
  void restartAgent() {
    agent_ = nullptr;
    startAgent();
    drain();
  }

  // The LDP table republished as a new table object with the same entries.
  void republishLdp() {
    auto table = Vela::make<LdpTunnelTable>("ldp");
    for (auto it = ldp_->entrys().begin(); it != ldp_->entrys().end(); ++it) table->entryIs(it.value());
    ldp_ = table;
    em_->entityIs("tunnel/table/ldp", table);
    drain();
  }

  // Every tunnel back to its starting entry, BGP convergence as at start.
  void restore() {
    auto put = [](std::vector<std::uint8_t>& state, auto write) {
      for (std::uint64_t i = 1; i < state.size(); ++i) {
        if (state[i] != 0) write(i);
        state[i] = 0;
      }
    };
    put(ldp_state_, [&](std::uint64_t i) { ldp_->entryIs(ldpEntry(i, 0)); });
    put(sr_state_, [&](std::uint64_t i) { sr_->entryIs(srEntry(i, 0)); });
    put(static_state_, [&](std::uint64_t i) { static_->entryIs(staticEntry(i, 0)); });
    put(lu_state_, [&](std::uint64_t i) { bgpLu_->entryIs(luEntry(i, 0)); });
    put(luPush_state_, [&](std::uint64_t i) { bgpLuPush_->entryIs(luPushEntry(i, 0)); });
    put(srTe_state_, [&](std::uint64_t i) { srTe_->entryIs(srTeEntry(i, 0)); });
    bgpLu_->bgpConvergedIs(false);
    drain();
  }

  Sizes sizes() const {
    Sizes s;
    auto const& aggregator = *agent_->aggregatorSm();
    auto const& fibSm = *aggregator.mplsTunnelFibSm();
    auto const& ribSm = *aggregator.tunnelRibSm();
    s.fib = agent_->mplsTunnelFib()->entrys().size();
    s.unprogrammable = aggregator.unprogrammableTunnelId()->entrys().size();
    s.tunnelRib = agent_->tunnelRib()->entrys().size();
    for (auto it = agent_->tunnelRib()->entrys().begin(); it != agent_->tunnelRib()->entrys().end(); ++it) {
      s.tunnelRibIds += it.value()->tunnelIds().size();
    }
    for (TunnelType type :
         {TunnelType::bgpLuTunnel, TunnelType::ldpTunnel, TunnelType::srTunnel, TunnelType::staticTunnel}) {
      auto const rib = agent_->protoTunnelRibColl()->protocolTunnelRib(type)->tunnelRib();
      for (auto it = rib->entrys().begin(); it != rib->entrys().end(); ++it) {
        s.protoRibIds += it.value()->tunnelIds().size();
      }
    }
    s.tunnelIdToTep = ribSm.tunnelIdToTeps().size();
    s.tunRibMetricTunId = ribSm.tunRibMetricTunIds().size();
    s.dependents = fibSm.directlyDependentTunnelss().size();
    s.dependingOn = fibSm.tunnelsDirectlyDependingOns().size();
    s.resolvedBy = fibSm.resolvedByTunnelss().size();
    s.backlog = fibSm.tunnelForReviews().size();
    s.unprocessed = fibSm.tunnelFibEntryMarkedUnprocesseds().size();
    s.scheduled = scheduler_->scheduledCount();
    return s;
  }

  std::int64_t peakSampled() const { return peakSampled_; }

 private:
  static std::uint64_t count(double n, double scale) {
    return std::max<std::uint64_t>(2, static_cast<std::uint64_t>(n * scale));
  }

  template <class T>
  Vela::Ptr<T> publish(Vela::Ptr<T> table) {
    em_->entityIs(std::string("tunnel/table/") + table->name(), table);
    return table;
  }

  void startAgent() {
    agent_ = Vela::make<Agent>(em_);
    agent_->start();
    scheduler_->runUntil([&] { return agent_->aggregatorSm() != nullptr; });
  }

  void sampleResident() { peakSampled_ = std::max(peakSampled_, residentBytes()); }

  // Per table, per index: 0 as at start, 1 changed, 2 withdrawn.
  enum Which { kLdp, kSr, kStatic, kLu, kLuPush, kSrTe };
  std::vector<std::uint8_t>& stateOf(Which w) {
    switch (w) {
      case kLdp:
        return ldp_state_;
      case kSr:
        return sr_state_;
      case kStatic:
        return static_state_;
      case kLu:
        return lu_state_;
      case kLuPush:
        return luPush_state_;
      default:
        return srTe_state_;
    }
  }

  // A changed entry (variant v) of a tunnel that is present; a withdrawn one stays withdrawn.
  template <class Write>
  void change(Which w, std::uint64_t i, std::uint32_t v, Write write) {
    auto& state = stateOf(w);
    if (state[i] == 2) return;
    state[i] = 1;
    write(i, v);
  }
  template <class Write>
  void toggle(Which w, std::uint64_t i, Write write) {
    auto& state = stateOf(w);
    bool const back = state[i] == 2;
    state[i] = back ? 1 : 2;
    write(i, back);
  }

  // --- the entries: variant 0 is the starting entry -------------------------------------------

  static MplsLabelOperation push(std::initializer_list<std::uint32_t> labels) {
    return MplsLabelOperation::pushOf(labels);
  }
  IntfId port(std::uint64_t i) const { return IntfId::ethernet(1 + static_cast<std::uint32_t>(i % 48)); }

  LdpSrTunnelTableEntry ldpEntry(std::uint64_t i, std::uint32_t v) const {
    LdpSrTunnelTableEntry e(idOf(TunnelType::ldpTunnel, i));
    e.tepIs(hostPrefix(0x0A000000u + static_cast<std::uint32_t>(i)));
    e.igpMetricIs(10 + v);
    std::uint32_t const label = 100000 + static_cast<std::uint32_t>(i) + (v == 2 ? 50000 : 0);
    e.viaIs(MplsVia(host(0x0A640000u + static_cast<std::uint32_t>(i % 250)), port(i), push({label})), true);
    if (v != 3)
      e.viaIs(MplsVia(host(0x0A650000u + static_cast<std::uint32_t>(i % 250)), port(i + 1), push({label})),
              true);
    return e;
  }
  LdpSrTunnelTableEntry srEntry(std::uint64_t i, std::uint32_t v) const {
    LdpSrTunnelTableEntry e(idOf(TunnelType::srTunnel, i));
    // The first half shares its TEPs with LDP, which is preferred.
    std::uint32_t const tep = i <= nSr_ / 2 ? 0x0A000000u : 0x0A300000u;
    e.tepIs(hostPrefix(tep + static_cast<std::uint32_t>(i)));
    e.igpMetricIs(20 + v);
    e.viaIs(MplsVia(host(0x0A660000u + static_cast<std::uint32_t>(i % 250)), port(i),
                    push({16000 + static_cast<std::uint32_t>(i) + v})),
            true);
    return e;
  }
  StaticTunnelTableEntry staticEntry(std::uint64_t i, std::uint32_t v) const {
    StaticTunnelTableEntry e(idOf(TunnelType::staticTunnel, i));
    e.tepIs(hostPrefix(0x0A020000u + static_cast<std::uint32_t>(i)));
    e.nameIs("st" + std::to_string(i));
    e.labelsIs(push({500 + static_cast<std::uint32_t>(i) + v}));
    e.viaIs(Via(host(0x0A670000u + static_cast<std::uint32_t>(i % 250)), port(i)), true);
    return e;
  }
  BgpLuTunnelTableEntry luEntry(std::uint64_t i, std::uint32_t v) const {
    BgpLuTunnelTableEntry e(idOf(TunnelType::bgpLuTunnel, i));
    // A tenth of them to TEPs LDP reaches too; the rest to their own.
    std::uint32_t const tep = i <= nLu_ / 10 ? 0x0A000000u + static_cast<std::uint32_t>(1 + i % nLdp_)
                                             : 0x0B000000u + static_cast<std::uint32_t>(i);
    e.tepIs(hostPrefix(v == 7 ? 0x0C000000u + static_cast<std::uint32_t>(i) : tep));
    e.labelsIs(v == 4 ? push({1, 2, 3, 4, 5, 6})
                      : push({200000 + static_cast<std::uint32_t>(i % 100000) + v}));
    e.bgpMetricIs(static_cast<std::uint32_t>(i) + v);
    e.bgpPrefIs(v);
    if (v == 6) e.contributionIs(ContributionToTunnelRIB::nonContributing);
    std::uint64_t const first = 1 + (v == 1 ? (i * 13) % nLdp_ : i % nLdp_);
    e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, first));
    if (i % 4 == 0 && v != 3) e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, 1 + (i * 7) % nLdp_));
    return e;
  }
  BgpLuPushTunnelTableEntry luPushEntry(std::uint64_t i, std::uint32_t v) const {
    BgpLuPushTunnelTableEntry e(idOf(TunnelType::bgpLuPushTunnel, i));
    e.tepIs(hostPrefix(0x0D000000u + static_cast<std::uint32_t>(i)));
    e.labelsIs(push({300000 + static_cast<std::uint32_t>(i) + v}));
    e.tunnelIdViaIs(idOf(TunnelType::bgpLuTunnel, 1 + (i * (v == 1 ? 11 : 1)) % nLu_));
    return e;
  }
  SrTeSegmentListTunnelTableEntry srTeEntry(std::uint64_t i, std::uint32_t v) const {
    SrTeSegmentListTunnelTableEntry e(idOf(TunnelType::srTeSegmentListTunnel, i));
    e.tepIs(hostPrefix(0x0E000000u + static_cast<std::uint32_t>(i)));
    TunnelId const inner = idOf(TunnelType::srTunnel, 1 + (i + v) % nSr_);
    e.viaIs(MplsVia(IpGenAddr(IpAddr(0)), inner.intfId(), push({1, 2, 3})), true);
    return e;
  }

  bool tepChanges_, contributionFlips_;
  std::uint64_t nLdp_, nSr_, nStatic_, nLu_, nLuPush_, nSrTe_;
  std::vector<std::uint8_t> ldp_state_ = std::vector<std::uint8_t>(nLdp_ + 1);
  std::vector<std::uint8_t> sr_state_ = std::vector<std::uint8_t>(nSr_ + 1);
  std::vector<std::uint8_t> static_state_ = std::vector<std::uint8_t>(nStatic_ + 1);
  std::vector<std::uint8_t> lu_state_ = std::vector<std::uint8_t>(nLu_ + 1);
  std::vector<std::uint8_t> luPush_state_ = std::vector<std::uint8_t>(nLuPush_ + 1);
  std::vector<std::uint8_t> srTe_state_ = std::vector<std::uint8_t>(nSrTe_ + 1);

  Vela::Ptr<Quay::TaskScheduler> scheduler_ =
      Vela::make<Quay::TaskScheduler>(Vela::make<Quay::ManualClock>());
  Vela::Ptr<Corvel::EntityManager> em_ = Vela::make<Corvel::EntityManager>(scheduler_);
  Vela::Ptr<BgpLuTunnelTable> bgpLu_;
  Vela::Ptr<BgpLuPushTunnelTable> bgpLuPush_;
  Vela::Ptr<LdpTunnelTable> ldp_;
  Vela::Ptr<SrTunnelTable> sr_;
  Vela::Ptr<StaticTunnelTable> static_;
  Vela::Ptr<SrTeSegmentListTunnelTable> srTe_;
  Vela::Ptr<Agent> agent_;
  std::int64_t peakSampled_ = 0;
};

void printSizes(char const* when, Sizes const& s) {
  std::printf(
      "  %-5s FIB %zu, unprogrammable %zu, tunnel RIB %zu TEPs / %zu ids, per-protocol RIB ids %zu,\n"
      "        tunnelIdToTep %zu, tunRibMetricTunId %zu, directlyDependent %zu, dependingOn %zu,\n"
      "        resolvedBy %zu, backlog %zu, unprocessed %zu, scheduled tasks %zu\n",
      when, s.fib, s.unprogrammable, s.tunnelRib, s.tunnelRibIds, s.protoRibIds, s.tunnelIdToTep,
      s.tunRibMetricTunId, s.dependents, s.dependingOn, s.resolvedBy, s.backlog, s.unprocessed, s.scheduled);
}

void BM_Soak(benchmark::State& state) {
  double const scale = envNumber("SOAK_SCALE", 1.0);
  auto const ops = static_cast<std::int64_t>(envNumber("SOAK_OPS", 1'000'000));
  bool const tepChanges = envNumber("SOAK_TEP_CHANGES", 0) != 0;
  bool const contributionFlips = envNumber("SOAK_CONTRIBUTION_FLIPS", 0) != 0;
  for (auto _ : state) {
    auto const t0 = std::chrono::steady_clock::now();
    Soak soak(scale, tepChanges, contributionFlips);
    malloc_trim(0);
    std::int64_t const rssStart = residentBytes();
    Sizes const start = soak.sizes();
    auto const t1 = std::chrono::steady_clock::now();

    std::mt19937_64 rng(20241122);
    for (std::int64_t i = 1; i <= ops; ++i) {
      soak.step(rng);
      if (i % 500 == 0) soak.drain();
      if (i == ops / 2) soak.restartAgent();
      if (i == ops / 4) soak.republishLdp();
    }
    soak.drain();
    Sizes const busy = soak.sizes();
    auto const t2 = std::chrono::steady_clock::now();

    soak.restore();
    malloc_trim(0);
    std::int64_t const rssEnd = residentBytes();
    std::int64_t const rssPeak = std::max(peakResidentBytes(), soak.peakSampled());
    Sizes const end = soak.sizes();

    double const load = std::chrono::duration<double>(t1 - t0).count();
    double const run = std::chrono::duration<double>(t2 - t1).count();
    std::printf("soak: %llu tunnels loaded in %.1f s; %lld operations in %.1f s (%.0f per second)\n",
                static_cast<unsigned long long>(soak.tunnels()), load, static_cast<long long>(ops), run,
                static_cast<double>(ops) / run);
    std::printf("  RSS start %.1f MB, peak %.1f MB, end %.1f MB (%+.2f%% of start)\n", mb(rssStart),
                mb(rssPeak), mb(rssEnd),
                100.0 * static_cast<double>(rssEnd - rssStart) / static_cast<double>(rssStart));
    printSizes("start", start);
    printSizes("busy", busy);
    printSizes("end", end);

    state.counters["rss_start_MB"] = mb(rssStart);
    state.counters["rss_peak_MB"] = mb(rssPeak);
    state.counters["rss_end_MB"] = mb(rssEnd);
    state.counters["ops_per_s"] = static_cast<double>(ops) / run;
    state.counters["tunnels"] = static_cast<double>(soak.tunnels());

    std::string problems;
    if (TUNNEL_SOAK_ASAN) {
      std::printf("  (AddressSanitizer build: the resident set is not judged)\n");
    } else if (static_cast<double>(rssEnd) > 1.05 * static_cast<double>(rssStart)) {
      problems += " RSS grew by more than 5%;";
    }
    auto grew = [&](char const* what, std::size_t a, std::size_t b) {
      if (b > a)
        problems +=
            std::string(" ") + what + " grew (" + std::to_string(a) + " -> " + std::to_string(b) + ");";
    };
    grew("tunnelIdToTep", start.tunnelIdToTep, end.tunnelIdToTep);
    grew("tunRibMetricTunId", start.tunRibMetricTunId, end.tunRibMetricTunId);
    grew("directlyDependentTunnels", start.dependents, end.dependents);
    grew("tunnelsDirectlyDependingOn", start.dependingOn, end.dependingOn);
    grew("resolvedByTunnels", start.resolvedBy, end.resolvedBy);
    grew("backlog", start.backlog, end.backlog);
    grew("tunnelFibEntryMarkedUnprocessed", start.unprocessed, end.unprocessed);
    grew("MPLS tunnel FIB", start.fib, end.fib);
    grew("unprogrammable set", start.unprogrammable, end.unprogrammable);
    if (end.tunnelRibIds > start.tunnelRibIds || end.protoRibIds > start.protoRibIds) {
      std::printf(
          "  note: the tunnel RIBs hold %zu / %zu ids more than at start: ids left under the TEP they\n"
          "        had before a change of TEP in place (the selection's literal rule)\n",
          end.tunnelRibIds - std::min(end.tunnelRibIds, start.tunnelRibIds),
          end.protoRibIds - std::min(end.protoRibIds, start.protoRibIds));
    }
    std::printf("  verdict: %s\n", problems.empty() ? "back to the start" : problems.c_str());
    if (!problems.empty()) state.SkipWithError(problems.c_str());
  }
}

BENCHMARK(BM_Soak)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
}  // namespace Tunnel::TunnelTable
