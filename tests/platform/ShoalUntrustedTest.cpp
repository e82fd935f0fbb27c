// A reader of a shared-memory table trusts no byte of the segment: bytes changed behind the
// writer's back, keys its types cannot hold and a writer stopped in the middle of a write are each
// reported (which segment, which slot) rather than followed, printed or waited on for ever. The
// segment is damaged here through a mapping of its own, as another process would.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "Shoal/SharedMemoryBacking.h"
#include "ShoalSharedMemoryTest.h"

namespace {

struct Hop {
  std::uint32_t k = 0;
  std::uint64_t v = 0;
};

// Keys of all ones are no keys of this table, as a tunnel id beyond its range is none.
struct NoAllOnes {
  static std::string why(const std::uint32_t& k, const Hop*) {
    return k == 0xffffffffu ? "the key holds all ones" : "";
  }
};
using Backing = Shoal::SharedMemoryBacking<std::uint32_t, Hop, NoAllOnes>;

// The segment's bytes, writable, as a process other than the writer maps them.
class Bytes {
 public:
  explicit Bytes(const Shoal::Segment& s) : size_(s.layout().total) {
    int fd = ::shm_open(s.name().c_str(), O_RDWR, 0);
    EXPECT_GE(fd, 0);
    p_ = static_cast<unsigned char*>(
        ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ::close(fd);
  }
  ~Bytes() { ::munmap(p_, size_); }
  std::uint64_t& word(std::size_t offset) { return *reinterpret_cast<std::uint64_t*>(p_ + offset); }
  unsigned char& byte(std::size_t offset) { return p_[offset]; }

 private:
  std::size_t size_;
  unsigned char* p_;
};

// The text of what a read raises, or "" when it raises nothing.
template <class Fn>
std::string raised(Fn&& fn) {
  try {
    fn();
  } catch (const Shoal::CorruptionException& e) {
    return e.what();
  }
  return "";
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ShoalUntrusted, EveryFaultOfTheBytesIsReportedWithItsPlace) {
  ShoalTest::AgentGuard guard("shoalUntrusted");
  Backing writer(guard.agent(), "hops", 8);
  writer.attach(Shoal::Role::writer);
  for (std::uint32_t k : {1u, 2u, 3u}) writer.put(k, Hop{k, k * 10});  // slots 0, 1, 2
  Backing reader(guard.agent(), "hops", 8);
  reader.attach(Shoal::Role::reader);
  Shoal::Segment& seg = reader.segment();
  const Shoal::Segment::Layout l = seg.layout();
  Bytes bytes(seg);
  auto walkAll = [&] {
    for (auto&& e : reader.walk()) (void)e;
  };
  EXPECT_EQ(raised([&] { seg.verify(); }), "");

  // A byte of a row changed behind the writer: its lookup, the walk and the check all say which
  // slot; the writer's next write of the row heals it.
  bytes.byte(l.slots + 1 * l.slotBytes + l.slotBytes - 1) ^= 0x40;
  const std::string slot1 = seg.name() + ": slot 1: its words do not match their check";
  EXPECT_EQ(raised([&] { reader.find(2); }), slot1);
  EXPECT_EQ(raised(walkAll), slot1);
  EXPECT_EQ(raised([&] { seg.verify(); }), slot1);
  writer.put(2, Hop{2, 21});
  EXPECT_EQ(reader.find(2).row.v, 21u);

  // A bucket's head leading out of the table, a row count beyond what the slots hold, a header
  // byte no field owns.
  std::uint32_t& head = *reinterpret_cast<std::uint32_t*>(&bytes.byte(l.buckets));
  const std::uint32_t goodHead = head;
  head = 0x33333333;
  EXPECT_TRUE(has(raised([&] { seg.verify(); }), ": bucket 0: its chain leads to slot 858993459"));
  head = goodHead;
  bytes.word(64) += 1;  // the header's row count
  EXPECT_EQ(raised([&] { seg.verify(); }),
            seg.name() + ": the header: it counts 4 rows; the slots hold 3");
  bytes.word(64) += 100;
  EXPECT_TRUE(has(raised([&] { reader.size(); }), "it counts 104 rows in a table of 8"));
  bytes.word(64) -= 101;
  bytes.byte(60) = 1;
  EXPECT_EQ(raised([&] { seg.verify(); }),
            seg.name() + ": the header: its unused bytes are not zero");
  bytes.byte(60) = 0;
  EXPECT_EQ(raised([&] { seg.verify(); }), "");

  // A change-log entry changed: the poll that meets it says so, and the next one starts over from
  // the rows.
  struct Seen : Shoal::Changes<std::uint32_t> {
    int keys = 0, alls = 0;
    void key(const std::uint32_t&) override { ++keys; }
    void all() override { ++alls; }
    void mount(Shoal::MountState) override {}
  } seen;
  reader.poll(seen);
  writer.put(5, Hop{5, 50});
  std::size_t newest = 0;  // the entry with the highest stamp
  for (std::size_t i = 0; i < 256; ++i) {
    if (bytes.word(l.log + i * l.logEntryBytes) > bytes.word(l.log + newest * l.logEntryBytes)) {
      newest = i;
    }
  }
  bytes.byte(l.log + newest * l.logEntryBytes + l.logEntryBytes - 1) ^= 1;
  EXPECT_TRUE(has(raised([&] { reader.poll(seen); }), "its words do not match their check"));
  EXPECT_TRUE(has(raised([&] { seg.verify(); }), ": change log entry "));
  seen.alls = 0;
  reader.poll(seen);
  EXPECT_EQ(seen.alls, 1);

  // A key the writer sealed but its type cannot hold: the walk finds it before anything prints it,
  // and so does the poll that meets it in the change log.
  writer.put(0xffffffffu, Hop{});
  EXPECT_EQ(raised(walkAll), seg.name() + ": slot 4: the key holds all ones");
  EXPECT_TRUE(has(raised([&] { reader.poll(seen); }), ": the key holds all ones"));
}

TEST(ShoalUntrusted, AWriterStoppedInTheMiddleOfAWriteIsCalledStuckInBoundedTime) {
  using namespace std::chrono;
  ShoalTest::AgentGuard guard("shoalStuck");
  Backing writer(guard.agent(), "hops", 8);
  writer.attach(Shoal::Role::writer);
  writer.put(1, Hop{1, 10});  // slot 0
  Backing reader(guard.agent(), "hops", 8);
  reader.attach(Shoal::Role::reader);
  Shoal::Segment& seg = reader.segment();
  seg.writerWaitIs(milliseconds(50));
  const Shoal::Segment::Layout l = seg.layout();
  Bytes bytes(seg);

  // The writer stops with slot 0's version odd and its lock held (it lives).
  bytes.word(l.slots) += 1;
  bytes.word(80) += 1;  // and inside a change of the table
  auto t0 = steady_clock::now();
  try {
    reader.find(1);
    ADD_FAILURE() << "a stuck write was read through";
  } catch (const Shoal::WriterStuckException& e) {
    EXPECT_EQ(std::string(e.what()),
              seg.name() +
                  ": slot 0: the writer is stuck in the middle of changing it (readers "
                  "wait 50 ms)");
  }
  auto waited = steady_clock::now() - t0;
  EXPECT_GE(waited, milliseconds(50));
  EXPECT_LT(waited, seconds(5));
  // Met again, the same unfinished write is not waited for a second time.
  t0 = steady_clock::now();
  EXPECT_TRUE(has(raised([&] { reader.find(1); }), "(still, readers wait 50 ms)"));
  EXPECT_LT(steady_clock::now() - t0, milliseconds(40));
  EXPECT_TRUE(has(raised([&] { seg.verify(); }), ": the table: the writer is stuck"));
  EXPECT_THROW(
      [&] {
        for (auto&& e : reader.walk()) (void)e;
      }(),
      Shoal::WriterStuckException);

  // It goes on: the row reads again.
  bytes.word(l.slots) += 1;
  bytes.word(80) += 1;
  EXPECT_EQ(reader.find(1).row.v, 10u);
  EXPECT_EQ(raised([&] { seg.verify(); }), "");
}

}  // namespace
