#pragma once
// Reactors: a state machine's nested watchers of its inputs.
//
// A reactor is a NotifieeConst of one input entity with a back pointer to the machine that owns
// it. It overrides the per-key callbacks it cares about and forwards them to the machine:
//
//   class KivSegmentStatus : public Kiv::Reactor<Evpn::EthernetSegmentStatus, EvpnHwTunnelIdSm> {
//    public:
//     using Reactor::Reactor;
//     void onDesignatedForwarderTep(const Bridging::VlanId& vlan) override { handleDFTep(vlan); }
//     void handleSegmentStatus();   // runs when the reactor is made, and once more when retired
//     void handleDFTep(Bridging::VlanId vlan);
//   };
//   KIV_REACTOR_COLLECTION(segmentStatus, Quil::IntfId, KivSegmentStatus, handleSegmentStatus,
//                          "Oba::EvpnHwTunnelIdSm")
//
// A reactor collection keys its reactors by the watched child's fwkKey(). Making a reactor over a
// child runs its handler once, which brings the machine up to date with a child that existed
// before. Removing one (xDel, or xIs over another entity of the same key) retires it: it is
// detached from its entity, so its callbacks stop, it is marked a zombie, and its handler runs one
// last time, so deletion takes the same code path as change. A machine's destructor drops its
// reactors without that last pass.
//
// A null entity given to a reactor mutator raises Kiv::RangeException with the text
// "null _<attr> parameter to mutator for <Qualified>::<attr> not allowed\"".

#include <string>
#include <utility>

#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

namespace Kiv {

template <class E, class Owner>
class Reactor : public PtrInterface, public E::NotifieeConst {
 public:
  using Entity = E;

  Reactor(const Ptr<const E>& entity, Owner* owner) : owner_(owner), entity_(entity) {
    this->notifierIs(entity);
  }

  Owner* owner() const { return owner_; }
  // The entity this reactor was made over; still readable during the zombie pass.
  const Ptr<const E>& entity() const { return entity_; }
  auto fwkKey() const { return entity_->fwkKey(); }
  bool zombie() const { return zombie_; }
  bool active() const { return !zombie_; }

  void kivRetire() {
    zombie_ = true;
    this->notifierIs(nullptr);
  }

 private:
  Owner* owner_;
  Ptr<const E> entity_;
  bool zombie_ = false;
};

[[noreturn]] inline void throwNullMutator(const char* attr, const char* qualified) {
  throw RangeException(nullMutatorText(attr, std::string(qualified) + "::" + attr));
}

// The reactors over the children of one input collection, keyed by the child's key.
template <class K, class R>
class ReactorMap {
 public:
  Ptr<R> get(const K& k) const { return lookup(map_, k); }
  std::size_t size() const { return map_.size(); }
  auto walk(Ptr<const PtrInterface> keep) const { return map_.walk(std::move(keep)); }

  // Makes (or keeps) the reactor over `e`; a reactor of the same key over another entity is
  // retired first. `handle(r)` is the reactor's whole-child handler.
  template <class Owner, class Handle>
  Ptr<R> set(const Ptr<const typename R::Entity>& e, Owner* owner, Handle handle) {
    K k = e->fwkKey();
    if (const Ptr<R>* cur = map_.find(k)) {
      if ((*cur)->entity() == e) return *cur;
      del(k, handle);
    }
    Ptr<R> r = new R(e, owner);
    map_.put(k, r);
    handle(*r);
    return r;
  }

  template <class Handle>
  void del(const K& k, Handle handle) {
    const Ptr<R>* cur = map_.find(k);
    if (!cur) return;
    Ptr<R> r = *cur;
    map_.erase(k);
    r->kivRetire();
    handle(*r);
  }

  template <class Handle>
  void delAll(Handle handle) {
    for (auto&& e : map_.walk(nullptr)) del(e.key, handle);
  }

 private:
  HashMap<K, Ptr<R>> map_;
};

// A machine's single reactor over one top-level input.
template <class R>
class ReactorSlot {
 public:
  const Ptr<R>& get() const { return r_; }
  template <class Owner>
  void set(const Ptr<const typename R::Entity>& e, Owner* owner) {
    if (r_ && r_->entity() == e) return;
    reset();
    r_ = new R(e, owner);
  }
  void reset() {
    if (!r_) return;
    Ptr<R> r = std::move(r_);
    r->kivRetire();
  }

 private:
  Ptr<R> r_;
};

}  // namespace Kiv

