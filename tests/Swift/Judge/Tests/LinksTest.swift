import Foundation
import Testing

struct LinksTest {
    private let starts = ["", "://", "//", "halvo://", "halvo://breathe", "halvo://breathe?style=", "//today"]
    private let pieces = """
        halvo : // / ? # & = % %41 %zz %2 + - @ ; breathe focus today settings main Focus style minutes style= \
        style=box minutes=5 minutes=-3 minutes=+7 minutes=+-7 minutes=007 9223372036854775807 9223372036854775808 \
        é [ ] [::1] \\ ^ | " < ` { ' ! $ * ( ~ _ . :80 %C3%A9 %FF %00 %26 %3D %2B %2F ann@ 日 xn--
        """.split(separator: " ").map(String.init) + [" ", "\t", "\n", "\0", "\u{7f}"]

    @Test func agreeExceptAsListed() throws {
        let ours = try Ours()
        var random = Random(state: 12)
        var seen: Set<Pattern> = []
        for _ in 0..<20_000 {
            var text = random.one(of: starts)
            for _ in 0..<(random.next() % 7) { text += random.one(of: pieces) }
            let scheme = random.one(of: ["halvo", "H", "x+y-1.z"])
            let answer = try ours.answer("link", Data("\(scheme)\n\(text)".utf8))
            if answer != foundation(text, scheme) {
                seen.insert(try #require(pattern(text, scheme, answer), "\(text.debugDescription): \(answer)"))
            }
        }
        #expect(seen == [.escapes, .zeroByte, .notURL])
    }

    private func pattern(_ text: String, _ scheme: String, _ answer: String) -> Pattern? {
        if text.contains(/%[0-9A-Fa-f]{2}/), answer == foundation(readable(text), scheme) { return .escapes }
        guard answer == "\(scheme)://main" else { return nil }
        return text.contains("\0") ? .zeroByte : text.contains(/^:|^[^\/?#]*\/\/[^\/?#]*@[^\/?#]*@/) ? .notURL : nil
    }

    /// The text with escapes for what cannot stand in a URL and for each "%" that belongs to none.
    private func readable(_ text: String) -> String {
        let valid = CharacterSet.urlQueryAllowed.union(CharacterSet(charactersIn: "%#"))
        return text.replacing(/%(?![0-9A-Fa-f]{2})/, with: "%25").addingPercentEncoding(withAllowedCharacters: valid)!
    }

    /// What JudgeAnswers answers.
    private func foundation(_ text: String, _ scheme: String) -> String {
        let url = URL(string: text)
        let items = url.flatMap { URLComponents(url: $0, resolvingAgainstBaseURL: false)?.queryItems } ?? []
        let values = Dictionary(items.map { ($0.name, $0.value) }) { first, _ in first }
        let host = url?.host(percentEncoded: true) ?? ""
        let name = ["breathe", "focus", "today", "settings"].contains(host) ? host : "main"
        let style = name == "breathe" ? values["style"] ?? nil : nil
        let minutes = name == "breathe" ? (values["minutes"] ?? nil).flatMap { Int($0) } : nil
        var link = URLComponents()
        link.scheme = scheme
        link.host = name
        let written = [("style", style), ("minutes", minutes.map(String.init))].filter { $1 != nil }
        link.queryItems = written.isEmpty ? nil : written.map(URLQueryItem.init)
        return link.url?.absoluteString ?? "file:///"
    }
}
