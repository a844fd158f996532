import Foundation
@testable import HalvoRecords
import Testing

/// Links beside Foundation's URL and URLComponents.
struct LinkTests {
    private let starts = ["", "://", "//", "halvo://", "halvo://breathe", "halvo://breathe?style=", "//today"]
    private let pieces = """
        halvo : // / ? # & = % %41 %zz %2 + - @ ; breathe focus today settings main Focus style minutes style= \
        style=box minutes=5 minutes=-3 minutes=+7 minutes=+-7 minutes=007 9223372036854775807 9223372036854775808 \
        é [ ] [::1] \\ ^ | " < ` { ' ! $ * ( ~ _ . :80 %C3%A9 %FF %00 %26 %3D %2B %2F ann@ 日 xn--
        """.split(separator: " ").map(String.init) + [" ", "\t", "\n", "\0", "\u{7f}"]

    @Test func agreeExceptAsListed() throws {
        var random = Random()
        var seen: Set<Pattern> = []
        for _ in 0..<20_000 {
            var text = random.one(of: starts)
            for _ in 0..<(random.next() % 7) { text += random.one(of: pieces) }
            let link = HalvoLink(text: text)
            if link != foundation(text) {
                seen.insert(try #require(pattern(text, link), "\(text.debugDescription): \(link)"))
            }
            let scheme = random.one(of: ["halvo", "H", "x+y-1.z"])
            try #require(link.url(scheme: scheme).absoluteString == url(link, scheme))
            try #require(HalvoLink(url: link.url(scheme: scheme)) == link)
        }
        #expect(seen == [.escapes, .zeroByte, .notURL])
    }

    private func pattern(_ text: String, _ link: HalvoLink) -> Pattern? {
        if text.contains(/%[0-9A-Fa-f]{2}/), link == foundation(readable(text)) { return .escapes }
        guard link == .main else { return nil }
        return text.contains("\0") ? .zeroByte : text.contains(/^:|^[^\/?#]*\/\/[^\/?#]*@[^\/?#]*@/) ? .notURL : nil
    }

    /// The text with escapes for what cannot stand in a URL and for each "%" that belongs to none.
    private func readable(_ text: String) -> String {
        let valid = CharacterSet.urlQueryAllowed.union(CharacterSet(charactersIn: "%#"))
        return text.replacing(/%(?![0-9A-Fa-f]{2})/, with: "%25").addingPercentEncoding(withAllowedCharacters: valid)!
    }

    /// The link of a text as Foundation reads it.
    private func foundation(_ text: String) -> HalvoLink {
        let url = URL(string: text)
        switch url?.host(percentEncoded: true) {
        case "breathe":
            let items = url.flatMap { URLComponents(url: $0, resolvingAgainstBaseURL: false)?.queryItems } ?? []
            let values = Dictionary(items.map { ($0.name, $0.value) }) { first, _ in first }
            return .breathe(style: values["style"] ?? nil, minutes: (values["minutes"] ?? nil).flatMap { Int($0) })
        case "focus": return .focus
        case "today": return .today
        case "settings": return .settings
        default: return .main
        }
    }

    /// The link's URL as Foundation writes it.
    private func url(_ link: HalvoLink, _ scheme: String) -> String? {
        var url = URLComponents()
        (url.scheme, url.host) = (scheme, "\(link)")
        if case .breathe(let style, let minutes) = link {
            url.host = "breathe"
            let items = [("style", style), ("minutes", minutes.map(String.init))].filter { $1 != nil }
            url.queryItems = items.isEmpty ? nil : items.map(URLQueryItem.init)
        }
        return url.url?.absoluteString
    }

    @Test func haveNoURLUnderWhatIsNoScheme() {
        #expect(HalvoLink.today.url(scheme: "1") == URL(string: "file:///"))
    }
}
