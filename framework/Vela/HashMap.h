// Hash map iterated in the order of the bit-reversed hashes of its keys.
//
// Vela::HashMap is the map behind most keyed collections. Its iteration order
// is part of the behaviour (it decides which member is "first" and in which
// order a backlog is reviewed): members are ordered by bitReverse32(hash(key));
// members whose 32-bit hashes are equal follow the key's operator< when the
// key has one, else their insertion order. For keys with operator< the order
// therefore depends only on the keys present, never on insertion history or
// table size, and is the same on every run and machine. iterFrom(key) starts
// an iteration at the place the key has, or would have, in that order.
//
// Iterators survive changes to the map. Each remembers the map's modification
// epoch and its member's key, and finds its place again after a change; ++
// then continues with the next member after that place. A loop may thus erase
// its current member (erase(it), or erase(key) followed by ++it) and insert
// others, growing the table: members inserted ahead of the iterator are
// visited in the same pass, members inserted behind it are not (a caller that
// wants them starts again at begin()). Debug builds assert when an iterator
// whose member was removed is dereferenced.
//
// Dereferencing yields a pair of references, so write
//   for (auto const& [key, value] : map) ...   or   auto [key, value] = *it;
// (value is writable through a non-const map), or use it.key() / it.value().
//
// Layout: an open-addressing table kept sorted by reversed hash. A member's
// home slot interpolates its reversed hash over the map's range [lo, hi]:
// home = (rev - lo) * slots / (hi - lo + 1), clamped to the table, so homes
// rise with the reversed hash. A member sits at or after its home with no
// empty slot in between (linear probing with ordered insertion and
// backward-shift deletion). The table ends in a small overflow area instead of
// wrapping around, so slot order is iteration order and iterating is a linear
// scan. The range starts as all 32-bit values (the home is then the top bits
// of the reversed hash). Members that crowd into a narrow part of it, as when
// keys arrive in iteration order (copying a map, filling a backlog from
// another map's iteration, a table written as a backlog is worked off), would make long
// runs, so when changes keep probing far the range is refitted to the
// members, leaving room above them (or below, when they arrive in descending
// order), and the table is rebuilt in one pass; how far changes probed in all
// decides when, so that rebuilds never cost more than the probing they spare.
// Each slot has parallel parts: the member, stored inline; its
// reversed hash; and a 2-byte probe word holding the member's distance from
// its home and the next 8 bits of its interpolated position, which orders it
// against a looked-up key with one compare, so a lookup reads only probe
// words until it reaches its member, and a miss usually reads nothing else.
// Empty slots and the sentinel have probe words of their own, so the probe
// words are also what iteration scans. An empty map allocates nothing and a
// small one only a few slots. Members are moved when the table shifts
// or grows, so keys and values should have cheap, non-throwing moves; those
// that may be moved as bytes (Relocatable.h) are shifted with memmove, and a
// large table of them grows in place. A table of many megabytes is mapped by
// itself on large pages and grows by moving its pages (LargeBlock.h).
// Arguments to tryEmplace/insertOrAssign may refer into the map.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "framework/Vela/Exception.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/LargeBlock.h"
#include "framework/Vela/Prefetch.h"
#include "framework/Vela/Relocatable.h"

namespace Vela {

namespace internal {

template <class K>
concept LessComparable = requires(K const& a, K const& b) {
  { a < b } -> std::convertible_to<bool>;
};

}  // namespace internal

template <class K, class V, class H = Hash<K>, class Eq = std::equal_to<K>>
class HashMap {
  struct ValuedMember {
    K key;
    V value;
  };
  // An empty value (a set's) takes no room.
  struct KeyOnlyMember {
    K key;
    [[no_unique_address]] V value;
  };
  using Member = std::conditional_t<std::is_empty_v<V>, KeyOnlyMember, ValuedMember>;

  struct Storage {
    alignas(Member) unsigned char bytes[sizeof(Member)];
  };

  // Empty slots and the sentinel carry the largest reversed hash, which ends
  // every probe without a separate bounds check (a member may carry it too,
  // so only then the state decides).
  static constexpr std::uint32_t kNoRev = 0xFFFFFFFFu;
  static constexpr std::size_t kEndIdx = static_cast<std::size_t>(-1);
  // Probe words of an empty slot and of the sentinel after the last slot:
  // after every member's (at most 0xFEFF), so they end every probe and tell
  // a slot's state.
  static constexpr std::uint16_t kNoProbe = 0xFFFF;
  static constexpr std::uint16_t kEndProbe = 0xFFFE;
  // Distances up to this are kept in the probe word; a member further from
  // its home has distance byte 0.
  static constexpr std::size_t kMaxNear = 253;
  // The distance part counts down from the high byte: one slot further from
  // home is one kProbeStep less, and the words of members at home are
  // kAtHome and up (below those of empty slots and the sentinel).
  static constexpr std::uint16_t kProbeStep = 0x100;
  static constexpr std::uint16_t kAtHome = (kMaxNear + 1) * kProbeStep;
  static constexpr std::uint32_t kMinBits = 1;
  static constexpr std::uint32_t kFullRange = 0xFFFFFFFFu;
  // A change that probes further than this from a home slot may refit the
  // range, once the map has at least kMinRefitSize members.
  static constexpr std::size_t kRefitProbe = 48;
  static constexpr std::size_t kMinRefitSize = 32;
  static constexpr std::size_t kRefitTrim = 8;       // members left out at each end when refitting
  static constexpr std::uint32_t kMaxRoomShift = 2;  // refit tables at most 4x the usual size
  static constexpr bool kOrderedTies = internal::LessComparable<K>;
  // Members that may be moved as bytes (see Relocatable.h).
  static constexpr bool kBytewiseMember = kTriviallyRelocatable<K> && kTriviallyRelocatable<V>;
  // Growth in place applies from this size on, marking every kGrowChunk-th member.
  static constexpr std::size_t kMinGrowInPlace = 4096;
  static constexpr std::size_t kGrowChunk = 256;

 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = std::pair<K const, V>;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using hasher = H;
  using key_equal = Eq;

  template <bool Const>
  class Iter {
    using MapPtr = std::conditional_t<Const, HashMap const*, HashMap*>;
    using ValueRef = std::conditional_t<Const, V const&, V&>;

