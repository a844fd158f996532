public import Foundation
internal import HalvoRecordsC

/// The record that the app writes about itself, for processes that find it not running.
public struct KeepAliveState: SharedRecord, Hashable, Flat {
    /// The app's process and its bundle.
    public var pid: Int32, appPath: String
    /// Whether the app's last run ended cleanly.
    public var clean: Bool
    /// The end of the running commitment; `nil` when none runs.
    public var commitmentUntil: Date?
    /// Whether Ultra Hard mode was on; whether the app was released from it, false in files older than this member.
    public var ultraHard: Bool, appReleased: Bool
    /// Whether a bypass was already recorded for this commitment; false in files older than this member.
    public var bypassNoted: Bool
    /// When the record was written.
    public var updatedAt: Date

    public init(
        pid: Int32, appPath: String, clean: Bool, commitmentUntil: Date?, ultraHard: Bool, appReleased: Bool,
        bypassNoted: Bool, updatedAt: Date
    ) {
        (self.pid, self.appPath, self.clean, self.commitmentUntil) = (pid, appPath, clean, commitmentUntil)
        (self.ultraHard, self.appReleased, self.bypassNoted) = (ultraHard, appReleased, bypassNoted)
        self.updatedAt = updatedAt
    }

    /// Decodes JSON, as all ``SharedRecord``s do.
    public init(json: Data) throws(RecordError) { self = try call(halvo_keep_alive_decode, json) }

    public func json() throws(RecordError) -> Data { try call(halvo_keep_alive_encode, self) }

    /// `keepalive.json` in the app group's container, whose path is found once.
    public static let file = SharedFile<KeepAliveState>(path: certain(halvo_keep_alive_file))

    /// Whether to open the app again, which does not run at `date`: it did not end cleanly, and a commitment runs past
    /// `date`.
    public func shouldRelaunch(at date: Date) -> Bool { certain(halvo_keep_alive_should_relaunch, self, date) }

    /// Whether Ultra Hard mode was bypassed, given that the app did not run until `date`: it did not end cleanly, was not
    /// relaunched by the agent, and last wrote this record while the commitment ran, more than two minutes before `date`.
    public func wasBypassed(relaunchedByAgent: Bool, at date: Date) -> Bool {
        certain(halvo_keep_alive_was_bypassed, self, relaunchedByAgent, date)
    }

    /// Whether the app at the path `fromBin` may be opened: from the Trash only while Ultra Hard mode holds it.
    public func mayOpen(fromBin path: String) -> Bool { certain(halvo_keep_alive_may_open, self, path) }

    init(from flat: inout FlatReader) {
        (pid, appPath, clean, commitmentUntil, ultraHard, appReleased, bypassNoted, updatedAt) = flat.all()
    }

    func put(into flat: inout FlatWriter) {
        flat.put(pid, appPath, clean, commitmentUntil, ultraHard, appReleased, bypassNoted, updatedAt)
    }
}
