import Foundation
import HalvoRecords

/// Values from a seed, the same ones in each run.
struct Random: RandomNumberGenerator {
    var state: UInt64 = 12

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
    mutating func level() -> WidgetSnapshot.Level { one(of: WidgetSnapshot.Level.allCases) }
    mutating func look() -> WidgetSnapshot.Look { .init(color: text(), symbol: text()) }
    mutating func text() -> String {
        let pieces = ["B9", "/", "\\", "\"", "e\u{301}", "☾", "😀", "\0", "\n", "\u{1f}", "\u{7f}", "\u{2028}"]
        return list { $0.one(of: pieces) }.joined()
    }
    /// From 1583 to 9999.
    mutating func date() -> Date {
        Date(timeIntervalSince1970: Double(Int.random(in: -12_212_553_600..<253_402_300_800, using: &self)))
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
            days: list {
                .init(start: $0.date(), breaths: $0.number(), minutesBreathed: $0.number(), stayedOff: $0.number())
            },
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
            commitmentUntil: maybe { $0.date() }, ultraHard: bool(), appReleased: bool(), bypassNoted: bool(),
            updatedAt: date())
    }
}
