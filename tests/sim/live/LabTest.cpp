// A story told by real BGP speakers (gobgpd, scripts/lab.sh) on loopback addresses and followed
// live: after each phase the chip and the agent's outputs hold what the replay of
// scenarios/live-story.yaml holds at the same point, and the live run's own record replays to
// the state it ended in. The speakers are stopped at the end, by pid, however the test ends.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "sim/ScenarioRunner.h"
#include "sim/live/Session.h"

extern char** environ;

namespace {

const std::string lab = std::string(OBA_SOURCE_DIR) + "/scripts/lab.sh";
// The test's lab: apart from one a person runs (LAB_NET 10) and from its ports.
const char* const labEnv = "LAB_NET=20 LAB_PORT=12179 LAB_API=16051 LAB_PAUSE=1";
const std::vector<std::string> speaker{"-u", "127.0.0.21", "-p", "16051"};

std::string tables(const Sim::HostAgent& agent) {
  std::ostringstream os;
  agent.printTables(os);
  return os.str();
}

class Lab {
 public:
  Lab() {
    dir_ = std::filesystem::temp_directory_path() / ("oba-live-test." + std::to_string(getpid()));
    std::filesystem::create_directories(dir_);
  }
  ~Lab() {
    run("down");
    std::filesystem::remove_all(dir_);
  }
  std::string dir() const { return dir_.string(); }
  int run(const std::string& what) const {
    return std::system((std::string(labEnv) + " bash " + lab + " " + what + " " + dir()).c_str());
  }
  // A phase in a process of its own, so that the agent runs while the speakers change.
  pid_t spawn(const std::string& phase) const {
    const std::string cmd =
        std::string(labEnv) + " exec bash " + lab + " phase " + phase + " " + dir();
    const char* argv[] = {"sh", "-c", cmd.c_str(), nullptr};
    pid_t pid = -1;
    posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ);
    return pid;
  }
  // The paths of the local speaker's EVPN table.
  std::size_t tableSize() const {
    std::string cmd = "gobgp";
    for (const auto& a : speaker) cmd += " " + a;
    FILE* f = popen((cmd + " global rib -a evpn -j 2>/dev/null").c_str(), "r");
    std::string text;
    char buf[4096];
    for (std::size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    pclose(f);
    auto j = nlohmann::json::parse(text, nullptr, false);
    return j.is_object() ? j.size() : 0;
  }

 private:
  std::filesystem::path dir_;
};

// The scenario's state at each step whose note names a phase ("after fabric").
std::map<std::string, std::string> expectedStates() {
  std::map<std::string, std::string> states;
  Sim::SimLog quiet;
  Sim::RunOptions options;
  options.stepDone = [&](const Sim::HostAgent& agent, const Sim::Step* step) {
    if (step && step->note.starts_with("after ")) states[step->note.substr(6)] = tables(agent);
  };
  auto s = Sim::readScenarioFile(std::string(OBA_SOURCE_DIR) + "/scenarios/live-story.yaml");
  EXPECT_TRUE(Sim::runScenario(s, quiet, options).ok());
  return states;
}

// Runs the agent until its state is `want` or `seconds` pass; its state then.
std::string settle(Live::Session& session, const std::string& want, double seconds) {
  const double until = session.now() + seconds;
  while (tables(session.agent()) != want && session.now() < until) session.turn(0.05);
  // A moment more: what is still to come would show now.
  for (const double calm = session.now() + 1.5; session.now() < calm;) session.turn(0.05);
  return tables(session.agent());
}

TEST(LiveLab, RealSpeakersEndWhereTheScenarioEnds) {
  if (std::system("command -v gobgpd >/dev/null && command -v gobgp >/dev/null") != 0) {
    GTEST_SKIP() << "gobgpd is not installed (scripts/deps.sh installs it)";
  }
  const auto expected = expectedStates();
  Lab speakers;
  ASSERT_EQ(speakers.run("up"), 0);
  ASSERT_EQ(speakers.run("config"), 0);
  ASSERT_EQ(speakers.run("phase fabric"), 0);
  // Every route of the fabric in the local table before the agent reads it: one table, in one
  // order, as the scenario's first step has it.
  for (int i = 0; i < 100 && speakers.tableSize() < 18; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(speakers.tableSize(), 18u);

  const Live::Config config = Live::readConfig(speakers.dir() + "/live.yaml");
  Sim::SimLog quiet;
  Kiv::ThrowingAssertions throwing;
  auto stream = Live::gobgpStream(speaker);
  stream.staleAfter = 10;
  Live::Session session(config, quiet, stream);
  EXPECT_EQ(settle(session, expected.at("fabric"), 20), expected.at("fabric"));
  for (const std::string phase : {"dfMoves", "macMoves", "floodLeaves", "speakerRestart"}) {
    const pid_t pid = speakers.spawn(phase);
    ASSERT_GT(pid, 0);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) session.turn(0.05);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << phase;
    EXPECT_EQ(settle(session, expected.at(phase), 20), expected.at(phase)) << "after " << phase;
  }
  EXPECT_TRUE(session.translator().unusable().empty());

  // What the live run applied, replayed in virtual time to the live run's last moment, ends where
  // the live run did.
  Sim::Scenario record = session.recorded();
  record.steps.push_back(Sim::Step{});
  record.steps.back().at = session.now();
  std::string replayed;
  Sim::RunOptions options;
  options.stepDone = [&](const Sim::HostAgent& agent, const Sim::Step*) {
    replayed = tables(agent);
  };
  Sim::SimLog log;
  EXPECT_TRUE(Sim::runScenario(record, log, options).ok());
  EXPECT_EQ(replayed, tables(session.agent()));
}

}  // namespace
