// Dot1q mappings and decapsulation port maps at switch scale: the dot1q flooding machine over
// `vlans` VLANs with `ports` member ports each (every VLAN tagged), and the ESI filtering on
// decapsulation machine over `routes` label routes with Ethernet-segment filter vias (one
// interface each) in the tracking backlog. Each beside a floor that makes the same chip calls by
// hand with std::unordered_map.
//
// Each benchmark is a cold start: the inputs exist (untimed), the machine is built and its reviews
// run until the scheduler is idle (timed). The first run is watched: on each side the chip digests
// its calls, which must give the same multiset of calls or the program exits 1, and memory,
// allocations and the machine's task runs (on the CPU clock) are counted; the timed iterations
// follow. The scheduler runs with the 1 ms time slice an agent has. Figures (BenchFigures.h):
//   pairs/s, routes/s   entries handled per second by the machine (floor_...: the floor's)
//   x_floor             machine time over floor time
//   B/..., floor_B/...  live bytes of each side's state per entry; allocs/..., floor_allocs/...
//   max_cpu_us          the longest single task run on the CPU clock; p99_cpu_us over all of them
//   sync_start_ms       the machine's construction, which walks its inputs, on the CPU clock
//
//   build/default/bench/dot1q_decap                         # full scale: 4094 x 128, 100k routes
//   build/default/bench/dot1q_decap --dd_small --dd_check_only --benchmark_min_time=0
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "BenchArgs.h"
#include "BenchFigures.h"
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

// The chip's record of one side: counts, and an order-independent digest of the calls (sum and
// sum of squares of a hash of each call).
struct Ledger {
  std::uint64_t creates = 0, deletes = 0, sum = 0, sumOfSquares = 0;
  bool digesting = false;

  void note(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
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

constexpr auto justBuild = [](auto&& make) { make(); };

// Cold starts on both sides: `inputs()` readies the inputs (untimed), `machine(build)` makes the
// machine through `build` (its construction), runs its tasks until idle and hands it back,
// `floor()` does the same work by hand and hands back its state. Both are kept until measured.
template <class Inputs, class Machine, class FloorWork>
void coldStarts(benchmark::State& state, Bench::Figures& fig, Mox::TaskScheduler& scheduler,
                Ledger& mLedger, Ledger& fLedger, Inputs inputs, Machine machine, FloorWork floor) {
  scheduler.timeSliceIs(Bench::kTimeSlice);
  mLedger.digesting = fLedger.digesting = true;
  {
    inputs();
    Bench::HeapMark heap;
    auto sm = [&] {
      Bench::TaskRunWatch runs(scheduler, fig.handlings);
      return machine([&](auto&& make) { fig.construction(make); });
    }();
    fig.machines.bytes = heap.bytesSince();
    fig.machines.allocations = heap.allocationsSince();
    Bench::HeapMark floorHeap;
    auto kept = floor();
    fig.floor.bytes = floorHeap.bytesSince();
    fig.floor.allocations = floorHeap.allocationsSince();
  }
  if (!checked(state, mLedger, fLedger)) return;
  mLedger.digesting = fLedger.digesting = false;
  for (auto _ : state) {
    if (gCheckOnly) continue;
    inputs();
    auto t0 = Stopwatch::now();
    auto sm = machine(justBuild);
    const double machineSeconds = since(t0);
    auto t1 = Stopwatch::now();
    auto kept = floor();
    const double floorSeconds = since(t1);
    state.SetIterationTime(machineSeconds);
    fig.timed(machineSeconds, floorSeconds, fig.entries);
  }
  fig.publish(state);
}

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
std::unordered_map<std::uint64_t, VlanIdOrNone> dot1qFloor(int vlans, int ports, Dot1qChip& chip) {
  std::unordered_map<std::uint64_t, VlanIdOrNone> programmed;
  for (int v = 1; v <= vlans; ++v) {
    for (int p = 1; p <= ports; ++p) {
      IntfId port = IntfId::ethernet(p);
      auto [it, fresh] = programmed.try_emplace(port.value() << 12 | v, tagOf(v));
      if (fresh) chip.createVlanToDot1qMapping(port, VlanId(v), tagOf(v));
    }
  }
  return programmed;
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
  Ledger mLedger, fLedger;
  Kiv::Ptr<Dot1qChip> mChip = new Dot1qChip(mLedger), fChip = new Dot1qChip(fLedger);
  Bench::Figures fig("pair");
  fig.entries = double(vlans) * ports;
  coldStarts(
      state, fig, *scheduler, mLedger, fLedger, [] {},
      [&](auto&& build) {
        Kiv::Ptr<Oba::EvpnFloodingDot1qSm> sm;
        build([&] {
          sm = Oba::evpnFloodingDot1qSmFactory(mChip, scheduler, acsd, evpn, config, dir);
        });
        scheduler->advanceBy(Oba::intfVlanDelayDefault);
        return sm;
      },
      [&] { return dot1qFloor(vlans, ports, *fChip); });
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
struct DecapFloor {
  std::unordered_map<std::uint32_t, IntfId> routeIntf;
  std::unordered_map<std::uint64_t, std::uint32_t> intfRoute;
};
DecapFloor decapFloor(const Mpls::LfibStatus& lfib, const std::vector<Mpls::RouteKey>& backlog,
                      DecapChip& chip) {
  DecapFloor floor;
  for (const Mpls::RouteKey& key : backlog) {
    auto route = lfib.route(key);
    auto viaSet = lfib.viaSet(route->viaSetKey);
    auto via = lfib.evpnEthernetSegmentFilterVia(viaSet->viaKey);
    if (!floor.intfRoute.try_emplace(via->intfId.value(), key.topLabel().value()).second) continue;
    floor.routeIntf.emplace(key.topLabel().value(), via->intfId);
    chip.createEsiPortMap(key.topLabel(), via->intfId);
  }
  return floor;
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
  Ledger mLedger, fLedger;
  Kiv::Ptr<DecapChip> mChip = new DecapChip(mLedger), fChip = new DecapChip(fLedger);
  Bench::Figures fig("route");
  fig.entries = routes;
  coldStarts(
      state, fig, *scheduler, mLedger, fLedger,
      [&] {
        for (const auto& key : backlog) tracking->routeKeyBacklogIs(key, true);  // the MPLS agent
      },
      [&](auto&& build) {
        Kiv::Ptr<Oba::EsiFilteringDecapSm> sm;
        build([&] { sm = Oba::esiFilteringDecapSmFactory(mChip, scheduler, lfib, tracking, hw); });
        while (!scheduler->idle()) scheduler->runDue();
        return sm;
      },
      [&] { return decapFloor(*lfib, backlog, *fChip); });
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
