// A table in shared memory as a reader in another process sees it: each reader below maps the
// segment on its own, as another process would.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>

#include <memory>
#include <string>
#include <vector>

#include "Shoal/KivShoal.h"
#include "Shoal/SharedMemoryBacking.h"
#include "ShoalSharedMemoryTest.h"

namespace {

struct Hop {
  std::uint32_t k = 0;
  std::uint64_t v = 0;
  std::uint32_t key() const { return k; }
};

class Hops : public Kiv::Entity<Hops> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Hops> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(hop, Hop, std::uint32_t)
  };
  KIV_SHOAL_TABLE(hop, Hop, std::uint32_t, Hop)
};

using HopBacking = Shoal::SharedMemoryBacking<std::uint32_t, Hop>;

struct Watcher : Hops::NotifieeConst {
  std::vector<std::string> log;
  void onHop(const std::uint32_t& k) override {
    auto l = notifier()->hop(k);
    log.push_back(std::to_string(k) + (l ? "=" + std::to_string(l.row.v) : " gone"));
  }
  void onHop() override { log.push_back("all " + std::to_string(notifier()->hops())); }
  void onHopMountStatus() override {
    std::ostringstream os;
    os << notifier()->hopControl()->mountState();
    log.push_back(os.str());
  }
  std::vector<std::string> take() { return std::exchange(log, {}); }
};

Kiv::Ptr<Hops> table(const std::string& agent, Shoal::Role role, std::uint32_t capacity = 64,
                     std::uint32_t log = 0) {
  Kiv::Ptr<Hops> t = new Hops;
  t->hopBackingIs(std::make_unique<HopBacking>(agent, "hops", capacity, log));
  t->hopMount(role);
  return t;
}

bool named(const std::string& agent) {
  int fd = ::shm_open(Shoal::segmentName(agent, "hops").c_str(), O_RDONLY, 0);
  if (fd >= 0) ::close(fd);
  return fd >= 0;
}

using V = std::vector<std::string>;

TEST(ShoalSharedMemory, AReaderFollowsItsWriterThroughStartRestartAndExit) {
  ShoalTest::AgentGuard guard("shoalMount");
  const std::string& agent = guard.agent();

  // A reader that starts first sees the table unmounted, and empty.
  Kiv::Ptr<Hops> reader = table(agent, Shoal::Role::reader);
  Watcher w;
  w.notifierIs(reader);
  reader->hopPoll();
  EXPECT_EQ(reader->hopControl()->mountState(), Shoal::MountState::unmounted);
  EXPECT_FALSE(reader->hop(1).found);

  // The first writer is killed; the rows it wrote stay readable, as on a switch whose agent is
  // restarting.
  pid_t pid = ::fork();
  if (pid == 0) {
    HopBacking dying(agent, "hops", 64);
    dying.attach(Shoal::Role::writer);
    dying.put(1, Hop{1, 10});
    dying.put(2, Hop{2, 20});
    ::raise(SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"mounted", "all 2"}));
  EXPECT_EQ(reader->hop(1).row.v, 10u);

  // Its successor reuses the segment, emptied at once.
  Kiv::Ptr<Hops> restarted = table(agent, Shoal::Role::writer);
  EXPECT_FALSE(reader->hop(1).found);
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"all 0"}));
  restarted->hopIs(Hop{1, 10});
  restarted->hopIs(Hop{2, 20});
  restarted->hopIs(Hop{1, 11});
  restarted->hopDel(3);  // absent: readers are told all the same
  EXPECT_EQ(reader->hopPoll(), 4u);
  EXPECT_EQ(w.take(), (V{"1=11", "2=20", "1=11", "3 gone"}));
  EXPECT_EQ(reader->hopPoll(), 0u);
  std::vector<std::uint64_t> walked;
  for (auto [k, row] : reader->hopWalk()) walked.push_back(k + row.v);
  EXPECT_EQ(walked, (std::vector<std::uint64_t>{12, 22}));

  // A row marked corrupt raises for the reader too, until it is rewritten.
  restarted->hopCorruptIs(2);
  EXPECT_THROW(reader->hop(2), Shoal::CorruptionException);
  restarted->hopIs(Hop{2, 21});
  EXPECT_EQ(reader->hop(2).row.v, 21u);
  reader->hopPoll();
  w.take();

  // A writer that exits normally removes its segment; its readers see the table unmounted.
  restarted = nullptr;
  EXPECT_FALSE(named(agent));
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"unmounted", "all 0"}));
  EXPECT_FALSE(reader->hop(5).found);
  restarted = table(agent, Shoal::Role::writer);
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"mounted", "all 0"}));
}

