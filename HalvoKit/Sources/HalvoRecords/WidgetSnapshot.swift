public import Foundation
internal import HalvoRecordsC

/// The record that the widgets and controls draw from: the schedule as phases, the activity of recent days, and the
/// person's lists and blocks. The app writes it after each change. A value.
///
/// Of a calendar only the time zone counts, whose `identifier` names a zone file of the system, such as `Europe/Berlin`;
/// functions throw for one that does not, such as the fixed offset `GMT+0200`. Fractions of a second are exact to a quarter
/// of a microsecond, and not stored in JSON.
public struct WidgetSnapshot: SharedRecord, Hashable, Flat {
    /// The identifiers of the widgets and controls.
    public enum Kind {
        public static let status = all[0], breathe = all[1], breatheControl = all[2], focusControl = all[3]

        private static let all: [String] = certain(halvo_snapshot_kinds)
    }

    /// How hard it is to end a block early.
    public enum Level: Int, Sendable, CaseIterable, Flat { case gentle, firm, ultraHard }

    /// How a list or block is drawn.
    public struct Look: Sendable, Hashable, Flat {
        public var color, symbol: String

        public init(color: String, symbol: String) { (self.color, self.symbol) = (color, symbol) }
        init(from flat: inout FlatReader) { (color, symbol) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(color, symbol) }
    }

    /// A pause of what runs.
    public struct Unlock: Sendable, Hashable, Flat {
        public var name: String, end: Date

        public init(name: String, end: Date) { (self.name, self.end) = (name, end) }
        init(from flat: inout FlatReader) { (name, end) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(name, end) }
    }

    /// Something that runs; without an `end` it is open-ended.
    public struct Running: Sendable, Hashable, Flat {
        public var name: String, names: [String], look: Look?, start: Date, end: Date?
        public var level: Level, listNames: [String], unlock: Unlock?

        public init(
            name: String, names: [String], look: Look?, start: Date, end: Date?, level: Level, listNames: [String],
            unlock: Unlock?
        ) {
            (self.name, self.names, self.look, self.start, self.end) = (name, names, look, start, end)
            (self.level, self.listNames, self.unlock) = (level, listNames, unlock)
        }

        init(from flat: inout FlatReader) { (name, names, look, start, end, level, listNames, unlock) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(name, names, look, start, end, level, listNames, unlock) }
    }

    /// Something that runs later.
    public struct Upcoming: Sendable, Hashable, Flat {
        public var name: String, look: Look?, start: Date, end: Date, level: Level

        public init(name: String, look: Look?, start: Date, end: Date, level: Level) {
            (self.name, self.look, self.start, self.end, self.level) = (name, look, start, end, level)
        }

        init(from flat: inout FlatReader) { (name, look, start, end, level) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(name, look, start, end, level) }
    }

    /// What the schedule has at one time.
    public enum State: Sendable, Hashable, Flat {
        case block(Running), focus(Running), focusFilter(Running), next(Upcoming), nothingScheduled, noBlocks

        /// The run of a block or focus, which is counted down; `nil` for any other state. It may be open-ended.
        public var countdown: Running? { certain(halvo_snapshot_countdown, self) }

        init(from flat: inout FlatReader) {
            switch flat.word() {
            case 0: self = .block(flat.next())
            case 1: self = .focus(flat.next())
            case 2: self = .focusFilter(flat.next())
            case 3: self = .next(flat.next())
            case 4: self = .nothingScheduled
            default: self = .noBlocks
            }
        }

        func put(into flat: inout FlatWriter) {
            switch self {
            case .block(let running): flat.put(0, running)
            case .focus(let running): flat.put(1, running)
            case .focusFilter(let running): flat.put(2, running)
            case .next(let upcoming): flat.put(3, upcoming)
            case .nothingScheduled: flat.put(4)
            case .noBlocks: flat.put(5)
            }
        }
    }

    /// The state from `start` until the next phase.
    public struct Phase: Sendable, Hashable, Flat {
        public var start: Date, state: State

        public init(start: Date, state: State) { (self.start, self.state) = (start, state) }
        init(from flat: inout FlatReader) { (start, state) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(start, state) }
    }

    /// The activity of the day that begins at `start`.
    public struct Day: Sendable, Hashable, Flat {
        public var start: Date
        public var breaths, minutesBreathed, stayedOff: Int

        public init(start: Date, breaths: Int, minutesBreathed: Int, stayedOff: Int) {
            (self.start, self.breaths) = (start, breaths)
            (self.minutesBreathed, self.stayedOff) = (minutesBreathed, stayedOff)
        }

        /// Whether all counts are zero.
        public var isEmpty: Bool { certain(halvo_snapshot_day_is_empty, self) }

        init(from flat: inout FlatReader) { (start, breaths, minutesBreathed, stayedOff) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(start, breaths, minutesBreathed, stayedOff) }
    }

    /// The settings of the breathing exercise.
    public struct Breath: Sendable, Hashable, Flat {
        public var style: String, minutes: Int

        public init(style: String, minutes: Int) { (self.style, self.minutes) = (style, minutes) }
        init(from flat: inout FlatReader) { (style, minutes) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(style, minutes) }
    }

    /// One of the person's lists.
    public struct ListItem: Sendable, Hashable, Identifiable, Flat {
        public var id: UUID, name: String, look: Look

        public init(id: UUID, name: String, look: Look) { (self.id, self.name, self.look) = (id, name, look) }
        init(from flat: inout FlatReader) { (id, name, look) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(id, name, look) }
    }

    /// One of the person's blocks.
    public struct BlockItem: Sendable, Hashable, Identifiable, Flat {
        public var id: UUID, name: String, look: Look, level: Level, isEnabled: Bool, isRunning: Bool

