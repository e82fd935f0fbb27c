// A writer changes rows as fast as it can while readers look rows up and walk them, each row
// carrying its own checksum: readers in other processes with the writer and readers killed at
// random points and restarted, then readers on threads of one process (for the thread sanitizer).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include "Shoal/SharedMemoryBacking.h"
#include "ShoalSharedMemoryTest.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kKeys = 256;
constexpr std::uint32_t kStable = 64;      // keys 0..63: written once by each writer, then kept
constexpr std::uint32_t kReady = kStable;  // written after them: every stable row is there
constexpr char kTable[] = "stress";

std::uint64_t mix(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  return x;
}

struct Row {
  std::uint32_t k = 0;
  std::uint32_t spare = 0;
  std::uint64_t epoch = 0;  // the epoch of the writer that wrote it
  std::uint64_t serial = 0;
  std::uint64_t payload[5] = {};
  std::uint64_t sum = 0;

  std::uint64_t checksum() const {
    std::uint64_t h = mix(k ^ 0x5eed) ^ mix(epoch + 1) ^ mix(serial + 2);
    for (std::uint64_t p : payload) h = mix(h ^ p);
    return h;
  }
  static Row of(std::uint32_t k, std::uint64_t epoch, std::uint64_t serial) {
    Row r;
    r.k = k;
    r.epoch = epoch;
    r.serial = serial;
    for (std::uint64_t& p : r.payload) p = serial = mix(serial + 0x9e3779b97f4a7c15ull);
    r.sum = r.checksum();
    return r;
  }
};

using Backing = Shoal::SharedMemoryBacking<std::uint32_t, Row>;

// What every writer and reader counts; in memory shared by all the test's processes.
struct Tally {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> torn{0};     // a row handed out whose checksum or key is wrong
  std::atomic<std::uint64_t> stale{0};    // a row of an earlier writer seen after a restart
  std::atomic<std::uint64_t> missing{0};  // a stable row absent while the writer holds it
  std::atomic<std::uint64_t> corrupt{0};  // rows reported corrupt (a writer died writing them)
  std::atomic<std::uint64_t> lookups{0};
  std::atomic<std::uint64_t> walked{0};
  std::atomic<std::uint64_t> writes{0};
  std::atomic<std::uint64_t> refills{0};  // a reader saw a writer's every stable row
  std::atomic<std::uint64_t> restartsSeen{0};
};

// Writes until told to stop or until `until`: the stable rows, the ready mark, then churn.
void writeRows(const std::string& agent, Tally& t, std::uint64_t seed, Clock::time_point until) {
  Backing b(agent, kTable, kKeys);
  b.attach(Shoal::Role::writer);
  const std::uint64_t epoch = b.segment().epoch();
  std::uint64_t serial = seed << 32;
  for (std::uint32_t k = 0; k < kStable; ++k) b.put(k, Row::of(k, epoch, ++serial));
  b.put(kReady, Row::of(kReady, epoch, ++serial));
  std::mt19937_64 rng(seed);
  while (!t.stop.load(std::memory_order_relaxed)) {
    for (int i = 0; i < 256; ++i) {
      std::uint32_t k = kReady + 1 + rng() % (kKeys - kReady - 1);
      if (rng() % 4 == 0) {
        b.erase(k);
      } else {
        b.put(k, Row::of(k, epoch, ++serial));
      }
    }
    t.writes += 256;
    if (Clock::now() >= until) break;
  }
}

// Reads until told to stop: lookups, walks and the check that every stable row of the current
// writer is there once its ready mark is.
void readRows(const std::string& agent, Tally& t, std::uint64_t seed) {
  Backing b(agent, kTable, kKeys);
  b.attach(Shoal::Role::reader);
  struct Sink : Shoal::Changes<std::uint32_t> {
    Shoal::MountState state = Shoal::MountState::unmounted;
    void key(const std::uint32_t&) override {}
    void all() override {}
    void mount(Shoal::MountState s) override { state = s; }
  } sink;
  std::mt19937_64 rng(seed);
  std::uint64_t verified = 0;  // the last writer epoch whose every stable row this reader saw
  std::uint64_t lookups = 0, walked = 0;
  // A row as read: intact, under its own key, and (when no restart happened meanwhile) the
  // current writer's.
  auto check = [&](std::uint32_t k, const Row& r, std::uint64_t epoch) {
    if (r.sum != r.checksum() || r.k != k) {
      ++t.torn;
    } else if (epoch && r.epoch != epoch && b.segment().epoch() == epoch) {
      ++t.stale;
    }
  };
  for (unsigned round = 0; !t.stop.load(std::memory_order_relaxed); ++round) {
    b.poll(sink);
    if (sink.state != Shoal::MountState::mounted) {
      ::sched_yield();
      continue;
    }
    const std::uint64_t epoch = b.segment().epoch();
    try {
      for (int i = 0; i < 32; ++i, ++lookups) {
        std::uint32_t k = rng() % kKeys;
        if (auto l = b.find(k)) check(k, l.row, epoch);
      }
      auto ready = b.find(kReady);
      if (ready && ready.row.epoch == epoch && epoch != verified) {
        bool all = true;
        for (std::uint32_t k = 0; k < kStable; ++k) {
          auto l = b.find(k);
          all = all && l && l.row.epoch == epoch;
          if (l) check(k, l.row, epoch);
        }
        if (b.segment().epoch() == epoch) {
          if (!all) ++t.missing;
          if (all && verified) ++t.restartsSeen;
          if (all) ++t.refills, verified = epoch;
        }
      }
      if (round % 8 == 0) {
        for (auto [k, row] : b.walk()) {
          check(k, row, 0);
          ++walked;
        }
      }
    } catch (const Shoal::CorruptionException&) {
      ++t.corrupt;
    }
  }
  t.lookups += lookups;
  t.walked += walked;
}

