// The single-threaded event loop of an agent.
//
// A Quay::TaskScheduler runs, one at a time, two kinds of work:
//  - posted callbacks (post(f)): one-shot work delivered "later, through the
//    event loop", such as mount completions. They run in the order posted,
//    before any task, one per loop step.
//  - scheduled tasks (Quay::TimerTask, TimerTask.h): named, prioritised,
//    rescheduled by their owners. A task is due once the scheduler clock has
//    reached its due time. Among the tasks that are due when the loop picks
//    one, the highest TaskPriority runs first; equal priorities run in order
//    of due time, then in the order they were scheduled. A waiting
//    low-priority task therefore runs only in a gap between higher-priority
//    ones; a long task that reschedules itself with a delay leaves that gap.
//
// Driving the loop: runOne() runs one item that is due now; runUntilIdle()
// runs until nothing is posted or scheduled at all, letting the clock move to
// the next due time whenever nothing is due (a ManualClock jumps, the system
// clock sleeps); runUntil(done) stops as soon as done() holds; stop(), called
// from inside a step, makes the running loop return after that step. Steps
// do not drive the loop themselves.
//
// Cooperative yielding: a task that works through a long backlog asks
// taskShouldYield() between items and returns soon after it says yes. By
// default the answer is yes once the step has run for a time slice (0.05 s of
// the scheduler clock); the clock is read only every 64 questions, so asking
// costs a counter increment. yieldEveryIs(n) makes every n-th question of a
// step say yes whatever the time (n = 1: every check yields), which tests use
// to cut work into exact pieces; yieldEveryIs(0) returns to the time slice.
//
// The scheduler is a counted entity (Vela::make<Quay::TaskScheduler>()); every
// TimerTask holds a reference to its scheduler, so a scheduler outlives its
// tasks. Scheduling and unscheduling cost O(log n) in the number of tasks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <set>

#include "framework/Quay/Clock.h"
#include "framework/Vela/Ptr.h"

namespace Quay {

class TimerTask;

// Urgency of a task: a small integer, higher runs first among due tasks. Any
// value 0 to 255 may be used (TaskPriority{7}); the named ones cover the usual
// needs. Background work that reschedules itself (the tunnel FIB review)
// runs at defaultPriority, value 2.
enum class TaskPriority : std::uint8_t {
  idlePriority = 0,
  lowPriority = 1,
  defaultPriority = 2,
  highPriority = 3,
  urgentPriority = 4,
};

class TaskScheduler : public Vela::RefCounted {
 public:
  static constexpr double defaultTimeSlice = 0.05;
  // The time slice is checked against the clock once per this many questions.
  static constexpr std::uint32_t yieldCheckInterval = 64;

  // Runs on the system clock.
  TaskScheduler();
  // Runs on the given clock (a ManualClock in tests); null is refused.
  explicit TaskScheduler(Vela::Ptr<Clock> clock);

  Vela::Ptr<Clock> const& clock() const { return clock_; }
  double now() const { return clock_->now(); }

  // Queues a one-shot callback; it runs in a later loop step, after the
  // callbacks posted before it and before any task.
  void post(std::function<void()> callback);
  std::size_t postedCount() const { return posted_.size(); }
  // Number of scheduled tasks, due or not.
  std::size_t scheduledCount() const { return waiting_.size() + ready_.size(); }
  // Anything posted or scheduled, due or not.
  bool pendingWork() const { return !posted_.empty() || scheduledCount() != 0; }

  // Runs one posted callback, or else the most urgent due task. Returns false,
  // having run nothing, when nothing is due.
  bool runOne();
  // Runs until nothing is posted or scheduled, or until stop(). Returns the
  // number of steps run.
  std::size_t runUntilIdle();
  // Runs until done() holds (checked before every step), stop(), or nothing
  // is posted or scheduled any more. Returns whether done() held.
  bool runUntil(std::function<bool()> const& done);
  // Makes the running runUntil / runUntilIdle return after the current step.
  // Outside a running loop it has no effect.
  void stop() { stopRequested_ = true; }

  // Steps run so far (posted callbacks and task runs).
  std::uint64_t stepCount() const { return stepCount_; }
  // The task whose handler is running, or null.
  TimerTask* runningTask() const { return running_; }

  // The yield decision for the running step (see the file comment).
  bool taskShouldYield() {
    ++yieldChecks_;
    if (yieldEvery_ != 0) return yieldChecks_ % yieldEvery_ == 0;
    if (sliceExpired_) return true;
    if (yieldChecks_ % yieldCheckInterval != 0) return false;
    sliceExpired_ = clock_->now() - stepStart_ >= timeSlice_;
    return sliceExpired_;
  }
  double timeSlice() const { return timeSlice_; }
  // Seconds of the scheduler clock a step may run before it is asked to yield.
  void timeSliceIs(double seconds);
  std::uint32_t yieldEvery() const { return yieldEvery_; }
  void yieldEveryIs(std::uint32_t n) { yieldEvery_ = n; }

 protected:
  ~TaskScheduler() override;

 private:
  friend class TimerTask;

  // A scheduled task's place in one of the two queues.
  struct Slot {
    double due;
    std::uint8_t priority;
    std::uint64_t sequence;
    TimerTask* task;
  };
  // Tasks not yet due, earliest first.
  struct ByDueTime {
    bool operator()(Slot const& a, Slot const& b) const {
      if (a.due != b.due) return a.due < b.due;
      return a.sequence < b.sequence;
    }
  };
  // Due tasks, most urgent first.
  struct ByUrgency {
    bool operator()(Slot const& a, Slot const& b) const {
      if (a.priority != b.priority) return a.priority > b.priority;
      if (a.due != b.due) return a.due < b.due;
      return a.sequence < b.sequence;
    }
  };
  using WaitingQueue = std::set<Slot, ByDueTime>;
  using ReadyQueue = std::set<Slot, ByUrgency>;

  // Keeps the earlier of the task's current and requested due times.
  void schedule(TimerTask& task, double due);
  void unschedule(TimerTask& task);
  // Moves every waiting task due at `now` to the ready queue.
  void promoteDue(double now);
  void runTask(TimerTask& task);
  void beginStep();

  Vela::Ptr<Clock> clock_;
  std::deque<std::function<void()>> posted_;
  WaitingQueue waiting_;
  ReadyQueue ready_;
  std::uint64_t nextSequence_ = 0;

  TimerTask* running_ = nullptr;
  std::uint64_t stepCount_ = 0;
  bool stopRequested_ = false;

  double timeSlice_ = defaultTimeSlice;
  std::uint32_t yieldEvery_ = 0;
  double stepStart_ = 0.0;
  std::uint64_t yieldChecks_ = 0;
  bool sliceExpired_ = false;
};

}  // namespace Quay
