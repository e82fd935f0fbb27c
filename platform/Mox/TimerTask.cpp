// Timer tasks and their notifiees: scheduling requests and the task-notifiee attachment.

#include "Mox/TimerTask.h"

#include <utility>

#include "Kiv/Assert.h"

namespace Mox {

TimerTask::Notifiee::~Notifiee() {
  if (notifier_) {
    notifier_->notifiee_ = nullptr;
    notifier_ = nullptr;  // may be the last reference: the task goes, and off the schedule
  }
}

void TimerTask::Notifiee::notifierIs(Kiv::Ptr<TimerTask> task) {
  if (notifier_ == task) return;
  if (notifier_) {
    notifier_->notifiee_ = nullptr;
    notifier_ = nullptr;
  }
  if (task) {
    if (Notifiee* previous = task->notifiee_) previous->notifier_ = nullptr;  // `task` holds on
    task->notifiee_ = this;
  }
  notifier_ = std::move(task);
}

TimerTask::TimerTask(Kiv::Ptr<TaskScheduler> scheduler, TaskPriority priority, Kiv::Name name)
    : scheduler_(std::move(scheduler)), priority_(priority), name_(std::move(name)) {
  KIV_ASSERT(scheduler_);
}

TimerTask::~TimerTask() {
  scheduler_->taskGone(this);
  // A notifiee normally keeps its task; if one is still attached, the task was not held through
  // Ptr. Let go of its pointer without touching the count of an object already going.
  if (notifiee_) notifiee_->notifier_.release();
}

Kiv::Ptr<TimerTask> TimerTask::TimerTaskIs(Kiv::Ptr<TaskScheduler> scheduler, TaskPriority priority,
                                           Kiv::Name name) {
  return new TimerTask(std::move(scheduler), priority, std::move(name));
}

void TimerTask::scheduleTask() { scheduler_->schedule(this, scheduler_->now()); }

void TimerTask::scheduleTaskDelay(Kiv::Seconds delay) {
  scheduler_->schedule(this, scheduler_->now() + delay);
}

std::optional<Kiv::Seconds> TimerTask::scheduledTime() const {
  if (!scheduled_) return std::nullopt;
  return slot_->due;
}

void TimerTask::unscheduleTask() { scheduler_->unschedule(this); }

}  // namespace Mox