// A collection of child reactors: attr(k), attrs(), attrWalk(), attrIs(entity), attrDel(k),
// attrDelAll(). `handler` is the reactor's whole-child handler; `Qualified` names the owner class
// in the null-parameter error.
#define KIV_REACTOR_COLLECTION(attr, K, R, handler, Qualified)                            \
 public:                                                                                  \
  ::Kiv::Ptr<R> attr(const K& k) const { return attr##_.get(k); }                         \
  std::size_t attr##s() const { return attr##_.size(); }                                  \
  auto attr##Walk() const { return attr##_.walk(::Kiv::keepAlive(this)); }                \
  ::Kiv::Ptr<R> attr##Is(const ::Kiv::Ptr<const typename R::Entity>& e) {                 \
    if (!e) ::Kiv::throwNullMutator(#attr, Qualified);                                    \
    return attr##_.set(e, this, [](R& r) { r.handler(); });                               \
  }                                                                                       \
  void attr##Del(const K& k) {                                                            \
    attr##_.del(k, [](R& r) { r.handler(); });                                            \
  }                                                                                       \
  void attr##DelAll() {                                                                   \
    attr##_.delAll([](R& r) { r.handler(); });                                            \
  }                                                                                       \
  /* Follows one key of the input: a reactor over `e`, or none when the child is gone. */ \
  void attr##Track(const K& k, const ::Kiv::Ptr<const typename R::Entity>& e) {           \
    if (e) {                                                                              \
      attr##Is(e);                                                                        \
    } else {                                                                              \
      attr##Del(k);                                                                       \
    }                                                                                     \
  }                                                                                       \
  /* Brings the reactors in line with the input's children: one per child present (the    \
     input's walk), none for a key that `has(k)` says is gone. */                         \
  template <class KivWalk, class KivHas>                                                  \
  void attr##Sync(const KivWalk& children, KivHas has) {                                  \
    for (auto&& kivE : children) attr##Is(kivE.value);                                    \
    for (auto&& kivE : attr##_.walk(nullptr)) {                                           \
      if (!has(kivE.key)) attr##Del(kivE.key);                                            \
    }                                                                                     \
  }                                                                                       \
                                                                                          \
 private:                                                                                 \
  ::Kiv::ReactorMap<K, R> attr##_;                                                        \
                                                                                          \
 public:

// A single reactor over a top-level input: attr() is the input, attrReactor() the reactor,
// attrIs(entity) makes or replaces it, attrDel() retires it.
#define KIV_REACTOR(attr, R, Qualified)                                \
 public:                                                               \
  ::Kiv::Ptr<const typename R::Entity> attr() const {                  \
    return attr##_.get() ? attr##_.get()->entity() : nullptr;          \
  }                                                                    \
  const ::Kiv::Ptr<R>& attr##Reactor() const { return attr##_.get(); } \
  void attr##Is(const ::Kiv::Ptr<const typename R::Entity>& e) {       \
    if (!e) ::Kiv::throwNullMutator(#attr, Qualified);                 \
    attr##_.set(e, this);                                              \
  }                                                                    \
  void attr##Del() { attr##_.reset(); }                                \
                                                                       \
 private:                                                              \
  ::Kiv::ReactorSlot<R> attr##_;                                       \
                                                                       \
 public:

// A single reactor over a top-level input that the machine also writes (a backlog it consumes):
// as KIV_REACTOR, but attr() is the writable input.
#define KIV_WRITABLE_REACTOR(attr, R, Qualified)                          \
 public:                                                                  \
  const ::Kiv::Ptr<typename R::Entity>& attr() const { return attr##W_; } \
  const ::Kiv::Ptr<R>& attr##Reactor() const { return attr##_.get(); }    \
  void attr##Is(const ::Kiv::Ptr<typename R::Entity>& e) {                \
    if (!e) ::Kiv::throwNullMutator(#attr, Qualified);                    \
    attr##_.set(::Kiv::Ptr<const typename R::Entity>(e), this);           \
    attr##W_ = e;                                                         \
  }                                                                       \
  void attr##Del() {                                                      \
    attr##_.reset();                                                      \
    attr##W_ = nullptr;                                                   \
  }                                                                       \
                                                                          \
 private:                                                                 \
  ::Kiv::ReactorSlot<R> attr##_;                                          \
  ::Kiv::Ptr<typename R::Entity> attr##W_;                                \
                                                                          \
 public:
