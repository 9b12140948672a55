#include "framework/Nimbo/IpAddr.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <vector>

#include "framework/Vela/Exception.h"

namespace Nimbo {

namespace {

// What is being parsed, for error texts: "invalid IPv4 address '10.0.0.256': ...".
struct ParseContext {
  char const* kind;
  std::string_view text;

  [[noreturn]] void fail(std::string const& why) const {
    throw Vela::RangeException("invalid " + std::string(kind) + " '" + std::string(text) + "': " + why);
  }
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string quoteChar(char c) {
  auto const u = static_cast<unsigned char>(c);
  if (u >= 0x20 && u < 0x7F) return std::string("'") + c + "'";
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%02x", u);
  return buf;
}

std::uint32_t parseV4(std::string_view s, ParseContext const& ctx) {
  if (s.empty()) ctx.fail("empty address");
  std::uint32_t value = 0;
  int octets = 0;
  std::size_t pos = 0;
  while (true) {
    std::size_t end = pos;
    while (end < s.size() && s[end] != '.') {
      if (!isDigit(s[end])) ctx.fail("unexpected character " + quoteChar(s[end]));
      ++end;
    }
    auto const octet = s.substr(pos, end - pos);
    if (octet.empty()) ctx.fail("empty octet");
    if (++octets > 4) ctx.fail("more than 4 octets");
    if (octet.size() > 1 && octet[0] == '0')
      ctx.fail("octet '" + std::string(octet) + "' has a leading zero");
    unsigned v = 0;
    for (char c : octet.substr(0, 4)) v = v * 10 + static_cast<unsigned>(c - '0');
    if (octet.size() > 3 || v > 255) ctx.fail("octet '" + std::string(octet) + "' out of range (0..255)");
    value = (value << 8) | v;
    if (end == s.size()) break;
    pos = end + 1;
  }
  if (octets != 4) ctx.fail("expected 4 octets, got " + std::to_string(octets));
  return value;
}

Ip6Addr::Bytes parseV6(std::string_view s, ParseContext const& ctx) {
  if (s.empty()) ctx.fail("empty address");
  // Groups before and after the "::" (all in `head` when there is none).
  std::vector<std::uint16_t> head, tail;
  bool compressed = false;
  std::size_t pos = 0;
  if (s.substr(0, 2) == "::") {
    compressed = true;
    pos = 2;
  } else if (s[0] == ':') {
    ctx.fail("leading ':' not part of \"::\"");
  }
  while (pos < s.size()) {
    auto& groups = compressed ? tail : head;
    std::size_t end = pos;
    bool dotted = false;
    while (end < s.size() && s[end] != ':') {
      if (s[end] == '.') {
        dotted = true;
      } else if (hexDigit(s[end]) < 0) {
        ctx.fail("unexpected character " + quoteChar(s[end]));
      }
      ++end;
    }
    auto const token = s.substr(pos, end - pos);
    if (token.empty()) ctx.fail("empty group");
    if (dotted) {
      if (end != s.size()) ctx.fail("embedded IPv4 address '" + std::string(token) + "' is not at the end");
      auto const v4 = parseV4(token, ctx);
      groups.push_back(static_cast<std::uint16_t>(v4 >> 16));
      groups.push_back(static_cast<std::uint16_t>(v4));
    } else {
      if (token.size() > 4) ctx.fail("group '" + std::string(token) + "' has more than 4 hex digits");
      std::uint16_t v = 0;
      for (char c : token) v = static_cast<std::uint16_t>((v << 4) | hexDigit(c));
      groups.push_back(v);
    }
    if (head.size() + tail.size() > 8) ctx.fail("more than 8 groups");
    if (end == s.size()) break;
    pos = end + 1;  // past ':'
    if (pos < s.size() && s[pos] == ':') {
      if (compressed) ctx.fail("more than one \"::\"");
      compressed = true;
      ++pos;
    } else if (pos == s.size()) {
      ctx.fail("trailing ':' not part of \"::\"");
    }
  }
  auto const n = head.size() + tail.size();
  if (compressed && n > 7) ctx.fail("\"::\" stands for no group in an address of 8 groups");
  if (!compressed && n != 8) ctx.fail("expected 8 groups, got " + std::to_string(n));
  std::array<std::uint16_t, 8> all{};
  for (std::size_t i = 0; i < head.size(); ++i) all[i] = head[i];
  for (std::size_t i = 0; i < tail.size(); ++i) all[8 - tail.size() + i] = tail[i];
  Ip6Addr::Bytes bytes{};
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<std::uint8_t>(all[i] >> 8);
    bytes[2 * i + 1] = static_cast<std::uint8_t>(all[i]);
  }
  return bytes;
}

void appendV4(std::string& out, std::uint8_t const* b) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  out += buf;
}

std::string v6Text(Ip6Addr::Bytes const& b) {
  std::array<unsigned, 8> g{};
  for (int i = 0; i < 8; ++i) g[i] = (unsigned(b[2 * i]) << 8) | b[2 * i + 1];
  std::string out;
  // IPv4-mapped ::ffff:a.b.c.d.
  if (g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] == 0 && g[4] == 0 && g[5] == 0xFFFF) {
    out = "::ffff:";
    appendV4(out, &b[12]);
    return out;
  }
  // Longest run of at least two zero groups; the first one on a tie.
  int bestStart = -1, bestLen = 1;
  for (int i = 0; i < 8;) {
    if (g[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && g[j] == 0) ++j;
    if (j - i > bestLen) {
      bestStart = i;
      bestLen = j - i;
    }
    i = j;
  }
  char buf[8];
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(buf, sizeof buf, "%x", g[i]);
    out += buf;
  }
  return out;
}

