#include "framework/Vela/SmallBlock.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#include "framework/Vela/LargeBlock.h"

namespace Vela {

#if defined(VELA_SMALL_BLOCKS_FROM_NEW)

void* allocateSmallBlock(std::size_t bytes) { return ::operator new(bytes); }
void freeSmallBlock(void* block, std::size_t) noexcept { ::operator delete(block); }
long long smallBlockBytesInUse() noexcept { return 0; }
std::size_t smallBlockChunkBytes() noexcept { return 0; }

#else

namespace {

constexpr std::size_t kClasses = kSmallBlockBytes / kSmallBlockGrain;
// Chunks are large blocks, so they are mapped on large pages.
constexpr std::size_t kChunkBytes = kLargeBlockBytes;

static_assert(kSmallBlockBytes % kSmallBlockGrain == 0);
static_assert(kSmallBlockAlign >= alignof(std::max_align_t));
static_assert(kSmallBlockAlign % kSmallBlockGrain == 0 && kSmallBlockBytes % kSmallBlockAlign == 0);

std::size_t classOf(std::size_t bytes) noexcept { return bytes == 0 ? 0 : (bytes - 1) / kSmallBlockGrain; }
std::size_t classBytes(std::size_t c) noexcept { return (c + 1) * kSmallBlockGrain; }

struct FreeBlock {
  FreeBlock* next;
};

// Bytes of all chunks mapped so far, by any thread.
constinit std::atomic<std::size_t> chunkBytes{0};

// Free blocks by size, the untouched rest of the newest chunk, and the bytes
// handed out and not yet freed.
struct Lists {
  FreeBlock* head[kClasses];
  unsigned char* next;
  unsigned char* end;
  long long inUse;

  void push(void* block, std::size_t c) noexcept {
    auto* b = static_cast<FreeBlock*>(block);
    b->next = head[c];
    head[c] = b;
  }
  // No read-ahead of the next free block: it costs the common pattern (a
  // block freed and one of its size taken soon after, still in the cache)
  // more than it saves when freed blocks are reused long after.
  void* pop(std::size_t c) noexcept {
    FreeBlock* b = head[c];
    head[c] = b->next;
    return b;
  }
  // Makes the rest of the chunk start on kSmallBlockAlign, giving the bytes
  // skipped to the smallest size (chunks end aligned, so there is room).
  void alignRest() noexcept {
    while (reinterpret_cast<std::uintptr_t>(next) % kSmallBlockAlign != 0) {
      push(next, 0);
      next += kSmallBlockGrain;
    }
  }
  // Cuts the rest of the chunk into free blocks, largest first.
  void freeRest() noexcept {
    alignRest();
    while (next != end) {
      std::size_t const bytes = std::min<std::size_t>(static_cast<std::size_t>(end - next), kSmallBlockBytes);
      push(next, classOf(bytes));
      next += bytes;
    }
  }
  // A block of class c from the rest of the chunk, mapping a new one when the
  // rest is too small.
  void* carve(std::size_t c) {
    std::size_t const bytes = classBytes(c);
    if (bytes % kSmallBlockAlign == 0) alignRest();
    if (static_cast<std::size_t>(end - next) < bytes) {
      auto* const chunk = static_cast<unsigned char*>(allocateBlock(kChunkBytes));
      chunkBytes.fetch_add(kChunkBytes, std::memory_order_relaxed);
      freeRest();
      next = chunk;
      end = chunk + kChunkBytes;
    }
    void* const block = next;
    next += bytes;
    return block;
  }
};

// This thread's lists. Trivially destructible, so they stay usable while the
// thread's other objects are destroyed.
enum class PoolState : unsigned char {
  fresh,    // nothing taken or freed yet on this thread
  active,   // handed to the stock when the thread ends
  retired,  // handed over: blocks come from, and go to, the stock
};
struct Pool : Lists {
  PoolState state;
};
thread_local constinit Pool pool{};

// What ended threads left: other threads take from it before mapping chunks.
struct Stock {
  std::mutex mutex;
  Lists lists{};
  std::atomic<bool> has[kClasses] = {};

