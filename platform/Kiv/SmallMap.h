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

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <memory>
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

  // Same entries in the same order.
  bool operator==(const SmallMap& o) const {
    if (live_ != o.live_) return false;
    std::uint32_t j = 0;
    for (std::uint32_t i = 0; i < used_; ++i) {
      if (at(i).hole) continue;
      while (o.at(j).hole) ++j;
      if (!(at(i).key == o.at(j).key) || !(at(i).value == o.at(j).value)) return false;
      ++j;
    }
    return true;
  }

  std::size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }
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
    return {&at(used_ - 1).value, true};
  }

  bool erase(const K& k) {
    std::uint32_t i = locate(k);
    if (i == kAbsent) return false;
    --live_;
    if (walkers_) {
      // The walk goes by position: the hole stays until the walk ends.
      at(i).value = V();
      at(i).hole = ++holes_;
      return true;
    }
    fill(i);
    if (!used_) reset();
    return true;
  }

  void clear() {
    if (walkers_) {
      for (std::uint32_t i = 0; i < used_; ++i) {
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

    Walk(const SmallMap& m, Ptr<const PtrInterface> keep)
        : m_(&m), keep_(std::move(keep)), end_(m.used_) {
      ++m.walkers_;
    }
    ~Walk() { const_cast<SmallMap*>(m_)->walkEnded(); }
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

  Slot* slots() {
    if constexpr (N > 0) {
      if (!heap_) return inline_.data();
    }
    return heap_.get();
  }
  const Slot* slots() const { return const_cast<SmallMap*>(this)->slots(); }
  std::uint32_t capacity() const { return heap_ ? 1u << capLog_ : N; }
  Slot& at(std::uint32_t i) { return slots()[i]; }
  const Slot& at(std::uint32_t i) const { return slots()[i]; }

  std::uint32_t locate(const K& k) const {
    const Slot* s = slots();
    for (std::uint32_t i = 0; i < used_; ++i) {
      if (!s[i].hole && s[i].key == k) return i;
    }
    return kAbsent;
  }

  void append(Slot&& s) {
    KIV_ASSERT_TEXT(used_ < kMaxEntries, "small map full");
    if (used_ == capacity()) grow(capacity() ? capacity() * 2 : 2);
    at(used_++) = std::move(s);
    ++live_;
  }

  // The last entry takes the place of the one at i.
  void fill(std::uint32_t i) {
    std::uint32_t last = used_ - 1;
    if (i != last) at(i) = std::move(at(last));
    at(last) = Slot{};
    --used_;
  }

  // The holes of the walks are filled from the back in the order they were made, as a
  // Kiv::HashMap fills them, so both walk in the same order afterwards.
  void walkEnded() {
    if (--walkers_) return;
    for (std::uint32_t seq = 1; seq <= holes_; ++seq) {
      std::uint32_t hole = 0;
      while (hole < used_ && at(hole).hole != seq) ++hole;
      while (used_ && at(used_ - 1).hole) at(--used_) = Slot{};
      if (hole >= used_) continue;
      fill(hole);
    }
    holes_ = 0;
    if (!used_) reset();
  }

  // Capacities on the heap are powers of two, so their logarithm is all the map keeps.
  void grow(std::uint32_t cap) {
    std::unique_ptr<Slot[]> bigger(new Slot[cap]);
    std::move(slots(), slots() + used_, bigger.get());
    clearInline();
    heap_ = std::move(bigger);
    capLog_ = static_cast<std::uint8_t>(std::countr_zero(cap));
  }

  void clearInline() {
    if constexpr (N > 0) {
      for (std::uint32_t i = 0; i < std::min<std::uint32_t>(used_, N); ++i) inline_[i] = Slot{};
    }
  }

  void reset() {
    if (!heap_) clearInline();
    heap_.reset();
    capLog_ = 0;
    used_ = live_ = holes_ = 0;
  }

  // A copy holds the live entries, in order.
  void assign(const SmallMap& o) {
    if (o.live_ > N) {
      std::uint32_t cap = std::bit_ceil(std::uint32_t(o.live_));
      heap_.reset(new Slot[cap]);
      capLog_ = static_cast<std::uint8_t>(std::countr_zero(cap));
    }
    for (std::uint32_t i = 0; i < o.used_; ++i) {
      if (!o.at(i).hole) at(used_++) = o.at(i);
    }
    live_ = used_;
  }

  void take(SmallMap&& o) {
    if (o.walkers_) {
      assign(o);
      o.clear();
      return;
    }
    if (o.heap_) {
      heap_ = std::move(o.heap_);
      capLog_ = o.capLog_;
    } else if constexpr (N > 0) {
      std::move(o.inline_.begin(), o.inline_.begin() + o.used_, inline_.begin());
    }
    used_ = o.used_;
    live_ = o.live_;
    o.heap_.reset();
    o.reset();
  }

  // Kept small: a machine holds hundreds of thousands of these.
  static constexpr std::uint32_t kMaxEntries = 0xffff;
  struct NoSlots {};
  std::unique_ptr<Slot[]> heap_;
  std::uint16_t used_ = 0;  // slots in use, holes included
  std::uint16_t live_ = 0;
  std::uint16_t holes_ = 0;
  std::uint8_t capLog_ = 0;  // of the heap block's capacity
  mutable std::uint8_t walkers_ = 0;
  [[no_unique_address]] std::conditional_t<(N > 0), std::array<Slot, N>, NoSlots> inline_;
};

}  // namespace Kiv
