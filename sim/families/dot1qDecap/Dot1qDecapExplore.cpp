// The dot1q and decapsulation family's small worlds for `oba-evpn-sim explore`: each a table of
// its starting inputs and of the steps the explorer may take, in the scenario files' own words.
#include "sim/Explore.h"
#include "sim/families/dot1qDecap/Dot1qDecapFamily.h"

namespace Sim {

std::vector<ExploreWorld> dot1qDecapWorlds() {
  return {
      worldOf(
          "dot1q",
          "a LAG of two ports and a plain port in one VLAN whose service has a tag; the tag "
          "changes and goes, members and the VLAN come and go, a LAG member leaves, the chip "
          "refuses a mapping once and has room for two",
          {"chipTables: {dot1q: 2, portMaps: 1024}",
           "lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet2]}",
           "vlanMember: {vlan: 10, intf: Port-Channel1}", "dot1q: {vlan: 10, tag: 100}"},
          {"dot1q: {vlan: 10, tag: 200}", "dot1qDel: 10", "dot1q: {vlan: 10, tag: 100}",
           "vlanMember: {vlan: 10, intf: Ethernet3}", "vlanMemberDel: {vlan: 10, intf: Ethernet3}",
           "vlanStatusDel: 10", "vlanMember: {vlan: 10, intf: Port-Channel1}",
           "lag: {lag: Port-Channel1, members: [Ethernet1]}",
           "lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet2]}",
           "chipRefuse: {op: createVlanToDot1qMapping, port: Ethernet2, times: 1}"}),
      worldOf("decap",
              "two label routes through one via set to a filter via on a LAG, room for one ESI "
              "port map; the filter via moves to a plain port and goes, routes come and go, the "
              "via set points at another type of via, the chip refuses a port map once (with a "
              "code it defines or one it does not)",
              {"chipTables: {dot1q: 4096, portMaps: 1}",
               "lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet2]}",
               "filterVia: {index: 1, intf: Port-Channel1}", "viaSet: {set: 1, type: 6, index: 1}",
               "route: {label: 1001, viaSet: 1}"},
              {"route: {label: 1002, viaSet: 1}", "routeDel: 1001",
               "route: {label: 1001, viaSet: 1}", "filterVia: {index: 1, intf: Ethernet3}",
               "filterViaDel: 1", "filterVia: {index: 1, intf: Port-Channel1}", "viaSetDel: 1",
               "viaSet: {set: 1, type: 6, index: 1}",
               "chipRefuse: {op: createEsiPortMap, port: Port-Channel1, times: 1}",
               "chipRefuse: {op: createEsiPortMap, port: Port-Channel1, times: 1, rc: 7}",
               "viaSet: {set: 1, type: 1, index: 1}"}),
  };
}

}  // namespace Sim
