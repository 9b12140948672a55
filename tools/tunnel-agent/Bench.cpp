// tunnel-agent bench: the tunnel agent at provider-edge scale.
//
// The topology is built straight into the protocol tables (no scenario file):
// N LDP tunnels, each with two vias on real interfaces, and M BGP LU tunnels,
// each riding on two LDP tunnels picked at random (seeded). Every tunnel has
// its own TEP, so the tunnel RIB ends with N + M entries and the MPLS tunnel
// FIB with N + M tunnels, the BGP LU ones with four flattened vias each.
#include <time.h>

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>

#include "TunnelTable/TunnelAggregatorSm.h"
#include "TunnelTable/TunnelIntfId.h"
#include "tools/tunnel-agent/Commands.h"

namespace Tunnel::Tool {

using Json = nlohmann::json;
using namespace Tunnel::TunnelTable;

namespace {

// CPU and wall-clock time of one phase.
class Stopwatch {
 public:
  Stopwatch() : wall_(std::chrono::steady_clock::now()), cpu_(cpuNow()) {}
  Json elapsed() const {
    double const wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_).count();
    return Json{{"cpuSeconds", rounded(cpuNow() - cpu_)}, {"wallSeconds", rounded(wall)}};
  }

 private:
  static double cpuNow() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }
  static double rounded(double seconds) { return double(static_cast<long long>(seconds * 1e4 + 0.5)) / 1e4; }

  std::chrono::steady_clock::time_point wall_;
  double cpu_;
};

// The peak resident set (VmHWM) in KiB, 0 when unknown.
std::uint64_t peakMemoryKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) {
      std::istringstream fields(line.substr(6));
      std::uint64_t kib = 0;
      fields >> kib;
      return kib;
    }
  }
  return 0;
}

Nimbo::IpGenPrefix hostPrefix(std::uint32_t address) {
  return Nimbo::IpGenPrefix::hostPrefix(Nimbo::IpGenAddr(Nimbo::IpAddr(address)));
}

constexpr std::uint32_t kLabelBase = 16;
constexpr std::uint32_t kLabelSpan = Nimbo::MplsLabelOperation::maxLabel - kLabelBase;

std::uint32_t labelOf(std::uint64_t n) { return kLabelBase + static_cast<std::uint32_t>(n % kLabelSpan); }

LdpSrTunnelTableEntry ldpEntry(std::uint64_t i, std::uint32_t labelShift) {
  LdpSrTunnelTableEntry entry(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, i)));
  entry.tepIs(hostPrefix(0x0A000000u + static_cast<std::uint32_t>(i)));  // 10.0.0.0/8
  entry.igpMetricIs(static_cast<std::uint32_t>(i % 100));
  for (std::uint32_t v = 0; v < 2; ++v) {
    std::uint32_t const port = static_cast<std::uint32_t>((2 * i + v) % 16);
    Nimbo::IpGenAddr const nexthop(Nimbo::IpAddr(0x0A800001u + (port << 8)));  // 10.128.<port>.1
    entry.viaIs(MplsVia(nexthop, Nimbo::IntfId::ethernet(port + 1),
                        Nimbo::MplsLabelOperation::pushOf({labelOf(2 * i + v + labelShift)})),
                true);
  }
  return entry;
}

}  // namespace

