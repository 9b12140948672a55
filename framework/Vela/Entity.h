// Entities: named, counted objects with notifying attributes and collections.
//
// An entity holds its state in the members declared here:
//  - Vela::Attribute<T>: a scalar; writing an equal value changes nothing and
//    notifies no one;
//  - Vela::ValueCollection<K, V>: keyed values (a set is a collection of bool);
//    reading an absent key yields V's default;
//  - Vela::EntityCollection<K, E>: entities owned by this one, created with
//    newMember(key, ...);
//  - Vela::RefCollection<K, E>: references to entities owned elsewhere; a null
//    reference is refused with a range error naming the mutator.
// Each announces changes through a Vela::Signal (per attribute; per key for
// collections). The VELA_* accessor macros at the end generate the
// conventional accessors (x(), xIs(), newX(), xDel(), xDelAll()) over them.
// The map behind a collection defaults to Vela::HashMap (bit-reversed hash
// order); Vela::OrderedMap gives key order; a collection of bool over a
// Vela::ValueSet is a set that stays small while it has few members.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "framework/Vela/Exception.h"
#include "framework/Vela/HashMap.h"
#include "framework/Vela/OrderedMap.h"
#include "framework/Vela/Ptr.h"
#include "framework/Vela/Signal.h"
#include "framework/Vela/Types.h"
#include "framework/Vela/ValueSet.h"

namespace Vela {

class Entity : public RefCounted {
 public:
  Name const& name() const {
    if (name_) return *name_;
    if (!onDemand_) return noName();
    name_ = std::make_unique<Name const>(nameOnDemand());
    return *name_;
  }
  // The type name under which the state database knows this entity.
  virtual std::string_view typeName() const { return "Vela::Entity"; }

 protected:
  explicit Entity(Name name = {}) {
    if (!name.empty()) name_ = std::make_unique<Name const>(std::move(name));
  }
  // For entities named after a key they hold, whose text form costs more
  // than making the entity: the name is made by nameOnDemand() when first
  // asked for, and kept.
  struct NamedOnDemand {};
  explicit Entity(NamedOnDemand) : onDemand_(true) {}
  virtual Name nameOnDemand() const { return {}; }

 private:
  static Name const& noName() {
    static Name const none;
    return none;
  }

  // A RIB holds millions of entities and few of them are ever asked their
  // name, so the name is held apart and an entity without one carries only
  // a null pointer (the flag sits in the padding after the reference count).
  bool onDemand_ = false;
  mutable std::unique_ptr<Name const> name_;
};

// Keeps an entity alive for the duration of a delivery that might drop the
// last reference to it (an entity not yet held by any Ptr is left alone).
class KeepAlive {
 public:
  explicit KeepAlive(RefCounted const* e) : e_(e && e->refCount() ? e : nullptr) {
    if (e_) e_->ref();
  }
  ~KeepAlive() {
    if (e_) e_->unref();
  }
  KeepAlive(KeepAlive const&) = delete;
  KeepAlive& operator=(KeepAlive const&) = delete;

 private:
  RefCounted const* e_;
};

template <class T>
class Attribute {
 public:
  Attribute() = default;
  explicit Attribute(T initial) : value_(std::move(initial)) {}

  T const& get() const { return value_; }
  // Returns whether the value changed (and watchers were told).
  bool set(T const& v) {
    if (value_ == v) return false;
    value_ = v;
    changed_.emit();
    return true;
  }
  Signal<> const& changed() const { return changed_; }

 private:
  // The value last, so that a small one leaves room behind it that the
  // member declared next may take (VELA_ATTRIBUTE lets it).
  Signal<> changed_;
  T value_{};
};

template <class K, class V, class Map = HashMap<K, V>>
class ValueCollection {
 public:
  using key_type = K;
  using map_type = Map;

  // Whether Map is a set (ValueSet): it holds keys only and every member's
  // value is true; a set of a few members costs far less than a HashMap.
  static constexpr bool kKeysOnly = requires(Map & m, K const& k) { m.insert(k); };

  V const& get(K const& k) const {
    if (auto const* v = lookup(k)) return *v;
    return defaultValue();
  }
  V const* lookup(K const& k) const {
    if constexpr (kKeysOnly) {
      static constexpr V kMember{true};
      return map_.contains(k) ? &kMember : nullptr;
    } else {
      return map_.lookup(k);
    }
  }
  // The same with the key's hash worked out (a HashMap's members only).
  template <class H>
  V const* lookup(Hashed<K, H> const& k) const {
    return map_.lookup(k);
  }
  bool contains(K const& k) const { return map_.contains(k); }
  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  // Makes room for n members (see HashMap::makeRoom); notifies nothing.
  void makeRoom(std::size_t n) { map_.makeRoom(n); }

