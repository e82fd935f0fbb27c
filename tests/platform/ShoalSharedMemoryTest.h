#pragma once
// What the shared-memory table tests share: names unique to this run, removed even on failure.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "Shoal/Segment.h"

namespace ShoalTest {

// An agent name of this run; its segments are removed when the guard goes, however the test ends.
class AgentGuard {
 public:
  explicit AgentGuard(const std::string& what) : agent_(what + std::to_string(::getpid())) {
    Shoal::removeStaleSegments(agent_);
  }
  ~AgentGuard() { Shoal::removeStaleSegments(agent_); }
  const std::string& agent() const { return agent_; }

 private:
  std::string agent_;
};

}  // namespace ShoalTest
