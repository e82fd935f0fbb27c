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
// It answers true once the run has counted the work budget, or once the run has lasted the time
// slice (on the steady clock, from the start of the run), whichever comes first. The slice starts
// at 1 ms over a real clock and off over a virtual one: a test or a simulation must run the same
// way on a loaded machine as on a quiet one, so there only the count decides unless the slice is
// set (docs/decisions.md).
//
// Each task run is timed on the steady clock, and on the thread's CPU clock where asked, for the
// longest run seen and for an observer that wants every run's length. Runs in one pass follow one
// another, so one read of each clock per run does: a run starts where the one before it ended.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <utility>
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
  // The time slice over a real clock. A review counts one unit per key at some 3 to 5 us a key, so
  // the work budget alone lets a run last several milliseconds.
  static constexpr Kiv::Seconds defaultTimeSlice = 0.001;
  // taskShouldYield() reads the steady clock on every this many calls in a run, not on each: the
  // read costs some tens of nanoseconds against units of microseconds, and a run overshoots its
  // slice by at most this many units less one.
  static constexpr std::uint32_t sliceCheckEvery = 4;

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
  // Time slice: how long one run may last before taskShouldYield() answers true; 0 turns it off.
  // Starts at defaultTimeSlice over a real clock, at 0 over a virtual one. At most an hour.
  Kiv::Seconds timeSlice() const { return timeSlice_; }
  void timeSliceIs(Kiv::Seconds slice);
  // Whether a walk that yields takes up, in its task's next run, at the key it stopped before
  // (TimerTask::resumeAt), rather than at the first key again. Off by default: a review then
  // starts from its first key each run, so keys past the budget wait while those before them keep
  // failing. An agent whose reviews can hold more failing keys than one run gets through turns
  // it on.
  bool walksResume() const { return walksResume_; }
  void walksResumeIs(bool on) { walksResume_ = on; }
  // Tests force every taskShouldYield() to answer true, to exercise the resume paths.
  bool forceYield() const { return forceYield_; }
  void forceYieldIs(bool force) { forceYield_ = force; }
  // Whether the running task should yield now (false between runs, unless forced).
  bool taskShouldYield() const;

  // The longest single task run since the scheduler was made or the figures were reset, on the
  // steady clock and on the thread's CPU clock (which leaves out the time the thread was not
  // running, on a machine shared with other work). For benchmarks and diagnostics.
  Kiv::Seconds longestRun() const { return longestRun_; }
  Kiv::Seconds longestRunCpu() const { return longestRunCpu_; }
  void longestRunReset() { longestRun_ = longestRunCpu_ = 0; }
  // Whether runs are timed on the CPU clock as well. That clock is a system call (about 1 us on a
  // virtual machine, against some 0.2 us for a whole trivial run), so it starts off over a virtual
  // clock, where tests and simulations run millions of small runs, and on over a real clock; a
  // benchmark turns it on. While off, longestRunCpu() stays 0 and the observer is told 0.
  bool runCpuTimed() const { return runCpuTimed_; }
  void runCpuTimedIs(bool timed);
  // Told the length of every task run that returns, on both clocks (steady, CPU), after the run:
  // for a distribution of run lengths. Null for none. It must not throw, and its own time counts
  // to the next run of the pass.
  using RunObserver = std::function<void(Kiv::Seconds steady, Kiv::Seconds cpu)>;
  void runObserverIs(RunObserver observer) { runObserver_ = std::move(observer); }

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
  void runCaused(TimerTask& task);
  void causeIs(TimerTask& task);
  void runStartIs();
  bool sliceSpent() const;

  Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::VirtualClock* virtualClock_;
  Queue queue_;
  std::uint64_t nextSeq_ = 0;
  TimerTask* running_ = nullptr;
  std::uint64_t runCount_ = 0;
  std::uint64_t workBudget_ = defaultWorkBudget;
  bool walksResume_ = false;
  bool forceYield_ = false;
  Kiv::Seconds timeSlice_;
  std::chrono::steady_clock::duration slice_{};  // timeSlice_ in the clock's ticks
  // The running task's run: when it started (on both clocks), calls of taskShouldYield() in it,
  // and whether it has been seen to outlast the slice (so later calls answer without reading).
  std::chrono::steady_clock::time_point runStart_{};
  Kiv::Seconds runStartCpu_ = 0;
  bool runCpuTimed_;
  mutable std::uint32_t yieldCalls_ = 0;
  mutable bool sliceSpent_ = false;
  Kiv::Seconds longestRun_ = 0;
  Kiv::Seconds longestRunCpu_ = 0;
  RunObserver runObserver_;
  bool stopped_ = false;
  // The last pass stopped at maxRunsPerPass with tasks still due.
  bool passCut_ = false;
};

}  // namespace Mox
