// MPLS flood lists at full VLAN scale: the RIB's flood sets through the flood-set filter, the
// flood-set FEC machine and the VLAN flood-set machine, with a counting chip that answers FEC
// requests and reports flood-list members programmed; beside a floor that makes the same
// chip-visible writes by hand with std::unordered_map.
//
// The world: `vlans` VLANs, each with one broadcast flood list of `pes` remote PEs; the member of
// VLAN v toward PE p is the pair (tunnel p, label 1000 + v mod `labels`). With `labels` = `vlans`
// (the default) every pair is one VLAN's own; with fewer, each pair serves vlans / labels VLANs.
//
// Phases, one benchmark each:
//   ColdStart  the machines made over empty inputs, then the RIB fills VLAN by VLAN; the chip
//              answers what each VLAN asked for before the next VLAN comes
//   HwIdStorm  the chip gives every FEC a new hardware id; every member is rewritten, the new
//              value added before the old one goes, and the chip reports on both
// Each phase runs twice over. The watched run checks that the machines and the floor left the chip
// the same requests, the same flood lists and the same sequence of member additions and removals,
// counts memory and allocations, and times every handling of the machines (one RIB write or one
// chip write with everything it set off) on the CPU clock; the timed run then times each side's
// whole phase on the CPU clock (the chip's own work is in both). Figures (BenchFigures.h):
//   members/s, floor_members/s   flood-list members handled per second; x_floor their ratio
//   B/member, floor_B/member     live bytes of the machines, their outputs (the filtered flood
//                                sets included) and the chip's state, less the RIB's own, per
//                                member; the floor's the same (HwIdStorm: the state it starts from)
//   allocs/member, floor_...     allocations per member in the watched run, less the RIB's own
//   max_cpu_us, p99_cpu_us       the longest handling, the 99th percentile over all of them
//   max_handling_at_member       the RIB member being handled when the longest came
//   sync_start_ms                ColdStart: the longest of the three machines' constructions
// No scheduler runs here: the machines act on each write as it comes.
//
//   build/default/bench/flood_sets                                 # full scale: 4094 x 64
//   build/default/bench/flood_sets --fs_world=64,8,16              # another world
//   build/default/bench/flood_sets --fs_check_only --fs_world=...  # equivalence only, no timing

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include "BenchArgs.h"
#include "BenchFigures.h"
#include "Kiv/Clock.h"
#include "L2Rib/FloodSet.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodSetFecSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetFilterSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetSm.h"

