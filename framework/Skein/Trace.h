// Levelled trace lines.
//
//   SKEIN_TRACE(8, "handleConfigDirEntry" << " for " << name);
//
// writes one line on the default trace handle when its level is at most the
// handle's level (0 = off; a higher level is more detailed). The level check
// comes before any formatting, so a disabled trace point costs one compare.
// The level is set by Skein::levelIs() or, at start, from the environment
// variable SKEIN_TRACE_LEVEL. Every line written also enters a ring buffer of
// recent lines; Skein::ring() records a line there whatever the level (used
// for the error lines written just before an assertion). Tests install a
// Skein::CaptureSink to read what was traced.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Skein {

struct Line {
  int level;
  std::string text;
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(int level, std::string_view text) = 0;
};

namespace detail {
// The trace level. There is one handle, so the level is the process's; it is
// kept apart from the handle so that a trace point reads it with one load,
// without a call or a check that the handle is made.
inline constinit int level = 0;
}  // namespace detail

// The trace handle: a level and where the lines go.
class Handle {
 public:
  Handle();
  bool enabled(int level) const { return level <= detail::level; }
  int level() const { return detail::level; }
  void levelIs(int level) { detail::level = level; }
  // Lines go to this sink (null: standard error). Returns the previous one.
  Sink* sinkIs(Sink* sink);
  void write(int level, std::string_view text);
  void ring(std::string_view text);

  std::vector<std::string> recent() const;
  std::size_t ringCapacity() const { return ringCapacity_; }
  void ringCapacityIs(std::size_t n);

 private:
  Sink* sink_ = nullptr;
  std::deque<std::string> ring_;
  std::size_t ringCapacity_ = 256;
};

Handle& defaultHandle();

inline bool enabled(int level) { return level <= detail::level; }
inline void levelIs(int level) { defaultHandle().levelIs(level); }
inline void ring(std::string_view text) { defaultHandle().ring(text); }

// Collects every line while alive and raises the level so that the lines of
// interest are written. Restores sink and level when destroyed.
class CaptureSink : public Sink {
 public:
  explicit CaptureSink(int level = 9);
  ~CaptureSink() override;
  CaptureSink(CaptureSink const&) = delete;
  CaptureSink& operator=(CaptureSink const&) = delete;

  void write(int level, std::string_view text) override;
  std::vector<Line> const& lines() const { return lines_; }
  // Whether some line contains `fragment`.
  bool contains(std::string_view fragment) const;
  // Number of lines that contain `fragment`.
  std::size_t count(std::string_view fragment) const;
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
  Sink* previousSink_;
  int previousLevel_;
};

// Writes each line to a stream, prefixed by its level.
class StreamSink : public Sink {
 public:
  explicit StreamSink(std::ostream& os) : os_(os) {}
  void write(int level, std::string_view text) override;

 private:
  std::ostream& os_;
};

}  // namespace Skein

#define SKEIN_TRACE(level, stream_expr)                       \
  do {                                                        \
    if (::Skein::enabled(level)) [[unlikely]] {               \
      std::ostringstream skein_os_;                           \
      skein_os_ << stream_expr;                               \
      ::Skein::defaultHandle().write(level, skein_os_.str()); \
    }                                                         \
  } while (0)
