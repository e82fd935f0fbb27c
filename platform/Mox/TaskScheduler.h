#pragma once
// The task scheduler: runs timer tasks on the agent's one thread, cooperatively.
//
// State machines own TimerTasks ("review" tasks that retry work the chip refused) and schedule
// them to run as soon as possible or after a delay. The scheduler runs due tasks in a fixed order:
// due time, then priority (smaller value first), then the order in which they were scheduled. So a
// run is deterministic, and a task that reschedules itself at once goes behind the tasks of its
// priority that were already due.
//
//   auto clock = Kiv::Ptr<Kiv::VirtualClock>(new Kiv::VirtualClock);
//   auto scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
//   ...                           // machines schedule their tasks
//   scheduler->runDue();          // tests: run what is due now
//   scheduler->advanceBy(5.0);    // tests: walk virtual time, running tasks at their due times
//   scheduler->runFor(60.0);      // the CLI: run in real time for a minute
//
// The scheduler does not keep tasks alive: it knows them by raw pointer, and a task that goes away
// takes itself off the schedule. Tasks keep the scheduler alive.
//
// Long work yields: a task counts its work with TimerTask::taskWorkCountInc() and, once
// taskShouldYield() answers true, reschedules itself and returns, so that other tasks get a turn.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"

namespace Mox {

class TimerTask;

class TaskScheduler : public Kiv::PtrInterface {
 public:
  // Bound on task runs in one pass over the due tasks. Reaching it means a task keeps
  // rescheduling itself at the current time; the pass returns rather than spin forever, and the
  // task stays due for the next pass.
  static constexpr std::size_t maxRunsPerPass = 1'000'000;
  static constexpr std::uint64_t defaultWorkBudget = 1000;

  explicit TaskScheduler(Kiv::Ptr<Kiv::Clock> clock);
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;
  static Kiv::Ptr<TaskScheduler> TaskSchedulerIs(Kiv::Ptr<Kiv::Clock> clock);

  const Kiv::Ptr<Kiv::Clock>& clock() const { return clock_; }
  Kiv::Seconds now() const { return clock_->now(); }
  // True when the clock is a Kiv::VirtualClock, which advanceTo() and advanceBy() need.
  bool clockIsVirtual() const { return virtualClock_ != nullptr; }

  // Virtual time.
  // Runs every task due at or before now(), in order, including tasks scheduled at now() by the
  // runs themselves; at most maxRunsPerPass runs. Answers the number of task runs.
  std::size_t runDue();
  // Walks the clock forward to t: steps it to the due time of each task due by t and runs what is
  // due then. Leaves the clock at t. A pass that reaches maxRunsPerPass ends the walk early (the
  // clock still goes to t).
  void advanceTo(Kiv::Seconds t);
  void advanceBy(Kiv::Seconds d) { advanceTo(now() + d); }
  // Moves the clock and every scheduled task forward by d together, running nothing: the time
  // between passes as if nothing fell due in it. For a simulation that knows the tasks would only
  // repeat what they did (a retry that keeps failing), so that a long wait costs nothing.
  void skipBy(Kiv::Seconds d);
  // The due times of the scheduled tasks, in order.
  std::vector<Kiv::Seconds> dueTimes() const;

  // Real time: runs due tasks and sleeps until the next is due, until `duration` has passed or a
  // task called stop(). Over a virtual clock it steps the clock instead of sleeping.
  void runFor(Kiv::Seconds duration);
  void stop() { stopped_ = true; }
  bool stopped() const { return stopped_; }

  bool idle() const { return queue_.empty(); }
  std::optional<Kiv::Seconds> nextDueTime() const;
  std::size_t scheduledCount() const { return queue_.size(); }
  // The task whose notifiee is running now; null between runs.
  TimerTask* runningTask() const { return running_; }
  // Task runs since the scheduler was made, for diagnostics.
  std::uint64_t runCount() const { return runCount_; }

  // Yield budget: the work a task may count in one run before taskShouldYield() answers true.
  std::uint64_t workBudget() const { return workBudget_; }
  void workBudgetIs(std::uint64_t units) { workBudget_ = units; }
  // Tests force every taskShouldYield() to answer true, to exercise the resume paths.
  bool forceYield() const { return forceYield_; }
  void forceYieldIs(bool force) { forceYield_ = force; }
  // Whether the running task should yield now (false between runs, unless forced).
  bool taskShouldYield() const;

 private:
  friend class TimerTask;

  struct Slot {
    Kiv::Seconds due;
    int priority;
    std::uint64_t seq;
    TimerTask* task;
    bool operator<(const Slot& o) const {
      if (due != o.due) return due < o.due;
      if (priority != o.priority) return priority < o.priority;
      return seq < o.seq;
    }
  };
  using Queue = std::set<Slot>;

  // Called by TimerTask.
  void schedule(TimerTask* task, Kiv::Seconds due);
  void unschedule(TimerTask* task);
  void taskGone(TimerTask* task);
  bool taskShouldYield(const TimerTask& task) const;

  std::size_t runPass(Kiv::Seconds t);
  void runFirst();

  Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::VirtualClock* virtualClock_;
  Queue queue_;
  std::uint64_t nextSeq_ = 0;
  TimerTask* running_ = nullptr;
  std::uint64_t runCount_ = 0;
  std::uint64_t workBudget_ = defaultWorkBudget;
  bool forceYield_ = false;
  bool stopped_ = false;
  // The last pass stopped at maxRunsPerPass with tasks still due.
  bool passCut_ = false;
};

}  // namespace Mox