int benchCommand(BenchOptions const& options, std::ostream& out, std::ostream& err) {
  if (options.ldp == 0 || options.ldp > (1u << 20) || options.bgpLu > (1u << 24)) {
    err << "tunnel-agent: bench: --ldp must be 1 to 1048576 and --bgp-lu 0 to 16777216\n";
    return exitBadInput;
  }
  ProgressPrinter progress(err, options.terminal, options.progress);
  auto scheduler = Vela::make<Quay::TaskScheduler>();
  auto em = Vela::make<Corvel::EntityManager>(scheduler);
  registerTunnelTypes(*em);

  Json result;
  result["topology"] = {{"ldpTunnels", options.ldp},
                        {"viasPerLdpTunnel", 2},
                        {"bgpLuTunnels", options.bgpLu},
                        {"ldpTunnelsPerBgpLuTunnel", options.ldp > 1 ? 2 : 1},
                        {"seed", options.seed}};

  // The protocols publish their tables.
  Stopwatch populate;
  auto ldp = Vela::make<LdpTunnelTable>("ldp");
  auto bgpLu = Vela::make<BgpLuTunnelTable>("bgpLu");
  for (std::uint64_t i = 1; i <= options.ldp; ++i) ldp->entryIs(ldpEntry(i, 0));
  std::mt19937_64 random(options.seed);
  for (std::uint64_t j = 1; j <= options.bgpLu; ++j) {
    BgpLuTunnelTableEntry entry(TunnelId(TunnelId::convertToTunnelValue(TunnelType::bgpLuTunnel, j)));
    entry.tepIs(hostPrefix(0x64000000u + static_cast<std::uint32_t>(j)));  // 100.0.0.0/8
    entry.labelsIs(Nimbo::MplsLabelOperation::pushOf({labelOf(j)}));
    entry.bgpMetricIs(static_cast<std::uint32_t>(j % 1000));
    std::uint64_t const a = 1 + random() % options.ldp;
    std::uint64_t b = a;
    while (options.ldp > 1 && b == a) b = 1 + random() % options.ldp;
    entry.tunnelIdViaIs(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, a)));
    entry.tunnelIdViaIs(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, b)));
    bgpLu->entryIs(entry);
  }
  em->entityIs("tunnel/table/ldp", ldp);
  em->entityIs("tunnel/table/bgpLu", bgpLu);
  em->entityIs("tunnel/table/bgpLuPush", Vela::make<BgpLuPushTunnelTable>("bgpLuPush"));
  em->entityIs("tunnel/table/sr", Vela::make<SrTunnelTable>("sr"));
  em->entityIs("tunnel/table/static", Vela::make<StaticTunnelTable>("static"));
  result["populateTables"] = populate.elapsed();

  // Runs the loop to idle, reporting the review's progress.
  auto settle = [&](Vela::Ptr<Agent> const& agent) {
    auto const start = std::chrono::steady_clock::now();
    std::uint64_t const before = [&] {
      auto const* a = agent->aggregatorSm().get();
      auto const* sm = a ? a->mplsTunnelFibSm().get() : nullptr;
      return sm && sm->task() ? sm->task()->taskWorkCount() : 0;
    }();
    auto report = [&](bool done) {
      auto const* a = agent->aggregatorSm().get();
      auto const* sm = a ? a->mplsTunnelFibSm().get() : nullptr;
      Progress p;
      p.reviewed = sm && sm->task() ? sm->task()->taskWorkCount() - before : 0;
      p.backlog = sm ? sm->tunnelForReviews().size() : 0;
      p.elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      p.done = done;
      progress(p);
      return p.reviewed;
    };
    scheduler->runUntil([&] {
      report(false);
      return false;
    });
    return report(true);
  };

  // Start: the RIB is built when the aggregator starts its machines; the FIB
  // (and the RIB's withdrawals and returns of tunnels the review passes
  // through) settles when the review backlog is empty.
  Stopwatch converge;
  auto agent = Vela::make<Agent>(em);
  agent->start();
  scheduler->runUntil([&] { return agent->aggregatorSm() && agent->aggregatorSm()->initialized(); });
  Json const ribBuilt = converge.elapsed();
  std::uint64_t const reviewed = settle(agent);
  Json const endToEnd = converge.elapsed();

  auto const* aggregator = agent->aggregatorSm().get();
  auto const* fibSm = aggregator->mplsTunnelFibSm().get();
  result["converge"] = {{"tunnelRibBuilt", ribBuilt},
                        {"endToEnd", endToEnd},
                        {"tunnelsReviewed", reviewed},
                        {"tunnelRibEntries", agent->tunnelRib()->entrys().size()},
                        {"mplsTunnelFibEntries", agent->mplsTunnelFib()->entrys().size()},
                        {"unprogrammable", aggregator->unprogrammableTunnelId()->entrys().size()}};

  // One LDP tunnel changes a label: its FIB entry changes and every BGP LU
  // tunnel riding on it is reviewed again.
  TunnelId const changed(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 1));
  std::size_t const riders = fibSm->directlyDependentTunnels(changed).size();
  Stopwatch reconverge;
  ldp->entryIs(ldpEntry(1, 1));
  std::uint64_t const rereviewed = settle(agent);
  Json timing = reconverge.elapsed();
  result["reconvergeAfterOneLdpChange"] = {{"time", timing},
                                           {"changedTunnel", changed.toCliStrep()},
                                           {"directlyDependentTunnels", riders},
                                           {"tunnelsReviewed", rereviewed}};
  result["peakMemoryKiB"] = peakMemoryKiB();
  out << result.dump(2) << "\n";

  bool const complete = agent->tunnelRib()->entrys().size() == options.ldp + options.bgpLu &&
                        agent->mplsTunnelFib()->entrys().size() == options.ldp + options.bgpLu;
  if (!complete) {
    err << "tunnel-agent: bench: the tunnel RIB or the MPLS tunnel FIB is not complete\n";
    return exitFailed;
  }
  return exitOk;
}

}  // namespace Tunnel::Tool
