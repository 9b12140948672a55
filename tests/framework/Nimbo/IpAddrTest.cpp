#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <type_traits>

#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace Nimbo {
namespace {

static_assert(std::is_trivially_copyable_v<IpAddr> && std::is_trivially_copyable_v<Ip6Addr> &&
              std::is_trivially_copyable_v<IpGenAddr> && std::is_trivially_copyable_v<IpGenPrefix>);
static_assert(sizeof(IpGenAddr) <= 20);
static_assert(sizeof(IpGenPrefix) <= 24);

TEST(IpAddrTest, ParsesAndPrintsDottedQuads) {
  EXPECT_EQ(IpAddr::fromStrep("10.0.0.1").value(), 0x0A000001u);
  EXPECT_EQ(IpAddr("255.255.255.255").value(), 0xFFFFFFFFu);
  EXPECT_EQ(IpAddr(0xC0A80101u).toStrep(), "192.168.1.1");
  EXPECT_EQ(IpAddr().toStrep(), "0.0.0.0");
  EXPECT_LT(IpAddr("9.255.255.255"), IpAddr("10.0.0.0"));
}

TEST(IpAddrTest, RejectsMalformedDottedQuads) {
  expectRejected("IPv4 address", [](auto t) { IpAddr::fromStrep(t); },
                 {{"", "empty address"},
                  {"10.0.0", "expected 4 octets, got 3"},
                  {"10.0.0.1.2", "more than 4 octets"},
                  {"10.0.0.256", "octet '256' out of range (0..255)"},
                  {"1000.0.0.1", "octet '1000' out of range"},
                  {"10.0.0.01", "leading zero"},
                  {"10..0.1", "empty octet"},
                  {"10.0.0.", "empty octet"},
                  {"10.0.0.1 ", "unexpected character ' '"},
                  {" 10.0.0.1", "unexpected character ' '"},
                  {"10.0.0.1/8", "unexpected character '/'"},
                  {"10.0.0.-1", "unexpected character '-'"}});
}

TEST(IpAddrTest, PrintsIpv6InRfc5952Form) {
  struct Case {
    char const* in;
    char const* out;
  };
  for (auto const& c : std::initializer_list<Case>{
           {"2001:db8:0:0:0:0:2:1", "2001:db8::2:1"},
           {"2001:0db8:0000:0001:0001:0001:0001:0001", "2001:db8:0:1:1:1:1:1"},  // one zero group stays
           {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},                              // the longest run
           {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},                        // the first of equal runs
           {"2001:DB8::A", "2001:db8::a"},
           {"0:0:0:0:0:0:0:0", "::"},
           {"::1", "::1"},
           {"1::", "1::"},
           {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
           {"0:0:0:0:0:ffff:a00:1", "::ffff:10.0.0.1"},
           {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
       }) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(Ip6Addr::fromStrep(c.in).toStrep(), c.out);
    EXPECT_EQ(IpGenAddr(c.in).toStrep(), c.out);
    EXPECT_EQ(Ip6Addr::fromStrep(c.out), Ip6Addr::fromStrep(c.in));
  }
}

TEST(IpAddrTest, RejectsMalformedIpv6) {
  std::vector<RejectedText> const cases = {{":::", "empty group"},
                                           {"1:::2", "empty group"},
                                           {"1::2::3", "more than one \"::\""},
                                           {":1::", "leading ':'"},
                                           {"1::2:", "trailing ':'"},
                                           {"12345::", "more than 4 hex digits"},
                                           {"1:2:3:4:5:6:7", "expected 8 groups, got 7"},
                                           {"1:2:3:4:5:6:7:8:9", "more than 8 groups"},
                                           {"1:2:3:4:5:6::7:8", "stands for no group"},
                                           {"::1.2.3", "expected 4 octets"},
                                           {"::1.2.3.4:5", "not at the end"},
                                           {"fe80::1%eth0", "unexpected character '%'"},
                                           {"g::", "unexpected character 'g'"}};
  expectRejected(
      "IPv6 address", [](auto t) { Ip6Addr::fromStrep(t); }, cases);
  // The general parser gives the same reasons.
  expectRejected(
      "IP address", [](auto t) { IpGenAddr::fromStrep(t); }, cases);
}

// The C library's parser and printer are an independent model: on random
// strings both parsers must agree on acceptance and value, and on random
// addresses the printers must agree (except for the deprecated IPv4-compatible
// ::a.b.c.d form, which the C library still prints and RFC 5952 does not use).
TEST(IpAddrTest, Ipv6AgreesWithTheCLibrary) {
  std::mt19937 rng(20240611);
  std::string const alphabet = "0123456789abcdefABCDEFg:.:::: ";
  char const* const quads[] = {"1.2.3.4",   "10.0.0.255", "01.2.3.4", "1.2.3",
                               "256.1.1.1", "1.2.3.4.5",  "0.0.0.0"};
  for (int i = 0; i < 40000; ++i) {
    std::string s;
    if (i % 2) {  // random characters
      for (int n = static_cast<int>(rng() % 24); n > 0; --n) s += alphabet[rng() % alphabet.size()];
    } else {  // groups, empty groups and dotted quads joined by ':'
      if (rng() % 8 == 0) s += ':';
      for (int n = 1 + static_cast<int>(rng() % 9); n > 0; --n) {
        auto const r = rng() % 10;
        if (r == 0) {
          s += quads[rng() % std::size(quads)];
        } else if (r > 2) {
          for (int d = 1 + static_cast<int>(rng() % (r == 3 ? 5 : 4)); d > 0; --d)
            s += "0123456789abcdef"[rng() % 16];
        }
        if (n > 1) s += ':';
      }
      if (rng() % 8 == 0) s += ':';
    }
    SCOPED_TRACE(s);
    unsigned char model[16];
    bool const modelOk = inet_pton(AF_INET6, s.c_str(), model) == 1;
    try {
      auto const a = Ip6Addr::fromStrep(s);
      EXPECT_TRUE(modelOk);
      EXPECT_EQ(std::memcmp(a.bytes().data(), model, 16), 0);
    } catch (Vela::RangeException const&) {
      EXPECT_FALSE(modelOk);
    }
  }
  for (int i = 0; i < 20000; ++i) {
    Ip6Addr::Bytes b{};
    // Mostly-zero groups so that runs of zeros of every length occur.
    for (int g = 0; g < 8; ++g) {
      if (rng() % 2) continue;
      b[2 * g] = static_cast<std::uint8_t>(rng() % 3 ? 0 : rng());
      b[2 * g + 1] = static_cast<std::uint8_t>(rng());
    }
    Ip6Addr const a(b);
    SCOPED_TRACE(a.toStrep());
    EXPECT_EQ(Ip6Addr::fromStrep(a.toStrep()), a);
    bool const compatible = std::all_of(b.begin(), b.begin() + 12, [](auto x) { return x == 0; });
    if (compatible) continue;
    char model[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, b.data(), model, sizeof model), nullptr);
    EXPECT_EQ(a.toStrep(), model);
  }
}

TEST(IpGenAddrTest, FamiliesAndEmptyAddress) {
  IpGenAddr const empty;
  EXPECT_EQ(empty.af(), AddressFamily::ipunknown);
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_TRUE(empty.isUnspecified());
  EXPECT_EQ(empty.toStrep(), "");
  EXPECT_EQ(IpGenAddr(""), empty);

  IpGenAddr const v4("10.0.0.1");
  EXPECT_TRUE(v4.isV4());
  EXPECT_EQ(v4.af(), AddressFamily::ipv4);
  EXPECT_EQ(v4.v4(), IpAddr(0x0A000001u));
  EXPECT_EQ(IpGenAddr(IpAddr(0x0A000001u)), v4);

  IpGenAddr const v6("2001:db8::1");
  EXPECT_TRUE(v6.isV6());
  EXPECT_EQ(v6.v6(), Ip6Addr::fromStrep("2001:db8::1"));

  EXPECT_TRUE(IpGenAddr("0.0.0.0").isUnspecified());
  EXPECT_TRUE(IpGenAddr("::").isUnspecified());
  EXPECT_FALSE(v4.isUnspecified());
  // Same bits, different families: different addresses.
  EXPECT_NE(IpGenAddr("0.0.0.0"), empty);
  EXPECT_NE(IpGenAddr("0.0.0.0"), IpGenAddr("::"));

  expectRangeError([&] { v6.v4(); }, "IPv4 address requested of the ipv6 address '2001:db8::1'");
  expectRangeError([&] { empty.v4(); }, "ipunknown");
  expectRangeError([&] { v4.v6(); }, "IPv6 address requested of the ipv4 address '10.0.0.1'");
  expectRangeError([] { IpGenAddr::fromStrep("10.0.0.1x"); }, "invalid IP address '10.0.0.1x'");
}

TEST(IpGenAddrTest, OrdersByFamilyThenNumerically) {
  std::vector<IpGenAddr> const sorted{IpGenAddr(),           IpGenAddr("0.0.0.0"), IpGenAddr("9.0.0.0"),
                                      IpGenAddr("10.0.0.0"), IpGenAddr("::"),      IpGenAddr("::1"),
                                      IpGenAddr("1::"),      IpGenAddr("ff00::")};
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    for (std::size_t j = 0; j < sorted.size(); ++j) {
      EXPECT_EQ(sorted[i] < sorted[j], i < j) << sorted[i] << " vs " << sorted[j];
      EXPECT_EQ(sorted[i] == sorted[j], i == j) << sorted[i] << " vs " << sorted[j];
      EXPECT_EQ(sorted[i].isV6() && sorted[j].isV6() && sorted[i].v6() == sorted[j].v6(),
                i == j && sorted[i].isV6());
    }
  }
}

