// The Kiv framework's cost beside a floor: the same work done with a plain std::unordered_map and
// direct calls, as a hand-written machine without the framework would do it.
//
// Four workloads, each over N keys (a shuffled, seeded key set, the same for both sides):
//   Mutate     insert N keys, overwrite each with a new value, erase each (3N changes) in a watched
//              collection with 0, 1 or 3 notifiees; the floor calls 0, 1 or 3 handlers directly.
//   WalkErase  fill N keys, then walk the collection erasing the element at hand (xWalk + xDel);
//              the floor fills the map and runs `it = m.erase(it)`. The fill is timed on both
//              sides.
//   Walk       walk N elements erasing nothing; the floor iterates the map.
//   Lookup     look every key up (x(k)); the floor calls find().
// Keys are int or a small struct with its own hash (the hash is the same on both sides); a second
// struct, hashed the way the model's composite keys are, is looked up too.
//
// Two more put the collections themselves beside the standard containers:
//   Growth     the longest single insert while a Kiv::HashMap grows from empty to N keys (the
//              floor: std::unordered_map), on the thread's CPU clock so that other programs on
//              the machine do not count; longest_us is the figure, the time per item includes
//              reading the clock twice per insert.
//   Ordered    a Kiv::OrderedMap against std::map: insert N keys, walk them, erase them in
//              another order (3N items); Drain fills N keys and walks them erasing each, as a
//              review empties its queue (2N items).
//
// And a segment's VLAN set, as the machines keep one per LAG: VlanSet fills 4094 VLANs in a
// shuffled order, looks each up in another, walks them and erases each (4 items per VLAN), held in
// bits (KIV_BIT_COLLECTION), in a hash-map collection (KIV_COLLECTION), and in an
// std::unordered_map; bytes_per_vlan is what the full set holds (usable size of its blocks,
// counted outside the timing).
//
// And a review queue of (port, VLAN) pairs as the dot1q machine keeps one: ReviewQueue marks the
// pairs of 128 ports VLAN by VLAN, then takes them one by one in key order, port first (2 items
// per pair), held as bits per port (KIV_ORDERED_BIT_COLLECTION), in sorted runs (a
// Kiv::OrderedMap) and in an std::map.
//
//   build/default/bench/kiv_framework --benchmark_min_time=0.2
//
// Results and their reading are in docs/performance.md.

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "Bridging/VlanId.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

// Allocations, counted for the Ordered cases' allocs_per_key: one increment beside malloc (the
// array and nothrow forms of new and delete go through these). CountingAllocator.h also keeps the
// live bytes, which would tax the floor's node per key in the other cases.
namespace {
std::uint64_t gAllocations = 0;
// Live bytes, kept only while a VlanSet case measures its full set (untimed).
bool gCountBytes = false;
std::int64_t gBytes = 0;
void* countedAlloc(std::size_t n) {
  void* p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  ++gAllocations;
  if (gCountBytes) gBytes += static_cast<std::int64_t>(malloc_usable_size(p));
  return p;
}
void countedFree(void* p) noexcept {
  if (gCountBytes && p) gBytes -= static_cast<std::int64_t>(malloc_usable_size(p));
  std::free(p);
}
}  // namespace
void* operator new(std::size_t n) { return countedAlloc(n); }
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t) noexcept { countedFree(p); }

namespace {

// A small composite key, shaped like the (interface, VLAN) keys the machines use. It hashes its
// packed value with the one-at-a-time hash, so every key of the run has a hash of its own.
struct PortVlan {
  std::uint32_t port;
  std::uint32_t vlan;
  bool operator==(const PortVlan&) const = default;
  auto operator<=>(const PortVlan&) const = default;
  std::uint32_t hash() const { return Kiv::oneAtATimeHash(std::uint64_t{port} << 32 | vlan); }
};

// The same key hashed the way the model's composite keys combine fields (HashMixer, one add per
// field). Over small port and VLAN numbers that combine collides heavily (the 65536 keys of the
// large run share about 5000 hashes); it is here to show what that costs either side.
struct MixedPortVlan {
  std::uint32_t port;
  std::uint32_t vlan;
  bool operator==(const MixedPortVlan&) const = default;
  std::uint32_t hash() const { return Kiv::HashMixer().add(port).add(vlan).result(); }
};

// What a notifiee adds to its counter for a key: depends on the key, so the work cannot be folded.
inline long weight(int k) { return k; }
template <class K>
long weight(const K& k) {
  return k.vlan;
}

// N distinct keys in a fixed shuffled order; `salt` gives another order of the same keys.
template <class K>
std::vector<K> makeKeys(std::size_t n, unsigned salt = 0) {
  std::vector<K> keys;
  keys.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    if constexpr (std::is_same_v<K, int>) {
      keys.push_back(static_cast<int>(i * 7 + 3));  // spread out, still distinct
    } else {
      keys.push_back(
          K{static_cast<std::uint32_t>(i / 4094 + 1), static_cast<std::uint32_t>(i % 4094 + 1)});
    }
  }
  std::mt19937 rng(12345u + salt);
  std::shuffle(keys.begin(), keys.end(), rng);
  return keys;
}

