#pragma once
// Keyed collections that an entity or a state machine owns.
//
// Kiv::HashMap<K, V>     O(1) on average; walks in a deterministic order (insertion order,
//                        perturbed by removals: the last element takes a removed one's place,
//                        at once or, for removals during a walk, when the walk ends).
// Kiv::OrderedMap<K, V>  walks in key order (reviews that must go in key order use it).
//
// Neither pauses to grow: no insert or erase moves more than a bounded number of entries,
// whatever the size (a machine's tables reach a million entries, and one insert that moved them
// all would stall the event loop for milliseconds). A pointer that find() or findOrMake() hands
// out is valid until the next change of the same collection.
//
// Both tolerate any change while they are walked: the current element, or any other, may be
// removed, and elements may be added. A walk visits each element present when it started that is
// still present when the walk reaches it; elements added during a walk may or may not be visited
// (a HashMap walk does not visit them). A walk hands out copies of key and value, so the loop body
// may change the collection freely:
//
//   for (auto [vlan, member] : set->vlanIdWalk()) unProgram(intf, vlan);   // may erase vlan
//
// These are the storage of the accessor families in Kiv/Entity.h; owners rarely touch them
// directly.

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

namespace Kiv {

// What a walk hands out: a copy of the key and of the value.
template <class K, class V>
struct Entry {
  K key;
  V value;
};

// Keys with a member hash() use it; others use std::hash.
template <class K>
using DefaultHash = std::conditional_t < requires(const K& k) {
  k.hash();
}
, MemberHash, std::hash < K >> ;

// The result of a lookup: the child pointer itself for child entities (null when absent),
// std::optional for plain values.
template <class V>
struct LookupTraits {
  using Result = std::optional<V>;
};
template <class T>
struct LookupTraits<Ptr<T>> {
  using Result = Ptr<T>;
};
template <class V>
using LookupResult = typename LookupTraits<V>::Result;

// What a put did; a watched owner notifies unless it is `none`.
enum class Change : std::uint8_t { none, inserted, changed };

// A counted reference that keeps the owner of a walked collection alive while the loop body runs,
// even if the body drops the last other reference (a set deleting itself when it empties).
// An object with no references yet is being constructed or lives on the stack: nothing to keep.
inline Ptr<const PtrInterface> keepAlive(const PtrInterface* owner) {
  return (owner && owner->references()) ? Ptr<const PtrInterface>(owner) : nullptr;
}

// Tests look inside the collections through this; only they define it.
struct CollectionProbe;

template <class K, class V, class Hash = DefaultHash<K>>
class HashMap {
  // A slot's fields in the order that packs them: a value aligned wider than its key goes first,
  // so that the key and the live flag share the value's padding (a pair's row and its 12-byte key
  // take 8 bytes less than with the key first).
  struct KeyFirst {
    K key;
    V value;
    bool live;
    template <class Make>
    KeyFirst(const K& k, Make&& make) : key(k), value(make()), live(true) {}
  };
  struct ValueFirst {
    V value;
    K key;
    bool live;
    template <class Make>
    ValueFirst(const K& k, Make&& make) : value(make()), key(k), live(true) {}
  };
  using Slot = std::conditional_t<(alignof(V) > alignof(K)), ValueFirst, KeyFirst>;
  // The index: open addressing with linear probing over (hash, slot) cells, deleted by shifting
  // the probe chain back, so it needs no tombstones and allocates only when it grows.
  struct Cell {
    std::uint32_t hash;
    std::uint32_t slot;
  };
  static constexpr std::uint32_t kFree = 0xffffffffu;
  // Small maps (most of a machine's per-key sets) keep no index: a scan of a few slots is cheaper
  // than hashing, and they allocate nothing beyond their slots.
  static constexpr std::size_t kLinearMax = 8;
  // Slots live in pages that never move, so that growing a table of a million entries does not
  // move a million entries in one insert. The first page grows by doubling, as a vector would,
  // which keeps a map of a few entries as small as before; a full first page is followed by
  // further pages of the same size, and growing the list of pages copies only page pointers.
  static constexpr unsigned kPageBits = 10;
  static constexpr std::uint32_t kPage = 1u << kPageBits;
  // The index grows without a pause either. The insert that takes a table of C cells past 5/8
  // full allocates one of 2C cells; that insert and each later insert or erase take one step
  // towards it: first clearing 64 of its cells (2C/64 = C/32 steps; clearing megabytes at once
  // would be the pause again), then copying 16 cells of the old table into it (C/16 steps).
  // Until the last step the old table stays complete and answers every lookup; the new one holds
  // exactly the cells at old positions below the copy cursor, so a change to the old table below
  // the cursor is made in the new one too. The move takes C/32 + C/16 = 3C/32 changes, so the
  // old table never holds more than 5C/8 + 3C/32 = 23C/32 entries (3/4 for the 16-cell table,
  // whose two steps round up): never fuller than the 3/4 at which it used to double at once, and
  // probe chains stay as short as they were.
  static constexpr std::size_t kFirstIndexCells = 16;
  static constexpr std::uint32_t kClearStep = 64;
  static constexpr std::uint32_t kCopyStep = 16;
  static constexpr std::uint32_t kClearing = 1u << 31;

