// Tunnel RIB selection at scale: 1,000,000 BGP LU tunnels plus 10,000 LDP
// tunnels (whose TEPs are those of the first 10,000 BGP LU tunnels, so LDP
// takes those TEPs over) enter the tunnel RIB
//  - InitialScan: through the full scans of TunnelRibSm's construction, over
//    tables filled beforehand;
//  - OneByOne: one tunnel at a time, each written into its table and handed
//    to the state machine by the table's notification;
//  - TableOnly: the same writes without a state machine, the share of the
//    tables themselves in OneByOne;
//  - OneByOneWarm: OneByOne once more in memory that a first, untimed round
//    left to the allocator, so without the kernel's cost of new pages.
// Counters: microseconds per tunnel (wall time, and the process's user and
// kernel CPU time with its page faults), and bytes per tunnel as the growth of
// the resident set (/proc/self/statm) and of the heap in use.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "TunnelTable/TunnelRibSm.h"
#include "bench/ProcessTimes.h"
#include "framework/Vela/LargeBlock.h"
#include "framework/Vela/SmallBlock.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr std::int64_t kBgpLuTunnels = 1'000'000;
constexpr std::int64_t kLdpTunnels = 10'000;

std::int64_t residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<std::int64_t>(resident) * sysconf(_SC_PAGESIZE);
}

// Bytes in use from malloc (small chunks and the large blocks it maps
// directly), in the tables' own mappings and in pooled small blocks (whose
// chunks are mapped blocks too).
std::int64_t heapInUse() {
  struct mallinfo2 const info = mallinfo2();
  return static_cast<std::int64_t>(info.uordblks + info.hblkhd + Vela::mappedBlockBytes() -
                                   Vela::smallBlockChunkBytes()) +
         Vela::smallBlockBytesInUse();
}

// Gives freed memory back so that the next measurement starts from a low mark.
void releaseFreeMemory() { malloc_trim(0); }

struct World {
  World() {
    for (TunnelType type :
         {TunnelType::bgpLuTunnel, TunnelType::ldpTunnel, TunnelType::srTunnel, TunnelType::staticTunnel}) {
      coll->protocolTunnelRibIs(type)->tunnelRibIs(Vela::make<TunnelRib>(Vela::enumName(type)));
    }
  }
  ~World() {
    if (sm) sm->hasNotificationActiveIs(false);
  }

  static Nimbo::IpGenPrefix tep(std::int64_t i) {
    return Nimbo::IpGenPrefix(Nimbo::IpGenAddr(Nimbo::IpAddr(0x0A000000u + static_cast<std::uint32_t>(i))),
                              32);
  }
  // The writes stay out of line, one call per tunnel as a protocol makes
  // them (inlined into the loops, g++ 12 reports a false maybe-uninitialized
  // inside the table's map).
  [[gnu::noinline]] void addBgpLu(std::int64_t i) {
    BgpLuTunnelTableEntry e(TunnelId(TunnelId::convertToTunnelValue(TunnelType::bgpLuTunnel, i + 1)));
    e.tepIs(tep(i));
    e.contributionIs(ContributionToTunnelRIB::contributing);
    e.bgpMetricIs(static_cast<std::uint32_t>(i));
    bgpLu->entryIs(e);
  }
  [[gnu::noinline]] void addLdp(std::int64_t i) {
    LdpSrTunnelTableEntry e(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, i + 1)));
    e.tepIs(tep(i));
    e.igpMetricIs(static_cast<std::uint32_t>(i));
    ldp->entryIs(e);
  }
  void start() { sm = Vela::make<TunnelRibSm>(rib, coll, bgpLu, ldp, sr, stat, unprogrammable, nullptr); }

  Vela::Ptr<TunnelRib> rib = Vela::make<TunnelRib>("tunnelRib");
  Vela::Ptr<ProtocolTunnelRibCollection> coll = Vela::make<ProtocolTunnelRibCollection>("protoTunnelRib");
  Vela::Ptr<BgpLuTunnelTable> bgpLu = Vela::make<BgpLuTunnelTable>("bgpLu");
  Vela::Ptr<LdpTunnelTable> ldp = Vela::make<LdpTunnelTable>("ldp");
  Vela::Ptr<SrTunnelTable> sr = Vela::make<SrTunnelTable>("sr");
  Vela::Ptr<StaticTunnelTable> stat = Vela::make<StaticTunnelTable>("static");
  Vela::Ptr<TunnelIdColl> unprogrammable = tunnelIdCollFactory();
  Vela::Ptr<TunnelRibSm> sm;
};

