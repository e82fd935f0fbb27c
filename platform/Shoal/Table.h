#pragma once
// Shoal: single-writer keyed tables that agents in other processes read.
//
// A table holds rows keyed by K; a row either carries its own key (row.key()) or is written under
// a key the writer gives. One agent mounts the table as its writer and inserts, overwrites and
// deletes rows; any number of readers look rows up and watch for changes. The rows live behind
// Shoal::Backing: in process by default, or in a shared-memory segment that readers in other
// processes attach by agent and table name (Shoal/SharedMemoryBacking.h), chosen where the table
// is made; writers and readers use the table the same way either way.
//
// A reader that meets a torn or corrupt row gets Shoal::CorruptionException from its lookup. A
// test or a simulator marks a row corrupt on purpose (corruptIs(k)); the mark stays until the
// writer rewrites or deletes the row.
//
// An entity embeds a table with one line of the KivShoal glue (Shoal/KivShoal.h), which gives it
// the writer operations, the lookup and per-key notification of its notifiees.

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Kiv/Assert.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"

namespace Shoal {

// Raised by a reader that finds a table's contents inconsistent (a torn or corrupt row).
class CorruptionException : public std::runtime_error {
 public:
  explicit CorruptionException(const std::string& what) : std::runtime_error(what) {}
};

enum class MountState : std::uint8_t { unmounted, mounted, failed };
enum class Role : std::uint8_t { reader, writer };
std::ostream& operator<<(std::ostream& os, MountState s);
std::ostream& operator<<(std::ostream& os, Role r);

// The control block of one table: whether it is attached to its memory, and in which role.
// Readers watch it to learn when the table becomes usable.
class TableControl : public Kiv::Entity<TableControl> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<TableControl> {
   public:
    KIV_NOTIFIEE_SCALAR(MountState)
  };
  KIV_WATCHED_SCALAR(mountState, MountState, MountState, MountState::unmounted)
  KIV_SCALAR(role, Role, Role::reader)
};

// The text of the exception a corrupt row raises: "corrupt row <key>" where the key prints.
template <class K>
std::string corruptRowText(const K& k) {
  if constexpr (requires(std::ostream & os) { os << k; }) {
    std::ostringstream os;
    os << "corrupt row " << k;
    return os.str();
  } else {
    return "corrupt row";
  }
}

// What a lookup answers: the row (default-constructed when absent) and whether it was found.
template <class Row>
struct Lookup {
  Row row;
  bool found = false;
  explicit operator bool() const { return found; }
};

template <class K, class Row>
class Backing;

// A walk over a table's rows: copies of key and row, as a Kiv::HashMap walk hands them out. The
// in-process backing's walk tolerates any change to the table while it runs; another backing
// hands out, one at a time, the rows it holds at the moment it reaches them.
template <class K, class Row>
class RowWalk {
  using HeapWalk = typename Kiv::HashMap<K, Row>::Walk;

 public:
  explicit RowWalk(const Kiv::HashMap<K, Row>& rows) { heap_.emplace(rows, nullptr); }
  explicit RowWalk(const Backing<K, Row>& backing) : backing_(&backing) {}
  RowWalk(const RowWalk&) = delete;
  RowWalk& operator=(const RowWalk&) = delete;

  class iterator {
   public:
    Kiv::Entry<K, Row> operator*() const { return heap_ ? **heap_ : cur_; }
    iterator& operator++() {
      if (heap_) {
        ++*heap_;
      } else {
        step();
      }
      return *this;
    }
    bool operator==(const iterator& o) const {
      return heap_ ? *heap_ == *o.heap_ : done_ == o.done_;
    }

   private:
    friend class RowWalk;
    explicit iterator(typename HeapWalk::iterator it) : heap_(it) {}
    iterator(const Backing<K, Row>* b, bool done) : backing_(b), done_(done) {
      if (!done_) step();
    }
    void step() { done_ = !backing_->walkNext(pos_, cur_); }

    std::optional<typename HeapWalk::iterator> heap_;
    const Backing<K, Row>* backing_ = nullptr;
    std::size_t pos_ = 0;
    Kiv::Entry<K, Row> cur_{};
    bool done_ = true;
  };

  iterator begin() const { return heap_ ? iterator(heap_->begin()) : iterator(backing_, false); }
  iterator end() const { return heap_ ? iterator(heap_->end()) : iterator(backing_, true); }

 private:
  std::optional<HeapWalk> heap_;
  const Backing<K, Row>* backing_ = nullptr;
};

// What a reader in another process learns when it polls its table: keys the writer changed, that
// every row may have changed (the writer restarted, or the reader fell behind), a new mount state.
template <class K>
class Changes {
 public:
  virtual void key(const K& k) = 0;
  virtual void all() = 0;
  virtual void mount(MountState s) = 0;

 protected:
  ~Changes() = default;
};

