#include "ObaEvpn/ObaMacAddrFecRequestSm.h"

#include <algorithm>
#include <sstream>

namespace Oba {

static Kiv::TraceHandle th("ObaMacAddrFecRequestSm");

namespace {

using L2Rib::ObjTuple;
using Shoal::Fib::EcmpIndex;
using Shoal::Fib::Via;

constexpr int reviewTaskPriority = 2;
constexpr const char* reviewTaskName = "reviewTask";

// Runs one handler's work over the RIB's shared-memory tables. A torn or corrupt row raises the
// table's corruption exception: the handler reports it and leaves what it had published, and the
// RIB's rewrite of the row notifies again, which brings the object up to date.
template <class Body>
void survivingCorruptRows(Body body) {
  try {
    body();
  } catch (const Shoal::CorruptionException& e) {
    OBA_TRACE5(th, "corrupt row, change not handled: ", e.what());
  }
}

}  // namespace

Kiv::Ptr<ObaMacAddrFecRequestSm> ObaMacAddrFecRequestSm::ObaMacAddrFecRequestSmIs(
    const Kiv::Ptr<const L2Rib::LabelOutput>& labelTable,
    const Kiv::Ptr<const L2Rib::LoadBalanceOutput>& lbTable,
    const Kiv::Ptr<const L2Rib::DestOutput>& destTable,
    const Kiv::Ptr<const L2Rib::HostOutput>& l2RibOutput,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& fecResponse,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest,
    const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap, const Kiv::Ptr<Mox::TimerWheel>& timerWheel,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler) {
  return new ObaMacAddrFecRequestSm(labelTable, lbTable, destTable, l2RibOutput, fecResponse,
                                    fecRequest, objTupleToHwIdMap, timerWheel, scheduler);
}

Kiv::Ptr<ObaMacAddrFecRequestSm> obaMacAddrFecRequestSmFactory(
    const Kiv::Ptr<const L2Rib::LabelOutput>& labelTable,
    const Kiv::Ptr<const L2Rib::LoadBalanceOutput>& lbTable,
    const Kiv::Ptr<const L2Rib::DestOutput>& destTable,
    const Kiv::Ptr<const L2Rib::HostOutput>& l2RibOutput,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& fecResponse,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest,
    const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap, const Kiv::Ptr<Mox::TimerWheel>& timerWheel,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler) {
  return ObaMacAddrFecRequestSm::ObaMacAddrFecRequestSmIs(labelTable, lbTable, destTable,
                                                          l2RibOutput, fecResponse, fecRequest,
                                                          objTupleToHwIdMap, timerWheel, scheduler);
}

ObaMacAddrFecRequestSm::ObaMacAddrFecRequestSm(
    const Kiv::Ptr<const L2Rib::LabelOutput>& labelTable,
    const Kiv::Ptr<const L2Rib::LoadBalanceOutput>& lbTable,
    const Kiv::Ptr<const L2Rib::DestOutput>& destTable,
    const Kiv::Ptr<const L2Rib::HostOutput>& l2RibOutput,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& fecResponse,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& fecRequest,
    const Kiv::Ptr<ObjTupleToHwId>& objTupleToHwIdMap, const Kiv::Ptr<Mox::TimerWheel>& timerWheel,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler)
    : fecRequest_(fecRequest),
      objTupleToHwIdMap_(objTupleToHwIdMap),
      timerWheel_(timerWheel),
      scheduler_(scheduler) {
  if (labelTable) labelTableIs(labelTable);
  if (lbTable) lbTableIs(lbTable);
  if (destTable) destTableIs(destTable);
  if (l2RibOutput) l2RibOutputIs(l2RibOutput);
  if (fecResponse) fecResponseIs(fecResponse);
  reviewIntervalIs(reviewIntervalDefault);
  handleInitialized();
}

void ObaMacAddrFecRequestSm::maxChainLengthIs(std::uint32_t n) {
  if (n < 2 || n > 3) {
    throw Kiv::RangeException("ObaMacAddrFecRequestSm::maxChainLength < 2 or > 3 not allowed");
  }
  maxChainLength_ = n;
}

void ObaMacAddrFecRequestSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  KIV_ASSERT(timerWheel());
  KIV_ASSERT(scheduler());
  KIV_ASSERT(fecRequest());
  KIV_ASSERT(objTupleToHwIdMap());
  numAllocatorConfigIs(fecNumberRange);
  numAllocatorStatusIs();
  numAllocatorIs(numAllocatorConfig(), numAllocatorStatus(), timerWheel()->clock());
  initializedIs(true);
  handleL2RibHost();
  handleLabel();
  handleLb();
  handleDest();
  // What an earlier run requested names FEC ids this one never allocated: request afresh.
  fecRequest()->hwFecIdRequestDelAll();
  fecRequest()->fecDelAll();
  fecRequest()->fec6DelAll();
  fecRequest()->objTupleToFecIdDelAll();
  reviewBacklogIs(scheduler(), Mox::TaskPriority(reviewTaskPriority), reviewTaskName);
  reviewBacklog()->task()->scheduleTaskDelay(reviewInterval());
}