TEST(IpGenAddrTest, RendersQuotedInValueTexts) {
  EXPECT_EQ(Vela::valueToStrep(IpGenAddr("10.0.0.1")), "'10.0.0.1'");
  EXPECT_EQ(Vela::valueToStrep(IpGenAddr()), "''");
  EXPECT_EQ(Vela::parseValue<IpGenAddr>("'2001:db8::1'"), IpGenAddr("2001:db8::1"));
  EXPECT_EQ(Vela::parseValue<IpGenAddr>("''"), IpGenAddr());
}

TEST(IpGenPrefixTest, ParsesNormalisesAndPrints) {
  struct Case {
    char const* in;
    char const* out;
  };
  for (auto const& c : std::initializer_list<Case>{{"10.0.0.0/8", "10.0.0.0/8"},
                                                   {"10.1.2.3/8", "10.0.0.0/8"},
                                                   {"10.255.255.255/9", "10.128.0.0/9"},
                                                   {"10.0.0.1", "10.0.0.1/32"},
                                                   {"0.0.0.0/0", "0.0.0.0/0"},
                                                   {"1.2.3.4/0", "0.0.0.0/0"},
                                                   {"2001:db8::/32", "2001:db8::/32"},
                                                   {"2001:db8:ffff::1/33", "2001:db8:8000::/33"},
                                                   {"::1", "::1/128"},
                                                   {"::/0", "::/0"},
                                                   {"", ""}}) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(IpGenPrefix::fromStrep(c.in).toStrep(), c.out);
    EXPECT_EQ(IpGenPrefix(c.in), IpGenPrefix(c.out));
  }
  IpGenPrefix const p("10.1.2.3/8");
  EXPECT_EQ(p.address(), IpGenAddr("10.0.0.0"));
  EXPECT_EQ(p.len(), 8);
  EXPECT_EQ(p.af(), AddressFamily::ipv4);
  EXPECT_FALSE(p.isEmpty());
  EXPECT_TRUE(IpGenPrefix().isEmpty());
  EXPECT_FALSE(IpGenPrefix("0.0.0.0/0").isEmpty());
  EXPECT_NE(IpGenPrefix("0.0.0.0/0"), IpGenPrefix());
  EXPECT_EQ(IpGenPrefix(IpGenAddr("2001:db8::1"), 32), IpGenPrefix("2001:db8::/32"));
  EXPECT_TRUE(IpGenPrefix("10.0.0.0/8").contains(IpGenAddr("10.200.0.1")));
  EXPECT_FALSE(IpGenPrefix("10.0.0.0/8").contains(IpGenAddr("11.0.0.1")));
  EXPECT_FALSE(IpGenPrefix("0.0.0.0/0").contains(IpGenAddr("::1")));
  EXPECT_TRUE(IpGenPrefix("10.0.0.0/8").contains(IpGenPrefix("10.1.0.0/16")));
  EXPECT_FALSE(IpGenPrefix("10.1.0.0/16").contains(IpGenPrefix("10.0.0.0/8")));
}

