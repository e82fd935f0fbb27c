// The explorer: every family's small worlds hold to a shallow depth, equal states merge the same
// way however many processes replay them, and each chip's planted fault is found at the smallest
// depth that can show it, written as a scenario that fails --check and passes once the fault is
// gone.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "FuzzCanary.h"
#include "sim/Explore.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/dot1qDecap/Dot1qDecapChip.h"
#include "sim/families/fec/FecChip.h"
#include "sim/families/floodSet/FloodListChip.h"
#include "sim/families/tunnelEsi/TunnelEsiChip.h"

namespace {

using Sim::ExploreOptions;
using Sim::ExploreReport;

TEST(Explore, EveryWorldHoldsAndEqualStatesMergeAlikeInOneProcessOrTwo) {
  ExploreOptions o;
  o.depth = 2;
  const auto one = Sim::explore(o, nullptr);
  ASSERT_GE(one.size(), 6u);
  for (const ExploreReport& r : one) {
    SCOPED_TRACE(r.family + "/" + r.world);
    EXPECT_FALSE(r.failure) << r.failure->failure.check << ": " << r.failure->failure.lines[0];
    EXPECT_TRUE(r.complete);
    EXPECT_EQ(r.depth, 2u);
    // Every value of every machine, input and output is read by the digest.
    EXPECT_EQ(r.unreadable, 0u) << r.firstUnreadable;
    // Sequences that reach one state are explored once: fewer states than sequences, but more
    // than the start.
    EXPECT_GT(r.states, r.letters / 2);
    EXPECT_LT(r.states, r.sequences);
  }
  o.jobs = 2;
  const auto two = Sim::explore(o, nullptr);
  ASSERT_EQ(two.size(), one.size());
  for (std::size_t i = 0; i < one.size(); ++i) {
    EXPECT_EQ(two[i].states, one[i].states) << one[i].world;
    EXPECT_EQ(two[i].sequences, one[i].sequences) << one[i].world;
  }
}

// The explorer with a planted fault: its first failure is `depth` steps long, names `check`, and
// the scenario it writes fails --check, then passes over a sound chip.
void expectFound(SimTest::Canary& canary, const std::string& family, const std::string& world,
                 std::size_t depth, const std::string& check, const std::string& blamed = "") {
  const std::string dir = ::testing::TempDir() + "explore-" + family;
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  ExploreOptions o;
  o.family = family;
  o.world = world;
  o.depth = depth + 1;
  o.outDir = dir;
  const auto reports = Sim::explore(o, nullptr);
  ASSERT_EQ(reports.size(), 1u);
  const auto& f = reports[0].failure;
  ASSERT_TRUE(f) << family << ": the canary went unseen to depth " << depth + 1;
  EXPECT_EQ(f->sequence.size(), depth);
  EXPECT_EQ(f->failure.check, check);
  if (!blamed.empty()) {
    // The report names the call the chip lost and the step that made the machine make it.
    ASSERT_TRUE(f->blame);
    EXPECT_NE(f->blame->call.find(blamed), std::string::npos) << f->blame->call;
    ASSERT_FALSE(f->blame->causes.empty());
    EXPECT_TRUE(f->blame->causes.back().starts_with("the step at time")) << f->blame->causes.back();
  }
  ASSERT_FALSE(f->scenarioPath.empty());
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::readScenarioFile(f->scenarioPath), quiet,
                            Sim::RunOptions{.check = true});
  EXPECT_FALSE(r.ok());
  canary.off();
  r = Sim::runScenario(Sim::readScenarioFile(f->scenarioPath), quiet,
                       Sim::RunOptions{.check = true});
  EXPECT_TRUE(r.ok()) << r.failures[0];
}

TEST(Explore, EachPlantedFaultIsFoundAtTheSmallestDepthThatShowsIt) {
  {
    // The first deleteEsiData is lost: a designated forwarder comes and goes.
    SimTest::Canary canary(Sim::TunnelEsiChip::canaryDropDeleteEsiDataIs, 1);
    expectFound(canary, "tunnelEsi", "df-move", 2, "esiData", "floodingEsi: deleteEsiData");
  }
  {
    // The first dot1q delete is lost: the first drain programs the tag, then the tag goes (the
    // drain a second later unprograms it).
    SimTest::Canary canary(Sim::Dot1qDecapChip::canaryDropDeleteDot1qIs, 1);
    expectFound(canary, "dot1qDecap", "dot1q", 2, "dot1q");
  }
  {
    // The FEC table loses its first withdrawal: a host's label gets a FEC and its hardware id,
    // then the host moves to the load balance and the label's request goes.
    SimTest::Canary canary(Sim::FecChip::canaryLoseWithdrawalIs, 1);
    expectFound(canary, "macFec", "chains", 2, "ledger");
  }
  {
    // The flood list breaks before it makes: a member programmed (the list lags), a second
    // hardware FEC id, and once the list has the member, its FEC moved to the new id, which the
    // list must add before it removes the old one.
    SimTest::Canary canary(
        +[](std::uint64_t on) { Sim::FloodListChip::canaryBreakBeforeMakeIs(on != 0); }, 1);
    expectFound(canary, "floodSet", "members", 4, "ledger");
  }
}

}  // namespace
