import Foundation
import HalvoRecords
import Testing

let nine = Date(timeIntervalSince1970: 1_795_165_200)  // 2026-11-20T09:00:00Z

func golden(_ name: String) throws -> Data {
    try Data(contentsOf: URL(filePath: "\(#filePath)/../../../../tests/Golden/\(name)").standardized)
}

/// In UTC.
let calendar = {
    var calendar = Calendar(identifier: .gregorian)
    calendar.timeZone = TimeZone(identifier: "UTC")!
    return calendar
}()

/// What tests/Golden/widgets.json holds.
let sample = {
    typealias S = WidgetSnapshot
    let look = S.Look(color: "indigo", symbol: "brain")
    let run = { (end: TimeInterval) in
        S.Running(
            name: "Deep work", names: ["Mail", "News"], look: look, start: nine, end: nine + end, level: .firm,
            listNames: ["Distractions"], unlock: S.Unlock(name: "Five minutes", end: nine + 600))
    }
    let open = S.Running(
        name: "Deep work", names: [], look: nil, start: nine, end: nil, level: .gentle, listNames: ["Distractions"], unlock: nil)
    let evening = S.Upcoming(
        name: "Evening \"off\"\n\\ ☾", look: nil, start: nine + 36000, end: nine + 43200, level: .ultraHard)
    return WidgetSnapshot(
        writtenAt: nine - 5, isRunning: true, blockCount: 2,
        phases: [
            S.Phase(start: nine, state: .block(run(630))), S.Phase(start: nine + 630, state: .focus(run(3600))),
            S.Phase(start: nine + 3600, state: .focusFilter(open)), S.Phase(start: nine + 7200, state: .next(evening)),
            S.Phase(start: nine + 43200, state: .nothingScheduled), S.Phase(start: nine + 50000, state: .noBlocks),
        ],
        horizon: nine + 86400,
        days: [
            S.Day(start: nine - 32400 - 86400, breaths: 3, minutesBreathed: 15, stayedOff: 2),
            S.Day(start: nine - 32400, breaths: 1, minutesBreathed: 5, stayedOff: 0),
        ],
        breathe: S.Breath(style: "box", minutes: 5), focusMinutes: 25,
        lists: [
            S.ListItem(
                id: UUID(uuidString: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F")!, name: "Distractions",
                look: S.Look(color: "red", symbol: "bell"))
        ],
        blocks: [
            S.BlockItem(
                id: UUID(uuidString: "00000000-0000-4000-8000-0000000000FF")!, name: "Deep work", look: look, level: .firm,
                isEnabled: true, isRunning: false)
        ])
}()

@Suite struct WidgetSnapshotTests {
    @Test func isWhatTheFileHolds() throws {
        let json = try golden("widgets.json")
        #expect(try WidgetSnapshot(json: json) == sample)
        #expect(String(decoding: try sample.json(), as: UTF8.self) == String(decoding: json, as: UTF8.self))
    }

    @Test(arguments: [
        ("", "", "This is not JSON: parse error at line 1, column 1:"),
        ("[]", "", "Expected an object, found a list"),
        (#"{"writtenAt":"soon"}"#, "writtenAt", #"Expected a date such as "2026-11-20T09:30:00Z", found "soon""#),
        (#"{"writtenAt":"2026-11-20T09:30:00Z","isRunning":true}"#, "blockCount", "This is missing"),
    ])
    func refuses(json: String, path: String, problem: String) {
        let error = #expect(throws: RecordError.self) { try WidgetSnapshot(json: Data(json.utf8)) }
        #expect(error?.path == path && error?.problem.hasPrefix(problem) == true, "\(error!)")
    }

    @Test(arguments: [(8, 0), (9, 0), (9.5, 1), (10, 2), (11, 3), (21, 4), (1e6, 5)])
    func hasTheStateOfTheLastPhaseThatHasStarted(hour: Double, phase: Int) throws {
        let date = nine + (hour - 9) * 3600
        let state = sample.state(at: date)
        #expect(state == sample.phases[phase].state)
        #expect(state.countdown?.end == [0: nine + 630, 1: nine + 3600][phase])
        let moment = try sample.moment(at: date, calendar: calendar)
        #expect(moment.date == date && moment.state == state && moment.isRunning && moment.blockCount == 2)
        #expect(moment.breathe == sample.breathe && moment.focusMinutes == 25)
        #expect(moment.focus == (phase == 1 ? state.countdown : nil))
    }

    @Test(arguments: [
        ("UTC", [0, 0, 0, 0, 0, 3, 1]), ("Pacific/Kiritimati", [0, 0, 0, 0, 0, 3, 1]),
        ("America/Los_Angeles", [0, 0, 0, 0, 3, 1, 0]),
    ])
    func hasTheWeekOfTheZone(zone: String, breaths: [Int]) throws {
        var calendar = calendar
        calendar.timeZone = TimeZone(identifier: zone)!
        let moment = try sample.moment(at: nine, calendar: calendar)
        #expect(moment.week.map(\.breaths) == breaths)
        #expect(moment.week.map(\.isEmpty) == breaths.map { $0 == 0 })
        #expect(moment.today == moment.week.last)
    }

    @Test(arguments: [
        (0, 180, 60, [0, 30, 90, 150, 630, 3600, 7200, 43200, 50000, 54000]), (0, 180, 3, [0, 30, 90]), (0, 180, -1, []),
        (60000, 180, 60, [60000]),
    ] as [(Double, Double, Int, [Double])])
    func hasTheDatesOfTheTimeline(from: Double, span: Double, limit: Int, dates: [Double]) throws {
        let found = try sample.timelineDates(from: nine + from, calendar: calendar, countdownSpan: span, limit: limit)
        #expect(found == dates.map { nine + $0 })
        #expect(try sample.moments(at: found, calendar: calendar).map(\.date) == found)
    }

    @Test(arguments: [([0, 60], 0, 60), ([0], 0, 86400), ([], 0, 86400), ([], 90000, 90000 + 21600)] as [([Double], Double, Double)])
    func isReloaded(after dates: [Double], now: Double, at reload: Double) {
        #expect(sample.reloadDate(after: dates.map { nine + $0 }, now: nine + now) == nine + reload)
    }

    @Test func refusesAZoneWithoutAFile() throws {
        var calendar = calendar
        calendar.timeZone = TimeZone(secondsFromGMT: 7200)!
        let error = RecordError.self
        #expect(throws: error) { try sample.moment(at: nine, calendar: calendar) }
        let thrown = #expect(throws: error) {
            try sample.timelineDates(from: nine, calendar: calendar, countdownSpan: 0, limit: 1)
        }
        #expect(thrown?.description == #"no time zone is named "\#(calendar.timeZone.identifier)""#)
    }

    @Test func refusesADateThatJSONCannotHold() {
        var snapshot = sample
        snapshot.days[1].start = Date(timeIntervalSince1970: 1e15)
        let error = #expect(throws: RecordError.self) { try snapshot.json() }
        #expect(error?.description == "days[1].start: is not a date of the years 0 to 9999")
    }

    @Test func keepsNothingOfWhatItHasDecoded() throws {
        let json = try golden("widgets.json")
        let decode = {
            _ = try WidgetSnapshot(json: json)
            _ = try? WidgetSnapshot(json: json.dropLast())
        }
        /// The resident pages of this process, proc(5).
        let pages = { try Int(String(contentsOfFile: "/proc/self/statm", encoding: .utf8).split(separator: " ")[1])! }
        for _ in 0..<1000 { try decode() }
        let before = try pages()
        for _ in 0..<10_000 { try decode() }
        // Each reply that is kept, also one of a failure, is more than 100 bytes.
        let more = try pages() - before
        #expect(more * 4096 < 10_000 * 100)
    }

    @Test func namesTheWidgets() {
        typealias Kind = WidgetSnapshot.Kind
        let kinds = [Kind.status, Kind.breathe, Kind.breatheControl, Kind.focusControl]
        let names = ["widget.status", "widget.breathe", "control.breathe", "control.focus"]
        #expect(kinds == names.map { "app.halvo.\($0)" })
    }
}