TEST(IpGenPrefixTest, RejectsBadPrefixes) {
  expectRejected("IP prefix", [](auto t) { IpGenPrefix::fromStrep(t); },
                 {{"10.0.0.0/33", "prefix length 33 out of range for ipv4 (0..32)"},
                  {"::/129", "prefix length 129 out of range for ipv6 (0..128)"},
                  {"10.0.0.0/99999999999", "out of range"},
                  {"10.0.0.0/", "missing prefix length"},
                  {"/8", "missing address"},
                  {"10.0.0.0/8/8", "unexpected character '/'"},
                  {"10.0.0.0/08", "leading zero"},
                  {"10.0.0.0/ 8", "unexpected character ' '"},
                  {"10.0.0.0/8x", "unexpected character 'x'"},
                  {"10.0.0.256/8", "octet '256' out of range"},
                  {"2001:db8:::/32", "empty group"}});
  expectRangeError([] { IpGenPrefix(IpGenAddr("10.0.0.0"), 33); }, "prefix length 33 out of range");
  expectRangeError([] { IpGenPrefix(IpGenAddr(), 1); },
                   "prefix length 1 out of range for the ipunknown address");
}

// Independent model of host-bit clearing: bit i of the address is kept when i < len.
IpGenPrefix modelPrefix(IpGenAddr const& a, unsigned len) {
  auto b = a.bytes();
  for (unsigned i = 0; i < 128; ++i) {
    if (i >= len) b[i / 8] = static_cast<std::uint8_t>(b[i / 8] & ~(0x80u >> (i % 8)));
  }
  if (a.isV4()) return IpGenPrefix(IpAddr((unsigned(b[0]) << 24) | (b[1] << 16) | (b[2] << 8) | b[3]), len);
  return IpGenPrefix(Ip6Addr(b), static_cast<std::uint8_t>(len));
}