   public:
    using iterator_category = std::forward_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using value_type = std::pair<K const, V>;
    using reference = std::pair<K const&, ValueRef>;
    struct pointer {
      reference ref;
      reference const* operator->() const noexcept { return &ref; }
    };

    Iter() = default;
    template <bool C = Const>
    requires C Iter(Iter<false> const& o)  // NOLINT(google-explicit-constructor): iterator to const_iterator
        : map_(o.map_),
          idx_(o.idx_),
          epoch_(o.epoch_),
          past_(o.past_),
          rev_(o.rev_),
          rank_(o.rank_),
          key_(o.key_) {}

    K const& key() const { return member().key; }
    // The key with its reversed hash, as the map keeps them.
    Hashed<K, H> hashed() const { return Hashed<K, H>(member().key, map_->revs_[idx_]); }
    ValueRef value() const { return member().value; }
    reference operator*() const {
      auto& m = member();
      return reference(m.key, m.value);
    }
    pointer operator->() const { return pointer{**this}; }

    Iter& operator++() {
      sync();
      if (!key_) return *this;
      if (past_) {
        past_ = false;  // the member after the removed one is already in place
      } else {
        idx_ = map_->nextFull(idx_ + 1);
      }
      load();
      return *this;
    }
    Iter operator++(int) {
      Iter old = *this;
      ++*this;
      return old;
    }

    friend bool operator==(Iter const& a, Iter const& b) {
      a.sync();
      b.sync();
      return a.idx_ == b.idx_;
    }

   private:
    friend class HashMap;
    template <bool>
    friend class Iter;

    Iter(MapPtr map, std::size_t idx) : map_(map), idx_(idx), epoch_(map->epoch_) { load(); }

    // Finds the place again when the map changed since this iterator was set.
    // (An iterator past a removed member keeps that member's key, so that it
    // still sees members inserted ahead of it later.)
    void sync() const {
      if (key_ && epoch_ != map_->epoch_) map_->reseek(*this);
    }
    auto& member() const {
      sync();
#ifndef NDEBUG
      VELA_ASSERT_TEXT(!past_, "dereferenced a HashMap iterator whose member was removed");
      VELA_ASSERT_TEXT(idx_ != kEndIdx, "dereferenced the end of a HashMap");
#endif
      return map_->member(idx_);
    }
    // Remembers the member at idx_, to find it again after changes.
    void load() {
      if (idx_ == kEndIdx) {
        key_.reset();
        return;
      }
      rev_ = map_->revs_[idx_];
      key_ = map_->member(idx_).key;
      if constexpr (!kOrderedTies) rank_ = map_->rankAt(idx_);
    }

    MapPtr map_ = nullptr;
    mutable std::size_t idx_ = kEndIdx;
    mutable std::uint64_t epoch_ = 0;
    mutable bool past_ = false;  // the member was removed; idx_ is the member after it
    std::uint32_t rev_ = 0;
    std::uint32_t rank_ = 0;  // position among members with the same reversed hash
    std::optional<K> key_;    // empty at the end (not past a removed member)
  };

  using iterator = Iter<false>;
  using const_iterator = Iter<true>;

  HashMap() = default;
  HashMap(std::initializer_list<std::pair<K, V>> init) requires std::copy_constructible<V> {
    reserve(init.size());
    for (auto const& [k, v] : init) insertOrAssign(k, v);
  }
  HashMap(HashMap const& o) requires std::copy_constructible<K> && std::copy_constructible<V>
      : hash_(o.hash_), eq_(o.eq_) {
    copyFrom(o);
  }
  HashMap(HashMap&& o) noexcept : hash_(o.hash_), eq_(o.eq_) {
    steal(o);
    epoch_ = o.epoch_ + 1;
    ++o.epoch_;
  }
  HashMap& operator=(HashMap const& o) requires std::copy_constructible<K> && std::copy_constructible<V> {
    if (this != &o) {
      HashMap copy(o);
      swap(copy);
    }
    return *this;
  }
  HashMap& operator=(HashMap&& o) noexcept {
    if (this != &o) {
      HashMap moved(std::move(o));
      swap(moved);
    }
    return *this;
  }
  ~HashMap() { release(); }

  void swap(HashMap& o) noexcept {
    using std::swap;
    swap(members_, o.members_);
    swap(revs_, o.revs_);
    swap(probes_, o.probes_);
    swap(size_, o.size_);
    swap(limit_, o.limit_);
    swap(overflow_, o.overflow_);
    swap(firstHint_, o.firstHint_);
    swap(reserved_, o.reserved_);
    swap(bits_, o.bits_);
    swap(lo_, o.lo_);
    swap(range_, o.range_);
    swap(scale_, o.scale_);
    swap(refitDebt_, o.refitDebt_);
    swap(refitSize_, o.refitSize_);
    swap(roomShift_, o.roomShift_);
    swap(hash_, o.hash_);
    swap(eq_, o.eq_);
    // Both maps changed under their iterators.
    epoch_ = std::max(epoch_, o.epoch_) + 1;
    o.epoch_ = epoch_;
  }
  friend void swap(HashMap& a, HashMap& b) noexcept { a.swap(b); }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  // Slots in the table (main and overflow area), for tests and benchmarks.
  std::size_t capacity() const noexcept { return limit_; }
  // The furthest any member sits from its home slot: how long a lookup or an
  // insertion may probe. For tests and benchmarks (a linear scan).
  std::size_t maxProbeDistance() const noexcept {
    std::size_t most = 0;
    for (std::size_t i = 0; i < limit_; ++i) {
      if (isFull(i)) most = std::max(most, i - homeOf(revs_[i]));
    }
    return most;
  }

  void clear() {
    release();
    ++epoch_;
    if (reserved_) reserve(reserved_);
  }

  // Makes room for n members without growing; the table does not shrink
  // below that while members are erased.
  void reserve(std::size_t n) {
    reserved_ = n;
    if (n == 0) return;
    std::uint32_t const bits = bitsFor(n);
    if (bits > bits_) grow(bits);
  }
  // Makes room for n members at once, without the floor: the table shrinks
  // again as members go. For a bulk load whose keys come in the map's own
  // order, which step-by-step growth would pile up at the table's start.
  void makeRoom(std::size_t n) {
    std::size_t const floor = reserved_;
    reserve(n);
    reserved_ = floor;
  }