template <class K>
using FloorMap = std::unordered_map<K, int, Kiv::DefaultHash<K>>;

// ---- the framework side ---------------------------------------------------------------------

template <class K>
class Table : public Kiv::Entity<Table<K>> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Table<K>> {
   public:
    KIV_NOTIFIEE_COLLECTION(entry, Entry, K)
  };
  KIV_WATCHED_COLLECTION(entry, Entry, K, int)
};

template <class K>
class Counter : public Table<K>::NotifieeConst {
 public:
  void onEntry(const K& k) override { sum += weight(k); }
  long sum = 0;
};

// A machine's internal state: a plain collection, notifying nobody.
template <class K>
class State : public Kiv::PtrInterface {
 public:
  KIV_COLLECTION(entry, K, int)
};

// ---- the floor side -------------------------------------------------------------------------

template <class K>
struct DirectHandler {
  void onEntry(const K& k) { sum += weight(k); }
  long sum = 0;
};

// The same semantics as a watched collection: handlers hear inserts, real changes and removals.
template <class K>
struct FloorTable {
  FloorMap<K> map;
  std::array<DirectHandler<K>, 3> handlers;
  int handlerCount = 0;

  void changed(const K& k) {
    for (int i = 0; i < handlerCount; ++i) handlers[i].onEntry(k);
  }
  void put(const K& k, int v) {
    auto [it, inserted] = map.try_emplace(k, v);
    if (!inserted) {
      if (it->second == v) return;
      it->second = v;
    }
    changed(k);
  }
  void del(const K& k) {
    if (map.erase(k)) changed(k);
  }
};

// What each handler's counter holds after `iterations` rounds of insert, overwrite and erase.
template <class K>
long expectedSum(const std::vector<K>& keys, benchmark::IterationCount iterations) {
  long perRound = 0;
  for (const K& k : keys) perRound += 3 * weight(k);
  return perRound * static_cast<long>(iterations);
}

// ---- Mutate ---------------------------------------------------------------------------------

template <class K>
void BM_KivMutate(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  const auto eraseOrder = makeKeys<K>(n, 1);
  Kiv::Ptr<Table<K>> table = new Table<K>;
  std::vector<std::unique_ptr<Counter<K>>> counters;
  for (int i = 0; i < state.range(1); ++i) {
    counters.push_back(std::make_unique<Counter<K>>());
    counters.back()->notifierIs(table);
  }
  for (auto _ : state) {
    for (const K& k : keys) table->entryIs(k, 1);
    for (const K& k : keys) table->entryIs(k, 2);
    for (const K& k : eraseOrder) table->entryDel(k);
    for (auto& c : counters) benchmark::DoNotOptimize(c->sum);
    benchmark::DoNotOptimize(table->entrys());
  }
  for (auto& c : counters) {
    if (c->sum != expectedSum(keys, state.iterations())) state.SkipWithError("a change was missed");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 3 * n));
}

template <class K>
void BM_FloorMutate(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  const auto eraseOrder = makeKeys<K>(n, 1);
  FloorTable<K> table;
  table.handlerCount = static_cast<int>(state.range(1));
  for (auto _ : state) {
    for (const K& k : keys) table.put(k, 1);
    for (const K& k : keys) table.put(k, 2);
    for (const K& k : eraseOrder) table.del(k);
    for (auto& h : table.handlers) benchmark::DoNotOptimize(h.sum);
    benchmark::DoNotOptimize(table.map.size());
  }
  for (int i = 0; i < table.handlerCount; ++i) {
    if (table.handlers[i].sum != expectedSum(keys, state.iterations())) {
      state.SkipWithError("a change was missed");
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 3 * n));
}

// ---- WalkErase: erase the element at hand while walking --------------------------------------

