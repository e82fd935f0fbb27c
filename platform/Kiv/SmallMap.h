#pragma once
// Kiv::SmallMap<K, V, N>: a map of a few entries held inside its owner, for the per-key sets that
// a machine keeps by the hundred thousand (the ports of one LAG and VLAN). The first N entries
// live in the object itself; more move to one heap block. Lookups scan: it is meant for maps of a
// few dozen entries at most.
//
// It walks in the same order as a Kiv::HashMap would with the same history (insertion order; a
// removal moves the last entry into the removed one's place, at once or, for removals during a
// walk, when the walk ends), and its walk tolerates any change in the same way. It is a value
// (copyable, comparable; a copy holds the live entries in order). The map itself must not move
// while it is walked: an owner that may move (a row of a larger map) hands out copies to walk.
//
// Its size is what a machine pays per pair, so it keeps no more than it must: eight bytes of
// counts, then the inline entries, whose room holds the heap block's address once they have moved
// there (N = 2 ports of 12 bytes: 32 bytes in all). A map with no inline entries (N = 0, the
// ports the chip refused, nearly always none) is one pointer, null while the map is empty; its
// counts live at the head of its heap block.

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Collection.h"
#include "Kiv/Ptr.h"

namespace Kiv {

template <class K, class V, unsigned N>
class SmallMap {
  struct Slot {
    K key;
    V value;
    // 0 while the entry lives; once it is removed during a walk, the order of that removal.
    std::uint16_t hole = 0;
  };
  // Entries move as bytes, between the inline room and the heap block.
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>,
                "a small map holds plain values");
  static_assert(std::is_default_constructible_v<V>);

  struct Counts {
    std::uint16_t used = 0;  // slots in use, holes included
    std::uint16_t live = 0;
    std::uint16_t holes = 0;
    std::uint8_t capLog = 0;  // of the heap block's capacity; 0 while the entries are inline
    std::uint8_t walkers = 0;
  };
  // Where a heap block's slots begin, after its counts when the map keeps them there (N = 0).
  static constexpr std::size_t kSlotsAt = N > 0 ? 0
                                                : (sizeof(Counts) + alignof(Slot) - 1) /
                                                      alignof(Slot) * alignof(Slot);
  static constexpr std::size_t kBlockAlign = std::max(alignof(Slot), alignof(Counts));

 public:
  using Key = K;
  using Value = V;

  SmallMap() = default;
  SmallMap(const SmallMap& o) { assign(o); }
  SmallMap& operator=(const SmallMap& o) {
    if (this != &o) {
      reset();
      assign(o);
    }
    return *this;
  }
  SmallMap(SmallMap&& o) noexcept { take(std::move(o)); }
  SmallMap& operator=(SmallMap&& o) noexcept {
    if (this != &o) {
      reset();
      take(std::move(o));
    }
    return *this;
  }
  ~SmallMap() { freeBlock(); }

  // Same entries in the same order.
  bool operator==(const SmallMap& o) const {
    if (counts().live != o.counts().live) return false;
    std::uint32_t j = 0;
    for (std::uint32_t i = 0; i < counts().used; ++i) {
      if (at(i).hole) continue;
      while (o.at(j).hole) ++j;
      if (!(at(i).key == o.at(j).key) || !(at(i).value == o.at(j).value)) return false;
      ++j;
    }
    return true;
  }

  std::size_t size() const { return counts().live; }
  bool empty() const { return counts().live == 0; }
  bool contains(const K& k) const { return locate(k) != kAbsent; }

  const V* find(const K& k) const {
    std::uint32_t i = locate(k);
    return i == kAbsent ? nullptr : &at(i).value;
  }
  V* find(const K& k) { return const_cast<V*>(std::as_const(*this).find(k)); }

  Change put(const K& k, const V& v) {
    std::uint32_t i = locate(k);
    if (i == kAbsent) {
      append(Slot{k, v});
      return Change::inserted;
    }
    V& cur = at(i).value;
    if constexpr (std::equality_comparable<V>) {
      if (cur == v) return Change::none;
    }
    cur = v;
    return Change::changed;
  }

