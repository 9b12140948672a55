// Ethernet (MAC) addresses.
//
// Nimbo::EthAddr is six bytes in transmission order, a trivially copyable
// hash-map key with equality, numeric order and a cheap hash. It prints as
// "00:1c:73:00:00:01" (lower-case, two digits per byte) and parses that form
// (one or two hex digits per byte, ':' or '-' between them) and the dotted
// form "001c.7300.0001" (one to four hex digits per group). The default is
// 00:00:00:00:00:00.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Vela/Hash.h"

namespace Nimbo {

class EthAddr {
 public:
  using Bytes = std::array<std::uint8_t, 6>;

  constexpr EthAddr() = default;
  constexpr explicit EthAddr(Bytes const& bytes) : bytes_(bytes) {}
  constexpr EthAddr(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3, std::uint8_t b4,
                    std::uint8_t b5)
      : bytes_{b0, b1, b2, b3, b4, b5} {}
  // Same as fromStrep().
  explicit EthAddr(std::string_view text) : EthAddr(fromStrep(text)) {}
  // The low 48 bits of value, most significant byte first; raises
  // Vela::RangeException when bits 48-63 are not zero.
  static EthAddr fromValue(std::uint64_t value);

  constexpr Bytes const& bytes() const { return bytes_; }
  // The address as a 48-bit number, first byte most significant.
  constexpr std::uint64_t value() const {
    std::uint64_t v = 0;
    for (auto b : bytes_) v = (v << 8) | b;
    return v;
  }
  constexpr bool isZero() const { return bytes_ == Bytes{}; }
  constexpr bool isBroadcast() const { return value() == 0xFFFFFFFFFFFFull; }
  constexpr bool isMulticast() const { return (bytes_[0] & 1) != 0; }

  std::uint32_t hash() const { return Vela::mix64(value()); }
  std::string toStrep() const;
  static EthAddr fromStrep(std::string_view text);

  friend constexpr bool operator==(EthAddr const&, EthAddr const&) = default;
  friend constexpr auto operator<=>(EthAddr const&, EthAddr const&) = default;

 private:
  Bytes bytes_{};
};

std::ostream& operator<<(std::ostream& os, EthAddr const& a);

}  // namespace Nimbo

// For std::unordered_map and friends.
template <>
struct std::hash<Nimbo::EthAddr> {
  std::size_t operator()(Nimbo::EthAddr const& v) const noexcept { return v.hash(); }
};
