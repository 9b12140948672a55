#include "TunnelTable/TunnelBasicTypes.h"

#include <sstream>

namespace Tunnel::TunnelTable {

namespace detail {

void throwTunnelIdRange() {
  throw Vela::RangeException("TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
}

void throwIndexAndAfRange() {
  // The missing blank before "value" is part of the established text.
  throw Vela::RangeException("Invalid 'indexAndAf'value, value is above 2^44");
}

void throwUnexpectedTunnelType(std::uint64_t type) {
  throw Vela::InternalException(
      Vela::format("Unexpected tunnelType %llx", static_cast<unsigned long long>(type)));
}

void throwIpv6NotSupported(std::uint64_t type) {
  throw Vela::InternalException(
      Vela::format("IPv6 not yet supported for %llx", static_cast<unsigned long long>(type)));
}

void throwEncapIndexRange() { throw Vela::RangeException("Invalid 'encapIndex'"); }

}  // namespace detail

Vela::String8 TunnelId::toStrep() const {
  std::ostringstream os;
  os << std::hex << "Table:" << tunnelType() << "-"
     << "Index:" << tunnelIndex();
  return os.str();
}

Vela::String8 TunnelId::toCliStrep() const {
  return typeCliStr() + " " + addressFamilyCliStr() + " Tunnel index " + std::to_string(tunnelIndex());
}

Vela::String8 TunnelId::typeCliStr() const {
  switch (tunnelType()) {
    case TunnelType::bgpLuPushTunnel:
      return "BGP LU Push";
    case TunnelType::bgpLuTunnel:
      return "BGP LU";
    case TunnelType::ldpTunnel:
      return "LDP";
    case TunnelType::nexthopTunnel:
      return "Nexthop";
    case TunnelType::staticTunnel:
      return "Static MPLS";
    case TunnelType::evpnVxlanTunnel:
      return "EVPN VXLAN";
    case TunnelType::srTunnel:
      return "IS-IS SR";
    case TunnelType::staticInterfaceTunnel:
      return "Static Interface";
    default:
      // Deliberately including srTeSegmentListTunnel, which shows its
      // enumerator name.
      return Vela::enumName(tunnelType());
  }
}

// Always decimal, whatever the stream's number base.
std::ostream& operator<<(std::ostream& os, TunnelId const& id) { return os << Vela::valueToStrep(id); }

std::ostream& operator<<(std::ostream& os, EncapId const& id) { return os << Vela::valueToStrep(id); }

std::ostream& operator<<(std::ostream& os, Id64 const& id) { return os << Vela::valueToStrep(id); }

Id64 Id64Allocator::newId() {
  VELA_ASSERT_TEXT(currentId() < maxId(), "( currentId() < maxId() ) && \"Reached maximum number of IDs.\"");
  currentIdInc(Id64(1));
  return currentId();
}

}  // namespace Tunnel::TunnelTable
