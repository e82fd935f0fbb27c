#include "Shoal/Segment.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>

namespace Shoal {

namespace {

constexpr std::uint64_t kMagic = 0x31625453'4c414f48ull;  // "HOALSTb1" read as bytes, little end
// The segment's own layout: bump it when the header, slots or log change shape.
constexpr std::uint32_t kFormat = 3;
constexpr std::uint32_t kNone = 0xffffffffu;
constexpr std::size_t kHeaderBytes = 128;

// The header's state word.
constexpr std::uint64_t kStateNew = 0;       // made, no writer yet
constexpr std::uint64_t kStateAttached = 1;  // a writer attached (it may since have died)
constexpr std::uint64_t kStateDetached = 2;  // the writer left; the name is removed
constexpr std::uint64_t kStateRetired = 3;   // replaced by a segment of another shape
static_assert(kStateNew == 0, "a segment's zero-filled header reads as new");

// A slot is its version, its check, its meta word, then the key's and the row's words. A log entry
// is its stamp, its check, its flag (1: every row may have changed), then the key's words.
constexpr std::uint32_t kSlotHead = 3;
constexpr std::uint32_t kLogHead = 3;

// A slot's meta word: the next slot of its chain, its bucket, and two flags.
constexpr std::uint64_t kNextMask = 0xffffffffull;
constexpr int kBucketShift = 32;
constexpr std::uint64_t kBucketMask = 0x3fffffffull;
constexpr std::uint64_t kCorrupt = 1ull << 62;
constexpr std::uint64_t kLive = 1ull << 63;

// A reader waits out a write in progress: it spins a little, then yields, and now and then asks
// whether the writer still lives (a writer killed in mid-write leaves the slot odd for good).
constexpr unsigned kSpins = 64;
constexpr unsigned kYieldsPerLivenessCheck = 256;

// The check word of a slot or log entry: a hash of its other words and of its place, so that a
// word changed by anyone but the writer, or a slot's words copied to another slot, shows.
std::uint64_t sealWords(const std::uint64_t* w, std::size_t n, std::uint64_t index) {
  std::uint64_t h = 0x6a09e667f3bcc908ull ^ (index * 0x9e3779b97f4a7c15ull);
  for (std::size_t j = 0; j < n; ++j) {
    h = (h ^ w[j]) * 0xff51afd7ed558ccdull;
    h ^= h >> 32;
  }
  return h;
}

std::uint64_t load(const std::uint64_t& w, std::memory_order o) {
  return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t&>(w)).load(o);
}
std::uint32_t load(const std::uint32_t& w, std::memory_order o) {
  return std::atomic_ref<std::uint32_t>(const_cast<std::uint32_t&>(w)).load(o);
}
void store(std::uint64_t& w, std::uint64_t v, std::memory_order o) {
  std::atomic_ref<std::uint64_t>(w).store(v, o);
}
void store(std::uint32_t& w, std::uint32_t v, std::memory_order o) {
  std::atomic_ref<std::uint32_t>(w).store(v, o);
}
constexpr auto relaxed = std::memory_order_relaxed;
constexpr auto acquire = std::memory_order_acquire;
constexpr auto release = std::memory_order_release;

std::uint32_t words(std::uint32_t bytes) { return (bytes + 7) / 8; }
std::uint32_t nextOf(std::uint64_t meta) { return static_cast<std::uint32_t>(meta & kNextMask); }
std::uint32_t bucketOf(std::uint64_t meta) {
  return static_cast<std::uint32_t>((meta >> kBucketShift) & kBucketMask);
}
std::uint64_t liveMeta(std::uint32_t next, std::uint32_t bucket) {
  return kLive | (std::uint64_t(bucket) << kBucketShift) | next;
}

std::string sysError(const std::string& what, const std::string& name) {
  return name + ": " + what + ": " + std::strerror(errno);
}

// Takes the writer's lock on the segment without waiting; false when another writer holds it.
bool lockForWriting(int fd) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  return ::fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

// Whether the open segment and the name still name the same object (a writer leaving removes the
// name; one that replaced it made a new object).
bool stillNamed(int fd, const std::string& name) {
  int again = ::shm_open(name.c_str(), O_RDONLY, 0);
  if (again < 0) return false;
  struct stat a {
  }, b{};
  bool same = ::fstat(fd, &a) == 0 && ::fstat(again, &b) == 0 && a.st_ino == b.st_ino &&
              a.st_dev == b.st_dev;
  ::close(again);
  return same;
}

}  // namespace

