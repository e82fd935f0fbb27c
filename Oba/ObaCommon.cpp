#include "Oba/ObaCommon.h"

#include <algorithm>

#include "Mox/TaskScheduler.h"

namespace Oba {

ObaLagPortList::ObaLagPortList(std::vector<Quil::IntfId> ports) : ports_(std::move(ports)) {
  std::sort(ports_.begin(), ports_.end());
  ports_.erase(std::unique(ports_.begin(), ports_.end()), ports_.end());
}

bool ObaLagPortList::has(const Quil::IntfId& port) const {
  return std::binary_search(ports_.begin(), ports_.end(), port);
}

std::ostream& operator<<(std::ostream& os, const ObaLagPortList& l) {
  os << "[";
  for (std::size_t i = 0; i < l.ports().size(); ++i) os << (i ? ", " : "") << l.ports()[i];
  return os << "]";
}

void scheduleUnprogrammedReview(Mox::TimerTask& task, bool immediate, Kiv::Seconds interval,
                                const Kiv::TraceHandle& th) {
  if (immediate) {
    task.scheduleTask();
    OBA_TRACE5(th, "schedule immediate unprogrammed review");
    return;
  }
  if (task.taskScheduled()) {
    OBA_TRACE5(th, "already scheduled");
    return;
  }
  task.scheduleTaskDelay(interval);
  OBA_TRACE5(th, "next unprogrammed review at ", task.scheduler()->now() + interval);
}

}  // namespace Oba
