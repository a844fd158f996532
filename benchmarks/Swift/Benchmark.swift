// Decodes and encodes a snapshot of 100 KB, made of that in the file which the argument names. Each line of standard input is
// the name of a work and how often to do it; the reply is its start and end, in nanoseconds, and how much was done.
import Foundation
import HalvoRecords
import HalvoRecordsC

/// The record as Swift alone would declare it.
struct Plain: Codable {
    struct Look: Codable { let color, symbol: String }
    struct Unlock: Codable { let name: String, end: Date }
    struct Running: Codable {
        let name: String, names: [String], look: Look?, start: Date, end: Date?, level: String, listNames: [String]
        let unlock: Unlock?
    }
    struct Upcoming: Codable { let name: String, look: Look?, start: Date, end: Date, level: String }
    enum State: Codable {
        case block(Running), focus(Running), focusFilter(Running), next(Upcoming), nothingScheduled, noBlocks
    }
    struct Phase: Codable { let start: Date, state: State }
    struct Day: Codable { let start: Date, breaths: Int, minutesBreathed: Int, stayedOff: Int }
    struct Breath: Codable { let style: String, minutes: Int }
    struct ListItem: Codable { let id: UUID, name: String, look: Look }
    struct BlockItem: Codable { let id: UUID, name: String, look: Look, level: String, isEnabled: Bool, isRunning: Bool }
    let writtenAt: Date, isRunning: Bool, blockCount: Int, phases: [Phase], horizon: Date, days: [Day], breathe: Breath
    let focusMinutes: Int, lists: [ListItem], blocks: [BlockItem]
}

var snapshot = try! WidgetSnapshot(json: Data(contentsOf: URL(filePath: CommandLine.arguments[1])))
let phases = snapshot.phases
while try snapshot.json().count < 100_000 { snapshot.phases += phases }
let json = try snapshot.json()
let decoder = JSONDecoder()
let encoder = JSONEncoder()
decoder.dateDecodingStrategy = .iso8601
encoder.dateEncodingStrategy = .iso8601
encoder.outputFormatting = .sortedKeys
let plain = try decoder.decode(Plain.self, from: json)

/// The bytes are passed on as they are, and the reply is freed unread.
func decodeInC() -> Int {
    withUnsafePointer(to: UInt64(json.count)) { size in
        json.withUnsafeBytes { bytes in
            let reply = halvo_snapshot_decode(
                HalvoValues(words: size, wordCount: 1, bytes: bytes.baseAddress, byteCount: bytes.count))
            defer { halvo_free(reply) }
            return reply.isFailure ? 0 : json.count
        }
    }
}

let works: [String: () throws -> Int] = [
    "decode": { try WidgetSnapshot(json: json).phases.count },
    "decodeInC": decodeInC,
    "decodePlain": { try decoder.decode(Plain.self, from: json).phases.count },
    "encode": { try snapshot.json().count },
    "encodePlain": { try encoder.encode(plain).count },
]
while let line = readLine() {
    let words = line.split(separator: " ")
    var done = 0
    let start = DispatchTime.now().uptimeNanoseconds
    for _ in 0..<Int(words[1])! { done += try works[String(words[0])]!() }
    print(start, DispatchTime.now().uptimeNanoseconds, done)
    fflush(nil)
}
