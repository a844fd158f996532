#if os(macOS) || HALVO_STAND_INS
import Foundation
import ServiceManagement

/// The helper in the app's bundle, registered by SMAppService.
@MainActor
final class AppService: HelperService {
    private let plistName: String
    private var service: SMAppService { .daemon(plistName: plistName) }

    init(_ names: HelperNames) { plistName = names.launchdPlist }

    var status: ServiceStatus {
        switch service.status {
        case .notRegistered: .notRegistered
        case .enabled: .enabled
        case .requiresApproval: .requiresApproval
        case .notFound: .notFound
        @unknown default: .notFound
        }
    }

    var version: String? { Bundle.main.object(forInfoDictionaryKey: "CFBundleVersion") as? String }

    var isRootsAlone: Bool { HalvoHelperClient.isRootsAlone(Bundle.main.bundlePath) }

    var isBundleLocked: Bool {
        // A new URL: the values of one are cached.
        let bundle = URL(filePath: Bundle.main.bundlePath)
        return (try? bundle.resourceValues(forKeys: [.isSystemImmutableKey]))?.isSystemImmutable ?? false
    }

    func register() throws { try service.register() }

    func unregister() async throws { try await Self.unregister(plistName) }

    /// With a service of its own: whether one may be passed to another thread is not documented.
    nonisolated private static func unregister(_ plistName: String) async throws {
        try await SMAppService.daemon(plistName: plistName).unregister()
    }
}
#endif
