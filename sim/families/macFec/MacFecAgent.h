#pragma once
// The MAC-address FEC family's part of a host agent: the layer-2 RIB's label, load-balance,
// destination and host tables, the MAC-address FEC machine that turns them into FEC requests, and
// the result it publishes from the answers of the chip's FEC table (sim/families/fec/FecChip,
// shared with other requesters, found through the fec family's part).
//
// Inputs: the four RIB tables. Outputs: the request entity (written by the machine), the response
// entity (written by the chip) and the result `objTupleToHwId`. Scenario actions: host(Del),
// label(Del), loadBalance(Del), dest(Del), corrupt, rewrite, maxChainLength; tables: fecs,
// objTupleToHwId (docs/scenario-format.md).

#include <charconv>
#include <concepts>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "L2Rib/RibOutputs.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaFecRecords.h"
#include "ObaEvpn/ObaMacAddrFecRequestSm.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/families/fec/FecChip.h"

namespace Sim {

// Text built by appending, without a stream: the checks build lines for every FEC after every
// step of a fuzz run. macText(tuple, " -> ", 3) is "label/1 -> 3".
namespace mactext {
inline void put(std::string& s, const char* v) { s.append(v); }
inline void put(std::string& s, std::string_view v) { s.append(v); }
inline void put(std::string& s, const std::string& v) { s.append(v); }
template <std::integral T>
void put(std::string& s, T v) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  s.append(buf, end);
}
inline void put(std::string& s, Quil::MplsLabel v) { s.append(v.text().view()); }
inline void put(std::string& s, const Tunnel::TunnelTable::TunnelId& v) {
  s.append(v.text().view());
}
void put(std::string& s, const L2Rib::ObjTuple& v);  // "label/1"
void put(std::string& s, Shoal::Fib::FecId v);       // "FecId(0x800000000000001)"
}  // namespace mactext

template <class... Args>
std::string macText(const Args&... args) {
  std::string s;
  s.reserve(64);
  using mactext::put;
  (put(s, args), ...);
  return s;
}

const Family& macFecFamily();

// The family's part of a host agent, as tests and checks see it.
class MacFecAgent : public FamilyAgent {
 public:
  static constexpr const char* writer = "macFec";
  static const Family& family() { return macFecFamily(); }

  explicit MacFecAgent(HostAgent& agent);
  ~MacFecAgent() override;

  // Clears the result (the machine republishes it from the chip's answers) and makes the machine.
  void start() override;
  void stop() override;
  // "macFec": the machine alone, over the same inputs.
  void restart(const std::string& machine) override;
  std::vector<std::string> lines(std::string_view table) const override;
  void printOutputs(std::ostream& os) const override;
  void publish(Publisher& p) override;
  void draw(DotGraph& graph) const override;
  // The machine's review while its backlogs hold work, and the chip's answers and retries.
  bool busy() const override;
  void count(Counters& c) const override;
  void ledger(std::vector<std::string>& out) const override;
  std::optional<CheckFailure> check(Counters* counters) const override;
  ExpectedTables finalExpectations() const override;
  void digest(Kiv::Digest& d) const override;

  // The setting the machine is made with; a running machine is restarted with a new one.
  void maxChainLengthIs(std::uint32_t n);
  std::uint32_t maxChainLength() const { return maxChainLength_; }
  // The machine's review interval: the running machine takes it at once, a new one when made.
  void reviewIntervalIs(double seconds);
  // The FEC numbers the machine hands out: a machine is made with them, a running one restarted.
  void fecNumberRangeIs(Mox::Range range);

  // "label/1 requested via(0, 1001, Tunnel1.1)", one per FEC of the request entity, sorted.
  std::vector<std::string> fecLines() const;
  // "label/1 -> 3", sorted.
  std::vector<std::string> resultLines() const;
  // The hardware id of the last answer the chip gave to a FEC id `t` had requested (since the
  // machine started), or 0: what `t`'s result row keeps once that answer is withdrawn.
  std::uint32_t lastAnswer(const L2Rib::ObjTuple& t) const;

  HostAgent& agent;
  const Kiv::Ptr<Mox::TimerWheel> timerWheel;
  const Kiv::Ptr<L2Rib::LabelOutput> labels;
  const Kiv::Ptr<L2Rib::LoadBalanceOutput> lbs;
  const Kiv::Ptr<L2Rib::DestOutput> dests;
  const Kiv::Ptr<L2Rib::HostOutput> hosts;
  const Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request;
  const Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response;
  const Kiv::Ptr<Oba::ObjTupleToHwId> result;
  const Kiv::Ptr<FecChip> chip;
  Kiv::Ptr<Oba::ObaMacAddrFecRequestSm> sm;

 private:
  class RequestLog;
  class ResultLog;
  class AnswerLog;
  std::uint32_t maxChainLength_ = Oba::ObaMacAddrFecRequestSm::maxChainLengthDefault;
  double reviewInterval_ = Oba::ObaMacAddrFecRequestSm::reviewIntervalDefault;
  Mox::Range fecNumberRange_ = Oba::ObaMacAddrFecRequestSm::fecNumberRange;
  std::unique_ptr<RequestLog> requestLog_;
  std::unique_ptr<ResultLog> resultLog_;
  std::unique_ptr<AnswerLog> answerLog_;
  std::map<L2Rib::ObjTuple, std::uint32_t> lastAnswer_;
};

// A via as the family's tables print it: "via(0, 1001, Tunnel1.1)", "via(1, none, no tunnel)",
// "via(0, 1001, fec of loadBalance/2)" (the owner of the FEC id it names, from the request's
// objTupleToFecId table), "via(0, 1001, no fec)".
std::string viaText(const Shoal::Fib::Via& via, const Oba::FecIdToHwFecIdRequest& request);
// The same with the owners already gathered.
std::map<Shoal::Fib::FecId, L2Rib::ObjTuple> owners(const Oba::FecIdToHwFecIdRequest& request);
std::string viaText(const Shoal::Fib::Via& via,
                    const std::map<Shoal::Fib::FecId, L2Rib::ObjTuple>& owners);

// The family's part of the picture of the forwarding state (sim/families/macFec/MacFecDraw.cpp).
void drawMacFec(const MacFecAgent& family, DotGraph& graph);

}  // namespace Sim
