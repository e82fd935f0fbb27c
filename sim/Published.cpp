#include "sim/Published.h"

#include <algorithm>
#include <cstring>

namespace Sim {

std::size_t maxAgentNameLength() {
  std::size_t longest = 0;
  for (const auto& t : publishedTables()) longest = std::max(longest, std::strlen(t.name));
  return Shoal::maxAgentNameLength(longest);
}

void checkAgentName(const std::string& agent) {
  Shoal::segmentName(agent, "x");  // the characters a name may hold
  if (agent.size() > maxAgentNameLength()) {
    throw Shoal::SegmentException(
        "an agent's name is at most " + std::to_string(maxAgentNameLength()) + " characters, not " +
        std::to_string(agent.size()) +
        ": each of its tables is the shared-memory object /shoal.<agent>.<table>, whose name "
        "holds at most " +
        std::to_string(Shoal::segmentNameMax) + " bytes with the longest table's name");
  }
}

// ---- the writer's side ------------------------------------------------------------------------

Publisher::Publisher(std::string agent) : agent_(std::move(agent)) {
  // What a crashed run of the same agent left, for tables this run may not make.
  Shoal::removeStaleSegments(agent_);
}

Publisher::~Publisher() = default;

void Publisher::sync() {
  for (auto& m : mirrors_) m->sync();
}

// ---- the reader's side ------------------------------------------------------------------------

std::vector<PublishedTableKind> publishedTables(const Families& families) {
  std::vector<PublishedTableKind> out;
  for (const Family* f : families) {
    for (auto& t : f->publishedTables()) out.push_back(std::move(t));
  }
  return out;
}

std::optional<PublishedTableKind> publishedTable(const std::string& name,
                                                 const Families& families) {
  for (auto& t : publishedTables(families)) {
    if (name == t.name) return std::move(t);
  }
  return std::nullopt;
}

}  // namespace Sim
