#include "sim/SoftwareChip.h"

#include <array>
#include <charconv>
#include <sstream>
#include <string_view>

#include "Kiv/Assert.h"
#include "Kiv/Types.h"

namespace Sim {

namespace {

// Call and violation texts are appended piece by piece, each value through its stack-built text
// form, so a line costs one string and no stream.
void put(std::string& s, const char* v) { s.append(v); }
void put(std::string& s, std::uint64_t v) {
  char buf[20];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  s.append(buf, end);
}
void put(std::string& s, Oba::HwTunnelId v) { put(s, std::uint64_t{v.value()}); }
void put(std::string& s, Quil::IntfId v) { s.append(v.text().view()); }
void put(std::string& s, Bridging::VlanId v) { s.append(v.text().view()); }
void put(std::string& s, Bridging::VlanIdOrNone v) { s.append(v.text().view()); }
void put(std::string& s, Quil::MplsLabel v) { s.append(v.text().view()); }
void put(std::string& s, const Tunnel::TunnelTable::TunnelId& v) { s.append(v.text().view()); }
void put(std::string& s, Oba::HwProgrammingStatus v) { s.append(Oba::toString(v)); }
void put(std::string& s, Mpls::LfibHwProgrammingReturnCode v) {
  // The names are the ones operator<< prints, taken from it once.
  static const std::array<std::string, 4> names = [] {
    std::array<std::string, 4> n;
    for (std::uint32_t i = 0; i < n.size(); ++i) {
      std::ostringstream os;
      os << static_cast<Mpls::LfibHwProgrammingReturnCode>(i);
      n[i] = os.str();
    }
    return n;
  }();
  auto i = static_cast<std::uint32_t>(v);
  if (i < names.size()) {
    s.append(names[i]);
  } else {
    std::ostringstream os;
    os << v;
    s.append(os.str());
  }
}

template <class... Args>
std::string text(const Args&... args) {
  std::string s;
  s.reserve(96);
  (put(s, args), ...);
  return s;
}

constexpr const char* kGone = "software chip destroyed while a machine still holds its helper";

}  // namespace

// The helpers the machines hold. Each forwards to the chip; the chip owns them and cuts the link
// when it goes, so a late call aborts instead of touching freed memory.

namespace {
// The link from a helper back to its chip.
template <class Interface>
class ChipLink : public Interface {
 public:
  ChipLink(const char* name, const char* caller, SoftwareChip* chip)
      : Interface(name), caller_(caller), chip_(chip) {}
  void detach() { chip_ = nullptr; }

 protected:
  // The chip, told for the length of one call (the full expression) which helper is calling.
  class Calling {
   public:
    Calling(SoftwareChip& chip, const char* caller) : chip_(chip) { chip_.callerIs(caller); }
    ~Calling() { chip_.callerIs(nullptr); }
    SoftwareChip* operator->() const { return &chip_; }

   private:
    SoftwareChip& chip_;
  };
  Calling chip() {
    KIV_ASSERT_TEXT(chip_, kGone);
    return Calling(*chip_, caller_);
  }

 private:
  const char* caller_;
  SoftwareChip* chip_;
};
}  // namespace

class SoftwareChip::HwTunnelIdAdaptor : public ChipLink<ObaHelper::EvpnHwTunnelIdSmHelper> {
 public:
  explicit HwTunnelIdAdaptor(SoftwareChip* chip)
      : ChipLink("SoftwareChip.hwTunnelIdHelper", "hwTunnelIdHelper", chip) {}
  Oba::HwTunnelId getHwTunnelId() override { return chip()->getHwTunnelId(); }
  void releaseHwTunnelId(Oba::HwTunnelId id) override { chip()->releaseHwTunnelId(id); }
};

class SoftwareChip::FloodingAdaptor : public ChipLink<ObaHelper::EvpnFloodingSmHelper> {
 public:
  explicit FloodingAdaptor(SoftwareChip* chip)
      : ChipLink("SoftwareChip.floodingHelper", "floodingHelper", chip) {}
  Oba::HwProgrammingStatus createVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                                    Bridging::VlanIdOrNone dot1q) override {
    return chip()->createVlanToDot1qMapping(port, vlan, dot1q);
  }
  void deleteVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                Bridging::VlanIdOrNone dot1q) override {
    chip()->deleteVlanToDot1qMapping(port, vlan, dot1q);
  }
  Oba::HwProgrammingStatus createEsiData(Quil::IntfId port, Bridging::VlanId vlan,
                                         const Tunnel::TunnelTable::TunnelId& tunnel,
                                         Oba::HwTunnelId hw, Quil::MplsLabel label,
                                         Quil::MplsLabel localLabel) override {
    return chip()->createEsiData(port, vlan, tunnel, hw, label, localLabel);
  }
  void deleteEsiData(Quil::IntfId port, Bridging::VlanId vlan) override {
    chip()->deleteEsiData(port, vlan);
  }
};

