#pragma once
// What every state machine shares: the common data entity of the agent (of which the library
// reads only the LAG membership), the LAG test, and the trace conventions.
//
// Each machine's source defines its own trace handle, named after the source, and traces with
// OBA_TRACE8 (entry into a handler, with its arguments) and OBA_TRACE5 / OBA_TRACE5_VALUE (events
// and outcomes). Each takes the static text that goes to the always-on Quiktrace ring (with a
// numeric value where the event has one) and the stream expression of the full trace line, which
// is built only when the level is enabled.

#include <limits>
#include <optional>
#include <ostream>
#include <type_traits>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Entity.h"
#include "Kiv/Trace.h"
#include "Kiv/Types.h"
#include "Mox/TimerTask.h"
#include "Oba/ObaExport.h"
#include "Quil/IntfId.h"

namespace Oba {

// The member ports of one LAG: an immutable list, replaced whole when the membership changes, so
// that a reader is told once per LAG and never sees a half-updated list.
class OBA_EXPORT ObaLagPortList : public Kiv::PtrInterface {
 public:
  explicit ObaLagPortList(std::vector<Quil::IntfId> ports);
  const std::vector<Quil::IntfId>& ports() const { return ports_; }  // in interface order
  std::size_t size() const { return ports_.size(); }
  bool empty() const { return ports_.empty(); }
  bool has(const Quil::IntfId& port) const;

 private:
  std::vector<Quil::IntfId> ports_;
};
OBA_EXPORT std::ostream& operator<<(std::ostream& os, const ObaLagPortList& l);

// The agent's common data. Other attributes exist in the switch; the library reads only the LAG
// membership, and is told per LAG when its member list is set, replaced or removed.
class OBA_EXPORT ObaCommonSmData : public Kiv::Entity<ObaCommonSmData> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<ObaCommonSmData> {
   public:
    KIV_NOTIFIEE_COLLECTION(lagToPort, LagToPort, Quil::IntfId)
  };
  KIV_WATCHED_COLLECTION(lagToPort, LagToPort, Quil::IntfId, Kiv::Ptr<const ObaLagPortList>)
};

inline bool isLag(const Quil::IntfId& intf) { return intf.isPortChannel(); }

// The retry interval of the machines that program the chip, and their review task's identity.
inline constexpr Kiv::Seconds unprogrammedRetryIntervalDefault = 5.0;
inline constexpr int reviewUnprogrammedPriority = 2;
inline constexpr const char* reviewUnprogrammedName = "reviewUnprogrammed";

// The one place a machine schedules its unprogrammed review: at once when `immediate` (released
// hardware may let waiting work succeed now), otherwise after `interval` unless a review is
// already due. Traces under the machine's own handle.
void scheduleUnprogrammedReview(Mox::TimerTask& task, bool immediate, Kiv::Seconds interval,
                                const Kiv::TraceHandle& th);

// A review's walk: `retry(key)` for every key of the unprogrammed collection, one unit of task
// work each. When keys remain and the scheduler asks the task to yield, the review reschedules
// itself after `interval` (0: at once) and stops, so a large backlog never holds the event loop.
// The retry may change the collection (a success removes its own key). Returns whether the walk
// went round every key.
//
// A review starts from the first key each run. When the scheduler's walks resume, a run that
// yields records the key it stopped before, and the next run goes from there to the end and then
// from the first key round to it, so that keys past one run's budget are retried too while those
// before them keep failing. If that key went meanwhile, the run starts from the first key.
template <class Walk, class Retry>
bool reviewEach(const Walk& walk, Mox::TimerTask& task, Kiv::Seconds interval, Retry retry) {
  using Key = std::remove_cvref_t<decltype((*walk.begin()).key)>;
  const bool resumes = task.scheduler()->walksResume();
  std::optional<Key> from;
  if (resumes) {
    if (const Key* at = task.resumeAt<Key>()) {
      from = *at;
      task.resumeAtDel();
    }
  }
  // Retries from `it` to the end of the walk, or until `until` is met or `limit` keys are
  // retried. Answers false when the run yielded (its place recorded when resuming).
  auto retryFrom = [&](auto it, const std::optional<Key>& until, std::size_t limit) {
    for (std::size_t n = 0; it != walk.end() && n < limit; ++n) {
      if (until && (*it).key == *until) return true;
      retry((*it).key);
      task.taskWorkCountInc(1);
      if (++it == walk.end()) return true;
      if (task.taskShouldYield()) {
        if (resumes) task.resumeAtIs((*it).key);
        task.scheduleTaskDelay(interval);
        return false;
      }
    }
    return true;
  };
  constexpr std::size_t all = std::numeric_limits<std::size_t>::max();
  if (!from) return retryFrom(walk.begin(), std::nullopt, all);
  // Skip to where the last run stopped, counting the keys before it.
  std::size_t before = 0;
  auto it = walk.begin();
  for (; it != walk.end() && !((*it).key == *from); ++it) ++before;
  if (it == walk.end()) return retryFrom(walk.begin(), std::nullopt, all);
  if (!retryFrom(it, std::nullopt, all)) return false;
  if (!before) return true;
  if (task.taskShouldYield()) {  // round the end: the next run starts from the first key
    task.scheduleTaskDelay(interval);
    return false;
  }
  return retryFrom(walk.begin(), from, before);
}

}  // namespace Oba

// Each takes the static text of the event, which the Quiktrace ring keeps, and optionally what
// follows it on the trace line (a stream expression, built only when the level is enabled).
#define OBA_TRACE8(handle, text, ...)                      \
  do {                                                     \
    KIV_QTRACE(handle, text);                              \
    KIV_TRACE(handle, 8, text __VA_OPT__(<< __VA_ARGS__)); \
  } while (0)
#define OBA_TRACE5(handle, text, ...)                      \
  do {                                                     \
    KIV_QTRACE(handle, text);                              \
    KIV_TRACE(handle, 5, text __VA_OPT__(<< __VA_ARGS__)); \
  } while (0)
// An event with a numeric value, which the ring keeps beside the text.
#define OBA_TRACE5_VALUE(handle, text, value, ...)         \
  do {                                                     \
    KIV_QTRACE_VALUE(handle, text, value);                 \
    KIV_TRACE(handle, 5, text __VA_OPT__(<< __VA_ARGS__)); \
  } while (0)
