#include "Shoal/Segment.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace Shoal {

namespace {

constexpr std::uint64_t kMagic = 0x31625453'4c414f48ull;  // "HOALSTb1" read as bytes, little end
// The segment's own layout: bump it when the header, slots or log change shape.
constexpr std::uint32_t kFormat = 2;
constexpr std::uint32_t kNone = 0xffffffffu;
constexpr std::size_t kHeaderBytes = 128;

// The header's state word.
constexpr std::uint64_t kStateNew = 0;       // made, no writer yet
constexpr std::uint64_t kStateAttached = 1;  // a writer attached (it may since have died)
constexpr std::uint64_t kStateDetached = 2;  // the writer left; the name is removed
constexpr std::uint64_t kStateRetired = 3;   // replaced by a segment of another shape
static_assert(kStateNew == 0, "a segment's zero-filled header reads as new");

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
};
static_assert(sizeof(Segment::Header) <= kHeaderBytes);
static_assert(offsetof(Segment::Header, rows) == 64);

namespace {

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
  if (name.size() > 250) throw SegmentException("table name too long: " + name);
  return name;
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
  scratch_.resize(1 + keyWords_ + rowWords_);
  logScratch_.resize(1 + keyWords_);
}

Segment::~Segment() { detach(); }

Segment::Header* Segment::header() const { return static_cast<Header*>(base_); }

std::uint32_t* Segment::buckets() const {
  return reinterpret_cast<std::uint32_t*>(static_cast<char*>(base_) + kHeaderBytes);
}

std::uint64_t* Segment::slot(std::uint32_t i) const {
  auto* first = reinterpret_cast<std::uint64_t*>(static_cast<char*>(base_) + kHeaderBytes +
                                                 std::size_t(words(bucketCount_ * 4)) * 8);
  return first + std::size_t(i) * (2 + keyWords_ + rowWords_);
}

std::uint64_t* Segment::logEntry(std::uint64_t pos) const {
  std::uint64_t* first = slot(shape_.capacity);
  return first + std::size_t(pos & (shape_.logCapacity - 1)) * (2 + keyWords_);
}

