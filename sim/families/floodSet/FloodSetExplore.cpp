// The flood-set family's small worlds for `oba-evpn-sim explore`: each a table of its starting
// inputs and of the steps the explorer may take, in the scenario files' own words.
#include "sim/Explore.h"
#include "sim/families/floodSet/FloodSetFamily.h"

namespace Sim {

std::vector<ExploreWorld> floodSetWorlds() {
  return {
      worldOf(
          "members",
          "one VLAN floods to two remote PEs over MPLS through one tunnel, with a chip of one "
          "free hardware FEC id and a flood list that lags; members come, change label and "
          "go, the chip refuses an answer once, takes one back and renumbers one, the flood list "
          "refuses a member once",
          {"fecChipCapacity: 1", "floodListLatency: 0.5"},
          {"floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.1, 1001)'}",
           "floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.1, 1002)'}",
           "floodSetDestDel: {vlan: 10, dest: 'mpls(Tunnel1.1, 1001)'}",
           "floodSetDestDel: {vlan: 10, dest: 'mpls(Tunnel1.1, 1002)'}", "floodSetDel: {vlan: 10}",
           "chipRefuse: {op: hwFecId, times: 1}", "fecChipWithdraw: 1", "fecChipRenumber: 1",
           "fecChipCapacity: 2",
           "chipRefuse: {op: programFloodListMember, port: DynTunnel1.1, times: 1}"}),
  };
}

}  // namespace Sim
