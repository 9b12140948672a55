// The commands of tunnel-agent, as functions over streams.
//
//   run FILE     checks the whole scenario, then plays it and prints views;
//   serve [FILE] answers JSON-line requests read from a stream;
//   bench        builds a synthetic provider-edge topology and times it.
//
// main.cpp only parses the command line and calls these, so that tests run
// every command in-process, with a manual clock where time matters. Each
// returns the process exit status: 0 done, 1 the library failed while
// running, 2 bad input (nothing was applied).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "framework/Quay/Clock.h"
#include "tools/tunnel-agent/Lab.h"
#include "tools/tunnel-agent/Scenario.h"

namespace Tunnel::Tool {

inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;
inline constexpr int exitBadInput = 2;

// Reads and checks a scenario; on any problem prints every one of them to
// `err` as "<name>:<line>:<column>: error: <path>: <reason>" and a summary.
std::optional<Scenario> readScenarioText(std::string const& name, std::string const& text, std::ostream& err);
std::optional<Scenario> readScenarioFile(std::string const& file, std::ostream& err);

// Prints the FIB review's progress to `err`: always when `forced`, else on a
// terminal once a settle has run for a second. A terminal gets one line
// that is rewritten; anything else one line per report.
class ProgressPrinter {
 public:
  ProgressPrinter(std::ostream& err, bool terminal, bool forced)
      : err_(err), terminal_(terminal), forced_(forced) {}
  void operator()(Progress const& progress);

 private:
  std::ostream& err_;
  bool terminal_;
  bool forced_;
  bool printed_ = false;
  double lastPrinted_ = 0;
};

struct CommonOptions {
  bool json = false;
  std::optional<int> traceLevel;
  bool progress = false;
  // Whether standard error is a terminal (progress shows by itself there).
  bool terminal = false;
  // Tests: the clock the loop runs on (null: the system clock).
  Vela::Ptr<Quay::Clock> clock;
};

struct RunOptions : CommonOptions {
  std::string file;
  // View specs for the end; empty: tunnel-rib and mpls-fib; {"none"}: none.
  std::vector<std::string> show;
  std::string dotFile;
};

int runCommand(RunOptions const& options, std::ostream& out, std::ostream& err);
// The same on a scenario given as text (`name` stands for the file in messages).
int runScenarioText(RunOptions const& options, std::string const& name, std::string const& text,
                    std::ostream& out, std::ostream& err);

struct ServeOptions : CommonOptions {
  // The initial state; none: the six tables, empty.
  std::optional<std::string> file;
};

// Answers each line of `in` on `out`. Returns 2 if any line was rejected.
int serveCommand(ServeOptions const& options, std::istream& in, std::ostream& out, std::ostream& err);

struct BenchOptions {
  std::uint64_t ldp = 10000;
  std::uint64_t bgpLu = 1000000;
  std::uint64_t seed = 1;
  bool progress = false;
  bool terminal = false;
};

int benchCommand(BenchOptions const& options, std::ostream& out, std::ostream& err);

}  // namespace Tunnel::Tool
