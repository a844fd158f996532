public import Foundation
internal import HalvoRecordsC

/// A deep link: the screen of the app that a widget, a control or an intent opens.
public enum HalvoLink: Sendable, Hashable {
    /// The breathing exercise. Any style and any number of minutes is valid.
    case breathe(style: String? = nil, minutes: Int? = nil)
    case focus
    case today
    case settings
    /// The main window; also for all URLs that are no link.
    case main

    /// Parses a URL; never fails. The scheme is ignored; of several query items of one name the first counts.
    public init(url: URL) { self.init(text: url.absoluteString) }

    init(text: String) { self = certain(halvo_link_reading, text) }

    /// The link's URL under ``scheme``.
    public var url: URL { url(scheme: Self.scheme) }

    /// The link's URL under `scheme`; `file:///` when that is invalid.
    public func url(scheme: String) -> URL {
        // What a URL cannot hold is percent-encoded.
        URL(string: certain(halvo_link_url, self, scheme))!
    }

    /// The scheme of the app's own links: the string under `HalvoURLScheme` in the main bundle's Info.plist, else `halvo`.
    public static var scheme: String { certain(halvo_link_scheme) }
}

extension HalvoLink: Flat {
    init(from flat: inout FlatReader) {
        let index = Int(flat.word())
        self = index == 0 ? .breathe(style: flat.next(), minutes: flat.next()) : Self.plain[index - 1]
    }

    func put(into flat: inout FlatWriter) {
        if case .breathe(let style, let minutes) = self {
            flat.put(0, style, minutes)
        } else {
            flat.put(1 + Self.plain.firstIndex(of: self)!)
        }
    }

    private static let plain: [HalvoLink] = [.focus, .today, .settings, .main]
}
