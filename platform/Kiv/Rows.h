#pragma once
// Kiv::Rows<K, F0, F1, ...>: several collections keyed alike, stored together.
//
// A machine that keeps, per (interface, VLAN) pair, the pair's tunnel and the pair's port status
// in two collections pays for two indexes, two copies of every key and two lookups on every
// event. Declared as the fields of one Rows, they share one index and one row per key, while each
// keeps its own accessor family (Kiv/Entity.h, KIV_ROWS):
//
//   KIV_ROWS(pair, IntfVlanKey, TunnelId, IntfVlanStatus)   // one row per pair:
//   KIV_ROW_COLLECTION(intfVlanTunnel, pair, 0)             //   the DF tunnel of the pair
//   KIV_ROW_CHILD_COLLECTION(esiStatus, pair, 1)            //   its ports, programmed or not
//
// Each field of a row is present or absent on its own; a row lives while any of its fields is
// present, so every field reads exactly as a collection of its own would: its size counts its
// own keys, its walk hands out only the rows where it is present, in the order of the shared
// index (a Kiv::HashMap: insertion order of the rows, perturbed by removals), and tolerates any
// change while it runs.

#include <array>
#include <cstdint>
#include <new>
#include <tuple>
#include <utility>

#include "Kiv/Collection.h"

namespace Kiv {

template <class K, class... Fields>
class Rows {
 public:
  using Key = K;
  template <std::size_t I>
  using FieldType = std::tuple_element_t<I, std::tuple<Fields...>>;

  // A row holds each field in place, with one bit per field saying whether it is present: an
  // optional per field would spend a flag and its padding on each, 8 bytes a row for a pair's
  // tunnel and port status, and the rows of a machine number hundreds of thousands.
  class Row {
    static_assert(sizeof...(Fields) <= 8, "a row has at most eight fields");
    static_assert(((alignof(Fields) <= 64) && ...), "a field aligned wider than a cache line");

   public:
    Row() = default;
    Row(const Row& o) { copyFrom(o); }
    Row(Row&& o) noexcept { moveFrom(std::move(o)); }
    Row& operator=(const Row& o) {
      if (this != &o) {
        clear();
        copyFrom(o);
      }
      return *this;
    }
    Row& operator=(Row&& o) noexcept {
      if (this != &o) {
        clear();
        moveFrom(std::move(o));
      }
      return *this;
    }
    ~Row() { clear(); }

    bool empty() const { return present_ == 0; }
    template <std::size_t I>
    bool has() const {
      return present_ & (1u << I);
    }
    template <std::size_t I>
    const FieldType<I>* get() const {
      return has<I>() ? std::launder(reinterpret_cast<const FieldType<I>*>(bytes_ + kOffsets[I]))
                      : nullptr;
    }
    template <std::size_t I>
    FieldType<I>* get() {
      return const_cast<FieldType<I>*>(std::as_const(*this).template get<I>());
    }
    template <std::size_t I, class... A>
    FieldType<I>& emplace(A&&... a) {
      reset<I>();
      auto* f =
          ::new (static_cast<void*>(bytes_ + kOffsets[I])) FieldType<I>(std::forward<A>(a)...);
      present_ |= std::uint8_t(1u << I);
      return *f;
    }
    template <std::size_t I>
    void reset() {
      if (auto* f = get<I>()) {
        f->~FieldType<I>();
        present_ &= std::uint8_t(~(1u << I));
      }
    }

    bool operator==(const Row& o) const {
      return present_ == o.present_ && equal(o, std::index_sequence_for<Fields...>());
    }

   private:
    // The fields are laid out widest alignment first, so that no field pads the one before it.
    static constexpr std::size_t kFields = sizeof...(Fields);
    struct Layout {
      std::array<std::size_t, kFields> offsets{};
      std::size_t bytes = 0;
    };
    static constexpr Layout layout() {
      std::array<std::size_t, kFields> size{sizeof(Fields)...};
      std::array<std::size_t, kFields> align{alignof(Fields)...};
      Layout l;
      for (std::size_t a = 64; a; a /= 2) {
        for (std::size_t i = 0; i < kFields; ++i) {
          if (align[i] != a) continue;
          l.offsets[i] = l.bytes;
          l.bytes += size[i];
        }
      }
      return l;
    }
    static constexpr std::array<std::size_t, kFields> kOffsets = layout().offsets;
    template <std::size_t... I>
    bool equal(const Row& o, std::index_sequence<I...>) const {
      return ((!has<I>() || *get<I>() == *o.template get<I>()) && ...);
    }
    template <std::size_t... I>
    void copyEach(const Row& o, std::index_sequence<I...>) {
      ((o.template has<I>() ? void(emplace<I>(*o.template get<I>())) : void()), ...);
    }
    template <std::size_t... I>
    void moveEach(Row& o, std::index_sequence<I...>) {
      ((o.template has<I>() ? void(emplace<I>(std::move(*o.template get<I>()))) : void()), ...);
    }
    template <std::size_t... I>
    void clearEach(std::index_sequence<I...>) {
      (reset<I>(), ...);
    }
    void copyFrom(const Row& o) { copyEach(o, std::index_sequence_for<Fields...>()); }
    void moveFrom(Row&& o) {
      moveEach(o, std::index_sequence_for<Fields...>());
      o.clear();
    }
    void clear() { clearEach(std::index_sequence_for<Fields...>()); }