// Writes all tunnels into their tables, one at a time.
void fillTables(World& world) {
  for (std::int64_t i = 0; i < kBgpLuTunnels; ++i) world.addBgpLu(i);
  for (std::int64_t i = 0; i < kLdpTunnels; ++i) world.addLdp(i);
}

using Clock = std::chrono::steady_clock;

void report(benchmark::State& state, double seconds, TunnelBench::ProcessTimes const& spent, std::int64_t rss,
            std::int64_t heap) {
  double const tunnels = static_cast<double>(kBgpLuTunnels + kLdpTunnels);
  state.SetIterationTime(seconds);
  TunnelBench::reportProcessTimes(state, spent, tunnels, "tunnel");
  state.counters["tunnels"] = tunnels;
  state.counters["us_per_tunnel"] = seconds * 1e6 / tunnels;
  state.counters["rss_bytes_per_tunnel"] = static_cast<double>(rss) / tunnels;
  state.counters["heap_bytes_per_tunnel"] = static_cast<double>(heap) / tunnels;
}

void BM_InitialScan(benchmark::State& state) {
  for (auto _ : state) {
    auto world = std::make_unique<World>();
    fillTables(*world);
    releaseFreeMemory();
    std::int64_t const rss0 = residentBytes(), heap0 = heapInUse();
    auto const times0 = TunnelBench::ProcessTimes::now();
    auto const t0 = Clock::now();
    world->start();
    double const seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    report(state, seconds, TunnelBench::ProcessTimes::now() - times0, residentBytes() - rss0,
           heapInUse() - heap0);
    if (world->rib->entrys().size() != static_cast<std::size_t>(kBgpLuTunnels))
      state.SkipWithError("wrong RIB");
    world.reset();
    releaseFreeMemory();
  }
}
BENCHMARK(BM_InitialScan)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void oneByOne(benchmark::State& state, bool withSm, bool warm) {
  for (auto _ : state) {
    if (warm) {
      // Leaves the freed memory with the allocator (no trim).
      auto first = std::make_unique<World>();
      first->start();
      fillTables(*first);
    } else {
      releaseFreeMemory();
    }
    auto world = std::make_unique<World>();
    if (withSm) world->start();
    std::int64_t const rss0 = residentBytes(), heap0 = heapInUse();
    auto const times0 = TunnelBench::ProcessTimes::now();
    auto const t0 = Clock::now();
    fillTables(*world);
    double const seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    report(state, seconds, TunnelBench::ProcessTimes::now() - times0, residentBytes() - rss0,
           heapInUse() - heap0);
    if (withSm && world->rib->entrys().size() != static_cast<std::size_t>(kBgpLuTunnels)) {
      state.SkipWithError("wrong RIB");
    }
    world.reset();
    releaseFreeMemory();
  }
}

void BM_OneByOne(benchmark::State& state) { oneByOne(state, true, false); }
BENCHMARK(BM_OneByOne)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_TableOnly(benchmark::State& state) { oneByOne(state, false, false); }
BENCHMARK(BM_TableOnly)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_OneByOneWarm(benchmark::State& state) { oneByOne(state, true, true); }
BENCHMARK(BM_OneByOneWarm)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tunnel::TunnelTable
