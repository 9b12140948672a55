// Memory for large tables.
//
// A table of millions of slots spans thousands of pages, and touching each
// page for the first time costs a fault; on a virtual machine that is the
// largest part of filling such a table. Growing it through malloc costs more
// again: once freed memory is about, realloc serves a large block from the
// heap and copies the table into pages it has to touch anew.
//
// Blocks from kLargeBlockBytes on are therefore mapped by themselves, aligned
// to large pages and advised to use them where the system offers that (they
// then fault in 2 MiB at a time); growing one moves its pages to a larger
// mapping instead of copying them, so only the added part is touched for the
// first time, and freeing one gives it back to the system at once. Smaller
// blocks come from malloc. Where the system has no such mappings, all blocks
// come from malloc.
#pragma once

#include <cstddef>

namespace Vela {

// Blocks from this size on are large (smaller ones would gain few pages).
inline constexpr std::size_t kLargeBlockBytes = std::size_t(8) << 20;

// A block of `bytes` (more than 0), aligned for any standard type; throws
// std::bad_alloc when there is no memory.
void* allocateBlock(std::size_t bytes);
// Resizes a block of `was` bytes to `bytes`, keeping the contents up to the
// smaller size; the block may move. On failure throws std::bad_alloc and
// leaves the block as it was.
void* reallocateBlock(void* block, std::size_t was, std::size_t bytes);
// Frees a block of `bytes` (null: nothing).
void freeBlock(void* block, std::size_t bytes) noexcept;

// Bytes held in mappings of their own by the large blocks now allocated, in
// all threads (memory that malloc's statistics do not show).
std::size_t mappedBlockBytes() noexcept;

// Asks for large pages over the whole large pages within [p, p + bytes), when
// bytes is at least kLargeBlockBytes. Advice only: nothing changes but the
// time. Returns whether the advice was taken.
bool adviseLargeBlock(void* p, std::size_t bytes) noexcept;

}  // namespace Vela
