// Small helpers the tunnel tests share: a tunnel id from its type and index,
// and the streamed text of a value.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>

#include "TunnelTable/TunnelBasicTypes.h"

namespace Tunnel::TunnelTable {

inline TunnelId makeId(TunnelType type, std::uint64_t index) {
  return TunnelId(TunnelId::convertToTunnelValue(type, index));
}

template <class T>
std::string str(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

}  // namespace Tunnel::TunnelTable
