public import Foundation
internal import HalvoRecordsC

/// A record that is stored as JSON.
public protocol SharedRecord: Sendable {
    /// Decodes JSON. Unknown members are ignored. Throws the path of the first wrong member and what is wrong with it.
    init(json: Data) throws(RecordError)

    /// The record as JSON: one object without whitespace, its keys in alphabetical order, dates in UTC to the second.
    /// Throws for a date outside the years 0 to 9999.
    func json() throws(RecordError) -> Data
}

/// A record in a file that the app's processes share. A value that holds only the path. Any thread and any process,
/// without locks: a reader gets what one writer wrote, whole, and the last write counts.
public struct SharedFile<Record: SharedRecord>: Sendable, Hashable {
    /// The file.
    public let url: URL

    /// The file at `url`, a file URL.
    public init(url: URL) { self.url = url }

    /// The file `name` in a folder.
    public init(name: String, in folder: URL) {
        self.init(url: folder.appending(path: name, directoryHint: .notDirectory))
    }

    /// The record; `nil` when the file is missing, or cannot be read or decoded.
    public func read() -> Record? { try? load() }

    /// The record. Throws the file's path and the reason, also for a file longer than 1 MiB.
    public func load() throws(RecordError) -> Record {
        let json: Data = try call(halvo_file_read, path)
        return try explained { () throws(RecordError) in try Record(json: json) }
    }

    /// Replaces the file atomically, with the permissions 0600. The folder must exist. Throws the file's path and the
    /// reason when the record has no JSON, is longer than 1 MiB, or cannot be written; a whole file is there in any case.
    public func write(_ record: Record) throws(RecordError) {
        let json = try explained { () throws(RecordError) in try record.json() }
        let _: Nothing = try call(halvo_file_store, path, json)
    }

    /// Deletes the file; failures are ignored.
    public func remove() { let _: Nothing = certain(halvo_file_remove, path) }

    init(path: String) { self.init(url: URL(filePath: path)) }

    private var path: String { url.path(percentEncoded: false) }

    /// Puts the file's path before a failure of the record.
    private func explained<T>(_ action: () throws(RecordError) -> T) throws(RecordError) -> T {
        do { return try action() } catch { throw RecordError(path: path, problem: error.description) }
    }
}

/// The folder that the app shares with its widgets and its intents.
public enum AppGroup {
    /// The group: the string under `HalvoAppGroup` in the main bundle's Info.plist, if there is one.
    public static var identifier: String? { certain(halvo_group_identifier) }

    /// The folder of the group, which is made when it is missing; without a group, or where the process may not use it,
    /// `Halvo-NoGroup` in the folder for the data of the user's apps. Failures show when a file in it is read or written.
    public static var container: URL { URL(filePath: certain(halvo_group_container) as String, directoryHint: .isDirectory) }
}

/// The app's launch arguments.
public enum LaunchReason {
    /// Followed by `YES`: the app was quit and is relaunched.
    public static let relaunchArgument = all[0]
    /// The arguments of the process that the app leaves running after it has quit.
    public static let afterQuitArguments = Array(all.dropFirst())

    private static let all: [String] = certain(halvo_launch_arguments)
}
