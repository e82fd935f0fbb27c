#pragma once
// The agent driven by a live route stream, in real time: the local configuration's inputs, the
// agent started over them, then each line of the stream translated and applied at the wall
// clock's time, the agent's clock following the wall clock in between so that its reviews run
// when they fall due. A stream that ends is told; the chip keeps what it holds; the stream is
// started again with a growing pause, and on its return its table is the reference: a route held
// from before that the speaker has not given again is withdrawn once `staleAfter` seconds pass
// without the stream giving back any held route (the speaker's peers come back one by one after
// it restarts, each a few seconds after the last).
//
// gobgp's monitor can give the whole table as its first line (--current), but the speaker's API
// refuses a message over 4 MiB, which a table of some thousands of routes exceeds. So the table
// comes from a second child, `gobgp global rib -a evpn -j`, started 0.3 s after the monitor (which
// has subscribed by then): the monitor's lines wait until the table is applied, then follow it (a
// change that both show is applied twice, which changes nothing the second time).
//
// What the session applied is a scenario (`recorded()`): the configuration's actions as the
// initial ones, each batch a step at its time, so that a replay goes through the same actions.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sim/HostAgent.h"
#include "sim/Scenario.h"
#include "sim/live/LiveConfig.h"
#include "sim/live/Monitor.h"
#include "sim/live/Translator.h"

namespace Live {

struct SessionOptions {
  // The stream's command and its arguments: each line a JSON array of paths.
  std::vector<std::string> command;
  // The command that prints the whole table as one JSON object (route key to its paths), started
  // with each stream; empty: the stream's first line is the table.
  std::vector<std::string> tableCommand;
  double staleAfter = 30;
  std::string publish;  // the agent's tables in shared memory under this name (empty: none)
};

// gobgp's commands for the speaker `args` names ("-u 127.0.0.11 -p 15051"): its monitor of the
// EVPN table, and the table.
SessionOptions gobgpStream(const std::vector<std::string>& args);

class Session {
 public:
  Session(const Config& config, Sim::SimLog& log, SessionOptions options);
  // One turn of the loop: waits up to `wait` seconds (less when a review falls due sooner) for
  // the stream, applies what it gave, and moves the agent's clock to the wall clock.
  void turn(double wait);
  // Seconds since the session began, to the millisecond: the agent's time.
  double now() const;

  Sim::HostAgent& agent() { return *agent_; }
  const Translator& translator() const { return translator_; }
  bool streamUp() const { return monitor_.running() && tableSeen_; }
  // Batches of actions applied so far (the steps of `recorded()`).
  std::size_t batches() const { return recorded_.steps.size(); }
  const Sim::Scenario& recorded() const { return recorded_; }

 private:
  void readStream();
  void readTable();
  void line(const std::string& text);
  void table(const nlohmann::json& paths);
  void apply(Actions&& actions, const std::string& note);
  void streamEnded();

  const Config& config_;
  Sim::SimLog& log_;
  SessionOptions options_;
  std::chrono::steady_clock::time_point start_;
  std::unique_ptr<Sim::HostAgent> agent_;
  Translator translator_;
  Monitor monitor_, table_;
  std::vector<std::string> waiting_;  // the stream's lines that came before the table
  std::string tableText_;
  Sim::Scenario recorded_;
  bool tableSeen_ = false;  // the running stream's table has come
  bool resyncing_ = false;  // held routes wait to be confirmed by the returned stream
  double upSince_ = 0, lastConfirmed_ = 0, restartAt_ = 0, backoff_ = 0.5;
  double tableAt_ = -1;  // when to start the table's child (-1: not now)
};

}  // namespace Live
