import Foundation

@testable import HalvoHelperClient

/// A system with a helper, time that passes only when a test says so, and one log of what was asked of the helper and
/// its job; before a request is the number of its connection.
@MainActor
final class FakeSystem: HelperSystem {
    fileprivate var log: [String] = []
    private(set) var connections: [FakeConnection] = []

    var holds = HelperStatus(holding: false, until: nil, locked: false)
    /// Instead of a reply.
    var trouble: HelperTrouble?
    /// The replies, when they are held back.
    var heldBack: [() -> Void]?

    var registration = HelperRegistration.enabled
    /// What register() leads to, which throws unless that is `.enabled`.
    var nextRegistration = HelperRegistration.enabled
    var refusesToUnregister = false
    /// Called in unregister(), which ends after it.
    var whileUnregistering: () async -> Void = {}

    var version: String? = "2"
    var isRootsAlone = true
    var isBundleLocked = false

    let defaults = UserDefaults(suiteName: "HalvoHelperClientTests-\(UUID())")!
    private var loggedVersion: String? = "2"

    private(set) var now = ContinuousClock.now
    private let launched = ContinuousClock.now
    private var sleepers: [(deadline: ContinuousClock.Instant, sleeper: CheckedContinuation<Void, Never>)] = []
    var hasSleepers: Bool { !sleepers.isEmpty }
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
        await whileUnregistering()
        registration = .missing
    }

    func hold(for span: Double, registration: HelperRegistration = .enabled) {
        holds = HelperStatus(holding: true, until: date + span, locked: true)
        self.registration = registration
    }

    func letGo() { holds = HelperStatus(holding: false, until: nil, locked: false) }

    /// Replies, or fails, in a later turn, as NSXPC does.
    func receive(_ request: HelperRequest, over connection: FakeConnection, answer: @escaping (HelperReply) -> Void) {
        let words =
            switch request {
            case .begin(let span): "begin \(Int(span.until.timeIntervalSince(span.started)))"
            case .heartbeat(let sessionEnding): sessionEnding ? "ending" : "heartbeat"
            case .end: "end"
            case .status: "status"
            }
        log.append("\(connection.number) \(words)")
        // One that holds runs, whatever has become of its registration.
        let isThere = connection.isValid && (registration == .enabled || holds.holding)
        let trouble = isThere ? trouble : .away
        if trouble == .silent { return }
        let carryOut = { @MainActor [self] in
            if let trouble { return answer(.failure(trouble)) }
            let before = holds
            if case .begin(let span) = request { hold(for: span.until.timeIntervalSince(date)) }
            if request == .end { letGo() }
            answer(.success(request == .end ? before : holds))
        }
        if heldBack == nil { Task { carryOut() } } else { heldBack?.append(carryOut) }
    }

    func sleep(until deadline: ContinuousClock.Instant) async {
        while now < deadline && !Task.isCancelled {
            await withTaskCancellationHandler {
                await withCheckedContinuation { sleepers.append((deadline, $0)) }
            } onCancel: {
                Task { @MainActor in wake() }
            }
        }
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
        await settle()
        while let next = sleepers.map(\.deadline).min(), next <= end {
            now = max(now, next)
            wake()
            await settle()
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

    /// Lets all that can run on the main actor run.
    private func settle() async {
        for _ in 0..<100 { await Task.yield() }
    }
}

@MainActor
final class FakeConnection: HelperConnection {
    private let system: FakeSystem
    let number: Int
    private(set) var isValid = true
    private(set) var whenGone: (@MainActor @Sendable () -> Void)?

    init(_ system: FakeSystem, _ number: Int) {
        self.system = system
        self.number = number
    }

    func resume(whenGone: @escaping @MainActor @Sendable () -> Void) { self.whenGone = whenGone }

    func send(_ request: HelperRequest, answer: @escaping @Sendable (HelperReply) -> Void) {
        system.receive(request, over: self, answer: answer)
    }

    func invalidate() {
        isValid = false
        system.log.append("\(number) closed")
    }
}
