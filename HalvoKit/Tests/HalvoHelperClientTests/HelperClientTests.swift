import Foundation
import Testing

@testable import HalvoHelperClient

@MainActor
struct HelperClientTests {
    /// What happens between status and begin, what the begin leads to, and what is sent, with a status afterwards.
    @Test(arguments: [
        (Change { _ in }, .success(true), "1 status, 1 begin 60, 1 status"),
        // The helper exits: no begin without a decision on the status over its own connection.
        (Change { $0.connections[0].isGone = true }, .success(true), "1 status, 2 status, 2 begin 60, 2 status"),
        // The app is stopped: status and begin have one deadline.
        (Change { $0.jump(4.9) }, .success(true), "1 status, 1 begin 60, 1 status"),
        (Change { $0.jump(5) }, .failure(.silent), "1 status, 1 closed, 2 status"),
        // The reply takes long; one that comes too late is ignored.
        (Change { $0.jump(3); $0.delay = 1.9 }, .success(true), "1 status, 1 begin 60, 1 status"),
        (Change { $0.jump(3); $0.delay = 2.1 }, .failure(.silent), "1 status, 1 begin 60, 1 closed, 2 status"),
        // Nothing is sent twice.
        (Change { $0.trouble = .away }, .failure(.away), "1 status, 1 begin 60, 1 closed, 2 status"),
    ] as [(Change, Result<Bool, HelperTrouble>, String)])
    func begins(meanwhile: Change, result: Result<Bool, HelperTrouble>, log: String) async throws {
        let helper = FakeSystem()
        let client = HelperClient(helper)
        let begin = Task {
            try await client.begin { held in
                if helper.connections.count == 1 { meanwhile.make(helper) }
                return held.holding ? nil : CommitmentSpan(until: helper.date + 60, started: helper.date)
            }
        }
        let before = await helper.logged(after: 9)
        #expect(await begin.result.mapError { $0 as! HelperTrouble } == result)
        (helper.trouble, helper.delay) = (nil, 0)
        _ = try await client.ask(.status)
        #expect(await before + ", " + helper.logged() == log)
    }
}
