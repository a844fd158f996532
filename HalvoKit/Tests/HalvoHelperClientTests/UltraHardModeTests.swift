import Foundation
import Testing

@testable import HalvoHelperClient

@MainActor
struct UltraHardModeTests {
    typealias State = UltraHardMode.State

    let helper = FakeSystem()
    let mode: UltraHardMode

    init() { mode = UltraHardMode(helper) }

    /// What is logged in the time that passes, and the state then; without one, that of what holds.
    private func expect(
        after span: Double = 0, _ log: String, _ state: State? = nil, at place: SourceLocation = #_sourceLocation
    ) async {
        #expect(await helper.logged(after: span) == log, sourceLocation: place)
        #expect(mode.state == state ?? .holding(helper.holds), sourceLocation: place)
    }

    private func commit(_ span: Double, _ then: Change = Change { _ in }) -> Task<Bool, any Error> {
        let start = helper.date
        return Task {
            try await mode.commit { _ in
                then.make(helper)
                return CommitmentSpan(until: start + span, started: start)
            }
        }
    }

    /// The app is of version 3, and 2 was registered last. What it does after its launch, and the state then.
    @Test(arguments: [
        // What holds is kept, whatever else there is to do.
        (Change { $0.hold(60) }, "1 status", nil),
        (Change { $0.hold(60); $0.registration = .missing }, "1 status", nil),
        (Change { $0.hold(60); $0.registration = .needsApproval }, "1 status", nil),
        // Also another user's, of which only the lock shows.
        (Change { $0.isBundleLocked = true }, "1 status, 1 closed", .ready),
        // Another version is replaced once.
        (Change { $0.version = "2" }, "1 status, 1 closed", .ready),
        (Change { _ in }, "1 status, 1 closed, unregister, register, 2 status, 2 closed, version 3", .ready),
        (Change { $0.isRootsAlone = false }, "1 status, 1 closed", .ready),
        (Change { $0.refusesToUnregister = true }, "1 status, 1 closed, unregister, 2 status, 2 closed", .ready),
        (
            Change { $0.nextRegistration = .missing },
            "1 status, 1 closed, unregister, register, 2 status, 2 closed", .notRegistered
        ),
        // On a fresh answer only: the app is stopped, and another process makes a commitment.
        (Change { helper in helper.afterReply = { helper.jump(5); helper.hold(60) } }, "1 status, 1 status", nil),
        // Not registered, or not allowed.
        (Change { $0.registration = .needsApproval }, "1 status, 1 closed", .needsApproval),
        (
            Change { ($0.registration, $0.isBundleLocked) = (.missing, true) },
            "1 status, 1 closed, register, 2 status, 2 closed, version 3", .ready
        ),
        (Change { ($0.registration, $0.isRootsAlone) = (.missing, false) }, "1 status, 1 closed", .needsInstallation),
        (
            Change { ($0.registration, $0.nextRegistration) = (.missing, .missing) },
            "1 status, 1 closed, register, 2 status, 2 closed", .notRegistered
        ),
        (
            Change { ($0.registration, $0.nextRegistration) = (.missing, .needsApproval) },
            "1 status, 1 closed, register, 2 status, 2 closed, version 3", .needsApproval
        ),
    ] as [(Change, String, State?)])
    func launches(given: Change, log: String, state: State?) async {
        helper.version = "3"
        given.make(helper)
        mode.start()
        await expect(after: 1, log, state)
        let reason = CocoaError(.userCancelled).localizedDescription
        #expect(mode.registrationFailure == (state == .notRegistered || helper.refusesToUnregister ? reason : nil))
    }

    /// Registered, but there is no answer for 20 seconds: whether the job is replaced.
    @Test(arguments: [
        (.away, true, Change { _ in }), (.incompatible, true, Change { _ in }),
        (.silent, false, Change { _ in }), (.untrusted, false, Change { _ in }),
        (.away, false, Change { $0.defaults.heldUntil = $0.date + 21 }),
        (.away, true, Change { $0.defaults.heldUntil = $0.date }),
    ] as [(HelperTrouble, Bool, Change)])
    func replacesAGoneJobButNoneThatMayHoldACommitment(trouble: HelperTrouble, isReplaced: Bool, given: Change) async {
        helper.trouble = trouble
        given.make(helper)
        mode.start()
        #expect(await helper.logged(after: 20).contains("unregister") == isReplaced)
        #expect(mode.state == .noAnswer(trouble))
    }

    @Test func replacesAGoneJobAtTheSecondFailureOnce() async {
        helper.trouble = .away
        mode.start()
        await expect(after: 3.9, "1 status, 1 closed", .noAnswer(.away))
        await expect(after: 1, "2 status, 2 closed, unregister", .noAnswer(.away))
        await expect(after: 0.1, "register, 3 status, 3 closed", .noAnswer(.away))
        for _ in 0..<2 {
            #expect(await !helper.logged(after: 600).contains("register"))
            mode.becameActive()
        }
    }

