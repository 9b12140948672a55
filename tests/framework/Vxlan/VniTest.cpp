#include <gtest/gtest.h>

#include <tuple>
#include <type_traits>

#include "framework/Vxlan/Vni.h"
#include "tests/framework/Vela/Thrown.h"

namespace Vxlan {
namespace {

static_assert(std::is_trivially_copyable_v<Vni>);

struct VniHolder : Vela::ValueTag {
  static constexpr char const* valueTypeName = "Test::VniHolder";
  static constexpr auto valueFields() { return std::make_tuple(Vela::field("vni", &VniHolder::vni)); }
  Vni vni;
};

TEST(VniTest, RangeAndText) {
  EXPECT_EQ(Vni().value(), 0u);
  EXPECT_EQ(Vni(0xFFFFFF).value(), 0xFFFFFFu);
  EXPECT_EQ(thrownText<Vela::RangeException>([] { Vni(0x1000000); }),
            "Vni::value < Vni::min or > Vni::max not allowed");
  EXPECT_EQ(Vni(5000).toStrep(), "5000");
  EXPECT_EQ(Vni::fromStrep("16777215"), Vni(0xFFFFFF));
  for (char const* bad : {"", "-1", "+1", "1x", " 1", "0x10", "16777216", "99999999999"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Vni::fromStrep(bad), Vela::RangeException);
  }
  EXPECT_LT(Vni(1), Vni(2));
}

TEST(VniTest, UnquotedInValueTexts) {
  VniHolder h;
  h.vni = Vni(5000);
  EXPECT_EQ(Vela::valueToStrep(h), "Value('Test::VniHolder', ** {'vni': 5000})");
  EXPECT_EQ(Vela::parseValue<VniHolder>("Value('Test::VniHolder', ** {'vni': 5000})").vni, Vni(5000));
  EXPECT_EQ(Vela::parseValue<VniHolder>("Value('Test::VniHolder', ** {'vni': '5000'})").vni, Vni(5000));
  EXPECT_THROW(Vela::parseValue<VniHolder>("Value('Test::VniHolder', ** {'vni': 16777216})"),
               Vela::RangeException);
}

}  // namespace
}  // namespace Vxlan
