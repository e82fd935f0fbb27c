#pragma once
// Keyed collections that an entity or a state machine owns.
//
// Kiv::HashMap<K, V>     O(1) on average; walks in a deterministic order (insertion order,
//                        perturbed only by removals outside a walk).
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

 public:
  using Key = K;
  using Value = V;

  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;

  std::size_t size() const { return index_.size(); }
  bool empty() const { return index_.empty(); }
  bool contains(const K& k) const { return index_.count(k) != 0; }

  const V* find(const K& k) const {
    auto it = index_.find(k);
    return it == index_.end() ? nullptr : &slots_[it->second].value;
  }
  V* find(const K& k) { return const_cast<V*>(std::as_const(*this).find(k)); }

  // Inserts, or overwrites a present key; an overwrite with an equal value changes nothing.
  Change put(const K& k, const V& v) {
    auto [it, inserted] = index_.try_emplace(k, static_cast<std::uint32_t>(slots_.size()));
    if (inserted) {
      slots_.push_back(Slot{k, v, true});
      return Change::inserted;
    }
    V& cur = slots_[it->second].value;
    if constexpr (std::equality_comparable<V>) {
      if (cur == v) return Change::none;
    }
    cur = v;
    return Change::changed;
  }

  // Returns the present value, or the one `make()` builds; `second` tells whether it was built.
  template <class Make>
  std::pair<V*, bool> findOrMake(const K& k, Make&& make) {
    auto [it, inserted] = index_.try_emplace(k, static_cast<std::uint32_t>(slots_.size()));
    if (inserted) slots_.push_back(Slot{k, make(), true});
    return {&slots_[it->second].value, inserted};
  }

  bool erase(const K& k) {
    auto it = index_.find(k);
    if (it == index_.end()) return false;
    std::uint32_t i = it->second;
    index_.erase(it);
    // The value dies only once the map is consistent again: its destructor may run owner code.
    [[maybe_unused]] V doomed = std::move(slots_[i].value);
    if (walkers_) {
      slots_[i].live = false;
      slots_[i].value = V();
      ++dead_;
    } else {
      removeSlot(i);
    }
    return true;
  }

  void clear() {
    if (walkers_) {
      [[maybe_unused]] std::vector<V> doomed;
      doomed.reserve(index_.size());
      for (Slot& s : slots_) {
        if (!s.live) continue;
        doomed.push_back(std::move(s.value));
        s.value = V();
        s.live = false;
        ++dead_;
      }
      index_.clear();
      return;
    }
    [[maybe_unused]] std::vector<Slot> doomed;
    doomed.swap(slots_);
    index_.clear();
  }

  void reserve(std::size_t n) {
    slots_.reserve(n);
    index_.reserve(n);
  }

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
  void removeSlot(std::uint32_t i) {
    std::uint32_t last = static_cast<std::uint32_t>(slots_.size() - 1);
    if (i != last) {
      slots_[i] = std::move(slots_[last]);
      index_[slots_[i].key] = i;
    }
    slots_.pop_back();
  }

  void walkEnded() {
    if (--walkers_ || !dead_) return;
    // Compact: keep live slots in their order and re-point the index at them.
    std::size_t out = 0;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (!slots_[i].live) continue;
      if (out != i) {
        slots_[out] = std::move(slots_[i]);
        index_[slots_[out].key] = static_cast<std::uint32_t>(out);
      }
      ++out;
    }
    slots_.erase(slots_.begin() + static_cast<std::ptrdiff_t>(out), slots_.end());
    dead_ = 0;
  }

  std::vector<Slot> slots_;
  std::unordered_map<K, std::uint32_t, Hash> index_;
  mutable std::uint32_t walkers_ = 0;
  std::uint32_t dead_ = 0;
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
