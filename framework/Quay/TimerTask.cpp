#include "framework/Quay/TimerTask.h"

#include <cmath>
#include <utility>

#include "framework/Vela/Exception.h"

namespace Quay {

TimerTask::TimerTask(Vela::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name,
                     Handler handler)
    : scheduler_(std::move(scheduler)),
      priority_(priority),
      name_(std::move(name)),
      handler_(std::move(handler)) {
  if (!scheduler_) throw Vela::RangeException("null scheduler parameter to Quay::TimerTask not allowed");
}

TimerTask::~TimerTask() { scheduler_->unschedule(*this); }

void TimerTask::handlerIs(Handler handler) {
  handler_ = std::move(handler);
  if (taskRunning()) handlerReplaced_ = true;
}

void TimerTask::scheduleTask() { scheduler_->schedule(*this, scheduler_->now()); }

void TimerTask::scheduleTaskLowestDelay(double seconds) {
  if (!(seconds >= 0) || !std::isfinite(seconds)) {
    throw Vela::RangeException("TimerTask::scheduleTaskLowestDelay: delay < 0 or not finite not allowed");
  }
  scheduler_->schedule(*this, scheduler_->now() + seconds);
}

void TimerTask::unscheduleTask() { scheduler_->unschedule(*this); }

std::optional<double> TimerTask::taskDueTime() const {
  switch (queue_) {
    case Queue::waiting:
      return waitingPos_->due;
    case Queue::ready:
      return readyPos_->due;
    case Queue::none:
      break;
  }
  return std::nullopt;
}

}  // namespace Quay
