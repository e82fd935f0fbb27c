#pragma once
// The layer-2 RIB's flood sets: per VLAN, per flood MAC address, the destinations that flooded
// traffic is sent to. The RIB publishes one FloodSetOutput; agents watch it (and may publish
// derived ones, a flood set filtered to one destination type for instance).
//
//   Kiv::Ptr<L2Rib::FloodSetOutput> out = new L2Rib::FloodSetOutput("l2RibFloodSet");
//   auto fs = out->vlanFloodSetIs(Bridging::VlanId(10))->floodSetIs(Quil::EthAddr::broadcast());
//   fs->floodSetTypeIs(L2Rib::floodSetTypeBroadcast_);
//   fs->destSetIs(L2Rib::Dest::tunnel(tunnelId), true);
//
// Every level is watched: a FloodSetOutput tells onSource() and onVlanFloodSet(vlan), a
// VlanFloodSet onFloodSet(mac), a FloodSet onFloodSetType() and onDestSet(dest).

#include <cstdint>

#include "Bridging/VlanId.h"
#include "Kiv/Entity.h"
#include "Kiv/Types.h"
#include "L2Rib/Dest.h"
#include "Quil/EthAddr.h"

namespace L2Rib {

// The flood set of one MAC address (the broadcast address for broadcast and unknown traffic): the
// kind of traffic it carries and its destinations, each with a flag set by the RIB.
class FloodSet : public Kiv::Entity<FloodSet> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<FloodSet> {
   public:
    KIV_NOTIFIEE_SCALAR(FloodSetType)
    KIV_NOTIFIEE_COLLECTION(destSet, DestSet, Dest)
  };

  explicit FloodSet(const Quil::EthAddr& macAddr);

  KIV_KEY(macAddr, Quil::EthAddr)
  KIV_WATCHED_SCALAR(floodSetType, FloodSetType, FloodSetType, floodSetTypeUnknown_)
  KIV_WATCHED_COLLECTION(destSet, DestSet, Dest, bool)
};

// The flood sets of one VLAN, by MAC address.
class VlanFloodSet : public Kiv::Entity<VlanFloodSet> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<VlanFloodSet> {
   public:
    KIV_NOTIFIEE_COLLECTION(floodSet, FloodSet, Quil::EthAddr)
  };

  explicit VlanFloodSet(const Bridging::VlanId& vlanId);

  KIV_KEY(vlanId, Bridging::VlanId)
  KIV_WATCHED_CHILD_COLLECTION(floodSet, FloodSet, Quil::EthAddr, FloodSet)
};

// One published flood-set table: its name, the id of the source that produced its content, and
// the flood sets of every VLAN.
class FloodSetOutput : public Kiv::Entity<FloodSetOutput> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<FloodSetOutput> {
   public:
    KIV_NOTIFIEE_SCALAR(Source)
    KIV_NOTIFIEE_COLLECTION(vlanFloodSet, VlanFloodSet, Bridging::VlanId)
  };

  explicit FloodSetOutput(Kiv::Name name);
  const Kiv::Name& name() const { return name_; }

  KIV_WATCHED_SCALAR(source, Source, std::uint32_t, 0)
  KIV_WATCHED_CHILD_COLLECTION(vlanFloodSet, VlanFloodSet, Bridging::VlanId, VlanFloodSet)

 private:
  Kiv::Name name_;
};

}  // namespace L2Rib