struct Segment::Header {
  std::uint64_t magic;  // stored last by the segment's maker
  std::uint32_t format;
  std::uint32_t keySize;
  std::uint32_t rowSize;
  std::uint32_t rowLayout;
  std::uint32_t capacity;
  std::uint32_t logCapacity;
  std::uint64_t epoch;
  std::uint64_t state;
  std::uint64_t writerPid;  // diagnostics only: liveness is the lock's
  // What the writer changes on every write, on a cache line of its own: readers load the words
  // above on every lookup, and a write must not take their line away from them each time.
  alignas(64) std::uint64_t rows;
  std::uint64_t logHead;
  std::uint64_t writes;  // odd while the writer is inside one change of the table
};
static_assert(sizeof(Segment::Header) <= kHeaderBytes);
static_assert(offsetof(Segment::Header, rows) == 64);

struct Segment::Patience {
  unsigned tries = 0;
  std::chrono::steady_clock::time_point since;
};

namespace {

// The writer's bracket around one change of the table: the write count is odd inside it.
class Changing {
 public:
  explicit Changing(Segment::Header* h) : h_(h), w_(load(h->writes, relaxed)) {
    w_ += w_ & 1;  // left odd by a writer that died changing the table
    store(h_->writes, w_ + 1, relaxed);
    std::atomic_thread_fence(release);
  }
  ~Changing() { store(h_->writes, w_ + 2, release); }
  Changing(const Changing&) = delete;
  Changing& operator=(const Changing&) = delete;

 private:
  Segment::Header* h_;
  std::uint64_t w_;
};

// The header's bytes that no field holds: zero in every segment a writer made.
bool headerPaddingClear(const Segment::Header* h) {
  const auto* b = reinterpret_cast<const unsigned char*>(h);
  for (std::size_t i = offsetof(Segment::Header, writerPid) + 8; i < kHeaderBytes; ++i) {
    if (i >= offsetof(Segment::Header, rows) && i < offsetof(Segment::Header, writes) + 8) continue;
    if (b[i]) return false;
  }
  return true;
}

// Marks a segment that is about to lose its name retired, so that readers still mapping it look
// for its successor when they next poll. The caller holds the writer's lock.
void retire(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || std::size_t(st.st_size) < kHeaderBytes) return;
  void* p = ::mmap(nullptr, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) return;
  auto* h = static_cast<Segment::Header*>(p);
  if (load(h->magic, acquire) == kMagic) store(h->state, kStateRetired, release);
  ::munmap(p, kHeaderBytes);
}

}  // namespace

std::string segmentName(const std::string& agent, const std::string& table) {
  if (agent.empty() || table.empty() || agent.find_first_of("/.") != std::string::npos ||
      table.find('/') != std::string::npos) {
    throw SegmentException("bad table name '" + agent + "', '" + table +
                           "': names are not empty, have no '/', and the agent's has no '.'");
  }
  std::string name = "/shoal." + agent + "." + table;
  if (name.size() > segmentNameMax) {
    throw SegmentException("table name too long: " + name + " (" + std::to_string(name.size()) +
                           " bytes; at most " + std::to_string(segmentNameMax) + ")");
  }
  return name;
}

std::size_t maxAgentNameLength(std::size_t tableNameLength) {
  return segmentNameMax - std::string("/shoal..").size() - tableNameLength;
}

std::size_t removeStaleSegments(const std::string& agent) {
  std::string prefix = segmentName(agent, "x");
  prefix = prefix.substr(1, prefix.size() - 2);  // "shoal.<agent>."
  DIR* dir = ::opendir("/dev/shm");
  if (!dir) return 0;
  std::size_t removed = 0;
  while (dirent* e = ::readdir(dir)) {
    std::string file = e->d_name;
    if (file.compare(0, prefix.size(), prefix) != 0) continue;
    std::string name = "/" + file;
    int fd = ::shm_open(name.c_str(), O_RDWR, 0);
    if (fd < 0) continue;
    if (lockForWriting(fd) && stillNamed(fd, name)) {
      retire(fd);
      if (::shm_unlink(name.c_str()) == 0) ++removed;
    }
    ::close(fd);
  }
  ::closedir(dir);
  return removed;
}

Segment::Segment(const std::string& agent, const std::string& table, const SegmentShape& shape)
    : name_(segmentName(agent, table)), shape_(shape) {
  if (!shape.capacity || shape.capacity >= kBucketMask) {
    throw SegmentException(name_ + ": capacity must be 1 to " + std::to_string(kBucketMask - 1));
  }
  if (!shape.logCapacity || (shape.logCapacity & (shape.logCapacity - 1))) {
    throw SegmentException(name_ + ": the change log's capacity must be a power of two");
  }
  bucketCount_ = 1;
  while (bucketCount_ < shape.capacity) bucketCount_ <<= 1;
  keyWords_ = words(shape.keySize);
  rowWords_ = words(shape.rowSize);
  scratch_.resize(kSlotHead - 1 + keyWords_ + rowWords_);
  logScratch_.resize(kLogHead - 1 + keyWords_);
}

Segment::~Segment() { detach(); }

Segment::Header* Segment::header() const { return static_cast<Header*>(base_); }

