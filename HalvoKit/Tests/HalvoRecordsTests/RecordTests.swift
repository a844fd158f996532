import Foundation
import HalvoRecords
import Testing

func golden(_ name: String) throws -> Data {
    try Data(contentsOf: URL(filePath: "\(#filePath)/../../../../tests/Golden/\(name).json").standardized)
}

/// What our record and the plain one make of a text: "+" and the record as text again, or "-KIND PATH" with
/// Foundation's kinds of errors.
private func answers(_ kind: String, _ text: Data) -> (ours: String, theirs: String) {
    kind == "keepalive"
        ? (ours(KeepAliveState.self, text), foundation(Plain.KeepAliveState.self, text))
        : (ours(WidgetSnapshot.self, text), foundation(Plain.WidgetSnapshot.self, text))
}

/// A text that is not JSON, or a value of the right type. Made once: that takes longer than decoding.
nonisolated(unsafe) private let corrupt =
    /This is not JSON|Expected (a whole .* found [-0-9]|(a date|a UUID|one of) .* found ("|a text))/

private func ours<Record: SharedRecord>(_: Record.Type, _ text: Data) -> String {
    do {
        return "+" + String(decoding: try Record(json: text).json(), as: UTF8.self)
    } catch {
        let isMissing = error.problem == "This is missing"
        return "-\(isMissing ? "missing" : error.problem.starts(with: corrupt) ? "corrupt" : "type") \(error.path)"
    }
}

private func foundation<Record: Codable>(_: Record.Type, _ text: Data) -> String {
    func path(_ keys: [any CodingKey]) -> String {
        keys.map { key in key.intValue.map { "[\($0)]" } ?? "." + key.stringValue }.joined().drop { $0 == "." } + ""
    }
    do {
        let record = try Plain.decoder.decode(Record.self, from: text)
        return "+" + String(decoding: try Plain.encoder.encode(record), as: UTF8.self)
    } catch DecodingError.keyNotFound(let key, let context) {
        return "-missing " + path(context.codingPath + [key])
    } catch DecodingError.typeMismatch(_, let context), DecodingError.valueNotFound(_, let context) {
        return "-type " + path(context.codingPath)
    } catch DecodingError.dataCorrupted(let context) {
        return "-corrupt " + path(context.codingPath)
    } catch {
        return "-\(error)"
    }
}

/// Each record beside the plain struct that Foundation decodes and encodes.
struct RecordTests {
    @Test func eachReadsWhatTheOtherWrote() throws {
        var random = Random()
        for _ in 0..<1000 {
            try agree(random.snapshot(), Plain.WidgetSnapshot.self)
            var state = random.keepAlive()
            var plain = try agree(state, Plain.KeepAliveState.self)
            // Fractions of a second are cut off.
            state.updatedAt += Double.random(in: 0..<1, using: &random)
            plain.updatedAt = state.updatedAt
            try #require(try state.json() == Plain.encoder.encode(plain))
        }
        try agree(WidgetSnapshot(json: golden("widgets")), Plain.WidgetSnapshot.self)
        try agree(KeepAliveState(json: golden("keepalive")), Plain.KeepAliveState.self)
    }

    @discardableResult
    private func agree<Ours: SharedRecord & Equatable, Theirs: Codable>(
        _ record: Ours, _: Theirs.Type
    ) throws -> Theirs {
        let text = try record.json()
        let plain = try Plain.decoder.decode(Theirs.self, from: text)
        try #require(Plain.encoder.encode(plain) == text)
        let again = try Ours(json: Plain.encoder.encode(plain))
        try #require(again == record && dumped(again) == dumped(plain))
        return plain
    }

    /// Members, cases and values by their names, in their order.
    private func dumped(_ record: Any) -> String {
        var text = ""
        dump(record, to: &text)
        return text.replacing(/HalvoRecords(Tests\.Plain)?\./, with: "")
    }

    /// A golden text that ends early, lacks a byte or has another one in its place.
    @Test(arguments: [("keepalive", Array(0x1f...0x80)), ("widgets", Array(" \"0}\u{80}".utf8))])
    func damagedTexts(_ kind: String, _ bytes: [UInt8]) throws {
        let golden = try golden(kind)
        var seen: Set<Pattern> = []
        for position in golden.indices {
            let before = golden[..<position], after = golden[(position + 1)...]
            let changed = bytes.map { before + Data([$0]) + after }
            for text in [before, before + after] + changed {
                let (ours, theirs) = answers(kind, text)
                if ours != theirs {
                    seen.insert(try #require(pattern(ours, theirs), "\(position): \(ours), Foundation's \(theirs)"))
                }
            }
        }
        #expect(seen == [.form, .path, kind == "widgets" ? .firstMember : .olderFile])
    }

    private func pattern(_ ours: String, _ theirs: String) -> Pattern? {
        let corrupt = "-corrupt "
        if ours.hasPrefix(corrupt), theirs.hasPrefix(corrupt), ours.hasPrefix(theirs) { return .path }
        if ours.hasPrefix("-type "), theirs == "-missing " + ours.dropFirst(6) + "s" { return .firstMember }
        if theirs.contains(/^-missing (appReleased|bypassNoted)$/) {
            return ours.hasPrefix("+") && ours.contains("\"\(theirs.dropFirst(9))\":false") ? .olderFile : nil
        }
        let isFormed = ours.starts(with: /-corrupt .*(start|end|writtenAt|horizon|commitmentUntil|updatedAt|\.id)$/)
        return isFormed && theirs.hasPrefix("+") ? .form : nil
    }

    @Test(arguments: members) func membersAgreeExceptAsListed(_ member: Member) throws {
        for value in member.agreed.components(separatedBy: " | ") {
            let (ours, theirs) = values(value, member)
            #expect(ours == theirs, "\(value.debugDescription)")
        }
        for shown in member.different.values.flatMap({ $0.components(separatedBy: " | ") }) {
            let parts = shown.components(separatedBy: " -> ")
            let (ours, theirs) = values(parts[0], member)
            #expect([ours, theirs] == parts[1...] && ours != theirs, "\(shown.debugDescription): \(ours), \(theirs)")
        }
    }

    /// The member as each side has it after reading; "-" when it refuses the text.
    private func values(_ value: String, _ member: Member) -> (String, String) {
        let (ours, theirs) = answers(member.kind, Data(member.text.replacing("@", with: value).utf8))
        let found = [ours, theirs].map { answer in
            guard answer.hasPrefix("+"), let key = answer.range(of: "\"\(member.key)\":") else { return "-" }
            return answer[key.upperBound...].prefix { $0 != "," && $0 != "}" }.filter { $0 != "\"" }
        }
        return (found[0], found[1])
    }

    @Test func nothingIsKeptOfWhatWasDecoded() throws {
        let json = try golden("widgets")
        // Returns free memory, which would take up what is lost; malloc_trim(3) is in no module.
        let trim = unsafeBitCast(dlsym(nil, "malloc_trim"), to: (@convention(c) (Int) -> Int32).self)
        /// The resident pages of this process, proc(5).
        let pages = {
            _ = trim(0)
            return try Int(String(contentsOfFile: "/proc/self/statm", encoding: .utf8).split(separator: " ")[1])!
        }
        let before = try pages()
        for _ in 0..<10_000 {
            _ = try WidgetSnapshot(json: json)
            for _ in 0..<5 { _ = try? WidgetSnapshot(json: Data()) }
        }
        // Each reply that is kept, also one of a failure, is more than 100 bytes.
        #expect(try (pages() - before) * 4096 < 10_000 * 5 * 100)
    }
}
