// A set of values that is itself a value: the via sets of tunnel table and
// tunnel FIB entries.
//
// Vela::ValueSet<K> is a set keyed by K (conceptually a HashMap<K, bool> whose
// value is always true). It is a field of value types, so it is copyable and
// has equality and a hash of its own:
//  - equality is set equality: the same number of members and every member
//    of one present in the other, whatever the insertion order;
//  - hash() does not depend on the order of the members (a sum of the mixed
//    member hashes), so equal sets hash alike;
//  - inside the textual form of a value it prints as None (the members are
//    deliberately not shown) and reads back empty.
// Iteration yields the members in the bit-reversed order of their hashes,
// ties broken as Vela::HashMap breaks them (key order when K has operator<,
// else insertion order): the order a HashMap<K, bool> of the same members
// would give.
//
// Most sets hold one to four members, while an empty HashMap table already
// costs seventeen slots. So a set of up to kSmallMax members keeps them in a
// small array, sorted in iteration order, and only a larger set moves into a
// HashMap<K, bool>; it moves back when it shrinks to half that. The set itself
// is one pointer and two counters, an empty set allocates nothing, a set of
// up to InlineMax members no larger than a pointer (one by default) keeps them
// in the pointer's place, widened to hold them, and a set of n <= 8 members
// otherwise one block of n to 8 keys followed by their reversed hashes, so
// that placing a new member hashes only the new one. (Members kept in place
// are hashed when their order is needed.)
// Iterators are for reading only: any change to the set invalidates them.
//
// VELA_VALUE_SET (at the end) declares a set-valued field of a value type with
// the conventional accessors, as the VELA_* macros of Entity.h do for entities.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "framework/Vela/Hash.h"
#include "framework/Vela/HashMap.h"
#include "framework/Vela/Prefetch.h"
#include "framework/Vela/Value.h"

namespace Vela {

template <class K, class H = Hash<K>, class Eq = std::equal_to<K>, std::uint32_t InlineMax = 1>
class ValueSet {
 public:
  using key_type = K;
  using value_type = K;
  using size_type = std::size_t;
  // The members of a large set; membership is all they carry.
  struct Present {};
  using Map = HashMap<K, Present, H, Eq>;

  // The largest set kept in the small array.
  static constexpr std::uint32_t kSmallMax = 8;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using value_type = K;
    using reference = K const&;
    using pointer = K const*;

    const_iterator() = default;

    K const& key() const { return large_ ? it_.key() : *p_; }
    // The member with its reversed hash: kept by a large set, computed for a
    // small one.
    Hashed<K, H> hashed() const { return large_ ? it_.hashed() : Hashed<K, H>(*p_); }
    // Members of a set are always true.
    bool value() const { return true; }
    K const& operator*() const { return key(); }
    K const* operator->() const { return &key(); }
    const_iterator& operator++() {
      if (large_) {
        ++it_;
      } else {
        ++p_;
      }
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(const_iterator const& a, const_iterator const& b) {
      return a.large_ ? a.it_ == b.it_ : a.p_ == b.p_;
    }

   private:
    friend class ValueSet;
    explicit const_iterator(K const* p) : p_(p) {}
    explicit const_iterator(typename Map::const_iterator it) : it_(std::move(it)), large_(true) {}

    K const* p_ = nullptr;
    typename Map::const_iterator it_;
    bool large_ = false;
  };
  using iterator = const_iterator;

  ValueSet() noexcept = default;
  ValueSet(std::initializer_list<K> init) {
    for (K const& k : init) insert(k);
  }
  ValueSet(ValueSet const& o) { copyFrom(o); }
  ValueSet(ValueSet&& o) noexcept
      : rep_(std::exchange(o.rep_, Rep{})),
        size_(std::exchange(o.size_, 0)),
        cap_(std::exchange(o.cap_, 0)) {}
  ValueSet& operator=(ValueSet const& o) {
    if (this != &o) {
      ValueSet copy(o);
      swap(copy);
    }
    return *this;
  }
  ValueSet& operator=(ValueSet&& o) noexcept {
    if (this != &o) {
      ValueSet moved(std::move(o));
      swap(moved);
    }
    return *this;
  }
  ~ValueSet() { release(); }

  void swap(ValueSet& o) noexcept {
    std::swap(rep_, o.rep_);
    std::swap(size_, o.size_);
    std::swap(cap_, o.cap_);
  }
  friend void swap(ValueSet& a, ValueSet& b) noexcept { a.swap(b); }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  bool contains(K const& k) const {
    if (isLarge()) return map()->contains(k);
    return findSmall(k) != nullptr;
  }
  bool contains(Hashed<K, H> const& k) const {
    if (isLarge()) return map()->contains(k);
    return findSmall(k.key) != nullptr;
  }

