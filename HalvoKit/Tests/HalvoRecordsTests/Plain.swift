import Foundation

/// The records as Swift alone would declare them: plain structs, whose conformances the compiler makes.
enum Plain {
    struct KeepAliveState: Codable {
        var pid: Int32, appPath: String, clean: Bool, commitmentUntil: Date?, ultraHard: Bool
        var appReleased, bypassNoted: Bool, updatedAt: Date
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

        var writtenAt: Date, isRunning: Bool, blockCount: Int, phases: [Phase], horizon: Date, days: [Day]
        var breathe: Breath, focusMinutes: Int, lists: [ListItem], blocks: [BlockItem]
    }

    static let decoder = {
        let decoder = JSONDecoder()
        decoder.dateDecodingStrategy = .iso8601
        return decoder
    }()

    static let encoder = {
        let encoder = JSONEncoder()
        encoder.dateEncodingStrategy = .iso8601
        encoder.outputFormatting = [.sortedKeys, .withoutEscapingSlashes]
        return encoder
    }()
}
