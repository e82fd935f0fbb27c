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

#include <utility>

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

}  // namespace Mox
