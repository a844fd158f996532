// swift-tools-version: 6.2
import PackageDescription

let package = Package(name: "Judge", targets: [.testTarget(name: "Judge", path: "Tests")])