  bool contains(K const& k) const { return findIdx(k) != kEndIdx; }
  bool contains(Hashed<K, H> const& k) const { return findIdx(k.key, k.rev) != kEndIdx; }

  // Starts loading the slot a lookup or an insertion of k begins at, so that
  // the loads of several maps about to be used overlap instead of waiting in
  // turn. Only a hint: the map is unchanged.
  void prefetch(K const& k) const noexcept {
    if (size_ != 0) prefetchAt(revOf(k));
  }
  void prefetch(Hashed<K, H> const& k) const noexcept {
    if (size_ != 0) prefetchAt(k.rev);
  }

  V* lookup(K const& k) {
    std::size_t const i = findIdx(k);
    return i == kEndIdx ? nullptr : &member(i).value;
  }
  V const* lookup(K const& k) const {
    std::size_t const i = findIdx(k);
    return i == kEndIdx ? nullptr : &member(i).value;
  }
  V* lookup(Hashed<K, H> const& k) {
    std::size_t const i = findIdx(k.key, k.rev);
    return i == kEndIdx ? nullptr : &member(i).value;
  }
  V const* lookup(Hashed<K, H> const& k) const {
    std::size_t const i = findIdx(k.key, k.rev);
    return i == kEndIdx ? nullptr : &member(i).value;
  }

  iterator find(K const& k) {
    std::size_t const i = findIdx(k);
    return i == kEndIdx ? end() : iterator(this, i);
  }
  const_iterator find(K const& k) const {
    std::size_t const i = findIdx(k);
    return i == kEndIdx ? end() : const_iterator(this, i);
  }

  // Inserts V(args...) under k unless k is present; returns the member and
  // whether it was inserted.
  template <class... Args>
  std::pair<iterator, bool> tryEmplace(K const& k, Args&&... args) {
    auto [idx, inserted] = emplace(k, revOf(k), std::forward<Args>(args)...);
    return {iterator(this, idx), inserted};
  }
  template <class... Args>
  std::pair<iterator, bool> tryEmplace(Hashed<K, H> const& k, Args&&... args) {
    auto [idx, inserted] = emplace(k.key, k.rev, std::forward<Args>(args)...);
    return {iterator(this, idx), inserted};
  }

  // Inserts or overwrites; returns whether k was inserted.
  template <class M>
  bool insertOrAssign(K const& k, M&& v) {
    return insertOrAssign(Hashed<K, H>(k, revOf(k)), std::forward<M>(v));
  }
  template <class M>
  bool insertOrAssign(Hashed<K, H> const& k, M&& v) {
    // One probe: emplace leaves v alone when k is present.
    auto const [i, inserted] = emplace(k.key, k.rev, std::forward<M>(v));
    if (!inserted) member(i).value = std::forward<M>(v);
    return inserted;
  }

  bool erase(K const& k) {
    std::size_t const i = findIdx(k);
    if (i == kEndIdx) return false;
    eraseAt(i);
    return true;
  }
  // Erases the member at pos and returns the member after it.
  iterator erase(const_iterator pos) {
    pos.sync();
    VELA_ASSERT_TEXT(pos.map_ == this && pos.idx_ != kEndIdx && !pos.past_,
                     "HashMap::erase of an iterator without a member");
    std::size_t const idx = pos.idx_;
    if (!eraseAt(idx)) return iterator(this, nextFull(idx));
    // The table was rebuilt (smaller, or refitted): find the place after the erased key.
    iterator it;
    it.map_ = this;
    it.idx_ = 0;
    it.epoch_ = epoch_ - 1;
    it.rev_ = pos.rev_;
    it.rank_ = pos.rank_;
    it.key_ = std::move(pos.key_);
    it.sync();
    it.past_ = false;
    it.load();
    return it;
  }
  iterator erase(iterator pos) { return erase(const_iterator(pos)); }

  iterator begin() { return size_ ? iterator(this, firstFull()) : end(); }
  iterator end() { return iterator(); }
  const_iterator begin() const { return size_ ? const_iterator(this, firstFull()) : end(); }
  const_iterator end() const { return const_iterator(); }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }

  // The first member not before k in iteration order: k itself when present,
  // else the first member after the place k would have (the first whose
  // reversed hash is at least k's, or equal to it with a larger key).
  iterator iterFrom(K const& k) { return size_ ? iterator(this, seek(k)) : end(); }
  const_iterator iterFrom(K const& k) const { return size_ ? const_iterator(this, seek(k)) : end(); }

  friend bool operator==(HashMap const& a, HashMap const& b) requires std::equality_comparable<V> {
    if (a.size_ != b.size_) return false;
    for (std::size_t i = 0; i < a.limit_; ++i) {
      if (!a.isFull(i)) continue;
      V const* v = b.lookup(a.member(i).key);
      if (!v || !(*v == a.member(i).value)) return false;
    }
    return true;
  }

 private:
  // prefetch() of the key whose reversed hash is rev.
  void prefetchAt(std::uint32_t rev) const noexcept {
    std::size_t const i = homeOf(rev);
    Vela::prefetch(&probes_[i]);
    Vela::prefetch(&revs_[i]);
    Vela::prefetch(&members_[i]);
  }
  Member& member(std::size_t i) const noexcept {
    return *std::launder(reinterpret_cast<Member*>(members_[i].bytes));
  }

