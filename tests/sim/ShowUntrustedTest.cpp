// oba-evpn-show, run as its own process, over segments it must not trust: copies of the segments
// a real run publishes, damaged at random (seeded), and a writer stopped in the middle of a write.
// It never dies of a signal or hangs; it reports each damage (exit 2, the table and the place) or
// prints exactly what it printed for the undamaged copy.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "sim/Published.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/dot1qDecap/Dot1qDecapTables.h"
#include "sim/families/floodSet/FloodSetTables.h"
#include "sim/families/macFec/MacFecTables.h"
#include "sim/families/tunnelEsi/TunnelEsiTables.h"

namespace {

const std::string scenarios = OBA_TEST_DATA "/../../../scenarios/";

struct ShowRun {
  int status = -1;  // the exit status; -1 when it did not exit
  int signal = 0;   // the signal that ended it, when one did
  bool hung = false;
  std::string out, err;
};

// Runs oba-evpn-show with `args`. A run still going after `limit` is a hang, killed; or, with
// `stopAfter`, a watch that is asked to stop (SIGTERM) then.
ShowRun show(const std::vector<std::string>& args, std::chrono::milliseconds limit,
             bool stopAfter = false) {
  int out[2], err[2];
  if (::pipe(out) != 0 || ::pipe(err) != 0) return {};
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::close(out[0]), ::close(out[1]), ::close(err[0]), ::close(err[1]);
    std::vector<char*> argv{const_cast<char*>(OBA_SHOW_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(out[1]), ::close(err[1]);
  ShowRun r;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  bool asked = false;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* into[2] = {&r.out, &r.err};
  for (int open = 2; open > 0;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 && !asked) {
      asked = true;
      r.hung = !stopAfter;
      ::kill(pid, stopAfter ? SIGTERM : SIGKILL);
    }
    if (::poll(fds, 2, asked ? 5000 : static_cast<int>(left.count()) + 1) <= 0) {
      if (asked) break;
      continue;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buf[4096];
      ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        into[i]->append(buf, n);
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& f : fds) {
    if (f.fd >= 0) ::close(f.fd);
  }
  int status = 0;
  if (!asked) {
    // The pipes closed: it is ending; give it the rest of the limit.
    while (::waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        r.hung = true;
        ::kill(pid, SIGKILL);
      }
      ::usleep(1000);
    }
  } else {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  if (WIFEXITED(status)) r.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
  return r;
}

// A segment under a name, made from bytes, with its writer's lock held for as long as it lives:
// to a reader it is a running agent's table.
class HeldSegment {
 public:
  HeldSegment(const std::string& name, const std::string& bytes) : name_(name) {
    fd_ = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    EXPECT_GE(fd_, 0) << name;
    EXPECT_EQ(::write(fd_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    EXPECT_EQ(::fcntl(fd_, F_OFD_SETLK, &fl), 0);
  }
  ~HeldSegment() {
    ::shm_unlink(name_.c_str());
    ::close(fd_);
  }

 private:
  std::string name_;
  int fd_;
};

std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

template <class T>
Shoal::Segment::Layout layoutOf() {
  return Sim::PublishedBacking<T>("layout", T::name, Sim::publishedRows).segment().layout();
}

const std::map<std::string, Shoal::Segment::Layout>& layouts() {
  static const std::map<std::string, Shoal::Segment::Layout> all{
      {Sim::MappingTable::name, layoutOf<Sim::MappingTable>()},
      {Sim::FecRequestsTable::name, layoutOf<Sim::FecRequestsTable>()},
      {Sim::FecOwnersTable::name, layoutOf<Sim::FecOwnersTable>()},
      {Sim::ResultsTable::name, layoutOf<Sim::ResultsTable>()},
      {Sim::FloodSetFecRequestsTable::name, layoutOf<Sim::FloodSetFecRequestsTable>()},
      {Sim::HwInfoTable::name, layoutOf<Sim::HwInfoTable>()},
      {Sim::FloodListsTable::name, layoutOf<Sim::FloodListsTable>()},
      {Sim::UnprogrammedRoutesTable::name, layoutOf<Sim::UnprogrammedRoutesTable>()},
  };
  return all;
}

// Where damage can matter: the header, the bucket heads, the slots the writer has written (a slot
// never written holds what the last slot holds, past its version and check) and the log entries
// it has stamped. Any byte at all, now and then.
struct Places {
  std::vector<std::pair<std::size_t, std::size_t>> slots, entries;  // [from, to)
};
Places placesOf(const std::string& seg, const Shoal::Segment::Layout& l) {
  Places p;
  const std::size_t count = (l.log - l.slots) / l.slotBytes;
  const std::string never = seg.substr(l.slots + (count - 1) * l.slotBytes + 16, l.slotBytes - 16);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = l.slots + i * l.slotBytes;
    if (seg.compare(at + 16, l.slotBytes - 16, never) != 0)
      p.slots.push_back({at, at + l.slotBytes});
  }
  for (std::size_t at = l.log; at < l.total; at += l.logEntryBytes) {
    if (seg.compare(at, 8, std::string(8, '\0')) != 0)
      p.entries.push_back({at, at + l.logEntryBytes});
  }
  return p;
}

// Damages a copy, as memory scribbled over, a buggy writer or a hostile process would.
std::string damage(std::string seg, const Shoal::Segment::Layout& l, const Places& places,
                   std::mt19937_64& rng) {
  auto pick = [&](std::size_t from, std::size_t to) {
    return from + std::uniform_int_distribution<std::size_t>(0, to - from - 1)(rng);
  };
  auto inRegion = [&]() -> std::size_t {
    switch (rng() % 10) {
      case 0:
        return pick(0, 128);  // the header
      case 1:
      case 2:
        return pick(l.buckets, l.slots);
      case 3:
      case 4:
        if (!places.entries.empty()) {
          auto e = places.entries[rng() % places.entries.size()];
          return pick(e.first, e.second);
        }
        [[fallthrough]];
      case 5:
        return pick(0, seg.size());
      default:
        auto s = places.slots[rng() % places.slots.size()];
        return pick(s.first, s.second);
    }
  };
  switch (rng() % 8) {
    case 0: {  // a slot's first key word all ones
      auto s = places.slots[rng() % places.slots.size()];
      std::memset(&seg[s.first + 24], 0xff, 8);
      break;
    }
    case 1: {  // a word zeroed or set to ones
      std::size_t at = inRegion() & ~std::size_t(7);
      std::memset(&seg[std::min(at, seg.size() - 8)], rng() % 2 ? 0xff : 0, 8);
      break;
    }
    case 2:  // the length: cut short or grown
      seg.resize(rng() % 2 ? pick(0, seg.size()) : seg.size() + 1 + rng() % 4096);
      break;
    default:  // a few bytes flipped
      for (int n = 1 + rng() % 3; n > 0; --n) {
        seg[inRegion()] ^= static_cast<char>(1 + rng() % 255);
      }
  }
  return seg;
}

TEST(ShowUntrusted, ReportsEveryDamagedCopyOfARealSegmentOrPrintsItUnchanged) {
  const std::string pid = std::to_string(::getpid());
  const std::string real = "showReal" + pid, copy = "showCopy" + pid;

  // Real segments: what a run of each scenario leaves published at its end.
  std::vector<std::pair<std::string, std::string>> originals;  // table, bytes
  for (const char* file : {"restart.yaml", "flood-set-pair-leaves.yaml", "mac-fec-restart.yaml",
                           "decap-interface-conflict.yaml"}) {
    Sim::RunOptions options;
    options.publish = real;
    options.hold = [&](Sim::HostAgent&) {
      for (const auto& t : Sim::publishedTables()) {
        auto view = t.view(real);
        if (view->attach() == Shoal::MountState::mounted && !view->rows().empty()) {
          originals.push_back({t.name, fileBytes("/dev/shm" + Shoal::segmentName(real, t.name))});
        }
      }
    };
    Sim::SimLog quiet;
    ASSERT_TRUE(Sim::runScenario(Sim::readScenarioFile(scenarios + file), quiet, options).ok());
  }
  ASSERT_GE(originals.size(), 6u);

  // What the reader prints of each undamaged copy.
  std::vector<std::string> printed;
  std::vector<Places> places;
  for (const auto& [table, bytes] : originals) {
    HeldSegment held(Shoal::segmentName(copy, table), bytes);
    ShowRun r = show({copy, table}, std::chrono::seconds(20));
    ASSERT_EQ(r.status, 0) << table << ": " << r.err;
    printed.push_back(r.out);
    places.push_back(placesOf(bytes, layouts().at(table)));
    ASSERT_FALSE(places.back().slots.empty()) << table;
  }

  const int copies = 300;
  int reported = 0;
  std::map<std::string, int> where;     // what the reports name
  std::map<std::string, int> harmless;  // where damage that was not reported was
  for (int n = 0; n < copies; ++n) {
    std::mt19937_64 rng(n);
    const std::size_t t = n % originals.size();
    const std::string& table = originals[t].first;
    SCOPED_TRACE("copy " + std::to_string(n) + " of table " + table);
    const Shoal::Segment::Layout& l = layouts().at(table);
    std::string damaged;
    do {  // zeroing a word that was zero is no damage
      damaged = damage(originals[t].second, l, places[t], rng);
    } while (damaged == originals[t].second);
    HeldSegment held(Shoal::segmentName(copy, table), damaged);
    ShowRun r = show({"--wait", "0.05", copy, table}, std::chrono::seconds(20));
    ASSERT_FALSE(r.hung);
    ASSERT_EQ(r.signal, 0) << r.err;
    if (r.status == 0) {
      EXPECT_EQ(r.out, printed[t]) << "damage that changed what was printed, unreported";
      // Where the damage that changed nothing a reader uses was: the first word it touched.
      std::size_t at = 0;
      while (at < damaged.size() && damaged[at] == originals[t].second[at]) ++at;
      ++harmless[at < 128       ? "header word " + std::to_string(at / 8)
                 : at < l.slots ? std::string("bucket heads")
                 : at < l.log
                     ? "slot word " + std::to_string((at - l.slots) % l.slotBytes / 8)
                     : "log entry word " + std::to_string((at - l.log) % l.logEntryBytes / 8)];
      continue;
    }
    ASSERT_EQ(r.status, 2) << r.err;
    ++reported;
    EXPECT_NE(r.err.find("table '" + table + "'"), std::string::npos) << r.err;
    for (const char* place : {": slot ", ": bucket ", ": change log entry ", ": the header",
                              ": the table", "another layout", "no agent"}) {
      if (r.err.find(place, std::strlen("oba-evpn-show: ")) != std::string::npos) {
        ++where[place];
        break;
      }
    }
  }
  std::cout << "segments " << originals.size() << ", damaged copies " << copies << ", reported "
            << reported << ", printed unchanged " << copies - reported << "; reports naming:";
  for (const auto& [place, count] : where) std::cout << " '" << place << "' " << count;
  std::cout << "; unreported damage at:";
  for (const auto& [place, count] : harmless) std::cout << " " << place << " (" << count << ")";
  std::cout << "\n";
  // What goes unreported is a slot's version moved to another even value: a counter whose only
  // meaning is that it moves, read by nobody for what it holds.
  for (const auto& [place, count] : harmless) EXPECT_EQ(place, "slot word 0") << count;
  EXPECT_GE(reported, copies * 9 / 10);
}

TEST(ShowUntrusted, AWriterStoppedInTheMiddleOfAWriteIsSaidToBeStuck) {
  const std::string agent = "showStuck" + std::to_string(::getpid());
  Sim::PublishedBacking<Sim::MappingTable> writer(agent, Sim::MappingTable::name,
                                                  Sim::publishedRows);
  writer.attach(Shoal::Role::writer);
  const Tunnel::TunnelTable::TunnelId tunnel((1ull << 32) | 1);
  writer.put(tunnel, Oba::TunnelIdToHwTunnelId(tunnel, Oba::HwTunnelId(7)));

  // The writer stops inside a write of slot 0, its lock held: its version word and the table's
  // write count odd, as a writer stopped there leaves them.
  const Shoal::Segment::Layout l = writer.segment().layout();
  int fd = ::shm_open(writer.segment().name().c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  auto* base = static_cast<std::uint64_t*>(
      ::mmap(nullptr, l.total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ::close(fd);
  ASSERT_NE(base, MAP_FAILED);
  auto stop = [&](int by) {
    base[l.slots / 8] += by;
    base[80 / 8] += by;
  };
  stop(1);

  const auto t0 = std::chrono::steady_clock::now();
  ShowRun one = show({"--wait", "0.2", agent, "mapping"}, std::chrono::seconds(20));
  EXPECT_EQ(one.status, 2);
  EXPECT_NE(one.err.find("the writer of the table 'mapping' of agent '" + agent + "' is stuck"),
            std::string::npos)
      << one.err;
  ShowRun list = show({"--wait", "0.2", agent}, std::chrono::seconds(20));
  EXPECT_EQ(list.status, 2);
  EXPECT_NE(list.out.find("mapping  stuck"), std::string::npos) << list.out;
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));

  // A watch says so once, keeps watching, and shows the rows once the writer goes on.
  pid_t resume = ::fork();
  if (resume == 0) {
    ::usleep(700 * 1000);
    stop(1);
    ::_exit(0);
  }
  ShowRun watch =
      show({"--wait", "0.2", "--watch", agent, "mapping"}, std::chrono::milliseconds(1500), true);
  ::waitpid(resume, nullptr, 0);
  EXPECT_EQ(watch.status, 0) << watch.err;
  EXPECT_EQ(watch.out, "writer-stuck\nwriter-resumed\nreset\nset Tunnel1.1 7\n") << watch.err;
  ::munmap(base, l.total);
}

}  // namespace
