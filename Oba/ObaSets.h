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
  KIV_BIT_COLLECTION(vlanId, Bridging::VlanId, bool)  // a LAG may carry every VLAN
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
  KIV_BIT_COLLECTION(vlanId, Bridging::VlanId, bool)
};

// Per (logical interface, VLAN): the physical ports programmed, and those the chip refused. A
// machine keeps one per pair it programs, hundreds of thousands at fabric scale, so it is a value
// held in the machine's row for the pair, with its ports inside it: a LAG has a few members,
// and the chip refuses a port seldom.
class IntfVlanStatus {
 public:
  explicit IntfVlanStatus(const IntfVlanKey& intfVlanKey) : intfVlanKey_(intfVlanKey) {}
  const IntfVlanKey& intfVlanKey() const { return intfVlanKey_; }
  const IntfVlanKey& fwkKey() const { return intfVlanKey_; }
  bool operator==(const IntfVlanStatus&) const = default;
  KIV_SMALL_COLLECTION(programmed, Quil::IntfId, bool, 2)
  KIV_SMALL_COLLECTION(unprogrammed, Quil::IntfId, bool, 0)

 private:
  IntfVlanKey intfVlanKey_;
};

}  // namespace Oba
