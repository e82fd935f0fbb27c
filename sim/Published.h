#pragma once
// The tables a simulated agent publishes in shared memory (oba-evpn-sim --publish NAME) and that
// oba-evpn-show reads from another process. Each family names its own tables once, in its folder,
// with their key and row types and how a row prints (sim/PublishedTable.h), so that the writer and
// every reader agree on each segment's layout; it lists them in Family::publishedTables().
//
// The library's own output tables (the tunnel-id mapping, the FEC requests, the results per RIB
// object) are Shoal tables: the agent moves them into shared memory as they are, and every write
// the machines make reaches readers at once. The flood lists, the chips' identifiers of each via
// and the unprogrammed routes are in-process collections in the library; the agent copies them
// into tables of their own after each step, each changed row once.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Collection.h"
#include "Shoal/SharedMemoryBacking.h"
#include "sim/Family.h"

namespace Sim {

// The rows a published table holds at most: every table of a simulated switch fits many times
// over. A segment's pages are touched only as rows fill them.
inline constexpr std::uint32_t publishedRows = 65536;

// A row as oba-evpn-show prints it: a cell per column. `row` null: the key's cells only (a row
// that is gone).
using Cells = std::vector<std::string>;

// Why the bytes of a key (and of its row; `row` null: a key alone) read from a table's segment are
// no values of the table's types, "" when they are: a reader checks every key and row before it
// sorts or prints them, and says which slot holds one that is not.
template <class T>
struct RowCheck {
  static std::string why(const typename T::Key& key, const typename T::Row* row);
};

// An agent's name: the rule, once for the simulator and the reader. Its tables are named
// "/shoal.<agent>.<table>" in shared memory (Shoal::segmentName), so the longest name an agent can
// have is what the longest table name leaves. Raises Shoal::SegmentException saying which rule
// the name breaks and why.
std::size_t maxAgentNameLength();
void checkAgentName(const std::string& agent);

// ---- the writer's side ------------------------------------------------------------------------

template <class T>
using PublishedBacking = Shoal::SharedMemoryBacking<typename T::Key, typename T::Row, RowCheck<T>>;

// The tables of one agent, published under its name. Made before the agent's first step, gone
// with the agent: a writer that leaves normally removes its segments.
class Publisher {
 public:
  explicit Publisher(std::string agent);
  ~Publisher();
  const std::string& agent() const { return agent_; }

  // A library table's backing in shared memory, for its entity's xBackingIs.
  template <class T>
  std::unique_ptr<Shoal::Backing<typename T::Key, typename T::Row>> backing() const {
    return std::make_unique<PublishedBacking<T>>(agent_, T::name, publishedRows);
  }

  // The rows an in-process collection holds now, as a mirror's `fill` puts them.
  template <class T>
  class Rows {
   public:
    explicit Rows(Kiv::HashMap<typename T::Key, typename T::Row>& rows) : rows_(rows) {}
    void put(const typename T::Key& k, const typename T::Row& r) { rows_.put(k, r); }

   private:
    Kiv::HashMap<typename T::Key, typename T::Row>& rows_;
  };
  // An in-process collection copied into a table of its own: `fill(rows)` puts the rows it holds
  // now; sync() writes what changed since the last sync.
  template <class T>
  void mirror(std::function<void(Rows<T>&)> fill) {
    mirrors_.push_back(std::make_unique<Mirror<T>>(agent_, std::move(fill)));
  }
  void sync();

 private:
  struct MirrorBase {
    virtual ~MirrorBase() = default;
    virtual void sync() = 0;
  };
  template <class T>
  struct Mirror : MirrorBase {
    using K = typename T::Key;
    using R = typename T::Row;
    Mirror(const std::string& agent, std::function<void(Rows<T>&)> f)
        : backing(agent, T::name, publishedRows), fill(std::move(f)) {
      backing.attach(Shoal::Role::writer);
    }
    void sync() override {
      wanted.clear();
      Rows<T> rows(wanted);
      fill(rows);
      gone.clear();
      for (auto [k, r] : backing.walk()) {
        if (!wanted.find(k)) gone.push_back(k);
      }
      for (const K& k : gone) backing.erase(k);
      for (auto [k, r] : wanted.walk()) {
        auto had = backing.find(k);
        if (!had.found || !(had.row == r)) backing.put(k, r);
      }
    }
    PublishedBacking<T> backing;
    std::function<void(Rows<T>&)> fill;
    Kiv::HashMap<K, R> wanted;
    std::vector<K> gone;
  };

  std::string agent_;
  std::vector<std::unique_ptr<MirrorBase>> mirrors_;
};

// ---- the reader's side ------------------------------------------------------------------------

// A published table as a reader in another process sees it.
class TableView {
 public:
  virtual ~TableView() = default;
  virtual std::vector<std::string> columns() const = 0;
  // Attaches read-only and takes in what the writer has done so far; answers the mount state
  // (unmounted: no writer has made the table).
  virtual Shoal::MountState attach() = 0;
  virtual bool writerAlive() const = 0;
  // Why the table is failed (another layout), for the error.
  virtual std::string error() const = 0;
  virtual std::string segmentName() const = 0;
  // How long reads wait for a writer in the middle of a change before calling it stuck.
  virtual void writerWaitIs(std::chrono::nanoseconds d) = 0;
  // Checks the whole segment (Shoal::Segment::verify); raises Shoal::CorruptionException naming
  // the first fault, Shoal::WriterStuckException for a writer stuck inside a change.
  virtual void verify() const = 0;
  // Every row now, sorted by key. Reads (rows, poll) raise Shoal::CorruptionException for a slot
  // or log entry found corrupt, Shoal::WriterStuckException for a stuck writer.
  virtual std::vector<Cells> rows() const = 0;
  // What changed since the last poll: a changed key's row (`gone` when deleted), every row again
  // after the writer restarted or the log lapped the reader, or a new mount state.
  struct Change {
    // stuck, corrupt: a read failed (Shoal::WriterStuckException, Shoal::CorruptionException);
    // cells holds its text. The changes before it are in order; a stuck change is read again at
    // the next poll, a corrupt one is passed.
    enum class Kind : std::uint8_t { row, gone, all, mount, stuck, corrupt } kind;
    Cells cells;
    Shoal::MountState mount = Shoal::MountState::unmounted;
  };
  virtual std::vector<Change> poll() = 0;
};

// The table of that name among those the families publish, or null.
std::optional<PublishedTableKind> publishedTable(const std::string& name,
                                                 const Families& families = registeredFamilies());

}  // namespace Sim
