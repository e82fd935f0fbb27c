#include "sim/families/macFec/MacFecAgent.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <sstream>

#include "Kiv/Digest.h"
#include "sim/Published.h"
#include "sim/families/fec/FecAgent.h"
#include "sim/families/macFec/MacFecCheck.h"
#include "sim/families/macFec/MacFecTables.h"

namespace Sim {

using L2Rib::ObjTuple;
using Shoal::Fib::FecId;

namespace mactext {

void put(std::string& s, const L2Rib::ObjTuple& v) {
  static constexpr const char* names[] = {"none", "loadBalance", "label", "dest"};
  s.append(v.tableType() < 4 ? names[v.tableType()] : "?");
  s.push_back('/');
  put(s, v.id());
}

void put(std::string& s, Shoal::Fib::FecId v) {
  char buf[20];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v.value(), 16);
  s.append("FecId(0x").append(buf, end).push_back(')');
}

}  // namespace mactext

std::map<FecId, ObjTuple> owners(const Oba::FecIdToHwFecIdRequest& request) {
  std::map<FecId, ObjTuple> out;
  for (auto&& e : request.objTupleToFecIdWalk()) out.emplace(e.value.fecId(), e.key);
  return out;
}

std::string viaText(const Shoal::Fib::Via& via, const std::map<FecId, ObjTuple>& owner) {
  std::string s = macText("via(", via.index().value(), ", ", via.mplsLabel(), ", ");
  if (via.fecId().value() != 0) {
    auto o = owner.find(via.fecId());
    if (o == owner.end()) {
      mactext::put(s, "fec ");
      mactext::put(s, via.fecId());
    } else {
      mactext::put(s, "fec of ");
      mactext::put(s, o->second);
    }
  } else if (via.tunnelId().isValid()) {
    mactext::put(s, via.tunnelId());
  } else {
    mactext::put(s, "none");
  }
  s.push_back(')');
  return s;
}

std::string viaText(const Shoal::Fib::Via& via, const Oba::FecIdToHwFecIdRequest& request) {
  return viaText(via, owners(request));
}

// ---- the agent's part ---------------------------------------------------------------------------

// Every request the machine writes, as the chip layer sees it.
class MacFecAgent::RequestLog : public Oba::FecIdToHwFecIdRequest::NotifieeConst {
 public:
  explicit RequestLog(MacFecAgent* family) : family_(family) { notifierIs(family->request); }
  void onHwFecIdRequest(const FecId& fecId) override {
    if (!family_->agent.log().enabled()) return;
    std::ostringstream os;
    os << "request " << fecId << (notifier()->hwFecIdRequest(fecId).found ? "" : " deleted");
    family_->agent.note(writer, os.str());
  }
  void onFec(const FecId& fecId) override {
    if (!family_->agent.log().enabled()) return;
    std::ostringstream os;
    auto fec = notifier()->fec(fecId);
    os << "fec " << fecId;
    if (!fec.found) {
      os << " deleted";
    } else {
      const auto owner = owners(*notifier());
      for (const auto& v : fec.row.via()) os << " " << viaText(v, owner);
    }
    family_->agent.note(writer, os.str());
  }

 private:
  MacFecAgent* family_;
};

// Every result write, as other agents see it.
class MacFecAgent::ResultLog : public Oba::ObjTupleToHwId::NotifieeConst {
 public:
  explicit ResultLog(MacFecAgent* family) : family_(family) { notifierIs(family->result); }
  void onHwId(const ObjTuple& t) override {
    if (!family_->agent.log().enabled()) return;
    std::ostringstream os;
    auto row = notifier()->hwId(t);
    os << "result " << t;
    if (row.found) {
      os << " -> " << row.row;
    } else {
      os << " deleted";
    }
    family_->agent.note(writer, os.str());
  }

 private:
  MacFecAgent* family_;
};

// The chip's answers to requests that stand, per requesting object: a result row whose answer
// went must hold the last of them.
class MacFecAgent::AnswerLog : public Oba::FecIdToHwFecIdResponse::NotifieeConst {
 public:
  explicit AnswerLog(MacFecAgent* family) : family_(family) { notifierIs(family->response); }
  void onHwFecId(const FecId& fecId) override {
    auto answer = notifier()->hwFecId(fecId);
    if (!answer.found || !family_->request->hwFecIdRequest(fecId).found) return;
    for (auto&& e : family_->request->objTupleToFecIdWalk()) {
      if (e.value.fecId() == fecId) family_->lastAnswer_[e.key] = answer.row.hwFecId();
    }
  }

 private:
  MacFecAgent* family_;
};