std::uint32_t* Segment::buckets() const {
  return reinterpret_cast<std::uint32_t*>(static_cast<char*>(base_) + kHeaderBytes);
}

std::uint64_t* Segment::slot(std::uint32_t i) const {
  auto* first = reinterpret_cast<std::uint64_t*>(static_cast<char*>(base_) + kHeaderBytes +
                                                 std::size_t(words(bucketCount_ * 4)) * 8);
  return first + std::size_t(i) * (kSlotHead + keyWords_ + rowWords_);
}

std::uint64_t* Segment::logEntry(std::uint64_t pos) const {
  std::uint64_t* first = slot(shape_.capacity);
  return first + std::size_t(pos & (shape_.logCapacity - 1)) * (kLogHead + keyWords_);
}

Segment::Layout Segment::layout() const {
  Layout l{};
  l.buckets = kHeaderBytes;
  l.slots = kHeaderBytes + std::size_t(words(bucketCount_ * 4)) * 8;
  l.slotBytes = std::size_t(kSlotHead + keyWords_ + rowWords_) * 8;
  l.log = l.slots + std::size_t(shape_.capacity) * l.slotBytes;
  l.logEntryBytes = std::size_t(kLogHead + keyWords_) * 8;
  l.total = l.log + std::size_t(shape_.logCapacity) * l.logEntryBytes;
  return l;
}

std::size_t Segment::totalBytes() const { return layout().total; }

void Segment::unmap() {
  if (base_) ::munmap(base_, mapped_);
  base_ = nullptr;
  mapped_ = 0;
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

// Maps the segment open on fd when it is complete and of this shape; otherwise leaves it unmapped
// and says why in error_ (empty when it is merely not made yet).
bool Segment::mapExisting(int fd, bool writable) {
  error_.clear();
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    error_ = sysError("fstat", name_);
    return false;
  }
  std::size_t size = st.st_size;
  if (size < kHeaderBytes) return false;
  void* p = ::mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    error_ = sysError("mmap", name_);
    return false;
  }
  const auto* h = static_cast<const Header*>(p);
  if (load(h->magic, acquire) != kMagic) {
    ::munmap(p, size);
    return false;
  }
  SegmentShape found{h->keySize, h->rowSize, h->rowLayout, h->capacity, h->logCapacity};
  if (h->format != kFormat || found != shape_ || size != totalBytes()) {
    error_ = name_ + ": the segment holds another layout (format " + std::to_string(h->format) +
             ", key " + std::to_string(h->keySize) + " bytes, row " + std::to_string(h->rowSize) +
             " bytes, row layout " + std::to_string(h->rowLayout) + ", capacity " +
             std::to_string(h->capacity) + ", log " + std::to_string(h->logCapacity) + ")";
    ::munmap(p, size);
    return false;
  }
  base_ = p;
  mapped_ = size;
  return true;
}

void Segment::makeNew() {
  std::size_t size = totalBytes();
  if (::ftruncate(fd_, size) != 0) throw SegmentException(sysError("ftruncate", name_));
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (p == MAP_FAILED) throw SegmentException(sysError("mmap", name_));
  base_ = p;
  mapped_ = size;
  Header* h = header();
  h->format = kFormat;
  h->keySize = shape_.keySize;
  h->rowSize = shape_.rowSize;
  h->rowLayout = shape_.rowLayout;
  h->capacity = shape_.capacity;
  h->logCapacity = shape_.logCapacity;
  std::memset(buckets(), 0xff, std::size_t(bucketCount_) * 4);
  store(h->magic, kMagic, release);
}

void Segment::attachWriter() {
  KIV_ASSERT_TEXT(!base_, "segment not attached");
  for (;;) {
    fd_ = ::shm_open(name_.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd_ < 0) throw SegmentException(sysError("shm_open", name_));
    if (!lockForWriting(fd_)) {
      int fd = fd_;
      fd_ = -1;
      ::close(fd);
      throw SegmentException(name_ + ": another live process is the table's writer");
    }
    // The previous writer may have removed the name between our open and our lock.
    if (!stillNamed(fd_, name_)) {
      unmap();
      continue;
    }
    break;
  }
  writer_ = true;
  struct stat st {};
  ::fstat(fd_, &st);
  if (st.st_size == 0) {
    makeNew();
  } else if (!mapExisting(fd_, true)) {
    // A crashed writer's segment of another shape, or one it left half made: readers still on it
    // are sent away, and the name gets a new segment.
    retire(fd_);
    ::shm_unlink(name_.c_str());
    ::close(fd_);
    fd_ = ::shm_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    if (fd_ < 0) throw SegmentException(sysError("shm_open", name_));
    if (!lockForWriting(fd_)) throw SegmentException(sysError("lock", name_));
    makeNew();
  }
  error_.clear();
  reset();
  mountState_ = MountState::mounted;
}

