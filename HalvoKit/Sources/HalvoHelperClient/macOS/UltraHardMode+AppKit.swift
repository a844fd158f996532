#if os(macOS) || HALVO_STAND_INS
import AppKit
import ServiceManagement

extension UltraHardMode {
    /// For the app that runs. Throws when its Info.plist lacks what names the helper.
    public convenience init() throws(HelperSetupError) {
        self.init(MacSystem(try HelperNames(info: Bundle.main.infoDictionary ?? [:])))
    }

    /// For a button beside the state `.needsApproval`.
    public static func openSettings() { SMAppService.openSystemSettingsLoginItems() }
}

/// Tells `mode` what happens to the app: launched, becoming active, the session ending. Made in
/// applicationDidFinishLaunching(_:) and kept.
@MainActor
public final class HelperAppEvents: NSObject {
    private let mode: UltraHardMode
    private var announcement: Task<Void, Never>?

    public init(_ mode: UltraHardMode) {
        self.mode = mode
        super.init()
        // Posted before a logout, restart or shutdown, which can still be cancelled.
        NSWorkspace.shared.notificationCenter.addObserver(
            self, selector: #selector(sessionIsEnding), name: NSWorkspace.willPowerOffNotification, object: nil)
        NotificationCenter.default.addObserver(
            self, selector: #selector(becameActive), name: NSApplication.didBecomeActiveNotification, object: nil)
        mode.start()
    }

    /// For applicationShouldTerminate(_:). The app must not exit before the announcement of a logout was sent. A plain
    /// quit has nothing to announce: the helper opens the app again.
    public func shouldTerminate(_ app: NSApplication) -> NSApplication.TerminateReply {
        guard let announcement else { return .terminateNow }
        Task {
            await announcement.value
            app.reply(toApplicationShouldTerminate: true)
        }
        return .terminateLater
    }

    @objc private func sessionIsEnding(_ notification: Notification) {
        announcement = Task { await mode.sessionIsEnding() }
    }

    @objc private func becameActive(_ notification: Notification) { mode.becameActive() }
}
#endif
