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

#include <cstdint>
#include <optional>
#include <tuple>

#include "Kiv/Collection.h"

namespace Kiv {

template <class K, class... Fields>
class Rows {
 public:
  using Key = K;
  struct Row {
    std::tuple<std::optional<Fields>...> fields;
    bool empty() const {
      return std::apply([](const auto&... f) { return (!f.has_value() && ...); }, fields);
    }
    bool operator==(const Row&) const = default;
  };
  template <std::size_t I>
  using FieldType = std::tuple_element_t<I, std::tuple<Fields...>>;

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
      if (!r) return nullptr;
      const auto& f = std::get<I>(r->fields);
      return f ? &*f : nullptr;
    }

    Change put(const K& k, const Value& v) requires(!kConst) {
      auto [r, made] = rows_->map_.findOrMake(k, [] { return Row(); });
      auto& f = std::get<I>(r->fields);
      if (!f) {
        f.emplace(v);
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
      auto& f = std::get<I>(r->fields);
      if (f) return {&*f, false};
      f.emplace(make());
      ++rows_->counts_[I];
      return {&*f, true};
    }
    Value* find(const K& k) requires(!kConst) {
      Row* r = rows_->map_.find(k);
      if (!r) return nullptr;
      auto& f = std::get<I>(r->fields);
      return f ? &*f : nullptr;
    }

    bool erase(const K& k) requires(!kConst) {
      Row* r = rows_->map_.find(k);
      if (!r) return false;
      auto& f = std::get<I>(r->fields);
      if (!f) return false;
      [[maybe_unused]] Value doomed = std::move(*f);
      f.reset();
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
          return Entry<K, Value>{e.key, *std::get<I>(e.value.fields)};
        }
        iterator& operator++() {
          ++it_;
          skip();
          return *this;
        }
        bool operator==(const iterator& o) const { return it_ == o.it_; }

       private:
        void skip() {
          while (!(it_ == end_) && !std::get<I>((*it_).value.fields)) ++it_;
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
