#pragma once
// The translation of EVPN routes into the agent's inputs: no I/O, only the routes it is given
// (by route key) and the simulator's own actions (the families' action structs), so that the live
// path and a scenario go through the same code, and what it applied can be written as one.
//
//   - Ethernet-segment routes (type 4) of a local segment: the designated forwarder of each
//     (segment, VLAN) by the default service carving (the segment's edges' addresses in order,
//     this switch among them, the VLAN modulo their number); a remote forwarder becomes the
//     segment's forwarder endpoint for the VLAN, this switch none.
//   - Per-segment auto-discovery routes (type 1) of a local segment: the edge's ESI label.
//   - Inclusive-multicast routes (type 3): the VLAN's flood set of MPLS destinations.
//   - MAC/IP routes (type 2): layer-2 RIB hosts through labels and destinations; a MAC that
//     several edges advertise in a VLAN is a load balance of their labels.
// Remote edges are tunnels, one per address: DynTunnel1.<address as a number>. VLANs are EVPN
// instances by route target, from the local configuration. A route it cannot use is counted and
// its reason told once; what it programmed before stays.

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "L2Rib/Dest.h"
#include "L2Rib/ObjTuple.h"
#include "sim/Family.h"
#include "sim/live/LiveConfig.h"
#include "sim/live/Route.h"

namespace Live {

using Actions = std::vector<Sim::Action>;

// The tunnel endpoint of a remote edge.
Quil::IntfId tunnelOf(std::uint32_t address);

class Translator {
 public:
  explicit Translator(const Config& config);

  // One path of the stream, an add or a withdrawal: the actions that follow from it, in order.
  void path(const nlohmann::json& path, Actions& out);
  // The whole table (the stream's first line): its paths in key order, so that one table always
  // gives the same actions.
  void table(const nlohmann::json& paths, Actions& out);

  // Resynchronising: every route held is stale until the stream gives it again; `dropStale`
  // withdraws those it has not.
  void markStale();
  void dropStale(Actions& out);
  std::size_t staleCount() const;
  // Stale routes the stream has given again so far: a resynchronisation still making progress.
  std::uint64_t confirmed() const { return confirmed_; }

  std::size_t routes() const { return held_.size(); }
  // Routes not used, by reason; `onFirstUnusable` hears of each reason once, with the route key.
  const std::map<std::string, std::uint64_t>& unusable() const { return unusable_; }
  std::function<void(const std::string& reason, const std::string& key)> onFirstUnusable;

 private:
  // A route as the translation uses it: where it lands (its place), and what it brings there.
  struct Use {
    int type = 0;
    bool effect = false;  // false: held, but nothing of it here (its own, another segment)
    Bridging::VlanId vlan;
    const LocalSegment* segment = nullptr;
    std::uint32_t edge = 0, label = 0;
    Quil::EthAddr mac;
    bool samePlace(const Use& o) const;
  };
  struct Held {
    Use use;
    std::string content;
    bool stale = false;
  };
  using Path = std::pair<std::uint32_t, std::uint32_t>;  // an edge and its label
  using HostKey = std::pair<std::uint16_t, std::uint64_t>;
  // Ids of one RIB table, the lowest free first.
  struct Ids {
    std::uint32_t next = 1;
    std::set<std::uint32_t> freed;
    std::uint32_t take();
    void give(std::uint32_t id) { freed.insert(id); }
  };
  template <class K>
  struct Objects {
    struct Obj {
      std::uint32_t id;
      std::uint32_t refs;
    };
    std::map<K, Obj> byKey;
    std::map<std::uint32_t, K> byId;
    Ids ids;
  };

  Use use(const Route& r) const;
  void add(const Route& r, Actions& out);
  void withdraw(const std::string& key, Actions& out);
  void on(const std::string& key, const Use& u, Actions& out);
  void off(const std::string& key, const Use& u, Actions& out);
  void esiLabelTold(const Use& u, std::uint32_t label, Actions& out);
  void unusable(const std::string& reason, const std::string& key);

  void elect(const LocalSegment& segment, Actions& out);
  void hostChanged(const HostKey& host, Actions& out);
  L2Rib::ObjTuple acquireDest(std::uint32_t edge, Actions& out);
  L2Rib::ObjTuple acquireLabel(const Path& p, Actions& out);
  L2Rib::ObjTuple acquireHead(const std::vector<Path>& paths, Actions& out);
  void release(L2Rib::ObjTuple o, Actions& out);

  const Config& config_;
  std::map<std::string, Held> held_;
  std::map<std::string, std::uint64_t> unusable_;
  std::uint64_t confirmed_ = 0;
  // Type 4: each local segment's remote edges, by route key; the forwarders told, remote only.
  std::map<const LocalSegment*, std::map<std::string, std::uint32_t>> segmentEdges_;
  std::map<std::pair<Quil::IntfId, std::uint16_t>, std::uint32_t> forwarders_;
  // Type 1: the ESI labels of each (segment, edge), by route key.
  std::map<std::pair<const LocalSegment*, std::uint32_t>, std::map<std::string, std::uint32_t>>
      esiLabels_;
  // Type 3: the routes behind each flood-set member.
  std::map<std::pair<std::uint16_t, L2Rib::Dest>, std::set<std::string>> floodMembers_;
  // Type 2: each host's paths by route key, and the object it points at.
  std::map<HostKey, std::map<std::string, Path>> hostPaths_;
  std::map<HostKey, L2Rib::ObjTuple> heads_;
  Objects<std::uint32_t> dests_;
  Objects<Path> labels_;
  Objects<std::vector<Path>> loadBalances_;
};

}  // namespace Live