  // Inserts or replaces; notifies only when the stored value changed.
  // A set takes only true. A value passed as an rvalue is moved in, and
  // left as it was when equal to the stored one.
  bool set(K const& k, V const& v) { return store(k, v); }
  bool set(K const& k, V&& v) { return store(k, std::move(v)); }
  bool del(K const& k) {
    if (!map_.erase(k)) return false;
    changed_.emit(k);
    return true;
  }
  void delAll() {
    while (!map_.empty()) del(K(map_.begin().key()));
  }

  Map const& map() const { return map_; }
  auto begin() const { return map_.begin(); }
  auto end() const { return map_.end(); }
  Signal<K> const& changed() const { return changed_; }

 private:
  template <class U>
  bool store(K const& k, U&& v) {
    if constexpr (kKeysOnly) {
      VELA_ASSERT(v == V{true});
      if (!map_.insert(k)) return false;
    } else {
      // tryEmplace consumes `v` only when it inserts.
      auto [it, inserted] = map_.tryEmplace(k, std::forward<U>(v));
      if (!inserted) {
        if (it.value() == v) return false;
        it.value() = std::forward<U>(v);
      }
    }
    changed_.emit(k);
    return true;
  }

  static V const& defaultValue() {
    static V const v{};
    return v;
  }
  Map map_;
  Signal<K> changed_;
};

// Counted references to entities, keyed; the common part of owned and
// borrowed entity collections.
template <class K, class E, class Map = HashMap<K, Ptr<E>>>
class PtrCollection {
 public:
  using key_type = K;

  Ptr<E> get(K const& k) const {
    if (auto const* p = map_.lookup(k)) return *p;
    return nullptr;
  }
  // The same with the key's hash worked out (a HashMap's members only).
  template <class H>
  Ptr<E> get(Hashed<K, H> const& k) const {
    if (auto const* p = map_.lookup(k)) return *p;
    return nullptr;
  }
  bool contains(K const& k) const { return map_.contains(k); }
  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }

  // Inserts `e` under k, replacing any other member.
  void set(K const& k, Ptr<E> const& e) {
    auto [it, inserted] = map_.tryEmplace(k, e);
    if (!inserted) {
      if (it.value() == e) return;
      it.value() = e;
    }
    changed_.emit(k);
  }
  bool del(K const& k) {
    auto it = map_.find(k);
    if (it == map_.end()) return false;
    Ptr<E> keep = std::move(it.value());  // the member dies after the watchers were told
    map_.erase(it);
    changed_.emit(k);
    return true;
  }
  void delAll() {
    while (!map_.empty()) del(K(map_.begin().key()));
  }

  Map const& map() const { return map_; }
  auto begin() const { return map_.begin(); }
  auto end() const { return map_.end(); }
  Signal<K> const& changed() const { return changed_; }

 protected:
  Map map_;
  Signal<K> changed_;
};

// Entities owned by the collection's entity.
template <class K, class E, class Map = HashMap<K, Ptr<E>>>
class EntityCollection : public PtrCollection<K, E, Map> {
 public:
  // Creates the member E(k, args...) unless one exists; returns the member.
  template <class... Args>
  Ptr<E> newMember(K const& k, Args&&... args) {
    return newMemberAt(k, k, std::forward<Args>(args)...);
  }
  // The same with the key's hash worked out (a HashMap's members only).
  template <class H, class... Args>
  Ptr<E> newMember(Hashed<K, H> const& k, Args&&... args) {
    return newMemberAt(k.key, k, std::forward<Args>(args)...);
  }

 private:
  // newMember() of k, found in the map as `at` (k, or k with its hash).
  template <class At, class... Args>
  Ptr<E> newMemberAt(K const& k, At const& at, Args&&... args) {
    auto [it, inserted] = this->map_.tryEmplace(at);
    if (!inserted) return it.value();
    Ptr<E> e = make<E>(k, std::forward<Args>(args)...);
    it.value() = e;
    this->changed_.emit(k);
    return e;
  }
};

// References to entities owned elsewhere. `mutatorName` is the qualified
// attribute name used in the null-reference error, for example
// "Tunnel::Decap::Config::decapGroup".
template <class K, class E, class Map = HashMap<K, Ptr<E>>>
class RefCollection : public PtrCollection<K, E, Map> {
 public:
  explicit RefCollection(char const* paramName, char const* mutatorName)
      : paramName_(paramName), mutatorName_(mutatorName) {}

