// Designated-forwarder churn at fabric scale: the hardware tunnel-id machine and the ESI flooding
// machine, over a virtual-time scheduler and a counting chip, beside a floor that does the same
// work by hand with std::unordered_map and direct chip calls.
//
// The fabric: `segments` LAG segments (Port-Channel<s+1> over Ethernet<2s+1> and Ethernet<2s+2>),
// VLANs 1..`vlans` on every segment, and `endpoints` remote endpoints. Segment s has four candidate
// endpoints, 4s..4s+3 (modulo `endpoints`), each advertising an MPLS remote ESI label; every
// segment has a local ESI label. In round r the designated forwarder of (segment s, VLAN v) is
// candidate (s + v + r) mod 4, so each round moves every pair to another endpoint of its segment.
//
// Phases, one benchmark each, at 1/10 scale (13 segments, 52 endpoints) and full scale (128, 512):
//   ColdStart   both machines built over the full inputs
//   MoveAll     every pair's designated forwarder moves to the next candidate
//   WithdrawAll every designated forwarder is withdrawn (restored, untimed, between iterations)
//   MoveOne     one pair's designated forwarder moves, in the full world; pairs spread over it
// Each phase first runs once watched, with the chip digesting its calls, on the machines and on
// the floor, and fails unless both gave the chip the same multiset of calls; the timed iterations
// follow. The schedulers run with the 1 ms time slice an agent has. Figures per phase
// (BenchFigures.h): pairs/s and floor_pairs/s, x_floor, B/pair and floor_B/pair (state per pair),
// allocs/pair and floor_allocs/pair (per pair changed; MoveOne: per move), max_cpu_us and
// p99_cpu_us (the machines' handlings of one input change, and their task runs, on the CPU
// clock), and for ColdStart sync_start_ms (the longer of the two machines' constructions).
//
//   build/default/bench/df_churn --benchmark_filter=segments:13/         # 1/10 scale, seconds
//   build/default/bench/df_churn                                         # both scales
//   build/default/bench/df_churn --df_check_only --benchmark_min_time=0 # equivalence only
//   build/default/bench/df_churn --df_world=64,1000,256                  # another world
//
// Memory is counted by the replaced global operator new/delete of CountingAllocator.h (usable
// bytes of each block), not from the process size. The figures and their reading are in
// docs/performance.md.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchArgs.h"
#include "BenchFigures.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Clock.h"
#include "Mox/TaskScheduler.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaHelpers.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"
#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"

