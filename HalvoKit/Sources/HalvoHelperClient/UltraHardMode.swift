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
    /// That many calls in a row fail before the job is taken for gone: a helper may just be restarted.
    static let failuresOfAGoneJob = 2
    static let pauseBeforeRegistration = Duration.seconds(1)
    /// How long the helper does not open the app after the announcement.
    static let sessionEndGrace = Duration.seconds(90)

    @ObservationIgnored private let system: any HelperSystem
    @ObservationIgnored private let client: HelperClient
    /// Once in a process, so that a helper that never answers is not registered again and again.
    @ObservationIgnored private var hasRenewed = false
    /// Over when the end of the session was announced, and that was answered.
    @ObservationIgnored private(set) var announcement: Task<Void, Never>?
    @ObservationIgnored private var latest: Task<Void, Never>?

    init(_ system: any HelperSystem) {
        self.system = system
        client = HelperClient(system)
    }

    /// At launch.
    func start() {
        inTurn { await self.run() }
    }

    /// When the app becomes active: the user may have been in System Settings.
    func becameActive() {
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
                if let span { self.defaults.heldUntil = max(span.until, self.defaults.heldUntil ?? .distantPast) }
                return span
            }
        }
    }

    /// Ends the user's commitment. Returns whether there was one.
    public func release() async throws(HelperTrouble) -> Bool {
        try await request { () async throws(HelperTrouble) in try await self.client.ask(.end).holding }
    }

    /// Before a logout, restart or shutdown: announces it. Then silent for as long as the announcement counts; if the
    /// app still runs after that, as before.
    func sessionIsEnding() {
        announcement = inTurn { _ = try? await self.client.ask(.heartbeat(sessionEnding: true)) }
        inTurn {
            await self.sleep(Self.sessionEndGrace)
            await self.run()
        }
    }

    private func request(
        _ work: @escaping @MainActor () async throws(HelperTrouble) -> Bool
    ) async throws(HelperTrouble) -> Bool {
        let result = await withCheckedContinuation { continuation in
            inTurn {
                continuation.resume(returning: await resultOf(work))
                // Not when something came after it: that ends with the same, and must not be cut short.
                if !Task.isCancelled { self.start() }
            }
        }
        return try result.get()
    }

    /// One thing at a time, in the order of the calls: no begin while the helper is registered again. What runs is
    /// cancelled, which ends only pauses.
    @discardableResult
    private func inTurn(_ work: @escaping @MainActor () async -> Void) -> Task<Void, Never> {
        let before = latest
        before?.cancel()
        let task = Task {
            await before?.value
            await work()
        }
        latest = task
        return task
    }

    /// Asks and does what the answer calls for, until there is nothing left to do.
    private func run() async {
        var pause = Self.beat
        var failures = 0
        var hasRegistered = false
        var isHolding = false
        while !Task.isCancelled {
            let asked = system.now
            let answer = await ask(isHolding: isHolding)
            if Task.isCancelled { return }
            isHolding = answer == .success(true)
            if case .failure = answer { failures += 1 } else { failures = 0 }
            switch (answer, system.registration) {
            case (.success(true), _):
                pause = Self.beat
            case (_, .needsApproval):
                return stop(as: .needsApproval)
            case (_, .missing):
                guard system.isRootsAlone else { return stop(as: .needsInstallation) }
                if hasRegistered { return stop(as: .notRegistered) }
                hasRegistered = true
                register()
                continue
            case (_, .enabled):
                if isOutdated(answer, failures), mayRenew {
                    // A commitment may have been made since if the app was stopped.
                    guard system.now < asked + HelperClient.limit else { continue }
                    hasRegistered = true
                    await renew()
                    continue
                }
                guard case .failure(let trouble) = answer else { return stop(as: .ready) }
                state = .noAnswer(trouble)
                pause = min(pause * 2, Self.longestPause)
            }
            await sleep(pause)
        }
    }

    /// Whether the job that is registered seems not to be the one in the bundle.
    private func isOutdated(_ answer: Result<Bool, HelperTrouble>, _ failures: Int) -> Bool {
        switch answer {
        // launchd may still run the helper of another version.
        case .success: defaults.registeredVersion != system.version
        // launchd does not know the job, or an old helper runs.
        case .failure(.away), .failure(.incompatible): failures >= Self.failuresOfAGoneJob
        // It runs, and may hold a commitment.
        case .failure(.silent), .failure(.untrusted): false
        }
    }

    /// Never while a commitment holds or may hold: who is bound by it could then refuse the approval. It may be another
    /// user's, of which the lock is all that this one sees.
    private var mayRenew: Bool {
        let mayHold = system.isBundleLocked || (defaults.heldUntil ?? .distantPast) > system.date
        return !mayHold && !hasRenewed && system.isRootsAlone
    }

    /// Whether a commitment holds: by a heartbeat while one does, otherwise by the status.
    private func ask(isHolding: Bool) async -> Result<Bool, HelperTrouble> {
        await resultOf { () async throws(HelperTrouble) in
            if isHolding, try await self.client.ask(.heartbeat(sessionEnding: false)).holding { return true }
            let status = try await self.client.ask(.status)
            self.defaults.heldUntil = status.holding ? status.until : nil
            if status.holding { self.state = .holding(status) }
            return status.holding
        }
    }

    private func register() {
        do {
            try system.register()
            registrationFailure = nil
        } catch {
            registrationFailure = system.registration == .needsApproval ? nil : error.localizedDescription
        }
        // Also when it waits for approval: it is this version that is started after that.
        if system.registration != .missing { defaults.registeredVersion = system.version }
    }

    /// Unregisters and registers. Stops the helper, and may need an approval again.
    private func renew() async {
        hasRenewed = true
        client.disconnect()
        do {
            try await system.unregister()
        } catch {
            registrationFailure = error.localizedDescription
            return
        }
        // Documented as safe at once, but reported to fail then: developer.apple.com/forums/thread/768592.
        await sleep(Self.pauseBeforeRegistration)
        register()
    }

    /// Lets the helper exit.
    private func stop(as reached: State) {
        client.disconnect()
        state = reached
    }

    private var defaults: UserDefaults { system.defaults }

    private func sleep(_ span: Duration) async { await system.sleep(until: system.now + span) }
}

@MainActor
private func resultOf(_ work: () async throws(HelperTrouble) -> Bool) async -> Result<Bool, HelperTrouble> {
    do throws(HelperTrouble) { return .success(try await work()) } catch { return .failure(error) }
}
