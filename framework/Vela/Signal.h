// Notification lists.
//
// An entity announces each change of an attribute or of a collection member
// through a Vela::Signal; a watcher connects a callback and keeps the returned
// Vela::Subscription, which disconnects when destroyed. Delivery is
// synchronous, after the change has been applied.
//
// Rules, each pinned by a test:
//  - a callback may disconnect itself or any other subscription, or destroy
//    the object that owns the subscription, during delivery; a disconnected
//    callback is not called again, not even later in the same delivery;
//  - a subscription made during a delivery is not called for that delivery,
//    only for later ones;
//  - a callback may change the entity it is told about, which delivers the new
//    change (nested) before the outer delivery goes on;
//  - disabling a subscription (active false) silences it without disconnecting.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace Vela {

namespace internal {

struct SlotBase {
  std::uint32_t refs = 1;  // the signal's and the subscription's references
  bool connected = true;
  bool active = true;
  struct SignalCore* core = nullptr;
  virtual ~SlotBase() = default;
  void unref() {
    if (--refs == 0) delete this;
  }
};

// The part of a signal that slots point back to. It is allocated on the
// first connection (an unwatched signal costs one pointer) and counted, so
// that a delivery survives the destruction of the signal's owner inside a
// callback.
struct SignalCore {
  std::vector<SlotBase*> slots;
  std::uint32_t refs = 1;   // the signal's, plus one per delivery in progress
  std::uint32_t depth = 0;  // nested deliveries in progress
  bool dirty = false;       // disconnected slots wait for removal

  void disconnect(SlotBase* slot);
  void compact();
  // Called by the signal's destructor: disconnects every slot.
  void detachAll();
  void unref() {
    if (--refs == 0) delete this;
  }
};

}  // namespace internal

// Owns one connection; disconnects when destroyed. Movable, not copyable.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(internal::SlotBase* slot) : slot_(slot) {}
  Subscription(Subscription&& o) noexcept : slot_(std::exchange(o.slot_, nullptr)) {}
  Subscription& operator=(Subscription&& o) noexcept {
    if (this != &o) {
      reset();
      slot_ = std::exchange(o.slot_, nullptr);
    }
    return *this;
  }
  ~Subscription() { reset(); }

  void reset();
  bool connected() const { return slot_ && slot_->connected; }
  void activeIs(bool active) {
    if (slot_) slot_->active = active;
  }

 private:
  internal::SlotBase* slot_ = nullptr;
};

template <class... Args>
class Signal {
 public:
  Signal() = default;
  Signal(Signal const&) = delete;
  Signal& operator=(Signal const&) = delete;

  // Connecting does not change the watched entity, hence const.
  ~Signal() {
    if (core_) core_->detachAll();
  }

  [[nodiscard]] Subscription connect(std::function<void(Args const&...)> fn) const {
    if (!core_) core_ = new internal::SignalCore;
    auto* slot = new Slot(std::move(fn));
    slot->refs = 2;
    slot->core = core_;
    core_->slots.push_back(slot);
    return Subscription(slot);
  }

  bool empty() const { return !core_ || core_->slots.empty(); }
  std::size_t size() const { return core_ ? core_->slots.size() : 0; }

  void emit(Args const&... args) const {
    if (!core_ || core_->slots.empty()) return;
    // The signal itself may be destroyed by a callback: work on the core only.
    internal::SignalCore* core = core_;
    ++core->refs;
    ++core->depth;
    // Slots connected during this delivery sit beyond `n` and wait for the next one.
    std::size_t const n = core->slots.size();
    for (std::size_t i = 0; i < n; ++i) {
      internal::SlotBase* base = core->slots[i];
      if (!base || !base->connected || !base->active) continue;
      ++base->refs;  // keeps the callback alive if its owner goes away inside it
      try {
        static_cast<Slot*>(base)->fn(args...);
      } catch (...) {
        base->unref();
        finish(core);
        throw;
      }
      base->unref();
    }
    finish(core);
  }

 private:
  struct Slot : internal::SlotBase {
    explicit Slot(std::function<void(Args const&...)> f) : fn(std::move(f)) {}
    std::function<void(Args const&...)> fn;
  };

  static void finish(internal::SignalCore* core) {
    if (--core->depth == 0 && core->dirty) core->compact();
    core->unref();
  }

  mutable internal::SignalCore* core_ = nullptr;
};

}  // namespace Vela
