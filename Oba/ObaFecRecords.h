#pragma once
// The records through which forwarding machines ask the chip layer for FECs and learn the
// hardware ids it gave them. They are not tied to one kind of FEC: the MAC-address machine and
// the flood-set FEC machine both write FecIdToHwFecIdRequest and read FecIdToHwFecIdResponse.
//
// A requester defines each FEC in `fec` under a FEC id of its own, names the owner of the id in
// `objTupleToFecId`, and asks for the hardware id in `hwFecIdRequest`; the chip layer answers per
// FEC id in the response's `hwFecId` (and, where it makes one, the layer-2 interface behind the
// FEC in `l2IntfId`):
//
//   request->fecIs(fec);
//   request->objTupleToFecIdIs(ObjTupleAndFecId(tuple, fec.fecId()));
//   request->hwFecIdRequestIs(HwFecIdRequest(fec.fecId(), false));
//   ... response->hwFecId(fecId).row.hwFecId()
//
// All are Shoal tables: the chip layer runs in another process.

#include <array>
#include <cstdint>

#include "Kiv/Entity.h"
#include "Kiv/Types.h"
#include "L2Rib/ObjTuple.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaValue.h"
#include "Quil/IntfId.h"
#include "Shoal/Fib.h"
#include "Shoal/KivShoal.h"

namespace Oba {

// ---- values ---------------------------------------------------------------------------------

// The FEC id a requester gave an object of the layer-2 RIB; keyed by the object.
struct ObjTupleAndFecIdFields {
  static constexpr const char* typeName = "Oba::ObjTupleAndFecId";
  static constexpr std::array<const char*, 2> names{"objTuple", "fecId"};
};
class OBA_EXPORT ObjTupleAndFecId
    : public Value<ObjTupleAndFecId, ObjTupleAndFecIdFields, L2Rib::ObjTuple, Shoal::Fib::FecId> {
 public:
  using Value::Value;
  L2Rib::ObjTuple objTuple() const { return field<0>(); }
  Shoal::Fib::FecId fecId() const { return field<1>(); }
  L2Rib::ObjTuple key() const { return objTuple(); }
};

// The hardware FEC id the chip layer gave a FEC id; keyed by the FEC id.
struct FecToHwFecIdFields {
  static constexpr const char* typeName = "Oba::FecToHwFecId";
  static constexpr std::array<const char*, 2> names{"fecId", "hwFecId"};
};
class OBA_EXPORT FecToHwFecId
    : public Value<FecToHwFecId, FecToHwFecIdFields, Shoal::Fib::FecId, std::uint64_t> {
 public:
  using Value::Value;
  Shoal::Fib::FecId fecId() const { return field<0>(); }
  std::uint64_t hwFecId() const { return field<1>(); }
  Shoal::Fib::FecId key() const { return fecId(); }
};

// A request for the hardware id of a FEC, whether the requester also wants the layer-2
// interface the chip makes for it (flood lists do; MAC forwarding does not), and the hardware
// tunnel id of the FEC's tunnel as the requester knew it (0: none or not told), so that a tunnel
// that gets another hardware id re-issues the request with it.
struct HwFecIdRequestFields {
  static constexpr const char* typeName = "Oba::HwFecIdRequest";
  static constexpr std::array<const char*, 3> names{"fecId", "l2IntfIdWanted", "hwTunnelId"};
};
class OBA_EXPORT HwFecIdRequest
    : public Value<HwFecIdRequest, HwFecIdRequestFields, Shoal::Fib::FecId, bool, HwTunnelId> {
 public:
  using Value::Value;
  HwFecIdRequest(Shoal::Fib::FecId fecId, bool l2IntfIdWanted)
      : Value(fecId, l2IntfIdWanted, HwTunnelId()) {}
  Shoal::Fib::FecId fecId() const { return field<0>(); }
  bool l2IntfIdWanted() const { return field<1>(); }
  HwTunnelId hwTunnelId() const { return field<2>(); }
  Shoal::Fib::FecId key() const { return fecId(); }
};

// ---- entities -------------------------------------------------------------------------------

// A set of RIB objects, kept per object by the machines that follow the RIB's chains (the objects
// one points at, or the objects that point at it). A member is present whatever its bool.
class OBA_EXPORT ObjTupleSet : public Kiv::PtrInterface {
 public:
  explicit ObjTupleSet(const L2Rib::ObjTuple& owner) : owner_(owner) {}
  KIV_KEY(owner, L2Rib::ObjTuple)
  KIV_COLLECTION(objTuple, L2Rib::ObjTuple, bool)
};

// What a requester asks of the chip layer. `fec6` holds IPv6 FECs, which no machine asks for yet.
class OBA_EXPORT FecIdToHwFecIdRequest : public Kiv::Entity<FecIdToHwFecIdRequest> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<FecIdToHwFecIdRequest> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(fec, Fec, Shoal::Fib::FecId)
    KIV_NOTIFIEE_SHOAL_TABLE(fec6, Fec6, Shoal::Fib::FecId)
    KIV_NOTIFIEE_SHOAL_TABLE(objTupleToFecId, ObjTupleToFecId, L2Rib::ObjTuple)
    KIV_NOTIFIEE_SHOAL_TABLE(hwFecIdRequest, HwFecIdRequest, Shoal::Fib::FecId)
  };
  // The requester that makes it is its writer: the tables are mounted for writing at once.
  explicit FecIdToHwFecIdRequest(Kiv::Name name);
  const Kiv::Name& name() const { return name_; }

  KIV_SHOAL_TABLE(fec, Fec, Shoal::Fib::FecId, Shoal::Fib::Fec)
  KIV_SHOAL_TABLE(fec6, Fec6, Shoal::Fib::FecId, Shoal::Fib::Fec)
  KIV_SHOAL_TABLE(objTupleToFecId, ObjTupleToFecId, L2Rib::ObjTuple, ObjTupleAndFecId)
  KIV_SHOAL_TABLE(hwFecIdRequest, HwFecIdRequest, Shoal::Fib::FecId, HwFecIdRequest)

 private:
  Kiv::Name name_;
};

