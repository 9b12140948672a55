#include <gtest/gtest.h>

#include <random>
#include <type_traits>

#include "framework/Nimbo/IntfId.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace Nimbo {
namespace {

static_assert(sizeof(IntfId) == 8 && std::is_trivially_copyable_v<IntfId>);

constexpr std::uint64_t kind(std::uint64_t k) { return k << 32; }

TEST(IntfIdTest, NamesRoundTripThroughTheirEncoding) {
  struct Case {
    char const* name;
    std::uint64_t value;
  };
  for (auto const& c : std::initializer_list<Case>{
           {"", 0},
           {"Ethernet1", kind(1) | (1u << 16)},
           {"Ethernet3/1", kind(1) | (3u << 16) | (1u << 8)},
           {"Ethernet3/1/4", kind(1) | (3u << 16) | (1u << 8) | 4},
           {"Ethernet0", kind(1)},
           {"Ethernet65535/255/255", kind(1) | 0xFFFFFFFFu},
           {"Port-Channel10", kind(2) | 10},
           {"Port-Channel4294967295", kind(2) | 0xFFFFFFFFu},
           {"Vlan100", kind(3) | 100},
           {"Vlan4094", kind(3) | 4094},
           {"Loopback0", kind(4)},
           {"Management1", kind(5) | (1u << 16)},
           {"Management1/1", kind(5) | (1u << 16) | (1u << 8)},
           {"Tunnel5", kind(6) | 5},
           {"Intf7", 7},
           {"Intf4294967295", 0xFFFFFFFFu},
           {"DynamicTunnel6291456.5", (58ull << 56) | (6291456ull << 28) | 5},
           {"GenericIntf7.1.2", (7ull << 56) | (1ull << 28) | 2},
       }) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(IntfId::fromStrep(c.name).value(), c.value);
    EXPECT_EQ(IntfId(c.name), IntfId(c.value));
    EXPECT_EQ(IntfId(c.value).toStrep(), c.name);
    if (c.value != 0 && !IntfId(c.value).isGeneric()) {
      EXPECT_LT(c.value, 1ull << 40);
    }
  }
  EXPECT_TRUE(IntfId().isEmpty());
  EXPECT_EQ(IntfId("Ethernet3/1"), IntfId::ethernet(3, 1));
  EXPECT_EQ(IntfId("Management1/2/3"), IntfId::management(1, 2, 3));
  EXPECT_EQ(IntfId("Vlan10"), IntfId::vlan(10));
  EXPECT_EQ(IntfId("Port-Channel7"), IntfId::portChannel(7));
  EXPECT_EQ(IntfId("Loopback7"), IntfId::loopback(7));
  EXPECT_EQ(IntfId("Tunnel7"), IntfId::tunnel(7));
  EXPECT_EQ(IntfId("Ethernet3/1").kind(), IntfKind::ethernetIntf);
  EXPECT_EQ(IntfId("Intf3").kind(), IntfKind::otherIntf);
  EXPECT_EQ(IntfId("DynamicTunnel1.1").kind(), IntfKind::otherIntf);
}

TEST(IntfIdTest, OrdersPortsNaturally) {
  std::vector<IntfId> const sorted{IntfId(),
                                   IntfId("Intf5"),
                                   IntfId("Ethernet2"),
                                   IntfId("Ethernet3/1"),
                                   IntfId("Ethernet3/2"),
                                   IntfId("Ethernet10"),
                                   IntfId("Port-Channel1"),
                                   IntfId("Vlan2"),
                                   IntfId("DynamicTunnel0.0")};
  for (std::size_t i = 0; i + 1 < sorted.size(); ++i) {
    EXPECT_LT(sorted[i], sorted[i + 1]) << sorted[i] << " vs " << sorted[i + 1];
    EXPECT_FALSE(sorted[i + 1] < sorted[i]);
  }
}

TEST(IntfIdTest, RejectsBadNames) {
  expectRejected("interface name", [](auto t) { IntfId::fromStrep(t); },
                 {{"Ethernet", "missing port number"},
                  {"Ethernet3/0", "port number 0 out of range (1..255)"},
                  {"Ethernet3/", "missing port number"},
                  {"Ethernet65536", "port number 65536 out of range (0..65535)"},
                  {"Ethernet1/256", "port number 256 out of range (1..255)"},
                  {"Ethernet1/1/1/1", "unexpected trailing text '/1'"},
                  {"Ethernet01", "leading zero"},
                  {"Ethernet1 ", "unexpected trailing text ' '"},
                  {"Ethernet1.100", "unexpected trailing text '.100'"},
                  {"Ethernet-1", "expected port number at '-1'"},
                  {"ethernet1", "unknown interface type"},
                  {"Foo1", "unknown interface type"},
                  {" Ethernet1", "unknown interface type"},
                  {"Vlan0", "VLAN number 0 out of range (1..4094)"},
                  {"Vlan4095", "VLAN number 4095 out of range"},
                  {"Port-Channel4294967296", "interface number 4294967296 out of range (0..4294967295)"},
                  {"Intf", "missing interface number"},
                  {"Intf18446744073709551616", "out of range"},
                  {"DynamicTunnel33554432.0", "part 1 33554432 out of range (0..33554431)"},
                  {"DynamicTunnel0.8388608", "part 0 8388608 out of range (0..8388607)"},
                  {"DynamicTunnel1", "missing '.' after part 1"},
                  {"DynamicTunnel1.", "missing part 0"},
                  {"DynamicTunnel1.2.3", "unexpected trailing text '.3'"},
                  {"DynamicTunnel1:2", "expected '.' after part 1"},
                  {"GenericIntf58.1.2", "type id 58 is written DynamicTunnel"},
                  {"GenericIntf0.1.2", "type id 0 out of range (1..255)"},
                  {"GenericIntf256.1.2", "type id 256 out of range"},
                  {"GenericIntf1.268435456.0", "part 1 268435456 out of range (0..268435455)"}});
  expectRangeError([] { IntfId::ethernet(1, 0, 2); }, "the third needs the second");
  expectRangeError([] { IntfId::ethernet(65536); }, "invalid Ethernet port numbers 65536/0/0");
  expectRangeError([] { IntfId::vlan(4095); }, "invalid VLAN interface number 4095");
}

