// Value types of the nexthop tunnel allocator.
//
// A nexthop tunnel stands for one resolved forwarding step (GRE, MPLS, MPLS
// over GRE or plain IP towards a next hop) that several users share. Its
// layer-3 description (NexthopTunnelL3Info) is the key under which the
// allocator finds it again; NexthopTunnelL2Info carries its layer-2 rewrite
// and counters; ReverseTunnelEntry counts its users.
#pragma once

#include <cstdint>

#include "TunnelTable/TunnelBasicTypes.h"
#include "framework/Nimbo/EthAddr.h"
#include "framework/Nimbo/GreKeyType.h"
#include "framework/Nimbo/IntfId.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Quay/ChipSet.h"
#include "framework/Vela/Enum.h"
#include "framework/Vela/Value.h"

namespace Tunnel::TunnelTable {

VELA_ENUM(NexthopType, std::uint8_t, "Tunnel::TunnelTable::NexthopType", invalid = 0, gre = 1, mpls = 2,
          mplsOverGre = 3, ip = 4)

// Index of a next hop within a nexthop group: 0 to 127.
class NextHopIndex : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::NextHopIndex";
  static constexpr auto valueFields() { return std::make_tuple(Vela::field("value", &NextHopIndex::value_)); }
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t max = 127;

  constexpr NextHopIndex() = default;
  explicit NextHopIndex(std::uint32_t value);
  std::uint32_t value() const { return value_; }

 private:
  std::uint32_t value_ = 0;
};

// Identity of a tunnel's hardware counter: the nexthop group id in the high
// half, a second number in the low half.
class TunnelCounterId : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::TunnelCounterId";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("value", &TunnelCounterId::value_));
  }

  constexpr TunnelCounterId() = default;
  constexpr explicit TunnelCounterId(std::uint64_t value) : value_(value) {}
  static TunnelCounterId const invalid;
  static constexpr std::uint64_t convertToTunnelValue(std::uint32_t nhgId, std::uint32_t second) {
    return (static_cast<std::uint64_t>(nhgId) << 32) | second;
  }
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0;
};

inline TunnelCounterId const TunnelCounterId::invalid{};

// The layer-3 description of a nexthop tunnel; equal descriptions are the
// same tunnel.
class NexthopTunnelL3Info : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::NexthopTunnelL3Info";
  static constexpr auto valueFields() {
    using T = NexthopTunnelL3Info;
    return std::make_tuple(
        Vela::field("groupType", &T::groupType), Vela::field("ttl", &T::ttl),
        Vela::field("sourceIp", &T::sourceIp), Vela::field("destinationIp", &T::destinationIp),
        Vela::field("mplsLabelStack", &T::mplsLabelStack), Vela::field("greKeyType", &T::greKeyType),
        Vela::field("l3Intf", &T::l3Intf), Vela::field("l2Intf", &T::l2Intf),
        Vela::field("macAddr", &T::macAddr), Vela::field("tunnelCounterId", &T::tunnelCounterId));
  }

  NexthopType groupType = NexthopType::invalid;
  std::uint8_t ttl = 0;
  Nimbo::IpGenAddr sourceIp;
  Nimbo::IpGenAddr destinationIp;
  Nimbo::MplsLabelOperation mplsLabelStack;
  Nimbo::GreKeyType greKeyType = Nimbo::GreKeyType::greKeyNone;
  Nimbo::IntfId l3Intf;
  Nimbo::IntfId l2Intf;
  Nimbo::EthAddr macAddr;
  TunnelCounterId tunnelCounterId;
};

// Hardware status of a nexthop tunnel: the layer-2 rewrite and its counters.
class NexthopTunnelL2Info : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::NexthopTunnelL2Info";
  static constexpr auto valueFields() {
    using T = NexthopTunnelL2Info;
    return std::make_tuple(
        Vela::field("vlanId", &T::vlanId), Vela::field("l2Intf", &T::l2Intf),
        Vela::field("macAddr", &T::macAddr), Vela::field("route", &T::route), Vela::field("hop", &T::hop),
        Vela::field("l3Intf", &T::l3Intf), Vela::field("tunnelCounterId", &T::tunnelCounterId),
        Vela::field("counterIndex", &T::counterIndex), Vela::field("chipMask", &T::chipMask),
        Vela::field("packets", &T::packets), Vela::field("bytes", &T::bytes));
  }

  std::uint16_t vlanId = 0;
  Nimbo::IntfId l2Intf;
  Nimbo::EthAddr macAddr;
  std::uint64_t route = 0;  // the platform's route handle
  std::uint64_t hop = 0;    // the platform's hop handle
  Nimbo::IntfId l3Intf;
  TunnelCounterId tunnelCounterId;
  std::uint64_t counterIndex = 0;
  Quay::ChipSet chipMask;
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
};

// A tunnel and the number of its users. The default entry (tunnel 0, count 0)
// stands for no tunnel.
class ReverseTunnelEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::ReverseTunnelEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("tunnelId", &ReverseTunnelEntry::tunnelId),
                           Vela::field("refCount", &ReverseTunnelEntry::refCount));
  }

  TunnelId tunnelId;
  std::uint32_t refCount = 0;
};

}  // namespace Tunnel::TunnelTable
