// Dot1q mappings and decapsulation port maps at switch scale: the dot1q flooding machine over
// `vlans` VLANs with `ports` member ports each (every VLAN tagged), and the ESI filtering on
// decapsulation machine over `routes` label routes with Ethernet-segment filter vias (one
// interface each) in the tracking backlog. Each beside a floor that makes the same chip calls by
// hand with std::unordered_map.
//
// Each benchmark is a cold start: the inputs exist (untimed), the machine is built and its reviews
// run until the scheduler is idle (timed). Before anything is timed, one run on each side with the
// chip digesting its calls must give the same multiset of calls, or the program exits 1.
// Figures:
//   pairs/s, routes/s   entries handled per second by the machine (floor_/s: the floor's)
//   x_floor             machine time over floor time
//   B/entry             heap bytes of machine state per entry (floor_B/entry: the floor's)
//   max_run_us          the longest single task run, from its first to its last chip call
//
//   build/default/bench/dot1q_decap                         # full scale: 4094 x 128, 100k routes
//   build/default/bench/dot1q_decap --dd_small --dd_check_only --benchmark_min_time=0
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "BenchArgs.h"
#include "Bridging/VlanStatus.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Clock.h"
#include "Mox/TaskScheduler.h"
#include "Mpls/Lfib.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaHelpers.h"
#include "ObaEvpn/ObaEvpnEsiFilteringDecapSm.h"
#include "ObaEvpn/ObaEvpnFloodingDot1qSm.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Quil::IntfId;
using Quil::MplsLabel;
using Stopwatch = std::chrono::steady_clock;

bool gCheckOnly = false;  // --dd_check_only: the equivalence check, no timed iterations
bool gFailed = false;

double since(Stopwatch::time_point t0) {
  return std::chrono::duration<double>(Stopwatch::now() - t0).count();
}
std::size_t heapBytes() { return mallinfo2().uordblks; }

// The chip's record of one side: counts, an order-independent digest of the calls (sum and sum
// of squares of a hash of each call), and the longest span of calls within one task run.
struct Ledger {
  std::uint64_t creates = 0, deletes = 0, sum = 0, sumOfSquares = 0;
  bool digesting = false;
  const Mox::TaskScheduler* scheduler = nullptr;  // null on the floor: no task runs
  std::uint64_t run = ~0ull;
  Stopwatch::time_point runStart{};
  double longestRun = 0;

  void note(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    if (scheduler) {
      auto now = Stopwatch::now();
      if (scheduler->runCount() != run) {
        run = scheduler->runCount();
        runStart = now;
      }
      longestRun = std::max(longestRun, std::chrono::duration<double>(now - runStart).count());
    }
    if (!digesting) return;
    std::uint64_t h =
        (a * 0x9e3779b97f4a7c15ull) ^ (b * 0xc2b2ae3d27d4eb4full) ^ (c * 0x165667b19e3779f9ull);
    h ^= h >> 29;
    h *= 0xbf58476d1ce4e5b9ull;
    sum += h;
    sumOfSquares += h * h;
  }
  bool sameCalls(const Ledger& o) const {
    return creates == o.creates && deletes == o.deletes && sum == o.sum &&
           sumOfSquares == o.sumOfSquares;
  }
};

bool checked(benchmark::State& state, const Ledger& m, const Ledger& floor) {
  if (m.sameCalls(floor) && m.creates) return true;
  state.SkipWithError("the machine and the floor gave the chip different calls");
  std::fprintf(stderr, "machine: create %llu delete %llu; floor: create %llu delete %llu\n",
               (unsigned long long)m.creates, (unsigned long long)m.deletes,
               (unsigned long long)floor.creates, (unsigned long long)floor.deletes);
  gFailed = true;
  return false;
}

struct Figures {
  double machineSeconds = 0, floorSeconds = 0, entries = 0, machineBytes = 0, floorBytes = 0;
  double longestRun = 0;
  void publish(benchmark::State& state, const char* rate, double perRun) {
    state.counters["B/entry"] = machineBytes / perRun;
    state.counters["floor_B/entry"] = floorBytes / perRun;
    state.counters["max_run_us"] = longestRun * 1e6;
    if (machineSeconds <= 0) return;
    state.counters[rate] = entries / machineSeconds;
    state.counters[std::string("floor_") + rate] = entries / floorSeconds;
    state.counters["x_floor"] = machineSeconds / floorSeconds;
  }
};

// ---- dot1q mappings -----------------------------------------------------------------------------

