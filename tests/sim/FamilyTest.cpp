// A family added beside the registered ones, the way a new machine family joins the simulator:
// its action and table are read by the core's scenario reader, its agent part starts and restarts
// with the others, its chip operation can be refused, and the fuzzer draws its steps and runs its
// check. Nothing of the core changes for it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Kiv/Digest.h"
#include "sim/ActionForm.h"
#include "sim/ChipLink.h"
#include "sim/Explore.h"
#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/fec/FecFamily.h"
#include "sim/families/floodSet/FloodSetAgent.h"
#include "sim/families/macFec/MacFecAgent.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace {

// The chip's one register, written by the family's "machine".
class RegisterChip : public Sim::SoftwareChip::Part {
 public:
  explicit RegisterChip(Sim::SoftwareChip* chip) : chip_(chip) {}
  bool write(std::uint64_t v) {
    chip_->countCall();
    const bool refused = chip_->refused("writeRegister", std::nullopt, std::nullopt).has_value();
    if (!refused) value = v == lost ? 0 : v;
    if (chip_->listening()) {
      chip_->tell("writeRegister",
                  Sim::chipText("writeRegister ", v, refused ? " -> refused" : ""));
    }
    return !refused;
  }
  void reset() override { value = 0; }
  void digest(Kiv::Digest& d) const override { d.add(value); }
  void detach() override {}
  std::uint64_t value = 0;
  static inline std::uint64_t lost = 99;  // a broken chip loses writes of this value

 private:
  Sim::SoftwareChip* chip_;
};

// Its input is a number; its machine copies the number to the chip whenever it runs.
const Sim::Family& registerFamily();

class RegisterAgent : public Sim::FamilyAgent {
 public:
  static const Sim::Family& family() { return registerFamily(); }
  explicit RegisterAgent(Sim::HostAgent& agent) : chip(new RegisterChip(agent.chip.ptr())) {
    agent.chip->partIs(chip);
    agent.chip->operationIs("writeRegister");
  }
  void start() override {
    running = true;
    sync();
  }
  void stop() override { running = false; }
  void restart(const std::string&) override { start(); }
  void sync() {
    if (running) chip->write(input);
  }
  std::vector<std::string> lines(std::string_view) const override {
    return {std::to_string(chip->value)};
  }
  bool busy() const override { return false; }
  // The chip must hold the input.
  std::optional<Sim::CheckFailure> check(Sim::Counters* counters) const override {
    if (counters) ++(*counters)["registerChecks"];
    if (chip->value == input) return std::nullopt;
    return Sim::CheckFailure{
        "register",
        {"expected " + std::to_string(input) + ", actual " + std::to_string(chip->value)}};
  }
  Sim::ExpectedTables finalExpectations() const override {
    return {{"register", {std::to_string(input)}}};
  }
  void digest(Kiv::Digest& d) const override {
    d.add(input);
    d.add(running);
  }
  Kiv::Ptr<RegisterChip> chip;
  std::uint64_t input = 0;
  bool running = false;
};

// Its one action, defined once: read, written back and drawn by the fuzzer from this struct.
struct SetRegister {
  static constexpr const char* name = "register";
  std::uint32_t value = 0;
  static auto form() {
    return Sim::form::value(&SetRegister::value, Sim::form::count("a register value"));
  }
  void apply(RegisterAgent& f) const {
    f.input = value;
    f.sync();
  }
};

class RegisterFuzz : public Sim::FamilyFuzz {
 public:
  void choices(bool, std::vector<Choice>& out) const override { out.push_back({0, 30}); }
  Sim::Action action(std::uint32_t, Sim::Rng& r) const override {
    return Sim::makeAction<RegisterAgent>(SetRegister{static_cast<std::uint32_t>(r.below(5))});
  }
};

class RegisterFamily : public Sim::Family {
 public:
  std::string_view name() const override { return "register"; }
  std::vector<std::string> machines() const override { return {"registerWriter"}; }
  std::vector<Sim::ChipOperation> chipOperations() const override {
    return {{"writeRegister", "refused", [](const Sim::Reader&, const YAML::Node&) { return 1u; },
             1, false, false, [](std::uint32_t) { return std::string("refused"); }}};
  }
  std::vector<Sim::ActionKind> actions() const override {
    return Sim::actionKinds<RegisterAgent, SetRegister>();
  }
  std::vector<Sim::TableKind> tables() const override { return {{"register", "values", {}}}; }
  std::unique_ptr<Sim::FamilyAgent> agentIs(Sim::HostAgent& agent) const override {
    return std::make_unique<RegisterAgent>(agent);
  }
  std::unique_ptr<Sim::FamilyFuzz> fuzzIs(Sim::Rng&, const Sim::FuzzOptions&) const override {
    return std::make_unique<RegisterFuzz>();
  }
  std::vector<Sim::ExploreWorld> exploreWorlds() const override {
    return {{"two-values",
             "the register written 1 and 2",
             {},
             {{Sim::makeAction<RegisterAgent>(SetRegister{1})},
              {Sim::makeAction<RegisterAgent>(SetRegister{2})}}}};
  }
};

const Sim::Family& registerFamily() {
  static const RegisterFamily family;
  return family;
}

