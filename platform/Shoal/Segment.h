#pragma once
// Shoal::Segment: the POSIX shared-memory segment of one table, and the row store inside it.
//
// One segment per table, named "/shoal.<agent>.<table>". One process writes it; any number read
// it. Nothing here takes a lock that the writer waits on:
//
// - Each slot (key and row) carries a version word, odd while the writer changes the slot. A
//   reader copies the slot between two loads of the version and keeps the copy only when both
//   loads agree and are even; otherwise it reads again.
// - Each slot and each change-log entry also carries a check word, a hash of its other words that
//   the writer seals it with. A reader trusts nothing in the segment: a copy whose check does not
//   match, a link out of the table, a chain that loops, a count beyond the capacity or a key or
//   row its type cannot hold (the typed layer's RowCheck) is reported as corruption naming the
//   segment and the slot (or log entry), never followed.
// - The header's write count is odd while the writer is inside one change of the table. A reader
//   that finds the structure inconsistent during a stretch in which the count stayed even and
//   unchanged has seen the table at rest: the inconsistency is corruption, not a race.
// - A reader waits for a writer in the middle of a change at most writerWait() (one second by
//   default; a write takes well under a microsecond, so only a writer stopped or descheduled for
//   that long is still inside it). Past it the read raises WriterStuckException; a later read
//   that finds the same write still unfinished raises it at once.
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

#include <array>
#include <chrono>
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

// A live writer has been in the middle of a change for longer than the reader waits: the row (or
// the table) cannot be read now. It is a CorruptionException, so that a consumer that survives a
// row it cannot read survives this one too; tools that say what went wrong tell them apart.
class WriterStuckException : public CorruptionException {
 public:
  explicit WriterStuckException(const std::string& what) : CorruptionException(what) {}
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
// '/' anywhere, a '.' in the agent's name (it ends the agent's part), or longer than
// segmentNameMax bytes in all.
std::string segmentName(const std::string& agent, const std::string& table);
inline constexpr std::size_t segmentNameMax = 250;
// The longest agent name whose tables, the longest of them `tableNameLength` bytes, all fit.
std::size_t maxAgentNameLength(std::size_t tableNameLength);

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
  // What the typed layer knows of keys and rows as bytes: why the bytes of a key (and of its row;
  // `row` null for a key alone) are no value of their types, "" when they are; and a key's hash.
  // Either may be null: any bytes are accepted, and chains are not checked against hashes.
  struct RowCheck {
    std::string (*why)(const void* key, const void* row) = nullptr;
    std::uint32_t (*hash)(const void* key) = nullptr;
  };
  // Where things are, in bytes from the segment's start: for tools that inspect segments and tests
  // that damage them. A slot's first word is its version, a log entry's its stamp.
  struct Layout {
    std::size_t buckets, slots, slotBytes, log, logEntryBytes, total;
  };

  Segment(const std::string& agent, const std::string& table, const SegmentShape& shape);
  ~Segment();  // a writer detaches: readers see the table unmounted, the name is removed
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  const std::string& name() const { return name_; }
  const SegmentShape& shape() const { return shape_; }
  MountState mountState() const { return mountState_; }
  Layout layout() const;
  void rowCheckIs(RowCheck c) { rowCheck_ = c; }
  // How long a reader waits for a writer in the middle of a change before it calls it stuck.
  std::chrono::nanoseconds writerWait() const { return writerWait_; }
  void writerWaitIs(std::chrono::nanoseconds d) { writerWait_ = d; }
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

  // Reads (either role). Each raises CorruptionException for what it finds corrupt on its way, and
  // WriterStuckException for a writer stuck in the middle of a change.
  Read find(const void* key, std::uint32_t hash, KeyEq eq, void* rowOut) const;
  // The next live row at slot `pos` or after; moves `pos` past it.
  bool walkNext(std::size_t& pos, void* keyOut, void* rowOut) const;
  std::size_t size() const;
  // Reads the whole segment as untrusted bytes, at a moment the writer is between changes: every
  // slot, every chain (no link out of the table, no loop, each live slot on its bucket's chain
  // once), the row count, the change log, the header's unused bytes. Raises CorruptionException
  // for the first fault, naming where it is.
  void verify() const;
  // The current writer's epoch (0 while none has attached): a restarted writer has a new one.
  std::uint64_t epoch() const;
  // Whether a live process holds the writer's lock.
  bool writerAlive() const;

  // Reader: follows the writer (attaches, restarts, departures) and drains the change log.
  // Answers the number of reports made. A corrupt log entry raises CorruptionException; the reader
  // has then moved past the log, and its next poll reports that every row may have changed.
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
  // Copies slot i consistently (waiting out a write in progress) and checks it: its check word,
  // its links, its key and row. False when the writer died in the middle of writing it.
  bool readSlot(std::uint32_t i, std::uint64_t* words) const;
  // A reader met a write in progress (`word` still holds the odd `seen`): spins, then yields.
  // False when the writer is dead; raises WriterStuckException once it waited writerWait().
  struct Patience;
  bool bearWith(Patience& p, const std::uint64_t& word, std::uint64_t seen,
                const std::string& what) const;
  [[noreturn]] void corrupt(const std::string& where, const std::string& why) const;
  std::string whyKey(const std::uint64_t* key, const std::uint64_t* row) const;
  // Checks a change-log entry's words as copied (check, flag, key) at log position pos.
  void logRead(std::uint64_t pos, const std::uint64_t* words) const;
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
  RowCheck rowCheck_;
  std::chrono::nanoseconds writerWait_ = std::chrono::seconds(1);
  // The writes this reader last found stuck (each a word and the value it held): met again, they
  // are not waited for.
  struct Stuck {
    const std::uint64_t* word = nullptr;
    std::uint64_t value = 0;
  };
  mutable std::array<Stuck, 4> stuck_{};
  mutable std::size_t stuckNext_ = 0;
  bool allPending_ = false;
};

}  // namespace Shoal
