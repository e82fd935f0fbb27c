#include "sim/live/LiveMain.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Shoal/Segment.h"
#include "sim/Dot.h"
#include "sim/Published.h"
#include "sim/ScenarioText.h"
#include "sim/ScenarioWriter.h"
#include "sim/live/Session.h"

namespace Live {

namespace {

const char* const usage = R"(usage: oba-evpn-sim live CONFIG [options]

Runs the agent in real time over the software chip, driven by a BGP speaker's EVPN table: child
processes stream the table's changes (gobgp monitor global rib -a evpn -j) and give the whole
table (gobgp global rib -a evpn -j), each route is
translated into the agent's inputs, and every chip call is logged as a scenario's are. CONFIG is
this switch's local configuration (YAML: address, segments, vlans; README, "Drive it from BGP").
If the stream ends the agent says so, keeps the chip as it is, starts the stream again, and
resynchronises from the speaker's table. SIGINT or SIGTERM ends it cleanly.

options:
  --gobgp-args 'ARGS'  the gobgp command line's arguments before 'monitor', split at spaces
                       (e.g. '-u 127.0.0.11 -p 15051'; default none: gobgp's own defaults)
  --command 'CMD'      another command whose output is a stream of the same JSON lines, the
                       first of them the whole table
  --stale-after S      after the stream returns, the routes it has not given again are withdrawn
                       once it has given back none for S seconds (default 30)
  --for S              end after S seconds
  --record FILE        write what was applied as a scenario when the agent ends
  --dot FILE           draw the forwarding state in FILE when the agent ends
  --publish NAME       publish the agent's output tables under NAME, for oba-evpn-show
  --json, --quiet, --trace SPEC   the log, as for scenarios
)";

volatile std::sig_atomic_t stopAsked = 0;
void askStop(int) { stopAsked = 1; }

std::vector<std::string> words(const std::string& s) {
  std::istringstream in(s);
  std::vector<std::string> w;
  for (std::string x; in >> x;) w.push_back(x);
  return w;
}

int refuse(const std::string& what) {
  std::cerr << "oba-evpn-sim live: " << what << "\n";
  return 2;
}

}  // namespace

int liveMain(int argc, char** argv) {
  std::string configPath, record, dot, trace;
  SessionOptions options;
  std::vector<std::string> gobgpArgs;
  double runFor = -1;
  bool json = false, quiet = false;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    auto seconds = [&](double& out) {
      const char* v = value();
      char* end = nullptr;
      out = v ? std::strtod(v, &end) : -1;
      return v && end != v && *end == '\0' && out >= 0 && out <= 1e6;
    };
    if (a == "--help" || a == "-h") {
      std::cout << usage;
      return 0;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--quiet") {
      quiet = true;
    } else if (a == "--gobgp-args" || a == "--command") {
      const char* v = value();
      if (!v) return refuse(a + " needs its words");
      (a == "--command" ? options.command : gobgpArgs) = words(v);
      if (a == "--command" && options.command.empty()) return refuse("--command is empty");
    } else if (a == "--stale-after" || a == "--for") {
      if (!seconds(a == "--for" ? runFor : options.staleAfter)) {
        return refuse(a + " needs a number of seconds (0 to 1e6)");
      }
    } else if (a == "--record" || a == "--dot" || a == "--trace" || a == "--publish") {
      const char* v = value();
      if (!v) return refuse(a + " needs a value");
      (a == "--record"  ? record
       : a == "--dot"   ? dot
       : a == "--trace" ? trace
                        : options.publish) = v;
    } else if (a.starts_with("--") || !configPath.empty()) {
      std::cerr << "oba-evpn-sim live: unexpected '" << a << "'\n" << usage;
      return 2;
    } else {
      configPath = a;
    }
  }
  if (configPath.empty()) {
    std::cerr << usage;
    return 2;
  }
  for (const auto* out : {&record, &dot}) {
    if (out->empty()) continue;
    if (auto why = Sim::cannotWriteFile(*out); !why.empty())
      return refuse("'" + *out + "': " + why);
  }
  if (!options.publish.empty()) {
    try {
      Sim::checkAgentName(options.publish);
    } catch (const Shoal::SegmentException& e) {
      return refuse("--publish: '" + options.publish + "' cannot name an agent: " + e.what());
    }
  }
  Config config;
  try {
    config = readConfig(configPath);
    if (!trace.empty()) Kiv::traceConfigIs(trace);
  } catch (const Sim::ScenarioError& e) {
    return refuse(e.what());
  } catch (const Kiv::RangeException& e) {
    return refuse(std::string("--trace: ") + e.what());
  }
  if (options.command.empty()) {
    const auto gobgp = gobgpStream(gobgpArgs);
    options.command = gobgp.command;
    options.tableCommand = gobgp.tableCommand;
  }

  Sim::SimLog log(quiet ? nullptr : &std::cout,
                  json ? Sim::SimLog::Format::json : Sim::SimLog::Format::text);
  Kiv::traceSinkIs([&log](const Kiv::TraceLine& l) {
    std::string text(l.source);
    log.addNow("trace", text.append(": ").append(l.text));
  });
  std::signal(SIGINT, askStop);
  std::signal(SIGTERM, askStop);
  std::signal(SIGPIPE, SIG_IGN);

  int status = 0;
  Kiv::ThrowingAssertions throwing;
  std::unique_ptr<Session> session;
  try {
    session = std::make_unique<Session>(config, log, options);
    log.clockIs(session->agent().clock.ptr());
    while (!stopAsked && (runFor < 0 || session->now() < runFor)) session->turn(0.1);
  } catch (const Kiv::AssertionFailure& f) {
    std::cerr << "oba-evpn-sim live: a machine broke an invariant: assertion \"" << f.condition()
              << "\"\n";
    status = 3;
  } catch (const Shoal::SegmentException& e) {
    std::cerr << "oba-evpn-sim live: --publish: " << e.what() << "\n";
    return 2;
  }
  if (!session) return status;
  log.add(session->now(), "live", "stopping");
  for (const auto& [reason, count] : session->translator().unusable()) {
    log.add(session->now(), "live", std::to_string(count) + " routes not used: " + reason);
  }
  log.flush();
  try {
    if (!record.empty()) {
      std::ofstream out(record);
      out << Sim::scenarioText(session->recorded(), "# What `oba-evpn-sim live " + configPath +
                                                        "` applied, as a scenario.\n");
      if (!out) throw std::runtime_error("cannot write " + record);
    }
    if (!dot.empty()) {
      std::ofstream out(dot);
      Sim::drawAgent(session->agent(), "live: " + configPath).write(out);
      if (!out) throw std::runtime_error("cannot write " + dot);
    }
  } catch (const std::exception& e) {
    std::cerr << "oba-evpn-sim live: " << e.what() << "\n";
    return 2;
  }
  return status;
}

}  // namespace Live
