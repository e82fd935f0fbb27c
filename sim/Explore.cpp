#include "sim/Explore.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <unordered_set>
#include <utility>

#include "sim/ExploreRun.h"
#include "sim/ScenarioWriter.h"

namespace Sim {

namespace {

using namespace exploring;

// The families an agent for `family` needs: those it builds on, then itself, in registration
// order.
Families familiesFor(const Family& family, const Families& all) {
  std::vector<const Family*> need{&family};
  for (std::size_t i = 0; i < need.size(); ++i) {
    for (const Family* f : need[i]->buildsOn()) {
      if (std::find(need.begin(), need.end(), f) == need.end()) need.push_back(f);
    }
  }
  Families out;
  for (const Family* f : all) {
    if (std::find(need.begin(), need.end(), f) != need.end()) out.push_back(f);
  }
  return out;
}

// A scenario file at `path`, with `comment` on top; false when it could not be written.
bool writeScenario(const std::string& path, const Scenario& s, const std::string& comment) {
  std::ofstream out(path);
  out << scenarioText(s, comment);
  return static_cast<bool>(out);
}

// An outcome through a pipe, as a worker writes it and the parent reads it back.
void writeText(FILE* f, const std::string& t) {
  const std::uint32_t n = static_cast<std::uint32_t>(t.size());
  std::fwrite(&n, sizeof n, 1, f);
  std::fwrite(t.data(), 1, n, f);
}
bool readText(FILE* f, std::string& t) {
  std::uint32_t n = 0;
  if (std::fread(&n, sizeof n, 1, f) != 1) return false;
  t.resize(n);
  return std::fread(t.data(), 1, n, f) == n;
}
void writeOutcome(FILE* f, const Outcome& o) {
  const std::uint64_t head[4] = {o.digest.first, o.digest.second, o.failure.has_value(),
                                 o.unreadable};
  std::fwrite(head, sizeof head, 1, f);
  writeText(f, o.firstUnreadable);
  const std::uint64_t count = o.allowances.size();
  std::fwrite(&count, sizeof count, 1, f);
  for (const auto& [name, v] : o.allowances) {
    writeText(f, name);
    std::fwrite(&v, sizeof v, 1, f);
  }
}
bool readOutcome(FILE* f, Outcome& o, bool& failed) {
  std::uint64_t head[4];
  if (std::fread(head, sizeof head, 1, f) != 1) return false;
  o.digest = {head[0], head[1]};
  failed = head[2] != 0;
  o.unreadable = head[3];
  std::uint64_t count = 0;
  if (!readText(f, o.firstUnreadable) || std::fread(&count, sizeof count, 1, f) != 1) {
    return false;
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string name;
    std::uint64_t v = 0;
    if (!readText(f, name) || std::fread(&v, sizeof v, 1, f) != 1) return false;
    o.allowances[name] = v;
  }
  return true;
}

// The outcomes of expanding every state of the frontier by every letter, in (state, letter)
// order, computed by `jobs` processes.
std::vector<Outcome> expand(const Families& families, const ExploreWorld& world,
                            const std::vector<Letter>& letters,
                            const std::vector<std::vector<std::uint32_t>>& frontier,
                            std::uint32_t jobs, std::uint64_t* sequences) {
  const std::size_t n = frontier.size() * letters.size();
  std::vector<Outcome> out(n);
  auto one = [&](std::size_t k) {
    const auto& seq = frontier[k / letters.size()];
    Run run(families, world);
    for (std::uint32_t i : seq) run.step(letters[i]);
    auto ledger = run.step(letters[k % letters.size()]);
    Outcome o = run.outcome();
    if (ledger) o.failure = std::move(ledger);
    return o;
  };
  *sequences += n;
  if (jobs <= 1 || n < 64) {
    for (std::size_t k = 0; k < n; ++k) out[k] = one(k);
    return out;
  }
  // Each worker takes every jobs-th expansion and writes back its outcome: the digest, its
  // allowances and unreadable values, and whether it failed (the parent replays a failure for
  // its lines).
  std::vector<int> fds;
  std::vector<pid_t> pids;
  for (std::uint32_t j = 0; j < jobs; ++j) {
    int p[2];
    if (pipe(p) != 0) throw std::runtime_error("explore: cannot make a pipe");
    const pid_t pid = fork();
    if (pid == 0) {
      close(p[0]);
      FILE* to = fdopen(p[1], "wb");
      for (std::size_t k = j; k < n; k += jobs) {
        writeOutcome(to, one(k));
      }
      _exit(std::fclose(to) == 0 ? 0 : 3);
    }
    close(p[1]);
    fds.push_back(p[0]);
    pids.push_back(pid);
  }
  // Read in the order of the expansions, a record from each worker in turn, so that none waits
  // on a full pipe while another is read.
  std::vector<FILE*> from;
  for (int fd : fds) from.push_back(fdopen(fd, "rb"));
  for (std::size_t k = 0; k < n; ++k) {
    bool failed = false;
    if (!readOutcome(from[k % jobs], out[k], failed)) {
      throw std::runtime_error("explore: a worker ended early");
    }
    if (failed) out[k] = one(k);
  }
  for (std::uint32_t j = 0; j < jobs; ++j) {
    std::fclose(from[j]);
    int status = 0;
    waitpid(pids[j], &status, 0);
  }
  return out;
}

ExploreReport exploreWorld(const Family& family, const ExploreWorld& world, const ExploreOptions& o,
                           std::ostream* progress, const Families& all) {
  const auto start = std::chrono::steady_clock::now();
  const Families families = familiesFor(family, all);
  ExploreReport r;
  r.family = std::string(family.name());
  r.world = world.name;

  std::vector<Letter> letters;
  for (const auto& actions : world.alphabet) {
    letters.push_back({Letter::Kind::actions, actions, actionText(actions)});
  }
  letters.push_back({Letter::Kind::time, {}, "time"});
  if (o.restarts) {
    for (const auto& m : family.machines()) {
      std::vector<Action> a{restartAction(m)};
      letters.push_back({Letter::Kind::restart, a, actionText(a)});
    }
    std::vector<Action> a{restartAction("agent")};
    letters.push_back({Letter::Kind::restart, a, actionText(a)});
  }
  r.letters = letters.size();

  auto textOf = [&](const std::vector<std::uint32_t>& seq) {
    std::vector<std::string> out;
    for (std::uint32_t i : seq) out.push_back(letters[i].text);
    return out;
  };
  auto fail = [&](std::vector<std::uint32_t> seq, CheckFailure f) {
    ExploreReport::Failure failure{textOf(seq), std::move(f), "", std::nullopt};
    try {
      const std::string path = o.outDir + "/explore-" + r.family + "-" + world.name + ".yaml";
      const Scenario s = scenarioOf(families, world, letters, seq);
      failure.blame = blame(s, families, failure.failure);
      if (writeScenario(path, s,
                        "# Found by oba-evpn-sim explore --family " + r.family + " --world " +
                            world.name + ": the shortest sequence that\n" +
                            "# breaks a check. Replay with oba-evpn-sim --check.\n")) {
        failure.scenarioPath = path;
      }
    } catch (const std::exception&) {
    }
    r.failure = std::move(failure);
  };
  // The shortest sequence of each allowed difference, as the letters' numbers.
  std::map<std::string, std::vector<std::uint32_t>> shortest;
  auto note = [&](const Outcome& out, const std::vector<std::uint32_t>& seq) {
    if (out.unreadable && !r.unreadable) r.firstUnreadable = out.firstUnreadable;
    r.unreadable = std::max<std::uint64_t>(r.unreadable, out.unreadable);
    for (const auto& [name, n] : out.allowances) {
      if (!n) continue;
      auto& a = r.allowances[name];
      if (!a.states++) {
        a.shortest = textOf(seq);
        shortest[name] = seq;
      }
    }
  };

  // Depth 0: the agent started over the world.
  std::unordered_set<StateDigest, DigestHash> seen;
  std::vector<std::vector<std::uint32_t>> frontier{{}};
  {
    Run run(families, world);
    Outcome out = run.outcome();
    ++r.sequences;
    seen.insert(out.digest);
    note(out, {});
    if (out.failure) {
      fail({}, *out.failure);
      r.states = seen.size();
      return r;
    }
  }
  for (std::uint32_t depth = 1; depth <= o.depth && !frontier.empty(); ++depth) {
    std::vector<Outcome> outs = expand(families, world, letters, frontier, o.jobs, &r.sequences);
    std::vector<std::vector<std::uint32_t>> next;
    for (std::size_t k = 0; k < outs.size(); ++k) {
      std::vector<std::uint32_t> seq = frontier[k / letters.size()];
      seq.push_back(static_cast<std::uint32_t>(k % letters.size()));
      if (outs[k].failure) {
        fail(seq, *outs[k].failure);
        break;
      }
      if (!seen.insert(outs[k].digest).second) continue;
      note(outs[k], seq);
      next.push_back(std::move(seq));
      if (seen.size() >= o.maxStates) {
        r.complete = false;
        break;
      }
    }
    r.depth = depth;
    if (progress) {
      *progress << "explore " << r.family << "/" << r.world << ": depth " << depth << ", "
                << seen.size() << " states, " << r.sequences << " sequences" << std::endl;
    }
    if (r.failure || !r.complete) break;
    frontier = std::move(next);
  }
  if (o.writeAllowances && !r.failure) {
    for (auto& [name, a] : r.allowances) {
      Scenario s = scenarioOf(families, world, letters, shortest[name], true);
      s.name =
          "the shortest sequence that leaves " + name + " (" + r.family + "/" + world.name + ")";
      s.description = "The explorer's shortest sequence of the " + world.name +
                      " world's steps after which the " + r.family + " checks allow " + name +
                      ", a documented difference between the chip and what the inputs call for. "
                      "The tables are expected as it leaves them.";
      const std::string path = o.outDir + "/explore-" + r.family + "-" + name + ".yaml";
      if (writeScenario(path, s,
                        "# Written by oba-evpn-sim explore --family " + r.family + " --world " +
                            world.name + " --write-allowances: the shortest\n" +
                            "# sequence after which the checks allow " + name + ".\n")) {
        a.scenarioPath = path;
      }
    }
  }
  if (!r.complete || r.failure) r.depth = r.depth ? r.depth - 1 : 0;
  r.states = seen.size();
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return r;
}

}  // namespace

ExploreWorld worldOf(std::string name, std::string description,
                     const std::vector<std::string>& initial,
                     const std::vector<std::string>& alphabet) {
  ExploreWorld w{std::move(name), std::move(description), {}, {}};
  for (const auto& t : initial) w.initial.push_back(actionOf(t));
  for (const auto& t : alphabet) {
    std::vector<Action> step;
    for (std::size_t from = 0;;) {
      const std::size_t plus = t.find(" + ", from);
      step.push_back(actionOf(t.substr(from, plus == std::string::npos ? plus : plus - from)));
      if (plus == std::string::npos) break;
      from = plus + 3;
    }
    w.alphabet.push_back(std::move(step));
  }
  return w;
}

std::vector<ExploreReport> explore(const ExploreOptions& o, std::ostream* progress,
                                   const Families& families) {
  std::vector<ExploreReport> out;
  for (const Family* f : families) {
    if (!o.family.empty() && f->name() != o.family) continue;
    for (const ExploreWorld& w : f->exploreWorlds()) {
      if (!o.world.empty() && w.name != o.world) continue;
      out.push_back(exploreWorld(*f, w, o, progress, families));
      if (out.back().failure) return out;
    }
  }
  return out;
}

}  // namespace Sim
