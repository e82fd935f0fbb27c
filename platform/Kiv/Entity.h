#pragma once
// Entities, their notifiees, and the accessor families.
//
// An entity that others watch derives from Kiv::Entity<Self> and declares a nested NotifieeConst
// with one callback family per watched attribute. Its collections and scalars are declared with
// one macro line each; the macro names the accessor family and the templates do the work:
//
//   class SegmentStatus : public Kiv::Entity<SegmentStatus> {
//    public:
//     class NotifieeConst : public Kiv::NotifieeConstBase<SegmentStatus> {
//      public:
//       KIV_NOTIFIEE_COLLECTION(designatedForwarderTep, DesignatedForwarderTep, Bridging::VlanId)
//     };
//     explicit SegmentStatus(const Quil::IntfId& intf) : intfId_(intf) {}
//     KIV_KEY(intfId, Quil::IntfId)
//     KIV_WATCHED_COLLECTION(designatedForwarderTep, DesignatedForwarderTep, Bridging::VlanId,
//                            Quil::IntfId)
//   };
//
// That gives, for a collection `x` keyed by K with values V:
//   x(k)         the value (std::optional<V>), or the child (Kiv::Ptr<C>, null when absent)
//   xHas(k)      presence;  xs()  the number of elements;  xWalk()  a change-tolerant walk
//   xIs(k, v)    insert or overwrite (child collections: xIs(k) creates the child if absent and
//                returns it; a present child is returned unchanged)
//   xDel(k)      remove (absent: nothing);  xDelAll()  remove every element
//   xNotify(k)   tell the notifiees onX(k) without changing anything
// A watched collection tells its notifiees onX(k) after every insert, change of value and removal
// (an overwrite with an equal value is no change). Plain collections (KIV_COLLECTION, the owned
// sets and a machine's internal state) notify nobody, and their xNotify does nothing.
//
// Scalars: KIV_SCALAR stores only; KIV_WATCHED_SCALAR stores and notifies onX() only when the
// value changes; KIV_WATCHED_COUNTER adds xInc(n).
//
// Each macro leaves the class section public.
//
// Notifiees: a NotifieeConst registers with notifierIs(entity) and unregisters on destruction or
// notifierIs(nullptr). Delivery is synchronous, allocates nothing, and tolerates a notifiee that
// removes itself or another (or adds one: a notifiee added during a delivery is not told of it).
// The whole-collection callback onX() is mapped onto onX(k) for every key present, and
// onXkivImmediate() onto onX(): a notifiee that overrides only the per-key callback hears
// everything.

#include <cstdint>
#include <exception>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/BitMap.h"
#include "Kiv/Cause.h"
#include "Kiv/Collection.h"
#include "Kiv/Digest.h"
#include "Kiv/OrderedBitMap.h"
#include "Kiv/Ptr.h"
#include "Kiv/Rows.h"
#include "Kiv/SmallMap.h"

namespace Kiv {

// The registered notifiees of one entity. Removal during a delivery leaves a hole that the
// delivery skips; the holes are compacted when the last delivery ends.
template <class N>
class NotifieeList {
 public:
  void add(N* n) { slots_.push_back(n); }
  void remove(N* n) {
    for (auto& s : slots_) {
      if (s != n) continue;
      if (delivering_) {
        s = nullptr;
        ++holes_;
      } else {
        s = slots_.back();
        slots_.pop_back();
      }
      return;
    }
  }
  std::size_t size() const { return slots_.size() - holes_; }

  // A notifiee that throws does not deprive the others: every notifiee is told, then the first
  // exception reaches the mutator's caller, with the list as consistent as after any delivery.
  // A broken invariant (a thrown AssertionFailure) ends the delivery at once: the agent is done.
  template <class F>
  void deliver(F&& f) {
    const std::size_t end = slots_.size();
    std::exception_ptr failure;
    ++delivering_;
    for (std::size_t i = 0; i < end; ++i) {
      N* n = slots_[i];
      if (!n) continue;
      try {
        f(n);
      } catch (const AssertionFailure&) {
        endDelivery();
        throw;
      } catch (...) {
        if (!failure) failure = std::current_exception();
      }
    }
    endDelivery();
    if (failure) std::rethrow_exception(failure);
  }

 private:
  void endDelivery() {
    if (--delivering_ == 0 && holes_) {
      std::erase(slots_, nullptr);
      holes_ = 0;
    }
  }

 public:
 private:
  std::vector<N*> slots_;
  std::uint32_t delivering_ = 0;
  std::uint32_t holes_ = 0;
};

template <class Self>
class Notifier;

// Base of every entity's NotifieeConst: the registration with one notifier.
template <class Self>
class NotifieeConstBase {
 public:
  using Notifier = Self;

