// The MAC-address FEC family, registered: its machine, actions, tables and published tables, each
// defined in the files beside this one.
#include "sim/families/macFec/MacFecFamily.h"

#include "sim/FamilyHelpers.h"
#include "sim/families/fec/FecFamily.h"
#include "sim/families/macFec/MacFecActions.h"
#include "sim/families/macFec/MacFecAgent.h"
#include "sim/families/macFec/MacFecFuzz.h"
#include "sim/families/macFec/MacFecTables.h"

namespace Sim {

namespace {

class MacFecFamily : public Family {
 public:
  std::string_view name() const override { return "macFec"; }
  // Its machine's requests are answered by the chip's FEC table.
  std::vector<const Family*> buildsOn() const override { return {&fecFamily()}; }
  std::vector<std::string> machines() const override { return {"macFec"}; }

  std::vector<ActionKind> actions() const override { return macFec::actionKinds(); }

  std::vector<TableKind> tables() const override {
    return {{"fecs", "FECs", nullptr}, {"objTupleToHwId", "result rows", macFec::resultEntry}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<MacFecAgent>(agent);
  }
  std::vector<ExploreWorld> exploreWorlds() const override { return macFecWorlds(); }
  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const override {
    return macFec::fuzzIs(rng, options);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<FecRequestsTable>(), publishedTableKind<FecOwnersTable>(),
            publishedTableKind<ResultsTable>()};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << counter(c, "macFecsChecked") << " MAC FECs compared, ";
  }
  void printAllowances(const Counters& c, std::ostream& os) const override {
    os << "MAC FECs allowed: " << counter(c, "staleFlattenedLabel") << " stale flattened labels, "
       << counter(c, "emptyLeftover") << " empty leftover FECs, " << counter(c, "goneHead")
       << " heads gone from the RIB, " << counter(c, "staleResult")
       << " stale result rows (each the last answer's id)";
  }
};

}  // namespace

const Family& macFecFamily() {
  static const MacFecFamily family;
  return family;
}

}  // namespace Sim
