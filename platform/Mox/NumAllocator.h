#pragma once
// Hands out numbers from a range (hardware table indexes such as FEC indexes) and holds a released
// number back until an expiry time has passed, so that a stale hardware reference to the old user
// cannot meet a new user of the same number.
//
//   auto config = Kiv::Ptr<Mox::NumAllocatorConfig>(new Mox::NumAllocatorConfig);
//   config->rangeIs({1, 4095});
//   config->expiryTimeIs(2.0);
//   auto allocator = Mox::NumAllocator::NumAllocatorIs(config, status, clock);
//   std::int64_t fec = allocator->allocate();     // lowest free number, or NumAllocator::invalid
//   allocator->release(fec);                      // reusable again 2 seconds later
//
// The range may be huge (0 to 2^32-1): the allocator keeps the numbers in use, the released ones
// still held back, and the free numbers as runs between them, so its memory follows the numbers in
// use and held back, never the size of the range. allocate() and release() are O(log n).

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <ostream>
#include <set>
#include <utility>

#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"

namespace Mox {

// Inclusive at both ends; empty when min > max.
struct Range {
  std::int64_t min = 0;
  std::int64_t max = -1;
  bool operator==(const Range&) const = default;
};

class NumAllocatorConfig : public Kiv::PtrInterface {
 public:
  Range range() const { return range_; }
  void rangeIs(Range range) { range_ = range; }
  // How long a released number is held back before it may be handed out again.
  Kiv::Seconds expiryTime() const { return expiryTime_; }
  void expiryTimeIs(Kiv::Seconds t) { expiryTime_ = t; }

 private:
  Range range_;
  Kiv::Seconds expiryTime_ = 0.0;
};

// Counters for diagnostics; the allocator keeps them current as it is used.
class NumAllocatorStatus : public Kiv::PtrInterface {
 public:
  // Numbers in use.
  std::uint64_t allocated() const { return allocated_; }
  void allocatedIs(std::uint64_t n) { allocated_ = n; }
  // Numbers released and still held back (brought up to date by each allocate and release).
  std::uint64_t pendingExpiry() const { return pendingExpiry_; }
  void pendingExpiryIs(std::uint64_t n) { pendingExpiry_ = n; }
  // Times allocate() answered invalid.
  std::uint64_t exhaustedCount() const { return exhaustedCount_; }
  void exhaustedCountInc() { ++exhaustedCount_; }

 private:
  std::uint64_t allocated_ = 0;
  std::uint64_t pendingExpiry_ = 0;
  std::uint64_t exhaustedCount_ = 0;
};

class NumAllocator : public Kiv::PtrInterface {
 public:
  // All 64 bits set. The range must not contain it.
  static constexpr std::int64_t invalid = -1;

  // The range is read here, once; the expiry time is read at each release.
  NumAllocator(Kiv::Ptr<NumAllocatorConfig const> config, Kiv::Ptr<NumAllocatorStatus> status,
               Kiv::Ptr<Kiv::Clock> clock);
  NumAllocator(const NumAllocator&) = delete;
  NumAllocator& operator=(const NumAllocator&) = delete;
  static Kiv::Ptr<NumAllocator> NumAllocatorIs(Kiv::Ptr<NumAllocatorConfig const> config,
                                               Kiv::Ptr<NumAllocatorStatus> status,
                                               Kiv::Ptr<Kiv::Clock> clock);

  const Kiv::Ptr<NumAllocatorConfig const>& config() const { return config_; }
  const Kiv::Ptr<NumAllocatorStatus>& status() const { return status_; }
  const Kiv::Ptr<Kiv::Clock>& clock() const { return clock_; }
  Range range() const { return range_; }

  // The lowest free number: never handed out, or released at least expiryTime() ago. `invalid`
  // when there is none.
  std::int64_t allocate();
  // Gives back a number in use; it is held back for the configured expiry time.
  void release(std::int64_t n);
  bool isAllocated(std::int64_t n) const { return allocated_.count(n) != 0; }

  // Runs of consecutive free numbers kept: at most the numbers in use and held back, plus one.
  std::size_t freeRunCount() const { return free_.size(); }

  // Everything that decides what it hands out next: its range, the free runs, the numbers in use
  // and those held back with the times they become reusable.
  friend std::ostream& operator<<(std::ostream& os, const NumAllocator& a);

 private:
  struct Held {
    Kiv::Seconds reusableAt;
    std::int64_t n;
  };

  void reapExpired(Kiv::Seconds now);
  void freeIs(std::int64_t n);
  void statusUpdate();

  Kiv::Ptr<NumAllocatorConfig const> config_;
  Kiv::Ptr<NumAllocatorStatus> status_;
  Kiv::Ptr<Kiv::Clock> clock_;
  Range range_;
  // Free numbers as disjoint, non-adjacent runs: first number -> last number.
  std::map<std::int64_t, std::int64_t> free_;
  std::set<std::int64_t> allocated_;
  // Released numbers held back, in release order. The clock never runs backwards, so with a
  // steady expiry time the front is always the first to become reusable; if the expiry time is
  // shortened, a number may wait behind an older one a little longer than needed, never less.
  std::deque<Held> held_;
};

}  // namespace Mox
