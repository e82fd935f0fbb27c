// The task scheduler: the due-task queue, the passes over it and the walks through time.

#include "Mox/TaskScheduler.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <thread>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Mox/TimerTask.h"

namespace Mox {

namespace {
Kiv::TraceHandle th("MoxTaskScheduler");

// The calling thread's CPU time: a system call, not a vDSO read, so read twice per run only.
Kiv::Seconds threadCpuNow() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return Kiv::Seconds(ts.tv_sec) + Kiv::Seconds(ts.tv_nsec) * 1e-9;
}
}  // namespace

TaskScheduler::TaskScheduler(Kiv::Ptr<Kiv::Clock> clock)
    : clock_(std::move(clock)), virtualClock_(dynamic_cast<Kiv::VirtualClock*>(clock_.ptr())) {
  KIV_ASSERT(clock_);
  timeSliceIs(clockIsVirtual() ? 0 : defaultTimeSlice);
  runCpuTimed_ = !clockIsVirtual();
}

Kiv::Ptr<TaskScheduler> TaskScheduler::TaskSchedulerIs(Kiv::Ptr<Kiv::Clock> clock) {
  return new TaskScheduler(std::move(clock));
}

std::optional<Kiv::Seconds> TaskScheduler::nextDueTime() const {
  if (queue_.empty()) return std::nullopt;
  return queue_.begin()->due;
}

void TaskScheduler::timeSliceIs(Kiv::Seconds slice) {
  KIV_ASSERT(slice >= 0 && slice <= 3600);
  timeSlice_ = slice;
  slice_ = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(slice));
}

void TaskScheduler::runCpuTimedIs(bool timed) {
  runCpuTimed_ = timed;
  // Turned on inside a run: that run is timed from here.
  if (timed) runStartCpu_ = threadCpuNow();
}

bool TaskScheduler::taskShouldYield() const {
  return forceYield_ || (running_ && taskShouldYield(*running_));
}

bool TaskScheduler::taskShouldYield(const TimerTask& task) const {
  if (forceYield_ || task.workCount_ >= workBudget_) return true;
  return &task == running_ && sliceSpent();
}

bool TaskScheduler::sliceSpent() const {
  if (sliceSpent_) return true;
  if (slice_.count() == 0 || ++yieldCalls_ % sliceCheckEvery != 0) return false;
  sliceSpent_ = std::chrono::steady_clock::now() - runStart_ >= slice_;
  return sliceSpent_;
}

void TaskScheduler::schedule(TimerTask* task, Kiv::Seconds due) {
  KIV_ASSERT(!std::isnan(due));
  // Reuse the task's queue node (from its previous slot, or kept since its last run): moving a
  // task, or a task rescheduling itself, allocates nothing.
  Queue::node_type node = task->scheduled_ ? queue_.extract(task->slot_) : std::move(task->node_);
  if (node.empty()) {
    task->slot_ = queue_.insert(Slot{due, task->priority_.value(), nextSeq_++, task}).first;
  } else {
    Slot& slot = node.value();
    slot.due = due;
    slot.seq = nextSeq_++;
    task->slot_ = queue_.insert(std::move(node)).position;
  }
  task->scheduled_ = true;
  if (Kiv::causing()) [[unlikely]]
    causeIs(*task);
}

// Why a task is scheduled: what is current, or the answer its scheduler heard. A run that schedules
// its own task again keeps the cause it ran for; if the run heard an answer again (a retry the
// chip refused once more), that answer takes the place of the one before, so a review that keeps
// failing keeps one chain of the same length, the latest refusal in it.
void TaskScheduler::causeIs(TimerTask& task) {
  if (running_ != &task) {
    task.cause_ = Kiv::causeForLater();
  } else if (Kiv::causeAnswered()) {
    Kiv::Ptr<const Kiv::Cause> before = task.cause_;
    if (before && before->kind() == Kiv::Cause::Kind::answer) before = before->parent();
    task.cause_ = Kiv::causeOf(Kiv::Cause::Kind::answer, Kiv::causeForLater()->text(), before);
  }
}

void TaskScheduler::unschedule(TimerTask* task) {
  if (!task->scheduled_) return;
  task->node_ = queue_.extract(task->slot_);
  task->scheduled_ = false;
}

void TaskScheduler::taskGone(TimerTask* task) {
  if (task->scheduled_) {
    queue_.erase(task->slot_);
    task->scheduled_ = false;
  }
  if (running_ == task) running_ = nullptr;
}

// A run while causes are carried: under a cause naming the task and the time, pointing at why it
// was scheduled.
void TaskScheduler::runCaused(TimerTask& task) {
  std::ostringstream text;
  text << "task " << task.name_ << " runs at " << std::fixed << std::setprecision(3) << now();
  Kiv::CauseScope run(Kiv::causeOf(Kiv::Cause::Kind::task, text.str(), task.cause_));
  if (TimerTask::Notifiee* notifiee = task.notifiee_) notifiee->onTaskRun();
}

