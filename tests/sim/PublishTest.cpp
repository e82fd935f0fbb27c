// What a reader of a published agent sees, step by step: each published table holds the rows of
// the agent's own table, the copies of in-process outputs are rewritten only where they changed,
// and the tables go with the agent.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include "sim/Published.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/dot1qDecap/Dot1qDecapTables.h"
#include "sim/families/floodSet/FloodSetTables.h"
#include "sim/families/macFec/MacFecTables.h"
#include "sim/families/tunnelEsi/TunnelEsiTables.h"

namespace {

const std::string scenarios = OBA_TEST_DATA "/../../../scenarios/";

// The agent's own table behind each published one, by its expectation name.
const std::map<std::string, std::string> agentTable{
    {"mapping", "mapping"},
    {"results", "objTupleToHwId"},
    {"flood-set-fec-requests", "floodSetFecs"},
    {"hw-info", "hwInfoMapping"},
    {"flood-lists", "floodListConfig"},
    {"unprogrammed-routes", "unprogrammedRoutes"},
};

TEST(Publish, AReaderSeesEveryStepOfEveryTableAndNothingAfterTheAgent) {
  const std::string agent = "publishTest" + std::to_string(::getpid());
  std::map<std::string, std::size_t> rowsSeen;  // over every step, per table
  for (const char* file : {"restart.yaml", "flood-set-pair-leaves.yaml",
                           "decap-interface-conflict.yaml", "mac-fec-restart.yaml"}) {
    SCOPED_TRACE(file);
    std::map<std::string, std::unique_ptr<Sim::TableView>> views;
    Sim::RunOptions options;
    options.publish = agent;
    options.stepDone = [&](const Sim::HostAgent& a, const Sim::Step* step) {
      for (const auto& [published, own] : agentTable) {
        auto& view = views[published];
        if (!view) {
          view = Sim::publishedTable(published)->view(agent);
          ASSERT_EQ(view->attach(), Shoal::MountState::mounted) << published;
        }
        const auto want = a.tableLines(own).size();
        EXPECT_EQ(view->rows().size(), want) << published << " at line " << (step ? step->line : 0);
        rowsSeen[published] += want;
      }
    };
    options.hold = [&](Sim::HostAgent& a) {
      // A copy brought up to date again, with nothing changed, writes nothing.
      auto& lists = views["flood-lists"];
      lists->poll();
      a.syncPublished();
      EXPECT_TRUE(lists->poll().empty());
    };
    Sim::SimLog quiet;
    ASSERT_TRUE(Sim::runScenario(Sim::readScenarioFile(scenarios + file), quiet, options).ok());

    // The agent has gone: its readers see the tables unmounted, and nobody finds them again.
    auto changes = views["mapping"]->poll();
    ASSERT_FALSE(changes.empty());
    EXPECT_EQ(changes.front().kind, Sim::TableView::Change::Kind::mount);
    EXPECT_EQ(changes.front().mount, Shoal::MountState::unmounted);
    EXPECT_EQ(Sim::publishedTable("mapping")->view(agent)->attach(), Shoal::MountState::unmounted);
  }
  // Each table had rows at some step, so the comparisons above were of something.
  for (const auto& [published, own] : agentTable) EXPECT_GT(rowsSeen[published], 0u) << published;

  // A table of another layout under the name (here rows of another size) is refused, and says
  // what the segment holds, rather than read.
  {
    struct Other {
      std::uint64_t a = 0, b = 0, c = 0;
    };
    Shoal::SharedMemoryBacking<Tunnel::TunnelTable::TunnelId, Other> other(agent, "mapping", 16);
    other.attach(Shoal::Role::writer);
    auto view = Sim::publishedTable("mapping")->view(agent);
    EXPECT_EQ(view->attach(), Shoal::MountState::failed);
    EXPECT_NE(view->error().find("holds another layout (format 3, key 8 bytes, row 24 bytes"),
              std::string::npos)
        << view->error();
  }

  // A flood-list member prints as its list and every identifier of the member.
  Sim::FloodListMember m(
      Bridging::MacVlanPair{Bridging::VlanId(10), Quil::EthAddr::broadcast()},
      Oba::MplsDestConfig(Tunnel::TunnelTable::TunnelId((1ull << 32) | 1), Quil::MplsLabel(1001),
                          Oba::HwTunnelId(1), 2, Quil::IntfId::ethernet(3)));
  EXPECT_EQ(Sim::FloodListsTable::cells(m, nullptr),
            (Sim::Cells{"10", "ff:ff:ff:ff:ff:ff", "Tunnel1.1", "1001", "1", "2", "Ethernet3"}));
}

}  // namespace
