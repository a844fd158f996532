import Foundation

/// The helper as a launchd job that the app registers.
@MainActor
protocol HelperService: AnyObject {
    var status: ServiceStatus { get }
    /// The version of the app, which is the version of the helper in its bundle.
    var version: String? { get }
    /// Whether only root can change the helper in the app's bundle; see `isRootsAlone`.
    var isRootsAlone: Bool { get }
    /// Whether the app's bundle has the flag that the helper sets while a commitment holds.
    var isBundleLocked: Bool { get }
    /// Throws also when the job is registered then and waits for approval; the status tells these apart.
    func register() throws
    /// Returns when the helper's process is gone.
    func unregister() async throws
}

/// As SMAppService.Status.
nonisolated enum ServiceStatus: Sendable {
    case notRegistered, enabled, requiresApproval, notFound
}

/// What the client remembers from one launch to the next. The user can change it.
@MainActor
protocol HelperMemory: AnyObject {
    /// The version that was registered last.
    var registeredVersion: String? { get set }
    /// When the commitment ends that holds, or may hold as far as the app knows.
    var heldUntil: Date? { get set }
}

extension UserDefaults: HelperMemory {
    var registeredVersion: String? {
        get { string(forKey: "HelperRegisteredVersion") }
        set { set(newValue, forKey: "HelperRegisteredVersion") }
    }

    var heldUntil: Date? {
        get { object(forKey: "HelperHeldUntil") as? Date }
        set { set(newValue, forKey: "HelperHeldUntil") }
    }
}

/// Whether the bundle at `path` and its helper, with the folders between, belong to root and only root can write them.
/// The helper is started from its path as root.
nonisolated func isRootsAlone(_ path: String) -> Bool {
    ["", "/Contents", "/Contents/Helpers", "/Contents/Helpers/HalvoHelper"].allSatisfy { place in
        guard let item = try? FileManager.default.attributesOfItem(atPath: path + place),
            let owner = (item[.ownerAccountID] as? NSNumber)?.intValue,
            let mode = (item[.posixPermissions] as? NSNumber)?.intValue
        else { return false }
        return owner == 0 && mode & 0o022 == 0
    }
}

/// What to do after the helper was asked whether a commitment holds. A pure function of what is known.
nonisolated enum HelperStep: Equatable {
    /// A commitment holds: send heartbeats.
    case beat
    /// Nothing holds, and all is well.
    case rest
    /// Ask again after a pause.
    case askAgain(HelperTrouble)
    case register
    /// Unregister and register. Stops the helper, and may need approval again.
    case renew
    case waitForApproval
    /// The app has to be installed so that it is root's alone.
    case waitForInstallation
    /// The registration has failed.
    case giveUp

    /// That many calls in a row fail before the job is taken for gone: a helper may just be restarted.
    static let failuresOfAGoneJob = 2

    struct Known {
        var answer: Result<Bool, HelperTrouble>
        var service: ServiceStatus
        /// The calls that have failed in a row, this one included.
        var failures = 0
        /// The version of this app is the one that was registered last.
        var isCurrent = true
        var isRootsAlone = true
        /// A commitment may hold, as far as anything but the answer shows.
        var mayHold = false
        var hasRegistered = false
        var hasRenewed = false
    }

    init(_ known: Known) {
        // Never while a commitment holds or may hold: who is bound by it could then refuse the approval.
        let mayRenew = known.isRootsAlone && !known.hasRenewed
        switch (known.answer, known.service) {
        case (.success(true), _): self = .beat
        case (_, .requiresApproval): self = .waitForApproval
        case (_, .notRegistered), (_, .notFound):
            self = !known.isRootsAlone ? .waitForInstallation : known.hasRegistered ? .giveUp : .register
        case (.success(false), .enabled):
            // launchd may still run the helper of another version.
            self = mayRenew && !known.isCurrent ? .renew : .rest
        case (.failure(let trouble), .enabled):
            // Registered, but launchd does not know the job, or an old helper runs. A silent one may hold a commitment.
            let isGone = trouble == .away || trouble == .incompatible
            let isSure = isGone && known.failures >= Self.failuresOfAGoneJob
            self = mayRenew && isSure && !known.mayHold ? .renew : .askAgain(trouble)
        }
    }
}
