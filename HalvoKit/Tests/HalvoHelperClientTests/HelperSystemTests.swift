import Foundation
import Testing

@testable import HalvoHelperClient

struct HelperSystemTests {
    /// A part of the bundle that has another mode, or without a mode another owner. Nil: all of it is root's.
    @Test(
        .enabled(if: FileManager.default.isWritableFile(atPath: "/root"), "needs root"),
        arguments: [
            (nil, 0o755), ("", 0o775), ("/Contents", 0o757), ("/Contents/Helpers", nil),
            ("/Contents/Helpers/HalvoHelper", 0o722), ("/Contents/Helpers/HalvoHelper", nil),
        ] as [(String?, Int?)])
    func belongsToRootAlone(place: String?, mode: Int?) throws {
        let files = FileManager.default
        let bundle = files.temporaryDirectory.path + "/\(UUID()).app"
        let helpers = bundle + "/Contents/Helpers"
        try files.createDirectory(atPath: helpers, withIntermediateDirectories: true)
        defer { try? files.removeItem(atPath: bundle) }
        #expect(!isRootsAlone(bundle))
        try Data().write(to: URL(filePath: helpers + "/HalvoHelper"))
        let changed: [FileAttributeKey: Any] = mode.map { [.posixPermissions: $0] } ?? [.ownerAccountID: 1000]
        try files.setAttributes(changed, ofItemAtPath: bundle + (place ?? ""))
        #expect(isRootsAlone(bundle) == (place == nil))
    }

    @Test func hasTheNamesOfTheAppAndTeam() throws {
        let names = try HelperNames(info: ["CFBundleIdentifier": "com.example.halvo-1", "HalvoTeamID": "7QX4KD19MT"])
        #expect(names.machService == "com.example.halvo-1.helper")
        #expect(names.launchdPlist == "com.example.halvo-1.helper.plist")
    }

    @Test(arguments: [
        (nil, "7QX4KD19MT", "CFBundleIdentifier"), ("a\"b", "7QX4KD19MT", "CFBundleIdentifier"),
        ("a.b", nil, "HalvoTeamID"), ("a.b", "", "HalvoTeamID"), ("a.b", "$(DEVELOPMENT_TEAM)", "HalvoTeamID"),
    ] as [(String?, String?, String)])
    func saysWhichNameIsMissing(identifier: String?, team: String?, key: String) {
        let error = #expect(throws: HelperSetupError.self) {
            try HelperNames(info: ["CFBundleIdentifier": identifier as Any, "HalvoTeamID": team as Any])
        }
        #expect(error?.localizedDescription == "The app's Info.plist has no valid \(key).")
    }
}