namespace {

using Bridging::MacVlanPair;
using Oba::MplsDestConfig;
using Oba::MplsFloodSetVia;
using Shoal::Fib::FecId;
using TunnelId = Tunnel::TunnelTable::TunnelId;

bool gCheckOnly = false;
bool gFailed = false;

struct Shape {
  std::uint32_t vlans = 4094, pes = 64, labels = 4094;
  std::uint64_t members() const { return std::uint64_t(vlans) * pes; }
};
Shape gShape;

const Quil::EthAddr kBcast = Quil::EthAddr::broadcast();

// A phase's time is this thread's CPU time: the benchmark shares its cores with other work.
double since(double t) { return Bench::cpuNow() - t; }

// The watched run's handlings (null in timed runs), which RIB member is being handled (the count
// of RIB writes so far), and at which the longest handling came.
Bench::Durations* gWatch = nullptr;
std::uint64_t gRibWrites = 0, gLongestAt = 0;
template <class F>
void timed(F f) {
  if (!gWatch) {
    f();
    return;
  }
  const double longest = gWatch->longest();
  Bench::handling(gWatch, f);
  if (gWatch->longest() > longest) gLongestAt = gRibWrites;
}

TunnelId tunnelOf(std::uint32_t pe) { return TunnelId((1ull << 32) | (pe + 1)); }
L2Rib::Dest destOf(std::uint32_t vlan, std::uint32_t pe) {
  return L2Rib::Dest::mpls(tunnelOf(pe), Quil::MplsLabel(1000 + vlan % gShape.labels));
}
Bridging::VlanId vlanIdOf(std::uint32_t v) { return Bridging::VlanId(std::uint16_t(v + 1)); }

// The chip: acts on each new or changed FEC request (an answer: the layer-2 interface, then the
// hardware id row) and on each member added to or removed from a flood list (its result), in the
// order they came, when drained. It keeps an order-sensitive digest of the member changes.
struct Chip : Oba::FecIdToHwFecIdRequest::NotifieeConst,
              Oba::EvpnVlanFloodSetHwConfig::NotifieeConst {
  struct List : Oba::VlanFloodSetConfig::NotifieeConst {
    Chip* chip;
    void onMplsDestConfig(const MplsDestConfig& c) override {
      chip->memberChanged(notifier()->macVlanPair(), c, notifier()->mplsDestConfigHas(c));
    }
  };
  struct Report {
    MacVlanPair pair;
    MplsDestConfig config;
    bool programmed;
  };

  Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request = new Oba::FecIdToHwFecIdRequest("fecRequest");
  Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response = new Oba::FecIdToHwFecIdResponse("fecResponse");
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> hwConfig = new Oba::EvpnVlanFloodSetHwConfig;
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> hwStatus = new Oba::EvpnVlanFloodSetHwStatus;
  std::unordered_map<FecId, Oba::HwFecIdRequest> actedOn;
  std::unordered_map<MacVlanPair, std::unique_ptr<List>> lists;
  std::deque<FecId> toAnswer;
  std::deque<Report> toReport;
  std::uint64_t nextHwId = 1;
  std::uint64_t memberAdds = 0, memberRemoves = 0, digest = 0;

  Chip() {
    // Sized up front, so that the chip's own growth is not counted in a machine's handling.
    actedOn.reserve(gShape.members());
    Oba::FecIdToHwFecIdRequest::NotifieeConst::notifierIs(request);
    Oba::EvpnVlanFloodSetHwConfig::NotifieeConst::notifierIs(hwConfig);
  }
  void onHwFecIdRequest(const FecId& id) override {
    auto row = request->hwFecIdRequest(id);
    if (!row.found) return;  // nothing in the bench withdraws a request
    auto [it, fresh] = actedOn.try_emplace(id, row.row);
    if (!fresh && it->second == row.row) return;  // issued again unchanged
    it->second = row.row;
    toAnswer.push_back(id);
  }
  void onConfig(const MacVlanPair& pair) override {
    auto config = hwConfig->config(pair);
    if (!config) {
      lists.erase(pair);
      return;
    }
    auto& list = lists[pair];
    if (list) return;
    list = std::make_unique<List>();
    list->chip = this;
    list->notifierIs(config);
  }
  void memberChanged(const MacVlanPair& pair, const MplsDestConfig& c, bool added) {
    ++(added ? memberAdds : memberRemoves);
    digest = digest * 1000003 + (std::uint64_t(c.hash()) << 1 | added) + pair.hash();
    toReport.push_back(Report{pair, c, added});
  }
  // Every FEC answered gets a new hardware id.
  void renumberAll() {
    for (auto& [id, req] : actedOn) toAnswer.push_back(id);
  }
  void answer(FecId id) {
    auto intf = Quil::IntfId::ethernet(std::uint32_t(1 + id.value() % 64));
    if (!response->l2IntfId(id).found) timed([&] { response->l2IntfIdIs(id, intf); });
    const std::uint64_t hwId = nextHwId++;
    timed([&] { response->hwFecIdIs(Oba::FecToHwFecId(id, hwId)); });
  }
  void drain() {
    while (!toAnswer.empty() || !toReport.empty()) {
      while (!toAnswer.empty()) {
        FecId id = toAnswer.front();
        toAnswer.pop_front();
        answer(id);
      }
      while (!toReport.empty()) {
        Report r = toReport.front();
        toReport.pop_front();
        timed([&] {
          auto status = hwStatus->statusIs(r.pair);
          if (r.programmed) {
            status->mplsDestStatusIs(r.config, Oba::HwProgrammingStatus::programmed);
          } else {
            status->mplsDestStatusDel(r.config);
          }
        });
      }
    }
  }
};

// The RIB's flood sets and the published hardware tunnel ids.
struct Rib {
  Kiv::Ptr<L2Rib::FloodSetOutput> floodSets = new L2Rib::FloodSetOutput("l2RibFloodSet");
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> tunnels =
      new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId");
  Rib() {
    for (std::uint32_t p = 0; p < gShape.pes; ++p) {
      tunnels->tunnelIdToHwTunnelIdIs(
          Oba::TunnelIdToHwTunnelId(tunnelOf(p), Oba::HwTunnelId(100 + p)));
    }
  }
  // One VLAN's flood list, member by member: the control plane's updates as they come.
  template <class Each>
  void fillVlan(std::uint32_t v, Each each) {
    auto fs = floodSets->vlanFloodSetIs(vlanIdOf(v))->floodSetIs(kBcast);
    fs->floodSetTypeIs(L2Rib::floodSetTypeBroadcast_);
    for (std::uint32_t p = 0; p < gShape.pes; ++p) {
      ++gRibWrites;
      timed([&] { fs->destSetIs(destOf(v, p), true); });
      each(v, p);
    }
  }
};

struct MachineSide {
  Rib rib;
  Chip chip;
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TimerWheel> wheel = Mox::TimerWheel::TimerWheelIs(clock);
  Kiv::Ptr<L2Rib::FloodSetOutput> mplsFloodSets = new L2Rib::FloodSetOutput("mplsFloodSet");
  Kiv::Ptr<Oba::HwInfoMapping> hwInfo = new Oba::HwInfoMapping;
  Kiv::Ptr<Oba::VlanFloodSetFilterSm> filter;
  Kiv::Ptr<Oba::EvpnFloodSetFecSm> fecSm;
  Kiv::Ptr<Oba::EvpnVlanFloodSetSm> vlanSm;

