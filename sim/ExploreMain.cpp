// `oba-evpn-sim explore`: the command line of the explorer, beside the simulator's own (main.cpp).
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "sim/Explore.h"
#include "sim/Fuzz.h"
#include "sim/ScenarioText.h"

namespace Sim {

namespace {

const char* const exploreUsage = R"(usage: oba-evpn-sim explore [options]

Every order of events in small worlds: for each family, each of its worlds is started and every
sequence of up to K steps from its alphabet (the family's inputs set, changed and removed, the
chip's answers and refusals, time moving on to the next due task, a restart of each machine and
of the agent) is run, breadth first, states reached twice explored once. After every step the
chip's ledger must balance; wherever no review is pending, the family's checks must hold. The
first failure is written as a scenario that `oba-evpn-sim --check` replays (docs/convergence.md).

options:
  --family F         explore family F only (default: every family with worlds)
  --world NAME       that world of the family only
  --depth K          steps per sequence (default 4)
  --max-states N     stop a world at N distinct states (default 1000000)
  --jobs J           processes replaying the sequences of each depth (default 1)
  --no-restarts      restarts are not among the steps
  --out DIR          where a failing sequence's scenario goes (default .; checked first)
  --write-allowances also write each allowed difference's shortest sequence there, as a
                     scenario that expects the tables it leaves
  --list             the families' worlds, with their steps, and exit
  --progress         a line per depth on standard error (default: when it is a terminal)
)";

bool parseNumber(const char* s, std::uint64_t& out) {
  auto [end, ec] = std::from_chars(s, s + std::strlen(s), out);
  return ec == std::errc() && *end == '\0';
}

std::string joined(const std::vector<std::string>& steps) {
  if (steps.empty()) return "(the start)";
  std::string out;
  for (const auto& s : steps) out += (out.empty() ? "" : " ; ") + s;
  return out;
}

void printList(std::ostream& os, const Families& families) {
  for (const Family* f : families) {
    for (const auto& w : f->exploreWorlds()) {
      os << f->name() << "/" << w.name << ": " << w.description << "\n";
      for (const auto& a : w.initial) {
        os << "  initial  ";
        a.body->write(os);
        os << "\n";
      }
      for (const auto& step : w.alphabet) {
        os << "  step    ";
        for (std::size_t i = 0; i < step.size(); ++i) {
          os << (i ? " + " : " ");
          step[i].body->write(os);
        }
        os << "\n";
      }
      os << "  step     time, and restarts of";
      for (const auto& m : f->machines()) os << " " << m;
      os << " and the agent\n";
    }
  }
}

void printReports(std::ostream& os, const std::vector<ExploreReport>& reports) {
  os << std::left << std::setw(28) << "world" << std::right << std::setw(8) << "steps"
     << std::setw(7) << "depth" << std::setw(11) << "states" << std::setw(12) << "sequences"
     << std::setw(10) << "seconds"
     << "\n";
  std::uint64_t states = 0, sequences = 0;
  double seconds = 0;
  for (const auto& r : reports) {
    std::ostringstream secs;
    secs.setf(std::ios::fixed);
    secs.precision(1);
    secs << r.seconds;
    os << std::left << std::setw(28) << (r.family + "/" + r.world) << std::right << std::setw(8)
       << r.letters << std::setw(7) << (std::to_string(r.depth) + (r.complete ? "" : "+"))
       << std::setw(11) << r.states << std::setw(12) << r.sequences << std::setw(10) << secs.str()
       << "\n";
    states += r.states;
    sequences += r.sequences;
    seconds += r.seconds;
  }
  os << "in all: " << states << " states, " << sequences << " sequences, " << std::fixed
     << std::setprecision(1) << seconds << " s\n";
  for (const auto& r : reports) {
    for (const auto& [name, a] : r.allowances) {
      os << "allowed " << r.family << "/" << r.world << " " << name << ": " << a.states
         << " states; shortest: " << joined(a.shortest)
         << (a.scenarioPath.empty() ? "" : " (written: " + a.scenarioPath + ")") << "\n";
    }
    if (r.unreadable) {
      os << "warning: " << r.family << "/" << r.world << ": " << r.unreadable
         << " values the state digest cannot read (" << r.firstUnreadable
         << "); states that differ only there were merged\n";
    }
  }
  for (const auto& r : reports) {
    if (!r.failure) continue;
    os << "FAIL " << r.family << "/" << r.world << " after " << r.failure->sequence.size()
       << " steps: " << joined(r.failure->sequence) << "\n";
    os << "  " << r.failure->failure.check << ":\n";
    for (const auto& l : r.failure->failure.lines) os << "    " << l << "\n";
    if (r.failure->blame) os << blameText(*r.failure->blame, "  ");
    if (!r.failure->scenarioPath.empty()) {
      os << "  written: " << r.failure->scenarioPath << " (oba-evpn-sim --check "
         << r.failure->scenarioPath << ")\n";
    }
  }
}

}  // namespace

