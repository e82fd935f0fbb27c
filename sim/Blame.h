#pragma once
// The chip call that broke a check, and why it was made: what a fuzz or exploration failure
// report shows first, so that the reader starts from the cause rather than from the whole run.

#include <optional>
#include <string>
#include <vector>

#include "sim/Family.h"
#include "sim/Scenario.h"

namespace Sim {

struct Blame {
  std::string line;                 // the failure's line it explains (in the replayed run)
  std::string call;                 // "<machine>: <call text>"
  std::vector<std::string> causes;  // its chain, nearest first
};

// Replays `s` with causes carried and names the machine's chip call that most likely broke
// `failure`: the last one that names most of what the failure's first line names (its
// interfaces, VLANs, tunnels, ids), else the last one made. None when no machine made a call.
std::optional<Blame> blame(const Scenario& s, const Families& families,
                           const CheckFailure& failure);

// The report's lines: "the call behind <line>: <call>" and a "because" line per cause.
std::string blameText(const Blame& b, const std::string& indent);

}  // namespace Sim
