// The number allocator: free runs, numbers in use and numbers held back after release.

#include "Mox/NumAllocator.h"

#include <iterator>
#include <utility>

#include "Kiv/Assert.h"

namespace Mox {

NumAllocator::NumAllocator(Kiv::Ptr<NumAllocatorConfig const> config,
                           Kiv::Ptr<NumAllocatorStatus> status, Kiv::Ptr<Kiv::Clock> clock)
    : config_(std::move(config)), status_(std::move(status)), clock_(std::move(clock)) {
  KIV_ASSERT(config_ && status_ && clock_);
  range_ = config_->range();
  KIV_ASSERT(range_.max < invalid || range_.min > invalid);
  if (range_.min <= range_.max) free_.emplace(range_.min, range_.max);
  statusUpdate();
}

Kiv::Ptr<NumAllocator> NumAllocator::NumAllocatorIs(Kiv::Ptr<NumAllocatorConfig const> config,
                                                    Kiv::Ptr<NumAllocatorStatus> status,
                                                    Kiv::Ptr<Kiv::Clock> clock) {
  return new NumAllocator(std::move(config), std::move(status), std::move(clock));
}

std::int64_t NumAllocator::allocate() {
  reapExpired(clock_->now());
  if (free_.empty()) {
    status_->exhaustedCountInc();
    statusUpdate();
    return invalid;
  }
  auto first = free_.begin();
  const std::int64_t n = first->first;
  if (n == first->second) {
    free_.erase(first);
  } else {
    // Shrink the run from below, reusing its node.
    auto node = free_.extract(first);
    node.key() = n + 1;
    free_.insert(free_.begin(), std::move(node));
  }
  allocated_.insert(n);
  statusUpdate();
  return n;
}

void NumAllocator::release(std::int64_t n) {
  KIV_ASSERT_TEXT(isAllocated(n), "allocated( n )");
  allocated_.erase(n);
  const Kiv::Seconds now = clock_->now();
  reapExpired(now);
  const Kiv::Seconds expiry = config_->expiryTime();
  if (expiry > 0.0) {
    held_.push_back(Held{now + expiry, n});
  } else {
    freeIs(n);
  }
  statusUpdate();
}

void NumAllocator::reapExpired(Kiv::Seconds now) {
  while (!held_.empty() && held_.front().reusableAt <= now) {
    freeIs(held_.front().n);
    held_.pop_front();
  }
}

void NumAllocator::freeIs(std::int64_t n) {
  // `n` is not free: a run after it starts above n and a run before it ends below n, so n + 1 and
  // n - 1 are only computed where they cannot overflow. Neighbouring runs join into one.
  auto after = free_.upper_bound(n);
  const bool joinsAfter = after != free_.end() && after->first == n + 1;
  auto before = after == free_.begin() ? free_.end() : std::prev(after);
  const bool joinsBefore = before != free_.end() && before->second == n - 1;
  if (joinsBefore && joinsAfter) {
    before->second = after->second;
    free_.erase(after);
  } else if (joinsBefore) {
    before->second = n;
  } else if (joinsAfter) {
    auto node = free_.extract(after);
    node.key() = n;
    free_.insert(std::move(node));
  } else {
    free_.emplace_hint(after, n, n);
  }
}

void NumAllocator::statusUpdate() {
  status_->allocatedIs(allocated_.size());
  status_->pendingExpiryIs(held_.size());
}

std::ostream& operator<<(std::ostream& os, const NumAllocator& a) {
  os << "range " << a.range_.min << "-" << a.range_.max << " free";
  for (const auto& [first, last] : a.free_) os << " " << first << "-" << last;
  os << " used";
  for (std::int64_t n : a.allocated_) os << " " << n;
  os << " held";
  for (const auto& h : a.held_) os << " " << h.n << "@" << h.reusableAt;
  return os;
}

}  // namespace Mox
