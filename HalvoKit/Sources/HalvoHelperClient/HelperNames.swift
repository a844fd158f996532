import Foundation

/// The names that follow from the app's identifier and team.
struct HelperNames: Equatable, Sendable {
    let machService: String
    let launchdPlist: String
    /// What the app demands of the helper's signature.
    let requirement: String

    /// Those for the app with this Info.plist. Throws when one is missing, or could not be part of a requirement, for
    /// which NSXPC would raise an exception; whether the helper accepts it is decided when that is built.
    init(info: [String: Any]) throws(HelperSetupError) {
        let app = try Self.name("CFBundleIdentifier", in: info)
        let team = try Self.name("HalvoTeamID", in: info)
        machService = "\(app).helper"
        launchdPlist = "\(app).helper.plist"
        requirement =
            #"anchor apple generic and identifier "\#(app).helper" and certificate leaf[subject.OU] = "\#(team)""#
    }

    private static func name(_ key: String, in info: [String: Any]) throws(HelperSetupError) -> String {
        guard let name = info[key] as? String, name.wholeMatch(of: /[A-Za-z0-9.-]+/) != nil else {
            throw HelperSetupError(key: key)
        }
        return name
    }
}

/// The app's Info.plist has no name, or none of letters, digits, "." and "-", under `key`.
public struct HelperSetupError: LocalizedError, Equatable {
    public let key: String
    public var errorDescription: String? { "The app's Info.plist has no valid \(key)." }
}
