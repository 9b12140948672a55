#include "framework/Vela/Exception.h"

#include <cstdio>
#include <cstdlib>

#include "framework/Vela/Ptr.h"

namespace Vela {

RefCounted::~RefCounted() { VELA_ASSERT(refCount_ == 0); }

std::string vformat(char const* fmt, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int const n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string out(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(out.data(), out.size() + 1, fmt, args);
  return out;
}

std::string format(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string out = vformat(fmt, args);
  va_end(args);
  return out;
}

namespace {

void defaultAssertionHandler(AssertionSite const& site) {
  std::fprintf(stderr, "assertion failed: %.*s (%.*s:%d in %.*s)\n", int(site.condition.size()),
               site.condition.data(), int(site.file.size()), site.file.data(), site.line,
               int(site.function.size()), site.function.data());
  std::fflush(stderr);
  std::abort();
}

AssertionHandler& handlerSlot() {
  static AssertionHandler handler = defaultAssertionHandler;
  return handler;
}

}  // namespace

AssertionHandler assertionHandlerIs(AssertionHandler handler) {
  return std::exchange(handlerSlot(), handler ? std::move(handler) : defaultAssertionHandler);
}

void assertionFailed(AssertionSite const& site) {
  handlerSlot()(site);
  // A handler that returns would let the caller run on a broken invariant.
  defaultAssertionHandler(site);
  std::abort();
}

ScopedAssertionCatcher::ScopedAssertionCatcher()
    : previous_(assertionHandlerIs(
          [](AssertionSite const& site) { throw AssertionFailure(std::string(site.condition)); })) {}

ScopedAssertionCatcher::~ScopedAssertionCatcher() { assertionHandlerIs(std::move(previous_)); }

}  // namespace Vela
