#pragma once
// Kiv::OrderedBitMap<K, bool>: a map in key order from a key that splits into an ordered first
// part and a dense second part (an interface and a VLAN), held as one Kiv::BitMap of second parts
// per first part. A review queue of (interface, VLAN) pairs that must be drained in key order
// holds half a million pairs at a cold start: here each is a bit, filled and drained with no
// allocation per pair and no shifting of sorted runs, where a Kiv::OrderedMap moves an item per
// key, leaf by leaf, as pairs arrive VLAN by VLAN and leave interface by interface.
//
// It walks in key order, and its walk tolerates any change: it keeps only the last key it
// handed out and looks for the next present key after it, so a removed key is skipped and a key
// added after the walk's position is visited, as in the other ordered collections.
//
// A key type opts in by specializing Kiv::SplitKey (Kiv/Types.h); its second part must be a
// Kiv::DenseKey, and its order must be that of its first part, then its second.

#include <cstddef>
#include <type_traits>
#include <utility>

#include "Kiv/BitMap.h"
#include "Kiv/Collection.h"
#include "Kiv/Types.h"

namespace Kiv {

template <class K, class V>
class OrderedBitMap {
  static_assert(std::is_same_v<V, bool>, "an OrderedBitMap holds bool values");
  using Split = SplitKey<K>;
  using Major = typename Split::Major;
  using Minor = typename Split::Minor;
  using Bits = BitMap<Minor, bool>;
  // Each major's bits are owned here and live on the heap, so that a walk's entry may point at
  // them.
  using Majors = OrderedMap<Major, Bits*>;

 public:
  using Key = K;
  using Value = V;

  OrderedBitMap() = default;
  OrderedBitMap(const OrderedBitMap&) = delete;
  OrderedBitMap& operator=(const OrderedBitMap&) = delete;
  ~OrderedBitMap() { clear(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(const K& k) const { return find(k) != nullptr; }

  // Points at a constant: a bit has no address. Valid for ever.
  const bool* find(const K& k) const {
    const Bits* b = bits(Split::major(k));
    return b ? b->find(Split::minor(k)) : nullptr;
  }

  Change put(const K& k, bool v) {
    auto [b, made] = majors_.findOrMake(Split::major(k), [] { return new Bits; });
    Change c = (*b)->put(Split::minor(k), v);
    if (c == Change::inserted) ++size_;
    return c;
  }

  bool erase(const K& k) {
    const Major major = Split::major(k);
    Bits* b = bits(major);
    if (!b || !b->erase(Split::minor(k))) return false;
    --size_;
    if (b->empty()) {
      majors_.erase(major);
      delete b;
    }
    return true;
  }

  void clear() {
    for (auto e : majors_.walk()) delete e.value;
    majors_.clear();
    size_ = 0;
  }

  void reserve(std::size_t) {}

  class Walk {
    using MajorWalk = typename Majors::Walk;
    using MajorIt = decltype(std::declval<const MajorWalk&>().begin());

   public:
    class iterator {
     public:
      iterator(const OrderedBitMap* m, MajorIt major, MajorIt end)
          : m_(m), major_(std::move(major)), end_(std::move(end)) {
        settle();
      }
      // The value is read as the iterator comes to the key, which spares a second lookup of
      // the key's bits for each entry handed out.
      Entry<K, bool> operator*() const {
        return Entry<K, bool>{Split::join(at_, DenseKey<Minor>::key(minor_)), value_};
      }
      // The next present minor of the same major if its bits are still there, else the first of
      // the next major after it.
      iterator& operator++() {
        const Bits* b = m_->bits(at_);
        std::uint32_t next = b ? b->firstFrom(minor_ + 1) : Bits::kEnd;
        if (next != Bits::kEnd) {
          minor_ = next;
          value_ = b->valueAt(next);
        } else {
          ++major_;
          settle();
        }
        return *this;
      }
      bool operator==(const iterator& o) const {
        return done_ == o.done_ && (done_ || (at_ == o.at_ && minor_ == o.minor_));
      }

     private:
      // The first present key of the major the outer walk stands on, or of the ones after it.
      void settle() {
        for (; !(major_ == end_); ++major_) {
          auto e = *major_;
          std::uint32_t i = e.value->firstFrom(0);
          if (i == Bits::kEnd) continue;
          at_ = e.key;
          minor_ = i;
          value_ = e.value->valueAt(i);
          return;
        }
        done_ = true;
      }
      const OrderedBitMap* m_;
      MajorIt major_;
      MajorIt end_;
      Major at_{};
      std::uint32_t minor_ = 0;
      bool value_ = false;
      bool done_ = false;
    };

    Walk(const OrderedBitMap& m, Ptr<const PtrInterface> keep)
        : m_(&m), majors_(m.majors_.walk(std::move(keep))) {}
    iterator begin() const { return iterator(m_, majors_.begin(), majors_.end()); }
    iterator end() const { return iterator(m_, majors_.end(), majors_.end()); }

   private:
    const OrderedBitMap* m_;
    MajorWalk majors_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(*this, std::move(keep)); }

 private:
  const Bits* bits(const Major& major) const {
    Bits* const* b = majors_.find(major);
    return b ? *b : nullptr;
  }
  Bits* bits(const Major& major) { return const_cast<Bits*>(std::as_const(*this).bits(major)); }

  Majors majors_;
  std::size_t size_ = 0;
};

}  // namespace Kiv
