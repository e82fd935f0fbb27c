#pragma once
// What every family writes alike: whether a review is pending, its check's finding lines, its
// tallies, its fuzz flags (a setting of its worlds, a chip's canary).

#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Mox/TimerTask.h"
#include "sim/Family.h"
#include "sim/Fuzz.h"

namespace Sim {

// Whether a review task is due to run again.
inline bool reviewPending(const Kiv::Ptr<Mox::TimerTask>& task) {
  return task && task->taskScheduled();
}

// A line of a check's findings, built from its pieces as a stream writes them.
template <class... Args>
std::string findingLine(const Args&... args) {
  std::ostringstream os;
  (os << ... << args);
  return os.str();
}

// A tally, 0 when never counted.
inline std::uint64_t counter(const Counters& c, const char* name) {
  auto it = c.find(name);
  return it == c.end() ? 0 : it->second;
}

// A whole number given to a flag, or nothing.
inline std::optional<std::uint64_t> flagNumber(const char* v) {
  std::uint64_t n = 0;
  const char* end = v + std::strlen(v);
  auto [p, ec] = std::from_chars(v, end, n);
  if (ec != std::errc() || p != end) return std::nullopt;
  return n;
}

// "--<name> N": arms a chip part's canary at N (`set`); the replay command repeats it while `get`
// says it is armed.
inline FuzzFlag canaryFlag(const std::string& name, const std::string& help,
                           void (*set)(std::uint64_t), std::uint64_t (*get)()) {
  return {name, "N", help,
          [set](const char* v, FuzzOptions&) {
            auto n = flagNumber(v);
            if (!n) return std::string("needs N");
            set(*n);
            return std::string();
          },
          [name, get](const FuzzOptions&) {
            const std::uint64_t n = get();
            return n ? name + " " + std::to_string(n) : std::string();
          }};
}

// "--<setting> N": a setting of a family's worlds, at least `least`, `orElse` when not given;
// kept in FuzzOptions::settings, repeated by the replay command and named in the summaries as
// "<setting> N".
inline FuzzFlag settingFlag(const std::string& setting, const std::string& help,
                            std::uint64_t orElse, std::uint64_t least) {
  return {"--" + setting,
          "N",
          help,
          [setting, least](const char* v, FuzzOptions& o) {
            auto n = flagNumber(v);
            if (!n) return std::string("needs a number");
            if (*n < least) return "must be at least " + std::to_string(least);
            o.settings[setting] = *n;
            return std::string();
          },
          [setting, orElse](const FuzzOptions& o) {
            return "--" + setting + " " + std::to_string(o.setting(setting, orElse));
          },
          [setting, orElse](const FuzzOptions& o) {
            return setting + " " + std::to_string(o.setting(setting, orElse));
          }};
}

}  // namespace Sim
