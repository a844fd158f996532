#if os(macOS) || HALVO_STAND_INS
import Foundation
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
#endif
