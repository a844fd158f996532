import Foundation
import Testing

@testable import HalvoHelperClient

struct HelperServiceTests {
    typealias Known = HelperStep.Known

    @Test(arguments: [
        // What holds is kept, whatever else there is to do.
        (Known(answer: .success(true), service: .enabled, isCurrent: false), .beat),
        (Known(answer: .success(true), service: .notFound), .beat),
        (Known(answer: .success(true), service: .requiresApproval), .beat),
        (Known(answer: .success(false), service: .enabled), .rest),
        (Known(answer: .success(false), service: .enabled, isCurrent: false), .renew),
        (Known(answer: .success(false), service: .enabled, isCurrent: false, hasRenewed: true), .rest),
        (Known(answer: .success(false), service: .enabled, isCurrent: false, isRootsAlone: false), .rest),
        (Known(answer: .success(false), service: .notRegistered), .register),
        // Not registered, or not allowed.
        (Known(answer: .failure(.away), service: .notRegistered), .register),
        (Known(answer: .failure(.away), service: .notFound, mayHold: true), .register),
        (Known(answer: .failure(.away), service: .notRegistered, isRootsAlone: false), .waitForInstallation),
        (Known(answer: .failure(.away), service: .notFound, hasRegistered: true), .giveUp),
        (Known(answer: .failure(.away), service: .requiresApproval, failures: 9, isCurrent: false), .waitForApproval),
        // Registered, but it does not answer.
        (Known(answer: .failure(.away), service: .enabled, failures: 1), .askAgain(.away)),
        (Known(answer: .failure(.away), service: .enabled, failures: 2), .renew),
        (Known(answer: .failure(.incompatible), service: .enabled, failures: 2), .renew),
        (Known(answer: .failure(.silent), service: .enabled, failures: 9), .askAgain(.silent)),
        (Known(answer: .failure(.untrusted), service: .enabled, failures: 9), .askAgain(.untrusted)),
        (Known(answer: .failure(.away), service: .enabled, failures: 9, mayHold: true), .askAgain(.away)),
        (Known(answer: .failure(.away), service: .enabled, failures: 9, isRootsAlone: false), .askAgain(.away)),
        (Known(answer: .failure(.away), service: .enabled, failures: 9, hasRenewed: true), .askAgain(.away)),
    ] as [(Known, HelperStep)])
    func doesWhatTheSituationCallsFor(known: Known, step: HelperStep) {
        #expect(HelperStep(known) == step)
    }

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

    @MainActor @Test func remembersInTheDefaults() throws {
        let suite = "HelperMemoryTest-\(UUID())"
        let defaults = try #require(UserDefaults(suiteName: suite))
        defer { defaults.removePersistentDomain(forName: suite) }
        let memory: any HelperMemory = defaults
        #expect(memory.registeredVersion == nil && memory.heldUntil == nil)
        memory.registeredVersion = "7"
        memory.heldUntil = Date(timeIntervalSince1970: 12.5)
        #expect(memory.registeredVersion == "7")
        #expect(memory.heldUntil == Date(timeIntervalSince1970: 12.5))
        memory.heldUntil = nil
        #expect(memory.heldUntil == nil)
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
