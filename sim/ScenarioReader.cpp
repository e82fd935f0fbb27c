#include "sim/ScenarioReader.h"

#include <cmath>
#include <limits>
#include <string>

#include "Tunnel/TunnelId.h"

namespace Sim {

std::string Reader::given(const YAML::Node& n) {
  if (n.IsMap()) return "a map";
  if (n.IsSequence()) return "a list";
  if (!n.IsScalar() || n.Scalar().empty()) return "nothing";
  // Enough of it to recognise, on one line.
  constexpr std::size_t shown = 60;
  const std::string& v = n.Scalar();
  std::string text = v.substr(0, shown);
  for (char& c : text) {
    if (c == '\n' || c == '\t' || c == '\r') c = ' ';
  }
  return "'" + text + (v.size() > shown ? "...'" : "'");
}

void Reader::failExpected(const YAML::Node& n, const std::string& what) const {
  fail(n, "expected " + what + ", got " + given(n));
}

double Reader::number(const YAML::Node& n, const std::string& what) const {
  return parsed(n, what, [&](const std::string& s) {
    std::size_t used = 0;
    double v = 0;
    try {
      v = std::stod(s, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    // Not infinity nor NaN: neither is a time or a count, and NaN compares false with everything.
    if (used == 0 || used != s.size() || !std::isfinite(v) || v < 0) {
      throw Kiv::RangeException(s);
    }
    return v;
  });
}

double Reader::time(const YAML::Node& n, const std::string& what) const {
  const std::string bounded =
      what + " (0-" + std::to_string(static_cast<long>(maxScenarioTime)) + ")";
  const double t = number(n, bounded);
  if (t > maxScenarioTime) failExpected(n, bounded);
  return t;
}

std::uint32_t Reader::count(const YAML::Node& n, const std::string& what) const {
  double v = number(n, what);
  if (v > std::numeric_limits<std::uint32_t>::max() ||
      v != static_cast<double>(static_cast<std::uint32_t>(v))) {
    failExpected(n, what);
  }
  return static_cast<std::uint32_t>(v);
}

bool Reader::flag(const YAML::Node& n) const {
  const std::string s = scalar(n, "true or false");
  if (s != "true" && s != "false") failExpected(n, "true or false");
  return s == "true";
}

Quil::IntfId Reader::segment(const YAML::Node& n) const {
  const char* what = "a segment interface (EthernetN or Port-ChannelN)";
  auto intf = parsed(n, what, Quil::IntfId::parse);
  if (!intf.isEthernet() && !intf.isPortChannel()) failExpected(n, what);
  return intf;
}

Quil::IntfId Reader::lag(const YAML::Node& n) const {
  const char* what = "a LAG (Port-ChannelN)";
  auto intf = parsed(n, what, Quil::IntfId::parse);
  if (!intf.isPortChannel()) failExpected(n, what);
  return intf;
}

Quil::IntfId Reader::port(const YAML::Node& n) const {
  const char* what = "a physical port (EthernetN)";
  auto intf = parsed(n, what, Quil::IntfId::parse);
  if (!intf.isEthernet()) failExpected(n, what);
  return intf;
}

Quil::IntfId Reader::tep(const YAML::Node& n) const {
  // Tunnel id 0 is the invalid id: DynTunnel0.0 names no tunnel.
  const char* what = "a tunnel endpoint (DynTunnelT.I, with T at most 65535, not DynTunnel0.0)";
  auto intf = parsed(n, what, Quil::IntfId::parse);
  if (!intf.isDynamicTunnel() || Quil::DynamicTunnelIntfId::tunnelId(intf) == 0 ||
      Quil::DynamicTunnelIntfId::tunnelId(intf) > Tunnel::TunnelTable::TunnelId::maxValue) {
    failExpected(n, what);
  }
  return intf;
}

Bridging::VlanId Reader::vlan(const YAML::Node& n) const {
  const char* what = "a VLAN (1-4094)";
  auto v = parsed(n, what, Bridging::VlanId::parse);
  if (!v.isValid()) failExpected(n, what);
  return v;
}

Evpn::EncapTypeLabel Reader::label(const YAML::Node& n) const {
  const char* what = "an ESI label (mpls:N with N at most 1048575, vxlan:N or none:N)";
  auto l = parsed(n, what, Evpn::EncapTypeLabel::parse);
  // The machines program an MPLS ESI label as an MPLS label: a real one, not "no label".
  if (l.encapType() == Evpn::EncapTypeLabel::encapTypeMpls &&
      l.label() >= Quil::MplsLabel::noLabel) {
    failExpected(n, what);
  }
  return l;
}

Evpn::EncapTypeLabel Reader::localLabel(const YAML::Node& n) const {
  const char* what =
      "a local ESI label (mpls:N, vxlan:N or none:N with N at most 1048575: the machine programs "
      "it as an MPLS label whatever its encapsulation)";
  auto l = parsed(n, what, Evpn::EncapTypeLabel::parse);
  if (l.label() >= Quil::MplsLabel::noLabel) failExpected(n, what);
  return l;
}

Quil::MplsLabel Reader::mplsLabel(const YAML::Node& n) const {
  const std::uint32_t v = count(n, "an MPLS label (0-1048575)");
  if (v >= Quil::MplsLabel::noLabel) failExpected(n, "an MPLS label (0-1048575)");
  return Quil::MplsLabel(v);
}

Quil::EthAddr Reader::mac(const YAML::Node& n) const {
  return parsed(n, "a MAC address (aa:bb:cc:dd:ee:ff)", Quil::EthAddr::parse);
}

void Reader::onlyKeys(const YAML::Node& m, const std::vector<std::string>& keys,
                      const std::string& what) const {
  if (!m.IsMap()) failExpected(m, "a map for " + what);
  for (const auto& kv : m) {
    std::string k = kv.first.Scalar();
    bool known = false;
    for (const auto& key : keys) known |= k == key;
    if (known) continue;
    std::string list;
    for (const auto& key : keys) list += (list.empty() ? "" : ", ") + key;
    fail(kv.first, "unknown key '" + k + "' in " + what + " (expected: " + list + ")");
  }
}

}  // namespace Sim
