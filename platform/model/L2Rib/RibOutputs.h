#pragma once
// The layer-2 RIB's MAC-address forwarding outputs: per host (a MAC in a VLAN) the object it
// points at, and the label, load-balance and destination tables that resolve that object into
// paths. Each is a Shoal table that the RIB agent writes and forwarding agents read:
//
//   Kiv::Ptr<L2Rib::LabelOutput> labels = new L2Rib::LabelOutput("l2RibLabel");
//   labels->labelIs(L2Rib::LabelId(7),
//                   L2Rib::Label(Quil::MplsLabel(1001), L2Rib::ObjTuple::dest(L2Rib::DestId(3))));
//   hosts->hostIs(macVlan, L2Rib::HostAndSource(L2Rib::ObjTuple::label(L2Rib::LabelId(7))));
//
// A reader's lookup of an absent key answers the default value (found false); a corrupt row
// raises Shoal::CorruptionException.

#include <cstdint>
#include <ostream>
#include <utility>
#include <vector>

#include "Bridging/MacVlanPair.h"
#include "Kiv/Entity.h"
#include "Kiv/Types.h"
#include "L2Rib/Dest.h"
#include "L2Rib/ObjTuple.h"
#include "L2Rib/RibId.h"
#include "Quil/MplsLabel.h"
#include "Shoal/KivShoal.h"

namespace L2Rib {

// An MPLS label pushed on the way to the next object (a destination or a load balance). The
// default (no label, no next object) is what a reader gets for an absent label.
class Label {
 public:
  Label() = default;
  Label(Quil::MplsLabel mplsLabel, ObjTuple next) : next_(next), mplsLabel_(mplsLabel) {}
  Quil::MplsLabel mplsLabel() const { return mplsLabel_; }
  ObjTuple next() const { return next_; }
  bool operator==(const Label&) const = default;

 private:
  ObjTuple next_;
  Quil::MplsLabel mplsLabel_;
};
std::ostream& operator<<(std::ostream& os, const Label& l);

// An ECMP group: the next objects in path order.
class LoadBalance {
 public:
  LoadBalance() = default;
  explicit LoadBalance(std::vector<ObjTuple> next) : next_(std::move(next)) {}
  const std::vector<ObjTuple>& next() const { return next_; }
  bool operator==(const LoadBalance&) const = default;

 private:
  std::vector<ObjTuple> next_;
};
std::ostream& operator<<(std::ostream& os, const LoadBalance& lb);

// What the RIB knows of one host: the object it forwards to, and which source the entry came from.
class HostAndSource {
 public:
  HostAndSource() = default;
  explicit HostAndSource(ObjTuple objTuple, std::uint32_t source = 0)
      : objTuple_(objTuple), source_(source) {}
  ObjTuple objTuple() const { return objTuple_; }
  std::uint32_t source() const { return source_; }
  bool operator==(const HostAndSource&) const = default;

 private:
  ObjTuple objTuple_;
  std::uint32_t source_ = 0;
};
std::ostream& operator<<(std::ostream& os, const HostAndSource& h);

// Each table is mounted for writing by the entity's maker: in the switch, the RIB agent.
class LabelOutput : public Kiv::Entity<LabelOutput> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<LabelOutput> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(label, Label, LabelId)
  };
  explicit LabelOutput(Kiv::Name name) : name_(std::move(name)) { labelMount(Shoal::Role::writer); }
  const Kiv::Name& name() const { return name_; }
  KIV_SHOAL_MAP(label, Label, LabelId, Label)

 private:
  Kiv::Name name_;
};

class LoadBalanceOutput : public Kiv::Entity<LoadBalanceOutput> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<LoadBalanceOutput> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(loadBalance, LoadBalance, LoadBalanceId)
  };
  explicit LoadBalanceOutput(Kiv::Name name) : name_(std::move(name)) {
    loadBalanceMount(Shoal::Role::writer);
  }
  const Kiv::Name& name() const { return name_; }
  KIV_SHOAL_MAP(loadBalance, LoadBalance, LoadBalanceId, LoadBalance)

 private:
  Kiv::Name name_;
};

class DestOutput : public Kiv::Entity<DestOutput> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<DestOutput> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(dest, Dest, DestId)
  };
  explicit DestOutput(Kiv::Name name) : name_(std::move(name)) { destMount(Shoal::Role::writer); }
  const Kiv::Name& name() const { return name_; }
  KIV_SHOAL_MAP(dest, Dest, DestId, Dest)

 private:
  Kiv::Name name_;
};

class HostOutput : public Kiv::Entity<HostOutput> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<HostOutput> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(host, Host, Bridging::MacVlanPair)
  };
  explicit HostOutput(Kiv::Name name) : name_(std::move(name)) { hostMount(Shoal::Role::writer); }
  const Kiv::Name& name() const { return name_; }
  KIV_SHOAL_MAP(host, Host, Bridging::MacVlanPair, HostAndSource)

 private:
  Kiv::Name name_;
};

}  // namespace L2Rib
