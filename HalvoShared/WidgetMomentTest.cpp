#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/RFC3339.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/Durations.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/SampleSnapshot.hpp"

namespace halvo {
namespace {

using testing::day;
using testing::hour;
using testing::longSnapshot;
using testing::minute;
using testing::nineOClock;
using testing::plainDates;
using testing::sampleRun;
using testing::sampleSnapshot;
using S = WidgetSnapshot;
using Dates = std::vector<WallDate>;

constexpr std::size_t noLimit = std::numeric_limits<std::size_t>::max();
constexpr WallDate today = nineOClock - hour * 9;
const GregorianCalendar utc{TimeZone{}};

// A snapshot in which something runs, with a horizon two hours after nine.
S runningSnapshot(std::vector<S::Phase> phases) {
    S snapshot;
    snapshot.isRunning = true;
    snapshot.phases = std::move(phases);
    snapshot.horizon = nineOClock + hour * 2;
    return snapshot;
}

S::Phase blockUntil(WallDate start, WallDate end) { return {start, S::Block{sampleRun(end)}}; }

S::Phase focusUntil(WallDate start, WallDate end) { return {start, S::Focus{sampleRun(end)}}; }

S::Phase nothingFrom(WallDate start) { return {start, S::NothingScheduled{}}; }

// Nine, and each minute from nine and `first` on up to nine and `last`.
Dates nineAndMinutes(Seconds first, Seconds last) {
    Dates dates{nineOClock};
    for (Seconds at = first; at <= last; at += minute) {
        dates.push_back(nineOClock + at);
    }
    return dates;
}

// The moment.

TEST(WidgetMomentTest, HasTheSnapshotsStateAndFacts) {
    const S snapshot = sampleSnapshot();
    const WidgetMoment moment = snapshot.moment(nineOClock + hour, utc);
    EXPECT_EQ(moment.date, nineOClock + hour);
    EXPECT_EQ(moment.state, snapshot.state(nineOClock + hour));
    EXPECT_EQ(moment.isRunning, snapshot.isRunning);
    EXPECT_EQ(moment.blockCount, snapshot.blockCount);
    EXPECT_EQ(moment.breathe, snapshot.breathe);
    EXPECT_EQ(moment.focusMinutes, snapshot.focusMinutes);
}

TEST(WidgetMomentTest, HasTheSevenDaysThatEndTodayAndZerosWhereNothingWasRecorded) {
    S snapshot;
    snapshot.days = {{today - day * 7, 1, 0, 0},           // too old
                     {today - day * 6, 2, 0, 0},           //
                     {today - day * 2, 3, 0, 0},           //
                     {today - Seconds{0.001}, 4, 0, 0},    // at any time of its day
                     {today, 5, 0, 0},                     // not the last of its day
                     {today - day * 4, 6, 0, 0},           // in any order
                     {today + day - Seconds{1}, 7, 0, 0},  //
                     {today + day, 8, 0, 0}};
    const WidgetMoment moment = snapshot.moment(nineOClock, utc);
    EXPECT_EQ(moment.week, (std::vector<S::Day>{snapshot.days[1],
                                                {today - day * 5, 0, 0, 0},
                                                snapshot.days[5],
                                                {today - day * 3, 0, 0, 0},
                                                snapshot.days[2],
                                                snapshot.days[3],
                                                snapshot.days[6]}));
    EXPECT_EQ(moment.today, snapshot.days[6]);
    EXPECT_EQ(S().moment(nineOClock, utc).today, (S::Day{today, 0, 0, 0}));
}

// The year 1 begins two days before.
TEST(WidgetMomentTest, SkipsADayThatTheCalendarDoesNotHave) {
    constexpr WallDate first = wallDate(-62135596800);
    const auto week = S().moment(first + day * 2 + hour, utc).week;
    EXPECT_EQ(week, (std::vector<S::Day>{
                        {first, 0, 0, 0}, {first + day, 0, 0, 0}, {first + day * 2, 0, 0, 0}}));
}

// What counts down.

TEST(WidgetMomentTest, CountsDownInABlockOrAFocusAndHasAFocusThatDoes) {
    const S::Running run = sampleRun(nineOClock + hour);
    const S::Running open = sampleRun(std::nullopt);
    const S::Running over = sampleRun(nineOClock);
    const S::Running nearlyOver = sampleRun(nineOClock + Seconds{0.001});

    const struct {
        S::State state;
        std::optional<S::Running> countdown;
        std::optional<S::Running> focus;
    } rows[] = {{S::Block{run}, run, {}},
                {S::Focus{run}, run, run},
                {S::Focus{nearlyOver}, nearlyOver, nearlyOver},
                {S::Focus{over}, over, {}},
                {S::Focus{open}, open, {}},
                {S::FocusFilter{run}, {}, {}},
                {S::Next{}, {}, {}},
                {S::NothingScheduled{}, {}, {}},
                {S::NoBlocks{}, {}, {}}};

    for (const auto& row : rows) {
        const auto* countdown = S::countdown(row.state);
        EXPECT_EQ(countdown == nullptr ? std::nullopt : std::optional(*countdown), row.countdown);
        WidgetMoment moment;
        moment.date = nineOClock;
        moment.state = row.state;
        EXPECT_EQ(moment.focus(), std::nullopt) << "nothing runs";
        moment.isRunning = true;
        EXPECT_EQ(moment.focus(), row.focus);
    }
}

// The timeline.

TEST(TimelineDatesTest, HasThePhasesTheMidnightsAndTheMinutes) {
    const WallDate end = nineOClock + hour * 2;
    const auto run = blockUntil(nineOClock, nineOClock + hour);
    const auto inState = [](const S::State& state) { return S::Phase{nineOClock, state}; };
    Dates focusMinutes = nineAndMinutes(Seconds{20}, Seconds{560});  // 9:00:20 to 9:09:20
    focusMinutes.push_back(nineOClock + minute * 10);

    const struct {
        const char* what;
        std::vector<S::Phase> phases;
        Seconds span;
        Dates dates;
    } rows[] = {
        {"phases after from and up to the end",
         {nothingFrom(nineOClock - hour), nothingFrom(nineOClock),
          nothingFrom(nineOClock + Seconds{0.5}), nothingFrom(end),
          nothingFrom(end + Seconds{0.5})},
         hour,
         {nineOClock, nineOClock + Seconds{0.5}, end}},
        {"whole minutes back from the end of a run, 9:10:30",
         {blockUntil(nineOClock, nineOClock + Seconds{630})},
         hour,
         nineAndMinutes(Seconds{30}, Seconds{630})},
        {"minutes until the next phase",
         {focusUntil(nineOClock, nineOClock + Seconds{1820}),
          nothingFrom(nineOClock + minute * 10)},
         hour,
         focusMinutes},
        {"no span", {run}, Seconds{0}, {nineOClock}},
        {"a span of the past", {run}, Seconds{-5}, {nineOClock}},
        {"a span that ends before the run", {run}, minute * 3, nineAndMinutes(minute, minute * 3)},
        {"an endless block", {inState(S::Block{sampleRun({})})}, hour, {nineOClock}},
        {"a filter", {inState(S::FocusFilter{sampleRun(end)})}, hour, {nineOClock}}};

    for (const auto& row : rows) {
        S snapshot = runningSnapshot(row.phases);
        EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, row.span, noLimit), row.dates)
            << row.what;
        snapshot.horizon = nineOClock - Seconds{1};
        EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, row.span, noLimit), Dates{nineOClock})
            << "the horizon is past";
        snapshot.isRunning = false;
        EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, row.span, 0), Dates{nineOClock})
            << "nothing runs";
    }
    S snapshot = runningSnapshot({});
    snapshot.horizon = today + day * 3;
    EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, hour, noLimit),
              (Dates{nineOClock, today + day, today + day * 2, today + day * 3}));
    EXPECT_EQ(snapshot.timelineDates(today, utc, hour, 2), (Dates{today, today + day}));
}