TEST(ShoalSharedMemory, OneWriterAFixedCapacityAndOneLayoutPerName) {
  ShoalTest::AgentGuard guard("shoalRules");
  const std::string& agent = guard.agent();
  Kiv::Ptr<Hops> writer = table(agent, Shoal::Role::writer, 2);
  try {
    table(agent, Shoal::Role::writer, 2);
    ADD_FAILURE() << "a second live writer was let in";
  } catch (const Shoal::SegmentException& e) {
    EXPECT_NE(std::string(e.what()).find("another live process is the table's writer"),
              std::string::npos);
  }
  writer->hopIs(Hop{1, 1});
  writer->hopIs(Hop{2, 2});
  writer->hopIs(Hop{2, 3});  // an overwrite needs no room
  try {
    writer->hopIs(Hop{3, 3});
    ADD_FAILURE() << "a third row fitted in a table of two";
  } catch (const Shoal::CapacityException& e) {
    EXPECT_EQ(std::string(e.what()), "/shoal." + agent + ".hops: the table is full (2 rows)");
  }
  writer->hopDel(1);
  writer->hopIs(Hop{3, 3});  // a freed slot is reused
  EXPECT_EQ(writer->hops(), 2u);

  // A reader built for another capacity (or row layout) refuses the segment rather than read it.
  Kiv::Ptr<Hops> other = table(agent, Shoal::Role::reader, 3);
  other->hopPoll();
  EXPECT_EQ(other->hopControl()->mountState(), Shoal::MountState::failed);
  EXPECT_FALSE(other->hop(3).found);

  // Memory scribbled over (here the bucket heads, just after the 128-byte header) is an
  // impossible state that readers report rather than follow.
  Kiv::Ptr<Hops> reader = table(agent, Shoal::Role::reader, 2);
  reader->hopPoll();
  EXPECT_EQ(reader->hop(3).row.v, 3u);
  int fd = ::shm_open(Shoal::segmentName(agent, "hops").c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  void* p = ::mmap(nullptr, 136, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  ASSERT_NE(p, MAP_FAILED);
  std::memset(static_cast<char*>(p) + 128, 0x33, 8);
  ::munmap(p, 136);
  EXPECT_THROW(reader->hop(3), Shoal::CorruptionException);

  EXPECT_THROW(Shoal::segmentName("a.b", "t"), Shoal::SegmentException);
  EXPECT_THROW(Shoal::segmentName("a", "t/u"), Shoal::SegmentException);
}

TEST(ShoalSharedMemory, AMountedWriterPublishesItsRowsOrStaysWhereItWas) {
  ShoalTest::AgentGuard guard("shoalMove");
  const std::string& agent = guard.agent();
  Kiv::Ptr<Hops> reader = table(agent, Shoal::Role::reader);
  Watcher w;
  w.notifierIs(reader);

  // An entity that mounted its table in process when made, with rows, moves it to shared memory.
  Kiv::Ptr<Hops> writer = new Hops;
  writer->hopMount(Shoal::Role::writer);
  writer->hopIs(Hop{1, 10});
  writer->hopIs(Hop{2, 20});
  writer->hopIs(Hop{3, 30});
  // Too small a segment: refused, and the rows and the role stay as they were.
  EXPECT_THROW(writer->hopBackingIs(std::make_unique<HopBacking>(agent, "hops", 2)),
               Shoal::CapacityException);
  EXPECT_FALSE(named(agent));
  EXPECT_EQ(writer->hops(), 3u);
  writer->hopIs(Hop{4, 40});

  writer->hopBackingIs(std::make_unique<HopBacking>(agent, "hops", 64));
  EXPECT_EQ(writer->hopControl()->mountState(), Shoal::MountState::mounted);
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"mounted", "all 4"}));
  EXPECT_EQ(reader->hop(4).row.v, 40u);
  writer->hopDel(1);
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"1 gone"}));
}

TEST(ShoalSharedMemory, AReaderThatFallsBehindTheLogResynchronises) {
  ShoalTest::AgentGuard guard("shoalLag");
  Kiv::Ptr<Hops> writer = table(guard.agent(), Shoal::Role::writer, 64, 4);
  Kiv::Ptr<Hops> reader = table(guard.agent(), Shoal::Role::reader, 64, 4);
  Watcher w;
  w.notifierIs(reader);
  reader->hopPoll();
  w.take();
  for (std::uint32_t i = 0; i < 4; ++i) writer->hopIs(Hop{i, i});
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"0=0", "1=1", "2=2", "3=3"}));  // the log holds four
  for (std::uint32_t i = 0; i < 5; ++i) writer->hopIs(Hop{i, i + 1});
  reader->hopPoll();
  EXPECT_EQ(w.take(), (V{"all 5"}));
  writer->hopDelAll();  // walks the shared rows while deleting them
  EXPECT_EQ(reader->hops(), 0u);
}

TEST(ShoalSharedMemory, ACrashedAgentsSegmentsAreReusedOrRemovedAtTheNextStart) {
  ShoalTest::AgentGuard guard("shoalStale");
  const std::string& agent = guard.agent();
  pid_t pid = ::fork();
  if (pid == 0) {
    // The agent writes two tables and dies without unmounting either.
    auto* hops = new HopBacking(agent, "hops", 8);
    auto* spare = new HopBacking(agent, "spare", 8);
    hops->attach(Shoal::Role::writer);
    spare->attach(Shoal::Role::writer);
    hops->put(1, Hop{1, 1});
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(named(agent));

  Kiv::Ptr<Hops> reader = table(agent, Shoal::Role::reader, 8);
  reader->hopPoll();
  EXPECT_EQ(reader->hop(1).row.v, 1u);  // a dead writer's last rows stay readable
  Kiv::Ptr<Hops> writer = table(agent, Shoal::Role::writer, 8);
  EXPECT_FALSE(reader->hop(1).found);
  EXPECT_EQ(Shoal::removeStaleSegments(agent), 1u);  // "spare": "hops" has a live writer
  EXPECT_TRUE(named(agent));
}

}  // namespace
