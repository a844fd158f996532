// What the compiler needs of Objective-C's runtime to check @objc.
public struct Selector {
    public init(_ name: String) {}
}

public class Protocol {
    public init() {}
}
