#pragma once
// The forwarding state as a Graphviz graph: `oba-evpn-sim --dot FILE` (the state a scenario ends
// in) and `--dot-each DIR` (one picture after the agent's start and after each step). The core
// provides the graph and its title; each family draws its own part into it (Family::draw): the
// inputs its machines follow, what they hold and what the chip holds. Looks make what is not in
// place stand out:
//   plain     programmed
//   pending   work a machine holds as not done yet: a review will retry it, or an input is missing
//   refused   the chip said no (a create refused, no id to give)
//   stale     in the chip, but no machine holds it
//
//   Sim::DotGraph g("typical event at time 1");
//   g.cluster("tunnelEsi", "hardware tunnel ids and ESI data");
//   g.node("tunnelEsi/tunnel/Tunnel1.1", "Tunnel1.1\nhw 1", {.cluster = "tunnelEsi"});
//   g.edge("tunnelEsi/vlan/10", "tunnelEsi/tunnel/Tunnel1.1", "DF");
//   g.write(std::cout);

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace Sim {

class HostAgent;
struct Scenario;
struct Step;

// A label or an id from its parts, each as it prints: dotText("vlan ", vlan) is "vlan 10".
template <class... T>
std::string dotText(const T&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  return os.str();
}

enum class DotLook : std::uint8_t { plain, pending, refused, stale };
enum class DotShape : std::uint8_t { box, ellipse, note };
struct DotNodeStyle {
  DotLook look = DotLook::plain;
  DotShape shape = DotShape::box;
  std::string cluster{};  // the box it is drawn in; none: the graph itself
};

class DotGraph {
 public:
  using Look = DotLook;
  using Shape = DotShape;
  using NodeStyle = DotNodeStyle;

  explicit DotGraph(std::string title) : title_(std::move(title)) {}

  // A box of nodes, drawn inside `parent` when it names another box. Ids are the graph's own
  // namespace: a family starts its ids with its name.
  void cluster(std::string id, std::string label, std::string parent = {});
  // A node; lines of its label are separated by '\n'. A node drawn again keeps its first form.
  void node(std::string id, std::string label, NodeStyle style = {});
  void edge(std::string from, std::string to, std::string label = {}, Look look = Look::plain);

  bool hasNode(const std::string& id) const;

  // A large table is summarised: a family draws at most `perKind` nodes of one kind in each look
  // (so that programmed entries never crowd out what stands out) and counts the rest into one
  // note per look, "... and K more <look> <what>" (the legend then says so). `take` is true while
  // the kind has room in that look; `summarise` draws the notes in box `cluster`.
  static constexpr std::size_t perKind = 24;
  class Budget {
   public:
    bool take(Look look) { return ++seen_[static_cast<int>(look)] <= perKind; }
    std::size_t leftOut(Look look) const {
      const std::size_t n = seen_[static_cast<int>(look)];
      return n > perKind ? n - perKind : 0;
    }

   private:
    std::size_t seen_[4] = {};
  };
  void summarise(const Budget& budget, const std::string& cluster, const std::string& what);
  // The graph in the dot language, with a legend of the looks it uses beyond plain.
  void write(std::ostream& os) const;
  std::string text() const;

 private:
  struct Cluster {
    std::string id, label, parent;
  };
  struct Node {
    std::string id, label;
    NodeStyle style;
  };
  struct Edge {
    std::string from, to, label;
    Look look;
  };
  void writeCluster(std::ostream& os, const std::string& id, int depth) const;
  void writeNode(std::ostream& os, const Node& n, int depth) const;

  std::string title_;
  std::vector<Cluster> clusters_;
  std::vector<Node> nodes_;
  std::vector<Edge> edges_;
  bool summarised_ = false;
};

// The agent's forwarding state, each family's part drawn in the order the families start.
DotGraph drawAgent(const HostAgent& agent, std::string title);

// What --dot and --dot-each ask of one scenario's run: record() after the agent's start (no step)
// and after each step; finish() at the end. Writing a file that cannot be written throws
// std::runtime_error naming it.
class DotPictures {
 public:
  // `file`: where the last picture goes (empty: nowhere); `dir`: one file per picture, made if
  // missing, named <index>-t<time>.dot (00 is the start) (empty: none).
  DotPictures(std::string file, std::string dir) : file_(std::move(file)), dir_(std::move(dir)) {}
  bool enabled() const { return !file_.empty() || !dir_.empty(); }
  void record(const Scenario& scenario, const HostAgent& agent, const Step* step);
  void finish() const;

 private:
  std::string file_, dir_;
  std::string last_;
  int count_ = 0;
};

}  // namespace Sim