  template <class Make>
  std::pair<V*, bool> findOrMake(const K& k, Make&& make) {
    std::uint32_t i = locate(k);
    if (i != kAbsent) return {&at(i).value, false};
    append(Slot{k, make()});
    return {&at(counts().used - 1).value, true};
  }

  bool erase(const K& k) {
    std::uint32_t i = locate(k);
    if (i == kAbsent) return false;
    Counts& c = mutableCounts();
    --c.live;
    if (c.walkers) {
      // The walk goes by position: the hole stays until the walk ends.
      at(i).value = V();
      at(i).hole = ++c.holes;
      return true;
    }
    fill(i);
    if (!c.used) reset();
    return true;
  }

  void clear() {
    if (counts().walkers) {
      for (std::uint32_t i = 0; i < counts().used; ++i) {
        if (!at(i).hole) erase(at(i).key);
      }
      return;
    }
    reset();
  }

  void reserve(std::size_t) {}

  class Walk {
   public:
    class iterator {
     public:
      iterator(const SmallMap* m, std::uint32_t i, std::uint32_t end) : m_(m), i_(i), end_(end) {
        skipHoles();
      }
      Entry<K, V> operator*() const { return Entry<K, V>{m_->at(i_).key, m_->at(i_).value}; }
      iterator& operator++() {
        ++i_;
        skipHoles();
        return *this;
      }
      bool operator==(const iterator& o) const { return i_ == o.i_; }

     private:
      void skipHoles() {
        while (i_ < end_ && m_->at(i_).hole) ++i_;
      }
      const SmallMap* m_;
      std::uint32_t i_;
      std::uint32_t end_;
    };

    // An empty map is walked without being counted as walked: the walk visits nothing, and a map
    // with no inline room has no counts to keep the walker in until something is put in it.
    Walk(const SmallMap& m, Ptr<const PtrInterface> keep)
        : m_(&m), keep_(std::move(keep)), end_(m.counts().used) {
      if (end_) ++const_cast<SmallMap&>(m).mutableCounts().walkers;
    }
    ~Walk() {
      if (end_) const_cast<SmallMap*>(m_)->walkEnded();
    }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    iterator begin() const { return iterator(m_, 0, end_); }
    iterator end() const { return iterator(m_, end_, end_); }

   private:
    const SmallMap* m_;
    Ptr<const PtrInterface> keep_;
    std::uint32_t end_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(*this, std::move(keep)); }

 private:
  static constexpr std::uint32_t kAbsent = 0xffffffffu;

  const Counts& counts() const {
    if constexpr (N > 0) {
      return counts_;
    } else {
      static constexpr Counts kNone{};
      return block_ ? *reinterpret_cast<const Counts*>(block_) : kNone;
    }
  }
  // Only while the map holds a block or has inline room.
  Counts& mutableCounts() {
    if constexpr (N > 0) {
      return counts_;
    } else {
      return *std::launder(reinterpret_cast<Counts*>(block_));
    }
  }
  bool onHeap() const { return counts().capLog != 0; }

  Slot* slots() {
    if constexpr (N > 0) {
      return onHeap() ? room_.heap : room_.inline_;
    } else {
      return block_ ? std::launder(reinterpret_cast<Slot*>(block_ + kSlotsAt)) : nullptr;
    }
  }
  const Slot* slots() const { return const_cast<SmallMap*>(this)->slots(); }
  std::uint32_t capacity() const { return onHeap() ? 1u << counts().capLog : N; }
  Slot& at(std::uint32_t i) { return slots()[i]; }
  const Slot& at(std::uint32_t i) const { return slots()[i]; }

  std::uint32_t locate(const K& k) const {
    const Slot* s = slots();
    for (std::uint32_t i = 0, used = counts().used; i < used; ++i) {
      if (!s[i].hole && s[i].key == k) return i;
    }
    return kAbsent;
  }

  void append(Slot&& s) {
    KIV_ASSERT_TEXT(counts().used < kMaxEntries, "small map full");
    if (counts().used == capacity()) grow(capacity() ? capacity() * 2 : 2);
    Counts& c = mutableCounts();
    at(c.used++) = s;
    ++c.live;
  }

