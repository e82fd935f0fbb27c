// Kiv collections under change while walked, notifiee lists under disruption, accessor families.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Bridging/VlanId.h"
#include "Kiv/Assert.h"
#include "Kiv/BitMap.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Kiv/OrderedBitMap.h"

// What the tests read inside the collections: a HashMap's index migration and slot pages, an
// OrderedMap's tree.
struct Kiv::CollectionProbe {
  template <class M>
  static bool migrating(const M& m) {
    return m.next_ != nullptr;
  }
  template <class M>
  static bool copying(const M& m) {
    return m.next_ && !(m.cursor_ & M::kClearing);
  }
  template <class M>
  static std::size_t cells(const M& m) {
    return m.cells_ ? m.cellCount() : 0;
  }
  template <class M>
  static std::size_t slotsAllocated(const M& m) {
    return m.cap_;
  }
  // A BitMap's words: held (with a key in them) and allocated.
  template <class M>
  static std::pair<int, int> words(const M& m) {
    return {std::popcount(m.mask_), m.cap_};
  }

  // The first fault in a HashMap's index ("" when there is none): a cell for no live slot or
  // with the wrong hash, a slot with two cells or none, a copy that differs from the cells of
  // the old table below the cursor.
  template <class M>
  static std::string indexFault(const M& m) {
    if (!m.cells_) return "";
    auto cellsOf = [](const auto* t, std::size_t from, std::size_t to) {
      std::vector<std::pair<std::uint32_t, std::uint32_t>> out;
      for (std::size_t p = from; p < to; ++p) {
        if (t[p].slot != M::kFree) out.emplace_back(t[p].slot, t[p].hash);
      }
      std::sort(out.begin(), out.end());
      return out;
    };
    auto cells = cellsOf(m.cells_, 0, m.cellCount());
    if (cells.size() != m.size()) return std::to_string(cells.size()) + " cells";
    for (std::size_t i = 0; i < cells.size(); ++i) {
      auto [slot, hash] = cells[i];
      if (i && cells[i - 1].first == slot) return "two cells for slot " + std::to_string(slot);
      if (slot >= m.used_ || !m.at(slot).live) return "a cell for no entry";
      if (M::hashOf(m.at(slot).key) != hash) return "a cell with the wrong hash";
    }
    if (copying(m) && cellsOf(m.next_, 0, m.cellCount() * 2) != cellsOf(m.cells_, 0, m.cursor_)) {
      return "the copy differs";
    }
    return "";
  }

  // The first fault in an OrderedMap's tree ("" when there is none): keys out of order, a child
  // whose recorded greatest key is wrong, a node over full or (below the root) under a quarter.
  template <class M>
  static std::string treeFault(const M& m, unsigned* height = nullptr) {
    if (height) *height = m.height_;
    if (!m.root_) return m.size() ? "no root" : "";
    if (m.height_ && m.root_->kids.size() < 2) return "a root with one child";
    std::size_t items = 0;
    std::string fault = nodeFault<M>(*m.root_, m.height_, true, items);
    if (fault.empty() && items != m.size()) fault = "size " + std::to_string(m.size());
    return fault;
  }
  template <class M, class Node>
  static std::string nodeFault(const Node& n, unsigned h, bool root, std::size_t& items) {
    std::size_t count = h ? n.kids.size() : n.items.size();
    if (count > M::kMax || (!root && count < M::kMin)) return "count " + std::to_string(count);
    auto ascending = [](const auto& v) {
      return std::adjacent_find(v.begin(), v.end(), [](const auto& a, const auto& b) {
               return !(a.first < b.first);
             }) == v.end();
    };
    if (!h) {
      items += count;
      return ascending(n.items) ? "" : "leaf out of order";
    }
    if (!ascending(n.kids)) return "children out of order";
    for (const auto& [last, kid] : n.kids) {
      const Node* leaf = kid.get();
      for (unsigned d = h - 1; d; --d) leaf = leaf->kids.back().second.get();
      if (leaf->items.empty() || leaf->items.back().first != last) return "wrong greatest key";
      if (std::string f = nodeFault<M>(*kid, h - 1, false, items); !f.empty()) return f;
    }
    return "";
  }
};

