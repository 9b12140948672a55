// The tunnel vocabulary every table, RIB and FIB of the library speaks.
//
// A TunnelId packs the kind of a tunnel, an address-family bit and a per-kind
// index into one 64-bit number; it keys every tunnel table, the tunnel RIB's
// id sets and the tunnel FIB. An EncapId names an encapsulation the same way
// in 32 bits. Both are plain integers inside, with accessors that are shifts
// and masks, because they are hash-map keys on every hot path; each fixes its
// own hash algorithm.
//
// The small enumerations shared by the tables (tunnel kind, transport kind,
// encapsulation kind, table preference, RIB contribution) live here too, as
// do Id64 and Id64Allocator, the counter that tables numbering their own
// tunnels draw indexes from. The GRE and IPsec encapsulation descriptors are
// in EncapDescriptors.h, included here so that one include brings the whole
// vocabulary.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "TunnelTable/EncapDescriptors.h"
#include "framework/Nimbo/IntfId.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Enum.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Types.h"
#include "framework/Vela/Value.h"

namespace Tunnel::TunnelTable {

// Bit layout of a TunnelId value (bit 0 least significant):
//   bits  0-42  tunnel index
//   bit   43    address family: 0 IPv4, 1 IPv6
//   bits 44-47  TunnelType
//   bits 48-63  zero
// Every computation on a TunnelId goes through these five constants.
constexpr std::uint64_t tunnelIndexMask() { return 0x7FFFFFFFFFFull; }
constexpr std::uint64_t tunnelAfMask() { return 0x80000000000ull; }
constexpr std::uint8_t tunnelAfPos() { return 43; }
constexpr std::uint64_t tunnelTypeMask() { return 0xF00000000000ull; }
constexpr std::uint8_t tunnelTypePos() { return 44; }

// The kind of a tunnel, kept in bits 44-47 of its TunnelId. Values 10 to 14
// fit the field but are no kind; an id carrying one is malformed.
VELA_ENUM(TunnelType, std::uint8_t, "Tunnel::TunnelTable::TunnelType", invalidTunnel = 0, bgpLuPushTunnel = 1,
          bgpLuTunnel = 2, ldpTunnel = 3, nexthopTunnel = 4, staticTunnel = 5, evpnVxlanTunnel = 6,
          srTunnel = 7, srTeSegmentListTunnel = 8, staticInterfaceTunnel = 9, maxTunnelType = 15)

// What a tunnel carries its payload in.
VELA_ENUM(TunnelTransportType, std::uint8_t, "Tunnel::TunnelTable::TunnelTransportType", unknownTunnel = 0,
          mplsTunnel = 1, ipTunnel = 2)

// The kind of an encapsulation, kept in bits 28-31 of its EncapId.
VELA_ENUM(EncapType, std::uint8_t, "Tunnel::TunnelTable::EncapType", greEncap = 0, ipSecEncap = 1,
          mplsEncap = 2)

// The preference a protocol tunnel table lends its tunnels in tunnel RIB
// selection; lower is preferred. There is deliberately no enumerator 0.
VELA_ENUM(TunnelTablePref, std::uint8_t, "Tunnel::TunnelTable::TunnelTablePref", staticPref = 1, ldpPref = 2,
          srPref = 3, bgpLuPref = 4, maxPref = 5)

// Whether a table's tunnels take part in tunnel RIB selection (no enumerator 0).
VELA_ENUM(ContributionToTunnelRIB, std::uint8_t, "Tunnel::TunnelTable::ContributionToTunnelRIB",
          contributing = 1, nonContributing = 2)

namespace detail {

[[noreturn]] void throwTunnelIdRange();
[[noreturn]] void throwIndexAndAfRange();
[[noreturn]] void throwUnexpectedTunnelType(std::uint64_t type);
[[noreturn]] void throwIpv6NotSupported(std::uint64_t type);
[[noreturn]] void throwEncapIndexRange();

}  // namespace detail

// The 64-bit identifier of a tunnel (layout above). Value 0 is `invalid`.
// Equality and ordering are those of the number; the textual form is its
// decimal value.
class TunnelId {
 public:
  static TunnelId const invalid;
  static constexpr std::uint8_t typeMin = 0;
  static constexpr std::uint8_t typeMax = 15;
  static constexpr std::uint64_t minValue = 0;
  static constexpr std::uint64_t maxValue = 0xFFFFFFFFFFFFull;