class SoftwareChip::DecapAdaptor : public ChipLink<ObaHelper::EsiFilteringDecapHelper> {
 public:
  explicit DecapAdaptor(SoftwareChip* chip)
      : ChipLink("SoftwareChip.esiFilteringDecapHelper", "esiFilteringDecapHelper", chip) {}
  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(Quil::MplsLabel label,
                                                     Quil::IntfId port) override {
    return chip()->createEsiPortMap(label, port);
  }
  void deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId port) override {
    chip()->deleteEsiPortMap(label, port);
  }
};

SoftwareChip::SoftwareChip(Kiv::Ptr<Kiv::Clock> clock)
    : clock_(std::move(clock)),
      hwTunnelIdHelper_(new HwTunnelIdAdaptor(this)),
      floodingHelper_(new FloodingAdaptor(this)),
      decapHelper_(new DecapAdaptor(this)),
      dropDelete_(canaryDropDelete_) {
  KIV_ASSERT(clock_);
}

SoftwareChip::~SoftwareChip() {
  hwTunnelIdHelper_->detach();
  floodingHelper_->detach();
  decapHelper_->detach();
}

Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> SoftwareChip::hwTunnelIdHelper() const {
  return hwTunnelIdHelper_;
}

Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> SoftwareChip::floodingHelper() const {
  return floodingHelper_;
}

Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> SoftwareChip::esiFilteringDecapHelper() const {
  return decapHelper_;
}

void SoftwareChip::refusalIs(const Refusal& r) {
  static constexpr std::pair<std::string_view, Op> ops[] = {
      {"createEsiData", Op::createEsiData},
      {"createVlanToDot1qMapping", Op::createVlanToDot1qMapping},
      {"createEsiPortMap", Op::createEsiPortMap},
      {"getHwTunnelId", Op::getHwTunnelId},
  };
  for (const auto& [name, op] : ops) {
    if (r.op != name) continue;
    // A rule for no calls at all would only be dropped at its first match.
    if (r.times != 0) rules_.push_back(Rule{op, r});
    return;
  }
  throw Kiv::RangeException("cannot refuse '" + r.op + "': no such chip operation");
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

std::optional<SoftwareChip::Answer> SoftwareChip::refused(Op op, std::optional<Quil::IntfId> port,
                                                          std::optional<Bridging::VlanId> vlan) {
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    const Refusal& r = it->refusal;
    if (it->op != op) continue;
    if (r.port && r.port != port) continue;
    if (r.vlan && r.vlan != vlan) continue;
    Answer answer{r.rc, r.lfibRc};
    if (r.times > 0 && --it->refusal.times == 0) rules_.erase(it);
    return answer;
  }
  return std::nullopt;
}

void SoftwareChip::violation(std::string text) {
  violations_.push_back(Violation{clock_->now(), std::move(text)});
}

void SoftwareChip::tell(const char* op, std::string text) {
  listener_(Call{clock_->now(), op, std::move(text), caller_});
}

Oba::HwTunnelId SoftwareChip::getHwTunnelId() {
  ++callCount_;
  Oba::HwTunnelId id;
  if (rules_.empty() || !refused(Op::getHwTunnelId, std::nullopt, std::nullopt)) {
    const std::uint64_t lowest = freeIds_.empty() ? nextId_ : *freeIds_.begin();
    if (lowest <= poolSize_) {
      const auto v = static_cast<std::uint32_t>(lowest);
      if (lowest == nextId_) {
        ++nextId_;
        idCounts_.resize(nextId_);
      } else {
        freeIds_.erase(freeIds_.begin());
      }
      inUse_.insert(v);
      ++idCounts_[v].handedOut;
      id = Oba::HwTunnelId(v);
    }
  }
  if (listening()) tell("getHwTunnelId", text("getHwTunnelId -> ", id));
  return id;
}

void SoftwareChip::releaseHwTunnelId(Oba::HwTunnelId id) {
  ++callCount_;
  const std::uint32_t v = id.value();
  if (inUse_.erase(v)) {
    freeIds_.insert(v);
    ++idCounts_[v].released;
  } else if (handedOutCount(v) == 0) {
    violation(text("releaseHwTunnelId ", id, ": never handed out"));
  } else {
    violation(text("releaseHwTunnelId ", id, ": released twice"));
  }
  if (listening()) tell("releaseHwTunnelId", text("releaseHwTunnelId ", id));
}

