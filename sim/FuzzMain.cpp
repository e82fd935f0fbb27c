// `oba-evpn-sim fuzz`: the command line of the fuzzer, beside the simulator's own (main.cpp).
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <type_traits>

#include "sim/Fuzz.h"
#include "sim/ScenarioText.h"

namespace Sim {

namespace {

using fuzzing::abortSeed;
using fuzzing::abortStep;

const char* const fuzzUsage = R"(usage: oba-evpn-sim fuzz [options]

Randomized convergence: each seed builds a random world and applies random steps to the host
agent (every machine family's inputs come and go, time passes, the chip refuses creates and its
pools change, machines restart). After every step the reviews drain and the agent must be where
its inputs call for (docs/convergence.md). A failing seed stops the run: its seed, step and
differences are printed and the run is written, shrunk, as a scenario file that
`oba-evpn-sim --check` replays.

options:
  --seeds N          run seeds 1..N (default 100)
  --seed S           run seed S only
  --first-seed S     start at seed S (with --seeds: S..S+N-1)
  --steps K          steps per seed (default 1000)
  --fault-rate P     probability that the chip refuses a create (default 0.1)
  --restarts         steps may restart a machine or the whole agent
  --out DIR          where a failing run's scenario goes (default .; checked before the run)
  --no-shrink        write a failing run whole
  --batch N          seeds per summary line (default 100)
  --progress         a progress line on standard error (default: when it is a terminal)
)";
const char* const fuzzUsageEnd = R"(  --help             this text

exit status: 0 every seed converged, 1 a seed failed, 2 bad arguments
)";

void printUsage(std::ostream& os, const Families& families) {
  os << fuzzUsage;
  for (const Family* f : families) {
    for (const auto& flag : f->fuzzFlags()) {
      // As the core's options are laid out: the help at column 21, or on a line of its own.
      std::string option = "  " + flag.name + " " + flag.arg;
      option +=
          option.size() < 21 ? std::string(21 - option.size(), ' ') : "\n" + std::string(21, ' ');
      os << option << flag.help << "\n";
    }
  }
  os << fuzzUsageEnd;
}

void appendNumber(char*& p, std::uint64_t v) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  while (n) *p++ = digits[--n];
}

extern "C" void onAbort(int) {
  char buf[128];
  char* p = buf;
  const char* a = "oba-evpn-sim fuzz: aborted in seed ";
  for (; *a; ++a) *p++ = *a;
  appendNumber(p, abortSeed);
  for (a = " at step "; *a; ++a) *p++ = *a;
  appendNumber(p, abortStep);
  *p++ = '\n';
  [[maybe_unused]] auto n = ::write(2, buf, static_cast<std::size_t>(p - buf));
}

template <class T>
bool parseNumber(const char* s, T& out) {
  if constexpr (std::is_floating_point_v<T>) {
    char* end = nullptr;
    out = std::strtod(s, &end);
    return end && *end == '\0' && end != s;
  } else {
    auto [end, ec] = std::from_chars(s, s + std::strlen(s), out);
    return ec == std::errc() && *end == '\0';
  }
}

}  // namespace

int fuzzMain(int argc, char** argv) {
  FuzzOptions o;
  bool progress = ::isatty(2) != 0;
  bool seedGiven = false;
  const Families& families = registeredFamilies();
  std::vector<FuzzFlag> flags;
  for (const Family* f : families) {
    for (auto& flag : f->fuzzFlags()) flags.push_back(std::move(flag));
  }
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    // What the option was given, as every refusal quotes it: its value, or nothing.
    auto got = [&](int at) {
      return at < argc ? ", got '" + std::string(argv[at]) + "'" : std::string(", got nothing");
    };
    auto value = [&](auto& out) {
      if (i + 1 >= argc || !parseNumber(argv[i + 1], out)) {
        std::cerr << "oba-evpn-sim fuzz: " << a << " needs a number" << got(i + 1) << "\n";
        return false;
      }
      ++i;
      return true;
    };
    if (a == "--help" || a == "-h") {
      printUsage(std::cout, families);
      return 0;
    } else if (a == "--seeds") {
      if (!value(o.seeds)) return 2;
      if (o.seeds == 0) {
        std::cerr << "oba-evpn-sim fuzz: --seeds must be at least 1" << got(i) << "\n";
        return 2;
      }
    } else if (a == "--seed") {
      if (!value(o.firstSeed)) return 2;
      seedGiven = true;
    } else if (a == "--first-seed") {
      if (!value(o.firstSeed)) return 2;
    } else if (a == "--steps") {
      if (!value(o.steps)) return 2;
      if (o.steps > maxFuzzSteps) {
        std::cerr << "oba-evpn-sim fuzz: --steps is at most " << maxFuzzSteps
                  << ": a seed keeps its whole run to write it as a scenario should it fail, and "
                     "a scenario's time ends at "
                  << static_cast<long>(maxScenarioTime) << " s; run more seeds instead" << got(i)
                  << "\n";
        return 2;
      }
    } else if (a == "--fault-rate") {
      if (!value(o.faultRate)) return 2;
      if (!(o.faultRate >= 0 && o.faultRate <= 1)) {  // NaN too
        std::cerr << "oba-evpn-sim fuzz: --fault-rate must be within 0..1" << got(i) << "\n";
        return 2;
      }
    } else if (a == "--batch") {
      if (!value(o.batch)) return 2;
    } else if (a == "--restarts") {
      o.restarts = true;
    } else if (a == "--no-shrink") {
      o.shrink = false;
    } else if (a == "--progress") {
      progress = true;
    } else if (a == "--out") {
      if (i + 1 >= argc) {
        std::cerr << "oba-evpn-sim fuzz: --out needs a directory\n";
        return 2;
      }
      o.outDir = argv[++i];
    } else if (auto flag = std::find_if(flags.begin(), flags.end(),
                                        [&](const FuzzFlag& f) { return f.name == a; });
               flag != flags.end()) {
      const std::string why = i + 1 >= argc ? "needs " + flag->arg : flag->set(argv[i + 1], o);
      if (!why.empty()) {
        std::cerr << "oba-evpn-sim fuzz: " << a << " " << why << got(i + 1) << "\n";
        return 2;
      }
      ++i;
    } else {
      std::cerr << "oba-evpn-sim fuzz: unknown option " << a << "\n";
      printUsage(std::cerr, families);
      return 2;
    }
  }
  if (seedGiven) o.seeds = 1;
  // Where a failing run goes is checked before the first seed, not when the run has failed.
  if (const std::string why = cannotWriteInFolder(o.outDir); !why.empty()) {
    std::cerr << "oba-evpn-sim fuzz: --out '" << o.outDir << "': " << why << "\n";
    return 2;
  }
  std::signal(SIGABRT, onAbort);
  FuzzResult r;
  try {
    r = fuzz(o, &std::cout, progress ? &std::cerr : nullptr);
  } catch (const std::bad_alloc&) {
    std::signal(SIGABRT, SIG_DFL);
    std::cout.flush();
    std::cerr << "oba-evpn-sim fuzz: out of memory in seed " << abortSeed << " at step "
              << abortStep << "\n";
    return 2;
  }
  std::signal(SIGABRT, SIG_DFL);
  return r.failure ? 1 : 0;
}

}  // namespace Sim