  constexpr TunnelId() = default;
  // Raises Vela::RangeException when any of bits 48-63 is set.
  constexpr explicit TunnelId(std::uint64_t value) : value_(value) {
    if (value > maxValue) [[unlikely]]
      detail::throwTunnelIdRange();
  }

  constexpr std::uint64_t value() const { return value_; }
  constexpr bool isValid() const { return value_ != 0; }
  constexpr TunnelType tunnelType() const { return static_cast<TunnelType>(value_ >> tunnelTypePos()); }
  // The index without the address-family bit.
  constexpr std::uint64_t tunnelIndex() const { return value_ & tunnelIndexMask(); }

  // mplsTunnel, ipTunnel or unknownTunnel by kind; raises
  // Vela::InternalException for the kinds 10 to 14.
  constexpr TunnelTransportType tunnelTransportType() const {
    switch (tunnelType()) {
      case TunnelType::invalidTunnel:
      case TunnelType::nexthopTunnel:
      case TunnelType::evpnVxlanTunnel:
      case TunnelType::maxTunnelType:
        return TunnelTransportType::unknownTunnel;
      case TunnelType::bgpLuPushTunnel:
      case TunnelType::bgpLuTunnel:
      case TunnelType::ldpTunnel:
      case TunnelType::staticTunnel:
      case TunnelType::srTunnel:
      case TunnelType::srTeSegmentListTunnel:
        return TunnelTransportType::mplsTunnel;
      case TunnelType::staticInterfaceTunnel:
        return TunnelTransportType::ipTunnel;
    }
    detail::throwUnexpectedTunnelType(value_ >> tunnelTypePos());
  }

  // Only static, SR, SR-TE segment-list and static interface tunnels carry
  // IPv6; on any other kind the IPv6 bit is deliberately an internal error
  // (Vela::InternalException) rather than read as IPv6.
  constexpr Nimbo::AddressFamily tunnelAf() const {
    bool const v6 = (value_ & tunnelAfMask()) != 0;
    switch (tunnelType()) {
      case TunnelType::staticTunnel:
      case TunnelType::srTunnel:
      case TunnelType::srTeSegmentListTunnel:
      case TunnelType::staticInterfaceTunnel:
        return v6 ? Nimbo::AddressFamily::ipv6 : Nimbo::AddressFamily::ipv4;
      default:
        if (v6) detail::throwIpv6NotSupported(value_ >> tunnelTypePos());
        return Nimbo::AddressFamily::ipv4;
    }
  }

  // Builds the value of a tunnel of kind `type` from its index, or-ed with
  // tunnelAfMask() for an IPv6 tunnel. Raises Vela::RangeException when
  // indexAndAf reaches 2^44. Callers construct the TunnelId from the result.
  static constexpr std::uint64_t convertToTunnelValue(TunnelType type, std::uint64_t indexAndAf) {
    if (indexAndAf >> 44) [[unlikely]]
      detail::throwIndexAndAfRange();
    return ((static_cast<std::uint64_t>(type) & 0xF) << tunnelTypePos()) |
           (indexAndAf & (tunnelIndexMask() | tunnelAfMask()));
  }

