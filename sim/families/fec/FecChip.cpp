#include "sim/families/fec/FecChip.h"

#include "Kiv/Cause.h"
#include "Kiv/Digest.h"

#include <optional>
#include <sstream>

#include "sim/ChipLink.h"
#include "sim/HostAgent.h"
#include "sim/ScenarioReader.h"

namespace Sim {

namespace {

constexpr std::uint32_t refusedRc = 1;

std::string fecText(Shoal::Fib::FecId id) {
  std::ostringstream os;
  os << id;
  return os.str();
}

}  // namespace

// One requester's request table, watched per FEC id; a whole-table notification settles every
// id the table or the chip knows for it.
class FecChip::RequestWatch : public Oba::FecIdToHwFecIdRequest::NotifieeConst {
 public:
  RequestWatch(FecChip* chip, std::size_t index,
               const Kiv::Ptr<const Oba::FecIdToHwFecIdRequest>& request)
      : chip_(chip), index_(index) {
    notifierIs(request);
  }
  void onHwFecIdRequest(const FecId& fecId) override {
    if (chip_) chip_->changed(index_, fecId);
  }
  void onHwFecIdRequest() override {
    if (!chip_) return;
    for (auto&& e : notifier()->hwFecIdRequestWalk()) chip_->changed(index_, e.key);
    std::vector<FecId> answered;
    for (const auto& [key, hw] : chip_->hwOf_) {
      if (key.first == index_) answered.push_back(key.second);
    }
    for (FecId id : answered) chip_->changed(index_, id);
  }
  void detach() { chip_ = nullptr; }

 private:
  FecChip* chip_;
  std::size_t index_;
};

class FecChip::Task : public Mox::TimerTask::Notifiee {
 public:
  Task(FecChip* chip, const Kiv::Ptr<Mox::TimerTask>& task) : chip_(chip) { notifierIs(task); }
  void onTaskRun() override {
    if (chip_) chip_->run();
  }
  void detach() { chip_ = nullptr; }

