#include "sim/families/floodSet/FloodListChip.h"
#include "Kiv/Digest.h"

#include <algorithm>

#include "Quil/IntfId.h"
#include "sim/ChipLink.h"

namespace Sim {

namespace {

// A member's tunnel as the interface a refusal rule names it by (DynTunnelT.I).
Quil::IntfId tunnelIntf(const Oba::MplsDestConfig& m) {
  return Quil::DynamicTunnelIntfId::intfId(m.tunnelId().value());
}

bool samePair(const Oba::MplsDestConfig& a, const Oba::MplsDestConfig& b) {
  return a.tunnelId() == b.tunnelId() && a.label() == b.label();
}

}  // namespace

std::string memberLine(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) {
  return chipText(list.text().view(), " ", m.tunnelId(), " label ", m.label(), " hwTunnelId ",
                  m.hwTunnelId(), " hwId ", m.hwIdForTunnelProgramming(), " l2IntfId ",
                  m.l2IntfId());
}

// The root of the configuration: a list that appears gets a watch of its own (which reads the
// members it already holds); a list that goes takes its members with it.
class FloodListChip::ConfigWatch : public Oba::EvpnVlanFloodSetHwConfig::NotifieeConst {
 public:
  explicit ConfigWatch(FloodListChip* chip) : chip_(chip) { notifierIs(chip->config_); }
  void onConfig(const Bridging::MacVlanPair& list) override { chip_->configChanged(list); }

 private:
  FloodListChip* chip_;
};

class FloodListChip::ListWatch : public Oba::VlanFloodSetConfig::NotifieeConst {
 public:
  ListWatch(FloodListChip* chip, const Kiv::Ptr<Oba::VlanFloodSetConfig>& list)
      : chip_(chip), list_(list->macVlanPair()) {
    notifierIs(list);
  }
  void onMplsDestConfig(const Oba::MplsDestConfig& m) override { chip_->memberChanged(list_, m); }

 private:
  FloodListChip* chip_;
  Bridging::MacVlanPair list_;
};

class FloodListChip::Review : public Mox::TimerTask::Notifiee {
 public:
  explicit Review(FloodListChip* chip) : chip_(chip) { notifierIs(chip->task_); }
  void onTaskRun() override { chip_->run(); }

