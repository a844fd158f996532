import AppKit
import ServiceManagement

/// The Mac: the helper in the app's bundle, registered by SMAppService.
@MainActor
final class MacSystem: HelperSystem {
    private let names: HelperNames
    private var service: SMAppService { .daemon(plistName: names.launchdPlist) }

    init(_ names: HelperNames) { self.names = names }

    var registration: HelperRegistration {
        switch service.status {
        case .enabled: .enabled
        case .requiresApproval: .needsApproval
        default: .missing
        }
    }

    func register() throws { try service.register() }

    func unregister() async throws { try await Self.unregister(names.launchdPlist) }

    /// With a service of its own: whether one may be passed to another thread is not documented.
    nonisolated private static func unregister(_ plistName: String) async throws {
        try await SMAppService.daemon(plistName: plistName).unregister()
    }

    var version: String? { Bundle.main.object(forInfoDictionaryKey: "CFBundleVersion") as? String }

    var isRootsAlone: Bool { HalvoHelperClient.isRootsAlone(Bundle.main.bundlePath) }

    var isBundleLocked: Bool {
        // A new URL: the values of one are cached.
        let bundle = URL(filePath: Bundle.main.bundlePath)
        return (try? bundle.resourceValues(forKeys: [.isSystemImmutableKey]))?.isSystemImmutable ?? false
    }

    func connect() -> any HelperConnection { XPCHelperConnection(names) }

    var defaults: UserDefaults { .standard }
    var date: Date { .now }
    var now: ContinuousClock.Instant { .now }

    func sleep(until deadline: ContinuousClock.Instant) async {
        try? await Task.sleep(until: deadline, clock: .continuous)
    }
}

extension UltraHardMode {
    /// For the app that runs. Throws when its Info.plist lacks what names the helper.
    public convenience init() throws(HelperSetupError) {
        self.init(MacSystem(try HelperNames(info: Bundle.main.infoDictionary ?? [:])))
    }

    /// For a button beside the state `.needsApproval`.
    public static func openSettings() { SMAppService.openSystemSettingsLoginItems() }

    /// For applicationDidFinishLaunching(_:), once: starts, and follows the app from then on.
    public func applicationDidFinishLaunching() {
        // Both are posted on the main thread; this one before a logout, restart or shutdown, which can be cancelled.
        _ = NSWorkspace.shared.notificationCenter.addObserver(
            forName: NSWorkspace.willPowerOffNotification, object: nil, queue: nil
        ) { _ in MainActor.assumeIsolated { self.sessionIsEnding() } }
        _ = NotificationCenter.default.addObserver(
            forName: NSApplication.didBecomeActiveNotification, object: nil, queue: nil
        ) { _ in MainActor.assumeIsolated { self.becameActive() } }
        start()
    }

    /// For applicationShouldTerminate(_:). The app must not exit before the announcement of a logout was sent. A plain
    /// quit has nothing to announce: the helper opens the app again.
    public func applicationShouldTerminate(_ app: NSApplication) -> NSApplication.TerminateReply {
        guard let announcement else { return .terminateNow }
        Task {
            await announcement.value
            app.reply(toApplicationShouldTerminate: true)
        }
        return .terminateLater
    }
}
