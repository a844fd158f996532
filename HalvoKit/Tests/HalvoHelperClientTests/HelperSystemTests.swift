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

    /// The identifier and the team in the Info.plist, and the key of the one that is not valid.
    @Test(arguments: [
        ("a.b-1", "7QX4KD19MT", nil),
        (nil, "7QX4KD19MT", "CFBundleIdentifier"), ("a\"b", "7QX4KD19MT", "CFBundleIdentifier"),
        ("a.b", nil, "HalvoTeamID"), ("a.b", "", "HalvoTeamID"), ("a.b", "$(DEVELOPMENT_TEAM)", "HalvoTeamID"),
    ] as [(String?, String?, String?)])
    func hasTheNamesOfTheAppAndTeam(identifier: String?, team: String?, invalid: String?) {
        do throws(HelperSetupError) {
            let names = try HelperNames(info: ["CFBundleIdentifier": identifier as Any, "HalvoTeamID": team as Any])
            #expect([names.machService, names.launchdPlist, invalid] == ["a.b-1.helper", "a.b-1.helper.plist", nil])
        } catch {
            #expect(error.localizedDescription == "The app's Info.plist has no valid \(invalid ?? "").")
        }
    }
}
