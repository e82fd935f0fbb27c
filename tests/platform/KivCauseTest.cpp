// Causes carried by the frame: a designated-forwarder change read by one machine, published in a
// table another machine reads, refused by the chip and retried by a review task five seconds later.
// Every chip call names its chain back to the step, and nothing is carried while causes are off.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Kiv/Cause.h"
#include "Kiv/Clock.h"
#include "Kiv/Entity.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerTask.h"

namespace {

// The input: a segment's designated-forwarder endpoint per VLAN.
class CauseSegment : public Kiv::Entity<CauseSegment> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<CauseSegment> {
   public:
    KIV_NOTIFIEE_COLLECTION(dfTep, DfTep, int)
  };
  explicit CauseSegment(int id) : id_(id) {}
  KIV_KEY(id, int)
  KIV_WATCHED_COLLECTION(dfTep, DfTep, int, int)
};

// The table one machine publishes and the other reads: endpoint to hardware id.
class CauseMapping : public Kiv::Entity<CauseMapping> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<CauseMapping> {
   public:
    KIV_NOTIFIEE_COLLECTION(hwId, HwId, int)
  };
  KIV_WATCHED_COLLECTION(hwId, HwId, int, int)
};

// The first machine: gives each designated-forwarder endpoint a hardware id.
class CauseIdSm : public CauseSegment::NotifieeConst {
 public:
  CauseIdSm(Kiv::Ptr<const CauseSegment> s, Kiv::Ptr<CauseMapping> m) : mapping_(std::move(m)) {
    notifierIs(s);
  }
  void onDfTep(const int& vlan) override {
    if (auto tep = notifier()->dfTep(vlan)) mapping_->hwIdIs(*tep, *tep + 100);
  }

 private:
  Kiv::Ptr<CauseMapping> mapping_;
};

// The second machine: programs each mapped endpoint into a chip that refuses the first try, and
// retries from its review task.
class CauseFloodSm : public CauseMapping::NotifieeConst {
 public:
  class KivReview : public Mox::TaskReactor<CauseFloodSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->program(pending); }
    int pending = 0;
  };
  CauseFloodSm(Kiv::Ptr<const CauseMapping> m, const Kiv::Ptr<Mox::TaskScheduler>& scheduler) {
    notifierIs(m);
    review_ =
        new KivReview(Mox::TimerTask::TimerTaskIs(scheduler, Mox::TaskPriority(2), "review"), this);
  }
  void onHwId(const int& tep) override { program(tep); }
  void program(int tep) {
    chains.push_back(Kiv::causeChain(Kiv::causeNow().ptr(), Kiv::CauseDetail::brief));
    fullChains.push_back(Kiv::causeChain(Kiv::causeNow().ptr(), Kiv::CauseDetail::full));
    if (refuse > 0) {
      --refuse;
      Kiv::causeAnswer("the chip refused tep " + std::to_string(tep));
      review_->pending = tep;
      review_->task()->scheduleTaskDelay(5.0);
    }
  }
  int refuse = 0;
  std::vector<std::vector<std::string>> chains, fullChains;

 private:
  Kiv::Ptr<KivReview> review_;
};

struct CauseWorld : ::testing::Test {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<CauseSegment> segment = new CauseSegment(7);
  Kiv::Ptr<CauseMapping> mapping = new CauseMapping;
  CauseIdSm ids{segment, mapping};
  CauseFloodSm flood{mapping, scheduler};
  ~CauseWorld() override { Kiv::causingIs(false); }
};

