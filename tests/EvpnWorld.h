#pragma once
// The inputs and outputs a machine of the EVPN subsystem is built over, on a virtual clock.
#include "Bridging/VlanStatus.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Clock.h"
#include "Mox/TaskScheduler.h"
#include "Mpls/Lfib.h"
#include "Oba/ObaCommon.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"

struct EvpnWorld {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Oba::ObaCommonSmData> acsd = new Oba::ObaCommonSmData;
  Kiv::Ptr<Evpn::EvpnStatus> evpn = new Evpn::EvpnStatus;
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> mapping =
      new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId");
  Kiv::Ptr<Evpn::MplsConfig> mplsConfig = new Evpn::MplsConfig;
  Kiv::Ptr<Bridging::VlanStatusDir> vlans = new Bridging::VlanStatusDir;
  Kiv::Ptr<Mpls::LfibStatus> lfib = new Mpls::LfibStatus;
  Kiv::Ptr<Mpls::LfibTrackingStatus> lfibTracking = new Mpls::LfibTrackingStatus;
  Kiv::Ptr<Mpls::LfibHwStatus> lfibHw = new Mpls::LfibHwStatus;
};
