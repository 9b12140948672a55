// Where entities write their dump.
//
// An entity dumps its state with dumpState(Quay::DumpContext& context, int
// indent): one line per fact, each beginning with `indent` blanks, children
// dumped at a deeper indent. The context collects the text in a string
// (str()) or passes it straight on to a stream given at construction.
//
// Dump formats are printf formats. They traditionally indent with "%*c" and a
// blank: width n prints n blanks for n >= 1, but width 0 still prints one
// blank (a %c conversion always writes its character). indent(n) writes
// exactly n blanks, none for n <= 0, so
//   context.indent(indent);
//   context.write("TunnelRib converged %s\n", converged ? "true" : "false");
// gives the same line as "%*cTunnelRib converged %s\n" for indent >= 1 and
// the unindented "TunnelRib converged %s\n" for indent 0.
//
// indentCount is the indent the dump started at, for dumpers that are handed
// only the context; writeIndented(fmt, ...) begins a line with that many
// blanks.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <iosfwd>
#include <string>

namespace Quay {

class DumpContext {
 public:
  // Collects the text; read it with str().
  DumpContext() = default;
  // Writes the text to `out` as it comes; str() stays empty.
  explicit DumpContext(std::ostream& out) : out_(&out) {}

  DumpContext(DumpContext const&) = delete;
  DumpContext& operator=(DumpContext const&) = delete;

  int indentCount() const { return indentCount_; }
  void indentCountIs(int n) { indentCount_ = n; }

  void write(char const* fmt, ...) __attribute__((format(printf, 2, 3)));
  void vwrite(char const* fmt, va_list args);
  // indent(indentCount()), then write(fmt, ...).
  void writeIndented(char const* fmt, ...) __attribute__((format(printf, 2, 3)));
  // Exactly n blanks; nothing for n <= 0.
  void indent(int n);

  std::string const& str() const { return text_; }
  void clear() { text_.clear(); }

 private:
  void append(char const* data, std::size_t size);

  std::ostream* out_ = nullptr;
  std::string text_;
  int indentCount_ = 0;
};

}  // namespace Quay
