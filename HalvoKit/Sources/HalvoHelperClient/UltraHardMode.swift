import Foundation
import Observation

/// Ultra Hard mode as the app sees it: registers the helper, asks it, sends the heartbeats for as long as a commitment
/// holds, and announces the end of the session. One for the process; on macOS `init()` makes it.
@MainActor
@Observable
public final class UltraHardMode {
    public enum State: Equatable, Sendable {
        /// The helper has not been asked yet.
        case starting
        /// Nothing holds, and a commitment can be made.
        case ready
        case holding(HelperStatus)
        /// An administrator has not allowed the helper, or has switched it off. Goes on when the app becomes active.
        case needsApproval
        /// The app is not root's alone, so the helper is not registered.
        case needsInstallation
        /// See `registrationFailure`. Tried again when the app becomes active.
        case notRegistered
        /// Asked again, with pauses.
        case noAnswer(HelperTrouble)
    }

    /// For display.
    public private(set) var state = State.starting
    /// Why the last registration, or the removal of an old one, has failed; nil when it has not.
    public private(set) var registrationFailure: String?

    /// Well below the 6 seconds after which the helper looks whether the app runs.
    static let beat = Duration.seconds(2)
    static let longestPause = Duration.seconds(30)
    static let pauseBeforeRegistration = Duration.seconds(1)
    /// How long the helper does not open the app after the announcement.
    static let sessionEndGrace = Duration.seconds(90)

    @ObservationIgnored private let client: HelperClient
    @ObservationIgnored private let service: any HelperService
    @ObservationIgnored private let memory: any HelperMemory
    @ObservationIgnored private let clock: any HelperClock
    /// Once in a process, so that a helper that never answers is not registered again and again.
    @ObservationIgnored private var hasRenewed = false
    @ObservationIgnored private var latest: (cancel: () -> Void, isOver: () async -> Void)?

    init(
        service: any HelperService, memory: any HelperMemory, clock: any HelperClock,
        connect: @escaping () -> any HelperConnection
    ) {
        client = HelperClient(clock: clock, connect: connect)
        self.service = service
        self.memory = memory
        self.clock = clock
    }

    /// Whether the helper opened the app after it was quit. Any process can pass that argument: for messages only.
    public static func wasRelaunchedAfterQuit(_ arguments: [String] = ProcessInfo.processInfo.arguments) -> Bool {
        zip(arguments, arguments.dropFirst()).contains { $0 == ("-halvoRelaunchedAfterQuit", "YES") }
    }

    /// At launch.
    public func start() {
        inTurn { await self.run() }
    }

    /// When the app becomes active: the user may have been in System Settings.
    public func becameActive() {
        switch state {
        case .needsApproval, .needsInstallation, .notRegistered, .noAnswer: start()
        case .starting, .ready, .holding: break
        }
    }

    /// Begins what `decide` returns for what holds now; nil leaves that as it is. Returns whether a commitment holds
    /// then.
    ///
    /// The helper itself lets an earlier end shorten a commitment: `decide` is where the app rules that out. It may be
    /// called more than once, and must not depend on an earlier status.
    public func commit(
        _ decide: @escaping @MainActor @Sendable (HelperStatus) -> CommitmentSpan?
    ) async throws(HelperTrouble) -> Bool {
        try await request { () async throws(HelperTrouble) in
            try await self.client.begin { held in
                let span = decide(held)
                // Before it is sent: it may hold, even if no reply comes.
                if let span { self.memory.heldUntil = max(span.until, self.memory.heldUntil ?? .distantPast) }
                return span
            }
        }
    }

    /// Ends the user's commitment. Returns whether there was one.
    public func release() async throws(HelperTrouble) -> Bool {
        try await request { () async throws(HelperTrouble) in try await self.client.ask(.end).holding }
    }

    /// Before a logout, restart or shutdown: announces it, and returns when that was sent and answered. Then silent for
    /// as long as the announcement counts; if the app still runs after that, as before.
    public func sessionIsEnding() async {
        let announcement = inTurn { _ = try? await self.client.ask(.heartbeat(sessionEnding: true)) }
        inTurn { [clock] in
            await clock.sleep(until: clock.now + Self.sessionEndGrace)
            await self.run()
        }
        await announcement.value
    }

