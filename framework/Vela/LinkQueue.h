// Queue whose members are keyed by an 8-bit position.
//
// Vela::LinkQueue<V> is the collection kind for short FIFO lists that are
// addressed by position. push() appends at the tail under the next 8-bit
// index and pop() removes the head; indices wrap from 255 to 0, and iteration
// yields (index, value) from head to tail. The two counters, headIndex() (the
// index of the head) and tailIndex() (the index the next push takes), travel
// with the queue as its metadata: LinkQueue(head, tail) rebuilds a queue that
// holds default values at positions head .. tail - 1, to be filled through
// at(index). At most 256 members fit; a push beyond that fails.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <utility>

#include "framework/Vela/Exception.h"

namespace Vela {

template <class V>
class LinkQueue {
 public:
  using Index = std::uint8_t;
  using value_type = V;
  static constexpr std::size_t maxSize = 256;

  template <bool Const>
  class Iter {
    using QueuePtr = std::conditional_t<Const, LinkQueue const*, LinkQueue*>;
    using ValueRef = std::conditional_t<Const, V const&, V&>;

   public:
    using iterator_category = std::forward_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using value_type = std::pair<Index, V>;
    using reference = std::pair<Index, ValueRef>;

    Iter() = default;
    template <bool C = Const>
    requires C Iter(Iter<false> const& o)
        : queue_(o.queue_), offset_(o.offset_) {}  // NOLINT(google-explicit-constructor)

    Index index() const { return static_cast<Index>(queue_->head_ + offset_); }
    Index key() const { return index(); }
    ValueRef value() const { return queue_->items_[offset_]; }
    reference operator*() const { return reference(index(), value()); }

    Iter& operator++() {
      ++offset_;
      return *this;
    }
    Iter operator++(int) {
      Iter old = *this;
      ++offset_;
      return old;
    }
    friend bool operator==(Iter const& a, Iter const& b) { return a.offset_ == b.offset_; }

   private:
    friend class LinkQueue;
    template <bool>
    friend class Iter;
    Iter(QueuePtr queue, std::size_t offset) : queue_(queue), offset_(offset) {}

    QueuePtr queue_ = nullptr;
    std::size_t offset_ = 0;  // from the head
  };
  using iterator = Iter<false>;
  using const_iterator = Iter<true>;

  LinkQueue() = default;
  LinkQueue(Index headIndex, Index tailIndex) requires std::default_initializable<V>
      : items_(static_cast<Index>(tailIndex - headIndex)), head_(headIndex), tail_(tailIndex) {}

  Index headIndex() const noexcept { return head_; }
  Index tailIndex() const noexcept { return tail_; }
  std::size_t size() const noexcept { return items_.size(); }
  bool empty() const noexcept { return items_.empty(); }

  // Appends v at the tail and returns its index.
  Index push(V v) {
    if (items_.size() == maxSize) throw RangeException("linkqueue index space full");
    items_.push_back(std::move(v));
    return tail_++;
  }
  // Removes the head.
  void pop() {
    if (items_.empty()) throw RangeException("linkqueue is empty");
    items_.pop_front();
    ++head_;
  }
  V& front() { return at(head_); }
  V const& front() const { return at(head_); }

  bool contains(Index i) const noexcept { return offsetOf(i) < items_.size(); }
  V* lookup(Index i) noexcept { return contains(i) ? &items_[offsetOf(i)] : nullptr; }
  V const* lookup(Index i) const noexcept { return contains(i) ? &items_[offsetOf(i)] : nullptr; }
  V& at(Index i) {
    if (!contains(i)) throw RangeException("linkqueue index not in use");
    return items_[offsetOf(i)];
  }
  V const& at(Index i) const {
    if (!contains(i)) throw RangeException("linkqueue index not in use");
    return items_[offsetOf(i)];
  }

  // Removes every member; the next push continues at tailIndex().
  void clear() noexcept {
    items_.clear();
    head_ = tail_;
  }

  iterator begin() { return iterator(this, 0); }
  iterator end() { return iterator(this, items_.size()); }
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, items_.size()); }

  // Same values in the same order; the indices are not compared.
  friend bool operator==(LinkQueue const& a, LinkQueue const& b) requires std::equality_comparable<V> {
    return a.items_ == b.items_;
  }

 private:
  std::size_t offsetOf(Index i) const noexcept { return static_cast<Index>(i - head_); }

  std::deque<V> items_;  // items_[0] is at headIndex()
  Index head_ = 0;
  Index tail_ = 0;
};

}  // namespace Vela
