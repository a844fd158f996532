import Foundation
import Testing

/// The C++ side: a process of JudgeAnswers, whose source says what it answers. For one thread at a time.
final class Ours {
    private let process = Process(), input = Pipe(), output = Pipe()

    init() throws {
        let folder = try #require(ProcessInfo.processInfo.environment["JUDGE_ANSWERS"])
        process.executableURL = URL(filePath: folder + "/JudgeAnswers")
        process.environment = ["LD_LIBRARY_PATH": folder]
        process.standardInput = input
        process.standardOutput = output
        try process.run()
    }

    deinit { try? input.fileHandleForWriting.close() }

    func answer(_ kind: String, _ question: Data) throws -> String {
        try input.fileHandleForWriting.write(contentsOf: Data("\(kind) \(question.count)\n".utf8) + question)
        let size = Int(String(decoding: try read(8), as: UTF8.self).drop { $0 == " " })
        return String(decoding: try read(try #require(size)), as: UTF8.self)
    }

    private func read(_ size: Int) throws -> Data {
        var bytes = Data()
        while bytes.count < size {
            bytes += try #require(try output.fileHandleForReading.read(upToCount: size - bytes.count))
        }
        return bytes
    }
}
