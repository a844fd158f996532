// Values as words and bytes, as HalvoRecords.h says, and calls of its functions.
import Foundation
internal import HalvoRecordsC

/// A value that is passed to C++ and back. Each conformance has its parts in the same order as C++ has them.
protocol Flat {
    init(from flat: inout FlatReader)
    func put(into flat: inout FlatWriter)
}

/// Reads what the library has written, which is of the same build: words that do not fit end the process.
struct FlatReader {
    private var words: UnsafeBufferPointer<UInt64>.Iterator
    private var bytes: UnsafeRawBufferPointer.SubSequence

    init(_ values: HalvoValues) {
        words = UnsafeBufferPointer(start: values.words, count: values.wordCount).makeIterator()
        bytes = UnsafeRawBufferPointer(start: values.bytes, count: values.byteCount)[...]
    }

    mutating func next<T: Flat>() -> T { T(from: &self) }

    mutating func all<each T: Flat>() -> (repeat each T) { (repeat (each T)(from: &self)) }

    mutating func word() -> UInt64 { words.next()! }

    mutating func text() -> UnsafeRawBufferPointer {
        let text = bytes.prefix(Int(word()))
        bytes = bytes[text.endIndex...]
        return UnsafeRawBufferPointer(rebasing: text)
    }
}

struct FlatWriter {
    private(set) var words: [UInt64] = []
    private(set) var bytes: [UInt8] = []

    mutating func put(_ word: UInt64) { words.append(word) }

    mutating func put<each T: Flat>(_ value: repeat each T) { repeat (each value).put(into: &self) }

    mutating func put(text: some Collection<UInt8>) {
        let before = bytes.count
        bytes.append(contentsOf: text)
        put(UInt64(bytes.count - before))
    }
}

/// Calls a function of HalvoRecords.h with those arguments.
func call<each Argument: Flat, Result: Flat>(
    _ function: (HalvoValues) -> HalvoReply, _ argument: repeat each Argument
) throws(RecordError) -> Result {
    var writer = FlatWriter()
    repeat (each argument).put(into: &writer)
    let reply = writer.words.withUnsafeBufferPointer { words in
        writer.bytes.withUnsafeBytes { bytes in
            function(
                HalvoValues(
                    words: words.baseAddress, wordCount: words.count, bytes: bytes.baseAddress, byteCount: bytes.count))
        }
    }
    defer { halvo_free(reply) }
    var reader = FlatReader(reply.values)
    if reply.isFailure {
        throw RecordError(path: reader.next(), problem: reader.next())
    }
    return reader.next()
}

/// The same for a function that fails only without memory, which ends a process in Swift.
func certain<each Argument: Flat, Result: Flat>(
    _ function: (HalvoValues) -> HalvoReply, _ argument: repeat each Argument
) -> Result {
    do throws(RecordError) {
        return try call(function, repeat each argument)
    } catch {
        fatalError("\(error)")
    }
}

/// The result of a function that has none.
struct Nothing: Flat {
    init(from flat: inout FlatReader) {}
    func put(into flat: inout FlatWriter) {}
}

extension Bool: Flat {
    init(from flat: inout FlatReader) { self = flat.word() == 1 }
    func put(into flat: inout FlatWriter) { flat.put(self ? 1 : 0) }
}

extension Flat where Self: FixedWidthInteger {
    init(from flat: inout FlatReader) { self.init(truncatingIfNeeded: flat.word()) }
    func put(into flat: inout FlatWriter) { flat.put(UInt64(truncatingIfNeeded: self)) }
}

extension Int: Flat {}
extension Int32: Flat {}

extension Flat where Self: RawRepresentable, RawValue == Int {
    init(from flat: inout FlatReader) { self.init(rawValue: flat.next())! }
    func put(into flat: inout FlatWriter) { flat.put(rawValue) }
}

/// A span.
extension Double: Flat {
    init(from flat: inout FlatReader) { self.init(bitPattern: flat.word()) }
    func put(into flat: inout FlatWriter) { flat.put(bitPattern) }
}

extension Date: Flat {
    init(from flat: inout FlatReader) { self.init(timeIntervalSince1970: flat.next()) }
    func put(into flat: inout FlatWriter) { timeIntervalSince1970.put(into: &flat) }
}

extension String: Flat {
    init(from flat: inout FlatReader) { self.init(decoding: flat.text(), as: UTF8.self) }
    func put(into flat: inout FlatWriter) { flat.put(text: utf8) }
}

extension Data: Flat {
    init(from flat: inout FlatReader) { self.init(flat.text()) }
    func put(into flat: inout FlatWriter) { flat.put(text: self) }
}

extension UUID: Flat {
    init(from flat: inout FlatReader) {
        self.init(uuid: unsafeBitCast((flat.word(), flat.word()), to: uuid_t.self))
    }

    func put(into flat: inout FlatWriter) {
        let words = unsafeBitCast(uuid, to: (UInt64, UInt64).self)
        flat.put(words.0)
        flat.put(words.1)
    }
}

extension Optional: Flat where Wrapped: Flat {
    init(from flat: inout FlatReader) { self = flat.word() == 1 ? .some(flat.next()) : .none }

    func put(into flat: inout FlatWriter) {
        flat.put(self == nil ? 0 : 1)
        self?.put(into: &flat)
    }
}

extension Array: Flat where Element: Flat {
    init(from flat: inout FlatReader) {
        let count = Int(flat.word())
        self.init(unsafeUninitializedCapacity: count) { elements, made in
            while made < count {
                elements.initializeElement(at: made, to: flat.next())
                made += 1
            }
        }
    }

    func put(into flat: inout FlatWriter) {
        flat.put(UInt64(count))
        for element in self { element.put(into: &flat) }
    }
}
