// The tunnel-id and ESI family's small worlds for `oba-evpn-sim explore`: each a table of its
// starting inputs and of the steps the explorer may take, in the scenario files' own words.
#include "sim/Explore.h"
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

namespace Sim {

std::vector<ExploreWorld> tunnelEsiWorlds() {
  return {
      worldOf("df-move",
              "a LAG of two ports and a plain port, both segments of one VLAN; two remote "
              "endpoints, a chip with one free hardware tunnel id; the designated forwarder moves, "
              "goes and comes back, a LAG member leaves, the chip refuses an ESI create once, or a "
              "port's for good",
              {"chipPool: 1", "lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet2]}",
               "localEsiLabel: {segment: Port-Channel1, label: mpls:2001}",
               "remoteEsiLabel: {segment: Port-Channel1, tep: DynTunnel1.1, label: mpls:1001}",
               "remoteEsiLabel: {segment: Port-Channel1, tep: DynTunnel1.2, label: mpls:1002}",
               "remoteEsiLabel: {segment: Ethernet3, tep: DynTunnel1.2, label: mpls:1003}"},
              {"designatedForwarder: {segment: Port-Channel1, vlan: 10, tep: DynTunnel1.1}",
               "designatedForwarder: {segment: Port-Channel1, vlan: 10, tep: DynTunnel1.2}",
               "designatedForwarderDel: {segment: Port-Channel1, vlan: 10}",
               "designatedForwarder: {segment: Ethernet3, vlan: 10, tep: DynTunnel1.2}",
               "designatedForwarderDel: {segment: Ethernet3, vlan: 10}",
               "lag: {lag: Port-Channel1, members: [Ethernet1]}",
               "lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet2]}",
               "remoteEsiLabel: {segment: Port-Channel1, tep: DynTunnel1.1, label: mpls:1011}",
               "chipRefuse: {op: createEsiData, port: Ethernet2, times: 1}",
               "chipRefuse: {op: createEsiData, port: Ethernet1}"}),
      worldOf(
          "labels",
          "one segment on a plain port with one VLAN's designated forwarder; its local and "
          "remote ESI labels come, change (the remote one to another encapsulation too) and go, "
          "and the pool grows from none to one id",
          {"chipPool: 0", "designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}"},
          {"localEsiLabel: {segment: Ethernet1, label: mpls:2001}",
           "localEsiLabel: {segment: Ethernet1, label: mpls:2002}", "localEsiLabelDel: Ethernet1",
           "remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1001}",
           "remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1002}",
           "remoteEsiLabelDel: {segment: Ethernet1, tep: DynTunnel1.1}",
           "remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: vxlan:5001}",
           "chipPool: 1", "designatedForwarderDel: {segment: Ethernet1, vlan: 10}"}),
  };
}

}  // namespace Sim
