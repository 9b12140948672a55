// Dynamic tunnel interfaces: the interface through which a via rides on a
// tunnel.
//
// Every tunnel has an interface identifier of the reserved generic type 58
// (':') that carries its TunnelId value: part 0 holds the low 23 bits and
// part 1 the value shifted right by 23, and the interface is named
// "DynamicTunnel<part 1>.<part 0>" (the LDP tunnel of index 5, value
// 0x300000000005, is DynamicTunnel6291456.5). A via whose interface is such
// an interface resolves through that tunnel. DynamicTunnelIntfId converts
// between the two and recognises these interfaces; TunnelId::intfId() gives a
// tunnel's interface. The class sits beside the platform's interface classes
// in Nimbo but belongs to the tunnel library.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Nimbo/IntfId.h"
#include "framework/Vela/Types.h"

namespace Nimbo {

// A dynamic tunnel interface, or the empty interface (the default). Equality,
// ordering and the textual form are those of the underlying IntfId.
class DynamicTunnelIntfId {
 public:
  static constexpr std::uint8_t typeId = GenericIntfId::dynamicTunnelTypeId;
  static constexpr std::uint64_t part0Mask = 0x7FFFFF;
  static constexpr int part1Shift = 23;

  // Whether the interface is of the dynamic tunnel type.
  static constexpr bool isDynamicTunnelIntfId(IntfId i) { return GenericIntfId::typeId(i) == typeId; }
  // The tunnel value the interface carries; 0 for any other interface. Build
  // a TunnelId from it to apply the TunnelId range check.
  static std::uint64_t tunnelId(IntfId i);
  // The dynamic tunnel interface of a tunnel value. Raises
  // Vela::RangeException for a value of more than 48 bits.
  static IntfId tunnelIdToIntfId(std::uint64_t tunnelValue);

  DynamicTunnelIntfId() = default;
  // Raises Vela::RangeException unless i is empty or a dynamic tunnel interface.
  explicit DynamicTunnelIntfId(IntfId i);
  // From a name such as "DynamicTunnel6291456.5" ("" gives the empty
  // interface); raises Vela::RangeException for any other name.
  explicit DynamicTunnelIntfId(Vela::String8 const& name) : DynamicTunnelIntfId(IntfId::fromStrep(name)) {}

  IntfId intfId() const { return intfId_; }
  bool isEmpty() const { return intfId_.isEmpty(); }

  std::uint32_t hash() const { return intfId_.hash(); }
  std::string toStrep() const { return intfId_.toStrep(); }
  static DynamicTunnelIntfId fromStrep(std::string_view name) {
    return DynamicTunnelIntfId(IntfId::fromStrep(name));
  }

  friend bool operator==(DynamicTunnelIntfId, DynamicTunnelIntfId) = default;
  friend auto operator<=>(DynamicTunnelIntfId, DynamicTunnelIntfId) = default;

 private:
  IntfId intfId_;
};

std::ostream& operator<<(std::ostream& os, DynamicTunnelIntfId const& i);

}  // namespace Nimbo

template <>
struct std::hash<Nimbo::DynamicTunnelIntfId> {
  std::size_t operator()(Nimbo::DynamicTunnelIntfId const& v) const noexcept { return v.hash(); }
};
