// The dot1q and decapsulation family, registered: its machines, chip operations, actions, tables
// and fuzz flags, each defined in the files beside this one.
#include "sim/families/dot1qDecap/Dot1qDecapFamily.h"

#include "sim/FamilyHelpers.h"
#include "sim/families/dot1qDecap/Dot1qDecapActions.h"
#include "sim/families/dot1qDecap/Dot1qDecapAgent.h"
#include "sim/families/dot1qDecap/Dot1qDecapFuzz.h"
#include "sim/families/dot1qDecap/Dot1qDecapTables.h"
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

namespace Sim {

namespace {

class Dot1qDecapFamily : public Family {
 public:
  std::string_view name() const override { return "dot1qDecap"; }
  // Its machines program over the tunnel-id family's EVPN status and LAG membership.
  std::vector<const Family*> buildsOn() const override { return {&tunnelEsiFamily()}; }
  std::vector<std::string> machines() const override {
    return {"floodingDot1q", "esiFilteringDecap"};
  }

  std::vector<ChipOperation> chipOperations() const override {
    return dot1qDecap::chipOperations();
  }

  std::vector<ActionKind> actions() const override { return dot1qDecap::actionKinds(); }

  std::vector<TableKind> tables() const override {
    return {{"dot1q", "lines", dot1qDecap::dot1qEntry},
            {"esiPortMaps", "lines", dot1qDecap::portMapEntry},
            {"unprogrammedRoutes", "lines", dot1qDecap::unprogrammedRouteEntry}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<Dot1qDecapAgent>(agent);
  }

  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions&) const override {
    return dot1qDecap::fuzzIs(rng);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<UnprogrammedRoutesTable>()};
  }

  std::vector<ExploreWorld> exploreWorlds() const override { return dot1qDecapWorlds(); }
  std::vector<FuzzFlag> fuzzFlags() const override {
    return {canaryFlag("--canary-drop-dot1q-delete",
                       "test the checks: the chip loses its N-th deleteVlanToDot1qMapping",
                       Dot1qDecapChip::canaryDropDeleteDot1qIs,
                       Dot1qDecapChip::canaryDropDeleteDot1q)};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << counter(c, "dot1qChecked") << " dot1q mappings and " << counter(c, "portMapsChecked")
       << " ESI port maps compared, ";
  }
  void printAllowances(const Counters& c, std::ostream& os) const override {
    os << "allowed: " << counter(c, "parkedDot1q") << " parked dot1q ports, "
       << counter(c, "parkedConflict") << " routes behind an interface conflict, "
       << counter(c, "parkedRefused") << " refused routes, " << counter(c, "undefinedRc")
       << " routes answered an undefined code, " << counter(c, "otherViaType")
       << " port maps of routes turned to another via type, " << counter(c, "parkedOtherType")
       << " parked routes turned to another via type";
  }
};

}  // namespace

const Family& dot1qDecapFamily() {
  static const Dot1qDecapFamily family;
  return family;
}

}  // namespace Sim
