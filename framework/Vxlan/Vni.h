// VXLAN network identifiers.
//
// Vxlan::Vni is the 24-bit segment identifier of a VXLAN network, a small
// trivially copyable key. Its text form is its decimal number: toStrep()
// gives "5000", and inside Vela value texts it is written unquoted like any
// other integer field ('vni': 5000). Reading a value text also accepts the
// quoted form '5000'.
#pragma once

#include <charconv>
#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Vela/Exception.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/Value.h"

namespace Vxlan {

class Vni {
 public:
  static constexpr std::uint32_t minValue = 0;
  static constexpr std::uint32_t maxValue = 0xFFFFFF;
  static constexpr char const* rangeText = "Vni::value < Vni::min or > Vni::max not allowed";

  constexpr Vni() = default;
  // Raises Vela::RangeException above 0xFFFFFF.
  constexpr explicit Vni(std::uint32_t value) : value_(value) {
    if (value > maxValue) throw Vela::RangeException(rangeText);
  }

  constexpr std::uint32_t value() const { return value_; }

  std::uint32_t hash() const { return Vela::mix32(value_); }
  std::string toStrep() const { return std::to_string(value_); }
  // Decimal digits only, 0..16777215.
  static Vni fromStrep(std::string_view text) {
    std::uint32_t v = 0;
    auto const* end = text.data() + text.size();
    auto const r = std::from_chars(text.data(), end, v);
    if (text.empty() || text[0] < '0' || text[0] > '9' || r.ptr != end ||
        (r.ec != std::errc() && r.ec != std::errc::result_out_of_range)) {
      throw Vela::RangeException("invalid VNI '" + std::string(text) + "': expected a decimal number");
    }
    if (r.ec == std::errc::result_out_of_range || v > maxValue)
      throw Vela::RangeException("invalid VNI '" + std::string(text) + "': " + rangeText);
    return Vni(v);
  }

  friend constexpr bool operator==(Vni, Vni) = default;
  friend constexpr auto operator<=>(Vni, Vni) = default;

 private:
  std::uint32_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, Vni v) { return os << v.value(); }

}  // namespace Vxlan

// Unquoted decimal inside value texts.
template <>
struct Vela::ValueTraits<Vxlan::Vni> {
  static void write(std::string& out, Vxlan::Vni v) { out += v.toStrep(); }
  static Vxlan::Vni read(ValueParser& p) {
    if (p.peek("'")) return Vxlan::Vni::fromStrep(p.quoted());
    return Vxlan::Vni::fromStrep(p.token());
  }
};

// For std::unordered_map and friends.
template <>
struct std::hash<Vxlan::Vni> {
  std::size_t operator()(Vxlan::Vni const& v) const noexcept { return v.hash(); }
};