std::size_t Segment::totalBytes() const {
  return kHeaderBytes + std::size_t(words(bucketCount_ * 4)) * 8 +
         std::size_t(shape_.capacity) * (2 + keyWords_ + rowWords_) * 8 +
         std::size_t(shape_.logCapacity) * (2 + keyWords_) * 8;
}

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
  std::uint64_t e = load(h->epoch, relaxed);
  std::uint64_t odd = (e + 1) | 1;
  store(h->epoch, odd, relaxed);
  std::atomic_thread_fence(release);
  for (std::uint32_t b = 0; b < bucketCount_; ++b) store(buckets()[b], kNone, relaxed);
  free_.clear();
  for (std::uint32_t i = shape_.capacity; i-- > 0;) {
    std::uint64_t v = beginWrite(i);
    store(slot(i)[1], kNone, relaxed);
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

void Segment::endWrite(std::uint32_t i, std::uint64_t v) { store(slot(i)[0], v, release); }

bool Segment::readSlot(std::uint32_t i, std::uint64_t* out) const {
  const std::uint64_t* s = slot(i);
  const std::size_t n = 1 + keyWords_ + rowWords_;
  for (unsigned tries = 0;; ++tries) {
    std::uint64_t v = load(s[0], acquire);
    if (!(v & 1)) {
      for (std::size_t j = 0; j < n; ++j) out[j] = load(s[1 + j], relaxed);
      std::atomic_thread_fence(acquire);
      if (load(s[0], relaxed) == v) return true;
    }
    if (tries >= kSpins) {
      ::sched_yield();
      if ((tries - kSpins) % kYieldsPerLivenessCheck == kYieldsPerLivenessCheck - 1 &&
          !writerAlive()) {
        return false;
      }
    }
  }
}

void Segment::appendLog(const void* key, bool all) {
  Header* h = header();
  std::uint64_t pos = load(h->logHead, relaxed);
  std::uint64_t* e = logEntry(pos);
  store(e[0], 0, relaxed);
  std::atomic_thread_fence(release);
  store(e[1], all ? 1 : 0, relaxed);
  if (key) {
    std::uint64_t* k = logScratch_.data();
    k[keyWords_ - 1] = 0;
    std::memcpy(k, key, shape_.keySize);
    for (std::uint32_t j = 0; j < keyWords_; ++j) store(e[2 + j], k[j], relaxed);
  }
  store(e[0], pos + 1, release);
  store(h->logHead, pos + 1, release);
}

std::uint32_t Segment::locate(const void* key, std::uint32_t bucket, KeyEq eq,
                              std::uint32_t* prev) const {
  *prev = kNone;
  std::uint64_t* k = scratch_.data();
  for (std::uint32_t s = load(buckets()[bucket], relaxed); s != kNone;) {
    const std::uint64_t* w = slot(s);
    for (std::uint32_t j = 0; j < keyWords_; ++j) k[j] = load(w[2 + j], relaxed);
    if (eq(k, key)) return s;
    *prev = s;
    s = nextOf(load(w[1], relaxed));
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
  std::uint64_t* w = slot(s);
  std::uint64_t* buf = scratch_.data();
  buf[keyWords_ - 1] = 0;
  buf[keyWords_ + rowWords_ - 1] = 0;
  std::memcpy(buf, key, shape_.keySize);
  std::memcpy(buf + keyWords_, row, shape_.rowSize);
  std::uint64_t next = inserted ? load(buckets()[bucket], relaxed) : nextOf(load(w[1], relaxed));
  std::uint64_t v = beginWrite(s);
  store(w[1], liveMeta(static_cast<std::uint32_t>(next), bucket), relaxed);
  for (std::uint32_t j = 0; j < keyWords_ + rowWords_; ++j) store(w[2 + j], buf[j], relaxed);
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
  if (s != kNone) {
    // Unlink first, free after: a reader standing on the slot still finds the rest of the chain.
    std::uint32_t next = nextOf(load(slot(s)[1], relaxed));
    if (prev == kNone) {
      store(buckets()[bucket], next, release);
    } else {
      std::uint64_t v = beginWrite(prev);
      std::uint64_t& meta = slot(prev)[1];
      store(meta, (load(meta, relaxed) & ~kNextMask) | next, relaxed);
      endWrite(prev, v);
    }
    std::uint64_t v = beginWrite(s);
    store(slot(s)[1], kNone, relaxed);
    endWrite(s, v);
    free_.push_back(s);
    store(header()->rows, load(header()->rows, relaxed) - 1, release);
  }
  appendLog(key, false);
  return s != kNone;
}

void Segment::clear() {
  KIV_ASSERT_TEXT(base_ && writer_, "table mounted as writer");
  for (std::uint32_t b = 0; b < bucketCount_; ++b) store(buckets()[b], kNone, release);
  for (std::uint32_t i = 0; i < shape_.capacity; ++i) {
    if (!(load(slot(i)[1], relaxed) & kLive)) continue;
    std::uint64_t v = beginWrite(i);
    store(slot(i)[1], kNone, relaxed);
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
  std::uint64_t v = beginWrite(s);
  std::uint64_t& meta = slot(s)[1];
  store(meta, load(meta, relaxed) | kCorrupt, relaxed);
  endWrite(s, v);
}

Segment::Read Segment::find(const void* key, std::uint32_t hash, KeyEq eq, void* rowOut) const {
  if (!base_) return Read::absent;
  const Header* h = header();
  const std::uint32_t bucket = hash & (bucketCount_ - 1);
  std::uint64_t* buf = scratch_.data();
  for (unsigned restarts = 0;; ++restarts) {
    if (restarts && restarts % kSpins == 0) {
      // A live writer moves slots under us now and then; without one, a chain that never reads
      // the same twice is broken.
      ::sched_yield();
      if (restarts % (kSpins * kYieldsPerLivenessCheck) == 0 && !writerAlive()) {
        throw CorruptionException(name_ + ": corrupt chain");
      }
    }
    std::uint64_t epoch = load(h->epoch, acquire);
    if (epoch & 1) return Read::absent;  // a writer is emptying the table
    Read result = Read::absent;
    bool again = false;
    std::uint32_t s = load(buckets()[bucket], acquire);
    for (std::uint32_t steps = 0; s != kNone; ++steps) {
      if (s >= shape_.capacity) throw CorruptionException(name_ + ": corrupt chain");
      if (steps > shape_.capacity || !readSlot(s, buf)) {
        // A chain longer than the table: the writer moved slots under us; look again. A slot
        // left half-written by a dead writer: the row cannot be read until a writer restarts.
        again = steps > shape_.capacity;
        result = again ? result : Read::corrupt;
        break;
      }
      std::uint64_t meta = buf[0];
      if (!(meta & kLive) || bucketOf(meta) != bucket) {
        again = true;  // freed, or freed and reused under another key: look again
        break;
      }
      if (eq(buf + 1, key)) {
        if (meta & kCorrupt) {
          result = Read::corrupt;
        } else {
          std::memcpy(rowOut, buf + 1 + keyWords_, shape_.rowSize);
          result = Read::found;
        }
        break;
      }
      s = nextOf(meta);
    }
    if (again) continue;
    std::atomic_thread_fence(acquire);
    if (load(h->epoch, relaxed) != epoch) continue;
    return result;
  }
}

bool Segment::walkNext(std::size_t& pos, void* keyOut, void* rowOut) const {
  if (!base_ || (load(header()->epoch, acquire) & 1)) return false;
  std::uint64_t* buf = scratch_.data();
  for (; pos < shape_.capacity; ++pos) {
    if (!readSlot(static_cast<std::uint32_t>(pos), buf) || !(buf[0] & kLive)) continue;
    std::memcpy(keyOut, buf + 1, shape_.keySize);
    std::memcpy(rowOut, buf + 1 + keyWords_, shape_.rowSize);
    ++pos;
    return true;
  }
  return false;
}

std::size_t Segment::size() const {
  if (!base_ || (load(header()->epoch, acquire) & 1)) return 0;
  return load(header()->rows, acquire);
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
    for (std::uint32_t j = 0; j < 1 + keyWords_; ++j) k[j] = load(e[1 + j], relaxed);
    std::atomic_thread_fence(acquire);
    if (stamp != logCursor_ + 1 || load(e[0], relaxed) != stamp) {
      // The writer lapped us while we read: resynchronise from the rows themselves.
      logCursor_ = head;
      out.all();
      break;
    }
    if (k[0]) {
      out.all();
    } else {
      out.key(k + 1);
    }
  }
  return reports;
}

}  // namespace Shoal
