// swift-tools-version: 6.2
import PackageDescription

// The rules and formats of the records are those of HalvoShared, which CMake builds: on a Mac the xcframework in build/,
// on Linux a shared library, whose folder scripts/swift-test names to the linker.
#if os(Linux)
let bridge = Target.systemLibrary(name: "HalvoRecordsC", path: "HalvoShared/C")
let otherSystems = ["macOS"]
#else
let bridge = Target.binaryTarget(name: "HalvoRecordsC", path: "build/HalvoRecords.xcframework")
let otherSystems: [String] = []
#endif

let package = Package(
    name: "Halvo",
    platforms: [.macOS("26.0")],
    products: [
        .library(name: "HalvoRecords", targets: ["HalvoRecords"]),
        .library(name: "HalvoHelperClient", targets: ["HalvoHelperClient"]),
    ],
    targets: [
        bridge,
        .target(
            name: "HalvoRecords",
            dependencies: ["HalvoRecordsC"],
            path: "HalvoKit/Sources/HalvoRecords",
            linkerSettings: [
                .linkedLibrary("HalvoRecordsC", .when(platforms: [.linux])),
                .linkedLibrary("c++", .when(platforms: [.macOS])),
            ]),
        .testTarget(
            name: "HalvoRecordsTests", dependencies: ["HalvoRecords"], path: "HalvoKit/Tests/HalvoRecordsTests"),
        .target(name: "HalvoHelperClient", path: "HalvoKit/Sources/HalvoHelperClient", exclude: otherSystems),
        .testTarget(
            name: "HalvoHelperClientTests", dependencies: ["HalvoHelperClient"],
            path: "HalvoKit/Tests/HalvoHelperClientTests"),
    ],
    swiftLanguageModes: [.v6]
)
