// Trace levels, the cost of a disabled trace, the Quiktrace ring, and the aborting assertion.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Kiv/Types.h"

namespace {

Kiv::TraceHandle th("KivTraceTestSource");
Kiv::TraceHandle other("OtherSource");

TEST(KivTrace, LinesAreBuiltOnlyWhenTheirLevelIsOn) {
  std::vector<std::string> lines;
  Kiv::traceSinkIs([&](const Kiv::TraceLine& l) {
    lines.push_back(std::string(l.source) + "/" + std::to_string(l.level) + " " +
                    std::string(l.text));
  });
  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };

  Kiv::traceConfigIs("KivTrace*/5");
  KIV_TRACE(th, 8, "entry " << costly());
  KIV_TRACE(th, 5, "event " << costly());
  KIV_TRACE(other, 0, "never " << costly());
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"KivTraceTestSource/5 event 1"}));

  // The last matching rule wins; a bare source means every level.
  Kiv::traceConfigIs("*/2, KivTraceTestSource");
  EXPECT_EQ(th.level(), 9);
  EXPECT_EQ(other.level(), 2);

  // A malformed text is refused whole and the levels stay as they were.
  EXPECT_THROW(Kiv::traceConfigIs("OtherSource/x"), Kiv::RangeException);
  EXPECT_EQ(other.level(), 2);
  Kiv::traceConfigIs("");
  EXPECT_FALSE(th.enabled(0));
  Kiv::traceSinkIs(nullptr);
}

TEST(KivTrace, QuiktraceKeepsTheMostRecentRecords) {
  auto& q = Kiv::Quiktrace::instance();
  q.clear();
  KIV_QTRACE(th, "failed to program tunnel");
  KIV_QTRACE_VALUE(th, "tunnel programmed with hw tunnel id ", 42);
  auto recs = q.records();
  ASSERT_EQ(recs.size(), 2u);
  EXPECT_STREQ(recs[1].source, "KivTraceTestSource");
  EXPECT_TRUE(recs[1].hasValue);
  EXPECT_EQ(recs[1].value, 42u);

  for (std::size_t i = 0; i < Kiv::Quiktrace::kCapacity + 5; ++i) KIV_QTRACE_VALUE(th, "n", i);
  recs = q.records();
  ASSERT_EQ(recs.size(), Kiv::Quiktrace::kCapacity);
  EXPECT_EQ(recs.front().value, 5u);  // the oldest were overwritten
  EXPECT_EQ(recs.back().value, Kiv::Quiktrace::kCapacity + 4);
}

TEST(KivAssertDeathTest, AFailedAssertionPrintsItsConditionAndAborts) {
  bool initialized = false;
  EXPECT_DEATH(KIV_ASSERT(initialized), "assertion \"initialized\" failed");
  EXPECT_DEATH(KIV_ASSERT_TEXT(initialized, "intfVlanTunnelHas( key )"),
               "intfVlanTunnelHas\\( key \\)");
}

}  // namespace