TEST_F(CauseWorld, ChainsCrossMachinesTheChipAndARetry) {
  Kiv::causingIs(true);
  flood.refuse = 1;
  {
    Kiv::CauseScope step(Kiv::causeOf(Kiv::Cause::Kind::outside, "step 3", nullptr));
    segment->dfTepIs(10, 1);
  }
  // The first call: the mapping row the first machine wrote, the input write that made it, the
  // step; the machines that heard each write are left to the full chain.
  ASSERT_EQ(flood.chains.size(), 1u);
  EXPECT_EQ(flood.chains[0], (std::vector<std::string>{"CauseMapping: hwId 1 101",
                                                       "CauseSegment 7: dfTep 10 1", "step 3"}));
  // Nothing outside the step's scope is caused by it.
  EXPECT_EQ(Kiv::causeNow(), nullptr);

  // The retry runs five seconds later, outside any step, and still names what parked it.
  scheduler->advanceBy(5.0);
  ASSERT_EQ(flood.chains.size(), 2u);
  EXPECT_EQ(flood.chains[1],
            (std::vector<std::string>{"task review runs at 5.000", "the chip refused tep 1",
                                      "CauseMapping: hwId 1 101", "CauseSegment 7: dfTep 10 1",
                                      "step 3"}));

  // The full chain names the machines that heard each write.
  EXPECT_EQ(
      flood.fullChains[0],
      (std::vector<std::string>{"heard by CauseFloodSm", "CauseMapping: hwId 1 101",
                                "heard by CauseIdSm", "CauseSegment 7: dfTep 10 1", "step 3"}));

  // A removal says so.
  Kiv::CauseScope step(Kiv::causeOf(Kiv::Cause::Kind::outside, "step 4", nullptr));
  mapping->hwIdDel(1);
  ASSERT_EQ(flood.chains.size(), 3u);
  EXPECT_EQ(flood.chains[2], (std::vector<std::string>{"CauseMapping: hwId 1 removed", "step 4"}));
}

TEST_F(CauseWorld, AReviewThatKeepsFailingKeepsItsChainShort) {
  Kiv::causingIs(true);
  flood.refuse = 200;
  {
    Kiv::CauseScope step(Kiv::causeOf(Kiv::Cause::Kind::outside, "step 1", nullptr));
    segment->dfTepIs(10, 1);
  }
  scheduler->advanceBy(5.0 * 200);
  ASSERT_EQ(flood.chains.size(), 201u);
  // Each run heard a refusal again: the latest takes the place of the one before, and the chain
  // still reaches the write that first parked the work.
  EXPECT_EQ(flood.chains.back(),
            (std::vector<std::string>{"task review runs at 1000.000", "the chip refused tep 1",
                                      "CauseMapping: hwId 1 101", "CauseSegment 7: dfTep 10 1",
                                      "step 1"}));
  // A chain that grows anyway is cut at its bound, keeping its root and counting what it left out.
  const Kiv::Cause* now = nullptr;
  {
    auto c = Kiv::causeOf(Kiv::Cause::Kind::outside, "probe", nullptr);
    for (int i = 0; i < 200; ++i) c = Kiv::causeOf(Kiv::Cause::Kind::write, "w", c);
    now = c.ptr();
    EXPECT_LE(now->depth(), Kiv::Cause::maxDepth + 1);
    EXPECT_EQ(now->root().text(), "probe");
    auto full = Kiv::causeChain(now, Kiv::CauseDetail::full);
    EXPECT_NE(std::find_if(full.begin(), full.end(),
                           [](const std::string& s) { return s.ends_with("causes left out"); }),
              full.end());
  }
}

TEST_F(CauseWorld, OffNothingIsCarried) {
  flood.refuse = 1;
  Kiv::CauseScope step(Kiv::causeOf(Kiv::Cause::Kind::outside, "step 1", nullptr));
  segment->dfTepIs(10, 1);
  scheduler->advanceBy(5.0);
  ASSERT_EQ(flood.chains.size(), 2u);
  EXPECT_TRUE(flood.chains[0].empty());
  EXPECT_TRUE(flood.chains[1].empty());
  EXPECT_EQ(Kiv::causeNow(), nullptr);
}

TEST(CauseTypeName, NamesAClassAsWrittenWithItsOwner) {
  EXPECT_EQ(Kiv::causeTypeName(typeid(CauseSegment)), "CauseSegment");
  EXPECT_EQ(Kiv::causeTypeName(typeid(CauseFloodSm::KivReview)), "CauseFloodSm::KivReview");
  EXPECT_EQ(Kiv::causeTypeName(typeid(Kiv::VirtualClock)), "VirtualClock");
}

}  // namespace