  // `build` runs each machine's construction (to time it).
  template <class Build>
  void start(Build&& build) {
    build([&] {
      filter = Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeMpls_, rib.floodSets, mplsFloodSets);
    });
    build([&] {
      fecSm = Oba::evpnFloodSetFecSmFactory(mplsFloodSets, rib.tunnels, chip.hwStatus, chip.request,
                                            chip.response, hwInfo, wheel);
    });
    build([&] {
      vlanSm = Oba::evpnVlanFloodSetSmFactory(mplsFloodSets, rib.tunnels, hwInfo, chip.hwConfig,
                                              chip.hwStatus);
    });
  }
  void start() {
    start([](auto&& make) { make(); });
  }
  void coldStart() {
    for (std::uint32_t v = 0; v < gShape.vlans; ++v) {
      rib.fillVlan(v, [](std::uint32_t, std::uint32_t) {});
      chip.drain();
    }
  }
};

// The floor: per pair its FEC id, its hardware identifiers and the flood lists it is in; the
// same writes to the same kind of chip, by hand.
struct Floor : Oba::FecIdToHwFecIdResponse::NotifieeConst {
  struct Pair {
    FecId fecId;
    MplsDestConfig written;
    std::vector<MacVlanPair> lists;
  };
  Rib rib;
  Chip chip;
  std::unordered_map<MplsFloodSetVia, Pair> pairs;
  std::unordered_map<FecId, MplsFloodSetVia> byId;
  std::uint64_t nextIndex = 0;

