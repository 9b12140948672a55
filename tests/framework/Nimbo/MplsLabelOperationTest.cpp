#include <gtest/gtest.h>

#include <random>
#include <type_traits>
#include <vector>

#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace Nimbo {
namespace {

static_assert(std::is_trivially_copyable_v<MplsLabelOperation>);

std::string const stackSizeText =
    "MplsStackSize::value < MplsStackSize::min or > MplsStackSize::max not allowed";
std::string const indexText =
    "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not allowed";
std::string const labelText = "MplsLabel::value < MplsLabel::min or > MplsLabel::max not allowed";

TEST(MplsLabelOperationTest, DefaultAndPush) {
  MplsLabelOperation op;
  EXPECT_EQ(op.operation(), MplsAction::none);
  EXPECT_EQ(op.stackSize(), 0);
  EXPECT_EQ(op.toStrep(), "none");
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(op.label(i), 0u);

  op.operationIs(MplsAction::push);
  op.push(16);
  op.push(3000);
  EXPECT_EQ(op.stackSize(), 2);
  EXPECT_EQ(op.labels(), (std::vector<std::uint32_t>{16, 3000}));
  EXPECT_EQ(op.toStrep(), "push 16 3000");
  EXPECT_EQ(op, MplsLabelOperation::pushOf({16, 3000}));
  EXPECT_EQ(MplsLabelOperation::pushOf({}).toStrep(), "push");
}

TEST(MplsLabelOperationTest, BoundsRaiseTheExactRangeTexts) {
  MplsLabelOperation op;
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { op.stackSizeIs(7); }), stackSizeText);
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { op.label(6); }), indexText);
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { op.labelIs(6, 1); }), indexText);
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { op.labelIs(static_cast<std::size_t>(-1), 1); }),
            indexText);
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { op.labelIs(0, 0x100000); }), labelText);
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { op.push(0x100000); }), labelText);
  EXPECT_EQ(op.stackSize(), 0);  // failed pushes leave the stack alone

  op.labelIs(5, 0xFFFFF);
  op.stackSizeIs(6);
  EXPECT_EQ(op.label(5), 0xFFFFFu);

  auto full = MplsLabelOperation::pushOf({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { full.push(7); }), indexText);
  EXPECT_EQ(full.stackSize(), 6);
  EXPECT_EQ(thrownText<Vela::RangeException>([] {
              MplsLabelOperation::pushOf({1, 2, 3, 4, 5, 6, 7});
            }),
            indexText);
  expectRangeError([&] { op.operationIs(static_cast<MplsAction>(4)); },
                   "invalid value 4 for enumeration Nimbo::MplsAction");
}

// Every slot, the size and the action reach the hash: changing any one of
// them, and swapping two neighbouring labels, gives another hash.
TEST(MplsLabelOperationTest, HashCoversEveryPart) {
  auto const base = MplsLabelOperation::pushOf({16, 17, 18, 19, 20, 21});
  std::vector<MplsLabelOperation> variants;
  for (std::size_t slot = 0; slot < MplsLabelOperation::maxStackSize; ++slot) {
    for (std::uint32_t label : {0u, 1u, 0x80000u, 0xFFFFFu}) {
      auto op = base;
      op.labelIs(slot, label);
      variants.push_back(op);
    }
    if (slot + 1 < MplsLabelOperation::maxStackSize) {
      auto op = base;
      op.labelIs(slot, base.label(slot + 1));
      op.labelIs(slot + 1, base.label(slot));
      variants.push_back(op);
    }
  }
  for (std::size_t size = 0; size < MplsLabelOperation::maxStackSize; ++size) {
    auto op = base;
    op.stackSizeIs(size);
    variants.push_back(op);
  }
  for (MplsAction action : {MplsAction::none, MplsAction::pop, MplsAction::swap}) {
    auto op = base;
    op.operationIs(action);
    variants.push_back(op);
  }
  for (auto const& op : variants) {
    SCOPED_TRACE(op.toStrep());
    EXPECT_NE(op.hash(), base.hash());
  }
}