// Empties the table for a new writer. Whatever its predecessor left, half-written slots included,
// is dropped; readers see the epoch move and start over.
void Segment::reset() {
  Header* h = header();
  Changing changing(h);
  std::uint64_t e = load(h->epoch, relaxed);
  std::uint64_t odd = (e + 1) | 1;
  store(h->epoch, odd, relaxed);
  std::atomic_thread_fence(release);
  for (std::uint32_t b = 0; b < bucketCount_; ++b) store(buckets()[b], kNone, relaxed);
  free_.clear();
  for (std::uint32_t i = shape_.capacity; i-- > 0;) {
    std::uint64_t v = beginWrite(i);
    store(slot(i)[2], kNone, relaxed);
    endWrite(i, v);
    free_.push_back(i);
  }
  store(h->rows, 0, relaxed);
  store(h->writerPid, std::uint64_t(::getpid()), relaxed);
  store(h->state, kStateAttached, relaxed);
  appendLog(nullptr, true);
  store(h->epoch, odd + 1, release);
}

void Segment::attachReader() {
  if (base_) return;
  writer_ = false;
  int fd = ::shm_open(name_.c_str(), O_RDONLY, 0);
  if (fd < 0) {
    error_ = errno == ENOENT ? std::string() : sysError("shm_open", name_);
    return;
  }
  if (!mapExisting(fd, false)) {
    ::close(fd);
    return;
  }
  fd_ = fd;
}

void Segment::detach() {
  if (base_ && writer_) {
    store(header()->state, kStateDetached, release);
    ::shm_unlink(name_.c_str());
  }
  unmap();
  writer_ = false;
  seenEpoch_ = 0;
  mountState_ = MountState::unmounted;
}

std::uint64_t Segment::beginWrite(std::uint32_t i) {
  std::uint64_t& ver = slot(i)[0];
  std::uint64_t v = load(ver, relaxed);
  v += v & 1;  // left odd by a writer that died writing it
  store(ver, v + 1, relaxed);
  std::atomic_thread_fence(release);
  return v + 2;
}

// Seals the slot's words with its check, then lets readers take it.
void Segment::endWrite(std::uint32_t i, std::uint64_t v) {
  std::uint64_t* w = slot(i);
  const std::size_t n = kSlotHead - 2 + keyWords_ + rowWords_;
  std::uint64_t* buf = scratch_.data();
  for (std::size_t j = 0; j < n; ++j) buf[j] = load(w[2 + j], relaxed);
  store(w[1], sealWords(buf, n, i), relaxed);
  store(w[0], v, release);
}

void Segment::corrupt(const std::string& where, const std::string& why) const {
  throw CorruptionException(name_ + ": " + where + ": " + why);
}

std::string Segment::whyKey(const std::uint64_t* key, const std::uint64_t* row) const {
  return rowCheck_.why ? rowCheck_.why(key, row) : std::string();
}

bool Segment::bearWith(Patience& p, const std::uint64_t& word, std::uint64_t seen,
                       const std::string& what) const {
  bool metBefore = false;
  for (const Stuck& st : stuck_) metBefore = metBefore || (st.word == &word && st.value == seen);
  if (!metBefore && ++p.tries <= kSpins) return true;
  const auto now = std::chrono::steady_clock::now();
  if (p.tries == kSpins + 1) p.since = now;
  const bool waitedOut = metBefore || now - p.since >= writerWait_;
  if (waitedOut || (p.tries - kSpins) % kYieldsPerLivenessCheck == 0) {
    if (!writerAlive()) return false;
    if (waitedOut) {
      if (!metBefore) stuck_[stuckNext_++ % stuck_.size()] = Stuck{&word, seen};
      using std::chrono::duration_cast;
      using std::chrono::milliseconds;
      throw WriterStuckException(
          name_ + ": " + what + ": the writer is stuck in the middle of changing it (" +
          (metBefore ? "still, " : "") + "readers wait " +
          std::to_string(duration_cast<milliseconds>(writerWait_).count()) + " ms)");
    }
  }
  ::sched_yield();
  return true;
}

