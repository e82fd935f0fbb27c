// The chip's FEC table, shared by every family that requests FECs: two requesters over one
// hardware FEC id space, the way the MAC-address FEC family and the flood-set FEC family meet.
#include <gtest/gtest.h>

#include "sim/HostAgent.h"
#include "sim/Scenario.h"
#include "sim/families/fec/FecAgent.h"
#include "sim/families/fec/FecChip.h"
#include "sim/families/macFec/MacFecAgent.h"

namespace {

using Shoal::Fib::FecId;

FecId fecId(std::uint64_t n) { return FecId::encode(Shoal::Fib::FecIdAdjType::tunnel, n); }

// A requester as a machine writes it: the FEC first, then the request.
struct Requester {
  Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request = new Oba::FecIdToHwFecIdRequest("request");
  Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response = new Oba::FecIdToHwFecIdResponse("response");
  void ask(std::uint64_t n, bool wantsIntf = false) {
    request->fecIs(Shoal::Fib::Fec(fecId(n)));
    request->hwFecIdRequestIs(Oba::HwFecIdRequest(fecId(n), wantsIntf));
  }
  void drop(std::uint64_t n) {
    request->fecDel(fecId(n));
    request->hwFecIdRequestDel(fecId(n));
  }
  std::uint64_t hw(std::uint64_t n) const { return response->hwFecId(fecId(n)).row.hwFecId(); }
};

TEST(FecChip, TwoRequestersShareOneIdSpaceThatRunsOutRefusesAndComesBack) {
  Sim::SimLog quiet;
  Sim::HostAgent agent(&quiet);
  auto chip = agent.part<Sim::FecAgent>().chip;
  // The fec family's part holds the table; the families that request FECs share it.
  EXPECT_EQ(chip.ptr(), agent.part<Sim::MacFecAgent>().chip.ptr());
  Requester flood;
  chip->requesterIs(flood.request, flood.response, "floodSetFec");
  chip->capacityIs(2);
  chip->latencyIs(0.5);

  // Answers come after the latency, never inside the requester's write; the layer-2 interface
  // only where it is wanted.
  flood.ask(1, true);
  EXPECT_EQ(flood.hw(1), 0u);
  agent.scheduler->advanceBy(0.5);
  EXPECT_EQ(flood.hw(1), 1u);
  EXPECT_EQ(flood.response->l2IntfId(fecId(1)).row, Sim::fecL2Intf(1));

  // The other requester takes the last id; a third request waits for one to come back.
  Requester mac;
  chip->requesterIs(mac.request, mac.response, "other");
  mac.ask(1);
  mac.ask(2);
  agent.scheduler->advanceBy(0.5);
  EXPECT_EQ(mac.hw(1), 2u);
  EXPECT_EQ(mac.hw(2), 0u);
  EXPECT_FALSE(chip->busy());  // nothing to do until an id comes back
  EXPECT_EQ(chip->lines(), (std::vector<std::string>{"hw 1 floodSetFec FecId(0x800000000000001)",
                                                     "hw 2 other FecId(0x800000000000001)"}));

  // The flood-set FEC goes: its answer is withdrawn and the waiting request gets the id after
  // the retry interval.
  flood.drop(1);
  agent.scheduler->advanceBy(0.5);
  EXPECT_FALSE(flood.response->hwFecId(fecId(1)).found);
  EXPECT_FALSE(flood.response->l2IntfId(fecId(1)).found);
  agent.scheduler->advanceBy(Sim::FecChip::retryIntervalDefault);
  EXPECT_EQ(mac.hw(2), 1u);

  // Refused once, then answered on the retry; withdrawn on request, then answered again.
  agent.chip->refusalIs({.op = "hwFecId", .times = 1});
  chip->withdraw(1);
  EXPECT_FALSE(mac.response->hwFecId(fecId(2)).found);
  agent.scheduler->advanceBy(Sim::FecChip::retryIntervalDefault);
  EXPECT_EQ(mac.hw(2), 0u);
  agent.scheduler->advanceBy(Sim::FecChip::retryIntervalDefault);
  EXPECT_EQ(mac.hw(2), 1u);
  EXPECT_TRUE(chip->ledger().empty());
  EXPECT_TRUE(agent.chip->violations().empty());

  // A request for a FEC the requester never defined goes to the ledger, unanswered.
  mac.request->hwFecIdRequestIs(Oba::HwFecIdRequest(fecId(9), false));
  agent.scheduler->advanceBy(0.5);
  ASSERT_EQ(agent.chip->violations().size(), 1u);
  EXPECT_EQ(agent.chip->violations()[0].text,
            "hwFecId other FecId(0x800000000000009): no such FEC");

  // A chip reset forgets every answer and clears the responses, then reads the requests afresh.
  agent.chip->reset();
  EXPECT_FALSE(mac.response->hwFecId(fecId(1)).found);
  agent.scheduler->advanceBy(0.5);
  EXPECT_EQ(mac.hw(1), 1u);
  EXPECT_EQ(mac.hw(2), 2u);
  EXPECT_TRUE(chip->ledger().empty());
}

TEST(FecChip, ALostWithdrawalLeavesAnIdHeldThatTheLedgerNames) {
  Sim::FecChip::canaryLoseWithdrawalIs(1);
  Sim::SimLog quiet;
  Sim::HostAgent agent(&quiet);
  Sim::FecChip::canaryLoseWithdrawalIs(0);
  auto chip = agent.part<Sim::FecAgent>().chip;
  Requester r;
  chip->requesterIs(r.request, r.response, "requester");
  r.ask(1);
  agent.scheduler->runDue();
  r.drop(1);
  agent.scheduler->runDue();
  EXPECT_EQ(chip->ledger(), std::vector<std::string>{"hw FEC id 1 still held for requester "
                                                     "FecId(0x800000000000001), whose request is "
                                                     "gone"});
}

// Every way an id comes back wakes the requests that wait for one: here, another table letting go
// of the id it still named. And an answer on its way out is not moved.
TEST(FecChip, AnIdAnotherTableLetsGoOfReachesTheWaitingRequest) {
  Sim::SimLog quiet;
  Sim::HostAgent agent(&quiet);
  auto chip = agent.part<Sim::FecAgent>().chip;
  Requester r;
  chip->requesterIs(r.request, r.response, "requester");
  chip->capacityIs(2);
  bool listNamesId1 = true;
  chip->heldElsewhereIs([&](std::uint32_t hw) { return hw == 1 && listNamesId1; });
  r.ask(1);
  r.ask(2);
  agent.scheduler->runDue();
  EXPECT_EQ(r.hw(1), 2u);
  EXPECT_TRUE(chip->waits("requester", fecId(2)));
  listNamesId1 = false;
  chip->releasedElsewhere(1);
  agent.scheduler->advanceBy(Sim::FecChip::retryIntervalDefault);
  EXPECT_EQ(r.hw(2), 1u);

  chip->capacityIs(3);
  r.drop(1);
  chip->renumber(2);  // id 3 is free, but the withdrawal is due in the loop's next turn
  EXPECT_EQ(r.hw(1), 2u);
  agent.scheduler->runDue();
  EXPECT_FALSE(r.response->hwFecId(fecId(1)).found);
  EXPECT_TRUE(chip->ledger().empty());
}

}  // namespace

