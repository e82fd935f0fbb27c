#pragma once
// The records through which the MPLS flood-set machines and the chip layer exchange the
// broadcast/unknown/multicast flood lists of EVPN VLANs whose remote members sit behind MPLS
// tunnels.
//
// A remote member is a (tunnel, label) pair, the MplsFloodSetVia. The FEC machine programs each via
// and publishes the chip's identifiers for it in HwInfoMapping; the VLAN flood-set machine joins
// them with the hardware tunnel id into one MplsDestConfig per member, writes the members of each
// (VLAN, MAC) flood list into EvpnVlanFloodSetHwConfig, and reads the chip's per-member results
// back from EvpnVlanFloodSetHwStatus:
//
//   auto config = hwConfig->configIs(Bridging::MacVlanPair{vlan, Quil::EthAddr::broadcast()});
//   config->mplsDestConfigIs(MplsDestConfig(tunnelId, label, hwTunnelId, hwId, l2IntfId), true);
//
// Every field of an MplsDestConfig is part of the member's identity: when a member's hardware
// identifiers are re-resolved it becomes a new member (a new key), never an update in place.
//
// The four index entities at the end are the machines' own bookkeeping and notify nobody.

#include <array>
#include <cstdint>

#include "Bridging/MacVlanPair.h"
#include "Bridging/VlanId.h"
#include "Kiv/Entity.h"
#include "L2Rib/Dest.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaValue.h"
#include "Quil/EthAddr.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

// ---- values ---------------------------------------------------------------------------------

// One remote flood destination as the FEC side sees it: a tunnel and the label beneath it.
struct MplsFloodSetViaFields {
  static constexpr const char* typeName = "Oba::MplsFloodSetVia";
  static constexpr std::array<const char*, 2> names{"tunnelId", "label"};
};
class OBA_EXPORT MplsFloodSetVia : public Value<MplsFloodSetVia, MplsFloodSetViaFields,
                                                Tunnel::TunnelTable::TunnelId, Quil::MplsLabel> {
 public:
  using Value::Value;
  Tunnel::TunnelTable::TunnelId tunnelId() const { return field<0>(); }
  Quil::MplsLabel label() const { return field<1>(); }
};

// What the chip layer answered for a via's FEC: the identifier to program flooded copies with
// (0 while unset) and the layer-2 interface behind it (empty while the answer is not ready).
struct MplsDestHwInfoFields {
  static constexpr const char* typeName = "Oba::MplsDestHwInfo";
  static constexpr std::array<const char*, 2> names{"hwIdForTunnelProgramming", "l2IntfId"};
};
class OBA_EXPORT MplsDestHwInfo
    : public Value<MplsDestHwInfo, MplsDestHwInfoFields, std::uint64_t, Quil::IntfId> {
 public:
  using Value::Value;
  std::uint64_t hwIdForTunnelProgramming() const { return field<0>(); }
  Quil::IntfId l2IntfId() const { return field<1>(); }
};

// One fully resolved member of a VLAN's hardware flood list. The default (no label, no
// identifiers, no interface) is the empty member.
struct MplsDestConfigFields {
  static constexpr const char* typeName = "Oba::MplsDestConfig";
  static constexpr std::array<const char*, 5> names{"tunnelId", "label", "hwTunnelId",
                                                    "hwIdForTunnelProgramming", "l2IntfId"};
};
class OBA_EXPORT MplsDestConfig
    : public Value<MplsDestConfig, MplsDestConfigFields, Tunnel::TunnelTable::TunnelId,
                   Quil::MplsLabel, HwTunnelId, std::uint64_t, Quil::IntfId> {
 public:
  using Value::Value;
  Tunnel::TunnelTable::TunnelId tunnelId() const { return field<0>(); }
  Quil::MplsLabel label() const { return field<1>(); }
  HwTunnelId hwTunnelId() const { return field<2>(); }
  std::uint64_t hwIdForTunnelProgramming() const { return field<3>(); }
  Quil::IntfId l2IntfId() const { return field<4>(); }
};

// One member of one flood list as the layer-2 RIB names it: the flood list is (VLAN, MAC), the
// member its remote destination (here an MPLS destination: tunnel and label).
struct VlanMacDestFields {
  static constexpr const char* typeName = "Oba::VlanMacDest";
  static constexpr std::array<const char*, 3> names{"vlanId", "macAddr", "dest"};
};
class OBA_EXPORT VlanMacDest
    : public Value<VlanMacDest, VlanMacDestFields, Bridging::VlanId, Quil::EthAddr, L2Rib::Dest> {
 public:
  using Value::Value;
  Bridging::VlanId vlanId() const { return field<0>(); }
  Quil::EthAddr macAddr() const { return field<1>(); }
  const L2Rib::Dest& dest() const { return field<2>(); }
};

}  // namespace Oba

OBA_VALUE_STD_HASH(Oba::MplsFloodSetVia)
OBA_VALUE_STD_HASH(Oba::MplsDestHwInfo)
OBA_VALUE_STD_HASH(Oba::MplsDestConfig)
OBA_VALUE_STD_HASH(Oba::VlanMacDest)