bool Segment::readSlot(std::uint32_t i, std::uint64_t* out) const {
  const std::uint64_t* s = slot(i);
  const std::size_t n = kSlotHead - 1 + keyWords_ + rowWords_;
  Patience patience;
  for (;;) {
    std::uint64_t v = load(s[0], acquire);
    if (!(v & 1)) {
      for (std::size_t j = 0; j < n; ++j) out[j] = load(s[1 + j], relaxed);
      std::atomic_thread_fence(acquire);
      if (load(s[0], relaxed) == v) break;
    }
    if (!bearWith(patience, s[0], v, "slot " + std::to_string(i))) return false;
  }
  // What the writer sealed is checked before any of it is believed.
  auto where = [i] { return "slot " + std::to_string(i); };
  if (out[0] != sealWords(out + 1, n - 1, i))
    corrupt(where(), "its words do not match their check");
  const std::uint64_t meta = out[1];
  if (!(meta & kLive)) {
    if (meta != kNone) corrupt(where(), "a free slot holds links or flags");
    return true;
  }
  const std::uint32_t next = nextOf(meta);
  if (next != kNone && next >= shape_.capacity) {
    corrupt(where(), "it links to slot " + std::to_string(next) + ", beyond the table's " +
                         std::to_string(shape_.capacity));
  }
  if (bucketOf(meta) >= bucketCount_) {
    corrupt(where(), "it names bucket " + std::to_string(bucketOf(meta)) + " of " +
                         std::to_string(bucketCount_));
  }
  const std::uint64_t* key = out + 2;
  if (std::string why = whyKey(key, key + keyWords_); !why.empty()) corrupt(where(), why);
  if (rowCheck_.hash && (rowCheck_.hash(key) & (bucketCount_ - 1)) != bucketOf(meta)) {
    corrupt(where(), "its key belongs in bucket " +
                         std::to_string(rowCheck_.hash(key) & (bucketCount_ - 1)) + ", not " +
                         std::to_string(bucketOf(meta)));
  }
  return true;
}

void Segment::appendLog(const void* key, bool all) {
  Header* h = header();
  std::uint64_t pos = load(h->logHead, relaxed);
  std::uint64_t* e = logEntry(pos);
  store(e[0], 0, relaxed);
  std::atomic_thread_fence(release);
  std::uint64_t* k = logScratch_.data();  // the check's place, the flag, the key
  k[1] = all ? 1 : 0;
  if (key) {
    k[1 + keyWords_] = 0;
    std::memcpy(k + 2, key, shape_.keySize);
  } else {
    for (std::uint32_t j = 0; j < keyWords_; ++j) k[2 + j] = load(e[3 + j], relaxed);
  }
  k[0] = sealWords(k + 1, 1 + keyWords_, pos);
  for (std::uint32_t j = 0; j < kLogHead - 1 + keyWords_; ++j) store(e[1 + j], k[j], relaxed);
  store(e[0], pos + 1, release);
  store(h->logHead, pos + 1, release);
}

std::uint32_t Segment::locate(const void* key, std::uint32_t bucket, KeyEq eq,
                              std::uint32_t* prev) const {
  *prev = kNone;
  std::uint64_t* k = scratch_.data();
  for (std::uint32_t s = load(buckets()[bucket], relaxed); s != kNone;) {
    const std::uint64_t* w = slot(s);
    for (std::uint32_t j = 0; j < keyWords_; ++j) k[j] = load(w[kSlotHead + j], relaxed);
    if (eq(k, key)) return s;
    *prev = s;
    s = nextOf(load(w[2], relaxed));
  }
  return kNone;
}

void Segment::put(const void* key, std::uint32_t hash, const void* row, KeyEq eq) {
  KIV_ASSERT_TEXT(base_ && writer_, "table mounted as writer");
  std::uint32_t bucket = hash & (bucketCount_ - 1);
  std::uint32_t prev;
  std::uint32_t s = locate(key, bucket, eq, &prev);
  bool inserted = s == kNone;
  if (inserted) {
    if (free_.empty()) {
      throw CapacityException(name_ + ": the table is full (" + std::to_string(shape_.capacity) +
                              " rows)");
    }
    s = free_.back();
    free_.pop_back();
  }
  Changing changing(header());
  std::uint64_t* w = slot(s);
  std::uint64_t* buf = scratch_.data();
  buf[keyWords_ - 1] = 0;
  buf[keyWords_ + rowWords_ - 1] = 0;
  std::memcpy(buf, key, shape_.keySize);
  std::memcpy(buf + keyWords_, row, shape_.rowSize);
  std::uint64_t next = inserted ? load(buckets()[bucket], relaxed) : nextOf(load(w[2], relaxed));
  std::uint64_t v = beginWrite(s);
  store(w[2], liveMeta(static_cast<std::uint32_t>(next), bucket), relaxed);
  for (std::uint32_t j = 0; j < keyWords_ + rowWords_; ++j) {
    store(w[kSlotHead + j], buf[j], relaxed);
  }
  endWrite(s, v);
  if (inserted) {
    store(buckets()[bucket], s, release);
    store(header()->rows, load(header()->rows, relaxed) + 1, release);
  }
  appendLog(key, false);
}

