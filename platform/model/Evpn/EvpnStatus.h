#pragma once
// The EVPN status that the control plane publishes: per Ethernet segment (keyed by the segment's
// interface) the designated-forwarder tunnel endpoint of each VLAN and the ESI labels that remote
// endpoints advertise, the locally allocated ESI label of each segment, and the 802.1Q tag of
// each EVPN VLAN service.

#include <cstdint>
#include <ostream>
#include <string_view>

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Kiv/Entity.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"

namespace Evpn {

// An ESI label with its encapsulation: the encapsulation type in the top 8 bits of the packed
// value, the label below. Only an MPLS encapsulation carries an MPLS label.
class EncapTypeLabel {
 public:
  enum EncapType : std::uint8_t { encapTypeNone = 0, encapTypeMpls = 1, encapTypeVxlan = 2 };

  constexpr EncapTypeLabel() = default;
  constexpr EncapTypeLabel(EncapType type, std::uint32_t label)
      : value_((static_cast<std::uint32_t>(type) << 24) | (label & 0xffffff)) {}
  static constexpr EncapTypeLabel mpls(Quil::MplsLabel label) {
    return EncapTypeLabel(encapTypeMpls, label.value());
  }
  constexpr std::uint32_t value() const { return value_; }
  constexpr EncapType encapType() const { return static_cast<EncapType>(value_ >> 24); }
  constexpr std::uint32_t label() const { return value_ & 0xffffff; }
  Quil::MplsLabel mplsLabel() const { return Quil::MplsLabel(label()); }
  constexpr bool operator==(const EncapTypeLabel&) const = default;

  // "mpls:1001", "vxlan:5000", "none:0".
  static EncapTypeLabel parse(std::string_view s);

 private:
  std::uint32_t value_ = 0;
};
std::ostream& operator<<(std::ostream& os, const EncapTypeLabel& l);

// One Ethernet segment as the control plane sees it.
class EthernetSegmentStatus : public Kiv::Entity<EthernetSegmentStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EthernetSegmentStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(designatedForwarderTep, DesignatedForwarderTep, Bridging::VlanId)
    KIV_NOTIFIEE_COLLECTION(remoteEsiLabel, RemoteEsiLabel, Quil::IntfId)
  };
  explicit EthernetSegmentStatus(const Quil::IntfId& intfId) : intfId_(intfId) {}
  KIV_KEY(intfId, Quil::IntfId)
  // VLAN -> the dynamic tunnel interface towards the endpoint elected designated forwarder.
  KIV_WATCHED_COLLECTION(designatedForwarderTep, DesignatedForwarderTep, Bridging::VlanId,
                         Quil::IntfId)
  // Remote endpoint (its dynamic tunnel interface) -> the ESI label it advertises.
  KIV_WATCHED_COLLECTION(remoteEsiLabel, RemoteEsiLabel, Quil::IntfId, EncapTypeLabel)
};

class EvpnStatus : public Kiv::Entity<EvpnStatus> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EvpnStatus> {
   public:
    KIV_NOTIFIEE_COLLECTION(segmentStatus, SegmentStatus, Quil::IntfId)
    KIV_NOTIFIEE_COLLECTION(localEsiLabel, LocalEsiLabel, Quil::IntfId)
    KIV_NOTIFIEE_COLLECTION(vlanToDot1q, VlanToDot1q, Bridging::VlanId)
  };
  KIV_WATCHED_CHILD_COLLECTION(segmentStatus, SegmentStatus, Quil::IntfId, EthernetSegmentStatus)
  // Segment interface -> the ESI label allocated locally for it.
  KIV_WATCHED_COLLECTION(localEsiLabel, LocalEsiLabel, Quil::IntfId, EncapTypeLabel)
  // VLAN of an EVPN VLAN service -> the 802.1Q tag its flooded traffic carries on a port.
  KIV_WATCHED_COLLECTION(vlanToDot1q, VlanToDot1q, Bridging::VlanId, Bridging::VlanIdOrNone)
};

// The EVPN MPLS configuration; the library follows only whether VLAN services use 802.1Q tags.
class MplsConfig : public Kiv::Entity<MplsConfig> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<MplsConfig> {
   public:
    KIV_NOTIFIEE_SCALAR(VlanServiceDot1qEnabled)
  };
  KIV_WATCHED_SCALAR(vlanServiceDot1qEnabled, VlanServiceDot1qEnabled, bool, false)
};

}  // namespace Evpn
