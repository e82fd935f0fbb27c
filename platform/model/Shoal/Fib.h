#pragma once
// Shoal::Fib: the forwarding-equivalence classes that agents ask the chip layer to program.
//
// A FEC is a FecId and its vias, one per ECMP member, each at an EcmpIndex. A via either goes out
// directly (an MPLS label pushed over a tunnel) or resolves through another FEC (hierarchical: a
// label pushed on top of what the other FEC does).
//
//   Shoal::Fib::Fec fec(Shoal::Fib::FecId::encode(Shoal::Fib::FecIdAdjType::tunnel, 7));
//   fec.viaIs(Shoal::Fib::Via(Shoal::Fib::EcmpIndex(0), Quil::MplsLabel(1001), tunnelId));
//
// A FecId keeps its adjacency type in bits 59 and up and a number of the owner's allocator below:
// encode(tunnel, 7) is 0x0800000000000007. FecId::invalid() (all bits set) is what an owner holds
// when its allocator had no number to give.
//
// Header-only. The types keep the namespace of the table library that carries FEC requests, by
// which agents know them, but they are value types made of the model's labels and tunnel ids: they
// live with the model, above the table library, which knows nothing of labels or tunnels.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <ostream>
#include <vector>

#include "Kiv/Types.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"

namespace Shoal::Fib {

// The kind of adjacency a FEC stands for, kept in the FEC id's top bits.
enum class FecIdAdjType : std::uint8_t { none = 0, tunnel = 1 };

class FecId {
 public:
  static constexpr int adjTypeShift = 59;
  static constexpr std::uint64_t numberMask = (1ull << adjTypeShift) - 1;

  constexpr FecId() = default;
  explicit constexpr FecId(std::uint64_t value) : value_(value) {}
  // The id of allocator number `number` (below 2^59) for an adjacency of type `t`.
  static constexpr FecId encode(FecIdAdjType t, std::uint64_t number) {
    return FecId((std::uint64_t(t) << adjTypeShift) | (number & numberMask));
  }
  static constexpr FecId invalid() { return FecId(~0ull); }

  constexpr std::uint64_t value() const { return value_; }
  constexpr std::uint64_t number() const { return value_ & numberMask; }
  constexpr FecIdAdjType adjType() const { return FecIdAdjType(value_ >> adjTypeShift); }
  constexpr bool isValid() const { return value_ != 0 && value_ != ~0ull; }

  std::uint32_t hash() const { return Kiv::HashMixer().add64(value_).result(); }
  constexpr bool operator==(const FecId&) const = default;
  constexpr auto operator<=>(const FecId&) const = default;

 private:
  std::uint64_t value_ = 0;
};

// "FecId(0x800000000000007)"
inline std::ostream& operator<<(std::ostream& os, FecId id) {
  char buf[32];
  int n =
      std::snprintf(buf, sizeof buf, "FecId(0x%llx)", static_cast<unsigned long long>(id.value()));
  return os.write(buf, n);
}

// The position of a via in its FEC's ECMP group.
class EcmpIndex {
 public:
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t max = 255;

  constexpr EcmpIndex() = default;
  // Raises Kiv::RangeException
  // "EcmpIndex::value < EcmpIndex::min or > EcmpIndex::max not allowed" out of range.
  explicit constexpr EcmpIndex(std::uint32_t value) : value_(static_cast<std::uint16_t>(value)) {
    if (value > max) {
      throw Kiv::RangeException(
          "EcmpIndex::value < EcmpIndex::min or > EcmpIndex::max not allowed");
    }
  }
  constexpr std::uint32_t value() const { return value_; }
  constexpr bool operator==(const EcmpIndex&) const = default;
  constexpr auto operator<=>(const EcmpIndex&) const = default;

 private:
  std::uint16_t value_ = 0;
};

// What a via does with its MPLS label.
enum class LabelAction : std::uint8_t { none = 0, push = 1 };

class Via {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;

  Via() = default;
  // Out over a tunnel (an invalid tunnel id while the destination is not known) under a label.
  Via(EcmpIndex index, Quil::MplsLabel mplsLabel, TunnelId tunnelId)
      : tunnelId_(tunnelId),
        index_(index),
        mplsLabel_(mplsLabel),
        labelAction_(actionOf(mplsLabel)) {}
  // Through another FEC, with a label pushed on top.
  static Via hierarchical(EcmpIndex index, Quil::MplsLabel mplsLabel, FecId fecId) {
    Via v(index, mplsLabel, TunnelId());
    v.fecId_ = fecId;
    return v;
  }

  EcmpIndex index() const { return index_; }
  Quil::MplsLabel mplsLabel() const { return mplsLabel_; }
  LabelAction labelAction() const { return labelAction_; }
  TunnelId tunnelId() const { return tunnelId_; }
  // The FEC this via resolves through; the default id for a direct via.
  FecId fecId() const { return fecId_; }

  bool operator==(const Via&) const = default;

 private:
  static LabelAction actionOf(Quil::MplsLabel l) {
    return l.isNoLabel() ? LabelAction::none : LabelAction::push;
  }
  TunnelId tunnelId_;
  FecId fecId_;
  EcmpIndex index_;
  Quil::MplsLabel mplsLabel_;
  LabelAction labelAction_ = LabelAction::none;
};

// "via(0, 1001, Tunnel1.7)" or "via(0, 1001, FecId(0x800000000000007))"
inline std::ostream& operator<<(std::ostream& os, const Via& v) {
  os << "via(" << v.index().value() << ", " << v.mplsLabel() << ", ";
  if (v.fecId().value()) return os << v.fecId() << ")";
  return os << v.tunnelId() << ")";
}

class Fec {
 public:
  Fec() = default;
  explicit Fec(FecId fecId) : fecId_(fecId) {}

  FecId fecId() const { return fecId_; }
  FecId key() const { return fecId_; }
  // The vias in index order.
  const std::vector<Via>& via() const { return via_; }
  std::size_t vias() const { return via_.size(); }
  // Adds the via at its index, or replaces the via already there.
  void viaIs(const Via& v) {
    auto at = std::lower_bound(via_.begin(), via_.end(), v.index(),
                               [](const Via& a, EcmpIndex i) { return a.index() < i; });
    if (at != via_.end() && at->index() == v.index()) {
      *at = v;
    } else {
      via_.insert(at, v);
    }
  }

  bool operator==(const Fec&) const = default;

 private:
  FecId fecId_;
  std::vector<Via> via_;
};

// "Fec(FecId(0x800000000000007) [via(0, 1001, Tunnel1.7)])"
inline std::ostream& operator<<(std::ostream& os, const Fec& f) {
  os << "Fec(" << f.fecId() << " [";
  for (std::size_t i = 0; i < f.via().size(); ++i) os << (i ? ", " : "") << f.via()[i];
  return os << "])";
}

}  // namespace Shoal::Fib

template <>
struct std::hash<Shoal::Fib::FecId> {
  std::size_t operator()(Shoal::Fib::FecId v) const noexcept { return v.hash(); }
};
