// tunnel-agent: runs the tunnel library's agent on scenarios.
//
//   tunnel-agent run FILE [--show VIEW...] [--json] [--dot FILE] [--trace LEVEL] [--progress]
//   tunnel-agent serve [FILE] [--json] [--trace LEVEL] [--progress]
//   tunnel-agent bench [--ldp N] [--bgp-lu M] [--seed S] [--progress]
//
// See docs/scenario-format.md for the scenario files and the serve requests.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"
#include "tools/HugePageHeap.h"
#include "tools/tunnel-agent/Commands.h"

namespace {

// A failed assertion stops the library for good: say what failed and what
// the library traced last, then abort as the default handler would.
void reportAssertion(Vela::AssertionSite const& site) {
  std::cout.flush();
  std::fprintf(stderr, "tunnel-agent: the tunnel library stopped on a failed assertion: %.*s (%.*s:%d)\n",
               int(site.condition.size()), site.condition.data(), int(site.file.size()), site.file.data(),
               site.line);
  auto const recent = Skein::defaultHandle().recent();
  if (!recent.empty()) {
    std::fprintf(stderr, "tunnel-agent: last trace lines:\n");
    std::size_t const first = recent.size() > 20 ? recent.size() - 20 : 0;
    for (std::size_t i = first; i < recent.size(); ++i) std::fprintf(stderr, "  %s\n", recent[i].c_str());
  }
  std::abort();
}

std::string viewHelp() {
  std::string text = "Views: ";
  bool first = true;
  for (auto const& name : Tunnel::Tool::viewNames()) {
    text += (first ? "" : ", ") + name;
    first = false;
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace Tunnel::Tool;
  runWithHugePageHeap(argv);
  Vela::assertionHandlerIs(reportAssertion);
  bool const terminal = isatty(STDERR_FILENO) != 0;

  CLI::App app{"Runs the tunnel library's agent (tunnel RIB, MPLS tunnel FIB, decap groups) on scenarios."};
  app.require_subcommand(1);

  RunOptions run;
  run.terminal = terminal;
  int runTrace = -1;
  auto* runCmd = app.add_subcommand("run", "Check a scenario file whole, then play it and print views");
  runCmd->add_option("file", run.file, "Scenario file (JSON; see docs/scenario-format.md)")->required();
  runCmd->add_option(
      "--show", run.show,
      "Views to print at the end (default: tunnel-rib mpls-fib; 'none' for none). " + viewHelp());
  runCmd->add_flag("--json", run.json, "Print the views as JSON");
  runCmd->add_option("--dot", run.dotFile, "Write the tunnel dependency graph (Graphviz DOT) to this file");
  runCmd->add_option("--trace", runTrace, "Show the library's trace lines up to this level (0-9) on stderr")
      ->check(CLI::Range(0, 9));
  runCmd->add_flag("--progress", run.progress, "Report the FIB review's progress on stderr");

  ServeOptions serve;
  serve.terminal = terminal;
  std::string serveFile;
  int serveTrace = -1;
  auto* serveCmd = app.add_subcommand(
      "serve", "Answer JSON-line requests from stdin (changes and views), one answer per line read");
  serveCmd->add_option("file", serveFile, "Scenario file for the initial state (default: six empty tables)");
  serveCmd->add_flag("--json", serve.json, "Answer with one JSON object per request");
  serveCmd
      ->add_option("--trace", serveTrace, "Show the library's trace lines up to this level (0-9) on stderr")
      ->check(CLI::Range(0, 9));
  serveCmd->add_flag("--progress", serve.progress, "Report the FIB review's progress on stderr");

  BenchOptions bench;
  bench.terminal = terminal;
  auto* benchCmd =
      app.add_subcommand("bench", "Time the agent on a synthetic provider-edge topology (JSON out)");
  benchCmd->add_option("--ldp", bench.ldp, "LDP tunnels, two vias each")->capture_default_str();
  benchCmd->add_option("--bgp-lu", bench.bgpLu, "BGP LU tunnels, each riding on two LDP tunnels")
      ->capture_default_str();
  benchCmd->add_option("--seed", bench.seed, "Seed of the choice of LDP tunnels")->capture_default_str();
  benchCmd->add_flag("--progress", bench.progress, "Report the FIB review's progress on stderr");

  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    int const status = app.exit(e);
    return status == 0 ? exitOk : exitBadInput;
  }

  try {
    if (*runCmd) {
      if (runTrace >= 0) run.traceLevel = runTrace;
      return runCommand(run, std::cout, std::cerr);
    }
    if (*serveCmd) {
      if (serveTrace >= 0) serve.traceLevel = serveTrace;
      if (!serveFile.empty()) serve.file = serveFile;
      return serveCommand(serve, std::cin, std::cout, std::cerr);
    }
    return benchCommand(bench, std::cout, std::cerr);
  } catch (std::exception const& e) {
    std::cout.flush();
    std::cerr << "tunnel-agent: " << e.what() << "\n";
    return exitFailed;
  }
}