 public:
  using Key = K;
  using Value = V;

  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;
  ~HashMap() { release(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(const K& k) const { return seek(k).slot != kFree; }

  // The pointer stays valid until the next change of the map.
  const V* find(const K& k) const {
    Slot* s = seek(k).at;
    return s ? &s->value : nullptr;
  }
  V* find(const K& k) { return const_cast<V*>(std::as_const(*this).find(k)); }

  Change put(const K& k, const V& v) {
    Seek s = seek(k);
    if (s.slot == kFree) {
      ::new (static_cast<void*>(room())) Slot(k, [&]() -> const V& { return v; });
      adopt(s.hash);
      return Change::inserted;
    }
    V& cur = s.at->value;
    if constexpr (std::equality_comparable<V>) {
      if (cur == v) return Change::none;
    }
    cur = v;
    return Change::changed;
  }

  template <class Make>
  std::pair<V*, bool> findOrMake(const K& k, Make&& make) {
    Seek s = seek(k);
    if (s.at) return {&s.at->value, false};
    Slot* made = ::new (static_cast<void*>(room())) Slot(k, make);
    adopt(s.hash);
    return {&made->value, true};
  }

  bool erase(const K& k) {
    Seek s = seek(k);
    if (s.slot == kFree) return false;
    if (cells_) unindex(s.cell);
    --size_;
    Slot& slot = *s.at;
    [[maybe_unused]] V doomed = std::move(slot.value);
    if (walkers_) {
      slot.live = false;
      slot.value = V();
      holes_.push_back(s.slot);
    } else {
      removeSlot(s.slot);
      if (!size_) {
        release();
        return true;
      }
    }
    if (next_) migrate();
    return true;
  }

  void clear() {
    if (!walkers_) {
      release();
      return;
    }
    [[maybe_unused]] std::vector<V> doomed;
    doomed.reserve(size_);
    for (std::uint32_t i = 0; i < used_; ++i) {
      Slot& s = at(i);
      if (!s.live) continue;
      doomed.push_back(std::move(s.value));
      s.value = V();
      s.live = false;
      holes_.push_back(i);
    }
    // The index stays, emptied: refilling the map during the walk needs no rebuild over the
    // slots the walk still holds.
    if (cells_) {
      dropMigration();
      std::fill(cells_, cells_ + cellCount(), Cell{0, kFree});
    }
    size_ = 0;
  }

  // Allocates up front what n entries need (slots and index), so that growing to n moves nothing.
  // Pages beyond the last one in use and a spare go back as the map shrinks.
  void reserve(std::size_t n) {
    while (cap_ < n) {
      if (!paged() && cap_ < kPage) {
        resizeFirstPage(static_cast<std::uint32_t>(std::min<std::size_t>(n, kPage)));
      } else {
        grow();
      }
    }
    if (n <= kLinearMax) return;
    std::size_t cells = kFirstIndexCells;
    while (cells * 5 < n * 8) cells *= 2;
    if (!cells_ || cells > cellCount()) rebuildIndex(cells);
  }

  class Walk {
   public:
    class iterator {
     public:
      iterator(const HashMap* m, std::uint32_t i, std::uint32_t end) : m_(m), i_(i), end_(end) {
        skipDead();
      }
      Entry<K, V> operator*() const { return Entry<K, V>{at_->key, at_->value}; }
      iterator& operator++() {
        // The next slot is live unless the walk removed it: the short way first.
        if (++i_ < end_) {
          at_ = &m_->at(i_);
          if (at_->live) return *this;
        }
        skipDead();
        return *this;
      }
      bool operator==(const iterator& o) const { return i_ == o.i_; }

     private:
      // Finds the slot afresh at each step: the loop body may have moved the first page.
      void skipDead() {
        for (; i_ < end_; ++i_) {
          at_ = &m_->at(i_);
          if (at_->live) return;
        }
      }
      const HashMap* m_;
      const Slot* at_ = nullptr;
      std::uint32_t i_;
      std::uint32_t end_;
    };

    Walk(const HashMap& m, Ptr<const PtrInterface> keep)
        : m_(&m), keep_(std::move(keep)), end_(m.used_) {
      ++m.walkers_;
    }
    ~Walk() { const_cast<HashMap*>(m_)->walkEnded(); }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    iterator begin() const { return iterator(m_, 0, end_); }
    iterator end() const { return iterator(m_, end_, end_); }

   private:
    const HashMap* m_;
    Ptr<const PtrInterface> keep_;
    std::uint32_t end_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(*this, std::move(keep)); }

 private:
  friend struct CollectionProbe;

  // ---- slots ----

  Slot& at(std::uint32_t i) const { return pages_[i >> kPageBits][i & (kPage - 1)]; }
  bool paged() const { return pages_ != &first_; }

  // Where the next slot goes; the caller constructs it there, then adopts it.
  Slot* room() {
    if (used_ == cap_) grow();
    return &at(used_);
  }

  void grow() {
    if (!paged() && cap_ < kPage) {
      resizeFirstPage(cap_ ? std::min(cap_ * 2, kPage) : 1);
      return;
    }
    std::uint32_t pages = cap_ >> kPageBits;
    Slot** list = std::allocator<Slot*>().allocate(pages + 1);
    std::copy(pages_, pages_ + pages, list);
    if (paged()) std::allocator<Slot*>().deallocate(pages_, pages);
    list[pages] = std::allocator<Slot>().allocate(kPage);
    pages_ = list;
    cap_ = (pages + 1) * kPage;
  }

  // The first page before the map outgrows it: at most kPage / 2 slots move.
  void resizeFirstPage(std::uint32_t cap) {
    Slot* fresh = std::allocator<Slot>().allocate(cap);
    for (std::uint32_t i = 0; i < used_; ++i) {
      ::new (static_cast<void*>(fresh + i)) Slot(std::move(first_[i]));
      first_[i].~Slot();
    }
    if (first_) std::allocator<Slot>().deallocate(first_, cap_);
    first_ = fresh;
    cap_ = cap;
  }

  // Gives back the pages past the last one in use and one spare, so that a map going back and
  // forth across a page boundary does not allocate and free a page each time. A map that has
  // had more than one page keeps at least two until it is released.
  void dropSparePages() {
    if (!paged()) return;
    std::uint32_t pages = cap_ >> kPageBits;
    std::uint32_t keep = std::max<std::uint32_t>((used_ + kPage - 1) / kPage + 1, 2);
    if (pages <= keep) return;
    Slot** list = std::allocator<Slot*>().allocate(keep);
    std::copy(pages_, pages_ + keep, list);
    for (std::uint32_t p = keep; p < pages; ++p)
      std::allocator<Slot>().deallocate(pages_[p], kPage);
    std::allocator<Slot*>().deallocate(pages_, pages);
    pages_ = list;
    cap_ = keep * kPage;
  }

  // Counts the slot the caller just constructed at used_.
  void adopt(std::uint32_t hash) {
    std::uint32_t i = used_++;
    ++size_;
    if (!cells_) {
      if (size_ > kLinearMax) rebuildIndex(kFirstIndexCells);
      return;
    }
    insertCell(Cell{hash, i});
    if (next_) {
      migrate();
    } else if (std::size_t(size_) * 8 > cellCount() * 5) {
      next_ = std::allocator<Cell>().allocate(cellCount() * 2);
      cursor_ = kClearing;
      migrate();
    }
  }

  void removeSlot(std::uint32_t i) {
    std::uint32_t last = used_ - 1;
    if (i != last) {
      at(i) = std::move(at(last));
      repoint(at(i).key, last, i);
    }
    at(last).~Slot();
    --used_;
    dropSparePages();
  }

  void popDeadTail() {
    while (used_ && !at(used_ - 1).live) {
      at(used_ - 1).~Slot();
      --used_;
    }
  }

  // Removals during a walk left holes: fill each from the back, as a removal outside a walk
  // does, so the cost follows what was removed, not the size of the map (a review that drains a
  // large backlog a budget at a time must not pay for the whole backlog at each yield).
  void walkEnded() {
    if (--walkers_) return;
    if (!size_) {
      release();
      return;
    }
    for (std::uint32_t hole : holes_) {
      popDeadTail();
      if (hole >= used_) continue;
      std::uint32_t last = used_ - 1;
      at(hole) = std::move(at(last));
      repoint(at(hole).key, last, hole);
      at(last).~Slot();
      --used_;
    }
    popDeadTail();
    holes_.clear();
    dropSparePages();
  }

  // An emptied map gives its memory back: a drained backlog of a million keys keeps nothing. The
  // map is empty before the first value is destroyed, so a value's destructor may use it.
  void release() {
    Slot** pages = pages_;
    std::uint32_t used = std::exchange(used_, 0);
    std::uint32_t cap = std::exchange(cap_, 0);
    Slot* first = std::exchange(first_, nullptr);
    pages_ = &first_;
    if (pages == &first_) pages = &first;
    size_ = 0;
    dropMigration();
    if (cells_) std::allocator<Cell>().deallocate(std::exchange(cells_, nullptr), cellCount());
    cellMask_ = 0;
    std::vector<std::uint32_t>().swap(holes_);
    for (std::uint32_t i = 0; i < used; ++i) pages[i >> kPageBits][i & (kPage - 1)].~Slot();
    if (pages == &first) {
      if (first) std::allocator<Slot>().deallocate(first, cap);
      return;
    }
    for (std::uint32_t p = 0; p < cap >> kPageBits; ++p) {
      std::allocator<Slot>().deallocate(pages[p], kPage);
    }
    std::allocator<Slot*>().deallocate(pages, cap >> kPageBits);
  }

  // ---- index ----

  static std::uint32_t hashOf(const K& k) { return static_cast<std::uint32_t>(Hash()(k)); }
  static std::size_t home(std::uint32_t h, std::size_t mask) {
    return (std::size_t(h) * 0x9e3779b97f4a7c15ull >> 32) & mask;
  }
  std::size_t cellCount() const { return std::size_t(cellMask_) + 1; }
  std::size_t nextMask() const { return std::size_t(cellMask_) * 2 + 1; }

  static std::size_t place(Cell* t, std::size_t mask, Cell c) {
    std::size_t p = home(c.hash, mask);
    while (t[p].slot != kFree) p = (p + 1) & mask;
    t[p] = c;
    return p;
  }

  static std::size_t cellOf(const Cell* t, std::size_t mask, std::uint32_t h, std::uint32_t slot) {
    std::size_t p = home(h, mask);
    while (t[p].slot != slot) p = (p + 1) & mask;
    return p;
  }

  // Frees cell p and shifts the rest of its probe chain back; `moved(from, to)` hears of each
  // cell that changes place.
  template <class Moved>
  static void removeAt(Cell* t, std::size_t mask, std::size_t p, Moved&& moved) {
    for (std::size_t q = (p + 1) & mask; t[q].slot != kFree; q = (q + 1) & mask) {
      std::size_t h = home(t[q].hash, mask);
      bool stays = p <= q ? (h > p && h <= q) : (h > p || h <= q);
      if (stays) continue;
      t[p] = t[q];
      moved(q, p);
      p = q;
    }
    t[p].slot = kFree;
  }

  // Where k is: its slot (kFree when absent) and the slot itself, its hash and its cell (when the
  // map is indexed).
  struct Seek {
    std::uint32_t slot;
    std::uint32_t hash;
    std::size_t cell;
    Slot* at;
  };
  Seek seek(const K& k) const {
    if (!cells_) {
      for (std::uint32_t i = 0; i < used_; ++i) {
        Slot& s = at(i);
        if (s.live && s.key == k) return {i, 0, 0, &s};
      }
      return {kFree, 0, 0, nullptr};
    }
    std::uint32_t h = hashOf(k);
    for (std::size_t p = home(h, cellMask_);; p = (p + 1) & cellMask_) {
      const Cell& c = cells_[p];
      if (c.slot == kFree) return {kFree, h, p, nullptr};
      if (c.hash != h) continue;
      Slot& s = at(c.slot);
      if (s.key == k) return {c.slot, h, p, &s};
    }
  }

  // Old-table positions below this are in the new table too.
  std::size_t copied() const { return next_ && !(cursor_ & kClearing) ? cursor_ : 0; }

  void insertCell(Cell c) {
    std::size_t p = place(cells_, cellMask_, c);
    if (p < copied()) place(next_, nextMask(), c);
  }

  void unindex(std::size_t p) {
    std::size_t done = copied();
    if (p < done) dropCopy(cells_[p]);
    removeAt(cells_, cellMask_, p, [&](std::size_t from, std::size_t to) {
      if ((from < done) == (to < done)) return;
      if (from < done) {
        dropCopy(cells_[to]);  // wrapped round to the end of the table: copied again later
      } else {
        place(next_, nextMask(), cells_[to]);
      }
    });
  }

  void dropCopy(Cell c) {
    std::size_t mask = nextMask();
    removeAt(next_, mask, cellOf(next_, mask, c.hash, c.slot), [](std::size_t, std::size_t) {});
  }

  void repoint(const K& k, std::uint32_t from, std::uint32_t to) {
    if (!cells_) return;
    std::uint32_t h = hashOf(k);
    std::size_t p = cellOf(cells_, cellMask_, h, from);
    cells_[p].slot = to;
    if (p < copied()) next_[cellOf(next_, nextMask(), h, from)].slot = to;
  }

  // One step of the migration to the table twice the size.
  void migrate() {
    std::size_t size = cellCount();
    if (cursor_ & kClearing) {
      std::size_t from = std::size_t(cursor_ & ~kClearing) * kClearStep;
      std::size_t to = std::min<std::size_t>(from + kClearStep, size * 2);
      std::fill(next_ + from, next_ + to, Cell{0, kFree});
      cursor_ = to < size * 2 ? cursor_ + 1 : 0;
      return;
    }
    std::size_t to = std::min<std::size_t>(cursor_ + kCopyStep, size);
    for (std::size_t p = cursor_; p < to; ++p) {
      if (cells_[p].slot != kFree) place(next_, nextMask(), cells_[p]);
    }
    cursor_ = static_cast<std::uint32_t>(to);
    if (to < size) return;
    std::allocator<Cell>().deallocate(cells_, size);
    cells_ = std::exchange(next_, nullptr);
    cellMask_ = static_cast<std::uint32_t>(nextMask());
    cursor_ = 0;
  }

  void dropMigration() {
    if (next_) std::allocator<Cell>().deallocate(std::exchange(next_, nullptr), cellCount() * 2);
    cursor_ = 0;
  }

  // The whole index at once, over every live slot: for the ninth entry, or on request.
  void rebuildIndex(std::size_t cells) {
    dropMigration();
    if (cells_) std::allocator<Cell>().deallocate(cells_, cellCount());
    cellMask_ = static_cast<std::uint32_t>(cells - 1);
    cells_ = std::allocator<Cell>().allocate(cells);
    std::fill(cells_, cells_ + cells, Cell{0, kFree});
    for (std::uint32_t i = 0; i < used_; ++i) {
      if (at(i).live) place(cells_, cellMask_, Cell{hashOf(at(i).key), i});
    }
  }

  Slot* first_ = nullptr;  // the first page, the only one until the map outgrows it
  // Every page: first_ itself while there is one, else a list of them (whose first is first_).
  Slot** pages_ = &first_;
  Cell* cells_ = nullptr;             // the index; none while the map is small
  Cell* next_ = nullptr;              // the index being built to replace it
  std::vector<std::uint32_t> holes_;  // slots removed during the current walks
  std::uint32_t used_ = 0;            // slots constructed, live or not
  std::uint32_t cap_ = 0;             // slots allocated
  std::uint32_t size_ = 0;
  mutable std::uint32_t walkers_ = 0;
  std::uint32_t cellMask_ = 0;  // cells of the index, less one
  // The migration's progress: steps taken clearing next_ (with kClearing), then cells copied.
  std::uint32_t cursor_ = 0;
};

template <class K, class V, class Less = std::less<K>>
class OrderedMap {
  // A plain pair, so that shifting a leaf's items is a memmove when key and value allow it.
  struct Item {
    K first;
    V second;
  };
  // A tree of sorted runs rather than a node per entry: the review queues hold hundreds of
  // thousands of keys, and each enqueue and dequeue would otherwise allocate or free a node. A
  // leaf holds up to kMax items in key order; an inner node holds up to kMax children, each with
  // the greatest key under it. A full node splits in two as an insert passes through it; a node
  // that falls below kMin merges with a neighbour or takes some of its entries. Every change
  // thus costs O(kMax) per level, and nodes at least a quarter full keep the levels few: three
  // inner levels at most up to a million keys. Allocation follows nodes, not entries.
  static constexpr std::size_t kMax = 128;
  static constexpr std::size_t kMin = kMax / 4;
  static constexpr unsigned kMaxHeight = 16;  // levels a quarter full: 2^80 entries
  struct Node;
  using Kid = std::pair<K, std::unique_ptr<Node>>;
  struct Node {
    std::vector<Item> items;  // a leaf's
    std::vector<Kid> kids;    // an inner node's
  };
  // An item's place: its leaf (null past the end) and its index there.
  struct Place {
    const Node* leaf = nullptr;
    std::size_t i = 0;
  };

 public:
  using Key = K;
  using Value = V;

  OrderedMap() = default;
  OrderedMap(const OrderedMap&) = delete;
  OrderedMap& operator=(const OrderedMap&) = delete;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(const K& k) const { return find(k) != nullptr; }

  // The pointer stays valid until the next change of the map.
  const V* find(const K& k) const {
    const Node* n = root_.get();
    if (!n) return nullptr;
    for (unsigned h = height_; h; --h) {
      std::size_t i = lowerIn(n->kids, k);
      if (i == n->kids.size()) return nullptr;
      n = n->kids[i].second.get();
    }
    std::size_t i = lowerIn(n->items, k);
    if (i == n->items.size() || less(k, n->items[i].first)) return nullptr;
    return &n->items[i].second;
  }
  V* find(const K& k) { return const_cast<V*>(std::as_const(*this).find(k)); }

  Change put(const K& k, const V& v) {
    auto [cur, inserted] = findOrMake(k, [&]() -> const V& { return v; });
    if (inserted) return Change::inserted;
    if constexpr (std::equality_comparable<V>) {
      if (*cur == v) return Change::none;
    }
    *cur = v;
    return Change::changed;
  }

  // One way down: full nodes on the way split first, so that the leaf has room if k is absent
  // and nothing above it overflows.
  template <class Make>
  std::pair<V*, bool> findOrMake(const K& k, Make&& make) {
    ++version_;
    if (!root_) root_ = std::make_unique<Node>();
    if (count(*root_, height_) == kMax) {
      auto top = std::make_unique<Node>();
      top->kids.emplace_back(lastKey(*root_, height_), std::move(root_));
      root_ = std::move(top);
      ++height_;
    }
    // The greatest keys that become k if k goes in beyond every key.
    std::array<K*, kMaxHeight> greatest;
    unsigned beyond = 0;
    Node* n = root_.get();
    for (unsigned h = height_; h; --h) {
      std::size_t i = lowerIn(n->kids, k);
      bool past = i == n->kids.size();
      if (past) --i;
      if (count(*n->kids[i].second, h - 1) == kMax) {
        split(*n, i, h - 1);
        if (less(n->kids[i].first, k)) ++i;
      }
      if (past) greatest[beyond++] = &n->kids[i].first;
      n = n->kids[i].second.get();
    }
    std::size_t i = lowerIn(n->items, k);
    if (i < n->items.size() && !less(k, n->items[i].first)) return {&n->items[i].second, false};
    auto at = n->items.insert(n->items.begin() + static_cast<std::ptrdiff_t>(i), Item{k, make()});
    for (unsigned j = 0; j < beyond; ++j) *greatest[j] = k;
    ++size_;
    return {&at->second, true};
  }

  bool erase(const K& k) {
    if (!root_) return false;
    std::optional<V> doomed;  // dies after the map is whole again
    if (!eraseIn(*root_, height_, k, doomed)) return false;
    ++version_;
    --size_;
    while (height_ && root_->kids.size() == 1) {
      root_ = std::move(root_->kids.front().second);
      --height_;
    }
    if (!size_) root_.reset();
    return true;
  }

  void clear() {
    [[maybe_unused]] std::unique_ptr<Node> doomed = std::move(root_);
    ++version_;
    height_ = 0;
    size_ = 0;
  }

  // Resumes after the key it last handed out, so nothing the loop body does can invalidate it;
  // while the map has not changed it just steps along the leaf.
  class Walk {
   public:
    class iterator {
     public:
      iterator(const OrderedMap* m, Place at) : m_(m), at_(at), version_(m->version_) {
        if (at_.leaf) key_ = item().first;
      }
      Entry<K, V> operator*() const { return Entry<K, V>{item().first, item().second}; }
      iterator& operator++() {
        if (version_ == m_->version_ && at_.i + 1 < at_.leaf->items.size()) {
          ++at_.i;
        } else {
          at_ = m_->placeAfter(&*key_);
          version_ = m_->version_;
        }
        if (at_.leaf) key_ = item().first;
        return *this;
      }
      bool operator==(const iterator& o) const {
        return at_.leaf == o.at_.leaf && at_.i == o.at_.i;
      }

     private:
      const Item& item() const { return at_.leaf->items[at_.i]; }
      const OrderedMap* m_;
      Place at_;
      std::size_t version_;
      std::optional<K> key_;
    };

    Walk(const OrderedMap& m, Ptr<const PtrInterface> keep) : m_(&m), keep_(std::move(keep)) {}
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    iterator begin() const { return iterator(m_, m_->placeAfter(nullptr)); }
    iterator end() const { return iterator(m_, Place{}); }

   private:
    const OrderedMap* m_;
    Ptr<const PtrInterface> keep_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(*this, std::move(keep)); }

 private:
  friend struct CollectionProbe;

  static bool less(const K& a, const K& b) { return Less()(a, b); }
  // The first entry whose key is not below k, and the first above it.
  template <class E>
  static std::size_t lowerIn(const std::vector<E>& v, const K& k) {
    auto below = [&](const E& e) { return less(e.first, k); };
    return static_cast<std::size_t>(std::partition_point(v.begin(), v.end(), below) - v.begin());
  }
  template <class E>
  static std::size_t upperIn(const std::vector<E>& v, const K& k) {
    auto notAbove = [&](const E& e) { return !less(k, e.first); };
    return static_cast<std::size_t>(std::partition_point(v.begin(), v.end(), notAbove) - v.begin());
  }
  static std::size_t count(const Node& n, unsigned h) { return h ? n.kids.size() : n.items.size(); }
  static const K& lastKey(const Node& n, unsigned h) {
    return h ? n.kids.back().first : n.items.back().first;
  }

  // The first item after *k, or the first of all when k is null.
  Place placeAfter(const K* k) const {
    const Node* n = root_.get();
    if (!n) return {};
    for (unsigned h = height_; h; --h) {
      std::size_t i = k ? upperIn(n->kids, *k) : 0;
      if (i == n->kids.size()) return {};
      n = n->kids[i].second.get();
    }
    std::size_t i = k ? upperIn(n->items, *k) : 0;
    return i < n->items.size() ? Place{n, i} : Place{};
  }

  // Child i of `parent` (at height h) gives its upper half to a new sibling after it.
  static void split(Node& parent, std::size_t i, unsigned h) {
    Node& full = *parent.kids[i].second;
    auto half = std::make_unique<Node>();
    if (h) {
      moveUpperHalf(full.kids, half->kids);
    } else {
      moveUpperHalf(full.items, half->items);
    }
    auto pos = parent.kids.begin() + static_cast<std::ptrdiff_t>(i);
    K low = lastKey(full, h);
    pos = parent.kids.insert(pos + 1, Kid(std::move(pos->first), std::move(half)));
    (pos - 1)->first = std::move(low);
  }
  template <class E>
  static void moveUpperHalf(std::vector<E>& from, std::vector<E>& to) {
    auto mid = from.begin() + static_cast<std::ptrdiff_t>(from.size() / 2);
    to.assign(std::make_move_iterator(mid), std::make_move_iterator(from.end()));
    from.erase(mid, from.end());
  }

  bool eraseIn(Node& n, unsigned h, const K& k, std::optional<V>& doomed) {
    if (!h) {
      std::size_t i = lowerIn(n.items, k);
      if (i == n.items.size() || less(k, n.items[i].first)) return false;
      auto at = n.items.begin() + static_cast<std::ptrdiff_t>(i);
      doomed.emplace(std::move(at->second));
      n.items.erase(at);
      return true;
    }
    std::size_t i = lowerIn(n.kids, k);
    if (i == n.kids.size()) return false;
    Node& kid = *n.kids[i].second;
    if (!eraseIn(kid, h - 1, k, doomed)) return false;
    std::size_t left = count(kid, h - 1);
    if (!left) {
      n.kids.erase(n.kids.begin() + static_cast<std::ptrdiff_t>(i));
      return true;
    }
    n.kids[i].first = lastKey(kid, h - 1);
    if (left < kMin && n.kids.size() > 1) rebalance(n, i, h - 1);
    return true;
  }

  // Child i of `parent` (at height h) fell below kMin: it merges with a neighbour when the two
  // fit in 3/4 of a node (room to grow before they split again), or else the two share evenly.
  static void rebalance(Node& parent, std::size_t i, unsigned h) {
    std::size_t a = i + 1 < parent.kids.size() ? i : i - 1;
    Node& left = *parent.kids[a].second;
    Node& right = *parent.kids[a + 1].second;
    bool merged = h ? share(left.kids, right.kids) : share(left.items, right.items);
    if (!merged) {
      parent.kids[a].first = lastKey(left, h);
      return;
    }
    parent.kids[a].first = std::move(parent.kids[a + 1].first);
    parent.kids.erase(parent.kids.begin() + static_cast<std::ptrdiff_t>(a + 1));
  }
  template <class E>
  static bool share(std::vector<E>& left, std::vector<E>& right) {
    std::size_t total = left.size() + right.size();
    if (total <= kMax * 3 / 4) {
      left.insert(left.end(), std::make_move_iterator(right.begin()),
                  std::make_move_iterator(right.end()));
      right.clear();
      return true;
    }
    std::size_t want = total / 2;
    if (left.size() < want) {
      auto cut = right.begin() + static_cast<std::ptrdiff_t>(want - left.size());
      left.insert(left.end(), std::make_move_iterator(right.begin()), std::make_move_iterator(cut));
      right.erase(right.begin(), cut);
    } else {
      auto cut = left.begin() + static_cast<std::ptrdiff_t>(want);
      right.insert(right.begin(), std::make_move_iterator(cut),
                   std::make_move_iterator(left.end()));
      left.erase(cut, left.end());
    }
    return false;
  }

  std::unique_ptr<Node> root_;
  unsigned height_ = 0;  // levels of inner nodes above the leaves
  std::size_t size_ = 0;
  std::size_t version_ = 0;  // changes with every insert and erase: a walk's leaf is still its own
};

template <class MapT>
LookupResult<typename MapT::Value> lookup(const MapT& m, const typename MapT::Key& k) {
  const auto* v = m.find(k);
  if (!v) return LookupResult<typename MapT::Value>();
  return LookupResult<typename MapT::Value>(*v);
}

}  // namespace Kiv