  Floor() {
    pairs.reserve(gShape.members());
    byId.reserve(gShape.members());
    notifierIs(chip.response);
  }
  void dest(std::uint32_t v, std::uint32_t p) {
    const L2Rib::Dest d = destOf(v, p);
    if (d.destType() != L2Rib::destTypeMpls_) return;
    const MplsFloodSetVia via(d.tunnelId(), d.label());
    auto [it, fresh] = pairs.try_emplace(via);
    Pair& pair = it->second;
    const MacVlanPair list{vlanIdOf(v), kBcast};
    pair.lists.push_back(list);
    if (fresh) {
      pair.fecId = FecId((12ull << 56) | nextIndex++);
      byId.emplace(pair.fecId, via);
      Shoal::Fib::Fec fec(pair.fecId);
      fec.viaIs(Shoal::Fib::Via(Shoal::Fib::EcmpIndex(0), via.label(), via.tunnelId()));
      chip.request->fecIs(fec);
      const auto hwTunnel = rib.tunnels->tunnelIdToHwTunnelId(via.tunnelId()).row.hwTunnelId();
      chip.request->hwFecIdRequestIs(Oba::HwFecIdRequest(pair.fecId, true, hwTunnel));
    } else if (!!pair.written) {
      chip.hwConfig->configIs(list)->mplsDestConfigIs(pair.written, true);
    }
  }
  void onHwFecId(const FecId& id) override { answered(id); }
  void onL2IntfId(const FecId& id) override { answered(id); }
  void answered(const FecId& id) {
    auto hwId = chip.response->hwFecId(id);
    auto intf = chip.response->l2IntfId(id);
    if (!hwId.found || intf.row.empty()) return;
    Pair& pair = pairs.at(byId.at(id));
    const MplsFloodSetVia& via = byId.at(id);
    const MplsDestConfig config(via.tunnelId(), via.label(),
                                rib.tunnels->tunnelIdToHwTunnelId(via.tunnelId()).row.hwTunnelId(),
                                hwId.row.hwFecId(), intf.row);
    if (config == pair.written) return;
    for (const MacVlanPair& list : pair.lists) {
      auto members = chip.hwConfig->configIs(list);
      members->mplsDestConfigIs(config, true);
      if (!!pair.written) members->mplsDestConfigDel(pair.written);
    }
    pair.written = config;
  }
  void coldStart() {
    for (std::uint32_t v = 0; v < gShape.vlans; ++v) {
      rib.fillVlan(v, [this](std::uint32_t vlan, std::uint32_t pe) { dest(vlan, pe); });
      chip.drain();
    }
  }
};

// The same requests, the same flood lists and the same member changes in the same order.
bool sameWrites(benchmark::State& state, const Chip& m, const Chip& f) {
  bool same = m.request->fecs() == f.request->fecs() &&
              m.request->hwFecIdRequests() == f.request->hwFecIdRequests() &&
              m.hwConfig->configs() == f.hwConfig->configs() && m.memberAdds == f.memberAdds &&
              m.memberRemoves == f.memberRemoves && m.digest == f.digest;
  for (auto&& e : m.request->fecWalk()) same &= f.request->fec(e.key).row == e.value;
  for (auto&& e : m.request->hwFecIdRequestWalk()) {
    same &= f.request->hwFecIdRequest(e.key).row == e.value;
  }
  for (auto [pair, list] : m.hwConfig->configWalk()) {
    auto other = f.hwConfig->config(pair);
    same &= other && other->mplsDestConfigs() == list->mplsDestConfigs();
    if (!other) continue;
    for (auto [c, in] : list->mplsDestConfigWalk()) same &= other->mplsDestConfigHas(c);
  }
  same &= m.memberAdds >= gShape.members();
  if (!same) {
    state.SkipWithError("the machines and the floor left the chip different writes");
    gFailed = true;
  }
  return same;
}

// The RIB's own share of the heap, to be taken off both sides': its flood sets filled without
// anyone watching.
struct RibShare {
  double bytes = 0, allocations = 0;
  RibShare() {
    Bench::HeapMark heap;
    Rib alone;
    for (std::uint32_t v = 0; v < gShape.vlans; ++v) alone.fillVlan(v, [](auto, auto) {});
    bytes = heap.bytesSince();
    allocations = heap.allocationsSince();
  }
};

