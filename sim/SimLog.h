#pragma once
// The simulator's log: one line per chip call, per output-table write, per step and (with
// --trace) per library trace line, each stamped with the virtual time, aligned for reading, or
// as JSON lines for tools.
//
//       5.000  tunnelEsi>chip   createEsiData Ethernet2 vlan 10 tunnel Tunnel1.1 hw 1 ...
//       5.000  mapping          Tunnel1.1 -> 1

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Clock.h"

namespace Sim {

class SimLog {
 public:
  enum class Format { text, json };
  explicit SimLog(std::ostream* out = nullptr, Format format = Format::text)
      : out_(out), format_(format) {}
  bool enabled() const { return out_ != nullptr; }
  // `causes`: why it happened, nearest first (--why): a "because" line each, or the JSON fields
  // `cause` (the nearest) and `causes`.
  void add(double time, std::string_view source, std::string_view text,
           const std::vector<std::string>& causes = {});
  // Lines that do not know the time (library traces) take it from the running agent's clock.
  void clockIs(const Kiv::Clock* clock) { clock_ = clock; }
  void addNow(std::string_view source, std::string_view text) {
    add(clock_ ? clock_->now() : 0.0, source, text);
  }
  // Writes out what is buffered: before anything that may end the process.
  void flush() {
    if (out_) out_->flush();
  }

 private:
  std::ostream* out_;
  Format format_;
  const Kiv::Clock* clock_ = nullptr;
};

}  // namespace Sim
