// A hint to the processor to start loading memory that will be read soon.
//
// Loops that follow pointers from one keyed collection into blocks of their
// own spend most of their time waiting for those blocks; asking for them a
// few iterations early lets the loads overlap. A hint only: it never faults,
// whatever the address, and compiles to nothing where unsupported.
#pragma once

#include <cstddef>

namespace Vela {

inline constexpr std::size_t kCacheLine = 64;

inline void prefetch(void const* p) noexcept {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(p);
  // The compiler counts a prefetch as no effect at all, and would delete
  // calls to a function that only prefetches; this empty statement is one.
  asm volatile("");
#else
  (void)p;
#endif
}

// Every cache line of [p, p + bytes), up to `maxLines` of them.
inline void prefetchBytes(void const* p, std::size_t bytes, std::size_t maxLines = 4) noexcept {
  auto const* b = static_cast<char const*>(p);
  for (std::size_t off = 0, n = 0; off < bytes && n < maxLines; off += kCacheLine, ++n) prefetch(b + off);
}

}  // namespace Vela