// ---- bulk handlers: queue everything for the review ---------------------------------------------

void ObaMacAddrFecRequestSm::handleL2RibHost() {
  OBA_TRACE8(th, "handleL2RibHost");
  if (!initialized() || !l2RibOutput()) return;
  for (auto&& e : l2RibOutput()->hostWalk()) hostBackLogQIs(e.key, true);
  queued();
}

void ObaMacAddrFecRequestSm::handleLabel() {
  OBA_TRACE8(th, "handleLabel");
  if (!initialized() || !labelTable()) return;
  for (auto&& e : labelTable()->labelWalk()) objTupleBackLogQIs(ObjTuple::label(e.key), true);
  queued();
}

void ObaMacAddrFecRequestSm::handleLb() {
  OBA_TRACE8(th, "handleLb");
  if (!initialized() || !lbTable()) return;
  for (auto&& e : lbTable()->loadBalanceWalk()) {
    objTupleBackLogQIs(ObjTuple::loadBalance(e.key), true);
  }
  queued();
}

void ObaMacAddrFecRequestSm::handleDest() {
  OBA_TRACE8(th, "handleDest");
  if (!initialized() || !destTable()) return;
  for (auto&& e : destTable()->destWalk()) objTupleBackLogQIs(ObjTuple::dest(e.key), true);
  queued();
}

// Work was queued: the review drains it. At start-up the task is made afterwards, and scheduled.
void ObaMacAddrFecRequestSm::queued() {
  if (!objTupleBackLogQs() && !hostBackLogQs()) return;
  backLogQsDrainedIs(false);
  if (reviewBacklog() && !reviewBacklog()->task()->taskScheduled()) {
    reviewBacklog()->task()->scheduleTaskDelay(reviewInterval());
  }
}

void ObaMacAddrFecRequestSm::doReviewBacklog() {
  OBA_TRACE8(th, "doReviewBacklog");
  KIV_ASSERT(initialized());
  Mox::TimerTask& task = *reviewBacklog()->task();
  // Objects first, so that a host's chain is settled when the host comes.
  bool done = reviewEach(objTupleBackLogQWalk(), task, reviewInterval(), [this](ObjTuple t) {
    if (t.tableType() == L2Rib::tableTypeDest_) {
      handleDest(t.destId());
    } else {
      handleChainHead(t);
    }
    objTupleBackLogQDel(t);
  });
  if (!done) return;
  if (hostBackLogQs() && task.taskWorkCount() && task.taskShouldYield()) {
    task.scheduleTaskDelay(reviewInterval());
    return;
  }
  done = reviewEach(hostBackLogQWalk(), task, reviewInterval(),
                    [this](const Bridging::MacVlanPair& macVlan) {
                      handleL2RibHost(macVlan);
                      hostBackLogQDel(macVlan);
                    });
  if (!done) return;
  backLogQsDrainedIs(true);
  task.unscheduleTask();
}

// ---- per-key handlers ---------------------------------------------------------------------------

// A label or a load balance: its own handler. Nothing else heads a chain.
void ObaMacAddrFecRequestSm::handleChainHead(const ObjTuple& objTuple) {
  switch (objTuple.tableType()) {
    case L2Rib::tableTypeLoadBalance_:
      handleLb(objTuple.loadBalanceId());
      return;
    case L2Rib::tableTypeLabel_:
      handleLabel(objTuple.labelId());
      return;
    default:
      KIV_ASSERT_TEXT(false, "0");
  }
}

