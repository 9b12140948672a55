// Time sources of the task scheduler.
//
// A Quay::Clock tells the scheduler what time it is, in seconds, as a double
// whose origin means nothing (only differences and comparisons do). Clocks
// are counted entities: create them with Vela::make and share them through
// Vela::Ptr.
//
//  - SystemClock follows the monotonic clock of the host; the event loop of
//    the agent runs on it.
//  - ManualClock stands still until it is told to move (advance, nowIs), so
//    that tests drive time by hand and never sleep.
//
// waitUntil(t) is how the scheduler's loop lets time pass when it has nothing
// to do before t: SystemClock sleeps, ManualClock jumps straight to t.
#pragma once

#include <chrono>
#include <cmath>
#include <thread>

#include "framework/Vela/Exception.h"
#include "framework/Vela/Ptr.h"

namespace Quay {

class Clock : public Vela::RefCounted {
 public:
  // Seconds since an arbitrary origin; never decreases.
  virtual double now() const = 0;
  // Returns once now() >= t; at once when that already holds.
  virtual void waitUntil(double t) = 0;

 protected:
  Clock() = default;
  ~Clock() override = default;
};

class SystemClock final : public Clock {
 public:
  double now() const override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }
  void waitUntil(double t) override {
    for (double left = t - now(); left > 0; left = t - now()) {
      std::this_thread::sleep_for(std::chrono::duration<double>(left));
    }
  }

 private:
  ~SystemClock() override = default;
};

// Time moves only when told to. Going backwards is refused, as are
// non-finite times, so that due times stay ordered.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(double start = 0.0) : now_(start) {
    if (!std::isfinite(start)) throw Vela::RangeException("ManualClock start time must be finite");
  }

  double now() const override { return now_; }
  void waitUntil(double t) override {
    if (t > now_) nowIs(t);
  }

  void advance(double seconds) {
    if (!(seconds >= 0) || !std::isfinite(seconds)) {
      throw Vela::RangeException("ManualClock::advance: seconds < 0 or not finite not allowed");
    }
    now_ += seconds;
  }
  void nowIs(double t) {
    if (!(t >= now_) || !std::isfinite(t)) {
      throw Vela::RangeException("ManualClock::nowIs: time before now or not finite not allowed");
    }
    now_ = t;
  }

 private:
  ~ManualClock() override = default;

  double now_;
};

}  // namespace Quay
