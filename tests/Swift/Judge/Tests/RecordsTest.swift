import Foundation
import Testing

/// Foundation's side of the question `kind`, as JudgeAnswers answers.
private func foundation(_ kind: String, _ text: Data) -> String {
    func reading<Record: Codable>(_: Record.Type) -> String {
        let decoder = JSONDecoder()
        decoder.dateDecodingStrategy = .iso8601
        func path(_ keys: [any CodingKey]) -> String {
            keys.map { key in key.intValue.map { "[\($0)]" } ?? "." + key.stringValue }.joined().drop { $0 == "." } + ""
        }
        do {
            return "+" + (try written(decoder.decode(Record.self, from: text)))
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
    return kind == "keepalive" ? reading(KeepAliveState.self) : reading(WidgetSnapshot.self)
}

/// Foundation's text of a record, with "/" for its "\/": the one difference that every text may have.
private func written(_ record: some Encodable) throws -> String {
    let encoder = JSONEncoder()
    encoder.dateEncodingStrategy = .iso8601
    encoder.outputFormatting = .sortedKeys
    return String(decoding: try encoder.encode(record), as: UTF8.self).replacing("\\/", with: "/")
}

struct RecordsTest {
    private let ours: Ours

    init() throws { ours = try Ours() }

    @Test func eachReadsWhatTheOtherWrote() throws {
        var random = Random(state: 12)
        for _ in 0..<1000 {
            let texts = ["widgets": try written(random.snapshot()), "keepalive": try written(random.keepAlive())]
            for (kind, text) in texts {
                let answer = try ours.answer(kind, Data(text.utf8))
                try #require(answer == "+" + text)
                try #require(foundation(kind, Data(answer.utf8.dropFirst())) == answer)
            }
        }
    }

    /// A golden text that ends early, lacks a byte or has another one in its place.
    @Test(arguments: [("keepalive", Array(0x1f...0x80)), ("widgets", Array(" \"0}\u{80}".utf8))])
    func damagedTexts(_ kind: String, _ bytes: [UInt8]) throws {
        let file = URL(filePath: #filePath).appending(path: "../../../../Golden/\(kind).json").standardized
        let golden = try Data(contentsOf: file)
        #expect(try foundation(kind, golden) == ours.answer(kind, golden))
        var seen: Set<Pattern> = []
        for position in golden.indices {
            let before = golden[..<position], after = golden[(position + 1)...]
            let changed = bytes.map { before + Data([$0]) + after }
            for text in [before, before + after] + changed {
                let answer = try ours.answer(kind, text), theirs = foundation(kind, text)
                if answer != theirs {
                    seen.insert(try #require(pattern(answer, theirs), "\(position): \(answer), Foundation's \(theirs)"))
                }
            }
        }
        #expect(seen == [.form, .path, kind == "widgets" ? .firstMember : .olderFile])
    }

    private func pattern(_ ours: String, _ theirs: String) -> Pattern? {
        let corrupt = "-corrupt "
        if ours.hasPrefix(corrupt), theirs.hasPrefix(corrupt), ours.hasPrefix(theirs) { return .path }
        if ours.hasPrefix("-type "), theirs == "-missing " + ours.dropFirst(6) + "s" { return .firstMember }
        guard theirs.hasPrefix("+") else { return nil }
        let added = /"(appReleased|bypassNoted)":false,/
        if ours.replacing(added, with: "") == theirs.replacing(added, with: "") { return .olderFile }
        return ours.contains(/^-corrupt .*(start|end|writtenAt|horizon|commitmentUntil|updatedAt|\.id)$/) ? .form : nil
    }

    @Test(arguments: members) func membersAgreeExceptAsListed(_ member: Member) throws {
        for value in member.agreed.components(separatedBy: " | ") {
            let (ours, theirs) = try answers(value, member)
            #expect(ours == theirs, "\(value.debugDescription)")
        }
        for shown in member.different.values.flatMap({ $0.components(separatedBy: " | ") }) {
            let parts = shown.components(separatedBy: " -> ")
            let (ours, theirs) = try answers(parts[0], member)
            #expect([ours, theirs] == parts[1...] && ours != theirs, "\(shown.debugDescription)")
        }
    }

    /// The member as each side has it after reading; "-" when it refuses the text.
    private func answers(_ value: String, _ member: Member) throws -> (String, String) {
        let text = Data(member.text.replacing("@", with: value).utf8)
        let both = [try ours.answer(member.kind, text), foundation(member.kind, text)].map { answer in
            guard answer.hasPrefix("+"), let key = answer.range(of: "\"\(member.key)\":") else { return "-" }
            return answer[key.upperBound...].prefix { $0 != "," && $0 != "}" }.filter { $0 != "\"" }
        }
        return (both[0], both[1])
    }
}
