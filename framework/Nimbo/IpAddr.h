// IP addresses and prefixes: the address values of the networking library.
//
// IpAddr is an IPv4 address, Ip6Addr an IPv6 address, IpGenAddr either of the
// two (or the empty address, which has no family) and IpGenPrefix an address
// with a prefix length. All are small, trivially copyable values meant to be
// used as hash-map keys: equality, a total order, a cheap 32-bit hash without
// allocation, and a text form (`toStrep()` / `fromStrep()`) that is also their
// rendering inside Vela value texts.
//
// Text forms: IPv4 as a dotted quad ("10.0.0.1"), IPv6 in the compressed form
// of RFC 5952 ("2001:db8::1", "::ffff:10.0.0.1" for IPv4-mapped addresses),
// prefixes as "<address>/<length>". The empty address and the empty prefix
// print as "". Parsing is strict: every malformed text raises
// Vela::RangeException naming the text and what is wrong with it.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Vela/Enum.h"
#include "framework/Vela/Hash.h"

namespace Nimbo {

VELA_ENUM(AddressFamily, std::uint8_t, "Nimbo::AddressFamily", ipunknown = 0, ipv4 = 1, ipv6 = 2)

// An IPv4 address, held in host byte order. Default: 0.0.0.0.
class IpAddr {
 public:
  constexpr IpAddr() = default;
  constexpr explicit IpAddr(std::uint32_t value) : value_(value) {}
  // Same as fromStrep().
  explicit IpAddr(std::string_view text) : IpAddr(fromStrep(text)) {}

  constexpr std::uint32_t value() const { return value_; }
  constexpr bool isUnspecified() const { return value_ == 0; }
  constexpr bool isMulticast() const { return (value_ >> 28) == 0xE; }
  // The four bytes in network order.
  constexpr std::array<std::uint8_t, 4> bytes() const {
    return {static_cast<std::uint8_t>(value_ >> 24), static_cast<std::uint8_t>(value_ >> 16),
            static_cast<std::uint8_t>(value_ >> 8), static_cast<std::uint8_t>(value_)};
  }

  std::uint32_t hash() const { return Vela::mix32(value_); }
  std::string toStrep() const;
  // Dotted quad: exactly four decimal octets 0..255 without leading zeros.
  static IpAddr fromStrep(std::string_view text);

  friend constexpr bool operator==(IpAddr, IpAddr) = default;
  friend constexpr auto operator<=>(IpAddr, IpAddr) = default;

 private:
  std::uint32_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, IpAddr const& a);

// An IPv6 address: sixteen bytes in network order. Default: ::.
class Ip6Addr {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(Bytes const& bytes) : bytes_(bytes) {}
  // Same as fromStrep().
  explicit Ip6Addr(std::string_view text) : Ip6Addr(fromStrep(text)) {}

  constexpr Bytes const& bytes() const { return bytes_; }
  constexpr bool isUnspecified() const { return bytes_ == Bytes{}; }
  constexpr bool isMulticast() const { return bytes_[0] == 0xFF; }

  std::uint32_t hash() const;
  // RFC 5952: lower-case hex, the longest run (first on a tie) of two or more
  // zero groups as "::", IPv4-mapped addresses as "::ffff:a.b.c.d".
  std::string toStrep() const;
  // Groups of one to four hex digits, at most one "::" standing for at least
  // one zero group, optionally ending in a dotted quad. No zone index.
  static Ip6Addr fromStrep(std::string_view text);

  friend constexpr bool operator==(Ip6Addr const& a, Ip6Addr const& b) {
    return Vela::sameWords(a.bytes_, b.bytes_);
  }
  // Numeric order of the 128-bit value.
  friend constexpr auto operator<=>(Ip6Addr const&, Ip6Addr const&) = default;