// Where the rows live: in process (HeapBacking, the default) or in shared memory
// (Shoal/SharedMemoryBacking.h).
template <class K, class Row>
class Backing {
 public:
  virtual ~Backing() = default;
  // Attaches to the rows' memory in the role; answers the mount state that results. In process
  // there is nothing to attach, and the rows stay as they are.
  virtual MountState attach(Role) { return MountState::mounted; }
  virtual void detach() {}
  // A reader follows its writer: reports changes made since the last poll. Answers the number of
  // reports.
  virtual std::size_t poll(Changes<K>&) { return 0; }
  virtual void put(const K& k, const Row& row) = 0;
  virtual bool erase(const K& k) = 0;
  virtual void clear() = 0;
  // Raises CorruptionException for a row found corrupt.
  virtual Lookup<Row> find(const K& k) const = 0;
  virtual void corruptIs(const K& k) = 0;
  virtual std::size_t size() const = 0;
  virtual RowWalk<K, Row> walk() const { return RowWalk<K, Row>(*this); }
  // The walk of a backing other than the in-process one: the next row at `pos` or after.
  virtual bool walkNext(std::size_t& /*pos*/, Kiv::Entry<K, Row>& /*out*/) const { return false; }
};

template <class K, class Row>
class HeapBacking : public Backing<K, Row> {
 public:
  void put(const K& k, const Row& row) override {
    rows_.put(k, row);
    if (!corrupt_.empty()) corrupt_.erase(k);
  }
  bool erase(const K& k) override {
    if (!corrupt_.empty()) corrupt_.erase(k);
    return rows_.erase(k);
  }
  void clear() override {
    rows_.clear();
    corrupt_.clear();
  }
  Lookup<Row> find(const K& k) const override {
    if (!corrupt_.empty() && corrupt_.contains(k)) throw CorruptionException(corruptRowText(k));
    const Row* r = rows_.find(k);
    return r ? Lookup<Row>{*r, true} : Lookup<Row>{};
  }
  void corruptIs(const K& k) override { corrupt_.put(k, true); }
  std::size_t size() const override { return rows_.size(); }
  RowWalk<K, Row> walk() const override { return RowWalk<K, Row>(rows_); }

 private:
  Kiv::HashMap<K, Row> rows_;
  Kiv::HashMap<K, bool> corrupt_;
};

// One table: its rows and its control block. Writes require the table mounted as writer.
template <class K, class Row>
class Table {
 public:
  Table() : backing_(std::make_unique<HeapBacking<K, Row>>()), control_(new TableControl) {}
  ~Table() { backing_->detach(); }

  const Kiv::Ptr<TableControl>& control() const { return control_; }
  // Where the rows live. Chosen before the table is mounted, or later: a mounted table attaches
  // the new backing in its role and a writer's rows move across, so an agent can publish a table
  // that its entity mounted when it was made. Should the new backing refuse (its segment taken,
  // the rows beyond its capacity), the table stays where it was and the exception goes on.
  void backingIs(std::unique_ptr<Backing<K, Row>> backing) {
    if (control_->mountState() != MountState::mounted) {
      backing_ = std::move(backing);
      return;
    }
    const Role role = control_->role();
    const MountState state = backing->attach(role);
    if (role == Role::writer) {
      try {
        for (auto&& e : backing_->walk()) backing->put(e.key, e.value);
      } catch (...) {
        backing->detach();
        throw;
      }
    }
    backing_->detach();
    backing_ = std::move(backing);
    control_->mountStateIs(state);
  }
  // Attaches the table to its memory. A writer starts from an empty table: rows that a previous
  // writer left behind are its own to republish (a shared-memory table is emptied on attaching).
  // A reader of a shared-memory table stays unmounted until a writer has attached (poll()
  // tells).
  void mount(Role role) {
    control_->roleIs(role);
    control_->mountStateIs(backing_->attach(role));
  }
  void unmount() {
    backing_->detach();
    control_->mountStateIs(MountState::unmounted);
  }
  // A reader in another process than the writer's drains what changed since its last poll, from
  // its own event loop: onKey(k) per changed key, onAll() when every row may have changed,
  // onMount() after the mount state changed. Answers the number of reports.
  template <class OnKey, class OnAll, class OnMount>
  std::size_t poll(OnKey&& onKey, OnAll&& onAll, OnMount&& onMount) {
    struct To : Changes<K> {
      Table& t;
      OnKey& k;
      OnAll& a;
      OnMount& m;
      To(Table& table, OnKey& ok, OnAll& oa, OnMount& om) : t(table), k(ok), a(oa), m(om) {}
      void key(const K& key) override { k(key); }
      void all() override { a(); }
      void mount(MountState s) override {
        t.control_->mountStateIs(s);
        m();
      }
    } to(*this, onKey, onAll, onMount);
    return backing_->poll(to);
  }

  void put(const K& k, const Row& row) {
    writable();
    backing_->put(k, row);
  }
  bool erase(const K& k) {
    writable();
    return backing_->erase(k);
  }
  void clear() {
    writable();
    backing_->clear();
  }
  Lookup<Row> find(const K& k) const { return backing_->find(k); }
  // Marks the row of k corrupt: lookups of k raise CorruptionException until it is rewritten.
  void corruptIs(const K& k) { backing_->corruptIs(k); }
  std::size_t size() const { return backing_->size(); }
  RowWalk<K, Row> walk() const { return backing_->walk(); }

 private:
  void writable() const {
    KIV_ASSERT_TEXT(
        control_->mountState() == MountState::mounted && control_->role() == Role::writer,
        "table mounted as writer");
  }
  std::unique_ptr<Backing<K, Row>> backing_;
  Kiv::Ptr<TableControl> control_;
};

}  // namespace Shoal