template <class K>
void BM_KivWalkErase(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  Kiv::Ptr<State<K>> sm = new State<K>;  // held by a Ptr, as machines are
  long sum = 0;
  for (auto _ : state) {
    for (const K& k : keys) sm->entryIs(k, 1);
    for (auto [k, v] : sm->entryWalk()) {
      sum += v;
      sm->entryDel(k);
    }
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(sm->entrys());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

template <class K>
void BM_FloorWalkErase(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  FloorMap<K> m;
  long sum = 0;
  for (auto _ : state) {
    for (const K& k : keys) m.try_emplace(k, 1);
    for (auto it = m.begin(); it != m.end();) {
      sum += it->second;
      it = m.erase(it);
    }
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

// ---- Walk: nothing erased -------------------------------------------------------------------

template <class K>
void BM_KivWalk(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  Kiv::Ptr<State<K>> sm = new State<K>;
  for (const K& k : makeKeys<K>(n)) sm->entryIs(k, 1);
  long sum = 0;
  for (auto _ : state) {
    for (auto [k, v] : sm->entryWalk()) sum += weight(k) + v;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

template <class K>
void BM_FloorWalk(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  FloorMap<K> m;
  for (const K& k : makeKeys<K>(n)) m.try_emplace(k, 1);
  long sum = 0;
  for (auto _ : state) {
    for (const auto& [k, v] : m) sum += weight(k) + v;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

// ---- Lookup ---------------------------------------------------------------------------------

template <class K>
void BM_KivLookup(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  Kiv::Ptr<State<K>> sm = new State<K>;
  for (const K& k : makeKeys<K>(n)) sm->entryIs(k, 1);
  const auto probes = makeKeys<K>(n, 2);
  long sum = 0;
  for (auto _ : state) {
    for (const K& k : probes) {
      auto v = sm->entry(k);
      if (v) sum += *v;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

template <class K>
void BM_FloorLookup(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  FloorMap<K> m;
  for (const K& k : makeKeys<K>(n)) m.try_emplace(k, 1);
  const auto probes = makeKeys<K>(n, 2);
  long sum = 0;
  for (auto _ : state) {
    for (const K& k : probes) {
      auto it = m.find(k);
      if (it != m.end()) sum += it->second;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

// ---- Growth: the longest single insert ----------------------------------------------------

double threadCpuMicros() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

template <class Map, class K>
void growth(benchmark::State& state, Map& m, const std::vector<K>& keys, double& longest) {
  for (const K& k : keys) {
    double t0 = threadCpuMicros();
    if constexpr (requires { m.put(k, 1); }) {
      m.put(k, 1);
    } else {
      m.try_emplace(k, 1);
    }
    longest = std::max(longest, threadCpuMicros() - t0);
  }
  if (m.size() != keys.size()) state.SkipWithError("a key was lost");
}

template <class K>
void BM_KivGrowth(benchmark::State& state) {
  const auto keys = makeKeys<K>(static_cast<std::size_t>(state.range(0)));
  double longest = 0;
  for (auto _ : state) {
    Kiv::HashMap<K, int> m;
    growth(state, m, keys, longest);
  }
  state.counters["longest_us"] = longest;
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * keys.size()));
}

template <class K>
void BM_FloorGrowth(benchmark::State& state) {
  const auto keys = makeKeys<K>(static_cast<std::size_t>(state.range(0)));
  double longest = 0;
  for (auto _ : state) {
    FloorMap<K> m;
    growth(state, m, keys, longest);
  }
  state.counters["longest_us"] = longest;
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * keys.size()));
}

// ---- Ordered: Kiv::OrderedMap beside std::map ---------------------------------------------

void allocsPerKey(benchmark::State& state, std::uint64_t before, std::size_t n) {
  state.counters["allocs_per_key"] =
      static_cast<double>(gAllocations - before) / static_cast<double>(state.iterations() * n);
}

template <class K>
void BM_KivOrdered(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  const auto eraseOrder = makeKeys<K>(n, 1);
  Kiv::OrderedMap<K, int> m;
  long sum = 0;
  const std::uint64_t allocations = gAllocations;
  for (auto _ : state) {
    for (const K& k : keys) m.put(k, 1);
    for (auto [k, v] : m.walk()) sum += weight(k) + v;
    for (const K& k : eraseOrder) m.erase(k);
    benchmark::DoNotOptimize(sum);
  }
  allocsPerKey(state, allocations, n);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 3 * n));
}

template <class K>
void BM_FloorOrdered(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  const auto eraseOrder = makeKeys<K>(n, 1);
  std::map<K, int> m;
  long sum = 0;
  const std::uint64_t allocations = gAllocations;
  for (auto _ : state) {
    for (const K& k : keys) m.try_emplace(k, 1);
    for (const auto& [k, v] : m) sum += weight(k) + v;
    for (const K& k : eraseOrder) m.erase(k);
    benchmark::DoNotOptimize(sum);
  }
  allocsPerKey(state, allocations, n);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 3 * n));
}

template <class K>
void BM_KivOrderedDrain(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  Kiv::OrderedMap<K, int> m;
  long sum = 0;
  const std::uint64_t allocations = gAllocations;
  for (auto _ : state) {
    for (const K& k : keys) m.put(k, 1);
    for (auto [k, v] : m.walk()) {
      sum += weight(k) + v;
      m.erase(k);
    }
    benchmark::DoNotOptimize(sum);
  }
  allocsPerKey(state, allocations, n);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2 * n));
}

template <class K>
void BM_FloorOrderedDrain(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto keys = makeKeys<K>(n);
  std::map<K, int> m;
  long sum = 0;
  const std::uint64_t allocations = gAllocations;
  for (auto _ : state) {
    for (const K& k : keys) m.try_emplace(k, 1);
    for (auto it = m.begin(); it != m.end();) {
      sum += weight(it->first) + it->second;
      it = m.erase(it);
    }
    benchmark::DoNotOptimize(sum);
  }
  allocsPerKey(state, allocations, n);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2 * n));
}

// ---- VlanSet: a segment's VLANs ----------------------------------------------------------------

class BitVlans : public Kiv::PtrInterface {
 public:
  KIV_BIT_COLLECTION(vlan, Bridging::VlanId, bool)
};
class HashVlans : public Kiv::PtrInterface {
 public:
  KIV_COLLECTION(vlan, Bridging::VlanId, bool)
};
struct FloorVlans {
  std::unordered_map<Bridging::VlanId, bool> m;
  void vlanIs(Bridging::VlanId v, bool b) { m[v] = b; }
  bool vlanHas(Bridging::VlanId v) const { return m.count(v) != 0; }
  void vlanDel(Bridging::VlanId v) { m.erase(v); }
  const auto& vlanWalk() const { return m; }
};

std::vector<Bridging::VlanId> shuffledVlans(unsigned salt) {
  std::vector<Bridging::VlanId> v;
  for (std::uint16_t i = 1; i <= 4094; ++i) v.emplace_back(i);
  std::mt19937 rng(777u + salt);
  std::shuffle(v.begin(), v.end(), rng);
  return v;
}

template <class Set>
void BM_VlanSet(benchmark::State& state) {
  const auto fill = shuffledVlans(0);
  const auto probe = shuffledVlans(1);
  const auto drop = shuffledVlans(2);
  long sum = 0;
  {
    Set set;
    gBytes = 0;
    gCountBytes = true;
    for (auto v : fill) set.vlanIs(v, true);
    gCountBytes = false;
    state.counters["bytes_per_vlan"] = double(gBytes) / double(fill.size());
  }
  for (auto _ : state) {
    Set set;
    for (auto v : fill) set.vlanIs(v, true);
    for (auto v : probe) sum += set.vlanHas(v);
    for (auto [v, b] : set.vlanWalk()) sum += v.value() + b;
    for (auto v : drop) set.vlanDel(v);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 4 * fill.size()));
}

// ---- ReviewQueue: (port, VLAN) pairs filled VLAN by VLAN, drained in key order ---------------

struct QueueKey {
  std::uint32_t port;
  Bridging::VlanId vlan;
  auto operator<=>(const QueueKey&) const = default;
};

}  // namespace
template <>
struct Kiv::SplitKey<QueueKey> {
  using Major = std::uint32_t;
  using Minor = Bridging::VlanId;
  static std::uint32_t major(const QueueKey& k) { return k.port; }
  static Bridging::VlanId minor(const QueueKey& k) { return k.vlan; }
  static QueueKey join(std::uint32_t port, Bridging::VlanId vlan) { return {port, vlan}; }
};
namespace {

using BitQueue = Kiv::OrderedBitMap<QueueKey, bool>;
using RunsQueue = Kiv::OrderedMap<QueueKey, bool>;
struct FloorQueue {
  std::map<QueueKey, bool> m;
  void put(const QueueKey& k, bool v) { m[k] = v; }
};

// A cold start of the dot1q machine's queue: every (port, VLAN) pair marked as the VLANs come,
// then taken one by one in key order, port first. Queue is Kiv::OrderedMap (sorted runs),
// Kiv::OrderedBitMap (bits per port) or the floor's std::map.
template <class Queue>
void BM_ReviewQueue(benchmark::State& state) {
  const auto ports = static_cast<std::uint32_t>(state.range(0));
  long sum = 0;
  const std::uint64_t allocations = gAllocations;
  for (auto _ : state) {
    Queue q;
    for (std::uint16_t vlan = 1; vlan <= 4094; ++vlan) {
      for (std::uint32_t port = 0; port < ports; ++port) {
        q.put(QueueKey{port * 7919u % 100003u, Bridging::VlanId(vlan)}, true);
      }
    }
    if constexpr (std::is_same_v<Queue, FloorQueue>) {
      for (auto it = q.m.begin(); it != q.m.end();) {
        sum += it->first.vlan.value();
        it = q.m.erase(it);
      }
    } else {
      for (auto [k, v] : q.walk()) {
        sum += k.vlan.value();
        q.erase(k);
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  allocsPerKey(state, allocations, std::size_t(ports) * 4094);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2 * ports * 4094));
}

void mutateArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"n", "notifiees"})->ArgsProduct({{1 << 10, 1 << 16}, {0, 1, 3}});
}
void sizeArgs(benchmark::internal::Benchmark* b) { b->ArgNames({"n"})->Arg(1 << 10)->Arg(1 << 16); }
// One growth to a million keys is the measurement; repetitions give its spread.
void growthArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"n"})->Arg(1 << 20)->Iterations(1)->Unit(benchmark::kMillisecond);
}
void orderedArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"n"})->Arg(1 << 10)->Arg(1 << 16)->Arg(1 << 19);
}