  // The last entry takes the place of the one at i.
  void fill(std::uint32_t i) {
    Counts& c = mutableCounts();
    std::uint32_t last = c.used - 1;
    if (i != last) at(i) = at(last);
    at(last) = Slot{};
    --c.used;
  }

  // The holes of the walks are filled from the back in the order they were made, as a
  // Kiv::HashMap fills them, so both walk in the same order afterwards.
  void walkEnded() {
    Counts& c = mutableCounts();
    if (--c.walkers) return;
    for (std::uint32_t seq = 1; seq <= c.holes; ++seq) {
      std::uint32_t hole = 0;
      while (hole < c.used && at(hole).hole != seq) ++hole;
      while (c.used && at(c.used - 1).hole) at(--c.used) = Slot{};
      if (hole >= c.used) continue;
      fill(hole);
    }
    c.holes = 0;
    if (!c.used) reset();
  }

  static std::byte* allocate(std::uint32_t cap) {
    auto* block = static_cast<std::byte*>(
        ::operator new(kSlotsAt + cap * sizeof(Slot), std::align_val_t(kBlockAlign)));
    for (std::uint32_t i = 0; i < cap; ++i) ::new (block + kSlotsAt + i * sizeof(Slot)) Slot{};
    return block;
  }
  static void deallocate(void* block) { ::operator delete(block, std::align_val_t(kBlockAlign)); }
  void freeBlock() {
    if constexpr (N > 0) {
      if (onHeap()) deallocate(room_.heap);
    } else {
      if (block_) deallocate(block_);
    }
  }

  // Capacities on the heap are powers of two, so their logarithm is all the map keeps.
  void grow(std::uint32_t cap) {
    std::byte* block = allocate(cap);
    Counts c = counts();
    if (c.used) std::memcpy(block + kSlotsAt, static_cast<void*>(slots()), c.used * sizeof(Slot));
    freeBlock();
    c.capLog = static_cast<std::uint8_t>(std::countr_zero(cap));
    if constexpr (N > 0) {
      counts_ = c;
      room_.heap = std::launder(reinterpret_cast<Slot*>(block));
    } else {
      block_ = block;
      ::new (block_) Counts(c);
    }
  }

  void reset() {
    freeBlock();
    if constexpr (N > 0) {
      emptyInline();
    } else {
      block_ = nullptr;
    }
  }

  // No entries, inline ones, and the room's address of a heap block forgotten.
  void emptyInline() {
    counts_ = Counts{};
    for (Slot& slot : room_.inline_) ::new (&slot) Slot{};
  }

  // A copy holds the live entries, in order.
  void assign(const SmallMap& o) {
    std::uint32_t live = o.counts().live;
    if (live > N) grow(std::max(2u, std::bit_ceil(live)));
    std::uint32_t used = 0;
    for (std::uint32_t i = 0; i < o.counts().used; ++i) {
      if (!o.at(i).hole) at(used++) = o.at(i);
    }
    if (!used) return;
    Counts& c = mutableCounts();
    c.used = c.live = static_cast<std::uint16_t>(used);
  }

  void take(SmallMap&& o) {
    if (o.counts().walkers) {
      assign(o);
      o.clear();
      return;
    }
    if constexpr (N > 0) {
      counts_ = o.counts_;
      std::memcpy(static_cast<void*>(&room_), static_cast<const void*>(&o.room_), sizeof room_);
      o.emptyInline();
    } else {
      block_ = std::exchange(o.block_, nullptr);
    }
  }

  // Kept small: a machine holds hundreds of thousands of these.
  static constexpr std::uint32_t kMaxEntries = 0xffff;
  union Room {
    Room() : inline_() {}
    Slot inline_[N > 0 ? N : 1];
    Slot* heap;
  };
  struct NoCounts {};
  struct NoRoom {};
  struct NoBlock {};
  [[no_unique_address]] std::conditional_t<(N > 0), Counts, NoCounts> counts_;
  [[no_unique_address]] std::conditional_t<(N > 0), Room, NoRoom> room_;
  [[no_unique_address]] std::conditional_t<(N > 0), NoBlock, std::byte*> block_{};
};

}  // namespace Kiv
