import Foundation

/// What the helper can be asked, as `HalvoHelperCore/macOS/HalvoHelperXPC.h` declares it. The selectors are the wire.
@objc(HalvoHelperXPC)
protocol HalvoHelperXPC {
    @objc(beginWithAppPath:until:started:reply:)
    func begin(appPath: String, until: Date, started: Date, reply: @escaping @Sendable (Bool) -> Void)

    @objc(heartbeatWithSessionEnding:reply:)
    func heartbeat(sessionEnding: Bool, reply: @escaping @Sendable (Bool) -> Void)

    @objc(endWithReply:)
    func end(reply: @escaping @Sendable (Bool) -> Void)

    @objc(statusWithReply:)
    func status(reply: @escaping @Sendable (Bool, Date?, Bool) -> Void)
}

/// An NSXPCConnection to the helper's Mach service.
@MainActor
final class XPCHelperConnection: HelperConnection {
    private let connection: NSXPCConnection
    private(set) var isGone = false

    init(_ names: HelperNames) {
        connection = NSXPCConnection(machServiceName: names.machService, options: .privileged)
        connection.remoteObjectInterface = NSXPCInterface(with: (any HalvoHelperXPC).self)
        // Before resume(): from then on no message is exchanged with a process that does not meet it.
        connection.setCodeSigningRequirement(names.requirement)
        // Interrupted: the helper exited. Used again, the connection would start it and continue with the new process,
        // with a begin that was decided on a status of the old one; so it is invalidated immediately, on NSXPC's queue,
        // before the main actor is notified.
        // Of an NSXPCConnection, invalidate() may be called from any thread.
        nonisolated(unsafe) weak var interrupted: NSXPCConnection?
        interrupted = connection
        connection.interruptionHandler = { @Sendable in interrupted?.invalidate() }
        connection.invalidationHandler = { @Sendable [weak self] in Task { @MainActor [weak self] in self?.isGone = true } }
        connection.resume()
    }

    func invalidate() { connection.invalidate() }

    func send(_ request: HelperRequest, answer: @escaping @Sendable (HelperReply) -> Void) {
        let proxy = connection.remoteObjectProxyWithErrorHandler { @Sendable in answer(.failure(HelperTrouble($0))) }
        guard let helper = proxy as? any HalvoHelperXPC else { return answer(.failure(.incompatible)) }
        let reply = { @Sendable (holding: Bool) in
            answer(.success(HelperStatus(holding: holding, until: nil, locked: false)))
        }
        switch request {
        case .begin(let span):
            helper.begin(appPath: Bundle.main.bundlePath, until: span.until, started: span.started, reply: reply)
        case .heartbeat(let sessionEnding): helper.heartbeat(sessionEnding: sessionEnding, reply: reply)
        case .end: helper.end(reply: reply)
        case .status:
            helper.status { answer(.success(HelperStatus(holding: $0, until: $1, locked: $2))) }
        }
    }
}

extension HelperTrouble {
    fileprivate init(_ error: any Error) {
        let error = error as NSError
        switch (error.domain, error.code) {
        case (NSCocoaErrorDomain, NSXPCConnectionCodeSigningRequirementFailure): self = .untrusted
        case (NSCocoaErrorDomain, NSXPCConnectionReplyInvalid): self = .incompatible
        default: self = .away
        }
    }
}
