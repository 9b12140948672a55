// Named, prioritised tasks run by a TaskScheduler.
//
// A Quay::TimerTask is a counted entity created once by its owner and
// scheduled whenever there is work for it:
//
//   auto task = Vela::make<Quay::TimerTask>(scheduler, Quay::TaskPriority::defaultPriority,
//                                           "TunnelFibSm", [this] { drainTunnelBacklog(); });
//   task->scheduleTask();                  // run as soon as possible
//   task->scheduleTaskLowestDelay(0.01);   // run no sooner than 0.01 s from now
//
// Each scheduling runs the handler once. Scheduling a task that is already
// scheduled keeps the earlier of the two due times. A task is unscheduled
// while its handler runs, so the handler may reschedule it (or unschedule it
// again after something else rescheduled it during the run).
//
// A long-running handler asks taskShouldYield() between items of work and
// returns soon after it says yes, recording what it did and what is left:
// taskWorkCountInc(n) adds to the total work done, taskWorkPendingIs(m) says
// how much the last run left (non-zero: the task is coming back for it).
// These counts are the owner's report; the scheduler does not act on them.
//
// Lifetime: dropping the last reference unschedules the task. The scheduler
// holds a reference to the task while its handler runs, so the handler may
// drop its owner's reference (even the last one): the task then dies when the
// handler returns. The handler may also replace itself (handlerIs).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "framework/Quay/TaskScheduler.h"
#include "framework/Vela/Ptr.h"

namespace Quay {

class TimerTask : public Vela::RefCounted {
 public:
  using Handler = std::function<void()>;

  // A null scheduler is refused (Vela::RangeException).
  TimerTask(Vela::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name,
            Handler handler = {});

  Vela::Ptr<TaskScheduler> const& scheduler() const { return scheduler_; }
  std::string const& name() const { return name_; }
  TaskPriority priority() const { return priority_; }

  Handler const& handler() const { return handler_; }
  void handlerIs(Handler handler);

  void scheduleTask();
  // Runs after at least `seconds` of the scheduler clock; a negative or
  // non-finite delay is refused (Vela::RangeException).
  void scheduleTaskLowestDelay(double seconds);
  void unscheduleTask();
  bool taskScheduled() const { return queue_ != Queue::none; }
  // When the task is due to run; empty when it is not scheduled.
  std::optional<double> taskDueTime() const;
  // Whether the handler is running now.
  bool taskRunning() const { return scheduler_->runningTask() == this; }

  // The scheduler's yield decision for the running step.
  bool taskShouldYield() const { return scheduler_->taskShouldYield(); }

  std::uint64_t taskWorkPending() const { return taskWorkPending_; }
  void taskWorkPendingIs(std::uint64_t n) { taskWorkPending_ = n; }
  std::uint64_t taskWorkCount() const { return taskWorkCount_; }
  void taskWorkCountInc(std::uint64_t n = 1) { taskWorkCount_ += n; }
  // Number of times the handler was started.
  std::uint64_t runCount() const { return runCount_; }

 protected:
  ~TimerTask() override;

 private:
  friend class TaskScheduler;
  enum class Queue : std::uint8_t { none, waiting, ready };

  Vela::Ptr<TaskScheduler> scheduler_;
  TaskPriority priority_;
  std::string name_;
  Handler handler_;
  // While the handler runs it is held by the scheduler; set when handlerIs
  // replaces it meanwhile, so that the replacement is kept.
  bool handlerReplaced_ = false;

  Queue queue_ = Queue::none;
  TaskScheduler::WaitingQueue::iterator waitingPos_{};
  TaskScheduler::ReadyQueue::iterator readyPos_{};

  std::uint64_t taskWorkPending_ = 0;
  std::uint64_t taskWorkCount_ = 0;
  std::uint64_t runCount_ = 0;
};

}  // namespace Quay
