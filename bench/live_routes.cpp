// Routes per second from a BGP speaker's stream to a quiet chip: the live path's translation
// (sim/live/) and the agent behind it, for a fabric of 100k MAC routes over 4094 VLANs.
//
// The fabric: `vlans` VLANs (route target 65000:<vlan>), `edges` remote edges
// (10.1.<e/256>.<e%256>), `macs` MAC routes spread over the VLANs and edges (one in ten on a
// segment this switch shares with the first two edges, advertised by both: a load balance), four
// edges' inclusive-multicast routes in every VLAN, and the two edges' segment routes. The stream is
// the JSON lines gobgp's monitor prints (one path per line, in the shapes recorded in
// tests/sim/live/), made in memory.
//
// Phases, each run once and timed on the wall clock:
//   Translate    the lines parsed and translated into the agent's actions, nothing applied
//   ToQuietChip  the lines parsed, translated and applied to an agent over the software chip,
//                then the agent's reviews drained in virtual time until no family is busy
//   Speaker      (--live_speaker) the speaker delivering its whole table as the agent asks for
//                it, `gobgp global rib -a evpn -j` (speaker_routes/s, json_MB); then the same
//                paths, one a line, through ToQuietChip (agent_routes/s)
// Counters: routes/s; actions (what the translation gave); for ToQuietChip chip_calls and
// review_virtual_s, how long the reviews' own pacing (a yield, then 0.5 s) would take on a switch.
//
// The speaker's own time to deliver the same routes (scripts/lab.sh bench): --live_mrt=FILE
// writes the MAC routes as an MRT table for `gobgp mrt inject global`, --live_config=FILE the
// agent's configuration; --live_speaker='-u ADDR -p PORT' then times the speaker's monitor
// delivering its whole table and the same paths through the agent.
//
//   build/default/bench/live_routes                             # 100k MAC routes, 4094 VLANs
//   build/default/bench/live_routes --live_world=10000,409,16    # MACS,VLANS,EDGES

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchArgs.h"
#include "sim/HostAgent.h"
#include "sim/live/Monitor.h"
#include "sim/live/Session.h"

namespace {

struct World {
  unsigned macs = 100000, vlans = 4094, edges = 64;
} gWorld;
std::string gMrt, gConfig, gSpeaker;

constexpr std::uint32_t kLocal = 0x0a000001;  // 10.0.0.1
const char* const kSegment = "ESI_ARBITRARY | 11:11:11:11:11:11:11:11:01";

std::uint32_t edgeAddress(unsigned e) { return 0x0a010000 + e + 1; }
std::string macOf(unsigned i) {
  char b[18];
  std::snprintf(b, sizeof b, "02:00:%02x:%02x:%02x:%02x", i >> 24, (i >> 16) & 255, (i >> 8) & 255,
                i & 255);
  return b;
}
unsigned vlanOf(unsigned i) { return 1 + i % gWorld.vlans; }

std::string configText() {
  std::string c = "address: " + Live::addressText(kLocal) +
                  "\nsegments:\n  - {esi: '00:11:11:11:11:11:11:11:11:01', lag: Port-Channel1, "
                  "members: [Ethernet1, Ethernet2], label: 'mpls:2001'}\nvlans:\n";
  for (unsigned v = 1; v <= gWorld.vlans; ++v) {
    c += "  - {vlan: " + std::to_string(v) + ", routeTarget: '65000:" + std::to_string(v) +
         "', label: " + std::to_string(100000 + v) + "}\n";
  }
  return c;
}

// One path as gobgp's monitor prints it: the NLRI, the attributes the translation reads.
std::string path(unsigned type, const std::string& value, std::uint32_t edge, unsigned vlan,
                 const std::string& more = "") {
  const std::string e = Live::addressText(edge);
  return "[{\"nlri\":{\"type\":" + std::to_string(type) +
         ",\"value\":{\"rd\":{\"type\":1,\"admin\":\"" + e +
         "\",\"assigned\":" + std::to_string(vlan) + "}," + value +
         "}},\"age\":1,\"best\":false,\"attrs\":[{\"type\":1,\"value\":2},{\"type\":16,\"value\":[{"
         "\"type\":0,\"subtype\":2,\"value\":\"65000:" +
         std::to_string(vlan) + "\"},{\"type\":3,\"subtype\":12,\"tunnel_type\":10}" + more +
         "]},{\"type\":14,\"nexthop\":\"" + e +
         "\",\"afi\":25,\"safi\":70}],\"stale\":false,\"source-id\":\"" + e +
         "\",\"neighbor-ip\":\"" + e + "\"}]";
}

std::vector<std::string> streamLines() {
  std::vector<std::string> lines{"[]"};
  for (unsigned e = 0; e < 2; ++e) {
    lines.push_back(path(4,
                         "\"esi\":\"" + std::string(kSegment) + "\",\"ip\":\"" +
                             Live::addressText(edgeAddress(e)) + "\"",
                         edgeAddress(e), 1));
  }
  for (unsigned v = 1; v <= gWorld.vlans; ++v) {
    for (unsigned e = 0; e < std::min(4u, gWorld.edges); ++e) {
      const std::string a = Live::addressText(edgeAddress(e));
      std::string pmsi =
          "{\"type\":22,\"is-leaf-info-required\":false,\"tunnel-type\":6,\"label\":" +
          std::to_string(1000 * (e + 1) + v) + ",\"tunnel-id\":\"" + a + "\"}";
      std::string p = path(3, "\"etag\":0,\"ip\":\"" + a + "\"", edgeAddress(e), v);
      // The PMSI tunnel is an attribute of its own, after the communities.
      p.insert(p.find("{\"type\":14"), pmsi + ",");
      lines.push_back(p);
    }
  }
  for (unsigned i = 0; i < gWorld.macs; ++i) {
    const bool shared = i % 10 == 0;
    for (unsigned k = 0; k < (shared ? 2u : 1u); ++k) {
      const unsigned e = shared ? k : i % gWorld.edges;
      lines.push_back(path(2,
                           "\"esi\":\"" + std::string(shared ? kSegment : "single-homed") +
                               "\",\"etag\":0,\"mac\":\"" + macOf(i) +
                               "\",\"ip\":\"<nil>\",\"labels\":[" + std::to_string(20000 + e) + "]",
                           edgeAddress(e), vlanOf(i)));
    }
  }
  return lines;
}

std::size_t routeCount(const std::vector<std::string>& lines) { return lines.size() - 1; }

// The agent's reviews drained in virtual time: how long their pacing takes.
double drain(Sim::HostAgent& agent) {
  const double start = agent.now();
  auto busy = [&] {
    for (const auto& p : agent.parts()) {
      if (p->busy()) return true;
    }
    return false;
  };
  for (int i = 0; i < 1000000 && busy(); ++i) {
    const auto due = agent.scheduler->dueTimes();
    if (due.empty()) break;
    agent.advanceTo(std::max(agent.now(), *std::min_element(due.begin(), due.end())));
  }
  return agent.now() - start;
}

// Parses and translates each line (the first is the table), applying the actions when `agent`.
std::size_t feed(const std::vector<std::string>& lines, Live::Translator& t,
                 Sim::HostAgent* agent) {
  std::size_t actions = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    Live::Actions out;
    const auto j = nlohmann::json::parse(lines[i]);
    if (i == 0) {
      t.table(j, out);
    } else {
      for (const auto& p : j) t.path(p, out);
    }
    actions += out.size();
    if (!agent) continue;
    for (const auto& a : out) agent->apply(a);
    agent->scheduler->runDue();
  }
  return actions;
}

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

