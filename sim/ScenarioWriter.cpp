#include "sim/ScenarioWriter.h"

#include <charconv>
#include <sstream>

namespace Sim {

namespace {

void writeAction(std::ostream& os, const char* indent, const Action& a) {
  os << indent << "- ";
  a.body->write(os);
  os << "\n";
}

void writeExpectation(std::ostream& os, const Expectation& e) {
  os << "      " << e.name << ":";
  if (e.lines.empty()) {
    os << " none\n";
    return;
  }
  os << "\n";
  for (const auto& l : e.lines) os << "        - " << l << "\n";
}

}  // namespace

std::string timeText(double t) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, t);
  return std::string(buf, end);
}

std::string scenarioText(const Scenario& s, const std::string& comment) {
  std::ostringstream os;
  os << comment;
  if (!s.name.empty()) os << "name: " << s.name << "\n";
  if (!s.description.empty()) {
    os << "description: >-\n  ";
    for (char c : s.description) {
      os << c;
      if (c == '\n') os << "  ";
    }
    os << "\n";
  }
  if (!s.initial.empty()) {
    os << "initial:\n";
    for (const auto& a : s.initial) writeAction(os, "  ", a);
  }
  os << "steps:\n";
  for (const Step& st : s.steps) {
    os << "  - at: " << timeText(st.at) << "\n";
    if (!st.note.empty()) os << "    note: " << st.note << "\n";
    if (!st.actions.empty()) {
      os << "    do:\n";
      for (const auto& a : st.actions) writeAction(os, "      ", a);
    }
    if (!st.expectations.empty()) {
      os << "    expect:\n";
      for (const auto& e : st.expectations) writeExpectation(os, e);
    }
  }
  return os.str();
}

}  // namespace Sim
