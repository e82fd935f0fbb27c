#pragma once
// The chip's FEC table as a family of its own: no machines, one chip table that every family whose
// machines request FECs builds on (the MAC-address FEC family, the flood-set family). It owns the
// table's settings and what the table answers for: its actions (capacity, latency, withdrawal,
// renumbering), its table `fecChip`, its refusals (`hwFecId`), its ledger and its canary.

#include <optional>
#include <string>
#include <vector>

#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/families/fec/FecChip.h"

namespace Sim {

const Family& fecFamily();

class FecAgent : public FamilyAgent {
 public:
  static const Family& family() { return fecFamily(); }
  explicit FecAgent(HostAgent& agent) : chip(FecChip::FecChipIs(agent)) {}

  // The table outlives every machine: nothing to start.
  void start() override {}
  void stop() override {}
  void restart(const std::string&) override {}
  std::vector<std::string> lines(std::string_view) const override { return chip->lines(); }
  void printChip(std::ostream& os) const override;
  // Its answers and retries.
  bool busy() const override { return chip->busy(); }
  void ledger(std::vector<std::string>& out) const override;
  // What it answers is checked by each requester's family, against that family's inputs.
  std::optional<CheckFailure> check(Counters*) const override { return std::nullopt; }
  ExpectedTables finalExpectations() const override { return {}; }
  // The chip digests its FEC table; the family has no inputs or machines.
  void digest(Kiv::Digest&) const override {}

  const Kiv::Ptr<FecChip> chip;
};

}  // namespace Sim
