// Fuzzes the MPLS label operation parser, Nimbo::MplsLabelOperation::fromStrep,
// and the operation's mutators.
//
// The input is a text for the parser; it either succeeds or raises
// Vela::RangeException. A parsed operation has at most six labels of 20 bits
// and clear slots beyond its stack; it prints as a text that parses back to
// the same operation, and that text is its own fixed point. The bytes also
// drive a sequence of mutations (action, push, labelIs, stackSizeIs) on a
// fresh operation: every refusal is a RangeException that leaves the value
// as it was, and the text of the result reads back with the same action and
// labels (the hidden slots are not part of the text).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Vela/Exception.h"

namespace {

using Nimbo::MplsAction;
using Nimbo::MplsLabelOperation;

[[noreturn]] void fail(char const* what, std::string_view input, std::string const& detail) {
  std::fprintf(stderr, "MplsLabelOperationFuzz: %s\n  input: '%.*s'\n  %s\n", what, int(input.size()),
               input.data(), detail.c_str());
  std::abort();
}

std::optional<MplsLabelOperation> parse(std::string_view text) {
  try {
    return MplsLabelOperation::fromStrep(text);
  } catch (Vela::RangeException const&) {
    return std::nullopt;
  }
}

void checkWellFormed(MplsLabelOperation const& op, std::string_view input) {
  if (op.stackSize() > MplsLabelOperation::maxStackSize) fail("stack deeper than six", input, op.toStrep());
  if (!Vela::isEnumerator(op.operation())) fail("action is no enumerator", input, op.toStrep());
  for (std::size_t i = 0; i < MplsLabelOperation::maxStackSize; ++i) {
    if (op.label(i) > MplsLabelOperation::maxLabel) fail("label wider than 20 bits", input, op.toStrep());
  }
  if (op.labels().size() != op.stackSize()) fail("labels() and stackSize() disagree", input, op.toStrep());
}

// Reads the text back; the same action and labels, and a fixed point.
MplsLabelOperation checkText(MplsLabelOperation const& op, std::string_view input) {
  std::string const text = op.toStrep();
  std::optional<MplsLabelOperation> const back = parse(text);
  if (!back) fail("printed text does not parse", input, text);
  if (back->operation() != op.operation() || back->labels() != op.labels()) {
    fail("printed text parses to another operation", input, text + " -> " + back->toStrep());
  }
  if (back->toStrep() != text)
    fail("printed text is not a fixed point", input, text + " -> " + back->toStrep());
  for (std::size_t i = back->stackSize(); i < MplsLabelOperation::maxStackSize; ++i) {
    if (back->label(i) != 0) fail("parsed operation has a hidden label", input, text);
  }
  return *back;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);

  if (std::optional<MplsLabelOperation> const op = parse(text)) {
    checkWellFormed(*op, text);
    MplsLabelOperation const back = checkText(*op, text);
    // Hidden slots of a parsed value are clear, so the value itself comes back.
    if (!(back == *op)) fail("parsed operation does not come back equal", text, op->toStrep());
    if (back.hash() != op->hash()) fail("equal operations hash differently", text, op->toStrep());
  }

  // Mutations driven by the bytes, four bytes each.
  MplsLabelOperation op;
  for (std::size_t i = 0; i + 4 <= size; i += 4) {
    std::uint8_t const kind = data[i] % 4;
    std::uint32_t const arg = std::uint32_t(data[i + 1]) | (std::uint32_t(data[i + 2]) << 8) |
                              (std::uint32_t(data[i + 3] & 0x1F) << 16);
    MplsLabelOperation const before = op;
    try {
      switch (kind) {
        case 0:
          op.operationIs(static_cast<MplsAction>(data[i + 1] % 6));
          break;
        case 1:
          op.push(arg);
          break;
        case 2:
          op.labelIs(data[i + 1] % 8, arg >> 8);
          break;
        default:
          op.stackSizeIs(data[i + 1] % 8);
          break;
      }
    } catch (Vela::RangeException const&) {
      if (!(op == before))
        fail("refused mutation changed the value", text, before.toStrep() + " -> " + op.toStrep());
    }
    checkWellFormed(op, text);
  }
  checkText(op, text);
  return 0;
}
