// The chip's FEC table, registered: its chip operation, actions, table and canary.
#include "sim/families/fec/FecFamily.h"

#include "sim/FamilyHelpers.h"
#include "sim/Scenario.h"
#include "sim/families/fec/FecActions.h"

namespace Sim {

void FecAgent::printChip(std::ostream& os) const {
  os << "chip fecChip:\n" << block(chip->lines());
}

void FecAgent::ledger(std::vector<std::string>& out) const {
  for (auto& l : chip->ledger()) out.push_back(std::move(l));
}

Action fec::refuseAnswers(std::uint32_t times) {
  return refusalAction({.op = "hwFecId", .times = times});
}

namespace {

// Its settings are drawn by the worlds of the families that request FECs: it draws nothing.
class NoFuzz : public FamilyFuzz {
 public:
  void choices(bool, std::vector<Choice>&) const override {}
  Action action(std::uint32_t, Rng&) const override { return {}; }
};

class FecFamily : public Family {
 public:
  std::string_view name() const override { return "fec"; }
  std::vector<std::string> machines() const override { return {}; }
  std::vector<ChipOperation> chipOperations() const override {
    return {FecChip::refuseOperation()};
  }
  std::vector<ActionKind> actions() const override {
    return actionKinds<FecAgent, fec::FecChipCapacity, fec::FecChipLatency, fec::FecChipWithdraw,
                       fec::FecChipRenumber, fec::FecChipWithholdIntf>();
  }
  std::vector<TableKind> tables() const override { return {{"fecChip", "chip FECs", nullptr}}; }
  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<FecAgent>(agent);
  }
  std::unique_ptr<FamilyFuzz> fuzzIs(Rng&, const FuzzOptions&) const override {
    return std::make_unique<NoFuzz>();
  }
  std::vector<FuzzFlag> fuzzFlags() const override {
    return {canaryFlag("--canary-lose-fec-withdrawal",
                       "test the checks: the chip's FEC table loses its N-th withdrawal",
                       FecChip::canaryLoseWithdrawalIs, FecChip::canaryLoseWithdrawal)};
  }
};

}  // namespace

const Family& fecFamily() {
  static const FecFamily family;
  return family;
}

}  // namespace Sim
