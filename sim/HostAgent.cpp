#include "sim/HostAgent.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "sim/Published.h"
#include "sim/Scenario.h"

namespace Sim {

HostAgent::HostAgent(SimLog* log, const Families& families)
    : clock(new Kiv::VirtualClock),
      scheduler(Mox::TaskScheduler::TaskSchedulerIs(clock)),
      chip(new SoftwareChip(clock)),
      log_(log),
      families_(families) {
  // Each chip call is logged with who made it: the machine whose helper it came through, or the
  // agent itself.
  chip->callListenerIs([this](const SoftwareChip::Call& c) {
    calls_.push_back(c.text);
    if (c.caller) lastMachineCall_.assign(c.caller).append(": ").append(c.text);
    if (!log_->enabled()) return;
    const std::string source = c.caller ? std::string(c.caller) + ">chip" : "agent>chip";
    log_->add(now(), source, c.text, causesFor(source, c.text, false));
  });
  for (std::size_t i = 0; i < families_.size(); ++i) {
    for (const Family* below : families_[i]->buildsOn()) {
      if (std::find(families_.begin(), families_.begin() + static_cast<std::ptrdiff_t>(i), below) ==
          families_.begin() + static_cast<std::ptrdiff_t>(i)) {
        throw std::logic_error("the " + std::string(families_[i]->name()) +
                               " family builds on the " + std::string(below->name()) +
                               " family, which is not registered before it");
      }
    }
    agents_.push_back(families_[i]->agentIs(*this));
  }
  log_->clockIs(clock.ptr());
}

HostAgent::~HostAgent() {
  // The machines go first, the last started first: they hold the inputs and the chip's helpers.
  for (auto it = agents_.rbegin(); it != agents_.rend(); ++it) (*it)->stop();
  agents_.clear();
  publisher_.reset();
  chip->callListenerIs(nullptr);
  log_->clockIs(nullptr);
  if (why_.on) Kiv::causingIs(false);
}

void HostAgent::apply(const Action& a) {
  if (!Kiv::causing()) return a.apply(*this);
  // What the action sets off, it sets off under a link that says it as a scenario would.
  std::ostringstream text;
  a.body->write(text);
  Kiv::CauseScope acting(Kiv::causeOf(Kiv::Cause::Kind::outside, text.str()));
  a.apply(*this);
}

void HostAgent::replay(const Scenario& s) {
  // A root of the chains, when they are carried: what came from outside the agent.
  auto root = [](const std::string& text) {
    return Kiv::causing() ? Kiv::causeOf(Kiv::Cause::Kind::outside, text, nullptr) : nullptr;
  };
  for (const Action& a : s.initial) apply(a);
  {
    Kiv::CauseScope starting(root("the agent starts"));
    start();
  }
  scheduler->runDue();
  for (const Step& step : s.steps) {
    advanceTo(step.at);
    std::ostringstream text;
    if (Kiv::causing()) {
      text << "the step at time " << step.at;
      if (!step.note.empty()) text << " \"" << step.note << "\"";
    }
    Kiv::CauseScope stepping(root(text.str()));
    for (const Action& a : step.actions) apply(a);
    scheduler->runDue();
  }
}

void HostAgent::note(std::string_view source, std::string_view text) {
  log_->add(now(), source, text, causesFor(source, text, true));
}

void HostAgent::whyIs(const Why& why) {
  why_ = why;
  Kiv::causingIs(why.on);
}

std::vector<std::string> HostAgent::causesFor(std::string_view source, std::string_view text,
                                              bool skipWrite) const {
  if (!why_.on || !Kiv::causing()) return {};
  if (!why_.only.empty() && source.find(why_.only) == std::string_view::npos &&
      text.find(why_.only) == std::string_view::npos) {
    return {};
  }
  const Kiv::Cause* c = Kiv::causeNow().ptr();
  if (skipWrite) {
    const Kiv::Cause* write = c;
    while (write && write->kind() != Kiv::Cause::Kind::write) write = write->parent().ptr();
    if (write) c = write->parent().ptr();
  }
  return Kiv::causeChain(c, why_.detail);
}

FamilyAgent& HostAgent::partOf(const Family& family) const {
  for (std::size_t i = 0; i < agents_.size(); ++i) {
    if (families_[i] == &family) return *agents_[i];
  }
  throw std::logic_error("the agent has no part of the " + std::string(family.name()) +
                         " family (yet): a family that reads it names it in buildsOn()");
}

void HostAgent::advanceTo(double t, TimeWalk* walk) {
  for (auto due = scheduler->nextDueTime(); due && *due < t; due = scheduler->nextDueTime()) {
    if (walk) walk->beforeRuns(*due);
    scheduler->advanceTo(*due);
    if (walk) walk->afterRuns();
  }
  if (walk) walk->beforeRuns(t);
  scheduler->advanceTo(t);
  if (walk) walk->afterRuns();
}

void HostAgent::publish(const std::string& name) {
  publisher_ = std::make_unique<Publisher>(name);
  for (auto& a : agents_) a->publish(*publisher_);
  publisher_->sync();
  note("agent", "publishing its tables as '" + name + "'");
}

void HostAgent::syncPublished() {
  if (publisher_) publisher_->sync();
}

void HostAgent::start() {
  for (auto& a : agents_) a->start();
}

void HostAgent::restart(const std::string& machine) {
  note("agent", "restart " + machine);
  if (machine == "agent") {
    // A restarting agent reinitialises its chip: nothing programmed survives it.
    for (auto it = agents_.rbegin(); it != agents_.rend(); ++it) (*it)->stop();
    chip->reset();
    start();
    return;
  }
  for (std::size_t i = 0; i < families_.size(); ++i) {
    for (const auto& m : families_[i]->machines()) {
      if (m == machine) return agents_[i]->restart(machine);
    }
  }
  throw std::invalid_argument("no machine named '" + machine + "'");
}

std::vector<std::string> HostAgent::takeCalls() {
  std::vector<std::string> out;
  out.swap(calls_);
  return out;
}

std::vector<std::string> HostAgent::violationLines() const {
  std::vector<std::string> out;
  for (const auto& v : chip->violations()) out.push_back(v.text);
  return out;
}

std::vector<std::string> HostAgent::tableLines(std::string_view table) const {
  for (std::size_t i = 0; i < families_.size(); ++i) {
    for (const auto& t : families_[i]->tables()) {
      if (t.name == table) return agents_[i]->lines(table);
    }
  }
  throw std::invalid_argument("no table named '" + std::string(table) + "'");
}

std::string block(const std::vector<std::string>& lines) {
  if (lines.empty()) return "    (none)\n";
  std::string out;
  for (const auto& l : lines) out += "    " + l + "\n";
  return out;
}

void HostAgent::printState(std::ostream& os) const {
  for (const auto& a : agents_) a->printChip(os);
  os << "chip violations:\n" << block(violationLines());
  for (const auto& a : agents_) a->printOutputs(os);
}

void HostAgent::printTables(std::ostream& os) const {
  for (const auto& a : agents_) a->printChip(os);
  for (const auto& a : agents_) a->printOutputs(os);
}

}  // namespace Sim