  // Makes room for n members in the small array at once, for a writer that
  // knows how many it is about to add (a larger n changes nothing).
  void reserve(std::size_t n) {
    if (!isLarge() && n > cap_ && n <= kSmallMax) reallocateSmall(static_cast<std::uint32_t>(n));
  }

  // Adds k; returns whether it was absent.
  bool insert(K const& k) { return insertAs(k, k); }
  bool insert(Hashed<K, H> const& k) { return insertAs(k.key, k); }

  // Removes k; returns whether it was present.
  bool erase(K const& k) {
    if (isLarge()) {
      if (!map()->erase(k)) return false;
      --size_;
      if (size_ <= kSmallMax / 2) toSmall();
      return true;
    }
    K const* found = findSmall(k);
    if (!found) return false;
    K* items = small();
    std::size_t const i = static_cast<std::size_t>(found - items);
    std::move(items + i + 1, items + size_, items + i);
    std::destroy_at(items + size_ - 1);
    if (!isInline()) {
      unsigned char* const r = revs() + i * sizeof(std::uint32_t);
      std::memmove(r, r + sizeof(std::uint32_t), (size_ - i - 1) * sizeof(std::uint32_t));
    }
    --size_;
    if (size_ == 0) release();
    return true;
  }

  void clear() noexcept { release(); }

  // Makes the set hold exactly the hashed keys of [first, last), which are
  // unique and already in iteration order (by reversed hash, then by key
  // where K is ordered): for a writer that has sorted them anyway, this
  // writes them at once instead of placing them one by one.
  template <class It>
  void assignOrdered(It first, It last) {
    std::size_t const n = static_cast<std::size_t>(std::distance(first, last));
    release();
    if (n > kSmallMax) {
      for (; first != last; ++first) insert(*first);
      return;
    }
    if (n == 0) return;
    reallocateSmall(static_cast<std::uint32_t>(n));
    K* const items = small();
    for (; first != last; ++first) {
      Hashed<K, H> const& k = *first;
      std::construct_at(items + size_, k.key);
      if (!isInline()) std::memcpy(revs() + size_ * sizeof k.rev, &k.rev, sizeof k.rev);
      ++size_;
    }
  }

  // Starts loading the members' block (see Prefetch.h); a large set's table
  // is left alone.
  void prefetch() const noexcept {
    if (!isLarge() && !isInline() && rep_.block) prefetchBytes(rep_.block, blockBytes(cap_));
  }

  const_iterator begin() const {
    if (isLarge()) return const_iterator(std::as_const(*map()).begin());
    return const_iterator(small());
  }
  const_iterator end() const {
    if (isLarge()) return const_iterator(std::as_const(*map()).end());
    return const_iterator(small() + size_);
  }

  // Order-independent: equal sets hash alike whatever their history.
  std::uint32_t hash() const {
    std::uint32_t h = mix32(static_cast<std::uint32_t>(size_));
    for (K const& k : *this) h += mix32(static_cast<std::uint32_t>(H()(k)) ^ 0x5bd1e995u);
    return h;
  }

  // Set equality.
  friend bool operator==(ValueSet const& a, ValueSet const& b) {
    if (a.size_ != b.size_) return false;
    if (!a.isLarge() && !b.isLarge()) {
      // Both arrays are in iteration order, which depends only on the members
      // for keys with a consistent order: the common case needs one pass.
      Eq eq;
      K const* x = a.small();
      K const* y = b.small();
      std::size_t i = 0;
      while (i < a.size_ && eq(x[i], y[i])) ++i;
      if (i == a.size_) return true;
    }
    for (K const& k : a) {
      if (!b.contains(k)) return false;
    }
    return true;
  }

 private:
  static constexpr std::uint32_t kLarge = 0xFFFFFFFFu;
  static constexpr bool kOrderedTies = internal::LessComparable<K>;
  // How many members are kept in place of the block pointer.
  static constexpr std::uint32_t kInlineMax =
      sizeof(K) <= sizeof(void*) && alignof(K) <= alignof(void*) && std::is_trivially_copyable_v<K>
          ? InlineMax
          : 0;