 private:
  FecChip* chip_;
};

Kiv::Ptr<FecChip> FecChip::FecChipIs(HostAgent& agent) {
  Kiv::Ptr<FecChip> part = new FecChip(agent.chip.ptr(), agent.scheduler);
  agent.chip->partIs(part);
  agent.chip->operationIs("hwFecId");
  return part;
}

ChipOperation FecChip::refuseOperation() {
  return {"hwFecId",
          "refused",
          [](const Reader& r, const YAML::Node& n) {
            if (r.scalar(n, "refused") != "refused") r.failExpected(n, "refused");
            return refusedRc;
          },
          refusedRc,
          false,
          false,
          [](std::uint32_t) { return std::string("refused"); }};
}

FecChip::FecChip(SoftwareChip* chip, const Kiv::Ptr<Mox::TaskScheduler>& scheduler)
    : chip_(chip),
      scheduler_(scheduler),
      task_(Mox::TimerTask::TimerTaskIs(scheduler, Mox::TaskPriority(2), "fecChip")),
      taskReactor_(std::make_unique<Task>(this, task_)),
      loseWithdrawal_(canaryLoseWithdrawal_) {}

FecChip::~FecChip() { detach(); }

void FecChip::detach() {
  if (taskReactor_) taskReactor_->detach();
  task_->unscheduleTask();
  for (auto& r : requesters_) r.watch->detach();
}

void FecChip::requesterIs(const Kiv::Ptr<const Oba::FecIdToHwFecIdRequest>& request,
                          const Kiv::Ptr<Oba::FecIdToHwFecIdResponse>& response,
                          const char* writer) {
  const std::size_t index = requesters_.size();
  requesters_.push_back(Requester{request, response, writer, nullptr});
  requesters_.back().watch = std::make_unique<RequestWatch>(this, index, request);
  for (auto&& e : request->hwFecIdRequestWalk()) changed(index, e.key);
}

void FecChip::capacityIs(std::uint32_t n) {
  capacity_ = n;
  for (const Key& key : waiting_) dueAt(key, scheduler_->clock()->now());
}

std::uint32_t FecChip::hwFecIdOf(const char* writer, FecId fecId) const {
  for (std::size_t i = 0; i < requesters_.size(); ++i) {
    if (std::string_view(requesters_[i].writer) != writer) continue;
    auto it = hwOf_.find(Key{i, fecId});
    return it == hwOf_.end() ? 0 : it->second;
  }
  return 0;
}

bool FecChip::waits(const char* writer, FecId fecId) const {
  for (std::size_t i = 0; i < requesters_.size(); ++i) {
    if (std::string_view(requesters_[i].writer) == writer) return waiting_.contains(Key{i, fecId});
  }
  return false;
}

std::uint32_t FecChip::freeHwFecId() const {
  auto held = [this](std::uint32_t id) {
    if (answers_.contains(id)) return true;
    for (const auto& h : heldElsewhere_) {
      if (h(id)) return true;
    }
    return false;
  };
  for (std::uint32_t id = 1; id <= capacity_; ++id) {
    if (!held(id)) return id;
  }
  return 0;
}

bool FecChip::busy() const { return !due_.empty(); }

void FecChip::changed(std::size_t requester, FecId fecId) {
  const Key key{requester, fecId};
  // The answer comes later, from the chip's own task: it names the request it answers.
  if (Kiv::causing()) requestCauses_[key] = Kiv::causeNow();
  dueAt(key, scheduler_->clock()->now() + latency_);
}

void FecChip::dueAt(const Key& key, double at) {
  auto [it, fresh] = due_.emplace(key, at);
  if (!fresh && it->second > at) it->second = at;
  const auto scheduled = task_->scheduledTime();
  if (!scheduled || *scheduled > at) {
    task_->scheduleTaskDelay(std::max(0.0, at - scheduler_->clock()->now()));
  }
}

void FecChip::run() {
  const double now = scheduler_->clock()->now();
  std::vector<Key> keys;
  for (const auto& [key, at] : due_) {
    if (at <= now) keys.push_back(key);
  }
  for (const Key& key : keys) {
    due_.erase(key);
    if (!Kiv::causing()) {
      settle(key);
      continue;
    }
    auto asked = requestCauses_.extract(key);
    Kiv::CauseScope answering(
        Kiv::causeOf(Kiv::Cause::Kind::outside,
                     chipText("the chip answers ", requesters_[key.first].writer, "'s FEC request ",
                              fecText(key.second)),
                     asked ? asked.mapped() : Kiv::causeNow()));
    settle(key);
  }
  double next = -1;
  for (const auto& [key, at] : due_) {
    if (next < 0 || at < next) next = at;
  }
  if (next >= 0) task_->scheduleTaskDelay(std::max(0.0, next - now));
}

// Brings one request's answer in line with the request table as it is now.
void FecChip::settle(const Key& key) {
  const Requester& r = requesters_[key.first];
  const bool requested = r.request->hwFecIdRequest(key.second).found;
  const bool answered = hwOf_.contains(key);
  if (requested && answered) {
    // Written again (by a new incarnation of the requester, say, that reuses the FEC id): the
    // chip keeps the id it gave and answers again, so the requester hears it.
    const std::uint32_t hw = hwOf_.at(key);
    chip_->countCall();
    tell(r, "hwFecId", chipText("hwFecId ", fecText(key.second), " -> ", std::uint64_t{hw}));
    r.response->hwFecIdIs(Oba::FecToHwFecId(key.second, hw));
  } else if (requested) {
    answer(key);
  } else {
    waiting_.erase(key);
    if (answered) takeBack(key, true);
  }
}

void FecChip::tell(const Requester& r, const char* op, std::string text) {
  if (!chip_->listening()) return;
  chip_->callerIs(r.writer);
  chip_->tell(op, std::move(text));
  chip_->callerIs(nullptr);
}

void FecChip::answer(const Key& key) {
  const Requester& r = requesters_[key.first];
  const FecId fecId = key.second;
  chip_->countCall();
  if (!r.request->fec(fecId).found) {
    chip_->violation(chipText("hwFecId ", r.writer, " ", fecText(fecId), ": no such FEC"));
    waiting_.erase(key);
    tell(r, "hwFecId", chipText("hwFecId ", fecText(fecId), " -> no such FEC"));
    return;
  }
  const double now = scheduler_->clock()->now();
  if (chip_->refused("hwFecId", std::nullopt, std::nullopt)) {
    waiting_.insert(key);
    dueAt(key, now + retryIntervalDefault);
    tell(r, "hwFecId", chipText("hwFecId ", fecText(fecId), " -> refused"));
    return;
  }
  const std::uint32_t hw = freeHwFecId();
  if (hw == 0) {
    // Tried again when an id comes back or the table grows.
    waiting_.insert(key);
    tell(r, "hwFecId", chipText("hwFecId ", fecText(fecId), " -> none free"));
    return;
  }
  waiting_.erase(key);
  answers_.emplace(hw, Answer{r.writer, fecId});
  hwOf_.emplace(key, hw);
  if (idCounts_.size() <= hw) idCounts_.resize(hw + 1);
  ++idCounts_[hw].first;
  tell(r, "hwFecId", chipText("hwFecId ", fecText(fecId), " -> ", std::uint64_t{hw}));
  const bool wantsIntf = r.request->hwFecIdRequest(fecId).row.l2IntfIdWanted();
  if (wantsIntf) r.response->l2IntfIdIs(fecId, fecL2Intf(hw));
  r.response->hwFecIdIs(Oba::FecToHwFecId(fecId, hw));
}

void FecChip::takeBack(const Key& key, bool requestGone) {
  const Requester& r = requesters_[key.first];
  const FecId fecId = key.second;
  const std::uint32_t hw = hwOf_.at(key);
  chip_->countCall();
  tell(r, "withdrawHwFecId",
       chipText("withdrawHwFecId ", fecText(fecId), " hw ", std::uint64_t{hw}));
  if (requestGone && ++withdrawals_ == loseWithdrawal_) return;  // the canary: lost
  if (!r.response->hwFecId(fecId).found) {
    chip_->violation(
        chipText("withdrawHwFecId ", r.writer, " ", fecText(fecId), ": answer withdrawn twice"));
  }
  hwOf_.erase(key);
  answers_.erase(hw);
  ++idCounts_[hw].second;
  r.response->hwFecIdDel(fecId);
  if (r.response->l2IntfId(fecId).found) r.response->l2IntfIdDel(fecId);
  idCameBack();
}

// Every way an id becomes free again (an answer withdrawn or moved, another table letting go of
// one) comes here: a request that waits for an id is not tried again on its own.
void FecChip::idCameBack() {
  const double at = scheduler_->clock()->now() + retryIntervalDefault;
  for (const Key& w : waiting_) dueAt(w, at);
}

void FecChip::releasedElsewhere(std::uint32_t hw) {
  if (!answers_.contains(hw)) idCameBack();
}

std::optional<FecChip::Key> FecChip::answerKey(std::uint32_t hw) const {
  auto it = answers_.find(hw);
  if (it == answers_.end()) return std::nullopt;
  for (std::size_t i = 0; i < requesters_.size(); ++i) {
    if (requesters_[i].writer == it->second.writer) return Key{i, it->second.fecId};
  }
  return std::nullopt;
}

void FecChip::withdraw(std::uint32_t hw) {
  const auto key = answerKey(hw);
  if (!key) return;
  takeBack(*key, false);
  waiting_.insert(*key);
  dueAt(*key, scheduler_->clock()->now() + retryIntervalDefault);
}

void FecChip::renumber(std::uint32_t hw) {
  const auto key = answerKey(hw);
  const std::uint32_t to = freeHwFecId();
  if (!key || to == 0) return;
  const Requester& r = requesters_[key->first];
  const FecId fecId = key->second;
  if (!r.request->hwFecIdRequest(fecId).found) return;
  chip_->countCall();
  tell(r, "hwFecId",
       chipText("hwFecId ", fecText(fecId), " -> ", std::uint64_t{to}, " (was ", std::uint64_t{hw},
                ")"));
  // The interface first, while the old id is still held: a reader that acts on it alone pairs it
  // with the old id.
  if (r.response->l2IntfId(fecId).found) r.response->l2IntfIdIs(fecId, fecL2Intf(to));
  answers_.erase(hw);
  answers_.emplace(to, Answer{r.writer, fecId});
  hwOf_[*key] = to;
  if (idCounts_.size() <= to) idCounts_.resize(to + 1);
  ++idCounts_[to].first;
  ++idCounts_[hw].second;
  r.response->hwFecIdIs(Oba::FecToHwFecId(fecId, to));
  idCameBack();
}

void FecChip::withholdIntf(std::uint32_t hw) {
  const auto key = answerKey(hw);
  if (!key) return;
  const Requester& r = requesters_[key->first];
  const FecId fecId = key->second;
  if (!r.response->l2IntfId(fecId).found) return;
  chip_->countCall();
  tell(r, "hwFecId",
       chipText("hwFecId ", fecText(fecId), " -> ", std::uint64_t{hw}, " without its interface"));
  r.response->l2IntfIdDel(fecId);
}

std::vector<std::string> FecChip::lines() const {
  std::vector<std::string> out;
  for (const auto& [hw, a] : answers_) {
    out.push_back(chipText("hw ", std::uint64_t{hw}, " ", a.writer, " ", fecText(a.fecId)));
  }
  return out;
}

std::vector<std::string> FecChip::ledger() const {
  std::vector<std::string> out;
  for (const auto& [key, hw] : hwOf_) {
    const Requester& r = requesters_[key.first];
    if (!r.request->hwFecIdRequest(key.second).found && !due_.contains(key)) {
      out.push_back(chipText("hw FEC id ", std::uint64_t{hw}, " still held for ", r.writer, " ",
                             fecText(key.second), ", whose request is gone"));
    }
  }
  for (std::uint32_t hw = 1; hw < idCounts_.size(); ++hw) {
    const auto [out_, back] = idCounts_[hw];
    const std::uint64_t held = answers_.contains(hw) ? 1 : 0;
    if (out_ != back + held) {
      out.push_back(chipText("hw FEC id ", std::uint64_t{hw}, " handed out ", out_,
                             " times, released ", back, " times, held ", held));
    }
  }
  return out;
}

void FecChip::reset() {
  // A reinitialised chip layer forgets its FECs, clears what it answered, and reads the requests
  // afresh.
  due_.clear();
  requestCauses_.clear();
  waiting_.clear();
  hwOf_.clear();
  answers_.clear();
  idCounts_.clear();
  for (std::size_t i = 0; i < requesters_.size(); ++i) {
    requesters_[i].response->hwFecIdDelAll();
    requesters_[i].response->l2IntfIdDelAll();
    for (auto&& e : requesters_[i].request->hwFecIdRequestWalk()) changed(i, e.key);
  }
}

Quil::IntfId fecL2Intf(std::uint32_t hw) {
  return Quil::DynamicTunnelIntfId::intfId((254ull << 32) | hw);
}

void FecChip::digest(Kiv::Digest& d) const {
  d.add(capacity_);
  d.add(latency_);
  d.add(due_);
  d.add(waiting_);
  d.add(hwOf_);
  d.add(answers_.size());
  for (const auto& [hw, a] : answers_) {
    d.add(hw);
    d.add(std::string_view(a.writer));
    d.add(a.fecId);
  }
  d.add(idCounts_);
}

}  // namespace Sim
