// A miniature state machine built the way the library's machines are: a watched input with
// per-key children, a reactor per child, and a review task that retries refused work and yields.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Entity.h"
#include "Kiv/Reactor.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerTask.h"

namespace {

// Input: a fabric of segments, each with a designated-forwarder endpoint per VLAN.
class Segment : public Kiv::Entity<Segment> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Segment> {
   public:
    KIV_NOTIFIEE_COLLECTION(df, Df, int)
  };
  explicit Segment(int id) : id_(id) {}
  KIV_KEY(id, int)
  KIV_WATCHED_COLLECTION(df, Df, int, int)
};

class Fabric : public Kiv::Entity<Fabric> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Fabric> {
   public:
    KIV_NOTIFIEE_COLLECTION(segment, Segment, int)
  };
  KIV_WATCHED_CHILD_COLLECTION(segment, Segment, int, Segment)
};

// The machine "programs" (segment, vlan) pairs into a chip that can refuse them.
class MiniSm : public Kiv::PtrInterface {
 public:
  class KivFabric : public Kiv::Reactor<Fabric, MiniSm> {
   public:
    using Reactor::Reactor;
    void onSegment(const int& id) override { owner()->handleSegment(id); }
  };
  class KivSegment : public Kiv::Reactor<Segment, MiniSm> {
   public:
    using Reactor::Reactor;
    void onDf(const int& vlan) override { owner()->program(fwkKey(), vlan); }
    void handleSegment() {
      owner()->events.push_back((zombie() ? "retire " : "attach ") + std::to_string(fwkKey()));
      for (auto [vlan, ep] : entity()->dfWalk()) owner()->program(fwkKey(), vlan);
    }
  };
  class KivReview : public Mox::TaskReactor<MiniSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->doReview(); }
  };

  MiniSm(Kiv::Ptr<Mox::TaskScheduler> scheduler, Kiv::Ptr<const Fabric> fabric) {
    review_ = new KivReview(
        Mox::TimerTask::TimerTaskIs(scheduler, Mox::TaskPriority(2), "reviewUnprogrammed"), this);
    if (fabric) fabricIs(fabric);
    for (auto [id, seg] : fabric->segmentWalk()) segmentIs(seg);
  }

  KIV_REACTOR(fabric, KivFabric, "Test::MiniSm")
  KIV_REACTOR_COLLECTION(segment, int, KivSegment, handleSegment, "Test::MiniSm")
  KIV_COLLECTION(programmed, int, int)  // segment * 10000 + vlan -> endpoint
  KIV_ORDERED_COLLECTION(unprogrammed, int, bool)

  void handleSegment(int id) {
    if (auto seg = fabric()->segment(id)) {
      segmentIs(seg);
    } else {
      segmentDel(id);
    }
  }

  void program(int seg, int vlan) {
    int key = seg * 10000 + vlan;
    auto s = fabric()->segment(seg);
    auto ep = s ? s->df(vlan) : std::nullopt;
    if (!ep) {
      programmedDel(key);
      unprogrammedDel(key);
      return;
    }
    if (refuse.count(key)) {
      unprogrammedIs(key, true);
      if (!review_->task()->taskScheduled()) review_->task()->scheduleTaskDelay(5.0);
      return;
    }
    unprogrammedDel(key);
    programmedIs(key, *ep);
  }

  void doReview() {
    ++reviews;
    for (auto [key, _] : unprogrammedWalk()) {
      program(key / 10000, key % 10000);
      review_->task()->taskWorkCountInc(1);
      if (unprogrammeds() && review_->task()->taskShouldYield()) {
        review_->task()->scheduleTaskDelay(5.0);
        return;
      }
    }
  }

  std::set<int> refuse;
  std::vector<std::string> events;
  int reviews = 0;
  Kiv::Ptr<KivReview> review_;
};

struct MiniWorld {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Fabric> fabric = new Fabric;
};

TEST(KivReactor, AttachReplaysExistingChildrenAndRetirementUndoesThem) {
  MiniWorld w;
  w.fabric->segmentIs(1)->dfIs(10, 100);
  w.fabric->segmentIs(1)->dfIs(20, 100);
  Kiv::Ptr<MiniSm> sm = new MiniSm(w.scheduler, w.fabric);
  // Made over a segment that already existed: its handler ran once and caught up.
  EXPECT_EQ(sm->events, (std::vector<std::string>{"attach 1"}));
  EXPECT_EQ(sm->programmeds(), 2u);

  // Per-key forwarding while active; a new segment gets its own reactor.
  w.fabric->segmentIs(1)->dfIs(30, 200);
  w.fabric->segmentIs(2)->dfIs(10, 300);
  EXPECT_EQ(sm->programmeds(), 4u);
  EXPECT_EQ(*sm->programmed(10030), 200);
  EXPECT_EQ(*sm->programmed(20010), 300);

  // Removing a segment retires its reactor: the handler runs once more and sees it gone.
  Kiv::Ptr<Segment> old = w.fabric->segment(1);
  w.fabric->segmentDel(1);
  EXPECT_EQ(sm->events.back(), "retire 1");
  EXPECT_FALSE(sm->segment(1));
  EXPECT_EQ(sm->programmeds(), 1u);
  // The retired reactor no longer forwards, even if someone still changes the old entity.
  old->dfIs(40, 100);
  EXPECT_EQ(sm->programmeds(), 1u);

  // Null entities are refused with the framework's range error, and nothing changes.
  try {
    sm->segmentIs(nullptr);
    FAIL() << "expected a range error";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _segment parameter to mutator for Test::MiniSm::segment not allowed\"");
  }
  EXPECT_THROW(sm->fabricIs(nullptr), Kiv::RangeException);
  EXPECT_EQ(sm->segments(), 1u);
}

TEST(KivReactor, ReviewRetriesRefusedWorkAndYieldsToTheScheduler) {
  MiniWorld w;
  Kiv::Ptr<MiniSm> sm = new MiniSm(w.scheduler, w.fabric);
  sm->refuse = {10010, 10020, 10030};
  auto seg = w.fabric->segmentIs(1);
  for (int vlan : {10, 20, 30}) seg->dfIs(vlan, 7);
  EXPECT_EQ(sm->unprogrammeds(), 3u);
  EXPECT_EQ(*w.scheduler->nextDueTime(), 5.0);  // one delayed review, not three

  // Nothing happens until time moves; the first review still finds everything refused.
  w.scheduler->advanceTo(4.9);
  EXPECT_EQ(sm->reviews, 0);
  w.scheduler->advanceTo(5.0);
  EXPECT_EQ(sm->reviews, 1);
  EXPECT_EQ(sm->unprogrammeds(), 3u);

  // The chip recovers; the scheduler asks the review to yield after every key, so it resumes
  // after the retry interval each time, not at once.
  sm->refuse.clear();
  w.scheduler->forceYieldIs(true);
  w.scheduler->advanceTo(10.0);
  EXPECT_EQ(sm->unprogrammeds(), 2u);
  w.scheduler->advanceTo(14.0);
  EXPECT_EQ(sm->unprogrammeds(), 2u);
  w.scheduler->advanceTo(20.0);
  EXPECT_EQ(sm->unprogrammeds(), 0u);  // the last key needs no further run
  EXPECT_EQ(sm->programmeds(), 3u);
  EXPECT_TRUE(w.scheduler->idle());

  // A pair removed while it waits leaves the review nothing to do for it.
  sm->refuse = {10040};
  seg->dfIs(40, 7);
  seg->dfDel(40);
  EXPECT_EQ(sm->unprogrammeds(), 0u);
}

}  // namespace
