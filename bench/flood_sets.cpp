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
// Each phase first checks that the machines and the floor left the chip the same requests, the
// same flood lists and the same sequence of member additions and removals, then reports:
//   members/s       flood-list members handled per second by the machines (the chip's own work
//                   is in both sides' time); floor_members/s the same for the floor
//   x_floor         machine time over floor time
//   B/member        ColdStart: live bytes of the machines, their outputs (the filtered flood
//                   sets included) and the chip's state, per member; floor_B/member the same
//   max_handling_us the longest single handling: one RIB write or one chip write with everything
//                   it set off
//
//   build/default/bench/flood_sets                                 # full scale: 4094 x 64
//   build/default/bench/flood_sets --fs_world=64,8,16              # another world
//   build/default/bench/flood_sets --fs_check_only --fs_world=...  # equivalence only, no timing
//   build/default/bench/flood_sets --fs_cpu_handlings              # handlings on the CPU clock

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include "BenchArgs.h"
#include "Kiv/Clock.h"
#include "L2Rib/FloodSet.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodSetFecSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetFilterSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetSm.h"

#include "CountingAllocator.h"

namespace {

using Bridging::MacVlanPair;
using Oba::MplsDestConfig;
using Oba::MplsFloodSetVia;
using Shoal::Fib::FecId;
using TunnelId = Tunnel::TunnelTable::TunnelId;

bool gCheckOnly = false;
bool gFailed = false;
// Every handling timed on the thread's CPU clock: the longest handling without preemption, at
// the price of a system call per handling (so the rates of such a run are not the ones to quote).
bool gCpuHandlings = false;

struct Shape {
  std::uint32_t vlans = 4094, pes = 64, labels = 4094;
  std::uint64_t members() const { return std::uint64_t(vlans) * pes; }
};
Shape gShape;

const Quil::EthAddr kBcast = Quil::EthAddr::broadcast();

// A phase's time is this thread's CPU time: the benchmark shares its cores with other work. That
// clock is a system call, too dear for every handling, which is timed on the monotonic clock
// (a handling preempted halfway counts the other work as its own: see max_handling_at_member).
struct Stopwatch {
  using time_point = double;
  static double now() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }
};
double since(double t) { return Stopwatch::now() - t; }
using Wall = std::chrono::steady_clock;

// The longest single handling seen, which RIB member was being handled when it came (the count
// of RIB writes so far), and its timer.
double gLongest = 0;
std::uint64_t gRibWrites = 0, gLongestAt = 0;
template <class F>
void timed(F f) {
  double d;
  if (gCpuHandlings) {
    double t = Stopwatch::now();
    f();
    d = since(t);
  } else {
    auto t = Wall::now();
    f();
    d = std::chrono::duration<double>(Wall::now() - t).count();
  }
  if (d > gLongest) {
    gLongest = d;
    gLongestAt = gRibWrites;
  }
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

  void start() {
    filter = Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeMpls_, rib.floodSets, mplsFloodSets);
    fecSm = Oba::evpnFloodSetFecSmFactory(mplsFloodSets, rib.tunnels, chip.hwStatus, chip.request,
                                          chip.response, hwInfo, wheel);
    vlanSm = Oba::evpnVlanFloodSetSmFactory(mplsFloodSets, rib.tunnels, hwInfo, chip.hwConfig,
                                            chip.hwStatus);
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

bool checkedRates(benchmark::State& state, const Chip& m, const Chip& f, double machine,
                  double floor) {
  if (!sameWrites(state, m, f)) return false;
  state.SetIterationTime(machine);
  if (gCheckOnly) return false;
  state.counters["members/s"] = double(gShape.members()) / machine;
  state.counters["floor_members/s"] = double(gShape.members()) / floor;
  state.counters["x_floor"] = machine / floor;
  return true;
}

void BM_ColdStart(benchmark::State& state) {
  for (auto _ : state) {
    // The RIB's own share, to be taken off: its flood sets filled without anyone watching.
    std::size_t before = gLiveBytes;
    double ribBytes;
    {
      Rib alone;
      for (std::uint32_t v = 0; v < gShape.vlans; ++v) alone.fillVlan(v, [](auto, auto) {});
      ribBytes = double(gLiveBytes - before);
    }
    before = gLiveBytes;
    auto m = std::make_unique<MachineSide>();
    m->start();
    gLongest = 0;
    gRibWrites = 0;
    auto t = Stopwatch::now();
    m->coldStart();
    double machine = since(t);
    double longest = gLongest;
    std::uint64_t longestAt = gLongestAt;
    double bytes = double(gLiveBytes - before) - ribBytes;
    before = gLiveBytes;
    auto f = std::make_unique<Floor>();
    t = Stopwatch::now();
    f->coldStart();
    double floor = since(t);
    double floorBytes = double(gLiveBytes - before) - ribBytes;
    if (!checkedRates(state, m->chip, f->chip, machine, floor)) continue;
    state.counters["B/member"] = bytes / double(gShape.members());
    state.counters["floor_B/member"] = floorBytes / double(gShape.members());
    state.counters["max_handling_us"] = longest * 1e6;
    state.counters["max_handling_at_member"] = double(longestAt);
  }
}

void BM_HwIdStorm(benchmark::State& state) {
  for (auto _ : state) {
    auto m = std::make_unique<MachineSide>();
    m->start();
    m->coldStart();
    auto f = std::make_unique<Floor>();
    f->coldStart();
    gLongest = 0;
    auto t = Stopwatch::now();
    m->chip.renumberAll();
    m->chip.drain();
    double machine = since(t);
    double longest = gLongest;
    t = Stopwatch::now();
    f->chip.renumberAll();
    f->chip.drain();
    double floor = since(t);
    if (!checkedRates(state, m->chip, f->chip, machine, floor)) continue;
    state.counters["max_handling_us"] = longest * 1e6;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool ok = Bench::initialize(argc, argv, [](const char* a) {
    if (std::strcmp(a, "--fs_check_only") == 0) {
      gCheckOnly = true;
    } else if (std::strcmp(a, "--fs_cpu_handlings") == 0) {
      gCpuHandlings = true;
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