    private func request(
        _ work: @escaping @MainActor () async throws(HelperTrouble) -> Bool
    ) async throws(HelperTrouble) -> Bool {
        try await inTurn {
            defer { self.start() }
            return await resultOf(work)
        }.value.get()
    }

    /// One thing at a time, in the order of the calls: no begin while the helper is registered again. What runs is
    /// cancelled, which ends only pauses.
    @discardableResult
    private func inTurn<Value: Sendable>(_ work: @escaping @MainActor () async -> Value) -> Task<Value, Never> {
        let before = latest
        before?.cancel()
        let task = Task {
            await before?.isOver()
            return await work()
        }
        latest = (cancel: { task.cancel() }, isOver: { _ = await task.value })
        return task
    }

    /// Asks and does what the answer calls for, until there is nothing left to do.
    private func run() async {
        var pause = Self.beat
        var failures = 0
        var hasRegistered = false
        var isHolding = false
        while !Task.isCancelled {
            let asked = clock.now
            let answer = await ask(isHolding: isHolding)
            if Task.isCancelled { return }
            isHolding = answer == .success(true)
            if case .failure = answer { failures += 1 } else { failures = 0 }
            switch step(answer, failures, hasRegistered) {
            case .beat:
                pause = Self.beat
            case .askAgain(let trouble):
                state = .noAnswer(trouble)
                pause = min(pause * 2, Self.longestPause)
            case .register:
                hasRegistered = true
                register()
                continue
            case .renew:
                // A commitment may have been made since if the app was stopped.
                guard clock.now < asked + HelperClient.limit else { continue }
                hasRenewed = true
                hasRegistered = true
                await renew()
                continue
            case .rest: return stop(as: .ready)
            case .waitForApproval: return stop(as: .needsApproval)
            case .waitForInstallation: return stop(as: .needsInstallation)
            case .giveUp: return stop(as: .notRegistered)
            }
            await clock.sleep(until: clock.now + pause)
        }
    }

    /// Whether a commitment holds: by a heartbeat while one does, otherwise by the status.
    private func ask(isHolding: Bool) async -> Result<Bool, HelperTrouble> {
        await resultOf { () async throws(HelperTrouble) in
            if isHolding, try await self.client.ask(.heartbeat(sessionEnding: false)).holding { return true }
            let status = try await self.client.ask(.status)
            self.memory.heldUntil = status.holding ? status.until : nil
            if status.holding { self.state = .holding(status) }
            return status.holding
        }
    }

    private func step(_ answer: Result<Bool, HelperTrouble>, _ failures: Int, _ hasRegistered: Bool) -> HelperStep {
        let mayHold = service.isBundleLocked || (memory.heldUntil ?? .distantPast) > clock.date
        return HelperStep(
            .init(
                answer: answer, service: service.status, failures: failures,
                isCurrent: memory.registeredVersion == service.version, isRootsAlone: service.isRootsAlone,
                mayHold: mayHold, hasRegistered: hasRegistered, hasRenewed: hasRenewed))
    }

    private func register() {
        do {
            try service.register()
            registrationFailure = nil
        } catch {
            registrationFailure = service.status == .requiresApproval ? nil : error.localizedDescription
        }
        // Also when it waits for approval: it is this version that is started after that.
        if service.status == .enabled || service.status == .requiresApproval {
            memory.registeredVersion = service.version
        }
    }

    private func renew() async {
        client.disconnect()
        do {
            try await service.unregister()
        } catch {
            registrationFailure = error.localizedDescription
            return
        }
        // Documented as safe at once, but reported to fail then: developer.apple.com/forums/thread/768592.
        await clock.sleep(until: clock.now + Self.pauseBeforeRegistration)
        register()
    }

    /// Lets the helper exit.
    private func stop(as reached: State) {
        client.disconnect()
        state = reached
    }
}

@MainActor
private func resultOf(_ work: () async throws(HelperTrouble) -> Bool) async -> Result<Bool, HelperTrouble> {
    do throws(HelperTrouble) { return .success(try await work()) } catch { return .failure(error) }
}
