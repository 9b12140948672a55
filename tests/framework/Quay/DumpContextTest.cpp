// Dump output: the indent helper against the "%*c" idiom of dump formats,
// and the two destinations (collected string, stream).
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "framework/Quay/DumpContext.h"

namespace {

TEST(DumpContextTest, IndentMatchesStarCFromWidthOneAndWritesNothingAtZero) {
  for (int n = 1; n <= 9; ++n) {
    Quay::DumpContext viaFormat;
    viaFormat.write("%*centries #%u\n", n, ' ', 3u);
    Quay::DumpContext viaIndent;
    viaIndent.indent(n);
    viaIndent.write("entries #%u\n", 3u);
    EXPECT_EQ(viaIndent.str(), viaFormat.str()) << "width " << n;
  }
  // The reason for the helper: "%*c" with width 0 still writes one blank.
  Quay::DumpContext zero;
  zero.write("%*cx|", 0, ' ');
  zero.indent(0);
  zero.indent(-2);
  zero.write("y");
  EXPECT_EQ(zero.str(), " x|y");
}

TEST(DumpContextTest, WriteIndentedStartsAtIndentCount) {
  Quay::DumpContext context;
  EXPECT_EQ(context.indentCount(), 0);
  context.writeIndented("TunnelRib converged %s\n", "true");
  context.indentCountIs(4);
  context.writeIndented("%s metric %u\n", "10.0.0.1/32", 20u);
  EXPECT_EQ(context.str(), "TunnelRib converged true\n    10.0.0.1/32 metric 20\n");
  context.clear();
  EXPECT_EQ(context.str(), "");
}

TEST(DumpContextTest, StreamContextWritesThrough) {
  std::ostringstream out;
  Quay::DumpContext context(out);
  context.indent(2);
  std::string const longText(300, 'z');
  context.write("%s %d\n", longText.c_str(), 7);
  EXPECT_EQ(out.str(), "  " + longText + " 7\n");
  EXPECT_EQ(context.str(), "");
}

}  // namespace
