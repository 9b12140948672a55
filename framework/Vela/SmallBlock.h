// Memory for small objects: entities.
//
// A RIB or FIB at scale holds millions of entities of a hundred or two bytes.
// From malloc each sits on small pages that the heap touches one by one as it
// grows, and on a virtual machine that first touch costs more than the work
// done with the object. Small blocks are therefore carved from chunks that
// are themselves large blocks (LargeBlock.h: mapped, on large pages where the
// system offers them), in sizes that step by kSmallBlockGrain, and a freed
// block waits in a list of its size for the next block of that size.
//
// Each thread has its own lists, so taking and freeing a block costs a few
// instructions and no lock. A block may be freed on another thread than the
// one that took it: it then joins that thread's lists. When a thread ends,
// its free blocks and the rest of its chunk go to a common stock that other
// threads draw from before they map new chunks. Chunks are not given back to
// the system: the memory of freed blocks stays with the pool for later ones.
//
// Builds with the address sanitizer take every block from operator new, so
// that the sanitizer sees each one.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define VELA_SMALL_BLOCKS_FROM_NEW 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELA_SMALL_BLOCKS_FROM_NEW 1
#endif
#endif

namespace Vela {

#if defined(VELA_SMALL_BLOCKS_FROM_NEW)
inline constexpr bool kSmallBlocksPooled = false;
#else
inline constexpr bool kSmallBlocksPooled = true;
#endif

// Blocks up to this size come from the pool; larger ones from operator new.
inline constexpr std::size_t kSmallBlockBytes = 256;
// Pooled blocks are sized in steps of this, and aligned to it.
inline constexpr std::size_t kSmallBlockGrain = 8;
// Blocks whose size is a multiple of this are aligned to it, as a type that
// needs the alignment has such a size.
inline constexpr std::size_t kSmallBlockAlign = 16;

// A block of `bytes`, aligned for any type of that size (up to
// kSmallBlockAlign); throws std::bad_alloc when there is no memory.
void* allocateSmallBlock(std::size_t bytes);
// Frees a block taken by allocateSmallBlock with the same `bytes` (null:
// nothing).
void freeSmallBlock(void* block, std::size_t bytes) noexcept;

// Bytes of pooled blocks taken and not yet freed, counted on the thread that
// took or freed them (for one thread: what it holds) plus what ended threads
// left in use.
long long smallBlockBytesInUse() noexcept;
// Bytes of chunks the pool holds, in all threads. Both counts are 0 where
// blocks come from operator new.
std::size_t smallBlockChunkBytes() noexcept;

}  // namespace Vela
