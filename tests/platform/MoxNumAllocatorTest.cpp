// The number allocator: lowest free first, numbers held back after release, exhaustion, and a
// footprint that follows the numbers in use rather than the range.

#include <gtest/gtest.h>

#include <cstdint>

#include "Kiv/Clock.h"
#include "Mox/NumAllocator.h"

namespace {

using Kiv::Ptr;
using Mox::NumAllocator;

struct Fixture {
  Fixture(Mox::Range range, Kiv::Seconds expiry) {
    config->rangeIs(range);
    config->expiryTimeIs(expiry);
    allocator = NumAllocator::NumAllocatorIs(config, status, clock);
  }
  Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Ptr<Mox::NumAllocatorConfig> config = new Mox::NumAllocatorConfig;
  Ptr<Mox::NumAllocatorStatus> status = new Mox::NumAllocatorStatus;
  Ptr<NumAllocator> allocator;
};

TEST(MoxNumAllocator, LowestFreeFirstHeldBackUntilExpiryThenExhausted) {
  Fixture f({10, 14}, 2.0);
  auto& a = *f.allocator;
  EXPECT_EQ(a.allocate(), 10);
  EXPECT_EQ(a.allocate(), 11);
  EXPECT_EQ(a.allocate(), 12);
  a.release(11);
  EXPECT_FALSE(a.isAllocated(11));
  EXPECT_EQ(a.allocate(), 13);  // 11 is held back
  EXPECT_EQ(f.status->pendingExpiry(), 1u);
  f.clock->nowIs(1.9);
  EXPECT_EQ(a.allocate(), 14);
  EXPECT_EQ(a.allocate(), NumAllocator::invalid);
  EXPECT_EQ(static_cast<std::uint64_t>(NumAllocator::invalid), ~std::uint64_t{0});
  EXPECT_EQ(f.status->exhaustedCount(), 1u);
  f.clock->nowIs(2.0);
  EXPECT_EQ(a.allocate(), 11);  // exactly the expiry time later
  EXPECT_EQ(f.status->allocated(), 5u);
  EXPECT_EQ(f.status->pendingExpiry(), 0u);

  // Released neighbours join back into one run and come out lowest first.
  for (std::int64_t n : {13, 10, 12, 11}) a.release(n);
  EXPECT_EQ(f.status->allocated(), 1u);
  f.clock->nowIs(5.0);
  EXPECT_EQ(a.allocate(), 10);
  EXPECT_EQ(a.freeRunCount(), 1u);  // [11, 13]
  EXPECT_EQ(a.allocate(), 11);

  // Without an expiry time a number is free again at once.
  f.config->expiryTimeIs(0);
  a.release(10);
  EXPECT_EQ(a.allocate(), 10);
}

TEST(MoxNumAllocator, HugeRangeKeepsOnlyWhatIsInUseOrHeld) {
  Fixture f({0, (std::int64_t{1} << 32) - 1}, 1.0);
  auto& a = *f.allocator;
  for (std::int64_t n = 0; n < 1000; ++n) ASSERT_EQ(a.allocate(), n);
  for (std::int64_t n = 0; n < 1000; n += 2) a.release(n);
  f.clock->advance(1);
  EXPECT_EQ(a.allocate(), 0);
  // 499 single free numbers between the odd ones in use, and the rest of the range.
  EXPECT_EQ(a.freeRunCount(), 500u);
  EXPECT_LE(a.freeRunCount(), f.status->allocated() + f.status->pendingExpiry() + 1);
  for (std::int64_t n = 0; n < 1000; ++n) {
    if (a.isAllocated(n)) a.release(n);
  }
  f.clock->advance(1);
  EXPECT_EQ(a.allocate(), 0);
  EXPECT_EQ(a.freeRunCount(), 1u);
}

TEST(MoxNumAllocator, ReleasingANumberNotInUseAborts) {
  Fixture f({0, 9}, 1.0);
  EXPECT_DEATH(f.allocator->release(3), "allocated\\( n \\)");
  std::int64_t n = f.allocator->allocate();
  f.allocator->release(n);
  EXPECT_DEATH(f.allocator->release(n), "allocated\\( n \\)");
}

}  // namespace