TEST(MplsLabelOperationTest, EqualityAndHashCoverHiddenSlots) {
  auto a = MplsLabelOperation::pushOf({16, 17});
  auto b = a;
  b.stackSizeIs(1);
  EXPECT_EQ(b.label(1), 17u);  // shrinking keeps the slot
  EXPECT_NE(a, b);
  b.stackSizeIs(2);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());

  // Same visible stack, different hidden slot: unequal, and not round-tripping.
  auto hidden = MplsLabelOperation::pushOf({16, 17});
  hidden.labelIs(4, 99);
  EXPECT_NE(hidden, a);
  EXPECT_TRUE(a < hidden || hidden < a);
  EXPECT_EQ(hidden.toStrep(), a.toStrep());
  EXPECT_EQ(MplsLabelOperation::fromStrep(hidden.toStrep()), a);
  auto last = a;
  last.labelIs(5, 1);  // the last slot too
  EXPECT_NE(last, a);
  last.labelIs(5, 0);
  EXPECT_EQ(last, a);

  EXPECT_NE(MplsLabelOperation::pushOf({16}), MplsLabelOperation(MplsAction::swap, {16}));
  EXPECT_LT(MplsLabelOperation::pushOf({16}), MplsLabelOperation(MplsAction::swap, {16}));
  EXPECT_LT(MplsLabelOperation::pushOf({16}), MplsLabelOperation::pushOf({16, 0}));
}

TEST(MplsLabelOperationTest, ParsesBothTextForms) {
  struct Case {
    char const* text;
    MplsLabelOperation op;
  };
  for (auto const& c :
       std::initializer_list<Case>{{"none", {}},
                                   {"pop", MplsLabelOperation(MplsAction::pop, {})},
                                   {"swap 20", MplsLabelOperation(MplsAction::swap, {20})},
                                   {"push 16 3000", MplsLabelOperation::pushOf({16, 3000})},
                                   {"push  16   3000", MplsLabelOperation::pushOf({16, 3000})},
                                   {"push [16, 3000]", MplsLabelOperation::pushOf({16, 3000})},
                                   {"push [16,3000]", MplsLabelOperation::pushOf({16, 3000})},
                                   {"push []", MplsLabelOperation::pushOf({})},
                                   {"push 0 1048575", MplsLabelOperation::pushOf({0, 0xFFFFF})},
                                   {"push 1 2 3 4 5 6", MplsLabelOperation::pushOf({1, 2, 3, 4, 5, 6})}}) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(MplsLabelOperation::fromStrep(c.text), c.op);
  }
  expectRejected("MPLS label operation", [](auto t) { MplsLabelOperation::fromStrep(t); },
                 {{"", "empty text"},
                  {"jump 1", "unknown action 'jump'"},
                  {"push16", "unknown action 'push16'"},
                  {" push 1", "leading whitespace"},
                  {"push 1 ", "trailing whitespace"},
                  {"none ", "trailing whitespace"},
                  {"push 1 2 3 4 5 6 7", "more than 6 labels"},
                  {"push [1, 2, 3, 4, 5, 6, 7]", "more than 6 labels"},
                  {"push 1048576", "label 1048576 out of range (0..1048575)"},
                  {"push 99999999999", "out of range"},
                  {"push 016", "leading zero"},
                  {"push -1", "expected a label at '-1'"},
                  {"push 1,2", "unexpected text ',2' after a label"},
                  {"push [1, 2", "expected ',' or ']' at ''"},
                  {"push [1,]", "expected a label at ']'"},
                  {"push [1] 2", "unexpected trailing text ' 2'"}});
}

TEST(MplsLabelOperationTest, RandomRoundTrips) {
  std::mt19937 rng(11);
  for (int i = 0; i < 10000; ++i) {
    MplsLabelOperation op;
    op.operationIs(static_cast<MplsAction>(rng() % 4));
    for (auto n = rng() % 7; n > 0; --n) op.push(rng() % 3 ? rng() % 0x100000 : rng() % 20);
    SCOPED_TRACE(op.toStrep());
    auto const back = MplsLabelOperation::fromStrep(op.toStrep());
    EXPECT_EQ(back, op);
    EXPECT_EQ(back.hash(), op.hash());
    EXPECT_EQ(Vela::parseValue<MplsLabelOperation>(Vela::valueToStrep(op)), op);
  }
  EXPECT_EQ(Vela::valueToStrep(MplsLabelOperation::pushOf({16})), "'push 16'");
}

}  // namespace
}  // namespace Nimbo
