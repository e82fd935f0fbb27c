// The reviews' walk over parked keys: where a run that yields leaves off, and where the next
// takes up.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Collection.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerTask.h"
#include "Oba/ObaCommon.h"

namespace {

using Kiv::Ptr;

// A machine's parked keys and its review: keys below 100 wait behind something that never goes;
// the others succeed once the chip takes them, and leave the collection.
struct Parked : Mox::TimerTask::Notifiee {
  Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::HashMap<int, bool> keys;
  bool chipTakes = false;
  std::vector<std::vector<int>> runs;  // the keys each run retried

  explicit Parked(std::vector<int> parked) {
    scheduler->workBudgetIs(2);
    notifierIs(Mox::TimerTask::TimerTaskIs(scheduler, Mox::TaskPriority(2), "review"));
    for (int k : parked) keys.put(k, true);
  }
  void onTaskRun() override {
    runs.emplace_back();
    Oba::reviewEach(keys.walk(), *notifier(), 5.0, [&](int k) {
      runs.back().push_back(k);
      if (k >= 100 && chipTakes) keys.erase(k);
    });
  }
  void reviewFor(double seconds) {
    notifier()->scheduleTask();
    scheduler->advanceBy(seconds);
  }
};

TEST(ReviewTest, KeysPastTheBudgetWaitUnlessTheWalkResumes) {
  Parked literal({1, 2, 3, 200});
  literal.chipTakes = true;
  literal.reviewFor(21);  // five runs, each starting from the first key again
  EXPECT_EQ(literal.runs.size(), 5u);
  for (const auto& run : literal.runs) EXPECT_EQ(run, (std::vector<int>{1, 2}));
  EXPECT_TRUE(literal.keys.contains(200));

  Parked resuming({1, 2, 3, 200});
  resuming.scheduler->walksResumeIs(true);
  resuming.chipTakes = true;
  resuming.reviewFor(11);
  // Each run takes up where the last stopped and goes round the end; every key is retried in
  // turn, none twice in a run, and 200 goes in the second run.
  ASSERT_EQ(resuming.runs.size(), 3u);
  EXPECT_EQ(resuming.runs[0], (std::vector<int>{1, 2}));
  EXPECT_EQ(resuming.runs[1], (std::vector<int>{3, 200}));
  EXPECT_EQ(resuming.runs[2], (std::vector<int>{1, 2}));
  EXPECT_FALSE(resuming.keys.contains(200));
}

TEST(ReviewTest, AResumedWalkGoesRoundOnceAndStartsOverWhenItsPlaceWent) {
  Parked p({1, 2, 3, 4, 5});
  p.scheduler->walksResumeIs(true);
  p.scheduler->workBudgetIs(3);
  p.reviewFor(0);  // 1 2 3, stopped before 4
  EXPECT_EQ(p.runs.back(), (std::vector<int>{1, 2, 3}));
  p.scheduler->workBudgetIs(10);
  p.scheduler->advanceBy(5);  // from 4 round to 3: every key once, and the review is done
  EXPECT_EQ(p.runs.back(), (std::vector<int>{4, 5, 1, 2, 3}));
  EXPECT_FALSE(p.notifier()->taskScheduled());

  p.scheduler->workBudgetIs(3);
  p.reviewFor(0);   // 1 2 3 again, stopped before 4
  p.keys.erase(4);  // the place it stopped at goes before the next run
  p.scheduler->advanceBy(5);
  EXPECT_EQ(p.runs.back(), (std::vector<int>{1, 2, 3}));
  // A key of another walk's type left in the task is not taken for this walk's place.
  p.notifier()->resumeAtIs(std::string("elsewhere"));
  p.scheduler->advanceBy(5);
  EXPECT_EQ(p.runs.back(), (std::vector<int>{1, 2, 3}));
}

}  // namespace
