#pragma once
// What a family's chip part needs to build its helpers and its call texts.
//
// ChipLink<Interface> is a helper the machines hold: each operation forwards to the part through
// chip(), which tells the chip for the length of the call which machine is calling (the log names
// it). The part owns its helpers and cuts the link when the chip goes, so a late call aborts
// instead of touching freed memory.
//
// chipText(...) appends values piece by piece, each through its stack-built text form, so a call
// line costs one string and no stream.

#include <charconv>
#include <cstdint>
#include <string>

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Kiv/Assert.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/HwTunnelId.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"
#include "sim/SoftwareChip.h"

namespace Sim {

namespace chiptext {
inline void put(std::string& s, const char* v) { s.append(v); }
inline void put(std::string& s, std::string_view v) { s.append(v); }
inline void put(std::string& s, std::uint64_t v) {
  char buf[20];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  s.append(buf, end);
}
inline void put(std::string& s, Oba::HwTunnelId v) { put(s, std::uint64_t{v.value()}); }
inline void put(std::string& s, Quil::IntfId v) { s.append(v.text().view()); }
inline void put(std::string& s, Bridging::VlanId v) { s.append(v.text().view()); }
inline void put(std::string& s, Bridging::VlanIdOrNone v) { s.append(v.text().view()); }
inline void put(std::string& s, Quil::MplsLabel v) { s.append(v.text().view()); }
inline void put(std::string& s, const Tunnel::TunnelTable::TunnelId& v) {
  s.append(v.text().view());
}
inline void put(std::string& s, Oba::HwProgrammingStatus v) { s.append(Oba::toString(v)); }
}  // namespace chiptext

template <class... Args>
std::string chipText(const Args&... args) {
  std::string s;
  s.reserve(96);
  using chiptext::put;
  (put(s, args), ...);
  return s;
}

template <class Interface, class PartT>
class ChipLink : public Interface {
 public:
  // `name` names the helper object; `caller` is the machine the log names for its calls.
  ChipLink(const char* name, const char* caller, PartT* part)
      : Interface(name), caller_(caller), part_(part) {}
  void detach() { part_ = nullptr; }

 protected:
  // The part, with the chip told for the length of one call (the full expression) who calls.
  class Calling {
   public:
    Calling(PartT& part, const char* caller) : part_(part) { part_.chip().callerIs(caller); }
    ~Calling() { part_.chip().callerIs(nullptr); }
    PartT* operator->() const { return &part_; }

   private:
    PartT& part_;
  };
  Calling part() {
    KIV_ASSERT_TEXT(part_, "software chip destroyed while a machine still holds its helper");
    return Calling(*part_, caller_);
  }

 private:
  const char* caller_;
  PartT* part_;
};

}  // namespace Sim
