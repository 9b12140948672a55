// Counted references to entities.
//
// Every entity derives from Vela::RefCounted and is held through Vela::Ptr<T>
// (or Vela::Ptr<T const> for a read-only view). The count is a plain integer:
// the whole system runs on one thread, so no atomic operations are paid for.
// An entity is destroyed with its last reference; the destructor asserts that
// nobody still counts on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include "framework/Vela/Relocatable.h"
#include "framework/Vela/SmallBlock.h"

namespace Vela {

class RefCounted {
 public:
  RefCounted(RefCounted const&) = delete;
  RefCounted& operator=(RefCounted const&) = delete;

  std::uint32_t refCount() const noexcept { return refCount_; }

  void ref() const noexcept { ++refCount_; }
  void unref() const noexcept {
    if (--refCount_ == 0) delete this;
  }

  // Entities come from the small-block pool (SmallBlock.h); the destructor
  // is virtual, so a delete frees the size of the object's own type.
  static void* operator new(std::size_t bytes) { return allocateSmallBlock(bytes); }
  static void operator delete(void* block, std::size_t bytes) noexcept { freeSmallBlock(block, bytes); }
  static void* operator new(std::size_t bytes, std::align_val_t align) {
    return ::operator new(bytes, align);
  }
  static void operator delete(void* block, std::size_t, std::align_val_t align) noexcept {
    ::operator delete(block, align);
  }

 protected:
  RefCounted() = default;
  virtual ~RefCounted();

 private:
  mutable std::uint32_t refCount_ = 0;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->ref();
  }
  Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : Ptr(o.get()) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->unref();
  }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator!() const noexcept { return p_ == nullptr; }

  // Hands the reference over to the caller without dropping it.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  bool operator==(Ptr<U> const& o) const noexcept {
    return p_ == o.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

// A counted reference is one pointer: moving its bytes moves it.
template <class T>
struct TriviallyRelocatable<Ptr<T>> : std::true_type {};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> dynamicPtrCast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

template <class T, class U>
Ptr<T> staticPtrCast(Ptr<U> const& p) {
  return Ptr<T>(static_cast<T*>(p.get()));
}

template <class T, class U>
Ptr<T> constPtrCast(Ptr<U> const& p) {
  return Ptr<T>(const_cast<T*>(p.get()));
}

}  // namespace Vela

template <class T>
struct std::hash<Vela::Ptr<T>> {
  std::size_t operator()(Vela::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.get()); }
};
