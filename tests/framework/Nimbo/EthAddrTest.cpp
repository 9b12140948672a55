#include <gtest/gtest.h>

#include <random>
#include <type_traits>

#include "framework/Nimbo/EthAddr.h"
#include "tests/framework/Vela/Thrown.h"

namespace Nimbo {
namespace {

static_assert(sizeof(EthAddr) == 6 && std::is_trivially_copyable_v<EthAddr>);

TEST(EthAddrTest, ParsesColonDashAndDottedForms) {
  EthAddr const a(0x00, 0x1c, 0x73, 0x00, 0x00, 0x01);
  EXPECT_EQ(a.toStrep(), "00:1c:73:00:00:01");
  EXPECT_EQ(a.value(), 0x001c73000001ull);
  for (char const* text : {"00:1c:73:00:00:01", "00:1C:73:00:00:01", "0:1c:73:0:0:1", "00-1c-73-00-00-01",
                           "001c.7300.0001", "1c.7300.1"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(EthAddr::fromStrep(text), a);
  }
  EXPECT_EQ(EthAddr().toStrep(), "00:00:00:00:00:00");
  EXPECT_TRUE(EthAddr().isZero());
  EXPECT_TRUE(EthAddr("ff:ff:ff:ff:ff:ff").isBroadcast());
  EXPECT_TRUE(EthAddr("01:00:5e:00:00:01").isMulticast());
  EXPECT_FALSE(a.isMulticast());
  EXPECT_EQ(EthAddr::fromValue(0x001c73000001ull), a);
  EXPECT_LT(EthAddr("00:1c:73:00:00:ff"), EthAddr("00:1c:73:00:01:00"));
}

TEST(EthAddrTest, RejectsMalformedText) {
  expectRejected("Ethernet address", [](auto t) { EthAddr::fromStrep(t); },
                 {{"", "empty text"},
                  {"00:1c:73:00:00", "expected 6 groups, got 5"},
                  {"00:1c:73:00:00:01:02", "more than 6 groups"},
                  {"00:1c:73:00:00:1g", "unexpected character 'g'"},
                  {"001:1c:73:00:00:01", "group '001' has more than 2 hex digits"},
                  {"00:1c-73:00:00:01", "unexpected character ':'"},
                  {"00:1c:73::00:01", "empty group"},
                  {"00:1c:73:00:00:01 ", "unexpected character ' '"},
                  {"001c.7300", "expected 3 groups, got 2"},
                  {"001c.7300.00001", "more than 4 hex digits"},
                  {"001c.7300.0001.", "more than 3 groups"}});
  expectRangeError([] { EthAddr::fromValue(1ull << 48); }, "wider than 48 bits");
}

TEST(EthAddrTest, RandomRoundTripsAndHashAgreesWithEquality) {
  std::mt19937_64 rng(5);
  for (int i = 0; i < 10000; ++i) {
    auto const a = EthAddr::fromValue(rng() >> 16);
    SCOPED_TRACE(a.toStrep());
    auto const back = EthAddr::fromStrep(a.toStrep());
    EXPECT_EQ(back, a);
    EXPECT_EQ(back.hash(), a.hash());
    char dotted[16];
    std::snprintf(dotted, sizeof dotted, "%04x.%04x.%04x", unsigned(a.value() >> 32),
                  unsigned(a.value() >> 16) & 0xFFFF, unsigned(a.value()) & 0xFFFF);
    EXPECT_EQ(EthAddr::fromStrep(dotted), a);
  }
}

}  // namespace
}  // namespace Nimbo