// Big-endian load of eight bytes, so that hashes agree across machines: one
// load, and a byte swap on a little-endian machine (a loop over the bytes
// took six instructions each).
std::uint64_t load64(std::uint8_t const* p) {
  std::uint64_t v = 0;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
  return v;
}

std::uint32_t hashBytes16(Ip6Addr::Bytes const& b, std::uint32_t salt) {
  return Vela::hashCombine(Vela::mix64(load64(b.data()) + salt), Vela::mix64(load64(b.data() + 8)));
}

// Clears the bits of `b` beyond the first `len`.
void clearHostBits(Ip6Addr::Bytes& b, unsigned len) {
  for (unsigned i = 0; i < 16; ++i) {
    unsigned const first = i * 8;
    if (first >= len) {
      b[i] = 0;
    } else if (len - first < 8) {
      b[i] = static_cast<std::uint8_t>(b[i] & (0xFFu << (8 - (len - first))));
    }
  }
}

}  // namespace

// --- IpAddr ---------------------------------------------------------------

std::string IpAddr::toStrep() const {
  std::string out;
  auto const b = bytes();
  appendV4(out, b.data());
  return out;
}

IpAddr IpAddr::fromStrep(std::string_view text) {
  return IpAddr(parseV4(text, ParseContext{"IPv4 address", text}));
}

std::ostream& operator<<(std::ostream& os, IpAddr const& a) { return os << a.toStrep(); }

// --- Ip6Addr --------------------------------------------------------------

std::uint32_t Ip6Addr::hash() const { return hashBytes16(bytes_, 0); }

std::string Ip6Addr::toStrep() const { return v6Text(bytes_); }

Ip6Addr Ip6Addr::fromStrep(std::string_view text) {
  return Ip6Addr(parseV6(text, ParseContext{"IPv6 address", text}));
}

std::ostream& operator<<(std::ostream& os, Ip6Addr const& a) { return os << a.toStrep(); }

// --- IpGenAddr ------------------------------------------------------------

bool IpGenAddr::isMulticast() const {
  if (isV4()) return (bytes_[0] >> 4) == 0xE;
  return isV6() && bytes_[0] == 0xFF;
}

