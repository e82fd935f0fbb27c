// Kiv collections under change while walked, notifiee lists under disruption, accessor families.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"

namespace {

template <class Map>
std::vector<int> keysOf(const Map& m) {
  std::vector<int> out;
  for (auto&& e : m.walk()) out.push_back(e.key);
  return out;
}

TEST(KivHashMap, WalkSurvivesEveryKindOfChange) {
  Kiv::HashMap<int, std::string> m;
  for (int i = 1; i <= 6; ++i) m.put(i, "v" + std::to_string(i));
  std::vector<int> seen;
  for (auto [k, v] : m.walk()) {
    seen.push_back(k);
    EXPECT_EQ(v, "v" + std::to_string(k));
    if (k == 2) m.erase(2);  // the current element
    if (k == 3) m.erase(5);  // one not reached yet: must not be visited
    if (k == 4) {
      m.put(100, "late");  // added during the walk: not visited
      EXPECT_EQ(*m.find(100), "late");
    }
  }
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4, 6}));
  EXPECT_EQ(m.size(), 5u);
  EXPECT_FALSE(m.contains(2));
  EXPECT_FALSE(m.contains(5));
  // After the walk the holes are gone (the last element took the first hole's place, as a removal
  // outside a walk does) and lookups still find every survivor.
  for (int k : {1, 3, 4, 6, 100}) EXPECT_TRUE(m.find(k)) << k;
  EXPECT_EQ(keysOf(m), (std::vector<int>{1, 100, 3, 4, 6}));

  // Clearing from inside a walk ends it at once; re-inserting a removed key during the walk
  // makes a fresh element.
  seen.clear();
  for (auto [k, v] : m.walk()) {
    seen.push_back(k);
    m.clear();
    m.put(3, "again");
  }
  EXPECT_EQ(seen, (std::vector<int>{1}));
  EXPECT_EQ(keysOf(m), (std::vector<int>{3}));
  EXPECT_EQ(*m.find(3), "again");
}

// Keys that collide on purpose: every probe chain is long, so index repair after removals
// (shifting chains back) and the move of the last slot into a hole are exercised hard.
struct FewHashes {
  std::size_t operator()(int k) const { return static_cast<std::size_t>(k % 7); }
};

TEST(KivHashMap, AgreesWithAReferenceMapThroughGrowthRemovalAndWalks) {
  Kiv::HashMap<int, int, FewHashes> m;
  std::map<int, int> ref;
  std::mt19937 rng(7);
  for (int round = 0; round < 4000; ++round) {
    int k = static_cast<int>(rng() % 300);
    switch (rng() % 4) {
      case 0:
      case 1:
        m.put(k, round);
        ref[k] = round;
        break;
      case 2:
        EXPECT_EQ(m.erase(k), ref.erase(k) == 1);
        break;
      case 3:  // a walk that removes every third element it meets, and adds one
        for (auto [key, v] : m.walk()) {
          if (key % 3 == 0) {
            m.erase(key);
            ref.erase(key);
          }
        }
        m.put(k, -1);
        ref[k] = -1;
        break;
    }
    ASSERT_EQ(m.size(), ref.size());
  }
  for (auto [k, v] : ref) ASSERT_TRUE(m.find(k) && *m.find(k) == v) << k;
  for (int k = 0; k < 300; ++k) ASSERT_EQ(m.contains(k), ref.count(k) == 1) << k;
}

TEST(KivHashMap, PutReportsWhatChanged) {
  Kiv::HashMap<int, int> m;
  EXPECT_EQ(m.put(1, 10), Kiv::Change::inserted);
  EXPECT_EQ(m.put(1, 10), Kiv::Change::none);
  EXPECT_EQ(m.put(1, 11), Kiv::Change::changed);
  EXPECT_TRUE(m.erase(1));
  EXPECT_FALSE(m.erase(1));
}

TEST(KivOrderedMap, WalksInKeyOrderWhileTheBodyRemovesAndAdds) {
  Kiv::OrderedMap<int, int> m;
  for (int k : {5, 1, 4, 2, 3}) m.put(k, k * 10);
  std::vector<int> seen;
  for (auto [k, v] : m.walk()) {
    seen.push_back(k);
    m.erase(k);               // a successful retry removes its own key
    if (k == 2) m.erase(3);   // and may take another with it
    if (k == 4) m.put(0, 0);  // behind the walk: not visited
  }
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 4, 5}));
  EXPECT_EQ(keysOf(m), (std::vector<int>{0}));
}

// A watched entity and its notifiees.
class Port : public Kiv::Entity<Port> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Port> {
   public:
    KIV_NOTIFIEE_COLLECTION(vlan, Vlan, int)
    KIV_NOTIFIEE_SCALAR(Speed)
  };
  explicit Port(int id) : id_(id) {}
  KIV_KEY(id, int)
  KIV_WATCHED_COLLECTION(vlan, Vlan, int, std::string)
  KIV_WATCHED_COUNTER(speed, Speed, unsigned, 0)
};

class Member : public Kiv::PtrInterface {
 public:
  explicit Member(int key) : key_(key) {}
  KIV_KEY(key, int)
  KIV_COLLECTION(flag, int, bool)
};

class Owner : public Kiv::PtrInterface {
 public:
  KIV_CHILD_COLLECTION(member, int, Member)
};

struct Recorder : Port::NotifieeConst {
  std::vector<std::string> log;
  std::function<void(int)> onVlanHook;
  void onVlan(const int& v) override {
    log.push_back("vlan " + std::to_string(v));
    if (onVlanHook) onVlanHook(v);
  }
  void onSpeed() override { log.push_back("speed " + std::to_string(notifier()->speed())); }
};

