// Decodes and encodes a snapshot of 100 KB, made of that in the file which the argument names. Each line of standard input is
// the name of a work and how often to do it; the reply is its start and end, in nanoseconds, and how much was done.
import Foundation
import HalvoRecords
import HalvoRecordsC

var snapshot = try! WidgetSnapshot(json: Data(contentsOf: URL(filePath: CommandLine.arguments[1])))
let phases = snapshot.phases
while try snapshot.json().count < 100_000 { snapshot.phases += phases }
let json = try snapshot.json()
let plain = try Plain.decoder.decode(Plain.WidgetSnapshot.self, from: json)

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
    "decodePlain": { try Plain.decoder.decode(Plain.WidgetSnapshot.self, from: json).phases.count },
    "encode": { try snapshot.json().count },
    "encodePlain": { try Plain.encoder.encode(plain).count },
]
while let line = readLine() {
    let words = line.split(separator: " ")
    var done = 0
    let start = DispatchTime.now().uptimeNanoseconds
    for _ in 0..<Int(words[1])! { done += try works[String(words[0])]!() }
    print(start, DispatchTime.now().uptimeNanoseconds, done)
    fflush(nil)
}
