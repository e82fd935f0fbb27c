// Collections keyed alike stored in one row per key, and maps held inside their owner: each must
// read exactly as the separate Kiv::HashMap it replaces, walk order included.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Kiv/Entity.h"
#include "Quil/IntfId.h"

namespace {

template <class Map>
std::vector<std::pair<int, int>> entries(const Map& m) {
  std::vector<std::pair<int, int>> out;
  for (auto [k, v] : m.walk()) out.emplace_back(k, v);
  return out;
}

// A LAG's ports come and go, past the inline capacity and back, sometimes while walked: the
// small map hands out what a HashMap with the same history would, in the same order, whether its
// first entries live inline (N = 2) or every entry lives in its heap block (N = 0).
template <unsigned N>
void replayAgainstHashMap() {
  std::mt19937 rng(7 + N);
  Kiv::SmallMap<int, int, N> small;
  Kiv::HashMap<int, int> hash;
  for (int step = 0; step < 4000; ++step) {
    int k = int(rng() % 12);
    switch (rng() % 4) {
      case 0:
      case 1:
        EXPECT_EQ(small.put(k, step), hash.put(k, step));
        break;
      case 2:
        EXPECT_EQ(small.erase(k), hash.erase(k));
        break;
      default: {
        // Walk both, erasing the current key when it is odd, as a LAG's stale members are, and
        // now and then putting one in, as a member joining does.
        std::vector<int> a, b;
        int joins = int(rng() % 3) == 0 ? k : -1;
        for (auto [key, v] : small.walk()) {
          a.push_back(key);
          if (key % 2) small.erase(key);
          if (joins >= 0) small.put(joins, step);
        }
        for (auto [key, v] : hash.walk()) {
          b.push_back(key);
          if (key % 2) hash.erase(key);
          if (joins >= 0) hash.put(joins, step);
        }
        EXPECT_EQ(a, b);
      }
    }
    ASSERT_EQ(entries(small), entries(hash)) << "step " << step;
    ASSERT_EQ(small.size(), hash.size());
  }
  // A copy is a value of its own, and a moved-from map is empty; an emptied map gives its heap
  // block back.
  small.clear();
  for (int k = 0; k < 6; ++k) small.put(k, k);
  Kiv::SmallMap<int, int, N> copy = small;
  small.clear();
  EXPECT_EQ(copy.size(), 6u);
  EXPECT_TRUE(small.empty());
  EXPECT_FALSE(copy == small);
  Kiv::SmallMap<int, int, N> moved = std::move(copy);
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(entries(moved),
            (std::vector<std::pair<int, int>>{{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}}));
  copy = moved;
  EXPECT_TRUE(copy == moved);
}

TEST(KivSmallMap, ReadsAndWalksAsAHashMapWithTheSameHistory) {
  replayAgainstHashMap<2>();
  replayAgainstHashMap<0>();
  // What a pair's port sets cost: two ports inline in 32 bytes, none in one pointer.
  static_assert(sizeof(Kiv::SmallMap<Quil::IntfId, bool, 2>) == 32);
  static_assert(sizeof(Kiv::SmallMap<Quil::IntfId, bool, 0>) == sizeof(void*));
}

// Per (port, VLAN): a tag and a status, as the flooding machines keep them.
class Status {
 public:
  explicit Status(int key) : key_(key) {}
  int key() const { return key_; }
  bool operator==(const Status&) const = default;
  KIV_SMALL_COLLECTION(port, int, bool, 2)

 private:
  int key_;
};

class Owner : public Kiv::PtrInterface {
 public:
  KIV_ROWS(pair, int, int, Status)
  KIV_ROW_COLLECTION(tag, pair, 0)
  KIV_ROW_CHILD_COLLECTION(status, pair, 1)
};

TEST(KivRows, FieldsReadAsCollectionsOfTheirOwnAndShareOneRow) {
  Kiv::Ptr<Owner> o = new Owner;
  o->tagIs(1, 10);
  o->tagIs(2, 20);
  o->statusEdit(2, [](Status& s) { s.portIs(7, true); });
  o->statusIs(3);
  EXPECT_EQ(o->tags(), 2u);
  EXPECT_EQ(o->statuss(), 2u);
  EXPECT_EQ(o->pairs(), 3u);  // keys 1 and 3 hold one field each, key 2 both
  EXPECT_EQ(o->tag(3), std::nullopt);
  EXPECT_TRUE(o->status(2)->portHas(7));
  EXPECT_EQ(o->status(3)->key(), 3);  // a child is made with its key
  EXPECT_FALSE(o->status(1));

  // Removing one field leaves the other; the row goes with its last field.
  o->tagDel(2);
  EXPECT_EQ(o->pairs(), 3u);
  EXPECT_TRUE(o->statusHas(2));
  o->statusDel(2);
  EXPECT_EQ(o->pairs(), 2u);
  o->tagDel(2);  // absent: nothing
  EXPECT_EQ(o->tags(), 1u);

  // A field's walk hands out only its own keys, and tolerates removals of any field meanwhile.
  for (int k = 10; k < 20; ++k) o->tagIs(k, k);
  for (int k = 15; k < 25; ++k) o->statusIs(k);
  std::vector<int> seen;
  for (auto [k, tag] : o->tagWalk()) {
    seen.push_back(k);
    EXPECT_EQ(tag, k == 1 ? 10 : k);
    o->tagDel(k);
    o->statusDel(k + 1);
  }
  EXPECT_EQ(seen, (std::vector<int>{1, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}));
  EXPECT_EQ(o->tags(), 0u);
  std::vector<int> left;
  for (auto [k, s] : o->statusWalk()) left.push_back(s.key());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<int>{3, 21, 22, 23, 24}));
  o->statusDelAll();
  EXPECT_EQ(o->pairs(), 0u);

  // A row is its fields end to end, widest first, and one byte saying which are present.
  static_assert(sizeof(Kiv::Rows<int, std::uint16_t, Status>::Row) == sizeof(Status) + 8);
}

}  // namespace
