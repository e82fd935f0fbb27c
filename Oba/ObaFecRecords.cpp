#include "Oba/ObaFecRecords.h"

namespace Oba {

FecIdToHwFecIdRequest::FecIdToHwFecIdRequest(Kiv::Name name) : name_(std::move(name)) {
  fecMount(Shoal::Role::writer);
  fec6Mount(Shoal::Role::writer);
  objTupleToFecIdMount(Shoal::Role::writer);
  hwFecIdRequestMount(Shoal::Role::writer);
}

FecIdToHwFecIdResponse::FecIdToHwFecIdResponse(Kiv::Name name) : name_(std::move(name)) {
  hwFecIdMount(Shoal::Role::writer);
  l2IntfIdMount(Shoal::Role::writer);
}

ObjTupleToHwId::ObjTupleToHwId(Kiv::Name name) : name_(std::move(name)) {
  hwIdMount(Shoal::Role::writer);
}

}  // namespace Oba
