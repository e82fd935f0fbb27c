#pragma once
// The composite keys of the machines' internal collections: an interface with a VLAN, with a
// tunnel, or with both. Each prints as Value('Oba::<Key>', ** {...}) and parses back.

#include <array>

#include "Bridging/VlanId.h"
#include "Oba/ObaValue.h"
#include "Quil/IntfId.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

struct IntfVlanKeyFields {
  static constexpr const char* typeName = "Oba::IntfVlanKey";
  static constexpr std::array<const char*, 2> names{"intfId", "vlanId"};
};
class IntfVlanKey : public Value<IntfVlanKey, IntfVlanKeyFields, Quil::IntfId, Bridging::VlanId> {
 public:
  using Value::Value;
  Quil::IntfId intfId() const { return field<0>(); }
  Bridging::VlanId vlanId() const { return field<1>(); }
};

struct IntfTunnelKeyFields {
  static constexpr const char* typeName = "Oba::IntfTunnelKey";
  static constexpr std::array<const char*, 2> names{"intfId", "tunnelId"};
};
class IntfTunnelKey : public Value<IntfTunnelKey, IntfTunnelKeyFields, Quil::IntfId,
                                   Tunnel::TunnelTable::TunnelId> {
 public:
  using Value::Value;
  Quil::IntfId intfId() const { return field<0>(); }
  Tunnel::TunnelTable::TunnelId tunnelId() const { return field<1>(); }
};

struct IntfVlanTunnelKeyFields {
  static constexpr const char* typeName = "Oba::IntfVlanTunnelKey";
  static constexpr std::array<const char*, 3> names{"intfId", "vlanId", "tunnelId"};
};
class IntfVlanTunnelKey : public Value<IntfVlanTunnelKey, IntfVlanTunnelKeyFields, Quil::IntfId,
                                       Bridging::VlanId, Tunnel::TunnelTable::TunnelId> {
 public:
  using Value::Value;
  Quil::IntfId intfId() const { return field<0>(); }
  Bridging::VlanId vlanId() const { return field<1>(); }
  Tunnel::TunnelTable::TunnelId tunnelId() const { return field<2>(); }
};

// The machines keep these by the hundred thousand: no padding beyond the VLAN's two bytes.
static_assert(sizeof(IntfVlanKey) == 12 && sizeof(IntfTunnelKey) == 16 &&
              sizeof(IntfVlanTunnelKey) == 20);

}  // namespace Oba

// The review queues hold pairs in key order, interface first, as one set of VLAN bits per
// interface (Kiv::OrderedBitMap).
template <>
struct Kiv::SplitKey<Oba::IntfVlanKey> {
  using Major = Quil::IntfId;
  using Minor = Bridging::VlanId;
  static Major major(const Oba::IntfVlanKey& k) { return k.intfId(); }
  static Minor minor(const Oba::IntfVlanKey& k) { return k.vlanId(); }
  static Oba::IntfVlanKey join(const Major& intf, const Minor& vlan) {
    return Oba::IntfVlanKey(intf, vlan);
  }
};

OBA_VALUE_STD_HASH(Oba::IntfVlanKey)
OBA_VALUE_STD_HASH(Oba::IntfTunnelKey)
OBA_VALUE_STD_HASH(Oba::IntfVlanTunnelKey)
