#pragma once
// The base of a state machine's nested review-task reactor: attaches to the machine's TimerTask
// and gives the handler its owning machine.
//
//   class KivReviewUnprogrammed : public Mox::TaskReactor<Sm> {
//     using TaskReactor::TaskReactor;
//     void onTaskRun() override { owner()->kiv_handleReviewUnprogrammed_taskRun(); }
//   };
//   reviewReactor_ = new KivReviewUnprogrammed(reviewTask_, this);
//
// The machine holds the reactor through Kiv::Ptr; the reactor holds its task (so holding the
// reactor is enough to keep the task), and knows its owner by raw pointer: the owner outlives it.

#include <cstdio>
#include <string>
#include <utility>

#include "Kiv/Digest.h"
#include "Kiv/Ptr.h"
#include "Mox/TimerTask.h"

namespace Mox {

template <class Owner>
class TaskReactor : public TimerTask::Notifiee, public Kiv::PtrInterface {
 public:
  TaskReactor(Kiv::Ptr<TimerTask> task, Owner* owner) : owner_(owner) {
    notifierIs(std::move(task));
  }

  Owner* owner() const { return owner_; }
  const Kiv::Ptr<TimerTask>& task() const { return notifier(); }

 private:
  Owner* owner_;
};

// What of a machine's task decides what happens next, for its owner's digest (Kiv/Digest.h): its
// name, when it is due, and whether a walk it yielded in keeps its place.
inline std::string taskState(const TimerTask* task) {
  if (!task) return "none";
  std::string s(task->name().string());
  if (auto due = task->scheduledTime()) {
    char exact[40];
    std::snprintf(exact, sizeof exact, " due %a", *due);
    s += exact;
  }
  if (task->resumesSomewhere()) s += " resumes";
  return s;
}

}  // namespace Mox

// A machine's review-task attribute: attr() is the reactor (its task()), attrIs(scheduler,
// priority, name) makes the task and attaches the reactor R, attrDel() drops both.
#define MOX_TASK_REACTOR(attr, R)                                                             \
 public:                                                                                      \
  const ::Kiv::Ptr<R>& attr() const { return attr##_; }                                       \
  void attr##Is(const ::Kiv::Ptr<::Mox::TaskScheduler>& kivScheduler,                         \
                ::Mox::TaskPriority kivPriority, const ::Kiv::Name& kivName) {                \
    attr##_ = new R(::Mox::TimerTask::TimerTaskIs(kivScheduler, kivPriority, kivName), this); \
  }                                                                                           \
  void attr##Del() { attr##_ = nullptr; }                                                     \
                                                                                              \
 private:                                                                                     \
  ::Kiv::Ptr<R> attr##_;                                                                      \
  KIV_DIGEST_FIELD_(attr, ::Mox::taskState(attr##_ ? attr##_->task().ptr() : nullptr))        \
                                                                                              \
 public:
