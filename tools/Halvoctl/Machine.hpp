// Everything that the commands look at and change, so that tests can hand them another machine.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/FileFlags.hpp"
#include "HalvoHelperCore/HelperClock.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/SessionProbe.hpp"
#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {

// Borrows all, for as long as it is used. Main thread only.
struct Machine {
    HelperIdentity identity;
    // The path of the helper's own executable.
    std::string helper;
    // Where the store keeps its file.
    std::string stateFile;
    // The file that one release at a time holds.
    std::string releaseLock;
    // The folder in which bundles are looked for.
    std::string applications = "/Applications";
    bool isRoot{};
    HelperClock& clock;
    FileFlags& flags;
    CommitmentStore& store;
    SessionProbe& session;
    Service& service;
    Programs& programs;
    // The name of a user, if there is such a one.
    std::function<std::optional<std::string>(std::uint32_t uid)> userName;
};

}  // namespace halvo::control
