import Foundation
import HalvoRecords
import Testing

struct KeepAliveStateTests {
    @Test func answersItsThreeQuestions() throws {
        var state = try KeepAliveState(json: golden("keepalive"))
        #expect(state.shouldRelaunch(at: nine + 3599) && !state.shouldRelaunch(at: nine + 3600))
        #expect(state.wasBypassed(relaunchedByAgent: false, at: nine + 121))
        #expect(!state.wasBypassed(relaunchedByAgent: false, at: nine + 120))
        #expect(!state.wasBypassed(relaunchedByAgent: true, at: nine + 121))
        #expect(state.mayOpen(fromBin: "/Applications") && !state.mayOpen(fromBin: "/a/.Trash/b"))
        state.appReleased = false
        #expect(state.mayOpen(fromBin: "/a/.Trash/b"))
    }
}

@Suite final class SharedFileTests {
    let folder = URL.temporaryDirectory.appending(path: "halvo \(UUID())", directoryHint: .isDirectory)

    init() throws { try FileManager.default.createDirectory(at: folder, withIntermediateDirectories: false) }

    deinit { try? FileManager.default.removeItem(at: folder) }

    @Test func hasWhatWasWrittenLast() throws {
        let file = SharedFile<WidgetSnapshot>(name: "a b.json", in: folder)
        #expect(file.read() == nil)
        for snapshot in try [empty, WidgetSnapshot(json: golden("widgets"))] {
            try file.write(snapshot)
            #expect(try file.read() == snapshot && file.load() == snapshot)
        }
        #expect(file == SharedFile(url: folder.appending(path: "a b.json")))
        file.remove()
        #expect(!FileManager.default.fileExists(atPath: file.url.path))
    }

    @Test func saysWhyThereIsNoRecord() throws {
        let file = SharedFile<KeepAliveState>(name: "ü.json", in: folder)
        let path = file.url.path, state = try KeepAliveState(json: golden("keepalive"))
        let problem = { (work: () throws -> Void) in
            let error = #expect(throws: RecordError.self, performing: work)
            #expect(error?.path == path)
            return error?.problem
        }
        #expect(problem { _ = try file.load() } == "No such file or directory")
        try Data(#"{"pid":true}"#.utf8).write(to: file.url)
        #expect(file.read() == nil)
        #expect(problem { _ = try file.load() } == "pid: Expected a whole number of 32 bits, found true")
        var late = state
        late.updatedAt = .init(timeIntervalSince1970: .infinity)
        #expect(problem { try file.write(late) } == "updatedAt: is not a date of the years 0 to 9999")
        late = state
        late.appPath = String(repeating: "x", count: 1 << 20)
        #expect(problem { try file.write(late) }?.hasPrefix("The record is longer than 1048576 bytes") == true)
        try FileManager.default.removeItem(at: folder)
        #expect(problem { try file.write(state) } == "No such file or directory")
    }

    @Test func isInTheFolderOfTheGroup() throws {
        #expect(AppGroup.identifier == nil && HalvoLink.scheme == "halvo")
        setenv("XDG_DATA_HOME", folder.path, 1)
        #expect(AppGroup.container.standardized == folder.appending(path: "Halvo-NoGroup/").standardized)
        // Beside the program of the tests, which lies in no bundle.
        let info = URL(filePath: "/proc/self/exe").resolvingSymlinksInPath().deletingLastPathComponent()
            .appending(path: "Info.plist")
        let members = ["HalvoAppGroup": "group.test", "HalvoURLScheme": "x-test"]
        try PropertyListSerialization.data(fromPropertyList: members, format: .xml, options: 0).write(to: info)
        defer { try? FileManager.default.removeItem(at: info) }
        #expect(AppGroup.identifier == "group.test" && HalvoLink.scheme == "x-test")
        #expect(HalvoLink.today.url.absoluteString == "x-test://today")
        #expect(AppGroup.container.lastPathComponent == "group.test")
        #expect(WidgetSnapshot.file.url == AppGroup.container.appending(path: "widgets.json"))
        #expect(KeepAliveState.file.url == AppGroup.container.appending(path: "keepalive.json"))
    }

    @Test func namesTheLaunchArguments() {
        #expect(LaunchReason.relaunchArgument == "-halvoRelaunchedAfterQuit")
        #expect(LaunchReason.afterQuitArguments == ["--after-quit"])
    }
}
