#include <gtest/gtest.h>

#include <random>
#include <string>

#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/TunnelIntfId.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Value.h"

namespace Tunnel::TunnelTable {
namespace {

using Nimbo::DynamicTunnelIntfId;
using Nimbo::GenericIntfId;
using Nimbo::IntfId;

// The name computed here from the layout, independently of the code under test.
std::string expectedName(std::uint64_t value) {
  return Vela::format("DynamicTunnel%u.%u", static_cast<unsigned>(value >> 23),
                      static_cast<unsigned>(value & 0x7FFFFF));
}

TEST(DynamicTunnelIntfIdTest, OnlyDynamicTunnelInterfacesCarryATunnel) {
  for (IntfId const i :
       {IntfId(), IntfId("Ethernet1"), IntfId("Tunnel5"), IntfId("Intf7"), GenericIntfId::intfId(57, 5, 6)}) {
    EXPECT_FALSE(DynamicTunnelIntfId::isDynamicTunnelIntfId(i)) << i;
    EXPECT_EQ(DynamicTunnelIntfId::tunnelId(i), 0u) << i;
  }
  // Static interface tunnels give their real interface, whatever the family.
  auto const staticIntf = [](std::uint64_t indexAndAf) {
    return TunnelId(TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, indexAndAf)).intfId();
  };
  EXPECT_EQ(staticIntf(7), IntfId(7));
  EXPECT_EQ(staticIntf(7 | tunnelAfMask()), IntfId(7));
  EXPECT_EQ(staticIntf(IntfId::ethernet(3, 1).value()).toStrep(), "Ethernet3/1");
}

TEST(DynamicTunnelIntfIdTest, EdgeValues) {
  // The invalid id maps to DynamicTunnel0.0 and comes back as the invalid id.
  IntfId const zero = TunnelId::invalid.intfId();
  EXPECT_EQ(zero.toStrep(), "DynamicTunnel0.0");
  EXPECT_EQ(TunnelId(DynamicTunnelIntfId::tunnelId(zero)), TunnelId::invalid);
  TunnelId const max(TunnelId::maxValue);
  EXPECT_EQ(max.intfId().toStrep(), "DynamicTunnel33554431.8388607");
  EXPECT_EQ(DynamicTunnelIntfId::tunnelId(max.intfId()), TunnelId::maxValue);
  // Part 0 ends exactly at bit 22.
  EXPECT_EQ(TunnelId(0x7FFFFF).intfId().toStrep(), "DynamicTunnel0.8388607");
  EXPECT_EQ(TunnelId(0x800000).intfId().toStrep(), "DynamicTunnel1.0");
  EXPECT_THROW(DynamicTunnelIntfId::tunnelIdToIntfId(TunnelId::maxValue + 1), Vela::RangeException);
  EXPECT_THROW(DynamicTunnelIntfId::tunnelIdToIntfId(~0ull), Vela::RangeException);
}

TEST(DynamicTunnelIntfIdTest, InversePairOverRandomIds) {
  std::uint32_t const seed = 4242;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  for (int i = 0; i < 2000; ++i) {
    std::uint64_t value = rng() & TunnelId::maxValue;
    if ((value >> 44) == 9) value ^= std::uint64_t(1) << 44;  // not a static interface tunnel
    TunnelId const t(value);
    IntfId const intf = t.intfId();
    ASSERT_TRUE(DynamicTunnelIntfId::isDynamicTunnelIntfId(intf)) << value;
    ASSERT_EQ(DynamicTunnelIntfId::tunnelId(intf), value) << value;
    ASSERT_EQ(DynamicTunnelIntfId::tunnelIdToIntfId(value), intf) << value;
    ASSERT_EQ(intf.toStrep(), expectedName(value)) << value;
    ASSERT_EQ(IntfId(expectedName(value)), intf) << value;
  }
}

TEST(DynamicTunnelIntfIdTest, IsAValueOverTheInterface) {
  DynamicTunnelIntfId const byName(std::string("DynamicTunnel6291456.5"));
  DynamicTunnelIntfId const byIntf(DynamicTunnelIntfId::tunnelIdToIntfId(0x300000000005));
  EXPECT_EQ(byName, byIntf);
  EXPECT_EQ(byName.hash(), byIntf.intfId().hash());
  EXPECT_LT(byName, DynamicTunnelIntfId(std::string("DynamicTunnel6291456.6")));
  EXPECT_EQ(DynamicTunnelIntfId(std::string()), DynamicTunnelIntfId());
  // Inside value texts it is its quoted name.
  EXPECT_EQ(Vela::valueToStrep(byName), "'DynamicTunnel6291456.5'");
  EXPECT_EQ(Vela::parseValue<DynamicTunnelIntfId>("'DynamicTunnel6291456.5'"), byName);
  for (char const* bad : {"Ethernet1", "Tunnel5", "DynamicTunnel33554432.0"}) {
    EXPECT_THROW(DynamicTunnelIntfId(std::string(bad)), Vela::RangeException) << bad;
  }
  EXPECT_THROW(DynamicTunnelIntfId(IntfId("Tunnel5")), Vela::RangeException);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
