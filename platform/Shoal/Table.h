#pragma once
// Shoal: single-writer keyed tables that agents in other processes read.
//
// A table holds rows keyed by K; a row either carries its own key (row.key()) or is written under
// a key the writer gives. One agent mounts the table as its writer and inserts, overwrites and
// deletes rows; any number of readers look rows up and watch for changes. This version keeps the
// rows in process, behind Shoal::Backing, so a shared-memory backing can replace it without the
// writers and readers changing.
//
// A reader that meets a torn or corrupt row gets Shoal::CorruptionException from its lookup. The
// in-process backing cannot tear, so a test or a simulator marks a row corrupt on purpose
// (corruptIs(k)); the mark stays until the writer rewrites or deletes the row.
//
// An entity embeds a table with one line of the KivShoal glue (Shoal/KivShoal.h), which gives it
// the writer operations, the lookup and per-key notification of its notifiees.

#include <cstdint>
#include <memory>
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

// Where the rows live. The in-process backing below is the only one so far.
template <class K, class Row>
class Backing {
 public:
  virtual ~Backing() = default;
  virtual void put(const K& k, const Row& row) = 0;
  virtual bool erase(const K& k) = 0;
  virtual void clear() = 0;
  // Raises CorruptionException for a row found corrupt.
  virtual Lookup<Row> find(const K& k) const = 0;
  virtual void corruptIs(const K& k) = 0;
  virtual std::size_t size() const = 0;
  virtual typename Kiv::HashMap<K, Row>::Walk walk() const = 0;
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
  typename Kiv::HashMap<K, Row>::Walk walk() const override { return rows_.walk(); }

 private:
  Kiv::HashMap<K, Row> rows_;
  Kiv::HashMap<K, bool> corrupt_;
};

// One table: its rows and its control block. Writes require the table mounted as writer.
template <class K, class Row>
class Table {
 public:
  Table() : backing_(std::make_unique<HeapBacking<K, Row>>()), control_(new TableControl) {}

  const Kiv::Ptr<TableControl>& control() const { return control_; }
  // Attaches the table to its memory. A writer starts from an empty table: rows that a previous
  // writer left behind are its own to republish.
  void mount(Role role) {
    control_->roleIs(role);
    control_->mountStateIs(MountState::mounted);
  }
  void unmount() { control_->mountStateIs(MountState::unmounted); }

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
  typename Kiv::HashMap<K, Row>::Walk walk() const { return backing_->walk(); }

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
