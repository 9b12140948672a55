// The event loop and its tasks: run order (posted callbacks, priority, due
// time), delays on a hand-driven clock, the yield policy, tasks that change
// their own scheduling from inside their handler, and a model test of many
// tasks. Time only moves when a test moves it.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "framework/Quay/Clock.h"
#include "framework/Quay/TaskScheduler.h"
#include "framework/Quay/TimerTask.h"
#include "framework/Vela/Exception.h"

namespace {

using Quay::TaskPriority;
using Quay::TimerTask;

class TaskSchedulerTest : public ::testing::Test {
 protected:
  Vela::Ptr<TimerTask> newTask(std::string name, TaskPriority priority = TaskPriority::defaultPriority) {
    return Vela::make<TimerTask>(scheduler, priority, name, [this, name] { log.push_back(name); });
  }

  Vela::Ptr<Quay::ManualClock> clock = Vela::make<Quay::ManualClock>(100.0);
  Vela::Ptr<Quay::TaskScheduler> scheduler = Vela::make<Quay::TaskScheduler>(clock);
  std::vector<std::string> log;
};

TEST_F(TaskSchedulerTest, PostedCallbacksRunInOrderOnePerStepBeforeDueTasks) {
  auto task = newTask("task");
  task->scheduleTask();
  scheduler->post([this] {
    log.push_back("first");
    scheduler->post([this] { log.push_back("posted by first"); });
  });
  scheduler->post([this] { log.push_back("second"); });
  EXPECT_EQ(scheduler->postedCount(), 2u);

  ASSERT_TRUE(scheduler->runOne());
  EXPECT_EQ(log, (std::vector<std::string>{"first"}));
  EXPECT_EQ(scheduler->runUntilIdle(), 3u);
  EXPECT_EQ(log, (std::vector<std::string>{"first", "second", "posted by first", "task"}));
  EXPECT_FALSE(scheduler->pendingWork());
  EXPECT_FALSE(scheduler->runOne());
}

TEST_F(TaskSchedulerTest, DueTasksRunByPriorityThenDueTimeThenSchedulingOrder) {
  auto low = newTask("low", TaskPriority::lowPriority);
  auto late = newTask("late");
  auto early = newTask("early");
  auto first = newTask("first");
  auto second = newTask("second");
  auto high = newTask("high", TaskPriority{7});
  auto future = newTask("future", TaskPriority::urgentPriority);

  low->scheduleTask();
  late->scheduleTaskLowestDelay(0.75);
  clock->advance(0.5);
  early->scheduleTask();
  clock->advance(0.5);
  first->scheduleTask();
  second->scheduleTask();
  high->scheduleTask();
  future->scheduleTaskLowestDelay(5.0);
  // Asked again later, `early` keeps its due time and its place.
  early->scheduleTask();
  EXPECT_EQ(*early->taskDueTime(), 100.5);

  while (scheduler->runOne()) {
  }
  EXPECT_EQ(log, (std::vector<std::string>{"high", "early", "late", "first", "second", "low"}));
  EXPECT_TRUE(future->taskScheduled());
  EXPECT_TRUE(scheduler->pendingWork());
  EXPECT_EQ(clock->now(), 101.0);
}

TEST_F(TaskSchedulerTest, LowestDelayWaitsForTheClockAndTheEarlierDueTimeIsKept) {
  auto task = newTask("task");
  task->scheduleTaskLowestDelay(0.5);
  task->scheduleTaskLowestDelay(2.0);
  EXPECT_EQ(*task->taskDueTime(), 100.5);
  EXPECT_FALSE(scheduler->runOne());
  clock->advance(0.25);
  EXPECT_FALSE(scheduler->runOne());
  clock->advance(0.25);
  EXPECT_TRUE(scheduler->runOne());
  EXPECT_EQ(task->runCount(), 1u);
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_FALSE(task->taskDueTime());

  // An earlier request moves a waiting task forward.
  task->scheduleTaskLowestDelay(3.0);
  task->scheduleTask();
  EXPECT_EQ(*task->taskDueTime(), clock->now());
  EXPECT_TRUE(scheduler->runOne());
  EXPECT_EQ(task->runCount(), 2u);
}

TEST_F(TaskSchedulerTest, RunUntilIdleMovesTheManualClockToEachDueTime) {
  auto late = newTask("late");
  auto early = newTask("early");
  std::vector<double> times;
  late->handlerIs([&] { times.push_back(clock->now()); });
  early->handlerIs([&] {
    times.push_back(clock->now());
    early->handlerIs([&] { times.push_back(-clock->now()); });
    if (times.size() == 1) early->scheduleTaskLowestDelay(0.5);
  });
  late->scheduleTaskLowestDelay(0.5);
  early->scheduleTaskLowestDelay(0.25);

  EXPECT_EQ(scheduler->runUntilIdle(), 3u);
  EXPECT_EQ(times, (std::vector<double>{100.25, 100.5, -100.75}));
  EXPECT_EQ(clock->now(), 100.75);
  EXPECT_FALSE(scheduler->pendingWork());
}

TEST_F(TaskSchedulerTest, RunUntilAndStopEndTheLoopEarly) {
  auto task = newTask("task");
  task->handlerIs([&] {
    log.push_back("run");
    task->scheduleTaskLowestDelay(1.0);
  });
  task->scheduleTask();
  EXPECT_TRUE(scheduler->runUntil([&] { return log.size() == 3; }));
  EXPECT_EQ(clock->now(), 102.0);

  scheduler->post([&] { scheduler->stop(); });
  scheduler->post([&] { log.push_back("after stop"); });
  EXPECT_EQ(scheduler->runUntilIdle(), 1u);
  EXPECT_EQ(log.size(), 3u);
  EXPECT_TRUE(scheduler->pendingWork());

  // A loop with nothing left to run reports that done() never held.
  task->unscheduleTask();
  EXPECT_FALSE(scheduler->runUntil([] { return false; }));
  EXPECT_EQ(log.back(), "after stop");
}

// A task should yield at every Nth check when told to, otherwise once its
// time slice is used up, the clock being read every 64 checks; after that
// every further check says yield.
TEST_F(TaskSchedulerTest, TasksYieldEveryNthCheckOrOnceTheTimeSliceIsUsedUp) {
  std::vector<int> itemsPerRun;
  auto task = newTask("task");
  task->handlerIs([&] {
    int items = 0;
    do {
      ++items;
      clock->advance(0.001);
    } while (!task->taskShouldYield() && items < 1000);
    itemsPerRun.push_back(items);
    if (items >= 64) {
      EXPECT_TRUE(task->taskShouldYield());
    }
  });
  auto const run = [&] {
    task->scheduleTask();
    scheduler->runUntilIdle();
  };
  scheduler->yieldEveryIs(1);
  task->scheduleTask();  // scheduled twice, run once
  run();
  scheduler->yieldEveryIs(3);
  run();
  scheduler->yieldEveryIs(0);
  EXPECT_EQ(scheduler->timeSlice(), 0.05);
  run();
  scheduler->timeSliceIs(0.1);
  run();
  EXPECT_EQ(itemsPerRun, (std::vector<int>{1, 3, 64, 128}));
}

TEST_F(TaskSchedulerTest, HandlerMayUnscheduleAndRescheduleTasks) {
  auto victim = newTask("victim");
  auto self = newTask("self");
  auto killer = newTask("killer", TaskPriority::highPriority);
  auto later = newTask("later", TaskPriority::lowPriority);
  killer->handlerIs([&] {
    log.push_back("killer");
    EXPECT_FALSE(killer->taskScheduled());
    EXPECT_TRUE(killer->taskRunning());
    EXPECT_EQ(scheduler->runningTask(), killer.get());
    victim->unscheduleTask();
    later->scheduleTaskLowestDelay(0.5);  // another task, after a delay
    // Rescheduling and then unscheduling itself leaves it unscheduled.
    killer->scheduleTask();
    killer->unscheduleTask();
  });
  int selfRuns = 0;
  self->handlerIs([&] {
    if (++selfRuns < 3) self->scheduleTask();
  });
  victim->scheduleTask();
  self->scheduleTask();
  killer->scheduleTask();
  scheduler->runUntilIdle();
  EXPECT_EQ(log, (std::vector<std::string>{"killer", "later"}));
  EXPECT_EQ(clock->now(), 100.5);
  EXPECT_EQ(victim->runCount(), 0u);
  EXPECT_EQ(self->runCount(), 3u);
  EXPECT_EQ(scheduler->runningTask(), nullptr);
}

class DestructionWitness : public TimerTask {
 public:
  DestructionWitness(Vela::Ptr<Quay::TaskScheduler> s, bool* destroyed)
      : TimerTask(std::move(s), TaskPriority::defaultPriority, "witness"), destroyed_(destroyed) {}

