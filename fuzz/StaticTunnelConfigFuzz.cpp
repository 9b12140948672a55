// Fuzzes the textual form of the static tunnel configuration entry,
// Tunnel::Static::StaticTunnelConfigEntry::fromValueStrep, which reads what an
// operator or a saved configuration wrote:
//
//   Value('Tunnel::Static::StaticTunnelConfigEntry', ** {'name': 'st1',
//         'tep': '10.0.0.1/32', 'nexthop': '10.1.0.2', 'intfId': 'Ethernet1',
//         'labels': 'push 16 3000'})
//
// The input is the text; reading either succeeds or raises
// Vela::RangeException. An entry that reads prints as a text that reads back
// to an equal entry (its label slots beyond the stack are clear, so nothing
// is hidden from the text), and that text is its own fixed point. The entry
// also goes in and out of a Config under its name.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "Static/StaticTunnelConfig.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Value.h"

namespace {

using Tunnel::Static::StaticTunnelConfigEntry;

[[noreturn]] void fail(char const* what, std::string_view input, std::string const& detail) {
  std::fprintf(stderr, "StaticTunnelConfigFuzz: %s\n  input: '%.*s'\n  %s\n", what, int(input.size()),
               input.data(), detail.c_str());
  std::abort();
}

std::optional<StaticTunnelConfigEntry> parse(std::string_view text) {
  try {
    return StaticTunnelConfigEntry::fromValueStrep(text);
  } catch (Vela::RangeException const&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  std::optional<StaticTunnelConfigEntry> const entry = parse(text);
  if (!entry) return 0;

  std::string const printed = Vela::valueToStrep(*entry);
  std::optional<StaticTunnelConfigEntry> const back = parse(printed);
  if (!back) fail("printed entry does not read", text, printed);
  if (!(*back == *entry))
    fail("printed entry reads back differently", text, printed + " -> " + Vela::valueToStrep(*back));
  if (Vela::valueToStrep(*back) != printed) fail("printed entry is not a fixed point", text, printed);
  if (Vela::hashOf(*back) != Vela::hashOf(*entry)) fail("equal entries hash differently", text, printed);
  if (entry->labels().stackSize() > Nimbo::MplsLabelOperation::maxStackSize)
    fail("stack deeper than six", text, printed);

  auto config = Tunnel::Static::configFactory("config");
  config->entryIs(*entry);
  if (!(config->entry(entry->name()) == *entry)) fail("config does not hold the entry", text, printed);
  config->entryDel(entry->name());
  if (!config->entrys().empty()) fail("config not empty after the removal", text, printed);
  return 0;
}
