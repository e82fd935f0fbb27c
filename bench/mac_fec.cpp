// MAC-address FEC requests at RIB scale: the MAC-address FEC machine over a virtual-time scheduler,
// beside a floor that makes the same requests by hand with std::unordered_map.
//
// The RIB: `dests` tunnel destinations, `lbs` load balances of four destinations each, `labels`
// labels (label l points at load balance l / 25 when l is a multiple of 25, else at destination
// l mod dests) and `hosts` hosts (host h points at label h mod labels). Two-level chains.
//
// Phases, one benchmark each:
//   ColdStart  the machine made over the full tables, drained by its review task
//   HostMove   every host moves to the next label (a storm of host changes), handled as they come
// Each phase checks that the machine and the floor published the same requests (per RIB object:
// its FEC's vias, and whether its hardware id is requested). The scheduler runs with the 1 ms time
// slice an agent has. Figures (BenchFigures.h): hosts/s and floor_hosts/s, x_floor, B/host and
// floor_B/host (live bytes of each side's state and the requests it published, per host),
// allocs/host and floor_allocs/host, max_cpu_us and p99_cpu_us (ColdStart: the machine's task
// runs; HostMove: its handling of each host change; on the CPU clock), and for ColdStart
// sync_start_ms (the machine's construction, which queues every RIB object for the review).
//
// ColdStart's work is all task runs, timed one by one at no cost that shows, so its one run is
// both watched and timed. HostMove's changes are handled as they come: a storm to the next label
// is watched (each handling timed on the CPU clock), then one to the label after is timed.
//
//   build/default/bench/mac_fec                                    # full scale: 1M hosts
//   build/default/bench/mac_fec --mac_world=10000,1000,40,10       # another world
//   build/default/bench/mac_fec --mac_check_only --mac_world=...   # equivalence only, no timing

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "BenchArgs.h"
#include "BenchFigures.h"
#include "Kiv/Clock.h"
#include "L2Rib/RibOutputs.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaFecRecords.h"
#include "ObaEvpn/ObaMacAddrFecRequestSm.h"

namespace {

using L2Rib::ObjTuple;
using Shoal::Fib::EcmpIndex;
using Shoal::Fib::Fec;
using Shoal::Fib::FecId;
using Shoal::Fib::Via;
using Stopwatch = std::chrono::steady_clock;
using TunnelId = Tunnel::TunnelTable::TunnelId;

bool gCheckOnly = false;
bool gFailed = false;

struct Shape {
  std::uint32_t hosts = 1'000'000, labels = 100'000, lbs = 4'000, dests = 1'000;
};
Shape gShape;

double since(Stopwatch::time_point t) {
  return std::chrono::duration<double>(Stopwatch::now() - t).count();
}

Bridging::MacVlanPair hostKey(std::uint32_t h) {
  return {Bridging::VlanId(std::uint16_t(1 + h % 4000)), Quil::EthAddr(0x020000000000ull + h)};
}

// The RIB's tables, filled.
struct Rib {
  Kiv::Ptr<L2Rib::LabelOutput> labels = new L2Rib::LabelOutput("label");
  Kiv::Ptr<L2Rib::LoadBalanceOutput> lbs = new L2Rib::LoadBalanceOutput("lb");
  Kiv::Ptr<L2Rib::DestOutput> dests = new L2Rib::DestOutput("dest");
  Kiv::Ptr<L2Rib::HostOutput> hosts = new L2Rib::HostOutput("host");

