// The task scheduler: the due-task queue, the passes over it and the walks through time.

#include "Mox/TaskScheduler.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Mox/TimerTask.h"

namespace Mox {

namespace {
Kiv::TraceHandle th("MoxTaskScheduler");
}  // namespace

TaskScheduler::TaskScheduler(Kiv::Ptr<Kiv::Clock> clock)
    : clock_(std::move(clock)), virtualClock_(dynamic_cast<Kiv::VirtualClock*>(clock_.ptr())) {
  KIV_ASSERT(clock_);
}

Kiv::Ptr<TaskScheduler> TaskScheduler::TaskSchedulerIs(Kiv::Ptr<Kiv::Clock> clock) {
  return new TaskScheduler(std::move(clock));
}

std::optional<Kiv::Seconds> TaskScheduler::nextDueTime() const {
  if (queue_.empty()) return std::nullopt;
  return queue_.begin()->due;
}

bool TaskScheduler::taskShouldYield() const {
  return forceYield_ || (running_ && running_->workCount_ >= workBudget_);
}

bool TaskScheduler::taskShouldYield(const TimerTask& task) const {
  return forceYield_ || task.workCount_ >= workBudget_;
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

void TaskScheduler::runFirst() {
  TimerTask* task = queue_.begin()->task;
  task->node_ = queue_.extract(queue_.begin());
  task->scheduled_ = false;
  task->workCount_ = 0;
  ++task->runCount_;
  ++runCount_;
  KIV_TRACE(th, 8, "run " << task->name_ << " at " << now());
  // The notifiee may destroy itself or the task: neither is touched after the call. A run that
  // throws still ends the run, so the scheduler can be used (or torn down) after it.
  struct Running {
    TimerTask*& running;
    ~Running() { running = nullptr; }
  } guard{running_ = task};
  if (TimerTask::Notifiee* notifiee = task->notifiee_) notifiee->onTaskRun();
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
