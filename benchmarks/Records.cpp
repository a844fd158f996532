#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/WidgetMoment.hpp"
#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"
#include "tests/Support/PlainTimeline.hpp"
#include "tests/Support/SampleSnapshot.hpp"

namespace halvo::benchmark {
namespace {

using testing::aDay;
using testing::longSnapshot;
using testing::nineOClock;
using testing::plainDates;
using testing::sampleRun;

// What the work gave, so that no compiler leaves it out.
std::size_t results = 0;

GregorianCalendar calendarOf(const std::string& zone) {
    const auto calendar = GregorianCalendar::named(zone);
    if (!calendar) {
        throw CannotMeasure(calendar.error());
    }
    return *calendar;
}

void measureCoding(Table& table, Effort effort) {
    // Of 100 KB, most of it runs with their texts and dates.
    const std::string json = JSON::encode(longSnapshot(310)).value();
    if (json.size() < 95'000 || json.size() > 105'000) {
        throw CannotMeasure("the snapshot has " + std::to_string(json.size()) + " bytes");
    }
    constexpr double limit = 1.5;
    const Comparison measured = takeTurns(
        effort.rounds(800),
        [&] {
            return microsecondsOf(5, [&] {
                results += JSON::encode(JSON::decode<WidgetSnapshot>(json).value()).value().size();
            });
        },
        [&] {
            return microsecondsOf(5, [&] { results += nlohmann::json::parse(json).dump().size(); });
        });
    table.add(Row::compared("decode and encode a snapshot of 100 KB", "us",
                            "the JSON library: parse, dump", measured, {limit, {}}));
}

// A block runs for eight hours, and one is planned for each day up to the horizon, or for 400 of
// them.
WidgetSnapshot plannedUntil(WallDate horizon) {
    WidgetSnapshot snapshot = testing::sampleSnapshot();
    snapshot.phases.clear();
    constexpr Seconds hours{8 * 3600};
    for (WallDate start = nineOClock; start < horizon && snapshot.phases.size() < 400;
         start += aDay) {
        snapshot.phases.push_back({start, WidgetSnapshot::Block{sampleRun(start + hours)}});
    }
    snapshot.horizon = horizon;
    return snapshot;
}

void measureTimeline(Table& table, Effort effort) {
    const GregorianCalendar calendar = calendarOf("Europe/Berlin");
    constexpr Seconds hour{3600};
    constexpr std::size_t limit = 60;
    constexpr WallDate farAway = wallDate(64060588800);  // 4000-01-01
    WidgetSnapshot day = plannedUntil(nineOClock + aDay);
    WidgetSnapshot year = plannedUntil(nineOClock + aDay * 365);
    WidgetSnapshot millennia = plannedUntil(farAway);
    // What differs is the horizon, not the list.
    day.phases = millennia.phases;
    year.phases = millennia.phases;
    const auto ours = [&](const WidgetSnapshot& snapshot) {
        return [&] {
            return microsecondsOf(50, [&] {
                results += snapshot.timelineDates(nineOClock, calendar, hour, limit).size();
            });
        };
    };
    const auto plain = [&](const WidgetSnapshot& snapshot, std::size_t times) {
        return [&, times] {
            return microsecondsOf(times, [&] {
                results += plainDates(snapshot, nineOClock, calendar, hour, limit).size();
            });
        };
    };
    constexpr double alike = 1.2;
    const std::size_t rounds = effort.rounds(800);
    const std::string oneDay = "the same, horizon in 1 day";
    const std::string rule = "the plain rule";
    table.add(Row::compared("timeline of 60 dates, horizon in 1 year", "us", oneDay,
                            takeTurns(rounds, ours(year), ours(day)), {alike, {}}));
    table.add(Row::compared("timeline of 60 dates, horizon in 4000", "us", oneDay,
                            takeTurns(rounds, ours(millennia), ours(day)), {alike, {}}));
    table.add(Row::compared("timeline of 60 dates, horizon in 1 day", "us",
                            "the same, horizon in 4000",
                            takeTurns(rounds, ours(day), ours(millennia)), {alike, {}}));
    table.add(Row::compared("timeline of 60 dates, horizon in 1 day", "us", rule,
                            takeTurns(rounds, ours(day), plain(day, 20)), {}));
    table.add(Row::compared("timeline of 60 dates, horizon in 1 year", "us", rule,
                            takeTurns(rounds, ours(year), plain(year, 5)), {}));
    table.add(Row::compared("timeline of 60 dates, horizon in 4000", "us", rule,
                            takeTurns(effort.rounds(40), ours(millennia), plain(millennia, 1)),
                            {}));
}

// What any look for a day in the list must do, once.
std::size_t walk(const std::vector<WidgetSnapshot::Day>& days, WallDate begin, WallDate end) {
    std::size_t found = 0;
    for (auto day = days.rbegin(); day != days.rend(); ++day) {
        found += day->start >= begin && day->start < end ? 1 : 0;
    }
    return found;
}

void measureMoment(Table& table, Effort effort) {
    const GregorianCalendar calendar = calendarOf("Europe/Berlin");
    constexpr int tenYears = 3650;
    WidgetSnapshot snapshot;
    for (int i = tenYears; i > 0; --i) {
        snapshot.days.push_back({calendar.startOfDay(nineOClock - aDay * i), i, i, i});
    }
    const auto moment = [&](WallDate date) {
        return [&snapshot, &calendar, date] {
            return microsecondsOf(50,
                                  [&] { results += snapshot.moment(date, calendar).week.size(); });
        };
    };
    const auto onceThrough = [&] {
        return microsecondsOf(
            50, [&] { results += walk(snapshot.days, nineOClock, nineOClock + aDay); });
    };
    constexpr double limit = 1.2;
    const std::string peer = "one walk of the list";
    // The list ends before the week of that date, so all of it must be looked through.
    table.add(Row::compared(
        "moment over ten years of days, none of its week", "us", peer,
        takeTurns(effort.rounds(1600), moment(nineOClock + aDay * 30), onceThrough), {limit, {}}));
    table.add(Row::compared("moment over ten years of days, yesterday's", "us", peer,
                            takeTurns(effort.rounds(1600), moment(nineOClock - aDay), onceThrough),
                            {limit, {}}));
}

}  // namespace

void measureRecords(Table& table, Effort effort) {
    progress("records and timelines");
    measureCoding(table, effort);
    measureTimeline(table, effort);
    measureMoment(table, effort);
    if (results == 0) {
        throw CannotMeasure("nothing was done");
    }
}

}  // namespace halvo::benchmark
