#include "Kiv/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "Kiv/Types.h"

namespace Kiv {

namespace {

struct Rule {
  std::string pattern;  // exact source, or a prefix when `prefix` is set
  bool prefix;
  int level;
};

std::vector<Rule> parseConfig(std::string_view config) {
  std::vector<Rule> rules;
  std::size_t pos = 0;
  while (pos <= config.size()) {
    std::size_t end = config.find(',', pos);
    if (end == std::string_view::npos) end = config.size();
    std::string_view item = config.substr(pos, end - pos);
    while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
    while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
    if (!item.empty()) {
      Rule r{std::string(item), false, 9};
      std::size_t slash = item.rfind('/');
      if (slash != std::string_view::npos) {
        std::string_view lv = item.substr(slash + 1);
        if (lv.size() != 1 || lv[0] < '0' || lv[0] > '9') {
          throw RangeException("trace level must be a digit 0-9 in '" + std::string(item) + "'");
        }
        r.level = lv[0] - '0';
        r.pattern = std::string(item.substr(0, slash));
      }
      if (!r.pattern.empty() && r.pattern.back() == '*') {
        r.pattern.pop_back();
        r.prefix = true;
      }
      if (r.pattern.empty() && !r.prefix) {
        throw RangeException("trace source missing in '" + std::string(item) + "'");
      }
      rules.push_back(std::move(r));
    }
    pos = end + 1;
  }
  return rules;
}

}  // namespace

class TraceRegistry {
 public:
  static TraceRegistry& instance() {
    static TraceRegistry r;
    return r;
  }
  void add(TraceHandle* h) {
    handles_.push_back(h);
    apply(h);
  }
  void remove(TraceHandle* h) { std::erase(handles_, h); }
  void configIs(std::string_view config) {
    rules_ = parseConfig(config);
    config_ = config;
    for (TraceHandle* h : handles_) apply(h);
  }
  const std::string& config() const { return config_; }
  void sinkIs(TraceSink s) { sink_ = std::move(s); }
  void write(const TraceLine& l) {
    if (sink_) {
      sink_(l);
    } else {
      std::cerr << l.source << "/" << l.level << " " << l.text << "\n";
    }
  }

 private:
  TraceRegistry() {
    if (const char* env = std::getenv("KIV_TRACE")) {
      try {
        rules_ = parseConfig(env);
        config_ = env;
      } catch (const RangeException& e) {
        std::fprintf(stderr, "KIV_TRACE ignored: %s\n", e.what());
      }
    }
  }
  void apply(TraceHandle* h) {
    // The last matching rule wins, so "*/5,Foo/8" reads naturally.
    int level = -1;
    std::string_view src(h->source_);
    for (const Rule& r : rules_) {
      if (r.prefix ? src.starts_with(r.pattern) : src == r.pattern) level = r.level;
    }
    h->level_ = level;
  }

  std::vector<TraceHandle*> handles_;
  std::vector<Rule> rules_;
  std::string config_;
  TraceSink sink_;
};

TraceHandle::TraceHandle(const char* source) : source_(source) {
  TraceRegistry::instance().add(this);
}

TraceHandle::~TraceHandle() { TraceRegistry::instance().remove(this); }

void TraceHandle::write(int level, int line, std::string_view text) const {
  TraceRegistry::instance().write(TraceLine{source_, level, line, text});
}

void traceConfigIs(std::string_view config) { TraceRegistry::instance().configIs(config); }

std::string traceConfig() { return TraceRegistry::instance().config(); }

void traceSinkIs(TraceSink sink) { TraceRegistry::instance().sinkIs(std::move(sink)); }

Quiktrace& Quiktrace::instance() {
  static Quiktrace q;
  return q;
}

std::vector<Quiktrace::Record> Quiktrace::records() const {
  std::vector<Record> out;
  std::size_t n = size();
  out.reserve(n);
  for (std::uint64_t i = total_ - n; i < total_; ++i) out.push_back(ring_[i % kCapacity]);
  return out;
}

void Quiktrace::dump(std::ostream& os) const {
  for (const Record& r : records()) {
    os << r.source << ":" << r.line << " " << r.text;
    if (r.hasValue) os << " [" << r.value << "]";
    os << "\n";
  }
}

}  // namespace Kiv