Oba::HwProgrammingStatus SoftwareChip::createEsiData(Quil::IntfId port, Bridging::VlanId vlan,
                                                     const Tunnel::TunnelTable::TunnelId& tunnel,
                                                     Oba::HwTunnelId hw, Quil::MplsLabel label,
                                                     Quil::MplsLabel localLabel) {
  ++callCount_;
  // The agent named an id it does not hold, whether or not the chip then takes the entry.
  if (!inUse_.contains(hw.value())) {
    violation(text("createEsiData ", port, " vlan ", vlan, " uses hw tunnel id ", hw,
                   ", which is not handed out"));
  }
  ++createSerial_;
  auto rc = Oba::HwProgrammingStatus::programmed;
  std::optional<Answer> refusal;
  if (!rules_.empty()) refusal = refused(Op::createEsiData, port, vlan);
  std::uint64_t previous = 0;
  if (tracking_) {
    auto [it, fresh] = lastCreate_.try_emplace(PortVlan{port, vlan}, createSerial_);
    if (!fresh) previous = std::exchange(it->second, createSerial_);
    if (!refusal && faultThreshold_ && faultRng_() < faultThreshold_) {
      refusal = Answer{Oba::HwProgrammingStatus::notProgrammed,
                       Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess};
      faults_.push_back(Fault{createSerial_, previous, port, vlan});
    }
  }
  if (refusal) {
    rc = refusal->rc;
  } else {
    esiData_.insert_or_assign(PortVlan{port, vlan}, EsiEntry{tunnel, hw, label, localLabel});
  }
  if (listening()) {
    tell("createEsiData", text("createEsiData ", port, " vlan ", vlan, " tunnel ", tunnel, " hw ",
                               hw, " label ", label, " local ", localLabel, " -> ", rc));
  }
  return rc;
}

void SoftwareChip::deleteEsiData(Quil::IntfId port, Bridging::VlanId vlan) {
  ++callCount_;
  if (++deleteSerial_ == dropDelete_) {
    // The canary: acknowledged, and lost.
  } else if (!esiData_.erase(PortVlan{port, vlan})) {
    violation(text("deleteEsiData ", port, " vlan ", vlan, ": nothing to delete"));
  }
  if (listening()) tell("deleteEsiData", text("deleteEsiData ", port, " vlan ", vlan));
}

Oba::HwProgrammingStatus SoftwareChip::createVlanToDot1qMapping(Quil::IntfId port,
                                                                Bridging::VlanId vlan,
                                                                Bridging::VlanIdOrNone dot1q) {
  ++callCount_;
  auto rc = Oba::HwProgrammingStatus::programmed;
  std::optional<Answer> refusal;
  if (!rules_.empty()) refusal = refused(Op::createVlanToDot1qMapping, port, vlan);
  if (refusal) {
    rc = refusal->rc;
  } else {
    dot1q_.insert_or_assign(PortVlan{port, vlan}, dot1q);
  }
  if (listening()) {
    tell("createVlanToDot1qMapping",
         text("createVlanToDot1qMapping ", port, " vlan ", vlan, " dot1q ", dot1q, " -> ", rc));
  }
  return rc;
}

void SoftwareChip::deleteVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                            Bridging::VlanIdOrNone dot1q) {
  ++callCount_;
  if (!dot1q_.erase(PortVlan{port, vlan})) {
    violation(text("deleteVlanToDot1qMapping ", port, " vlan ", vlan, " dot1q ", dot1q,
                   ": nothing to delete"));
  }
  if (listening()) {
    tell("deleteVlanToDot1qMapping",
         text("deleteVlanToDot1qMapping ", port, " vlan ", vlan, " dot1q ", dot1q));
  }
}

Mpls::LfibHwProgrammingReturnCode SoftwareChip::createEsiPortMap(Quil::MplsLabel label,
                                                                 Quil::IntfId port) {
  ++callCount_;
  auto rc = Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess;
  std::optional<Answer> refusal;
  if (!rules_.empty()) refusal = refused(Op::createEsiPortMap, port, std::nullopt);
  if (refusal) {
    rc = refusal->lfibRc;
  } else {
    esiPortMaps_.emplace(label, port);
  }
  if (listening()) {
    tell("createEsiPortMap", text("createEsiPortMap label ", label, " intf ", port, " -> ", rc));
  }
  return rc;
}

void SoftwareChip::deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId port) {
  ++callCount_;
  if (!esiPortMaps_.erase({label, port})) {
    violation(text("deleteEsiPortMap label ", label, " intf ", port, ": nothing to delete"));
  }
  if (listening()) {
    tell("deleteEsiPortMap", text("deleteEsiPortMap label ", label, " intf ", port));
  }
}

void SoftwareChip::reset() {
  nextId_ = 1;
  freeIds_.clear();
  inUse_.clear();
  idCounts_.clear();
  esiData_.clear();
  dot1q_.clear();
  esiPortMaps_.clear();
  violations_.clear();
  callCount_ = 0;
}

}  // namespace Sim
