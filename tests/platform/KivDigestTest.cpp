// The digest the accessor families stamp: every declared collection and scalar is in it, child
// entities and rows included, so two states reached by different paths merge only when nothing
// that a reader could walk or look up differs.
#include <gtest/gtest.h>

#include <string>

#include "Kiv/Entity.h"

namespace {

// The registry knows a class by its type name, and a class in an unnamed namespace shares its
// name with another test's class of that name: these names are the test's own.
struct DigestedPort : Kiv::PtrInterface {
  explicit DigestedPort(int id) : id_(id) {}
  KIV_COLLECTION(vlan, int, bool)
  KIV_SCALAR(speed, std::uint32_t, 0)
  int id_;
};

struct DigestedStatus {
  explicit DigestedStatus(int) {}
  KIV_SMALL_COLLECTION(programmed, int, bool, 2)
};

// The marks take no room: a value kept per pair by the hundred thousand stays its size.
static_assert(sizeof(DigestedStatus) == sizeof(Kiv::SmallMap<int, bool, 2>));

struct DigestedSwitch : Kiv::Entity<DigestedSwitch> {
  KIV_CHILD_COLLECTION(port, int, DigestedPort)
  KIV_ORDERED_COLLECTION(queue, int, bool)
  KIV_ROWS(pair, int, std::string, DigestedStatus)
  KIV_ROW_COLLECTION(tag, pair, 0)
  KIV_ROW_CHILD_COLLECTION(status, pair, 1)
  KIV_SCALAR(initialized, bool, false)
  KIV_SCALAR(interval, double, 1.0)
};

std::pair<std::uint64_t, std::uint64_t> digest(const DigestedSwitch& s) {
  Kiv::Digest d;
  Kiv::digestOf(s, d);
  EXPECT_EQ(d.opaque(), 0u) << d.firstOpaque();
  return d.value();
}

// Two switches built by different paths: equal digests exactly when every attribute, however
// deep, agrees; a walk order that differs is a difference.
TEST(KivDigest, EveryDeclaredAttributeIsInTheDigest) {
  Kiv::Ptr<DigestedSwitch> a(new DigestedSwitch), b(new DigestedSwitch);
  EXPECT_EQ(digest(*a), digest(*b));

  // A value deep in a child entity.
  a->portIs(1)->vlanIs(10, true);
  EXPECT_NE(digest(*a), digest(*b));
  b->portIs(1)->vlanIs(10, false);
  EXPECT_NE(digest(*a), digest(*b));
  b->portIs(1)->vlanIs(10, true);
  EXPECT_EQ(digest(*a), digest(*b));

  // A scalar of the child, then of the owner.
  a->port(1)->speedIs(100);
  EXPECT_NE(digest(*a), digest(*b));
  b->port(1)->speedIs(100);
  a->intervalIs(2.5);
  EXPECT_NE(digest(*a), digest(*b));
  b->intervalIs(2.5);
  EXPECT_EQ(digest(*a), digest(*b));

  // Rows: a field of the row, and a port inside a row's value.
  a->tagIs(7, "x");
  b->tagIs(7, "x");
  a->statusEdit(7, [](DigestedStatus& s) { s.programmedIs(3, true); });
  EXPECT_NE(digest(*a), digest(*b));
  b->statusEdit(7, [](DigestedStatus& s) { s.programmedIs(3, true); });
  EXPECT_EQ(digest(*a), digest(*b));

  // The same keys inserted in another order walk in another order: not the same state.
  a->queueIs(1, true);
  a->queueIs(2, true);
  b->queueIs(2, true);
  b->queueIs(1, true);
  EXPECT_EQ(digest(*a), digest(*b));  // an ordered collection walks by key
  a->port(1)->vlanIs(20, true);
  a->port(1)->vlanIs(30, true);
  b->port(1)->vlanIs(30, true);
  b->port(1)->vlanIs(20, true);
  EXPECT_NE(digest(*a), digest(*b));

  // Erased again, both are back where they agree.
  for (int v : {20, 30}) {
    a->port(1)->vlanDel(v);
    b->port(1)->vlanDel(v);
  }
  EXPECT_EQ(digest(*a), digest(*b));
  a->portDel(1);
  EXPECT_NE(digest(*a), digest(*b));
}

// A value the digest cannot read is counted, so that a caller knows its merges are not safe.
struct DigestedOpaque {
  int x = 0;
};
struct DigestedHolder : Kiv::PtrInterface {
  KIV_COLLECTION(thing, int, DigestedOpaque)
};

TEST(KivDigest, AValueItCannotReadIsCountedAsOpaque) {
  Kiv::Ptr<DigestedHolder> h(new DigestedHolder);
  h->thingIs(1, DigestedOpaque{});
  Kiv::Digest d;
  Kiv::digestOf(*h, d);
  EXPECT_EQ(d.opaque(), 1u);
  EXPECT_NE(d.firstOpaque().find("DigestedOpaque"), std::string::npos);
}

}  // namespace