  bool isLarge() const noexcept { return cap_ == kLarge; }
  // A set of capacity up to kInlineMax holds its members in place of the
  // block pointer.
  static bool isInline(std::uint32_t cap) noexcept { return cap != 0 && cap <= kInlineMax; }
  bool isInline() const noexcept { return isInline(cap_); }
  K* small() const noexcept {
    if (isInline()) return std::launder(reinterpret_cast<K*>(const_cast<unsigned char*>(rep_.inlined)));
    return static_cast<K*>(rep_.block);
  }
  // The reversed hashes of the array's members follow its cap keys (bytes,
  // as nothing guarantees their alignment after the keys).
  static unsigned char* revsOf(K* items, std::uint32_t cap) noexcept {
    return reinterpret_cast<unsigned char*>(items + cap);
  }
  unsigned char* revs() const noexcept { return revsOf(small(), cap_); }
  std::uint32_t revAt(std::uint32_t i) const noexcept {
    if (isInline()) return revOf(small()[i]);
    std::uint32_t r;
    std::memcpy(&r, revs() + i * sizeof r, sizeof r);
    return r;
  }
  // A block of cap keys and their reversed hashes.
  static std::size_t blockBytes(std::uint32_t cap) { return cap * (sizeof(K) + sizeof(std::uint32_t)); }
  // From operator new, not the small-block pool: sets are rebuilt all the
  // time (a FIB review makes a new via set per tunnel), and blocks taken from
  // malloc's tidier heap made those reviews faster than scattered pooled ones.
  // The aligned forms only when needed: they end in memalign, which is
  // slower than malloc and splits free chunks.
  static constexpr bool kOverAligned = alignof(K) > __STDCPP_DEFAULT_NEW_ALIGNMENT__;
  static K* allocateSmall(std::uint32_t cap) {
    if constexpr (kOverAligned) {
      return static_cast<K*>(::operator new(blockBytes(cap), std::align_val_t(alignof(K))));
    } else {
      return static_cast<K*>(::operator new(blockBytes(cap)));
    }
  }
  // Unsized delete: not every compiler we build with enables sized deallocation.
  static void deallocateSmall(K* items) {
    if constexpr (kOverAligned) {
      ::operator delete(items, std::align_val_t(alignof(K)));
    } else {
      ::operator delete(items);
    }
  }
  Map* map() const noexcept { return static_cast<Map*>(rep_.block); }
  static std::uint32_t revOf(K const& k) { return bitReverse32(static_cast<std::uint32_t>(H()(k))); }

  K const* findSmall(K const& k) const {
    Eq eq;
    K const* items = small();
    for (std::uint32_t i = 0; i < size_; ++i) {
      if (eq(items[i], k)) return items + i;
    }
    return nullptr;
  }

  // insert(), the key being k and `as` either k or k with its reversed hash.
  template <class As>
  bool insertAs(K const& k, As const& as) {
    if (isLarge()) {
      if (!map()->tryEmplace(as).second) return false;
      ++size_;
      return true;
    }
    if (findSmall(k)) return false;
    if (size_ == kSmallMax) {
      toLarge();
      map()->tryEmplace(as);
      ++size_;
      return true;
    }
    insertSmall(k, as);
    return true;
  }
  static std::uint32_t revOf(Hashed<K, H> const& k) { return k.rev; }

  // Inserts k (absent) into the array at its place in iteration order.
  template <class As>
  void insertSmall(K const& k, As const& as) {
    if (size_ == 0 && isInline(cap_ == 0 ? 1 : cap_)) {
      // The one member of an inline set has its place without its hash (a
      // set of one id is the common case, and hashing costs more than the rest).
      if (cap_ == 0) reallocateSmall(1);
      std::construct_at(small(), k);
      ++size_;
      return;
    }
    std::uint32_t const rev = revOf(as);
    std::uint32_t pos = 0;
    for (K const* items = small(); pos < size_; ++pos) {
      std::uint32_t const r = revAt(pos);
      if (r > rev) break;
      if constexpr (kOrderedTies) {
        if (r == rev && k < items[pos]) break;
      }
    }
    if (size_ == cap_) reallocateSmall(cap_ == 0 ? 1 : std::min(cap_ * 2, kSmallMax));
    K* items = small();
    if (pos == size_) {
      std::construct_at(items + size_, k);
    } else {
      std::construct_at(items + size_, std::move(items[size_ - 1]));
      std::move_backward(items + pos, items + size_ - 1, items + size_);
      items[pos] = k;
    }
    if (!isInline()) {
      unsigned char* const r = revs() + pos * sizeof rev;
      std::memmove(r + sizeof rev, r, (size_ - pos) * sizeof rev);
      std::memcpy(r, &rev, sizeof rev);
    }
    ++size_;
  }