TEST(TimelineDatesTest, MakesNothingOfWhatIsNoNumber) {
    const double nan = std::nan("");
    const double infinity = std::numeric_limits<double>::infinity();
    S snapshot = runningSnapshot({blockUntil(nineOClock, nineOClock + minute * 3)});
    const Dates usual = nineAndMinutes(minute, minute * 3);
    EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, Seconds{infinity}, noLimit), usual);
    EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, Seconds{nan}, noLimit), Dates{nineOClock});
    EXPECT_EQ(snapshot.timelineDates(wallDate(nan), utc, hour, noLimit).size(), 1U);
    // A phase whose start or end is odd, beside one that is not.
    for (const double odd : {nan, infinity, -infinity, 1e300, -1e300}) {
        snapshot.phases = {{wallDate(odd), S::Block{sampleRun(wallDate(odd))}},
                           blockUntil(nineOClock, nineOClock + minute * 3)};
        EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, hour, 60), usual) << odd;
    }
}

TEST(TimelineDatesTest, EndsForAFromThatIsNoDateOfTheWorld) {
    const double infinity = std::numeric_limits<double>::infinity();
    const S snapshot = runningSnapshot({blockUntil(wallDate(-infinity), nineOClock),
                                        blockUntil(nineOClock, nineOClock + minute * 3)});
    for (const double from : {-infinity, -1e300, -1e19, 1e19, 1e300, infinity}) {
        for (const double span : {infinity, 1e300, 1e20, 3600.0, -infinity}) {
            const Dates dates = snapshot.timelineDates(wallDate(from), utc, Seconds{span}, 60);
            EXPECT_EQ(dates.front(), wallDate(from)) << from << " " << span;
            EXPECT_TRUE(std::ranges::is_sorted(dates)) << from << " " << span;
        }
    }
}

