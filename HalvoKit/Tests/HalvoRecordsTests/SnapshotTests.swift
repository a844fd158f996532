import Foundation
import HalvoRecords
import Testing

let nine = Date(timeIntervalSince1970: 1_795_165_200)  // 2026-11-20T09:00:00Z

/// Without phases, days, lists and blocks.
let empty = WidgetSnapshot(
    writtenAt: nine, isRunning: false, blockCount: 0, phases: [], horizon: nine, days: [],
    breathe: .init(style: "", minutes: 0), focusMinutes: 0, lists: [], blocks: [])

/// That each function is passed its arguments and gives the result. The rules are those of C++, with its tests.
struct SnapshotTests {
    private let sample: WidgetSnapshot
    private var calendar = Calendar(identifier: .gregorian)

    init() throws {
        sample = try WidgetSnapshot(json: golden("widgets"))
        calendar.timeZone = TimeZone(identifier: "UTC")!
    }

    @Test(arguments: [(0, 0), (700, 1), (3600, 2), (7200, 3), (43200, 4), (1e6, 5)])
    func hasTheStateOfADate(seconds: Double, phase: Int) throws {
        let date = nine + seconds, state = sample.state(at: nine + seconds)
        #expect(state == sample.phases[phase].state)
        #expect(state.countdown?.end == [0: nine + 630, 1: nine + 3600][phase])
        let moment = try sample.moment(at: date, calendar: calendar)
        #expect(moment.focus == (phase == 1 ? state.countdown : nil))
        #expect(moment.week.map(\.isEmpty) == moment.week.map { $0.breaths == 0 })
        let made = WidgetMoment(
            date: date, state: state, isRunning: true, blockCount: 2, today: moment.week[6], week: moment.week,
            breathe: sample.breathe, focusMinutes: 25)
        #expect(moment == made)
    }

    @Test(arguments: [
        (0, 60, [0, 30, 90, 150, 630, 3600, 7200, 43200, 50000, 54000]), (0, 3, [0, 30, 90]), (0, -1, []),
        (60000, 60, [60000]),
    ] as [(Double, Int, [Double])])
    func hasTheDatesOfATimeline(from: Double, limit: Int, seconds: [Double]) throws {
        let from = nine + from, dates = seconds.map { nine + $0 }
        let found = try sample.timelineDates(from: from, calendar: calendar, countdownSpan: 180, limit: limit)
        #expect(found == dates)
        #expect(try sample.moments(at: found, calendar: calendar).map(\.date) == found)
        #expect(sample.reloadDate(after: dates, now: nine) == dates.last ?? nine + 86400)
    }

    @Test func refusesAZoneWithoutAFileAndADateWithoutJSON() throws {
        var calendar = calendar, snapshot = sample
        calendar.timeZone = TimeZone(secondsFromGMT: 7200)!
        let problem = #"no time zone is named "\#(calendar.timeZone.identifier)""#
        let refuses = { (text: String, work: () throws -> Void) in
            let error = #expect(throws: RecordError.self, performing: work)
            #expect(error?.description == text)
        }
        refuses(problem) { _ = try sample.moment(at: nine, calendar: calendar) }
        refuses(problem) { _ = try sample.timelineDates(from: nine, calendar: calendar, countdownSpan: 0, limit: 1) }
        snapshot.days[1].start = Date(timeIntervalSince1970: 1e15)
        refuses("days[1].start: is not a date of the years 0 to 9999") { _ = try snapshot.json() }
    }

    @Test func namesTheWidgets() {
        typealias Kind = WidgetSnapshot.Kind
        let kinds = [Kind.status, Kind.breathe, Kind.breatheControl, Kind.focusControl]
        let names = ["widget.status", "widget.breathe", "control.breathe", "control.focus"]
        #expect(kinds == names.map { "app.halvo.\($0)" })
    }
}