  void give(void* block, std::size_t c) noexcept {
    lists.push(block, c);
    has[c].store(true, std::memory_order_relaxed);
  }
  // Takes over a whole list of class c. Walks only the given list, to link
  // the stock's own after it, and not even that when the stock has none:
  // a thread that ends may hold millions of free blocks.
  void giveAll(FreeBlock* head, std::size_t c) noexcept {
    if (!head) return;
    if (lists.head[c]) {
      FreeBlock* tail = head;
      while (tail->next) tail = tail->next;
      tail->next = lists.head[c];
    }
    lists.head[c] = head;
    has[c].store(true, std::memory_order_relaxed);
  }
};
// Never destroyed: objects destroyed after it may still free blocks.
Stock& stock() {
  static Stock& s = *new Stock;
  return s;
}

// Hands this thread's lists to the stock when the thread ends.
struct Retirer {
  Retirer() = default;
  Retirer(Retirer const&) = delete;
  Retirer& operator=(Retirer const&) = delete;
  ~Retirer() {
    Stock& s = stock();
    std::lock_guard lock(s.mutex);
    pool.freeRest();
    for (std::size_t c = 0; c < kClasses; ++c) s.giveAll(std::exchange(pool.head[c], nullptr), c);
    s.lists.inUse += pool.inUse;
    pool.inUse = 0;
    pool.state = PoolState::retired;
  }
};
thread_local Retirer retirer;

// Makes sure this thread's lists reach the stock when it ends; false when
// they already have.
bool activate() {
  if (pool.state == PoolState::fresh) {
    pool.state = PoolState::active;
    static_cast<void>(&retirer);
  }
  return pool.state == PoolState::active;
}

[[gnu::noinline]] void* allocateSlow(std::size_t c) {
  Stock& s = stock();
  long long const bytes = static_cast<long long>(classBytes(c));
  if (!activate()) {
    std::lock_guard lock(s.mutex);
    void* const block = s.lists.head[c] ? s.lists.pop(c) : s.lists.carve(c);
    s.lists.inUse += bytes;
    return block;
  }
  if (s.has[c].load(std::memory_order_relaxed)) {
    std::lock_guard lock(s.mutex);
    pool.head[c] = s.lists.head[c];
    s.lists.head[c] = nullptr;
    s.has[c].store(false, std::memory_order_relaxed);
  }
  void* const block = pool.head[c] ? pool.pop(c) : pool.carve(c);
  pool.inUse += bytes;
  return block;
}

[[gnu::noinline]] void freeSlow(void* block, std::size_t c) noexcept {
  long long const bytes = static_cast<long long>(classBytes(c));
  if (activate()) {
    pool.inUse -= bytes;
    pool.push(block, c);
    return;
  }
  Stock& s = stock();
  std::lock_guard lock(s.mutex);
  s.lists.inUse -= bytes;
  s.give(block, c);
}

}  // namespace

void* allocateSmallBlock(std::size_t bytes) {
  if (bytes > kSmallBlockBytes) return ::operator new(bytes);
  std::size_t const c = classOf(bytes);
  if (pool.head[c]) {
    pool.inUse += static_cast<long long>(classBytes(c));
    return pool.pop(c);
  }
  return allocateSlow(c);
}

void freeSmallBlock(void* block, std::size_t bytes) noexcept {
  if (!block) return;
  if (bytes > kSmallBlockBytes) {
    ::operator delete(block);
    return;
  }
  std::size_t const c = classOf(bytes);
  if (pool.state != PoolState::active) return freeSlow(block, c);
  pool.inUse -= static_cast<long long>(classBytes(c));
  pool.push(block, c);
}

long long smallBlockBytesInUse() noexcept {
  Stock& s = stock();
  std::lock_guard lock(s.mutex);
  return pool.inUse + s.lists.inUse;
}

std::size_t smallBlockChunkBytes() noexcept { return chunkBytes.load(std::memory_order_relaxed); }

#endif

}  // namespace Vela
