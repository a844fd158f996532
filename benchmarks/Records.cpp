#include <nlohmann/json.hpp>

#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/SampleSnapshot.hpp"

namespace halvo::benchmark {
namespace {

using testing::aDay;
using testing::nineOClock;

// What the work gave, so that no compiler leaves it out.
std::size_t results = 0;

// How long `work` takes, the best part of which is the size that it gives.
template <class Work>
Measure timed(std::size_t times, const Work& work) {
    return [times, work] { return microsecondsOf(times, [&] { results += work(); }); };
}

void measureCoding(Run& run) {
    // Of 100 KB, most of it runs with their texts and dates.
    const std::string json = JSON::encode(testing::longSnapshot(310)).value();
    if (json.size() < 95'000 || json.size() > 105'000) {
        throw CannotMeasure("the snapshot has " + std::to_string(json.size()) + " bytes");
    }
    constexpr double limit = 1.5;
    const auto ours = [&] {
        return JSON::encode(JSON::decode<WidgetSnapshot>(json).value()).value().size();
    };
    const auto library = [&] { return nlohmann::json::parse(json).dump().size(); };
    run.compare("decode and encode a snapshot of 100 KB", "the JSON library: parse, dump", 800,
                timed(5, ours), timed(5, library), limit);
}

// A block runs for eight hours, and one is planned for each of 400 days.
WidgetSnapshot plannedUntil(WallDate horizon) {
    WidgetSnapshot snapshot = testing::sampleSnapshot();
    snapshot.phases.clear();
    constexpr Seconds hours{8 * 3600};
    for (int i = 0; i < 400; ++i) {
        const WallDate start = nineOClock + aDay * i;
        snapshot.phases.push_back(
            {start, WidgetSnapshot::Block{testing::sampleRun(start + hours)}});
    }
    snapshot.horizon = horizon;
    return snapshot;
}

void measureTimeline(Run& run, const GregorianCalendar& calendar) {
    constexpr Seconds hour{3600};
    constexpr std::size_t limit = 60;
    // What differs is the horizon, not the list.
    const WidgetSnapshot day = plannedUntil(nineOClock + aDay);
    const WidgetSnapshot year = plannedUntil(nineOClock + aDay * 365);
    const WidgetSnapshot millennia = plannedUntil(wallDate(64060588800));  // 4000-01-01
    const auto ours = [&](const WidgetSnapshot& snapshot) {
        return timed(
            50, [&] { return snapshot.timelineDates(nineOClock, calendar, hour, limit).size(); });
    };
    const auto plain = [&](const WidgetSnapshot& snapshot, std::size_t times) {
        return timed(times, [&] {
            return testing::plainDates(snapshot, nineOClock, calendar, hour, limit).size();
        });
    };
    constexpr double alike = 1.2;
    const auto add = [&](const std::string& which, const char* peer, const Measure& measured,
                         const Measure& theirs, std::size_t rounds, std::optional<double> bound) {
        run.compare("timeline of 60 dates, horizon in " + which, peer, rounds, measured, theirs,
                    bound);
    };
    const char* oneDay = "the same, horizon in 1 day";
    add("1 year", oneDay, ours(year), ours(day), 800, alike);
    add("4000", oneDay, ours(millennia), ours(day), 800, alike);
    add("1 day", "the same, horizon in 4000", ours(day), ours(millennia), 800, alike);
    const char* rule = "the plain rule";
    add("1 day", rule, ours(day), plain(day, 20), 800, {});
    add("1 year", rule, ours(year), plain(year, 5), 800, {});
    add("4000", rule, ours(millennia), plain(millennia, 1), 40, {});
}

void measureMoment(Run& run, const GregorianCalendar& calendar) {
    constexpr int tenYears = 3650;
    WidgetSnapshot snapshot;
    for (int i = tenYears; i > 0; --i) {
        snapshot.days.push_back({calendar.startOfDay(nineOClock - aDay * i), i, i, i});
    }
    const auto moment = [&](WallDate date) {
        return timed(50, [&, date] { return snapshot.moment(date, calendar).week.size(); });
    };
    // What any look for a day in the list must do, once.
    const auto onceThrough = timed(50, [&] {
        std::size_t found = 0;
        for (auto day = snapshot.days.rbegin(); day != snapshot.days.rend(); ++day) {
            found += day->start >= nineOClock && day->start < nineOClock + aDay ? 1 : 0;
        }
        return found;
    });
    constexpr double limit = 1.2;
    const auto add = [&](const char* which, WallDate date) {
        run.compare(std::string("moment over ten years of days, ") + which, "one walk of the list",
                    1600, moment(date), onceThrough, limit);
    };
    // The list ends before the week of that date, so all of it must be looked through.
    add("none of its week", nineOClock + aDay * 30);
    add("yesterday's", nineOClock - aDay);
}

}  // namespace

void measureRecords(Run& run) {
    progress("records and timelines");
    const auto calendar = GregorianCalendar::named("Europe/Berlin");
    if (!calendar) {
        throw CannotMeasure(calendar.error());
    }
    measureCoding(run);
    measureTimeline(run, *calendar);
    measureMoment(run, *calendar);
    if (results == 0) {
        throw CannotMeasure("nothing was done");
    }
}

}  // namespace halvo::benchmark