// In real time zones.

WallDate dateOf(const std::string& text) { return RFC3339::parse(text).value(); }

// In Cuba 3 November 2024 began twice: a day gone by has the second of its midnights.
TEST(WidgetMomentTest, HasTheDaysOfItsCalendar) {
    const auto havana = GregorianCalendar::named("America/Havana").value();
    const auto week = S().moment(dateOf("2024-11-08T12:00:00-05:00"), havana).week;
    EXPECT_EQ(week.at(0).start, dateOf("2024-11-02T00:00:00-04:00"));
    EXPECT_EQ(week.at(1).start, dateOf("2024-11-03T00:00:00-05:00"));
}

TEST(WidgetMomentTest, FindsARecordByItsCalendarDay) {
    const struct {
        const char* zone;
        const char* record;
        const char* date;
        // In the week, of which 6 is today; absent where it is of none of these days.
        std::optional<std::size_t> place;
    } rows[] = {{"Europe/Berlin", "2026-10-25T23:59:59+01:00", "2026-10-25T12:00:00+01:00", 6},
                {"Europe/Berlin", "2026-10-25T23:59:59+01:00", "2026-10-26T00:00:00+01:00", 5},
                {"America/Havana", "2024-11-03T00:00:00-04:00", "2024-11-04T12:00:00-05:00", 5},
                {"America/Havana", "2024-11-03T00:00:00-05:00", "2024-11-04T12:00:00-05:00", 5},
                {"America/Havana", "2024-11-03T00:00:00-04:00", "2024-11-03T12:00:00-05:00", 6},
                {"America/Havana", "2024-11-03T00:00:00-05:00", "2024-11-03T12:00:00-05:00", 6},
                // Newfoundland went from 00:01 on 30 October 2005 back to 23:01 on the 29th.
                {"America/St_Johns", "2005-10-29T23:15:00-03:30", "2005-10-29T12:00:00-02:30", 6},
                {"America/St_Johns", "2005-10-29T23:15:00-03:30", "2005-10-30T12:00:00-03:30", 5},
                {"America/St_Johns", "2005-10-30T00:00:30-02:30", "2005-10-30T00:00:30-02:30", 6},
                {"America/St_Johns", "2005-10-30T00:00:30-02:30", "2005-10-29T23:15:00-03:30", {}}};

    for (const auto& row : rows) {
        S snapshot;
        snapshot.days = {{dateOf(row.record), 1, 0, 0}};
        const auto week =
            snapshot.moment(dateOf(row.date), GregorianCalendar::named(row.zone).value()).week;
        ASSERT_EQ(week.size(), 7U);
        for (std::size_t i = 0; i < week.size(); ++i) {
            EXPECT_EQ(week[i].breaths, i == row.place ? 1 : 0) << row.record << " " << row.date;
        }
    }
}

TEST(WidgetMomentTest, HasNothingOfOtherDaysForADateThatNoCalendarHas) {
    const GregorianCalendar berlin = GregorianCalendar::named("Europe/Berlin").value();
    for (const double odd : {secondsSince1970(dateOf("0000-06-01T00:00:00Z")), -1e300, 1e300,
                             -std::numeric_limits<double>::infinity()}) {
        const WidgetMoment moment = sampleSnapshot().moment(wallDate(odd), berlin);
        EXPECT_EQ(moment.today, (S::Day{wallDate(odd), 0, 0, 0}));
        EXPECT_TRUE(moment.week.empty());
    }
}

// Seconds whole, halved and odd, so that dates coincide often and not always.
class RandomSnapshots {
  public:
    explicit RandomSnapshots(unsigned seed) : random_(seed) {}

    int below(int end) { return std::uniform_int_distribution(0, end - 1)(random_); }

    WallDate date() {
        constexpr std::array steps{60.0, 30.0, 20.5, 86400.0, 7.25};
        return nineOClock +
               Seconds{steps[static_cast<std::size_t>(below(steps.size()))] * (below(120) - 30)};
    }

