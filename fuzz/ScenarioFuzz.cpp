// Fuzzes the scenario reader of tools/tunnel-agent and what it lets through
// to the library: files that people write.
//
// An input that starts with 's' is a serve session: the rest, line by line,
// are requests to a running system of six empty tables (serveCommand). Any
// other input is a scenario file played from start to end with its views
// (runScenarioText). Both run on a manual clock, in text or (for inputs of
// odd length) JSON output.
//
// The reader checks everything before anything is applied, so whatever the
// text, the command either rejects it as bad input or plays it to the end:
// it never raises, never stops on an assertion, and never reports that the
// tunnel library failed (exit status 1) on a scenario it accepted.
//
// TUNNEL_FUZZ_VERBOSE=1 prints each input's exit status and output.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>

#include "framework/Quay/Clock.h"
#include "tools/tunnel-agent/Commands.h"

namespace {

[[noreturn]] void fail(char const* what, std::string const& input, std::string const& err) {
  std::fprintf(stderr, "ScenarioFuzz: %s\n  input (%zu bytes): %s\n  stderr: %s\n", what, input.size(),
               input.substr(0, 2000).c_str(), err.substr(0, 2000).c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const input(reinterpret_cast<char const*>(data), size);
  std::ostringstream out, err;
  int status = Tunnel::Tool::exitOk;
  try {
    if (!input.empty() && input[0] == 's') {
      Tunnel::Tool::ServeOptions options;
      options.clock = Vela::make<Quay::ManualClock>();
      options.json = size % 2 == 1;
      std::istringstream requests(input.substr(1));
      status = Tunnel::Tool::serveCommand(options, requests, out, err);
    } else {
      Tunnel::Tool::RunOptions options;
      options.clock = Vela::make<Quay::ManualClock>();
      options.json = size % 2 == 1;
      status = Tunnel::Tool::runScenarioText(options, "fuzz.json", input, out, err);
    }
  } catch (std::exception const& e) {
    fail((std::string("exception escaped: ") + e.what()).c_str(), input, err.str());
  }
  if (std::getenv("TUNNEL_FUZZ_VERBOSE")) {
    std::fprintf(stderr, "status %d\n%s%s", status, out.str().c_str(), err.str().c_str());
  }
  if (status == Tunnel::Tool::exitFailed) fail("the library failed on accepted input", input, err.str());
  return 0;
}