TEST(Family, ANewFamilyJoinsScenariosAndTheFuzzerThroughItsOwnPlaceAlone) {
  Sim::Families families = Sim::registeredFamilies();
  families.push_back(&registerFamily());

  // Its action, its chip operation in a refusal rule, its machine restarted by name, its table.
  const char* const text = R"(
initial:
  - register: 3
steps:
  - at: 1
    do:
      - chipRefuse: {op: writeRegister, times: 1}
      - register: 4
    expect:
      register: [3]
  - at: 2
    do:
      - restart: registerWriter
    expect:
      calls: [writeRegister 3, writeRegister 4 -> refused, writeRegister 4]
      register: [4]
)";
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::parseScenario(text, "register.yaml", families), quiet,
                            Sim::RunOptions{.check = true});
  EXPECT_TRUE(r.ok()) << r.failures[0];
  // Without it registered, its action is unknown to the reader.
  EXPECT_THROW(Sim::parseScenario(text, "register.yaml"), Sim::ScenarioError);

  // The fuzzer draws its steps among the others and runs its check after every one.
  Sim::FuzzOptions o;
  o.seeds = 5;
  o.steps = 100;
  o.restarts = true;
  Sim::FuzzResult ok = Sim::fuzz(o, nullptr, nullptr, families);
  ASSERT_FALSE(ok.failure) << ok.failure->failure.lines[0];
  EXPECT_EQ(ok.counters["registerChecks"], 5u * 101u);

  // A chip that loses a write is caught, shrunk and written as a scenario that --check fails.
  RegisterChip::lost = 2;
  o.outDir = ::testing::TempDir() + "family-fuzz";
  std::filesystem::remove_all(o.outDir);
  Sim::FuzzResult bad = Sim::fuzz(o, nullptr, nullptr, families);
  ASSERT_TRUE(bad.failure);
  EXPECT_EQ(bad.failure->failure.check, "register");
  EXPECT_TRUE(bad.failure->checkFails);
  EXPECT_LE(bad.failure->shrunkActions, 3u);

  // The explorer runs its world (every order of its steps, restarts among them) and finds the
  // lost write by the one step that shows it.
  Sim::ExploreOptions e;
  e.family = "register";
  e.depth = 3;
  e.outDir = o.outDir;
  auto found = Sim::explore(e, nullptr, families);
  ASSERT_EQ(found.size(), 1u);
  ASSERT_TRUE(found[0].failure);
  EXPECT_EQ(found[0].failure->sequence, std::vector<std::string>{"register: 2"});
  RegisterChip::lost = 99;
  auto held = Sim::explore(e, nullptr, families);
  EXPECT_FALSE(held[0].failure);
  EXPECT_EQ(held[0].unreadable, 0u);
  EXPECT_EQ(held[0].states, 3u);  // the input 0, 1 or 2, and the chip holding it
}

// Whatever a check finds, a scenario can state: `checks` lists every check's findings, so a run
// the fuzzer writes fails its replay even where no table shows the difference.
TEST(Family, EveryCheckTheFuzzerRunsIsAnExpectation) {
  Sim::Families families = Sim::registeredFamilies();
  families.push_back(&registerFamily());
  RegisterChip::lost = 2;
  auto run = [&](const std::string& expect) {
    Sim::SimLog quiet;
    return Sim::runScenario(Sim::parseScenario("steps:\n  - at: 1\n    do:\n      - register: 2\n"
                                               "    expect:\n      checks: " +
                                                   expect + "\n",
                                               "c.yaml", families),
                            quiet, Sim::RunOptions{.check = true});
  };
  auto broken = run("none");
  ASSERT_EQ(broken.failures.size(), 1u);
  EXPECT_NE(broken.failures[0].find("c.yaml:6: expected checks"), std::string::npos);
  EXPECT_NE(broken.failures[0].find("register: expected 2, actual 0"), std::string::npos)
      << broken.failures[0];
  EXPECT_TRUE(run("['register: expected 2, actual 0']").ok());
  RegisterChip::lost = 99;
  EXPECT_TRUE(run("none").ok());

  // The fuzzer's written runs end with it.
  Sim::FuzzOptions o;
  o.seeds = 5;
  o.steps = 100;
  o.outDir = ::testing::TempDir() + "family-checks";
  std::filesystem::remove_all(o.outDir);
  RegisterChip::lost = 3;
  Sim::FuzzResult bad = Sim::fuzz(o, nullptr, nullptr, families);
  RegisterChip::lost = 99;
  ASSERT_TRUE(bad.failure);
  std::ifstream written(bad.failure->scenarioPath);
  const std::string text((std::istreambuf_iterator<char>(written)),
                         std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("      checks: none\n"), std::string::npos) << text;
  EXPECT_TRUE(bad.failure->checkFails);
}

// A family reads the parts of the families it builds on; an agent whose list puts one of those
// after it (or leaves it out) is refused when it is made, not when the part is first asked for.
TEST(Family, TheFamiliesAFamilyBuildsOnAreRegisteredBeforeIt) {
  Sim::SimLog quiet;
  const Sim::Families floodSetsAlone{&Sim::floodSetFamily()};
  try {
    Sim::HostAgent agent(&quiet, floodSetsAlone);
    FAIL() << "an agent without the tunnel-id family was made";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(),
                 "the floodSet family builds on the tunnelEsi family, which is not registered "
                 "before it");
  }
  const Sim::Families backwards{&Sim::floodSetFamily(), &Sim::tunnelEsiFamily()};
  EXPECT_THROW(Sim::HostAgent(&quiet, backwards), std::logic_error);
  const Sim::Families inOrder{&Sim::tunnelEsiFamily(), &Sim::fecFamily(), &Sim::floodSetFamily()};
  Sim::HostAgent agent(&quiet, inOrder);
  EXPECT_EQ(&agent.part<Sim::FloodSetAgent>().tunnels, &agent.part<Sim::TunnelEsiAgent>());
  EXPECT_THROW(agent.part<Sim::MacFecAgent>(), std::logic_error);
}

}  // namespace
