#pragma once
// Shoal::SharedMemoryBacking: a table's rows in a POSIX shared-memory segment that readers in
// other processes attach by (agent, table), one segment per table (Shoal/Segment.h).
//
//   auto backing = std::make_unique<Shoal::SharedMemoryBacking<TunnelId, Row>>("ObaEvpn",
//                                                                          "tunnelIdMap", 4096);
//   mapping->tunnelIdToHwTunnelIdBackingIs(std::move(backing));      // before mounting
//   mapping->tunnelIdToHwTunnelIdMount(Shoal::Role::writer);         // or reader, in another
//   process
//   ... in the reader's event loop: mapping->tunnelIdToHwTunnelIdPoll();
//
// What may live in shared memory: keys and rows that are trivially copyable (they travel as their
// bytes; no pointers, no owned storage such as std::string or std::vector), with an equality and
// a hash that are the same in every process (no per-process seed, no address). A row type may
// name its layout version, `static constexpr std::uint32_t shoalLayoutVersion`, to bump when its
// fields change while its size does not; a reader refuses a segment of another key size, row size
// or layout version (its table goes failed) rather than read it.
//
// Capacity is fixed when the segment is made: a writer's insert beyond it raises
// Shoal::CapacityException.
//
// A reader trusts no byte of the segment (Shoal/Segment.h). Beyond what the segment checks on its
// own, `Check` says which keys and rows are values of their types at all:
//   static std::string why(const K& key, const Row* row);  // "" when well formed; row null: a key
// It is given copies made byte for byte, before anything else uses them; a field whose type has
// values that not every bit pattern is (a bool, a range-checked number) is checked there, on its
// bytes where reading it as its type would already be wrong.

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "Shoal/Segment.h"
#include "Shoal/Table.h"

namespace Shoal {

// Any bytes of the right size are a key and a row.
template <class K, class Row>
struct AnyBytes {
  static std::string why(const K&, const Row*) { return ""; }
};

template <class K, class Row, class Check = AnyBytes<K, Row>>
class SharedMemoryBacking : public Backing<K, Row> {
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<Row>,
                "a shared-memory table's keys and rows are trivially copyable");

 public:
  // `logCapacity` 0: as many change-log entries as rows (at least 256), rounded up to a power of
  // two.
  SharedMemoryBacking(const std::string& agent, const std::string& table, std::uint32_t capacity,
                      std::uint32_t logCapacity = 0)
      : segment_(agent, table, shapeOf(capacity, logCapacity)) {
    segment_.rowCheckIs(Segment::RowCheck{&why, &hashOfBytes});
  }

  Segment& segment() { return segment_; }
  const Segment& segment() const { return segment_; }

  MountState attach(Role role) override {
    segment_.detach();
    if (role == Role::writer) {
      segment_.attachWriter();
    } else {
      segment_.attachReader();
    }
    return segment_.mountState();
  }
  void detach() override { segment_.detach(); }
  std::size_t poll(Changes<K>& changes) override {
    struct Decode : Segment::Changes {
      Shoal::Changes<K>& to;
      explicit Decode(Shoal::Changes<K>& c) : to(c) {}
      void key(const void* k) override { to.key(fromBytes<K>(k)); }
      void all() override { to.all(); }
      void mount(MountState s) override { to.mount(s); }
    } decode(changes);
    return segment_.poll(decode);
  }

  void put(const K& k, const Row& row) override { segment_.put(&k, hashOf(k), &row, &keyEq); }
  bool erase(const K& k) override { return segment_.erase(&k, hashOf(k), &keyEq); }
  void clear() override { segment_.clear(); }
  Lookup<Row> find(const K& k) const override {
    Lookup<Row> out;
    switch (segment_.find(&k, hashOf(k), &keyEq, &out.row)) {
      case Segment::Read::found:
        out.found = true;
        break;
      case Segment::Read::corrupt:
        throw CorruptionException(corruptRowText(k));
      case Segment::Read::absent:
        break;
    }
    return out;
  }
  void corruptIs(const K& k) override { segment_.corruptIs(&k, hashOf(k), &keyEq); }
  std::size_t size() const override { return segment_.size(); }
  bool walkNext(std::size_t& pos, Kiv::Entry<K, Row>& out) const override {
    return segment_.walkNext(pos, &out.key, &out.value);
  }

 private:
  // A copy made byte for byte: no value of T is read from the bytes, so bytes that are no T are
  // copied without harm and left for Check to judge.
  template <class T>
  struct Copy {
    explicit Copy(const void* p) { std::memcpy(&bytes, p, sizeof(T)); }
    const T& value() const { return *std::launder(reinterpret_cast<const T*>(&bytes)); }
    alignas(T) unsigned char bytes[sizeof(T)];
  };
  template <class T>
  static T fromBytes(const void* p) {
    return Copy<T>(p).value();
  }
  static std::string why(const void* key, const void* row) {
    Copy<K> k(key);
    if (!row) return Check::why(k.value(), nullptr);
    Copy<Row> r(row);
    return Check::why(k.value(), &r.value());
  }
  static std::uint32_t hashOfBytes(const void* key) { return hashOf(Copy<K>(key).value()); }
  static bool keyEq(const void* stored, const void* wanted) {
    return fromBytes<K>(stored) == *static_cast<const K*>(wanted);
  }
  static std::uint32_t hashOf(const K& k) {
    return static_cast<std::uint32_t>(Kiv::DefaultHash<K>()(k));
  }
  static SegmentShape shapeOf(std::uint32_t capacity, std::uint32_t logCapacity) {
    std::uint32_t rowLayout = 0;
    if constexpr (requires { Row::shoalLayoutVersion; }) rowLayout = Row::shoalLayoutVersion;
    if (!logCapacity) {
      logCapacity = 256;
      while (logCapacity < capacity) logCapacity <<= 1;
    }
    return SegmentShape{sizeof(K), sizeof(Row), rowLayout, capacity, logCapacity};
  }

  Segment segment_;
};

}  // namespace Shoal
