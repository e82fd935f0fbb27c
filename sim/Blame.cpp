#include "sim/Blame.h"

#include <algorithm>
#include <sstream>

#include "Kiv/Cause.h"
#include "sim/HostAgent.h"
#include "sim/SimLog.h"

namespace Sim {

namespace {

// The words of a line that name something, in order: those holding a digit (Ethernet2, 10,
// Tunnel1.1, FecId(0x...)).
std::vector<std::string> names(const std::string& line) {
  std::vector<std::string> out;
  std::istringstream in(line);
  for (std::string w; in >> w;) {
    while (!w.empty() && (w.back() == ',' || w.back() == ':' || w.back() == ';')) w.pop_back();
    if (w.find_first_of("0123456789") != std::string::npos) out.push_back(w);
  }
  return out;
}

}  // namespace

std::optional<Blame> blame(const Scenario& s, const Families& families,
                           const CheckFailure& failure) {
  std::vector<Blame> calls;
  {
    SimLog quiet;
    HostAgent agent(&quiet, families);
    agent.whyIs({.on = true});
    agent.chip->callListenerIs([&](const SoftwareChip::Call& c) {
      if (!c.caller) return;
      calls.push_back({"", std::string(c.caller) + ": " + c.text,
                       Kiv::causeChain(Kiv::causeNow().ptr(), Kiv::CauseDetail::brief)});
    });
    try {
      agent.replay(s);
    } catch (const std::exception&) {
      // A run that ends early still has the calls made up to there.
    }
  }
  if (calls.empty()) return std::nullopt;
  // A check's line starts with the entry it is about (a port and a VLAN, a hardware id): the call
  // that broke it is the last that touched that entry.
  std::vector<std::string> key;
  if (!failure.lines.empty()) key = names(failure.lines.front());
  if (key.size() > 2) key.resize(2);
  std::size_t best = calls.size() - 1, bestScore = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    const std::vector<std::string> called = names(calls[i].call);
    std::size_t score = 0;
    for (const auto& w : key) score += std::find(called.begin(), called.end(), w) != called.end();
    if (score > 0 && score >= bestScore) {
      best = i;
      bestScore = score;
    }
  }
  Blame out = std::move(calls[best]);
  if (!failure.lines.empty()) out.line = failure.lines.front();
  return out;
}

std::string blameText(const Blame& b, const std::string& indent) {
  std::string out = indent + "the call behind \"" + b.line + "\": " + b.call + "\n";
  for (const auto& c : b.causes) out += indent + "  because " + c + "\n";
  return out;
}

}  // namespace Sim
