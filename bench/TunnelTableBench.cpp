// The tunnel vocabulary on its hot paths: TunnelId hashing and accessors,
// and a protocol table of 1,000,000 BGP LU tunnels (insert, lookup hit and
// miss, erase), each entry with its TEP, a label and two tunnel vias as BGP
// writes them. Counters give nanoseconds per operation.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "TunnelTable/ProtocolTunnelTables.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr std::int64_t kTunnels = 1'000'000;

TunnelId makeId(TunnelType type, std::uint64_t index) {
  return TunnelId(TunnelId::convertToTunnelValue(type, index));
}

// Ids of every kind, spread over the index space the way allocators hand
// them out (dense from 1) and with the IPv6 bit where the kind allows it.
std::vector<TunnelId> mixedIds(std::size_t n) {
  static constexpr TunnelType kinds[] = {TunnelType::bgpLuTunnel, TunnelType::ldpTunnel, TunnelType::srTunnel,
                                         TunnelType::staticTunnel, TunnelType::srTeSegmentListTunnel};
  std::vector<TunnelId> ids;
  ids.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    TunnelType const kind = kinds[i % 5];
    std::uint64_t index = 1 + i / 5;
    bool const v6Capable = kind == TunnelType::staticTunnel || kind == TunnelType::srTunnel ||
                           kind == TunnelType::srTeSegmentListTunnel;
    if (v6Capable && i % 2) index |= tunnelAfMask();
    ids.push_back(makeId(kind, index));
  }
  return ids;
}

// Time per operation, printed with its SI prefix ("35.2n" is 35.2 ns).
void perOperation(benchmark::State& state, std::int64_t operations) {
  state.SetItemsProcessed(state.iterations() * operations);
  state.counters["time_per_op"] = benchmark::Counter(
      double(state.iterations() * operations), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_TunnelIdHash(benchmark::State& state) {
  auto const ids = mixedIds(4096);
  std::uint32_t sink = 0;
  for (auto _ : state) {
    for (TunnelId const& id : ids) sink += id.hash();
    benchmark::DoNotOptimize(sink);
  }
  perOperation(state, std::int64_t(ids.size()));
}
BENCHMARK(BM_TunnelIdHash);

void BM_TunnelIdAccessors(benchmark::State& state) {
  auto const ids = mixedIds(4096);
  std::uint64_t sink = 0;
  for (auto _ : state) {
    for (TunnelId const& id : ids) {
      sink += static_cast<std::uint64_t>(id.tunnelType()) +
              static_cast<std::uint64_t>(id.tunnelTransportType()) +
              static_cast<std::uint64_t>(id.tunnelAf()) + id.tunnelIndex();
    }
    benchmark::DoNotOptimize(sink);
  }
  perOperation(state, std::int64_t(ids.size()));
}
BENCHMARK(BM_TunnelIdAccessors);

BgpLuTunnelTableEntry bgpLuEntry(std::uint64_t i) {
  BgpLuTunnelTableEntry e(makeId(TunnelType::bgpLuTunnel, i));
  e.tepIs(Nimbo::IpGenPrefix(Nimbo::IpGenAddr(Nimbo::IpAddr(0x0A000000u + std::uint32_t(i))), 32));
  e.labelsIs(Nimbo::MplsLabelOperation::pushOf({std::uint32_t(100000 + i % 900000)}));
  e.tunnelIdViaIs(makeId(TunnelType::ldpTunnel, 1 + i % 10000));
  e.tunnelIdViaIs(makeId(TunnelType::ldpTunnel, 1 + (i * 7 + 3) % 10000));
  return e;
}

// Entries are built before timing: the table's own work is measured.
std::vector<BgpLuTunnelTableEntry> const& entries() {
  static std::vector<BgpLuTunnelTableEntry> const all = [] {
    std::vector<BgpLuTunnelTableEntry> v;
    v.reserve(kTunnels);
    for (std::int64_t i = 1; i <= kTunnels; ++i) v.push_back(bgpLuEntry(std::uint64_t(i)));
    return v;
  }();
  return all;
}

Vela::Ptr<BgpLuTunnelTable> filledTable() {
  auto table = Vela::make<BgpLuTunnelTable>("bgpLu");
  for (auto const& e : entries()) table->entryIs(e);
  return table;
}

void BM_TableInsert(benchmark::State& state) {
  auto const& all = entries();
  for (auto _ : state) {
    auto table = Vela::make<BgpLuTunnelTable>("bgpLu");
    for (auto const& e : all) table->entryIs(e);
    benchmark::DoNotOptimize(table->entrys().size());
    state.PauseTiming();
    table = nullptr;
    state.ResumeTiming();
  }
  perOperation(state, kTunnels);
}
BENCHMARK(BM_TableInsert)->Unit(benchmark::kMillisecond);

void BM_TableLookupHit(benchmark::State& state) {
  auto const table = filledTable();
  std::uint64_t sink = 0;
  for (auto _ : state) {
    // A stride through the ids, so that lookups do not follow the layout.
    for (std::int64_t n = 0, i = 1; n < kTunnels; ++n, i = 1 + (i + 7919) % kTunnels) {
      sink += table->entry(makeId(TunnelType::bgpLuTunnel, std::uint64_t(i))).tunnelId().value();
    }
    benchmark::DoNotOptimize(sink);
  }
  perOperation(state, kTunnels);
}
BENCHMARK(BM_TableLookupHit)->Unit(benchmark::kMillisecond);

void BM_TableLookupMiss(benchmark::State& state) {
  auto const table = filledTable();
  std::uint64_t sink = 0;
  for (auto _ : state) {
    for (std::int64_t i = kTunnels + 1; i <= 2 * kTunnels; ++i) {
      sink += table->entry(makeId(TunnelType::bgpLuTunnel, std::uint64_t(i))).tunnelId().value();
    }
    benchmark::DoNotOptimize(sink);
  }
  perOperation(state, kTunnels);
}
BENCHMARK(BM_TableLookupMiss)->Unit(benchmark::kMillisecond);

void BM_TableErase(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto table = filledTable();
    state.ResumeTiming();
    for (std::int64_t i = 1; i <= kTunnels; ++i)
      table->entryDel(makeId(TunnelType::bgpLuTunnel, std::uint64_t(i)));
    benchmark::DoNotOptimize(table->entrys().size());
  }
  perOperation(state, kTunnels);
}
BENCHMARK(BM_TableErase)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tunnel::TunnelTable
