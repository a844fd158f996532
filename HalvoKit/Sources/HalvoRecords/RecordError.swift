/// Why a record could not be decoded, encoded, read or written, or a time zone cannot be used.
public struct RecordError: Error, Hashable, CustomStringConvertible {
    /// Where it is: a member of the record, such as `phases[3].state.block._0.level`, or the file's path. Empty for the
    /// whole record, and for a time zone.
    public let path: String
    /// A sentence, or the predicate of one, without a full stop.
    public let problem: String

    /// For a person: `PATH: PROBLEM`.
    public var description: String { path.isEmpty ? problem : "\(path): \(problem)" }
}
