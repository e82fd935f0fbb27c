// The tunnel-id and ESI data family, registered: its machines, chip operations, actions, tables and
// fuzz flags, each defined in the files beside this one.
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

#include "sim/ChipOperations.h"
#include "sim/FamilyHelpers.h"
#include "sim/families/tunnelEsi/TunnelEsiActions.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"
#include "sim/families/tunnelEsi/TunnelEsiFuzz.h"
#include "sim/families/tunnelEsi/TunnelEsiTables.h"

namespace Sim {

namespace {

class TunnelEsiFamily : public Family {
 public:
  std::string_view name() const override { return "tunnelEsi"; }
  std::vector<std::string> machines() const override { return {"hwTunnelId", "floodingEsi"}; }

  std::vector<ChipOperation> chipOperations() const override {
    return {hwProgrammingOperation("getHwTunnelId", false, false),
            hwProgrammingOperation("createEsiData", true, true)};
  }

  std::vector<ActionKind> actions() const override { return tunnelEsi::actionKinds(); }

  std::vector<TableKind> tables() const override {
    return {{"esiData", "lines", tunnelEsi::esiEntry},
            {"mapping", "lines", tunnelEsi::mappingEntry},
            {"hwTunnelIds", "ids", nullptr}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<TunnelEsiAgent>(agent);
  }

  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const override {
    return tunnelEsi::fuzzIs(rng, options);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<MappingTable>()};
  }

  std::vector<ExploreWorld> exploreWorlds() const override { return tunnelEsiWorlds(); }
  std::vector<FuzzFlag> fuzzFlags() const override {
    // A pool of none is no world: every tunnel would wait for good.
    return {settingFlag("pool", "hardware tunnel ids at the start of a seed (default 4)",
                        tunnelEsi::poolDefault, 1),
            canaryFlag(
                "--canary-drop-delete", "test the checks: the chip loses its N-th deleteEsiData",
                TunnelEsiChip::canaryDropDeleteEsiDataIs, TunnelEsiChip::canaryDropDeleteEsiData)};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << counter(c, "esiEntriesChecked") << " ESI entries compared, ";
  }
  void printAllowances(const Counters& c, std::ostream& os) const override {
    os << "allowed: " << counter(c, "parkedPort") << " parked ports, "
       << counter(c, "staleLocalLabel") << " stale local labels, " << counter(c, "nonMplsRemote")
       << " non-MPLS remote labels";
  }
};

}  // namespace

const Family& tunnelEsiFamily() {
  static const TunnelEsiFamily family;
  return family;
}

}  // namespace Sim