    /// What the user changes, and what the app does when it becomes active then; before that it does nothing.
    @Test(arguments: [
        (Change { $0.registration = .needsApproval }, Change { $0.registration = .enabled }, "2 status, 2 closed"),
        (
            Change { ($0.registration, $0.isRootsAlone) = (.missing, false) }, Change { $0.isRootsAlone = true },
            "2 status, 2 closed, register, 3 status, 3 closed"
        ),
        (
            Change { ($0.registration, $0.nextRegistration) = (.missing, .missing) },
            Change { $0.nextRegistration = .enabled }, "3 status, 3 closed, register, 4 status, 4 closed"
        ),
        (Change { $0.trouble = .untrusted }, Change { $0.trouble = nil }, "2 status, 2 closed"),
    ] as [(Change, Change, String)])
    func goesOnWhenItBecomesActive(given: Change, change: Change, log: String) async {
        given.make(helper)
        mode.start()
        _ = await helper.logged()
        if helper.trouble == nil { #expect(await helper.logged(after: 600) == "") }
        change.make(helper)
        mode.becameActive()
        await expect(log, .ready)
        #expect(mode.registrationFailure == nil)
        mode.becameActive()
        await expect(after: 600, "", .ready)
    }

    @Test func sendsHeartbeatsUntilNothingHoldsAndReplacesAnotherVersionThen() async {
        helper.version = "3"
        helper.hold(3600)
        mode.start()
        await expect("1 status")
        #expect(helper.defaults.heldUntil == helper.heldUntil)
        mode.becameActive()
        await expect(after: 1.9, "")
        await expect(after: 4.1, "1 heartbeat, 1 heartbeat, 1 heartbeat")
        helper.heldUntil = nil
        await expect(
            after: 3, "1 heartbeat, 1 status, 1 closed, unregister, register, 2 status, 2 closed, version 3", .ready)
        #expect(helper.defaults.heldUntil == nil)
    }

    @Test(arguments: [HelperTrouble.away, .silent, .untrusted, .incompatible])
    func asksAgainWithPausesThatGrow(trouble: HelperTrouble) async {
        helper.hold(3600)
        mode.start()
        await expect("1 status")
        helper.trouble = trouble
        let wait = trouble == .silent ? 5.0 : 0
        for (number, pause) in zip(1..., [2.0, 4, 8, 16, 30, 30]) {
            #expect(await helper.logged(after: pause - 0.1) == "")
            let request = "\(number) \(number == 1 ? "heartbeat" : "status")"
            await expect(after: 0.1 + wait, "\(request), \(number) closed", .noAnswer(trouble))
        }
        helper.trouble = nil
        await expect(after: 30, "7 status")
        await expect(after: 2, "7 heartbeat")
    }

    @Test func commitsOverOneConnectionAndSendsHeartbeats() async throws {
        // One is decided after the other, on what that has left.
        let both = [commit(60), commit(120)]
        await expect(after: 4, "1 status, 1 begin 60, 1 status, 1 begin 120, 1 status, 1 heartbeat, 1 heartbeat")
        for each in both { #expect(try await each.value) }
        #expect(try await mode.commit { _ in nil })
        await expect("1 status, 1 status")
        #expect(try await mode.release())
        await expect(after: 10, "1 end, 1 status, 1 closed", .ready)
        #expect(try await !mode.release())
        await expect("2 end, 2 status, 2 closed", .ready)
        #expect(helper.sleepers.isEmpty)
    }

    /// The end of what held before, in seconds, and what may hold then.
    @Test(arguments: [(10.0, 60.0), (90, 90)])
    func remembersACommitmentWhoseReplyDidNotCome(before: Double, after: Double) async {
        let start = helper.date
        helper.defaults.heldUntil = start + before
        let begin = commit(60, Change { $0.trouble = .silent })
        await expect(after: 5, "1 status, 1 begin 60, 1 closed, 2 status", .starting)
        #expect(helper.defaults.heldUntil == start + after)
        await #expect(throws: HelperTrouble.silent) { try await begin.value }
    }

    @Test func commitsBeforeItReplaces() async throws {
        helper.version = "3"
        helper.delay = 1
        mode.start()
        await expect("1 status", .starting)
        let begin = commit(60)
        await expect(after: 4, "1 status, 1 begin 60, 1 status")
        #expect(try await begin.value)
    }

    @Test func commitsNothingWhileItReplaces() async throws {
        helper.version = "3"
        helper.afterReply = { [helper] in helper.delay = 20 }
        mode.start()
        await expect("1 status, 1 closed, unregister", .starting)
        helper.delay = 0
        let begin = commit(60)
        mode.start()
        await expect(after: 19.9, "", .starting)
        await expect(after: 0.1, "register, 2 status, 2 begin 60, 2 status, version 3")
        #expect(try await begin.value)
    }

    @Test func isSilentAfterTheAnnouncementOfTheSessionsEnd() async {
        helper.hold(3600)
        mode.start()
        await expect("1 status")
        // Also when a commitment is just being made.
        helper.delay = 1
        let begin = commit(60)
        await expect("1 status")
        mode.sessionIsEnding()
        helper.delay = 0
        await expect(after: 90.9, "1 begin 60, 1 ending", mode.state)
        await expect(after: 6.1, "1 status, 1 heartbeat, 1 heartbeat, 1 heartbeat")
        _ = await begin.result
    }

    @Test func waitsUntilTheAnnouncementIsAnswered() async {
        helper.trouble = .silent
        let begin = helper.now
        mode.sessionIsEnding()
        let announced = Task {
            await mode.announcement?.value
            return helper.now
        }
        await expect(after: 9, "1 ending, 1 closed", .starting)
        #expect(await announced.value == begin + .seconds(5))
    }
}
