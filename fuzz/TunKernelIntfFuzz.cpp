// Fuzzes EvpnVxlanTunnelTable::tunKernelIntfTunnelId, which reads the EVPN
// VXLAN tunnel back from a kernel interface name ("t0x1a").
//
// The input is a name. The reader never raises: a malformed name gives
// TunnelId 0, and any other result is a well-formed EVPN VXLAN tunnel id
// (its family readable) whose own name reads back to the same id. The first
// eight bytes, read as a tunnel index, give an EVPN VXLAN tunnel whose name
// reads back to it (every index has a name of at most 14 characters).
//
// A number from 2^43 up to 2^44 reads as an id with the address-family bit
// set, whose family an EVPN VXLAN tunnel cannot have (tunnelAf() raises on
// it): the reader keeps that bit as the index conversion does, so such an id
// is checked only for its type.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "TunnelTable/TunnelTable.h"
#include "framework/Vela/Exception.h"

namespace {

using Tunnel::TunnelTable::EvpnVxlanTunnelTable;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelType;

[[noreturn]] void fail(char const* what, std::string_view input, std::string const& detail) {
  std::fprintf(stderr, "TunKernelIntfFuzz: %s\n  input: '%.*s'\n  %s\n", what, int(input.size()),
               input.data(), detail.c_str());
  std::abort();
}

TunnelId read(std::string const& name, std::string_view input) {
  try {
    return EvpnVxlanTunnelTable::tunKernelIntfTunnelId(name);
  } catch (std::exception const& e) {
    fail("the reader raised", input, e.what());
  }
}

void checkResult(TunnelId id, std::string_view input) {
  if (!id.isValid()) return;
  if (id.tunnelType() != TunnelType::evpnVxlanTunnel) fail("not an EVPN VXLAN tunnel", input, id.toStrep());
  if (id.value() & Tunnel::TunnelTable::tunnelAfMask()) return;
  try {
    (void)id.tunnelAf();
  } catch (Vela::Exception const& e) {
    fail("the id read is malformed", input, id.toStrep() + ": " + e.what());
  }
  std::string const name = EvpnVxlanTunnelTable::tunKernelIntfName(id);
  TunnelId const back = read(name, input);
  if (back != id) {
    fail("the id's own name reads back differently", input,
         "id " + std::to_string(id.value()) + " name " + name + " back " + std::to_string(back.value()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const name(reinterpret_cast<char const*>(data), size);
  std::string_view const input(name);
  checkResult(read(name, input), input);

  if (size >= 8) {
    std::uint64_t index = 0;
    std::memcpy(&index, data, sizeof index);
    index &= Tunnel::TunnelTable::tunnelIndexMask();
    TunnelId const id(TunnelId::convertToTunnelValue(TunnelType::evpnVxlanTunnel, index));
    std::string const own = EvpnVxlanTunnelTable::tunKernelIntfName(id);
    if (own.size() > 14) fail("a tunnel name is longer than 14 characters", input, own);
    if (read(own, input) != id) fail("a tunnel's name reads back differently", input, own);
  }
  return 0;
}