IpAddr IpGenAddr::v4() const {
  if (!isV4()) {
    throw Vela::RangeException("IPv4 address requested of the " + Vela::enumName(af_) + " address '" +
                               toStrep() + "'");
  }
  return IpAddr((std::uint32_t(bytes_[0]) << 24) | (std::uint32_t(bytes_[1]) << 16) |
                (std::uint32_t(bytes_[2]) << 8) | bytes_[3]);
}

Ip6Addr IpGenAddr::v6() const { return Ip6Addr(v6Bytes()); }

Ip6Addr::Bytes const& IpGenAddr::v6Bytes() const {
  if (!isV6()) {
    throw Vela::RangeException("IPv6 address requested of the " + Vela::enumName(af_) + " address '" +
                               toStrep() + "'");
  }
  return bytes_;
}

std::uint32_t IpGenAddr::hash() const { return hashBytes16(bytes_, static_cast<std::uint32_t>(af_)); }

std::string IpGenAddr::toStrep() const {
  if (isV4()) {
    std::string out;
    appendV4(out, bytes_.data());
    return out;
  }
  if (isV6()) return v6Text(bytes_);
  return {};
}

IpGenAddr IpGenAddr::fromStrep(std::string_view text) {
  if (text.empty()) return {};
  ParseContext const ctx{"IP address", text};
  if (text.find(':') != std::string_view::npos) return Ip6Addr(parseV6(text, ctx));
  return IpAddr(parseV4(text, ctx));
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) { return os << a.toStrep(); }

// --- IpGenPrefix ----------------------------------------------------------

IpGenPrefix::IpGenPrefix(IpGenAddr const& addr, std::uint8_t len) : addr_(addr), len_(len) {
  if (len > addr.maxLen()) {
    throw Vela::RangeException("prefix length " + std::to_string(len) + " out of range for the " +
                               Vela::enumName(addr.af()) + " address '" + addr.toStrep() + "' (0.." +
                               std::to_string(addr.maxLen()) + ")");
  }
  clearHostBits(addr_.bytes_, len);
}

bool IpGenPrefix::contains(IpGenAddr const& a) const {
  if (isEmpty() || a.af() != af()) return false;
  auto b = a.bytes();
  clearHostBits(b, len_);
  return b == addr_.bytes();
}

bool IpGenPrefix::contains(IpGenPrefix const& p) const { return p.len_ >= len_ && contains(p.addr_); }

std::uint32_t IpGenPrefix::hash() const { return Vela::hashCombine(addr_.hash(), len_); }

std::string IpGenPrefix::toStrep() const {
  if (isEmpty()) return {};
  return addr_.toStrep() + "/" + std::to_string(len_);
}

IpGenPrefix IpGenPrefix::fromStrep(std::string_view text) {
  if (text.empty()) return {};
  ParseContext const ctx{"IP prefix", text};
  auto const slash = text.find('/');
  auto const addrText = text.substr(0, slash);
  if (addrText.empty()) ctx.fail("missing address");
  IpGenAddr const addr = addrText.find(':') != std::string_view::npos
                             ? IpGenAddr(Ip6Addr(parseV6(addrText, ctx)))
                             : IpGenAddr(IpAddr(parseV4(addrText, ctx)));
  if (slash == std::string_view::npos) return hostPrefix(addr);
  auto const lenText = text.substr(slash + 1);
  if (lenText.empty()) ctx.fail("missing prefix length after '/'");
  unsigned len = 0;
  for (char c : lenText) {
    if (!isDigit(c)) ctx.fail("unexpected character " + quoteChar(c) + " in prefix length");
    if (len <= 1000) len = len * 10 + static_cast<unsigned>(c - '0');
  }
  if (lenText.size() > 1 && lenText[0] == '0') {
    ctx.fail("prefix length '" + std::string(lenText) + "' has a leading zero");
  }
  if (len > addr.maxLen()) {
    ctx.fail("prefix length " + std::string(lenText) + " out of range for " + Vela::enumName(addr.af()) +
             " (0.." + std::to_string(addr.maxLen()) + ")");
  }
  return IpGenPrefix(addr, static_cast<std::uint8_t>(len));
}

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p) { return os << p.toStrep(); }

}  // namespace Nimbo
