// What the Swift of docs/shared-records.md uses of WidgetKit, as Apple's documentation declares it: for type checks only.
public import Foundation

public protocol TimelineEntry { var date: Date { get } }

public struct TimelineProviderContext {}

public struct TimelineReloadPolicy: Equatable, Sendable {
    public static func after(_ date: Date) -> TimelineReloadPolicy { fatalError() }
}

public struct Timeline<EntryType: TimelineEntry> {
    public init(entries: [EntryType], policy: TimelineReloadPolicy) { fatalError() }
}

public protocol TimelineProvider {
    associatedtype Entry: TimelineEntry
    typealias Context = TimelineProviderContext

    func placeholder(in context: Context) -> Entry
    func getSnapshot(in context: Context, completion: @escaping @Sendable (Entry) -> Void)
    func getTimeline(in context: Context, completion: @escaping @Sendable (Timeline<Entry>) -> Void)
}
