#include "sim/ExploreRun.h"

#include <sstream>

#include "Kiv/Digest.h"
#include "Oba/ObaCommon.h"
#include "sim/Fuzz.h"

namespace Sim::exploring {

std::string actionText(const std::vector<Action>& actions) {
  std::ostringstream os;
  for (std::size_t i = 0; i < actions.size(); ++i) {
    if (i) os << " + ";
    actions[i].body->write(os);
  }
  return os.str();
}

Run::Run(const Families& families, const ExploreWorld& world) : agent_(&log_, families) {
  agent_.chip->callListenerIs(nullptr);
  for (const Action& a : world.initial) agent_.apply(a);
  agent_.start();
  agent_.scheduler->runDue();
}

std::optional<CheckFailure> Run::step(const Letter& l) {
  if (auto f = guarded([&] {
        if (l.kind == Letter::Kind::time) {
          if (auto due = agent_.scheduler->nextDueTime()) agent_.advanceTo(*due);
          return;
        }
        for (const Action& a : l.actions) agent_.apply(a);
        agent_.scheduler->runDue();
      })) {
    return f;
  }
  if (auto ledger = ledgerLines(agent_); !ledger.empty()) {
    return CheckFailure{"ledger", std::move(ledger)};
  }
  return std::nullopt;
}

Outcome Run::outcome() {
  Outcome o;
  Kiv::Digest d;
  d.add(agent_.now());
  d.add(agent_.scheduler->dueTimes());
  agent_.chip->digest(d);
  for (const auto& part : agent_.parts()) part->digest(d);
  o.digest = d.value();
  o.unreadable = d.opaque();
  o.firstUnreadable = d.firstOpaque();
  o.failure = guarded([&] {
    const double start = agent_.now();
    while (agent_.now() - start <= 20 * Oba::unprogrammedRetryIntervalDefault) {
      bool busy = false;
      for (const auto& part : agent_.parts()) busy = busy || part->busy();
      auto due = agent_.scheduler->nextDueTime();
      if (!busy || !due) break;
      agent_.advanceTo(*due);
    }
  });
  if (!o.failure) o.failure = checkAgent(agent_, &o.allowances);
  return o;
}

Scenario scenarioOf(const Families& families, const ExploreWorld& world,
                    const std::vector<Letter>& letters, const std::vector<std::uint32_t>& seq,
                    bool tables) {
  Scenario s;
  s.name = "explored in world " + world.name;
  s.initial = world.initial;
  Run run(families, world);
  for (std::uint32_t i : seq) {
    const Letter& l = letters[i];
    run.step(l);
    if (l.kind == Letter::Kind::time) continue;
    Step st;
    st.at = run.now();
    st.note = l.kind == Letter::Kind::restart ? "a restart" : "a step of the world";
    st.actions = l.actions;
    s.steps.push_back(std::move(st));
  }
  // The checks hold once the reviews have drained: the last step is where the drain ended.
  run.outcome();
  if (s.steps.empty() || s.steps.back().at != run.now()) {
    Step st;
    st.at = run.now();
    st.note = "the reviews have drained";
    s.steps.push_back(std::move(st));
  }
  auto& expect = s.steps.back().expectations;
  if (tables) {
    for (const auto& part : run.parts()) {
      for (auto& [table, lines] : part->finalExpectations()) {
        expect.push_back({.name = table, .lines = std::move(lines)});
      }
    }
  }
  expect.push_back({.name = "checks", .lines = {}});
  return s;
}

}  // namespace Sim::exploring
