import Foundation
import Testing

private let day = 86_400

private func date(_ instant: Int) -> Date { Date(timeIntervalSince1970: Double(instant)) }
private func instant(_ date: Date) -> Int { Int(date.timeIntervalSince1970) }

struct CalendarTest {
    /// A zone with those of its transitions that no other one has had, and until when its data are Foundation's.
    private typealias Zone = (zone: TimeZone, transitions: [Int], equalUntil: Int)

    /// 1970 to 2040.
    private let years = 0..<2_208_988_800

    @Test func agreesAroundEachTransition() async throws {
        let zones = try zones()
        try #require(zones.count { $0.equalUntil > years.upperBound } >= 300)
        let seen: Set<Pattern> = try await withThrowingTaskGroup { group in
            for zone in zones { group.addTask { try differences(zone.zone, zone.transitions) } }
            return try await group.reduce(into: Set()) { $0.formUnion($1) }
        }
        #expect(seen == [.eveningComesBack])
    }

    /// Foundation on Linux has data of its own about time zones, which may be older: transitions count while the
    /// offsets are equal, a year beyond them. One that more zones have, with all within ten days, is judged once.
    private func zones() throws -> [Zone] {
        let ours = try Ours()
        var known: Set<[Int]> = []
        return try TimeZone.knownTimeZoneIdentifiers.compactMap { name -> Zone? in
            let numbers = try ours.answer("zone", Data(name.utf8)).split(separator: " ").map { try #require(Int($0)) }
            guard let zone = TimeZone(identifier: name), !numbers.isEmpty else { return nil }
            let places = stride(from: 0, to: numbers.count, by: 2)
            let changes = places.map { (begin: numbers[$0], offset: numbers[$0 + 1]) }
            let spans = zip(changes, changes.dropFirst())
            let looked = years.lowerBound - 366 * day..<years.upperBound + 366 * day
            let equalUntil = spans.lazy.compactMap { change, next -> Int? in
                let span = (change.begin..<next.begin).clamped(to: looked)
                let instants = [Int](stride(from: span.lowerBound, to: span.upperBound, by: 7 * day))
                return (instants + (span.isEmpty ? [] : [span.upperBound - 1])).first {
                    zone.secondsFromGMT(for: date($0)) != change.offset
                }
            }.first ?? looked.upperBound
            let transitions = spans.compactMap { before, change -> Int? in
                guard years.contains(change.begin), change.begin < equalUntil - 366 * day else { return nil }
                let near = changes.filter { (change.begin - 10 * day..<change.begin + 10 * day).contains($0.begin) }
                let isNew = known.insert([before.offset] + near.flatMap { [$0.begin, $0.offset] }).inserted
                return isNew ? change.begin : nil
            }
            return (zone, transitions, equalUntil)
        }
    }

    private func differences(_ zone: TimeZone, _ transitions: [Int]) throws -> Set<Pattern> {
        var calendar = Calendar(identifier: .gregorian)
        calendar.timeZone = zone
        let instants = transitions.flatMap { transition in
            let today = calendar.dateInterval(of: .day, for: date(transition))!
            let around = [1800 - day, -1, 0, 1, day - 1800].map { transition + $0 }
            return around + [instant(today.start), instant(today.end)]
        }
        let question = ([zone.identifier] + instants.map(String.init)).joined(separator: " ")
        let answers = try Ours().answer("days", Data(question.utf8)).split(separator: "\n")
        try #require(answers.count == instants.count)
        var seen: Set<Pattern> = []
        for (instant, answer) in zip(instants, answers) {
            let ours = answer.split(separator: " ").map { Int($0) }, theirs = foundation(instant, calendar)
            if ours != theirs {
                // Nothing but the second number may differ.
                let isLater = ours[1]! > instant && instant >= theirs[1]!
                let others = [ours[0]] + ours[2...] == [theirs[0]] + theirs[2...]
                try #require(isLater && others, "\(zone.identifier) \(instant): \(answer), Foundation's \(theirs)")
                seen.insert(.eveningComesBack)
            }
        }
        return seen
    }

    /// What JudgeAnswers answers about an instant.
    private func foundation(_ now: Int, _ calendar: Calendar) -> [Int?] {
        let today = calendar.startOfDay(for: date(now))
        let moved = (Array(-8...8) + [-364, 364]).map { calendar.date(byAdding: .day, value: $0, to: date(now))! }
        let records = (1...9).map { date(now + ($0 - 8) * day) }
        let starts = records.map(calendar.startOfDay)
        let week = (-6...0).flatMap { back -> [Int] in
            let date = calendar.date(byAdding: .day, value: back, to: today)!
            let record = starts.lastIndex(of: calendar.startOfDay(for: date))
            return [instant(record.map { records[$0] } ?? date), record.map { $0 + 1 } ?? 0]
        }
        return ([today, calendar.dateInterval(of: .day, for: date(now))!.end] + moved).map(instant) + week
    }
}
