// The MAC-address FEC family's small worlds for `oba-evpn-sim explore`: each a table of its
// starting inputs and of the steps the explorer may take, in the scenario files' own words.
#include "sim/Explore.h"
#include "sim/families/macFec/MacFecFamily.h"

namespace Sim {

std::vector<ExploreWorld> macFecWorlds() {
  return {
      worldOf("chains",
              "two destinations, two labels over them and a load balance over both; hosts move "
              "between a label and the load balance, a label's destination changes, objects go "
              "and come back, a host comes while its label's row is torn, and the row is written "
              "again, the chip has one free hardware "
              "FEC id, refuses an answer once and takes one back",
              {"fecChipCapacity: 1", "dest: {id: 1, tunnel: DynTunnel1.1}",
               "dest: {id: 2, tunnel: DynTunnel1.2}", "label: {id: 1, mpls: 1001, next: dest/1}",
               "label: {id: 2, mpls: 1002, next: dest/2}",
               "loadBalance: {id: 1, next: [dest/1, dest/2]}"},
              {"host: {vlan: 10, mac: 02:00:00:00:00:01, to: label/1}",
               "host: {vlan: 10, mac: 02:00:00:00:00:01, to: loadBalance/1}",
               "hostDel: {vlan: 10, mac: 02:00:00:00:00:01}",
               "host: {vlan: 10, mac: 02:00:00:00:00:02, to: label/2}",
               "label: {id: 1, mpls: 1001, next: dest/2}", "labelDel: 2",
               "label: {id: 2, mpls: 1002, next: dest/2}", "destDel: 1",
               "dest: {id: 1, tunnel: DynTunnel1.1}",
               "corrupt: label/1 + host: {vlan: 10, mac: 02:00:00:00:00:03, to: label/1} + "
               "rewrite: label/1",
               "chipRefuse: {op: hwFecId, times: 1}", "fecChipWithdraw: 1"}),
      worldOf("three-levels",
              "chain length 3: a label over a load balance over two labels over destinations; "
              "hosts on the top label and on the load balance, the lower labels' destination "
              "changes, the load balance and a lower label go and come back",
              {"maxChainLength: 3", "dest: {id: 1, tunnel: DynTunnel1.1}",
               "dest: {id: 2, tunnel: DynTunnel1.2}", "label: {id: 1, mpls: 1001, next: dest/1}",
               "label: {id: 2, mpls: 1002, next: dest/2}",
               "loadBalance: {id: 1, next: [label/1, label/2]}",
               "label: {id: 3, mpls: 1003, next: loadBalance/1}"},
              {"host: {vlan: 10, mac: 02:00:00:00:00:01, to: label/3}",
               "host: {vlan: 10, mac: 02:00:00:00:00:02, to: loadBalance/1}",
               "hostDel: {vlan: 10, mac: 02:00:00:00:00:01}",
               "label: {id: 1, mpls: 1001, next: dest/2}", "labelDel: 2",
               "label: {id: 2, mpls: 1002, next: dest/2}", "loadBalanceDel: 1",
               "loadBalance: {id: 1, next: [label/1, label/2]}"}),
  };
}

}  // namespace Sim
