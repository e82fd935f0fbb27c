#pragma once
// The chip FEC table's scenario actions, each one definition (sim/ActionForm.h). The families
// that request FECs draw them in their worlds.

#include <cstdint>
#include <vector>

#include "sim/ActionForm.h"
#include "sim/families/fec/FecAgent.h"

namespace Sim::fec {

// Hardware FEC ids 1..count.
struct FecChipCapacity {
  static constexpr const char* name = "fecChipCapacity";
  std::uint32_t count = 0;
  static auto form() {
    return form::value(&FecChipCapacity::count, form::count("a number of hardware FEC ids"));
  }
  void apply(FecAgent& f) const { f.chip->capacityIs(count); }
};

struct FecChipLatency {
  static constexpr const char* name = "fecChipLatency";
  double seconds = 0;
  static auto form() {
    return form::value(&FecChipLatency::seconds, form::time("a latency in seconds"));
  }
  void apply(FecAgent& f) const { f.chip->latencyIs(seconds); }
};

// The chip takes back the answer holding hardware id `hw`.
struct FecChipWithdraw {
  static constexpr const char* name = "fecChipWithdraw";
  std::uint32_t hw = 0;
  static auto form() { return form::value(&FecChipWithdraw::hw, form::count("a hardware FEC id")); }
  void apply(FecAgent& f) const { f.chip->withdraw(hw); }
};

// The chip moves the FEC at hardware id `hw` to another id.
struct FecChipRenumber {
  static constexpr const char* name = "fecChipRenumber";
  std::uint32_t hw = 0;
  static auto form() { return form::value(&FecChipRenumber::hw, form::count("a hardware FEC id")); }
  void apply(FecAgent& f) const { f.chip->renumber(hw); }
};

// The chip takes back the layer-2 interface of the FEC at hardware id `hw` and keeps the id.
struct FecChipWithholdIntf {
  static constexpr const char* name = "fecChipWithholdIntf";
  std::uint32_t hw = 0;
  static auto form() {
    return form::value(&FecChipWithholdIntf::hw, form::count("a hardware FEC id"));
  }
  void apply(FecAgent& f) const { f.chip->withholdIntf(hw); }
};

template <class A>
Action action(A a) {
  return makeAction<FecAgent>(std::move(a));
}

// `times` answers refused, as a chipRefuse rule for `hwFecId`.
Action refuseAnswers(std::uint32_t times);

}  // namespace Sim::fec