void ObaMacAddrFecRequestSm::handleL2RibHost(const Bridging::MacVlanPair& macVlan) {
  OBA_TRACE8(th, "handleL2RibHost", " MacVlan:" << macVlan);
  if (!initialized()) return;
  survivingCorruptRows([&] {
    const L2Rib::HostAndSource host = l2RibOutput()->host(macVlan).row;
    const bool deleted = host == L2Rib::HostAndSource();
    const auto cached = macVlanToObjTupleCache(macVlan);
    updateMapsForHostTableChange(host, macVlan);
    if (cached && (deleted || *cached != host.objTuple())) {
      maybeUpdateFecRequest(*cached, false);
      macVlanToObjTupleCacheDel(macVlan);
    }
    if (deleted) return;
    if (!cached || *cached != host.objTuple()) {
      maybeUpdateFecRequest(host.objTuple(), false);
      macVlanToObjTupleCacheIs(macVlan, host.objTuple());
    }
    // A host reaches its destinations through a label or a load balance, never directly.
    handleChainHead(host.objTuple());
  });
}

void ObaMacAddrFecRequestSm::updateMapsForHostTableChange(const L2Rib::HostAndSource& host,
                                                          const Bridging::MacVlanPair& macVlan) {
  const bool deleted = host == L2Rib::HostAndSource();
  const auto cached = macVlanToObjTupleCache(macVlan);
  if (cached && !deleted && *cached == host.objTuple()) return;  // still the same object
  if (cached) {
    const ObjTuple old = *cached;
    const std::uint32_t count = isFirstLevelNextHop(old).value_or(0);
    if (count == 1) {
      // The last host left: the object may no longer deserve its FEC.
      isFirstLevelNextHopDel(old);
      handleChainHead(old);
    } else {
      // An absent count is decremented as it stands and wraps to 0xFFFFFFFF: bookkeeping that
      // lost a count keeps the object's FEC rather than take it from hosts that may still use it.
      isFirstLevelNextHopIs(old, count - 1);
    }
  }
  if (deleted) return;
  isFirstLevelNextHopIs(host.objTuple(), isFirstLevelNextHop(host.objTuple()).value_or(0) + 1);
}

// The steps shared by labels and load balances: refresh the maps, build or delete the FEC, and
// rebuild what depends on the object where its change can matter to them.
template <class Row, class UpdateMaps, class Build>
void ObaMacAddrFecRequestSm::settleChainHead(const ObjTuple& objTuple, const Row& row,
                                             UpdateMaps updateMaps, Build build) {
  settling_.push_back(objTuple);
  struct Settled {
    std::vector<ObjTuple>& settling;
    ~Settled() { settling.pop_back(); }
  } settled{settling_};
  const bool gone = row == Row();
  const bool known = nextHopForwardMapHas(objTuple);
  updateMaps();
  const bool deservesFec = isFirstLevelNextHop(objTuple).value_or(0) != 0 || maxChainLength() == 3;
  if (!deservesFec || (gone && known)) {
    deleteFec(objTuple);
  } else {
    // Also an object gone before it was ever known: built from the default value, a FEC
    // without vias.
    try {
      addFec(build(), objTuple);
    } catch (...) {
      // Nothing was published: the number taken for it goes back.
      if (unpublishedNumber_) numAllocator()->release(*unpublishedNumber_);
      unpublishedNumber_.reset();
      throw;
    }
  }
  // A known object that merely changed is left to itself in three-level chains: what points at
  // it names its FEC, which keeps its id.
  if (maxChainLength() == 2 || gone || !known) handleDependants(objTuple);
}

void ObaMacAddrFecRequestSm::handleLabel(const L2Rib::LabelId& labelId) {
  OBA_TRACE8(th, "handleLabel", " LabelId:" << labelId);
  if (!initialized()) return;
  survivingCorruptRows([&] {
    const ObjTuple objTuple = ObjTuple::label(labelId);
    const L2Rib::Label label = labelTable()->label(labelId).row;
    settleChainHead(
        objTuple, label, [&] { updateMapsForLabelTableChange(label, labelId, objTuple); },
        [&] { return buildFecForLabel(label, labelId, objTuple); });
  });
}

void ObaMacAddrFecRequestSm::handleLb(const L2Rib::LoadBalanceId& lbId) {
  OBA_TRACE8(th, "handleLb", " LbId:" << lbId);
  if (!initialized()) return;
  survivingCorruptRows([&] {
    const ObjTuple objTuple = ObjTuple::loadBalance(lbId);
    const L2Rib::LoadBalance lb = lbTable()->loadBalance(lbId).row;
    settleChainHead(
        objTuple, lb, [&] { updateMapsForLbTableChange(lb, lbId, objTuple); },
        [&] { return buildFecForLb(lb, lbId, objTuple); });
  });
}

