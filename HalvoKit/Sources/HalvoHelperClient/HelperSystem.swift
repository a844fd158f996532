import Foundation

/// What the client needs of the system it runs on.
@MainActor
protocol HelperSystem: AnyObject {
    /// Of the helper as a launchd job.
    var registration: HelperRegistration { get }
    /// Throws also when the job is registered then and waits for approval; `registration` tells these apart.
    func register() throws
    /// Returns when the helper's process is gone.
    func unregister() async throws

    /// The version of the app, which is the version of the helper in its bundle.
    var version: String? { get }
    /// Whether only root can change the helper in the app's bundle; see `isRootsAlone(_:)`.
    var isRootsAlone: Bool { get }
    /// Whether the app's bundle has the flag that the helper sets while a commitment holds, whichever user's.
    var isBundleLocked: Bool { get }

    func connect() -> any HelperConnection

    /// What the client remembers from one launch to the next. The user can change it.
    var defaults: UserDefaults { get }
    /// The time of day.
    var date: Date { get }
    /// Monotonic time that goes on while the machine sleeps (mach_continuous_time), so that a deadline is also over for
    /// an app that was stopped or has slept.
    var now: ContinuousClock.Instant { get }
    /// Returns early when the task is cancelled.
    func sleep(until deadline: ContinuousClock.Instant) async
}

enum HelperRegistration: Sendable {
    /// Never registered, unregistered, or not found in the bundle, as also before the first registration.
    case missing
    case needsApproval, enabled
}

extension UserDefaults {
    /// The version that was registered last.
    var registeredVersion: String? {
        get { string(forKey: "HelperRegisteredVersion") }
        set { set(newValue, forKey: "HelperRegisteredVersion") }
    }

    /// When the commitment ends that holds, or may hold as far as the app knows.
    var heldUntil: Date? {
        get { object(forKey: "HelperHeldUntil") as? Date }
        set { set(newValue, forKey: "HelperHeldUntil") }
    }
}

/// Whether the bundle at `path` and its helper, with the folders between, belong to root and only root can write them.
/// The helper is started from its path as root.
func isRootsAlone(_ path: String) -> Bool {
    ["", "/Contents", "/Contents/Helpers", "/Contents/Helpers/HalvoHelper"].allSatisfy { place in
        guard let item = try? FileManager.default.attributesOfItem(atPath: path + place),
            let owner = (item[.ownerAccountID] as? NSNumber)?.intValue,
            let mode = (item[.posixPermissions] as? NSNumber)?.intValue
        else { return false }
        return owner == 0 && mode & 0o022 == 0
    }
}
