// Value types: declare the fields once, get equality, ordering, hash, the
// textual form and parsing from it.
//
// A value type derives from Vela::ValueTag and lists its fields in
// declaration order:
//
//   class Via : public Vela::ValueTag {
//    public:
//     static constexpr char const* valueTypeName = "Tunnel::TunnelTable::Via";
//     static constexpr auto valueFields() {
//       return std::make_tuple(Vela::field("nexthop", &Via::nexthop_),
//                              Vela::field("intfId", &Via::intfId_));
//     }
//    ...
//   };
//
// From that list the framework derives `==`, a lexicographic `<`, the hash
// (Vela::Hash), the stream output and the textual form
//   Value('Tunnel::TunnelTable::Via', ** {'nexthop': '10.0.0.1', 'intfId': 'Ethernet1'})
// and Vela::parseValue<T>(text), its inverse. A derived value type lists its
// base's fields first (std::tuple_cat(Base::valueFields(), ...)). A type whose
// behaviour is fixed differently (a conjunctive `<`, a hash fixed by an
// algorithm) writes that one operator itself; the hand-written one wins.
//
// Field renderings in the textual form: integers in decimal, bool as True or
// False, floating point in its shortest round-trip form, strings single-quoted,
// enumerations by enumerator name, nested values in their own textual form,
// set-valued fields (and queues) as None, and types with a text form of their
// own (addresses, prefixes, interfaces) as that text, single-quoted. Other
// types plug in by specialising Vela::ValueTraits<T>.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "framework/Vela/Exception.h"
#include "framework/Vela/Hash.h"

namespace Vela {

struct ValueTag {};

template <class C, class T>
struct Field {
  char const* name;
  T C::*member;
  using Type = T;
};

template <class C, class T>
constexpr Field<C, T> field(char const* name, T C::*member) {
  return {name, member};
}

template <class T>
concept ValueType = std::is_base_of_v<ValueTag, T> && requires {
  T::valueFields();
  T::valueTypeName;
};

// Reads text produced by the textual forms. Errors name what was expected and
// where, and raise Vela::RangeException.
class ValueParser {
 public:
  ValueParser(std::string_view text, std::string_view what) : text_(text), what_(what) {}

  std::size_t offset() const { return pos_; }
  bool atEnd() const { return pos_ >= text_.size(); }
  std::string_view rest() const { return text_.substr(pos_); }
  bool peek(std::string_view s) const { return rest().substr(0, s.size()) == s; }
  bool consume(std::string_view s) {
    if (!peek(s)) return false;
    pos_ += s.size();
    return true;
  }
  void expect(std::string_view s) {
    if (!consume(s)) fail("expected \"" + std::string(s) + "\"");
  }
  void skip(std::size_t n) { pos_ += n; }
  [[noreturn]] void fail(std::string const& why) const;

  // A single-quoted string with \\ and \' escapes.
  std::string quoted();
  // A run of characters that may form a number or identifier.
  std::string_view token();

