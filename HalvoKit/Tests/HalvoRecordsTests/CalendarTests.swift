import Foundation
import HalvoRecords
import Testing

private let day = 86_400.0

/// The days of moments and timelines beside those of Foundation's calendar.
struct CalendarTests {
    /// 1970 to 2040, and a year more.
    private let years = Date(timeIntervalSince1970: 0)..<Date(timeIntervalSince1970: 2_208_988_800)
    private var looked: Range<Date> { years.lowerBound - 366 * day..<years.upperBound + 366 * day }

    @Test func agreesAroundEachTransition() async throws {
        let zones = zones()
        try #require(zones.count { $0.equalUntil == looked.upperBound } >= 300)
        let seen: Set<Pattern> = try await withThrowingTaskGroup { group in
            for zone in zones { group.addTask { try differences(zone.calendar, zone.transitions) } }
            return try await group.reduce(into: Set()) { $0.formUnion($1) }
        }
        #expect(seen == [.eveningComesBack])
    }

    /// Foundation's zones, each with those of its transitions that no other one has had.
    ///
    /// Foundation on Linux has data of its own about time zones, which may be older than the system's, as the C
    /// library reads them: transitions count while the offsets are equal, a year beyond them. One that more zones
    /// have, with all within ten days, is judged once.
    private func zones() -> [(calendar: Calendar, transitions: [Date], equalUntil: Date)] {
        defer { unsetenv("TZ") }
        var known: Set<[Double]> = []
        return TimeZone.knownTimeZoneIdentifiers.compactMap { name in
            guard let zone = TimeZone(identifier: name),
                FileManager.default.fileExists(atPath: "/usr/share/zoneinfo/\(name)")
            else { return nil }
            setenv("TZ", name, 1)
            tzset()
            let after = { zone.nextDaylightSavingTimeTransition(after: $0) }
            let all = sequence(first: looked.lowerBound, next: after).dropFirst().prefix(while: looked.contains)
            let weeks = stride(from: looked.lowerBound, to: looked.upperBound, by: 7 * day)
            let unequal = (weeks + all + all.map { $0 - 1 }).filter {
                zone.secondsFromGMT(for: $0) != systemOffset(at: $0)
            }
            let equalUntil = unequal.min() ?? looked.upperBound
            let transitions = all.filter { transition in
                let near = all.filter { abs($0.timeIntervalSince(transition)) < 10 * day }
                let offsets = near.flatMap { [zone.secondsFromGMT(for: $0 - 1), zone.secondsFromGMT(for: $0)] }
                return years.contains(transition) && transition < equalUntil - 366 * day
                    && known.insert(near.map(\.timeIntervalSince1970) + offsets.map(Double.init)).inserted
            }
            var calendar = Calendar(identifier: .gregorian)
            calendar.timeZone = zone
            return (calendar, transitions, equalUntil)
        }
    }

    private func systemOffset(at date: Date) -> Int {
        var time = time_t(date.timeIntervalSince1970), local = tm()
        localtime_r(&time, &local)
        return local.tm_gmtoff
    }

    private func differences(_ calendar: Calendar, _ transitions: [Date]) throws -> Set<Pattern> {
        typealias Day = WidgetSnapshot.Day
        var seen: Set<Pattern> = []
        for transition in transitions {
            let today = calendar.dateInterval(of: .day, for: transition)!
            let dates = [1800 - day, -1, 0, 1, day - 1800].map { transition + $0 } + [today.start, today.end]
            let records = (-8...2).flatMap { count in dates.map { $0 + Double(count) * day } }.enumerated().map {
                Day(start: $1, breaths: $0 + 1, minutesBreathed: 0, stayedOff: 0)
            }
            let lastRecords = Dictionary(records.map { (calendar.startOfDay(for: $0.start), $0) }) { $1 }
            var snapshot = empty
            (snapshot.isRunning, snapshot.horizon) = (true, transition + 10 * day)
            let bare = try snapshot.moments(at: dates, calendar: calendar)
            snapshot.days = records
            let full = try snapshot.moments(at: dates, calendar: calendar)
            for (date, (bare, full)) in zip(dates, zip(bare, full)) {
                let here: Comment = "\(calendar.timeZone.identifier) \(date.timeIntervalSince1970)"
                let start = calendar.startOfDay(for: date)
                let week = (-6...0).map { calendar.date(byAdding: .day, value: $0, to: start)! }
                try #require(bare.week.map(\.start) == week && bare.today.start == start, here)
                try #require(full.week == week.map { lastRecords[calendar.startOfDay(for: $0)] }, here)
                let next = try snapshot.timelineDates(from: date, calendar: calendar, countdownSpan: 0, limit: 2)[1]
                let end = calendar.dateInterval(of: .day, for: date)!.end
                if next != end {
                    try #require(next > date && date >= end, here)
                    seen.insert(.eveningComesBack)
                }
            }
        }
        return seen
    }
}
