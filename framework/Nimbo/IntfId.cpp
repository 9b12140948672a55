#include "framework/Nimbo/IntfId.h"

#include <array>
#include <cstdio>

#include "framework/Vela/Exception.h"

namespace Nimbo {

namespace {

constexpr std::uint64_t kindShift = 32;
constexpr std::uint64_t ordinaryLimit = std::uint64_t(1) << 40;
constexpr std::uint32_t maxPortA = 0xFFFF;
constexpr std::uint32_t maxPortBC = 0xFF;
constexpr std::uint32_t minVlan = 1;
constexpr std::uint32_t maxVlan = 4094;

struct KindName {
  IntfKind kind;
  std::string_view name;
  bool slotted;  // a[/b[/c]] rather than one number
};

constexpr std::array<KindName, 6> kindNames{{
    {IntfKind::ethernetIntf, "Ethernet", true},
    {IntfKind::portChannelIntf, "Port-Channel", false},
    {IntfKind::vlanIntf, "Vlan", false},
    {IntfKind::loopbackIntf, "Loopback", false},
    {IntfKind::managementIntf, "Management", true},
    {IntfKind::tunnelIntf, "Tunnel", false},
}};

constexpr std::string_view dynamicTunnelName = "DynamicTunnel";
constexpr std::string_view genericName = "GenericIntf";
constexpr std::string_view numericName = "Intf";

[[noreturn]] void fail(std::string_view name, std::string const& why) {
  throw Vela::RangeException("invalid interface name '" + std::string(name) + "': " + why);
}

// Reads a decimal number at name s, position pos (advancing pos), and checks it
// against [min, max]; `what` names the number in error texts.
std::uint64_t readNumber(std::string_view s, std::size_t& pos, std::uint64_t min, std::uint64_t max,
                         char const* what) {
  std::size_t const start = pos;
  while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') ++pos;
  auto const digits = s.substr(start, pos - start);
  if (digits.empty()) {
    if (start < s.size())
      fail(s, std::string("expected ") + what + " at '" + std::string(s.substr(start)) + "'");
    fail(s, std::string("missing ") + what);
  }
  if (digits.size() > 1 && digits[0] == '0') {
    fail(s, std::string(what) + " '" + std::string(digits) + "' has a leading zero");
  }
  std::uint64_t v = 0;
  bool overflow = digits.size() > 20;
  for (char c : digits) {
    auto const d = static_cast<std::uint64_t>(c - '0');
    if (v > (UINT64_MAX - d) / 10) overflow = true;
    if (overflow) break;
    v = v * 10 + d;
  }
  if (overflow || v < min || v > max) {
    fail(s, std::string(what) + " " + std::string(digits) + " out of range (" + std::to_string(min) + ".." +
                std::to_string(max) + ")");
  }
  return v;
}

void expectChar(std::string_view s, std::size_t& pos, char c, char const* after) {
  if (pos >= s.size()) fail(s, std::string("missing '") + c + "' after " + after);
  if (s[pos] != c)
    fail(s, std::string("expected '") + c + "' after " + after + " at '" + std::string(s.substr(pos)) + "'");
  ++pos;
}

void expectEnd(std::string_view s, std::size_t pos) {
  if (pos != s.size()) fail(s, "unexpected trailing text '" + std::string(s.substr(pos)) + "'");
}

std::uint64_t ordinary(IntfKind kind, std::uint32_t low) {
  return (std::uint64_t(static_cast<std::uint8_t>(kind)) << kindShift) | low;
}

std::uint64_t slotted(IntfKind kind, char const* kindText, std::uint32_t a, std::uint32_t b,
                      std::uint32_t c) {
  if (a > maxPortA || b > maxPortBC || c > maxPortBC || (b == 0 && c != 0)) {
    throw Vela::RangeException(
        Vela::format("invalid %s port numbers %u/%u/%u (first 0..65535, then 1..255 or "
                     "absent as 0; the third needs the second)",
                     kindText, a, b, c));
  }
  return ordinary(kind, (a << 16) | (b << 8) | c);
}

void checkParts(std::uint8_t typeId, std::uint32_t part0, std::uint32_t part1) {
  if (typeId == 0) throw Vela::RangeException("generic interface type id 0 not allowed");
  std::uint32_t max0 = GenericIntfId::maxPart, max1 = GenericIntfId::maxPart;
  if (typeId == GenericIntfId::dynamicTunnelTypeId) {
    max0 = GenericIntfId::maxDynamicTunnelPart0;
    max1 = GenericIntfId::maxDynamicTunnelPart1;
  }
  if (part0 > max0 || part1 > max1) {
    throw Vela::RangeException(Vela::format(
        "generic interface parts out of range for type id %u: part 0 %u (0..%u), part 1 %u (0..%u)",
        unsigned(typeId), part0, max0, part1, max1));
  }
}

std::uint64_t genericValue(std::uint8_t typeId, std::uint32_t part0, std::uint32_t part1) {
  return (std::uint64_t(typeId) << 56) | (std::uint64_t(part1) << GenericIntfId::partBits) | part0;
}

}  // namespace

IntfId IntfId::ethernet(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return IntfId(slotted(IntfKind::ethernetIntf, "Ethernet", a, b, c));
}

IntfId IntfId::management(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return IntfId(slotted(IntfKind::managementIntf, "Management", a, b, c));
}

IntfId IntfId::portChannel(std::uint32_t n) { return IntfId(ordinary(IntfKind::portChannelIntf, n)); }

IntfId IntfId::vlan(std::uint32_t n) {
  if (n < minVlan || n > maxVlan) {
    throw Vela::RangeException("invalid VLAN interface number " + std::to_string(n) + " (1..4094)");
  }
  return IntfId(ordinary(IntfKind::vlanIntf, n));
}

IntfId IntfId::loopback(std::uint32_t n) { return IntfId(ordinary(IntfKind::loopbackIntf, n)); }

IntfId IntfId::tunnel(std::uint32_t n) { return IntfId(ordinary(IntfKind::tunnelIntf, n)); }

IntfKind IntfId::kind() const {
  if (value_ >= ordinaryLimit) return IntfKind::otherIntf;
  auto const k = static_cast<std::uint8_t>(value_ >> kindShift);
  return k <= static_cast<std::uint8_t>(IntfKind::tunnelIntf) ? static_cast<IntfKind>(k)
                                                              : IntfKind::otherIntf;
}

std::string IntfId::toStrep() const {
  if (value_ == 0) return {};
  char buf[64];
  auto const numeric = [&] {
    std::snprintf(buf, sizeof buf, "Intf%llu", static_cast<unsigned long long>(value_));
    return std::string(buf);
  };
  if (isGeneric()) {
    auto const type = GenericIntfId::typeId(*this);
    auto const p0 = GenericIntfId::part(*this, 0), p1 = GenericIntfId::part(*this, 1);
    if (type == GenericIntfId::dynamicTunnelTypeId) {
      if (p0 > GenericIntfId::maxDynamicTunnelPart0 || p1 > GenericIntfId::maxDynamicTunnelPart1)
        return numeric();
      std::snprintf(buf, sizeof buf, "DynamicTunnel%u.%u", p1, p0);
    } else {
      std::snprintf(buf, sizeof buf, "GenericIntf%u.%u.%u", unsigned(type), p1, p0);
    }
    return buf;
  }
  if (value_ >= ordinaryLimit) return numeric();
  auto const low = static_cast<std::uint32_t>(value_);
  auto const k = static_cast<std::uint8_t>(value_ >> kindShift);
  if (k == 0) return numeric();
  for (auto const& kn : kindNames) {
    if (static_cast<std::uint8_t>(kn.kind) != k) continue;
    std::string out(kn.name);
    if (kn.slotted) {
      auto const a = low >> 16, b = (low >> 8) & 0xFF, c = low & 0xFF;
      if (b == 0 && c != 0) return numeric();
      out += std::to_string(a);
      if (b != 0) out += "/" + std::to_string(b);
      if (c != 0) out += "/" + std::to_string(c);
    } else {
      if (kn.kind == IntfKind::vlanIntf && (low < minVlan || low > maxVlan)) return numeric();
      out += std::to_string(low);
    }
    return out;
  }
  return numeric();
}

IntfId IntfId::fromStrep(std::string_view name) {
  if (name.empty()) return {};
  std::size_t pos = 0;
  auto const startsWith = [&](std::string_view prefix) {
    if (name.substr(0, prefix.size()) != prefix) return false;
    pos = prefix.size();
    return true;
  };
  if (startsWith(dynamicTunnelName)) {
    auto const p1 = readNumber(name, pos, 0, GenericIntfId::maxDynamicTunnelPart1, "part 1");
    expectChar(name, pos, '.', "part 1");
    auto const p0 = readNumber(name, pos, 0, GenericIntfId::maxDynamicTunnelPart0, "part 0");
    expectEnd(name, pos);
    return IntfId(genericValue(GenericIntfId::dynamicTunnelTypeId, static_cast<std::uint32_t>(p0),
                               static_cast<std::uint32_t>(p1)));
  }
  if (startsWith(genericName)) {
    auto const type = readNumber(name, pos, 1, 255, "type id");
    if (type == GenericIntfId::dynamicTunnelTypeId)
      fail(name, "type id 58 is written DynamicTunnel<p1>.<p0>");
    expectChar(name, pos, '.', "type id");
    auto const p1 = readNumber(name, pos, 0, GenericIntfId::maxPart, "part 1");
    expectChar(name, pos, '.', "part 1");
    auto const p0 = readNumber(name, pos, 0, GenericIntfId::maxPart, "part 0");
    expectEnd(name, pos);
    return IntfId(genericValue(static_cast<std::uint8_t>(type), static_cast<std::uint32_t>(p0),
                               static_cast<std::uint32_t>(p1)));
  }
  if (startsWith(numericName)) {
    auto const v = readNumber(name, pos, 0, UINT64_MAX, "interface number");
    expectEnd(name, pos);
    return IntfId(v);
  }
  for (auto const& kn : kindNames) {
    if (!startsWith(kn.name)) continue;
    if (kn.slotted) {
      auto const a = readNumber(name, pos, 0, maxPortA, "port number");
      std::uint64_t b = 0, c = 0;
      if (pos < name.size() && name[pos] == '/') {
        ++pos;
        b = readNumber(name, pos, 1, maxPortBC, "port number");
        if (pos < name.size() && name[pos] == '/') {
          ++pos;
          c = readNumber(name, pos, 1, maxPortBC, "port number");
        }
      }
      expectEnd(name, pos);
      return IntfId(ordinary(kn.kind, static_cast<std::uint32_t>((a << 16) | (b << 8) | c)));
    }
    auto const isVlan = kn.kind == IntfKind::vlanIntf;
    auto const n = readNumber(name, pos, isVlan ? minVlan : 0, isVlan ? maxVlan : UINT32_MAX,
                              isVlan ? "VLAN number" : "interface number");
    expectEnd(name, pos);
    return IntfId(ordinary(kn.kind, static_cast<std::uint32_t>(n)));
  }
  fail(name, "unknown interface type");
}

std::ostream& operator<<(std::ostream& os, IntfId const& i) { return os << i.toStrep(); }

IntfId GenericIntfId::intfId(std::uint8_t typeId, std::uint32_t part0, std::uint32_t part1) {
  checkParts(typeId, part0, part1);
  return IntfId(genericValue(typeId, part0, part1));
}

std::uint32_t GenericIntfId::part(IntfId i, int n) {
  if (n != 0 && n != 1) {
    throw Vela::RangeException("generic interface part " + std::to_string(n) + " not allowed (0 or 1)");
  }
  if (!i.isGeneric()) return 0;
  return static_cast<std::uint32_t>(i.value() >> (n == 0 ? 0 : partBits)) & maxPart;
}

}  // namespace Nimbo
