// What the app's processes do with the records that they share.

#include <algorithm>
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

}  // namespace

void serveRecords(const std::vector<std::string>&) {
    const GregorianCalendar calendar = GregorianCalendar::named("Europe/Berlin").value();
    // Of 100 KB, most of it runs with their texts and dates.
    const std::string json = JSON::encode(testing::longSnapshot(310)).value();
    require(json.size() > 95'000 && json.size() < 105'000, "the size of the snapshot");
    const auto coding = [&] {
        return JSON::encode(JSON::decode<WidgetSnapshot>(json).value()).value().size();
    };

    constexpr Seconds hour{3600};
    constexpr std::size_t limit = 60;
    // What differs is the horizon, not the list.
    const WidgetSnapshot day = plannedUntil(nineOClock + aDay);
    const WidgetSnapshot year = plannedUntil(nineOClock + aDay * 365);
    const WidgetSnapshot millennia = plannedUntil(wallDate(64060588800));  // 4000-01-01
    const auto timeline = [&](const WidgetSnapshot& snapshot) -> Work {
        return [&] { return snapshot.timelineDates(nineOClock, calendar, hour, limit).size(); };
    };
    const auto plain = [&](const WidgetSnapshot& snapshot) -> Work {
        return
            [&] { return testing::plainDates(snapshot, nineOClock, calendar, hour, limit).size(); };
    };

    // Ten years of days.
    WidgetSnapshot past;
    for (int i = 3650; i > 0; --i) {
        past.days.push_back({calendar.startOfDay(nineOClock - aDay * i), i, i, i});
    }
    const auto moment = [&](WallDate date) -> Work {
        return [&, date] { return past.moment(date, calendar).week.size(); };
    };
    // What any look for a day in the list must do, once.
    const auto walk = [&] {
        std::size_t found = 0;
        for (auto each = past.days.rbegin(); each != past.days.rend(); ++each) {
            found +=
                each->start >= nineOClock - aDay * 2 && each->start < nineOClock - aDay ? 1 : 0;
        }
        return found;
    };
    serve({{"coding", coding},
           {"library", [&] { return nlohmann::json::parse(json).dump().size(); }},
           {"timelineDay", timeline(day)},
           {"timelineYear", timeline(year)},
           {"timelineMillennia", timeline(millennia)},
           {"plainDay", plain(day)},
           {"plainYear", plain(year)},
           {"plainMillennia", plain(millennia)},
           // The list ends before the week of that date, so all of it must be looked through.
           {"moment", moment(nineOClock + aDay * 30)},
           {"momentYesterday", moment(nineOClock - aDay)},
           {"walk", walk}});
}

}  // namespace halvo::benchmark