MacFecAgent::MacFecAgent(HostAgent& a)
    : agent(a),
      timerWheel(Mox::TimerWheel::TimerWheelIs(a.clock)),
      labels(new L2Rib::LabelOutput("l2RibLabel")),
      lbs(new L2Rib::LoadBalanceOutput("l2RibLoadBalance")),
      dests(new L2Rib::DestOutput("l2RibDest")),
      hosts(new L2Rib::HostOutput("l2RibHost")),
      request(new Oba::FecIdToHwFecIdRequest("macAddrFecRequest")),
      response(new Oba::FecIdToHwFecIdResponse("macAddrFecResponse")),
      result(new Oba::ObjTupleToHwId("objTupleToHwId")),
      chip(a.part<FecAgent>().chip),
      requestLog_(std::make_unique<RequestLog>(this)),
      resultLog_(std::make_unique<ResultLog>(this)),
      answerLog_(std::make_unique<AnswerLog>(this)) {
  chip->requesterIs(request, response, writer);
}

std::uint32_t MacFecAgent::lastAnswer(const ObjTuple& t) const {
  auto it = lastAnswer_.find(t);
  return it == lastAnswer_.end() ? 0 : it->second;
}

MacFecAgent::~MacFecAgent() = default;

void MacFecAgent::start() {
  // The machine writes results only as answers come, and never removes a row whose request went
  // before the answer was withdrawn: what an earlier incarnation published would stay. The agent
  // republishes the result from scratch, as a fresh start has it.
  result->hwIdDelAll();
  lastAnswer_.clear();
  sm = Oba::obaMacAddrFecRequestSmFactory(labels, lbs, dests, hosts, response, request, result,
                                          timerWheel, agent.scheduler);
  sm->maxChainLengthIs(maxChainLength_);
  sm->reviewIntervalIs(reviewInterval_);
  // The machine sizes its allocator when it is made and hands out nothing before its first
  // review, so making the allocator again here loses no number.
  if (!(fecNumberRange_ == Oba::ObaMacAddrFecRequestSm::fecNumberRange)) {
    sm->numAllocatorConfigIs(fecNumberRange_);
    sm->numAllocatorStatusIs();
    sm->numAllocatorIs(sm->numAllocatorConfig(), sm->numAllocatorStatus(), timerWheel->clock());
  }
}

void MacFecAgent::stop() { sm = nullptr; }

void MacFecAgent::restart(const std::string&) {
  stop();
  start();
}

void MacFecAgent::maxChainLengthIs(std::uint32_t n) {
  maxChainLength_ = n;
  if (sm) restart("macFec");
}

void MacFecAgent::reviewIntervalIs(double seconds) {
  reviewInterval_ = seconds;
  if (sm) sm->reviewIntervalIs(seconds);
}

void MacFecAgent::fecNumberRangeIs(Mox::Range range) {
  fecNumberRange_ = range;
  if (sm) restart("macFec");
}

std::vector<std::string> MacFecAgent::fecLines() const {
  std::vector<std::string> out;
  const auto owner = owners(*request);
  for (auto&& e : request->fecWalk()) {
    std::ostringstream os;
    auto o = owner.find(e.key);
    if (o == owner.end()) {
      os << e.key;
    } else {
      os << o->second;
    }
    if (request->hwFecIdRequest(e.key).found) os << " requested";
    if (e.value.via().empty()) os << " no vias";
    for (const auto& v : e.value.via()) os << " " << viaText(v, owner);
    out.push_back(os.str());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> MacFecAgent::resultLines() const {
  std::vector<std::string> out;
  for (auto&& e : result->hwIdWalk()) {
    std::ostringstream os;
    os << e.key << " -> " << e.value;
    out.push_back(os.str());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> MacFecAgent::lines(std::string_view table) const {
  if (table == "fecs") return fecLines();
  if (table == "objTupleToHwId") return resultLines();
  return chip->lines();
}

void MacFecAgent::printOutputs(std::ostream& os) const {
  os << "request fecs:\n" << block(fecLines());
  os << "result objTupleToHwId:\n" << block(resultLines());
}

void MacFecAgent::publish(Publisher& p) {
  request->hwFecIdRequestBackingIs(p.backing<FecRequestsTable>());
  request->objTupleToFecIdBackingIs(p.backing<FecOwnersTable>());
  result->hwIdBackingIs(p.backing<ResultsTable>());
}

void MacFecAgent::draw(DotGraph& graph) const { drawMacFec(*this, graph); }

bool MacFecAgent::busy() const { return (sm && !sm->backLogQsDrained()) || chip->busy(); }

void MacFecAgent::count(Counters& c) const { c["macFecsChecked"] += request->fecs(); }

void MacFecAgent::ledger(std::vector<std::string>& out) const {
  for (auto& l : macFecLedger(*this)) out.push_back(std::move(l));
}

std::optional<CheckFailure> MacFecAgent::check(Counters* counters) const {
  return checkMacFec(*this, counters);
}

ExpectedTables MacFecAgent::finalExpectations() const { return macFecExpectations(*this); }

// Inputs, outputs and machines by their digests; the chip part is the chip's.
void MacFecAgent::digest(Kiv::Digest& d) const {
  d.add(labels);
  d.add(lbs);
  d.add(dests);
  d.add(hosts);
  d.add(request);
  d.add(response);
  d.add(result);
  d.add(sm);
  d.add(maxChainLength_);
  d.add(fecNumberRange_.min);
  d.add(fecNumberRange_.max);
  d.add(lastAnswer_);
}

}  // namespace Sim
