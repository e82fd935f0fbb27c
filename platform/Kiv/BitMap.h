#pragma once
// Kiv::BitMap<K, bool>: a map from a key of a small dense space (a VLAN id: 4096 values) to bool,
// held in bits. A segment that carries every VLAN keeps its VLAN set in about a kilobyte instead of
// a hash table of four thousand slots and eight thousand index cells, and a lookup is a bit test
// in memory that stays in cache.
//
// The space is cut into 64 words of 64 keys; only the words with a key in them are held, in key
// order, behind a 64-bit mask of which are present. A set of a few VLANs costs a few words; no
// insert or erase moves more than 63 words.
//
// It walks in key order. Its walk tolerates any change, as the other collections' do: it keeps
// only the last key it handed out and looks for the next present key after it, so a removed key
// is skipped and a key added after the walk's position is visited.
//
// A key type opts in by specializing Kiv::DenseKey (Kiv/Types.h).

#include <bit>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

#include "Kiv/Collection.h"
#include "Kiv/Types.h"

namespace Kiv {

template <class K, class V>
class BitMap {
  static_assert(std::is_same_v<V, bool>, "a BitMap holds bool values");
  using Dense = DenseKey<K>;
  static_assert(Dense::span <= 64 * 64, "a BitMap covers at most 4096 keys");
  // One word of 64 keys: which are present, and the value of each present one.
  struct Word {
    std::uint64_t present;
    std::uint64_t value;
  };

 public:
  using Key = K;
  using Value = V;

  BitMap() = default;
  BitMap(const BitMap&) = delete;
  BitMap& operator=(const BitMap&) = delete;
  ~BitMap() { release(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(const K& k) const {
    const Word* w = word(Dense::index(k));
    return w && (w->present >> bit(Dense::index(k)) & 1);
  }

  // Points at a constant: a bit has no address. Valid for ever.
  const bool* find(const K& k) const {
    std::uint32_t i = Dense::index(k);
    const Word* w = word(i);
    if (!w || !(w->present >> bit(i) & 1)) return nullptr;
    return (w->value >> bit(i) & 1) ? &kTrue : &kFalse;
  }

  Change put(const K& k, bool v) {
    std::uint32_t i = Dense::index(k);
    std::uint64_t b = std::uint64_t(1) << bit(i);
    Word& w = wordMade(i >> 6);
    if (w.present & b) {
      if (bool(w.value & b) == v) return Change::none;
      w.value ^= b;
      return Change::changed;
    }
    w.present |= b;
    if (v) w.value |= b;
    ++size_;
    return Change::inserted;
  }

  bool erase(const K& k) {
    std::uint32_t i = Dense::index(k);
    std::uint32_t hi = i >> 6;
    if (!(mask_ >> hi & 1)) return false;
    Word& w = words_[rank(hi)];
    std::uint64_t b = std::uint64_t(1) << bit(i);
    if (!(w.present & b)) return false;
    w.present &= ~b;
    w.value &= ~b;
    --size_;
    if (!w.present) dropWord(hi);
    return true;
  }

  void clear() { release(); }

  class Walk {
   public:
    class iterator {
     public:
      iterator(const BitMap* m, std::uint32_t i) : m_(m), i_(i) {}
      Entry<K, bool> operator*() const {
        const Word& w = m_->words_[m_->rank(i_ >> 6)];
        return Entry<K, bool>{Dense::key(i_), bool(w.value >> bit(i_) & 1)};
      }
      iterator& operator++() {
        i_ = m_->nextFrom(i_ + 1);
        return *this;
      }
      bool operator==(const iterator& o) const { return i_ == o.i_; }

     private:
      const BitMap* m_;
      std::uint32_t i_;
    };

    Walk(const BitMap& m, Ptr<const PtrInterface> keep) : m_(&m), keep_(std::move(keep)) {}
    iterator begin() const { return iterator(m_, m_->nextFrom(0)); }
    iterator end() const { return iterator(m_, kEnd); }

   private:
    const BitMap* m_;
    Ptr<const PtrInterface> keep_;
  };

  Walk walk(Ptr<const PtrInterface> keep = nullptr) const { return Walk(*this, std::move(keep)); }

  // For a walk kept outside the map (Kiv::OrderedBitMap): the first present key at or after the
  // dense index i, as its index, or kEnd; and the value of a present key's index.
  static constexpr std::uint32_t kEnd = 64 * 64;
  std::uint32_t firstFrom(std::uint32_t i) const { return nextFrom(i); }
  bool valueAt(std::uint32_t i) const { return words_[rank(i >> 6)].value >> bit(i) & 1; }

 private:
  friend struct CollectionProbe;
  static constexpr bool kTrue = true;
  static constexpr bool kFalse = false;

  static unsigned bit(std::uint32_t i) { return i & 63; }
  // Where word `hi` sits among the words held: how many held words come before it.
  std::uint32_t rank(std::uint32_t hi) const {
    return std::popcount(mask_ & ((std::uint64_t(1) << hi) - 1));
  }
  const Word* word(std::uint32_t i) const {
    std::uint32_t hi = i >> 6;
    return (mask_ >> hi & 1) ? &words_[rank(hi)] : nullptr;
  }

  // The first present key at or after i, or kEnd.
  std::uint32_t nextFrom(std::uint32_t i) const {
    if (i >= kEnd) return kEnd;
    std::uint32_t hi = i >> 6;
    if (mask_ >> hi & 1) {
      std::uint64_t rest = words_[rank(hi)].present & (~std::uint64_t(0) << bit(i));
      if (rest) return (hi << 6) | std::countr_zero(rest);
    }
    std::uint64_t later = hi == 63 ? 0 : mask_ & (~std::uint64_t(0) << (hi + 1));
    if (!later) return kEnd;
    std::uint32_t next = std::countr_zero(later);
    return (next << 6) | std::countr_zero(words_[rank(next)].present);
  }

  Word& wordMade(std::uint32_t hi) {
    std::uint32_t r = rank(hi);
    if (mask_ >> hi & 1) return words_[r];
    std::uint32_t held = std::popcount(mask_);
    if (held == cap_) {
      std::uint32_t cap = cap_ ? std::min<std::uint32_t>(cap_ * 2, 64) : 1;
      Word* fresh = std::allocator<Word>().allocate(cap);
      std::copy(words_, words_ + held, fresh);
      if (words_) std::allocator<Word>().deallocate(words_, cap_);
      words_ = fresh;
      cap_ = static_cast<std::uint8_t>(cap);
    }
    std::copy_backward(words_ + r, words_ + held, words_ + held + 1);
    words_[r] = Word{0, 0};
    mask_ |= std::uint64_t(1) << hi;
    return words_[r];
  }

  void dropWord(std::uint32_t hi) {
    std::uint32_t r = rank(hi);
    std::uint32_t held = std::popcount(mask_);
    std::copy(words_ + r + 1, words_ + held, words_ + r);
    mask_ &= ~(std::uint64_t(1) << hi);
    if (!mask_) release();
  }

  // An emptied map gives its words back.
  void release() {
    if (words_) std::allocator<Word>().deallocate(words_, cap_);
    words_ = nullptr;
    cap_ = 0;
    mask_ = 0;
    size_ = 0;
  }

  std::uint64_t mask_ = 0;  // bit w: word w (keys 64w..64w+63) is held
  Word* words_ = nullptr;   // the held words, in key order
  std::uint16_t size_ = 0;
  std::uint8_t cap_ = 0;  // words allocated; at most 64
};

}  // namespace Kiv