  std::uint32_t revOf(K const& k) const { return bitReverse32(static_cast<std::uint32_t>(hash_(k))); }
  // The interpolated place of rev in the table: its home slot in the top
  // bits, 8 more bits of fraction below (the probe word's fragment).
  std::uint64_t placeOf(std::uint32_t rev) const { return placeIn(rev, lo_, range_, scale_); }
  // The same in a table over [lo, lo + range] with the given scale.
  static std::uint64_t placeIn(std::uint32_t rev, std::uint32_t lo, std::uint32_t range,
                               std::uint64_t scale) {
    std::uint32_t d = rev - lo;
    d = rev < lo ? 0 : d;
    d = d > range ? range : d;
    return (std::uint64_t(d) * scale) >> 24;
  }
  std::size_t homeOf(std::uint32_t rev) const { return static_cast<std::size_t>(placeOf(rev) >> 8); }
  // The factor mapping distances from lo to 32.32 fixed-point slots: the main
  // area's 2^bits slots over range + 1 values. (range * scale stays below
  // 2^(bits + 32), so no product overflows.)
  static std::uint64_t scaleFor(std::uint32_t bits, std::uint32_t range) {
    return (std::uint64_t(1) << (bits + 32)) / (std::uint64_t(range) + 1);
  }
  // Whether slot i holds a member whose reversed hash is rev.
  bool holds(std::size_t i, std::uint32_t rev) const {
    return revs_[i] == rev && (rev != kNoRev || isFull(i));
  }
  bool isFull(std::size_t i) const { return probes_[i] < kEndProbe; }

  // Smallest table (in bits of the main area) that holds n members.
  static std::uint32_t bitsFor(std::size_t n) {
    std::uint32_t bits = kMinBits;
    while (((std::size_t(1) << bits) * 4) / 5 < n) ++bits;
    return bits;
  }
  // Size at which the main area doubles (0 without a table).
  std::size_t growAt() const { return bits_ ? ((std::size_t(1) << bits_) * 4) / 5 : 0; }
  static std::size_t defaultOverflow(std::uint32_t bits) {
    return std::min<std::size_t>(std::size_t(1) << bits, 4 * bits + 8);
  }

  // The probe word of a member with reversed hash rev in slot i: ordered like
  // (home, fragment) among the slots a probe passes, as long as the distances
  // are near. A key probed from its home h, at slot i, has the word
  // probeWord(h, rev) - 256 * (i - h).
  std::uint16_t probeWord(std::size_t i, std::uint32_t rev) const { return probeWordAt(i, placeOf(rev)); }
  // The same from the member's interpolated place.
  static std::uint16_t probeWordAt(std::size_t i, std::uint64_t place) {
    std::size_t const distance = i - static_cast<std::size_t>(place >> 8);
    std::uint32_t const near = distance <= kMaxNear ? std::uint32_t(kMaxNear + 1 - distance) : 0;
    return static_cast<std::uint16_t>((near << 8) | (place & 0xFFu));
  }
  // The probe words of the members moved one slot right, from [from, to) to
  // [from + 1, to]: each is one slot further from its home, which changes
  // only the distance part (a member already beyond the near distances
  // stays there).
  void probesMovedRight(std::size_t from, std::size_t to) {
    for (std::size_t i = to; i > from; --i) {
      std::uint16_t const w = probes_[i - 1];
      probes_[i] = static_cast<std::uint16_t>(w >= kProbeStep ? w - kProbeStep : w);
    }
  }
  // The same for members moved one slot left, from [from + 1, to) to
  // [from, to - 1): each comes one slot nearer its home, and one that was
  // beyond the near distances has its word worked out afresh.
  void probesMovedLeft(std::size_t from, std::size_t to) {
    for (std::size_t i = from; i + 1 < to; ++i) {
      std::uint16_t const w = probes_[i + 1];
      probes_[i] = w >= kProbeStep ? static_cast<std::uint16_t>(w + kProbeStep) : probeWord(i, revs_[i]);
    }
  }
  // Whether the member in slot i sits after its home (so that erasing the
  // one before it moves it): its probe word says so, and an empty slot or
  // the sentinel never is.
  bool awayFromHome(std::size_t i) const { return probes_[i] < kAtHome; }

  std::size_t findIdx(K const& k) const { return size_ == 0 ? kEndIdx : findIdx(k, revOf(k)); }
  std::size_t findIdx(K const& k, std::uint32_t rev) const {
    if (size_ == 0) return kEndIdx;
    std::uint64_t const place = placeOf(rev);
    std::size_t i = static_cast<std::size_t>(place >> 8);
    // Slots before the key's place have smaller words, its own (and its
    // hash-fragment twins) equal ones, later members and empty slots larger.
    for (std::uint32_t want = kAtHome | (static_cast<std::uint32_t>(place) & 0xFFu);;
         ++i, want -= kProbeStep) {
      std::uint32_t const have = probes_[i];
      if (have >= want) {
        if (have > want) return kEndIdx;
        if (eq_(member(i).key, k)) return i;
        if (revs_[i] > rev) return kEndIdx;
      }
      if (want < 512) return findFar(k, rev, i + 1);  // further on, distances are not kept
    }
  }
  // Continues a lookup by reversed hashes from slot i, all slots before it
  // holding smaller ones.
  std::size_t findFar(K const& k, std::uint32_t rev, std::size_t i) const {
    while (revs_[i] < rev) ++i;
    for (; holds(i, rev); ++i) {
      if (eq_(member(i).key, k)) return i;
    }
    return kEndIdx;
  }

  struct Place {
    std::size_t idx;
    bool found;
  };
  // Where k is, or where it would be inserted. Like findIdx, it reads probe
  // words while they decide, so a change usually reads one line of them
  // (besides the members it moves).
  Place locate(K const& k, std::uint32_t rev) const {
    std::uint64_t const place = placeOf(rev);
    std::size_t i = static_cast<std::size_t>(place >> 8);
    for (std::uint32_t want = kAtHome | (static_cast<std::uint32_t>(place) & 0xFFu);;
         ++i, want -= kProbeStep) {
      std::uint32_t const have = probes_[i];
      if (have > want) return {i, false};
      if (have == want && revs_[i] >= rev) break;  // the same place: the reversed hashes decide
      if (want < 512) return locateFrom(k, rev, i + 1);
    }
    return locateFrom(k, rev, i);
  }
  // Continues locate by reversed hashes from slot i, all slots before it
  // holding smaller ones.
  Place locateFrom(K const& k, std::uint32_t rev, std::size_t i) const {
    while (revs_[i] < rev) ++i;
    for (; holds(i, rev); ++i) {
      K const& other = member(i).key;
      if (eq_(other, k)) return {i, true};
      if constexpr (kOrderedTies) {
        if (k < other) break;
      }
    }
    return {i, false};
  }

