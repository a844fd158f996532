// What HalvoHelperClient uses of ServiceManagement; from Apple's documentation.
@_exported import Foundation

public class SMAppService: NSObject {
    public enum Status: Int, Sendable { case notRegistered, enabled, requiresApproval, notFound }

    public static func daemon(plistName: String) -> SMAppService { SMAppService() }
    public static func openSystemSettingsLoginItems() {}
    public var status: Status { .notRegistered }
    public func register() throws {}
    public func unregister() async throws {}
}
