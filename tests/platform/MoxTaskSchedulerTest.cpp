// The task scheduler and timer tasks, told as the stories of the machines that use them.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerTask.h"

namespace {

using Kiv::Ptr;
using Mox::TaskPriority;
using Mox::TaskScheduler;
using Mox::TimerTask;

struct Fixture {
  Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Ptr<TaskScheduler> scheduler = TaskScheduler::TaskSchedulerIs(clock);
  Ptr<TimerTask> task(const char* name, int priority = 2) {
    return TimerTask::TimerTaskIs(scheduler, TaskPriority(priority), name);
  }
};

// A task that records who ran and when, and runs an optional extra step.
struct Recorder : TimerTask::Notifiee {
  Recorder(Ptr<TimerTask> t, std::vector<std::string>* log) : log(log) { notifierIs(t); }
  void onTaskRun() override {
    log->push_back(notifier()->name().string() + "@" +
                   std::to_string(notifier()->scheduler()->now()));
    if (then) then();
  }
  std::vector<std::string>* log;
  std::function<void()> then;
};

// A machine with a backlog of entries the chip refused; its review task retries them in slices.
struct ReviewSm : Kiv::PtrInterface {
  struct KivReview : Mox::TaskReactor<ReviewSm> {
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->handleReviewTaskRun(); }
  };
  ReviewSm(Ptr<TimerTask> task, int backlog, double delay) : backlog(backlog), delay(delay) {
    reactor = new KivReview(task, this);
  }
  void handleReviewTaskRun() {
    const auto& task = reactor->task();
    while (backlog > 0) {
      --backlog;
      task->taskWorkCountInc(1);
      if (task->taskShouldYield()) break;
    }
    if (backlog == 0) return;
    delay > 0 ? task->scheduleTaskDelay(delay) : task->scheduleTask();
  }
  int backlog;
  double delay;
  Ptr<KivReview> reactor;
};

TEST(MoxTaskScheduler, ReviewTaskYieldsOnBudgetAndResumes) {
  Fixture f;
  ReviewSm sm(f.task("review"), 2500, 0.5);
  const Ptr<TimerTask> task = sm.reactor->task();
  task->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 1u);  // 1000 of 2500, then back in half a second
  EXPECT_EQ(sm.backlog, 1500);
  EXPECT_EQ(task->taskWorkCount(), 1000u);
  EXPECT_EQ(task->scheduledTime(), 0.5);
  f.scheduler->advanceBy(0.4);
  EXPECT_EQ(sm.backlog, 1500);
  f.scheduler->advanceBy(0.6);
  EXPECT_EQ(sm.backlog, 0);
  EXPECT_EQ(task->taskWorkCount(), 500u);  // the count starts afresh with each run
  EXPECT_EQ(task->runCount(), 3u);
  EXPECT_TRUE(f.scheduler->idle());

  // Forced yields: one entry per run; resuming at once runs again in the same pass.
  f.scheduler->forceYieldIs(true);
  ReviewSm eager(f.task("eager"), 5, 0.0);
  eager.reactor->task()->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 5u);
  EXPECT_EQ(eager.backlog, 0);
  EXPECT_TRUE(f.scheduler->taskShouldYield());

  // A smaller real budget.
  f.scheduler->forceYieldIs(false);
  f.scheduler->workBudgetIs(3);
  ReviewSm sliced(f.task("sliced"), 7, 0.0);
  sliced.reactor->task()->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 3u);
  EXPECT_FALSE(f.scheduler->taskShouldYield());  // nothing running
}

// Spins for at least `d` on the steady clock: one slow unit of a review.
void spinFor(double d) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(d);
  while (std::chrono::steady_clock::now() < end) {
  }
}

double threadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// A review whose keys cost 0.1 ms each yields after 1 ms with the slice on, which is at most a
// dozen keys whatever the machine's load (a preempted key only makes the run longer), and after
// its count budget with the slice off. Nothing asserts an upper bound on a time.
TEST(MoxTaskScheduler, SlowReviewYieldsByTimeWithTheSliceAndByCountWithout) {
  // Over a virtual clock the slice starts off, so tests and simulations yield by count alone; over
  // a real clock an agent gets 1 ms. So with timing runs on the CPU clock, a system call per run.
  Fixture f;
  EXPECT_EQ(f.scheduler->timeSlice(), 0.0);
  EXPECT_FALSE(f.scheduler->runCpuTimed());
  auto real = TaskScheduler::TaskSchedulerIs(new Kiv::MonotonicClock);
  EXPECT_EQ(real->timeSlice(), 0.001);
  EXPECT_TRUE(real->runCpuTimed());

  struct SlowReview : TimerTask::Notifiee {
    void onTaskRun() override {
      while (backlog > 0) {
        spinFor(1e-4);
        --backlog;
        notifier()->taskWorkCountInc();
        if (notifier()->taskShouldYield()) break;
      }
      runs.push_back(notifier()->taskWorkCount());
      if (backlog > 0) notifier()->scheduleTask();
    }
    int backlog = 0;
    std::vector<std::uint64_t> runs;
  } review;
  review.notifierIs(f.task("slowReview"));
  f.scheduler->workBudgetIs(50);  // 5 ms of these keys

  f.scheduler->timeSliceIs(0.001);
  review.backlog = 100;
  review.notifier()->scheduleTask();
  f.scheduler->runDue();
  EXPECT_EQ(review.backlog, 0);
  ASSERT_GE(review.runs.size(), 9u);
  EXPECT_LE(*std::max_element(review.runs.begin(), review.runs.end()), 12u);
  EXPECT_EQ(f.scheduler->now(), 0.0);  // virtual time does not move with the slice

  f.scheduler->timeSliceIs(0);
  review.runs.clear();
  review.backlog = 100;
  review.notifier()->scheduleTask();
  f.scheduler->runDue();
  EXPECT_EQ(review.runs, (std::vector<std::uint64_t>{50, 50}));

  EXPECT_DEATH(f.scheduler->timeSliceIs(-0.001), "slice >= 0 && slice <= 3600");
}

// The longest run is kept on both clocks until reset; an observer hears every run.
TEST(MoxTaskScheduler, LongestRunShowsADeliberatelyLongRun) {
  Fixture f;
  f.scheduler->runCpuTimedIs(true);
  std::vector<std::pair<double, double>> heard;
  f.scheduler->runObserverIs([&](double steady, double cpu) { heard.emplace_back(steady, cpu); });
  std::vector<std::string> log;
  Recorder busy(f.task("busy"), &log), quick(f.task("quick"), &log);
  busy.then = [] {  // 20 ms of this thread's own work, however long the machine makes it wait
    const double end = threadCpuSeconds() + 0.02;
    while (threadCpuSeconds() < end) {
    }
  };
  quick.notifier()->scheduleTask();
  busy.notifier()->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 2u);
  EXPECT_GE(f.scheduler->longestRunCpu(), 0.02);
  EXPECT_GE(f.scheduler->longestRun(), f.scheduler->longestRunCpu() - 1e-3);
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[1].first, f.scheduler->longestRun());
  EXPECT_EQ(heard[1].second, f.scheduler->longestRunCpu());

  f.scheduler->longestRunReset();
  quick.notifier()->scheduleTask();
  f.scheduler->runDue();
  EXPECT_LT(f.scheduler->longestRunCpu(), 0.02);
  EXPECT_EQ(heard.size(), 3u);

  // Untimed on the CPU clock, a long run shows on the steady clock only.
  f.scheduler->runCpuTimedIs(false);
  f.scheduler->longestRunReset();
  busy.notifier()->scheduleTask();
  f.scheduler->runDue();
  EXPECT_GE(f.scheduler->longestRun(), 0.02);
  EXPECT_EQ(f.scheduler->longestRunCpu(), 0.0);
}

TEST(MoxTaskScheduler, SchedulingMovesTheTaskAndTimeStepsToEachDueTime) {
  Fixture f;
  std::vector<std::string> log;
  Recorder later(f.task("later"), &log), soon(f.task("soon"), &log);
  later.notifier()->scheduleTaskDelay(5);
  soon.notifier()->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 1u);
  EXPECT_EQ(log, std::vector<std::string>{"soon@0.000000"});
  EXPECT_EQ(f.scheduler->nextDueTime(), 5.0);

  later.notifier()->scheduleTaskDelay(2);  // earlier
  EXPECT_EQ(later.notifier()->scheduledTime(), 2.0);
  later.notifier()->scheduleTaskDelay(7);  // later: the last call wins
  EXPECT_EQ(f.scheduler->scheduledCount(), 1u);
  soon.notifier()->scheduleTaskDelay(1);
  soon.then = [&] {
    soon.notifier()->scheduleTaskDelay(0.5);
    soon.then = nullptr;
  };
  f.scheduler->advanceTo(6.9);
  EXPECT_EQ(log, (std::vector<std::string>{"soon@0.000000", "soon@1.000000", "soon@1.500000"}));
  EXPECT_EQ(f.scheduler->now(), 6.9);
  f.scheduler->advanceBy(0.1);
  EXPECT_EQ(log.back(), "later@7.000000");
  EXPECT_TRUE(f.scheduler->idle());
  EXPECT_EQ(f.scheduler->nextDueTime(), std::nullopt);

  // Unscheduled, it does not run; a task with no notifiee runs and does nothing.
  later.notifier()->scheduleTask();
  later.notifier()->unscheduleTask();
  Ptr<TimerTask> bare = f.task("bare");
  bare->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 1u);
  EXPECT_EQ(bare->runCount(), 1u);
  EXPECT_EQ(log.size(), 4u);
}

