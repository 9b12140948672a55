#include "framework/Quay/DumpContext.h"

#include <ostream>

#include "framework/Vela/Exception.h"

namespace Quay {

void DumpContext::append(char const* data, std::size_t size) {
  if (out_) {
    out_->write(data, static_cast<std::streamsize>(size));
  } else {
    text_.append(data, size);
  }
}

void DumpContext::vwrite(char const* fmt, va_list args) {
  std::string const text = Vela::vformat(fmt, args);
  append(text.data(), text.size());
}

void DumpContext::write(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vwrite(fmt, args);
  va_end(args);
}

void DumpContext::writeIndented(char const* fmt, ...) {
  indent(indentCount_);
  va_list args;
  va_start(args, fmt);
  vwrite(fmt, args);
  va_end(args);
}

void DumpContext::indent(int n) {
  if (n <= 0) return;
  if (out_) {
    for (int i = 0; i < n; ++i) out_->put(' ');
  } else {
    text_.append(static_cast<std::size_t>(n), ' ');
  }
}

}  // namespace Quay