int exploreMain(int argc, char** argv) {
  ExploreOptions o;
  bool progress = ::isatty(2) != 0;
  const Families& families = registeredFamilies();
  std::vector<FuzzFlag> canaries;
  for (const Family* f : families) {
    for (auto& flag : f->fuzzFlags()) {
      if (flag.name.rfind("--canary", 0) == 0) canaries.push_back(std::move(flag));
    }
  }
  FuzzOptions canaryOptions;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    auto got = [&](int at) {
      return at < argc ? ", got '" + std::string(argv[at]) + "'" : std::string(", got nothing");
    };
    auto number = [&](std::uint64_t& out, std::uint64_t least) {
      if (i + 1 >= argc || !parseNumber(argv[i + 1], out) || out < least) {
        std::cerr << "oba-evpn-sim explore: " << a << " needs a number of at least " << least
                  << got(i + 1) << "\n";
        return false;
      }
      ++i;
      return true;
    };
    auto text = [&](std::string& out) {
      if (i + 1 >= argc) {
        std::cerr << "oba-evpn-sim explore: " << a << " needs a value, got nothing\n";
        return false;
      }
      out = argv[++i];
      return true;
    };
    std::uint64_t n = 0;
    if (a == "--help" || a == "-h") {
      std::cout << exploreUsage;
      for (const auto& c : canaries)
        std::cout << "  " << c.name << " " << c.arg << "  " << c.help << "\n";
      std::cout << "\nexit status: 0 every world held, 1 a world failed, 2 bad arguments\n";
      return 0;
    } else if (a == "--list") {
      printList(std::cout, families);
      return 0;
    } else if (a == "--family") {
      if (!text(o.family)) return 2;
      const bool known = std::any_of(families.begin(), families.end(), [&](const Family* f) {
        return f->name() == o.family && !f->exploreWorlds().empty();
      });
      if (!known) {
        std::cerr << "oba-evpn-sim explore: --family names no family with worlds, got '" << o.family
                  << "'\n";
        return 2;
      }
    } else if (a == "--world") {
      if (!text(o.world)) return 2;
    } else if (a == "--depth") {
      if (!number(n, 0)) return 2;
      o.depth = static_cast<std::uint32_t>(std::min<std::uint64_t>(n, 64));
    } else if (a == "--max-states") {
      if (!number(o.maxStates, 1)) return 2;
    } else if (a == "--jobs") {
      if (!number(n, 1)) return 2;
      o.jobs = static_cast<std::uint32_t>(std::min<std::uint64_t>(n, 64));
    } else if (a == "--no-restarts") {
      o.restarts = false;
    } else if (a == "--write-allowances") {
      o.writeAllowances = true;
    } else if (a == "--progress") {
      progress = true;
    } else if (a == "--out") {
      if (!text(o.outDir)) return 2;
    } else if (auto c = std::find_if(canaries.begin(), canaries.end(),
                                     [&](const FuzzFlag& f) { return f.name == a; });
               c != canaries.end()) {
      const std::string why =
          i + 1 >= argc ? "needs " + c->arg : c->set(argv[i + 1], canaryOptions);
      if (!why.empty()) {
        std::cerr << "oba-evpn-sim explore: " << a << " " << why << got(i + 1) << "\n";
        return 2;
      }
      ++i;
    } else {
      std::cerr << "oba-evpn-sim explore: unknown option " << a << "\n" << exploreUsage;
      return 2;
    }
  }
  if (!o.world.empty()) {
    bool found = false;
    for (const Family* f : families) {
      if (!o.family.empty() && f->name() != o.family) continue;
      for (const auto& w : f->exploreWorlds()) found = found || w.name == o.world;
    }
    if (!found) {
      std::cerr << "oba-evpn-sim explore: --world names no world"
                << (o.family.empty() ? "" : " of " + o.family) << ", got '" << o.world << "'\n";
      return 2;
    }
  }
  if (const std::string why = cannotWriteInFolder(o.outDir); !why.empty()) {
    std::cerr << "oba-evpn-sim explore: --out '" << o.outDir << "': " << why << "\n";
    return 2;
  }
  const auto reports = explore(o, progress ? &std::cerr : nullptr, families);
  printReports(std::cout, reports);
  const bool failed =
      std::any_of(reports.begin(), reports.end(), [](const auto& r) { return r.failure; });
  return failed ? 1 : 0;
}

}  // namespace Sim