class Dot1qChip : public ObaHelper::EvpnFloodingSmHelper {
 public:
  explicit Dot1qChip(Ledger& l) : EvpnFloodingSmHelper("chip"), ledger(l) {}
  Oba::HwProgrammingStatus createVlanToDot1qMapping(IntfId port, VlanId vlan,
                                                    VlanIdOrNone dot1q) override {
    ++ledger.creates;
    ledger.note(port.value(), vlan.value(), dot1q.value());
    return Oba::HwProgrammingStatus::programmed;
  }
  void deleteVlanToDot1qMapping(IntfId port, VlanId vlan, VlanIdOrNone dot1q) override {
    ++ledger.deletes;
    ledger.note(~port.value(), vlan.value(), dot1q.value());
  }
  Ledger& ledger;
};

VlanIdOrNone tagOf(int vlan) { return VlanIdOrNone(std::uint16_t(4095 - vlan)); }

// The floor: what the VLANs call for, programmed pair by pair from a plain map.
void dot1qFloor(int vlans, int ports, Dot1qChip& chip,
                std::unordered_map<std::uint64_t, VlanIdOrNone>& programmed) {
  for (int v = 1; v <= vlans; ++v) {
    for (int p = 1; p <= ports; ++p) {
      IntfId port = IntfId::ethernet(p);
      auto [it, fresh] = programmed.try_emplace(port.value() << 12 | v, tagOf(v));
      if (fresh) chip.createVlanToDot1qMapping(port, VlanId(v), tagOf(v));
    }
  }
}

void BM_Dot1qColdStart(benchmark::State& state) {
  const int vlans = int(state.range(0)), ports = int(state.range(1));
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  auto scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Oba::ObaCommonSmData> acsd = new Oba::ObaCommonSmData;
  Kiv::Ptr<Evpn::EvpnStatus> evpn = new Evpn::EvpnStatus;
  Kiv::Ptr<Evpn::MplsConfig> config = new Evpn::MplsConfig;
  Kiv::Ptr<Bridging::VlanStatusDir> dir = new Bridging::VlanStatusDir;
  for (int v = 1; v <= vlans; ++v) {
    evpn->vlanToDot1qIs(VlanId(v), tagOf(v));
    auto vs = dir->vlanStatusIs(VlanId(v));
    for (int p = 1; p <= ports; ++p) vs->vlanPortStatusIs(IntfId::ethernet(p), true);
  }
  Ledger mLedger{.scheduler = scheduler.ptr()}, fLedger;
  Kiv::Ptr<Dot1qChip> mChip = new Dot1qChip(mLedger), fChip = new Dot1qChip(fLedger);
  Figures fig;
  auto run = [&](Figures* timed) {
    std::size_t before = heapBytes();
    auto t0 = Stopwatch::now();
    auto sm = Oba::evpnFloodingDot1qSmFactory(mChip, scheduler, acsd, evpn, config, dir);
    scheduler->advanceBy(Oba::intfVlanDelayDefault);
    double machine = since(t0);
    fig.machineBytes = double(heapBytes() - before);
    std::unordered_map<std::uint64_t, VlanIdOrNone> programmed;
    before = heapBytes();
    auto t1 = Stopwatch::now();
    dot1qFloor(vlans, ports, *fChip, programmed);
    double floor = since(t1);
    fig.floorBytes = double(heapBytes() - before);
    if (timed) {
      timed->machineSeconds += machine;
      timed->floorSeconds += floor;
      timed->entries += double(vlans) * ports;
      state.SetIterationTime(machine);
    }
  };
  mLedger.digesting = fLedger.digesting = true;
  run(nullptr);
  if (!checked(state, mLedger, fLedger)) return;
  mLedger.digesting = fLedger.digesting = false;
  for (auto _ : state) {
    if (gCheckOnly) continue;
    run(&fig);
  }
  fig.longestRun = mLedger.longestRun;
  fig.publish(state, "pairs/s", double(vlans) * ports);
}

// ---- decapsulation port maps --------------------------------------------------------------------

class DecapChip : public ObaHelper::EsiFilteringDecapHelper {
 public:
  explicit DecapChip(Ledger& l) : EsiFilteringDecapHelper("chip"), ledger(l) {}
  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(MplsLabel label, IntfId intf) override {
    ++ledger.creates;
    ledger.note(label.value(), intf.value(), 1);
    return Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess;
  }
  void deleteEsiPortMap(MplsLabel label, IntfId intf) override {
    ++ledger.deletes;
    ledger.note(label.value(), intf.value(), 2);
  }
  Ledger& ledger;
};

constexpr std::uint32_t kFirstLabel = 100000;

