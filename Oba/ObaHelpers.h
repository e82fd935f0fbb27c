#pragma once
// The chip helper interfaces the EVPN state machines program the hardware through.
//
// The machines never touch the chip: each calls one of these, which the chip layer implements by
// deriving and overriding every operation. The classes here are complete but hardware-less: each
// operation returns its default when OBA_NOOP_AGENT is set (so an agent without a chip keeps
// everything "unprogrammed" and retries it) and otherwise aborts with "Unimplemented <operation>".
// Recording stubs for tests are in Oba/ObaHelperStubs.h.
//
// The order of the virtual operations below is part of the chip layer's binary interface: add new
// operations at the end only.

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Kiv/Types.h"
#include "Mpls/ReturnCode.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaBaseHelper.h"
#include "Oba/ObaExport.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"

namespace ObaHelper {

// Maps the ESI label of an Ethernet segment to the local port it belongs to, so that the chip can
// drop BUM traffic that a remote peer decapsulates back towards the segment it came from.
class OBA_EXPORT EsiFilteringDecapHelper : public Oba::ObaBaseHelper {
 public:
  explicit EsiFilteringDecapHelper(Kiv::Name name);

  // Without hardware: lfibHwProgrammingResourceFull, so the mapping is retried later.
  virtual Mpls::LfibHwProgrammingReturnCode createEsiPortMap(Quil::MplsLabel label,
                                                             Quil::IntfId intfId);
  virtual void deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId intfId);
};

// Programs BUM flooding: the VLAN to 802.1Q tag translation of a port, and the per-port, per-VLAN
// ESI data that the chip needs for split-horizon filtering towards the designated forwarder.
class OBA_EXPORT EvpnFloodingSmHelper : public Oba::ObaBaseHelper {
 public:
  explicit EvpnFloodingSmHelper(Kiv::Name name);

  // Without hardware: notProgrammed.
  virtual Oba::HwProgrammingStatus createVlanToDot1qMapping(Quil::IntfId intfId,
                                                            Bridging::VlanId vlanId,
                                                            Bridging::VlanIdOrNone dot1q);
  virtual void deleteVlanToDot1qMapping(Quil::IntfId intfId, Bridging::VlanId vlanId,
                                        Bridging::VlanIdOrNone dot1q);
  // Without hardware: notProgrammed. Its failure message names it "addEsiData".
  virtual Oba::HwProgrammingStatus createEsiData(Quil::IntfId intfId, Bridging::VlanId vlanId,
                                                 const Tunnel::TunnelTable::TunnelId& tunnelId,
                                                 Oba::HwTunnelId hwTunnelId, Quil::MplsLabel label,
                                                 Quil::MplsLabel secondLabel);
  virtual void deleteEsiData(Quil::IntfId intfId, Bridging::VlanId vlanId);
};

// Hands out the chip's hardware tunnel ids. The caller owns an id from getHwTunnelId() until it
// gives it back with releaseHwTunnelId().
class OBA_EXPORT EvpnHwTunnelIdSmHelper : public Oba::ObaBaseHelper {
 public:
  explicit EvpnHwTunnelIdSmHelper(Kiv::Name name);

  // Any free id; id 0 when none is free (and, without hardware, always).
  virtual Oba::HwTunnelId getHwTunnelId();
  virtual void releaseHwTunnelId(Oba::HwTunnelId hwTunnelId);
};

}  // namespace ObaHelper
