#include "TunnelTable/TunnelTable.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include "framework/Vela/Exception.h"

namespace Tunnel::TunnelTable {

// --- entries -----------------------------------------------------------------------------------------

void BgpLuPushTunnelTableEntry::tunnelIdViaIs(TunnelId t) {
  viaIs(Via(Nimbo::IpGenAddr(Nimbo::IpAddr(0)), Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(t.value())),
        true);
}

// --- tables ------------------------------------------------------------------------------------------

bool contributeToTunnelRib(TunnelType t) {
  switch (t) {
    case TunnelType::bgpLuTunnel:
    case TunnelType::ldpTunnel:
    case TunnelType::staticTunnel:
    case TunnelType::srTunnel:
      return true;
    default:
      return false;
  }
}

bool TunnelTableBase::contributeToTunnelRib() const {
  return TunnelTable::contributeToTunnelRib(tableType());
}

LdpTunnelTable::LdpTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::ldpTunnel);
  tablePrefIs(TunnelTablePref::ldpPref);
}

SrTunnelTable::SrTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::srTunnel);
  tablePrefIs(TunnelTablePref::srPref);
}

BgpLuTunnelTable::BgpLuTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::bgpLuTunnel);
  tablePrefIs(TunnelTablePref::bgpLuPref);
}

BgpLuPushTunnelTable::BgpLuPushTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::bgpLuPushTunnel);
}

StaticTunnelTable::StaticTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::staticTunnel);
  tablePrefIs(TunnelTablePref::staticPref);
}

SrTeSegmentListTunnelTable::SrTeSegmentListTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::srTeSegmentListTunnel);
}

GreIntfTunnelTable::GreIntfTunnelTable(Vela::Name name) : L3IntfTunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::staticInterfaceTunnel);
}

IpsecIntfTunnelTable::IpsecIntfTunnelTable(Vela::Name name) : L3IntfTunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::staticInterfaceTunnel);
}

TunnelId L3IntfTunnelTableBase::newTunnelId(Nimbo::IntfId intfId, Nimbo::AddressFamily af) const {
  std::uint64_t indexAndAf = intfId.value();
  if (af == Nimbo::AddressFamily::ipv6) indexAndAf |= tunnelAfMask();
  return TunnelId(TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, indexAndAf));
}

// --- EVPN VXLAN --------------------------------------------------------------------------------------

EvpnVxlanTunnelTable::EvpnVxlanTunnelTable(Vela::Name name) : TunnelTableBase(std::move(name)) {
  tableTypeIs(TunnelType::evpnVxlanTunnel);
}

Vela::Ptr<Id64Allocator> EvpnVxlanTunnelTable::newIdAllocator() {
  if (!idAllocator_.get()) idAllocator_.set(Vela::make<Id64Allocator>("idAllocator"));
  return idAllocator_.get();
}

TunnelId EvpnVxlanTunnelTable::newTunnelId() {
  VELA_ASSERT_TEXT(idAllocator_.get(), "idAllocator()");
  Id64 const id = idAllocator_.get()->newId();
  return TunnelId(TunnelId::convertToTunnelValue(TunnelType::evpnVxlanTunnel, id.value()));
}

Vela::String8 EvpnVxlanTunnelTable::tunKernelIntfName(TunnelId t) {
  return Vela::format("t0x%llx", static_cast<unsigned long long>(t.tunnelIndex()));
}

TunnelId EvpnVxlanTunnelTable::tunKernelIntfTunnelId(Vela::String8 const& name) {
  // Kept as it always was: a name longer than 14 characters would need "t0x"
  // from its fourth character on, which no such name has, so every one of
  // them yields 0.
  if (name.size() > 14 && name.substr(3) != "t0x") return TunnelId();
  if (name.empty()) return TunnelId();
  // The rest after the first character, as hexadecimal ("0x" accepted).
  std::string const rest = name.substr(1);
  char* end = nullptr;
  errno = 0;
  unsigned long long const number = std::strtoull(rest.c_str(), &end, 16);
  if (end == rest.c_str() || *end != '\0' || errno == ERANGE) return TunnelId();
  // A number that is no tunnel index (a sign read by strtoull, or 2^44 and
  // more) is a malformed name too.
  if (number >> 44) return TunnelId();
  return TunnelId(TunnelId::convertToTunnelValue(TunnelType::evpnVxlanTunnel, number));
}

bool EvpnVxlanTunnelTable::isValidEvpnIntf(Nimbo::IntfId intfId) {
  std::uint64_t const value = Nimbo::DynamicTunnelIntfId::tunnelId(intfId);
  if (value == 0 || value > TunnelId::maxValue) return false;
  return TunnelId(value).tunnelType() == TunnelType::evpnVxlanTunnel;
}

}  // namespace Tunnel::TunnelTable
