#include "framework/Vela/Signal.h"

#include <algorithm>

namespace Vela {

namespace internal {

void SignalCore::disconnect(SlotBase* slot) {
  slot->connected = false;
  slot->core = nullptr;
  auto it = std::find(slots.begin(), slots.end(), slot);
  if (it == slots.end()) return;
  if (depth > 0) {
    // A delivery is walking the list by index: leave a hole, remove it later.
    *it = nullptr;
    dirty = true;
  } else {
    slots.erase(it);
  }
  slot->unref();
}

void SignalCore::compact() {
  slots.erase(std::remove(slots.begin(), slots.end(), nullptr), slots.end());
  dirty = false;
}

void SignalCore::detachAll() {
  for (SlotBase*& slot : slots) {
    if (!slot) continue;
    slot->connected = false;
    slot->core = nullptr;
    slot->unref();
    slot = nullptr;
  }
  dirty = true;
  unref();
}

}  // namespace internal

void Subscription::reset() {
  if (!slot_) return;
  if (slot_->core) slot_->core->disconnect(slot_);
  slot_->unref();
  slot_ = nullptr;
}

}  // namespace Vela
