// The agent base.
//
// An agent is started on an event loop with an entity manager: start()
// queues doInit(entityManager) on the loop; doInit issues the agent's mounts,
// and the mount group's completion arrives as doMountsComplete(status,
// entityManager), where the agent builds its state machines. The scheduler
// root names the task scheduler that the agent's tasks run on.
#pragma once

#include "framework/Corvel/EntityManager.h"
#include "framework/Quay/TaskScheduler.h"
#include "framework/Vela/Entity.h"

namespace Plinth {

// The agent's task scheduler root: an entity that yields the scheduler its
// tasks are scheduled on.
class SchedulerRoot : public Vela::Entity {
 public:
  SchedulerRoot(Vela::Name name, Vela::Ptr<Quay::TaskScheduler> scheduler)
      : Entity(std::move(name)), scheduler_(std::move(scheduler)) {}
  std::string_view typeName() const override { return "Plinth::SchedulerRoot"; }
  Vela::Ptr<Quay::TaskScheduler> const& scheduler() const { return scheduler_; }

 private:
  Vela::Ptr<Quay::TaskScheduler> scheduler_;
};

class CAgent : public Vela::Entity, public Corvel::MountClient {
 public:
  Vela::Ptr<Corvel::EntityManager> const& entityManager() const { return entityManager_; }
  Vela::Ptr<Quay::TaskScheduler> const& scheduler() const { return entityManager_->scheduler(); }

  // Queues doInit on the event loop.
  void start();
  bool started() const { return started_; }

  virtual void doInit(Vela::Ptr<Corvel::EntityManager> const& entityManager) = 0;
  void doMountsComplete(Corvel::MountStatus status,
                        Vela::Ptr<Corvel::EntityManager> const& entityManager) override = 0;

 protected:
  CAgent(Vela::Name name, Vela::Ptr<Corvel::EntityManager> entityManager)
      : Entity(std::move(name)), entityManager_(std::move(entityManager)) {}

 private:
  Vela::Ptr<Corvel::EntityManager> entityManager_;
  bool started_ = false;
};

}  // namespace Plinth
