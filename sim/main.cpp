// oba-evpn-sim: replays scenarios of control-plane events through the library's state machines,
// a host agent and a software chip, in virtual time, and shows what the chip was told.
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Kiv/Trace.h"
#include "Shoal/Segment.h"
#include "sim/Dot.h"
#include "sim/Explore.h"
#include "sim/Fuzz.h"
#include "sim/Published.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/ScenarioText.h"
#include "sim/SimLog.h"
#include "sim/live/LiveMain.h"

namespace {

const char* const usage = R"(usage: oba-evpn-sim [options] [FILE...]
       oba-evpn-sim fuzz [options]     randomized convergence (oba-evpn-sim fuzz --help)
       oba-evpn-sim explore [options]  every order of events in small worlds (explore --help)
       oba-evpn-sim live CONFIG [options]  driven by a BGP speaker's EVPN table (live --help)

Replays scenario files (YAML, see docs/scenario-format.md) through the EVPN state machines, a
host agent and a software chip, in virtual time, and logs every chip call and output-table write.
With no FILE it replays the built-in scenario: a peer becomes designated forwarder for VLAN 10 on
a LAG segment, and everything that follows until it stops being one.

options:
  --check        evaluate the scenarios' expectations; exit 1 if one is not met, or if the chip
                 reports a violation that the scenario does not expect
  --trace SPEC   interleave the library's traces in the log: SPEC is SOURCE/LEVEL[,...], SOURCE
                 may end in '*' (e.g. 'ObaEvpn*/5' or 'ObaEvpnFloodingEsiSm/8')
  --json         write the log as JSON lines {"time", "source", "text"}
  --state        print the chip's tables and the mapping table at the end of each scenario
  --quiet        no log (with --check: only failures)
  --dot FILE     draw the forwarding state the scenario ends in as a Graphviz graph in FILE
  --dot-each DIR one graph after the agent's start and after each step: DIR/<index>-t<time>.dot
                 (one scenario only; scripts/draw.sh renders them to SVG)
  --publish NAME publish the agent's output tables in shared memory under NAME, for
                 oba-evpn-show NAME TABLE in another terminal; they go when the simulator exits.
                 NAME has no '/' or '.' and at most 220 characters, so that every table's
                 shared-memory name fits
  --hold         with --publish: after the last scenario, keep the agent and its tables until
                 SIGINT or SIGTERM
  --realtime [SPEED]
                 pace virtual time to the wall clock, SPEED virtual seconds a second (0.001 to
                 1e6, default 1); SIGINT or SIGTERM runs the rest at once
  --why[=DETAIL] [PATTERN]
                 under each chip call and output write, why it was made: its chain of causes,
                 nearest first, back to the step (or the start, a chip answer, a retry's task)
                 that set it off. DETAIL is brief (the default: the writes to inputs and outputs,
                 the tasks, the chip's answers and the step) or full (the machines that heard
                 each write too); with PATTERN, only lines whose source or text hold it. With
                 --json, the fields "cause" (the nearest) and "causes"
  --help         this text

exit status: 0 all well, 1 an expectation was not met, 2 bad input (file, line and what was
expected are printed; nothing of the scenario is run) or an output that cannot be written (checked
before anything runs), 3 a machine broke an invariant that the scenario does not expect (the step,
its line, the machine and the assertion are printed); with --check, each scenario ends with its
PASS or FAIL line
)";

// Set by SIGINT and SIGTERM while the agent publishes its tables or virtual time is paced: the
// rest runs at once and the agent leaves normally, its log complete and its tables removed,
// instead of dying with them in place.
volatile std::sig_atomic_t stopAsked = 0;
void askStop(int) { stopAsked = 1; }

// A number of virtual seconds per second, from a thousandth to a million: at a slower pace a
// scenario's last time would lie further off than the wall clock can wait for.
constexpr double minSpeed = 1e-3, maxSpeed = 1e6;
bool readSpeed(const char* text, double& speed) {
  char* end = nullptr;
  speed = std::strtod(text, &end);
  return end != text && *end == '\0' && std::isfinite(speed) && speed >= minSpeed &&
         speed <= maxSpeed;
}

// Whether an argument names a scenario file rather than a --why pattern.
bool isScenarioFile(std::string_view arg) {
  return arg.ends_with(".yaml") || arg.ends_with(".yml");
}

// An output option's path that cannot be written: the message, or empty.
std::string outputProblem(const char* option, const std::string& path, bool folder) {
  const std::string why = folder ? Sim::cannotWriteInFolder(path) : Sim::cannotWriteFile(path);
  if (why.empty()) return why;
  return std::string("oba-evpn-sim: ") + option + " '" + path + "': " + why;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "fuzz") == 0) return Sim::fuzzMain(argc, argv);
  if (argc > 1 && std::strcmp(argv[1], "explore") == 0) return Sim::exploreMain(argc, argv);
  if (argc > 1 && std::strcmp(argv[1], "live") == 0) return Live::liveMain(argc, argv);
  Sim::RunOptions options;
  bool json = false, quiet = false, hold = false;
  std::string trace;
  std::optional<std::string> dotFile, dotDir;  // given, even empty: an empty path is refused
  bool dotGiven = false;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::cout << usage;
      return 0;
    } else if (a == "--check") {
      options.check = true;
    } else if (a == "--state") {
      options.state = true;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--quiet") {
      quiet = true;
    } else if (a == "--trace") {
      if (i + 1 >= argc) {
        std::cerr << "oba-evpn-sim: --trace needs SOURCE/LEVEL[,...]\n";
        return 2;
      }
      trace = argv[++i];
    } else if (a == "--dot" || a == "--dot-each") {
      if (i + 1 >= argc) {
        std::cerr << "oba-evpn-sim: " << a << " needs a " << (a == "--dot" ? "FILE" : "DIR")
                  << "\n";
        return 2;
      }
      (a == "--dot" ? dotFile : dotDir) = argv[++i];
      dotGiven = true;
    } else if (a == "--publish") {
      if (i + 1 >= argc) {
        std::cerr << "oba-evpn-sim: --publish needs a NAME\n";
        return 2;
      }
      options.publish = argv[++i];
      try {
        Sim::checkAgentName(options.publish);
      } catch (const Shoal::SegmentException& e) {
        std::cerr << "oba-evpn-sim: --publish: '" << options.publish
                  << "' cannot name an agent: " << e.what() << "\n";
        return 2;
      }
    } else if (a == "--hold") {
      hold = true;
    } else if (a == "--realtime") {
      // SPEED is optional: the next argument is one when it starts as a number does.
      options.realtime = 1;
      if (i + 1 < argc &&
          (std::isdigit(static_cast<unsigned char>(argv[i + 1][0])) || argv[i + 1][0] == '.')) {
        if (!readSpeed(argv[++i], options.realtime)) {
          std::cerr << "oba-evpn-sim: --realtime: SPEED is a number from 0.001 to 1e6 (a slower "
                       "pace would wait past what the clock can count), got '"
                    << argv[i] << "'\n";
          return 2;
        }
      }
    } else if (a == "--why" || a.starts_with("--why=")) {
      options.why.on = true;
      const std::string detail = a == "--why" ? "brief" : a.substr(6);
      if (detail != "brief" && detail != "full") {
        std::cerr << "oba-evpn-sim: --why=" << detail << ": the detail is brief or full\n";
        return 2;
      }
      options.why.detail = detail == "full" ? Kiv::CauseDetail::full : Kiv::CauseDetail::brief;
      // PATTERN is optional: the next argument is one unless it is an option or a scenario file.
      if (i + 1 < argc && argv[i + 1][0] != '-' && !isScenarioFile(argv[i + 1])) {
        options.why.only = argv[++i];
      }
    } else if (a.starts_with("--")) {
      std::cerr << "oba-evpn-sim: unknown option " << a << "\n" << usage;
      return 2;
    } else {
      files.push_back(a);
    }
  }

  // Every scenario is read and checked before any runs.
  std::vector<Sim::Scenario> scenarios;
  try {
    if (files.empty()) {
      scenarios.push_back(Sim::parseScenario(Sim::defaultScenarioText, Sim::defaultScenarioName));
    }
    for (const auto& f : files) scenarios.push_back(Sim::readScenarioFile(f));
    if (!trace.empty()) Kiv::traceConfigIs(trace);
  } catch (const Sim::ScenarioError& e) {
    std::cerr << "oba-evpn-sim: " << e.what() << "\n";
    return 2;
  } catch (const Kiv::RangeException& e) {
    std::cerr << "oba-evpn-sim: --trace: " << e.what() << "\n";
    return 2;
  } catch (const std::bad_alloc&) {
    // The size limit keeps a scenario's tree small; what is left is a machine short of memory.
    std::cerr << "oba-evpn-sim: out of memory reading the scenarios\n";
    return 2;
  }

  if (hold && options.publish.empty()) {
    std::cerr << "oba-evpn-sim: --hold keeps published tables: it needs --publish NAME\n";
    return 2;
  }
  if (dotGiven) {
    if (scenarios.size() > 1) {
      std::cerr << "oba-evpn-sim: --dot and --dot-each draw one scenario, not " << scenarios.size()
                << "\n";
      return 2;
    }
    // Checked before anything runs: a run is not thrown away for want of a place to draw it. The
    // folder first, as it is made, so that the last picture may go into it.
    std::string problem = dotDir ? outputProblem("--dot-each", *dotDir, true) : "";
    if (problem.empty() && dotFile) problem = outputProblem("--dot", *dotFile, false);
    if (!problem.empty()) {
      std::cerr << problem << "\n";
      return 2;
    }
  }
  if (!options.publish.empty() || options.realtime > 0) {
    std::signal(SIGINT, askStop);
    std::signal(SIGTERM, askStop);
    options.stopPacing = [] { return stopAsked != 0; };
  }

  Sim::DotPictures dot(dotFile.value_or(""), dotDir.value_or(""));
  // A picture that cannot be written after all (a full disk) ends the drawing, not the run.
  std::string dotError;
  if (dot.enabled()) {
    options.stepDone = [&](const Sim::HostAgent& a, const Sim::Step* step) {
      if (!dotError.empty()) return;
      try {
        dot.record(scenarios.front(), a, step);
      } catch (const std::exception& e) {
        dotError = e.what();
      }
    };
  }

  Sim::SimLog log(quiet ? nullptr : &std::cout,
                  json ? Sim::SimLog::Format::json : Sim::SimLog::Format::text);
  Kiv::traceSinkIs([&log](const Kiv::TraceLine& l) {
    std::string text(l.source);
    text.append(": ").append(l.text);
    log.addNow("trace", text);
  });

  int status = 0;
  for (const auto& s : scenarios) {
    Sim::RunResult r;
    if (hold && &s == &scenarios.back()) {
      options.hold = [&](Sim::HostAgent&) {
        std::cout.flush();
        std::cerr << "oba-evpn-sim: holding the agent '" << options.publish
                  << "' and its tables; SIGINT or SIGTERM ends it\n";
        while (!stopAsked) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      };
    }
    auto verdict = [&](bool pass) {
      if (options.check) std::cerr << (pass ? "PASS " : "FAIL ") << s.file << "\n";
    };
    try {
      r = Sim::runScenario(s, log, options, &std::cout);
      if (dotError.empty()) dot.finish();
    } catch (const std::exception& e) {
      dotError = e.what();
    }
    std::cout.flush();
    for (const auto& f : r.failures) std::cerr << (r.aborted ? "oba-evpn-sim: " : "") << f;
    if (!dotError.empty()) {
      std::cerr << "oba-evpn-sim: " << s.file << ": " << dotError << "\n";
      verdict(false);
      return r.aborted ? 3 : 2;
    }
    verdict(r.ok());
    if (r.aborted) return 3;
    if (!r.ok()) status = 1;
  }
  return status;
}
