// The FEC request and response records as a requester and the chip layer use them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Oba/ObaFecRecords.h"

namespace {

using Shoal::Fib::FecId;

struct ChipSide : Oba::FecIdToHwFecIdRequest::NotifieeConst {
  std::vector<std::string> seen;
  void onHwFecIdRequest(const FecId& id) override {
    seen.push_back((notifier()->hwFecIdRequest(id) ? "request " : "withdraw ") +
                   std::to_string(id.number()));
  }
};

TEST(ObaFecRecords, TheChipSeesEachRequestAndAnswersByFecId) {
  Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request = new Oba::FecIdToHwFecIdRequest("fecRequest");
  Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response = new Oba::FecIdToHwFecIdResponse("fecResponse");
  ChipSide chip;
  chip.notifierIs(request);

  auto tuple = L2Rib::ObjTuple::label(L2Rib::LabelId(4));
  FecId id = FecId::encode(Shoal::Fib::FecIdAdjType::tunnel, 9);
  request->fecIs(Shoal::Fib::Fec(id));
  request->objTupleToFecIdIs(Oba::ObjTupleAndFecId(tuple, id));
  request->hwFecIdRequestIs(Oba::HwFecIdRequest(id, false));
  EXPECT_EQ(request->objTupleToFecId(tuple).row.fecId(), id);

  response->hwFecIdIs(Oba::FecToHwFecId(id, 77));
  response->l2IntfIdIs(id, Quil::IntfId::ethernet(3));
  EXPECT_EQ(response->hwFecId(id).row.hwFecId(), 77u);
  EXPECT_EQ(response->hwFecId(id).row, Oba::FecToHwFecId(id, 77));
  EXPECT_FALSE(response->hwFecId(FecId(1)).found);

  request->hwFecIdRequestDelAll();
  EXPECT_EQ(chip.seen, (std::vector<std::string>{"request 9", "withdraw 9"}));
  EXPECT_EQ(Oba::ObjTupleAndFecId(tuple, id).toString(),
            "Value('Oba::ObjTupleAndFecId', ** {'objTuple': label/4, 'fecId': "
            "FecId(0x800000000000009)})");
}

}  // namespace
