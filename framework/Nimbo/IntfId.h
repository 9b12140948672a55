// Interface identifiers: one unsigned 64-bit number per interface, with a name.
//
// Nimbo::IntfId is the key by which routes, vias and decapsulation groups
// name an interface. The number encodes the interface's kind and port
// numbers, so that the name can be computed from it and parsed back:
//
//   bits 56-63  generic type id (0 for the ordinary interfaces below)
//
//   Ordinary interfaces (bits 40-63 zero; every such value is below 2^40,
//   which the tunnel library relies on when it builds tunnel indexes, kept
//   below 2^43, from interface numbers):
//   bits 32-39  kind: 1 Ethernet, 2 Port-Channel, 3 Vlan, 4 Loopback,
//               5 Management, 6 Tunnel; 0 for a bare numeric interface
//   bits  0-31  the port numbers:
//     Ethernet<a>[/<b>[/<c>]], Management<a>[/<b>[/<c>]]:
//               a in bits 16-31 (0..65535), b in bits 8-15 and c in bits 0-7
//               (1..255 each; 0 means the component is absent, so "/0" is
//               not a valid component and c needs b)
//     Port-Channel<n>, Loopback<n>, Tunnel<n>: n in bits 0-31
//     Vlan<n>: n in bits 0-31, 1..4094
//     kind 0:   a bare numeric interface id, printed "Intf<decimal>"
//
//   Generic interfaces (GenericIntfId; type id non-zero):
//   bits 56-63  type id
//   bits 28-55  part 1
//   bits  0-27  part 0
//     type 58 (':') is the dynamic tunnel interface "DynamicTunnel<p1>.<p0>"
//     with part 0 below 2^23 and part 1 below 2^25; every other type prints as
//     "GenericIntf<type>.<p1>.<p0>".
//
// Value 0 is the empty interface and prints as "". Any other number without a
// name in the scheme above (an unknown kind, an absent b with a present c, a
// VLAN out of range, bits 40-55 set) prints as "Intf<decimal>" of the whole
// value, so every value survives a trip through its text: IntfId(n) prints as
// a name that parses back to n. "Intf<decimal>" parses to exactly that number
// even where the number has a proper name (which is what it then prints as).
//
// Numbers in names are decimal without sign or leading zeros.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Vela/Enum.h"
#include "framework/Vela/Hash.h"

namespace Nimbo {

// The kind of an ordinary interface (bits 32-39). otherIntf: the empty
// interface, bare numeric ids and generic interfaces.
VELA_ENUM(IntfKind, std::uint8_t, "Nimbo::IntfKind", otherIntf = 0, ethernetIntf = 1, portChannelIntf = 2,
          vlanIntf = 3, loopbackIntf = 4, managementIntf = 5, tunnelIntf = 6)

class IntfId {
 public:
  constexpr IntfId() = default;
  // Any number is accepted; see the file comment for its meaning.
  constexpr explicit IntfId(std::uint64_t value) : value_(value) {}
  // Same as fromStrep(): "" gives the empty interface.
  explicit IntfId(std::string_view name) : IntfId(fromStrep(name)) {}

  // Builders of ordinary interfaces; raise Vela::RangeException for numbers
  // that do not fit the scheme.
  static IntfId ethernet(std::uint32_t a, std::uint32_t b = 0, std::uint32_t c = 0);
  static IntfId management(std::uint32_t a, std::uint32_t b = 0, std::uint32_t c = 0);
  static IntfId portChannel(std::uint32_t n);
  static IntfId vlan(std::uint32_t n);
  static IntfId loopback(std::uint32_t n);
  static IntfId tunnel(std::uint32_t n);

  constexpr std::uint64_t value() const { return value_; }
  constexpr bool isEmpty() const { return value_ == 0; }
  // Whether the value is a generic interface (GenericIntfId).
  constexpr bool isGeneric() const { return (value_ >> 56) != 0; }
  // The kind bits of an ordinary interface; otherIntf for anything else.
  IntfKind kind() const;

  std::uint32_t hash() const { return Vela::mix64(value_); }
  std::string toStrep() const;
  // Parses every form toStrep() prints; raises Vela::RangeException otherwise.
  static IntfId fromStrep(std::string_view name);

  friend constexpr bool operator==(IntfId, IntfId) = default;
  // Numeric order, which groups interfaces by kind and orders ports naturally.
  friend constexpr auto operator<=>(IntfId, IntfId) = default;

 private:
  std::uint64_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, IntfId const& i);

// Generic interface identifiers: an 8-bit type id and two 28-bit parts packed
// into an IntfId (see the comment at the top of this file). Only static operations.
class GenericIntfId {
 public:
  static constexpr int partBits = 28;
  static constexpr std::uint32_t maxPart = (1u << partBits) - 1;
  // The dynamic tunnel interface: part 0 holds 23 bits, part 1 25 bits.
  static constexpr std::uint8_t dynamicTunnelTypeId = 58;
  static constexpr std::uint32_t maxDynamicTunnelPart0 = (1u << 23) - 1;
  static constexpr std::uint32_t maxDynamicTunnelPart1 = (1u << 25) - 1;

  // Raises Vela::RangeException for type id 0 (that is an ordinary
  // interface) and for parts out of range of the type.
  static IntfId intfId(std::uint8_t typeId, std::uint32_t part0, std::uint32_t part1);
  static constexpr bool isGenericIntfId(IntfId i) { return i.isGeneric(); }
  // 0 for an interface that is not generic.
  static constexpr std::uint8_t typeId(IntfId i) { return static_cast<std::uint8_t>(i.value() >> 56); }
  // Part 0 or 1 (0 for an interface that is not generic); raises
  // Vela::RangeException for any other n.
  static std::uint32_t part(IntfId i, int n);
};

}  // namespace Nimbo

// For std::unordered_map and friends.
template <>
struct std::hash<Nimbo::IntfId> {
  std::size_t operator()(Nimbo::IntfId const& v) const noexcept { return v.hash(); }
};