void BM_ColdStart(benchmark::State& state) {
  for (auto _ : state) {
    const RibShare rib;
    Bench::Figures fig("member");
    fig.entries = double(gShape.members());
    {
      Bench::HeapMark heap;
      auto m = std::make_unique<MachineSide>();
      m->start([&](auto&& make) { fig.construction(make); });
      gRibWrites = 0;
      gWatch = &fig.handlings;
      m->coldStart();
      gWatch = nullptr;
      fig.machines.bytes = heap.bytesSince() - rib.bytes;
      fig.machines.allocations = heap.allocationsSince() - rib.allocations;
      Bench::HeapMark floorHeap;
      auto f = std::make_unique<Floor>();
      f->coldStart();
      fig.floor.bytes = floorHeap.bytesSince() - rib.bytes;
      fig.floor.allocations = floorHeap.allocationsSince() - rib.allocations;
      if (!sameWrites(state, m->chip, f->chip)) continue;
    }
    state.SetIterationTime(0);
    if (gCheckOnly) continue;
    auto m = std::make_unique<MachineSide>();
    m->start();
    auto t = Bench::cpuNow();
    m->coldStart();
    const double machine = since(t);
    auto f = std::make_unique<Floor>();
    t = Bench::cpuNow();
    f->coldStart();
    const double floor = since(t);
    if (!sameWrites(state, m->chip, f->chip)) continue;
    state.SetIterationTime(machine);
    fig.timed(machine, floor, double(gShape.members()));
    fig.publish(state);
    state.counters["max_handling_at_member"] = double(gLongestAt);
  }
}

// Every FEC renumbered and drained: the watched storm, then the timed one.
void BM_HwIdStorm(benchmark::State& state) {
  for (auto _ : state) {
    const RibShare rib;
    Bench::Figures fig("member");
    fig.entries = double(gShape.members());
    Bench::HeapMark heap;
    auto m = std::make_unique<MachineSide>();
    m->start();
    m->coldStart();
    fig.machines.bytes = heap.bytesSince() - rib.bytes;
    Bench::HeapMark floorHeap;
    auto f = std::make_unique<Floor>();
    f->coldStart();
    fig.floor.bytes = floorHeap.bytesSince() - rib.bytes;
    gRibWrites = 0;
    gWatch = &fig.handlings;
    Bench::HeapMark stormHeap;
    m->chip.renumberAll();
    m->chip.drain();
    fig.machines.allocations = stormHeap.allocationsSince();
    gWatch = nullptr;
    Bench::HeapMark floorStormHeap;
    f->chip.renumberAll();
    f->chip.drain();
    fig.floor.allocations = floorStormHeap.allocationsSince();
    if (!sameWrites(state, m->chip, f->chip)) continue;
    state.SetIterationTime(0);
    if (gCheckOnly) continue;
    auto t = Bench::cpuNow();
    m->chip.renumberAll();
    m->chip.drain();
    const double machine = since(t);
    t = Bench::cpuNow();
    f->chip.renumberAll();
    f->chip.drain();
    const double floor = since(t);
    if (!sameWrites(state, m->chip, f->chip)) continue;
    state.SetIterationTime(machine);
    fig.timed(machine, floor, double(gShape.members()));
    fig.publish(state);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool ok = Bench::initialize(argc, argv, [](const char* a) {
    if (std::strcmp(a, "--fs_check_only") == 0) {
      gCheckOnly = true;
    } else if (std::strncmp(a, "--fs_world=", 11) == 0) {
      Shape& s = gShape;
      if (std::sscanf(a + 11, "%u,%u,%u", &s.vlans, &s.pes, &s.labels) != 3 || !s.vlans ||
          s.vlans > 4094 || !s.pes || !s.labels) {
        std::fprintf(stderr, "flood_sets: --fs_world wants VLANS(1-4094),PES,LABELS\n");
        return Bench::Flag::bad;
      }
    } else {
      return Bench::Flag::other;
    }
    return Bench::Flag::taken;
  });
  if (!ok) return 2;
  Bench::once("ColdStart", BM_ColdStart);
  Bench::once("HwIdStorm", BM_HwIdStorm);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return gFailed ? 1 : 0;
}
