#include "framework/Nimbo/EthAddr.h"

#include <cstdio>

#include "framework/Vela/Exception.h"

namespace Nimbo {

namespace {

[[noreturn]] void fail(std::string_view text, std::string const& why) {
  throw Vela::RangeException("invalid Ethernet address '" + std::string(text) + "': " + why);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Splits text at sep into exactly `count` groups of 1..maxDigits hex digits.
template <std::size_t count>
std::array<unsigned, count> hexGroups(std::string_view text, char sep, std::size_t maxDigits) {
  std::array<unsigned, count> out{};
  std::size_t pos = 0;
  for (std::size_t i = 0; i < count; ++i) {
    std::size_t end = pos;
    unsigned v = 0;
    while (end < text.size() && text[end] != sep) {
      int const d = hexDigit(text[end]);
      if (d < 0) fail(text, std::string("unexpected character '") + text[end] + "'");
      v = (v << 4) | static_cast<unsigned>(d);
      if (end - pos >= maxDigits) {
        fail(text, "group '" + std::string(text.substr(pos, text.find(sep, pos) - pos)) + "' has more than " +
                       std::to_string(maxDigits) + " hex digits");
      }
      ++end;
    }
    if (end == pos) fail(text, "empty group");
    out[i] = v;
    if (i + 1 < count) {
      if (end == text.size())
        fail(text, "expected " + std::to_string(count) + " groups, got " + std::to_string(i + 1));
      pos = end + 1;
    } else if (end != text.size()) {
      fail(text, "more than " + std::to_string(count) + " groups");
    }
  }
  return out;
}

}  // namespace

EthAddr EthAddr::fromValue(std::uint64_t value) {
  if (value >> 48)
    throw Vela::RangeException(Vela::format("Ethernet address value 0x%llx wider than 48 bits",
                                            static_cast<unsigned long long>(value)));
  Bytes b{};
  for (int i = 5; i >= 0; --i, value >>= 8) b[i] = static_cast<std::uint8_t>(value);
  return EthAddr(b);
}

std::string EthAddr::toStrep() const {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", bytes_[0], bytes_[1], bytes_[2], bytes_[3],
                bytes_[4], bytes_[5]);
  return buf;
}

EthAddr EthAddr::fromStrep(std::string_view text) {
  if (text.empty()) fail(text, "empty text");
  Bytes b{};
  if (text.find('.') != std::string_view::npos) {
    auto const g = hexGroups<3>(text, '.', 4);
    for (int i = 0; i < 3; ++i) {
      b[2 * i] = static_cast<std::uint8_t>(g[i] >> 8);
      b[2 * i + 1] = static_cast<std::uint8_t>(g[i]);
    }
  } else {
    char const sep = text.find('-') != std::string_view::npos ? '-' : ':';
    auto const g = hexGroups<6>(text, sep, 2);
    for (int i = 0; i < 6; ++i) b[i] = static_cast<std::uint8_t>(g[i]);
  }
  return EthAddr(b);
}

std::ostream& operator<<(std::ostream& os, EthAddr const& a) { return os << a.toStrep(); }

}  // namespace Nimbo