// The floor: the backlog's routes looked up and programmed, one interface per route.
void decapFloor(const Mpls::LfibStatus& lfib, const std::vector<Mpls::RouteKey>& backlog,
                DecapChip& chip, std::unordered_map<std::uint32_t, IntfId>& routeIntf,
                std::unordered_map<std::uint64_t, std::uint32_t>& intfRoute) {
  for (const Mpls::RouteKey& key : backlog) {
    auto route = lfib.route(key);
    auto viaSet = lfib.viaSet(route->viaSetKey);
    auto via = lfib.evpnEthernetSegmentFilterVia(viaSet->viaKey);
    if (!intfRoute.try_emplace(via->intfId.value(), key.topLabel().value()).second) continue;
    routeIntf.emplace(key.topLabel().value(), via->intfId);
    chip.createEsiPortMap(key.topLabel(), via->intfId);
  }
}

void BM_DecapColdStart(benchmark::State& state) {
  const int routes = int(state.range(0));
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  auto scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Mpls::LfibStatus> lfib = new Mpls::LfibStatus;
  Kiv::Ptr<Mpls::LfibTrackingStatus> tracking = new Mpls::LfibTrackingStatus;
  Kiv::Ptr<Mpls::LfibHwStatus> hw = new Mpls::LfibHwStatus;
  std::vector<Mpls::RouteKey> backlog;
  for (int r = 0; r < routes; ++r) {
    Mpls::RouteKey key(MplsLabel(kFirstLabel + r));
    Mpls::LfibViaSetKey vs(r);
    Mpls::LfibViaKey via(Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter, r);
    lfib->evpnEthernetSegmentFilterViaIs(via, {IntfId::ethernet(r + 1)});
    lfib->viaSetIs(vs, {vs, via});
    lfib->routeIs(key, {key, vs});
    backlog.push_back(key);
  }
  Ledger mLedger{.scheduler = scheduler.ptr()}, fLedger;
  Kiv::Ptr<DecapChip> mChip = new DecapChip(mLedger), fChip = new DecapChip(fLedger);
  Figures fig;
  auto run = [&](Figures* timed) {
    for (const auto& key : backlog) tracking->routeKeyBacklogIs(key, true);  // the MPLS agent
    std::size_t before = heapBytes();
    auto t0 = Stopwatch::now();
    Kiv::Ptr<Oba::EsiFilteringDecapSm> sm =
        Oba::esiFilteringDecapSmFactory(mChip, scheduler, lfib, tracking, hw);
    scheduler->runDue();
    while (!scheduler->idle()) scheduler->runDue();
    double machine = since(t0);
    fig.machineBytes = double(heapBytes() - before);
    std::unordered_map<std::uint32_t, IntfId> routeIntf;
    std::unordered_map<std::uint64_t, std::uint32_t> intfRoute;
    before = heapBytes();
    auto t1 = Stopwatch::now();
    decapFloor(*lfib, backlog, *fChip, routeIntf, intfRoute);
    double floor = since(t1);
    fig.floorBytes = double(heapBytes() - before);
    if (timed) {
      timed->machineSeconds += machine;
      timed->floorSeconds += floor;
      timed->entries += routes;
      state.SetIterationTime(machine);
    }
  };
  mLedger.digesting = fLedger.digesting = true;
  run(nullptr);
  if (!checked(state, mLedger, fLedger)) return;
  mLedger.digesting = fLedger.digesting = false;
  for (auto _ : state) {
    if (gCheckOnly) continue;
    run(&fig);
  }
  fig.longestRun = mLedger.longestRun;
  fig.publish(state, "routes/s", routes);
}

}  // namespace

int main(int argc, char** argv) {
  bool small = false;
  const bool ok = Bench::initialize(argc, argv, [&](const char* a) {
    if (std::strcmp(a, "--dd_check_only") == 0) {
      gCheckOnly = true;
    } else if (std::strcmp(a, "--dd_small") == 0) {
      small = true;
    } else {
      return Bench::Flag::other;
    }
    return Bench::Flag::taken;
  });
  if (!ok) return 2;
  auto* d = benchmark::RegisterBenchmark("Dot1qColdStart", BM_Dot1qColdStart)
                ->Args({small ? 64 : 4094, small ? 8 : 128})
                ->ArgNames({"vlans", "ports"});
  auto* r = benchmark::RegisterBenchmark("DecapColdStart", BM_DecapColdStart)
                ->Args({small ? 1000 : 100000})
                ->ArgNames({"routes"});
  for (auto* b : {d, r}) {
    b->UseManualTime()->Unit(benchmark::kMillisecond);
    if (gCheckOnly) b->Iterations(1);
  }
  std::size_t ran = benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (ran == 0) return 1;
  return gFailed ? 1 : 0;
}