    S::State state() {
        const auto run = sampleRun(below(5) == 0 ? std::nullopt : std::optional(date()));
        switch (below(6)) {
            case 0:
                return S::Focus{run};
            case 1:
                return S::FocusFilter{run};
            case 2:
                return S::NothingScheduled{};
            default:
                return S::Block{run};
        }
    }

    S snapshot() {
        S snapshot;
        snapshot.isRunning = below(20) != 0;
        snapshot.horizon = date() + hour * below(100);
        const int count = below(12);
        for (int i = 0; i < count; ++i) {
            snapshot.phases.push_back({date(), state()});
        }
        if (below(4) != 0) {
            std::ranges::sort(snapshot.phases, {}, &S::Phase::start);
        }
        return snapshot;
    }

  private:
    std::mt19937 random_;
};

TEST(TimelineDatesTest, AreThoseOfThePlainRuleForAnySnapshotInAnyZone) {
    RandomSnapshots random(20261120);
    std::size_t dates = 0;
    for (const char* zone :
         {"UTC", "Europe/Berlin", "America/Santiago", "Africa/Cairo", "Asia/Beirut",
          "Australia/Lord_Howe", "Asia/Kathmandu", "America/Havana"}) {
        const GregorianCalendar calendar = GregorianCalendar::named(zone).value();
        for (int i = 0; i < 1000; ++i) {
            // Of each four, one over days on which clocks change.
            const int days = i % 4 == 0 ? 365 : 1;
            S snapshot = random.snapshot();
            snapshot.horizon += day * random.below(days);
            const WallDate from = random.date() + day * random.below(days);
            const Seconds span{60.0 * random.below(300) - 60};
            for (const std::size_t limit :
                 {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{60}, noLimit}) {
                const Dates expected = plainDates(snapshot, from, calendar, span, limit);
                ASSERT_EQ(snapshot.timelineDates(from, calendar, span, limit), expected)
                    << zone << ", snapshot " << i;
                dates += expected.size();
            }
        }
    }
    EXPECT_GT(dates, 100'000U);
}

TEST(TimelineDatesTest, AreThoseOfThePlainRuleForALongCountdownAndManyPhases) {
    S snapshot = runningSnapshot({blockUntil(nineOClock, nineOClock + day * 365 * 3)});
    snapshot.horizon = nineOClock + day * 365 * 3;
    for (const std::size_t limit : {std::size_t{60}, std::size_t{5000}}) {
        EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, day * 200, limit),
                  plainDates(snapshot, nineOClock, utc, day * 200, limit));
    }
    const S many = longSnapshot(100'000);
    for (const Seconds later : {Seconds{0}, hour * 50'000.5, hour * 99'999}) {
        const WallDate from = nineOClock + later;
        EXPECT_EQ(many.timelineDates(from, utc, hour, 60), plainDates(many, from, utc, hour, 60));
    }
}

TEST(TimelineDatesTest, AllocateNoMoreHoweverFarTheHorizonIs) {
    // 4001-01-01.
    constexpr WallDate farAway = wallDate(64092211200);
    S snapshot = runningSnapshot({blockUntil(nineOClock, farAway)});
    for (const Seconds span : {hour, Seconds{0}}) {
        std::set<std::size_t> costs;
        for (const WallDate horizon : {nineOClock + day * 100, farAway}) {
            snapshot.horizon = horizon;
            const std::size_t before = testing::mallocsMade();
            EXPECT_EQ(snapshot.timelineDates(nineOClock, utc, span, 60).size(), 60U);
            costs.insert(testing::mallocsMade() - before);
        }
        EXPECT_EQ(costs.size(), 1U);
    }
}

// The reload.

TEST(ReloadDateTest, IsTheLastDateElseTheHorizonElseInSixHours) {
    const struct {
        Dates dates;
        WallDate horizon;
        WallDate reload;
    } rows[] = {{{nineOClock, nineOClock + hour}, nineOClock + hour * 5, nineOClock + hour},
                {{nineOClock - hour, nineOClock}, nineOClock + hour * 5, nineOClock + hour * 5},
                {{}, nineOClock + hour * 5, nineOClock + hour * 5},
                {{}, nineOClock - hour, nineOClock + hour * 6},
                {{nineOClock}, nineOClock, nineOClock + hour * 6}};

    for (const auto& [dates, horizon, reload] : rows) {
        S snapshot;
        snapshot.horizon = horizon;
        EXPECT_EQ(snapshot.reloadDate(dates, nineOClock), reload);
    }
}

}  // namespace
}  // namespace halvo
