#include "framework/Vela/LargeBlock.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Vela {

namespace {

constexpr std::uintptr_t kLargePage = std::uintptr_t(2) << 20;

std::atomic<std::size_t> mapped{0};

#if defined(__linux__) && defined(MREMAP_MAYMOVE) && defined(MREMAP_FIXED)
constexpr bool kMapsLargeBlocks = true;

std::size_t mappedBytes(std::size_t bytes) { return (bytes + kLargePage - 1) & ~(kLargePage - 1); }

// An address range of `bytes` (a multiple of the large page) starting on a
// large page, reserved by an inaccessible mapping; null when there is none.
void* reserveAligned(std::size_t bytes) {
  std::size_t const span = bytes + kLargePage;
  void* const p = ::mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  auto const start = reinterpret_cast<std::uintptr_t>(p);
  std::uintptr_t const from = (start + kLargePage - 1) & ~(kLargePage - 1);
  if (from > start) ::munmap(p, from - start);
  std::uintptr_t const end = start + span;
  if (end > from + bytes) ::munmap(reinterpret_cast<void*>(from + bytes), end - (from + bytes));
  return reinterpret_cast<void*>(from);
}

void* mapLarge(std::size_t bytes) {
  std::size_t const length = mappedBytes(bytes);
  void* const at = reserveAligned(length);
  if (!at) throw std::bad_alloc();
  void* const p = ::mmap(at, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (p == MAP_FAILED) {
    ::munmap(at, length);
    throw std::bad_alloc();
  }
  adviseLargeBlock(p, length);
  mapped.fetch_add(length, std::memory_order_relaxed);
  return p;
}

// Moves the pages of a mapped block to a larger or smaller aligned mapping.
void* remapLarge(void* block, std::size_t was, std::size_t bytes) {
  std::size_t const from = mappedBytes(was), to = mappedBytes(bytes);
  if (from == to) return block;
  if (to < from) {
    ::munmap(static_cast<unsigned char*>(block) + to, from - to);
    mapped.fetch_sub(from - to, std::memory_order_relaxed);
    return block;
  }
  void* const at = reserveAligned(to);
  if (!at) throw std::bad_alloc();
  void* const p = ::mremap(block, from, to, MREMAP_MAYMOVE | MREMAP_FIXED, at);
  if (p == MAP_FAILED) {
    ::munmap(at, to);
    throw std::bad_alloc();
  }
  adviseLargeBlock(p, to);
  mapped.fetch_add(to - from, std::memory_order_relaxed);
  return p;
}

void unmapLarge(void* block, std::size_t bytes) {
  ::munmap(block, mappedBytes(bytes));
  mapped.fetch_sub(mappedBytes(bytes), std::memory_order_relaxed);
}
#else
constexpr bool kMapsLargeBlocks = false;
void* mapLarge(std::size_t) { return nullptr; }
void* remapLarge(void*, std::size_t, std::size_t) { return nullptr; }
void unmapLarge(void*, std::size_t) {}
#endif

bool isLarge(std::size_t bytes) { return kMapsLargeBlocks && bytes >= kLargeBlockBytes; }

}  // namespace

void* allocateBlock(std::size_t bytes) {
  if (isLarge(bytes)) return mapLarge(bytes);
  void* const p = std::malloc(bytes);
  if (!p) throw std::bad_alloc();
  return p;
}

void* reallocateBlock(void* block, std::size_t was, std::size_t bytes) {
  if (!block) return allocateBlock(bytes);
  if (isLarge(was) && isLarge(bytes)) return remapLarge(block, was, bytes);
  if (!isLarge(was) && !isLarge(bytes)) {
    void* const p = std::realloc(block, bytes);
    if (!p) throw std::bad_alloc();
    return p;
  }
  // Across the threshold: from malloc to a mapping or back.
  void* const p = allocateBlock(bytes);
  std::memcpy(p, block, was < bytes ? was : bytes);
  freeBlock(block, was);
  return p;
}

void freeBlock(void* block, std::size_t bytes) noexcept {
  if (!block) return;
  if (isLarge(bytes)) {
    unmapLarge(block, bytes);
  } else {
    std::free(block);
  }
}

std::size_t mappedBlockBytes() noexcept { return mapped.load(std::memory_order_relaxed); }

bool adviseLargeBlock(void* p, std::size_t bytes) noexcept {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (!p || bytes < kLargeBlockBytes) return false;
  auto const start = reinterpret_cast<std::uintptr_t>(p);
  std::uintptr_t const from = (start + kLargePage - 1) & ~(kLargePage - 1);
  std::uintptr_t const to = (start + bytes) & ~(kLargePage - 1);
  if (to <= from) return false;
  // Fails harmlessly where large pages are off; the block then keeps small
  // pages.
  return ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE) == 0;
#else
  static_cast<void>(p);
  static_cast<void>(bytes);
  return false;
#endif
}

}  // namespace Vela
