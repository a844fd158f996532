import Foundation

// The records as plain structs, whose conformances the compiler makes.

struct KeepAliveState: Codable {
    var pid: Int32, appPath: String, clean: Bool, commitmentUntil: Date?, ultraHard: Bool
    var appReleased, bypassNoted: Bool?, updatedAt: Date
}

struct WidgetSnapshot: Codable {
    enum Level: String, Codable { case gentle, firm, ultraHard }
    struct Look: Codable { var color, symbol: String }
    struct Unlock: Codable { var name: String, end: Date }
    struct Running: Codable {
        var name: String, names: [String], look: Look?, start: Date, end: Date?, level: Level, listNames: [String]
        var unlock: Unlock?
    }
    struct Upcoming: Codable { var name: String, look: Look?, start: Date, end: Date, level: Level }
    enum State: Codable {
        case block(Running), focus(Running), focusFilter(Running), next(Upcoming), nothingScheduled, noBlocks
    }
    struct Phase: Codable { var start: Date, state: State }
    struct Day: Codable { var start: Date, breaths, minutesBreathed, stayedOff: Int }
    struct Breath: Codable { var style: String, minutes: Int }
    struct ListItem: Codable { var id: UUID, name: String, look: Look }
    struct BlockItem: Codable { var id: UUID, name: String, look: Look, level: Level, isEnabled, isRunning: Bool }

    var writtenAt: Date, isRunning: Bool, blockCount: Int, phases: [Phase], horizon: Date, days: [Day], breathe: Breath
    var focusMinutes: Int, lists: [ListItem], blocks: [BlockItem]
}

/// Values from a seed, the same ones in each run.
struct Random: RandomNumberGenerator {
    var state: UInt64

    mutating func next() -> UInt64 {
        state &+= 0x9e37_79b9_7f4a_7c15
        let mixed = (state ^ (state >> 30)) &* 0xbf58_476d_1ce4_e5b9
        return mixed ^ (mixed >> 27)
    }

    mutating func one<T>(of all: [T]) -> T { all.randomElement(using: &self)! }
    mutating func list<T>(_ make: (inout Random) -> T) -> [T] { (0..<(next() % 4)).map { _ in make(&self) } }
    mutating func maybe<T>(_ make: (inout Random) -> T) -> T? { bool() ? make(&self) : nil }
    mutating func bool() -> Bool { .random(using: &self) }
    mutating func number() -> Int { one(of: [0, 7, .max, .min, Int(bitPattern: UInt(next()))]) }
    mutating func id() -> UUID { UUID(uuid: unsafeBitCast((next(), next()), to: uuid_t.self)) }
    mutating func level() -> WidgetSnapshot.Level { one(of: [.gentle, .firm, .ultraHard]) }
    mutating func look() -> WidgetSnapshot.Look { .init(color: text(), symbol: text()) }
    mutating func text() -> String {
        let pieces = ["B9", "/", "\\", "\"", "e\u{301}", "☾", "😀", "\0", "\n", "\u{1f}", "\u{7f}", "\u{2028}"]
        return list { $0.one(of: pieces) }.joined()
    }
    /// From 1583 to 9999, with fractions of a second.
    mutating func date() -> Date {
        Date(timeIntervalSince1970: .random(in: -12_212_553_600..<253_402_300_800, using: &self))
    }
    mutating func phase() -> WidgetSnapshot.Phase {
        let running = WidgetSnapshot.Running(
            name: text(), names: list { $0.text() }, look: maybe { $0.look() }, start: date(), end: maybe { $0.date() },
            level: level(), listNames: list { $0.text() }, unlock: maybe { .init(name: $0.text(), end: $0.date()) })
        let next = WidgetSnapshot.Upcoming(
            name: text(), look: maybe { $0.look() }, start: date(), end: date(), level: level())
        return .init(start: date(), state: one(of: [
            .block(running), .focus(running), .focusFilter(running), .next(next), .nothingScheduled, .noBlocks,
        ]))
    }
    mutating func snapshot() -> WidgetSnapshot {
        .init(
            writtenAt: date(), isRunning: bool(), blockCount: number(), phases: list { $0.phase() }, horizon: date(),
            days: list { .init(start: $0.date(), breaths: $0.number(), minutesBreathed: $0.number(), stayedOff: 0) },
            breathe: .init(style: text(), minutes: number()), focusMinutes: number(),
            lists: list { .init(id: $0.id(), name: $0.text(), look: $0.look()) },
            blocks: list {
                .init(
                    id: $0.id(), name: $0.text(), look: $0.look(), level: $0.level(), isEnabled: $0.bool(),
                    isRunning: $0.bool())
            })
    }
    mutating func keepAlive() -> KeepAliveState {
        .init(
            pid: Int32(truncatingIfNeeded: next()), appPath: text(), clean: bool(),
            commitmentUntil: maybe { $0.date() }, ultraHard: bool(),
            appReleased: bool(), bypassNoted: bool(), updatedAt: date())
    }
}
