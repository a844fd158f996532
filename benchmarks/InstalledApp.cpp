#include "benchmarks/InstalledApp.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "benchmarks/CannotMeasure.hpp"

namespace halvo::benchmark {
namespace {

namespace fs = std::filesystem;

std::uint32_t idFromEnvironment(const char* name) {
    const char* text = std::getenv(name);
    if (text == nullptr) {
        throw CannotMeasure(std::string(name) +
                            " is not set: start this with benchmarks/run, in a private machine");
    }
    return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

constexpr const char* info =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
    <key>CFBundleExecutable</key><string>Halvo</string>
    <key>CFBundleIdentifier</key><string>)" HALVO_APP_BUNDLE_ID R"(</string>
    <key>HalvoTeamID</key><string>)" HALVO_TEAM_ID R"(</string>
</dict></plist>
)";

}  // namespace

InstalledApp::InstalledApp(const Places& places) : person_(idFromEnvironment("HALVO_UID")) {
    const std::uint32_t group = idFromEnvironment("HALVO_APP_GID");
    fs::create_directories(fs::path(executable()).parent_path());
    std::ofstream(bundle() + "/Contents/Info.plist") << info;
    fs::copy_file(places.programs + "/StatusClient", executable());
    // The other way round would lose the bit: chown(2).
    require(chown(executable().c_str(), 0, group) == 0, "chown");
    constexpr mode_t setGroupID = 02755;
    require(chmod(executable().c_str(), setGroupID) == 0, "chmod");
}

std::unique_ptr<Child> InstalledApp::start(std::optional<int> processor) const {
    return std::make_unique<Child>(Child::How{{executable()}, person_, processor});
}

}  // namespace halvo::benchmark
