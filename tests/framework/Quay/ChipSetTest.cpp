// Chip sets: membership bounds, the hexadecimal text form and its parse,
// ordering, and a hash that agrees with equality.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "framework/Quay/ChipSet.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace {

using Quay::ChipSet;

TEST(ChipSetTest, ChipsMapToBitsAndChipsAbove63AreRefused) {
  ChipSet chips;
  EXPECT_TRUE(chips.empty());
  chips.chipIs(0, true);
  chips.chipIs(2, true);
  chips.chipIs(63, true);
  EXPECT_EQ(chips.bits(), 0x8000000000000005ull);
  EXPECT_EQ(chips.chipCount(), 3);
  EXPECT_TRUE(chips.chip(63));
  EXPECT_FALSE(chips.chip(1));
  chips.chipIs(63, false);
  chips.chipIs(1, false);
  EXPECT_EQ(chips, ChipSet(0x5));

  EXPECT_EQ(thrownText<Vela::RangeException>([&] { chips.chipIs(64, true); }),
            "ChipSet::chip < ChipSet::minChip or > ChipSet::maxChip not allowed");
  EXPECT_THROW((void)chips.chip(64), Vela::RangeException);
  EXPECT_EQ(chips, ChipSet(0x5));
}

TEST(ChipSetTest, TextFormIsLowerCaseHexAndParsesBack) {
  EXPECT_EQ(ChipSet().toStrep(), "0x0");
  EXPECT_EQ(ChipSet(0x5).toStrep(), "0x5");
  EXPECT_EQ(ChipSet(~std::uint64_t{0}).toStrep(), "0xffffffffffffffff");
  for (std::uint64_t bits : {0ull, 1ull, 0xabcdefull, 0x8000000000000000ull, ~0ull}) {
    EXPECT_EQ(ChipSet::fromStrep(ChipSet(bits).toStrep()), ChipSet(bits));
  }
  EXPECT_EQ(ChipSet::fromStrep("0XAB"), ChipSet(0xab));
  for (char const* bad : {"", "0x", "5", "x5", "0x-1", "0x+1", "0x5g", "0x10000000000000000", " 0x5"}) {
    EXPECT_THROW(ChipSet::fromStrep(bad), Vela::RangeException) << bad;
  }
  // In value texts it stands unquoted, like an integer; the quoted form reads too.
  EXPECT_EQ(Vela::valueToStrep(ChipSet(0x30)), "0x30");
  EXPECT_EQ(Vela::parseValue<ChipSet>("0x30"), ChipSet(0x30));
  EXPECT_EQ(Vela::parseValue<ChipSet>("'0x30'"), ChipSet(0x30));
}

TEST(ChipSetTest, OrderFollowsTheMaskAndHashAgreesWithEquality) {
  std::vector<ChipSet> const sets{ChipSet(0), ChipSet(1),          ChipSet(2),
                                  ChipSet(3), ChipSet(1ull << 63), ChipSet(~0ull)};
  for (std::size_t i = 0; i < sets.size(); ++i) {
    for (std::size_t j = 0; j < sets.size(); ++j) {
      EXPECT_EQ(sets[i] < sets[j], i < j);
      EXPECT_EQ(sets[i] == sets[j], i == j);
      if (i != j) {
        EXPECT_NE(sets[i].hash(), sets[j].hash());
      }
    }
    EXPECT_EQ(Vela::hashOf(sets[i]), sets[i].hash());
  }
}

}  // namespace
