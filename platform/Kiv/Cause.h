#pragma once
// Causes: why something happened, back to what came from outside the agent.
//
// An engineer who sees a chip call asks first why it was made. Between the input that started it
// and the call there may be several machines, a table one writes and another reads, a review task
// that runs seconds later and a chip answer; the frame carries the chain so nobody rebuilds it by
// hand. Each link is a Cause: a small counted record of what happened, pointing at the cause
// before it. The roots are what comes from outside: a scenario step, a fuzz event, a chip answer,
// a timer.
//
// The frame does the carrying, the machines do nothing:
//   - a write to a watched entity makes a `write` cause under the current one, and its
//     notifiees run under it (each under a `handler` cause naming it);
//   - a task takes the current cause when it is scheduled, and each run of it runs under a `task`
//     cause pointing there, so a retry names what parked the work;
//   - an answer heard from outside during a handler (a chip refusal) is noted with causeAnswer():
//     a task the handler schedules after it takes the answer as its cause.
// Whoever feeds the agent opens a scope for each input (CauseScope with a root cause) and reads
// causeNow() where it logs a call.
//
// Off (the default), every place that carries causes costs one load and one branch and builds
// nothing; causingIs(true) turns it on for the process.
//
//   Kiv::causingIs(true);
//   Kiv::CauseScope step(Kiv::causeOf(Kiv::Cause::Kind::outside, "step 3"));
//   segment->designatedForwarderTepDel(vlan);         // the machines run under its causes
//   ... in the chip's call log: Kiv::causeChain(Kiv::causeNow(), Kiv::CauseDetail::brief)

#include <cstdint>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "Kiv/Ptr.h"

namespace Kiv {

class Cause : public PtrInterface {
 public:
  enum class Kind : std::uint8_t {
    outside,  // a root: a step, an event, a timer, an answer from outside
    write,    // a write to a watched entity
    handler,  // a notifiee that heard a write
    task,     // a run of a task
    answer,   // an answer heard from outside while something ran (a chip refusal)
  };
  // Beyond this many links a new cause points at its chain's root instead, saying how many it
  // skipped: a review that keeps failing must not grow a chain without end.
  static constexpr std::uint32_t maxDepth = 48;

  Cause(Kind kind, std::string text, Ptr<const Cause> parent);
  Kind kind() const { return kind_; }
  const std::string& text() const { return text_; }
  const Ptr<const Cause>& parent() const { return parent_; }
  // Links from here to the root, this one included.
  std::uint32_t depth() const { return depth_; }
  // Links left out between this one and its parent (a chain cut at maxDepth), else 0.
  std::uint32_t skipped() const { return skipped_; }
  const Cause& root() const { return root_ ? *root_ : *this; }

 private:
  Kind kind_;
  std::uint32_t depth_;
  std::uint32_t skipped_ = 0;
  std::string text_;
  Ptr<const Cause> parent_;
  const Cause* root_;  // held through parent_
};

// Whether causes are carried, for the whole process.
extern bool causing_;
inline bool causing() { return causing_; }
void causingIs(bool on);

// The cause of what runs now; null when nothing is known (causes off, or outside any scope).
const Ptr<const Cause>& causeNow();
// The cause that work scheduled now for later takes: the last answer noted in the current scope,
// else causeNow().
const Ptr<const Cause>& causeForLater();
// Whether an answer was noted in the current scope.
bool causeAnswered();

// A new cause under `parent` (by default the current one).
Ptr<const Cause> causeOf(Cause::Kind kind, std::string text);
Ptr<const Cause> causeOf(Cause::Kind kind, std::string text, Ptr<const Cause> parent);

// Notes an answer from outside heard in the current scope: what the scope schedules from now on
// is for it. Nothing while causes are off.
void causeAnswer(std::string text);

// Makes `cause` the current one until the scope ends, then puts the one before it back. A null
// cause leaves the current one as it is.
class CauseScope {
 public:
  explicit CauseScope(Ptr<const Cause> cause);
  ~CauseScope();
  CauseScope(const CauseScope&) = delete;
  CauseScope& operator=(const CauseScope&) = delete;

 private:
  Ptr<const Cause> before_;
  Ptr<const Cause> answerBefore_;
  bool active_;
};

// How much of a chain to tell.
enum class CauseDetail {
  brief,  // writes, task runs (one per task in a row), answers and the root
  full,   // every link, handlers included
};
// The chain from `c` to its root, nearest first, one text per link told.
std::vector<std::string> causeChain(const Cause* c, CauseDetail detail);

// A type's name as written in the source, without its namespaces ("EthernetSegmentStatus").
std::string causeTypeName(const std::type_info& t);

namespace detail {
template <class T>
concept CausePrintable = requires(std::ostream& os, const T& v) {
  os << v;
};
template <class T>
void causeValue(std::ostringstream& os, const T& v) {
  if constexpr (requires {
                  v.has_value();
                  *v;
                }) {
    if (!v.has_value()) {
      os << "removed";
    } else {
      causeValue(os, *v);
    }
  } else if constexpr (requires {
                         v.found;
                         v.row;
                       }) {
    if (!v.found) {
      os << "removed";
    } else {
      causeValue(os, v.row);
    }
  } else if constexpr (requires { v.ptr(); }) {
    os << (v ? "present" : "removed");
  } else if constexpr (CausePrintable<T>) {
    os << v;
  } else {
    os << "set";
  }
}
}  // namespace detail

// The text of a write: "<Entity> <its key>: <attr> <key> <what it now holds>", the entity's key
// only for a child entity, the attribute's key only for a collection.
template <class E, class... KV>
std::string causeWriteText(const E& entity, const char* attr, const KV&... kv) {
  std::ostringstream os;
  os << causeTypeName(typeid(entity));
  if constexpr (requires { entity.fwkKey(); }) {
    if constexpr (detail::CausePrintable<std::decay_t<decltype(entity.fwkKey())>>) {
      os << ' ' << entity.fwkKey();
    }
  }
  os << ": " << attr;
  ((os << ' ', detail::causeValue(os, kv)), ...);
  return os.str();
}

}  // namespace Kiv