namespace {

using Bridging::VlanId;
using Evpn::EncapTypeLabel;
using Oba::HwProgrammingStatus;
using Oba::HwTunnelId;
using Quil::IntfId;
using Quil::MplsLabel;
using TunnelId = Tunnel::TunnelTable::TunnelId;
using Stopwatch = std::chrono::steady_clock;

bool gCheckOnly = false;  // --df_check_only: the equivalence check, no timed iterations
bool gFailed = false;     // a check failed: the program exits 1

double secondsBetween(Stopwatch::time_point a, Stopwatch::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// ---- the fabric ---------------------------------------------------------------------------------

struct Shape {
  int segments;
  int vlans;
  int endpoints;
  std::size_t pairs() const { return std::size_t(segments) * std::size_t(vlans); }
};

class Fabric {
 public:
  static constexpr int kCandidates = 4;

  explicit Fabric(Shape shape) : shape_(shape) {
    for (int s = 0; s < shape.segments; ++s) {
      lags_.push_back(IntfId::portChannel(std::uint32_t(s + 1)));
      members_.push_back(
          {IntfId::ethernet(std::uint32_t(2 * s + 1)), IntfId::ethernet(std::uint32_t(2 * s + 2))});
    }
    for (int e = 0; e < shape.endpoints; ++e) {
      teps_.push_back(Quil::DynamicTunnelIntfId::intfId((1ull << 32) | std::uint32_t(e + 1)));
    }
  }
  const Shape& shape() const { return shape_; }
  std::size_t pairs() const { return shape_.pairs(); }
  IntfId lag(int s) const { return lags_[std::size_t(s)]; }
  const std::array<IntfId, 2>& members(int s) const { return members_[std::size_t(s)]; }
  IntfId tep(int e) const { return teps_[std::size_t(e)]; }
  int candidate(int s, int j) const { return (kCandidates * s + j) % shape_.endpoints; }
  // The endpoint elected for (s, v) once its pair has moved `moves` times.
  int forwarder(int s, int v, int moves) const {
    return candidate(s, (s + v + moves) % kCandidates);
  }
  static EncapTypeLabel remoteLabel(int e) {
    return EncapTypeLabel::mpls(MplsLabel(std::uint32_t(100000 + e)));
  }
  static EncapTypeLabel localLabel(int s) {
    return EncapTypeLabel::mpls(MplsLabel(std::uint32_t(200000 + s)));
  }

 private:
  Shape shape_;
  std::vector<IntfId> lags_;
  std::vector<std::array<IntfId, 2>> members_;
  std::vector<IntfId> teps_;
};

// ---- the counting chip --------------------------------------------------------------------------
// Counts every call and answers at once. While `digesting`, it also folds each call into two
// order-independent sums of a 64-bit hash of the call, so two runs can be compared as multisets
// without recording them; the timed runs leave it off.

std::uint64_t mix(std::uint64_t h, std::uint64_t v) {
  h ^= v + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
  h ^= h >> 30;
  h *= 0xbf58476d1ce4e5b9ull;
  h ^= h >> 27;
  h *= 0x94d049bb133111ebull;
  return h ^ (h >> 31);
}

struct ChipLedger {
  std::uint64_t gets = 0;
  std::uint64_t refusedGets = 0;
  std::uint64_t releases = 0;
  std::uint64_t creates = 0;
  std::uint64_t deletes = 0;
  std::uint64_t sum = 0;
  std::uint64_t sumOfSquares = 0;
  bool digesting = false;

  void note(std::uint64_t callHash) {
    sum += callHash;
    sumOfSquares += callHash * callHash;
  }
  void restart(bool digest) { *this = ChipLedger{.digesting = digest}; }
  std::uint64_t calls() const { return gets + releases + creates + deletes; }
  bool sameCalls(const ChipLedger& o) const {
    return gets == o.gets && refusedGets == o.refusedGets && releases == o.releases &&
           creates == o.creates && deletes == o.deletes && sum == o.sum &&
           sumOfSquares == o.sumOfSquares;
  }
  std::string text() const {
    char buf[160];
    std::snprintf(buf, sizeof buf, "get %llu (refused %llu) release %llu create %llu delete %llu",
                  (unsigned long long)gets, (unsigned long long)refusedGets,
                  (unsigned long long)releases, (unsigned long long)creates,
                  (unsigned long long)deletes);
    return buf;
  }
};

// Hands out hardware tunnel ids 1..capacity, reusing released ones first (a free list).
class CountingTunnelIdChip : public ObaHelper::EvpnHwTunnelIdSmHelper {
 public:
  CountingTunnelIdChip(ChipLedger* ledger, std::uint32_t capacity)
      : EvpnHwTunnelIdSmHelper("df-churn tunnel ids"), ledger_(ledger), capacity_(capacity) {
    free_.reserve(capacity);
  }
  HwTunnelId getHwTunnelId() override {
    std::uint32_t id = 0;
    if (!free_.empty()) {
      id = free_.back();
      free_.pop_back();
    } else if (next_ <= capacity_) {
      id = next_++;
    }
    ++ledger_->gets;
    if (!id) ++ledger_->refusedGets;
    if (ledger_->digesting) ledger_->note(mix(1, id));
    return HwTunnelId(id);
  }
  void releaseHwTunnelId(HwTunnelId id) override {
    free_.push_back(id.value());
    ++ledger_->releases;
    if (ledger_->digesting) ledger_->note(mix(2, id.value()));
  }
  // Every id back, as a chip after a restart of the agent.
  void reset() {
    free_.clear();
    next_ = 1;
  }

 private:
  ChipLedger* ledger_;
  std::uint32_t capacity_;
  std::uint32_t next_ = 1;
  std::vector<std::uint32_t> free_;
};

class CountingEsiChip : public ObaHelper::EvpnFloodingSmHelper {
 public:
  explicit CountingEsiChip(ChipLedger* ledger)
      : EvpnFloodingSmHelper("df-churn esi"), ledger_(ledger) {}
  HwProgrammingStatus createEsiData(IntfId port, VlanId vlan, const TunnelId& tunnel, HwTunnelId hw,
                                    MplsLabel label, MplsLabel local) override {
    ++ledger_->creates;
    if (ledger_->digesting) {
      std::uint64_t h = mix(mix(mix(3, port.value()), vlan.value()), tunnel.value());
      ledger_->note(mix(mix(mix(h, hw.value()), label.value()), local.value()));
    }
    return HwProgrammingStatus::programmed;
  }
  void deleteEsiData(IntfId port, VlanId vlan) override {
    ++ledger_->deletes;
    if (ledger_->digesting) ledger_->note(mix(mix(4, port.value()), vlan.value()));
  }

 private:
  ChipLedger* ledger_;
};

// One side's chip: both helpers over one ledger.
struct Chip {
  explicit Chip(const Fabric& f)
      : ids(new CountingTunnelIdChip(&ledger, std::uint32_t(f.shape().endpoints))),
        esi(new CountingEsiChip(&ledger)) {}
  ChipLedger ledger;
  Kiv::Ptr<CountingTunnelIdChip> ids;
  Kiv::Ptr<CountingEsiChip> esi;
};

// ---- the machines' side -------------------------------------------------------------------------

// The inputs as the control plane and the LAG manager publish them, and the two machines over them.
class MachineSide {
 public:
  explicit MachineSide(const Fabric& f)
      : f_(f),
        chip_(f),
        evpn_(new Evpn::EvpnStatus),
        acsd_(new Oba::ObaCommonSmData),
        mapping_(new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId")),
        scheduler_(Mox::TaskScheduler::TaskSchedulerIs(new Kiv::VirtualClock)) {
    scheduler_->timeSliceIs(Bench::kTimeSlice);  // what an agent's scheduler has
    for (int s = 0; s < f.shape().segments; ++s) {
      auto ess = evpn_->segmentStatusIs(f.lag(s));
      segments_.push_back(ess);
      for (int j = 0; j < Fabric::kCandidates; ++j) {
        ess->remoteEsiLabelIs(f.tep(f.candidate(s, j)), Fabric::remoteLabel(f.candidate(s, j)));
      }
      evpn_->localEsiLabelIs(f.lag(s), Fabric::localLabel(s));
      acsd_->lagToPortIs(f.lag(s), new Oba::ObaLagPortList({f.members(s)[0], f.members(s)[1]}));
    }
  }
  ~MachineSide() { machinesDel(); }

  ChipLedger& ledger() { return chip_.ledger; }

  Mox::TaskScheduler& scheduler() { return *scheduler_; }

  // The publisher of the id mapping first: the flooding machine then finds every id published.
  // `build` runs each machine's construction (to time it).
  template <class Build>
  void machinesIs(Build&& build) {
    build(
        [&] { hw_ = Oba::evpnHwTunnelIdSmFactory(chip_.ids, scheduler_, acsd_, evpn_, mapping_); });
    build([&] {
      flooding_ = Oba::evpnFloodingEsiSmFactory(chip_.esi, scheduler_, acsd_, evpn_, mapping_);
    });
  }
  // The machines go without a last pass; the chip and the mapping start again from nothing.
  void machinesDel() {
    flooding_ = nullptr;
    hw_ = nullptr;
    mapping_->tunnelIdToHwTunnelIdDelAll();
    chip_.ids->reset();
  }

  void dfIs(int s, int v, int e) {
    segments_[std::size_t(s)]->designatedForwarderTepIs(VlanId(std::uint16_t(v)), f_.tep(e));
  }
  void dfDel(int s, int v) {
    segments_[std::size_t(s)]->designatedForwarderTepDel(VlanId(std::uint16_t(v)));
  }
  void settle() { scheduler_->runDue(); }

 private:
  const Fabric& f_;
  Chip chip_;
  Kiv::Ptr<Evpn::EvpnStatus> evpn_;
  Kiv::Ptr<Oba::ObaCommonSmData> acsd_;
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> mapping_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
  std::vector<Kiv::Ptr<Evpn::EthernetSegmentStatus>> segments_;
  Kiv::Ptr<Oba::EvpnHwTunnelIdSm> hw_;
  Kiv::Ptr<Oba::EvpnFloodingEsiSm> flooding_;
};

// ---- the floor ----------------------------------------------------------------------------------

// What both machines do for one designated-forwarder change, written by hand: the pair leaves its
// old tunnel (its ports' ESI entries go, and the tunnel's id is released when its last user
// leaves), the new tunnel gets an id while it has none, and the pair's ports are programmed once
// the id, both labels and the LAG members are known. Calls reach the chip in the machines' order
// (release before get), so both sides are handed the same ids. The chip of this benchmark never
// refuses, so the floor keeps no retry state.
class Floor {
 public:
  Floor(const Fabric& f, ObaHelper::EvpnHwTunnelIdSmHelper* ids,
        ObaHelper::EvpnFloodingSmHelper* esi)
      : ids_(ids), esi_(esi) {
    for (int s = 0; s < f.shape().segments; ++s) {
      for (int j = 0; j < Fabric::kCandidates; ++j) {
        int e = f.candidate(s, j);
        remoteLabel_[Key{f.lag(s).value(), Quil::DynamicTunnelIntfId::tunnelId(f.tep(e))}] =
            Fabric::remoteLabel(e);
      }
      localLabel_[f.lag(s).value()] = Fabric::localLabel(s);
      members_[f.lag(s).value()] = {f.members(s)[0], f.members(s)[1]};
    }
  }

  void dfIs(IntfId seg, VlanId vlan, IntfId tep) {
    TunnelId tunnel(Quil::DynamicTunnelIntfId::tunnelId(tep));
    auto [it, fresh] = pairs_.try_emplace(Key{seg.value(), vlan.value()}, Pair{tunnel, false});
    if (!fresh) {
      if (it->second.tunnel == tunnel) return;
      leave(seg, vlan, it->second);
      it->second = Pair{tunnel, false};
    }
    Use& use = tunnels_[tunnel.value()];
    ++use.users;
    if (!use.hw.isValid()) use.hw = ids_->getHwTunnelId();
    if (use.hw.isValid()) program(seg, vlan, it->second, use.hw);
  }

  void dfDel(IntfId seg, VlanId vlan) {
    auto it = pairs_.find(Key{seg.value(), vlan.value()});
    if (it == pairs_.end()) return;
    leave(seg, vlan, it->second);
    pairs_.erase(it);
  }

 private:
  struct Key {
    std::uint64_t a;
    std::uint64_t b;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& k) const {
      return (k.a * 0x9e3779b97f4a7c15ull) ^ (k.b * 0xc2b2ae3d27d4eb4full);
    }
  };
  struct Pair {
    TunnelId tunnel;
    bool programmed;
  };
  struct Use {
    std::uint32_t users = 0;
    HwTunnelId hw;
  };

  void leave(IntfId seg, VlanId vlan, const Pair& pair) {
    Use& use = tunnels_.find(pair.tunnel.value())->second;
    if (pair.programmed) {
      for (IntfId port : members_.find(seg.value())->second) esi_->deleteEsiData(port, vlan);
    }
    if (--use.users == 0 && use.hw.isValid()) {
      ids_->releaseHwTunnelId(use.hw);
      use.hw = HwTunnelId();
    }
  }

  void program(IntfId seg, VlanId vlan, Pair& pair, HwTunnelId hw) {
    auto local = localLabel_.find(seg.value());
    if (local == localLabel_.end() || local->second == EncapTypeLabel()) return;
    auto remote = remoteLabel_.find(Key{seg.value(), pair.tunnel.value()});
    if (remote == remoteLabel_.end()) return;
    if (remote->second.encapType() != EncapTypeLabel::encapTypeMpls) return;
    auto members = members_.find(seg.value());
    if (members == members_.end() || members->second.empty()) return;
    for (IntfId port : members->second) {
      esi_->createEsiData(port, vlan, pair.tunnel, hw, remote->second.mplsLabel(),
                          local->second.mplsLabel());
    }
    pair.programmed = true;
  }

  ObaHelper::EvpnHwTunnelIdSmHelper* ids_;
  ObaHelper::EvpnFloodingSmHelper* esi_;
  std::unordered_map<Key, Pair, KeyHash> pairs_;    // (segment, VLAN) -> its DF tunnel
  std::unordered_map<std::uint64_t, Use> tunnels_;  // tunnel -> users and hardware id
  std::unordered_map<Key, EncapTypeLabel, KeyHash> remoteLabel_;    // (segment, tunnel) -> label
  std::unordered_map<std::uint64_t, EncapTypeLabel> localLabel_;    // segment -> label
  std::unordered_map<std::uint64_t, std::vector<IntfId>> members_;  // LAG -> member ports
};

// The floor with its chip, driven through the same calls as MachineSide.
class FloorSide {
 public:
  explicit FloorSide(const Fabric& f) : f_(f), chip_(f) { floorIs(); }
  ChipLedger& ledger() { return chip_.ledger; }
  // An empty floor over the same labels and members, and a chip with every id back.
  void floorIs() {
    floor_.reset();
    chip_.ids->reset();
    floor_.reset(new Floor(f_, chip_.ids.ptr(), chip_.esi.ptr()));
  }
  void dfIs(int s, int v, int e) { floor_->dfIs(f_.lag(s), VlanId(std::uint16_t(v)), f_.tep(e)); }
  void dfDel(int s, int v) { floor_->dfDel(f_.lag(s), VlanId(std::uint16_t(v))); }
  void settle() {}

 private:
  const Fabric& f_;
  Chip chip_;
  std::unique_ptr<Floor> floor_;
};

// ---- phases -------------------------------------------------------------------------------------
// A handling is one input change with what the machines did about it at once; the task runs that
// follow in settle() are timed by the scheduler. `watch` null: nothing timed.

// Every pair elected as after `moves` moves; a pair already there is no change.
template <class Side>
void electAll(Side& side, const Fabric& f, int moves, Bench::Durations* watch) {
  const Shape& sh = f.shape();
  for (int s = 0; s < sh.segments; ++s) {
    for (int v = 1; v <= sh.vlans; ++v) {
      Bench::handling(watch, [&] { side.dfIs(s, v, f.forwarder(s, v, moves)); });
    }
  }
  side.settle();
}

template <class Side>
void withdrawAll(Side& side, const Fabric& f, Bench::Durations* watch) {
  const Shape& sh = f.shape();
  for (int s = 0; s < sh.segments; ++s) {
    for (int v = 1; v <= sh.vlans; ++v) Bench::handling(watch, [&] { side.dfDel(s, v); });
  }
  side.settle();
}

// The pairs MoveOne moves, spread over the world: the i-th move is pair (i * stride) mod pairs.
struct OneMove {
  int s;
  int v;
  int e;
};
class MoveSequence {
 public:
  explicit MoveSequence(const Fabric& f) : f_(f), moves_(f.pairs(), 0) {}
  OneMove next() {
    std::size_t p = (i_++ * kStride) % f_.pairs();
    int s = int(p / std::size_t(f_.shape().vlans));
    int v = int(p % std::size_t(f_.shape().vlans)) + 1;
    return OneMove{s, v, f_.forwarder(s, v, ++moves_[p])};
  }

 private:
  static constexpr std::size_t kStride = 104729;  // prime: every pair comes round in turn
  const Fabric& f_;
  std::vector<std::uint8_t> moves_;  // per pair, modulo 256 (a multiple of 4 candidates)
  std::size_t i_ = 0;
};

// Times one iteration of a phase on the machines (the benchmark's own time), then the same
// changes on the floor.
template <class Machines, class Floor>
void timeBoth(benchmark::State& state, Bench::Figures& fig, double pairs, Machines machines,
              Floor floor) {
  auto t0 = Stopwatch::now();
  machines();
  auto t1 = Stopwatch::now();
  floor();
  auto t2 = Stopwatch::now();
  state.SetIterationTime(secondsBetween(t0, t1));
  fig.timed(secondsBetween(t0, t1), secondsBetween(t1, t2), pairs);
}

// Fails the benchmark, and the program, unless both sides gave their chip the same calls.
bool sameCalls(benchmark::State& state, const ChipLedger& machine, const ChipLedger& floor) {
  if (machine.sameCalls(floor) && !machine.refusedGets) return true;
  // A refused id would leave the machines retrying, which the floor does not model: the world is
  // sized so that it never happens.
  std::string why = std::string(machine.refusedGets ? "the chip ran out of tunnel ids: "
                                                    : "machine and floor chip calls differ: ") +
                    "machine " + machine.text() + "; floor " + floor.text();
  std::fprintf(stderr, "df_churn: %s\n", why.c_str());
  state.SkipWithError(why.c_str());
  gFailed = true;
  return false;
}

Fabric fabricOf(const benchmark::State& state) {
  return Fabric(Shape{int(state.range(0)), int(state.range(1)), int(state.range(2))});
}

// Each machine's construction as it is: nothing timed.
constexpr auto justBuild = [](auto&& make) { make(); };

void BM_ColdStart(benchmark::State& state) {
  Fabric f = fabricOf(state);
  MachineSide m(f);
  FloorSide fl(f);
  electAll(m, f, 0, nullptr);  // the inputs, before any machine exists
  Bench::Figures fig("pair");
  fig.entries = double(f.pairs());
  {
    m.ledger().restart(true);
    fl.ledger().restart(true);
    Bench::HeapMark heap;
    {
      Bench::TaskRunWatch runs(m.scheduler(), fig.handlings);
      m.machinesIs([&](auto&& make) { fig.construction(make); });
      m.settle();
    }
    fig.machines.bytes = heap.bytesSince();
    fig.machines.allocations = heap.allocationsSince();
    Bench::HeapMark floorHeap;
    electAll(fl, f, 0, nullptr);
    fig.floor.bytes = floorHeap.bytesSince();
    fig.floor.allocations = floorHeap.allocationsSince();
    if (!sameCalls(state, m.ledger(), fl.ledger())) return;
    m.ledger().restart(false);
    fl.ledger().restart(false);
  }
  for (auto _ : state) {
    if (gCheckOnly) continue;
    m.machinesDel();
    fl.floorIs();
    timeBoth(
        state, fig, double(f.pairs()),
        [&] {
          m.machinesIs(justBuild);
          m.settle();
        },
        [&] { electAll(fl, f, 0, nullptr); });
  }
  fig.publish(state);
}

// The world in its steady state: inputs, both machines and the floor, every pair elected.
struct SteadyWorld {
  explicit SteadyWorld(const Fabric& fabric) : f(fabric), m(f), fl(f) {
    electAll(m, f, 0, nullptr);
    Bench::HeapMark heap;
    m.machinesIs(justBuild);
    m.settle();
    machineBytes = heap.bytesSince();
    Bench::HeapMark floorHeap;
    electAll(fl, f, 0, nullptr);
    floorBytes = floorHeap.bytesSince();
  }
  const Fabric& f;
  MachineSide m;
  FloorSide fl;
  double machineBytes = 0;
  double floorBytes = 0;
};

// The phase's figures over the steady world: its state per pair, and the watched run of `phase`
// on both sides (each change a handling, allocations counted), which must give the same calls.
template <class Phase>
bool watchedRun(benchmark::State& state, SteadyWorld& w, Bench::Figures& fig, Phase phase) {
  fig.entries = double(w.f.pairs());
  fig.machines.bytes = w.machineBytes;
  fig.floor.bytes = w.floorBytes;
  w.m.ledger().restart(true);
  w.fl.ledger().restart(true);
  {
    Bench::TaskRunWatch runs(w.m.scheduler(), fig.handlings);
    Bench::HeapMark heap;
    phase(w.m, &fig.handlings);
    fig.machines.allocations = heap.allocationsSince();
  }
  Bench::HeapMark heap;
  phase(w.fl, nullptr);
  fig.floor.allocations = heap.allocationsSince();
  bool same = sameCalls(state, w.m.ledger(), w.fl.ledger());
  w.m.ledger().restart(false);
  w.fl.ledger().restart(false);
  return same;
}

void BM_MoveAll(benchmark::State& state) {
  Fabric f = fabricOf(state);
  SteadyWorld w(f);
  Bench::Figures fig("pair");
  int moves = 1;
  auto phase = [&](auto& side, Bench::Durations* watch) { electAll(side, f, moves, watch); };
  if (!watchedRun(state, w, fig, phase)) return;
  for (auto _ : state) {
    if (gCheckOnly) continue;
    ++moves;
    timeBoth(
        state, fig, double(f.pairs()), [&] { electAll(w.m, f, moves, nullptr); },
        [&] { electAll(w.fl, f, moves, nullptr); });
  }
  fig.publish(state);
}

void BM_WithdrawAll(benchmark::State& state) {
  Fabric f = fabricOf(state);
  SteadyWorld w(f);
  Bench::Figures fig("pair");
  auto phase = [&](auto& side, Bench::Durations* watch) { withdrawAll(side, f, watch); };
  if (!watchedRun(state, w, fig, phase)) return;
  for (auto _ : state) {
    if (gCheckOnly) continue;
    electAll(w.m, f, 0, nullptr);
    electAll(w.fl, f, 0, nullptr);
    timeBoth(
        state, fig, double(f.pairs()), [&] { withdrawAll(w.m, f, nullptr); },
        [&] { withdrawAll(w.fl, f, nullptr); });
  }
  fig.publish(state);
}

// Allocations are per move (of the 4096 watched), bytes per pair of the world.
void BM_MoveOne(benchmark::State& state) {
  Fabric f = fabricOf(state);
  SteadyWorld w(f);
  Bench::Figures fig("pair");
  MoveSequence seq(f);
  constexpr int kWatched = 4096;
  std::vector<OneMove> watched;
  for (int i = 0; i < kWatched; ++i) watched.push_back(seq.next());
  auto phase = [&](auto& side, Bench::Durations* watch) {
    for (const OneMove& mv : watched) {
      Bench::handling(watch, [&] { side.dfIs(mv.s, mv.v, mv.e); });
      side.settle();
    }
  };
  if (!watchedRun(state, w, fig, phase)) return;
  fig.watchedEntries = kWatched;
  for (auto _ : state) {
    if (gCheckOnly) continue;
    OneMove mv = seq.next();
    timeBoth(
        state, fig, 1,
        [&] {
          w.m.dfIs(mv.s, mv.v, mv.e);
          w.m.settle();
        },
        [&] { w.fl.dfIs(mv.s, mv.v, mv.e); });
  }
  fig.publish(state);
}

// "S,V,E" -> a shape; false when malformed.
bool parseShape(const char* text, Shape* out) {
  int s = 0, v = 0, e = 0;
  char tail = 0;
  if (std::sscanf(text, "%d,%d,%d%c", &s, &v, &e, &tail) != 3) return false;
  if (s < 1 || v < 1 || v > 4094 || e < Fabric::kCandidates || e > 100000) return false;
  *out = Shape{s, v, e};
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Shape> shapes{{13, 4094, 52}, {128, 4094, 512}};  // 1/10 and full scale
  const bool ok = Bench::initialize(argc, argv, [&](const char* a) {
    if (std::strcmp(a, "--df_check_only") == 0) {
      gCheckOnly = true;
    } else if (std::strncmp(a, "--df_world=", 11) == 0) {
      Shape shape;
      if (!parseShape(a + 11, &shape)) {
        std::fprintf(stderr,
                     "df_churn: --df_world wants SEGMENTS,VLANS,ENDPOINTS (VLANs up to "
                     "4094, at least 4 endpoints)\n");
        return Bench::Flag::bad;
      }
      shapes = {shape};
    } else {
      return Bench::Flag::other;
    }
    return Bench::Flag::taken;
  });
  if (!ok) return 2;

  struct Phase {
    const char* name;
    void (*run)(benchmark::State&);
  };
  for (Phase phase : {Phase{"ColdStart", BM_ColdStart}, Phase{"MoveAll", BM_MoveAll},
                      Phase{"WithdrawAll", BM_WithdrawAll}, Phase{"MoveOne", BM_MoveOne}}) {
    for (const Shape& sh : shapes) {
      auto* b = benchmark::RegisterBenchmark(phase.name, phase.run)
                    ->Args({sh.segments, sh.vlans, sh.endpoints})
                    ->ArgNames({"segments", "vlans", "endpoints"})
                    ->UseManualTime();
      b->Unit(std::string(phase.name) == "MoveOne" ? benchmark::kMicrosecond
                                                   : benchmark::kMillisecond);
      if (gCheckOnly) b->Iterations(1);
    }
  }
  std::size_t ran = benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (ran == 0) {
    std::fprintf(stderr, "df_churn: no benchmark matched\n");
    return 1;
  }
  return gFailed ? 1 : 0;
}
