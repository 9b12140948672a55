// Exceptions and fatal assertions of the framework.
//
// Out-of-range values raise Vela::RangeException; broken internal invariants
// raise Vela::InternalException or fail a fatal assertion. An assertion carries
// the exact condition text; by default it prints the text and aborts. The
// handler is replaceable so that tests can catch assertions and read the text.
#pragma once

#include <cstdarg>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Vela {

class Exception : public std::runtime_error {
 public:
  explicit Exception(std::string const& message) : std::runtime_error(message) {}
  std::string message() const { return what(); }
};

class RangeException : public Exception {
 public:
  using Exception::Exception;
};

class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// printf-style formatting into a std::string (used for formatted error texts).
std::string format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(char const* fmt, va_list args);

// Where a failed assertion was raised.
struct AssertionSite {
  std::string_view condition;
  std::string_view file;
  int line = 0;
  std::string_view function;
};

// Called for every failed fatal assertion. It must not return: the default
// prints "assertion failed: <condition>" and aborts; a test handler throws.
using AssertionHandler = std::function<void(AssertionSite const&)>;

// Installs a handler and returns the previous one.
AssertionHandler assertionHandlerIs(AssertionHandler handler);

[[noreturn]] void assertionFailed(AssertionSite const& site);

// Thrown by the test handler installed through ScopedAssertionCatcher.
class AssertionFailure : public Exception {
 public:
  explicit AssertionFailure(std::string const& condition) : Exception(condition) {}
  std::string condition() const { return what(); }
};

// While alive, failed assertions throw Vela::AssertionFailure instead of
// aborting. Tests use it to check the exact assertion texts.
class ScopedAssertionCatcher {
 public:
  ScopedAssertionCatcher();
  ~ScopedAssertionCatcher();
  ScopedAssertionCatcher(ScopedAssertionCatcher const&) = delete;
  ScopedAssertionCatcher& operator=(ScopedAssertionCatcher const&) = delete;

 private:
  AssertionHandler previous_;
};

}  // namespace Vela

// Fatal assertion whose failure text is the stringified condition.
#define VELA_ASSERT(cond)                                                                  \
  do {                                                                                     \
    if (!(cond)) [[unlikely]]                                                              \
      ::Vela::assertionFailed(::Vela::AssertionSite{#cond, __FILE__, __LINE__, __func__}); \
  } while (0)

// Fatal assertion with a fixed failure text (the text operators see), checked on cond.
#define VELA_ASSERT_TEXT(cond, text)                                                      \
  do {                                                                                    \
    if (!(cond)) [[unlikely]]                                                             \
      ::Vela::assertionFailed(::Vela::AssertionSite{text, __FILE__, __LINE__, __func__}); \
  } while (0)