  NotifieeConstBase() = default;
  NotifieeConstBase(const NotifieeConstBase&) = delete;
  NotifieeConstBase& operator=(const NotifieeConstBase&) = delete;
  virtual ~NotifieeConstBase() { notifierIs(nullptr); }

  const Ptr<const Self>& notifier() const { return notifier_; }
  void notifierIs(const Ptr<const Self>& n) {
    if (n == notifier_) return;
    if (notifier_) notifier_->kivNotifiees_.remove(this);
    notifier_ = n;
    if (notifier_) notifier_->kivNotifiees_.add(this);
  }

 private:
  Ptr<const Self> notifier_;
};

// The notifiee list of an entity that others watch, and its delivery. Entity<Self> is the usual
// base; a class that already derives from a counted base (a helper stub) mixes Notifier<Self> in.
template <class Self>
class Notifier {
 public:
  std::size_t notifieeCount() const { return kivNotifiees_.size(); }

 protected:
  // Calls f(notifiee) for every registered Self::NotifieeConst. The entity stays alive for the
  // whole delivery even if a notifiee drops the last other reference to it.
  //
  // While causes are carried (Kiv/Cause.h), the change that `describe()` tells becomes a `write`
  // cause under the current one, and each notifiee hears it under a `handler` cause naming the
  // notifiee's class; off, `describe` is never called.
  template <class F, class D>
  void kivDeliver(F&& f, D&& describe) const {
    if (!kivNotifiees_.size()) return;
    if (causing()) [[unlikely]]
      return kivDeliverCaused(f, describe);
    Ptr<const PtrInterface> keep = keepAlive(static_cast<const Self*>(this));
    kivNotifiees_.deliver(
        [&](NotifieeConstBase<Self>* n) { f(static_cast<typename Self::NotifieeConst*>(n)); });
  }

 private:
  // Out of line, so that the delivery every write makes stays as small as it was without causes.
  template <class F, class D>
  [[gnu::noinline, gnu::cold]] void kivDeliverCaused(F& f, D& describe) const {
    Ptr<const PtrInterface> keep = keepAlive(static_cast<const Self*>(this));
    CauseScope write(causeOf(Cause::Kind::write, describe()));
    kivNotifiees_.deliver([&](NotifieeConstBase<Self>* n) {
      CauseScope heard(causeOf(Cause::Kind::handler, "heard by " + causeTypeName(typeid(*n))));
      f(static_cast<typename Self::NotifieeConst*>(n));
    });
  }

  friend class NotifieeConstBase<Self>;
  mutable NotifieeList<NotifieeConstBase<Self>> kivNotifiees_;
};

template <class Self>
class Entity : public PtrInterface, public Notifier<Self> {};

}  // namespace Kiv

// ---- naming layer ---------------------------------------------------------------------------

// The key of a child entity, fixed at construction; fwkKey() is what reactor collections key on.
#define KIV_KEY(attr, K)                      \
 public:                                      \
  const K& attr() const { return attr##_; }   \
  const K& fwkKey() const { return attr##_; } \
                                              \
 private:                                     \
  const K attr##_;                            \
                                              \
 public:

// Read side and removal, shared by every collection kind, over the storage expression S; `keep`
// is what a walk holds to keep the owner alive (nothing for an owner that is not counted).
#define KIV_COLLECTION_ACCESSORS_(attr, K, S, keep)                        \
 public:                                                                   \
  auto attr(const K& k) const { return ::Kiv::lookup(S, k); }              \
  bool attr##Has(const K& k) const { return S.contains(k); }               \
  std::size_t attr##s() const { return S.size(); }                         \
  auto attr##Walk() const->decltype(S.walk(keep)) { return S.walk(keep); } \
  void attr##Del(const K& k) {                                             \
    if (S.erase(k)) attr##Changed_(k);                                     \
  }                                                                        \
  void attr##DelAll() {                                                    \
    for (auto&& kivE : S.walk(keep)) attr##Del(kivE.key);                  \
  }                                                                        \
  void attr##Notify(const K& k) { attr##Changed_(k); }                     \
                                                                           \
 public:

#define KIV_VALUE_ACCESSORS_(attr, K, V, S, keep)              \
  KIV_COLLECTION_ACCESSORS_(attr, K, S, keep)                  \
  void attr##Is(const K& k, const V& v) {                      \
    if (S.put(k, v) != ::Kiv::Change::none) attr##Changed_(k); \
  }

