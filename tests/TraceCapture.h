#pragma once
// Captures the library's trace lines for one test: enables the given sources and levels, keeps
// the text of every line, and restores quiet tracing when it goes.
#include <algorithm>
#include <string>
#include <vector>

#include "Kiv/Trace.h"

class TraceCapture {
 public:
  explicit TraceCapture(const char* config) {
    Kiv::traceConfigIs(config);
    Kiv::traceSinkIs([this](const Kiv::TraceLine& l) { lines.emplace_back(l.text); });
  }
  ~TraceCapture() {
    Kiv::traceSinkIs(nullptr);
    Kiv::traceConfigIs("");
  }
  bool has(const std::string& text) const {
    return std::find(lines.begin(), lines.end(), text) != lines.end();
  }
  void clear() { lines.clear(); }

  std::vector<std::string> lines;
};
