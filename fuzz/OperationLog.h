// The operations a fuzzer turned its input into: printed when a check fails,
// and for every input when TUNNEL_FUZZ_VERBOSE is set.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

class OperationLog {
 public:
  explicit OperationLog(char const* fuzzer) : fuzzer_(fuzzer) {}

  void add(std::string line) { lines_.push_back(std::move(line)); }

  void print() const {
    for (auto const& line : lines_) std::fprintf(stderr, "  %s\n", line.c_str());
  }
  void printIfVerbose() const {
    if (std::getenv("TUNNEL_FUZZ_VERBOSE")) print();
  }

  // Reports a failed check with the operations so far and stops the run.
  [[noreturn]] void fail(std::string const& what) const {
    std::fprintf(stderr, "%s: %s\noperations:\n", fuzzer_, what.c_str());
    print();
    std::abort();
  }

 private:
  char const* fuzzer_;
  std::vector<std::string> lines_;
};