    alignas(Fields...) unsigned char bytes_[layout().bytes];
    std::uint8_t present_ = 0;
  };

  // One field of the rows, seen as a collection of its own: the interface of Kiv::HashMap.
  template <std::size_t I, class RowsT>
  class Field {
    static constexpr bool kConst = std::is_const_v<RowsT>;

   public:
    using Key = K;
    using Value = FieldType<I>;

    explicit Field(RowsT& rows) : rows_(&rows) {}

    std::size_t size() const { return rows_->counts_[I]; }
    bool empty() const { return !size(); }
    bool contains(const K& k) const { return find(k) != nullptr; }
    const Value* find(const K& k) const {
      const Row* r = rows_->map_.find(k);
      return r ? r->template get<I>() : nullptr;
    }

    Change put(const K& k, const Value& v) requires(!kConst) {
      auto [r, made] = rows_->map_.findOrMake(k, [] { return Row(); });
      Value* f = r->template get<I>();
      if (!f) {
        r->template emplace<I>(v);
        ++rows_->counts_[I];
        return Change::inserted;
      }
      if constexpr (std::equality_comparable<Value>) {
        if (*f == v) return Change::none;
      }
      *f = v;
      return Change::changed;
    }

    // The value for k, made by make() when absent; the pointer is good until the next change of
    // the rows.
    template <class Make>
    std::pair<Value*, bool> findOrMake(const K& k, Make&& make) requires(!kConst) {
      auto [r, made] = rows_->map_.findOrMake(k, [] { return Row(); });
      if (Value* f = r->template get<I>()) return {f, false};
      Value& f = r->template emplace<I>(make());
      ++rows_->counts_[I];
      return {&f, true};
    }
    Value* find(const K& k) requires(!kConst) {
      Row* r = rows_->map_.find(k);
      return r ? r->template get<I>() : nullptr;
    }

    bool erase(const K& k) requires(!kConst) {
      Row* r = rows_->map_.find(k);
      Value* f = r ? r->template get<I>() : nullptr;
      if (!f) return false;
      [[maybe_unused]] Value doomed = std::move(*f);
      r->template reset<I>();
      --rows_->counts_[I];
      if (r->empty()) rows_->map_.erase(k);
      return true;
    }

    // A walk over the rows where this field is present: copies of key and field.
    class Walk {
      using Inner = typename HashMap<K, Row>::Walk;
      using InnerIt = decltype(std::declval<const Inner&>().begin());

     public:
      class iterator {
       public:
        iterator(InnerIt it, InnerIt end) : it_(it), end_(end) { skip(); }
        Entry<K, Value> operator*() const {
          auto e = *it_;
          return Entry<K, Value>{e.key, *e.value.template get<I>()};
        }
        iterator& operator++() {
          ++it_;
          skip();
          return *this;
        }
        bool operator==(const iterator& o) const { return it_ == o.it_; }

       private:
        void skip() {
          while (!(it_ == end_) && !(*it_).value.template has<I>()) ++it_;
        }
        InnerIt it_;
        InnerIt end_;
      };
      Walk(const HashMap<K, Row>& m, Ptr<const PtrInterface> keep)
          : inner_(m.walk(std::move(keep))) {}
      iterator begin() const { return iterator(inner_.begin(), inner_.end()); }
      iterator end() const { return iterator(inner_.end(), inner_.end()); }

     private:
      Inner inner_;
    };
    Walk walk(Ptr<const PtrInterface> keep = nullptr) const {
      return Walk(rows_->map_, std::move(keep));
    }

   private:
    RowsT* rows_;
  };

  Rows() = default;
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  template <std::size_t I>
  Field<I, Rows> field() {
    return Field<I, Rows>(*this);
  }
  template <std::size_t I>
  Field<I, const Rows> field() const {
    return Field<I, const Rows>(*this);
  }

  // Rows in use, whatever their fields.
  std::size_t size() const { return map_.size(); }

 private:
  HashMap<K, Row> map_;
  std::size_t counts_[sizeof...(Fields)] = {};
};

}  // namespace Kiv
