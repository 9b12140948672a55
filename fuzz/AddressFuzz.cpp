// Fuzzes the address parsers: IPv4 and IPv6 addresses (Nimbo::IpAddr,
// Nimbo::Ip6Addr, Nimbo::IpGenAddr), prefixes (Nimbo::IpGenPrefix) and
// Ethernet addresses (Nimbo::EthAddr).
//
// The input is one text, given to every parser. Each either succeeds or
// raises Vela::RangeException. A value that parses prints as a text that
// parses back to the same value, and that text is its own fixed point; equal
// values hash alike. The input's bytes also make values directly (sixteen
// address bytes, a family, a prefix length, six Ethernet bytes), and those
// survive their texts the same way.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "framework/Nimbo/EthAddr.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Exception.h"

namespace {

using Nimbo::EthAddr;
using Nimbo::Ip6Addr;
using Nimbo::IpAddr;
using Nimbo::IpGenAddr;
using Nimbo::IpGenPrefix;

[[noreturn]] void fail(char const* type, char const* what, std::string_view input,
                       std::string const& detail) {
  std::fprintf(stderr, "AddressFuzz: %s: %s\n  input: '%.*s'\n  %s\n", type, what, int(input.size()),
               input.data(), detail.c_str());
  std::abort();
}

template <class T>
std::optional<T> parse(std::string_view text) {
  try {
    return T::fromStrep(text);
  } catch (Vela::RangeException const&) {
    return std::nullopt;
  }
}

template <class T>
void checkRoundTrip(char const* type, T const& value, std::string_view input) {
  std::string const text = value.toStrep();
  std::optional<T> const back = parse<T>(text);
  if (!back) fail(type, "printed text does not parse", input, text);
  if (!(*back == value))
    fail(type, "printed text parses to another value", input, text + " -> " + back->toStrep());
  if (back->toStrep() != text)
    fail(type, "printed text is not a fixed point", input, text + " -> " + back->toStrep());
  if (back->hash() != value.hash()) fail(type, "equal values hash differently", input, text);
  if (*back < value || value < *back) fail(type, "equal values are ordered", input, text);
}

template <class T>
std::optional<T> parseAndCheck(char const* type, std::string_view text) {
  std::optional<T> const value = parse<T>(text);
  if (value) checkRoundTrip(type, *value, text);
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);

  auto const v4 = parseAndCheck<IpAddr>("IpAddr", text);
  auto const v6 = parseAndCheck<Ip6Addr>("Ip6Addr", text);
  auto const gen = parseAndCheck<IpGenAddr>("IpGenAddr", text);
  auto const prefix = parseAndCheck<IpGenPrefix>("IpGenPrefix", text);
  parseAndCheck<EthAddr>("EthAddr", text);

  // The generic address reads what the family parsers read.
  if (v4 && !(gen && *gen == IpGenAddr(*v4)))
    fail("IpGenAddr", "IPv4 text read differently", text, v4->toStrep());
  if (v6 && !(gen && *gen == IpGenAddr(*v6)))
    fail("IpGenAddr", "IPv6 text read differently", text, v6->toStrep());
  if (gen) {
    if (!gen->isEmpty() && !(prefix && *prefix == IpGenPrefix::hostPrefix(*gen))) {
      fail("IpGenPrefix", "an address is not read as its host prefix", text, gen->toStrep());
    }
    if (gen->isV4() && gen->v4().toStrep() != gen->toStrep())
      fail("IpGenAddr", "v4() differs", text, gen->toStrep());
    if (gen->isV6() && gen->v6().toStrep() != gen->toStrep())
      fail("IpGenAddr", "v6() differs", text, gen->toStrep());
  }
  if (prefix && !prefix->isEmpty()) {
    if (!prefix->contains(prefix->address()))
      fail("IpGenPrefix", "prefix misses its own address", text, prefix->toStrep());
    if (!prefix->contains(*prefix))
      fail("IpGenPrefix", "prefix does not contain itself", text, prefix->toStrep());
  }

  // Values made from the bytes.
  if (size >= 24) {
    Ip6Addr::Bytes bytes{};
    std::copy(data, data + 16, bytes.begin());
    std::uint8_t const family = data[16] % 3;
    std::uint8_t const len = data[17];
    IpGenAddr addr;
    if (family == 1) {
      addr = IpAddr((std::uint32_t(bytes[0]) << 24) | (std::uint32_t(bytes[1]) << 16) |
                    (std::uint32_t(bytes[2]) << 8) | bytes[3]);
    } else if (family == 2) {
      addr = Ip6Addr(bytes);
    }
    checkRoundTrip("IpGenAddr", addr, text);
    try {
      IpGenPrefix const p(addr, len);
      checkRoundTrip("IpGenPrefix", p, text);
      if (!p.isEmpty() && !p.contains(addr))
        fail("IpGenPrefix", "prefix misses the address it was made of", text, p.toStrep());
    } catch (Vela::RangeException const&) {
      if (len <= addr.maxLen())
        fail("IpGenPrefix", "valid length refused", text, addr.toStrep() + "/" + std::to_string(len));
    }
    EthAddr const eth(data[18], data[19], data[20], data[21], data[22], data[23]);
    checkRoundTrip("EthAddr", eth, text);
    if (EthAddr::fromValue(eth.value()) != eth)
      fail("EthAddr", "fromValue(value()) differs", text, eth.toStrep());
  }
  return 0;
}