 private:
  std::string_view text_;
  std::string_view what_;
  std::size_t pos_ = 0;
};

void writeQuoted(std::string& out, std::string_view s);

template <class T>
struct ValueTraits;

template <class T>
void writeValue(std::string& out, T const& v) {
  ValueTraits<T>::write(out, v);
}

template <class T>
T readValue(ValueParser& p) {
  return ValueTraits<T>::read(p);
}

template <class T>
std::string valueToStrep(T const& v) {
  std::string out;
  writeValue(out, v);
  return out;
}

// Parses the whole text as a T; trailing text is an error.
template <class T>
T parseValue(std::string_view text, std::string_view what = {}) {
  ValueParser p(text, what);
  T v = readValue<T>(p);
  if (!p.atEnd()) p.fail("unexpected trailing text");
  return v;
}

// --- Built-in renderings -------------------------------------------------

template <>
struct ValueTraits<bool> {
  static void write(std::string& out, bool v) { out += v ? "True" : "False"; }
  static bool read(ValueParser& p) {
    if (p.consume("True")) return true;
    if (p.consume("False")) return false;
    p.fail("expected True or False");
  }
};

// Numbers: integers in decimal, floating point in its shortest round-trip
// form; reading checks the range of T.
template <class T>
requires(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) struct ValueTraits<T> {
  static void write(std::string& out, T v) {
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
  }
  static T read(ValueParser& p) {
    auto tok = p.token();
    T v{};
    auto r = std::from_chars(tok.data(), tok.data() + tok.size(), v);
    if (tok.empty() || r.ec != std::errc() || r.ptr != tok.data() + tok.size()) {
      p.fail("expected a number in range, got \"" + std::string(tok) + "\"");
    }
    return v;
  }
};

template <>
struct ValueTraits<std::string> {
  static void write(std::string& out, std::string const& v) { writeQuoted(out, v); }
  static std::string read(ValueParser& p) { return p.quoted(); }
};

// Types with a text form of their own: `std::string toStrep() const` and
// `static T fromStrep(std::string_view)` (which raises RangeException).
template <class T>
concept HasStrep = requires(T const& v, std::string_view s) {
  { v.toStrep() } -> std::convertible_to<std::string>;
  { T::fromStrep(s) } -> std::same_as<T>;
};

template <class T>
requires(HasStrep<T> && !ValueType<T>) struct ValueTraits<T> {
  static void write(std::string& out, T const& v) { writeQuoted(out, v.toStrep()); }
  static T read(ValueParser& p) { return T::fromStrep(p.quoted()); }
};

// Set-valued fields and queues: rendered as None, read back empty.
template <class T>
struct NoneValueTraits {
  static void write(std::string& out, T const&) { out += "None"; }
  static T read(ValueParser& p) {
    p.expect("None");
    return T{};
  }
};

template <ValueType T>
struct ValueTraits<T> {
  static void write(std::string& out, T const& v) {
    out += "Value('";
    out += T::valueTypeName;
    out += "', ** {";
    bool first = true;
    std::apply(
        [&](auto const&... f) {
          (
              [&] {
                if (!first) out += ", ";
                first = false;
                out += '\'';
                out += f.name;
                out += "': ";
                writeValue(out, v.*(f.member));
              }(),
              ...);
        },
        T::valueFields());
    out += "})";
  }
  static T read(ValueParser& p) {
    T v{};
    p.expect("Value('");
    p.expect(T::valueTypeName);
    p.expect("', ** {");
    bool first = true;
    std::apply(
        [&](auto const&... f) {
          (
              [&] {
                if (!first) p.expect(", ");
                first = false;
                p.expect("'");
                p.expect(f.name);
                p.expect("': ");
                using F = typename std::remove_cvref_t<decltype(f)>::Type;
                v.*(f.member) = readValue<F>(p);
              }(),
              ...);
        },
        T::valueFields());
    p.expect("})");
    return v;
  }
};

// --- Derived operations over the field list -------------------------------

template <ValueType T>
bool valueEqual(T const& a, T const& b) {
  return std::apply([&](auto const&... f) { return ((a.*(f.member) == b.*(f.member)) && ...); },
                    T::valueFields());
}

template <ValueType T>
bool valueLess(T const& a, T const& b) {
  bool result = false;
  std::apply(
      [&](auto const&... f) {
        // Lexicographic: the first field that differs decides.
        (void)((a.*(f.member) < b.*(f.member)   ? (result = true, true)
                : b.*(f.member) < a.*(f.member) ? (result = false, true)
                                                : false) ||
               ...);
      },
      T::valueFields());
  return result;
}

template <ValueType T>
std::uint32_t valueHash(T const& v) {
  std::uint32_t h = 0x2545f491u;
  std::apply([&](auto const&... f) { ((h = hashCombine(h, hashOf(v.*(f.member)))), ...); }, T::valueFields());
  return mix32(h);
}

template <ValueType T>
requires(!HasHashMember<T>) struct Hash<T> {
  std::uint32_t operator()(T const& v) const noexcept { return valueHash(v); }
};

// Found by argument-dependent lookup for every type that derives from
// ValueTag. A type's own operator takes precedence.
template <ValueType T>
bool operator==(T const& a, T const& b) {
  return valueEqual(a, b);
}

template <ValueType T>
bool operator<(T const& a, T const& b) {
  return valueLess(a, b);
}

template <ValueType T>
std::ostream& operator<<(std::ostream& os, T const& v) {
  return os << valueToStrep(v);
}

}  // namespace Vela
