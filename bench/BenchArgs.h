#pragma once
// What every benchmark program's main does with its command line: its own flags (each with the
// program's prefix, "--df_world=...") are taken out before Google Benchmark reads the rest.

#include <benchmark/benchmark.h>

#include <string_view>

#include "Kiv/Cause.h"

namespace Bench {

enum class Flag { taken, other, bad };

// Hands each argument to `own`, keeps those it answers `other` for Google Benchmark, and
// initialises it. Answers false when `own` found one bad (having said why) or Google Benchmark
// does not know one: the program then exits 2.
//
// Every program also takes --causes: the frame carries causes (Kiv/Cause.h) for the whole run, to
// measure what they cost beside the default, where they are off.
template <class Own>
bool initialize(int& argc, char** argv, Own&& own) {
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--causes") {
      Kiv::causingIs(true);
      continue;
    }
    switch (own(argv[i])) {
      case Flag::taken:
        break;
      case Flag::other:
        argv[kept++] = argv[i];
        break;
      case Flag::bad:
        return false;
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  return !benchmark::ReportUnrecognizedArguments(argc, argv);
}

// A workload run once and timed by hand, in milliseconds: a cold start, a storm.
inline benchmark::internal::Benchmark* once(const char* name, void (*fn)(benchmark::State&)) {
  return benchmark::RegisterBenchmark(name, fn)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1);
}

}  // namespace Bench
