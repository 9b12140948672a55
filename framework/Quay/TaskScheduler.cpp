#include "framework/Quay/TaskScheduler.h"

#include <cmath>
#include <utility>

#include "framework/Quay/TimerTask.h"
#include "framework/Vela/Exception.h"

namespace Quay {

namespace {

// Keeps a counted object alive across a call that may drop the last other
// reference to it. An object nobody counts on yet is left alone.
class Hold {
 public:
  explicit Hold(Vela::RefCounted const* p) : p_(p && p->refCount() != 0 ? p : nullptr) {
    if (p_) p_->ref();
  }
  ~Hold() {
    if (p_) p_->unref();
  }
  Hold(Hold const&) = delete;
  Hold& operator=(Hold const&) = delete;

 private:
  Vela::RefCounted const* p_;
};

}  // namespace

TaskScheduler::TaskScheduler() : TaskScheduler(Vela::make<SystemClock>()) {}

TaskScheduler::TaskScheduler(Vela::Ptr<Clock> clock) : clock_(std::move(clock)) {
  if (!clock_) throw Vela::RangeException("null clock parameter to Quay::TaskScheduler not allowed");
}

TaskScheduler::~TaskScheduler() {
  // Every task holds a reference to its scheduler, so none can be left here.
  VELA_ASSERT(waiting_.empty() && ready_.empty());
}

void TaskScheduler::post(std::function<void()> callback) { posted_.push_back(std::move(callback)); }

void TaskScheduler::timeSliceIs(double seconds) {
  if (!(seconds >= 0) || !std::isfinite(seconds)) {
    throw Vela::RangeException("TaskScheduler::timeSlice < 0 or not finite not allowed");
  }
  timeSlice_ = seconds;
}

void TaskScheduler::beginStep() {
  stepStart_ = clock_->now();
  yieldChecks_ = 0;
  sliceExpired_ = false;
}

bool TaskScheduler::runOne() {
  Hold self(this);
  if (!posted_.empty()) {
    std::function<void()> callback = std::move(posted_.front());
    posted_.pop_front();
    ++stepCount_;
    beginStep();
    if (callback) callback();
    return true;
  }
  promoteDue(clock_->now());
  if (ready_.empty()) return false;
  auto const first = ready_.begin();
  TimerTask& task = *first->task;
  ready_.erase(first);
  task.queue_ = TimerTask::Queue::none;
  ++stepCount_;
  runTask(task);
  return true;
}

void TaskScheduler::runTask(TimerTask& task) {
  // Undoes the run state however the handler ends, then lets the task go
  // (which may destroy it, if its owner dropped it during the run).
  struct RunGuard {
    TaskScheduler& scheduler;
    TimerTask& task;
    TimerTask::Handler& handler;
    TimerTask* previous;
    ~RunGuard() {
      if (!task.handlerReplaced_) task.handler_ = std::move(handler);
      task.handlerReplaced_ = false;
      scheduler.running_ = previous;
      task.unref();
    }
  };

  TimerTask::Handler handler = std::move(task.handler_);
  task.handler_ = nullptr;
  task.ref();
  RunGuard guard{*this, task, handler, running_};
  running_ = &task;
  ++task.runCount_;
  beginStep();
  if (handler) handler();
}

std::size_t TaskScheduler::runUntilIdle() {
  Hold self(this);
  std::uint64_t const before = stepCount_;
  runUntil({});
  return static_cast<std::size_t>(stepCount_ - before);
}

bool TaskScheduler::runUntil(std::function<bool()> const& done) {
  Hold self(this);
  stopRequested_ = false;
  for (;;) {
    if (done && done()) return true;
    if (stopRequested_) {
      stopRequested_ = false;
      return false;
    }
    if (runOne()) continue;
    if (waiting_.empty()) return false;
    clock_->waitUntil(waiting_.begin()->due);
  }
}

void TaskScheduler::promoteDue(double now) {
  while (!waiting_.empty() && waiting_.begin()->due <= now) {
    Slot const slot = *waiting_.begin();
    waiting_.erase(waiting_.begin());
    slot.task->readyPos_ = ready_.insert(slot).first;
    slot.task->queue_ = TimerTask::Queue::ready;
  }
}

void TaskScheduler::schedule(TimerTask& task, double due) {
  switch (task.queue_) {
    case TimerTask::Queue::ready:
      // Already due, hence due no later than any time asked for now.
      return;
    case TimerTask::Queue::waiting:
      if (task.waitingPos_->due <= due) return;
      waiting_.erase(task.waitingPos_);
      break;
    case TimerTask::Queue::none:
      break;
  }
  Slot const slot{due, static_cast<std::uint8_t>(task.priority_), nextSequence_++, &task};
  task.waitingPos_ = waiting_.insert(slot).first;
  task.queue_ = TimerTask::Queue::waiting;
}

void TaskScheduler::unschedule(TimerTask& task) {
  switch (task.queue_) {
    case TimerTask::Queue::waiting:
      waiting_.erase(task.waitingPos_);
      break;
    case TimerTask::Queue::ready:
      ready_.erase(task.readyPos_);
      break;
    case TimerTask::Queue::none:
      return;
  }
  task.queue_ = TimerTask::Queue::none;
}

}  // namespace Quay