void BM_Translate(benchmark::State& state) {
  const auto lines = streamLines();
  const auto config = Live::parseConfig(configText(), "bench.yaml");
  for (auto _ : state) {
    Live::Translator t(config);
    const auto start = std::chrono::steady_clock::now();
    const std::size_t actions = feed(lines, t, nullptr);
    const double s = seconds(start);
    state.SetIterationTime(s);
    state.counters["routes/s"] = double(routeCount(lines)) / s;
    state.counters["actions"] = double(actions);
  }
}

// The lines through an agent to a quiet chip: routes/s and the counters of ToQuietChip.
struct Quiet {
  std::size_t actions = 0, calls = 0;
  double seconds = 0, reviewSeconds = 0;
};
Quiet toQuietChip(const std::vector<std::string>& lines) {
  const auto config = Live::parseConfig(configText(), "bench.yaml");
  Sim::SimLog quiet;
  Sim::HostAgent agent(&quiet);
  for (const auto& a : Live::configActions(config)) agent.apply(a);
  agent.start();
  Live::Translator t(config);
  Quiet q;
  const auto start = std::chrono::steady_clock::now();
  q.actions = feed(lines, t, &agent);
  q.reviewSeconds = drain(agent);
  q.seconds = seconds(start);
  q.calls = agent.takeCalls().size();
  return q;
}

void BM_ToQuietChip(benchmark::State& state) {
  const auto lines = streamLines();
  for (auto _ : state) {
    const Quiet q = toQuietChip(lines);
    state.SetIterationTime(q.seconds);
    state.counters["routes/s"] = double(routeCount(lines)) / q.seconds;
    state.counters["actions"] = double(q.actions);
    state.counters["chip_calls"] = double(q.calls);
    state.counters["review_virtual_s"] = q.reviewSeconds;
  }
}