void ObaMacAddrFecRequestSm::handleDest(const L2Rib::DestId& destId) {
  OBA_TRACE8(th, "handleDest", " DestId:" << destId);
  if (!initialized()) return;
  survivingCorruptRows([&] {
    const ObjTuple objTuple = ObjTuple::dest(destId);
    const L2Rib::Dest dest = destTable()->dest(destId).row;
    if (dest != L2Rib::Dest()) {
      KIV_ASSERT_TEXT(dest.destType() == L2Rib::destTypeTunnel_,
                      "dest.destType() == L2Rib::destTypeTunnel_");
    }
    updateMapsForDestTableChange(dest, destId, objTuple);
    handleDependants(objTuple);
  });
}

void ObaMacAddrFecRequestSm::updateMapsForLabelTableChange(const L2Rib::Label& label,
                                                           const L2Rib::LabelId&,
                                                           const ObjTuple& objTuple) {
  const ObjTuple next = label.next();
  replaceNextHops(objTuple, &next, &next + 1, label == L2Rib::Label());
  if (auto objTupleSetForward = nextHopForwardMap(objTuple)) {
    KIV_ASSERT_TEXT(objTupleSetForward->objTuples() == 1 || objTupleSetForward->objTuples() == 0,
                    "objTupleSetForward->objTuples() == 1 || objTupleSetForward->objTuples() == 0");
  }
}

void ObaMacAddrFecRequestSm::updateMapsForLbTableChange(const L2Rib::LoadBalance& lb,
                                                        const L2Rib::LoadBalanceId&,
                                                        const ObjTuple& objTuple) {
  const auto& next = lb.next();
  replaceNextHops(objTuple, next.data(), next.data() + next.size(), lb == L2Rib::LoadBalance());
}

void ObaMacAddrFecRequestSm::updateMapsForDestTableChange(const L2Rib::Dest& dest,
                                                          const L2Rib::DestId&,
                                                          const ObjTuple& objTuple) {
  // A destination points nowhere: its (empty) forward entry only says it is known.
  replaceNextHops(objTuple, nullptr, nullptr, dest == L2Rib::Dest());
}

// Makes `objTuple` point at exactly [first, last), mirrored in the reverse map; a gone object
// keeps no forward entry at all. An emptied reverse set goes with its last member.
void ObaMacAddrFecRequestSm::replaceNextHops(const ObjTuple& objTuple, const ObjTuple* first,
                                             const ObjTuple* last, bool gone) {
  if (auto forward = nextHopForwardMap(objTuple)) {
    for (auto [next, member] : forward->objTupleWalk()) {
      if (!gone && std::find(first, last, next) != last) continue;
      forward->objTupleDel(next);
      if (auto reverse = nextHopReverseMap(next)) {
        reverse->objTupleDel(objTuple);
        if (!reverse->objTuples()) nextHopReverseMapDel(next);
      }
    }
  }
  if (gone) {
    nextHopForwardMapDel(objTuple);
    return;
  }
  auto forward = nextHopForwardMapIs(objTuple);
  for (const ObjTuple* next = first; next != last; ++next) {
    forward->objTupleIs(*next, true);
    nextHopReverseMapIs(*next)->objTupleIs(objTuple, true);
  }
}

void ObaMacAddrFecRequestSm::handleDependants(const ObjTuple& objTuple) {
  OBA_TRACE8(th, "handleDependants", " ObjTuple" << objTuple);
  auto reverse = nextHopReverseMap(objTuple);
  if (!reverse) return;
  for (auto [dependant, member] : reverse->objTupleWalk()) {
    auto forwardMapIter = nextHopForwardMap(dependant);
    KIV_ASSERT_TEXT(forwardMapIter && forwardMapIter->objTupleHas(objTuple),
                    "forwardMapIter.isMemberOf( iter.key() )");
    if (closesCycle(dependant)) continue;
    handleChainHead(dependant);
  }
}

