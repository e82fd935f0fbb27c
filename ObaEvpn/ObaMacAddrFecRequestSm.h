#pragma once
// ObaMacAddrFecRequestSm turns the layer-2 RIB's remote MAC addresses into FEC requests. Each host
// (a MAC in a VLAN) points at an object of the RIB: a label, which points at a destination or a
// load balance, or a load balance, which points at destinations (or, in three-level chains, at
// labels). For each label or load balance that heads a chain a host uses, the machine builds a
// FEC (one via per path: an MPLS label over a tunnel), gives it a FEC id from its own allocator
// and publishes it in `fecRequest`; when hosts point at it directly it also asks for its hardware
// id, and copies the chip layer's answer from `fecResponse` into `objTupleToHwIdMap`.
//
// With maxChainLength 2 (the default) only the objects hosts point at get FECs, flattened down to
// the tunnels. With 3 every label and load balance gets one, and a label over a load balance is
// hierarchical: its one via names the load balance's FEC.
//
// Start-up only queues: every host and every RIB object goes into a backlog that the review task
// "reviewTask" drains, objects before hosts, yielding to the scheduler and resuming after
// `reviewInterval`. From then on each change is handled as it comes.
//
// The owning agent makes it with obaMacAddrFecRequestSmFactory(labelTable, lbTable, destTable,
// l2RibOutput, fecResponse, fecRequest, objTupleToHwIdMap, timerWheel, scheduler).

#include <cstdint>
#include <optional>
#include <vector>

#include "Bridging/MacVlanPair.h"
#include "Kiv/Reactor.h"
#include "L2Rib/ObjTuple.h"
#include "L2Rib/RibOutputs.h"
#include "Mox/NumAllocator.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaFecNumbers.h"
#include "Oba/ObaFecRecords.h"
#include "Shoal/Fib.h"

namespace Oba {

class OBA_EXPORT ObaMacAddrFecRequestSm : public Kiv::PtrInterface, public FecNumberAllocation {
 public:
  using ObjTuple = L2Rib::ObjTuple;
  using FecId = Shoal::Fib::FecId;
  using Fec = Shoal::Fib::Fec;

  static constexpr double reviewIntervalDefault = 0.5;
  static constexpr std::uint32_t maxChainLengthDefault = 2;
  // The allocator's numbers, encoded into FEC ids of the tunnel adjacency type.
  static constexpr Mox::Range fecNumberRange{1, (1 << 20) - 1};

  static Kiv::Ptr<ObaMacAddrFecRequestSm> ObaMacAddrFecRequestSmIs(
      const Kiv::Ptr<const L2Rib::LabelOutput>& labelTable,
      const Kiv::Ptr<const L2Rib::LoadBalanceOutput>& lbTable,
      const Kiv::Ptr<const L2Rib::DestOutput>& destTable,
      const Kiv::Ptr<const L2Rib::HostOutput>& l2RibOutput,
      const Kiv::Ptr<const FecIdToHwFecIdResponse>& fecResponse,
      const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest,
      const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap,
      const Kiv::Ptr<Mox::TimerWheel>& timerWheel, const Kiv::Ptr<Mox::TaskScheduler>& scheduler);
  ObaMacAddrFecRequestSm(const Kiv::Ptr<const L2Rib::LabelOutput>& labelTable,
                         const Kiv::Ptr<const L2Rib::LoadBalanceOutput>& lbTable,
                         const Kiv::Ptr<const L2Rib::DestOutput>& destTable,
                         const Kiv::Ptr<const L2Rib::HostOutput>& l2RibOutput,
                         const Kiv::Ptr<const FecIdToHwFecIdResponse>& fecResponse,
                         const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest,
                         const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap,
                         const Kiv::Ptr<Mox::TimerWheel>& timerWheel,
                         const Kiv::Ptr<Mox::TaskScheduler>& scheduler);

