#pragma once
// Sim::Reader turns the YAML nodes of a scenario file into values, and refuses anything that is
// not what it should be with the file, the line and the column of the node, and what was
// expected. The core reads the top level with it; each family reads its own actions and table
// entries with the same calls, so every family's errors read alike.

#include <yaml-cpp/yaml.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Types.h"
#include "Quil/EthAddr.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"

namespace Sim {

// The limits of a scenario file. A file is read whole and its YAML tree takes some hundred times
// its size in memory, so the size is bounded; a time is bounded so that it means something to a
// switch (a scenario tells seconds to hours) and stays exact to the millisecond.
constexpr std::size_t maxScenarioBytes = 1 << 20;
constexpr double maxScenarioTime = 1e6;

// A scenario that cannot be read: "<file>:<line>:<column>: <what was expected>" (the column is
// left out where there is none, the line too where the whole file is meant, as for a file that
// cannot be read at all).
class ScenarioError : public std::runtime_error {
 public:
  ScenarioError(const std::string& file, int line, int column, const std::string& what)
      : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : std::string()) +
                           (line > 0 && column > 0 ? ":" + std::to_string(column) : std::string()) +
                           ": " + what),
        file_(file),
        line_(line),
        column_(column) {}
  const std::string& file() const { return file_; }
  int line() const { return line_; }
  int column() const { return column_; }

 private:
  std::string file_;
  int line_;
  int column_;
};

class Reader {
 public:
  explicit Reader(const std::string& file) : file_(file) {}
  const std::string& file() const { return file_; }

  [[noreturn]] void fail(const YAML::Node& n, const std::string& what) const {
    throw ScenarioError(file_, n.Mark().line + 1, n.Mark().column + 1, what);
  }

  // "expected <what>, got '<the value>'" (or "got a map", "got a list"): every refused value
  // says what it was.
  [[noreturn]] void failExpected(const YAML::Node& n, const std::string& what) const;
  // What a node holds, as a refusal quotes it: "'<the value>'", "a map", "a list" or "nothing".
  static std::string given(const YAML::Node& n);

  std::string scalar(const YAML::Node& n, const std::string& what) const {
    if (!n.IsScalar()) failExpected(n, what);
    return n.Scalar();
  }

  // The scalar parsed by `parse`, which raises Kiv::RangeException on a bad text.
  template <class F>
  auto parsed(const YAML::Node& n, const std::string& what, F parse) const {
    std::string s = scalar(n, what);
    try {
      return parse(s);
    } catch (const Kiv::RangeException&) {
      failExpected(n, what);
    }
  }

  // A finite number, at least 0.
  double number(const YAML::Node& n, const std::string& what) const;
  // A time in seconds (or a latency, as `what` says): a number up to maxScenarioTime.
  double time(const YAML::Node& n, const std::string& what = "a time in seconds") const;
  std::uint32_t count(const YAML::Node& n, const std::string& what) const;
  bool flag(const YAML::Node& n) const;  // true or false

  // The value types every family meets.
  Quil::IntfId segment(const YAML::Node& n) const;  // EthernetN or Port-ChannelN
  Quil::IntfId lag(const YAML::Node& n) const;
  Quil::IntfId port(const YAML::Node& n) const;  // a physical port
  Quil::IntfId tep(const YAML::Node& n) const;   // a dynamic tunnel interface
  Bridging::VlanId vlan(const YAML::Node& n) const;
  Evpn::EncapTypeLabel label(const YAML::Node& n) const;  // an MPLS one carries a real label
  // A segment's local ESI label, which the machine programs as an MPLS label whatever its
  // encapsulation: every value a real label.
  Evpn::EncapTypeLabel localLabel(const YAML::Node& n) const;
  Quil::MplsLabel mplsLabel(const YAML::Node& n) const;  // 0-1048575
  Quil::EthAddr mac(const YAML::Node& n) const;          // aa:bb:cc:dd:ee:ff

  // The value of `key` in map `m`; a missing required key is an error at the map.
  YAML::Node field(const YAML::Node& m, const char* key) const {
    YAML::Node v = m[key];
    if (!v) fail(m, std::string("missing '") + key + "'");
    return v;
  }
  // Refuses a map with a key outside `keys`, listing the keys it takes.
  void onlyKeys(const YAML::Node& m, const std::vector<std::string>& keys,
                const std::string& what) const;
  void onlyKeys(const YAML::Node& m, std::initializer_list<const char*> keys,
                const std::string& what) const {
    onlyKeys(m, std::vector<std::string>(keys.begin(), keys.end()), what);
  }

 private:
  std::string file_;
};

}  // namespace Sim
