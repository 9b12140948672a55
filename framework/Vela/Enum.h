// Enumerations with names.
//
//   VELA_ENUM(TunnelType, std::uint8_t, "Tunnel::TunnelTable::TunnelType",
//             invalidTunnel = 0, bgpLuPushTunnel = 1, ...)
//
// declares `enum class TunnelType` and, from the same list, its enumeration
// services: the name of a value (Vela::enumName), lookup by name and by
// number (Vela::enumFromName, Vela::enumFromValue), stream output and the
// textual form (the enumerator name). Every enumerator is given an explicit
// literal value. A value that is no enumerator prints as its number.
// Use at namespace scope.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "framework/Vela/Value.h"

namespace Vela {

class EnumInfo {
 public:
  EnumInfo(std::string_view typeName, std::string_view declaration);

  std::string_view typeName() const { return typeName_; }
  // Enumerators in declaration order.
  std::vector<std::pair<std::uint64_t, std::string>> const& enumerators() const { return entries_; }
  std::string const* nameOf(std::uint64_t value) const;
  std::optional<std::uint64_t> valueOf(std::string_view name) const;

 private:
  std::string typeName_;
  std::vector<std::pair<std::uint64_t, std::string>> entries_;
};

template <class E>
concept NamedEnum = std::is_enum_v<E> && requires(E const* e) {
  { velaEnumInfo(e) } -> std::same_as<EnumInfo const&>;
};

template <NamedEnum E>
EnumInfo const& enumInfo() {
  return velaEnumInfo(static_cast<E const*>(nullptr));
}

template <NamedEnum E>
std::string enumName(E v) {
  auto const raw = static_cast<std::uint64_t>(static_cast<std::underlying_type_t<E>>(v));
  if (auto const* name = enumInfo<E>().nameOf(raw)) return *name;
  return std::to_string(raw);
}

template <NamedEnum E>
bool isEnumerator(E v) {
  return enumInfo<E>().nameOf(static_cast<std::uint64_t>(static_cast<std::underlying_type_t<E>>(v))) !=
         nullptr;
}

template <NamedEnum E>
std::optional<E> enumLookup(std::string_view name) {
  if (auto v = enumInfo<E>().valueOf(name)) return static_cast<E>(*v);
  return std::nullopt;
}

// Raises Vela::RangeException for a name that is no enumerator.
template <NamedEnum E>
E enumFromName(std::string_view name) {
  if (auto v = enumLookup<E>(name)) return *v;
  throw RangeException("invalid value '" + std::string(name) + "' for enumeration " +
                       std::string(enumInfo<E>().typeName()));
}

// Raises Vela::RangeException for a number that is no enumerator.
template <NamedEnum E>
E enumFromValue(std::uint64_t value) {
  if (enumInfo<E>().nameOf(value)) return static_cast<E>(value);
  throw RangeException("invalid value " + std::to_string(value) + " for enumeration " +
                       std::string(enumInfo<E>().typeName()));
}

template <NamedEnum E>
struct ValueTraits<E> {
  static void write(std::string& out, E v) { out += enumName(v); }
  static E read(ValueParser& p) {
    auto tok = p.token();
    if (auto v = enumLookup<E>(tok)) return *v;
    std::uint64_t raw = 0;
    auto r = std::from_chars(tok.data(), tok.data() + tok.size(), raw);
    if (!tok.empty() && r.ec == std::errc() && r.ptr == tok.data() + tok.size()) {
      return static_cast<E>(raw);
    }
    p.fail("expected a " + std::string(enumInfo<E>().typeName()) + " enumerator, got \"" + std::string(tok) +
           "\"");
  }
};

}  // namespace Vela

#define VELA_ENUM(Name, Underlying, QualifiedName, ...)              \
  enum class Name : Underlying { __VA_ARGS__ };                      \
  inline ::Vela::EnumInfo const& velaEnumInfo(Name const*) {         \
    static ::Vela::EnumInfo const info(QualifiedName, #__VA_ARGS__); \
    return info;                                                     \
  }                                                                  \
  inline std::ostream& operator<<(std::ostream& os, Name v) { return os << ::Vela::enumName(v); }
