#include "framework/Nimbo/MplsLabelOperation.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "framework/Vela/Exception.h"
#include "framework/Vela/Hash.h"

namespace Nimbo {

namespace {

char const* const stackSizeText =
    "MplsStackSize::value < MplsStackSize::min or > MplsStackSize::max not allowed";
char const* const stackIndexText =
    "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not allowed";
char const* const labelText = "MplsLabel::value < MplsLabel::min or > MplsLabel::max not allowed";

struct Reader {
  std::string_view text;
  std::size_t pos = 0;

  [[noreturn]] void fail(std::string const& why) const {
    throw Vela::RangeException("invalid MPLS label operation '" + std::string(text) + "': " + why);
  }
  bool atEnd() const { return pos >= text.size(); }
  bool isSpace() const { return !atEnd() && (text[pos] == ' ' || text[pos] == '\t'); }
  void skipSpaces() {
    while (isSpace()) ++pos;
  }
  bool consume(char c) {
    if (atEnd() || text[pos] != c) return false;
    ++pos;
    return true;
  }
  std::uint32_t label() {
    std::size_t const start = pos;
    while (!atEnd() && text[pos] >= '0' && text[pos] <= '9') ++pos;
    auto const digits = text.substr(start, pos - start);
    if (digits.empty()) fail("expected a label at '" + std::string(text.substr(start)) + "'");
    if (digits.size() > 1 && digits[0] == '0') fail("label '" + std::string(digits) + "' has a leading zero");
    std::uint64_t v = 0;
    for (char c : digits.substr(0, 8)) v = v * 10 + static_cast<std::uint64_t>(c - '0');
    if (digits.size() > 7 || v > MplsLabelOperation::maxLabel) {
      fail("label " + std::string(digits) + " out of range (0..1048575)");
    }
    return static_cast<std::uint32_t>(v);
  }
};

}  // namespace

MplsLabelOperation::MplsLabelOperation(MplsAction action, std::initializer_list<std::uint32_t> labels) {
  operationIs(action);
  for (auto l : labels) push(l);
}

void MplsLabelOperation::operationIs(MplsAction action) {
  if (static_cast<std::uint8_t>(action) > static_cast<std::uint8_t>(MplsAction::swap)) {
    throw Vela::RangeException("invalid value " + std::to_string(static_cast<unsigned>(action)) +
                               " for enumeration Nimbo::MplsAction");
  }
  operation_ = action;
}

void MplsLabelOperation::stackSizeIs(std::size_t n) {
  if (n > maxStackSize) throw Vela::RangeException(stackSizeText);
  stackSize_ = static_cast<std::uint8_t>(n);
}

std::uint32_t MplsLabelOperation::label(std::size_t pos) const {
  if (pos >= maxStackSize) throw Vela::RangeException(stackIndexText);
  return label_[pos];
}

void MplsLabelOperation::labelIs(std::size_t pos, std::uint32_t label) {
  if (pos >= maxStackSize) throw Vela::RangeException(stackIndexText);
  if (label > maxLabel) throw Vela::RangeException(labelText);
  label_[pos] = label;
}

void MplsLabelOperation::push(std::uint32_t label) {
  labelIs(stackSize_, label);
  ++stackSize_;
}

std::vector<std::uint32_t> MplsLabelOperation::labels() const {
  return std::vector<std::uint32_t>(label_.begin(), label_.begin() + stackSize_);
}

std::uint32_t MplsLabelOperation::hash() const {
  // Every via placed in a set hashes its labels: the six slots go in as
  // three words, composed so that every machine hashes alike.
  static_assert(maxStackSize % 2 == 0);
  std::array<std::uint64_t, maxStackSize / 2> words;
  for (std::size_t i = 0; i < words.size(); ++i) {
    words[i] = std::uint64_t(label_[2 * i]) | std::uint64_t(label_[2 * i + 1]) << 32;
  }
  return Vela::hashWords((std::uint64_t(static_cast<std::uint8_t>(operation_)) << 8) | stackSize_, words);
}

std::string MplsLabelOperation::toStrep() const {
  std::string out = Vela::enumName(operation_);
  for (std::size_t i = 0; i < stackSize_; ++i) out += " " + std::to_string(label_[i]);
  return out;
}

MplsLabelOperation MplsLabelOperation::fromStrep(std::string_view text) {
  Reader r{text};
  if (text.empty()) r.fail("empty text");
  if (r.isSpace()) r.fail("leading whitespace");
  while (!r.atEnd() && !r.isSpace() && text[r.pos] != '[') ++r.pos;
  auto const name = text.substr(0, r.pos);
  auto const action = Vela::enumLookup<MplsAction>(name);
  if (!action) r.fail("unknown action '" + std::string(name) + "' (none, push, pop or swap)");
  MplsLabelOperation op;
  op.operation_ = *action;
  auto const add = [&](std::uint32_t l) {
    if (op.stackSize_ == maxStackSize) r.fail("more than 6 labels");
    op.push(l);
  };
  if (r.isSpace()) {
    r.skipSpaces();
    if (r.atEnd()) r.fail("trailing whitespace");
  }
  if (r.consume('[')) {
    r.skipSpaces();
    if (!r.consume(']')) {
      while (true) {
        add(r.label());
        r.skipSpaces();
        if (r.consume(']')) break;
        if (!r.consume(',')) r.fail("expected ',' or ']' at '" + std::string(text.substr(r.pos)) + "'");
        r.skipSpaces();
      }
    }
    if (!r.atEnd()) r.fail("unexpected trailing text '" + std::string(text.substr(r.pos)) + "'");
    return op;
  }
  while (!r.atEnd()) {
    add(r.label());
    if (r.atEnd()) break;
    if (!r.isSpace()) r.fail("unexpected text '" + std::string(text.substr(r.pos)) + "' after a label");
    r.skipSpaces();
    if (r.atEnd()) r.fail("trailing whitespace");
  }
  return op;
}

std::ostream& operator<<(std::ostream& os, MplsLabelOperation const& op) { return os << op.toStrep(); }

}  // namespace Nimbo