// No reader saw a torn, stale or missing row, and the readers did read.
void expectNoFault(const Tally& t) {
  EXPECT_EQ(t.torn, 0u);
  EXPECT_EQ(t.stale, 0u);
  EXPECT_EQ(t.missing, 0u);
  EXPECT_GT(t.lookups, 0u);
  EXPECT_GT(t.walked, 0u);
  EXPECT_GT(t.refills, 0u);
}

// Runs `body` in a child process; the child ends with status 0, or 3 after printing an exception.
template <class Body>
pid_t spawn(Body body) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  int rc = 0;
  try {
    body();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "child %d: %s\n", int(::getpid()), e.what());
    rc = 3;
  }
  ::_exit(rc);
}

std::string describe(int status) {
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exited with " + std::to_string(WEXITSTATUS(status));
}

TEST(ShoalStress, ReadersInOtherProcessesSeeNoTornRowWhileWritersAndReadersAreKilled) {
  ShoalTest::AgentGuard guard("shoalStress");
  const std::string& agent = guard.agent();
  void* page =
      ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  Tally& t = *new (page) Tally;

  std::uint64_t seed = 1;
  auto writer = [&] {
    std::uint64_t s = ++seed;
    return spawn([&, s] { writeRows(agent, t, s, Clock::time_point::max()); });
  };
  auto reader = [&] {
    std::uint64_t s = ++seed;
    return spawn([&, s] { readRows(agent, t, s); });
  };
  std::vector<pid_t> pids{writer(), reader(), reader(), reader()};  // [0] is the writer

  std::mt19937 rng(20261124);
  int writerKills = 0, readerKills = 0;
  for (auto end = Clock::now() + std::chrono::milliseconds(2500); Clock::now() < end;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 60));
    for (std::size_t i = 0; i < pids.size(); ++i) {
      int status = 0;
      if (::waitpid(pids[i], &status, WNOHANG) == pids[i]) {
        ADD_FAILURE() << (i ? "a reader " : "the writer ") << describe(status);
        pids[i] = i ? reader() : writer();
      }
    }
    std::size_t victim = rng() % 3 == 0 ? 0 : 1 + rng() % 3;
    ::kill(pids[victim], SIGKILL);
    int status = 0;
    ::waitpid(pids[victim], &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << describe(status);
    pids[victim] = victim ? reader() : writer();
    ++(victim ? readerKills : writerKills);
  }
  t.stop = true;
  for (pid_t pid : pids) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << describe(status);
  }

  expectNoFault(t);
  EXPECT_GT(t.restartsSeen, 0u);  // a reader saw a restarted writer's table emptied and refilled
  std::printf(
      "writer killed %d times, readers %d; %llu writes, %llu lookups, %llu rows walked, "
      "%llu tables refilled, %llu seen across a restart, %llu corrupt reports\n",
      writerKills, readerKills, (unsigned long long)t.writes.load(),
      (unsigned long long)t.lookups.load(), (unsigned long long)t.walked.load(),
      (unsigned long long)t.refills.load(), (unsigned long long)t.restartsSeen.load(),
      (unsigned long long)t.corrupt.load());
  t.~Tally();
  ::munmap(page, sizeof(Tally));
}

// The same readers on threads, each with a mapping of its own, against a writer that leaves and
// comes back (no process dies here, so no row may be reported corrupt).
TEST(ShoalStress, ReadersOnThreadsSeeNoTornRowWhileTheWriterComesAndGoes) {
  ShoalTest::AgentGuard guard("shoalThreads");
  const std::string& agent = guard.agent();
  Tally t;
  std::vector<std::thread> readers;
  for (std::uint64_t s = 1; s <= 3; ++s) readers.emplace_back([&, s] { readRows(agent, t, s); });
  std::thread writer([&] {
    auto end = Clock::now() + std::chrono::milliseconds(600);
    for (std::uint64_t s = 10; Clock::now() < end; ++s) {
      writeRows(agent, t, s, Clock::now() + std::chrono::milliseconds(100));
    }
    t.stop = true;
  });
  writer.join();
  for (std::thread& r : readers) r.join();
  expectNoFault(t);
  EXPECT_EQ(t.corrupt, 0u);
}

}  // namespace
