// The embedded state database.
//
// Corvel::EntityManager holds the shared state of the process as a tree of
// Vela::Dir entities addressed by slash-separated paths ("tunnel/table/ldp").
// Writers publish entities at paths (entityIs); agents ask for what they need
// through a mount group: doMount(path, typeName, mode) for each path, then
// doClose(). The mounts complete later, through the event loop, with one call
// of the mount client's doMountsComplete(status, entityManager).
//
// A mount finds the entity at the path, or creates one of the requested type
// (through the type registry) when the path is empty. The status is
// mountSuccess when every mount of the group resolved, mountTypeMismatch when
// an existing entity has another type, mountUnknownType when an absent entity
// has a type nobody registered, and mountBadPath for an empty path.
//
// Modes: "r" read-only, "w" writable, "riO" read-only directory whose entries
// appear (and notify) as writers add them. The modes are recorded; the
// in-process database hands out the same entity to every mounter.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Quay/TaskScheduler.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Enum.h"

namespace Corvel {

VELA_ENUM(MountStatus, std::uint8_t, "Corvel::MountStatus", mountSuccess = 0, mountTypeMismatch = 1,
          mountUnknownType = 2, mountBadPath = 3)

inline constexpr MountStatus mountSuccess = MountStatus::mountSuccess;

class EntityManager;

// Receives the completion of a mount group.
class MountClient {
 public:
  virtual ~MountClient();
  virtual void doMountsComplete(MountStatus status, Vela::Ptr<EntityManager> const& entityManager) = 0;

 private:
  friend class MountGroup;
  std::vector<class MountGroup*> openGroups_;
};

struct MountRequest {
  std::string path;
  std::string typeName;
  std::string mode;
};

class MountGroup : public Vela::RefCounted {
 public:
  void doMount(std::string_view path, std::string_view typeName, std::string_view mode);
  // Ends the request list; the mounts are resolved and reported later through
  // the event loop. The name and time-out are accepted for the platform's
  // interface; the in-process database completes at once.
  void doClose(std::string_view name = {}, double timeout = 0.0);
  std::vector<MountRequest> const& requests() const { return requests_; }

 private:
  friend class EntityManager;
  friend class MountClient;
  MountGroup(Vela::Ptr<EntityManager> manager, MountClient* client);
  ~MountGroup() override;
  void complete();

  Vela::Ptr<EntityManager> manager_;
  MountClient* client_;
  std::vector<MountRequest> requests_;
  bool closed_ = false;
};

using EntityFactory = std::function<Vela::Ptr<Vela::Entity>(Vela::Name const&)>;

class EntityManager : public Vela::RefCounted {
 public:
  explicit EntityManager(Vela::Ptr<Quay::TaskScheduler> scheduler);

  Vela::Ptr<Quay::TaskScheduler> const& scheduler() const { return scheduler_; }

  // Creation of entities by type name, for mounts of paths nobody wrote yet.
  void typeIs(std::string const& typeName, EntityFactory factory);
  template <class T>
  void typeIs(std::string const& typeName) {
    typeIs(typeName, [](Vela::Name const& n) -> Vela::Ptr<Vela::Entity> { return Vela::make<T>(n); });
  }
  bool knowsType(std::string const& typeName) const;
  Vela::Ptr<Vela::Entity> newEntity(std::string const& typeName, Vela::Name const& name) const;

  // The entity at `path`, or null.
  Vela::Ptr<Vela::Entity> getEntity(std::string_view path) const;
  // Publishes `entity` at `path`, creating the directories on the way. The
  // parent directory notifies its watchers of the new entry.
  void entityIs(std::string_view path, Vela::Ptr<Vela::Entity> const& entity);
  // Removes the entry at `path` (its directory notifies); false if absent.
  bool entityDel(std::string_view path);
  // The directory at `path`, created (with its parents) when absent.
  Vela::Ptr<Vela::Dir> dirIs(std::string_view path);

  Vela::Ptr<Vela::Dir> const& root() const { return root_; }

  Vela::Ptr<MountGroup> getMountGroup(MountClient* client);

  // Resolves one mount: finds or creates the entity.
  MountStatus mount(MountRequest const& request);

 private:
  Vela::Ptr<Quay::TaskScheduler> scheduler_;
  Vela::Ptr<Vela::Dir> root_;
  std::map<std::string, EntityFactory, std::less<>> factories_;
};

// Splits "a/b/c" (leading, trailing and doubled slashes ignored).
std::vector<std::string_view> splitPath(std::string_view path);

}  // namespace Corvel
