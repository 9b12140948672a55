// Vela::HashMap against std::unordered_map and absl::flat_hash_map.
//
// One million keys shaped like tunnel ids (a type in bits 44-47, an index in
// the low bits), all three maps hashing them with the tunnel id hash (Jenkins
// one-at-a-time over the 8 bytes), 64-bit values. Six operations: insert into
// an empty map, find of present and of absent keys, erase, a full iteration,
// and resuming an iteration at a key (the backlog bookmark: position at a key,
// then visit the next 8 members). Two more insert the keys in our iteration
// order (ascending reversed hash, as when one map is filled from another's
// iteration): into an empty map, and into an empty map that is then drained
// from the front. Every case reports items per second, one item being one key
// (one member for the iteration).
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "framework/Vela/HashMap.h"

namespace {

struct TunnelKey {
  std::uint64_t v = 0;

  // Jenkins one-at-a-time over the 8 bytes, least significant byte first.
  std::uint32_t hash() const {
    std::uint32_t h = 0;
    for (int i = 0; i < 8; ++i) {
      h += static_cast<std::uint8_t>(v >> (8 * i));
      h += h << 10;
      h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }
  friend bool operator==(TunnelKey, TunnelKey) = default;
  friend auto operator<=>(TunnelKey, TunnelKey) = default;
};

struct TunnelKeyHash {
  std::size_t operator()(TunnelKey k) const noexcept { return k.hash(); }
};

using Ours = Vela::HashMap<TunnelKey, std::uint64_t>;
using Std = std::unordered_map<TunnelKey, std::uint64_t, TunnelKeyHash>;
using Absl = absl::flat_hash_map<TunnelKey, std::uint64_t, TunnelKeyHash>;

constexpr std::size_t kKeys = 1'000'000;
constexpr int kResumeSteps = 8;

struct Keys {
  std::vector<TunnelKey> present;  // in insertion order
  std::vector<TunnelKey> lookups;  // present keys, shuffled
  std::vector<TunnelKey> absent;
  std::vector<TunnelKey> ascending;  // present keys by ascending reversed hash
};

Keys const& keys() {
  static Keys const k = [] {
    Keys out;
    std::mt19937_64 rng(2024);
    std::unordered_set<std::uint64_t> seen;
    auto make = [&] {
      for (;;) {
        std::uint64_t const type = 1 + rng() % 8;
        std::uint64_t const id = (type << 44) | (rng() & 0xFFFFFFFull);
        if (seen.insert(id).second) return TunnelKey{id};
      }
    };
    for (std::size_t i = 0; i < kKeys; ++i) out.present.push_back(make());
    for (std::size_t i = 0; i < kKeys; ++i) out.absent.push_back(make());
    out.lookups = out.present;
    std::shuffle(out.lookups.begin(), out.lookups.end(), rng);
    out.ascending = out.present;
    std::sort(out.ascending.begin(), out.ascending.end(), [](TunnelKey a, TunnelKey b) {
      std::uint32_t const ra = Vela::bitReverse32(a.hash()), rb = Vela::bitReverse32(b.hash());
      return ra != rb ? ra < rb : a < b;
    });
    return out;
  }();
  return k;
}

void insert(Ours& m, TunnelKey k, std::uint64_t v) { m.tryEmplace(k, v); }
template <class M>
void insert(M& m, TunnelKey k, std::uint64_t v) {
  m.try_emplace(k, v);
}

std::uint64_t const* lookup(Ours const& m, TunnelKey k) { return m.lookup(k); }
template <class M>
std::uint64_t const* lookup(M const& m, TunnelKey k) {
  auto it = m.find(k);
  return it == m.end() ? nullptr : &it->second;
}

void erase(Ours& m, TunnelKey k) { m.erase(k); }
template <class M>
void erase(M& m, TunnelKey k) {
  m.erase(k);
}

// Where an iteration resumes: ours at the key's place in its order; the
// others can only resume at a present key, found by find().
Ours::const_iterator resumeAt(Ours const& m, TunnelKey k) { return m.iterFrom(k); }
template <class M>
typename M::const_iterator resumeAt(M const& m, TunnelKey k) {
  return m.find(k);
}

template <class M>
M const& filled() {
  static M const m = [] {
    M out;
    std::uint64_t n = 0;
    for (TunnelKey k : keys().present) insert(out, k, n++);
    return out;
  }();
  return m;
}

// Inserts `ks` into a fresh map, in their order, and with `drain` erases them
// again from the first; the map's destruction is not timed.
template <class M>
void insertAll(benchmark::State& state, std::vector<TunnelKey> const& ks, bool drain) {
  for (auto _ : state) {
    std::optional<M> m(std::in_place);
    std::uint64_t n = 0;
    for (TunnelKey k : ks) insert(*m, k, n++);
    if (drain) {
      for (TunnelKey k : ks) erase(*m, k);
    }
    benchmark::DoNotOptimize(m->size());
    state.PauseTiming();
    m.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ks.size()));
}

template <class M>
void BM_Insert(benchmark::State& state) {
  insertAll<M>(state, keys().present, false);
}

template <class M>
void BM_InsertAscending(benchmark::State& state) {
  insertAll<M>(state, keys().ascending, false);
}

// Fills a backlog in order, then drains it from the front.
template <class M>
void BM_FillAscendingDrainFront(benchmark::State& state) {
  insertAll<M>(state, keys().ascending, true);
}

template <class M>
void BM_FindHit(benchmark::State& state) {
  M const& m = filled<M>();
  auto const& ks = keys().lookups;
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (TunnelKey k : ks) sum += *lookup(m, k);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ks.size()));
}

template <class M>
void BM_FindMiss(benchmark::State& state) {
  M const& m = filled<M>();
  auto const& ks = keys().absent;
  for (auto _ : state) {
    std::size_t found = 0;
    for (TunnelKey k : ks) found += lookup(m, k) != nullptr;
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ks.size()));
}

template <class M>
void BM_Erase(benchmark::State& state) {
  auto const& ks = keys().lookups;
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<M> m(std::in_place, filled<M>());
    state.ResumeTiming();
    for (TunnelKey k : ks) erase(*m, k);
    benchmark::DoNotOptimize(m->size());
    state.PauseTiming();
    m.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ks.size()));
}

template <class M>
void BM_Iterate(benchmark::State& state) {
  M const& m = filled<M>();
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (auto const& [k, v] : m) sum += k.v ^ v;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * m.size()));
}

template <class M>
void BM_Resume(benchmark::State& state) {
  M const& m = filled<M>();
  auto const& ks = keys().lookups;
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (TunnelKey k : ks) {
      auto it = resumeAt(m, k);
      for (int i = 0; i < kResumeSteps && it != m.end(); ++i, ++it) sum += it->second;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ks.size()));
}

#define VELA_MAP_BENCH(op)                                     \
  BENCHMARK_TEMPLATE(op, Ours)->Unit(benchmark::kMillisecond); \
  BENCHMARK_TEMPLATE(op, Std)->Unit(benchmark::kMillisecond);  \
  BENCHMARK_TEMPLATE(op, Absl)->Unit(benchmark::kMillisecond)

VELA_MAP_BENCH(BM_Insert);
VELA_MAP_BENCH(BM_InsertAscending);
VELA_MAP_BENCH(BM_FillAscendingDrainFront);
VELA_MAP_BENCH(BM_FindHit);
VELA_MAP_BENCH(BM_FindMiss);
VELA_MAP_BENCH(BM_Erase);
VELA_MAP_BENCH(BM_Iterate);
VELA_MAP_BENCH(BM_Resume);

}  // namespace
