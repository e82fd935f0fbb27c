#pragma once
// The published mapping from EVPN tunnel id to the chip's hardware tunnel id.
//
// The hardware tunnel-id machine is its one writer; the flooding machines and agents in other
// processes read it. A row never carries hardware id 0.

#include <array>
#include <string>

#include "Kiv/Entity.h"
#include "Kiv/Types.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaValue.h"
#include "Shoal/KivShoal.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

struct TunnelIdToHwTunnelIdFields {
  static constexpr const char* typeName = "Oba::TunnelIdToHwTunnelId";
  static constexpr std::array<const char*, 2> names{"key", "hwTunnelId"};
};
class OBA_EXPORT TunnelIdToHwTunnelId
    : public Value<TunnelIdToHwTunnelId, TunnelIdToHwTunnelIdFields, Tunnel::TunnelTable::TunnelId,
                   HwTunnelId> {
 public:
  using Value::Value;
  Tunnel::TunnelTable::TunnelId key() const { return field<0>(); }
  HwTunnelId hwTunnelId() const { return field<1>(); }
  // The table's diagnostic form: "Tunnel1.7 -> 3".
  std::string compactString() const;
};

class OBA_EXPORT TunnelIdToHwTunnelIdMapping : public Kiv::Entity<TunnelIdToHwTunnelIdMapping> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<TunnelIdToHwTunnelIdMapping> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(tunnelIdToHwTunnelId, TunnelIdToHwTunnelId,
                             Tunnel::TunnelTable::TunnelId)
  };

  // The agent that makes the mapping is its writer: the table is mounted for writing at once.
  explicit TunnelIdToHwTunnelIdMapping(Kiv::Name name);
  const Kiv::Name& name() const { return name_; }

  KIV_SHOAL_TABLE(tunnelIdToHwTunnelId, TunnelIdToHwTunnelId, Tunnel::TunnelTable::TunnelId,
                  TunnelIdToHwTunnelId)

 private:
  Kiv::Name name_;
};

}  // namespace Oba

OBA_VALUE_STD_HASH(Oba::TunnelIdToHwTunnelId)