 private:
  FloodListChip* chip_;
};

Kiv::Ptr<FloodListChip> FloodListChip::FloodListChipIs(
    const Kiv::Ptr<SoftwareChip>& chip, const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
    const Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig>& config,
    const Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus>& status) {
  Kiv::Ptr<FloodListChip> part = new FloodListChip(chip.ptr(), scheduler, config, status);
  chip->partIs(part);
  chip->operationIs("programFloodListMember");
  return part;
}

FloodListChip::FloodListChip(SoftwareChip* chip, const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
                             const Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig>& config,
                             const Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus>& status)
    : chip_(chip),
      scheduler_(scheduler),
      config_(config),
      status_(status),
      task_(Mox::TimerTask::TimerTaskIs(scheduler, Mox::TaskPriority(1), "chipFloodLists")),
      breakBeforeMake_(canaryBreakBeforeMake_) {
  review_ = std::make_unique<Review>(this);
  configWatch_ = std::make_unique<ConfigWatch>(this);
  for (auto [list, c] : config_->configWalk()) configChanged(list);
}

FloodListChip::~FloodListChip() { detach(); }

void FloodListChip::detach() {
  configWatch_.reset();
  listWatches_.clear();
  review_.reset();
  if (task_) task_->unscheduleTask();
}

void FloodListChip::configChanged(const Bridging::MacVlanPair& list) {
  auto c = config_->config(list);
  auto w = listWatches_.find(list);
  if (c && (w == listWatches_.end())) {
    listWatches_.emplace(list, std::make_unique<ListWatch>(this, c));
    for (auto [m, unused] : c->mplsDestConfigWalk()) memberChanged(list, m);
    return;
  }
  if (c) return;
  // The list went whole: every member the chip read in it leaves.
  if (w != listWatches_.end()) listWatches_.erase(w);
  auto s = seen_.find(list);
  if (s == seen_.end()) return;
  const List members = s->second;
  seen_.erase(s);
  for (const auto& m : members) queue(list, m, false);
}

void FloodListChip::memberChanged(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) {
  auto c = config_->config(list);
  const bool present = c && c->mplsDestConfigHas(m);
  auto& seen = seen_[list];
  if (present == seen.contains(m)) {
    if (seen.empty()) seen_.erase(list);
    return;
  }
  if (present) {
    seen.insert(m);
    // The identifiers a member is configured with must be handed out when it is configured.
    if (m.hwTunnelId().isValid() && hwTunnelIdHeld_ && !hwTunnelIdHeld_(m.hwTunnelId())) {
      chip_->violation(chipText("floodListConfig ", memberLine(list, m), ": hw tunnel id ",
                                m.hwTunnelId(), " is not handed out"));
    }
    if (hwFecIdHeld_ && !hwFecIdHeld_(m.hwIdForTunnelProgramming())) {
      chip_->violation(chipText("floodListConfig ", memberLine(list, m), ": hw FEC id ",
                                m.hwIdForTunnelProgramming(), " is not handed out"));
    }
  } else {
    if (!restarting_ && stillWanted_ && stillWanted_(list, m)) {
      chip_->violation(
          chipText("floodListConfig ", memberLine(list, m), ": removed while still wanted"));
    }
    seen.erase(m);
    if (seen.empty()) seen_.erase(list);
  }
  queue(list, m, present);
}

void FloodListChip::queue(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m,
                          bool add) {
  // In order: a change never overtakes the one before it, whatever the latency was then.
  double due = scheduler_->now() + latency_;
  if (!queue_.empty()) due = std::max(due, queue_.back().due);
  queue_.push_back(Change{list, m, add, due, ++serial_});
  if (!task_->taskScheduled()) task_->scheduleTaskDelay(due - scheduler_->now());
}

void FloodListChip::run() {
  while (!queue_.empty() && queue_.front().due <= scheduler_->now()) {
    Change c = queue_.front();
    queue_.pop_front();
    if (breakBeforeMake_ && c.add) {
      // The canary: the removal of the member this one replaces goes first.
      auto old = std::find_if(queue_.begin(), queue_.end(), [&](const Change& o) {
        return !o.add && o.list == c.list && samePair(o.member, c.member);
      });
      if (old != queue_.end()) {
        Change o = *old;
        queue_.erase(old);
        queue_.push_front(c);
        apply(o);
        continue;
      }
    }
    apply(c);
  }
  if (!queue_.empty()) task_->scheduleTaskDelay(queue_.front().due - scheduler_->now());
}

bool FloodListChip::inList(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) const {
  auto l = lists_.find(list);
  return l != lists_.end() && l->second.contains(m);
}

bool FloodListChip::configured(const Bridging::MacVlanPair& list,
                               const Oba::MplsDestConfig& m) const {
  auto s = seen_.find(list);
  return s != seen_.end() && s->second.contains(m);
}

void FloodListChip::apply(const Change& c) {
  // The chip reads the configuration when it acts: a member that left it before the chip came to
  // it is not programmed (its identifiers may be gone by now), and its removal is then nothing.
  //
  // Likewise a member configured again before the chip came to its removal stays in the list:
  // the configuration never lost it for good, and taking it out would drop the destination from
  // the hardware for the moment until its addition comes round. The addition then finds it there.
  if (c.add && !configured(c.list, c.member)) return;
  if (c.add && inList(c.list, c.member)) {
    auto s = status_->status(c.list);
    if (s && s->mplsDestStatus(c.member) == Oba::HwProgrammingStatus::programmed) return;
  }
  if (!c.add) {
    if (configured(c.list, c.member)) return;
    auto s = status_->status(c.list);
    if (!s || !s->mplsDestStatusHas(c.member)) return;
  }
  // The log names the machine whose configuration the chip acts on.
  chip_->callerIs("vlanFloodSet");
  if (c.add) {
    program(c);
  } else {
    if (!breakBeforeMake_) {
      // Make before break, when the configuration moved on meanwhile: the member that replaces
      // this one now (the same tunnel and label) may sit behind it in the queue, its direct
      // predecessor having left the configuration unprogrammed. It goes in first, unless it is in
      // the list already or the queue changes it before that.
      for (auto it = queue_.begin(); it != queue_.end();) {
        const bool replacement =
            it->add && it->list == c.list && it->member != c.member &&
            samePair(it->member, c.member) && configured(it->list, it->member) &&
            !inList(it->list, it->member) && std::none_of(queue_.begin(), it, [&](const Change& e) {
              return e.list == it->list && e.member == it->member;
            });
        if (!replacement) {
          ++it;
          continue;
        }
        const Change r = *it;
        it = queue_.erase(it);
        program(r);
      }
    }
    unprogram(c);
  }
  chip_->callerIs(nullptr);
}

void FloodListChip::program(const Change& c) {
  chip_->countCall();
  const Oba::MplsDestConfig& m = c.member;
  auto rc = Oba::HwProgrammingStatus::programmed;
  if (auto refusal = chip_->refused("programFloodListMember", tunnelIntf(m), c.list.vlanId)) {
    rc = static_cast<Oba::HwProgrammingStatus>(*refusal);
  } else {
    lists_[c.list].insert(m);
  }
  if (chip_->listening()) {
    chip_->tell("programFloodListMember",
                chipText("programFloodListMember ", memberLine(c.list, m), " -> ", rc));
  }
  status_->statusIs(c.list)->mplsDestStatusIs(m, rc);
}

void FloodListChip::unprogram(const Change& c) {
  chip_->countCall();
  const Oba::MplsDestConfig& m = c.member;
  // A member the configuration holds stays in the hardware list, whatever happened meanwhile.
  if (configured(c.list, m) && inList(c.list, m)) {
    chip_->violation(chipText("unprogramFloodListMember ", memberLine(c.list, m),
                              ": taken out of the list while configured"));
  }
  // Make before break: a member of the same tunnel and label that the configuration holds now
  // must be in the list already (or refused by the chip).
  if (auto s = seen_.find(c.list); s != seen_.end()) {
    auto reported = status_->status(c.list);
    for (const auto& other : s->second) {
      if (other == m || !samePair(other, m)) continue;
      if (inList(c.list, other)) continue;
      if (reported && reported->mplsDestStatusHas(other)) continue;
      chip_->violation(chipText("unprogramFloodListMember ", memberLine(c.list, m),
                                ": removed before its replacement hwTunnelId ", other.hwTunnelId(),
                                " hwId ", other.hwIdForTunnelProgramming(), " was added"));
      break;
    }
  }
  if (auto l = lists_.find(c.list); l != lists_.end() && l->second.erase(m)) {
    if (l->second.empty()) lists_.erase(l);
    const std::uint64_t hw = m.hwIdForTunnelProgramming();
    if (hwFecIdLetGo_ && !usesHwFecId(hw)) hwFecIdLetGo_(hw);
  }
  if (chip_->listening()) {
    chip_->tell("unprogramFloodListMember",
                chipText("unprogramFloodListMember ", memberLine(c.list, m)));
  }
  auto s = status_->status(c.list);
  if (!s) return;
  s->mplsDestStatusDel(m);
  if (!s->mplsDestStatuss()) {
    status_->statusDel(c.list);
    return;
  }
  // A reader that keeps, per tunnel and label, the lists in which the chip reports a member
  // programmed, forgets the list when the replaced member's report goes although its
  // replacement's stays: the chip tells the replacement's report again.
  std::vector<Oba::MplsDestConfig> same;
  for (auto [other, rc] : s->mplsDestStatusWalk()) {
    if (samePair(other, m)) same.push_back(other);
  }
  for (const auto& other : same) s->mplsDestStatusNotify(other);
}

bool FloodListChip::usesHwFecId(std::uint64_t hwFecId) const {
  for (const auto& [list, members] : lists_) {
    for (const auto& m : members) {
      if (m.hwIdForTunnelProgramming() == hwFecId) return true;
    }
  }
  return false;
}

void FloodListChip::hwFecIdReleased(std::uint64_t hwFecId) {
  for (const auto& [list, members] : lists_) {
    for (const auto& m : members) {
      if (m.hwIdForTunnelProgramming() != hwFecId) continue;
      chip_->violation(chipText("hw FEC id ", hwFecId, " released while flood list ",
                                list.text().view(), " still uses it"));
      return;
    }
  }
}

void FloodListChip::reset() {
  queue_.clear();
  lists_.clear();
  if (task_) task_->unscheduleTask();
  // The chip layer restarts with the agent, empty: it reports nothing, and takes the configuration
  // as the restarted machine writes it again (which it always does first, from scratch), not as
  // the old one left it.
  seen_.clear();
  status_->statusDelAll();
  listWatches_.clear();
  for (auto [list, c] : config_->configWalk()) {
    listWatches_.emplace(list, std::make_unique<ListWatch>(this, c));
  }
}

void FloodListChip::digest(Kiv::Digest& d) const {
  d.add(latency_);
  d.add(seen_);
  d.add(queue_.size());
  for (const Change& c : queue_) {
    d.add(c.list);
    d.add(c.member);
    d.add(c.add);
    d.add(c.due);
  }
  d.add(lists_);
  d.add(restarting_);
}

}  // namespace Sim
