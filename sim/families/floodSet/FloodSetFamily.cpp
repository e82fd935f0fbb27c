// The flood-set family, registered: what it builds on, its machines, chip operation, actions,
// tables and canary, each defined in the files beside this one.
#include "sim/families/floodSet/FloodSetFamily.h"

#include "sim/ChipOperations.h"
#include "sim/FamilyHelpers.h"
#include "sim/ScenarioReader.h"
#include "sim/families/fec/FecFamily.h"
#include "sim/families/floodSet/FloodSetActions.h"
#include "sim/families/floodSet/FloodSetAgent.h"
#include "sim/families/floodSet/FloodSetFuzz.h"
#include "sim/families/floodSet/FloodSetTables.h"
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

namespace Sim {

namespace {

class FloodSetFamily : public Family {
 public:
  std::string_view name() const override { return "floodSet"; }
  // Its machines read the tunnel-id family's mapping and request the chip's FECs; its chip checks
  // the tunnel-id family's ids.
  std::vector<const Family*> buildsOn() const override {
    return {&tunnelEsiFamily(), &fecFamily()};
  }
  std::vector<std::string> machines() const override { return {"floodSetFec", "vlanFloodSet"}; }

  std::vector<ChipOperation> chipOperations() const override {
    // A member's "port" is its tunnel's endpoint, as a rule names it: DynTunnelT.I.
    ChipOperation program = hwProgrammingOperation("programFloodListMember", true, true);
    program.portRead = [](const Reader& r, const YAML::Node& n) { return r.tep(n); };
    return {program};
  }

  std::vector<ActionKind> actions() const override { return floodSet::actionKinds(); }

  std::vector<TableKind> tables() const override {
    return {{"mplsFloodSet", "lines", nullptr},      {"floodSetFecs", "requests", nullptr},
            {"floodListConfig", "members", nullptr}, {"floodLists", "members", nullptr},
            {"floodListStatus", "lines", nullptr},   {"hwInfoMapping", "lines", nullptr}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<FloodSetAgent>(agent);
  }

  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const override {
    return floodSet::fuzzIs(rng, options);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<FloodSetFecRequestsTable>(), publishedTableKind<HwInfoTable>(),
            publishedTableKind<FloodListsTable>()};
  }

  std::vector<ExploreWorld> exploreWorlds() const override { return floodSetWorlds(); }
  std::vector<FuzzFlag> fuzzFlags() const override {
    return {{"--canary-break-before-make", "on",
             "test the checks: the chip removes a flood-list member before adding its replacement",
             [](const char* v, FuzzOptions&) {
               if (std::string(v) != "on") return std::string("needs on");
               FloodListChip::canaryBreakBeforeMakeIs(true);
               return std::string();
             },
             [](const FuzzOptions&) {
               return FloodListChip::canaryBreakBeforeMake()
                          ? std::string("--canary-break-before-make on")
                          : std::string();
             }}};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << counter(c, "floodListMembers") << " flood-list members compared, ";
  }
};

}  // namespace

const Family& floodSetFamily() {
  static const FloodSetFamily family;
  return family;
}

}  // namespace Sim
