#pragma once
// Keyed collections that an entity or a state machine owns.
//
// Kiv::HashMap<K, V>     O(1) on average; walks in a deterministic order (insertion order,
//                        perturbed by removals: the last element takes a removed one's place,
//                        at once or, for removals during a walk, when the walk ends).
// Kiv::OrderedMap<K, V>  walks in key order (reviews that must go in key order use it).
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

#include <cstdint>
#include <functional>
#include <map>
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

template <class K, class V, class Hash = DefaultHash<K>>
class HashMap {
  struct Slot {
    K key;
    V value;
    bool live;
  };
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

 public:
  using Key = K;
  using Value = V;

  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(const K& k) const { return locate(k) != kFree; }

  const V* find(const K& k) const {
    std::uint32_t i = locate(k);
    return i == kFree ? nullptr : &slots_[i].value;
  }
  V* find(const K& k) { return const_cast<V*>(std::as_const(*this).find(k)); }

  Change put(const K& k, const V& v) {
    auto [i, inserted] = claim(k);
    if (inserted) {
      slots_.push_back(Slot{k, v, true});
      return Change::inserted;
    }
    V& cur = slots_[i].value;
    if constexpr (std::equality_comparable<V>) {
      if (cur == v) return Change::none;
    }
    cur = v;
    return Change::changed;
  }

  template <class Make>
  std::pair<V*, bool> findOrMake(const K& k, Make&& make) {
    auto [i, inserted] = claim(k);
    if (inserted) slots_.push_back(Slot{k, make(), true});
    return {&slots_[i].value, inserted};
  }

  bool erase(const K& k) {
    std::uint32_t i = locate(k);
    if (i == kFree) return false;
    unindex(k, i);
    --size_;
    [[maybe_unused]] V doomed = std::move(slots_[i].value);
    if (walkers_) {
      slots_[i].live = false;
      slots_[i].value = V();
      holes_.push_back(i);
    } else {
      removeSlot(i);
      if (!size_) release();
    }
    return true;
  }

  void clear() {
    if (walkers_) {
      [[maybe_unused]] std::vector<V> doomed;
      doomed.reserve(size_);
      for (std::uint32_t i = 0; i < slots_.size(); ++i) {
        Slot& s = slots_[i];
        if (!s.live) continue;
        doomed.push_back(std::move(s.value));
        s.value = V();
        s.live = false;
        holes_.push_back(i);
      }
      cells_.clear();
      size_ = 0;
      return;
    }
    [[maybe_unused]] std::vector<Slot> doomed;
    doomed.swap(slots_);
    cells_.clear();
    size_ = 0;
  }

  void reserve(std::size_t n) { slots_.reserve(n); }

  class Walk {
   public:
    class iterator {
     public:
      iterator(const HashMap* m, std::size_t i, std::size_t end) : m_(m), i_(i), end_(end) {
        skipDead();
      }
      Entry<K, V> operator*() const {
        const Slot& s = m_->slots_[i_];
        return Entry<K, V>{s.key, s.value};
      }
      iterator& operator++() {
        ++i_;
        skipDead();
        return *this;
      }
      bool operator==(const iterator& o) const { return i_ == o.i_; }

     private:
      void skipDead() {
        while (i_ < end_ && !m_->slots_[i_].live) ++i_;
      }
      const HashMap* m_;
      std::size_t i_;
      std::size_t end_;
    };

    Walk(const HashMap& m, Ptr<const PtrInterface> keep)
        : m_(&m), keep_(std::move(keep)), end_(m.slots_.size()) {
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
    std::size_t end_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(*this, std::move(keep)); }

 private:
  static std::uint32_t hashOf(const K& k) { return static_cast<std::uint32_t>(Hash()(k)); }
  std::size_t home(std::uint32_t h) const {
    return (std::size_t(h) * 0x9e3779b97f4a7c15ull >> 32) & (cells_.size() - 1);
  }
  bool indexed() const { return !cells_.empty(); }

  std::uint32_t locate(const K& k) const {
    if (!indexed()) {
      for (std::uint32_t i = 0; i < slots_.size(); ++i) {
        if (slots_[i].live && slots_[i].key == k) return i;
      }
      return kFree;
    }
    std::uint32_t h = hashOf(k);
    std::size_t mask = cells_.size() - 1;
    for (std::size_t p = home(h);; p = (p + 1) & mask) {
      const Cell& c = cells_[p];
      if (c.slot == kFree) return kFree;
      if (c.hash == h && slots_[c.slot].key == k) return c.slot;
    }
  }

  // The slot of k, or a new one (slots_.size(), to be pushed by the caller) indexed for it.
  std::pair<std::uint32_t, bool> claim(const K& k) {
    std::uint32_t i = locate(k);
    if (i != kFree) return {i, false};
    i = static_cast<std::uint32_t>(slots_.size());
    ++size_;
    if (!indexed() && size_ > kLinearMax) rebuild(16);
    if (indexed()) {
      if (size_ * 4 > cells_.size() * 3) rebuild(cells_.size() * 2);
      place(Cell{hashOf(k), i});
    }
    return {i, true};
  }

  void place(Cell c) {
    std::size_t mask = cells_.size() - 1;
    std::size_t p = home(c.hash);
    while (cells_[p].slot != kFree) p = (p + 1) & mask;
    cells_[p] = c;
  }

