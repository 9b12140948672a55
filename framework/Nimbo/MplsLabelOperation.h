// MPLS label operations: what to do to a packet's label stack.
//
// Nimbo::MplsLabelOperation pairs an action (push, pop, swap or none) with a
// bounded stack of up to six 20-bit labels, positions 0 to 5, position 0
// being the first label pushed (the outermost after the push). Tunnel vias
// carry one; flattening a via over another tunnel appends the inner via's
// labels after the outer via's:
//
//   auto op = outer.labels;                       // labels at 0..n-1
//   for (auto l : inner.labels.labels()) op.push(l);
//
// The stack size and the six slots are set independently: stackSizeIs()
// leaves the slots alone, and equality, ordering and the hash cover all six
// slots, including those beyond the stack size. The text form
// ("push 16 3000", "pop", "none") lists only the labels within the stack
// size, so a value whose hidden slots are non-zero does not come back equal
// from its text.
//
// Range errors raise Vela::RangeException with the texts
//   "MplsStackSize::value < MplsStackSize::min or > MplsStackSize::max not allowed"
//   "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not allowed"
//   "MplsLabel::value < MplsLabel::min or > MplsLabel::max not allowed"
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Vela/Enum.h"
#include "framework/Vela/Hash.h"

namespace Nimbo {

VELA_ENUM(MplsAction, std::uint8_t, "Nimbo::MplsAction", none = 0, push = 1, pop = 2, swap = 3)

class MplsLabelOperation {
 public:
  static constexpr std::size_t maxStackSize = 6;
  static constexpr std::uint32_t maxLabel = 0xFFFFF;

  constexpr MplsLabelOperation() = default;
  // Raises like operationIs() and push().
  MplsLabelOperation(MplsAction action, std::initializer_list<std::uint32_t> labels);
  // The push of the given labels, in order.
  static MplsLabelOperation pushOf(std::initializer_list<std::uint32_t> labels) {
    return MplsLabelOperation(MplsAction::push, labels);
  }

  MplsAction operation() const { return operation_; }
  // Raises Vela::RangeException for a value that is no MplsAction enumerator.
  void operationIs(MplsAction action);

  // A small unsigned type, so that loops over positions compile cleanly with
  // int and std::size_t indexes alike.
  std::uint16_t stackSize() const { return stackSize_; }
  // 0..6; does not touch the slots.
  void stackSizeIs(std::size_t n);
  bool empty() const { return stackSize_ == 0; }

  // The label in slot pos (0..5), whether or not pos is within the stack size.
  std::uint32_t label(std::size_t pos) const;
  // Sets slot pos (0..5) to label (0..0xFFFFF); does not change the stack size.
  void labelIs(std::size_t pos, std::uint32_t label);
  // Sets slot stackSize() and increments the stack size.
  void push(std::uint32_t label);
  // The labels of slots 0 to stackSize()-1.
  std::vector<std::uint32_t> labels() const;

  std::uint32_t hash() const;
  // The action's name, then " <label>" for each label within the stack size.
  std::string toStrep() const;
  // Reads "<action>[ <label>...]" and "<action> [<label>, ...]" (labels in
  // decimal, at most six); raises Vela::RangeException otherwise.
  static MplsLabelOperation fromStrep(std::string_view text);

  friend bool operator==(MplsLabelOperation const& a, MplsLabelOperation const& b) {
    return a.operation_ == b.operation_ && a.stackSize_ == b.stackSize_ &&
           Vela::sameWords(a.label_, b.label_);
  }
  // Action, stack size, then the six slots in order.
  friend auto operator<=>(MplsLabelOperation const&, MplsLabelOperation const&) = default;

 private:
  MplsAction operation_ = MplsAction::none;
  std::uint8_t stackSize_ = 0;
  std::array<std::uint32_t, maxStackSize> label_{};
};

std::ostream& operator<<(std::ostream& os, MplsLabelOperation const& op);

}  // namespace Nimbo

// For std::unordered_map and friends.
template <>
struct std::hash<Nimbo::MplsLabelOperation> {
  std::size_t operator()(Nimbo::MplsLabelOperation const& v) const noexcept { return v.hash(); }
};