namespace Oba {

// ---- the hardware flood lists ---------------------------------------------------------------

// The members the VLAN flood-set machine wants in one (VLAN, MAC) flood list; the chip layer
// watches it. A set: a member is present or not.
class OBA_EXPORT VlanFloodSetConfig : public Kiv::Entity<VlanFloodSetConfig> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<VlanFloodSetConfig> {
   public:
    KIV_NOTIFIEE_COLLECTION(mplsDestConfig, MplsDestConfig, Oba::MplsDestConfig)
  };

  explicit VlanFloodSetConfig(const Bridging::MacVlanPair& macVlanPair);
  ~VlanFloodSetConfig() override;

  KIV_KEY(macVlanPair, Bridging::MacVlanPair)
  KIV_WATCHED_COLLECTION(mplsDestConfig, MplsDestConfig, Oba::MplsDestConfig, bool)
};

// The chip layer's result for each member of the same flood list that it has acted on.
class OBA_EXPORT VlanFloodSetStatus : public Kiv::Entity<VlanFloodSetStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<VlanFloodSetStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(mplsDestStatus, MplsDestStatus, Oba::MplsDestConfig)
  };

  explicit VlanFloodSetStatus(const Bridging::MacVlanPair& macVlanPair);
  ~VlanFloodSetStatus() override;

  KIV_KEY(macVlanPair, Bridging::MacVlanPair)
  KIV_WATCHED_COLLECTION(mplsDestStatus, MplsDestStatus, Oba::MplsDestConfig, HwProgrammingStatus)
};

// Every flood list the VLAN flood-set machine programs; configIs(macVlanPair) returns the list of
// that key, creating it if needed.
class OBA_EXPORT EvpnVlanFloodSetHwConfig : public Kiv::Entity<EvpnVlanFloodSetHwConfig> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EvpnVlanFloodSetHwConfig> {
   public:
    KIV_NOTIFIEE_COLLECTION(config, Config, Bridging::MacVlanPair)
  };

  EvpnVlanFloodSetHwConfig();
  ~EvpnVlanFloodSetHwConfig() override;

  KIV_WATCHED_CHILD_COLLECTION(config, Config, Bridging::MacVlanPair, VlanFloodSetConfig)
};

// Every flood list the chip layer reports on; statusIs(macVlanPair) returns the report of that
// key, creating it if needed.
class OBA_EXPORT EvpnVlanFloodSetHwStatus : public Kiv::Entity<EvpnVlanFloodSetHwStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EvpnVlanFloodSetHwStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(status, Status, Bridging::MacVlanPair)
  };

  EvpnVlanFloodSetHwStatus();
  ~EvpnVlanFloodSetHwStatus() override;

  KIV_WATCHED_CHILD_COLLECTION(status, Status, Bridging::MacVlanPair, VlanFloodSetStatus)
};

// The chip's identifiers for each programmed via, published by the FEC machine.
class OBA_EXPORT HwInfoMapping : public Kiv::Entity<HwInfoMapping> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<HwInfoMapping> {
   public:
    KIV_NOTIFIEE_COLLECTION(mapping, Mapping, Oba::MplsFloodSetVia)
  };

  HwInfoMapping();
  ~HwInfoMapping() override;

  KIV_WATCHED_COLLECTION(mapping, Mapping, Oba::MplsFloodSetVia, MplsDestHwInfo)
};

// ---- the machines' indexes ------------------------------------------------------------------

// The flood-list members that go over one tunnel.
class OBA_EXPORT TunnelVlanMacDestSet : public Kiv::PtrInterface {
 public:
  explicit TunnelVlanMacDestSet(const Tunnel::TunnelTable::TunnelId& tunnelId);
  ~TunnelVlanMacDestSet() override;

  KIV_KEY(tunnelId, Tunnel::TunnelTable::TunnelId)
  KIV_COLLECTION(vlanMacDestSet, VlanMacDest, bool)
};

// The flood-list members that use one via.
class OBA_EXPORT MplsFloodSetViaToVlanMacDestSet : public Kiv::PtrInterface {
 public:
  explicit MplsFloodSetViaToVlanMacDestSet(const MplsFloodSetVia& via);
  ~MplsFloodSetViaToVlanMacDestSet() override;

  KIV_KEY(via, MplsFloodSetVia)
  KIV_COLLECTION(vlanMacDestSet, VlanMacDest, bool)
};

// The vias over one tunnel.
class OBA_EXPORT TunnelIdToMplsFloodSetVia : public Kiv::PtrInterface {
 public:
  explicit TunnelIdToMplsFloodSetVia(const Tunnel::TunnelTable::TunnelId& tunnelId);
  ~TunnelIdToMplsFloodSetVia() override;

  KIV_KEY(tunnelId, Tunnel::TunnelTable::TunnelId)
  KIV_COLLECTION(mplsFloodSetViaSet, MplsFloodSetVia, bool)
};

// The flood lists whose chip status involves one via.
class OBA_EXPORT MplsFloodSetViaToFloodSetStatus : public Kiv::PtrInterface {
 public:
  explicit MplsFloodSetViaToFloodSetStatus(const MplsFloodSetVia& via);
  ~MplsFloodSetViaToFloodSetStatus() override;

  KIV_KEY(via, MplsFloodSetVia)
  KIV_COLLECTION(status, Bridging::MacVlanPair, bool)
};

}  // namespace Oba