namespace {

template <class Map>
std::vector<int> keysOf(const Map& m) {
  std::vector<int> out;
  for (auto&& e : m.walk()) out.push_back(e.key);
  return out;
}

// What a walk's body does in the stories below, to the map and its model alike: erases the key
// at hand one time in `eraseOdds`, sometimes erases another key, sometimes adds one.
template <class Map, class Model, class Rng, class Key, class Put>
void changeAsTheWalkGoes(Map& m, Model& ref, Rng& rng, Key key, int atHand, unsigned eraseOdds,
                         int value, Put put) {
  if (rng() % eraseOdds == 0) {
    m.erase(atHand);
    ref.erase(atHand);
  }
  if (rng() % 16 == 0) {
    int other = key();
    m.erase(other);
    ref.erase(other);
  }
  if (rng() % 16 == 0) {
    int added = key();
    m.put(added, value);
    put(added, value);
  }
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

// The walk order a HashMap promises, kept the plain way: slots in insertion order, the last one
// moved into a removed one's place at once, or for removals during a walk when the walk ends.
struct SlotOrder {
  struct Slot {
    int key;
    int value;
    bool live;
  };
  std::vector<Slot> slots;
  std::vector<std::size_t> holes;
  std::unordered_map<int, std::size_t> where;  // the live keys' slots
  std::size_t size = 0;
  int walkers = 0;

  Slot* find(int k) {
    auto it = where.find(k);
    return it == where.end() ? nullptr : &slots[it->second];
  }
  void put(int k, int v) {
    if (Slot* s = find(k)) {
      s->value = v;
      return;
    }
    where[k] = slots.size();
    slots.push_back({k, v, true});
    ++size;
  }
  void fillFromBack(std::size_t i) {
    slots[i] = slots.back();
    slots.pop_back();
    if (i < slots.size()) where[slots[i].key] = i;
  }
  void erase(int k) {
    Slot* s = find(k);
    if (!s) return;
    std::size_t i = static_cast<std::size_t>(s - slots.data());
    where.erase(k);
    --size;
    if (walkers) {
      s->live = false;
      holes.push_back(i);
    } else {
      fillFromBack(i);
    }
  }
  void clear() {
    if (!walkers) {
      slots.clear();
      where.clear();
      size = 0;
    }
    for (const Slot& s : slots) {
      if (s.live) erase(s.key);
    }
  }
  void walkEnded() {
    if (--walkers) return;
    auto popDead = [&] {
      while (!slots.empty() && !slots.back().live) slots.pop_back();
    };
    for (std::size_t hole : holes) {
      popDead();
      if (hole < slots.size()) fillFromBack(hole);
    }
    popDead();
    holes.clear();
  }
  std::vector<std::pair<int, int>> entries() const {
    std::vector<std::pair<int, int>> out;
    for (const Slot& s : slots) {
      if (s.live) out.emplace_back(s.key, s.value);
    }
    return out;
  }
};

template <class Map>
std::vector<std::pair<int, int>> entriesOf(const Map& m) {
  std::vector<std::pair<int, int>> out;
  for (auto [k, v] : m.walk()) out.emplace_back(k, v);
  return out;
}

// Hashes that crowd keys onto a few hundred homes: long runs of occupied cells that straddle the
// migration cursor and wrap round the end of the table.
struct CrowdedHashes {
  std::size_t operator()(int k) const { return static_cast<std::size_t>(k % 251); }
};

struct MigrationEvents {
  int migrations = 0;
  int erasesWhileCopying = 0;
  int holesFilledWhileMigrating = 0;
  int clearsWhileMigrating = 0;
};

// Grows a map to a few thousand entries and back to none through random inserts, erases and
// walks that erase, add and clear as they go, comparing it with SlotOrder at every step: the
// size and lookups always, the whole walk order every few steps and whenever a migration of the
// index starts or ends.
template <class Hash>
void growAndShrinkAgainstSlotOrder(unsigned seed, MigrationEvents& seen) {
  Kiv::HashMap<int, int, Hash> m;
  SlotOrder ref;
  std::mt19937 rng(seed);
  auto key = [&] { return static_cast<int>(rng() % 12000); };
  auto agree = [&](int k) {
    const int* a = m.find(k);
    const SlotOrder::Slot* b = ref.find(k);
    return a ? b && *a == b->value : !b;
  };
  using Probe = Kiv::CollectionProbe;
  bool wasMigrating = false;
  std::size_t cells = 0;
  for (int step = 0, grow = 1; grow || m.size(); ++step) {
    if (m.size() > 3000) grow = 0;
    int k = key();
    unsigned what = rng() % 100;
    const bool migrating = Probe::migrating(m);
    if (rng() % (migrating ? 8 : 1024) == 0) {
      // A walk, often left early (and always while the index migrates, which its erases push
      // on): it must hand out exactly the live slots it started with that are still live when
      // it reaches them, in slot order, while its body changes the map.
      const bool clears = migrating && rng() % 32 == 0;
      const std::size_t end = ref.slots.size();
      const std::size_t stop = migrating ? rng() % 64 : rng() % 2 ? end : rng() % 300;
      std::size_t at = 0, visited = 0;
      ++ref.walkers;
      {
        auto walk = m.walk();
        for (auto [wk, wv] : walk) {
          while (at < end && !ref.slots[at].live) ++at;
          ASSERT_LT(at, end);
          ASSERT_EQ(wk, ref.slots[at].key);
          ASSERT_EQ(wv, ref.slots[at].value);
          ++at;
          if (++visited > stop) break;
          changeAsTheWalkGoes(m, ref, rng, key, wk, 4, step, [&](int k, int v) { ref.put(k, v); });
          if (clears && visited == 10) {
            if (Probe::migrating(m)) ++seen.clearsWhileMigrating;
            m.clear();
            ref.clear();
            for (int i = 0; i < 40; ++i) {
              int added = key();
              m.put(added, -i);
              ref.put(added, -i);
            }
          }
        }
        if (visited <= stop) {
          while (at < end && !ref.slots[at].live) ++at;
          ASSERT_EQ(at, end);
        }
        if (Probe::migrating(m) && !ref.holes.empty()) ++seen.holesFilledWhileMigrating;
      }
      ref.walkEnded();
    } else if (what < (grow ? 70u : 30u)) {
      m.put(k, step);
      ref.put(k, step);
    } else {
      if (!grow) k = ref.slots[rng() % ref.slots.size()].key;  // shrinking: one that is there
      if (Probe::copying(m)) ++seen.erasesWhileCopying;
      ASSERT_EQ(m.erase(k), ref.find(k) != nullptr);
      ref.erase(k);
    }
    ASSERT_EQ(m.size(), ref.size);
    ASSERT_TRUE(agree(k)) << k;
    ASSERT_TRUE(agree(key()));
    if (Probe::cells(m) > cells && cells) ++seen.migrations;
    if (step % 64 == 0 || Probe::migrating(m) != wasMigrating) {
      ASSERT_EQ(entriesOf(m), ref.entries()) << "step " << step;
      ASSERT_EQ(Probe::indexFault(m), "") << "step " << step;
      for (auto [rk, rv] : ref.entries()) ASSERT_TRUE(m.contains(rk)) << rk;
    }
    wasMigrating = Probe::migrating(m);
    cells = Probe::cells(m);
  }
  EXPECT_EQ(Probe::slotsAllocated(m), 0u);  // emptied: everything given back
  EXPECT_EQ(Probe::cells(m), 0u);
}

TEST(KivHashMap, GrowsThroughIndexMigrationsKeepingWalkOrderAndLookups) {
  MigrationEvents spread, crowded;
  growAndShrinkAgainstSlotOrder<std::hash<int>>(11, spread);
  growAndShrinkAgainstSlotOrder<CrowdedHashes>(12, crowded);
  // Each run went through every table size from 16 to 8192 cells, and hit the cases where the
  // old and new tables must be kept in step.
  for (const MigrationEvents* e : {&spread, &crowded}) {
    EXPECT_GE(e->migrations, 9);
    EXPECT_GT(e->erasesWhileCopying, 0);
    EXPECT_GT(e->holesFilledWhileMigrating, 0);
  }
  EXPECT_GT(spread.clearsWhileMigrating + crowded.clearsWhileMigrating, 0);
}

// A value that counts how often it is moved: what a change of the map costs in moved entries.
struct Counted {
  static inline std::size_t moves = 0;
  int v = 0;
  Counted() = default;
  explicit Counted(int x) : v(x) {}
  Counted(const Counted&) = default;
  Counted& operator=(const Counted&) = default;
  Counted(Counted&& o) noexcept : v(o.v) { ++moves; }
  Counted& operator=(Counted&& o) noexcept {
    v = o.v;
    ++moves;
    return *this;
  }
  bool operator==(const Counted&) const = default;
};

TEST(KivHashMap, NoChangeMovesMoreThanABoundedNumberOfEntriesOnTheWayToAMillion) {
  using Probe = Kiv::CollectionProbe;
  Kiv::HashMap<int, Counted> m;
  constexpr int kMillion = 1 << 20;
  std::size_t worst = 0;
  int migrationStart = -1;
  std::size_t migrationCells = 0;
  for (int k = 0; k < kMillion; ++k) {
    Counted::moves = 0;
    m.put(k, Counted(k));
    worst = std::max(worst, Counted::moves);
    // Past the first page (1024 slots) slots never move again; before it, the first page's
    // doubling moves at most half a page.
    if (k >= 1024) {
      ASSERT_EQ(Counted::moves, 0u) << k;
    }
    // The index: the old table never fuller than 3/4, and a migration from C cells to 2C takes
    // exactly one step per insert: 2C/64 clearing the new table, C/16 copying into it.
    std::size_t cells = Probe::cells(m);
    if (cells) {
      ASSERT_LE(m.size() * 4, cells * 3) << k;
    }
    if (Probe::migrating(m) && migrationStart < 0) {
      migrationStart = k;
      migrationCells = cells;
    } else if (!Probe::migrating(m) && migrationStart >= 0) {
      ASSERT_EQ(cells, migrationCells * 2);
      std::size_t steps = std::max<std::size_t>(migrationCells / 32, 1) + migrationCells / 16;
      ASSERT_EQ(std::size_t(k - migrationStart + 1), steps) << migrationCells;
      migrationStart = -1;
    }
  }
  EXPECT_EQ(worst, 512u);
  EXPECT_EQ(Probe::cells(m), std::size_t(1) << 21);

  // A walk that removes a third of the map: it moves nothing while it runs, and its end moves at
  // most one entry per removal (the last live slot into each hole).
  std::size_t removed = 0;
  {
    auto walk = m.walk();
    Counted::moves = 0;
    for (auto [k, v] : walk) {
      if (k % 3) continue;
      m.erase(k);
      ++removed;
    }
    ASSERT_EQ(Counted::moves, 2 * removed);  // each removed value, out and reset
    Counted::moves = 0;
  }
  EXPECT_LE(Counted::moves, removed);
  EXPECT_EQ(m.size(), std::size_t(kMillion) - removed);

  // Emptying: one entry moved per erase beside the erased value itself, pages given back as the
  // map shrinks (keeping one spare), everything given back at the end.
  for (int k = 0; k < kMillion; ++k) {
    Counted::moves = 0;
    m.erase(k);
    ASSERT_LE(Counted::moves, 2u) << k;
    std::size_t pages = (m.size() + 1023) / 1024 + 1;
    if (!m.empty()) {
      ASSERT_LE(Probe::slotsAllocated(m), std::max<std::size_t>(pages, 2) * 1024);
    }
  }
  EXPECT_EQ(Probe::slotsAllocated(m), 0u);
  EXPECT_EQ(Probe::cells(m), 0u);
}

TEST(KivHashMap, PutReportsWhatChanged) {
  Kiv::HashMap<int, int> m;
  EXPECT_EQ(m.put(1, 10), Kiv::Change::inserted);
  EXPECT_EQ(m.put(1, 10), Kiv::Change::none);
  EXPECT_EQ(m.put(1, 11), Kiv::Change::changed);
  EXPECT_TRUE(m.erase(1));
  EXPECT_FALSE(m.erase(1));
}

// Through growth to tens of thousands of keys (leaves splitting, the tree gaining levels) and
// back to none (nodes merging and sharing, levels going), with walks that erase the key at hand,
// erase others and add some: lookups, sizes and the tree's shape hold at every check, and each
// walk hands out exactly the next key above the last one it handed out.
TEST(KivOrderedMap, AgreesWithAStdMapThroughSplitsMergesAndWalks) {
  Kiv::OrderedMap<int, int> m;
  std::map<int, int> ref;
  std::mt19937 rng(5);
  auto key = [&] { return static_cast<int>(rng() % 60000); };
  unsigned highest = 0;
  std::size_t nextWhole = 5000;
  for (int step = 0, grow = 1; grow || !ref.empty(); ++step) {
    int k = key();
    unsigned what = rng() % 1000;
    // Walks, mostly left early, that drain the low keys as a review does; a whole walk at the
    // turn and at two sizes on the way up.
    bool turn = grow && ref.size() > 25000;
    if (turn) grow = 0;
    bool whole = turn || (grow && ref.size() >= nextWhole);
    if (whole) nextWhole += 10000;
    if (what == 0 || whole) {
      const std::size_t stop = whole ? ref.size() : rng() % 800;
      std::size_t visited = 0;
      std::optional<int> last;
      for (auto [wk, wv] : m.walk()) {
        auto next = last ? ref.upper_bound(*last) : ref.begin();
        ASSERT_NE(next, ref.end());
        ASSERT_EQ(wk, next->first);
        ASSERT_EQ(wv, next->second);
        last = wk;
        if (++visited > stop) break;
        changeAsTheWalkGoes(m, ref, rng, key, wk, whole ? 8 : 2, step,
                            [&](int k, int v) { ref[k] = v; });
      }
      if (visited <= stop) {
        ASSERT_EQ(last ? ref.upper_bound(*last) : ref.begin(), ref.end());
      }
    } else if (what < (grow ? 700u : 300u)) {
      ASSERT_EQ(m.put(k, step), ref.count(k) ? Kiv::Change::changed : Kiv::Change::inserted);
      ref[k] = step;
    } else {
      if (!grow) {  // shrinking: one that is there
        auto there = ref.lower_bound(k);
        k = there == ref.end() ? ref.begin()->first : there->first;
      }
      ASSERT_EQ(m.erase(k), ref.erase(k) == 1);
    }
    ASSERT_EQ(m.size(), ref.size());
    const int* found = m.find(k);
    ASSERT_EQ(found != nullptr, ref.count(k) == 1);
    if (found) {
      ASSERT_EQ(*found, ref[k]);
    }
    if (step % 257 == 0) {
      unsigned height = 0;
      ASSERT_EQ(Kiv::CollectionProbe::treeFault(m, &height), "") << "step " << step;
      highest = std::max(highest, height);
      std::vector<std::pair<int, int>> want(ref.begin(), ref.end());
      ASSERT_EQ(entriesOf(m), want);
    }
  }
  EXPECT_GE(highest, 2u);
  EXPECT_EQ(Kiv::CollectionProbe::treeFault(m), "");
  EXPECT_TRUE(m.empty());
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

// A LAG's VLAN set in bits: a trunk that carries every VLAN, then sheds them while a walk runs.
TEST(KivBitMap, HoldsASegmentsVlansAsAMapWouldAndWalksThemInOrderThroughAnyChange) {
  using Bridging::VlanId;
  using Probe = Kiv::CollectionProbe;
  Kiv::BitMap<VlanId, bool> m;
  std::map<int, bool> ref;
  std::mt19937 rng(7);
  auto check = [&] {
    ASSERT_EQ(m.size(), ref.size());
    std::vector<std::pair<int, bool>> walked;
    for (auto [vlan, v] : m.walk()) walked.emplace_back(vlan.value(), v);
    std::vector<std::pair<int, bool>> expected(ref.begin(), ref.end());
    ASSERT_EQ(walked, expected);
  };
  // Storing false keeps the key; overwriting reports the change; the edges of the space hold.
  EXPECT_EQ(m.put(VlanId(0), false), Kiv::Change::inserted);
  EXPECT_EQ(m.put(VlanId(4095), true), Kiv::Change::inserted);
  EXPECT_EQ(m.put(VlanId(4095), true), Kiv::Change::none);
  EXPECT_EQ(m.put(VlanId(0), true), Kiv::Change::changed);
  ref = {{0, true}, {4095, true}};
  check();
  EXPECT_EQ(Probe::words(m), std::make_pair(2, 2));
  for (int i = 0; i < 40000; ++i) {
    int vlan = int(rng() % 4096);
    if (rng() % 3) {
      bool v = rng() % 4;
      m.put(VlanId(vlan), v);
      ref[vlan] = v;
    } else {
      EXPECT_EQ(m.erase(VlanId(vlan)), ref.erase(vlan) == 1);
    }
    if (i % 997 == 0) check();
    const bool* found = m.find(VlanId(vlan));
    ASSERT_EQ(found != nullptr, ref.count(vlan) == 1);
    if (found) {
      EXPECT_EQ(*found, ref[vlan]);
    }
  }
  check();
  // A walk that removes what it visits, takes a later VLAN with it, and adds one behind and one
  // ahead of itself: the one ahead is visited, the removed one is not.
  for (int vlan = 1; vlan <= 4094; ++vlan) m.put(VlanId(vlan), true);
  m.erase(VlanId(0));
  m.erase(VlanId(4095));
  EXPECT_EQ(Probe::words(m), std::make_pair(64, 64));
  int visited = 0;
  bool sawAhead = false;
  for (auto [vlan, v] : m.walk()) {
    ++visited;
    EXPECT_NE(vlan.value(), 700);
    if (vlan.value() == 4095) sawAhead = true;
    m.erase(vlan);
    if (vlan.value() == 10) m.erase(VlanId(700));
    if (vlan.value() == 100) m.put(VlanId(0), true);
    if (vlan.value() == 200) m.put(VlanId(4095), true);
  }
  EXPECT_EQ(visited, 4094);
  EXPECT_TRUE(sawAhead);
  EXPECT_EQ(m.size(), 1u);
  EXPECT_TRUE(m.contains(VlanId(0)));
  // The last key gone, the words go back.
  m.erase(VlanId(0));
  EXPECT_EQ(Probe::words(m), std::make_pair(0, 0));
}

// A (port, VLAN) key, ordered port first, split for an ordered bit map.
struct PortVlanKey {
  int port;
  Bridging::VlanId vlan;
  auto operator<=>(const PortVlanKey&) const = default;
};
}  // namespace
template <>
struct Kiv::SplitKey<PortVlanKey> {
  using Major = int;
  using Minor = Bridging::VlanId;
  static int major(const PortVlanKey& k) { return k.port; }
  static Bridging::VlanId minor(const PortVlanKey& k) { return k.vlan; }
  static PortVlanKey join(int port, Bridging::VlanId vlan) { return {port, vlan}; }
};
namespace {

// A review queue of (port, VLAN) pairs: filled VLAN by VLAN at a start, drained port by port
// while pairs are marked again and withdrawn behind and ahead of the drain. The bits hand out
// what an ordered map with the same history would, in the same order, and give their memory back
// as ports empty.
TEST(KivOrderedBitMap, DrainsAReviewQueueAsAnOrderedMapWouldThroughAnyChange) {
  using Bridging::VlanId;
  Kiv::OrderedBitMap<PortVlanKey, bool> bits;
  Kiv::OrderedMap<PortVlanKey, bool> tree;
  auto same = [&] {
    std::vector<PortVlanKey> a, b;
    for (auto [k, v] : bits.walk()) a.push_back(k);
    for (auto [k, v] : tree.walk()) b.push_back(k);
    ASSERT_EQ(a, b);
    ASSERT_EQ(bits.size(), tree.size());
  };
  for (int vlan = 1; vlan <= 300; ++vlan) {
    for (int port : {7, 3, 12})
      EXPECT_EQ(bits.put({port, VlanId(vlan)}, true), tree.put({port, VlanId(vlan)}, true));
  }
  same();
  EXPECT_EQ(bits.put({3, VlanId(5)}, true), Kiv::Change::none);
  EXPECT_EQ(bits.put({3, VlanId(5)}, false), Kiv::Change::changed);
  tree.put({3, VlanId(5)}, false);
  ASSERT_NE(bits.find({3, VlanId(5)}), nullptr);
  EXPECT_FALSE(*bits.find({3, VlanId(5)}));
  EXPECT_EQ(bits.find({4, VlanId(5)}), nullptr);

  std::mt19937 rng(11);
  for (int round = 0; round < 40; ++round) {
    // The drain takes each key it visits; meanwhile events mark and withdraw other pairs.
    std::vector<PortVlanKey> a, b;
    std::vector<std::pair<PortVlanKey, bool>> events;
    for (int i = 0; i < 64; ++i) {
      events.emplace_back(PortVlanKey{int(rng() % 16), VlanId(1 + rng() % 4094)}, rng() % 3 != 0);
    }
    auto drain = [&](auto& m, std::vector<PortVlanKey>& seen) {
      std::size_t e = 0;
      for (auto [k, v] : m.walk()) {
        seen.push_back(k);
        if (seen.size() % 5 == 0) m.erase(k);
        for (int j = 0; j < 2 && e < events.size(); ++j, ++e) {
          if (events[e].second) {
            m.put(events[e].first, true);
          } else {
            m.erase(events[e].first);
          }
        }
        if (seen.size() > 2000) break;
      }
    };
    drain(bits, a);
    drain(tree, b);
    ASSERT_EQ(a, b) << "round " << round;
    same();
  }
  // A port leaves while the drain stands on it (its bits go), then comes back with one VLAN
  // ahead of the drain and one behind it: the one ahead is visited.
  auto leaveAndReturn = [&](auto& m, std::vector<PortVlanKey>& seen) {
    for (auto [k, v] : m.walk()) {
      seen.push_back(k);
      if (k.port == 3 && k.vlan == VlanId(100)) {
        std::vector<PortVlanKey> port3;
        for (auto [k3, v3] : m.walk()) {
          if (k3.port == 3) port3.push_back(k3);
        }
        for (const auto& k3 : port3) m.erase(k3);
        m.put({3, VlanId(50)}, true);
        m.put({3, VlanId(4000)}, true);
      }
    }
  };
  for (int vlan = 1; vlan <= 200; ++vlan) {
    bits.put({3, VlanId(vlan)}, true);
    tree.put({3, VlanId(vlan)}, true);
  }
  std::vector<PortVlanKey> a, b;
  leaveAndReturn(bits, a);
  leaveAndReturn(tree, b);
  EXPECT_EQ(a, b);
  EXPECT_NE(std::find(a.begin(), a.end(), PortVlanKey{3, VlanId(4000)}), a.end());
  EXPECT_EQ(std::find(a.begin(), a.end(), PortVlanKey{3, VlanId(101)}), a.end());
  same();

  for (auto [k, v] : bits.walk()) bits.erase(k);
  EXPECT_TRUE(bits.empty());
  EXPECT_TRUE(bits.walk().begin() == bits.walk().end());
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