 private:
  Bytes bytes_{};
};

std::ostream& operator<<(std::ostream& os, Ip6Addr const& a);

// An IPv4 or IPv6 address, or the empty address (no family), which is the
// default. 17 bytes: the sixteen address bytes in network order (an IPv4
// address in the first four, the rest zero) and the family.
//
// Ordering: by family (empty, then IPv4, then IPv6), then numerically.
class IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr a) : af_(AddressFamily::ipv4) {
    auto const b = a.bytes();
    for (int i = 0; i < 4; ++i) bytes_[i] = b[i];
  }
  constexpr IpGenAddr(Ip6Addr const& a) : bytes_(a.bytes()), af_(AddressFamily::ipv6) {}
  // Same as fromStrep(): "" gives the empty address.
  explicit IpGenAddr(std::string_view text) : IpGenAddr(fromStrep(text)) {}

  constexpr AddressFamily af() const { return af_; }
  constexpr bool isEmpty() const { return af_ == AddressFamily::ipunknown; }
  constexpr bool isV4() const { return af_ == AddressFamily::ipv4; }
  constexpr bool isV6() const { return af_ == AddressFamily::ipv6; }
  // True for 0.0.0.0 and ::, and for the empty address (all its bits are zero).
  constexpr bool isUnspecified() const { return bytes_ == Ip6Addr::Bytes{}; }
  bool isMulticast() const;

  // The IPv4 address; raises Vela::RangeException unless isV4().
  IpAddr v4() const;
  // The IPv6 address and its bytes; raise Vela::RangeException unless isV6().
  Ip6Addr v6() const;
  Ip6Addr::Bytes const& v6Bytes() const;
  // The raw sixteen bytes whatever the family (for IPv4 the first four).
  constexpr Ip6Addr::Bytes const& bytes() const { return bytes_; }
  // Number of address bits of the family: 32, 128, or 0 for the empty address.
  constexpr std::uint8_t maxLen() const { return isV4() ? 32 : isV6() ? 128 : 0; }

  std::uint32_t hash() const;
  // Dotted quad, RFC 5952 IPv6, or "" for the empty address.
  std::string toStrep() const;
  // "" gives the empty address; a text with ':' is IPv6, any other IPv4.
  static IpGenAddr fromStrep(std::string_view text);

  friend constexpr bool operator==(IpGenAddr const& a, IpGenAddr const& b) {
    return a.af_ == b.af_ && Vela::sameWords(a.bytes_, b.bytes_);
  }
  friend constexpr std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b) {
    if (auto c = a.af_ <=> b.af_; c != 0) return c;
    return a.bytes_ <=> b.bytes_;
  }

 private:
  friend class IpGenPrefix;

  Ip6Addr::Bytes bytes_{};
  AddressFamily af_ = AddressFamily::ipunknown;
};

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);

// An address and a prefix length, with the bits beyond the length cleared
// (10.1.2.3/8 is held as 10.0.0.0/8). The default is the empty prefix (empty
// address, length 0), which is distinct from 0.0.0.0/0 and ::/0.
//
// Ordering: by address (family first), then by length.
class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  // Raises Vela::RangeException when len exceeds the family's bits (any
  // length but 0 for the empty address). Host bits are cleared.
  IpGenPrefix(IpGenAddr const& addr, std::uint8_t len);
  // Same as fromStrep().
  explicit IpGenPrefix(std::string_view text) : IpGenPrefix(fromStrep(text)) {}
  // The host prefix of an address (/32 or /128); the empty address gives the empty prefix.
  static IpGenPrefix hostPrefix(IpGenAddr const& addr) { return IpGenPrefix(addr, addr.maxLen()); }

  constexpr IpGenAddr const& address() const { return addr_; }
  constexpr std::uint8_t len() const { return len_; }
  constexpr AddressFamily af() const { return addr_.af(); }
  constexpr bool isEmpty() const { return addr_.isEmpty(); }
  constexpr bool isHost() const { return !isEmpty() && len_ == addr_.maxLen(); }
  // Whether the address (of the same family) lies within the prefix.
  bool contains(IpGenAddr const& a) const;
  // Whether the other prefix (of the same family) is this one or more specific within it.
  bool contains(IpGenPrefix const& p) const;

  std::uint32_t hash() const;
  // "<address>/<len>", or "" for the empty prefix.
  std::string toStrep() const;
  // "" gives the empty prefix; an address without "/<len>" gives its host
  // prefix. The length is decimal without leading zeros, 0..32 or 0..128.
  static IpGenPrefix fromStrep(std::string_view text);

  friend constexpr bool operator==(IpGenPrefix const&, IpGenPrefix const&) = default;
  friend constexpr auto operator<=>(IpGenPrefix const&, IpGenPrefix const&) = default;

 private:
  IpGenAddr addr_;
  std::uint8_t len_ = 0;
};

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p);

}  // namespace Nimbo

// For std::unordered_map and friends.
template <>
struct std::hash<Nimbo::IpAddr> {
  std::size_t operator()(Nimbo::IpAddr const& v) const noexcept { return v.hash(); }
};
template <>
struct std::hash<Nimbo::Ip6Addr> {
  std::size_t operator()(Nimbo::Ip6Addr const& v) const noexcept { return v.hash(); }
};
template <>
struct std::hash<Nimbo::IpGenAddr> {
  std::size_t operator()(Nimbo::IpGenAddr const& v) const noexcept { return v.hash(); }
};
template <>
struct std::hash<Nimbo::IpGenPrefix> {
  std::size_t operator()(Nimbo::IpGenPrefix const& v) const noexcept { return v.hash(); }
};
