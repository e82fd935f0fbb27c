#pragma once
// Membership sets that the machines keep per key: small owned entities created only through
// their owner's xIs(key). A key is a member when present, whatever its bool. They notify nobody.

#include "Bridging/VlanId.h"
#include "Kiv/Entity.h"
#include "Oba/ObaKeys.h"
#include "Quil/IntfId.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

// The VLANs of one interface.
class IntfVlanSet : public Kiv::PtrInterface {
 public:
  explicit IntfVlanSet(const Quil::IntfId& intfId) : intfId_(intfId) {}
  KIV_KEY(intfId, Quil::IntfId)
  KIV_COLLECTION(vlanId, Bridging::VlanId, bool)
};

// The interfaces of one VLAN.
class VlanIntfSet : public Kiv::PtrInterface {
 public:
  explicit VlanIntfSet(const Bridging::VlanId& vlanId) : vlanId_(vlanId) {}
  KIV_KEY(vlanId, Bridging::VlanId)
  KIV_COLLECTION(intfId, Quil::IntfId, bool)
};

// The (interface, VLAN) users of one tunnel.
class TunnelIntfVlanSet : public Kiv::PtrInterface {
 public:
  explicit TunnelIntfVlanSet(const Tunnel::TunnelTable::TunnelId& tunnelId) : tunnelId_(tunnelId) {}
  KIV_KEY(tunnelId, Tunnel::TunnelTable::TunnelId)
  KIV_COLLECTION(intfVlan, IntfVlanKey, bool)
};

// The VLANs of one interface that use one tunnel.
class IntfTunnelVlanSet : public Kiv::PtrInterface {
 public:
  explicit IntfTunnelVlanSet(const IntfTunnelKey& intfTunnelKey) : intfTunnelKey_(intfTunnelKey) {}
  KIV_KEY(intfTunnelKey, IntfTunnelKey)
  KIV_COLLECTION(vlanId, Bridging::VlanId, bool)
};

// Per (logical interface, VLAN): the physical ports programmed, and those the chip refused.
class IntfVlanStatus : public Kiv::PtrInterface {
 public:
  explicit IntfVlanStatus(const IntfVlanKey& intfVlanKey) : intfVlanKey_(intfVlanKey) {}
  KIV_KEY(intfVlanKey, IntfVlanKey)
  KIV_COLLECTION(programmed, Quil::IntfId, bool)
  KIV_COLLECTION(unprogrammed, Quil::IntfId, bool)
};

}  // namespace Oba
