// What the key field of a GRE header carries: nothing, the interface
// identifier, or an IP address.
#pragma once

#include <cstdint>

#include "framework/Vela/Enum.h"

namespace Nimbo {

VELA_ENUM(GreKeyType, std::uint8_t, "Nimbo::GreKeyType", greKeyNone = 0, greKeyIntfId = 1, greKeyIpAddr = 2)

}  // namespace Nimbo
