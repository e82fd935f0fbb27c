#include "Kiv/Cause.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

namespace Kiv {

bool causing_ = false;

namespace {

// The current scope's cause and the last answer noted in it. One thread runs the agent.
Ptr<const Cause>& current() {
  static Ptr<const Cause> c;
  return c;
}
Ptr<const Cause>& answer() {
  static Ptr<const Cause> a;
  return a;
}

}  // namespace

Cause::Cause(Kind kind, std::string text, Ptr<const Cause> parent)
    : kind_(kind), depth_(1), text_(std::move(text)), root_(nullptr) {
  if (parent) {
    if (parent->depth() >= maxDepth) {
      // Keep the nearest link and the root; what lay between is counted.
      const Cause& r = parent->root();
      skipped_ = parent->depth() - 1;
      parent = Ptr<const Cause>(&r);
    }
    depth_ = parent->depth() + 1;
    root_ = &parent->root();
    parent_ = std::move(parent);
  }
}

void causingIs(bool on) {
  causing_ = on;
  if (!on) {
    current() = nullptr;
    answer() = nullptr;
  }
}

const Ptr<const Cause>& causeNow() { return current(); }

const Ptr<const Cause>& causeForLater() { return answer() ? answer() : current(); }

bool causeAnswered() { return static_cast<bool>(answer()); }

Ptr<const Cause> causeOf(Cause::Kind kind, std::string text) {
  return causeOf(kind, std::move(text), current());
}

Ptr<const Cause> causeOf(Cause::Kind kind, std::string text, Ptr<const Cause> parent) {
  return Ptr<const Cause>(new Cause(kind, std::move(text), std::move(parent)));
}

void causeAnswer(std::string text) {
  if (!causing_) return;
  answer() = causeOf(Cause::Kind::answer, std::move(text));
}

CauseScope::CauseScope(Ptr<const Cause> cause) : active_(causing_ && cause) {
  if (!active_) return;
  before_ = std::exchange(current(), std::move(cause));
  answerBefore_ = std::exchange(answer(), nullptr);
}

CauseScope::~CauseScope() {
  if (!active_) return;
  current() = std::move(before_);
  answer() = std::move(answerBefore_);
}

std::vector<std::string> causeChain(const Cause* c, CauseDetail detail) {
  std::vector<std::string> out;
  // Told once each in brief: a task's runs (a review that kept failing runs again and again) and
  // an answer repeated by them.
  std::vector<std::string_view> toldOnce;
  for (; c; c = c->parent().ptr()) {
    bool tell = true;
    if (detail == CauseDetail::brief) {
      std::string_view subject = c->text();
      if (c->kind() == Cause::Kind::task) subject = subject.substr(0, subject.find(" runs at "));
      if (c->kind() == Cause::Kind::handler) {
        tell = false;  // the machine that heard the write above it
      } else if (c->kind() == Cause::Kind::task || c->kind() == Cause::Kind::answer) {
        for (std::string_view t : toldOnce) tell = tell && t != subject;
        if (tell) toldOnce.push_back(subject);
      }
    }
    if (tell) out.push_back(c->text());
    if (c->skipped()) out.push_back("... " + std::to_string(c->skipped()) + " causes left out");
  }
  return out;
}

std::string causeTypeName(const std::type_info& t) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> d(abi::__cxa_demangle(t.name(), nullptr, nullptr, &status),
                                           std::free);
  std::string name = status == 0 && d ? d.get() : t.name();
  // Drop the outermost namespace and anonymous ones: a nested class keeps its owner's name
  // ("EvpnFloodingEsiSm::KivSegmentStatus"), which says which machine heard.
  const std::string_view anon = "(anonymous namespace)::";
  if (name.starts_with(anon)) {
    name.erase(0, anon.size());
  } else if (const std::size_t sep = name.substr(0, name.find('<')).find("::");
             sep != std::string::npos) {
    name.erase(0, sep + 2);
  }
  for (std::size_t at; (at = name.find(anon)) != std::string::npos;) name.erase(at, anon.size());
  return name;
}

}  // namespace Kiv
