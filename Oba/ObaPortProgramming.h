#pragma once
// What the flooding machines share: programming one (logical interface, VLAN) pair port by port.
//
// A LAG is expanded into its member ports; any other interface stands for itself. Per pair the
// machine keeps an IntfVlanStatus with the ports programmed and the ports the chip refused, and a
// parked set of the pairs with a refused port, which its unprogrammed review retries. A machine
// declares the two collections under its own names and binds them with one line:
//
//   KIV_CHILD_COLLECTION(dot1qStatus, IntfVlanKey, IntfVlanStatus)
//   KIV_ORDERED_COLLECTION(unprogrammedDot1q, IntfVlanKey, bool)
//   OBA_PORT_PROGRAMMING(dot1qStatus, unprogrammedDot1q)
//
// and then drives the functions below with what is its own: the chip operation for one port, and
// its handlers for a port and for a whole pair, so that every entry trace stays the machine's.
// The machine also provides acsd(), processIntfVlan(intf, vlan), its reviewUnprogrammed task and
// maybeScheduleUnprogrammedReview(bool immediate), which calls schedulePortReview.

#include "Bridging/VlanId.h"
#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaKeys.h"
#include "Oba/ObaSets.h"
#include "Quil/IntfId.h"

// Names the machine's per-pair port status and its parked pairs for the functions below.
#define OBA_PORT_PROGRAMMING(status, parked)                                       \
 public:                                                                           \
  auto portStatus(const ::Oba::IntfVlanKey& k) const { return status(k); }         \
  bool portStatusHas(const ::Oba::IntfVlanKey& k) const { return status##Has(k); } \
  template <class F>                                                               \
  decltype(auto) portStatusEdit(const ::Oba::IntfVlanKey& k, F&& f) {              \
    return status##Edit(k, f);                                                     \
  }                                                                                \
  void portStatusDel(const ::Oba::IntfVlanKey& k) { status##Del(k); }              \
  void portParkedIs(const ::Oba::IntfVlanKey& k) { parked##Is(k, true); }          \
  void portParkedDel(const ::Oba::IntfVlanKey& k) { parked##Del(k); }              \
  auto portParkedWalk() const { return parked##Walk(); }                           \
                                                                                   \
 public:

namespace Oba {

// What a machine traces for each answer of the chip to a port it programs.
struct PortProgrammingTexts {
  const char* programmed;
  const char* notProgrammed;
  const char* invalidHwId;
};

// Records that intf carries vlan, in the machine's intfVlanSet (an interface's VLANs, in bits)
// and its vlanIntfSet (a VLAN's interfaces). The two change together, so a VLAN already in the
// interface's set is in the VLAN's set too: a pair handled again (a designated-forwarder move, a
// new tag) is told by a bit test and skips a lookup in another VLAN's set, a miss in memory.
template <class Sm>
void addIntfVlanMember(Sm& sm, Quil::IntfId intf, Bridging::VlanId vlan) {
  auto ivs = sm.intfVlanSetIs(intf);
  if (ivs->vlanIdHas(vlan)) return;
  ivs->vlanIdIs(vlan, true);
  sm.vlanIntfSetIs(vlan)->intfIdIs(intf, true);
}

// Programs every port of the pair with programPort(phy). A LAG without configuration or members
// is unprogrammed whole with unprogramPair(); members that left are unprogrammed one by one with
// unprogramPort(phy) before the current ones are programmed.
template <class Sm, class ProgramPort, class UnprogramPort, class UnprogramPair>
void programLagPorts(Sm& sm, Quil::IntfId intf, Bridging::VlanId vlan, const Kiv::TraceHandle& th,
                     ProgramPort programPort, UnprogramPort unprogramPort,
                     UnprogramPair unprogramPair) {
  if (!isLag(intf)) {
    programPort(intf);
    return;
  }
  auto members = sm.acsd()->lagToPort(intf);
  if (!members) {
    OBA_TRACE5(th, "no lag configuration");
    unprogramPair();
    return;
  }
  if (members->empty()) {
    OBA_TRACE5(th, "no lag members");
    unprogramPair();
    return;
  }
  IntfVlanKey key(intf, vlan);
  sm.portParkedDel(key);  // every member is tried again below
  if (sm.portStatusHas(key)) {
    // The ports programmed now, as the status holds them before any member is unprogrammed.
    auto programmed = sm.portStatusEdit(key, [](IntfVlanStatus& status) {
      status.unprogrammedDelAll();
      return status;
    });
    for (auto [port, member] : programmed.programmedWalk()) {
      if (members->has(port)) continue;
      OBA_TRACE5(th, "stale lag member, delete");
      unprogramPort(port);
    }
  }
  for (Quil::IntfId port : members->ports()) programPort(port);
}

// Asks the chip for one port with create() unless it holds the port already, and books the
// answer: programmed, or refused and parked for the review. A hardware id the chip calls invalid
// came from this agent: a bug, not a retry.
template <class Sm, class Create>
void programPort(Sm& sm, const IntfVlanKey& key, Quil::IntfId phy, const Kiv::TraceHandle& th,
                 const PortProgrammingTexts& texts, Create create) {
  bool already = false;
  bool refused = false;
  sm.portStatusEdit(key, [&](IntfVlanStatus& status) {
    already = status.programmedHas(phy);
    if (already) return;
    status.unprogrammedDel(phy);
    refused = status.unprogrammeds() != 0;
  });
  if (already) {
    OBA_TRACE5(th, "already programmed");
    return;
  }
  if (!refused) sm.portParkedDel(key);
  switch (create()) {
    case HwProgrammingStatus::programmed:
      OBA_TRACE5(th, texts.programmed);
      sm.portStatusEdit(key, [&](IntfVlanStatus& status) { status.programmedIs(phy, true); });
      break;
    case HwProgrammingStatus::notProgrammed:
      OBA_TRACE5(th, texts.notProgrammed);
      sm.portParkedIs(key);
      sm.portStatusEdit(key, [&](IntfVlanStatus& status) { status.unprogrammedIs(phy, true); });
      sm.maybeScheduleUnprogrammedReview(false);
      break;
    case HwProgrammingStatus::invalidHwId:
      OBA_TRACE5(th, texts.invalidHwId);
      KIV_ASSERT(0);
      break;
    default:
      break;  // an answer the chip layer does not define: nothing to record
  }
}

// Unprograms every programmed port of the pair with unprogramPort(phy) and forgets the pair.
// Returns whether anything was booked for it.
template <class Sm, class UnprogramPort>
bool unprogramPorts(Sm& sm, const IntfVlanKey& key, const Kiv::TraceHandle& th,
                    UnprogramPort unprogramPort) {
  sm.portParkedDel(key);
  auto status = sm.portStatus(key);  // a copy: the walk below changes the pair's row
  if (!status) {
    OBA_TRACE5(th, "not programmed");
    return false;
  }
  for (auto [port, member] : status->programmedWalk()) unprogramPort(port);
  sm.portStatusDel(key);
  return true;
}

// Forgets one port of the pair, and deletes it from the chip with destroy() if it was programmed.
// Returns whether the chip was told.
template <class Sm, class Destroy>
bool unprogramPort(Sm& sm, const IntfVlanKey& key, Quil::IntfId phy, const Kiv::TraceHandle& th,
                   Destroy destroy) {
  if (!sm.portStatusHas(key)) {
    OBA_TRACE5(th, "not programmed");
    return false;
  }
  bool programmed = sm.portStatusEdit(key, [&](IntfVlanStatus& status) {
    status.unprogrammedDel(phy);
    bool had = status.programmedHas(phy);
    status.programmedDel(phy);
    return had;
  });
  if (!programmed) {
    OBA_TRACE5(th, "not programmed");
    return false;
  }
  destroy();
  return true;
}

// Schedules the machine's unprogrammed review (at once when `immediate`), once initialized.
template <class Sm>
void schedulePortReview(Sm& sm, bool immediate, const Kiv::TraceHandle& th) {
  if (!sm.initialized()) return;
  KIV_ASSERT_TEXT(sm.reviewUnprogrammed(), "task");
  scheduleUnprogrammedReview(*sm.reviewUnprogrammed()->task(), immediate,
                             sm.defaultUnprogrammedRetryInterval(), th);
}

// The unprogrammed review: every parked pair decided again. `statusText` and `waitingText` are
// the machine's texts for a parked pair without status, or without a refused port.
template <class Sm>
void reviewParkedPorts(Sm& sm, const char* statusText, const char* waitingText) {
  KIV_ASSERT_TEXT(sm.initialized(), "initialized()");
  Mox::TimerTask* task = sm.reviewUnprogrammed() ? sm.reviewUnprogrammed()->task().ptr() : nullptr;
  KIV_ASSERT_TEXT(task, "task");
  reviewEach(sm.portParkedWalk(), *task, sm.defaultUnprogrammedRetryInterval(),
             [&](const IntfVlanKey& key) {
               auto status = sm.portStatus(key);
               KIV_ASSERT_TEXT(status, statusText);
               KIV_ASSERT_TEXT(status->unprogrammeds(), waitingText);
               sm.processIntfVlan(key.intfId(), key.vlanId());
             });
}

}  // namespace Oba
