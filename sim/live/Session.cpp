#include "sim/live/Session.h"

#include <poll.h>

#include <algorithm>
#include <cmath>

namespace Live {

namespace {
constexpr double longestBackoff = 8;
constexpr double tableDelay = 0.3;
}  // namespace

SessionOptions gobgpStream(const std::vector<std::string>& args) {
  auto command = [&](std::initializer_list<const char*> words) {
    std::vector<std::string> c{"gobgp"};
    c.insert(c.end(), args.begin(), args.end());
    c.insert(c.end(), words.begin(), words.end());
    return c;
  };
  SessionOptions o;
  o.command = command({"monitor", "global", "rib", "-a", "evpn", "-j"});
  o.tableCommand = command({"global", "rib", "-a", "evpn", "-j"});
  return o;
}

Session::Session(const Config& config, Sim::SimLog& log, SessionOptions options)
    : config_(config),
      log_(log),
      options_(std::move(options)),
      start_(std::chrono::steady_clock::now()),
      agent_(std::make_unique<Sim::HostAgent>(&log)),
      translator_(config),
      monitor_(options_.command),
      table_(options_.tableCommand) {
  if (!options_.publish.empty()) agent_->publish(options_.publish);
  translator_.onFirstUnusable = [this](const std::string& reason, const std::string& key) {
    log_.add(agent_->now(), "live",
             "route not used: " + reason + " (" + key + "); routes like it are counted");
  };
  recorded_.file = config.file;
  recorded_.name = "live run over " + config.file;
  recorded_.description = "what the live path applied, as a scenario";
  recorded_.families = agent_->families();
  recorded_.initial = configActions(config);
  log_.add(0, "scenario", recorded_.name);
  for (const auto& a : recorded_.initial) agent_->apply(a);
  log_.add(0, "agent", "start");
  agent_->start();
  agent_->scheduler->runDue();
  agent_->syncPublished();
}

double Session::now() const {
  const std::chrono::duration<double> d = std::chrono::steady_clock::now() - start_;
  return std::floor(d.count() * 1000) / 1000;
}

void Session::turn(double wait) {
  if (!monitor_.running() && now() >= restartAt_) {
    tableSeen_ = false;
    waiting_.clear();
    tableText_.clear();
    if (monitor_.start()) {
      std::string cmd;
      for (const auto& a : monitor_.command()) cmd += (cmd.empty() ? "" : " ") + a;
      log_.add(now(), "live", "stream: " + cmd);
      // The stream first, then the table, a moment later: the monitor has subscribed by then (it
      // takes some milliseconds), so that no change falls between the two.
      tableAt_ = options_.tableCommand.empty() ? -1 : now() + tableDelay;
    } else {
      streamEnded();
    }
  }
  if (tableAt_ >= 0 && now() >= tableAt_ && monitor_.running()) {
    tableAt_ = -1;
    if (!table_.start()) {
      log_.add(now(), "live", "stream: no table (" + table_.ended() + ")");
      monitor_.stop();
      streamEnded();
    }
  }
  // Wait no longer than the next review's due time.
  const auto due = agent_->scheduler->dueTimes();
  if (!due.empty())
    wait = std::min(wait, std::max(0.0, *std::min_element(due.begin(), due.end()) - now()));
  if (!monitor_.running()) wait = std::min(wait, std::max(0.0, restartAt_ - now()));
  if (tableAt_ >= 0) wait = std::min(wait, std::max(0.0, tableAt_ - now()));
  pollfd p[2] = {{monitor_.fd(), POLLIN, 0}, {table_.fd(), POLLIN, 0}};
  poll(p, monitor_.running() ? (table_.fd() >= 0 ? 2 : 1) : 0,
       static_cast<int>(std::ceil(wait * 1000)));

  const auto confirmed = translator_.confirmed();
  if (table_.fd() >= 0) readTable();
  if (monitor_.running()) readStream();
  // The speaker's peers come back one by one: each that gives held routes again puts the
  // withdrawal of the rest off.
  if (translator_.confirmed() != confirmed) lastConfirmed_ = now();
  if (resyncing_ && tableSeen_ &&
      now() - std::max(upSince_, lastConfirmed_) >= options_.staleAfter) {
    resyncing_ = false;
    const std::size_t stale = translator_.staleCount();
    Actions out;
    translator_.dropStale(out);
    apply(std::move(out), "resynchronised, " + std::to_string(stale) +
                              " routes the speaker no longer has are withdrawn");
  }
  agent_->advanceTo(now());
  agent_->syncPublished();
}

void Session::readStream() {
  std::vector<std::string> lines;
  const bool open = monitor_.read(lines);
  for (auto& l : lines) {
    if (tableSeen_ || options_.tableCommand.empty()) {
      line(l);
    } else {
      waiting_.push_back(std::move(l));
    }
  }
  if (!open) streamEnded();
}

void Session::readTable() {
  std::vector<std::string> lines;
  if (table_.read(lines)) {
    for (const auto& l : lines) tableText_ += l;
    return;
  }
  for (const auto& l : lines) tableText_ += l;
  // The table: route keys, each with its paths; the best one is what the monitor follows.
  auto j = nlohmann::json::parse(tableText_, nullptr, false);
  tableText_.clear();
  if (!j.is_object() || j.contains("error")) {
    log_.add(now(), "live",
             "stream: no table (" + (j.is_object() ? j["error"].dump() : table_.ended()) + ")");
    monitor_.stop();
    streamEnded();
    return;
  }
  nlohmann::json best = nlohmann::json::array();
  for (auto& [key, paths] : j.items()) {
    if (!paths.is_array() || paths.empty()) continue;
    auto b = std::find_if(paths.begin(), paths.end(),
                          [](const auto& p) { return p.is_object() && p.value("best", false); });
    best.push_back(std::move(b != paths.end() ? *b : paths.front()));
  }
  table(best);
  auto waiting = std::move(waiting_);
  waiting_.clear();
  for (const auto& l : waiting) line(l);
}

void Session::table(const nlohmann::json& paths) {
  tableSeen_ = true;
  upSince_ = now();
  backoff_ = 0.5;
  Actions out;
  translator_.table(paths, out);
  apply(std::move(out), "the speaker's table, " + std::to_string(paths.size()) + " paths");
}

void Session::line(const std::string& text) {
  if (text.empty()) return;
  nlohmann::json j;
  try {
    j = nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& e) {
    log_.add(now(), "live", std::string("stream: a line that is not JSON: ") + e.what());
    return;
  }
  if (j.is_object() && j.contains("error")) {
    log_.add(now(), "live", "stream: the speaker's client says " + j["error"].dump());
    return;
  }
  if (!tableSeen_) return table(j.is_array() ? j : nlohmann::json::array({j}));
  Actions out;
  if (j.is_array()) {
    for (const auto& p : j) translator_.path(p, out);
  } else {
    translator_.path(j, out);
  }
  apply(std::move(out), "");
}

void Session::apply(Actions&& actions, const std::string& note) {
  if (!note.empty()) log_.add(now(), "live", note);
  if (actions.empty()) return;
  const double t = now();
  agent_->advanceTo(t);
  for (const auto& a : actions) agent_->apply(a);
  agent_->scheduler->runDue();
  agent_->syncPublished();
  Sim::Step step;
  step.at = t;
  step.note = note;
  step.actions = std::move(actions);
  recorded_.steps.push_back(std::move(step));
}

void Session::streamEnded() {
  table_.stop();
  tableAt_ = -1;
  log_.add(now(), "live",
           "stream ended (" + monitor_.ended() + "): the chip keeps what it holds; again in " +
               std::to_string(backoff_).substr(0, 3) + " s");
  translator_.markStale();
  resyncing_ = translator_.routes() > 0;
  tableSeen_ = false;
  restartAt_ = now() + backoff_;
  backoff_ = std::min(backoff_ * 2, longestBackoff);
}

}  // namespace Live
