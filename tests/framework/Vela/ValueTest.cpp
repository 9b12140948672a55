// The generic value mechanism: one field list gives equality, ordering,
// hashing and the textual form, and parsing reads that form back.
#include <gtest/gtest.h>

#include "framework/Vela/Enum.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace Demo {

VELA_ENUM(Colour, std::uint8_t, "Demo::Colour", red = 0, green = 0x10, blue = 7)

class Point : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Demo::Point";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("x", &Point::x), Vela::field("y", &Point::y));
  }
  std::int32_t x = 0;
  std::uint8_t y = 0;
};

class Label : public Point {
 public:
  static constexpr char const* valueTypeName = "Demo::Label";
  static constexpr auto valueFields() {
    return std::tuple_cat(
        Point::valueFields(),
        std::make_tuple(Vela::field("text", &Label::text), Vela::field("colour", &Label::colour),
                        Vela::field("visible", &Label::visible), Vela::field("weight", &Label::weight),
                        Vela::field("at", &Label::at)));
  }
  std::string text;
  Colour colour = Colour::red;
  bool visible = false;
  double weight = 0;
  Point at;
};

}  // namespace Demo

namespace {

Demo::Label sample() {
  Demo::Label l;
  l.x = -3;
  l.y = 200;
  l.text = "it's \\ here";
  l.colour = Demo::Colour::green;
  l.visible = true;
  l.weight = 0.25;
  l.at.x = 9;
  return l;
}

TEST(ValueTest, TextualFormListsFieldsInDeclarationOrderAndParsesBack) {
  auto const l = sample();
  EXPECT_EQ(Vela::valueToStrep(l),
            "Value('Demo::Label', ** {'x': -3, 'y': 200, 'text': 'it\\'s \\\\ here', 'colour': green, "
            "'visible': True, 'weight': 0.25, 'at': Value('Demo::Point', ** {'x': 9, 'y': 0})})");
  EXPECT_EQ(Vela::parseValue<Demo::Label>(Vela::valueToStrep(l)), l);
}

TEST(ValueTest, ParseRejectsMalformedTextWithItsOffset) {
  auto const text = Vela::valueToStrep(sample());
  EXPECT_THROW(Vela::parseValue<Demo::Label>(text + " "), Vela::RangeException);
  EXPECT_THROW(Vela::parseValue<Demo::Label>(text.substr(0, text.size() - 1)), Vela::RangeException);
  EXPECT_THROW(Vela::parseValue<Demo::Point>("Value('Demo::Point', ** {'x': 1, 'y': 256})"),
               Vela::RangeException);
  EXPECT_THROW(Vela::parseValue<Demo::Point>("Value('Demo::Other', ** {'x': 1, 'y': 2})"),
               Vela::RangeException);
  expectRangeError(
      [] { Vela::parseValue<Demo::Point>("Value('Demo::Point', ** {'x': 1, 'z': 2})", "point"); },
      "point at offset");
}

TEST(ValueTest, EqualityOrderingAndHashComeFromTheFields) {
  auto a = sample();
  auto b = sample();
  EXPECT_EQ(a, b);
  EXPECT_EQ(Vela::hashOf(a), Vela::hashOf(b));
  b.at.y = 1;
  EXPECT_NE(a, b);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  b = a;
  b.x = -4;  // the first field decides
  EXPECT_TRUE(b < a);
}

TEST(ValueTest, EnumerationServices) {
  EXPECT_EQ(Vela::enumName(Demo::Colour::green), "green");
  EXPECT_EQ(Vela::enumName(static_cast<Demo::Colour>(3)), "3");
  EXPECT_EQ(Vela::enumFromName<Demo::Colour>("blue"), Demo::Colour::blue);
  EXPECT_EQ(Vela::enumFromValue<Demo::Colour>(16), Demo::Colour::green);
  EXPECT_THROW(Vela::enumFromName<Demo::Colour>("purple"), Vela::RangeException);
  EXPECT_THROW(Vela::enumFromValue<Demo::Colour>(3), Vela::RangeException);
  EXPECT_FALSE(Vela::isEnumerator(static_cast<Demo::Colour>(3)));
  auto const& all = Vela::enumInfo<Demo::Colour>().enumerators();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[2].second, "blue");
  EXPECT_EQ(all[2].first, 7u);
}

}  // namespace
