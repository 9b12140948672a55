// Advice on large blocks of memory.
//
// A table of millions of slots spans thousands of pages, and touching each
// page for the first time costs a fault; on a virtual machine that is the
// largest part of filling such a table. Where the system offers large pages
// for memory that asks for them, a block of many megabytes asks, so that it
// faults in 2 MiB at a time. Advice only: nothing changes for the program but
// the time, and where the system has no such advice it does nothing.
#pragma once

#include <cstddef>

namespace Vela {

// Blocks from this size on are advised (smaller ones would gain few pages).
inline constexpr std::size_t kLargeBlockBytes = std::size_t(8) << 20;

// Asks for large pages over the whole large pages within [p, p + bytes), when
// bytes is at least kLargeBlockBytes. Returns whether the advice was taken.
bool adviseLargeBlock(void* p, std::size_t bytes) noexcept;

}  // namespace Vela
