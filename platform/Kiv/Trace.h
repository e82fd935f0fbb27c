#pragma once
// Tracing: one handle per source, levels 0 to 9, and the Quiktrace ring buffer.
//
//   static Kiv::TraceHandle th("ObaEvpnHwTunnelIdSm");
//   KIV_TRACE(th, 8, "programHwTunnelId IntfId " << intf << " vlanId " << vlan);
//
// A handle is enabled up to a level from the environment variable KIV_TRACE, read once when the
// first handle is made, or from Kiv::traceConfigIs() later:
//
//   KIV_TRACE="ObaEvpnHwTunnelIdSm/8,Mox*/5"    comma-separated SOURCE/LEVEL, SOURCE may end in '*'
//   KIV_TRACE="*/5"                             every source up to level 5
//   KIV_TRACE="ObaEvpnFloodingEsiSm"            no level means 9 (everything)
//
// The stream expression is evaluated only when the level is enabled: a disabled trace costs one
// compare and branch. Enabled lines go to the trace sink (standard error unless replaced).
//
// Quiktrace is the always-on, fixed-size ring of recent events: each record keeps the source
// name, the line, a static text and an optional numeric value. Recording formats nothing and
// allocates nothing, so it stays on in production; dump() prints it when something went wrong.

#include <cstdint>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

class TraceHandle {
 public:
  explicit TraceHandle(const char* source);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  bool enabled(int level) const { return level <= level_; }
  int level() const { return level_; }
  const char* source() const { return source_; }
  void write(int level, int line, std::string_view text) const;

 private:
  friend class TraceRegistry;
  const char* source_;
  int level_ = -1;
};

// A trace line as handed to the sink.
struct TraceLine {
  const char* source;
  int level;
  int line;
  std::string_view text;
};
using TraceSink = std::function<void(const TraceLine&)>;

// Replaces the enabled levels of every handle, present and future, from a KIV_TRACE-style text.
// Throws Kiv::RangeException on a malformed text (nothing changes then).
void traceConfigIs(std::string_view config);
// The text the levels were last set from (KIV_TRACE's at first; empty: none).
std::string traceConfig();
// Where enabled lines go; an empty sink restores standard error.
void traceSinkIs(TraceSink sink);

class Quiktrace {
 public:
  static constexpr std::size_t kCapacity = 4096;
  struct Record {
    const char* source = nullptr;
    int line = 0;
    const char* text = nullptr;
    std::uint64_t value = 0;
    bool hasValue = false;
  };

  static Quiktrace& instance();

  void record(const char* source, int line, const char* text) {
    put(Record{source, line, text, 0, false});
  }
  void record(const char* source, int line, const char* text, std::uint64_t value) {
    put(Record{source, line, text, value, true});
  }
  // Records held, oldest first (at most kCapacity).
  std::vector<Record> records() const;
  std::size_t size() const { return total_ < kCapacity ? total_ : kCapacity; }
  std::uint64_t total() const { return total_; }
  void clear() { total_ = 0; }
  void dump(std::ostream& os) const;

 private:
  void put(const Record& r) { ring_[total_++ % kCapacity] = r; }
  Record ring_[kCapacity];
  std::uint64_t total_ = 0;
};

}  // namespace Kiv

#define KIV_TRACE(handle, lvl, expr)                     \
  do {                                                   \
    if ((handle).enabled(lvl)) {                         \
      std::ostringstream kivTraceOs_;                    \
      kivTraceOs_ << expr;                               \
      (handle).write(lvl, __LINE__, kivTraceOs_.view()); \
    }                                                    \
  } while (0)

#define KIV_QTRACE(handle, text) \
  ::Kiv::Quiktrace::instance().record((handle).source(), __LINE__, text)
#define KIV_QTRACE_VALUE(handle, text, value)                            \
  ::Kiv::Quiktrace::instance().record((handle).source(), __LINE__, text, \
                                      static_cast<std::uint64_t>(value))
