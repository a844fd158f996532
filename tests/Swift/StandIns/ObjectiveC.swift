// What the compiler needs of Objective-C's runtime to check @objc and #selector.
public struct Selector: ExpressibleByStringLiteral, Sendable {
    public init(stringLiteral value: String) {}
    public init(_ name: String) {}
}

public class Protocol {
    public init() {}
}