  // The slot iterFrom(k) starts at (kEndIdx when none follows).
  std::size_t seek(K const& k) const {
    std::uint32_t const rev = revOf(k);
    std::size_t i = homeOf(rev);
    while (revs_[i] < rev) ++i;
    std::size_t const group = i;
    for (; holds(i, rev); ++i) {
      K const& other = member(i).key;
      if (eq_(other, k)) return i;
      if constexpr (kOrderedTies) {
        if (k < other) break;
      }
    }
    if constexpr (!kOrderedTies) i = group;
    return nextFull(i);
  }

  template <bool C>
  void reseek(Iter<C> const& it) const {
    it.epoch_ = epoch_;
    it.past_ = false;
    if (size_ == 0) {
      it.idx_ = kEndIdx;
      it.past_ = true;
      return;
    }
    K const& k = *it.key_;
    std::uint32_t const rev = it.rev_;
    std::size_t i = homeOf(rev);
    while (revs_[i] < rev) ++i;
    std::size_t const group = i;
    for (; holds(i, rev); ++i) {
      K const& other = member(i).key;
      if (eq_(other, k)) {
        it.idx_ = i;
        return;
      }
      if constexpr (kOrderedTies) {
        if (k < other) break;
      }
    }
    // Gone. Without a key order, the member that followed it among equal
    // hashes has moved up to its rank.
    if constexpr (!kOrderedTies) i = std::min(i, group + it.rank_);
    it.idx_ = nextFull(i);
    it.past_ = true;
  }

  // The first slot from i on without a member (limit_ for the sentinel).
  std::size_t runEnd(std::size_t i) const {
    while (probes_[i] < kEndProbe) ++i;
    return i;
  }
  std::size_t nextFull(std::size_t i) const {
    while (probes_[i] == kNoProbe) ++i;
    return probes_[i] == kEndProbe ? kEndIdx : i;
  }
  std::size_t firstFull() const {
    firstHint_ = nextFull(firstHint_);
    return firstHint_;
  }
  std::uint32_t rankAt(std::size_t i) const {
    std::uint32_t const rev = revs_[i];
    std::uint32_t rank = 0;
    while (i > 0 && holds(i - 1, rev)) {
      --i;
      ++rank;
    }
    return rank;
  }

  template <class... Args>
  static V makeValue(Args&&... args) {
    if constexpr (sizeof...(Args) == 0) {
      return V();
    } else {
      return V(std::forward<Args>(args)...);
    }
  }

  // Returns the slot of k (whose reversed hash is rev) and whether it was
  // inserted.
  template <class... Args>
  std::pair<std::size_t, bool> emplace(K const& k, std::uint32_t rev, Args&&... args) {
    std::size_t idx = kEndIdx;
    if (members_) {
      Place const p = locate(k, rev);
      if (p.found) return {p.idx, false};
      idx = p.idx;
    }
    // Built before anything moves: the arguments may refer into this map.
    Member fresh{K(k), makeValue(std::forward<Args>(args)...)};
    if (size_ + 1 > growAt()) {
      grow(std::max(bits_ + 1, bitsFor(size_ + 1)));
      idx = locate(fresh.key, rev).idx;
    }
    std::size_t end = runEnd(idx);
    if (crowded(end - homeOf(rev), rev < lo_ || std::uint64_t(rev) > std::uint64_t(lo_) + range_) &&
        refit(true, rev, bits_)) {
      idx = locate(fresh.key, rev).idx;
      end = runEnd(idx);
    }
    while (end == limit_) {
      // The run reaches the end of the overflow area.
      if (size_ * 5 >= (std::size_t(1) << bits_) * 2) {
        grow(bits_ + 1);
      } else {
        rebuild(bits_, overflow_ * 2, lo_, range_);  // crowded hashes, not a full table
      }
      idx = locate(fresh.key, rev).idx;
      end = runEnd(idx);
    }
    shiftRight(idx, end);
    probesMovedRight(idx, end);
    ::new (static_cast<void*>(members_[idx].bytes)) Member(std::move(fresh));
    revs_[idx] = rev;
    probes_[idx] = probeWord(idx, rev);
    ++size_;
    ++epoch_;
    if (idx < firstHint_) firstHint_ = idx;
    return {idx, true};
  }

  // Removes the member at idx; returns whether the table was rebuilt.
  bool eraseAt(std::size_t idx) {
    std::destroy_at(&member(idx));
    std::size_t end = idx + 1;
    while (awayFromHome(end)) ++end;
    shiftLeft(idx, end);
    probesMovedLeft(idx, end);
    revs_[end - 1] = kNoRev;
    probes_[end - 1] = kNoProbe;
    --size_;
    ++epoch_;
    if (size_ == 0) {
      // Empty: back to the whole range.
      lo_ = 0;
      range_ = kFullRange;
      scale_ = scaleFor(bits_, range_);
      refitDebt_ = 0;
      refitSize_ = 0;
      roomShift_ = 0;
    }
    if (bits_ > kMinBits && size_ * 16 < (std::size_t(1) << bits_)) {
      std::uint32_t const bits = std::max(bitsFor(size_ * 2), bitsFor(reserved_));
      if (bits < bits_) {
        // The members left may sit in a narrow part of the range (a backlog
        // drained from the front): refit it rather than crowd them together.
        if (!refit(false, 0, bits)) rebuild(bits, 0, lo_, range_);
        return true;
      }
    }
    return crowded(end - idx, false) && refit(false, 0, bits_);
  }

