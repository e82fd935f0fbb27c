#pragma once
// Shoal::Segment: the POSIX shared-memory segment of one table, and the row store inside it.
//
// One segment per table, named "/shoal.<agent>.<table>". One process writes it; any number read
// it. Nothing here takes a lock that the writer waits on:
//
// - Each slot (key and row) carries a version word, odd while the writer changes the slot. A
//   reader copies the slot between two loads of the version and keeps the copy only when both
//   loads agree and are even; otherwise it reads again.
// - Keys are found through chains hanging off a bucket array. A slot names its bucket, so a reader
//   that follows a link into a slot the writer meanwhile freed and reused elsewhere notices and
//   starts its lookup again.
// - The header's epoch is odd while a writer empties the table on attaching and moves on by two
//   with each writer that attaches; a lookup that straddles a change of epoch is done again.
// - Every change appends its key to a bounded change log; each reader drains it from its own
//   event loop at its own pace. A reader the log has lapped is told that the whole table changed.
//
// The writer holds an open-file-description lock on the segment for as long as it lives; the
// kernel drops it when the writer dies, however it dies. A writer starting under the same name
// takes the lock, finds the segment its predecessor left and reuses it (emptied) when its shape
// matches; otherwise it retires it (readers move to the new one) and makes a new one.
//
// Rows and keys are stored as their bytes: the typed layer (Shoal/SharedMemoryBacking.h) copies
// them in and out and compares keys with their own equality.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Shoal/Table.h"

namespace Shoal {

// A table's rows no longer fit: the capacity is fixed when the segment is made.
class CapacityException : public std::runtime_error {
 public:
  explicit CapacityException(const std::string& what) : std::runtime_error(what) {}
};

// The segment could not be made or attached (a second writer, a system call that failed).
class SegmentException : public std::runtime_error {
 public:
  explicit SegmentException(const std::string& what) : std::runtime_error(what) {}
};

// What a segment holds, fixed when it is made. Readers refuse a segment of another shape.
struct SegmentShape {
  std::uint32_t keySize = 0;
  std::uint32_t rowSize = 0;
  // The row type's own layout version (Row::shoalLayoutVersion, 0 when it has none).
  std::uint32_t rowLayout = 0;
  std::uint32_t capacity = 0;     // rows
  std::uint32_t logCapacity = 0;  // change-log entries, a power of two
  bool operator==(const SegmentShape&) const = default;
};

// "/shoal.<agent>.<table>". Raises SegmentException for a name the system cannot take: empty, a
// '/' anywhere, a '.' in the agent's name (it ends the agent's part), or too long.
std::string segmentName(const std::string& agent, const std::string& table);

// Removes the segments of `agent` that no live writer holds (a crashed run's leftovers). Answers
// how many it removed.
std::size_t removeStaleSegments(const std::string& agent);

class Segment {
 public:
  // Compares a stored key (its bytes) with the key looked for.
  using KeyEq = bool (*)(const void* stored, const void* wanted);
  // What a reader's poll reports, in order.
  class Changes {
   public:
    virtual void key(const void* key) = 0;
    virtual void all() = 0;
    virtual void mount(MountState s) = 0;

   protected:
    ~Changes() = default;
  };
  enum class Read : std::uint8_t { absent, found, corrupt };

  Segment(const std::string& agent, const std::string& table, const SegmentShape& shape);
  ~Segment();  // a writer detaches: readers see the table unmounted, the name is removed
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  const std::string& name() const { return name_; }
  const SegmentShape& shape() const { return shape_; }
  MountState mountState() const { return mountState_; }
  // Why the segment is failed, for diagnostics.
  const std::string& error() const { return error_; }

  // Writer: takes the name (reusing or replacing what a crashed writer left), empties the table.
  // Raises SegmentException when another live writer holds it.
  void attachWriter();
  // Reader: maps the segment if a writer has made it; until then the table reads unmounted.
  void attachReader();
  // Leaves the segment; a writer also marks it detached and removes the name.
  void detach();

  // Writer operations. `hash` is the key's hash, the same in every process.
  void put(const void* key, std::uint32_t hash, const void* row, KeyEq eq);
  bool erase(const void* key, std::uint32_t hash, KeyEq eq);
  void clear();
  // Marks the row of the key corrupt: readers' lookups of it report Read::corrupt until the
  // writer rewrites or deletes it.
  void corruptIs(const void* key, std::uint32_t hash, KeyEq eq);

  // Reads (either role). Raises CorruptionException for a table found inconsistent.
  Read find(const void* key, std::uint32_t hash, KeyEq eq, void* rowOut) const;
  // The next live row at slot `pos` or after; moves `pos` past it.
  bool walkNext(std::size_t& pos, void* keyOut, void* rowOut) const;
  std::size_t size() const;
  // The current writer's epoch (0 while none has attached): a restarted writer has a new one.
  std::uint64_t epoch() const;
  // Whether a live process holds the writer's lock.
  bool writerAlive() const;

  // Reader: follows the writer (attaches, restarts, departures) and drains the change log.
  // Answers the number of reports made.
  std::size_t poll(Changes& changes);

  struct Header;  // the segment's first bytes (Segment.cpp)

 private:
  Header* header() const;
  std::uint64_t* slot(std::uint32_t i) const;
  std::uint32_t* buckets() const;
  std::uint64_t* logEntry(std::uint64_t pos) const;
  std::size_t totalBytes() const;
  bool mapExisting(int fd, bool writable);
  void makeNew();
  void reset();
  void unmap();
  void appendLog(const void* key, bool all);
  // Writer: the slot of the key and the slot before it in its chain (kNone when first).
  std::uint32_t locate(const void* key, std::uint32_t bucket, KeyEq eq, std::uint32_t* prev) const;
  // Copies slot i consistently (waiting out a write in progress); false when the writer died in
  // the middle of writing it.
  bool readSlot(std::uint32_t i, std::uint64_t* words) const;
  std::uint64_t beginWrite(std::uint32_t i);
  void endWrite(std::uint32_t i, std::uint64_t v);
  void setMount(MountState s, Changes* changes);

  std::string name_;
  SegmentShape shape_;
  std::uint32_t bucketCount_ = 0;
  std::uint32_t keyWords_ = 0;
  std::uint32_t rowWords_ = 0;
  int fd_ = -1;
  void* base_ = nullptr;
  std::size_t mapped_ = 0;
  bool writer_ = false;
  MountState mountState_ = MountState::unmounted;
  std::string error_;
  // Writer: the free slots. Reader: the epoch it follows and its position in the change log.
  std::vector<std::uint32_t> free_;
  std::uint64_t seenEpoch_ = 0;
  std::uint64_t logCursor_ = 0;
  // A slot's or a log entry's words as last copied; reads and writes reuse it.
  mutable std::vector<std::uint64_t> scratch_;
  std::vector<std::uint64_t> logScratch_;
};

}  // namespace Shoal
