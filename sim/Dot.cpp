#include "sim/Dot.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "sim/HostAgent.h"
#include "sim/Scenario.h"

namespace Sim {

namespace {

// A quoted dot string; '\n' in the text becomes a line break.
std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// How each look is drawn, by its value: a node's attributes, an edge's (a look's colour and line,
// never its fill), and what the legend says it means.
struct LookForm {
  const char* node;
  const char* edge;
  const char* meaning;
};
constexpr LookForm lookForms[] = {
    {"", "", "programmed"},
    {", color=darkorange, fontcolor=darkorange3, style=dashed, penwidth=1.5",
     ", color=darkorange, fontcolor=darkorange3, style=dashed",
     "pending: a review will retry it,\nor an input is missing"},
    {", color=red, fontcolor=red3, style=\"bold,filled\", fillcolor=mistyrose, penwidth=2",
     ", color=red, fontcolor=red3, penwidth=2", "refused by the chip"},
    {", color=gray50, fontcolor=gray40, style=dotted",
     ", color=gray50, fontcolor=gray40, style=dotted", "in the chip, held by no machine"},
};
const LookForm& form(DotGraph::Look look) { return lookForms[static_cast<std::size_t>(look)]; }

constexpr const char* shapeNames[] = {"box", "ellipse", "note"};

std::string indent(int depth) { return std::string(2 * static_cast<std::size_t>(depth), ' '); }

}  // namespace

void DotGraph::cluster(std::string id, std::string label, std::string parent) {
  for (const auto& c : clusters_) {
    if (c.id == id) return;
  }
  clusters_.push_back({std::move(id), std::move(label), std::move(parent)});
}

void DotGraph::node(std::string id, std::string label, NodeStyle style) {
  if (hasNode(id)) return;
  nodes_.push_back({std::move(id), std::move(label), std::move(style)});
}

void DotGraph::edge(std::string from, std::string to, std::string label, Look look) {
  edges_.push_back({std::move(from), std::move(to), std::move(label), look});
}

bool DotGraph::hasNode(const std::string& id) const {
  return std::any_of(nodes_.begin(), nodes_.end(), [&](const Node& n) { return n.id == id; });
}

void DotGraph::writeNode(std::ostream& os, const Node& n, int depth) const {
  os << indent(depth) << quoted(n.id) << " [label=" << quoted(n.label)
     << ", shape=" << shapeNames[static_cast<std::size_t>(n.style.shape)] << form(n.style.look).node
     << "];\n";
}

void DotGraph::writeCluster(std::ostream& os, const std::string& id, int depth) const {
  for (const auto& c : clusters_) {
    if (c.parent != id) continue;
    // Graphviz draws a subgraph as a box only when its name starts with "cluster".
    os << indent(depth) << "subgraph " << quoted("cluster " + c.id) << " {\n"
       << indent(depth + 1) << "label=" << quoted(c.label) << ";\n";
    writeCluster(os, c.id, depth + 1);
    os << indent(depth) << "}\n";
  }
  for (const auto& n : nodes_) {
    if (n.style.cluster == id) writeNode(os, n, depth);
  }
}

void DotGraph::write(std::ostream& os) const {
  os << "digraph forwarding {\n"
     << "  label=" << quoted(title_) << ";\n"
     << "  labelloc=t;\n  rankdir=LR;\n  fontname=\"Helvetica\";\n"
     << "  node [fontname=\"Helvetica\", fontsize=11];\n"
     << "  edge [fontname=\"Helvetica\", fontsize=10];\n";
  writeCluster(os, "", 1);
  for (const auto& e : edges_) {
    os << "  " << quoted(e.from) << " -> " << quoted(e.to);
    os << " [label=" << quoted(e.label) << form(e.look).edge << "];\n";
  }
  // The legend names the looks in use that are not plain.
  bool inUse[4] = {};
  for (const auto& n : nodes_) inUse[static_cast<int>(n.style.look)] = true;
  for (const auto& e : edges_) inUse[static_cast<int>(e.look)] = true;
  std::vector<Look> used;
  for (Look look : {Look::pending, Look::refused, Look::stale}) {
    if (inUse[static_cast<int>(look)]) used.push_back(look);
  }
  if (!used.empty() || summarised_) {
    os << "  subgraph \"cluster legend\" {\n    label=\"legend\";\n";
    for (Look look : used) {
      os << "    " << quoted("legend/" + std::to_string(static_cast<int>(look)))
         << " [label=" << quoted(form(look).meaning) << ", shape=box" << form(look).node << "];\n";
    }
    // A summarised table says how much of it is drawn.
    if (summarised_) {
      os << "    \"legend/summary\" [label="
         << quoted("at most " + std::to_string(perKind) +
                   " entries of a kind drawn;\nthe rest counted in one note")
         << ", shape=note];\n";
    }
    os << "  }\n";
  }
  os << "}\n";
}

void DotGraph::summarise(const Budget& budget, const std::string& cluster,
                         const std::string& what) {
  constexpr const char* names[] = {"programmed", "pending", "refused", "stale"};
  for (Look look : {Look::plain, Look::pending, Look::refused, Look::stale}) {
    const std::size_t n = budget.leftOut(look);
    if (n == 0) continue;
    const char* name = names[static_cast<std::size_t>(look)];
    node(cluster + "/more/" + name, dotText("... and ", n, " more ", name, " ", what),
         {.look = look, .shape = Shape::note, .cluster = cluster});
    summarised_ = true;
  }
}

std::string DotGraph::text() const {
  std::ostringstream os;
  write(os);
  return os.str();
}

DotGraph drawAgent(const HostAgent& agent, std::string title) {
  DotGraph graph(std::move(title));
  for (const auto& part : agent.parts()) part->draw(graph);
  return graph;
}

void DotPictures::record(const Scenario& scenario, const HostAgent& agent, const Step* step) {
  std::ostringstream title, time;
  time << agent.now();
  title << scenario.name << "\nat time " << time.str() << ": "
        << (step ? (step->note.empty() ? "step at line " + std::to_string(step->line) : step->note)
                 : std::string("the agent has started"));
  last_ = drawAgent(agent, title.str()).text();
  if (dir_.empty()) return;
  std::filesystem::create_directories(dir_);
  char index[16];
  std::snprintf(index, sizeof index, "%02d", count_++);
  const std::string path = dir_ + "/" + index + "-t" + time.str() + ".dot";
  std::ofstream out(path);
  out << last_;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void DotPictures::finish() const {
  if (file_.empty()) return;
  std::ofstream out(file_);
  out << last_;
  if (!out) throw std::runtime_error("cannot write " + file_);
}

}  // namespace Sim