bool Segment::erase(const void* key, std::uint32_t hash, KeyEq eq) {
  KIV_ASSERT_TEXT(base_ && writer_, "table mounted as writer");
  std::uint32_t bucket = hash & (bucketCount_ - 1);
  std::uint32_t prev;
  std::uint32_t s = locate(key, bucket, eq, &prev);
  Changing changing(header());
  if (s != kNone) {
    // Unlink first, free after: a reader standing on the slot still finds the rest of the chain.
    std::uint32_t next = nextOf(load(slot(s)[2], relaxed));
    if (prev == kNone) {
      store(buckets()[bucket], next, release);
    } else {
      std::uint64_t v = beginWrite(prev);
      std::uint64_t& meta = slot(prev)[2];
      store(meta, (load(meta, relaxed) & ~kNextMask) | next, relaxed);
      endWrite(prev, v);
    }
    std::uint64_t v = beginWrite(s);
    store(slot(s)[2], kNone, relaxed);
    endWrite(s, v);
    free_.push_back(s);
    store(header()->rows, load(header()->rows, relaxed) - 1, release);
  }
  appendLog(key, false);
  return s != kNone;
}

void Segment::clear() {
  KIV_ASSERT_TEXT(base_ && writer_, "table mounted as writer");
  Changing changing(header());
  for (std::uint32_t b = 0; b < bucketCount_; ++b) store(buckets()[b], kNone, release);
  for (std::uint32_t i = 0; i < shape_.capacity; ++i) {
    if (!(load(slot(i)[2], relaxed) & kLive)) continue;
    std::uint64_t v = beginWrite(i);
    store(slot(i)[2], kNone, relaxed);
    endWrite(i, v);
    free_.push_back(i);
  }
  store(header()->rows, 0, release);
  appendLog(nullptr, true);
}

void Segment::corruptIs(const void* key, std::uint32_t hash, KeyEq eq) {
  KIV_ASSERT_TEXT(base_ && writer_, "table mounted as writer");
  std::uint32_t prev;
  std::uint32_t s = locate(key, hash & (bucketCount_ - 1), eq, &prev);
  if (s == kNone) return;
  Changing changing(header());
  std::uint64_t v = beginWrite(s);
  std::uint64_t& meta = slot(s)[2];
  store(meta, load(meta, relaxed) | kCorrupt, relaxed);
  endWrite(s, v);
}

Segment::Read Segment::find(const void* key, std::uint32_t hash, KeyEq eq, void* rowOut) const {
  if (!base_) return Read::absent;
  const Header* h = header();
  const std::uint32_t bucket = hash & (bucketCount_ - 1);
  std::uint64_t* buf = scratch_.data();
  Patience patience;
  for (;;) {
    std::uint64_t epoch = load(h->epoch, acquire);
    if (epoch & 1) return Read::absent;  // a writer is emptying the table
    const std::uint64_t writes = load(h->writes, acquire);
    Read result = Read::absent;
    std::string fault;  // what made this pass inconsistent
    std::uint32_t s = load(buckets()[bucket], acquire);
    for (std::uint32_t steps = 0; s != kNone; ++steps) {
      if (s >= shape_.capacity) {
        fault = "its chain leads to slot " + std::to_string(s) + ", beyond the table's " +
                std::to_string(shape_.capacity);
        break;
      }
      if (steps >= shape_.capacity) {
        fault = "its chain is longer than the table: it loops";
        break;
      }
      if (!readSlot(s, buf)) {
        // Left half-written by a dead writer: the row cannot be read until a writer restarts.
        result = Read::corrupt;
        break;
      }
      std::uint64_t meta = buf[1];
      if (!(meta & kLive) || bucketOf(meta) != bucket) {
        // Freed, or freed and reused under another key, while we walked; or corrupt.
        fault = "its chain reaches slot " + std::to_string(s) + ", which " +
                (meta & kLive ? "belongs to bucket " + std::to_string(bucketOf(meta)) : "is free");
        break;
      }
      if (eq(buf + 2, key)) {
        if (meta & kCorrupt) {
          result = Read::corrupt;
        } else {
          std::memcpy(rowOut, buf + 2 + keyWords_, shape_.rowSize);
          result = Read::found;
        }
        break;
      }
      s = nextOf(meta);
    }
    std::atomic_thread_fence(acquire);
    const std::uint64_t writesAfter = load(h->writes, relaxed);
    const bool atRest = writesAfter == writes && !(writes & 1) && load(h->epoch, relaxed) == epoch;
    if (fault.empty()) {
      if (load(h->epoch, relaxed) != epoch) continue;
      return result;
    }
    // The writer changed nothing while we looked: what we saw is what the segment holds.
    if (atRest) corrupt("bucket " + std::to_string(bucket), fault);
    if (!bearWith(patience, h->writes, writesAfter, "the table")) return Read::corrupt;
  }
}

bool Segment::walkNext(std::size_t& pos, void* keyOut, void* rowOut) const {
  if (!base_ || (load(header()->epoch, acquire) & 1)) return false;
  std::uint64_t* buf = scratch_.data();
  for (; pos < shape_.capacity; ++pos) {
    if (!readSlot(static_cast<std::uint32_t>(pos), buf) || !(buf[1] & kLive)) continue;
    std::memcpy(keyOut, buf + 2, shape_.keySize);
    std::memcpy(rowOut, buf + 2 + keyWords_, shape_.rowSize);
    ++pos;
    return true;
  }
  return false;
}

