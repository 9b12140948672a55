#include "TunnelTable/TunnelIntfId.h"

#include "TunnelTable/TunnelBasicTypes.h"
#include "framework/Vela/Exception.h"

namespace Nimbo {

std::uint64_t DynamicTunnelIntfId::tunnelId(IntfId i) {
  if (!isDynamicTunnelIntfId(i)) return 0;
  return (std::uint64_t(GenericIntfId::part(i, 1)) << part1Shift) | GenericIntfId::part(i, 0);
}

IntfId DynamicTunnelIntfId::tunnelIdToIntfId(std::uint64_t tunnelValue) {
  if (tunnelValue > Tunnel::TunnelTable::TunnelId::maxValue) {
    throw Vela::RangeException(Vela::format("tunnel value %#llx above 2^48 has no dynamic tunnel interface",
                                            static_cast<unsigned long long>(tunnelValue)));
  }
  return GenericIntfId::intfId(typeId, static_cast<std::uint32_t>(tunnelValue & part0Mask),
                               static_cast<std::uint32_t>(tunnelValue >> part1Shift));
}

DynamicTunnelIntfId::DynamicTunnelIntfId(IntfId i) : intfId_(i) {
  if (!i.isEmpty() && !isDynamicTunnelIntfId(i)) {
    throw Vela::RangeException("'" + i.toStrep() + "' is not a dynamic tunnel interface");
  }
}

std::ostream& operator<<(std::ostream& os, DynamicTunnelIntfId const& i) { return os << i.toStrep(); }

}  // namespace Nimbo

namespace Tunnel::TunnelTable {

// A static interface tunnel stands for a real interface, whose number is the
// index; it has no dynamic interface.
Nimbo::IntfId TunnelId::intfId() const {
  if (tunnelType() == TunnelType::staticInterfaceTunnel) return Nimbo::IntfId(tunnelIndex());
  return Nimbo::DynamicTunnelIntfId::tunnelIdToIntfId(value_);
}

}  // namespace Tunnel::TunnelTable
