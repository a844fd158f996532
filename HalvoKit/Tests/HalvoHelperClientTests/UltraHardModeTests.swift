import Foundation
import Testing

@testable import HalvoHelperClient

@MainActor
struct UltraHardModeTests {
    let helper = FakeHelper()
    let mode: UltraHardMode

    init() { mode = helper.mode() }

    /// What is logged at the launch, and the state then.
    private func launch(
        _ log: String, _ state: @autoclosure () -> UltraHardMode.State, at place: SourceLocation = #_sourceLocation
    ) async {
        mode.start()
        await expect(log, state(), at: place)
    }

    private func expect(
        after span: Double = 0, _ log: String, _ state: @autoclosure () -> UltraHardMode.State? = nil,
        at place: SourceLocation = #_sourceLocation
    ) async {
        #expect(await helper.logged(after: span) == log, sourceLocation: place)
        if let state = state() { #expect(mode.state == state, sourceLocation: place) }
    }

    private func commit(_ span: Double) -> Task<Bool, any Error> {
        let start = helper.clock.date
        return Task { try await mode.commit { _ in CommitmentSpan(until: start + span, started: start) } }
    }

    @Test func sendsHeartbeatsUntilNothingHolds() async {
        helper.hold(for: 3600)
        await launch("1 status", .holding(helper.holds))
        #expect(helper.heldUntil == helper.holds.until)
        mode.becameActive()
        await expect(after: 1.9, "")
        await expect(after: 4.1, "1 heartbeat, 1 heartbeat, 1 heartbeat", .holding(helper.holds))
        helper.letGo()
        await expect(after: 2, "1 heartbeat, 1 status, 1 closed", .ready)
        #expect(helper.heldUntil == nil)
        mode.becameActive()
        await expect(after: 600, "", .ready)
    }

    @Test(arguments: [HelperTrouble.away, .silent, .untrusted, .incompatible])
    func asksAgainWithPausesThatGrow(trouble: HelperTrouble) async {
        helper.hold(for: 3600)
        await launch("1 status", .holding(helper.holds))
        helper.trouble = trouble
        let wait = trouble == .silent ? 5.0 : 0
        for (number, pause) in zip(1..., [2.0, 4, 8, 16, 30, 30]) {
            await expect(after: pause - 0.1, "")
            let request = "\(number) \(number == 1 ? "heartbeat" : "status")"
            await expect(after: 0.1 + wait, "\(request), \(number) closed", .noAnswer(trouble))
        }
        helper.trouble = nil
        await expect(after: 30, "7 status", .holding(helper.holds))
        await expect(after: 2, "7 heartbeat")
    }

    @Test func registersAtTheFirstLaunch() async {
        helper.status = .notFound
        helper.registeredVersion = "1"
        _ = await helper.logged()
        await launch("1 status, 1 closed, register, version 2, 2 status, 2 closed", .ready)
    }

    @Test func goesOnWhenTheUserHasApproved() async {
        helper.status = .notRegistered
        helper.registeredVersion = nil
        helper.statusAfterRegistration = .requiresApproval
        helper.refusesToRegister = true
        _ = await helper.logged()
        await launch("1 status, 1 closed, register, version 2, 2 status, 2 closed", .needsApproval)
        #expect(mode.registrationFailure == nil)
        mode.becameActive()
        await expect(after: 600, "3 status, 3 closed", .needsApproval)
        helper.status = .enabled
        mode.becameActive()
        // Not registered again: that could need an approval again.
        await expect(after: 600, "4 status, 4 closed", .ready)
    }

    @Test func keepsTheReasonOfAFailedRegistration() async {
        helper.status = .notFound
        helper.statusAfterRegistration = .notFound
        helper.refusesToRegister = true
        helper.registeredVersion = "1"
        _ = await helper.logged()
        await launch("1 status, 1 closed, register, 2 status, 2 closed", .notRegistered)
        #expect(mode.registrationFailure == CocoaError(.userCancelled).localizedDescription)
        await expect(after: 600, "", .notRegistered)
        helper.refusesToRegister = false
        helper.statusAfterRegistration = .enabled
        mode.becameActive()
        await expect("3 status, 3 closed, register, version 2, 4 status, 4 closed", .ready)
        #expect(mode.registrationFailure == nil)
    }

    @Test func registersNothingThatOthersThanRootCanChange() async {
        helper.status = .notRegistered
        helper.isRootsAlone = false
        await launch("1 status, 1 closed", .needsInstallation)
        helper.isRootsAlone = true
        mode.becameActive()
        await expect("2 status, 2 closed, register, 3 status, 3 closed", .ready)
    }

    @Test func registersAgainForANewVersionWhenNothingHolds() async {
        helper.version = "3"
        helper.hold(for: 3600)
        await launch("1 status", .holding(helper.holds))
        await expect(after: 4, "1 heartbeat, 1 heartbeat")
        helper.letGo()
        await expect(
            after: 3, "1 heartbeat, 1 status, 1 closed, unregister, register, version 3, 2 status, 2 closed", .ready)
    }

    @Test func registersAgainOnlyOnAFreshAnswer() async {
        helper.version = "3"
        helper.heldBack = []
        await launch("1 status", .starting)
        // The reply comes in time, the app is stopped then, and another process makes a commitment.
        helper.heldBack?.removeFirst()()
        helper.clock.jump(5)
        helper.heldBack = nil
        helper.hold(for: 60)
        await expect("1 status", .holding(helper.holds))
    }

    /// Whether it is the removal or the registration that fails.
    @Test(arguments: [true, false])
    func keepsTheReasonWhyAnOldHelperCouldNotBeReplaced(stays: Bool) async {
        helper.version = "3"
        helper.refusesToUnregister = stays
        helper.refusesToRegister = true
        helper.statusAfterRegistration = .notRegistered
        mode.start()
        await expect(
            after: 1, "1 status, 1 closed, unregister, \(stays ? "" : "register, ")2 status, 2 closed",
            stays ? .ready : .notRegistered)
        #expect(mode.registrationFailure == CocoaError(.userCancelled).localizedDescription)
    }

    @Test func repairsAGoneJobOnce() async {
        helper.trouble = .away
        await launch("1 status, 1 closed", .noAnswer(.away))
        await expect(after: 4.9, "2 status, 2 closed, unregister")
        await expect(after: 0.1, "register, 3 status, 3 closed", .noAnswer(.away))
        for _ in 0..<2 {
            #expect(await !helper.logged(after: 600).contains("register"))
            mode.becameActive()
        }
        // The app becoming active shortens the pause.
        _ = await helper.logged(after: 100)
        helper.trouble = nil
        mode.becameActive()
        _ = await helper.logged()
        #expect(mode.state == .ready)
    }

    @Test(arguments: [true, false])
    func repairsNothingWhileACommitmentMayHold(isLocked: Bool) async {
        helper.trouble = .away
        helper.version = "3"
        helper.isBundleLocked = isLocked
        helper.heldUntil = isLocked ? nil : helper.clock.date + 300
        mode.start()
        #expect(await !helper.logged(after: 290).contains("register"))
        helper.isBundleLocked = false
        #expect(await helper.logged(after: 50).contains("unregister, register"))
    }

    @Test func commitsOverOneConnectionAndSendsHeartbeats() async throws {
        await launch("1 status, 1 closed", .ready)
        #expect(try await commit(60).value)
        await expect(after: 4, "2 status, 2 begin 60, 2 status, 2 heartbeat, 2 heartbeat", .holding(helper.holds))
        #expect(try await mode.release())
        await expect(after: 10, "2 end, 2 status, 2 closed", .ready)
        #expect(try await !mode.release())
    }

    /// The end of what held before, in seconds, and what may hold then.
    @Test(arguments: [(10.0, 60.0), (90, 90)])
    func remembersACommitmentWhoseReplyDidNotCome(before: Double, after: Double) async {
        let start = helper.clock.date
        helper.heldUntil = start + before
        helper.heldBack = []
        let begin = commit(60)
        await expect("1 status")
        helper.trouble = .silent
        helper.heldBack?.removeFirst()()
        await expect(after: 5, "1 begin 60, 1 closed, 2 status")
        #expect(helper.heldUntil == start + after)
        await #expect(throws: HelperTrouble.silent) { try await begin.value }
    }

    @Test func decidesOnWhatTheCommitmentBeforeHasLeft() async throws {
        let both = [commit(60), commit(120)]
        await expect("1 status, 1 begin 60, 1 status, 1 begin 120, 1 status", .holding(helper.holds))
        for each in both { #expect(try await each.value) }
    }

    @Test func commitsBeforeItRegistersAgain() async throws {
        helper.version = "3"
        helper.heldBack = []
        await launch("1 status", .starting)
        let begin = commit(60)
        helper.heldBack?.removeFirst()()
        helper.heldBack = nil
        await expect("1 status, 1 begin 60, 1 status", .holding(helper.holds))
        #expect(try await begin.value)
    }

    @Test func commitsNothingWhileTheHelperIsRegisteredAgain() async throws {
        helper.version = "3"
        var isUnregistering = true
        helper.whileUnregistering = { while isUnregistering { await Task.yield() } }
        await launch("1 status, 1 closed, unregister", .starting)
        let begin = commit(60)
        mode.start()
        await expect(after: 20, "")
        isUnregistering = false
        #expect(try await begin.value)
        await expect("register, version 3, 2 status, 2 begin 60, 2 status", .holding(helper.holds))
    }

    @Test func isSilentAfterTheAnnouncementOfTheSessionsEnd() async {
        helper.hold(for: 3600)
        await launch("1 status", .holding(helper.holds))
        let announcement = Task { await mode.sessionIsEnding() }
        await expect(after: 89.9, "1 ending")
        await announcement.value
        await expect(after: 6.1, "1 status, 1 heartbeat, 1 heartbeat, 1 heartbeat", .holding(helper.holds))
    }

    @Test func waitsUntilTheAnnouncementIsAnswered() async {
        helper.trouble = .silent
        var isAnnounced = false
        Task {
            await mode.sessionIsEnding()
            isAnnounced = true
        }
        await expect(after: 4.9, "1 ending")
        #expect(!isAnnounced)
        await expect(after: 0.1, "1 closed")
        #expect(isAnnounced)
    }

    @Test(arguments: [
        (["App", "-x", "-halvoRelaunchedAfterQuit", "YES", "y"], true),
        (["App", "-halvoRelaunchedAfterQuit", "NO"], false), (["App", "-halvoRelaunchedAfterQuit"], false),
        (["App", "halvoRelaunchedAfterQuit", "YES"], false), ([], false),
    ])
    func knowsThatTheHelperOpenedTheApp(arguments: [String], isRelaunch: Bool) {
        #expect(UltraHardMode.wasRelaunchedAfterQuit(arguments) == isRelaunch)
    }
}