  void rebuild(std::size_t capacity) {
    std::vector<Cell> old;
    old.swap(cells_);
    cells_.assign(capacity, Cell{0, kFree});
    if (!old.empty()) {
      for (const Cell& c : old) {
        if (c.slot != kFree) place(c);
      }
      return;
    }
    for (std::uint32_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].live) place(Cell{hashOf(slots_[i].key), i});
    }
  }

  std::size_t cellOf(const K& k, std::uint32_t slot) const {
    std::uint32_t h = hashOf(k);
    std::size_t mask = cells_.size() - 1;
    std::size_t p = home(h);
    while (cells_[p].slot != slot) p = (p + 1) & mask;
    return p;
  }

  void unindex(const K& k, std::uint32_t slot) {
    if (!indexed()) return;
    std::size_t mask = cells_.size() - 1;
    std::size_t p = cellOf(k, slot);
    for (std::size_t q = (p + 1) & mask; cells_[q].slot != kFree; q = (q + 1) & mask) {
      std::size_t h = home(cells_[q].hash);
      bool stays = p <= q ? (h > p && h <= q) : (h > p || h <= q);
      if (stays) continue;
      cells_[p] = cells_[q];
      p = q;
    }
    cells_[p].slot = kFree;
  }

  void repoint(const K& k, std::uint32_t from, std::uint32_t to) {
    if (indexed()) cells_[cellOf(k, from)].slot = to;
  }

  void removeSlot(std::uint32_t i) {
    std::uint32_t last = static_cast<std::uint32_t>(slots_.size() - 1);
    if (i != last) {
      slots_[i] = std::move(slots_[last]);
      repoint(slots_[i].key, last, i);
    }
    slots_.pop_back();
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
      while (!slots_.empty() && !slots_.back().live) slots_.pop_back();
      if (hole >= slots_.size()) continue;
      std::uint32_t last = static_cast<std::uint32_t>(slots_.size() - 1);
      slots_[hole] = std::move(slots_[last]);
      repoint(slots_[hole].key, last, hole);
      slots_.pop_back();
    }
    while (!slots_.empty() && !slots_.back().live) slots_.pop_back();
    holes_.clear();
  }

  // An emptied map gives its memory back: a drained backlog of a million keys keeps nothing.
  void release() {
    std::vector<Slot>().swap(slots_);
    std::vector<Cell>().swap(cells_);
    std::vector<std::uint32_t>().swap(holes_);
  }

  std::vector<Slot> slots_;
  std::vector<Cell> cells_;
  std::uint32_t size_ = 0;
  mutable std::uint32_t walkers_ = 0;
  // Slots removed during the current walks.
  std::vector<std::uint32_t> holes_;
};

template <class K, class V, class Less = std::less<K>>
class OrderedMap {
  using Map = std::map<K, V, Less>;

 public:
  using Key = K;
  using Value = V;

  OrderedMap() = default;
  OrderedMap(const OrderedMap&) = delete;
  OrderedMap& operator=(const OrderedMap&) = delete;

  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  bool contains(const K& k) const { return map_.count(k) != 0; }

  const V* find(const K& k) const {
    auto it = map_.find(k);
    return it == map_.end() ? nullptr : &it->second;
  }
  V* find(const K& k) { return const_cast<V*>(std::as_const(*this).find(k)); }

  Change put(const K& k, const V& v) {
    auto [it, inserted] = map_.try_emplace(k, v);
    if (inserted) return Change::inserted;
    if constexpr (std::equality_comparable<V>) {
      if (it->second == v) return Change::none;
    }
    it->second = v;
    return Change::changed;
  }

  template <class Make>
  std::pair<V*, bool> findOrMake(const K& k, Make&& make) {
    auto it = map_.find(k);
    if (it != map_.end()) return {&it->second, false};
    return {&map_.emplace(k, make()).first->second, true};
  }

  bool erase(const K& k) {
    auto it = map_.find(k);
    if (it == map_.end()) return false;
    [[maybe_unused]] V doomed = std::move(it->second);
    map_.erase(it);
    return true;
  }

  void clear() {
    [[maybe_unused]] Map doomed;
    doomed.swap(map_);
  }

  // Resumes after the key it last handed out, so nothing the loop body does can invalidate it.
  class Walk {
   public:
    class iterator {
     public:
      iterator(const Map* m, typename Map::const_iterator pos) : m_(m), pos_(pos) {
        if (pos_ != m_->end()) key_ = pos_->first;
      }
      Entry<K, V> operator*() const { return Entry<K, V>{pos_->first, pos_->second}; }
      iterator& operator++() {
        pos_ = m_->upper_bound(*key_);
        if (pos_ != m_->end()) key_ = pos_->first;
        return *this;
      }
      bool operator==(const iterator& o) const { return pos_ == o.pos_; }

     private:
      const Map* m_;
      typename Map::const_iterator pos_;
      std::optional<K> key_;
    };

    Walk(const Map& m, Ptr<const PtrInterface> keep) : m_(&m), keep_(std::move(keep)) {}
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    iterator begin() const { return iterator(m_, m_->begin()); }
    iterator end() const { return iterator(m_, m_->end()); }

   private:
    const Map* m_;
    Ptr<const PtrInterface> keep_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(map_, std::move(keep)); }

 private:
  Map map_;
};

template <class MapT>
LookupResult<typename MapT::Value> lookup(const MapT& m, const typename MapT::Key& k) {
  const auto* v = m.find(k);
  if (!v) return LookupResult<typename MapT::Value>();
  return LookupResult<typename MapT::Value>(*v);
}

}  // namespace Kiv