std::size_t Segment::size() const {
  if (!base_ || (load(header()->epoch, acquire) & 1)) return 0;
  const std::uint64_t rows = load(header()->rows, acquire);
  if (rows > shape_.capacity) {
    corrupt("the header", "it counts " + std::to_string(rows) + " rows in a table of " +
                              std::to_string(shape_.capacity));
  }
  return rows;
}

// Checks a log entry's words as copied (check, flag, key) at position pos.
void Segment::logRead(std::uint64_t pos, const std::uint64_t* k) const {
  const std::string where = "change log entry " + std::to_string(pos);
  if (k[0] != sealWords(k + 1, 1 + keyWords_, pos)) {
    corrupt(where, "its words do not match their check");
  }
  if (k[1] > 1) corrupt(where, "its flag holds " + std::to_string(k[1]));
  if (!k[1]) {
    if (std::string why = whyKey(k + 2, nullptr); !why.empty()) corrupt(where, why);
  }
}

void Segment::verify() const {
  if (!base_) return;
  const Header* h = header();
  const std::uint32_t cap = shape_.capacity;
  std::vector<std::uint32_t> heads(bucketCount_);
  std::vector<std::uint64_t> metas(cap);
  std::vector<std::uint64_t> entry(kLogHead - 1 + keyWords_);
  std::uint64_t* buf = scratch_.data();
  Patience patience;
  std::uint64_t lastOdd = 0;
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    const std::uint64_t writes = load(h->writes, acquire);
    if (writes & 1) {
      // Stuck is the same change unfinished for the whole wait; a writer that goes from change to
      // change is busy, and is waited for afresh.
      if (writes != lastOdd) patience = Patience{};
      lastOdd = writes;
      if (!bearWith(patience, h->writes, writes, "the table")) return;  // died changing it
      continue;
    }
    // What holds at any moment: the header, each slot on its own.
    const std::uint64_t state = load(h->state, relaxed);
    if (state > kStateRetired)
      corrupt("the header", "its state word holds " + std::to_string(state));
    if (!headerPaddingClear(h)) corrupt("the header", "its unused bytes are not zero");
    const std::uint64_t rows = load(h->rows, relaxed);
    const std::uint64_t logHead = load(h->logHead, relaxed);
    for (std::uint32_t b = 0; b < bucketCount_; ++b) heads[b] = load(buckets()[b], relaxed);
    bool halfWritten = false;  // by a writer that died: no chain through it can be judged
    for (std::uint32_t i = 0; i < cap; ++i) {
      const bool read = readSlot(i, buf);
      halfWritten = halfWritten || !read;
      metas[i] = read ? buf[1] : kNone;
    }
    // The change log, as it stands: its entries are judged once the table is known to be at rest.
    std::string logFault;
    for (std::uint64_t r = 0; r < shape_.logCapacity && logFault.empty(); ++r) {
      const std::uint64_t* e = logEntry(r);
      const std::uint64_t stamp = load(e[0], relaxed);
      for (std::size_t j = 0; j < entry.size(); ++j) entry[j] = load(e[1 + j], relaxed);
      if (logHead <= r) {
        // Not reached yet: as the segment was made.
        bool zero = !stamp;
        for (std::uint64_t w : entry) zero = zero && !w;
        if (!zero) {
          logFault = "change log entry " + std::to_string(r) + ": written, though the log (" +
                     std::to_string(logHead) + " entries) has not reached it";
        }
        continue;
      }
      const std::uint64_t pos = r + (logHead - 1 - r) / shape_.logCapacity * shape_.logCapacity;
      if (stamp != pos + 1) {
        logFault = "change log entry " + std::to_string(pos) + ": its stamp holds " +
                   std::to_string(stamp);
        continue;
      }
      try {
        logRead(pos, entry.data());
      } catch (const CorruptionException& e) {
        logFault = std::string(e.what()).substr(name_.size() + 2);
      }
    }
    std::atomic_thread_fence(acquire);
    const std::uint64_t writesAfter = load(h->writes, relaxed);
    if (writesAfter != writes) {
      // A writer this busy leaves no moment at rest within the wait: each slot was checked on its
      // own, the chains and counts cannot be.
      if (std::chrono::steady_clock::now() - start > writerWait_) return;
      continue;
    }
    if (halfWritten) return;
    // The table at rest: its chains, its count and its log must agree with its slots.
    std::vector<bool> reached(cap);
    std::uint64_t live = 0;
    for (std::uint32_t b = 0; b < bucketCount_; ++b) {
      const std::string where = "bucket " + std::to_string(b);
      for (std::uint32_t s = heads[b]; s != kNone; s = nextOf(metas[s])) {
        if (s >= cap) {
          corrupt(where, "its chain leads to slot " + std::to_string(s) + ", beyond the table's " +
                             std::to_string(cap));
        }
        if (reached[s]) {
          corrupt(where, "its chain reaches slot " + std::to_string(s) +
                             " a second time (a loop, or two chains joined)");
        }
        reached[s] = true;
        if (!(metas[s] & kLive)) {
          corrupt(where, "its chain reaches slot " + std::to_string(s) + ", which is free");
        }
        if (bucketOf(metas[s]) != b) {
          corrupt("slot " + std::to_string(s), "it is on " + where + "'s chain but names bucket " +
                                                   std::to_string(bucketOf(metas[s])));
        }
      }
    }
    for (std::uint32_t i = 0; i < cap; ++i) {
      if (!(metas[i] & kLive)) continue;
      ++live;
      if (!reached[i]) corrupt("slot " + std::to_string(i), "it holds a row that no chain reaches");
    }
    if (live != rows) {
      corrupt("the header", "it counts " + std::to_string(rows) + " rows; the slots hold " +
                                std::to_string(live));
    }
    if (!logFault.empty()) throw CorruptionException(name_ + ": " + logFault);
    return;
  }
}