// The speaker delivering its table, as the agent asks for it (Live::gobgpStream).
void BM_Speaker(benchmark::State& state) {
  std::vector<std::string> args;
  for (std::size_t at = 0, end; at < gSpeaker.size(); at = end + 1) {
    end = std::min(gSpeaker.find(' ', at), gSpeaker.size());
    if (end > at) args.push_back(gSpeaker.substr(at, end - at));
  }
  std::vector<std::string> lines;
  std::string text;
  for (auto _ : state) {
    Live::Monitor m(Live::gobgpStream(args).tableCommand);
    const auto start = std::chrono::steady_clock::now();
    lines.clear();
    if (!m.start()) state.SkipWithError(m.ended().c_str());
    while (m.read(lines)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double s = seconds(start);
    text.clear();
    for (const auto& l : lines) text += l;
    const auto table = nlohmann::json::parse(text, nullptr, false);
    if (!table.is_object() || table.contains("error")) state.SkipWithError("no table");
    state.SetIterationTime(s);
    state.counters["paths"] = double(table.size());
    state.counters["speaker_routes/s"] = double(table.size()) / s;
    state.counters["json_MB"] = double(text.size()) / 1e6;
  }
  // The same paths, one a line as the monitor's lines give them, through the agent.
  std::vector<std::string> perPath{"[]"};
  const auto table = nlohmann::json::parse(text, nullptr, false);
  for (const auto& [key, paths] : table.items()) {
    if (paths.is_array() && !paths.empty()) perPath.push_back("[" + paths[0].dump() + "]");
  }
  const Quiet q = toQuietChip(perPath);
  state.counters["agent_routes/s"] = double(routeCount(perPath)) / q.seconds;
  state.counters["actions"] = double(q.actions);
}

// The MAC routes as an MRT table (TABLE_DUMP_V2, RIB_GENERIC: gobgpd's own dump writes the
// ADDPATH form, which `gobgp mrt inject` does not read back): EVPN NLRI of type 2 with the route
// target and the MPLS encapsulation, next hop 0.0.0.0 (the injecting speaker's own routes; it
// advertises them with its address).
void writeMrt(const std::string& file) {
  std::ofstream out(file, std::ios::binary);
  auto put = [](std::string& s, std::uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) s.push_back(char((v >> (8 * i)) & 255));
  };
  std::string rec;
  put(rec, 0, 4), put(rec, (13u << 16) | 1, 4), put(rec, 21, 4);  // the peer index table
  put(rec, 0, 8), put(rec, 1, 2), put(rec, 2, 1), put(rec, 0, 4), put(rec, 0, 4), put(rec, 0, 2);
  out << rec;
  for (unsigned i = 0; i < gWorld.macs; ++i) {
    std::string nlri;
    put(nlri, 2, 1), put(nlri, 33, 1);
    put(nlri, 1, 2), put(nlri, 0x0aff0001, 4), put(nlri, vlanOf(i), 2);  // RD 10.255.0.1:<vlan>
    put(nlri, 0, 10), put(nlri, 0, 4), put(nlri, 48, 1), put(nlri, 0x0200, 2), put(nlri, i, 4);
    put(nlri, 0, 1), put(nlri, 30000 + i % 1000, 3);
    std::string attrs;
    put(attrs, 0x400101, 3), put(attrs, 2, 1);
    put(attrs, 0xc01010, 3), put(attrs, 0x0002fde8, 4), put(attrs, vlanOf(i), 4);
    put(attrs, 0x030c, 2), put(attrs, 0, 4), put(attrs, 10, 2);
    put(attrs, 0x800e, 2), put(attrs, 9 + nlri.size(), 1), put(attrs, 0x001946, 3),
        put(attrs, 4, 1), put(attrs, 0, 4), put(attrs, 0, 1);
    attrs += nlri;
    std::string body;
    put(body, i, 4), put(body, 0x001946, 3);
    body += nlri;
    put(body, 1, 2), put(body, 0, 2), put(body, 1, 4), put(body, attrs.size(), 2);
    body += attrs;
    std::string r;
    put(r, 1, 4), put(r, (13u << 16) | 6, 4), put(r, body.size(), 4);
    out << r << body;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool ok = Bench::initialize(argc, argv, [](const char* a) {
    World& w = gWorld;
    if (std::strncmp(a, "--live_world=", 13) == 0) {
      if (std::sscanf(a + 13, "%u,%u,%u", &w.macs, &w.vlans, &w.edges) != 3 || !w.vlans ||
          w.vlans > 4094 || w.edges < 2 || w.edges > 65000) {
        std::fprintf(stderr, "live_routes: --live_world wants MACS,VLANS(1-4094),EDGES(2-65000)\n");
        return Bench::Flag::bad;
      }
    } else if (std::strncmp(a, "--live_mrt=", 11) == 0) {
      gMrt = a + 11;
    } else if (std::strncmp(a, "--live_config=", 14) == 0) {
      gConfig = a + 14;
    } else if (std::strncmp(a, "--live_speaker=", 15) == 0) {
      gSpeaker = a + 15;
    } else {
      return Bench::Flag::other;
    }
    return Bench::Flag::taken;
  });
  if (!ok) return 2;
  if (!gMrt.empty() || !gConfig.empty()) {
    if (!gMrt.empty()) writeMrt(gMrt);
    if (!gConfig.empty()) std::ofstream(gConfig) << configText();
    return 0;
  }
  if (!gSpeaker.empty()) {
    Bench::once("Speaker", BM_Speaker);
  } else {
    Bench::once("Translate", BM_Translate);
    Bench::once("ToQuietChip", BM_ToQuietChip);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