namespace {

// An agent over a RIB of both chain shapes, its reviews and the chip's answers drained.
struct MacWorld {
  Sim::SimLog quiet;
  Sim::HostAgent agent{&quiet};
  explicit MacWorld(const std::vector<std::string>& inputs) {
    for (const auto& a : inputs) agent.apply(Sim::actionOf(a));
    agent.start();
    settle();
  }
  void settle() { agent.scheduler->advanceBy(5); }
  std::vector<std::string> state() const {
    std::vector<std::string> out;
    for (const char* t : {"fecs", "objTupleToHwId", "fecChip"}) {
      for (auto& l : agent.tableLines(t)) out.push_back(std::string(t) + " " + l);
    }
    return out;
  }
};

TEST(MacFec, RestartingTheMachineOrTheAgentEndsWhereAFreshStartDoes) {
  for (const char* chain : {"maxChainLength: 2", "maxChainLength: 3"}) {
    std::vector<std::string> inputs = {
        chain,
        "dest: {id: 1, tunnel: DynTunnel1.1}",
        "dest: {id: 2, tunnel: DynTunnel1.2}",
        "label: {id: 1, mpls: 1001, next: dest/1}",
        "label: {id: 2, mpls: 1002, next: loadBalance/1}",
        "loadBalance: {id: 1, next: [dest/1, dest/2]}",
        "host: {vlan: 10, mac: 02:00:00:00:00:01, to: label/1}",
        "host: {vlan: 10, mac: 02:00:00:00:00:02, to: label/2}",
        "host: {vlan: 10, mac: 02:00:00:00:00:03, to: loadBalance/1}",
        "host: {vlan: 10, mac: 02:00:00:00:00:04, to: loadBalance/1}",
    };
    MacWorld w(inputs);
    // The host on label 2 leaves (its result row stays, docs/decisions.md) and a label moves.
    const std::vector<std::string> changes = {"hostDel: {vlan: 10, mac: 02:00:00:00:00:02}",
                                              "label: {id: 1, mpls: 1003, next: dest/2}"};
    for (const auto& a : changes) w.agent.apply(Sim::actionOf(a));
    w.settle();
    inputs.insert(inputs.end(), changes.begin(), changes.end());
    const MacWorld fresh(inputs);
    EXPECT_NE(w.state(), fresh.state()) << chain;  // the stale result row

    w.agent.restart("macFec");
    w.settle();
    EXPECT_EQ(w.state(), fresh.state()) << chain;
    w.agent.restart("agent");
    w.settle();
    EXPECT_EQ(w.state(), fresh.state()) << chain;
    EXPECT_TRUE(w.agent.chip->violations().empty());
  }
}

}  // namespace
