#include "framework/Vela/Value.h"

#include <cctype>

namespace Vela {

void ValueParser::fail(std::string const& why) const {
  std::string msg = "cannot parse ";
  msg += what_.empty() ? std::string_view("value") : what_;
  msg += " at offset " + std::to_string(pos_) + ": " + why;
  throw RangeException(msg);
}

std::string ValueParser::quoted() {
  if (!consume("'")) fail("expected a quoted string");
  std::string out;
  while (!atEnd()) {
    char c = text_[pos_++];
    if (c == '\'') return out;
    if (c == '\\') {
      if (atEnd()) break;
      c = text_[pos_++];
    }
    out += c;
  }
  fail("unterminated quoted string");
}

std::string_view ValueParser::token() {
  std::size_t start = pos_;
  while (!atEnd()) {
    char c = text_[pos_];
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '+' || c == '.' || c == '_') {
      ++pos_;
    } else {
      break;
    }
  }
  return text_.substr(start, pos_ - start);
}

void writeQuoted(std::string& out, std::string_view s) {
  out += '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
}

}  // namespace Vela