TEST(GenericIntfIdTest, DynamicTunnelNamesAtTheEdges) {
  EXPECT_EQ(GenericIntfId::intfId(58, 0, 0).toStrep(), "DynamicTunnel0.0");
  EXPECT_FALSE(GenericIntfId::intfId(58, 0, 0).isEmpty());
  auto const ldp5 = GenericIntfId::intfId(58, 5, 6291456);
  EXPECT_EQ(ldp5, IntfId("DynamicTunnel6291456.5"));

  auto const largest = IntfId("DynamicTunnel33554431.8388607");
  EXPECT_EQ(largest, GenericIntfId::intfId(58, 8388607, 33554431));
  EXPECT_EQ(largest.toStrep(), "DynamicTunnel33554431.8388607");
  EXPECT_EQ(GenericIntfId::typeId(largest), 58);
  EXPECT_EQ(GenericIntfId::part(largest, 0), 8388607u);
  EXPECT_EQ(GenericIntfId::part(largest, 1), 33554431u);

  auto const ethernet = IntfId("Ethernet1");
  EXPECT_FALSE(GenericIntfId::isGenericIntfId(ethernet));
  EXPECT_EQ(GenericIntfId::typeId(ethernet), 0);
  EXPECT_EQ(GenericIntfId::part(ethernet, 0) + GenericIntfId::part(ethernet, 1), 0u);

  auto const other = GenericIntfId::intfId(7, GenericIntfId::maxPart, GenericIntfId::maxPart - 1);
  EXPECT_EQ(GenericIntfId::part(other, 0), GenericIntfId::maxPart);
  EXPECT_EQ(GenericIntfId::part(other, 1), GenericIntfId::maxPart - 1);
  EXPECT_EQ(IntfId::fromStrep(other.toStrep()), other);

  expectRangeError([] { GenericIntfId::intfId(58, 8388608, 0); }, "part 0 8388608 (0..8388607)");
  expectRangeError([] { GenericIntfId::intfId(58, 0, 33554432); }, "part 1 33554432 (0..33554431)");
  expectRangeError([] { GenericIntfId::intfId(7, 1u << 28, 0); }, "part 0 268435456 (0..268435455)");
  expectRangeError([] { GenericIntfId::intfId(0, 1, 1); }, "type id 0 not allowed");
  expectRangeError([&] { GenericIntfId::part(ldp5, 2); }, "generic interface part 2 not allowed");
  expectRangeError([&] { GenericIntfId::part(ldp5, -1); }, "generic interface part -1 not allowed");
}

// Every number, named or not, comes back from its text.
TEST(IntfIdTest, RandomValuesRoundTripAndHashAgreesWithEquality) {
  std::mt19937_64 rng(42);
  for (int i = 0; i < 50000; ++i) {
    std::uint64_t v = rng();
    switch (i % 5) {
      case 0:
        v &= 0xFFFFFFFFu;
        break;  // bare numbers
      case 1:
        v &= 0xFFFFFFFFFFull;
        break;  // ordinary kinds, mostly unnamed
      case 2:
        v = (v & 0xFFFFFFFFu) | kind(1 + (v >> 61) % 7);
        break;  // kinds 1..7
      case 3:
        v = (58ull << 56) | (v & 0xFFFFFFFFFFFFFFull);
        break;  // dynamic tunnels
      default:
        break;  // anything
    }
    IntfId const id(v);
    auto const text = id.toStrep();
    SCOPED_TRACE(text);
    IntfId const back(text);
    EXPECT_EQ(back, id);
    EXPECT_EQ(back.hash(), id.hash());
    EXPECT_EQ(back.toStrep(), text);
  }
  EXPECT_NE(IntfId("Ethernet1").hash(), IntfId("Ethernet2").hash());
}

TEST(IntfIdTest, RendersQuotedInValueTexts) {
  EXPECT_EQ(Vela::valueToStrep(IntfId("Ethernet3/1")), "'Ethernet3/1'");
  EXPECT_EQ(Vela::valueToStrep(IntfId()), "''");
  EXPECT_EQ(Vela::parseValue<IntfId>("'DynamicTunnel0.0'"), GenericIntfId::intfId(58, 0, 0));
}

}  // namespace
}  // namespace Nimbo
