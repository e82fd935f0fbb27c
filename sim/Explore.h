#pragma once
// `oba-evpn-sim explore`: every order of events in a small world, to a depth. A family offers
// small worlds (FamilyExplore: the inputs and chip the agent starts over, and an alphabet of
// steps made of its own scenario actions); the explorer adds the steps every world has (time
// moved on to the next due task, a restart of each of the family's machines and of the agent)
// and runs every sequence of up to `depth` steps, breadth first, each from a fresh agent.
//
// Two sequences that reach the same state are explored once. A state is the digest of every
// input, output and machine of the world's families (their accessor families stamp it, Kiv/
// Digest.h), the chip's tables and rules, the scheduled tasks and the time. After every step the
// chip's ledger must balance; in every state where no review is pending, each family's check must
// hold, its allowed differences (the algorithm's documented non-convergences) counted by name
// with the shortest sequence that shows each. The first failure, shortest by construction, is
// written as a scenario that fails `--check`.
//
//   Sim::ExploreOptions o;
//   o.family = "tunnelEsi"; o.depth = 5;
//   for (const auto& r : Sim::explore(o, &std::cerr)) ... r.states, r.failure
//
// docs/convergence.md gives the figures and the commands.

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "sim/Blame.h"
#include "sim/Family.h"

namespace Sim {

struct ExploreOptions {
  std::string family;  // empty: every family with worlds
  std::string world;   // empty: every world of the family
  std::uint32_t depth = 4;
  std::uint64_t maxStates = 1000000;  // distinct states per world; the exploration stops there
  std::uint32_t jobs = 1;             // processes that replay the sequences of one depth
  bool restarts = true;               // restarts are among the steps
  std::string outDir = ".";           // where a failing sequence's scenario file goes
  // Also write, for each allowed difference, its shortest sequence as a scenario that expects
  // the tables as it leaves them.
  bool writeAllowances = false;
};

struct ExploreReport {
  std::string family;
  std::string world;
  std::uint32_t depth = 0;       // the depth every sequence was explored to
  bool complete = true;          // false: stopped at maxStates before reaching the depth
  std::uint64_t states = 0;      // distinct states met
  std::uint64_t sequences = 0;   // sequences run
  std::uint64_t letters = 0;     // steps in the world's alphabet, time and restarts included
  std::uint64_t unreadable = 0;  // values the digest could not read (merges may be unsafe)
  std::string firstUnreadable;
  double seconds = 0;
  // Per allowed difference of the checks: how many quiet states showed it, and the shortest
  // sequence that does.
  struct Allowance {
    std::uint64_t states = 0;
    std::vector<std::string> shortest;
    std::string scenarioPath;  // with writeAllowances
  };
  std::map<std::string, Allowance> allowances;
  struct Failure {
    std::vector<std::string> sequence;  // the steps, as scenario files write them
    CheckFailure failure;
    std::string scenarioPath;    // empty when it could not be written
    std::optional<Blame> blame;  // the call that broke the check, and why it was made
  };
  std::optional<Failure> failure;
};

// A world from the texts of its actions, as scenario files write them (one action each, read by
// the families' own definitions); a step of several actions joins them with " + ".
ExploreWorld worldOf(std::string name, std::string description,
                     const std::vector<std::string>& initial,
                     const std::vector<std::string>& alphabet);

// Explores the worlds the options name; a line per world and depth goes to `progress` (may be
// null). Stops a world at its first failure.
std::vector<ExploreReport> explore(const ExploreOptions& options, std::ostream* progress,
                                   const Families& families = registeredFamilies());

// The subcommand: `oba-evpn-sim explore [options]`, argv[1] being "explore". Exit status 0 when
// every world held, 1 when one failed, 2 on bad arguments.
int exploreMain(int argc, char** argv);

}  // namespace Sim
