// Sets of forwarding chips.
//
// Quay::ChipSet names the forwarding chips of a system on which something
// exists (a hardware counter, for one): a bit set of up to 64 chips, bit n
// standing for chip n. It is a small value type: equality, ordering by the
// bit mask, a 32-bit hash, and a text form in hexadecimal, lower case, with a
// "0x" prefix ("0x5" for chips 0 and 2, "0x0" for none). Inside Vela value
// texts it is written unquoted, like an integer ('chipMask': 0x5).
#pragma once

#include <bit>
#include <charconv>
#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Vela/Exception.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/Value.h"

namespace Quay {

class ChipSet {
 public:
  static constexpr std::uint32_t minChip = 0;
  static constexpr std::uint32_t maxChip = 63;
  static constexpr char const* rangeText =
      "ChipSet::chip < ChipSet::minChip or > ChipSet::maxChip not allowed";

  constexpr ChipSet() = default;
  constexpr explicit ChipSet(std::uint64_t bits) : bits_(bits) {}

  constexpr std::uint64_t bits() const { return bits_; }
  constexpr bool empty() const { return bits_ == 0; }
  constexpr int chipCount() const { return std::popcount(bits_); }

  // Chips above maxChip raise Vela::RangeException.
  constexpr bool chip(std::uint32_t n) const { return (bits_ >> checked(n)) & 1u; }
  constexpr void chipIs(std::uint32_t n, bool present) {
    std::uint64_t const bit = std::uint64_t{1} << checked(n);
    bits_ = present ? (bits_ | bit) : (bits_ & ~bit);
  }

  std::uint32_t hash() const { return Vela::mix64(bits_); }

  std::string toStrep() const {
    char buf[2 + 16] = {'0', 'x'};
    auto const r = std::to_chars(buf + 2, buf + sizeof buf, bits_, 16);
    return std::string(buf, r.ptr);
  }
  // "0x" and 1 to 16 hexadecimal digits, either case; anything else raises
  // Vela::RangeException.
  static ChipSet fromStrep(std::string_view text) {
    std::uint64_t v = 0;
    bool ok = text.size() > 2 && text.size() <= 18 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (ok) {
      auto const* end = text.data() + text.size();
      auto const r = std::from_chars(text.data() + 2, end, v, 16);
      ok = r.ec == std::errc() && r.ptr == end && text[2] != '-' && text[2] != '+';
    }
    if (!ok) {
      throw Vela::RangeException("invalid chip set '" + std::string(text) +
                                 "': expected 0x and up to 16 hexadecimal digits");
    }
    return ChipSet(v);
  }

  friend constexpr bool operator==(ChipSet, ChipSet) = default;
  friend constexpr auto operator<=>(ChipSet, ChipSet) = default;

 private:
  static constexpr std::uint32_t checked(std::uint32_t n) {
    if (n > maxChip) throw Vela::RangeException(rangeText);
    return n;
  }

  std::uint64_t bits_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, ChipSet c) { return os << c.toStrep(); }

}  // namespace Quay

// Unquoted hexadecimal inside value texts; the quoted form is read as well.
template <>
struct Vela::ValueTraits<Quay::ChipSet> {
  static void write(std::string& out, Quay::ChipSet c) { out += c.toStrep(); }
  static Quay::ChipSet read(ValueParser& p) {
    if (p.peek("'")) return Quay::ChipSet::fromStrep(p.quoted());
    return Quay::ChipSet::fromStrep(p.token());
  }
};
