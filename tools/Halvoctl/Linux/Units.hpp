// The helper's units, as systemd tells of them.
#pragma once

#include <expected>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "tools/Halvoctl/Programs.hpp"

namespace halvo::control {

inline constexpr const char* systemctl = "/usr/bin/systemctl";

// The names of the units.
std::string socketUnit(const HelperIdentity& identity);
std::string serviceUnit(const HelperIdentity& identity);
// Starts the service at boot while a commitment is stored.
std::string resumeUnit(const HelperIdentity& identity);

// What `systemctl show` says of one unit; systemctl(1), org.freedesktop.systemd1(5).
struct Unit {
    // "loaded", "not-found", "masked", ...
    std::string load;
    // "active", "inactive", "failed", ...
    std::string active;
    // "enabled", "disabled", "static", ...; empty when there is no file.
    std::string enabled;
    // "success", or why it failed.
    std::string result;
    // "running", "listening", "auto-restart", ...
    std::string sub;

    [[nodiscard]] bool isLoaded() const { return load == "loaded"; }

    // It runs, or is about to.
    [[nodiscard]] bool isActive() const { return active == "active" || active == "activating"; }

    // There is something to stop, also of a unit whose file is gone or masked since it was started.
    [[nodiscard]] bool isUp() const {
        return !active.empty() && active != "inactive" && active != "failed";
    }

    // It ended, and systemd starts it again in a moment; active too.
    [[nodiscard]] bool isRestarting() const { return sub.starts_with("auto-restart"); }

    bool operator==(const Unit&) const = default;
};

struct Units {
    Unit socket;
    Unit service;
    Unit resume;
};

// The units of `identity`, or why they cannot be told. Takes at most 10 seconds.
std::expected<Units, std::string> readUnits(const HelperIdentity& identity, Programs& programs);

// What a unit is asked for with `systemctl show`, by name.
using Properties = std::map<std::string, std::string>;

// The properties that `output` of `systemctl show` gives of each unit, at least one, in its order:
// a line each, and an empty line before the next unit. Other lines count for nothing.
std::vector<Properties> parseProperties(const std::string& output);

// The units that `output` of `systemctl show` tells of, by name.
std::map<std::string, Unit> parseUnits(const std::string& output);

}  // namespace halvo::control