// A collection stored in a member of its own.
#define KIV_COLLECTION_COMMON_(attr, K, ...) \
 private:                                    \
  __VA_ARGS__ attr##_;                       \
  KIV_DIGEST_FIELD_(attr, attr##_)           \
  KIV_COLLECTION_ACCESSORS_(attr, K, attr##_, ::Kiv::keepAlive(this))

#define KIV_VALUE_COLLECTION_(attr, K, V, ...)                       \
  KIV_COLLECTION_COMMON_(attr, K, __VA_ARGS__)                       \
  void attr##Is(const K& k, const V& v) {                            \
    if (attr##_.put(k, v) != ::Kiv::Change::none) attr##Changed_(k); \
  }

#define KIV_CHILD_COLLECTION_(attr, K, C, ...)                                                 \
  KIV_COLLECTION_COMMON_(attr, K, __VA_ARGS__)                                                 \
  ::Kiv::Ptr<C> attr##Is(const K& k) {                                                         \
    auto [kivChild, kivMade] = attr##_.findOrMake(k, [&] { return ::Kiv::Ptr<C>(new C(k)); }); \
    ::Kiv::Ptr<C> kivResult = *kivChild;                                                       \
    if (kivMade) attr##Changed_(k);                                                            \
    return kivResult;                                                                          \
  }

#define KIV_UNWATCHED_(attr, K)    \
 private:                          \
  void attr##Changed_(const K&) {} \
                                   \
 public:

#define KIV_WATCHED_(attr, Attr, K)                                                          \
 private:                                                                                    \
  void attr##Changed_(const K& k) {                                                          \
    this->kivDeliver([&](auto* kivN) { kivN->on##Attr(k); },                                 \
                     [&] { return ::Kiv::causeWriteText(*this, #attr, k, this->attr(k)); }); \
  }                                                                                          \
                                                                                             \
 public:

// Plain collections: a machine's internal state and the owned sets. They notify nobody.
#define KIV_COLLECTION(attr, K, V) \
  KIV_UNWATCHED_(attr, K)          \
  KIV_VALUE_COLLECTION_(attr, K, V, ::Kiv::HashMap<K, V>)
#define KIV_ORDERED_COLLECTION(attr, K, V) \
  KIV_UNWATCHED_(attr, K)                  \
  KIV_VALUE_COLLECTION_(attr, K, V, ::Kiv::OrderedMap<K, V>)
#define KIV_CHILD_COLLECTION(attr, K, C) \
  KIV_UNWATCHED_(attr, K)                \
  KIV_CHILD_COLLECTION_(attr, K, C, ::Kiv::HashMap<K, ::Kiv::Ptr<C>>)

// A plain set over a small dense key space, held in bits (Kiv/BitMap.h): the VLANs of a segment.
// It walks in key order.
#define KIV_BIT_COLLECTION(attr, K, V) \
  KIV_UNWATCHED_(attr, K)              \
  KIV_VALUE_COLLECTION_(attr, K, V, ::Kiv::BitMap<K, V>)
// The same, in key order, for a key that splits into an ordered part and a dense part
// (Kiv/OrderedBitMap.h, Kiv::SplitKey): the (interface, VLAN) review queues.
#define KIV_ORDERED_BIT_COLLECTION(attr, K, V) \
  KIV_UNWATCHED_(attr, K)                      \
  KIV_VALUE_COLLECTION_(attr, K, V, ::Kiv::OrderedBitMap<K, V>)

// A plain collection of a few entries held inside its owner (Kiv/SmallMap.h): the per-key sets
// that a machine keeps by the hundred thousand. The owner may be a value that is not counted.
#define KIV_SMALL_COLLECTION(attr, K, V, N) \
  KIV_UNWATCHED_(attr, K)                   \
 private:                                   \
  ::Kiv::SmallMap<K, V, N> attr##_;         \
  KIV_DIGEST_FIELD_(attr, attr##_)          \
  KIV_VALUE_ACCESSORS_(attr, K, V, attr##_, nullptr)

// Collections keyed alike, stored together (Kiv/Rows.h): KIV_ROWS declares the rows and their
// field types once; each field then gets the accessor family of a plain collection under its own
// name. A field whose type is a value child (a set kept per key, held in the row itself rather
// than as a counted entity) has xIs(k), which makes the child when absent and answers a copy,
// and xEdit(k, f), which makes it when absent and runs f on it in place (f must not change the
// rows); lookups and walks hand out copies.
#define KIV_ROWS(rows, K, ...)                           \
 public:                                                 \
  using rows##Rows_ = ::Kiv::Rows<K, __VA_ARGS__>;       \
  std::size_t rows##s() const { return rows##_.size(); } \
                                                         \
 private:                                                \
  rows##Rows_ rows##_;                                   \
                                                         \
 public:
#define KIV_ROW_COLLECTION(attr, rows, I)                                                        \
  KIV_UNWATCHED_(attr, typename rows##Rows_::Key)                                                \
  KIV_DIGEST_FIELD_(attr, rows##_.template field<I>())                                           \
  KIV_VALUE_ACCESSORS_(attr, typename rows##Rows_::Key,                                          \
                       typename rows##Rows_::template FieldType<I>, rows##_.template field<I>(), \
                       ::Kiv::keepAlive(this))
#define KIV_ROW_CHILD_COLLECTION(attr, rows, I)                                              \
  KIV_UNWATCHED_(attr, typename rows##Rows_::Key)                                            \
  KIV_DIGEST_FIELD_(attr, rows##_.template field<I>())                                       \
  KIV_COLLECTION_ACCESSORS_(attr, typename rows##Rows_::Key, rows##_.template field<I>(),    \
                            ::Kiv::keepAlive(this))                                          \
  template <class F>                                                                         \
  decltype(auto) attr##Edit(const typename rows##Rows_::Key& k, F&& f) {                     \
    using kivC = typename rows##Rows_::template FieldType<I>;                                \
    return f(*rows##_.template field<I>().findOrMake(k, [&] { return kivC(k); }).first);     \
  }                                                                                          \
  typename rows##Rows_::template FieldType<I> attr##Is(const typename rows##Rows_::Key& k) { \
    using kivC = typename rows##Rows_::template FieldType<I>;                                \
    return *rows##_.template field<I>().findOrMake(k, [&] { return kivC(k); }).first;        \
  }

// Watched collections of an entity derived from Kiv::Entity<Self>.
// (The notification comes after the accessors: it reads the value, whose type the lookup deduces.)
#define KIV_WATCHED_COLLECTION(attr, Attr, K, V)          \
  KIV_VALUE_COLLECTION_(attr, K, V, ::Kiv::HashMap<K, V>) \
  KIV_WATCHED_(attr, Attr, K)
#define KIV_WATCHED_ORDERED_COLLECTION(attr, Attr, K, V)     \
  KIV_VALUE_COLLECTION_(attr, K, V, ::Kiv::OrderedMap<K, V>) \
  KIV_WATCHED_(attr, Attr, K)
#define KIV_WATCHED_CHILD_COLLECTION(attr, Attr, K, C)                \
  KIV_CHILD_COLLECTION_(attr, K, C, ::Kiv::HashMap<K, ::Kiv::Ptr<C>>) \
  KIV_WATCHED_(attr, Attr, K)

// Scalars.
#define KIV_SCALAR(attr, T, ...)             \
 public:                                     \
  const T& attr() const { return attr##_; }  \
  void attr##Is(const T& v) { attr##_ = v; } \
                                             \
 private:                                    \
  T attr##_ = __VA_ARGS__;                   \
  KIV_DIGEST_FIELD_(attr, attr##_)           \
                                             \
 public:

#define KIV_WATCHED_SCALAR(attr, Attr, T, ...)                                      \
 public:                                                                            \
  const T& attr() const { return attr##_; }                                         \
  void attr##Is(const T& v) {                                                       \
    if (attr##_ == v) return;                                                       \
    attr##_ = v;                                                                    \
    this->kivDeliver([](auto* kivN) { kivN->on##Attr(); },                          \
                     [&] { return ::Kiv::causeWriteText(*this, #attr, attr##_); }); \
  }                                                                                 \
                                                                                    \
 private:                                                                           \
  T attr##_ = __VA_ARGS__;                                                          \
  KIV_DIGEST_FIELD_(attr, attr##_)                                                  \
                                                                                    \
 public:

#define KIV_WATCHED_COUNTER(attr, Attr, T, ...)  \
  KIV_WATCHED_SCALAR(attr, Attr, T, __VA_ARGS__) \
  void attr##Inc(T n = 1) { attr##Is(static_cast<T>(attr##_ + n)); }

// Inside an entity's NotifieeConst: the callbacks of one watched collection or scalar.
#define KIV_NOTIFIEE_COLLECTION(attr, Attr, K)                         \
  virtual void on##Attr(const K&) {}                                   \
  virtual void on##Attr() {                                            \
    if (auto kivN = this->notifier()) {                                \
      for (auto&& kivE : kivN->attr##Walk()) this->on##Attr(kivE.key); \
    }                                                                  \
  }                                                                    \
  virtual void on##Attr##kivImmediate() { this->on##Attr(); }
#define KIV_NOTIFIEE_SCALAR(Attr) \
  virtual void on##Attr() {}