// A RIB written wrongly may point an object back at itself, directly or through others. Every
// such cycle holds a shape no chain may have (a label under a label, a load balance under a load
// balance, a label under a load balance that does not end at a destination): building a FEC for
// one of its objects stops on that shape's assertion. Objects that deserve no FEC are only walked,
// and the walk up to the dependants would climb the cycle for ever: it stops where the cycle
// closes, and the cycle's objects stay without a FEC, as a chain that does not resolve.
bool ObaMacAddrFecRequestSm::closesCycle(const ObjTuple& dependant) const {
  const auto at = std::find(settling_.begin(), settling_.end(), dependant);
  if (at == settling_.end()) return false;
  // The path is held from the object that changed up to its dependants; the cycle reads the
  // other way, each object to the one it points at.
  auto cycle = [&] {
    std::ostringstream os;
    os << dependant;
    for (auto it = settling_.end(); it != at;) os << " -> " << *--it;
    return os.str();
  };
  OBA_TRACE5(th, "cycle in the layer-2 RIB, chain left unresolved: ", cycle());
  return true;
}

// ---- FECs -------------------------------------------------------------------------------------

ObaMacAddrFecRequestSm::FecId ObaMacAddrFecRequestSm::getFecId(const ObjTuple& objTuple) {
  if (auto row = fecRequest()->objTupleToFecId(objTuple)) return row.row.fecId();
  const std::int64_t id = numAllocator()->allocate();
  // Exhausted: the invalid number stands as the FEC id, unencoded; the request still goes out.
  if (id == Mox::NumAllocator::invalid) return FecId::invalid();
  KIV_ASSERT_TEXT(id >= 0, "id >= 0");
  unpublishedNumber_ = id;
  return FecId::encode(Shoal::Fib::FecIdAdjType::tunnel, static_cast<std::uint64_t>(id));
}

// A destination of a chain as a via sees it: its tunnel, or no tunnel while it is not known.
Tunnel::TunnelTable::TunnelId ObaMacAddrFecRequestSm::tunnelOf(const ObjTuple& destTuple) const {
  const L2Rib::Dest dest = destTable()->dest(destTuple.destId()).row;
  if (dest == L2Rib::Dest()) return Tunnel::TunnelTable::TunnelId();
  KIV_ASSERT_TEXT(dest.destType() == L2Rib::destTypeTunnel_,
                  "dest.destType() == L2Rib::destTypeTunnel_");
  return dest.tunnel();
}

ObaMacAddrFecRequestSm::Fec ObaMacAddrFecRequestSm::buildFecForLabel(const L2Rib::Label& label,
                                                                     const L2Rib::LabelId&,
                                                                     const ObjTuple& objTuple) {
  Fec fec(getFecId(objTuple));
  const ObjTuple next = label.next();
  KIV_ASSERT_TEXT(next.tableType() != L2Rib::tableTypeLabel_,
                  "label.next().tableType() != L2Rib::tableTypeLabel_");
  if (next.tableType() == L2Rib::tableTypeDest_) {
    fec.viaIs(Via(EcmpIndex(0), label.mplsLabel(), tunnelOf(next)));
  } else if (next.tableType() == L2Rib::tableTypeLoadBalance_ && maxChainLength() == 3) {
    // Hierarchical: through the load balance's own FEC. Until the load balance has one the via
    // names none; the load balance's first build rebuilds its dependants.
    auto lbFec = fecRequest()->objTupleToFecId(next);
    fec.viaIs(Via::hierarchical(EcmpIndex(0), label.mplsLabel(), lbFec.row.fecId()));
  } else if (next.tableType() == L2Rib::tableTypeLoadBalance_) {
    // Flat: the label over every path of the load balance.
    const L2Rib::LoadBalance lb = lbTable()->loadBalance(next.loadBalanceId()).row;
    std::uint32_t i = 0;
    for (auto iter = lb.next().begin(); iter != lb.next().end(); ++iter, ++i) {
      KIV_ASSERT_TEXT(iter->tableType() == L2Rib::tableTypeDest_,
                      "iter->tableType() == L2Rib::tableTypeDest_");
      fec.viaIs(Via(EcmpIndex(i), label.mplsLabel(), tunnelOf(*iter)));
    }
  }
  return fec;
}