  explicit Rib(const Shape& s) {
    for (std::uint32_t d = 0; d < s.dests; ++d) {
      dests->destIs(L2Rib::DestId(d), L2Rib::Dest::tunnel(TunnelId((1ull << 32) | d)));
    }
    for (std::uint32_t b = 0; b < s.lbs; ++b) {
      std::vector<ObjTuple> next;
      for (std::uint32_t i = 0; i < 4; ++i)
        next.push_back(ObjTuple::dest(L2Rib::DestId((b + i) % s.dests)));
      lbs->loadBalanceIs(L2Rib::LoadBalanceId(b), L2Rib::LoadBalance(std::move(next)));
    }
    for (std::uint32_t l = 0; l < s.labels; ++l) {
      ObjTuple next = l % 25 == 0 ? ObjTuple::loadBalance(L2Rib::LoadBalanceId(l / 25 % s.lbs))
                                  : ObjTuple::dest(L2Rib::DestId(l % s.dests));
      labels->labelIs(L2Rib::LabelId(l), L2Rib::Label(Quil::MplsLabel(16 + l), next));
    }
    for (std::uint32_t h = 0; h < s.hosts; ++h) hostIs(h, h % s.labels);
  }
  void hostIs(std::uint32_t h, std::uint32_t l) {
    hosts->hostIs(hostKey(h), L2Rib::HostAndSource(ObjTuple::label(L2Rib::LabelId(l))));
  }
};

// The floor: the same requests from plain hash maps, each host handled by hand.
struct Floor {
  struct Head {
    std::uint32_t hosts = 0;
    Fec fec;
  };
  explicit Floor(const Rib& r) : rib(r) {}
  const Rib& rib;
  std::unordered_map<Bridging::MacVlanPair, ObjTuple> hostTuple;
  std::unordered_map<ObjTuple, Head> heads;
  std::unordered_map<FecId, ObjTuple> requests;
  std::uint64_t nextNumber = 1;

  TunnelId tunnelOf(ObjTuple d) const { return rib.dests->dest(d.destId()).row.tunnel(); }
  Fec build(ObjTuple t) {
    Fec fec(FecId::encode(Shoal::Fib::FecIdAdjType::tunnel, nextNumber++));
    L2Rib::Label label = rib.labels->label(t.labelId()).row;
    if (label.next().tableType() == L2Rib::tableTypeDest_) {
      fec.viaIs(Via(EcmpIndex(0), label.mplsLabel(), tunnelOf(label.next())));
      return fec;
    }
    L2Rib::LoadBalance lb = rib.lbs->loadBalance(label.next().loadBalanceId()).row;
    for (std::uint32_t i = 0; i < lb.next().size(); ++i) {
      fec.viaIs(Via(EcmpIndex(i), label.mplsLabel(), tunnelOf(lb.next()[i])));
    }
    return fec;
  }
  void host(const Bridging::MacVlanPair& key) {
    ObjTuple t = rib.hosts->host(key).row.objTuple();
    auto [it, fresh] = hostTuple.try_emplace(key, t);
    if (!fresh) {
      if (it->second == t) return;
      auto old = heads.find(it->second);
      if (--old->second.hosts == 0) {
        requests.erase(old->second.fec.fecId());
        heads.erase(old);
      }
      it->second = t;
    }
    Head& head = heads[t];
    if (head.hosts++ == 0) {
      head.fec = build(t);
      requests.emplace(head.fec.fecId(), t);
    }
  }
};

struct MachineSide {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Mox::TimerWheel> wheel = Mox::TimerWheel::TimerWheelIs(clock);
  Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response = new Oba::FecIdToHwFecIdResponse("response");
  Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request = new Oba::FecIdToHwFecIdRequest("request");
  Kiv::Ptr<Oba::ObjTupleToHwId> result = new Oba::ObjTupleToHwId("result");
  Kiv::Ptr<Oba::ObaMacAddrFecRequestSm> sm;

