// What a call threw: the exact text of an exception or of a failed fatal
// assertion, for the tests that pin those texts. Nothing thrown, or an
// exception of another type, gives a "<...>" marker that no real text equals.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "framework/Vela/Exception.h"

// Called in a handler: the marker for what is being handled.
inline std::string anotherThrown() {
  try {
    throw;
  } catch (std::exception const& e) {
    return std::string("<another exception thrown: ") + e.what() + ">";
  } catch (...) {
    return "<a non-exception thrown>";
  }
}

// The what() of the E that `f` throws.
template <class E = std::exception, class F>
std::string thrownText(F&& f) {
  try {
    std::forward<F>(f)();
  } catch (E const& e) {
    return e.what();
  } catch (...) {
    return anotherThrown();
  }
  return "<nothing thrown>";
}

// The text of the fatal assertion that `f` fails; the assertion throws instead
// of aborting while the text is read.
template <class F>
std::string assertionText(F&& f) {
  Vela::ScopedAssertionCatcher catcher;
  return thrownText<Vela::AssertionFailure>(std::forward<F>(f));
}

// Runs `f`, which must throw a Vela::RangeException whose text contains `fragment`.
template <class F>
void expectRangeError(F&& f, std::string const& fragment) {
  try {
    std::forward<F>(f)();
    ADD_FAILURE() << "no RangeException; expected one mentioning \"" << fragment << "\"";
  } catch (Vela::RangeException const& e) {
    EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
  }
}

// A text a parser must refuse, and a fragment of the reason it gives.
struct RejectedText {
  char const* text;
  char const* why;
};

// `parse` refuses each text with a RangeException that names it an invalid
// `what` and gives its reason.
template <class Parse>
void expectRejected(std::string const& what, Parse&& parse, std::vector<RejectedText> const& cases) {
  for (RejectedText const& c : cases) {
    SCOPED_TRACE(c.text);
    expectRangeError([&] { parse(c.text); }, "invalid " + what + " '" + c.text + "'");
    expectRangeError([&] { parse(c.text); }, c.why);
  }
}
