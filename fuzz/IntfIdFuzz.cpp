// Fuzzes the interface name parser, Nimbo::IntfId::fromStrep, and the
// dynamic tunnel interface names read through it.
//
// The input is a name. Whatever it holds, parsing either succeeds or raises
// Vela::RangeException; a name that parses prints as a name that parses back
// to the same interface, and that printed name is its own fixed point. The
// first eight bytes, read as a number, give an interface of that value: every
// value prints as a name that parses back to it. A dynamic tunnel interface
// carries a tunnel value that converts back to the same interface.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/TunnelIntfId.h"
#include "framework/Nimbo/IntfId.h"
#include "framework/Vela/Exception.h"

namespace {

using Nimbo::DynamicTunnelIntfId;
using Nimbo::GenericIntfId;
using Nimbo::IntfId;

[[noreturn]] void fail(char const* what, std::string_view input, std::string const& detail) {
  std::fprintf(stderr, "IntfIdFuzz: %s\n  input: '%.*s'\n  %s\n", what, int(input.size()), input.data(),
               detail.c_str());
  std::abort();
}

std::optional<IntfId> parse(std::string_view text) {
  try {
    return IntfId::fromStrep(text);
  } catch (Vela::RangeException const&) {
    return std::nullopt;
  }
}

// A value prints as a name that reads back as the same value, and that name
// prints unchanged.
void checkRoundTrip(IntfId id, std::string_view input) {
  std::string const name = id.toStrep();
  std::optional<IntfId> const back = parse(name);
  if (!back)
    fail("printed name does not parse", input, "value " + std::to_string(id.value()) + " name " + name);
  if (*back != id) {
    fail("printed name parses to another value", input,
         "value " + std::to_string(id.value()) + " name " + name + " back " + std::to_string(back->value()));
  }
  if (back->toStrep() != name)
    fail("printed name is not a fixed point", input, name + " -> " + back->toStrep());
  if (back->hash() != id.hash()) fail("equal interfaces hash differently", input, name);
  (void)id.kind();
}

void checkGenericParts(IntfId id, std::string_view input) {
  if (!id.isGeneric()) {
    if (GenericIntfId::typeId(id) != 0 || GenericIntfId::part(id, 0) != 0 || GenericIntfId::part(id, 1) != 0)
      fail("ordinary interface has generic parts", input, id.toStrep());
    return;
  }
  std::uint8_t const type = GenericIntfId::typeId(id);
  std::uint32_t const p0 = GenericIntfId::part(id, 0), p1 = GenericIntfId::part(id, 1);
  bool const inRange =
      type != GenericIntfId::dynamicTunnelTypeId ||
      (p0 <= GenericIntfId::maxDynamicTunnelPart0 && p1 <= GenericIntfId::maxDynamicTunnelPart1);
  if (!inRange) return;
  if (GenericIntfId::intfId(type, p0, p1) != id)
    fail("generic parts do not rebuild the interface", input, id.toStrep());
}

void checkDynamicTunnel(IntfId id, std::string_view input) {
  if (!DynamicTunnelIntfId::isDynamicTunnelIntfId(id)) {
    if (DynamicTunnelIntfId::tunnelId(id) != 0)
      fail("tunnel value of a non-tunnel interface", input, id.toStrep());
    return;
  }
  std::uint64_t const value = DynamicTunnelIntfId::tunnelId(id);
  // Only names within the type's part ranges are produced by the parser;
  // for those the value fits a TunnelId and converts back.
  if (GenericIntfId::part(id, 0) > GenericIntfId::maxDynamicTunnelPart0 ||
      GenericIntfId::part(id, 1) > GenericIntfId::maxDynamicTunnelPart1) {
    return;
  }
  if (DynamicTunnelIntfId::tunnelIdToIntfId(value) != id) {
    fail("tunnel value does not convert back", input, id.toStrep() + " value " + std::to_string(value));
  }
  Tunnel::TunnelTable::TunnelId const tunnel(value);  // must not raise: at most 48 bits
  if (tunnel.tunnelType() != Tunnel::TunnelTable::TunnelType::staticInterfaceTunnel &&
      tunnel.intfId() != id) {
    fail("tunnel's interface differs", input, id.toStrep() + " -> " + tunnel.intfId().toStrep());
  }
  DynamicTunnelIntfId const dyn(id);
  if (DynamicTunnelIntfId::fromStrep(dyn.toStrep()) != dyn)
    fail("dynamic tunnel name round trip", input, id.toStrep());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);

  if (std::optional<IntfId> const id = parse(text)) {
    checkRoundTrip(*id, text);
    checkGenericParts(*id, text);
    checkDynamicTunnel(*id, text);
    // "" is the empty interface; so is "Intf0", the number 0 by its number.
    if (text.empty() && !id->isEmpty()) fail("empty name gives an interface", text, id->toStrep());
  }

  // Names read as dynamic tunnel interfaces: anything else is refused.
  try {
    DynamicTunnelIntfId const dyn = DynamicTunnelIntfId::fromStrep(text);
    if (!dyn.isEmpty() && !DynamicTunnelIntfId::isDynamicTunnelIntfId(dyn.intfId()))
      fail("DynamicTunnelIntfId holds another interface", text, dyn.toStrep());
  } catch (Vela::RangeException const&) {
  }

  // Any 64-bit value survives its text.
  if (size >= 8) {
    std::uint64_t value = 0;
    std::memcpy(&value, data, sizeof value);
    IntfId const id(value);
    checkRoundTrip(id, text);
    checkGenericParts(id, text);
    checkDynamicTunnel(id, text);
  }
  return 0;
}
