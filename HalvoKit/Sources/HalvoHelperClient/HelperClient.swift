import Foundation
import Synchronization

/// What the helper holds for this user.
public struct HelperStatus: Equatable, Sendable {
    public let holding: Bool
    /// Nil when nothing is held.
    public let until: Date?
    /// False while a commitment holds without the lock: the app can be deleted.
    public let locked: Bool
}

/// The span of a commitment to ask for.
public struct CommitmentSpan: Equatable, Sendable {
    public let until: Date
    public let started: Date

    public init(until: Date, started: Date = .now) {
        self.until = until
        self.started = started
    }
}

/// Why there was no reply. Without one, a request may or may not have been carried out.
public enum HelperTrouble: Error, Equatable, Sendable {
    /// The helper is not registered, not approved, being replaced or has ended; or it refused this app.
    case away
    /// The reply did not come in time, or the time was over before the request was sent.
    case silent
    /// Its signature is not what the app demands, or this app's is not what the helper demands.
    case untrusted
    /// It has another version of the protocol.
    case incompatible
}

enum HelperRequest: Equatable, Sendable {
    case begin(CommitmentSpan), heartbeat(sessionEnding: Bool), end, status
}

/// Of a status all of it. Of the others only whether a commitment holds; of an end, whether one did.
typealias HelperReply = Result<HelperStatus, HelperTrouble>

/// One connection to one process of the helper.
@MainActor
protocol HelperConnection: AnyObject {
    /// Whether it cannot be used any more. It never goes on with another process of the helper.
    var isGone: Bool { get }
    /// Returns before the reply comes. Calls `answer` on any thread, also more than once: the first call counts.
    func send(_ request: HelperRequest, answer: @escaping @Sendable (HelperReply) -> Void)
    func invalidate()
}

/// The requests, one at a time, over one connection that is made with the first and made anew after a failure. Each
/// takes at most `limit`; a request is not sent after that.
@MainActor
final class HelperClient {
    static let limit = Duration.seconds(5)

    private let system: any HelperSystem
    private var connection: (any HelperConnection)?

    init(_ system: any HelperSystem) { self.system = system }

    /// Asks for the status, calls `decide` with it, and sends the begin that it returns over the same connection; nil
    /// leaves what holds as it is. Returns whether a commitment holds then.
    ///
    /// Never over another connection: if the app is stopped between status and begin and a longer commitment is made in
    /// another process, this begin would shorten that. When the connection is gone by the time of the decision,
    /// everything starts over, so `decide` may be called again. Status, decision and begin have one deadline.
    func begin(_ decide: (HelperStatus) -> CommitmentSpan?) async throws(HelperTrouble) -> Bool {
        let deadline = system.now + Self.limit
        while true {
            let carrier = connected()
            let held = try await ask(.status, over: carrier, before: deadline)
            guard let span = decide(held) else { return held.holding }
            guard !carrier.isGone else { continue }
            return try await ask(.begin(span), over: carrier, before: deadline).holding
        }
    }

    func ask(_ request: HelperRequest) async throws(HelperTrouble) -> HelperStatus {
        try await ask(request, over: connected(), before: system.now + Self.limit)
    }

    /// Lets the helper exit when nothing holds.
    func disconnect() {
        connection?.invalidate()
        connection = nil
    }

    private func ask(
        _ request: HelperRequest, over carrier: any HelperConnection, before deadline: ContinuousClock.Instant
    ) async throws(HelperTrouble) -> HelperStatus {
        var timer: Task<Void, Never>?
        let result = await withCheckedContinuation { continuation in
            let first = FirstReply(continuation)
            timer = Task { [system] in
                await system.sleep(until: deadline)
                first.take(.failure(.silent))
            }
            if system.now >= deadline {
                first.take(.failure(.silent))
            } else {
                carrier.send(request, answer: first.take)
            }
        }
        timer?.cancel()
        if case .failure = result { disconnect() }
        return try result.get()
    }

    private func connected() -> any HelperConnection {
        if let connection, !connection.isGone { return connection }
        let made = system.connect()
        connection = made
        return made
    }
}

/// Resumes the continuation with the first of the reply, the error and the timeout: it must be resumed exactly once.
private final class FirstReply: Sendable {
    private let waiting: Mutex<CheckedContinuation<HelperReply, Never>?>

    init(_ continuation: CheckedContinuation<HelperReply, Never>) { waiting = Mutex(continuation) }

    @Sendable func take(_ reply: HelperReply) { waiting.withLock { $0.take() }?.resume(returning: reply) }
}