void TaskScheduler::runFirst() {
  TimerTask* task = queue_.begin()->task;
  task->node_ = queue_.extract(queue_.begin());
  task->scheduled_ = false;
  task->workCount_ = 0;
  ++task->runCount_;
  ++runCount_;
  KIV_TRACE(th, 8, "run " << task->name_ << " at " << now());
  yieldCalls_ = 0;
  sliceSpent_ = false;
  // The notifiee may destroy itself or the task: neither is touched after the call. A run that
  // throws still ends the run, so the scheduler can be used (or torn down) after it.
  struct Running {
    TimerTask*& running;
    ~Running() { running = nullptr; }
  } guard{running_ = task};
  if (Kiv::causing()) [[unlikely]] {
    runCaused(*task);
  } else if (TimerTask::Notifiee* notifiee = task->notifiee_) {
    notifiee->onTaskRun();
  }
  // The end of this run is the start of the next one in the pass.
  const auto end = std::chrono::steady_clock::now();
  const Kiv::Seconds steady = std::chrono::duration<double>(end - runStart_).count();
  runStart_ = end;
  Kiv::Seconds cpu = 0;
  if (runCpuTimed_) {
    const Kiv::Seconds cpuEnd = threadCpuNow();
    cpu = cpuEnd - runStartCpu_;
    runStartCpu_ = cpuEnd;
  }
  longestRun_ = std::max(longestRun_, steady);
  longestRunCpu_ = std::max(longestRunCpu_, cpu);
  if (runObserver_) runObserver_(steady, cpu);
}

void TaskScheduler::runStartIs() {
  runStart_ = std::chrono::steady_clock::now();
  if (runCpuTimed_) runStartCpu_ = threadCpuNow();
}

std::size_t TaskScheduler::runPass(Kiv::Seconds t) {
  // A task that ran the scheduler itself would run tasks inside another task's run.
  KIV_ASSERT(!runningTask());
  std::size_t runs = 0;
  passCut_ = false;
  while (!queue_.empty() && queue_.begin()->due <= t) {
    if (runs == maxRunsPerPass) {
      passCut_ = true;
      KIV_TRACE(th, 1,
                "pass stopped after " << runs << " runs; next due " << queue_.begin()->task->name_);
      KIV_QTRACE_VALUE(th, "pass stopped at run bound", runs);
      break;
    }
    if (runs == 0) runStartIs();  // later runs start where the one before ended
    runFirst();
    ++runs;
  }
  return runs;
}

std::size_t TaskScheduler::runDue() { return runPass(now()); }

void TaskScheduler::advanceTo(Kiv::Seconds t) {
  KIV_ASSERT(clockIsVirtual());
  // One task at a time from the front of the queue: the runs add and remove tasks as they go.
  while (!queue_.empty() && queue_.begin()->due <= t) {
    virtualClock_->nowIs(queue_.begin()->due);
    runPass(virtualClock_->now());
    if (passCut_) break;
  }
  virtualClock_->nowIs(t);
}

void TaskScheduler::skipBy(Kiv::Seconds d) {
  KIV_ASSERT(clockIsVirtual() && d >= 0);
  // In queue order, so that tasks due together keep their order.
  std::vector<std::pair<TimerTask*, Kiv::Seconds>> tasks;
  for (const Slot& slot : queue_) tasks.emplace_back(slot.task, slot.due);
  for (auto [task, due] : tasks) schedule(task, due + d);
  virtualClock_->nowIs(virtualClock_->now() + d);
}

std::vector<Kiv::Seconds> TaskScheduler::dueTimes() const {
  std::vector<Kiv::Seconds> out;
  for (const Slot& slot : queue_) out.push_back(slot.due);
  return out;
}

void TaskScheduler::runFor(Kiv::Seconds duration) {
  stopped_ = false;
  const Kiv::Seconds end = now() + duration;
  for (;;) {
    runPass(now());
    if (stopped_) break;
    const Kiv::Seconds n = now();
    if (n >= end) break;
    Kiv::Seconds wake = end;
    if (!queue_.empty()) wake = std::min(wake, queue_.begin()->due);
    if (wake <= n) {
      // Over a virtual clock time stands still between passes: something still due now means a
      // task rescheduling itself without end; running on would spin.
      if (virtualClock_ && passCut_) break;
      continue;
    }
    if (virtualClock_) {
      virtualClock_->nowIs(wake);
    } else {
      std::this_thread::sleep_for(std::chrono::duration<double>(wake - n));
    }
  }
}

}  // namespace Mox
