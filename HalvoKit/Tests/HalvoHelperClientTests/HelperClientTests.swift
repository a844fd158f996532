import Foundation
import Testing

@testable import HalvoHelperClient

@MainActor
struct HelperClientTests {
    let helper = FakeSystem()
    let client: HelperClient

    init() { client = HelperClient(helper) }

    private func minute(_ held: HelperStatus) -> CommitmentSpan? {
        held.holding ? nil : CommitmentSpan(until: helper.date + 60, started: helper.date)
    }

    @Test func beginsOnlyOverTheConnectionOfTheStatus() async throws {
        var decisions = 0
        let held = try await client.begin { held in
            decisions += 1
            // The helper exits before the first decision.
            if decisions == 1 { helper.connections[0].whenGone?() }
            return minute(held)
        }
        #expect(held)
        #expect(await helper.logged() == "1 status, 1 closed, 2 status, 2 begin 60")
    }

    /// Seconds for which the app is stopped between status and begin, and whether the begin is sent.
    @Test(arguments: [(4.9, true), (5, false), (86400, false)])
    func sendsNoBeginAfterTheDeadline(stopped: Double, isSent: Bool) async {
        let held = try? await client.begin { held in
            helper.jump(stopped)
            return minute(held)
        }
        #expect(held == (isSent ? true : nil))
        #expect(await helper.logged() == (isSent ? "1 status, 1 begin 60" : "1 status, 1 closed"))
    }

    @Test func hasOneDeadlineForStatusAndBegin() async {
        helper.heldBack = []
        let begin = Task { try await client.begin(minute) }
        #expect(await helper.logged(after: 3) == "1 status")
        helper.heldBack?.removeFirst()()
        #expect(await helper.logged(after: 1.9) == "1 begin 60")
        #expect(await helper.logged(after: 0.1) == "1 closed")
        await #expect(throws: HelperTrouble.silent) { try await begin.value }
        // A reply that comes too late is ignored.
        helper.heldBack?.removeFirst()()
    }

    @Test(arguments: [HelperTrouble.away, .untrusted, .incompatible])
    func connectsAgainAfterAFailureAndSendsNothingTwice(trouble: HelperTrouble) async throws {
        await #expect(throws: trouble) {
            try await client.begin { held in
                helper.trouble = trouble
                return minute(held)
            }
        }
        helper.trouble = nil
        _ = try await client.ask(.status)
        #expect(await helper.logged() == "1 status, 1 begin 60, 1 closed, 2 status")
        // News of a connection that is no longer used.
        helper.connections[0].whenGone?()
        _ = try await client.ask(.status)
        helper.connections[1].whenGone?()
        _ = try await client.ask(.status)
        #expect(await helper.logged() == "2 status, 2 closed, 3 status")
    }
}