  MachineSide() { scheduler->timeSliceIs(Bench::kTimeSlice); }  // what an agent's has
  void start(const Rib& rib) {
    sm = Oba::obaMacAddrFecRequestSmFactory(rib.labels, rib.lbs, rib.dests, rib.hosts, response,
                                            request, result, wheel, scheduler);
  }
  void drain() {
    while (!sm->backLogQsDrained()) scheduler->advanceBy(sm->reviewInterval());
  }
};

// The same requests: per RIB object the same vias, and the same objects requested.
bool sameRequests(benchmark::State& state, const MachineSide& m, const Floor& f) {
  std::size_t requested = 0;
  bool same = m.request->objTupleToFecIds() == f.heads.size();
  for (auto&& e : m.request->objTupleToFecIdWalk()) {
    auto head = f.heads.find(e.key);
    if (head == f.heads.end()) {
      same = false;
      break;
    }
    same &= m.request->fec(e.value.fecId()).row.via() == head->second.fec.via();
    requested += m.request->hwFecIdRequest(e.value.fecId()).found;
  }
  same &= requested == f.requests.size() && m.request->hwFecIdRequests() == f.requests.size();
  if (!same) {
    state.SkipWithError("the machine and the floor published different requests");
    gFailed = true;
  }
  return same;
}

// Every host to `shift` labels on from its first; on the floor each change is handled at once.
void storm(Rib& rib, std::uint32_t shift, Bench::Durations* watch) {
  for (std::uint32_t h = 0; h < gShape.hosts; ++h) {
    Bench::handling(watch, [&] { rib.hostIs(h, (h + shift) % gShape.labels); });
  }
}
void storm(Rib& rib, Floor& f, std::uint32_t shift) {
  for (std::uint32_t h = 0; h < gShape.hosts; ++h) {
    rib.hostIs(h, (h + shift) % gShape.labels);
    f.host(hostKey(h));
  }
}

void BM_ColdStart(benchmark::State& state) {
  for (auto _ : state) {
    Rib rib(gShape);
    MachineSide m;
    Bench::Figures fig("host");
    fig.entries = gShape.hosts;
    Bench::HeapMark heap;
    auto t = Stopwatch::now();
    {
      Bench::TaskRunWatch runs(*m.scheduler, fig.handlings);
      fig.construction([&] { m.start(rib); });
      m.drain();
    }
    const double machine = since(t);
    fig.machines.bytes = heap.bytesSince();
    fig.machines.allocations = heap.allocationsSince();
    Floor f(rib);
    Bench::HeapMark floorHeap;
    t = Stopwatch::now();
    for (auto&& e : rib.hosts->hostWalk()) f.host(e.key);
    const double floor = since(t);
    fig.floor.bytes = floorHeap.bytesSince();
    fig.floor.allocations = floorHeap.allocationsSince();
    if (!sameRequests(state, m, f)) continue;
    state.SetIterationTime(machine);
    if (gCheckOnly) continue;
    fig.timed(machine, floor, gShape.hosts);
    fig.publish(state);
  }
}

void BM_HostMove(benchmark::State& state) {
  for (auto _ : state) {
    Rib rib(gShape), floorRib(gShape);
    MachineSide m;
    Bench::Figures fig("host");
    fig.entries = gShape.hosts;
    Bench::HeapMark heap;
    m.start(rib);
    m.drain();
    fig.machines.bytes = heap.bytesSince();
    Floor f(floorRib);
    Bench::HeapMark floorHeap;
    for (auto&& e : floorRib.hosts->hostWalk()) f.host(e.key);
    fig.floor.bytes = floorHeap.bytesSince();
    Bench::HeapMark moved;  // no task runs: the machine handles each change as it comes
    storm(rib, 1, &fig.handlings);
    fig.machines.allocations = moved.allocationsSince();
    Bench::HeapMark floorMoved;
    storm(floorRib, f, 1);
    fig.floor.allocations = floorMoved.allocationsSince();
    if (!sameRequests(state, m, f)) continue;
    if (gCheckOnly) {
      state.SetIterationTime(0);
      continue;
    }
    auto t = Stopwatch::now();
    storm(rib, 2, nullptr);
    const double machine = since(t);
    t = Stopwatch::now();
    storm(floorRib, f, 2);
    const double floor = since(t);
    if (!sameRequests(state, m, f)) continue;
    state.SetIterationTime(machine);
    fig.timed(machine, floor, gShape.hosts);
    fig.publish(state);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool ok = Bench::initialize(argc, argv, [](const char* a) {
    if (std::strcmp(a, "--mac_check_only") == 0) {
      gCheckOnly = true;
    } else if (std::strncmp(a, "--mac_world=", 12) == 0) {
      Shape& s = gShape;
      if (std::sscanf(a + 12, "%u,%u,%u,%u", &s.hosts, &s.labels, &s.lbs, &s.dests) != 4 ||
          !s.labels || !s.lbs || !s.dests) {
        std::fprintf(stderr, "mac_fec: --mac_world wants HOSTS,LABELS,LBS,DESTS\n");
        return Bench::Flag::bad;
      }
    } else {
      return Bench::Flag::other;
    }
    return Bench::Flag::taken;
  });
  if (!ok) return 2;
  Bench::once("ColdStart", BM_ColdStart);
  Bench::once("HostMove", BM_HostMove);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return gFailed ? 1 : 0;
}
