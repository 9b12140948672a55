// The process's own CPU time split into user and kernel time, with its page
// faults. On a virtual machine a page fault can cost microseconds (the
// hypervisor backs or maps the page), so kernel time says how much of a
// figure is the machine providing memory rather than the code using it.
#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <string>

namespace TunnelBench {

struct ProcessTimes {
  double user = 0;    // seconds
  double system = 0;  // seconds
  std::int64_t faults = 0;

  static ProcessTimes now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto const seconds = [](timeval const& t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; };
    return {seconds(usage.ru_utime), seconds(usage.ru_stime), usage.ru_minflt + usage.ru_majflt};
  }
  ProcessTimes operator-(ProcessTimes const& o) const {
    return {user - o.user, system - o.system, faults - o.faults};
  }
};

// Adds "user_us_per_<unit>", "sys_us_per_<unit>" and "faults_per_<unit>" for
// the times spent over `count` units.
template <class State>
void reportProcessTimes(State& state, ProcessTimes const& spent, double count, char const* unit) {
  std::string const suffix = std::string("_per_") + unit;
  state.counters["user_us" + suffix] = spent.user * 1e6 / count;
  state.counters["sys_us" + suffix] = spent.system * 1e6 / count;
  state.counters["faults" + suffix] = double(spent.faults) / count;
}

}  // namespace TunnelBench
