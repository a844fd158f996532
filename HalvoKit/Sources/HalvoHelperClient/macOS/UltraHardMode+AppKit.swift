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
#endif