  void set(K const& k, Ptr<E> const& e) {
    if (!e) {
      throw RangeException(std::string("null _") + paramName_ + " parameter to mutator for " + mutatorName_ +
                           " not allowed\"");
    }
    PtrCollection<K, E, Map>::set(k, e);
  }

 private:
  char const* paramName_;
  char const* mutatorName_;
};

// A directory: named entries, each an entity of any type, in name order.
class Dir : public Entity {
 public:
  explicit Dir(Name name = {}) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Vela::Dir"; }

  Ptr<Entity> entry(Name const& n) const { return entries_.get(n); }
  void entryIs(Name const& n, Ptr<Entity> const& e) { entries_.set(n, e); }
  bool entryDel(Name const& n) { return entries_.del(n); }
  void entryDelAll() { entries_.delAll(); }
  std::size_t entryCount() const { return entries_.size(); }
  EntityCollection<Name, Entity, OrderedMap<Name, Ptr<Entity>>> const& entries() const { return entries_; }

 private:
  EntityCollection<Name, Entity, OrderedMap<Name, Ptr<Entity>>> entries_;
};

// Watches one notifier entity. A subclass connects to the notifier's signals
// in onNotifier(); notifierIs() replaces the notifier (dropping every old
// connection) and hasNotificationActiveIs(false) silences the reactor without
// detaching it.
template <class E>
class Reactor {
 public:
  Reactor() = default;
  Reactor(Reactor const&) = delete;
  Reactor& operator=(Reactor const&) = delete;
  virtual ~Reactor() = default;

  Ptr<E const> const& notifier() const { return notifier_; }
  void notifierIs(Ptr<E const> const& n) {
    if (n == notifier_) return;
    subscriptions_.clear();
    notifier_ = n;
    if (notifier_) onNotifier(*notifier_);
  }
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active) {
    active_ = active;
    for (auto& s : subscriptions_) s.activeIs(active);
  }

 protected:
  virtual void onNotifier(E const& notifier) = 0;
  // Connects `fn` to `signal` for as long as this notifier is watched.
  template <class... Args, class F>
  void watch(Signal<Args...> const& signal, F&& fn) {
    subscriptions_.push_back(signal.connect(std::forward<F>(fn)));
    subscriptions_.back().activeIs(active_);
  }

 private:
  Ptr<E const> notifier_;
  std::vector<Subscription> subscriptions_;
  bool active_ = true;
};

}  // namespace Vela

// Scalar attribute `name` of type Type: name(), nameIs(v), and the signal
// name##Changed() that fires when the value changes.
#define VELA_ATTRIBUTE(Type, name)                                            \
 public:                                                                      \
  Type const& name() const { return name##_.get(); }                          \
  void name##Is(Type const& v) { name##_.set(v); }                            \
  ::Vela::Signal<> const& name##Changed() const { return name##_.changed(); } \
                                                                              \
 private:                                                                     \
  [[no_unique_address]] ::Vela::Attribute<Type> name##_

// Value collection `name` keyed by Key: name(k) (default when absent),
// name##Is(k, v), name##Del(k), name##DelAll(), name##s() (the collection, for
// iteration, size and the per-key signal changed()).
#define VELA_VALUE_COLLECTION(Key, Value, name, ...)                 \
 public:                                                             \
  Value const& name(Key const& k) const { return name##_.get(k); }   \
  void name##Is(Key const& k, Value const& v) { name##_.set(k, v); } \
  void name##Del(Key const& k) { name##_.del(k); }                   \
  void name##DelAll() { name##_.delAll(); }                          \
  auto const& name##s() const { return name##_; }                    \
                                                                     \
 private:                                                            \
  ::Vela::ValueCollection<Key, Value __VA_OPT__(, ) __VA_ARGS__> name##_

// Owned entity collection `name` keyed by Key, member type Type: name(k) (null
// when absent), new##Name(k, args...) (creates Type(k, args...) or returns the
// existing member), name##Del(k), name##DelAll(), name##s().
#define VELA_ENTITY_COLLECTION(Key, Type, name, Name, ...)              \
 public:                                                                \
  ::Vela::Ptr<Type> name(Key const& k) const { return name##_.get(k); } \
  template <class... A>                                                 \
  ::Vela::Ptr<Type> new##Name(Key const& k, A&&... a) {                 \
    return name##_.newMember(k, std::forward<A>(a)...);                 \
  }                                                                     \
  void name##Del(Key const& k) { name##_.del(k); }                      \
  void name##DelAll() { name##_.delAll(); }                             \
  auto const& name##s() const { return name##_; }                       \
                                                                        \
 private:                                                               \
  ::Vela::EntityCollection<Key, Type __VA_OPT__(, ) __VA_ARGS__> name##_