TEST(KivEntity, WatchedAttributesTellTheirNotifieesExactlyWhenSomethingChanged) {
  Kiv::Ptr<Port> port = new Port(7);
  Recorder r;
  r.notifierIs(port);
  port->vlanIs(10, "a");  // insert
  port->vlanIs(10, "a");  // same value: nothing to tell
  port->vlanIs(10, "b");  // overwrite
  port->vlanNotify(10);   // told without a change
  port->vlanDel(11);      // absent: nothing
  port->vlanDel(10);      // removal
  port->speedIs(0);       // unchanged
  port->speedInc(25);
  port->speedIs(25);
  EXPECT_EQ(r.log,
            (std::vector<std::string>{"vlan 10", "vlan 10", "vlan 10", "vlan 10", "speed 25"}));

  // DelAll tells each key; the whole-collection callback replays every key present.
  r.log.clear();
  port->vlanIs(1, "x");
  port->vlanIs(2, "y");
  r.log.clear();
  r.onVlankivImmediate();
  EXPECT_EQ(r.log.size(), 2u);
  port->vlanDelAll();
  EXPECT_EQ(r.log.size(), 4u);
  EXPECT_EQ(port->vlans(), 0u);
}

TEST(KivEntity, DeliveryToleratesNotifieesThatRemoveOrAddOthers) {
  Kiv::Ptr<Port> port = new Port(1);
  Recorder first, second, third, late;
  first.notifierIs(port);
  second.notifierIs(port);
  third.notifierIs(port);
  // The first removes itself and the second, and registers a late one mid-delivery.
  first.onVlanHook = [&](int) {
    first.notifierIs(nullptr);
    second.notifierIs(nullptr);
    late.notifierIs(port);
  };
  port->vlanIs(5, "x");
  EXPECT_EQ(first.log.size(), 1u);
  EXPECT_TRUE(second.log.empty());
  EXPECT_EQ(third.log.size(), 1u);
  EXPECT_TRUE(late.log.empty());  // added during the delivery: hears from the next one on
  port->vlanIs(6, "y");
  EXPECT_EQ(third.log.size(), 2u);
  EXPECT_EQ(late.log.size(), 1u);
  EXPECT_EQ(port->notifieeCount(), 2u);

  // A notifiee that drops the last reference to the entity mid-delivery does not pull the
  // entity out from under the delivery.
  Kiv::Ptr<Port> only = new Port(2);
  Recorder dropper;
  dropper.notifierIs(only);
  Port* raw = only.ptr();
  only = nullptr;  // the notifiee's own reference keeps it alive
  dropper.onVlanHook = [&](int) { dropper.notifierIs(nullptr); };
  raw->vlanIs(1, "z");
  EXPECT_EQ(dropper.log.size(), 1u);
}

// A notifiee that throws (a machine's range error on a bad input) does not deprive the others, and
// the first error reaches the mutator's caller with the list delivering normally afterwards. A
// broken invariant, thrown where a host asked for it, ends the delivery at once.
TEST(KivEntity, ANotifieeThatThrowsLeavesTheListConsistent) {
  Kiv::Ptr<Port> port = new Port(1);
  Recorder first, second, third;
  first.notifierIs(port);
  second.notifierIs(port);
  third.notifierIs(port);
  first.onVlanHook = [&](int v) {
    if (v == 1) throw Kiv::RangeException("first");
  };
  second.onVlanHook = [&](int v) {
    second.notifierIs(nullptr);  // a removal during the failed delivery is compacted after it
    if (v == 1) throw Kiv::RangeException("second");
  };
  try {
    port->vlanIs(1, "x");
    ADD_FAILURE() << "the error did not reach the caller";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(), "first");
  }
  EXPECT_EQ(third.log.size(), 1u);
  EXPECT_EQ(port->notifieeCount(), 2u);
  port->vlanIs(2, "y");
  EXPECT_EQ(first.log.size(), 2u);
  EXPECT_EQ(third.log.size(), 2u);

  Kiv::ThrowingAssertions throwing;
  first.onVlanHook = [](int) { KIV_ASSERT_TEXT(false, "0"); };
  EXPECT_THROW(port->vlanIs(3, "z"), Kiv::AssertionFailure);
  EXPECT_EQ(third.log.size(), 2u);  // not told: the agent is done
  first.onVlanHook = nullptr;
  port->vlanIs(4, "w");
  EXPECT_EQ(third.log.size(), 3u);
}

TEST(KivEntity, PlainSetsAndChildrenFollowTheFamilyRules) {
  Kiv::Ptr<Owner> owner = new Owner;
  Kiv::Ptr<Member> m = owner->memberIs(3);
  EXPECT_EQ(owner->memberIs(3), m);  // a present child is returned unchanged
  m->flagIs(1, false);               // stored with false: still a member
  EXPECT_EQ(m->flags(), 1u);
  EXPECT_TRUE(m->flag(1).has_value());
  EXPECT_FALSE(*m->flag(1));
  EXPECT_FALSE(m->flag(2).has_value());

  // A walk over a child's set keeps the child alive while the body deletes it from its owner.
  m->flagIs(2, true);
  Member* raw = m.ptr();
  m = nullptr;
  std::vector<int> seen;
  for (auto [k, v] : owner->member(3)->flagWalk()) {
    seen.push_back(k);
    raw->flagDel(k);
    if (!raw->flags()) owner->memberDel(3);
  }
  EXPECT_EQ(seen, (std::vector<int>{1, 2}));
  EXPECT_FALSE(owner->member(3));
}

}  // namespace