  void reallocateSmall(std::uint32_t cap) {
    if (isInline(cap)) {
      // From nothing, or from fewer members kept in place: nothing moves.
      if (!isInline()) rep_ = Rep{};
      cap_ = cap;
      return;
    }
    K* fresh = allocateSmall(cap);
    K* items = small();
    std::uninitialized_move(items, items + size_, fresh);
    for (std::uint32_t i = 0; i < size_; ++i) {
      std::uint32_t const r = revAt(i);
      std::memcpy(revsOf(fresh, cap) + i * sizeof r, &r, sizeof r);
    }
    std::destroy(items, items + size_);
    if (!isInline() && items) deallocateSmall(items);
    rep_.block = fresh;
    cap_ = cap;
  }

  void toLarge() {
    auto fresh = std::make_unique<Map>();
    for (K const* p = small(); p != small() + size_; ++p) fresh->tryEmplace(*p);
    std::uint32_t const n = size_;
    release();
    rep_.block = fresh.release();
    size_ = n;
    cap_ = kLarge;
  }

  void toSmall() {
    std::unique_ptr<Map> old(map());
    std::uint32_t const n = size_;
    rep_ = Rep{};
    size_ = 0;
    cap_ = 0;
    if (n == 0) return;
    reallocateSmall(n);
    // The map's order is the array's order.
    for (auto it = std::as_const(*old).begin(); it != std::as_const(*old).end(); ++it) {
      std::construct_at(small() + size_, it.key());
      if (!isInline()) {
        std::uint32_t const rev = revOf(it.key());
        std::memcpy(revs() + size_ * sizeof rev, &rev, sizeof rev);
      }
      ++size_;
    }
  }

  void copyFrom(ValueSet const& o) {
    if (o.size_ == 0) return;
    if (o.isLarge()) {
      rep_.block = new Map(*o.map());
      size_ = o.size_;
      cap_ = kLarge;
      return;
    }
    if (isInline(o.size_)) {
      std::uninitialized_copy(o.small(), o.small() + o.size_, reinterpret_cast<K*>(rep_.inlined));
      size_ = cap_ = o.size_;
      return;
    }
    K* fresh = allocateSmall(o.size_);
    try {
      std::uninitialized_copy(o.small(), o.small() + o.size_, fresh);
    } catch (...) {
      deallocateSmall(fresh);
      throw;
    }
    std::memcpy(revsOf(fresh, o.size_), o.revs(), o.size_ * sizeof(std::uint32_t));
    rep_.block = fresh;
    size_ = o.size_;
    cap_ = o.size_;
  }

  void release() noexcept {
    if (isLarge()) {
      delete map();
    } else if (isInline()) {
      std::destroy(small(), small() + size_);
    } else if (rep_.block) {
      std::destroy(small(), small() + size_);
      deallocateSmall(small());
    }
    rep_ = Rep{};
    size_ = 0;
    cap_ = 0;
  }

  // K[cap_] in iteration order and their reversed hashes, or a Map when
  // cap_ == kLarge; or the members themselves when isInline().
  union Rep {
    void* block = nullptr;
    alignas(void*) unsigned char inlined[std::max(sizeof(void*), kInlineMax * sizeof(K))];
  };
  Rep rep_{};
  std::uint32_t size_ = 0;  // members
  std::uint32_t cap_ = 0;   // array slots, or kLarge
};

// Inside a value's textual form a set prints as None.
template <class K, class H, class Eq, std::uint32_t InlineMax>
struct ValueTraits<ValueSet<K, H, Eq, InlineMax>> : NoneValueTraits<ValueSet<K, H, Eq, InlineMax>> {};

}  // namespace Vela

// Set-valued field `name` of a value type, members of type Key, in the
// conventional shape: name(k) (whether k is a member), name##Is(k, true) (adds;
// false removes), new##Name(k, true) (the same), name##Del(k), name##DelAll()
// and name##s() (the set, for size and iteration). Declares the member
// name##_; like the VELA_* entity macros it ends in `private:`.
#define VELA_VALUE_SET(Key, name, Name)                                       \
 public:                                                                      \
  bool name(Key const& k) const { return name##_.contains(k); }               \
  void name##Is(Key const& k, bool present = true) {                          \
    if (present) {                                                            \
      name##_.insert(k);                                                      \
    } else {                                                                  \
      name##_.erase(k);                                                       \
    }                                                                         \
  }                                                                           \
  void new##Name(Key const& k, bool present = true) { name##Is(k, present); } \
  void name##Del(Key const& k) { name##_.erase(k); }                          \
  void name##DelAll() { name##_.clear(); }                                    \
  void name##sReserve(std::size_t n) { name##_.reserve(n); }                  \
  ::Vela::ValueSet<Key> const& name##s() const { return name##_; }            \
                                                                              \
 private:                                                                     \
  ::Vela::ValueSet<Key> name##_
