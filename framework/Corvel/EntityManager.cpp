#include "framework/Corvel/EntityManager.h"

#include <algorithm>

namespace Corvel {

MountClient::~MountClient() {
  // A group that completes after its client is gone reports to no one.
  for (MountGroup* group : openGroups_) group->client_ = nullptr;
}

MountGroup::MountGroup(Vela::Ptr<EntityManager> manager, MountClient* client)
    : manager_(std::move(manager)), client_(client) {
  if (client_) client_->openGroups_.push_back(this);
}

MountGroup::~MountGroup() {
  if (client_) {
    auto& groups = client_->openGroups_;
    groups.erase(std::remove(groups.begin(), groups.end(), this), groups.end());
  }
}

void MountGroup::doMount(std::string_view path, std::string_view typeName, std::string_view mode) {
  VELA_ASSERT(!closed_);
  requests_.push_back({std::string(path), std::string(typeName), std::string(mode)});
}

void MountGroup::doClose(std::string_view, double) {
  VELA_ASSERT(!closed_);
  closed_ = true;
  Vela::Ptr<MountGroup> self(this);
  manager_->scheduler()->post([self] { self->complete(); });
}

void MountGroup::complete() {
  MountStatus status = mountSuccess;
  for (auto const& request : requests_) {
    MountStatus const s = manager_->mount(request);
    if (s != mountSuccess && status == mountSuccess) status = s;
  }
  if (MountClient* client = client_) {
    auto& groups = client->openGroups_;
    groups.erase(std::remove(groups.begin(), groups.end(), this), groups.end());
    client_ = nullptr;
    client->doMountsComplete(status, manager_);
  }
}

EntityManager::EntityManager(Vela::Ptr<Quay::TaskScheduler> scheduler)
    : scheduler_(std::move(scheduler)), root_(Vela::make<Vela::Dir>("")) {
  typeIs<Vela::Dir>("Vela::Dir");
}

void EntityManager::typeIs(std::string const& typeName, EntityFactory factory) {
  factories_[typeName] = std::move(factory);
}

bool EntityManager::knowsType(std::string const& typeName) const { return factories_.count(typeName) > 0; }

Vela::Ptr<Vela::Entity> EntityManager::newEntity(std::string const& typeName, Vela::Name const& name) const {
  auto it = factories_.find(typeName);
  return it == factories_.end() ? nullptr : it->second(name);
}

std::vector<std::string_view> splitPath(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    auto slash = path.find('/');
    auto part = path.substr(0, slash);
    if (!part.empty()) parts.push_back(part);
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return parts;
}

Vela::Ptr<Vela::Entity> EntityManager::getEntity(std::string_view path) const {
  Vela::Ptr<Vela::Entity> cur = root_;
  for (auto part : splitPath(path)) {
    auto dir = Vela::dynamicPtrCast<Vela::Dir>(cur);
    if (!dir) return nullptr;
    cur = dir->entry(Vela::Name(part));
    if (!cur) return nullptr;
  }
  return cur;
}

Vela::Ptr<Vela::Dir> EntityManager::dirIs(std::string_view path) {
  Vela::Ptr<Vela::Dir> cur = root_;
  for (auto part : splitPath(path)) {
    Vela::Name const name(part);
    auto next = Vela::dynamicPtrCast<Vela::Dir>(cur->entry(name));
    if (!next) {
      VELA_ASSERT(!cur->entry(name));  // a non-directory is in the way
      next = Vela::make<Vela::Dir>(name);
      cur->entryIs(name, next);
    }
    cur = next;
  }
  return cur;
}

void EntityManager::entityIs(std::string_view path, Vela::Ptr<Vela::Entity> const& entity) {
  auto parts = splitPath(path);
  VELA_ASSERT(!parts.empty());
  std::string parent;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    parent += parts[i];
    parent += '/';
  }
  dirIs(parent)->entryIs(Vela::Name(parts.back()), entity);
}

bool EntityManager::entityDel(std::string_view path) {
  auto parts = splitPath(path);
  if (parts.empty()) return false;
  std::string parent;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    parent += parts[i];
    parent += '/';
  }
  auto dir = Vela::dynamicPtrCast<Vela::Dir>(getEntity(parent));
  return dir && dir->entryDel(Vela::Name(parts.back()));
}

Vela::Ptr<MountGroup> EntityManager::getMountGroup(MountClient* client) {
  return Vela::Ptr<MountGroup>(new MountGroup(Vela::Ptr<EntityManager>(this), client));
}

MountStatus EntityManager::mount(MountRequest const& request) {
  auto parts = splitPath(request.path);
  if (parts.empty()) return MountStatus::mountBadPath;
  if (auto existing = getEntity(request.path)) {
    return existing->typeName() == request.typeName ? mountSuccess : MountStatus::mountTypeMismatch;
  }
  auto created = newEntity(request.typeName, Vela::Name(parts.back()));
  if (!created) return MountStatus::mountUnknownType;
  entityIs(request.path, created);
  return mountSuccess;
}

}  // namespace Corvel
