// What HalvoHelperClient uses of AppKit, and of the part of Foundation that only macOS has; from Apple's documentation.
// Where that does not say that a type is Sendable, it is not here.
@_exported import Foundation
@_exported import ObjectiveC

public let NSXPCConnectionCodeSigningRequirementFailure = 4102

public class NSXPCInterface: NSObject {
    public init(with protocol: Protocol) {}
}

public class NSXPCConnection: NSObject {
    public struct Options: OptionSet, Sendable {
        public let rawValue: UInt
        public init(rawValue: UInt) { self.rawValue = rawValue }
        public static let privileged = Options(rawValue: 1 << 12)
    }

    public init(machServiceName: String, options: Options = []) {}
    public var remoteObjectInterface: NSXPCInterface?
    public var interruptionHandler: (@Sendable () -> Void)?
    public var invalidationHandler: (@Sendable () -> Void)?
    public func setCodeSigningRequirement(_ requirement: String) {}
    public func resume() {}
    public func invalidate() {}
    public func remoteObjectProxyWithErrorHandler(_ handler: @escaping @Sendable (any Error) -> Void) -> Any { self }
}

@MainActor public protocol NSApplicationDelegate: NSObjectProtocol {}

@MainActor public class NSApplication: NSObject {
    public enum TerminateReply: Sendable { case terminateCancel, terminateNow, terminateLater }
    nonisolated public static let didBecomeActiveNotification = Notification.Name("NSApplicationDidBecomeActive")
    @discardableResult public func presentError(_ error: any Error) -> Bool { true }
    public func reply(toApplicationShouldTerminate shouldTerminate: Bool) {}
}

@MainActor public var NSApp: NSApplication!

public class NSWorkspace: NSObject {
    nonisolated(unsafe) public static let shared = NSWorkspace()
    nonisolated public static let willPowerOffNotification = Notification.Name("NSWorkspaceWillPowerOff")
    public let notificationCenter = NotificationCenter.default
}
