#pragma once
// One run of the explorer (sim/Explore.h): a fresh agent over a small world, taken through a
// sequence of steps, and what it came to (its state's digest, then the checks once its reviews
// have drained); and a sequence written as a scenario.

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Assert.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/Scenario.h"
#include "sim/SimLog.h"

namespace Sim::exploring {

// One step of the alphabet: a family's action, time moving on to the next due task, or a
// restart.
struct Letter {
  enum class Kind { actions, time, restart } kind;
  std::vector<Action> actions;  // the family's actions, or the restart as an action
  std::string text;             // as a scenario file writes them (joined by " + "), or "time"
};

// Actions as a scenario file writes them, joined by " + ".
std::string actionText(const std::vector<Action>& actions);

using StateDigest = std::pair<std::uint64_t, std::uint64_t>;
struct DigestHash {
  std::size_t operator()(const StateDigest& d) const { return d.first ^ (d.second * 31); }
};

// What one sequence came to.
struct Outcome {
  StateDigest digest{};
  std::uint64_t unreadable = 0;
  std::string firstUnreadable;
  Counters allowances;                  // the checks' allowed differences, once drained
  std::optional<CheckFailure> failure;  // the ledger after a step, or a check once drained
};

// Runs f; a machine's broken invariant or an exception out of it is a failure of its own.
template <class F>
std::optional<CheckFailure> guarded(F&& f) {
  try {
    f();
  } catch (const Kiv::AssertionFailure& e) {
    return CheckFailure{"abort", {e.what()}};
  } catch (const std::exception& e) {
    return CheckFailure{"exception", {e.what()}};
  }
  return std::nullopt;
}

// A fresh agent over the world, taken through a sequence of letters.
class Run {
 public:
  Run(const Families& families, const ExploreWorld& world);

  // Applies the letter; answers what the ledger says after it (a failure ends the sequence).
  std::optional<CheckFailure> step(const Letter& l);

  // The state's digest; then, as the fuzzer does after a step, the reviews drained (within
  // twenty retry intervals: a chip that keeps refusing leaves work parked) and every check. The
  // run is spent after it: each sequence is replayed from a fresh agent.
  Outcome outcome();

  double now() const { return agent_.now(); }
  const std::vector<std::unique_ptr<FamilyAgent>>& parts() const { return agent_.parts(); }

 private:
  SimLog log_;
  HostAgent agent_;
};

// The sequence as a scenario: each letter a step of its own at the time it was taken (time
// letters move the next step's time on), ending with the checks expected to hold; with
// `tables`, also with every table as the run left it (an allowed difference as the chip has it).
Scenario scenarioOf(const Families& families, const ExploreWorld& world,
                    const std::vector<Letter>& letters, const std::vector<std::uint32_t>& seq,
                    bool tables = false);

}  // namespace Sim::exploring