std::uint64_t Segment::epoch() const { return base_ ? load(header()->epoch, acquire) : 0; }

bool Segment::writerAlive() const {
  if (fd_ < 0) return false;
  if (writer_) return true;
  struct flock fl {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  if (::fcntl(fd_, F_OFD_GETLK, &fl) != 0) return true;  // cannot tell: assume it lives
  return fl.l_type != F_UNLCK;
}

void Segment::setMount(MountState s, Changes* changes) {
  if (s == mountState_) return;
  mountState_ = s;
  if (changes) changes->mount(s);
}

std::size_t Segment::poll(Changes& changes) {
  if (writer_) return 0;
  std::size_t reports = 0;
  struct Counting : Changes {
    Changes& to;
    std::size_t& n;
    Counting(Changes& c, std::size_t& r) : to(c), n(r) {}
    void key(const void* k) override { ++n, to.key(k); }
    void all() override { ++n, to.all(); }
    void mount(MountState s) override { ++n, to.mount(s); }
  } out(changes, reports);

  for (int pass = 0; pass < 2; ++pass) {
    if (!base_) attachReader();
    if (!base_) {
      setMount(error_.empty() ? MountState::unmounted : MountState::failed, &out);
      return reports;
    }
    std::uint64_t state = load(header()->state, acquire);
    if (state == kStateDetached || state == kStateRetired) {
      // The writer left (or made a new segment): what we showed is gone; look for a new one.
      bool wasMounted = mountState_ == MountState::mounted;
      unmap();
      seenEpoch_ = 0;
      setMount(MountState::unmounted, &out);
      if (wasMounted) out.all();
      continue;
    }
    if (state > kStateRetired) {
      error_ = name_ + ": the header: its state word holds " + std::to_string(state);
      setMount(MountState::failed, &out);
      return reports;
    }
    break;
  }
  if (!base_) return reports;
  const Header* h = header();
  std::uint64_t epoch = load(h->epoch, acquire);
  if (epoch == 0 || (epoch & 1)) {
    setMount(MountState::unmounted, &out);
    return reports;
  }
  if (epoch != seenEpoch_) {
    // A writer attached (or restarted): the table was emptied and is being filled again.
    seenEpoch_ = epoch;
    logCursor_ = load(h->logHead, acquire);
    setMount(MountState::mounted, &out);
    allPending_ = true;
  }
  if (allPending_) {
    allPending_ = false;
    out.all();
  }
  std::uint64_t head = load(h->logHead, acquire);
  if (head - logCursor_ > shape_.logCapacity) {
    logCursor_ = head;
    out.all();
    return reports;
  }
  std::uint64_t* k = logScratch_.data();
  for (; logCursor_ != head; ++logCursor_) {
    const std::uint64_t* e = logEntry(logCursor_);
    std::uint64_t stamp = load(e[0], acquire);
    for (std::uint32_t j = 0; j < kLogHead - 1 + keyWords_; ++j) k[j] = load(e[1 + j], relaxed);
    std::atomic_thread_fence(acquire);
    if (stamp != logCursor_ + 1 || load(e[0], relaxed) != stamp) {
      // The writer lapped us while we read: resynchronise from the rows themselves.
      logCursor_ = head;
      out.all();
      break;
    }
    try {
      logRead(logCursor_, k);
    } catch (const CorruptionException&) {
      // What the log held from here on cannot be trusted: the next poll starts over from the rows.
      logCursor_ = head;
      allPending_ = true;
      throw;
    }
    if (k[1]) {
      out.all();
      continue;
    }
    try {
      out.key(k + 2);
    } catch (const WriterStuckException&) {
      throw;  // the same change is read again at the next poll
    } catch (const CorruptionException&) {
      ++logCursor_;  // the row is corrupt, not the log: the changes after it still count
      throw;
    }
  }
  return reports;
}

}  // namespace Shoal
