#include "framework/Skein/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace Skein {

Handle::Handle() {
  if (char const* env = std::getenv("SKEIN_TRACE_LEVEL")) detail::level = std::atoi(env);
}

Sink* Handle::sinkIs(Sink* sink) {
  Sink* previous = sink_;
  sink_ = sink;
  return previous;
}

void Handle::write(int level, std::string_view text) {
  ring(text);
  if (sink_) {
    sink_->write(level, text);
  } else {
    std::fprintf(stderr, "%d %.*s\n", level, int(text.size()), text.data());
  }
}

void Handle::ring(std::string_view text) {
  if (ringCapacity_ == 0) return;
  if (ring_.size() >= ringCapacity_) ring_.pop_front();
  ring_.emplace_back(text);
}

std::vector<std::string> Handle::recent() const { return {ring_.begin(), ring_.end()}; }

void Handle::ringCapacityIs(std::size_t n) {
  ringCapacity_ = n;
  while (ring_.size() > n) ring_.pop_front();
}

Handle& defaultHandle() {
  static Handle handle;
  return handle;
}

namespace {
// Made at start-up, so that the level from the environment is in force
// before the first trace point reads it.
[[maybe_unused]] Handle const& startupHandle = defaultHandle();
}  // namespace

CaptureSink::CaptureSink(int level)
    : previousSink_(defaultHandle().sinkIs(this)), previousLevel_(defaultHandle().level()) {
  defaultHandle().levelIs(level);
}

CaptureSink::~CaptureSink() {
  defaultHandle().sinkIs(previousSink_);
  defaultHandle().levelIs(previousLevel_);
}

void CaptureSink::write(int level, std::string_view text) { lines_.push_back({level, std::string(text)}); }

bool CaptureSink::contains(std::string_view fragment) const { return count(fragment) > 0; }

std::size_t CaptureSink::count(std::string_view fragment) const {
  std::size_t n = 0;
  for (auto const& line : lines_) {
    if (line.text.find(fragment) != std::string::npos) ++n;
  }
  return n;
}

void StreamSink::write(int level, std::string_view text) { os_ << level << ' ' << text << '\n'; }

}  // namespace Skein