// The chip layer's answers, per FEC id.
class OBA_EXPORT FecIdToHwFecIdResponse : public Kiv::Entity<FecIdToHwFecIdResponse> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<FecIdToHwFecIdResponse> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(hwFecId, HwFecId, Shoal::Fib::FecId)
    KIV_NOTIFIEE_SHOAL_TABLE(l2IntfId, L2IntfId, Shoal::Fib::FecId)
  };
  // The chip layer that makes it is its writer.
  explicit FecIdToHwFecIdResponse(Kiv::Name name);
  const Kiv::Name& name() const { return name_; }

  KIV_SHOAL_TABLE(hwFecId, HwFecId, Shoal::Fib::FecId, FecToHwFecId)
  KIV_SHOAL_MAP(l2IntfId, L2IntfId, Shoal::Fib::FecId, Quil::IntfId)

 private:
  Kiv::Name name_;
};

// The result for other agents: the hardware FEC id of each RIB object that has one.
class OBA_EXPORT ObjTupleToHwId : public Kiv::Entity<ObjTupleToHwId> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<ObjTupleToHwId> {
   public:
    KIV_NOTIFIEE_SHOAL_TABLE(hwId, HwId, L2Rib::ObjTuple)
  };
  explicit ObjTupleToHwId(Kiv::Name name);
  const Kiv::Name& name() const { return name_; }

  KIV_SHOAL_MAP(hwId, HwId, L2Rib::ObjTuple, std::uint64_t)

 private:
  Kiv::Name name_;
};

}  // namespace Oba

OBA_VALUE_STD_HASH(Oba::ObjTupleAndFecId)
OBA_VALUE_STD_HASH(Oba::FecToHwFecId)
OBA_VALUE_STD_HASH(Oba::HwFecIdRequest)
