import Foundation

@testable import HalvoHelperClient

struct Change: Sendable {
    let make: @MainActor @Sendable (FakeSystem) -> Void
}

/// A system with a helper, time that passes only when a test says so, and one log of what was asked of the helper and
/// its job; before a request is the number of its connection.
@MainActor
final class FakeSystem: HelperSystem {
    fileprivate(set) var log: [String] = []
    private(set) var connections: [FakeConnection] = []

    /// The end of the commitment that holds.
    var heldUntil: Date?
    var holds: HelperStatus { HelperStatus(holding: heldUntil != nil, until: heldUntil, locked: heldUntil != nil) }
    /// Instead of a reply.
    var trouble: HelperTrouble?
    /// The time until a reply, in seconds.
    var delay = 0.0
    /// Done once, between a reply and what the app does on it.
    var afterReply: () -> Void = {}

    var registration = HelperRegistration.enabled
    /// What register() leads to, which throws unless that is `.enabled`.
    var nextRegistration = HelperRegistration.enabled
    var refusesToUnregister = false

    var version: String? = "2"
    var isRootsAlone = true
    var isBundleLocked = false

    let defaults = UserDefaults(suiteName: "HalvoHelperClientTests-\(UUID())")!
    private var loggedVersion: String? = "2"

    private(set) var now = ContinuousClock.now
    private let launched = ContinuousClock.now
    private(set) var sleepers: [(deadline: ContinuousClock.Instant, sleeper: CheckedContinuation<Void, Never>)] = []
    var date: Date { Date(timeIntervalSince1970: 1_000_000 + (now - launched) / .seconds(1)) }

    init() { defaults.registeredVersion = loggedVersion }

    func connect() -> any HelperConnection {
        connections.append(FakeConnection(self, connections.count + 1))
        return connections.last!
    }

    func register() throws {
        log.append("register")
        registration = nextRegistration
        if registration != .enabled { throw CocoaError(.userCancelled) }
    }

    func unregister() async throws {
        log.append("unregister")
        if refusesToUnregister { throw CocoaError(.userCancelled) }
        await wait()
        registration = .missing
    }

    func hold(_ span: Double) { heldUntil = date + span }

    func sleep(until deadline: ContinuousClock.Instant) async {
        while now < deadline && !Task.isCancelled {
            await withTaskCancellationHandler {
                await withCheckedContinuation { sleepers.append((deadline, $0)) }
            } onCancel: {
                Task { @MainActor in wake() }
            }
        }
    }

    /// Whether the task is cancelled or not.
    fileprivate func wait() async {
        let deadline = now + exactly(delay)
        while now < deadline { await withCheckedContinuation { sleepers.append((deadline, $0)) } }
    }

    /// Those whose time has not come sleep again.
    private func wake() {
        for each in sleepers { each.sleeper.resume() }
        sleepers = []
    }

    /// Time passes while the app is stopped: nothing runs.
    func jump(_ span: Double) { now += exactly(span) }

    /// Lets time pass, and returns what was logged since the last call, with the version if another was registered.
    func logged(after span: Double = 0) async -> String {
        let end = now + exactly(span)
        while true {
            // All that can run on the main actor runs. Task.yield() alone would be called off the main actor.
            for _ in 0..<100 { await Task {}.value }
            guard let next = sleepers.map(\.deadline).min(), next <= end else { break }
            now = max(now, next)
            wake()
        }
        now = max(now, end)
        if defaults.registeredVersion != loggedVersion {
            loggedVersion = defaults.registeredVersion
            log.append("version \(loggedVersion ?? "")")
        }
        defer { log = [] }
        return log.joined(separator: ", ")
    }

    /// Sums of tenths are not what they seem.
    private func exactly(_ span: Double) -> Duration { .milliseconds((span * 1000).rounded()) }
}

@MainActor
final class FakeConnection: HelperConnection {
    private let system: FakeSystem
    private let number: Int
    var isGone = false

    init(_ system: FakeSystem, _ number: Int) {
        self.system = system
        self.number = number
    }

    /// Replies, or fails, in a later turn, as NSXPC does.
    func send(_ request: HelperRequest, answer: @escaping @Sendable (HelperReply) -> Void) {
        let words =
            switch request {
            case .begin(let span): "begin \(Int(span.until.timeIntervalSince(span.started)))"
            case .heartbeat(let sessionEnding): sessionEnding ? "ending" : "heartbeat"
            case .end, .status: "\(request)"
            }
        system.log.append("\(number) \(words)")
        // One that holds runs, whatever has become of its registration.
        let isThere = !isGone && (system.registration == .enabled || system.holds.holding)
        let trouble = isThere ? system.trouble : .away
        Task {
            await system.wait()
            if let trouble { return trouble == .silent ? () : answer(.failure(trouble)) }
            let before = system.holds
            if case .begin(let span) = request { system.heldUntil = span.until }
            if request == .end { system.heldUntil = nil }
            answer(.success(request == .end ? before : system.holds))
            system.afterReply()
            system.afterReply = {}
        }
    }

    func invalidate() {
        isGone = true
        system.log.append("\(number) closed")
    }
}
