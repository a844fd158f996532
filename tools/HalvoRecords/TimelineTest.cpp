#include <gtest/gtest.h>

#include "tests/Support/SampleSnapshot.hpp"
#include "tools/HalvoRecords/Timeline.hpp"

namespace halvo::records {
namespace {

using S = WidgetSnapshot;
using Reasons = std::vector<std::string>;
using testing::nineOClock;
using testing::sampleSnapshot;

constexpr Seconds minute{60};
constexpr Seconds hour{3600};

GregorianCalendar calendarOf(const std::string& zone) {
    return GregorianCalendar::named(zone).value();
}

TEST(TimelineTest, HasTheDatesOfTheSnapshot) {
    const S snapshot = sampleSnapshot();
    const GregorianCalendar utc = calendarOf("UTC");
    const Timeline timeline = Timeline::of(snapshot, nineOClock, utc, hour, 60);
    const auto dates = snapshot.timelineDates(nineOClock, utc, hour, 60);
    ASSERT_EQ(timeline.rows.size(), dates.size());
    for (std::size_t i = 0; i < dates.size(); ++i) {
        EXPECT_EQ(timeline.rows[i].date, dates[i]);
        EXPECT_EQ(timeline.rows[i].state, snapshot.state(dates[i]));
    }
    EXPECT_EQ(timeline.reload, snapshot.reloadDate(dates, nineOClock));
}

TEST(TimelineTest, SaysWhyEachDateIsThere) {
    S snapshot = sampleSnapshot();
    const WallDate midnight = nineOClock + hour * 15;
    snapshot.phases = {{midnight - minute * 2, S::Block{testing::sampleRun(midnight + minute)}},
                       {midnight + minute, S::NothingScheduled{}}};
    const Timeline timeline =
        Timeline::of(snapshot, midnight - minute * 2, calendarOf("UTC"), hour, 60);
    ASSERT_EQ(timeline.rows.size(), 4U);
    EXPECT_EQ(timeline.rows[0].reasons, (Reasons{"start", "phase"}));
    EXPECT_EQ(timeline.rows[1].reasons, Reasons{"minute"});
    EXPECT_EQ(timeline.rows[2].reasons, (Reasons{"midnight", "minute"}));
    EXPECT_EQ(timeline.rows[3].reasons, Reasons{"phase"});
}

TEST(TimelineTest, CountsNoMinutesPastTheSpan) {
    S snapshot = sampleSnapshot();
    const WallDate midnight = nineOClock + hour * 15;
    snapshot.phases = {{nineOClock, S::Block{testing::sampleRun(midnight + hour)}}};
    const Timeline timeline = Timeline::of(snapshot, nineOClock, calendarOf("UTC"), minute, 60);
    ASSERT_EQ(timeline.rows.size(), 3U);
    EXPECT_EQ(timeline.rows[1].reasons, Reasons{"minute"});
    EXPECT_EQ(timeline.rows[2].date, midnight);
    EXPECT_EQ(timeline.rows[2].reasons, Reasons{"midnight"});
}

TEST(TimelineTest, ExplainsAMinuteOfAPhaseThatAnotherOverlaps) {
    S snapshot = sampleSnapshot();
    snapshot.phases = {{nineOClock, S::Block{testing::sampleRun(nineOClock + minute * 2)}},
                       {nineOClock - hour, S::NoBlocks{}}};
    // The second phase ends the first one's countdown before it begins.
    EXPECT_EQ(Timeline::of(snapshot, nineOClock, calendarOf("UTC"), hour, 2).rows.size(), 2U);
    for (const auto& row : Timeline::of(snapshot, nineOClock, calendarOf("UTC"), hour, 60).rows) {
        EXPECT_FALSE(row.reasons.empty());
    }
}

TEST(TimelineTest, BeginsDaysWhereTheZoneDoes) {
    const Timeline timeline =
        Timeline::of(sampleSnapshot(), nineOClock + hour, calendarOf("Asia/Tokyo"), Seconds{0}, 60);
    ASSERT_GE(timeline.rows.size(), 3U);
    EXPECT_EQ(timeline.rows[2].date, nineOClock + hour * 6);
    EXPECT_EQ(timeline.rows[2].reasons, Reasons{"midnight"});
}

TEST(TimelineTest, IsATable) {
    const GregorianCalendar berlin = calendarOf("Europe/Berlin");
    const Timeline timeline =
        Timeline::of(sampleSnapshot(), nineOClock + minute * 9, berlin, minute * 2, 60);
    EXPECT_EQ(description(timeline, berlin),
              R"(DATE                        WHY       LEFT   STATE
2026-11-20 10:09:00 +01:00  start     1:30   block "Deep work"
2026-11-20 10:09:30 +01:00  minute    1:00   block "Deep work"
2026-11-20 10:10:30 +01:00  phase     49:30  focus "Deep work"
2026-11-20 10:11:00 +01:00  minute    49:00  focus "Deep work"
2026-11-20 11:00:00 +01:00  phase     -      focus filter "Deep work"
2026-11-20 12:00:00 +01:00  phase     -      next "Evening \"off\"\n\\ ☾"
2026-11-20 22:00:00 +01:00  phase     -      nothing scheduled
2026-11-20 23:53:20 +01:00  phase     -      no blocks
2026-11-21 00:00:00 +01:00  midnight  -      no blocks
2026-11-21 00:00:00 +01:00  reload
)");
}

TEST(TimelineTest, IsJSON) {
    const Timeline timeline{.rows = {{nineOClock, {"start"}, S::NoBlocks{}},
                                     {nineOClock + minute, {"minute"}, S::NoBlocks{}}},
                            .reload = nineOClock + hour};
    EXPECT_EQ(asJSON(timeline), R"({
  "dates": [
    "2026-11-20T09:00:00Z",
    "2026-11-20T09:01:00Z"
  ],
  "reload": "2026-11-20T10:00:00Z"
}
)");
}

TEST(TimelineTest, HasNoJSONForADatePastAllTexts) {
    EXPECT_EQ(asJSON({.rows = {}, .reload = wallDate(253402300800)}),
              "{\n  \"dates\": [],\n  \"reload\": null\n}\n");
}

}  // namespace
}  // namespace halvo::records