  // "Table:<kind enumerator>-Index:<index in hex>", e.g. "Table:ldpTunnel-Index:1a".
  Vela::String8 toStrep() const;
  // "<typeCliStr> <addressFamilyCliStr> Tunnel index <decimal index>".
  Vela::String8 toCliStrep() const;
  // The display name of the kind ("LDP", "IS-IS SR", ...); kinds without one
  // (invalid, SR-TE segment list, max, 10-14) give the enumeration's output.
  Vela::String8 typeCliStr() const;
  // "IPv6" when the address-family bit is set, else "IPv4"; unlike
  // tunnelAf() this does not look at the kind.
  Vela::String8 addressFamilyCliStr() const { return (value_ & tunnelAfMask()) ? "IPv6" : "IPv4"; }

  // The interface a via uses to ride on this tunnel: the dynamic tunnel
  // interface (TunnelIntfId.h), or, for a static interface tunnel, the real
  // interface whose number is the index.
  Nimbo::IntfId intfId() const;

  // Jenkins one-at-a-time over the eight bytes of the value, least
  // significant first. Fixed: it decides the iteration order of every
  // collection keyed by tunnel.
  constexpr std::uint32_t hash() const {
    std::uint32_t h = 0;
    // Unrolled, each byte is taken with a fixed shift: a third fewer
    // instructions, on every access to a collection keyed by tunnel.
#pragma GCC unroll 8
    for (int i = 0; i < 8; ++i) {
      h += static_cast<std::uint32_t>((value_ >> (8 * i)) & 0xFF);
      h += h << 10;
      h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }

  friend constexpr bool operator==(TunnelId, TunnelId) = default;
  friend constexpr auto operator<=>(TunnelId, TunnelId) = default;

 private:
  std::uint64_t value_ = 0;
};

inline constexpr TunnelId TunnelId::invalid{};

static_assert(std::is_trivially_copyable_v<TunnelId> && sizeof(TunnelId) == 8);

// The decimal value.
std::ostream& operator<<(std::ostream& os, TunnelId const& id);

// Constants of the EncapId layout. All instances are equal.
class EncapIdConstants : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::EncapIdConstants";
  static constexpr auto valueFields() { return std::make_tuple(); }

  static constexpr std::uint32_t encapTypeMask = 0xF0000000u;
  static constexpr std::uint32_t encapIndexMask = 0x0FFFFFFFu;
  static constexpr std::uint8_t encapTypePos = 28;
};

// The 32-bit identifier of an encapsulation: EncapType in bits 28-31, index in
// bits 0-27. Equality and ordering are those of the number; the textual form
// is its decimal value.
class EncapId {
 public:
  constexpr EncapId() = default;
  // The raw value, unchecked.
  constexpr explicit EncapId(std::uint32_t encapIdValue) : encapIdValue_(encapIdValue) {}
  // Checked like encapValueIs().
  constexpr EncapId(EncapType type, std::uint32_t index) { encapValueIs(type, index); }

  constexpr std::uint32_t encapIdValue() const { return encapIdValue_; }
  constexpr void encapIdValueIs(std::uint32_t v) { encapIdValue_ = v; }
  constexpr EncapType encapType() const {
    return static_cast<EncapType>(encapIdValue_ >> EncapIdConstants::encapTypePos);
  }
  constexpr std::uint32_t encapIndex() const { return encapIdValue_ & EncapIdConstants::encapIndexMask; }
  // Raises Vela::RangeException "Invalid 'encapIndex'" when the index reaches
  // 2^28, leaving the value as it was.
  constexpr void encapValueIs(EncapType type, std::uint32_t index) {
    if (index >> EncapIdConstants::encapTypePos) [[unlikely]]
      detail::throwEncapIndexRange();
    encapIdValue_ = index | (static_cast<std::uint32_t>(type) << EncapIdConstants::encapTypePos);
  }

  // MurmurHash3 (x86, 32-bit, seed 0) of the four bytes of the value. Fixed,
  // and deliberately not the TunnelId algorithm.
  constexpr std::uint32_t hash() const {
    auto const rotl = [](std::uint32_t x, int r) { return (x << r) | (x >> (32 - r)); };
    std::uint32_t k = encapIdValue_;  // the one 4-byte block, read little-endian
    k *= 0xcc9e2d51u;
    k = rotl(k, 15);
    k *= 0x1b873593u;
    std::uint32_t h = 0;  // seed
    h ^= k;
    h = rotl(h, 13);
    h = h * 5 + 0xe6546b64u;
    h ^= 4u;  // length
    return Vela::mix32(h);
  }

