// Map iterated in key order.
//
// Vela::OrderedMap is the collection kind for members that are listed in key
// order (directory entries, for example). It is a thin layer over a
// red-black tree (std::map) with the member names of Vela::HashMap, so
// collections can use either. Like HashMap's, its iterators survive changes to
// the map: an iterator keeps its member's key and the map's modification
// epoch, and after a change continues with the first member after that key.
// A loop may erase its current member (erase(it), or erase(key) then ++it) and
// insert others; members inserted ahead of the iterator are visited. Debug
// builds assert when an iterator whose member was removed is dereferenced.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <map>
#include <optional>
#include <type_traits>
#include <utility>

#include "framework/Vela/Exception.h"

namespace Vela {

template <class K, class V, class Less = std::less<K>>
class OrderedMap {
  using Tree = std::map<K, V, Less>;

 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = std::pair<K const, V>;
  using size_type = std::size_t;
  using key_compare = Less;

  template <bool Const>
  class Iter {
    using MapPtr = std::conditional_t<Const, OrderedMap const*, OrderedMap*>;
    using TreeIt = std::conditional_t<Const, typename Tree::const_iterator, typename Tree::iterator>;
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
        : map_(o.map_), it_(o.it_), epoch_(o.epoch_), past_(o.past_), key_(o.key_) {}

    K const& key() const { return entry().first; }
    ValueRef value() const { return entry().second; }
    reference operator*() const {
      auto& e = entry();
      return reference(e.first, e.second);
    }
    pointer operator->() const { return pointer{**this}; }

    Iter& operator++() {
      sync();
      if (!key_) return *this;
      if (past_) {
        past_ = false;  // the member after the removed one is already in place
      } else {
        ++it_;
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
      bool const aEnd = a.atEnd();
      bool const bEnd = b.atEnd();
      if (aEnd || bEnd) return aEnd == bEnd;
      return a.it_ == b.it_;
    }

   private:
    friend class OrderedMap;
    template <bool>
    friend class Iter;

    Iter(MapPtr map, TreeIt it) : map_(map), it_(it), epoch_(map->epoch_) { load(); }

    // (An iterator past a removed member keeps that member's key, so that it
    // still sees members inserted ahead of it later.)
    void sync() const {
      if (!key_ || epoch_ == map_->epoch_) return;
      epoch_ = map_->epoch_;
      auto& tree = map_->tree_;
      it_ = tree.lower_bound(*key_);
      past_ = it_ == tree.end() || tree.key_comp()(*key_, it_->first);
    }
    bool atEnd() const {
      sync();
      return !key_ || it_ == map_->tree_.end();
    }
    auto& entry() const {
      sync();
#ifndef NDEBUG
      VELA_ASSERT_TEXT(!past_, "dereferenced an OrderedMap iterator whose member was removed");
      VELA_ASSERT_TEXT(key_.has_value(), "dereferenced the end of an OrderedMap");
#endif
      return *it_;
    }
    void load() {
      if (it_ == map_->tree_.end()) {
        key_.reset();
      } else {
        key_ = it_->first;
      }
    }

    MapPtr map_ = nullptr;
    mutable TreeIt it_{};
    mutable std::uint64_t epoch_ = 0;
    mutable bool past_ = false;  // the member was removed; it_ is the member after it
    std::optional<K> key_;       // empty at the end (not past a removed member)
  };

  using iterator = Iter<false>;
  using const_iterator = Iter<true>;

  OrderedMap() = default;
  OrderedMap(std::initializer_list<std::pair<K, V>> init) requires std::copy_constructible<V> {
    for (auto const& [k, v] : init) insertOrAssign(k, v);
  }
  OrderedMap(OrderedMap const& o) requires std::copy_constructible<K> && std::copy_constructible<V>
      : tree_(o.tree_) {}
  OrderedMap(OrderedMap&& o) noexcept : tree_(std::move(o.tree_)), epoch_(o.epoch_ + 1) { ++o.epoch_; }
  OrderedMap& operator=(
      OrderedMap const& o) requires std::copy_constructible<K> && std::copy_constructible<V> {
    tree_ = o.tree_;
    ++epoch_;
    return *this;
  }
  OrderedMap& operator=(OrderedMap&& o) noexcept {
    tree_ = std::move(o.tree_);
    ++epoch_;
    ++o.epoch_;
    return *this;
  }

  std::size_t size() const noexcept { return tree_.size(); }
  bool empty() const noexcept { return tree_.empty(); }
  void clear() {
    tree_.clear();
    ++epoch_;
  }

  bool contains(K const& k) const { return tree_.find(k) != tree_.end(); }
  V* lookup(K const& k) {
    auto it = tree_.find(k);
    return it == tree_.end() ? nullptr : &it->second;
  }
  V const* lookup(K const& k) const {
    auto it = tree_.find(k);
    return it == tree_.end() ? nullptr : &it->second;
  }
  iterator find(K const& k) { return iterator(this, tree_.find(k)); }
  const_iterator find(K const& k) const { return const_iterator(this, tree_.find(k)); }

  template <class... Args>
  std::pair<iterator, bool> tryEmplace(K const& k, Args&&... args) {
    auto [it, inserted] = tree_.try_emplace(k, std::forward<Args>(args)...);
    if (inserted) ++epoch_;
    return {iterator(this, it), inserted};
  }
  template <class M>
  bool insertOrAssign(K const& k, M&& v) {
    bool const inserted = tree_.insert_or_assign(k, std::forward<M>(v)).second;
    if (inserted) ++epoch_;
    return inserted;
  }

  bool erase(K const& k) {
    if (!tree_.erase(k)) return false;
    ++epoch_;
    return true;
  }
  iterator erase(const_iterator pos) {
    pos.sync();
    VELA_ASSERT_TEXT(pos.map_ == this && pos.key_ && !pos.past_,
                     "OrderedMap::erase of an iterator without a member");
    auto next = tree_.erase(pos.it_);
    ++epoch_;
    return iterator(this, next);
  }
  iterator erase(iterator pos) { return erase(const_iterator(pos)); }

  iterator begin() { return iterator(this, tree_.begin()); }
  iterator end() { return iterator(); }
  const_iterator begin() const { return const_iterator(this, tree_.begin()); }
  const_iterator end() const { return const_iterator(); }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }

  // The first member not before k: k itself when present.
  iterator iterFrom(K const& k) { return iterator(this, tree_.lower_bound(k)); }
  const_iterator iterFrom(K const& k) const { return const_iterator(this, tree_.lower_bound(k)); }

  friend bool operator==(OrderedMap const& a, OrderedMap const& b) requires std::equality_comparable<V> {
    return a.tree_ == b.tree_;
  }

 private:
  Tree tree_;
  std::uint64_t epoch_ = 0;  // bumped by every insertion and removal
};

}  // namespace Vela
