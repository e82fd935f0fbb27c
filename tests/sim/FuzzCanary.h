#pragma once
// The canary every family's checks must pass: the fuzzer, run in-process in the CI configuration
// over a chip with a planted fault, fails the named check, writes a shrunk scenario that --check
// fails over the same chip, and that passes once the fault is gone.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "sim/Fuzz.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"

namespace SimTest {

// Plants the fault while it lives: set(n) at the start, set(0) however the test ends.
class Canary {
 public:
  Canary(void (*set)(std::uint64_t), std::uint64_t n) : set_(set) { set_(n); }
  ~Canary() { off(); }
  void off() { set_(0); }

 private:
  void (*set_)(std::uint64_t);
};

// `line` is a piece of the first difference the check reports; `failure` of what --check says.
// `soundReplay`: whether the written file names only what a sound chip hands out too, so that it
// passes over one (a chip that keeps an id it should have taken back hands out others around it).
inline void expectCanaryCaught(Canary& canary, const std::string& dirName, const std::string& check,
                               const std::string& line, const std::string& failure,
                               bool soundReplay = true) {
  const std::string dir = ::testing::TempDir() + dirName;
  std::filesystem::remove_all(dir);
  Sim::FuzzOptions o;  // the CI configuration
  o.seeds = 200;
  o.steps = 1000;
  o.faultRate = 0.1;
  o.restarts = true;
  o.outDir = dir;
  std::optional<Sim::FuzzFailure> f = Sim::fuzz(o, nullptr, nullptr).failure;
  ASSERT_TRUE(f);
  EXPECT_EQ(f->failure.check, check);
  EXPECT_NE(f->failure.lines[0].find(line), std::string::npos) << f->failure.lines[0];
  EXPECT_TRUE(f->replayable || !soundReplay);
  EXPECT_LT(f->shrunkActions, f->actions);
  EXPECT_TRUE(f->checkFails);
  // The report names a machine's call and why it was made, back to a step of the written run.
  ASSERT_TRUE(f->blame);
  ASSERT_FALSE(f->blame->causes.empty()) << f->blame->call;
  EXPECT_TRUE(f->blame->causes.back().starts_with("the step at time") ||
              f->blame->causes.back() == "the agent starts")
      << f->blame->causes.back();
  ASSERT_EQ(f->scenarioPath, dir + "/fuzz-seed" + std::to_string(f->seed) + ".yaml");
  // What `oba-evpn-sim --check` does with the file, the broken chip still in place.
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::readScenarioFile(f->scenarioPath), quiet,
                            Sim::RunOptions{.check = true});
  ASSERT_FALSE(r.ok());
  EXPECT_NE(r.failures[0].find(failure), std::string::npos) << r.failures[0];
  if (!soundReplay) return;
  // With a sound chip the same file passes: what it caught is the chip's fault.
  canary.off();
  r = Sim::runScenario(Sim::readScenarioFile(f->scenarioPath), quiet,
                       Sim::RunOptions{.check = true});
  EXPECT_TRUE(r.ok()) << r.failures[0];
}

}  // namespace SimTest
