import Foundation

@testable import HalvoHelperClient

/// Time that passes only when a test says so.
@MainActor
final class FakeClock: HelperClock {
    private(set) var now = ContinuousClock.now
    private(set) var date = Date(timeIntervalSince1970: 1_000_000)
    private var sleepers: [Int: (deadline: ContinuousClock.Instant, sleeper: CheckedContinuation<Void, Never>)] = [:]
    private var count = 0
    var hasSleepers: Bool { !sleepers.isEmpty }

    func sleep(until deadline: ContinuousClock.Instant) async {
        count += 1
        let id = count
        await withTaskCancellationHandler {
            await withCheckedContinuation { sleeper in
                if Task.isCancelled { sleeper.resume() } else { sleepers[id] = (deadline, sleeper) }
            }
        } onCancel: {
            Task { @MainActor in self.sleepers.removeValue(forKey: id)?.sleeper.resume() }
        }
    }

    /// Time passes while the app is stopped: nothing runs.
    func jump(_ span: Double) {
        now += .seconds(span)
        date += span
    }

    /// Time passes in steps, so that what wakes can sleep again.
    func pass(_ span: Double) async {
        await settle()
        for _ in 0..<Int((span * 10).rounded()) {
            jump(0.1)
            // Sums of tenths are a little less than what is slept until.
            let due = sleepers.filter { $0.value.deadline <= now + .milliseconds(1) }
            for (id, entry) in due {
                sleepers[id] = nil
                entry.sleeper.resume()
            }
            if !due.isEmpty { await settle() }
        }
    }

    /// Lets all that can run on the main actor run.
    private func settle() async {
        for _ in 0..<100 { await Task.yield() }
    }
}

/// The helper, its job and what the app remembers, with one log of what was asked of them; before a request is the
/// number of its connection.
@MainActor
final class FakeHelper: HelperService, HelperMemory {
    let clock = FakeClock()
    var log: [String] = []
    private(set) var connections: [FakeConnection] = []

    var holds = HelperStatus(holding: false, until: nil, locked: false)
    /// Instead of a reply.
    var trouble: HelperTrouble?
    /// The replies, when they are held back.
    var heldBack: [() -> Void]?

    var status = ServiceStatus.enabled
    var statusAfterRegistration = ServiceStatus.enabled
    var version: String? = "2"
    var isRootsAlone = true
    var isBundleLocked = false
    var refusesToRegister = false
    var refusesToUnregister = false
    /// Called in unregister(), which ends after it.
    var whileUnregistering: () async -> Void = {}

    var registeredVersion: String? = "2" {
        didSet { if registeredVersion != oldValue { log.append("version \(registeredVersion ?? "")") } }
    }
    var heldUntil: Date?

    func client() -> HelperClient { HelperClient(clock: clock, connect: connect) }
    func mode() -> UltraHardMode { UltraHardMode(service: self, memory: self, clock: clock, connect: connect) }

    /// Lets time pass, and returns what was logged since the last call.
    func logged(after span: Double = 0) async -> String {
        await clock.pass(span)
        defer { log = [] }
        return log.joined(separator: ", ")
    }

    func hold(for span: Double) {
        holds = HelperStatus(holding: true, until: clock.date + span, locked: true)
    }

    func letGo() { holds = HelperStatus(holding: false, until: nil, locked: false) }

    private func connect() -> any HelperConnection {
        connections.append(FakeConnection(self, connections.count + 1))
        return connections.last!
    }

    func register() throws {
        log.append("register")
        status = statusAfterRegistration
        if refusesToRegister { throw CocoaError(.userCancelled) }
    }

    func unregister() async throws {
        log.append("unregister")
        if refusesToUnregister { throw CocoaError(.userCancelled) }
        await whileUnregistering()
        status = .notRegistered
    }
}

@MainActor
final class FakeConnection: HelperConnection {
    private let helper: FakeHelper
    private let number: Int
    private(set) var whenGone: (@MainActor @Sendable () -> Void)?
    private var isValid = true

    init(_ helper: FakeHelper, _ number: Int) {
        self.helper = helper
        self.number = number
    }

    func resume(whenGone: @escaping @MainActor @Sendable () -> Void) { self.whenGone = whenGone }

    func send(_ request: HelperRequest, answer: @escaping @Sendable (HelperReply) -> Void) {
        let words =
            switch request {
            case .begin(let span): "begin \(Int(span.until.timeIntervalSince(span.started)))"
            case .heartbeat(let sessionEnding): sessionEnding ? "ending" : "heartbeat"
            case .end: "end"
            case .status: "status"
            }
        helper.log.append("\(number) \(words)")
        let trouble = isValid && helper.status == .enabled ? helper.trouble : .away
        if trouble == .silent { return }
        let carryOut = { @MainActor [helper] in
            if let trouble { return answer(.failure(trouble)) }
            let before = helper.holds
            if case .begin(let span) = request { helper.hold(for: span.until.timeIntervalSince(helper.clock.date)) }
            if request == .end { helper.letGo() }
            answer(.success(request == .end ? before : helper.holds))
        }
        // In a later turn, as NSXPC does.
        if helper.heldBack == nil { Task { carryOut() } } else { helper.heldBack?.append(carryOut) }
    }

    func invalidate() {
        isValid = false
        helper.log.append("\(number) closed")
    }
}
