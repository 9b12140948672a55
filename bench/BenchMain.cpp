// The main of the benchmarks: Google Benchmark's own, run on a heap of huge
// pages as the agent runs (tools/HugePageHeap.h). Set
// GLIBC_TUNABLES=glibc.malloc.hugetlb=0 to time the plain heap instead.
#include <benchmark/benchmark.h>

#include "tools/HugePageHeap.h"

int main(int argc, char** argv) {
  Tunnel::Tool::runWithHugePageHeap(argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