 protected:
  ~DestructionWitness() override { *destroyed_ = true; }

 private:
  bool* destroyed_;
};

TEST_F(TaskSchedulerTest, DroppingATaskUnschedulesItAlsoFromInsideItsHandler) {
  bool destroyed = false;
  Vela::Ptr<TimerTask> task = Vela::make<DestructionWitness>(scheduler, &destroyed);
  task->scheduleTaskLowestDelay(1.0);
  EXPECT_EQ(scheduler->scheduledCount(), 1u);
  task = nullptr;
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(scheduler->scheduledCount(), 0u);

  destroyed = false;
  task = Vela::make<DestructionWitness>(scheduler, &destroyed);
  std::string const captured = "still here";
  task->handlerIs([&, captured] {
    task->scheduleTask();
    task = nullptr;
    // The run holds the task, so its handler and captures are still alive.
    EXPECT_FALSE(destroyed);
    log.push_back(captured);
  });
  task->scheduleTask();
  EXPECT_TRUE(scheduler->runOne());
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(log, (std::vector<std::string>{"still here"}));
  EXPECT_FALSE(scheduler->pendingWork());
}

TEST_F(TaskSchedulerTest, ACallbackMayDropTheLastReferenceToTheScheduler) {
  // Each loop holds the scheduler until it returns.
  for (bool idle : {true, false}) {
    Quay::TaskScheduler* raw = scheduler.get();
    raw->post([this] { scheduler = nullptr; });
    raw->post([this] { log.push_back("second"); });
    if (idle) {
      EXPECT_EQ(raw->runUntilIdle(), 2u);
    } else {
      EXPECT_TRUE(raw->runUntil([&] { return log.size() == 2; }));
    }
    EXPECT_EQ(scheduler, nullptr);
    scheduler = Vela::make<Quay::TaskScheduler>(clock);
  }
  EXPECT_EQ(log, (std::vector<std::string>{"second", "second"}));
}

TEST_F(TaskSchedulerTest, AThrowingHandlerLeavesTheTaskUsable) {
  auto task = newTask("task");
  int runs = 0;
  task->handlerIs([&] {
    if (++runs == 1) throw std::runtime_error("boom");
  });
  task->scheduleTask();
  EXPECT_THROW(scheduler->runOne(), std::runtime_error);
  EXPECT_EQ(scheduler->runningTask(), nullptr);
  EXPECT_FALSE(task->taskScheduled());
  task->scheduleTask();
  EXPECT_TRUE(scheduler->runOne());
  EXPECT_EQ(runs, 2);
}

TEST_F(TaskSchedulerTest, OutOfRangeArgumentsAreRefused) {
  auto task = newTask("task");
  EXPECT_THROW(task->scheduleTaskLowestDelay(-0.001), Vela::RangeException);
  EXPECT_THROW(task->scheduleTaskLowestDelay(std::numeric_limits<double>::quiet_NaN()), Vela::RangeException);
  EXPECT_THROW(task->scheduleTaskLowestDelay(std::numeric_limits<double>::infinity()), Vela::RangeException);
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_THROW(scheduler->timeSliceIs(-1.0), Vela::RangeException);
  EXPECT_THROW(clock->nowIs(99.0), Vela::RangeException);
  EXPECT_THROW(clock->advance(-1.0), Vela::RangeException);
  EXPECT_THROW(Vela::make<TimerTask>(nullptr, TaskPriority::defaultPriority, "x"), Vela::RangeException);
  EXPECT_THROW(Vela::make<Quay::TaskScheduler>(nullptr), Vela::RangeException);
}

// Many tasks with random priorities, delays (with ties), reschedules and
// unschedules. With the loop jumping the clock from one due time to the next,
// the run order must be: due time, then priority (higher first), then the
// order in which each task got its final due time.
TEST_F(TaskSchedulerTest, ManyTasksRunInDueTimeThenPriorityOrder) {
  unsigned const seed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  int const n = 5000;
  std::vector<Vela::Ptr<TimerTask>> tasks;
  std::vector<int> runOrder;
  struct Expected {
    double due;
    int priority;
    int order;
    int id;
    bool operator<(Expected const& o) const {
      return std::tie(due, o.priority, order, id) < std::tie(o.due, priority, o.order, o.id);
    }
  };
  std::vector<Expected> model(n);
  std::vector<bool> scheduled(n, false);
  int order = 0;
  for (int i = 0; i < n; ++i) {
    auto priority = static_cast<TaskPriority>(rng() % 5);
    tasks.push_back(Vela::make<TimerTask>(scheduler, priority, "t" + std::to_string(i),
                                          [&runOrder, i] { runOrder.push_back(i); }));
    model[i] = {0, static_cast<int>(priority), 0, i};
  }
  for (int step = 0; step < 3 * n; ++step) {
    int const i = static_cast<int>(rng() % n);
    double const delay = static_cast<double>(rng() % 50);
    if (rng() % 4 == 0) {
      tasks[i]->unscheduleTask();
      scheduled[i] = false;
    } else if (!scheduled[i] || 100.0 + delay < model[i].due) {
      tasks[i]->scheduleTaskLowestDelay(delay);
      model[i].due = 100.0 + delay;
      model[i].order = order++;
      scheduled[i] = true;
    } else {
      tasks[i]->scheduleTaskLowestDelay(delay);  // later: keeps the earlier due time
    }
  }
  std::vector<Expected> expected;
  for (int i = 0; i < n; ++i) {
    if (scheduled[i]) expected.push_back(model[i]);
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(scheduler->scheduledCount(), expected.size());

  scheduler->runUntilIdle();
  ASSERT_EQ(runOrder.size(), expected.size());
  for (std::size_t k = 0; k < expected.size(); ++k) {
    ASSERT_EQ(runOrder[k], expected[k].id) << "at position " << k;
  }
}

}  // namespace