  // Refits the range to the members (and rev, when pending: a member about to
  // be inserted) and rebuilds the table with at least minBits: the members
  // then take a share of the new range in which they are at most 0.8 (and,
  // when the table has room, 0.5) to a slot, leaving the rest for members
  // still to come beyond them, above unless rev is a new lowest. Returns
  // whether it rebuilt: not when all members share one reversed hash, which
  // no range spreads.
  bool refit(bool pending, std::uint32_t rev, std::uint32_t minBits) {
    if (size_ < kMinRefitSize) return false;
    // The members' extent, leaving out a few at each end when the bulk lies
    // in less than half of it: stragglers (a member queued again behind a
    // drained backlog) should not keep the bulk crowded. Left out below the
    // new range, they share its first slots.
    std::size_t low = firstFull(), high = limit_ - 1;
    while (!isFull(high)) --high;
    std::uint32_t const first = revs_[low], top = revs_[high];
    for (std::size_t skip = 0; skip < kRefitTrim; ++skip) {
      low = nextFull(low + 1);
      do --high;
      while (!isFull(high));
    }
    std::uint32_t lo = revs_[low], hi = revs_[high];
    if ((std::uint64_t(hi) - lo) * 2 >= std::uint64_t(top) - first) {
      lo = first;
      hi = top;
    }
    if (pending) {
      lo = std::min(lo, rev);
      hi = std::max(hi, rev);
    }
    std::uint64_t const width = hi - lo;
    if (width == 0) return false;
    std::size_t const n = size_ + (pending ? 1 : 0);
    std::uint32_t const fit = std::max(minBits, bitsFor(2 * n));
    // Members at 0.5 to a slot over the table, or over its first half when
    // that makes them denser (up to 0.8, as bitsFor(2n) holds 2.5n).
    std::uint64_t range = std::max(2 * width, width * (std::uint64_t(1) << fit) / (2 * n));
    // The room left beyond the members takes new ones as densely as they
    // came so far. When they come faster (keys written in order by work
    // that succeeds more often as it goes on), the room crowds before the
    // map has grown by a quarter; then each such refit in a row doubles the
    // slots over the same range.
    bool const soon = pending && refitSize_ != 0 && n > refitSize_ && n < refitSize_ + refitSize_ / 4;
    roomShift_ = soon ? std::min(roomShift_ + 1, kMaxRoomShift) : 0;
    refitSize_ = static_cast<std::uint32_t>(std::min<std::size_t>(n, 0xFFFFFFFFu));
    std::uint32_t const bits = fit + roomShift_;
    if (pending && rev < first) {
      // Arriving in descending order: room below, none left out above.
      hi = top;
      range = std::min<std::uint64_t>(std::max<std::uint64_t>(range, hi - lo), hi);
      lo = static_cast<std::uint32_t>(hi - range);
    } else {
      range = std::min<std::uint64_t>(range, kFullRange - lo);
    }
    rebuild(bits, 0, lo, static_cast<std::uint32_t>(range));
    return true;
  }

  // Whether a change that probed `distance` slots from a home should try a
  // refit. Long probes are added up, and a refit is tried once they come to
  // the size of the map, so that the rebuilds cost no more than the probing
  // they spare, whatever the pattern of changes (a member whose hash crowds
  // with others, which no refit mends, costs a cheap attempt now and then).
  // A member arriving beyond the range (`beyond`) is placed in the table's
  // last slots, where every further one probes to the end of the run, so it
  // tries a refit at once when the map has grown or shrunk by an eighth
  // since the last one.
  bool crowded(std::size_t distance, bool beyond) {
    if (distance <= kRefitProbe) return false;
    refitDebt_ += distance;
    bool const changed = size_ * 8 > std::size_t(refitSize_) * 9 || size_ * 9 < std::size_t(refitSize_) * 8;
    if (refitDebt_ < size_ && !(beyond && changed)) return false;
    refitDebt_ = 0;
    return true;
  }

  // Moves the members of [from, to) one slot right; slot `to` must be empty.
  // Leaves slot `from` without a member.
  void shiftRight(std::size_t from, std::size_t to) {
    if (from == to) return;
    std::memmove(revs_ + from + 1, revs_ + from, (to - from) * sizeof(std::uint32_t));
    if constexpr (kBytewiseMember) {
      std::memmove(static_cast<void*>(members_ + from + 1), members_ + from, (to - from) * sizeof(Storage));
    } else {
      for (std::size_t i = to; i > from; --i) moveMember(i - 1, i);
    }
  }
  // Moves the members of [from + 1, to) one slot left; slot `from` must be
  // without a member. Leaves slot `to - 1` without a member.
  void shiftLeft(std::size_t from, std::size_t to) {
    if (to - from <= 1) return;
    std::memmove(revs_ + from, revs_ + from + 1, (to - from - 1) * sizeof(std::uint32_t));
    if constexpr (kBytewiseMember) {
      std::memmove(static_cast<void*>(members_ + from), members_ + from + 1,
                   (to - from - 1) * sizeof(Storage));
    } else {
      for (std::size_t i = from + 1; i < to; ++i) moveMember(i, i - 1);
    }
  }
  void moveMember(std::size_t from, std::size_t to) {
    ::new (static_cast<void*>(members_[to].bytes)) Member(std::move(member(from)));
    std::destroy_at(&member(from));
  }

  // The parts of n slots in one block: members, reversed hashes, probe
  // words. The last slot is the sentinel.
  struct Table {
    void* block;
    Storage* members;
    std::uint32_t* revs;
    std::uint16_t* probes;
  };
  static constexpr std::size_t kBlockAlign = std::max(alignof(Storage), alignof(std::uint32_t));
  // Blocks come from allocateBlock (malloc, or a mapping of their own when
  // large) where malloc's alignment suffices, so that growth can reallocate
  // them (growInPlace).
  static constexpr bool kMallocBlock = kBlockAlign <= alignof(std::max_align_t);
  // Where the parts of a block of n slots start, and its size in bytes.
  struct Layout {
    std::size_t revsAt, probesAt, bytes;
  };
  static Layout layoutFor(std::size_t n) {
    std::size_t const revsAt =
        (n * sizeof(Storage) + alignof(std::uint32_t) - 1) & ~(alignof(std::uint32_t) - 1);
    std::size_t const probesAt = revsAt + n * sizeof(std::uint32_t);
    return {revsAt, probesAt, probesAt + n * sizeof(std::uint16_t)};
  }
  static Table tableAt(void* block, Layout const& l) {
    auto* bytes = static_cast<unsigned char*>(block);
    return {block, reinterpret_cast<Storage*>(bytes), reinterpret_cast<std::uint32_t*>(bytes + l.revsAt),
            reinterpret_cast<std::uint16_t*>(bytes + l.probesAt)};
  }
  // A block for n slots; with `clear`, every slot empty and the last the
  // sentinel (else the caller writes each slot once).
  static Table allocate(std::size_t n, bool clear = true) {
    Layout const l = layoutFor(n);
    void* block;
    if constexpr (kMallocBlock) {
      block = allocateBlock(l.bytes);
    } else {
      block = ::operator new(l.bytes, std::align_val_t(kBlockAlign));
      adviseLargeBlock(block, l.bytes);
    }
    Table const t = tableAt(block, l);
    if (clear) {
      clearSlots(t, 0, n);
      t.probes[n - 1] = kEndProbe;
    }
    return t;
  }
  static void clearSlots(Table const& t, std::size_t from, std::size_t to) {
    std::fill(t.revs + from, t.revs + to, kNoRev);
    std::fill(t.probes + from, t.probes + to, kNoProbe);
  }
  // Frees the block of a table of n slots.
  static void deallocate(void* block, std::size_t n) {
    if constexpr (kMallocBlock) {
      freeBlock(block, layoutFor(n).bytes);
    } else {
      static_cast<void>(n);
      ::operator delete(block, std::align_val_t(kBlockAlign));
    }
  }