  friend constexpr bool operator==(EncapId, EncapId) = default;
  friend constexpr auto operator<=>(EncapId, EncapId) = default;

 private:
  std::uint32_t encapIdValue_ = 0;
};

static_assert(std::is_trivially_copyable_v<EncapId> && sizeof(EncapId) == 4);

// The decimal value.
std::ostream& operator<<(std::ostream& os, EncapId const& id);

// A plain 64-bit number handed out by Id64Allocator. Textual form: decimal.
class Id64 {
 public:
  constexpr Id64() = default;
  constexpr explicit Id64(std::uint64_t value) : value_(value) {}

  constexpr std::uint64_t value() const { return value_; }
  std::uint32_t hash() const { return Vela::mix64(value_); }

  friend constexpr bool operator==(Id64, Id64) = default;
  friend constexpr auto operator<=>(Id64, Id64) = default;

 private:
  std::uint64_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, Id64 const& id);

// Hands out the ids 1, 2, 3, ... of a table that numbers its own tunnels;
// ids are never reused. currentId is an attribute, so watchers see every id
// handed out.
class Id64Allocator : public Vela::Entity {
 public:
  static constexpr Id64 maxId() { return Id64(0xFFFFFFFFu); }

  explicit Id64Allocator(Vela::Name name = {}) : Vela::Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Tunnel::TunnelTable::Id64Allocator"; }

  // Adds `amount` to currentId (notifying its watchers when that changes it).
  void currentIdInc(Id64 amount) { currentId_.set(Id64(currentId().value() + amount.value())); }

  // The next id. Running out of ids stops the agent: it is an assertion,
  // not an error a caller could recover from.
  Id64 newId();

  VELA_ATTRIBUTE(Id64, currentId);
};

}  // namespace Tunnel::TunnelTable

// Textual forms of the identifiers: the plain decimal number. Reading a
// TunnelId applies its range check.
template <>
struct Vela::ValueTraits<Tunnel::TunnelTable::TunnelId> {
  static void write(std::string& out, Tunnel::TunnelTable::TunnelId const& v) {
    ValueTraits<std::uint64_t>::write(out, v.value());
  }
  static Tunnel::TunnelTable::TunnelId read(ValueParser& p) {
    return Tunnel::TunnelTable::TunnelId(ValueTraits<std::uint64_t>::read(p));
  }
};

template <>
struct Vela::ValueTraits<Tunnel::TunnelTable::EncapId> {
  static void write(std::string& out, Tunnel::TunnelTable::EncapId const& v) {
    ValueTraits<std::uint32_t>::write(out, v.encapIdValue());
  }
  static Tunnel::TunnelTable::EncapId read(ValueParser& p) {
    return Tunnel::TunnelTable::EncapId(ValueTraits<std::uint32_t>::read(p));
  }
};

template <>
struct Vela::ValueTraits<Tunnel::TunnelTable::Id64> {
  static void write(std::string& out, Tunnel::TunnelTable::Id64 const& v) {
    ValueTraits<std::uint64_t>::write(out, v.value());
  }
  static Tunnel::TunnelTable::Id64 read(ValueParser& p) {
    return Tunnel::TunnelTable::Id64(ValueTraits<std::uint64_t>::read(p));
  }
};

// For std::unordered_map and friends.
template <>
struct std::hash<Tunnel::TunnelTable::TunnelId> {
  std::size_t operator()(Tunnel::TunnelTable::TunnelId const& v) const noexcept { return v.hash(); }
};
template <>
struct std::hash<Tunnel::TunnelTable::EncapId> {
  std::size_t operator()(Tunnel::TunnelTable::EncapId const& v) const noexcept { return v.hash(); }
};
