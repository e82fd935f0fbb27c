#include "sim/SoftwareChip.h"
#include "Kiv/Digest.h"

#include <algorithm>

#include "Kiv/Assert.h"
#include "Kiv/Cause.h"
#include "Kiv/Types.h"

namespace Sim {

SoftwareChip::SoftwareChip(Kiv::Ptr<Kiv::Clock> clock) : clock_(std::move(clock)) {
  KIV_ASSERT(clock_);
}

SoftwareChip::~SoftwareChip() {
  for (auto& part : parts_) part->detach();
}

void SoftwareChip::refusalIs(const Refusal& r) {
  if (std::find(operations_.begin(), operations_.end(), r.op) == operations_.end()) {
    throw Kiv::RangeException("cannot refuse '" + r.op + "': no such chip operation");
  }
  // A rule for no calls at all would only be dropped at its first match.
  if (r.times != 0) rules_.push_back(Rule{r});
}

std::vector<std::int64_t> SoftwareChip::refusalCounts() const {
  std::vector<std::int64_t> out;
  for (const Rule& r : rules_) out.push_back(r.refusal.times);
  return out;
}

void SoftwareChip::refusalCountsLess(const std::vector<std::int64_t>& by) {
  KIV_ASSERT(by.size() == rules_.size());
  for (std::size_t i = 0; i < by.size(); ++i) {
    if (by[i] == 0) continue;
    KIV_ASSERT(rules_[i].refusal.times > by[i]);
    rules_[i].refusal.times -= by[i];
  }
}

void SoftwareChip::faultRateIs(double p, std::uint64_t seed) {
  faultRate_ = p < 0 ? 0 : (p > 1 ? 1 : p);
  // 2^64 * p, saturating: p = 1 refuses every draw but the largest value, which is close enough
  // for a fault rate and keeps the compare a single one.
  const long double scaled = static_cast<long double>(faultRate_) * 18446744073709551616.0L;
  faultThreshold_ =
      scaled >= 18446744073709551615.0L ? ~std::uint64_t{0} : static_cast<std::uint64_t>(scaled);
  faultRng_.seed(seed);
  tracking_ = true;
}

std::optional<std::uint32_t> SoftwareChip::refused(std::string_view op,
                                                   std::optional<Quil::IntfId> port,
                                                   std::optional<Bridging::VlanId> vlan) {
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    const Refusal& r = it->refusal;
    if (r.op != op) continue;
    if (r.port && r.port != port) continue;
    if (r.vlan && r.vlan != vlan) continue;
    const std::uint32_t rc = r.rc;
    if (r.times > 0 && --it->refusal.times == 0) rules_.erase(it);
    if (Kiv::causing()) answerCause(op, port, vlan, rc, "a chipRefuse rule");
    return rc;
  }
  return std::nullopt;
}

std::optional<std::uint32_t> SoftwareChip::refusedOrFault(std::string_view op, Quil::IntfId port,
                                                          Bridging::VlanId vlan, std::uint32_t rc) {
  ++faultableSerial_;
  std::optional<std::uint32_t> refusal;
  if (!rules_.empty()) refusal = refused(op, port, vlan);
  if (tracking_) {
    std::uint64_t previous = 0;
    auto [it, fresh] = lastCall_.try_emplace({op, port, vlan}, faultableSerial_);
    if (!fresh) previous = std::exchange(it->second, faultableSerial_);
    if (!refusal && faultThreshold_ && faultRng_() < faultThreshold_) {
      refusal = rc;
      faults_.push_back(Fault{faultableSerial_, previous, op, port, vlan});
      if (Kiv::causing()) answerCause(op, port, vlan, rc, "an injected fault");
    }
  }
  return refusal;
}

// A refusal is an answer from outside the agent: the retry that the machine schedules for it
// names it.
void SoftwareChip::answerCause(std::string_view op, std::optional<Quil::IntfId> port,
                               std::optional<Bridging::VlanId> vlan, std::uint32_t rc,
                               std::string_view why) {
  std::string text = "the chip refused ";
  text.append(op);
  if (port) text.append(" ").append(port->text().view());
  if (vlan) text.append(" vlan ").append(vlan->text().view());
  text.append(" (code ").append(std::to_string(rc)).append(", ").append(why).append(")");
  Kiv::causeAnswer(std::move(text));
}

void SoftwareChip::violation(std::string text) {
  violations_.push_back(Violation{clock_->now(), std::move(text)});
}

void SoftwareChip::tell(const char* op, std::string text) {
  listener_(Call{clock_->now(), op, std::move(text), caller_});
}

void SoftwareChip::reset() {
  for (auto& part : parts_) part->reset();
  violations_.clear();
  callCount_ = 0;
}

void SoftwareChip::digest(Kiv::Digest& d) const {
  d.add(faultRate_);
  d.add(rules_.size());
  for (const Rule& r : rules_) {
    d.add(r.refusal.op);
    d.add(r.refusal.port);
    d.add(r.refusal.vlan);
    d.add(r.refusal.times);
    d.add(r.refusal.rc);
  }
  d.add(violations_.size());
  for (const auto& p : parts_) p->digest(d);
}

}  // namespace Sim
