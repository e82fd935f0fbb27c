#include "sim/live/LiveConfig.h"

#include <charconv>
#include <cstdio>
#include <set>

#include "sim/ScenarioReader.h"
#include "sim/ScenarioText.h"
#include "sim/families/macFec/MacFecActions.h"
#include "sim/families/tunnelEsi/TunnelEsiActions.h"

namespace Live {

namespace {

// Two hex digits, no more and no less.
std::optional<std::uint8_t> hexByte(std::string_view s) {
  unsigned v = 0;
  if (s.size() != 2) return std::nullopt;
  auto [end, ec] = std::from_chars(s.data(), s.data() + 2, v, 16);
  if (ec != std::errc() || end != s.data() + 2) return std::nullopt;
  return static_cast<std::uint8_t>(v);
}

// A number of `s` up to `max`, digits only.
std::optional<std::uint32_t> decimal(std::string_view s, std::uint32_t max) {
  std::uint32_t v = 0;
  if (s.empty()) return std::nullopt;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || v > max) return std::nullopt;
  return v;
}

}  // namespace

std::string esiText(const Esi& esi) {
  std::string s;
  char b[4];
  for (std::size_t i = 0; i < esi.size(); ++i) {
    std::snprintf(b, sizeof b, i ? ":%02x" : "%02x", esi[i]);
    s += b;
  }
  return s;
}

std::optional<Esi> parseEsi(std::string_view text) {
  Esi esi{};
  for (std::size_t i = 0; i < esi.size(); ++i) {
    if (i && (text.empty() || text[0] != ':')) return std::nullopt;
    if (i) text.remove_prefix(1);
    auto b = hexByte(text.substr(0, 2));
    if (!b) return std::nullopt;
    esi[i] = *b;
    text.remove_prefix(2);
  }
  if (!text.empty()) return std::nullopt;
  return esi;
}

std::optional<std::uint32_t> parseAddress(std::string_view text) {
  std::uint32_t a = 0;
  for (int i = 0; i < 4; ++i) {
    const auto dot = i < 3 ? text.find('.') : text.size();
    if (dot == std::string_view::npos) return std::nullopt;
    auto part = decimal(text.substr(0, dot), 255);
    if (!part || dot > 3) return std::nullopt;
    a = a << 8 | *part;
    text.remove_prefix(i < 3 ? dot + 1 : dot);
  }
  return a;
}

std::string addressText(std::uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string(a >> 16 & 255) + "." +
         std::to_string(a >> 8 & 255) + "." + std::to_string(a & 255);
}

const LocalSegment* Config::segmentOf(const Esi& esi) const {
  for (const auto& s : segments) {
    if (s.esi == esi) return &s;
  }
  return nullptr;
}

Config parseConfig(const std::string& text, const std::string& file) {
  Sim::checkScenarioText(text, file);
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    throw Sim::ScenarioError(file, e.mark.line + 1, e.mark.column + 1, "not valid YAML: " + e.msg);
  }
  const Sim::Reader r(file);
  Config c;
  c.file = file;
  r.onlyKeys(root, {"address", "segments", "vlans"}, "the local configuration");
  const char* addressWhat = "this switch's IPv4 address (a.b.c.d)";
  auto address = parseAddress(r.scalar(r.field(root, "address"), addressWhat));
  if (!address || *address == 0) r.failExpected(root["address"], addressWhat);
  c.address = *address;

  std::set<Quil::IntfId> ports;  // every port a segment uses: one segment each
  auto usePort = [&](const YAML::Node& n, Quil::IntfId port) {
    if (!ports.insert(port).second) r.fail(n, port.toString() + " is in another segment already");
  };
  if (const auto segments = root["segments"]) {
    if (!segments.IsSequence()) r.failExpected(segments, "a list of segments");
    for (const auto& s : segments) {
      r.onlyKeys(s, {"esi", "lag", "members", "intf", "label"}, "a segment");
      LocalSegment seg;
      const char* esiWhat = "an ESI (ten hex bytes, aa:bb:...:jj, not all zero)";
      auto esi = parseEsi(r.scalar(r.field(s, "esi"), esiWhat));
      if (!esi || *esi == Esi{}) r.failExpected(s["esi"], esiWhat);
      if (c.segmentOf(*esi)) r.fail(s["esi"], "ESI " + esiText(*esi) + " is given twice");
      seg.esi = *esi;
      if (s["lag"] && s["intf"]) r.fail(s, "a segment is a 'lag' with members or an 'intf'");
      if (s["lag"]) {
        seg.intf = r.lag(s["lag"]);
        const auto members = r.field(s, "members");
        if (!members.IsSequence() || members.size() == 0) {
          r.failExpected(members, "a list of ports");
        }
        for (const auto& m : members) {
          seg.members.push_back(r.port(m));
          usePort(m, seg.members.back());
        }
      } else {
        if (s["members"]) r.fail(s["members"], "only a LAG has members");
        seg.intf = r.port(r.field(s, "intf"));
        usePort(s["intf"], seg.intf);
      }
      for (const auto& other : c.segments) {
        if (other.intf == seg.intf) r.fail(s, seg.intf.toString() + " is another segment's");
      }
      seg.label = r.localLabel(r.field(s, "label"));
      c.segments.push_back(seg);
    }
  }
  const auto vlans = r.field(root, "vlans");
  if (!vlans.IsSequence()) r.failExpected(vlans, "a list of VLANs");
  std::set<std::uint16_t> seen;
  for (const auto& v : vlans) {
    r.onlyKeys(v, {"vlan", "routeTarget", "label"}, "a VLAN");
    LocalVlan lv;
    lv.vlan = r.vlan(r.field(v, "vlan"));
    if (!seen.insert(lv.vlan.value()).second) r.fail(v["vlan"], "VLAN given twice");
    const char* rtWhat = "a route target (AS:N or a.b.c.d:N)";
    lv.routeTarget = r.scalar(r.field(v, "routeTarget"), rtWhat);
    const auto colon = lv.routeTarget.rfind(':');
    if (colon == std::string::npos || colon == 0 ||
        !decimal(std::string_view(lv.routeTarget).substr(colon + 1), 0xffffffff)) {
      r.failExpected(v["routeTarget"], rtWhat);
    }
    if (!c.vlanOfTarget.emplace(lv.routeTarget, lv.vlan).second) {
      r.fail(v["routeTarget"], "route target " + lv.routeTarget + " names another VLAN already");
    }
    lv.label = r.mplsLabel(r.field(v, "label"));
    c.vlans.push_back(lv);
  }
  return c;
}

Config readConfig(const std::string& path) {
  return parseConfig(Sim::readScenarioText(path), path);
}

std::vector<Sim::Action> configActions(const Config& config) {
  std::vector<Sim::Action> out;
  out.push_back(Sim::macFec::action(Sim::macFec::MaxChainLength{3}));
  for (const auto& s : config.segments) {
    if (s.intf.isPortChannel())
      out.push_back(Sim::tunnelEsi::action(Sim::tunnelEsi::Lag{s.intf, s.members}));
    out.push_back(Sim::tunnelEsi::action(Sim::tunnelEsi::LocalEsiLabel{s.intf, s.label}));
  }
  return out;
}

}  // namespace Live
