#pragma once
// This switch as the live path sees it: its own address in the fabric, its Ethernet segments
// (the ESI each one carries, the interface it is here and, for a LAG, its members, its local ESI
// label) and its VLANs (the route target that names each one's EVPN instance, and the label this
// switch floods it with). A small YAML file in the scenario format's style, read and checked
// whole before anything runs: an error names the file, the line, the column and what was
// expected.
//
//   address: 127.0.0.11
//   segments:
//     - {esi: '00:11:11:11:11:11:11:11:11:01', lag: Port-Channel10,
//        members: [Ethernet1, Ethernet2], label: 'mpls:2001'}
//     - {esi: '00:22:22:22:22:22:22:22:22:02', intf: Ethernet3, label: 'mpls:2002'}
//   vlans:
//     - {vlan: 10, routeTarget: '65000:10', label: 10010}

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "sim/Family.h"

namespace Live {

// An Ethernet segment identifier: its type byte, then nine bytes. All zero: single-homed.
using Esi = std::array<std::uint8_t, 10>;
std::string esiText(const Esi& esi);                 // "00:11:...:01"
std::optional<Esi> parseEsi(std::string_view text);  // ten bytes, hex, colons between

// "127.0.0.1" as a number, and back.
std::optional<std::uint32_t> parseAddress(std::string_view text);
std::string addressText(std::uint32_t address);

struct LocalSegment {
  Esi esi{};
  Quil::IntfId intf;                  // a LAG or a port
  std::vector<Quil::IntfId> members;  // a LAG's ports
  Evpn::EncapTypeLabel label;         // the local ESI label
};

struct LocalVlan {
  Bridging::VlanId vlan;
  std::string routeTarget;  // as gobgp writes an extended community's value: "65000:10"
  Quil::MplsLabel label;
};

struct Config {
  std::string file;
  std::uint32_t address = 0;
  std::vector<LocalSegment> segments;
  std::vector<LocalVlan> vlans;  // in the file's order
  std::map<std::string, Bridging::VlanId> vlanOfTarget;

  const LocalSegment* segmentOf(const Esi& esi) const;
};

// Throws Sim::ScenarioError with the file, line and column.
Config parseConfig(const std::string& text, const std::string& file);
Config readConfig(const std::string& path);

// What the configuration gives the agent before any route: each LAG's members, each segment's
// local ESI label (which also makes its status), and the MAC machine's chain length of 3, which a
// host behind load balances of labels needs.
std::vector<Sim::Action> configActions(const Config& config);

}  // namespace Live
