import Foundation
import HalvoRecords
import Testing

/// What tests/Golden/keepalive.json holds.
private let state = KeepAliveState(
    pid: 4711, appPath: "/Applications/Halvo.app", clean: false, commitmentUntil: nine + 3600, ultraHard: true,
    appReleased: true, bypassNoted: false, updatedAt: nine)

@Suite struct KeepAliveStateTests {
    @Test func isWhatTheFileHolds() throws {
        let json = try golden("keepalive.json")
        #expect(try KeepAliveState(json: json) == state)
        #expect(try state.json() == json)
    }

    @Test(arguments: [(false, 3599, true), (false, 3600, false), (true, 0, false)])
    func saysWhetherToRelaunch(clean: Bool, seconds: Double, relaunches: Bool) {
        var state = state
        state.clean = clean
        #expect(state.shouldRelaunch(at: nine + seconds) == relaunches)
        state.commitmentUntil = nil
        #expect(!state.shouldRelaunch(at: nine + seconds))
    }

    @Test(arguments: [(false, 120, false), (false, 121, true), (true, 121, false)])
    func saysWhetherItWasBypassed(byAgent: Bool, seconds: Double, bypassed: Bool) {
        #expect(state.wasBypassed(relaunchedByAgent: byAgent, at: nine + seconds) == bypassed)
    }

    @Test(arguments: [("/Applications", true, true), ("/a/.Trash/b", true, false), ("/a/.Trash/b", false, true)])
    func saysWhatMayOpen(path: String, released: Bool, may: Bool) {
        var state = state
        state.appReleased = released
        #expect(state.mayOpen(fromBin: path) == may)
    }
}

@Suite struct HalvoLinkTests {
    @Test(arguments: [
        (.breathe(style: "box", minutes: 5), "halvo://breathe?style=box&minutes=5"), (.breathe(), "halvo://breathe"),
        (.breathe(style: "süß & gut"), "halvo://breathe?style=s%C3%BC%C3%9F%20%26%20gut"),
        (.breathe(minutes: -7), "halvo://breathe?minutes=-7"), (.focus, "halvo://focus"), (.today, "halvo://today"),
        (.settings, "halvo://settings"), (.main, "halvo://main"),
    ] as [(HalvoLink, String)])
    func isItsURL(link: HalvoLink, text: String) throws {
        #expect(link.url.absoluteString == text)
        #expect(HalvoLink(url: link.url) == link)
        #expect(link.url(scheme: "x-other").absoluteString == text.replacing("halvo:", with: "x-other:"))
        #expect(link.url(scheme: "1") == URL(string: "file:///"))
    }

    @Test(arguments: ["https://example.com/focus", "mailto:ann@example.com", "file:///", "halvo://FOCUS"])
    func isMainForAnyOtherURL(text: String) { #expect(HalvoLink(url: URL(string: text)!) == .main) }
}

@Suite final class SharedFileTests {
    let folder = URL.temporaryDirectory.appending(path: "halvo \(UUID())", directoryHint: .isDirectory)

    init() throws { try FileManager.default.createDirectory(at: folder, withIntermediateDirectories: false) }

    deinit { try? FileManager.default.removeItem(at: folder) }

    @Test func hasWhatWasWrittenLast() throws {
        let file = SharedFile<WidgetSnapshot>(name: "a b.json", in: folder)
        #expect(file.read() == nil)
        for focusMinutes in [25, 50] {
            var snapshot = sample
            snapshot.focusMinutes = focusMinutes
            try file.write(snapshot)
            #expect(try file.read() == snapshot && file.load() == snapshot)
        }
        #expect(file == SharedFile(url: folder.appending(path: "a b.json")))
        file.remove()
        #expect(!FileManager.default.fileExists(atPath: file.url.path))
    }

    @Test func saysWhyThereIsNoRecord() throws {
        let file = SharedFile<KeepAliveState>(name: "ü.json", in: folder)
        let path = file.url.path
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
