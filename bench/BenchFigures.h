#pragma once
// The figures every benchmark reports per phase, beside its floor, and the measuring behind them.
//
// A phase runs twice over: a watched run, once, in which both sides are checked equal, their
// memory and allocations are counted and every handling of the machines (one input change with
// all it set off synchronously, or one task run) is timed on the thread's CPU clock; and the
// timed runs, per iteration, which time only the whole of each side's work. The CPU clock is a
// system call: timing each handling with it would weigh on the rates, so the rates come from runs
// that do not. The counters, for an entry called `unit` ("pair", "route", "member", "host"):
//
//   <unit>s/s, floor_<unit>s/s   entries handled per second by the machines, by the floor
//   x_floor                      machine time over floor time
//   B/<unit>, floor_B/<unit>     live bytes of each side's state per entry (replaced operator new)
//   allocs/<unit>, floor_allocs/<unit>   allocations per entry handled in the watched run
//   max_cpu_us, p99_cpu_us       the longest handling or task run of the machines on the CPU clock,
//                                and the 99th percentile over all of them in the watched run
//   handlings                    how many handlings and task runs that was (none: no max or p99)
//   sync_start_ms                cold starts: the longest construction of one machine on the CPU
//                                clock (the machines walk their inputs in their constructors, in
//                                one synchronous piece); it is not among the handlings
//
// Include it in exactly one source of a benchmark program: it brings CountingAllocator.h.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "CountingAllocator.h"
#include "Mox/TaskScheduler.h"

namespace Bench {

// The time slice the benchmarks' schedulers run with: what an agent gets by default.
inline constexpr double kTimeSlice = 0.001;

// This thread's CPU time in seconds: leaves out the time other work on the shared cores took.
inline double cpuNow() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Lengths of handlings: the count, the longest and percentiles, recorded without allocating (a
// histogram of 64 buckets per power of two from 1 ns to 1000 s, so a percentile is the upper edge
// of its bucket: at most 1.6 % above the true value, and never above the longest).
class Durations {
 public:
  void add(double seconds) {
    ++count_;
    longest_ = std::max(longest_, seconds);
    ++buckets_[bucketOf(seconds)];
  }
  std::uint64_t count() const { return count_; }
  double longest() const { return longest_; }
  double percentile(double q) const {
    if (!count_) return 0;
    const auto rank = std::uint64_t(std::ceil(q * double(count_)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kBuckets; ++i) {
      seen += buckets_[i];
      if (seen >= rank) return std::min(upperEdge(i), longest_);
    }
    return longest_;
  }

 private:
  static constexpr int kPerOctave = 64;
  static constexpr int kMinExp = -30;  // 2^-30 s, about 1 ns
  static constexpr int kMaxExp = 10;   // 2^10 s
  static constexpr std::size_t kBuckets = std::size_t(kMaxExp - kMinExp) * kPerOctave;
  static std::size_t bucketOf(double s) {
    if (!(s > 0)) return 0;
    int e;
    const double m = std::frexp(s, &e);  // s = m * 2^e, m in [0.5, 1)
    if (e <= kMinExp) return 0;
    if (e > kMaxExp) return kBuckets - 1;
    return std::size_t(e - kMinExp - 1) * kPerOctave + std::size_t((m - 0.5) * 2 * kPerOctave);
  }
  static double upperEdge(std::size_t i) {
    const int e = int(i / kPerOctave) + kMinExp + 1;
    return std::ldexp(0.5 + double(i % kPerOctave + 1) / (2 * kPerOctave), e);
  }
  std::uint64_t count_ = 0;
  double longest_ = 0;
  std::array<std::uint64_t, kBuckets> buckets_{};
};

// Runs `work`; when `into` is given, adds its length on the CPU clock there.
template <class F>
void handling(Durations* into, F&& work) {
  if (!into) {
    work();
    return;
  }
  const double t = cpuNow();
  work();
  into->add(cpuNow() - t);
}

// While it lives, every run of the scheduler's tasks goes into `into`, on the CPU clock.
class TaskRunWatch {
 public:
  TaskRunWatch(Mox::TaskScheduler& scheduler, Durations& into)
      : scheduler_(scheduler), timed_(scheduler.runCpuTimed()) {
    scheduler_.runCpuTimedIs(true);
    scheduler_.runObserverIs([&into](double, double cpu) { into.add(cpu); });
  }
  ~TaskRunWatch() {
    scheduler_.runObserverIs(nullptr);
    scheduler_.runCpuTimedIs(timed_);
  }
  TaskRunWatch(const TaskRunWatch&) = delete;
  TaskRunWatch& operator=(const TaskRunWatch&) = delete;

 private:
  Mox::TaskScheduler& scheduler_;
  bool timed_;
};

// The heap as CountingAllocator.h counts it, from a mark on.
struct HeapMark {
  std::size_t bytes = gLiveBytes;
  std::uint64_t allocations = gAllocations;
  double bytesSince() const { return double(gLiveBytes) - double(bytes); }
  double allocationsSince() const { return double(gAllocations - allocations); }
};

// One side's share of a phase.
struct Side {
  double seconds = 0;      // over the timed runs
  double bytes = 0;        // live bytes of its state
  double allocations = 0;  // during the watched run
};

// A phase's figures, published as the counters above.
struct Figures {
  explicit Figures(std::string unit) : unit(std::move(unit)) {}
  std::string unit;
  double entries = 0;  // entries of the world: what bytes are per
  double watchedEntries =
      0;  // entries the watched run handled: what allocations are per (0: entries)
  double timedEntries = 0;  // entries handled over the timed runs
  Side machines;
  Side floor;
  Durations handlings;    // the machines', in the watched run
  double syncStart = -1;  // cold starts: the longest construction; negative where none

  // Runs `work` as one machine's construction, keeping the longest.
  template <class F>
  void construction(F&& work) {
    const double t = cpuNow();
    work();
    syncStart = std::max(syncStart, cpuNow() - t);
  }
  // One timed run's seconds on each side.
  void timed(double machineSeconds, double floorSeconds, double handled) {
    machines.seconds += machineSeconds;
    floor.seconds += floorSeconds;
    timedEntries += handled;
  }

  void publish(benchmark::State& state) const {
    auto& c = state.counters;
    if (machines.seconds > 0 && floor.seconds > 0) {
      c[unit + "s/s"] = timedEntries / machines.seconds;
      c["floor_" + unit + "s/s"] = timedEntries / floor.seconds;
      c["x_floor"] = machines.seconds / floor.seconds;
    }
    if (entries > 0) {
      c["B/" + unit] = machines.bytes / entries;
      c["floor_B/" + unit] = floor.bytes / entries;
      const double handled = watchedEntries > 0 ? watchedEntries : entries;
      c["allocs/" + unit] = machines.allocations / handled;
      c["floor_allocs/" + unit] = floor.allocations / handled;
    }
    c["handlings"] = double(handlings.count());
    if (handlings.count()) {  // a cold start done all in the constructors has none
      c["max_cpu_us"] = handlings.longest() * 1e6;
      c["p99_cpu_us"] = handlings.percentile(0.99) * 1e6;
    }
    if (syncStart >= 0) c["sync_start_ms"] = syncStart * 1e3;
  }
};

}  // namespace Bench
