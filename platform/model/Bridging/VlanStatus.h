#pragma once
// The bridging agent's VLAN status: per VLAN in use, the interfaces that are members of it.

#include "Bridging/VlanId.h"
#include "Kiv/Entity.h"
#include "Quil/IntfId.h"

namespace Bridging {

// One VLAN: its member interfaces (a LAG is a member as itself, not through its ports).
class VlanStatus : public Kiv::Entity<VlanStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<VlanStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(vlanPortStatus, VlanPortStatus, Quil::IntfId)
  };
  explicit VlanStatus(const VlanId& vlanId) : vlanId_(vlanId) {}
  KIV_KEY(vlanId, VlanId)
  // Member interface -> whether it forwards in the VLAN; membership is presence.
  KIV_WATCHED_COLLECTION(vlanPortStatus, VlanPortStatus, Quil::IntfId, bool)
};

// The directory of VLAN status entities, one per VLAN in use.
class VlanStatusDir : public Kiv::Entity<VlanStatusDir> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<VlanStatusDir> {
   public:
    KIV_NOTIFIEE_COLLECTION(vlanStatus, VlanStatus, VlanId)
  };
  KIV_WATCHED_CHILD_COLLECTION(vlanStatus, VlanStatus, VlanId, VlanStatus)
};

}  // namespace Bridging
