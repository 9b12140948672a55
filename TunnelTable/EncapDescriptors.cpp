#include "TunnelTable/EncapDescriptors.h"

#include "framework/Vela/Exception.h"

namespace Tunnel {

void IpsecSessionKey::dataIs(Bytes data) {
  if (data.size() > maxLength) {
    throw Vela::RangeException(Vela::format(
        "IpsecSessionKey length %zu > IpsecSessionKey::maxLength (65535) not allowed", data.size()));
  }
  data_ = std::move(data);
}

}  // namespace Tunnel

namespace Vela {

void ValueTraits<Tunnel::IpsecSessionKey>::write(std::string& out, Tunnel::IpsecSessionKey const& v) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * v.data().size());
  for (std::uint8_t b : v.data()) {
    hex += digits[b >> 4];
    hex += digits[b & 0xF];
  }
  writeQuoted(out, hex);
}

Tunnel::IpsecSessionKey ValueTraits<Tunnel::IpsecSessionKey>::read(ValueParser&) {
  throw RangeException("IpsecSessionKey cannot be parsed from text");
}

}  // namespace Vela
