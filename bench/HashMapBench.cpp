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
// from the front. Insertion is also measured in a fresh process per round.
// Every case reports items per second, one item being one key
// (one member for the iteration).
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <random>
#include <string>
#include <string_view>
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

bool writeAll(int fd, void const* data, std::size_t size) {
  auto const* bytes = static_cast<char const*>(data);
  while (size > 0) {
    ssize_t const n = ::write(fd, bytes, size);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
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

// Filling an empty map in a fresh process, as a program does at start-up:
// each round runs this program again (--fill-fresh=<map>), which reads the
// keys from a pipe into memory reserved beforehand, so that its heap holds
// nothing freed, and times the fill. Every map then pays for first touching
// its memory. In BM_Insert's loop, std::unordered_map refills from the nodes
// its previous round freed, which stay in the heap, while the
// open-addressing tables are blocks large enough for the allocator to hand
// back to the system each round; where touching new memory is dear (about
// 10 us a page on a virtual machine) that, not the map, decides BM_Insert.
// Both are reported.
template <class M>
double fillFresh(std::vector<TunnelKey> const& ks) {
  auto const start = std::chrono::steady_clock::now();
  M m;
  std::uint64_t n = 0;
  for (TunnelKey k : ks) insert(m, k, n++);
  benchmark::DoNotOptimize(m.size());
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <class M>
char const* nameOf();
template <>
char const* nameOf<Ours>() {
  return "ours";
}
template <>
char const* nameOf<Std>() {
  return "std";
}
template <>
char const* nameOf<Absl>() {
  return "absl";
}

// The child's side: keys on stdin (a count, then the keys), seconds on stdout.
int fillFreshChild(std::string_view map) {
  std::uint64_t count = 0;
  if (std::fread(&count, sizeof count, 1, stdin) != 1) return 1;
  std::vector<TunnelKey> ks(count);
  if (std::fread(ks.data(), sizeof(TunnelKey), count, stdin) != count) return 1;
  double const seconds = map == nameOf<Ours>()   ? fillFresh<Ours>(ks)
                         : map == nameOf<Std>()  ? fillFresh<Std>(ks)
                         : map == nameOf<Absl>() ? fillFresh<Absl>(ks)
                                                 : -1;
  return seconds >= 0 && std::fwrite(&seconds, sizeof seconds, 1, stdout) == 1 ? 0 : 1;
}

// Runs the child for one round; returns its seconds, or a negative number.
double runFillFreshChild(char const* map, std::vector<TunnelKey> const& ks) {
  int in[2], out[2];
  if (::pipe(in) != 0) return -1;
  if (::pipe(out) != 0) {
    ::close(in[0]);
    ::close(in[1]);
    return -1;
  }
  std::string const arg = std::string("--fill-fresh=") + map;
  pid_t const child = ::fork();
  if (child == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    for (int fd : {in[0], in[1], out[0], out[1]}) ::close(fd);
    ::execl("/proc/self/exe", "HashMapBench", arg.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  double seconds = -1;
  if (child > 0) {
    std::uint64_t const count = ks.size();
    bool const sent = ::write(in[1], &count, sizeof count) == sizeof count &&
                      writeAll(in[1], ks.data(), ks.size() * sizeof(TunnelKey));
    ::close(in[1]);
    if (!sent || ::read(out[0], &seconds, sizeof seconds) != sizeof seconds) seconds = -1;
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) seconds = -1;
  } else {
    ::close(in[1]);
  }
  ::close(out[0]);
  return seconds;
}

template <class M>
void BM_InsertFreshProcess(benchmark::State& state) {
  auto const& ks = keys().present;
  for (auto _ : state) {
    double const seconds = runFillFreshChild(nameOf<M>(), ks);
    if (seconds < 0) {
      state.SkipWithError("the child process filling the map failed");
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ks.size()));
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
BENCHMARK_TEMPLATE(BM_InsertFreshProcess, Ours)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InsertFreshProcess, Std)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_InsertFreshProcess, Absl)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
VELA_MAP_BENCH(BM_InsertAscending);
VELA_MAP_BENCH(BM_FillAscendingDrainFront);
VELA_MAP_BENCH(BM_FindHit);
VELA_MAP_BENCH(BM_FindMiss);
VELA_MAP_BENCH(BM_Erase);
VELA_MAP_BENCH(BM_Iterate);
VELA_MAP_BENCH(BM_Resume);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]).starts_with("--fill-fresh=")) {
    return fillFreshChild(std::string_view(argv[1]).substr(std::string_view("--fill-fresh=").size()));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