        public init(id: UUID, name: String, look: Look, level: Level, isEnabled: Bool, isRunning: Bool) {
            (self.id, self.name, self.look, self.level) = (id, name, look, level)
            (self.isEnabled, self.isRunning) = (isEnabled, isRunning)
        }

        init(from flat: inout FlatReader) { (id, name, look, level, isEnabled, isRunning) = flat.all() }
        func put(into flat: inout FlatWriter) { flat.put(id, name, look, level, isEnabled, isRunning) }
    }

    /// When the app wrote it, and whether anything runs, as the app reports it.
    public var writtenAt: Date, isRunning: Bool, blockCount: Int
    /// Ascending by start; planned up to the `horizon`.
    public var phases: [Phase], horizon: Date
    public var days: [Day], breathe: Breath, focusMinutes: Int, lists: [ListItem], blocks: [BlockItem]

    public init(
        writtenAt: Date, isRunning: Bool, blockCount: Int, phases: [Phase], horizon: Date, days: [Day], breathe: Breath,
        focusMinutes: Int, lists: [ListItem], blocks: [BlockItem]
    ) {
        (self.writtenAt, self.isRunning, self.blockCount) = (writtenAt, isRunning, blockCount)
        (self.phases, self.horizon, self.days, self.breathe) = (phases, horizon, days, breathe)
        (self.focusMinutes, self.lists, self.blocks) = (focusMinutes, lists, blocks)
    }

    /// Decodes JSON, as all ``SharedRecord``s do.
    public init(json: Data) throws(RecordError) { self = try call(halvo_snapshot_decode, json) }

    public func json() throws(RecordError) -> Data { try call(halvo_snapshot_encode, self) }

    /// `widgets.json` in the app group's container, whose path is found once.
    public static let file = SharedFile<WidgetSnapshot>(path: certain(halvo_snapshot_file))

    /// The state at `date`: that of the last phase which has started, or of the first phase when none has, so that there is
    /// something to show; `.noBlocks` when there are no phases.
    public func state(at date: Date) -> State { certain(halvo_snapshot_state, self, date) }

    /// What a widget shows at `date`. Of several records of one day the last counts.
    public func moment(at date: Date, calendar: Calendar = .current) throws(RecordError) -> WidgetMoment {
        try moments(at: [date], calendar: calendar)[0]
    }

    /// What a widget shows at each of `dates`: sooner than one moment after the other.
    public func moments(at dates: [Date], calendar: Calendar = .current) throws(RecordError) -> [WidgetMoment] {
        try call(halvo_snapshot_moments, self, dates, calendar.timeZone.identifier)
    }

    /// The dates of the timeline's entries: `from` itself, the starts of phases and of days up to the horizon, and each
    /// minute of a countdown to the end of a block or focus run within `countdownSpan` of `from`. Ascending and distinct; the
    /// earliest `limit` of them, none when that is negative. Only `from`, whatever the limit, when nothing runs.
    public func timelineDates(
        from: Date, calendar: Calendar = .current, countdownSpan: TimeInterval, limit: Int
    ) throws(RecordError) -> [Date] {
        try call(halvo_snapshot_timeline_dates, self, from, calendar.timeZone.identifier, countdownSpan, max(limit, 0))
    }

    /// When to request a new timeline after one of `dates`: at its last date or else at the horizon, whichever is in the
    /// future; else in six hours, so that a stale snapshot is read again.
    public func reloadDate(after dates: [Date], now: Date) -> Date { certain(halvo_snapshot_reload_date, self, dates, now) }

    init(from flat: inout FlatReader) {
        (writtenAt, isRunning, blockCount, phases, horizon, days, breathe, focusMinutes, lists, blocks) = flat.all()
    }

    func put(into flat: inout FlatWriter) {
        flat.put(writtenAt, isRunning, blockCount, phases, horizon, days, breathe, focusMinutes, lists, blocks)
    }
}

/// An entry of a widget's timeline: what the snapshot has at `date`, and the activity of its day.
public struct WidgetMoment: Sendable, Hashable, Flat {
    public var date: Date, state: WidgetSnapshot.State, isRunning: Bool, blockCount: Int, today: WidgetSnapshot.Day
    /// The seven days up to `today`, the oldest first; a day without a record has counts of zero. A day that the zone skipped
    /// is not among them.
    public var week: [WidgetSnapshot.Day]
    public var breathe: WidgetSnapshot.Breath, focusMinutes: Int

    public init(
        date: Date, state: WidgetSnapshot.State, isRunning: Bool, blockCount: Int, today: WidgetSnapshot.Day,
        week: [WidgetSnapshot.Day], breathe: WidgetSnapshot.Breath, focusMinutes: Int
    ) {
        (self.date, self.state, self.isRunning, self.blockCount) = (date, state, isRunning, blockCount)
        (self.today, self.week, self.breathe, self.focusMinutes) = (today, week, breathe, focusMinutes)
    }

    /// The moment at `date` when there is no snapshot.
    public static func empty(at date: Date) -> WidgetMoment {
        WidgetMoment(
            date: date, state: .noBlocks, isRunning: false, blockCount: 0,
            today: .init(start: date, breaths: 0, minutesBreathed: 0, stayedOff: 0), week: [],
            breathe: .init(style: "", minutes: 0), focusMinutes: 0)
    }

    /// The focus run that counts down at `date`; `nil` when nothing runs, and when the state is not a focus, is open-ended or
    /// over.
    public var focus: WidgetSnapshot.Running? { certain(halvo_moment_focus, self) }

    init(from flat: inout FlatReader) {
        (date, state, isRunning, blockCount, today, week, breathe, focusMinutes) = flat.all()
    }

    func put(into flat: inout FlatWriter) {
        flat.put(date, state, isRunning, blockCount, today, week, breathe, focusMinutes)
    }
}
