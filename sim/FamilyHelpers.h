#pragma once
// What every family's Family writes alike: its action kinds, read from a table of definitions into
// one ActionBody type; its tallies; its canary flag.

#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sim/Family.h"

namespace Sim {

// One ActionKind per definition; each definition has `name`, `kind` and
// `read(const Reader&, const YAML::Node&, Body&)`, and the body starts with its `kind`.
template <class Body, class Def, std::size_t N>
std::vector<ActionKind> actionKinds(const Def (&defs)[N]) {
  std::vector<ActionKind> out;
  for (const Def& def : defs) {
    out.push_back({def.name, [&def](const Reader& r, const YAML::Node& v) {
                     auto a = std::make_shared<Body>();
                     a->kind = def.kind;
                     def.read(r, v, *a);
                     return std::shared_ptr<const ActionBody>(a);
                   }});
  }
  return out;
}

// A tally, 0 when never counted.
inline std::uint64_t counter(const Counters& c, const char* name) {
  auto it = c.find(name);
  return it == c.end() ? 0 : it->second;
}

// "--<name> N": arms a chip part's canary at N (`set`); the replay command repeats it while `get`
// says it is armed.
inline FuzzFlag canaryFlag(const std::string& name, const std::string& help,
                           void (*set)(std::uint64_t), std::uint64_t (*get)()) {
  return {name, "N", help,
          [set](const char* v) {
            std::uint64_t n = 0;
            const char* end = v + std::strlen(v);
            auto [p, ec] = std::from_chars(v, end, n);
            if (ec != std::errc() || p != end) return false;
            set(n);
            return true;
          },
          [name, get] {
            const std::uint64_t n = get();
            return n ? name + " " + std::to_string(n) : std::string();
          }};
}

}  // namespace Sim
