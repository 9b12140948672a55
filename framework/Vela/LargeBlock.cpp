#include "framework/Vela/LargeBlock.h"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Vela {

bool adviseLargeBlock(void* p, std::size_t bytes) noexcept {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (!p || bytes < kLargeBlockBytes) return false;
  constexpr std::uintptr_t kLargePage = std::uintptr_t(2) << 20;
  auto const start = reinterpret_cast<std::uintptr_t>(p);
  std::uintptr_t const from = (start + kLargePage - 1) & ~(kLargePage - 1);
  std::uintptr_t const to = (start + bytes) & ~(kLargePage - 1);
  if (to <= from) return false;
  // Fails harmlessly where large pages are off or the block is not mapped
  // memory of ours alone; the block then keeps small pages.
  return ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE) == 0;
#else
  static_cast<void>(p);
  static_cast<void>(bytes);
  return false;
#endif
}

}  // namespace Vela
