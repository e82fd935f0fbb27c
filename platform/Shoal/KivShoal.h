#pragma once
// The KivShoal glue: embeds a Shoal table in a Kiv entity as an attribute `x` of rows keyed by K.
//
// In the entity:    KIV_SHOAL_TABLE(x, X, K, Row)   rows that carry their key (row.key())
//                   KIV_SHOAL_MAP(x, X, K, V)       values written under a key the writer gives
// In its notifiee:  KIV_NOTIFIEE_SHOAL_TABLE(x, X, K)
//
// Writer side: xIs(row) (a map: xIs(k, v)) inserts or overwrites, xDel(k) removes, xDelAll()
// removes every row, xCommit(row) (xCommit(k, v)) publishes a row written in place; each notifies
// onX(key) after the write (even when nothing changed: a reader re-reads the row). Reader side:
// x(k) answers a Shoal::Lookup (row and found flag; an absent key is no error, a corrupt row raises
// Shoal::CorruptionException), xs() counts rows, xWalk() walks them; xNotify(k),
// xNotifyCollection() and xNotifyMountStatus() deliver per-key, whole-collection and mount-state
// notifications; xControl() is the table's control block; xCorruptIs(k) marks a row corrupt (tests
// and simulators). xBackingIs(backing) puts the rows elsewhere than in process before the table is
// mounted (Shoal/SharedMemoryBacking.h); a reader in another process than the writer's then calls
// xPoll() from its event loop, which delivers the per-key, whole-collection and mount-state
// notifications for what changed since its last poll.

#include <optional>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Shoal/Table.h"

namespace Shoal {

// A table's rows as its owner's digest reads them (Kiv/Digest.h): each key with its row, or with
// none for a row that readers find torn.
template <class K, class Row>
std::vector<std::pair<K, std::optional<Row>>> tableState(const Table<K, Row>& t) {
  std::vector<std::pair<K, std::optional<Row>>> out;
  for (auto&& e : t.walk()) {
    try {
      t.find(e.key);
      out.emplace_back(e.key, e.value);
    } catch (const CorruptionException&) {
      out.emplace_back(e.key, std::nullopt);
    }
  }
  return out;
}

}  // namespace Shoal

// The reader side, removal and notification, shared by both kinds.
#define KIV_SHOAL_COMMON_(attr, Attr, K, Row)                                                      \
 public:                                                                                           \
  ::Shoal::Lookup<Row> attr(const K& k) const { return attr##_.find(k); }                          \
  std::size_t attr##s() const { return attr##_.size(); }                                           \
  ::Shoal::RowWalk<K, Row> attr##Walk() const { return attr##_.walk(); }                           \
  const ::Kiv::Ptr<::Shoal::TableControl>& attr##Control() const { return attr##_.control(); }     \
  void attr##BackingIs(std::unique_ptr<::Shoal::Backing<K, Row>> b) {                              \
    attr##_.backingIs(std::move(b));                                                               \
  }                                                                                                \
  void attr##Mount(::Shoal::Role role) { attr##_.mount(role); }                                    \
  std::size_t attr##Poll() {                                                                       \
    return attr##_.poll([this](const K& k) { attr##Notify(k); },                                   \
                        [this] { attr##NotifyCollection(); },                                      \
                        [this] { attr##NotifyMountStatus(); });                                    \
  }                                                                                                \
  void attr##CorruptIs(const K& k) { attr##_.corruptIs(k); }                                       \
  void attr##Del(const K& k) {                                                                     \
    attr##_.erase(k);                                                                              \
    attr##Notify(k);                                                                               \
  }                                                                                                \
  void attr##DelAll() {                                                                            \
    for (auto&& kivE : attr##_.walk()) attr##Del(kivE.key);                                        \
  }                                                                                                \
  void attr##Notify(const K& k) const {                                                            \
    this->kivDeliver([&](auto* kivN) { kivN->on##Attr(k); }, [&] { return attr##CauseText_(k); }); \
  }                                                                                                \
  /* A torn row still names its key as a cause. */                                                 \
  std::string attr##CauseText_(const K& k) const {                                                 \
    try {                                                                                          \
      return ::Kiv::causeWriteText(*this, #attr, k, this->attr(k));                                \
    } catch (const ::Shoal::CorruptionException&) {                                                \
      return ::Kiv::causeWriteText(*this, #attr, k, "torn");                                       \
    }                                                                                              \
  }                                                                                                \
  void attr##NotifyCollection() const {                                                            \
    this->kivDeliver([](auto* kivN) { kivN->on##Attr(); },                                         \
                     [this] { return ::Kiv::causeWriteText(*this, #attr, "every row"); });         \
  }                                                                                                \
  void attr##NotifyMountStatus() const {                                                           \
    this->kivDeliver([](auto* kivN) { kivN->on##Attr##MountStatus(); },                            \
                     [this] { return ::Kiv::causeWriteText(*this, #attr, "mount status"); });      \
  }                                                                                                \
                                                                                                   \
 private:                                                                                          \
  ::Shoal::Table<K, Row> attr##_;                                                                  \
  KIV_DIGEST_FIELD_(attr, ::Shoal::tableState(attr##_))                                            \
                                                                                                   \
 public:

#define KIV_NOTIFIEE_SHOAL_TABLE(attr, Attr, K) \
  KIV_NOTIFIEE_COLLECTION(attr, Attr, K)        \
  virtual void on##Attr##MountStatus() {}

#define KIV_SHOAL_TABLE(attr, Attr, K, Row) \
  KIV_SHOAL_COMMON_(attr, Attr, K, Row)     \
  void attr##Is(const Row& row) {           \
    attr##_.put(row.key(), row);            \
    attr##Notify(row.key());                \
  }                                         \
  void attr##Commit(const Row& row) { attr##Is(row); }

#define KIV_SHOAL_MAP(attr, Attr, K, V)   \
  KIV_SHOAL_COMMON_(attr, Attr, K, V)     \
  void attr##Is(const K& k, const V& v) { \
    attr##_.put(k, v);                    \
    attr##Notify(k);                      \
  }                                       \
  void attr##Commit(const K& k, const V& v) { attr##Is(k, v); }
