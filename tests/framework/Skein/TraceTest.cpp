// Levelled trace: filtering, capture, the ring buffer, and no formatting
// work when a level is off.
#include <gtest/gtest.h>

#include "framework/Skein/Trace.h"

namespace {

struct Expensive {
  int* formatted;
};

std::ostream& operator<<(std::ostream& os, Expensive const& e) {
  ++*e.formatted;
  return os << "expensive";
}

TEST(TraceTest, LinesAboveTheLevelAreNotFormatted) {
  Skein::CaptureSink capture(6);
  int formatted = 0;
  SKEIN_TRACE(7, "detail " << Expensive{&formatted});
  SKEIN_TRACE(6, "progress " << Expensive{&formatted});
  EXPECT_EQ(formatted, 1);
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].text, "progress expensive");
  EXPECT_EQ(capture.lines()[0].level, 6);
}

TEST(TraceTest, CaptureRestoresTheLevel) {
  Skein::levelIs(0);
  {
    Skein::CaptureSink capture(8);
    EXPECT_TRUE(Skein::enabled(8));
  }
  EXPECT_FALSE(Skein::enabled(1));
}

TEST(TraceTest, RingKeepsTheMostRecentLinesWhateverTheLevel) {
  Skein::levelIs(0);
  auto& handle = Skein::defaultHandle();
  handle.ringCapacityIs(3);
  for (int i = 0; i < 5; ++i) Skein::ring("line " + std::to_string(i));
  EXPECT_EQ(handle.recent(), (std::vector<std::string>{"line 2", "line 3", "line 4"}));
  handle.ringCapacityIs(256);
}

TEST(TraceTest, CountFindsFragments) {
  Skein::CaptureSink capture(8);
  SKEIN_TRACE(8, "a tunnel ID 5");
  SKEIN_TRACE(8, "b tunnel ID 6");
  EXPECT_EQ(capture.count("tunnel ID"), 2u);
  EXPECT_TRUE(capture.contains("ID 6"));
  EXPECT_FALSE(capture.contains("ID 7"));
}

}  // namespace