TEST(MoxTaskScheduler, SameDueTimeRunsByPriorityThenSchedulingOrder) {
  Fixture f;
  std::vector<std::string> log;
  Recorder low(f.task("low", 3), &log), a(f.task("a"), &log), b(f.task("b"), &log),
      high(f.task("high", 1), &log), c(f.task("c"), &log);
  for (Recorder* r : {&low, &c, &a, &b, &high}) r->notifier()->scheduleTask();
  c.notifier()->scheduleTask();  // scheduling again goes behind a and b
  a.then = [&] {
    a.notifier()->scheduleTask();
    a.then = nullptr;
  };  // again, behind c
  EXPECT_EQ(f.scheduler->runDue(), 6u);
  std::vector<std::string> order;
  for (auto& line : log) order.push_back(line.substr(0, line.find('@')));
  EXPECT_EQ(order, (std::vector<std::string>{"high", "a", "b", "c", "a", "low"}));
}

TEST(MoxTaskScheduler, TasksAndNotifieesMayGoAtAnyTime) {
  Fixture f;
  std::vector<std::string> log;
  // A task destroyed while scheduled never runs.
  auto doomed = std::make_unique<Recorder>(f.task("doomed"), &log);
  doomed->notifier()->scheduleTask();
  doomed.reset();  // the notifiee held the only reference to the task
  EXPECT_TRUE(f.scheduler->idle());
  EXPECT_EQ(f.scheduler->runDue(), 0u);

  // A reactor that drops itself, and with it its task, while running.
  struct Sm : Kiv::PtrInterface {
    struct KivReview : Mox::TaskReactor<Sm> {
      using TaskReactor::TaskReactor;
      void onTaskRun() override {
        task()->scheduleTaskDelay(1);
        owner()->reactor = nullptr;
      }
    };
    Ptr<KivReview> reactor;
  } sm;
  sm.reactor = new Sm::KivReview(f.task("selfDeleting"), &sm);
  sm.reactor->task()->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), 1u);
  EXPECT_EQ(sm.reactor, nullptr);
  EXPECT_TRUE(f.scheduler->idle());
  EXPECT_EQ(f.scheduler->runningTask(), nullptr);

  // A second notifiee takes the task over; the first is left without one.
  Ptr<TimerTask> shared = f.task("shared");
  Recorder first(shared, &log), second(shared, &log);
  EXPECT_EQ(first.notifier(), nullptr);
  EXPECT_EQ(shared->notifiee(), &second);
  second.then = [&] { first.notifierIs(shared); };
  shared->scheduleTask();
  shared->scheduleTaskDelay(1);
  f.scheduler->advanceBy(1);
  shared->scheduleTask();
  f.scheduler->runDue();
  EXPECT_EQ(log, (std::vector<std::string>{"shared@1.000000", "shared@1.000000"}));
  EXPECT_EQ(second.notifier(), nullptr);
}

TEST(MoxTaskScheduler, TaskReschedulingItselfForeverIsBoundedPerPass) {
  Fixture f;
  struct Spinner : TimerTask::Notifiee {
    void onTaskRun() override { notifier()->scheduleTask(); }
  } spinner;
  spinner.notifierIs(f.task("spinner"));
  spinner.notifier()->scheduleTask();
  EXPECT_EQ(f.scheduler->runDue(), TaskScheduler::maxRunsPerPass);
  EXPECT_TRUE(spinner.notifier()->taskScheduled());
  f.scheduler->advanceBy(1);  // ends, and the clock still moves
  EXPECT_EQ(f.scheduler->now(), 1.0);
  spinner.notifier()->unscheduleTask();
}

TEST(MoxTaskScheduler, RunForRunsInRealTimeUntilDoneOrStopped) {
  auto scheduler = TaskScheduler::TaskSchedulerIs(new Kiv::MonotonicClock);
  std::vector<std::string> log;
  Recorder once(TimerTask::TimerTaskIs(scheduler, TaskPriority(2), "once"), &log);
  once.notifier()->scheduleTaskDelay(0);
  scheduler->runFor(0.01);
  EXPECT_EQ(log.size(), 1u);
  EXPECT_GE(scheduler->now(), 0.01);

  once.then = [&] {
    once.notifier()->scheduleTaskDelay(1000);
    scheduler->stop();
  };
  once.notifier()->scheduleTask();
  scheduler->runFor(1000);  // returns at once: the task stopped it
  EXPECT_EQ(log.size(), 2u);
  EXPECT_TRUE(scheduler->stopped());
  EXPECT_DEATH(scheduler->advanceBy(1), "clockIsVirtual\\(\\)");
}

}  // namespace
