#pragma once
// The label-forwarding (LFIB) model: routes keyed by their top label, each pointing at a via set,
// whose via key names one via of a typed via table. The MPLS agent publishes the routes
// (LfibStatus) and the keys of the routes that changed (LfibTrackingStatus::routeKeyBacklog);
// hardware agents clear the backlog as they consume it and report the routes they could not
// program, with the reason, in LfibHwStatus.

#include <compare>
#include <cstdint>
#include <ostream>

#include "Kiv/Entity.h"
#include "Kiv/Types.h"
#include "Mpls/ReturnCode.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"

namespace Mpls {

// A label route: matched on the top label of the packet's stack.
class RouteKey {
 public:
  constexpr RouteKey() = default;
  explicit constexpr RouteKey(Quil::MplsLabel topLabel) : topLabel_(topLabel) {}
  constexpr Quil::MplsLabel topLabel() const { return topLabel_; }
  std::uint32_t hash() const { return topLabel_.hash(); }
  constexpr bool operator==(const RouteKey&) const = default;
  constexpr auto operator<=>(const RouteKey&) const = default;

 private:
  Quil::MplsLabel topLabel_;
};
std::ostream& operator<<(std::ostream& os, const RouteKey& k);  // "topLabel 1001"

// What kind of via table a via key points into.
enum class LfibViaType : std::uint8_t {
  viaTypeNone = 0,
  viaTypeMpls = 1,
  viaTypeIp = 2,
  viaTypePseudowire = 3,
  viaTypeEvpnVxlan = 4,
  viaTypeEvpnMpls = 5,
  viaTypeEvpnEthernetSegmentFilter = 6,
};
std::ostream& operator<<(std::ostream& os, LfibViaType t);  // the number

// One via: its table and its index there. The default key (type none) names no via.
class LfibViaKey {
 public:
  constexpr LfibViaKey() = default;
  constexpr LfibViaKey(LfibViaType viaType, std::uint32_t viaIndex)
      : viaType_(viaType), viaIndex_(viaIndex) {}
  constexpr LfibViaType viaType() const { return viaType_; }
  constexpr std::uint32_t viaIndex() const { return viaIndex_; }
  constexpr explicit operator bool() const { return viaType_ != LfibViaType::viaTypeNone; }
  std::uint32_t hash() const {
    return Kiv::HashMixer().add(static_cast<std::uint32_t>(viaType_)).add(viaIndex_).result();
  }
  constexpr bool operator==(const LfibViaKey&) const = default;
  constexpr auto operator<=>(const LfibViaKey&) const = default;

 private:
  LfibViaType viaType_ = LfibViaType::viaTypeNone;
  std::uint32_t viaIndex_ = 0;
};
std::ostream& operator<<(std::ostream& os, const LfibViaKey& k);  // "6/12"

// The via set a route forwards through; routes with the same vias share one.
class LfibViaSetKey {
 public:
  constexpr LfibViaSetKey() = default;
  explicit constexpr LfibViaSetKey(std::uint32_t value) : value_(value) {}
  constexpr std::uint32_t value() const { return value_; }
  std::uint32_t hash() const { return Kiv::HashMixer().add(value_).result(); }
  constexpr bool operator==(const LfibViaSetKey&) const = default;
  constexpr auto operator<=>(const LfibViaSetKey&) const = default;

 private:
  std::uint32_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, const LfibViaSetKey& k);  // the number

struct LfibRoute {
  RouteKey routeKey;
  LfibViaSetKey viaSetKey;
  bool operator==(const LfibRoute&) const = default;
};
// "topLabel 1001 viaSet 3"
std::ostream& operator<<(std::ostream& os, const LfibRoute& r);

// A route's via set. The routes the hardware agents program here have a single via.
struct LfibViaSet {
  LfibViaSetKey viaSetKey;
  LfibViaKey viaKey;
  bool operator==(const LfibViaSet&) const = default;
};
std::ostream& operator<<(std::ostream& os, const LfibViaSet& v);  // "3 -> 6/12"

// An EVPN Ethernet-segment filter via: BUM traffic arriving under the route's label must not
// leave on the segment's local interface. The default via (no interface) is the empty one.
struct LfibEvpnEthernetSegmentFilterVia {
  Quil::IntfId intfId;
  bool operator==(const LfibEvpnEthernetSegmentFilterVia&) const = default;
};
std::ostream& operator<<(std::ostream& os, const LfibEvpnEthernetSegmentFilterVia& v);

class LfibStatus : public Kiv::Entity<LfibStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<LfibStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(route, Route, RouteKey)
    KIV_NOTIFIEE_COLLECTION(viaSet, ViaSet, LfibViaSetKey)
    KIV_NOTIFIEE_COLLECTION(evpnEthernetSegmentFilterVia, EvpnEthernetSegmentFilterVia, LfibViaKey)
  };
  KIV_WATCHED_COLLECTION(route, Route, RouteKey, LfibRoute)
  KIV_WATCHED_COLLECTION(viaSet, ViaSet, LfibViaSetKey, LfibViaSet)
  KIV_WATCHED_COLLECTION(evpnEthernetSegmentFilterVia, EvpnEthernetSegmentFilterVia, LfibViaKey,
                         LfibEvpnEthernetSegmentFilterVia)
};

class LfibTrackingStatus : public Kiv::Entity<LfibTrackingStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<LfibTrackingStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(routeKeyBacklog, RouteKeyBacklog, RouteKey)
  };
  // Routes changed since a consumer last looked; the consumer removes each key it has processed.
  KIV_WATCHED_COLLECTION(routeKeyBacklog, RouteKeyBacklog, RouteKey, bool)
};

class LfibHwStatus : public Kiv::Entity<LfibHwStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<LfibHwStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(unprogrammedRoute, UnprogrammedRoute, RouteKey)
  };
  // Routes the hardware does not hold, with the reason.
  KIV_WATCHED_COLLECTION(unprogrammedRoute, UnprogrammedRoute, RouteKey,
                         LfibHwProgrammingReturnCode)
};

}  // namespace Mpls
