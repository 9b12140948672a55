// Hashing for keyed collections.
//
// Every key type yields a 32-bit hash. A type provides it through a member
// `std::uint32_t hash() const` (the tunnel identifiers fix their own
// algorithms); integers, strings and enumerations have defaults here.
// Collections order their members by the bit-reversed hash (see HashMap.h).
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Vela {

constexpr std::uint32_t bitReverse32(std::uint32_t x) noexcept {
  x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
  x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
  x = ((x >> 4) & 0x0F0F0F0Fu) | ((x & 0x0F0F0F0Fu) << 4);
  return __builtin_bswap32(x);
}

// Whether two arrays of unsigned integers hold the same values, compared a
// 64-bit word at a time. Address bytes and label slots are compared on every
// via lookup; the defaulted comparison of such arrays calls the library's
// memcmp, which costs more than the compare itself.
template <class T, std::size_t N>
constexpr bool sameWords(std::array<T, N> const& a, std::array<T, N> const& b) noexcept {
  static_assert(std::is_unsigned_v<T> && sizeof(T) * N % sizeof(std::uint64_t) == 0,
                "whole 64-bit words of unsigned integers");
  using Words = std::array<std::uint64_t, sizeof(T) * N / sizeof(std::uint64_t)>;
  Words const x = std::bit_cast<Words>(a), y = std::bit_cast<Words>(b);
  std::uint64_t differ = 0;
  for (std::size_t i = 0; i < x.size(); ++i) differ |= x[i] ^ y[i];
  return differ == 0;
}

// Finalizer of MurmurHash3: a cheap, well-mixing hash of one 32-bit word.
constexpr std::uint32_t mix32(std::uint32_t h) noexcept {
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

constexpr std::uint32_t mix64(std::uint64_t v) noexcept {
  v ^= v >> 33;
  v *= 0xff51afd7ed558ccdull;
  v ^= v >> 33;
  v *= 0xc4ceb9fe1a85ec53ull;
  v ^= v >> 33;
  return static_cast<std::uint32_t>(v);
}

// A few 64-bit words hashed in order: each is folded into a running 64-bit
// state, which is mixed before the next, so every bit of every word reaches
// the whole result. Cheaper than a mix and a combine per 32-bit part.
template <std::size_t N>
constexpr std::uint32_t hashWords(std::uint64_t seed, std::array<std::uint64_t, N> const& words) noexcept {
  std::uint64_t h = seed;
  for (std::uint64_t const w : words) {
    h ^= w;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
  }
  return mix64(h);
}

// Folds one more hash into a running hash (order-sensitive).
constexpr std::uint32_t hashCombine(std::uint32_t seed, std::uint32_t h) noexcept {
  return seed ^ (h + 0x9e3779b9u + (seed << 6) + (seed >> 2));
}

inline std::uint32_t hashBytes(void const* data, std::size_t n) noexcept {
  // FNV-1a over the bytes, then mixed.
  auto const* p = static_cast<unsigned char const*>(data);
  std::uint32_t h = 2166136261u;
  for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
  return mix32(h);
}

template <class K>
concept HasHashMember = requires(K const& k) {
  { k.hash() } -> std::convertible_to<std::uint32_t>;
};

template <class K>
struct Hash;

template <class K, class V, class H, class Eq>
class HashMap;

// A key with its bit-reversed hash (the collections' order, HashMap.h)
// worked out once: for code that finds the same key in several maps and
// sets hashing it with H. Their Hashed overloads take the stored order as
// the key's own. A key converts to it (hashing once), so a function taking
// a Hashed key takes a plain one too; it prints as the key.
template <class K, class H = Hash<K>>
struct Hashed {
  Hashed(K const& k)  // NOLINT(google-explicit-constructor): see above
      : key(k), rev(bitReverse32(static_cast<std::uint32_t>(H()(k)))) {}
  K key;
  std::uint32_t rev;

 private:
  // A map's iterator hands out the reversed hash it keeps for the member.
  template <class, class, class, class>
  friend class HashMap;
  Hashed(K const& k, std::uint32_t reversed) : key(k), rev(reversed) {}
};

template <class K, class H>
std::ostream& operator<<(std::ostream& os, Hashed<K, H> const& k) {
  return os << k.key;
}

template <HasHashMember K>
struct Hash<K> {
  std::uint32_t operator()(K const& k) const noexcept { return static_cast<std::uint32_t>(k.hash()); }
};

template <class K>
requires(std::is_integral_v<K> || std::is_enum_v<K>) struct Hash<K> {
  std::uint32_t operator()(K k) const noexcept { return mix64(static_cast<std::uint64_t>(k)); }
};

template <>
struct Hash<std::string> {
  std::uint32_t operator()(std::string const& s) const noexcept { return hashBytes(s.data(), s.size()); }
};

template <class K>
requires std::is_floating_point_v<K>
struct Hash<K> {
  std::uint32_t operator()(K k) const noexcept {
    if (k == K(0)) k = K(0);  // +0 and -0 are equal, so they hash alike
    return hashBytes(&k, sizeof k);
  }
};

template <>
struct Hash<bool> {
  std::uint32_t operator()(bool b) const noexcept { return b ? 1u : 0u; }
};

template <class K>
std::uint32_t hashOf(K const& k) noexcept {
  return Hash<K>()(k);
}

}  // namespace Vela
