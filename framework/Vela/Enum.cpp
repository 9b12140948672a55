#include "framework/Vela/Enum.h"

#include <cctype>
#include <cstdlib>

namespace Vela {

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

}  // namespace

EnumInfo::EnumInfo(std::string_view typeName, std::string_view declaration) : typeName_(typeName) {
  // The declaration is the enumerator list as written: "a = 0, b = 0x10".
  while (!declaration.empty()) {
    auto comma = declaration.find(',');
    auto item = trim(declaration.substr(0, comma));
    declaration = comma == std::string_view::npos ? std::string_view() : declaration.substr(comma + 1);
    if (item.empty()) continue;
    auto eq = item.find('=');
    VELA_ASSERT(eq != std::string_view::npos);
    std::string const literal(trim(item.substr(eq + 1)));
    entries_.emplace_back(std::strtoull(literal.c_str(), nullptr, 0), std::string(trim(item.substr(0, eq))));
  }
}

std::string const* EnumInfo::nameOf(std::uint64_t value) const {
  for (auto const& [v, name] : entries_) {
    if (v == value) return &name;
  }
  return nullptr;
}

std::optional<std::uint64_t> EnumInfo::valueOf(std::string_view name) const {
  for (auto const& [v, n] : entries_) {
    if (n == name) return v;
  }
  return std::nullopt;
}

}  // namespace Vela