  // Reactors: what each watches and where it forwards. A whole-table notification (and the
  // replay when a reactor attaches) goes to the bulk handler, which queues every key.
  class KivLabelTable : public Kiv::Reactor<L2Rib::LabelOutput, ObaMacAddrFecRequestSm> {
   public:
    using Reactor::Reactor;
    void onLabel(const L2Rib::LabelId& id) override { owner()->handleLabel(id); }
    void onLabel() override { owner()->handleLabel(); }
  };
  class KivLbTable : public Kiv::Reactor<L2Rib::LoadBalanceOutput, ObaMacAddrFecRequestSm> {
   public:
    using Reactor::Reactor;
    void onLoadBalance(const L2Rib::LoadBalanceId& id) override { owner()->handleLb(id); }
    void onLoadBalance() override { owner()->handleLb(); }
  };
  class KivDestTable : public Kiv::Reactor<L2Rib::DestOutput, ObaMacAddrFecRequestSm> {
   public:
    using Reactor::Reactor;
    void onDest(const L2Rib::DestId& id) override { owner()->handleDest(id); }
    void onDest() override { owner()->handleDest(); }
  };
  class KivL2RibOutput : public Kiv::Reactor<L2Rib::HostOutput, ObaMacAddrFecRequestSm> {
   public:
    using Reactor::Reactor;
    void onHost(const Bridging::MacVlanPair& macVlan) override {
      owner()->handleL2RibHost(macVlan);
    }
    void onHost() override { owner()->handleL2RibHost(); }
  };
  class KivFecResponse : public Kiv::Reactor<FecIdToHwFecIdResponse, ObaMacAddrFecRequestSm> {
   public:
    using Reactor::Reactor;
    void onHwFecId(const FecId& fecId) override { owner()->handleHwFecIdResponse(fecId); }
  };
  class KivReviewBacklog : public Mox::TaskReactor<ObaMacAddrFecRequestSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewBacklog_taskRun(); }
  };

  // Inputs and outputs.
  KIV_REACTOR(labelTable, KivLabelTable, "Oba::ObaMacAddrFecRequestSm")
  KIV_REACTOR(lbTable, KivLbTable, "Oba::ObaMacAddrFecRequestSm")
  KIV_REACTOR(destTable, KivDestTable, "Oba::ObaMacAddrFecRequestSm")
  KIV_REACTOR(l2RibOutput, KivL2RibOutput, "Oba::ObaMacAddrFecRequestSm")
  KIV_REACTOR(fecResponse, KivFecResponse, "Oba::ObaMacAddrFecRequestSm")
  const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest() const { return fecRequest_; }
  const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap() const { return objTupleToHwIdMap_; }
  const Kiv::Ptr<Mox::TimerWheel>& timerWheel() const { return timerWheel_; }
  const Kiv::Ptr<Mox::TaskScheduler>& scheduler() const { return scheduler_; }
  MOX_TASK_REACTOR(reviewBacklog, KivReviewBacklog)

  // Internal state.
  KIV_CHILD_COLLECTION(nextHopForwardMap, ObjTuple, ObjTupleSet)  // what an object points at
  KIV_CHILD_COLLECTION(nextHopReverseMap, ObjTuple, ObjTupleSet)  // what points at an object
  KIV_COLLECTION(isFirstLevelNextHop, ObjTuple, std::uint32_t)    // hosts pointing straight at it
  KIV_COLLECTION(fecRequestCache, ObjTuple, FecId)                // hardware ids requested
  KIV_COLLECTION(macVlanToObjTupleCache, Bridging::MacVlanPair, ObjTuple)  // as last handled
  KIV_COLLECTION(fecRequestReverseMap, FecId, ObjTuple)      // the owner of a requested FEC id
  KIV_COLLECTION(hostBackLogQ, Bridging::MacVlanPair, bool)  // hosts waiting for the review
  KIV_COLLECTION(objTupleBackLogQ, ObjTuple, bool)           // objects waiting for the review
  KIV_COLLECTION(fecCache, FecId, bool)                      // FEC ids with a built FEC
  KIV_COLLECTION(objTupleCache, ObjTuple, bool)              // objects with a built FEC
  KIV_SCALAR(reviewInterval, double, reviewIntervalDefault)
  KIV_SCALAR(backLogQsDrained, bool, true)
  KIV_SCALAR(initialized, bool, false)
  std::uint32_t maxChainLength() const { return maxChainLength_; }
  // Raises Kiv::RangeException outside 2..3.
  void maxChainLengthIs(std::uint32_t n);

  // Handlers.
  void handleInitialized();
  void handleL2RibHost(const Bridging::MacVlanPair& macVlan);
  void handleLabel(const L2Rib::LabelId& labelId);
  void handleLb(const L2Rib::LoadBalanceId& lbId);
  void handleDest(const L2Rib::DestId& destId);
  void handleHwFecIdResponse(const FecId& fecId);
  void handleL2RibHost();
  void handleLabel();
  void handleLb();
  void handleDest();
  void doReviewBacklog();
  void kiv_handleReviewBacklog_taskRun() { doReviewBacklog(); }

  // Operations.
  void updateMapsForHostTableChange(const L2Rib::HostAndSource& host,
                                    const Bridging::MacVlanPair& macVlan);
  void updateMapsForLabelTableChange(const L2Rib::Label& label, const L2Rib::LabelId& labelId,
                                     const ObjTuple& objTuple);
  void updateMapsForLbTableChange(const L2Rib::LoadBalance& lb, const L2Rib::LoadBalanceId& lbId,
                                  const ObjTuple& objTuple);
  void updateMapsForDestTableChange(const L2Rib::Dest& dest, const L2Rib::DestId& destId,
                                    const ObjTuple& objTuple);
  void handleDependants(const ObjTuple& objTuple);
  FecId getFecId(const ObjTuple& objTuple);
  Fec buildFecForLabel(const L2Rib::Label& label, const L2Rib::LabelId& labelId,
                       const ObjTuple& objTuple);
  Fec buildFecForLb(const L2Rib::LoadBalance& lb, const L2Rib::LoadBalanceId& lbId,
                    const ObjTuple& objTuple);
  void addFec(const Fec& fec, const ObjTuple& objTuple);
  void deleteFec(const ObjTuple& objTuple);
  void maybeUpdateFecRequest(const ObjTuple& objTuple, bool isDelete);

 private:
  template <class Row, class UpdateMaps, class Build>
  void settleChainHead(const ObjTuple& objTuple, const Row& row, UpdateMaps updateMaps,
                       Build build);
  bool closesCycle(const ObjTuple& dependant) const;
  void handleChainHead(const ObjTuple& objTuple);
  void replaceNextHops(const ObjTuple& objTuple, const ObjTuple* first, const ObjTuple* last,
                       bool gone);
  Tunnel::TunnelTable::TunnelId tunnelOf(const ObjTuple& dest) const;
  void queued();

  Kiv::Ptr<FecIdToHwFecIdRequest> fecRequest_;
  Kiv::Ptr<ObjTupleToHwId> objTupleToHwIdMap_;
  Kiv::Ptr<Mox::TimerWheel> timerWheel_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
  std::uint32_t maxChainLength_ = maxChainLengthDefault;
  // The chain heads being settled, outermost first: settling one settles what depends on it in
  // turn, so a head met again on this path closes a cycle in the RIB.
  std::vector<ObjTuple> settling_;
  // A number taken from the allocator for a FEC not yet published: a build that fails after
  // taking it (a torn row, a path out of the ECMP range) gives it back.
  std::optional<std::int64_t> unpublishedNumber_;
};

OBA_EXPORT Kiv::Ptr<ObaMacAddrFecRequestSm> obaMacAddrFecRequestSmFactory(
    const Kiv::Ptr<const L2Rib::LabelOutput>& labelTable,
    const Kiv::Ptr<const L2Rib::LoadBalanceOutput>& lbTable,
    const Kiv::Ptr<const L2Rib::DestOutput>& destTable,
    const Kiv::Ptr<const L2Rib::HostOutput>& l2RibOutput,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& fecResponse,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest,
    const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap, const Kiv::Ptr<Mox::TimerWheel>& timerWheel,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler);

}  // namespace Oba