  // A main area of 2^bits slots, more than now, over the same range.
  void grow(std::uint32_t bits) {
    if (!growInPlace(bits)) rebuild(bits, 0, lo_, range_);
  }
  // Grows the main area to 2^bits slots within the table's own block, for
  // members that may be moved as bytes. The block is reallocated (a large
  // one by moving its pages rather than copying them, so only the added part
  // is touched for the first time; that is most of what growing costs) and
  // the members spread out in place, from the last down. With the range
  // unchanged and more slots no home moves down, so no member's new slot is
  // before its old one, and moving the last first never overwrites a member
  // not yet moved. New slots are computed in a forward pass that keeps the
  // slot of every kGrowChunk-th member; the backward pass recomputes a chunk
  // at a time from those. Returns false, having changed nothing, where it
  // does not apply.
  bool growInPlace(std::uint32_t bits) {
    if constexpr (!kMallocBlock || !kBytewiseMember) {
      static_cast<void>(bits);
      return false;
    } else {
      if (size_ < kMinGrowInPlace || bits <= bits_) return false;
      std::size_t const main = std::size_t(1) << bits;
      std::uint64_t const scale = scaleFor(bits, range_);
      auto placeWith = [this, scale](std::uint32_t rev) { return placeIn(rev, lo_, range_, scale); };
      // (old slot, new slot) of every kGrowChunk-th member.
      std::vector<std::pair<std::size_t, std::size_t>> marks;
      marks.reserve(size_ / kGrowChunk + 1);
      std::size_t next = 0, count = 0;
      for (std::size_t i = firstHint_; i < limit_; ++i) {
        if (!isFull(i)) continue;
        std::size_t const at = std::max(static_cast<std::size_t>(placeWith(revs_[i]) >> 8), next);
        if (count++ % kGrowChunk == 0) marks.emplace_back(i, at);
        next = at + 1;
      }
      std::size_t overflow = defaultOverflow(bits);
      if (next > main) overflow = std::max(overflow, (next - main) * 2);
      std::size_t const limit = main + overflow;
      Layout const was = layoutFor(limit_ + 1), will = layoutFor(limit + 1);
      // The old reversed hashes and probe words are copied out first, beyond the
      // old block, before members spread over where they were.
      if (will.revsAt < was.bytes) return false;
      void* const block = reallocateBlock(members_, was.bytes, will.bytes);
      Table const t = tableAt(block, will);
      auto* const bytes = static_cast<unsigned char*>(block);
      std::memcpy(t.revs, bytes + was.revsAt, (limit_ + 1) * sizeof(std::uint32_t));
      std::memcpy(t.probes, bytes + was.probesAt, (limit_ + 1) * sizeof(std::uint16_t));
      std::size_t const oldLimit = limit_;
      members_ = t.members;
      revs_ = t.revs;
      probes_ = t.probes;
      scale_ = scale;
      bits_ = bits;
      overflow_ = static_cast<std::uint32_t>(overflow);
      limit_ = limit;
      revs_[limit] = kNoRev;
      probes_[limit] = kEndProbe;
      std::size_t high = limit;  // slots from here on are written
      struct Move {
        std::size_t from, to;
        std::uint64_t place;
      };
      std::array<Move, kGrowChunk> chunk;
      for (std::size_t c = marks.size(); c-- > 0;) {
        std::size_t const stop = c + 1 < marks.size() ? marks[c + 1].first : oldLimit;
        std::size_t m = 0;
        next = marks[c].second;
        for (std::size_t i = marks[c].first; i < stop; ++i) {
          if (!isFull(i)) continue;
          std::uint64_t const place = placeWith(revs_[i]);
          std::size_t const at = std::max(static_cast<std::size_t>(place >> 8), next);
          chunk[m++] = {i, at, place};
          next = at + 1;
        }
        for (std::size_t k = m; k-- > 0;) {
          auto const [from, to, place] = chunk[k];
          std::uint32_t const rev = revs_[from];
          clearSlots(t, to + 1, high);
          if (to != from) std::memcpy(members_[to].bytes, members_[from].bytes, sizeof(Storage));
          revs_[to] = rev;
          probes_[to] = probeWordAt(to, place);
          high = to;
        }
      }
      clearSlots(t, 0, high);
      firstHint_ = high;
      ++epoch_;
      return true;
    }
  }

