// The flood-set family in the fuzzer: a chip that takes a flood-list member out before adding the
// member that replaces it is caught by the chip's make-before-break watch, shrunk, and written as
// a scenario that --check fails with that chip and passes with a sound one.
#include <gtest/gtest.h>

#include <filesystem>

#include "sim/Fuzz.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/floodSet/FloodListChip.h"

namespace {

// Turns the canary off again however the test ends.
struct BreakBeforeMake {
  BreakBeforeMake() { Sim::FloodListChip::canaryBreakBeforeMakeIs(true); }
  ~BreakBeforeMake() { Sim::FloodListChip::canaryBreakBeforeMakeIs(false); }
};

TEST(FloodSetFuzz, AChipThatBreaksBeforeItMakesIsCaughtAndWrittenAsAFailingScenario) {
  const std::string dir = ::testing::TempDir() + "flood-set-canary";
  std::filesystem::remove_all(dir);
  Sim::FuzzOptions o;  // the CI configuration
  o.seeds = 50;
  o.steps = 1000;
  o.faultRate = 0.1;
  o.restarts = true;
  o.outDir = dir;
  std::optional<Sim::FuzzFailure> f;
  {
    BreakBeforeMake canary;
    f = Sim::fuzz(o, nullptr, nullptr).failure;
    ASSERT_TRUE(f);
    EXPECT_EQ(f->failure.check, "ledger");
    ASSERT_FALSE(f->failure.lines.empty());
    EXPECT_NE(f->failure.lines[0].find("removed before its replacement"), std::string::npos)
        << f->failure.lines[0];
    EXPECT_LT(f->shrunkActions, f->actions);
    EXPECT_TRUE(f->checkFails);
    Sim::SimLog quiet;
    auto r = Sim::runScenario(Sim::readScenarioFile(f->scenarioPath), quiet,
                              Sim::RunOptions{.check = true});
    ASSERT_FALSE(r.ok());
    EXPECT_NE(r.failures[0].find("removed before its replacement"), std::string::npos)
        << r.failures[0];
  }
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::readScenarioFile(f->scenarioPath), quiet,
                            Sim::RunOptions{.check = true});
  EXPECT_TRUE(r.ok()) << r.failures[0];
}

}  // namespace