// Each framework case sits right above its floor in the output.
BENCHMARK_TEMPLATE(BM_KivMutate, int)->Apply(mutateArgs);
BENCHMARK_TEMPLATE(BM_FloorMutate, int)->Apply(mutateArgs);
BENCHMARK_TEMPLATE(BM_KivMutate, PortVlan)->Apply(mutateArgs);
BENCHMARK_TEMPLATE(BM_FloorMutate, PortVlan)->Apply(mutateArgs);
BENCHMARK_TEMPLATE(BM_KivWalkErase, int)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_FloorWalkErase, int)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_KivWalk, int)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_FloorWalk, int)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_KivLookup, int)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_FloorLookup, int)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_KivLookup, PortVlan)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_FloorLookup, PortVlan)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_KivLookup, MixedPortVlan)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_FloorLookup, MixedPortVlan)->Apply(sizeArgs);
BENCHMARK_TEMPLATE(BM_KivGrowth, int)->Apply(growthArgs);
BENCHMARK_TEMPLATE(BM_FloorGrowth, int)->Apply(growthArgs);
BENCHMARK_TEMPLATE(BM_KivGrowth, PortVlan)->Apply(growthArgs);
BENCHMARK_TEMPLATE(BM_FloorGrowth, PortVlan)->Apply(growthArgs);
BENCHMARK_TEMPLATE(BM_KivOrdered, int)->Apply(orderedArgs);
BENCHMARK_TEMPLATE(BM_FloorOrdered, int)->Apply(orderedArgs);
BENCHMARK_TEMPLATE(BM_KivOrdered, PortVlan)->Apply(orderedArgs);
BENCHMARK_TEMPLATE(BM_FloorOrdered, PortVlan)->Apply(orderedArgs);
BENCHMARK_TEMPLATE(BM_KivOrderedDrain, PortVlan)->Apply(orderedArgs);
BENCHMARK_TEMPLATE(BM_FloorOrderedDrain, PortVlan)->Apply(orderedArgs);
BENCHMARK_TEMPLATE(BM_VlanSet, BitVlans);
BENCHMARK_TEMPLATE(BM_VlanSet, HashVlans);
BENCHMARK_TEMPLATE(BM_VlanSet, FloorVlans);
BENCHMARK_TEMPLATE(BM_ReviewQueue, BitQueue)->ArgName("ports")->Arg(128);
BENCHMARK_TEMPLATE(BM_ReviewQueue, RunsQueue)->ArgName("ports")->Arg(128);
BENCHMARK_TEMPLATE(BM_ReviewQueue, FloorQueue)->ArgName("ports")->Arg(128);

}  // namespace

BENCHMARK_MAIN();
