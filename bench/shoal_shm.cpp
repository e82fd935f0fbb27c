// Shoal tables in shared memory beside the in-process backing.
//
//   Lookup/heap           look up present keys in the in-process table (the floor)
//   Lookup/shm            the same lookups by a reader process; the writer, another process,
//                         holds the rows and is idle
//   Lookup/shm_churn      as above while the writer overwrites rows as fast as it can
//   Write/heap            overwrite rows in the in-process table (the floor)
//   Write/shm/readers:R   overwrite rows in shared memory while R reader processes (0, 1, 4)
//                         look rows up as fast as they can
// Each over N rows (the argument); keys are looked up and written in a seeded shuffled order. The
// shared-memory reader's rows are checked equal to the in-process table's before timing.
//
//   build/default/bench/shoal_shm --benchmark_min_time=0.5
//
// Results and their reading are in docs/performance.md.

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Shoal/SharedMemoryBacking.h"

namespace {

// A row the size of the tunnel-id mapping's, with a value that depends on its key.
struct Row {
  std::uint64_t key = 0;
  std::uint32_t hwId = 0;
  std::uint32_t version = 0;
  bool operator==(const Row&) const = default;
};
Row rowOf(std::uint64_t k, std::uint32_t version) {
  return Row{k, static_cast<std::uint32_t>(k * 2654435761u), version};
}

using Heap = Shoal::HeapBacking<std::uint64_t, Row>;
using Shm = Shoal::SharedMemoryBacking<std::uint64_t, Row>;

// Named once, before any child is forked: the children attach under the parent's name.
const std::string kAgent = "shoalBench" + std::to_string(::getpid());
const std::string& agent() { return kAgent; }

std::vector<std::uint64_t> keys(std::size_t n) {
  std::vector<std::uint64_t> k(n);
  for (std::size_t i = 0; i < n; ++i) k[i] = 0x100000000ull + i * 7919;
  std::shuffle(k.begin(), k.end(), std::mt19937_64(42));
  return k;
}

// Fills a table with n rows; answers their keys.
std::vector<std::uint64_t> filled(Shoal::Backing<std::uint64_t, Row>& table, std::size_t n) {
  auto k = keys(n);
  for (std::uint64_t key : k) table.put(key, rowOf(key, 0));
  return k;
}

// A flag in memory shared with the children: they run until it is set.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<int> ready{0};
};

class Children {
 public:
  Children() {
    void* p =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared_ = new (p) Shared;
  }
  ~Children() {
    shared_->stop = true;
    for (pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
    Shoal::removeStaleSegments(agent());
    ::munmap(shared_, sizeof(Shared));
  }
  template <class Body>
  void spawn(Body body) {
    pid_t pid = ::fork();
    if (pid == 0) {
      body(*shared_);
      ::_exit(0);
    }
    pids_.push_back(pid);
  }
  void awaitReady(int n) const {
    while (shared_->ready.load() < n) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

 private:
  Shared* shared_;
  std::vector<pid_t> pids_;
};

// A writer process: fills the rows, then idles or overwrites them until told to stop.
void writer(Shared& s, std::size_t n, bool churn) {
  Shm table(agent(), "bench", static_cast<std::uint32_t>(n));
  table.attach(Shoal::Role::writer);
  auto k = filled(table, n);
  ++s.ready;
  for (std::uint32_t v = 1; !s.stop.load(std::memory_order_relaxed); ++v) {
    if (!churn) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    for (std::uint64_t key : k) table.put(key, rowOf(key, v));
  }
}

// A reader process: looks rows up until told to stop.
void reader(Shared& s, std::size_t n) {
  Shm table(agent(), "bench", static_cast<std::uint32_t>(n));
  table.attach(Shoal::Role::reader);
  auto k = keys(n);
  ++s.ready;
  std::uint64_t found = 0;
  while (!s.stop.load(std::memory_order_relaxed)) {
    for (std::uint64_t key : k) found += table.find(key).found;
  }
  benchmark::DoNotOptimize(found);
}

// Polls a reader's table until its writer has attached and holds every row.
void awaitMounted(Shm& table, std::size_t n) {
  struct Sink : Shoal::Changes<std::uint64_t> {
    void key(const std::uint64_t&) override {}
    void all() override {}
    void mount(Shoal::MountState) override {}
  } sink;
  do {
    table.poll(sink);
  } while (table.segment().mountState() != Shoal::MountState::mounted || table.size() != n);
}

// The timed loops, the same for either backing: keys in their shuffled order, round and round.
void timeLookups(benchmark::State& state, const Shoal::Backing<std::uint64_t, Row>& table,
                 const std::vector<std::uint64_t>& k) {
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.find(k[i]));
    if (++i == k.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void timeWrites(benchmark::State& state, Shoal::Backing<std::uint64_t, Row>& table,
                const std::vector<std::uint64_t>& k) {
  std::size_t i = 0;
  std::uint32_t v = 0;
  for (auto _ : state) {
    table.put(k[i], rowOf(k[i], v));
    if (++i == k.size()) i = 0, ++v;
  }
  state.SetItemsProcessed(state.iterations());
}

void lookupHeap(benchmark::State& state) {
  Heap table;
  timeLookups(state, table, filled(table, state.range(0)));
}

void lookupShm(benchmark::State& state, bool churn) {
  const std::size_t n = state.range(0);
  Children children;
  children.spawn([n, churn](Shared& s) { writer(s, n, churn); });
  children.awaitReady(1);
  Shm table(agent(), "bench", static_cast<std::uint32_t>(n));
  table.attach(Shoal::Role::reader);
  awaitMounted(table, n);
  auto k = keys(n);
  // The rows a reader sees are the writer's (checked before timing, on the idle writer only).
  if (!churn) {
    Heap floor;
    filled(floor, n);
    for (std::uint64_t key : k) {
      if (table.find(key).row != floor.find(key).row) {
        state.SkipWithError("a reader's row differs from the writer's");
        return;
      }
    }
  }
  timeLookups(state, table, k);
}

void writeHeap(benchmark::State& state) {
  Heap table;
  timeWrites(state, table, filled(table, state.range(0)));
}

void writeShm(benchmark::State& state) {
  const std::size_t n = state.range(0);
  const int readers = static_cast<int>(state.range(1));
  Shm table(agent(), "bench", static_cast<std::uint32_t>(n));
  table.attach(Shoal::Role::writer);
  auto k = filled(table, n);
  Children children;
  for (int r = 0; r < readers; ++r) children.spawn([n](Shared& s) { reader(s, n); });
  children.awaitReady(readers);
  timeWrites(state, table, k);
}

}  // namespace

BENCHMARK(lookupHeap)->Name("Lookup/heap")->Arg(4096)->Arg(65536);
BENCHMARK_CAPTURE(lookupShm, idle, false)->Name("Lookup/shm")->Arg(4096)->Arg(65536);
BENCHMARK_CAPTURE(lookupShm, churn, true)->Name("Lookup/shm_churn")->Arg(4096)->Arg(65536);
BENCHMARK(writeHeap)->Name("Write/heap")->Arg(4096)->Arg(65536);
BENCHMARK(writeShm)
    ->Name("Write/shm")
    ->ArgsProduct({{4096, 65536}, {0, 1, 4}})
    ->ArgNames({"", "readers"});

BENCHMARK_MAIN();