TEST(IpGenPrefixTest, RandomRoundTripsAndHashAgreesWithEquality) {
  std::mt19937 rng(7);
  auto const randomAddr = [&](bool v6) {
    if (!v6) return IpGenAddr(IpAddr(static_cast<std::uint32_t>(rng())));
    Ip6Addr::Bytes b;
    for (auto& x : b) x = static_cast<std::uint8_t>(rng() % 4 ? rng() : 0);
    return IpGenAddr(Ip6Addr(b));
  };
  for (int i = 0; i < 20000; ++i) {
    bool const v6 = rng() % 2;
    auto const a = randomAddr(v6);
    auto const len = static_cast<std::uint8_t>(rng() % (a.maxLen() + 1));
    IpGenPrefix const p(a, len);
    SCOPED_TRACE(a.toStrep() + "/" + std::to_string(len));
    EXPECT_EQ(IpGenAddr::fromStrep(a.toStrep()), a);
    EXPECT_EQ(IpGenPrefix::fromStrep(p.toStrep()), p);
    EXPECT_EQ(IpGenPrefix::fromStrep(a.toStrep() + "/" + std::to_string(len)), p);
    // The same prefix written with other host bits is equal and hashes alike.
    auto const other = modelPrefix(a, len);
    EXPECT_EQ(p, other);
    EXPECT_EQ(p.hash(), other.hash());
    EXPECT_TRUE(p.contains(a));
    auto const b = randomAddr(v6);
    IpGenPrefix const q(b, len);
    EXPECT_EQ(p == q, modelPrefix(b, len) == other);
    if (p == q) {
      EXPECT_EQ(p.hash(), q.hash());
    }
    EXPECT_EQ(p.contains(b), p == q);
  }
}

// The values are fixed: they order vias, and so every FIB listing.
TEST(IpGenPrefixTest, HashValuesAreFixedAndSeparateFamiliesAndLengths) {
  EXPECT_EQ(IpGenAddr("10.1.1.2").hash(), 0xe86b2354u);
  EXPECT_EQ(IpGenAddr("2001:db8::1").hash(), 0x99aea4a2u);
  EXPECT_EQ(IpGenPrefix("192.168.1.1/32").hash(), 0x7b0815d0u);
  EXPECT_EQ(IpGenPrefix("2001:db8::/32").hash(), 0xa52f40a8u);
  EXPECT_NE(IpGenAddr().hash(), IpGenAddr("0.0.0.0").hash());
  EXPECT_NE(IpGenAddr("0.0.0.0").hash(), IpGenAddr("::").hash());
  EXPECT_NE(IpGenPrefix("10.0.0.0/8").hash(), IpGenPrefix("10.0.0.0/9").hash());
  EXPECT_NE(IpGenPrefix("0.0.0.0/0").hash(), IpGenPrefix().hash());
}

}  // namespace
}  // namespace Nimbo