  // Rebuilds the table with a main area of 2^bits slots, at least
  // minOverflow overflow slots and the range [lo, lo + range]. The old table
  // is already in order, so this is one pass writing each new slot once:
  // each member goes to its home or right after the previous one. (Should
  // the members run past the overflow area, it is widened on the way.)
  void rebuild(std::uint32_t bits, std::size_t minOverflow, std::uint32_t lo, std::uint32_t range) {
    std::size_t const main = std::size_t(1) << bits;
    Storage* const oldMembers = members_;
    std::uint32_t* const oldRevs = revs_;
    std::uint16_t* const oldProbes = probes_;
    std::size_t const oldLimit = limit_;
    if (size_ == 0) {
      lo = 0;
      range = kFullRange;
    }
    lo_ = lo;
    range_ = range;
    scale_ = scaleFor(bits, range);
    std::size_t overflow = std::max(minOverflow, defaultOverflow(bits));
    Table fresh = allocate(main + overflow + 1, false);
    std::size_t next = 0;
    std::size_t first = kEndIdx;
    for (std::size_t i = 0; i < oldLimit; ++i) {
      if (oldProbes[i] >= kEndProbe) continue;
      std::uint32_t const rev = oldRevs[i];
      std::uint64_t const place = placeOf(rev);
      std::size_t const at = std::max(static_cast<std::size_t>(place >> 8), next);
      if (at >= main + overflow) {
        // Leave as much room again beyond the members.
        std::size_t const wider = std::max(overflow * 2, (at + 1 - main) * 2);
        Table const t = allocate(main + wider + 1, false);
        moveSlots(fresh, t, next);
        deallocate(fresh.block, main + overflow + 1);
        fresh = t;
        overflow = wider;
      }
      clearSlots(fresh, next, at);
      ::new (static_cast<void*>(fresh.members[at].bytes)) Member(std::move(member(i)));
      std::destroy_at(&member(i));
      fresh.revs[at] = rev;
      fresh.probes[at] = probeWordAt(at, place);
      if (first == kEndIdx) first = at;
      next = at + 1;
    }
    clearSlots(fresh, next, main + overflow + 1);
    fresh.probes[main + overflow] = kEndProbe;
    if (oldMembers) deallocate(oldMembers, oldLimit + 1);
    members_ = fresh.members;
    revs_ = fresh.revs;
    probes_ = fresh.probes;
    bits_ = bits;
    overflow_ = static_cast<std::uint32_t>(overflow);
    limit_ = main + overflow;
    firstHint_ = first == kEndIdx ? 0 : first;
    ++epoch_;
  }
  // Moves the first n slots of `from` (all written) to `to`.
  static void moveSlots(Table const& from, Table const& to, std::size_t n) {
    std::memcpy(to.revs, from.revs, n * sizeof(std::uint32_t));
    std::memcpy(to.probes, from.probes, n * sizeof(std::uint16_t));
    for (std::size_t i = 0; i < n; ++i) {
      if (from.probes[i] >= kEndProbe) continue;
      auto* m = std::launder(reinterpret_cast<Member*>(from.members[i].bytes));
      ::new (static_cast<void*>(to.members[i].bytes)) Member(std::move(*m));
      std::destroy_at(m);
    }
  }

  void copyFrom(HashMap const& o) {
    if (!o.members_) return;
    Table const t = allocate(o.limit_ + 1);
    std::size_t i = 0;
    try {
      for (; i < o.limit_; ++i) {
        if (!o.isFull(i)) continue;
        ::new (static_cast<void*>(t.members[i].bytes)) Member(o.member(i));
        t.revs[i] = o.revs_[i];
        t.probes[i] = o.probes_[i];
      }
    } catch (...) {
      for (std::size_t j = 0; j < i; ++j) {
        if (t.probes[j] < kEndProbe)
          std::destroy_at(std::launder(reinterpret_cast<Member*>(t.members[j].bytes)));
      }
      deallocate(t.block, o.limit_ + 1);
      throw;
    }
    members_ = t.members;
    revs_ = t.revs;
    probes_ = t.probes;
    size_ = o.size_;
    limit_ = o.limit_;
    overflow_ = o.overflow_;
    firstHint_ = o.firstHint_;
    reserved_ = o.reserved_;
    bits_ = o.bits_;
    lo_ = o.lo_;
    range_ = o.range_;
    scale_ = o.scale_;
  }

  void steal(HashMap& o) noexcept {
    members_ = std::exchange(o.members_, nullptr);
    revs_ = std::exchange(o.revs_, nullptr);
    probes_ = std::exchange(o.probes_, nullptr);
    size_ = std::exchange(o.size_, 0);
    limit_ = std::exchange(o.limit_, 0);
    overflow_ = std::exchange(o.overflow_, 0);
    firstHint_ = std::exchange(o.firstHint_, 0);
    reserved_ = std::exchange(o.reserved_, 0);
    bits_ = std::exchange(o.bits_, 0);
    lo_ = std::exchange(o.lo_, 0);
    range_ = std::exchange(o.range_, kFullRange);
    scale_ = std::exchange(o.scale_, 0);
    refitDebt_ = std::exchange(o.refitDebt_, 0);
    refitSize_ = std::exchange(o.refitSize_, 0);
    roomShift_ = std::exchange(o.roomShift_, 0);
  }

  void release() noexcept {
    if (!members_) return;
    if constexpr (!std::is_trivially_destructible_v<Member>) {
      for (std::size_t i = 0; i < limit_; ++i) {
        if (isFull(i)) std::destroy_at(&member(i));
      }
    }
    deallocate(members_, limit_ + 1);
    members_ = nullptr;
    revs_ = nullptr;
    probes_ = nullptr;
    size_ = 0;
    limit_ = 0;
    overflow_ = 0;
    firstHint_ = 0;
    bits_ = 0;
    lo_ = 0;
    range_ = kFullRange;
    scale_ = 0;
    refitDebt_ = 0;
    refitSize_ = 0;
    roomShift_ = 0;
  }

  Storage* members_ = nullptr;       // starts the table's block: limit_ + 1 slots, the last the sentinel
  std::uint32_t* revs_ = nullptr;    // reversed hash per slot, kNoRev when empty
  std::uint16_t* probes_ = nullptr;  // probe word per slot, kNoProbe when empty, kEndProbe for the sentinel
  std::size_t size_ = 0;
  std::size_t limit_ = 0;              // main area plus overflow area
  mutable std::size_t firstHint_ = 0;  // no member sits before this slot
  std::size_t reserved_ = 0;
  std::uint64_t epoch_ = 0;    // bumped by every change that moves members
  std::size_t refitDebt_ = 0;  // long probes since a refit was last tried (crowded())
  std::uint64_t scale_ = 0;    // scaleFor(bits_, range_)
  std::uint32_t overflow_ = 0;
  std::uint32_t refitSize_ = 0;  // members at the last refit (0: none since empty)
  std::uint32_t roomShift_ = 0;  // extra bits of the last refit's table
  std::uint32_t bits_ = 0;       // main area is 2^bits_ slots (0: no table)
  std::uint32_t lo_ = 0;         // the range homes are interpolated over: [lo_, lo_ + range_]
  std::uint32_t range_ = kFullRange;
  [[no_unique_address]] H hash_;
  [[no_unique_address]] Eq eq_;
};

}  // namespace Vela
