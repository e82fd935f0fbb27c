#pragma once
// A timer task: a piece of deferred work that a state machine schedules on a Mox::TaskScheduler.
//
// The task says when it should run; its notifiee says what running means. A machine usually keeps
// a "review" task per kind of retry and a nested reactor (Mox::TaskReactor) that calls back into
// the machine:
//
//   reviewTask_ = Mox::TimerTask::TimerTaskIs(scheduler, Mox::TaskPriority(2),
//   "reviewUnprogrammed"); reviewReactor_ = new KivReviewUnprogrammed(reviewTask_, this);
//   reviewTask_->scheduleTaskDelay(1.0);   // or scheduleTask() for as soon as possible
//
// Scheduling a task that is already scheduled moves it: the latest call wins. The task is taken
// off the schedule before its notifiee runs, so the handler may schedule it again; a handler with
// long work counts it with taskWorkCountInc() and, when taskShouldYield() says so, schedules the
// task again and returns.
//
// A task has at most one notifiee. The notifiee holds a counted reference to its task; the task
// knows the notifiee by raw pointer and forgets it when the notifiee goes. A task going away takes
// itself off the schedule, so a destroyed task never runs. Destroying the notifiee, or the task,
// from inside onTaskRun() is safe: nothing touches either after the call returns.

#include <any>
#include <cstdint>
#include <optional>

#include "Kiv/Cause.h"
#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"
#include "Mox/TaskPriority.h"
#include "Mox/TaskScheduler.h"

namespace Mox {

class TimerTask : public Kiv::PtrInterface {
 public:
  class Notifiee {
   public:
    Notifiee() = default;
    Notifiee(const Notifiee&) = delete;
    Notifiee& operator=(const Notifiee&) = delete;
    virtual ~Notifiee();

    virtual void onTaskRun() = 0;

    const Kiv::Ptr<TimerTask>& notifier() const { return notifier_; }
    // Attaches to `task`, leaving any task this notifiee had; the task's previous notifiee, if
    // any, is left without a task. Null only detaches.
    void notifierIs(Kiv::Ptr<TimerTask> task);

   private:
    friend class TimerTask;
    Kiv::Ptr<TimerTask> notifier_;
  };

  TimerTask(Kiv::Ptr<TaskScheduler> scheduler, TaskPriority priority, Kiv::Name name);
  TimerTask(const TimerTask&) = delete;
  TimerTask& operator=(const TimerTask&) = delete;
  ~TimerTask() override;
  static Kiv::Ptr<TimerTask> TimerTaskIs(Kiv::Ptr<TaskScheduler> scheduler, TaskPriority priority,
                                         Kiv::Name name);

  const Kiv::Name& name() const { return name_; }
  TaskPriority priority() const { return priority_; }
  const Kiv::Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  Notifiee* notifiee() const { return notifiee_; }

  // Due at now(): runs in the scheduler's next pass (or later in the current one).
  void scheduleTask();
  // Due at now() + delay. A negative delay is overdue: the task runs in the next pass.
  void scheduleTaskDelay(Kiv::Seconds delay);
  bool taskScheduled() const { return scheduled_; }
  std::optional<Kiv::Seconds> scheduledTime() const;
  void unscheduleTask();

  // Work accounting for the current run; the count starts at 0 with each run.
  void taskWorkCountInc(std::uint64_t n = 1) { workCount_ += n; }
  std::uint64_t taskWorkCount() const { return workCount_; }
  // True once this run has counted the scheduler's work budget or lasted its time slice, or when
  // the scheduler forces it.
  bool taskShouldYield() const { return scheduler_->taskShouldYield(*this); }

  // Where a walk over many keys stopped when the task last yielded, for the next run to take up
  // there when the scheduler's walks resume (any key type; nothing while the last walk ended).
  template <class K>
  const K* resumeAt() const {
    return std::any_cast<K>(&resumeAt_);
  }
  template <class K>
  void resumeAtIs(const K& key) {
    resumeAt_ = key;
  }
  void resumeAtDel() { resumeAt_.reset(); }
  bool resumesSomewhere() const { return resumeAt_.has_value(); }

  // Runs since the task was made, for diagnostics.
  std::uint64_t runCount() const { return runCount_; }

 private:
  friend class TaskScheduler;

  Kiv::Ptr<TaskScheduler> scheduler_;
  TaskPriority priority_;
  Kiv::Name name_;
  Notifiee* notifiee_ = nullptr;
  bool scheduled_ = false;
  // Where the task sits in the scheduler's queue while scheduled.
  TaskScheduler::Queue::iterator slot_;
  // The queue node, kept while the task is not scheduled so that rescheduling allocates nothing.
  TaskScheduler::Queue::node_type node_;
  std::uint64_t workCount_ = 0;
  std::any resumeAt_;
  std::uint64_t runCount_ = 0;
  // Why the task is scheduled, while causes are carried (Kiv/Cause.h): what was current, or the
  // answer noted, when it was scheduled. A run that schedules its own task again keeps the cause
  // unless the run heard an answer, so a review that yields names what parked its work.
  Kiv::Ptr<const Kiv::Cause> cause_;
};

}  // namespace Mox