ObaMacAddrFecRequestSm::Fec ObaMacAddrFecRequestSm::buildFecForLb(const L2Rib::LoadBalance& lb,
                                                                  const L2Rib::LoadBalanceId&,
                                                                  const ObjTuple& objTuple) {
  Fec fec(getFecId(objTuple));
  std::uint32_t i = 0;
  for (auto iter = lb.next().begin(); iter != lb.next().end(); ++iter, ++i) {
    KIV_ASSERT_TEXT(iter->tableType() != L2Rib::tableTypeLoadBalance_,
                    "iter->tableType() != L2Rib::tableTypeLoadBalance_");
    if (iter->tableType() != L2Rib::tableTypeLabel_) {
      fec.viaIs(Via(EcmpIndex(i), Quil::MplsLabel(), tunnelOf(*iter)));
      continue;
    }
    // A label under a load balance is followed one step, down to its destination; a label not
    // (or no longer) in the table gives a via without label or tunnel.
    const auto label = labelTable()->label(iter->labelId());
    if (label.found) {
      KIV_ASSERT_TEXT(label.row.next().tableType() == L2Rib::tableTypeDest_,
                      "label.next().tableType() == L2Rib::tableTypeDest_");
    }
    KIV_ASSERT(maxChainLength() == 3);
    fec.viaIs(Via(EcmpIndex(i), label.row.mplsLabel(),
                  label.found ? tunnelOf(label.row.next()) : Tunnel::TunnelTable::TunnelId()));
  }
  return fec;
}

void ObaMacAddrFecRequestSm::addFec(const Fec& fec, const ObjTuple& objTuple) {
  OBA_TRACE8(th, "addFec", " ObjTuple:" << objTuple << " Fec" << fec);
  fecRequest()->objTupleToFecIdIs(ObjTupleAndFecId(objTuple, fec.fecId()));
  unpublishedNumber_.reset();
  fecRequest()->fecIs(fec);
  objTupleCacheIs(objTuple, true);
  fecCacheIs(fec.fecId(), true);
  maybeUpdateFecRequest(objTuple, false);
}

void ObaMacAddrFecRequestSm::deleteFec(const ObjTuple& objTuple) {
  OBA_TRACE8(th, "deleteFec", " ObjTuple:" << objTuple);
  if (auto row = fecRequest()->objTupleToFecId(objTuple)) {
    const FecId fecId = row.row.fecId();
    OBA_TRACE5_VALUE(th, "Deleting FecId:", fecId.value(), fecId);
    fecRequest()->objTupleToFecIdDel(objTuple);
    fecRequest()->fecDel(fecId);
    // The invalid id was never allocated: there is no number to give back.
    if (fecId != FecId::invalid()) {
      numAllocator()->release(static_cast<std::int64_t>(fecId.number()));
    }
    fecCacheDel(fecId);
  }
  objTupleCacheDel(objTuple);
  maybeUpdateFecRequest(objTuple, true);
}

void ObaMacAddrFecRequestSm::maybeUpdateFecRequest(const ObjTuple& objTuple, bool isDelete) {
  OBA_TRACE8(th, "maybeUpdateFecRequest", " ObjTuple:" << objTuple << " isDelete:" << isDelete);
  const auto requested = fecRequestCache(objTuple);
  if (!isDelete && objTupleCacheHas(objTuple) && isFirstLevelNextHop(objTuple).value_or(0)) {
    const FecId fecId = fecRequest()->objTupleToFecId(objTuple).row.fecId();
    if (requested == fecId) return;  // already asked for
    OBA_TRACE5_VALUE(th, "Making Fec request:", fecId.value(), fecId);
    fecRequest()->hwFecIdRequestIs(HwFecIdRequest(fecId, false));
    fecRequestCacheIs(objTuple, fecId);
    fecRequestReverseMapIs(fecId, objTuple);
    return;
  }
  if (!requested) return;
  OBA_TRACE5_VALUE(th, "Deleting Fec request:", requested->value(), *requested);
  fecRequest()->hwFecIdRequestDel(*requested);
  fecRequestCacheDel(objTuple);
  fecRequestReverseMapDel(*requested);
}

void ObaMacAddrFecRequestSm::handleHwFecIdResponse(const FecId& fecId) {
  OBA_TRACE8(th, "handleHwFecIdResponse", " FecId:" << fecId);
  if (!initialized()) return;
  survivingCorruptRows([&] {
    const FecToHwFecId response = fecResponse()->hwFecId(fecId).row;
    const auto owner = fecRequestReverseMap(fecId);
    if (response == FecToHwFecId()) {
      if (owner) {
        objTupleToHwIdMap()->hwIdDel(*owner);
      } else {
        OBA_TRACE5_VALUE(th, "Stale response deletion for FecId:", fecId.value(), fecId);
      }
      return;
    }
    if (owner) {
      objTupleToHwIdMap()->hwIdIs(*owner, response.hwFecId());
    } else {
      OBA_TRACE5_VALUE(th, "Got stale response for FecId:", fecId.value(), fecId);
    }
  });
}

}  // namespace Oba
